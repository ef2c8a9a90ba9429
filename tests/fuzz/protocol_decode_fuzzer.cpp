// Every input is one frame as the service receives it. Decoding must never
// crash or throw, and whatever decodes must survive encode and decode again.
#include <tethrix/protocol/fuzz_decode.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return tethrix::protocol::fuzzDecode(data, size);
}
