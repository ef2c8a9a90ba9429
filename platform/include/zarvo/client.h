// The service client library: context, client and services.
//
// One Context per engine domain holds one Client with one Connection, so
// that every user in the domain shares the connection. How the client reaches
// the service (its transport) is the library's own business; see
// platform/client/.
#ifndef ZARVO_CLIENT_H
#define ZARVO_CLIENT_H

#include <zarvo/connection.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace zarvo {

class Context;
class Domain;

namespace client {
class ClientCore;
}

/// The library's domain of interfaces; a Client is one.
class InterfaceDomain {
public:
    virtual ~InterfaceDomain();
};

/// The library's domain of runtime data; nothing here holds one.
class TethrixDomain;

class Client : public InterfaceDomain {
public:
    Client(Context* context, ZvuMessageDispatcher* loop);
    ~Client() override;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Never null; lives as long as the client.
    Connection* getConnection() { return &connection; }
    /// The URL to fetch in place of `url`. Absolute URLs (with a scheme)
    /// come back unchanged; a relative one is resolved against the file
    /// base URL of the service, when the service gave one. `flag` 1 asks for
    /// a resource URL; it is accepted and makes no difference here.
    virtual std::string resolveResourceUrl(const std::string& url, int flag);

    Context* getContext() const { return context; }
    /// Library side: the machinery behind loaders and the connection.
    client::ClientCore& core() { return *clientCore; }

private:
    Context* context;
    MessageDispatcher dispatcher;
    Connection connection;
    std::unique_ptr<client::ClientCore> clientCore;
};

/// Base of the clients of all services.
class AbstractServiceClient {
public:
    AbstractServiceClient(Client* client, const std::string& name) : client(client), name(name) {}
    virtual ~AbstractServiceClient();
    Client* getClient() const { return client; }
    const std::string& getName() const { return name; }

private:
    Client* client;
    std::string name;
};

/// The client of the content service, "Content".
class ContentServiceClient : public AbstractServiceClient {
public:
    ContentServiceClient(Client* client, const std::string& name);
    ~ContentServiceClient() override;
    static std::shared_ptr<ContentServiceClient> create(Client* client, const std::string& name);
};

class Context {
public:
    using ServiceFactory = std::function<std::shared_ptr<AbstractServiceClient>(Client*, const std::string&)>;

    /// The context of `domain`, made at the first call and kept for the
    /// domain's life. `name` selects nothing and may be null.
    static std::shared_ptr<Context> instance(Domain& domain, const char* name);

    explicit Context(Domain& domain);
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    /// Never null.
    std::shared_ptr<Client> getClient() const { return client; }

    /// Makes the service available, building its client with `factory` at
    /// the first acquire. Every acquire counts once.
    std::shared_ptr<AbstractServiceClient> acquireService(const std::string& name, ServiceFactory factory);
    /// Gives up one acquire of the service; the service client goes with the
    /// last one. Releases beyond the acquires do nothing.
    void releaseService(const std::string& name);

    void setContextValue(int key, int value);
    int getContextValue(int key, int defaultValue) const;

    /// Library side: how often a service was acquired and released, and
    /// whether it is held now. For diagnostics and tests.
    struct ServiceStatistics {
        std::size_t acquires = 0;
        std::size_t releases = 0;
        std::size_t holders = 0;
    };
    ServiceStatistics getServiceStatistics(const std::string& name) const;

    Domain& getDomain() const { return domain; }

private:
    struct Service {
        std::shared_ptr<AbstractServiceClient> client;
        ServiceStatistics statistics;
    };
    Domain& domain;
    std::shared_ptr<Client> client;
    std::map<std::string, Service> services;
    std::map<int, int> values;
};

}  // namespace zarvo

#endif
