// Runs content queries on a thread of its own, so that a slow query never
// holds up the sockets: the network thread only queues work and sends what
// comes back. One thread owns the store and its caches, so they need no
// locks; queries are answered in the order they came.
#ifndef TETHRIX_SERVICE_QUERY_WORKER_H
#define TETHRIX_SERVICE_QUERY_WORKER_H

#include "content_store.h"

#include <tethrix/protocol/messages.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace tethrix::service {

/// Set by whoever asked, read by the worker: the answer is no longer wanted.
using CancelFlag = std::shared_ptr<std::atomic<bool>>;

/// The frame to send for one query, result or error, already encoded.
struct QueryAnswer {
    protocol::RequestId id = 0;
    std::string frame;
    std::size_t rows = 0;
    std::string error;  ///< why the query was refused; empty for a result
};

class QueryWorker {
public:
    using Done = std::function<void(QueryAnswer)>;

    /// `logQueries`: one line per query on standard error.
    QueryWorker(std::unique_ptr<ContentStore> store, bool logQueries);
    /// Interrupts the query under way, drops the rest and joins the thread.
    ~QueryWorker();
    QueryWorker(const QueryWorker&) = delete;
    QueryWorker& operator=(const QueryWorker&) = delete;

    /// `done` runs on the worker thread, and not at all if `cancel` was set
    /// before the answer was ready.
    void submit(protocol::Query query, CancelFlag cancel, Done done);

private:
    struct Job {
        protocol::Query query;
        CancelFlag cancel;
        Done done;
    };

    void run();
    void process(Job& job);

    std::unique_ptr<ContentStore> store;
    bool logQueries;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Job> jobs;
    bool stopping = false;
    std::atomic<bool> abandoning{false};
    /// The flag of the job under way, for the store's interrupt check.
    CancelFlag current;
    std::thread thread;
};

/// The same answer the worker would send, computed on the calling thread.
/// Throws QueryInterrupted if the store's interrupt check stopped it.
QueryAnswer answerQuery(ContentStore& store, const protocol::Query& query);

}  // namespace tethrix::service

#endif
