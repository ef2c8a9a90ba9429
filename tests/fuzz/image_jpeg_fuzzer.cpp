// The host's JPEG decoder, progressive files and their scan limit included.
#include "image_decode_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return zarvo::fuzz::decodeImage(&zarvo::imageLoadJPEG, data, size);
}
