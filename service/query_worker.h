// Runs content queries on threads of their own, so that a slow query never
// holds up the sockets: the network thread only queues work and sends what
// comes back. Each thread owns a store and its caches, so they need no
// locks.
//
// Queries are queued per client. A client's queries run one at a time and
// are answered in the order they came; the threads take clients in turn,
// so that one client's slow queries hold at most one thread while the
// others serve everybody else. A query that runs past its time limit is
// stopped and answered with an error.
//
// A client that pages through a query block after block (the same query,
// each block starting where the one before ended, answered in full, in
// binary frames) has the block after its latest read ahead by the thread
// that answered it, while the client takes the answer in. When the client
// asks for that block and the database has not changed since, the answer
// is sent at once, from the network thread, without waking a query
// thread. One block a client is kept, and only one of at most
// ReadAhead::maxBytes.
#ifndef TETHRIX_SERVICE_QUERY_WORKER_H
#define TETHRIX_SERVICE_QUERY_WORKER_H

#include "content_store.h"
#include "data_version_probe.h"

#include <tethrix/protocol/messages.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tethrix::service {

/// Set by whoever asked, read by the worker: the answer is no longer wanted.
using CancelFlag = std::shared_ptr<std::atomic<bool>>;

/// The frame to send for one query, result or error, already encoded.
struct QueryAnswer {
    protocol::RequestId id = 0;
    std::string frame;
    bool binary = false;  ///< a binary result frame; otherwise JSON text
    std::size_t rows = 0;
    std::string error;  ///< why the query was refused; empty for a result
};

class QueryWorker {
public:
    using Done = std::function<void(QueryAnswer)>;
    using Client = const void*;

    /// Reading ahead for sequential clients: `probe` tells whether the
    /// database changed, and blocks are read ahead only up to `maxBytes`
    /// (0: never). Without a probe nothing is read ahead.
    struct ReadAhead {
        std::unique_ptr<DataVersionProbe> probe;
        std::size_t maxBytes = 0;
    };

    /// One thread per store. `logQueries`: one line per query on standard
    /// error.
    QueryWorker(std::vector<std::unique_ptr<ContentStore>> stores, std::chrono::milliseconds timeLimit, bool logQueries,
                ReadAhead readAhead);
    /// Interrupts the queries under way, drops the rest and joins the
    /// threads; nothing is answered after it. Sessions may still forget
    /// their clients until the worker is destroyed.
    void stop();
    /// Stops, if that has not happened yet.
    ~QueryWorker();
    QueryWorker(const QueryWorker&) = delete;
    QueryWorker& operator=(const QueryWorker&) = delete;

    /// Queues `query` behind the other queries of `client`. `done` runs on a
    /// worker thread, or within this call when a block read ahead answers the
    /// query at once, and not at all if `cancel` was set before the answer
    /// was ready. `binary`: a result is answered with a binary result frame.
    void submit(Client client, protocol::Query query, bool binary, CancelFlag cancel, Done done);
    /// The client is gone: what was read ahead for it is dropped.
    void forget(Client client);

private:
    struct Job {
        protocol::Query query;
        bool binary = false;
        CancelFlag cancel;
        Done done;  ///< empty for a block read ahead
    };
    /// Where a client is in its paging, and the block read ahead for it.
    struct Paging {
        std::string shape;            ///< of the latest query answered in full
        std::int64_t nextIndex = -1;  ///< the index that continues it
        std::string readyShape;       ///< of the block read ahead; empty: none
        std::int32_t readyIndex = 0;
        std::int64_t readyVersion = 0;  ///< of the database before it was read
        QueryAnswer ready;
    };
    struct Lane {
        std::unique_ptr<ContentStore> store;
        /// The flag and the deadline of the job under way; only the lane's
        /// thread touches them.
        CancelFlag current;
        std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
        std::thread thread;
    };

    void run(Lane& lane);
    void process(Lane& lane, Client client, Job& job);
    void readAheadFor(Lane& lane, Client client, Job& job);
    /// The block read ahead for `query`, if it is that one and still
    /// current; drops a block that `query` does not want. Under the lock.
    std::optional<QueryAnswer> takeReadAhead(Client client, const protocol::Query& query, bool binary);
    /// Notes a query answered; true if the block after it is to be read
    /// ahead. Under the lock.
    bool noteAnswered(Client client, const Job& job, const QueryAnswer& answer);
    Job readAheadJob(const Job& answered) const;
    void logAnswer(const Job& job, const QueryAnswer& answer, bool cancelled,
                   std::chrono::steady_clock::time_point started) const;

    std::chrono::milliseconds timeLimit;
    bool logQueries;
    std::mutex mutex;
    std::condition_variable wake;
    /// Queued jobs by client, and the clients with jobs and none running,
    /// in the order they are to be served.
    std::map<Client, std::deque<Job>> queued;
    std::deque<Client> ready;
    std::map<Client, Paging> paging;
    ReadAhead readAhead;
    bool stopping = false;
    std::atomic<bool> abandoning{false};
    std::vector<std::unique_ptr<Lane>> lanes;
};

/// The same answer the worker would send, computed on the calling thread.
/// Throws QueryInterrupted if the store's interrupt check stopped it.
QueryAnswer answerQuery(ContentStore& store, const protocol::Query& query, bool binary = false);

}  // namespace tethrix::service

#endif
