// Every input is one frame as the service receives it, and as a binary
// result frame as a client receives it. Decoding must never crash or throw,
// and whatever decodes must survive encode and a second decode unchanged; a
// violation aborts, which is what a fuzzer reports.
#include <tethrix/protocol/codec.h>
#include <tethrix/protocol/result_frame.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tethrix::protocol;
    std::string_view frame(reinterpret_cast<const char*>(data), size);
    std::string error;
    if (std::optional<Result> result = decodeResultFrame(frame, error)) {
        const std::string again = encodeResultFrame(*result);
        std::optional<Result> back = decodeResultFrame(again, error);
        if (!back || !(*back == *result)) {
            std::fprintf(stderr, "round trip changed a result frame: %s\n", error.c_str());
            std::abort();
        }
    }
    Decoded first = decode(frame, maxResultFrameBytes);
    if (!first)
        return 0;
    std::string again = encode(*first.message);
    Decoded second = decode(again, maxResultFrameBytes);
    if (!second || *second.message != *first.message) {
        std::fprintf(stderr, "round trip changed a message: %s\n", again.c_str());
        std::abort();
    }
    return 0;
}
