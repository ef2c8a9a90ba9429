#include <zarvo/domain.h>

#include <zarvo/message_dispatcher.h>
#include <zarvo/resource_manager.h>

#include <utility>

namespace zarvo {

Domain::Domain() : Domain(std::make_shared<ZvuMessageDispatcher>()) {}

Domain::Domain(std::shared_ptr<ZvuMessageDispatcher> loop) : dispatcher(std::move(loop)) {
    if (!dispatcher) {
        dispatcher = std::make_shared<ZvuMessageDispatcher>();
    }
    resourceManager = std::make_unique<ResourceManager>(this);
}

Domain::~Domain() {
    // Attachments (such as the service client's context) may still use the
    // loop and the resources while they go, so they go first, newest first.
    for (auto it = attachmentOrder.rbegin(); it != attachmentOrder.rend(); ++it) {
        auto found = attachments.find(it->second);
        if (found == attachments.end()) {
            continue;
        }
        std::shared_ptr<void> value = std::move(found->second);
        attachments.erase(found);
        value.reset();
    }
    attachments.clear();
    resourceManager.reset();
}

ResourceManager* Domain::getResourceManager() const {
    return resourceManager.get();
}

ZvuMessageDispatcher* Domain::getMessageDispatcher() const {
    return dispatcher.get();
}

std::shared_ptr<void> Domain::getAttachment(const std::string& key) const {
    auto found = attachments.find(key);
    return found != attachments.end() ? found->second : nullptr;
}

void Domain::setAttachment(const std::string& key, std::shared_ptr<void> value) {
    // Replacing or removing an attachment forgets its old place in the order.
    for (auto it = attachmentOrder.begin(); it != attachmentOrder.end(); ++it) {
        if (it->second == key) {
            attachmentOrder.erase(it);
            break;
        }
    }
    std::shared_ptr<void> previous;
    auto found = attachments.find(key);
    if (found != attachments.end()) {
        previous = std::move(found->second);
        attachments.erase(found);
    }
    if (value) {
        attachments.emplace(key, std::move(value));
        attachmentOrder.emplace(nextAttachment++, key);
    }
    // The old value goes last, when the map is consistent again, in case its
    // destructor looks at the domain.
    previous.reset();
}

}  // namespace zarvo
