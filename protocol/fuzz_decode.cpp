#include <tethrix/protocol/fuzz_decode.h>

#include <tethrix/protocol/codec.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace tethrix::protocol {

int fuzzDecode(const std::uint8_t* data, std::size_t size)
{
    std::string_view frame(reinterpret_cast<const char*>(data), size);
    Decoded first = decode(frame, maxResultFrameBytes);
    if (!first) return 0;
    std::string again = encode(*first.message);
    Decoded second = decode(again, maxResultFrameBytes);
    if (!second || *second.message != *first.message) {
        std::fprintf(stderr, "round trip changed a message: %s\n", again.c_str());
        std::abort();
    }
    return 0;
}

}  // namespace tethrix::protocol
