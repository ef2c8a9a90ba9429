// Keeps the most recent log records for the inspector page, and passes each
// record on to the logger that was in place before.
#ifndef ZARVO_HOST_INSPECTOR_LOG_H
#define ZARVO_HOST_INSPECTOR_LOG_H

#include <zarvo/log.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace zarvo::host {

/// Records kept for the page; older ones are dropped.
constexpr std::size_t maxKeptLogRecords = 2000;
/// Longest message kept, in bytes; a longer one is cut and marked.
constexpr std::size_t maxLogMessageBytes = 2000;

struct KeptLogRecord {
    std::uint64_t sequence;
    int level;
    std::string category;
    std::string file;
    unsigned int line;
    std::string message;
};

class InspectorLog : public Logger {
public:
    /// Becomes the engine's logger until destroyed.
    InspectorLog();
    ~InspectorLog() override;
    InspectorLog(const InspectorLog&) = delete;
    InspectorLog& operator=(const InspectorLog&) = delete;

    /// From any thread.
    void writeOverride(LogLevel level, string_view levelName, string_view category, string_view file, unsigned int line,
                       string_view message) override;

    /// The records kept with a sequence number above `after`, oldest first.
    std::vector<KeptLogRecord> recordsAfter(std::uint64_t after) const;
    /// The last `limit` kept messages that contain `text`.
    std::vector<std::string> messagesContaining(const std::string& text, std::size_t limit) const;

private:
    Logger* previous;
    mutable std::mutex mutex;
    std::deque<KeptLogRecord> records;
    std::uint64_t nextSequence = 1;
};

}  // namespace zarvo::host

#endif
