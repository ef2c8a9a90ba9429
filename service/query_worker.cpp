#include "query_worker.h"

#include "query_error.h"
#include "query_log.h"

#include <tethrix/protocol/codec.h>

namespace tethrix::service {

namespace {

QueryAnswer errorAnswer(protocol::RequestId id, const QueryError& error)
{
    QueryAnswer answer;
    answer.id = id;
    protocol::Error message;
    message.id = id;
    message.reason = error.what();
    if (auto position = error.getPosition()) message.position = *position;
    answer.frame = protocol::encode(message);
    answer.error = error.what();
    return answer;
}

}  // namespace

QueryAnswer answerQuery(ContentStore& store, const protocol::Query& query, bool binary)
{
    QueryAnswer answer;
    answer.id = query.id;
    try {
        if (binary) {
            // The store checks the frame's size as it writes it.
            ContentStore::Frame frame = store.executeFrame(query);
            answer.rows = frame.rows;
            answer.frame = std::move(frame.bytes);
            answer.binary = true;
            return answer;
        }
        protocol::Result result = store.execute(query);
        answer.rows = result.rows.size();
        answer.frame = protocol::encode(result);
        if (answer.frame.size() > protocol::maxResultFrameBytes) {
            throw QueryError("result too large: more than " + std::to_string(protocol::maxResultFrameBytes) +
                             " bytes, ask for fewer rows");
        }
    } catch (const QueryError& error) {
        return errorAnswer(query.id, error);
    }
    return answer;
}

QueryWorker::QueryWorker(std::vector<std::unique_ptr<ContentStore>> stores, std::chrono::milliseconds timeLimit,
                         bool logQueries)
    : timeLimit(timeLimit), logQueries(logQueries)
{
    for (auto& store : stores) {
        auto lane = std::make_unique<Lane>();
        lane->store = std::move(store);
        Lane* raw = lane.get();
        raw->store->setInterruptCheck([this, raw] {
            return abandoning.load() || (raw->current && raw->current->load()) ||
                   std::chrono::steady_clock::now() >= raw->deadline;
        });
        lanes.push_back(std::move(lane));
    }
    for (auto& lane : lanes) {
        Lane* raw = lane.get();
        raw->thread = std::thread([this, raw] { run(*raw); });
    }
}

QueryWorker::~QueryWorker()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        queued.clear();
        ready.clear();
    }
    abandoning = true;  // long queries under way are interrupted, not awaited
    wake.notify_all();
    for (auto& lane : lanes) {
        lane->thread.join();
        lane->store->setInterruptCheck(nullptr);
    }
}

void QueryWorker::submit(Client client, protocol::Query query, bool binary, CancelFlag cancel, Done done)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto [entry, fresh] = queued.try_emplace(client);
        // A client already in the map is queued or running; either way it
        // comes round again.
        if (fresh) ready.push_back(client);
        entry->second.push_back(Job{std::move(query), binary, std::move(cancel), std::move(done)});
    }
    wake.notify_one();
}

void QueryWorker::run(Lane& lane)
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        wake.wait(lock, [this] { return stopping || !ready.empty(); });
        if (stopping) return;
        const Client client = ready.front();
        ready.pop_front();
        auto entry = queued.find(client);
        Job job = std::move(entry->second.front());
        entry->second.pop_front();
        lock.unlock();
        process(lane, job);
        lock.lock();
        if (stopping) return;
        // The client stays in the map while its job runs, so that a new one
        // waits behind it instead of running beside it.
        entry = queued.find(client);
        if (entry->second.empty()) {
            queued.erase(entry);
        } else {
            ready.push_back(client);
            wake.notify_one();
        }
    }
}

void QueryWorker::process(Lane& lane, Job& job)
{
    if (job.cancel && job.cancel->load()) return;
    auto started = std::chrono::steady_clock::now();
    lane.current = job.cancel;
    lane.deadline = started + timeLimit;
    QueryAnswer answer;
    bool cancelled = false;
    try {
        answer = answerQuery(*lane.store, job.query, job.binary);
    } catch (const QueryInterrupted&) {
        cancelled = abandoning.load() || (job.cancel && job.cancel->load());
        if (!cancelled) {
            answer = errorAnswer(job.query.id,
                                 QueryError("query stopped after its time limit of " +
                                            std::to_string(timeLimit.count()) +
                                            " ms; narrow the filter or ask for fewer rows"));
        }
    }
    lane.current.reset();
    lane.deadline = std::chrono::steady_clock::time_point::max();
    if (logQueries) {
        auto elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started);
        std::string outcome = cancelled              ? "cancelled"
                              : answer.error.empty() ? "rows=" + std::to_string(answer.rows)
                                                     : "error=" + quoteForLog(answer.error);
        writeLogLine(formatQueryLogLine(job.query, outcome, elapsed.count()));
    }
    if (cancelled || (job.cancel && job.cancel->load())) return;
    job.done(std::move(answer));
}

}  // namespace tethrix::service
