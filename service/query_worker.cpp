#include "query_worker.h"

#include "query_error.h"
#include "query_log.h"

#include <tethrix/protocol/codec.h>

#include <chrono>

namespace tethrix::service {

QueryAnswer answerQuery(ContentStore& store, const protocol::Query& query)
{
    QueryAnswer answer;
    answer.id = query.id;
    try {
        protocol::Result result = store.execute(query);
        answer.rows = result.rows.size();
        answer.frame = protocol::encode(result);
        if (answer.frame.size() > protocol::maxResultFrameBytes) {
            throw QueryError("result too large: more than " + std::to_string(protocol::maxResultFrameBytes) +
                             " bytes, ask for fewer rows");
        }
    } catch (const QueryError& error) {
        protocol::Error message;
        message.id = query.id;
        message.reason = error.what();
        if (auto position = error.getPosition()) message.position = *position;
        answer.frame = protocol::encode(message);
        answer.rows = 0;
        answer.error = error.what();
    }
    return answer;
}

QueryWorker::QueryWorker(std::unique_ptr<ContentStore> contentStore, bool logQueries)
    : store(std::move(contentStore)), logQueries(logQueries)
{
    // Only the worker thread touches `current`, so the check needs no lock.
    store->setInterruptCheck([this] { return abandoning.load() || (current && current->load()); });
    thread = std::thread([this] { run(); });
}

QueryWorker::~QueryWorker()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        jobs.clear();
    }
    abandoning = true;  // a long query under way is interrupted, not awaited
    wake.notify_one();
    thread.join();
    store->setInterruptCheck(nullptr);
}

void QueryWorker::submit(protocol::Query query, CancelFlag cancel, Done done)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        jobs.push_back(Job{std::move(query), std::move(cancel), std::move(done)});
    }
    wake.notify_one();
}

void QueryWorker::run()
{
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(mutex);
            wake.wait(lock, [this] { return stopping || !jobs.empty(); });
            if (stopping) return;
            job = std::move(jobs.front());
            jobs.pop_front();
        }
        process(job);
    }
}

void QueryWorker::process(Job& job)
{
    if (job.cancel && job.cancel->load()) return;
    current = job.cancel;
    auto started = std::chrono::steady_clock::now();
    QueryAnswer answer;
    bool interrupted = false;
    try {
        answer = answerQuery(*store, job.query);
    } catch (const QueryInterrupted&) {
        interrupted = true;
    }
    current.reset();
    if (logQueries) {
        auto elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started);
        std::string outcome = interrupted        ? "cancelled"
                              : answer.error.empty() ? "rows=" + std::to_string(answer.rows)
                                                   : "error=" + quoteForLog(answer.error);
        writeLogLine(formatQueryLogLine(job.query, outcome, elapsed.count()));
    }
    if (interrupted || (job.cancel && job.cancel->load())) return;
    job.done(std::move(answer));
}

}  // namespace tethrix::service
