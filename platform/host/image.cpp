#include <zarvo/image.h>

#include <zarvo/metaclass.h>

#include <png.h>
// jpeglib.h needs size_t and FILE declared before it.
#include <jerror.h>
#include <jpeglib.h>
#include <cstddef>
#include <cstdio>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

namespace zarvo {

int zvcInputStreamCreateFromMemory(ZvcMemoryManager*, const void* data, std::uint32_t length, int endianness,
                                   ZvcInputStream** stream) {
    if (stream == nullptr) {
        return 1;
    }
    *stream = nullptr;
    if ((data == nullptr && length != 0) || (endianness != 0 && endianness != 1)) {
        return 1;
    }
    // The C-style interface hands out a raw pointer; zvcInputStreamDelete
    // takes it back.
    *stream = new ZvcInputStream(data, length);
    return 0;
}

void zvcInputStreamDelete(ZvcInputStream* stream) {
    delete stream;
}

BitmapImage::BitmapImage(std::uint32_t width, std::uint32_t height, Format format, std::vector<std::uint8_t> pixels)
    : width(width),
      height(height),
      format(format),
      pixels(std::move(pixels)) {
    const std::size_t expected = static_cast<std::size_t>(width) * height * bytesPerPixel(format);
    if (this->pixels.size() != expected) {
        throw std::invalid_argument("BitmapImage: " + std::to_string(this->pixels.size()) + " bytes given for " +
                                    std::to_string(width) + "x" + std::to_string(height) + " " + formatName(format) +
                                    " pixels, which need " + std::to_string(expected));
    }
}

unsigned int BitmapImage::bytesPerPixel(Format format) {
    switch (format) {
    case Format::RGB8:
        return 3;
    case Format::RGBA8:
        return 4;
    case Format::Luminance8:
        return 1;
    case Format::LuminanceAlpha8:
        return 2;
    }
    return 0;
}

const char* BitmapImage::formatName(Format format) {
    switch (format) {
    case Format::RGB8:
        return "RGB8";
    case Format::RGBA8:
        return "RGBA8";
    case Format::Luminance8:
        return "Luminance8";
    case Format::LuminanceAlpha8:
        return "LuminanceAlpha8";
    }
    return "unknown";
}

namespace {

bool hasAlpha(BitmapImage::Format format) {
    return format == BitmapImage::Format::RGBA8 || format == BitmapImage::Format::LuminanceAlpha8;
}

/// Colour times alpha, rounded, so that full alpha keeps the colour exactly.
void multiplyByAlpha(std::vector<std::uint8_t>& pixels, unsigned int stride) {
    const unsigned int colourChannels = stride - 1;
    for (std::size_t pixel = 0; pixel + stride <= pixels.size(); pixel += stride) {
        const unsigned int alpha = pixels[pixel + colourChannels];
        for (unsigned int channel = 0; channel < colourChannels; ++channel) {
            pixels[pixel + channel] = static_cast<std::uint8_t>((pixels[pixel + channel] * alpha + 127) / 255);
        }
    }
}

bool everyAlphaIsFull(const std::vector<std::uint8_t>& pixels, unsigned int stride) {
    for (std::size_t alpha = stride - 1; alpha < pixels.size(); alpha += stride) {
        if (pixels[alpha] != 0xFF) {
            return false;
        }
    }
    return true;
}

}  // namespace

void BitmapImage::premultiplyAlpha() {
    if (premultiplied) {
        return;
    }
    premultiplied = true;
    if (premultipliedPrepared) {
        if (!preparedPixels.empty()) {
            pixels.swap(preparedPixels);
            std::vector<std::uint8_t>().swap(preparedPixels);
        }
        return;
    }
    if (hasAlpha(format)) {
        multiplyByAlpha(pixels, bytesPerPixel(format));
    }
}

void BitmapImage::preparePremultiplied() {
    if (premultiplied || premultipliedPrepared) {
        return;
    }
    premultipliedPrepared = true;
    const unsigned int stride = bytesPerPixel(format);
    // Opaque pixels are premultiplied as they are, and need no copy.
    if (!hasAlpha(format) || everyAlphaIsFull(pixels, stride)) {
        return;
    }
    preparedPixels = pixels;
    multiplyByAlpha(preparedPixels, stride);
}

namespace {

std::mutex decodeLimitsMutex;
ImageDecodeLimits decodeLimits;

}  // namespace

ImageDecodeLimits getImageDecodeLimits() {
    std::lock_guard<std::mutex> lock(decodeLimitsMutex);
    return decodeLimits;
}

void setImageDecodeLimits(const ImageDecodeLimits& limits) {
    std::lock_guard<std::mutex> lock(decodeLimitsMutex);
    decodeLimits = limits;
}

namespace {

// Deflate cannot compress better than about 1032 to 1, so a PNG whose
// image needs more raw bytes than that allows of its file is truncated or
// lying about its size; refusing it early saves allocating for it.
constexpr std::uint64_t maxDeflateRatio = 1032;
// Ancillary chunks (text, colour profiles) are not used; this bounds what
// libpng allocates for one of them, compressed ones inflated.
constexpr png_alloc_size_t maxPngChunkBytes = 1 << 20;

std::string decodeError(const char* kind, string_view name, const std::string& reason) {
    std::string text = std::string("Cannot decode ") + kind + " image";
    if (!name.empty()) {
        text += " '" + std::string(name.data(), name.size()) + "'";
    }
    return text + ": " + reason;
}

void checkStream(ZvcInputStream* stream, const char* kind, string_view name) {
    if (stream == nullptr) {
        throw std::runtime_error(decodeError(kind, name, "no input stream"));
    }
    if (stream->position > stream->length) {
        throw std::runtime_error(decodeError(kind, name, "stream position beyond its end"));
    }
}

void checkInputSize(std::uint64_t length, const ImageDecodeLimits& limits, const char* kind, string_view name) {
    if (length > limits.maxInputBytes) {
        throw std::runtime_error(decodeError(
            kind, name,
            std::to_string(length) + " bytes of data, more than the limit of " + std::to_string(limits.maxInputBytes)));
    }
}

/// Refuses an image whose decoded pixels would pass the limits; called
/// before anything is allocated for them.
void checkImageSize(std::uint64_t width, std::uint64_t height, unsigned int bytesPerPixel,
                    const ImageDecodeLimits& limits, const char* kind, string_view name) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    if (width == 0 || height == 0) {
        throw std::runtime_error(decodeError(kind, name, "unsupported image size " + size));
    }
    if (width > limits.maxSide || height > limits.maxSide) {
        throw std::runtime_error(decodeError(
            kind, name,
            "image size " + size + " has a side longer than the limit of " + std::to_string(limits.maxSide)));
    }
    const std::uint64_t bytes = width * height * bytesPerPixel;
    if (bytes > limits.maxPixelBytes) {
        throw std::runtime_error(decodeError(kind, name,
                                             "image size " + size + " needs " + std::to_string(bytes) +
                                                 " bytes of pixels, more than the limit of " +
                                                 std::to_string(limits.maxPixelBytes)));
    }
}

// --- PNG -------------------------------------------------------------------
//
// libpng reports errors by longjmp. The functions that call setjmp keep only
// trivially destructible locals, and every C++ object lives outside them, so
// that the jump skips no destructor.

struct PngErrorState {
    char message[256] = "unknown error";
};

class PngReader {
public:
    explicit PngReader(ZvcInputStream* stream) : stream(stream) {
        png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &errorState, &PngReader::onError, &PngReader::onWarning);
        if (png == nullptr) {
            return;
        }
        info = png_create_info_struct(png);
    }
    ~PngReader() { png_destroy_read_struct(&png, info != nullptr ? &info : nullptr, nullptr); }
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;

    bool valid() const { return png != nullptr && info != nullptr; }

    png_structp png = nullptr;
    png_infop info = nullptr;
    ZvcInputStream* stream;
    PngErrorState errorState;

private:
    static void onError(png_structp png, png_const_charp message) {
        auto* state = static_cast<PngErrorState*>(png_get_error_ptr(png));
        std::snprintf(state->message, sizeof state->message, "%s", message != nullptr ? message : "unknown error");
        png_longjmp(png, 1);
    }
    // Warnings (such as a questionable colour profile) do not stop a decode.
    static void onWarning(png_structp, png_const_charp) {}
};

void readPngData(png_structp png, png_bytep out, png_size_t length) {
    auto* stream = static_cast<ZvcInputStream*>(png_get_io_ptr(png));
    if (stream->length - stream->position < length) {
        png_error(png, "unexpected end of data");
    }
    std::memcpy(out, stream->data + stream->position, length);
    stream->position += static_cast<std::uint32_t>(length);
}

struct PngLayout {
    png_uint_32 width = 0;
    png_uint_32 height = 0;
    std::uint64_t sourceRowBytes = 0;
    unsigned int channels = 0;
};

/// Reads the header and sets up expansion to 8-bit RGB or RGBA; allocates
/// nothing that depends on the image's size.
bool readPngHeader(PngReader& reader, PngLayout& layout) {
    png_structp png = reader.png;
    png_infop info = reader.info;
    if (setjmp(png_jmpbuf(png))) {
        return false;
    }
    png_set_read_fn(png, reader.stream, &readPngData);
    png_set_chunk_malloc_max(png, maxPngChunkBytes);
    png_read_info(png, info);

    layout.width = png_get_image_width(png, info);
    layout.height = png_get_image_height(png, info);
    layout.sourceRowBytes = png_get_rowbytes(png, info);
    const int colourType = png_get_color_type(png, info);
    const bool transparency = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
    layout.channels = (colourType & PNG_COLOR_MASK_ALPHA) != 0 || transparency ? 4 : 3;
    if (png_get_bit_depth(png, info) == 16) {
        png_set_strip_16(png);
    }
    if (colourType == PNG_COLOR_TYPE_PALETTE) {
        png_set_palette_to_rgb(png);
    }
    if (colourType == PNG_COLOR_TYPE_GRAY && png_get_bit_depth(png, info) < 8) {
        png_set_expand_gray_1_2_4_to_8(png);
    }
    if (transparency) {
        png_set_tRNS_to_alpha(png);
    }
    if (colourType == PNG_COLOR_TYPE_GRAY || colourType == PNG_COLOR_TYPE_GRAY_ALPHA) {
        png_set_gray_to_rgb(png);
    }
    png_set_interlace_handling(png);
    return true;
}

/// Applies the expansion; gives the channels it actually makes.
bool startPngRows(PngReader& reader, unsigned int& channels) {
    if (setjmp(png_jmpbuf(reader.png))) {
        return false;
    }
    png_read_update_info(reader.png, reader.info);
    channels = png_get_channels(reader.png, reader.info);
    return true;
}

bool readPngRows(PngReader& reader, png_bytepp rows) {
    if (setjmp(png_jmpbuf(reader.png))) {
        return false;
    }
    png_read_image(reader.png, rows);
    png_read_end(reader.png, nullptr);
    return true;
}

// --- JPEG ------------------------------------------------------------------
//
// libjpeg's error_exit must not return; ours jumps back to the setjmp of the
// stage that failed, with the same discipline as for PNG.

struct JpegErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

class JpegReader {
public:
    JpegReader() {
        std::memset(&decompress, 0, sizeof decompress);
        std::memset(&errors, 0, sizeof errors);
        std::snprintf(errors.message, sizeof errors.message, "%s", "unknown error");
        decompress.err = jpeg_std_error(&errors.base);
        errors.base.error_exit = &JpegReader::onError;
        errors.base.emit_message = &JpegReader::onMessage;
    }
    ~JpegReader() { jpeg_destroy_decompress(&decompress); }
    JpegReader(const JpegReader&) = delete;
    JpegReader& operator=(const JpegReader&) = delete;

    jpeg_decompress_struct decompress;
    JpegErrorManager errors;

private:
    static void onError(j_common_ptr info) {
        auto* manager = reinterpret_cast<JpegErrorManager*>(info->err);
        manager->base.format_message(info, manager->message);
        std::longjmp(manager->jump, 1);
    }
    // The memory source meets the end of a truncated file with a warning
    // and invents an end marker; a truncated image is an error here. Other
    // warnings (stray bytes between markers) are common in files that show
    // fine and are ignored.
    static void onMessage(j_common_ptr info, int level) {
        if (level == -1 && info->err->msg_code == JWRN_JPEG_EOF) {
            onError(info);
        }
    }
};

// What libjpeg may allocate besides the output: a progressive file keeps
// every coefficient of the image (two bytes a sample), so twice the pixel
// bytes and some room for tables and buffers.
long jpegWorkingMemory(const ImageDecodeLimits& limits) {
    const std::uint64_t bytes = 2 * limits.maxPixelBytes + (std::uint64_t(16) << 20);
    return static_cast<long>(std::min<std::uint64_t>(bytes, std::numeric_limits<long>::max()));
}

/// Counts the scans as libjpeg reads them and stops the decode past the
/// limit: each scan of a progressive file costs a pass over the image.
struct JpegScanLimit {
    jpeg_progress_mgr base;
    unsigned int maxScans = 0;

    static void onProgress(j_common_ptr info) {
        auto* limit = reinterpret_cast<JpegScanLimit*>(info->progress);
        auto* decompress = reinterpret_cast<j_decompress_ptr>(info);
        if (decompress->input_scan_number <= 0 ||
            static_cast<unsigned int>(decompress->input_scan_number) <= limit->maxScans) {
            return;
        }
        auto* manager = reinterpret_cast<JpegErrorManager*>(info->err);
        std::snprintf(manager->message, sizeof manager->message, "more than %u scans, the limit", limit->maxScans);
        std::longjmp(manager->jump, 1);
    }
};

bool readJpegHeader(JpegReader& reader, JpegScanLimit& scans, const ImageDecodeLimits& limits, const std::uint8_t* data,
                    unsigned long length) {
    if (setjmp(reader.errors.jump)) {
        return false;
    }
    jpeg_create_decompress(&reader.decompress);
    reader.decompress.mem->max_memory_to_use = jpegWorkingMemory(limits);
    scans.base.progress_monitor = &JpegScanLimit::onProgress;
    scans.maxScans = limits.maxJpegScans;
    reader.decompress.progress = &scans.base;
    jpeg_mem_src(&reader.decompress, data, length);
    jpeg_read_header(&reader.decompress, TRUE);
    reader.decompress.out_color_space = JCS_RGB;
    return true;
}

bool readJpegRows(JpegReader& reader, std::uint8_t* pixels, std::size_t stride) {
    if (setjmp(reader.errors.jump)) {
        return false;
    }
    jpeg_decompress_struct& decompress = reader.decompress;
    // Asking for RGB output makes a colour space that cannot become RGB
    // fail here, so that every row has three components.
    jpeg_start_decompress(&decompress);
    while (decompress.output_scanline < decompress.output_height) {
        JSAMPROW row = pixels + static_cast<std::size_t>(decompress.output_scanline) * stride;
        jpeg_read_scanlines(&decompress, &row, 1);
    }
    jpeg_finish_decompress(&decompress);
    return true;
}

}  // namespace

std::unique_ptr<BitmapImage> imageLoadPNG(ZvcInputStream* stream, string_view name) {
    checkStream(stream, "PNG", name);
    const ImageDecodeLimits limits = getImageDecodeLimits();
    checkInputSize(stream->length - stream->position, limits, "PNG", name);
    PngReader reader(stream);
    if (!reader.valid()) {
        throw std::runtime_error(decodeError("PNG", name, "out of memory"));
    }
    PngLayout layout;
    if (!readPngHeader(reader, layout)) {
        throw std::runtime_error(decodeError("PNG", name, reader.errorState.message));
    }
    checkImageSize(layout.width, layout.height, layout.channels, limits, "PNG", name);
    const std::uint64_t rawBytes = static_cast<std::uint64_t>(layout.height) * (layout.sourceRowBytes + 1);
    if (rawBytes / maxDeflateRatio > stream->length) {
        throw std::runtime_error(decodeError("PNG", name, "data too short for the image size"));
    }
    unsigned int channels = 0;
    if (!startPngRows(reader, channels)) {
        throw std::runtime_error(decodeError("PNG", name, reader.errorState.message));
    }
    if (channels != layout.channels) {
        throw std::runtime_error(decodeError("PNG", name, "unexpected channel count " + std::to_string(channels)));
    }

    const std::size_t stride = static_cast<std::size_t>(layout.width) * layout.channels;
    std::vector<std::uint8_t> pixels(stride * layout.height);
    std::vector<png_bytep> rows(layout.height);
    for (std::size_t row = 0; row < rows.size(); ++row) {
        rows[row] = pixels.data() + row * stride;
    }
    if (!readPngRows(reader, rows.data())) {
        throw std::runtime_error(decodeError("PNG", name, reader.errorState.message));
    }
    const auto format = layout.channels == 4 ? BitmapImage::Format::RGBA8 : BitmapImage::Format::RGB8;
    auto image = std::make_unique<BitmapImage>(layout.width, layout.height, format, std::move(pixels));
    image->preparePremultiplied();
    return image;
}

std::unique_ptr<BitmapImage> imageLoadJPEG(ZvcInputStream* stream, string_view name) {
    checkStream(stream, "JPEG", name);
    const ImageDecodeLimits limits = getImageDecodeLimits();
    const std::uint8_t* data = stream->data + stream->position;
    const unsigned long length = stream->length - stream->position;
    if (length == 0) {
        throw std::runtime_error(decodeError("JPEG", name, "no data"));
    }
    checkInputSize(length, limits, "JPEG", name);
    JpegReader reader;
    JpegScanLimit scans{};
    if (!readJpegHeader(reader, scans, limits, data, length)) {
        throw std::runtime_error(decodeError("JPEG", name, reader.errors.message));
    }
    const std::uint32_t width = reader.decompress.image_width;
    const std::uint32_t height = reader.decompress.image_height;
    checkImageSize(width, height, 3, limits, "JPEG", name);

    const std::size_t stride = static_cast<std::size_t>(width) * 3;
    std::vector<std::uint8_t> pixels(stride * height);
    if (!readJpegRows(reader, pixels.data(), stride)) {
        throw std::runtime_error(decodeError("JPEG", name, reader.errors.message));
    }
    // The whole buffer belongs to the image: the source manager read what
    // it needed, which the stream does not otherwise learn.
    stream->position = stream->length - static_cast<std::uint32_t>(reader.decompress.src->bytes_in_buffer);
    return std::make_unique<BitmapImage>(width, height, BitmapImage::Format::RGB8, std::move(pixels));
}

namespace {

const Metaclass* textureMetaclass() {
    // Textures come from images, never from a name in a resource file.
    static const MetaclassAbstractImpl<Texture> metaclass("Zarvo.Texture", nullptr, true, {}, nullptr);
    return &metaclass;
}

}  // namespace

Texture::CreateInfo2D::CreateInfo2D(std::unique_ptr<BitmapImage> image) : image(std::move(image)) {}

Texture::Texture(Domain* domain, string_view name, std::unique_ptr<BitmapImage> image, std::uint32_t memoryPolicy)
    : Resource(domain, name),
      image(std::move(image)),
      memoryPolicy(memoryPolicy) {
    if (!this->image) {
        throw std::invalid_argument("A texture needs an image");
    }
    setLoaded(true);
}

Texture::~Texture() = default;

std::shared_ptr<Texture> Texture::create(Domain* domain, CreateInfo2D& createInfo, string_view name) {
    return std::make_shared<Texture>(domain, name, std::move(createInfo.image), createInfo.memoryPolicy);
}

const Metaclass* Texture::getDynamicMetaclass() const {
    return textureMetaclass();
}

std::size_t Texture::getCPUMemoryUsage() const {
    return sizeof(Texture) + sizeof(BitmapImage) + image->getPixels().capacity();
}

}  // namespace zarvo
