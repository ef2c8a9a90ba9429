#include <zarvo/client/value_text.h>

#include <charconv>
#include <limits>
#include <system_error>

namespace zarvo {
namespace client {

namespace {

template <typename T>
std::string formatWithCharconv(T value) {
    // Large enough for the shortest form of any double, sign and exponent.
    char buffer[64];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string(buffer, end);
}

/// from_chars takes no '+'; a sign before a sign stays an error.
const char* skipPlus(const std::string& text) {
    const char* begin = text.data();
    if (text.size() > 1 && text[0] == '+' && text[1] != '-' && text[1] != '+') {
        ++begin;
    }
    return begin;
}

template <typename T>
bool parseWhole(const std::string& text, T& out) {
    const char* begin = skipPlus(text);
    const char* end = text.data() + text.size();
    T value{};
    const auto parsed = std::from_chars(begin, end, value);
    if (parsed.ec != std::errc() || parsed.ptr != end) {
        return false;
    }
    out = value;
    return true;
}

}  // namespace

std::string formatInteger(long long value) { return formatWithCharconv(value); }
std::string formatReal(double value) { return formatWithCharconv(value); }
std::string formatReal(float value) { return formatWithCharconv(value); }

std::string formatAny(const boost::any& value) {
    const std::type_info& type = value.type();
    if (type == typeid(int)) return formatInteger(boost::any_cast<int>(value));
    if (type == typeid(float)) return formatReal(boost::any_cast<float>(value));
    if (type == typeid(bool)) return formatBoolean(boost::any_cast<bool>(value));
    if (type == typeid(std::string)) return boost::any_cast<const std::string&>(value);
    if (type == typeid(double)) return formatReal(boost::any_cast<double>(value));
    if (type == typeid(long)) return formatInteger(boost::any_cast<long>(value));
    if (type == typeid(long long)) return formatInteger(boost::any_cast<long long>(value));
    if (type == typeid(unsigned int)) return formatWithCharconv(boost::any_cast<unsigned int>(value));
    if (type == typeid(unsigned long)) return formatWithCharconv(boost::any_cast<unsigned long>(value));
    if (type == typeid(unsigned long long)) return formatWithCharconv(boost::any_cast<unsigned long long>(value));
    return std::string();
}

bool parseInteger(const std::string& text, int& out) { return parseWhole(text, out); }

bool parseReal(const std::string& text, double& out) { return parseWhole(text, out); }

bool parseBoolean(const std::string& text, bool& out) {
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

}  // namespace client
}  // namespace zarvo
