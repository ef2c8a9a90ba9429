#include "inspector_log.h"

#include <algorithm>

namespace zarvo::host {

InspectorLog::InspectorLog() : previous(&DefaultLogger::current()) {
    DefaultLogger::s_chainedLogger = this;
}

InspectorLog::~InspectorLog() {
    DefaultLogger::s_chainedLogger = previous == &DefaultLogger::current() ? nullptr : previous;
}

void InspectorLog::writeOverride(LogLevel level, string_view levelName, string_view category, string_view file,
                                 unsigned int line, string_view message) {
    previous->writeOverride(level, levelName, category, file, line, message);
    KeptLogRecord record{0,
                         static_cast<int>(level),
                         std::string(category.data(), category.size()),
                         std::string(file.data(), file.size()),
                         line,
                         std::string(message.data(), std::min(message.size(), maxLogMessageBytes))};
    if (message.size() > maxLogMessageBytes) {
        record.message += " [cut]";
    }
    std::lock_guard<std::mutex> lock(mutex);
    record.sequence = nextSequence++;
    if (records.size() >= maxKeptLogRecords) {
        records.pop_front();
    }
    records.push_back(std::move(record));
}

std::vector<KeptLogRecord> InspectorLog::recordsAfter(std::uint64_t after) const {
    std::lock_guard<std::mutex> lock(mutex);
    const auto first = std::find_if(records.begin(), records.end(),
                                    [after](const KeptLogRecord& record) { return record.sequence > after; });
    return std::vector<KeptLogRecord>(first, records.end());
}

std::vector<std::string> InspectorLog::messagesContaining(const std::string& text, std::size_t limit) const {
    std::vector<std::string> found;
    std::lock_guard<std::mutex> lock(mutex);
    for (auto record = records.rbegin(); record != records.rend() && found.size() < limit; ++record) {
        if (record->message.find(text) != std::string::npos) {
            found.push_back(record->message);
        }
    }
    std::reverse(found.begin(), found.end());
    return found;
}

}  // namespace zarvo::host
