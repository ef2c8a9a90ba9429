// Connecting a domain's client library to a running service, and waiting
// until what a source asked of it has come in.
#ifndef ZARVO_HOST_SERVICE_CONNECTION_H
#define ZARVO_HOST_SERVICE_CONNECTION_H

#include <zarvo/domain.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace zarvo::host {

/// How long a source may take to settle when --wait-ms does not say.
extern const std::chrono::milliseconds defaultSettleLimit;
/// How long nothing may be asked of the service before a source counts as
/// settled: long enough for a result to lead to the next query (a list's
/// read-ahead, a dynamic source's rows, a preloaded image).
extern const std::chrono::milliseconds quietTime;

/// Points the client library of `domain` at the service at `url`
/// ("ws://HOST:PORT[/PATH]" or "HOST:PORT"), before any data source exists.
/// Throws a UsageError for a URL that is neither.
void connectToService(Domain& domain, const std::string& url);

enum class SettleOutcome {
    Settled,      ///< connected, and nothing open for quietTime
    Unreachable,  ///< the connection never came up within the limit
    Busy,         ///< connected, but queries or loads were still open at the limit
};

/// Runs the domain's loop until the connection is up and neither a query
/// nor a resource load has been open for quietTime, or until `limit` (or
/// defaultSettleLimit) has passed. `watch`, if given, is called whenever
/// the loop has run, to look at the tree as it fills.
SettleOutcome waitUntilSettled(Domain& domain, std::optional<std::chrono::milliseconds> limit,
                               const std::function<void()>& watch = {});

/// True while the domain's client is connected and neither a query nor a
/// resource load is open.
bool isIdle(Domain& domain);
/// Queries the domain's client has sent so far.
std::uint64_t sentQueryCount(Domain& domain);

}  // namespace zarvo::host

#endif
