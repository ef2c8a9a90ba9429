// Images and textures: decoding a memory buffer into a bitmap, and a texture
// resource made from it.
#ifndef ZARVO_IMAGE_H
#define ZARVO_IMAGE_H

#include <zarvo/resource.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace zarvo {

/// The engine's allocator handle; this engine allocates from the heap.
class ZvcMemoryManager {};

/// A readable stream over bytes, here always over a memory buffer that the
/// caller keeps alive until zvcInputStreamDelete.
class ZvcInputStream {
public:
    ZvcInputStream(const void* data, std::uint32_t length)
        : data(static_cast<const std::uint8_t*>(data)),
          length(length) {}
    const std::uint8_t* data;
    std::uint32_t length;
    std::uint32_t position = 0;
};

/// Gives 0 and a new stream in `stream`; a non-zero code and null otherwise.
/// `endianness` 0 is little-endian.
int zvcInputStreamCreateFromMemory(ZvcMemoryManager* memoryManager, const void* data, std::uint32_t length,
                                   int endianness, ZvcInputStream** stream);
void zvcInputStreamDelete(ZvcInputStream* stream);

/// Decoded pixels, rows top down, without padding.
class BitmapImage {
public:
    enum class Format : int { RGB8 = 0, RGBA8 = 1, Luminance8 = 2, LuminanceAlpha8 = 3 };

    BitmapImage(std::uint32_t width, std::uint32_t height, Format format, std::vector<std::uint8_t> pixels);

    std::uint32_t getWidth() const { return width; }
    std::uint32_t getHeight() const { return height; }
    Format getFormat() const { return format; }
    bool isPremultiplied() const { return premultiplied; }
    const std::vector<std::uint8_t>& getPixels() const { return pixels; }
    static unsigned int bytesPerPixel(Format format);
    static const char* formatName(Format format);

    /// Multiplies colour by alpha, once; formats without alpha are left alone.
    /// After preparePremultiplied() this only swaps in the prepared pixels.
    void premultiplyAlpha();
    /// Host side: does the work of premultiplyAlpha() now and keeps the
    /// result aside, so that the later call, on the loop's thread, costs
    /// nothing. The decoders call it on the loader thread. An image with
    /// alpha below 255 holds a second copy of its pixels until then.
    void preparePremultiplied();

private:
    std::uint32_t width;
    std::uint32_t height;
    Format format;
    bool premultiplied = false;
    bool premultipliedPrepared = false;
    std::vector<std::uint8_t> pixels;
    std::vector<std::uint8_t> preparedPixels;  // empty when premultiplying changes nothing
};

/// Host side: what the decoders accept. Past a limit a decoder throws
/// std::runtime_error that names it, before it allocates for the pixels.
/// Shared by all threads; docs/limits.md lists the defaults.
struct ImageDecodeLimits {
    /// Encoded bytes handed to one decoder.
    std::uint64_t maxInputBytes = std::uint64_t(16) << 20;
    /// Width and height, each.
    std::uint32_t maxSide = 4096;
    /// Decoded bytes: width x height x bytes per pixel of the result.
    std::uint64_t maxPixelBytes = std::uint64_t(32) << 20;
    /// Scans of one JPEG (a progressive file has about ten).
    std::uint32_t maxJpegScans = 64;
};
ImageDecodeLimits getImageDecodeLimits();
void setImageDecodeLimits(const ImageDecodeLimits& limits);

/// Decoders. Throw std::runtime_error for corrupt or truncated data.
std::unique_ptr<BitmapImage> imageLoadPNG(ZvcInputStream* stream, string_view name);
std::unique_ptr<BitmapImage> imageLoadJPEG(ZvcInputStream* stream, string_view name);

/// A texture. There is no GPU here: the texture keeps its pixels.
class Texture : public Resource {
public:
    struct CreateInfo2D {
        explicit CreateInfo2D(std::unique_ptr<BitmapImage> image);
        std::unique_ptr<BitmapImage> image;
        /// How the engine is to keep the texture's memory; the engine's number.
        std::uint32_t memoryPolicy = 0;
    };

    Texture(Domain* domain, string_view name, std::unique_ptr<BitmapImage> image, std::uint32_t memoryPolicy);
    ~Texture() override;

    static std::shared_ptr<Texture> create(Domain* domain, CreateInfo2D& createInfo, string_view name);

    const Metaclass* getDynamicMetaclass() const override;
    std::size_t getCPUMemoryUsage() const override;
    const BitmapImage& getImage() const { return *image; }
    std::uint32_t getMemoryPolicy() const { return memoryPolicy; }

private:
    std::unique_ptr<BitmapImage> image;
    std::uint32_t memoryPolicy;
};

}  // namespace zarvo

#endif
