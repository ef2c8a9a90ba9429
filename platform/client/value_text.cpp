#include <zarvo/client/value_text.h>

#include <tethrix/protocol/value_text.h>

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

}  // namespace

std::string formatInteger(long long value) {
    return tethrix::protocol::formatInteger(value);
}
std::string formatReal(double value) {
    return tethrix::protocol::formatReal(value);
}
std::string formatReal(float value) {
    return formatWithCharconv(value);
}

std::string formatAny(const boost::any& value) {
    const std::type_info& type = value.type();
    if (type == typeid(int))
        return formatInteger(boost::any_cast<int>(value));
    if (type == typeid(float))
        return formatReal(boost::any_cast<float>(value));
    if (type == typeid(bool))
        return formatBoolean(boost::any_cast<bool>(value));
    if (type == typeid(std::string))
        return boost::any_cast<const std::string&>(value);
    if (type == typeid(double))
        return formatReal(boost::any_cast<double>(value));
    if (type == typeid(long))
        return formatInteger(boost::any_cast<long>(value));
    if (type == typeid(long long))
        return formatInteger(boost::any_cast<long long>(value));
    if (type == typeid(unsigned int))
        return formatWithCharconv(boost::any_cast<unsigned int>(value));
    if (type == typeid(unsigned long))
        return formatWithCharconv(boost::any_cast<unsigned long>(value));
    if (type == typeid(unsigned long long))
        return formatWithCharconv(boost::any_cast<unsigned long long>(value));
    return std::string();
}

// One reading of values for the whole system: the service reads the same
// runtime tree files.
bool parseInteger(const std::string& text, int& out) {
    return tethrix::protocol::parseInteger(text, out);
}

bool parseReal(const std::string& text, double& out) {
    return tethrix::protocol::parseReal(text, out);
}

bool parseBoolean(const std::string& text, bool& out) {
    return tethrix::protocol::parseBoolean(text, out);
}

}  // namespace client
}  // namespace zarvo
