#include <tethrix/protocol/value_text.h>

#include <charconv>
#include <system_error>

namespace tethrix::protocol {

namespace {

template <typename T>
std::string formatWithCharconv(T value) {
    // Large enough for the shortest form of any double, sign and exponent.
    char buffer[64];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string(buffer, end);
}

/// from_chars takes no '+'; a sign before a sign stays an error.
std::string_view skipPlus(std::string_view text) {
    if (text.size() > 1 && text[0] == '+' && text[1] != '-' && text[1] != '+')
        text.remove_prefix(1);
    return text;
}

template <typename T>
bool parseWhole(std::string_view text, T& out) {
    text = skipPlus(text);
    T value{};
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size())
        return false;
    out = value;
    return true;
}

}  // namespace

std::string formatInteger(long long value) {
    return formatWithCharconv(value);
}

std::string formatReal(double value) {
    return formatWithCharconv(value);
}

bool parseInteger(std::string_view text, int& out) {
    return parseWhole(text, out);
}

bool parseReal(std::string_view text, double& out) {
    return parseWhole(text, out);
}

bool parseBoolean(std::string_view text, bool& out) {
    if (text == "1" || text == "true") {
        out = true;
        return true;
    }
    if (text == "0" || text == "false") {
        out = false;
        return true;
    }
    return false;
}

}  // namespace tethrix::protocol
