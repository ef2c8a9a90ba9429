// Small PNG and JPEG files made in memory, so that the tests carry no binary
// images and can make exactly the variant they need.
#ifndef ZARVO_TESTKIT_SAMPLE_IMAGES_H
#define ZARVO_TESTKIT_SAMPLE_IMAGES_H

#include <png.h>
// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>
#include <cstddef>
#include <cstdio>

#include <csetjmp>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarvo {
namespace testkit {

struct PngOptions {
    int colourType = PNG_COLOR_TYPE_RGB;
    int bitDepth = 8;
    bool interlaced = false;
    std::vector<png_color> palette;
    /// Alpha of the first palette entries (a tRNS chunk), if any.
    std::vector<png_byte> paletteAlpha;
};

namespace detail {

inline void appendPngData(png_structp png, png_bytep data, png_size_t length) {
    auto* out = static_cast<std::string*>(png_get_io_ptr(png));
    out->append(reinterpret_cast<const char*>(data), length);
}

inline void flushPngData(png_structp) {}

// Keeps only trivially destructible locals, as setjmp demands.
inline bool writePng(png_structp png, png_infop info, std::string* out, std::uint32_t width, std::uint32_t height,
                     const PngOptions& options, png_bytepp rows) {
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    png_set_write_fn(png, out, &appendPngData, &flushPngData);
    png_set_IHDR(png, info, width, height, options.bitDepth, options.colourType,
                 options.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    if (!options.palette.empty()) {
        png_set_PLTE(png, info, options.palette.data(), static_cast<int>(options.palette.size()));
    }
    if (!options.paletteAlpha.empty()) {
        png_set_tRNS(png, info, options.paletteAlpha.data(), static_cast<int>(options.paletteAlpha.size()), nullptr);
    }
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, nullptr);
    return true;
}

}  // namespace detail

/// A PNG of `raw`, rows top down in the file's own sample layout (for 16
/// bits, big-endian samples; for depths below 8, packed bits).
inline std::string encodePng(std::uint32_t width, std::uint32_t height, const std::vector<std::uint8_t>& raw,
                             const PngOptions& options = PngOptions()) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    struct Release {
        png_structp& png;
        png_infop& info;
        ~Release() { png_destroy_write_struct(&png, &info); }
    } release{png, info};
    if (info == nullptr) {
        throw std::runtime_error("encodePng: out of memory");
    }
    const std::size_t stride = raw.size() / height;
    std::vector<png_bytep> rows(height);
    for (std::size_t row = 0; row < height; ++row) {
        rows[row] = const_cast<png_bytep>(raw.data() + row * stride);
    }
    std::string out;
    if (!detail::writePng(png, info, &out, width, height, options, rows.data())) {
        throw std::runtime_error("encodePng failed");
    }
    return out;
}

/// A JPEG of 8-bit RGB (`components` 3) or grey (1) pixels, rows top down.
inline std::string encodeJpeg(std::uint32_t width, std::uint32_t height, const std::vector<std::uint8_t>& pixels,
                              int components = 3, bool progressive = false) {
    jpeg_compress_struct compress;
    jpeg_error_mgr errors;
    compress.err = jpeg_std_error(&errors);
    jpeg_create_compress(&compress);
    struct Release {
        jpeg_compress_struct& compress;
        ~Release() { jpeg_destroy_compress(&compress); }
    } release{compress};

    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&compress, &buffer, &size);
    compress.image_width = width;
    compress.image_height = height;
    compress.input_components = components;
    compress.in_color_space = components == 3 ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_set_defaults(&compress);
    jpeg_set_quality(&compress, 100, TRUE);
    if (progressive) {
        jpeg_simple_progression(&compress);
    }
    jpeg_start_compress(&compress, TRUE);
    const std::size_t stride = static_cast<std::size_t>(width) * components;
    while (compress.next_scanline < compress.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(pixels.data() + compress.next_scanline * stride);
        jpeg_write_scanlines(&compress, &row, 1);
    }
    jpeg_finish_compress(&compress);
    const std::unique_ptr<unsigned char, void (*)(void*)> owned(buffer, &std::free);
    return std::string(reinterpret_cast<const char*>(buffer), size);
}

/// `count` copies of one pixel.
inline std::vector<std::uint8_t> solidPixels(std::size_t count, std::vector<std::uint8_t> pixel) {
    std::vector<std::uint8_t> pixels;
    pixels.reserve(count * pixel.size());
    for (std::size_t i = 0; i < count; ++i) {
        pixels.insert(pixels.end(), pixel.begin(), pixel.end());
    }
    return pixels;
}

/// A 4x2 RGBA PNG with alpha 0x80 everywhere, and a 4x2 JPEG in mid grey:
/// what the loading tests fetch.
inline std::string samplePng() {
    PngOptions options;
    options.colourType = PNG_COLOR_TYPE_RGB_ALPHA;
    return encodePng(4, 2, solidPixels(8, {0xFF, 0x40, 0x00, 0x80}), options);
}

inline std::string sampleJpeg() {
    return encodeJpeg(4, 2, solidPixels(8, {0x80, 0x80, 0x80}));
}

}  // namespace testkit
}  // namespace zarvo

#endif
