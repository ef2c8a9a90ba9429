// Keeps the log records written while it lives, instead of printing them.
#ifndef ZARVO_TESTKIT_LOG_CAPTURE_H
#define ZARVO_TESTKIT_LOG_CAPTURE_H

#include <zarvo/log.h>

#include <mutex>
#include <string>
#include <vector>

namespace zarvo {
namespace testkit {

struct LogEntry {
    LogLevel level;
    std::string levelName;
    std::string category;
    std::string file;
    unsigned int line;
    std::string message;
};

/// Installs itself as DefaultLogger::s_chainedLogger on construction and
/// puts the previous logger back on destruction. Thread-safe.
class LogCapture : public Logger {
public:
    LogCapture();
    ~LogCapture() override;
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    void writeOverride(LogLevel level, string_view levelName, string_view category, string_view file, unsigned int line,
                       string_view message) override;

    std::vector<LogEntry> entries() const;
    /// The messages alone, in order.
    std::vector<std::string> messages() const;
    /// The messages of one level, in order.
    std::vector<std::string> messages(LogLevel level) const;
    /// Each record as "<level name> <category>: <message>", in order.
    std::vector<std::string> lines() const;
    void clear();

private:
    Logger* previous;
    mutable std::mutex mutex;
    std::vector<LogEntry> records;
};

}  // namespace testkit
}  // namespace zarvo

#endif
