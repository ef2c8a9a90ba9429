#include <zarvo/content_loader.h>

#include <zarvo/client.h>
#include <zarvo/client/client_core.h>
#include <zarvo/client/loader_channel.h>

#include <algorithm>
#include <stdexcept>

namespace zarvo {

void ContentLoader::addObserver(Observer* observer) {
    if (!observer || isObserver(observer)) {
        return;
    }
    observers.push_back(observer);
}

void ContentLoader::removeObserver(Observer* observer) {
    observers.erase(std::remove(observers.begin(), observers.end(), observer), observers.end());
}

bool ContentLoader::isObserver(Observer* observer) const {
    return std::find(observers.begin(), observers.end(), observer) != observers.end();
}

ContentLoader::~ContentLoader() {
    *alive = false;
}

// Each delivery walks a copy: an observer may add or remove observers, stop
// the loader, or destroy it, from within its callback. One that has been
// removed is not called any more, and once the loader is gone nobody is.
template <typename Notify>
void ContentLoader::notifyObservers(Notify notify) {
    const std::vector<Observer*> current = observers;
    const std::shared_ptr<bool> stillAlive = alive;
    for (Observer* observer : current) {
        if (!*stillAlive) {
            return;
        }
        if (isObserver(observer)) {
            notify(*observer);
        }
    }
}

void ContentLoader::notifyContentLoaded(ContentResult& result) {
    notifyObservers([this, &result](Observer& observer) { observer.onContentLoaded(this, &result); });
}

void ContentLoader::notifyContentInvalidated() {
    notifyObservers([this](Observer& observer) { observer.onContentInvalidated(this); });
}

void ContentLoader::notifyRuntimeDataUpdate(const std::string& address, const std::string& data) {
    notifyObservers(
        [this, &address, &data](Observer& observer) { observer.onRuntimeDataUpdateReceived(this, address, data); });
}

namespace {
client::ClientCore& coreOf(InterfaceDomain* domain) {
    auto* client = dynamic_cast<Client*>(domain);
    if (!client) {
        throw std::invalid_argument("DefaultContentLoader: the domain given is not a Client");
    }
    return client->core();
}
}  // namespace

DefaultContentLoader::DefaultContentLoader(InterfaceDomain* domain, MessageDispatcher* dispatcher)
    : channel(std::make_shared<client::LoaderChannel>(coreOf(domain), *this, dispatcher)) {}

DefaultContentLoader::~DefaultContentLoader() {
    channel->close();
}

void DefaultContentLoader::load(std::shared_ptr<ContentQueryArguments> arguments) {
    if (arguments) {
        channel->load(*arguments);
    }
}

void DefaultContentLoader::subscribeRuntimeData(const std::string& uri) {
    channel->subscribe(uri);
}

void DefaultContentLoader::stop() {
    channel->stop();
}

std::uint64_t DefaultContentLoader::getLoaderId() const {
    return channel->getLoaderId();
}

}  // namespace zarvo
