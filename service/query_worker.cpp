#include "query_worker.h"

#include "query_error.h"
#include "query_log.h"

#include <tethrix/protocol/codec.h>
#include <tethrix/protocol/result_frame.h>

#include <limits>
#include <utility>

namespace tethrix::service {

namespace {

QueryAnswer errorAnswer(protocol::RequestId id, const QueryError& error) {
    QueryAnswer answer;
    answer.id = id;
    protocol::Error message;
    message.id = id;
    message.reason = error.what();
    if (auto position = error.getPosition())
        message.position = *position;
    answer.frame = protocol::encode(message);
    answer.error = error.what();
    return answer;
}

/// Equal for queries that differ at most in id and index: blocks of one
/// content, of one size.
std::string shapeOf(const protocol::Query& query) {
    std::string shape = queryShape(query);
    shape += '\0';
    shape += std::to_string(query.count);
    return shape;
}

}  // namespace

QueryAnswer answerQuery(ContentStore& store, const protocol::Query& query, bool binary) {
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
                         bool logQueries, ReadAhead readAhead)
    : timeLimit(timeLimit),
      logQueries(logQueries),
      readAhead(std::move(readAhead)) {
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

QueryWorker::~QueryWorker() {
    stop();
}

void QueryWorker::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping)
            return;
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

void QueryWorker::submit(Client client, protocol::Query query, bool binary, CancelFlag cancel, Done done) {
    const auto started = std::chrono::steady_clock::now();
    Job job{std::move(query), binary, std::move(cancel), std::move(done)};
    std::optional<QueryAnswer> answer;
    bool work = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping)
            return;
        auto [entry, fresh] = queued.try_emplace(client);
        // Only a client with nothing queued or running may be answered at
        // once: its answers keep the order of its queries.
        if (fresh)
            answer = takeReadAhead(client, job.query, binary);
        if (answer) {
            if (noteAnswered(client, job, *answer))
                entry->second.push_back(readAheadJob(job));
        } else {
            entry->second.push_back(std::move(job));
        }
        if (entry->second.empty()) {
            queued.erase(entry);
        } else if (fresh) {
            // A client already in the map is queued or running; either way
            // it comes round again.
            ready.push_back(client);
            work = true;
        }
    }
    // The answer first: waking a query thread can cost this thread tens of
    // microseconds on a busy or virtual machine, and the read-ahead it is
    // woken for is not what the client waits for.
    if (answer) {
        logAnswer(job, *answer, false, started);
        job.done(std::move(*answer));
    }
    if (work)
        wake.notify_one();
}

void QueryWorker::forget(Client client) {
    std::lock_guard<std::mutex> lock(mutex);
    paging.erase(client);
}

std::optional<QueryAnswer> QueryWorker::takeReadAhead(Client client, const protocol::Query& query, bool binary) {
    auto found = paging.find(client);
    if (found == paging.end() || found->second.readyShape.empty())
        return std::nullopt;
    Paging& state = found->second;
    const std::string shape = std::exchange(state.readyShape, std::string());
    QueryAnswer answer = std::exchange(state.ready, QueryAnswer());
    if (!binary || state.readyIndex != query.index || shape != shapeOf(query))
        return std::nullopt;
    try {
        if (readAhead.probe->version() != state.readyVersion)
            return std::nullopt;
    } catch (const SqliteError&) {
        return std::nullopt;
    }
    answer.id = query.id;
    protocol::ResultFrameWriter::readdress(answer.frame, query.id);
    return answer;
}

bool QueryWorker::noteAnswered(Client client, const Job& job, const QueryAnswer& answer) {
    if (!readAhead.probe || readAhead.maxBytes == 0 || stopping)
        return false;
    Paging& state = paging[client];
    const std::string shape = shapeOf(job.query);
    const std::int64_t index = job.query.index;
    const std::int64_t count = job.query.count;
    const bool sequential = state.shape == shape && state.nextIndex == index;
    // A block too large to keep is not read ahead: its successor would be
    // read for nothing.
    const bool full = answer.binary && count > 0 && answer.rows == static_cast<std::size_t>(count) &&
                      answer.frame.size() <= readAhead.maxBytes;
    state.shape = shape;
    state.nextIndex = full ? index + count : -1;
    // Two blocks in a row make a client that pages; one block alone may be
    // a jump.
    return sequential && full && index + 2 * count <= std::numeric_limits<std::int32_t>::max();
}

QueryWorker::Job QueryWorker::readAheadJob(const Job& answered) const {
    Job job;
    job.query = answered.query;
    job.query.id = 0;
    job.query.index += answered.query.count;
    job.binary = true;
    return job;
}

void QueryWorker::run(Lane& lane) {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        wake.wait(lock, [this] { return stopping || !ready.empty(); });
        if (stopping)
            return;
        const Client client = ready.front();
        ready.pop_front();
        auto entry = queued.find(client);
        Job job = std::move(entry->second.front());
        entry->second.pop_front();
        lock.unlock();
        process(lane, client, job);
        lock.lock();
        if (stopping)
            return;
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

void QueryWorker::process(Lane& lane, Client client, Job& job) {
    if (!job.done)
        return readAheadFor(lane, client, job);
    if (job.cancel && job.cancel->load())
        return;
    auto started = std::chrono::steady_clock::now();
    std::optional<QueryAnswer> ready;
    {
        std::lock_guard<std::mutex> lock(mutex);
        ready = takeReadAhead(client, job.query, job.binary);
    }
    QueryAnswer answer;
    bool cancelled = false;
    if (ready) {
        answer = std::move(*ready);
    } else {
        lane.current = job.cancel;
        lane.deadline = started + timeLimit;
        try {
            answer = answerQuery(*lane.store, job.query, job.binary);
        } catch (const QueryInterrupted&) {
            cancelled = abandoning.load() || (job.cancel && job.cancel->load());
            if (!cancelled) {
                answer = errorAnswer(job.query.id, QueryError("query stopped after its time limit of " +
                                                              std::to_string(timeLimit.count()) +
                                                              " ms; narrow the filter or ask for fewer rows"));
            }
        }
        lane.current.reset();
        lane.deadline = std::chrono::steady_clock::time_point::max();
    }
    logAnswer(job, answer, cancelled, started);
    if (cancelled || (job.cancel && job.cancel->load()))
        return;
    {
        // Behind whatever the client has queued meanwhile; it is skipped
        // if the client has moved elsewhere by then.
        std::lock_guard<std::mutex> lock(mutex);
        auto entry = queued.find(client);
        if (noteAnswered(client, job, answer) && entry != queued.end()) {
            entry->second.push_back(readAheadJob(job));
        }
    }
    job.done(std::move(answer));
}

void QueryWorker::readAheadFor(Lane& lane, Client client, Job& job) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto found = paging.find(client);
        if (found == paging.end() || found->second.nextIndex != job.query.index ||
            found->second.shape != shapeOf(job.query)) {
            return;
        }
    }
    lane.deadline = std::chrono::steady_clock::now() + timeLimit;
    try {
        // The version before the read: a commit during it counts as a
        // change, and the block is read again when asked for.
        const std::int64_t version = readAhead.probe->version();
        ContentStore::Frame frame = lane.store->executeFrame(job.query);
        if (frame.bytes.size() <= readAhead.maxBytes) {
            std::lock_guard<std::mutex> lock(mutex);
            auto found = paging.find(client);
            if (found != paging.end() && found->second.nextIndex == job.query.index) {
                Paging& state = found->second;
                state.readyShape = shapeOf(job.query);
                state.readyIndex = job.query.index;
                state.readyVersion = version;
                state.ready.frame = std::move(frame.bytes);
                state.ready.rows = frame.rows;
                state.ready.binary = true;
                state.ready.error.clear();
            }
        }
    } catch (const QueryError&) {
        // Asked for, the block gets its error then.
    } catch (const QueryInterrupted&) {
    } catch (const SqliteError&) {
    }
    lane.deadline = std::chrono::steady_clock::time_point::max();
}

void QueryWorker::logAnswer(const Job& job, const QueryAnswer& answer, bool cancelled,
                            std::chrono::steady_clock::time_point started) const {
    if (!logQueries)
        return;
    auto elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started);
    std::string outcome = cancelled              ? "cancelled"
                          : answer.error.empty() ? "rows=" + std::to_string(answer.rows)
                                                 : "error=" + quoteForLog(answer.error);
    writeLogLine(formatQueryLogLine(job.query, outcome, elapsed.count()));
}

}  // namespace tethrix::service
