#include <zarvo/image.h>
#include <zarvo/testkit/sample_images.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarvo {
namespace {

using testkit::encodeJpeg;
using testkit::encodePng;
using testkit::PngOptions;
using testkit::solidPixels;
using Format = BitmapImage::Format;
using Pixels = std::vector<std::uint8_t>;

std::unique_ptr<BitmapImage> decode(const std::string& data, bool jpeg = false, const char* name = "") {
    ZvcInputStream stream(data.data(), static_cast<std::uint32_t>(data.size()));
    return jpeg ? imageLoadJPEG(&stream, name) : imageLoadPNG(&stream, name);
}

/// The PNG with other dimensions in its header, the header's CRC made right.
std::string withPngSize(std::string png, std::uint32_t width, std::uint32_t height) {
    const auto put = [&png](std::size_t at, std::uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            png[at + i] = static_cast<char>((value >> (24 - 8 * i)) & 0xFF);
        }
    };
    // Signature (8), IHDR length and type (8), then width and height.
    put(16, width);
    put(20, height);
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = 12; i < 29; ++i) {
        crc ^= static_cast<unsigned char>(png[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    put(29, ~crc);
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

TEST(ImageLoadPngTest, ExpandsEveryLayoutToEightBitRgbOrRgba) {
    PngOptions palette = pngOptions(PNG_COLOR_TYPE_PALETTE);
    palette.palette = {{1, 2, 3}, {4, 5, 6}};
    PngOptions paletteWithAlpha = palette;
    paletteWithAlpha.paletteAlpha = {0x11, 0x22};
    struct Case {
        const char* name;
        PngOptions options;
        std::uint32_t side;
        Pixels raw;
        Format format;
        Pixels expected;
    } cases[] = {
        {"rgba", pngOptions(PNG_COLOR_TYPE_RGB_ALPHA), 2, solidPixels(4, {10, 20, 30, 40}), Format::RGBA8,
         solidPixels(4, {10, 20, 30, 40})},
        {"grey", pngOptions(PNG_COLOR_TYPE_GRAY), 2, solidPixels(4, {77}), Format::RGB8, solidPixels(4, {77, 77, 77})},
        {"grey with alpha", pngOptions(PNG_COLOR_TYPE_GRAY_ALPHA), 2, solidPixels(4, {77, 200}), Format::RGBA8,
         solidPixels(4, {77, 77, 77, 200})},
        {"palette", palette, 2, solidPixels(4, {1}), Format::RGB8, solidPixels(4, {4, 5, 6})},
        {"palette with alpha", paletteWithAlpha, 2, solidPixels(4, {1}), Format::RGBA8,
         solidPixels(4, {4, 5, 6, 0x22})},
        {"16-bit rgb", pngOptions(PNG_COLOR_TYPE_RGB, 16), 2, solidPixels(4, {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}),
         Format::RGB8, solidPixels(4, {0x12, 0x56, 0x9A})},
        // One byte per row of two 1-bit samples: white, black.
        {"1-bit grey",
         pngOptions(PNG_COLOR_TYPE_GRAY, 1),
         2,
         {0x80, 0x80},
         Format::RGB8,
         {255, 255, 255, 0, 0, 0, 255, 255, 255, 0, 0, 0}},
        {"interlaced", pngOptions(PNG_COLOR_TYPE_RGB, 8, true), 8, gradient(8, 8), Format::RGB8, gradient(8, 8)},
    };
    for (const Case& sample : cases) {
        SCOPED_TRACE(sample.name);
        const auto image = decode(encodePng(sample.side, sample.side, sample.raw, sample.options));
        ASSERT_NE(nullptr, image);
        EXPECT_EQ(sample.side, image->getWidth());
        EXPECT_EQ(sample.side, image->getHeight());
        EXPECT_EQ(sample.format, image->getFormat());
        EXPECT_FALSE(image->isPremultiplied());
        EXPECT_EQ(sample.expected, image->getPixels());
        // The decoder prepares the premultiplied pixels ahead; they are
        // those that premultiplying the straight ones gives.
        BitmapImage straight(sample.side, sample.side, sample.format, sample.expected);
        straight.premultiplyAlpha();
        image->premultiplyAlpha();
        EXPECT_EQ(straight.getPixels(), image->getPixels());
    }
}

TEST(ImageLoadJpegTest, DecodesColourGreyAndProgressiveToRgb) {
    const Pixels colour = solidPixels(16 * 8, {200, 40, 90});
    struct Case {
        const char* name;
        std::string file;
        Pixels expectedPixel;
    } cases[] = {
        {"colour", encodeJpeg(16, 8, colour), {200, 40, 90}},
        {"grey", encodeJpeg(16, 8, solidPixels(16 * 8, {120}), 1), {120, 120, 120}},
        {"progressive", encodeJpeg(16, 8, colour, 3, true), {200, 40, 90}},
    };
    for (const Case& sample : cases) {
        SCOPED_TRACE(sample.name);
        const auto image = decode(sample.file, true);
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

TEST(ImageDecodeTest, EveryTruncationThrowsRuntimeErrorNamingTheImage) {
    const std::pair<std::string, bool> files[] = {
        {encodePng(8, 8, gradient(8, 8), pngOptions(PNG_COLOR_TYPE_RGB, 8, true)), false},
        {encodeJpeg(16, 8, gradient(16, 8)), true},
        {encodeJpeg(16, 8, gradient(16, 8), 3, true), true},
    };
    for (const auto& file : files) {
        for (std::size_t length = 0; length < file.first.size(); ++length) {
            SCOPED_TRACE(length);
            try {
                decode(file.first.substr(0, length), file.second, "cover.png");
                ADD_FAILURE() << "decoded";
            } catch (const std::runtime_error& error) {
                EXPECT_THAT(error.what(), ::testing::HasSubstr("'cover.png'"));
            }
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

TEST(ImageDecodeTest, ImagesPastALimitAreRefusedBeforeTheirPixelsAreAllocated) {
    // A palette PNG of 8192x8192 one-bit pixels, all the same: a few KB that
    // would expand to 256 MiB of RGBA.
    PngOptions bombOptions = pngOptions(PNG_COLOR_TYPE_PALETTE, 1);
    bombOptions.palette = {{1, 2, 3}, {4, 5, 6}};
    bombOptions.paletteAlpha = {0x80};
    const std::string bomb = encodePng(8192, 8192, Pixels(8192 * 1024, 0), bombOptions);
    ASSERT_LT(bomb.size(), 16u * 1024u);
    const std::string smallPng = encodePng(2, 2, solidPixels(4, {1, 2, 3}));
    const std::string smallJpeg = encodeJpeg(32, 32, gradient(32, 32));
    const std::string progressive = encodeJpeg(16, 8, gradient(16, 8), 3, true);
    // Input bytes, side, pixel bytes, JPEG scans.
    const auto limited = [](std::uint64_t input, std::uint64_t pixels, std::uint32_t scans) {
        return ImageDecodeLimits{input, 4096, pixels, scans};
    };
    const ImageDecodeLimits defaults;
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
        {"png claiming more than its data", withPngSize(smallPng, 2000, 2000), false, defaults,
         "data too short for the image size"},
        {"png over the input bytes", encodePng(16, 16, gradient(16, 16)), false, limited(50, 1000, 64),
         "more than the limit of 50"},
        {"jpeg with a long side", encodeJpeg(5000, 1, solidPixels(5000, {9, 9, 9})), true, defaults,
         "side longer than the limit of 4096"},
        {"jpeg over the pixel bytes", smallJpeg, true, limited(1 << 20, 1000, 64),
         "needs 3072 bytes of pixels, more than the limit of 1000"},
        {"jpeg with too many scans", progressive, true, limited(1 << 20, 1 << 20, 5), "more than 5 scans"},
    };
    for (const Case& sample : cases) {
        SCOPED_TRACE(sample.name);
        const DecodeLimits scope(sample.limits);
        try {
            decode(sample.file, sample.jpeg);
            ADD_FAILURE() << "decoded";
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), ::testing::HasSubstr(sample.reason));
        }
    }
    // Within the limits the same kinds decode.
    EXPECT_NO_THROW(decode(smallJpeg, true));
    EXPECT_NO_THROW(decode(progressive, true));
}

TEST(BitmapImageTest, PremultipliesAlphaOnceAndLeavesOpaqueFormatsAlone) {
    struct Case {
        Format format;
        Pixels pixels, expected;
    } cases[] = {
        {Format::RGBA8, {200, 100, 50, 128, 9, 8, 7, 255, 9, 8, 7, 0}, {100, 50, 25, 128, 9, 8, 7, 255, 0, 0, 0, 0}},
        {Format::LuminanceAlpha8, {200, 128, 200, 255, 200, 0}, {100, 128, 200, 255, 0, 0}},
        {Format::RGB8, {200, 100, 50, 1, 2, 3, 4, 5, 6}, {200, 100, 50, 1, 2, 3, 4, 5, 6}},
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
