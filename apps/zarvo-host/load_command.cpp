// load: one resource URL through the engine's resource manager, as a UI node
// asking for an image would.

#include "commands.h"
#include "engine_host.h"

#include <zarvo/image.h>
#include <zarvo/resource_manager.h>

#include <chrono>
#include <iostream>
#include <unordered_set>

namespace zarvo::host {

namespace {

const std::chrono::milliseconds defaultLoadLimit(30000);
// The load's own limit counts from when a loader thread takes it up.
const std::chrono::milliseconds loadLimitMargin(1000);

}  // namespace

int runLoad(const CommandLine& line) {
    std::string url;
    std::chrono::milliseconds limit = defaultLoadLimit;
    for (std::size_t i = 0; i < line.rest.size(); ++i) {
        if (line.rest[i] == "--timeout-ms") {
            limit = std::chrono::milliseconds(parseCount(line.rest[i], optionValue(line.rest, i)));
        } else if (url.empty() && line.rest[i].rfind("--", 0) != 0) {
            url = line.rest[i];
        } else {
            throw UsageError("unexpected argument " + line.rest[i] + " for load");
        }
    }
    if (url.empty()) {
        throw UsageError("load needs a resource URL");
    }

    EngineHost engine(line.source.pluginPath, line.source.serviceUrl);
    ResourceManager* resources = engine.domain().getResourceManager();
    // The resource manager gives the load up at the limit, and leaves a
    // transfer that never ends to its thread: the program still exits.
    ResourceManager::Limits limits = resources->getLimits();
    limits.loadTimeout = limit;
    resources->setLimits(limits);
    bool finished = false;
    resources->acquireResourcesAsync(std::unordered_set<std::string>{url}, [&finished]() { finished = true; });
    if (!engine.loop().runUntil([&finished]() { return finished; }, limit + loadLimitMargin)) {
        throw std::runtime_error("loading " + url + " did not finish within " + std::to_string(limit.count()) + " ms");
    }
    auto texture = std::dynamic_pointer_cast<Texture>(resources->acquireLoadedResource(url));
    if (!texture) {
        throw std::runtime_error("could not load " + url + " (the log lines above say why)");
    }
    const BitmapImage& image = texture->getImage();
    std::cout << "width " << image.getWidth() << "\nheight " << image.getHeight() << "\nformat "
              << BitmapImage::formatName(image.getFormat()) << "\n";
    return 0;
}

}  // namespace zarvo::host
