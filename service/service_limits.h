// The bounds that keep one client, or one publisher, from taking what the
// others need. Each has a command line option; docs/limits.md lists them
// with what happens past each.
#ifndef TETHRIX_SERVICE_SERVICE_LIMITS_H
#define TETHRIX_SERVICE_SERVICE_LIMITS_H

#include <chrono>
#include <cstddef>

namespace tethrix::service {

struct ServiceLimits {
    /// Open TCP connections, HTTP and WebSocket alike. At the limit a new
    /// connection takes the place of the oldest one that has not yet sent
    /// a whole request, or is closed if there is none.
    std::size_t maxConnections = 512;
    /// Bytes of answers and updates queued for one WebSocket client. Past
    /// them the service reads no more requests from it until it has taken
    /// its answers; past them by a whole result frame it is closed.
    std::size_t sessionOutboxBytes = std::size_t{16} << 20;
    /// Largest result frame read ahead for a client that pages through a
    /// query; one is kept a client. A larger block is read when asked for.
    /// 0: nothing is read ahead.
    std::size_t readAheadBytes = std::size_t{1} << 20;
    /// How long a client may stay past sessionOutboxBytes before it is
    /// closed.
    std::chrono::milliseconds stuckTimeout{30000};
    /// A WebSocket connection silent for this long is pinged at half of it
    /// and closed at the end of it.
    std::chrono::milliseconds idleTimeout{60000};
    /// Time for an HTTP request to arrive, and for each piece of an answer
    /// to leave: a long download that moves is never cut.
    std::chrono::milliseconds requestTimeout{30000};
    /// Time one query may run before it is stopped with an error.
    std::chrono::milliseconds queryTimeLimit{10000};
    /// Threads that run queries, each on a database connection of its own.
    /// One client's queries run one at a time, so a slow one holds one
    /// thread and the others go on.
    unsigned queryWorkers = 2;
    /// Size of one runtime data tree, in the bytes stateWeight counts. An
    /// update that would pass it is refused.
    std::size_t maxRuntimeTreeBytes = std::size_t{8} << 20;
};

}  // namespace tethrix::service

#endif
