// One load of a remote PNG or JPEG image: download with libcurl and decode on
// a resource loader thread, texture on the loop's thread.
#ifndef ZARVO_DATASOURCE_LOAD_IMAGE_TASK_H
#define ZARVO_DATASOURCE_LOAD_IMAGE_TASK_H

#include <zarvo/image.h>
#include <zarvo/resource_manager.h>

#include <curl/curl.h>

#include <memory>
#include <sstream>
#include <string>

namespace zarvo {

class LoadImageTask : public ResourceManager::LoadTask {
public:
    enum class ImageType : int { Jpg = 0, Png = 1, Unsupported = 2 };

    /// Starts nothing; the resource manager drives the stages.
    LoadImageTask(const std::string& url, Domain* domain);
    ~LoadImageTask() override;

    /// Downloads the body into dataStream. HTTP error statuses are not
    /// failures: their body goes on to be decoded like any other.
    void loadFunction(const ResourceLoaderThreadContext* context) override;
    /// Decodes the body, recognised by its content.
    void finishFunction(const ResourceLoaderThreadContext* context) override;
    /// Makes the texture, once; null if an earlier stage failed.
    std::shared_ptr<Resource> getResult() override;

    static bool isPngImage(const std::string& data);
    /// Start and end marker both: a JPEG followed by anything is not one.
    static bool isJpgImage(const std::string& data);
    static ImageType detectImageType(const std::string& data);

private:
    std::string url;
    Domain* domain;
    CURLcode transferResult;
    std::ostringstream dataStream;
    std::unique_ptr<BitmapImage> image;
    std::shared_ptr<Texture> texture;
    ZvcMemoryManager* memoryManager;
};

}  // namespace zarvo

#endif
