// Connecting a domain's client library to a running service.
#ifndef ZARVO_HOST_SERVICE_CONNECTION_H
#define ZARVO_HOST_SERVICE_CONNECTION_H

#include <zarvo/domain.h>

#include <chrono>
#include <optional>
#include <string>

namespace zarvo::host {

/// Points the client library of `domain` at the service at `url`, before any
/// data source exists. Throws std::runtime_error if that cannot be done.
void connectToService(Domain& domain, const std::string& url);

/// Runs the domain's loop until the connection is up and no query has been
/// open for a short quiet time, or until `limit` has passed.
void waitUntilSettled(Domain& domain, std::optional<std::chrono::milliseconds> limit);

}  // namespace zarvo::host

#endif
