// A domain: the world one engine instance runs in, with its resource manager
// and its message loop.
#ifndef ZARVO_DOMAIN_H
#define ZARVO_DOMAIN_H

#include <map>
#include <memory>
#include <string>

namespace zarvo {

class ResourceManager;
class ZvuMessageDispatcher;

class Domain {
public:
    /// A domain whose loop runs on the steady clock.
    Domain();
    /// A domain on the given loop (tests pass one with a manual clock).
    explicit Domain(std::shared_ptr<ZvuMessageDispatcher> dispatcher);
    ~Domain();
    Domain(const Domain&) = delete;
    Domain& operator=(const Domain&) = delete;

    ResourceManager* getResourceManager() const;
    ZvuMessageDispatcher* getMessageDispatcher() const;

    /// Objects that live exactly as long as the domain, found by key. Other
    /// libraries keep their per-domain state here (the service client keeps
    /// its context). Attachments go first when the domain is destroyed, in
    /// reverse order of attaching, while loop and resource manager still live.
    std::shared_ptr<void> getAttachment(const std::string& key) const;
    void setAttachment(const std::string& key, std::shared_ptr<void> value);

private:
    std::shared_ptr<ZvuMessageDispatcher> dispatcher;
    std::unique_ptr<ResourceManager> resourceManager;
    std::map<std::string, std::shared_ptr<void>> attachments;
    std::map<unsigned long, std::string> attachmentOrder;
    unsigned long nextAttachment = 0;
};

}  // namespace zarvo

#endif
