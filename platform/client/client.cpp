#include <zarvo/client.h>

#include <zarvo/client/client_core.h>
#include <zarvo/client/resource_url.h>

#include <memory>

namespace zarvo {

InterfaceDomain::~InterfaceDomain() = default;

Client::Client(Context* context, ZvuMessageDispatcher* loop)
    : context(context),
      dispatcher(loop),
      connection(&dispatcher),
      clientCore(std::make_unique<client::ClientCore>(*this)) {}

// The core goes first (declared last), while dispatcher and connection live.
Client::~Client() = default;

std::string Client::resolveResourceUrl(const std::string& url, int /*flag*/) {
    if (client::hasUrlScheme(url)) {
        return url;
    }
    const std::string base = clientCore->getResourceBaseUrl();
    if (base.empty()) {
        return url;
    }
    return client::resolveUrl(base, url);
}

AbstractServiceClient::~AbstractServiceClient() = default;

ContentServiceClient::ContentServiceClient(Client* client, const std::string& name)
    : AbstractServiceClient(client, name) {}

ContentServiceClient::~ContentServiceClient() = default;

std::shared_ptr<ContentServiceClient> ContentServiceClient::create(Client* client, const std::string& name) {
    return std::make_shared<ContentServiceClient>(client, name);
}

}  // namespace zarvo
