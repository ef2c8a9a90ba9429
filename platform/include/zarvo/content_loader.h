// Content loaders: they run queries and runtime data subscriptions against
// the service and hand the answers to their observers, on the loop.
#ifndef ZARVO_CONTENT_LOADER_H
#define ZARVO_CONTENT_LOADER_H

#include <zarvo/content_query.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zarvo {

class InterfaceDomain;
class MessageDispatcher;

namespace client {
class LoaderChannel;
}

class ContentLoader {
public:
    /// Receives a loader's answers. Not owned by the loader.
    class Observer {
    public:
        /// A result arrived; `result` is valid during the call only.
        virtual void onContentLoaded(ContentLoader* loader, ContentResult* result) = 0;
        /// What was loaded is no longer current.
        virtual void onContentInvalidated(ContentLoader* loader) = 0;
        /// An update of runtime data arrived, in the internalizer's format.
        virtual void onRuntimeDataUpdateReceived(ContentLoader* loader, const std::string& address,
                                                 const std::string& data) = 0;

    protected:
        ~Observer() = default;
    };

    /// Sends one query and returns at once.
    virtual void load(std::shared_ptr<ContentQueryArguments> arguments) = 0;
    /// Asks for the runtime data at `uri` and its updates.
    virtual void subscribeRuntimeData(const std::string& uri) = 0;
    /// Ends what the loader does: no answer arrives after it, until the next
    /// load or subscription.
    virtual void stop() = 0;
    virtual ~ContentLoader();

    void addObserver(Observer* observer);
    /// An observer removed during a delivery is not called again.
    void removeObserver(Observer* observer);
    std::size_t getObserverCount() const { return observers.size(); }

protected:
    void notifyContentLoaded(ContentResult& result);
    void notifyContentInvalidated();
    void notifyRuntimeDataUpdate(const std::string& address, const std::string& data);

private:
    bool isObserver(Observer* observer) const;
    /// Calls `notify` on each observer, as described in content_loader.cpp.
    template <typename Notify>
    void notifyObservers(Notify notify);
    std::vector<Observer*> observers;
    /// Cleared by the destructor; a delivery holds a copy to notice it.
    std::shared_ptr<bool> alive = std::make_shared<bool>(true);
};

/// The loader that talks to the service through the client library.
class DefaultContentLoader : public ContentLoader {
public:
    /// `domain` is the Client; answers are delivered through `dispatcher`.
    DefaultContentLoader(InterfaceDomain* domain, MessageDispatcher* dispatcher);
    ~DefaultContentLoader() override;

    void load(std::shared_ptr<ContentQueryArguments> arguments) override;
    void subscribeRuntimeData(const std::string& uri) override;
    void stop() override;

    /// Library side: the id under which the service knows this loader.
    std::uint64_t getLoaderId() const;

private:
    friend class client::LoaderChannel;
    std::shared_ptr<client::LoaderChannel> channel;
};

}  // namespace zarvo

#endif
