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
#ifndef TETHRIX_SERVICE_QUERY_WORKER_H
#define TETHRIX_SERVICE_QUERY_WORKER_H

#include "content_store.h"

#include <tethrix/protocol/messages.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
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

    /// One thread per store. `logQueries`: one line per query on standard
    /// error.
    QueryWorker(std::vector<std::unique_ptr<ContentStore>> stores, std::chrono::milliseconds timeLimit,
                bool logQueries);
    /// Interrupts the queries under way, drops the rest and joins the
    /// threads.
    ~QueryWorker();
    QueryWorker(const QueryWorker&) = delete;
    QueryWorker& operator=(const QueryWorker&) = delete;

    /// Queues `query` behind the other queries of `client`. `done` runs on a
    /// worker thread, and not at all if `cancel` was set before the answer
    /// was ready. `binary`: a result is answered with a binary result frame.
    void submit(Client client, protocol::Query query, bool binary, CancelFlag cancel, Done done);

private:
    struct Job {
        protocol::Query query;
        bool binary = false;
        CancelFlag cancel;
        Done done;
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
    void process(Lane& lane, Job& job);

    std::chrono::milliseconds timeLimit;
    bool logQueries;
    std::mutex mutex;
    std::condition_variable wake;
    /// Queued jobs by client, and the clients with jobs and none running,
    /// in the order they are to be served.
    std::map<Client, std::deque<Job>> queued;
    std::deque<Client> ready;
    bool stopping = false;
    std::atomic<bool> abandoning{false};
    std::vector<std::unique_ptr<Lane>> lanes;
};

/// The same answer the worker would send, computed on the calling thread.
/// Throws QueryInterrupted if the store's interrupt check stopped it.
QueryAnswer answerQuery(ContentStore& store, const protocol::Query& query, bool binary = false);

}  // namespace tethrix::service

#endif
