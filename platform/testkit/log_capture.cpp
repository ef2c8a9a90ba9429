#include <zarvo/testkit/log_capture.h>

namespace zarvo {
namespace testkit {

LogCapture::LogCapture() : previous(DefaultLogger::s_chainedLogger) {
    DefaultLogger::s_chainedLogger = this;
}

LogCapture::~LogCapture() {
    DefaultLogger::s_chainedLogger = previous;
}

void LogCapture::writeOverride(LogLevel level, string_view levelName, string_view category, string_view file,
                               unsigned int line, string_view message) {
    LogEntry entry{level,
                   std::string(levelName.data(), levelName.size()),
                   std::string(category.data(), category.size()),
                   std::string(file.data(), file.size()),
                   line,
                   std::string(message.data(), message.size())};
    std::lock_guard<std::mutex> lock(mutex);
    records.push_back(std::move(entry));
}

std::vector<LogEntry> LogCapture::entries() const {
    std::lock_guard<std::mutex> lock(mutex);
    return records;
}

std::vector<std::string> LogCapture::messages() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> result;
    result.reserve(records.size());
    for (const auto& record : records) {
        result.push_back(record.message);
    }
    return result;
}

std::vector<std::string> LogCapture::messages(LogLevel level) const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> result;
    for (const auto& record : records) {
        if (record.level == level) {
            result.push_back(record.message);
        }
    }
    return result;
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> result;
    result.reserve(records.size());
    for (const auto& record : records) {
        result.push_back(record.levelName + " " + record.category + ": " + record.message);
    }
    return result;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    records.clear();
}

}  // namespace testkit
}  // namespace zarvo
