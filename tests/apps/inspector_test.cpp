// The inspector's pieces that a browser test would show only as a broken
// picture or a page that falls behind: the PNG of a texture, and the bounds
// between a browser's connection and the loop.

#include "browser_channel.h"
#include "inspector_server.h"

#include <zarvo/image.h>

#include <gtest/gtest.h>

namespace zarvo {
namespace test {
namespace {

using host::BrowserChannel;
using host::ListWindow;

// One pixel as the texture holds it and as it decodes.
struct PngRow {
    int channels;
    bool premultiplied;
    std::vector<std::uint8_t> pixels;
    BitmapImage::Format format;
    std::vector<std::uint8_t> decoded;
};

TEST(InspectorImage, TexturesDecodeBackFromTheirPngWithStraightColour) {
    const std::vector<PngRow> rows = {
        // The decoder gives grey as colour.
        {1, false, {90}, BitmapImage::Format::RGB8, {90, 90, 90}},
        {2, true, {40, 128}, BitmapImage::Format::RGBA8, {80, 80, 80, 128}},
        {3, false, {10, 20, 30}, BitmapImage::Format::RGB8, {10, 20, 30}},
        {4, true, {50, 25, 0, 102}, BitmapImage::Format::RGBA8, {125, 63, 0, 102}},
        {4, true, {0, 0, 0, 0}, BitmapImage::Format::RGBA8, {0, 0, 0, 0}},
    };
    for (const PngRow& row : rows) {
        host::TexturePixels texture;
        texture.width = 2;
        texture.height = 1;
        texture.channels = row.channels;
        texture.premultiplied = row.premultiplied;
        texture.pixels = row.pixels;
        texture.pixels.insert(texture.pixels.end(), row.pixels.begin(), row.pixels.end());
        const std::string png = host::encodePng(texture);
        ZvcInputStream stream(png.data(), static_cast<std::uint32_t>(png.size()));
        const std::unique_ptr<BitmapImage> image = imageLoadPNG(&stream, "inspector.png");
        ASSERT_TRUE(image) << row.channels;
        EXPECT_EQ(image->getWidth(), 2u);
        EXPECT_EQ(image->getFormat(), row.format) << row.channels;
        std::vector<std::uint8_t> expected = row.decoded;
        expected.insert(expected.end(), row.decoded.begin(), row.decoded.end());
        EXPECT_EQ(image->getPixels(), expected) << row.channels;
    }
}

TEST(InspectorChannel, ABrowserPastItsBacklogIsClosedOnceAndSentNothingMore) {
    std::size_t delivered = 0;
    std::vector<std::string> closes;
    BrowserChannel channel([&delivered](std::string message) { delivered += message.size(); },
                           [&closes](std::string reason) { closes.push_back(reason); });
    const std::string half(host::maxBrowserBacklogBytes / 2, 'x');
    EXPECT_TRUE(channel.send(half));
    EXPECT_TRUE(channel.send(half));
    channel.written(half.size());  // one message reached the socket
    EXPECT_TRUE(channel.send(half));
    EXPECT_FALSE(channel.send("one byte too many"));
    EXPECT_FALSE(channel.send("x"));
    EXPECT_EQ(delivered, 3 * half.size());
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_NE(closes[0].find("did not keep up"), std::string::npos);
    EXPECT_TRUE(channel.isClosed());
}

TEST(InspectorChannel, OnlyTheLatestWindowOfEachListWaitsAndListsAreBounded) {
    BrowserChannel channel([](std::string) {}, [](std::string) {});
    for (std::uint32_t list = 0; list < host::maxViewsPerBrowser + 5; ++list) {
        channel.requestWindow(list, ListWindow{0, 10, false});
    }
    channel.requestWindow(3, ListWindow{5000, 20, true});
    const auto windows = channel.takeWindowRequests();
    EXPECT_EQ(windows.size(), host::maxViewsPerBrowser);
    EXPECT_EQ(windows.at(3).first, 5000u);
    EXPECT_TRUE(windows.at(3).jump);
    EXPECT_TRUE(channel.takeWindowRequests().empty());
}

}  // namespace
}  // namespace test
}  // namespace zarvo
