#include <zarvo/log.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace zarvo {

const char* logLevelName(LogLevel level) {
    switch (level) {
    case LogLevel::Error:
        return "error";
    case LogLevel::Warning:
        return "warning";
    case LogLevel::Info:
        return "info";
    }
    return "unknown";
}

Logger::~Logger() = default;

Logger* DefaultLogger::s_chainedLogger = nullptr;

Logger& DefaultLogger::current() {
    static DefaultLogger processLogger;
    Logger* chained = s_chainedLogger;
    return chained != nullptr ? *chained : processLogger;
}

void DefaultLogger::writeOverride(LogLevel, string_view levelName, string_view category, string_view file,
                                  unsigned int line, string_view message) {
    std::string text;
    text.reserve(levelName.size() + category.size() + file.size() + message.size() + 16);
    text.append(levelName.data(), levelName.size());
    text += ' ';
    text.append(category.data(), category.size());
    text += ' ';
    text.append(file.data(), file.size());
    text += ':';
    text += std::to_string(line);
    text += ": ";
    text.append(message.data(), message.size());
    text += '\n';

    // One write per record under a lock, so that lines of several threads
    // never interleave.
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

namespace detail {

void LogArgumentTypeEraser::appendInteger(std::string& out, long long value) {
    out += std::to_string(value);
}

void LogArgumentTypeEraser::appendUnsigned(std::string& out, unsigned long long value) {
    out += std::to_string(value);
}

void LogArgumentTypeEraser::appendValue(std::string& out, const char* value) {
    out += value != nullptr ? value : "(null)";
}

// Doubles are written in the shortest "%g" form that reads back as the same
// number, with whole numbers of up to 17 digits written out rather than in
// exponent form: 0.1 gives "0.1", 100 gives "100", 1e21 gives "1e+21".
void LogArgumentTypeEraser::appendValue(std::string& out, double value) {
    char buffer[40];
    int precision = 1;
    for (; precision <= 17; ++precision) {
        std::snprintf(buffer, sizeof buffer, "%.*g", precision, value);
        if (std::strtod(buffer, nullptr) == value) {
            break;
        }
    }
    const double magnitude = std::fabs(value);
    if (std::isfinite(value) && magnitude >= 1.0) {
        const int integerDigits = static_cast<int>(std::floor(std::log10(magnitude))) + 1;
        if (integerDigits > precision && integerDigits <= 17) {
            std::snprintf(buffer, sizeof buffer, "%.*g", integerDigits, value);
        }
    }
    out += buffer;
}

LogRecord::LogRecord(LogLevel level, const char* category, const char* file, unsigned int line)
    : level(level),
      category(category != nullptr ? category : ""),
      file(file != nullptr ? file : ""),
      line(line) {}

namespace {

bool isDigits(string_view text) {
    if (text.empty()) {
        return false;
    }
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

// The position named by the digits of a "{N}" placeholder; a number too
// large to be an argument gives `count`, so the placeholder stays as it is.
std::size_t parsePosition(string_view digits, std::size_t count) {
    std::size_t position = 0;
    for (char c : digits) {
        position = position * 10 + static_cast<std::size_t>(c - '0');
        if (position >= count) {
            return count;
        }
    }
    return position;
}

}  // namespace

void LogRecord::appendFormattedMessage(string_view format, const LogArgumentTypeEraser* arguments, std::size_t count) {
    std::size_t nextInOrder = 0;
    std::size_t pos = 0;
    while (pos < format.size()) {
        const std::size_t open = format.find('{', pos);
        if (open == string_view::npos) {
            break;
        }
        const std::size_t close = format.find('}', open + 1);
        if (close == string_view::npos) {
            break;
        }
        const string_view inside = format.substr(open + 1, close - open - 1);
        std::size_t index = count;
        if (inside.empty()) {
            index = nextInOrder++;
        } else if (isDigits(inside)) {
            index = parsePosition(inside, count);
        } else {
            // Not a placeholder: keep the '{' and look again after it, as
            // "{a{}" holds a placeholder at its end.
            message.append(format.data() + pos, open + 1 - pos);
            pos = open + 1;
            continue;
        }
        message.append(format.data() + pos, open - pos);
        if (index < count) {
            arguments[index].appendTo(message);
        } else {
            message.append(format.data() + open, close + 1 - open);
        }
        pos = close + 1;
    }
    message.append(format.data() + pos, format.size() - pos);
}

void LogRecord::write() const {
    DefaultLogger::current().writeOverride(level, logLevelName(level), category, file, line, message);
}

}  // namespace detail
}  // namespace zarvo
