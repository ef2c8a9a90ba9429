#include "datasource/load_image_task.h"

#include <zarvo/domain.h>
#include <zarvo/log.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace zarvo {

namespace {

const char* const logCategory = "tethrix";

/// libcurl's write callback: appends the received bytes to the stream.
/// Returning less than was given makes libcurl abort the transfer.
/// The largest image body taken, as large as the host's decoders accept.
const unsigned long maxImageBodyBytes = 16UL * 1024 * 1024;

unsigned long writeDataBuffer(void* data, unsigned long size, unsigned long count, void* stream) {
    if (stream == nullptr) {
        return 0;
    }
    auto* out = static_cast<std::ostringstream*>(stream);
    const unsigned long length = size * count;
    // A body without end would hold the loader's memory until the host gives
    // up on the load: past the largest image a decoder takes, the data are
    // refused, which ends the transfer.
    const std::streamoff held = out->tellp();
    if (held >= 0 && static_cast<unsigned long>(held) + length > maxImageBodyBytes) {
        ZARVO_LOG_ERROR(logCategory, "Image transfer refused: its body passed {} bytes", maxImageBodyBytes);
        return 0;
    }
    out->write(static_cast<const char*>(data), static_cast<std::streamsize>(length));
    if (out->fail()) {
        return 0;
    }
    return length;
}

struct CurlEasyCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

struct InputStreamDelete {
    void operator()(ZvcInputStream* stream) const { zvcInputStreamDelete(stream); }
};

}  // namespace

LoadImageTask::LoadImageTask(const std::string& url, Domain* domain)
    : url(url),
      domain(domain),
      transferResult(CURLE_OK),
      memoryManager(domain->getResourceManager()->getMemoryManager()) {}

LoadImageTask::~LoadImageTask() = default;

void LoadImageTask::loadFunction(const ResourceLoaderThreadContext*) {
    std::unique_ptr<CURL, CurlEasyCleanup> curl(curl_easy_init());
    if (!curl) {
        transferResult = CURLE_FAILED_INIT;
        return;
    }
    const std::string requestUrl = url;
    curl_easy_setopt(curl.get(), CURLOPT_URL, requestUrl.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &writeDataBuffer);
    // An empty proxy also overrides any proxy named in the environment.
    curl_easy_setopt(curl.get(), CURLOPT_PROXY, "");
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &dataStream);

    if (requestUrl.compare(0, 5, "http:") == 0) {
        // Plain HTTP needs nothing more.
    } else if (requestUrl.compare(0, 6, "https:") == 0) {
        // Image servers on the target's network use certificates that the
        // target cannot verify; they are accepted as they are.
        curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    } else {
        // libcurl may still know the scheme; it decides.
        ZARVO_LOG_WARNING(logCategory, "Unsupported protocol for file request: {}", requestUrl);
    }

    const CURLcode result = curl_easy_perform(curl.get());
    curl.reset();
    if (result != CURLE_OK) {
        std::fprintf(stderr, "curl_easy_perform() failed on URL path: %s %s \n", curl_easy_strerror(result),
                     requestUrl.c_str());
    }
    transferResult = result;
}

void LoadImageTask::finishFunction(const ResourceLoaderThreadContext*) {
    if (transferResult != CURLE_OK) {
        ZARVO_LOG_WARNING(logCategory, "Failed to load file: {}", url);
        return;
    }
    const std::string data = dataStream.str();
    if (data.empty()) {
        return;
    }

    ZvcInputStream* rawStream = nullptr;
    zvcInputStreamCreateFromMemory(memoryManager, data.data(), static_cast<std::uint32_t>(data.size()), 0, &rawStream);
    const std::unique_ptr<ZvcInputStream, InputStreamDelete> stream(rawStream);
    try {
        switch (detectImageType(data)) {
        case ImageType::Png:
            image = imageLoadPNG(stream.get(), "");
            break;
        case ImageType::Jpg:
            image = imageLoadJPEG(stream.get(), "");
            break;
        case ImageType::Unsupported:
            ZARVO_LOG_ERROR(logCategory, "Loading image \"{}\" failed due to unsupported image type", url);
            break;
        }
    } catch (const std::runtime_error& error) {
        ZARVO_LOG_ERROR(logCategory, "Error while trying to read {}, reason: {}", url, error.what());
        image.reset();
    }
}

std::shared_ptr<Resource> LoadImageTask::getResult() {
    if (texture) {
        return texture;
    }
    if (!image) {
        ZARVO_LOG_ERROR(logCategory, "failed to create image {} from stream.", url);
        return texture;
    }
    // Here, not on the loader thread: this is the stage allowed to make
    // textures, and the premultiplied pixels are what the texture takes.
    image->premultiplyAlpha();
    Texture::CreateInfo2D createInfo(std::move(image));
    // The engine's policy number for keeping a texture's memory after upload.
    createInfo.memoryPolicy = 2;
    texture = Texture::create(domain, createInfo, "");
    return texture;
}

bool LoadImageTask::isPngImage(const std::string& data) {
    static const unsigned char signature[8] = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};
    if (data.size() < sizeof signature) {
        return false;
    }
    for (std::size_t i = 0; i < sizeof signature; ++i) {
        if (static_cast<unsigned char>(data[i]) != signature[i]) {
            return false;
        }
    }
    return true;
}

bool LoadImageTask::isJpgImage(const std::string& data) {
    if (data.size() < 4) {
        return false;
    }
    const auto byteAt = [&data](std::size_t index) { return static_cast<unsigned char>(data[index]); };
    const std::size_t last = data.size() - 1;
    return byteAt(0) == 0xFF && byteAt(1) == 0xD8 && byteAt(last - 1) == 0xFF && byteAt(last) == 0xD9;
}

LoadImageTask::ImageType LoadImageTask::detectImageType(const std::string& data) {
    if (isPngImage(data)) {
        return ImageType::Png;
    }
    if (isJpgImage(data)) {
        return ImageType::Jpg;
    }
    return ImageType::Unsupported;
}

}  // namespace zarvo
