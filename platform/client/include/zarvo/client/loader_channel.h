// One DefaultContentLoader's line to the client core: it numbers the loader's
// queries and subscriptions, remembers which are open so that a stop can
// cancel them, and hands the answers to the loader's observers.
#ifndef ZARVO_CLIENT_LOADER_CHANNEL_H
#define ZARVO_CLIENT_LOADER_CHANNEL_H

#include <zarvo/client/transport.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace zarvo {

class DefaultContentLoader;
class MessageDispatcher;

namespace client {

class ClientCore;

/// Everything here runs on the loop. Owned by its loader; the core knows it
/// by a plain pointer between registerLoader and close.
class LoaderChannel : public std::enable_shared_from_this<LoaderChannel> {
public:
    /// `dispatcher` is the one the loader was made with; answers reach the
    /// observers through it.
    LoaderChannel(ClientCore& core, DefaultContentLoader& loader, MessageDispatcher* dispatcher);
    ~LoaderChannel();
    LoaderChannel(const LoaderChannel&) = delete;
    LoaderChannel& operator=(const LoaderChannel&) = delete;

    std::uint64_t getLoaderId() const { return loaderId; }

    void load(const ContentQueryArguments& arguments);
    void subscribe(const std::string& uri);
    /// Cancels open queries and subscriptions; what they would still deliver
    /// is dropped.
    void stop();
    /// The loader goes away: stop, and let go of loader and core.
    void close();

    // From the core; `sequence` is this loader's part of the id.
    void deliverResult(std::uint32_t sequence, QueryResult&& result);
    void deliverQueryError(std::uint32_t sequence, const std::string& reason);
    void deliverInvalidation(std::uint32_t sequence);
    void deliverRuntimeUpdate(std::uint32_t sequence, const std::string& address, const std::string& data);
    void deliverSubscriptionError(std::uint32_t sequence, const std::string& reason);
    /// The transport was replaced: what was asked of the old one is gone.
    void forgetRequests();
    /// The core goes away before the loader: from now on nothing is sent.
    void detachFromCore() { core = nullptr; }

    std::size_t openQueryCount() const { return openQueries.size(); }
    std::size_t subscriptionCount() const { return subscriptions.size(); }

private:
    /// Sent since the last stop, so still wanted.
    bool isLive(std::uint32_t sequence) const { return sequence >= liveFrom && sequence < nextSequence; }
    /// Runs `deliver` on the loader now, or through the loader's own
    /// dispatcher if it is not the core's, checking again there that
    /// `sequence` is still wanted.
    void toLoader(std::uint32_t sequence, std::function<void(DefaultContentLoader&)> deliver);

    ClientCore* core;
    DefaultContentLoader* loader;
    MessageDispatcher* dispatcher;
    std::uint32_t loaderId;
    std::uint32_t nextSequence = 0;
    std::uint32_t liveFrom = 0;
    /// Open queries and subscriptions by sequence number, with their URI for
    /// the log.
    std::map<std::uint32_t, std::string> openQueries;
    std::map<std::uint32_t, std::string> subscriptions;
};

}  // namespace client
}  // namespace zarvo

#endif
