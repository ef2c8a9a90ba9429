// What the PNG and JPEG fuzz targets share: one input is one file as the
// resource loader hands it to a decoder. A decode ends in an image that
// keeps the limits or in std::runtime_error; anything else is a finding.
#ifndef ZARVO_TESTS_FUZZ_IMAGE_DECODE_FUZZ_H
#define ZARVO_TESTS_FUZZ_IMAGE_DECODE_FUZZ_H

#include <zarvo/image.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <stdexcept>

namespace zarvo {
namespace fuzz {

using Decoder = std::unique_ptr<BitmapImage> (*)(ZvcInputStream*, string_view);

inline int decodeImage(Decoder decode, const std::uint8_t* data, std::size_t size) {
    // Small limits keep each run fast; the checks are the same at any size.
    static const ImageDecodeLimits limits = [] {
        ImageDecodeLimits small;
        small.maxSide = 2048;
        small.maxPixelBytes = std::uint64_t(4) << 20;
        small.maxJpegScans = 32;
        setImageDecodeLimits(small);
        return small;
    }();
    if (size > std::numeric_limits<std::uint32_t>::max()) {
        return 0;
    }
    ZvcInputStream stream(data, static_cast<std::uint32_t>(size));
    std::unique_ptr<BitmapImage> image;
    try {
        image = decode(&stream, "fuzz");
    } catch (const std::runtime_error&) {
        return 0;
    }
    const std::uint64_t bytes =
        std::uint64_t(image->getWidth()) * image->getHeight() * BitmapImage::bytesPerPixel(image->getFormat());
    if (image->getWidth() > limits.maxSide || image->getHeight() > limits.maxSide || bytes > limits.maxPixelBytes ||
        bytes != image->getPixels().size() || stream.position > stream.length) {
        std::abort();
    }
    image->premultiplyAlpha();
    if (image->getPixels().size() != bytes) {
        std::abort();
    }
    return 0;
}

}  // namespace fuzz
}  // namespace zarvo

#endif
