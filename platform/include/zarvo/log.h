// The engine's logger.
//
// Every message goes through one facility, DefaultLogger::s_chainedLogger.
// A record carries level, level name, category, source file, line and the
// finished message. Messages are formatted from a pattern in which "{}" takes
// the next argument in order and "{N}" the argument at position N; a
// placeholder without an argument is left in the text as it stands.
//
// Use the ZARVO_LOG_* macros, which fill in file and line:
//     ZARVO_LOG_INFO("tethrix", "State = {}", state);
#ifndef ZARVO_LOG_H
#define ZARVO_LOG_H

#include <zarvo/string_view.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

namespace zarvo {

enum class LogLevel : int { Error = 1, Warning = 2, Info = 3 };

/// "error", "warning" or "info"; "unknown" for any other number.
const char* logLevelName(LogLevel level);

/// A sink for finished log records. Implementations must accept records
/// from any thread: image loads log from resource loader threads.
class Logger {
public:
    virtual ~Logger();
    virtual void writeOverride(LogLevel level, string_view levelName, string_view category, string_view file,
                               unsigned int line, string_view message) = 0;
};

/// Writes one line per record to standard error:
///     <level name> <category> <file>:<line>: <message>
class DefaultLogger : public Logger {
public:
    void writeOverride(LogLevel level, string_view levelName, string_view category, string_view file, unsigned int line,
                       string_view message) override;

    /// The logger every record goes to. Null means the process-wide
    /// DefaultLogger. Swap it only while no other thread logs.
    static Logger* s_chainedLogger;

    /// The logger that a record goes to now.
    static Logger& current();
};

namespace detail {

/// One argument of a log call, with the way to render it as text.
/// Strings appear as they are, integers and enumerations in decimal, bools as
/// "true"/"false", doubles in the shortest "%g" text that reads back as the
/// same number (whole numbers of up to 17 digits without exponent: "100",
/// "0.1", "1e+21").
class LogArgumentTypeEraser {
public:
    template <typename T>
    explicit LogArgumentTypeEraser(const T& value) : value(&value),
                                                     render(&renderValue<T>) {}

    void appendTo(std::string& out) const { render(out, value); }

private:
    template <typename T>
    static void renderValue(std::string& out, const void* value) {
        append(out, *static_cast<const T*>(value), std::is_enum<T>());
    }
    template <typename T>
    static void append(std::string& out, const T& value, std::true_type) {
        appendInteger(out, static_cast<long long>(value));
    }
    template <typename T>
    static void append(std::string& out, const T& value, std::false_type) {
        appendValue(out, value);
    }

    static void appendInteger(std::string& out, long long value);
    static void appendUnsigned(std::string& out, unsigned long long value);
    static void appendValue(std::string& out, const std::string& value) { out += value; }
    static void appendValue(std::string& out, const char* value);
    static void appendValue(std::string& out, string_view value) { out.append(value.data(), value.size()); }
    static void appendValue(std::string& out, bool value) { out += value ? "true" : "false"; }
    static void appendValue(std::string& out, char value) { out += value; }
    static void appendValue(std::string& out, int value) { appendInteger(out, value); }
    static void appendValue(std::string& out, long value) { appendInteger(out, value); }
    static void appendValue(std::string& out, long long value) { appendInteger(out, value); }
    static void appendValue(std::string& out, unsigned int value) { appendUnsigned(out, value); }
    static void appendValue(std::string& out, unsigned long value) { appendUnsigned(out, value); }
    static void appendValue(std::string& out, unsigned long long value) { appendUnsigned(out, value); }
    static void appendValue(std::string& out, double value);
    static void appendValue(std::string& out, float value) { appendValue(out, static_cast<double>(value)); }

    const void* value;
    void (*render)(std::string&, const void*);
};

/// A record under construction.
class LogRecord {
public:
    LogRecord(LogLevel level, const char* category, const char* file, unsigned int line);

    /// Appends `format` with its placeholders filled from `arguments`.
    void appendFormattedMessage(string_view format, const LogArgumentTypeEraser* arguments, std::size_t count);

    /// Hands the record to DefaultLogger::current().
    void write() const;

    LogLevel level;
    const char* category;
    const char* file;
    unsigned int line;
    std::string message;
};

}  // namespace detail

/// Formats and writes one record.
template <typename... Args>
void logMessage(LogLevel level, const char* category, const char* file, unsigned int line, string_view format,
                const Args&... args) {
    detail::LogRecord record(level, category, file, line);
    const detail::LogArgumentTypeEraser erased[sizeof...(Args) + 1] = {detail::LogArgumentTypeEraser(args)...,
                                                                       detail::LogArgumentTypeEraser(0)};
    record.appendFormattedMessage(format, erased, sizeof...(Args));
    record.write();
}

}  // namespace zarvo

#define ZARVO_LOG(level, category, ...) ::zarvo::logMessage((level), (category), __FILE__, __LINE__, __VA_ARGS__)
#define ZARVO_LOG_ERROR(category, ...) ZARVO_LOG(::zarvo::LogLevel::Error, category, __VA_ARGS__)
#define ZARVO_LOG_WARNING(category, ...) ZARVO_LOG(::zarvo::LogLevel::Warning, category, __VA_ARGS__)
#define ZARVO_LOG_INFO(category, ...) ZARVO_LOG(::zarvo::LogLevel::Info, category, __VA_ARGS__)

#endif
