// The host's PNG decoder. libpng refuses a chunk whose CRC is wrong, which
// would stop almost every mutation at the first chunk it touches, so the
// CRCs of the input are made right before it is decoded.
#include "image_decode_fuzz.h"

#include <vector>

namespace {

std::uint32_t crc32(const std::uint8_t* bytes, std::size_t length) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < length; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

std::uint32_t readBigEndian(const std::uint8_t* at) {
    return (std::uint32_t(at[0]) << 24) | (std::uint32_t(at[1]) << 16) | (std::uint32_t(at[2]) << 8) | at[3];
}

void fixChunkCrcs(std::vector<std::uint8_t>& png) {
    std::size_t at = 8;  // after the signature
    while (png.size() - at >= 12) {
        const std::uint32_t length = readBigEndian(&png[at]);
        if (length > png.size() - at - 12) {
            return;
        }
        const std::uint32_t crc = crc32(&png[at + 4], length + 4);
        for (int i = 0; i < 4; ++i) {
            png[at + 8 + length + i] = static_cast<std::uint8_t>(crc >> (24 - 8 * i));
        }
        at += 12 + length;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> png(data, data + size);
    if (png.size() >= 8) {
        fixChunkCrcs(png);
    }
    return zarvo::fuzz::decodeImage(&zarvo::imageLoadPNG, png.data(), png.size());
}
