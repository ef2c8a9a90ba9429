#include <zarvo/image.h>
#include <zarvo/metaclass.h>
#include <zarvo/testkit/test_host.h>

#include <zarvo/testkit/sample_images.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarvo {

using namespace zarvo::testkit;
namespace {

using testkit::encodeJpeg;
using testkit::encodePng;
using testkit::PngOptions;
using testkit::solidPixels;
using Format = BitmapImage::Format;
using Pixels = std::vector<std::uint8_t>;

struct StreamDelete {
    void operator()(ZvcInputStream* stream) const { zvcInputStreamDelete(stream); }
};
using Stream = std::unique_ptr<ZvcInputStream, StreamDelete>;

Stream openStream(const std::string& data) {
    ZvcInputStream* stream = nullptr;
    EXPECT_EQ(0, zvcInputStreamCreateFromMemory(nullptr, data.data(), static_cast<std::uint32_t>(data.size()), 0,
                                                &stream));
    return Stream(stream);
}

std::unique_ptr<BitmapImage> decodePng(const std::string& data) {
    return imageLoadPNG(openStream(data).get(), "");
}

std::unique_ptr<BitmapImage> decodeJpeg(const std::string& data) {
    return imageLoadJPEG(openStream(data).get(), "");
}

std::uint32_t crc32(const std::string& bytes, std::size_t begin, std::size_t end) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = begin; i < end; ++i) {
        crc ^= static_cast<unsigned char>(bytes[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

void putBigEndian(std::string& bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes[at + i] = static_cast<char>((value >> (24 - 8 * i)) & 0xFF);
    }
}

/// The PNG with other dimensions in its header, the header's CRC made right.
std::string withPngSize(std::string png, std::uint32_t width, std::uint32_t height) {
    // Signature (8), IHDR length and type (8), then width and height.
    putBigEndian(png, 16, width);
    putBigEndian(png, 20, height);
    putBigEndian(png, 29, crc32(png, 12, 29));
    return png;
}

PngOptions pngOptions(int colourType, int bitDepth = 8, bool interlaced = false) {
    PngOptions options;
    options.colourType = colourType;
    options.bitDepth = bitDepth;
    options.interlaced = interlaced;
    return options;
}

Pixels gradient(std::uint32_t width, std::uint32_t height) {
    Pixels pixels;
    for (std::uint32_t y = 0; y < height; ++y) {
        for (std::uint32_t x = 0; x < width; ++x) {
            pixels.insert(pixels.end(), {static_cast<std::uint8_t>(x * 30), static_cast<std::uint8_t>(y * 30),
                                         static_cast<std::uint8_t>(x + y)});
        }
    }
    return pixels;
}

struct PngCase {
    const char* name;
    PngOptions options;
    std::uint32_t width;
    std::uint32_t height;
    Pixels raw;
    Format format;
    Pixels expected;
};

std::vector<PngCase> pngCases() {
    PngOptions palette = pngOptions(PNG_COLOR_TYPE_PALETTE);
    palette.palette = {{1, 2, 3}, {4, 5, 6}};
    PngOptions paletteWithAlpha = palette;
    paletteWithAlpha.paletteAlpha = {0x11, 0x22};
    return {
        {"rgb", pngOptions(PNG_COLOR_TYPE_RGB), 2, 2, solidPixels(4, {10, 20, 30}), Format::RGB8,
         solidPixels(4, {10, 20, 30})},
        {"rgba", pngOptions(PNG_COLOR_TYPE_RGB_ALPHA), 2, 2, solidPixels(4, {10, 20, 30, 40}), Format::RGBA8,
         solidPixels(4, {10, 20, 30, 40})},
        {"grey", pngOptions(PNG_COLOR_TYPE_GRAY), 2, 2, solidPixels(4, {77}), Format::RGB8,
         solidPixels(4, {77, 77, 77})},
        {"grey with alpha", pngOptions(PNG_COLOR_TYPE_GRAY_ALPHA), 2, 2, solidPixels(4, {77, 200}), Format::RGBA8,
         solidPixels(4, {77, 77, 77, 200})},
        {"palette", palette, 2, 2, solidPixels(4, {1}), Format::RGB8, solidPixels(4, {4, 5, 6})},
        {"palette with alpha", paletteWithAlpha, 2, 2, solidPixels(4, {1}), Format::RGBA8,
         solidPixels(4, {4, 5, 6, 0x22})},
        {"16-bit rgb", pngOptions(PNG_COLOR_TYPE_RGB, 16), 2, 2, solidPixels(4, {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}),
         Format::RGB8, solidPixels(4, {0x12, 0x56, 0x9A})},
        // One byte per row of two 1-bit samples: white, black.
        {"1-bit grey", pngOptions(PNG_COLOR_TYPE_GRAY, 1), 2, 2, {0x80, 0x80}, Format::RGB8,
         {255, 255, 255, 0, 0, 0, 255, 255, 255, 0, 0, 0}},
        {"interlaced", pngOptions(PNG_COLOR_TYPE_RGB, 8, true), 8, 8, gradient(8, 8), Format::RGB8, gradient(8, 8)},
    };
}

TEST(ImageLoadPngTest, ExpandsEveryLayoutToEightBitRgbOrRgba) {
    for (const PngCase& sample : pngCases()) {
        SCOPED_TRACE(sample.name);
        const auto image = decodePng(encodePng(sample.width, sample.height, sample.raw, sample.options));
        ASSERT_NE(nullptr, image);
        EXPECT_EQ(sample.width, image->getWidth());
        EXPECT_EQ(sample.height, image->getHeight());
        EXPECT_EQ(sample.format, image->getFormat());
        EXPECT_FALSE(image->isPremultiplied());
        EXPECT_EQ(sample.expected, image->getPixels());
        // The decoder prepares the premultiplied pixels ahead; they are
        // those that premultiplying the straight ones gives.
        BitmapImage straight(sample.width, sample.height, sample.format, sample.expected);
        straight.premultiplyAlpha();
        image->premultiplyAlpha();
        EXPECT_EQ(straight.getPixels(), image->getPixels());
    }
}

TEST(ImageLoadPngTest, EveryTruncationThrowsRuntimeError) {
    const std::string files[] = {
        encodePng(8, 8, gradient(8, 8)),
        encodePng(8, 8, gradient(8, 8), pngOptions(PNG_COLOR_TYPE_RGB, 8, true)),
    };
    for (const std::string& file : files) {
        for (std::size_t length = 0; length < file.size(); ++length) {
            SCOPED_TRACE(length);
            EXPECT_THROW(decodePng(file.substr(0, length)), std::runtime_error);
        }
    }
}

/// Sets decode limits for one scope.
class DecodeLimits {
public:
    explicit DecodeLimits(const ImageDecodeLimits& limits) : saved(getImageDecodeLimits()) {
        setImageDecodeLimits(limits);
    }
    ~DecodeLimits() { setImageDecodeLimits(saved); }

private:
    ImageDecodeLimits saved;
};

/// A palette PNG of 8192x8192 one-bit pixels, all the same: a few KB that
/// would expand to 256 MiB of RGBA.
std::string paletteBomb() {
    PngOptions options = pngOptions(PNG_COLOR_TYPE_PALETTE, 1);
    options.palette = {{1, 2, 3}, {4, 5, 6}};
    options.paletteAlpha = {0x80};
    return encodePng(8192, 8192, Pixels(8192 * 1024, 0), options);
}

/// A progressive JPEG that sends each AC coefficient of each component in a
/// scan of its own: 190 scans, each a pass over the image.
std::string manyScansJpeg() {
    jpeg_compress_struct compress;
    jpeg_error_mgr errors;
    compress.err = jpeg_std_error(&errors);
    jpeg_create_compress(&compress);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&compress, &buffer, &size);
    compress.image_width = 16;
    compress.image_height = 16;
    compress.input_components = 3;
    compress.in_color_space = JCS_RGB;
    jpeg_set_defaults(&compress);
    std::vector<jpeg_scan_info> scans;
    scans.push_back({3, {0, 1, 2, 0}, 0, 0, 0, 0});
    for (int component = 0; component < 3; ++component) {
        for (int coefficient = 1; coefficient < 64; ++coefficient) {
            scans.push_back({1, {component, 0, 0, 0}, coefficient, coefficient, 0, 0});
        }
    }
    compress.scan_info = scans.data();
    compress.num_scans = static_cast<int>(scans.size());
    jpeg_start_compress(&compress, TRUE);
    const Pixels pixels = gradient(16, 16);
    while (compress.next_scanline < compress.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(pixels.data() + compress.next_scanline * 16 * 3);
        jpeg_write_scanlines(&compress, &row, 1);
    }
    jpeg_finish_compress(&compress);
    jpeg_destroy_compress(&compress);
    std::string file(reinterpret_cast<const char*>(buffer), size);
    std::free(buffer);
    return file;
}

TEST(ImageDecodeLimitsTest, ImagesPastALimitAreRefusedBeforeTheirPixelsAreAllocated) {
    const std::string bomb = paletteBomb();
    ASSERT_LT(bomb.size(), 16u * 1024u);
    const std::string smallPng = encodePng(2, 2, solidPixels(4, {1, 2, 3}));
    const std::string smallJpeg = encodeJpeg(32, 32, gradient(32, 32));
    ImageDecodeLimits defaults;
    ImageDecodeLimits tight;
    tight.maxInputBytes = 50;
    tight.maxPixelBytes = 1000;
    struct Case {
        const char* name;
        std::string file;
        bool jpeg;
        ImageDecodeLimits limits;
        const char* reason;
    } cases[] = {
        {"palette bomb", bomb, false, defaults, "image size 8192x8192 has a side longer than the limit of 4096"},
        {"png over the pixel bytes", withPngSize(smallPng, 4096, 4096), false, defaults,
         "needs 50331648 bytes of pixels, more than the limit of 33554432"},
        {"png over the input bytes", encodePng(16, 16, gradient(16, 16)), false, tight, "more than the limit of 50"},
        {"jpeg with a long side", encodeJpeg(5000, 1, solidPixels(5000, {9, 9, 9})), true, defaults,
         "side longer than the limit of 4096"},
        {"jpeg over the pixel bytes", smallJpeg, true, [&] { auto l = tight; l.maxInputBytes = 1 << 20; return l; }(),
         "needs 3072 bytes of pixels, more than the limit of 1000"},
        {"jpeg with too many scans", manyScansJpeg(), true, defaults, "more than 64 scans"},
    };
    for (const Case& sample : cases) {
        SCOPED_TRACE(sample.name);
        const DecodeLimits scope(sample.limits);
        try {
            sample.jpeg ? decodeJpeg(sample.file) : decodePng(sample.file);
            ADD_FAILURE() << "decoded";
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), ::testing::HasSubstr(sample.reason));
        }
    }
    // Within the limits the same kinds decode.
    EXPECT_NO_THROW(decodeJpeg(smallJpeg));
    const DecodeLimits scope([] {
        ImageDecodeLimits many;
        many.maxJpegScans = 200;
        return many;
    }());
    EXPECT_NO_THROW(decodeJpeg(manyScansJpeg()));
}

TEST(ImageLoadPngTest, HeaderClaimingMoreThanTheDataCanHoldThrows) {
    const std::string file = encodePng(2, 2, solidPixels(4, {1, 2, 3}));
    EXPECT_THROW(decodePng(withPngSize(file, 2000, 2000)), std::runtime_error);
}

TEST(ImageLoadPngTest, ErrorNamesTheImage) {
    const std::string file = encodePng(2, 2, solidPixels(4, {1, 2, 3}));
    try {
        imageLoadPNG(openStream(file.substr(0, 20)).get(), "cover.png");
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), ::testing::HasSubstr("'cover.png'"));
    }
}

TEST(ImageLoadJpegTest, DecodesColourGreyAndProgressiveToRgb) {
    const Pixels colour = solidPixels(16 * 8, {200, 40, 90});
    const Pixels grey = solidPixels(16 * 8, {120});
    struct Case {
        const char* name;
        std::string file;
        Pixels expectedPixel;
    } cases[] = {
        {"colour", encodeJpeg(16, 8, colour), {200, 40, 90}},
        {"grey", encodeJpeg(16, 8, grey, 1), {120, 120, 120}},
        {"progressive", encodeJpeg(16, 8, colour, 3, true), {200, 40, 90}},
    };
    for (const Case& sample : cases) {
        SCOPED_TRACE(sample.name);
        const auto image = decodeJpeg(sample.file);
        ASSERT_NE(nullptr, image);
        EXPECT_EQ(16u, image->getWidth());
        EXPECT_EQ(8u, image->getHeight());
        EXPECT_EQ(Format::RGB8, image->getFormat());
        ASSERT_EQ(16u * 8u * 3u, image->getPixels().size());
        // Lossy even at full quality: a flat colour comes back within a step or two.
        for (std::size_t i = 0; i < image->getPixels().size(); ++i) {
            ASSERT_NEAR(sample.expectedPixel[i % 3], image->getPixels()[i], 3) << "byte " << i;
        }
    }
}

TEST(ImageLoadJpegTest, EveryTruncationThrowsRuntimeError) {
    const std::string files[] = {
        encodeJpeg(16, 8, gradient(16, 8)),
        encodeJpeg(16, 8, gradient(16, 8), 3, true),
    };
    for (const std::string& file : files) {
        for (std::size_t length = 0; length < file.size(); ++length) {
            SCOPED_TRACE(length);
            EXPECT_THROW(decodeJpeg(file.substr(0, length)), std::runtime_error);
        }
    }
}

TEST(ImageLoadJpegTest, MarkersWithoutImageOrCorruptBytesNeverCrash) {
    EXPECT_THROW(decodeJpeg(std::string("\xFF\xD8\xFF\xD9", 4)), std::runtime_error);
    EXPECT_THROW(decodeJpeg("<html>not found</html>"), std::runtime_error);

    const std::string file = encodeJpeg(16, 8, gradient(16, 8));
    for (std::size_t at = 0; at < file.size(); ++at) {
        SCOPED_TRACE(at);
        std::string corrupt = file;
        corrupt[at] ^= 0xFF;
        try {
            decodeJpeg(corrupt);
        } catch (const std::runtime_error&) {
        }
    }
}

TEST(BitmapImageTest, PremultipliesAlphaOnceAndLeavesOpaqueFormatsAlone) {
    struct Case {
        Format format;
        Pixels pixels;
        Pixels expected;
    } cases[] = {
        {Format::RGBA8, {200, 100, 50, 128, 9, 8, 7, 255, 9, 8, 7, 0}, {100, 50, 25, 128, 9, 8, 7, 255, 0, 0, 0, 0}},
        {Format::LuminanceAlpha8, {200, 128, 200, 255, 200, 0}, {100, 128, 200, 255, 0, 0}},
        {Format::RGB8, {200, 100, 50, 1, 2, 3, 4, 5, 6}, {200, 100, 50, 1, 2, 3, 4, 5, 6}},
        {Format::Luminance8, {200, 100, 50}, {200, 100, 50}},
    };
    for (const Case& sample : cases) {
        SCOPED_TRACE(BitmapImage::formatName(sample.format));
        BitmapImage image(3, 1, sample.format, sample.pixels);
        image.premultiplyAlpha();
        image.premultiplyAlpha();
        EXPECT_TRUE(image.isPremultiplied());
        EXPECT_EQ(sample.expected, image.getPixels());
    }
}

}  // namespace
}  // namespace zarvo
