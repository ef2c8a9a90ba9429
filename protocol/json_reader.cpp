#include "json_reader.h"

#include <tethrix/protocol/json_writer.h>

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/value_stack.hpp>

#include <charconv>
#include <set>
#include <vector>

namespace json = boost::json;

namespace tethrix::protocol {

namespace {

/// The handler of boost::json's own parser, plus exact reals and, when
/// asked, the check for repeated keys.
class StrictHandler {
public:
    constexpr static std::size_t max_object_size = std::size_t(-1);
    constexpr static std::size_t max_array_size = std::size_t(-1);
    constexpr static std::size_t max_key_size = std::size_t(-1);
    constexpr static std::size_t max_string_size = std::size_t(-1);

    StrictHandler() { stack.reset(); }

    StrictHandler(json::storage_ptr storage, unsigned char* temp, std::size_t tempSize)
        : stack(json::storage_ptr(), temp, tempSize),
          checkKeys(false) {
        stack.reset(std::move(storage));
    }

    bool on_document_begin(json::error_code&) { return true; }
    bool on_document_end(json::error_code&) { return true; }

    bool on_object_begin(json::error_code&) {
        if (checkKeys)
            keys.emplace_back();
        return true;
    }

    bool on_object_end(std::size_t n, json::error_code&) {
        if (checkKeys)
            keys.pop_back();
        stack.push_object(n);
        return true;
    }

    bool on_array_begin(json::error_code&) { return true; }

    bool on_array_end(std::size_t n, json::error_code&) {
        stack.push_array(n);
        return true;
    }

    bool on_key_part(json::string_view s, std::size_t, json::error_code&) {
        if (checkKeys)
            key.append(s.data(), s.size());
        stack.push_chars(s);
        return true;
    }

    bool on_key(json::string_view s, std::size_t, json::error_code& ec) {
        if (!checkKeys) {
            stack.push_key(s);
            return true;
        }
        key.append(s.data(), s.size());
        if (!keys.back().insert(key).second) {
            repeatedKey = key;
            keyRepeated = true;
            ec = json::error::syntax;
            return false;
        }
        key.clear();
        stack.push_key(s);
        return true;
    }

    bool on_string_part(json::string_view s, std::size_t, json::error_code&) {
        stack.push_chars(s);
        return true;
    }

    bool on_string(json::string_view s, std::size_t, json::error_code&) {
        stack.push_string(s);
        return true;
    }

    bool on_number_part(json::string_view s, json::error_code&) {
        number.append(s.data(), s.size());
        return true;
    }

    bool on_int64(std::int64_t i, json::string_view, json::error_code&) {
        number.clear();
        stack.push_int64(i);
        return true;
    }

    bool on_uint64(std::uint64_t u, json::string_view, json::error_code&) {
        number.clear();
        stack.push_uint64(u);
        return true;
    }

    bool on_double(double d, json::string_view s, json::error_code&) {
        number.append(s.data(), s.size());
        double exact = d;
        auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), exact);
        // Out of range keeps the library's value (an infinity or zero).
        if (ec != std::errc() || end != number.data() + number.size())
            exact = d;
        number.clear();
        stack.push_double(exact);
        return true;
    }

    bool on_bool(bool b, json::error_code&) {
        stack.push_bool(b);
        return true;
    }

    bool on_null(json::error_code&) {
        stack.push_null();
        return true;
    }

    bool on_comment_part(json::string_view, json::error_code&) { return true; }
    bool on_comment(json::string_view, json::error_code&) { return true; }

    json::value_stack stack;
    bool keyRepeated = false;
    std::string repeatedKey;

private:
    bool checkKeys = true;
    std::vector<std::set<std::string>> keys;
    std::string key;
    std::string number;
};

}  // namespace

JsonReadResult readJson(std::string_view text, std::size_t maxDepth) {
    json::parse_options options;
    options.max_depth = maxDepth;
    json::basic_parser<StrictHandler> parser(options);
    json::error_code ec;
    std::size_t consumed = parser.write_some(false, text.data(), text.size(), ec);
    if (!ec && consumed < text.size())
        ec = json::error::extra_data;

    JsonReadResult result;
    if (parser.handler().keyRepeated) {
        result.error = "key ";
        appendJsonString(result.error, std::string_view(parser.handler().repeatedKey).substr(0, 64));
        result.error += " given twice at byte " + std::to_string(consumed);
        return result;
    }
    if (ec) {
        result.error = "not JSON: " + ec.message() + " at byte " + std::to_string(consumed);
        return result;
    }
    result.value = parser.handler().stack.release();
    return result;
}

JsonParseStatus readJsonInto(std::string_view text, json::storage_ptr storage, unsigned char* temp,
                             std::size_t tempSize, json::value& value) {
    json::basic_parser<StrictHandler> parser(json::parse_options(), std::move(storage), temp, tempSize);
    JsonParseStatus status;
    status.consumed = parser.write_some(false, text.data(), text.size(), status.code);
    if (!status.code && status.consumed < text.size())
        status.code = json::error::extra_data;
    if (!status.code)
        value = parser.handler().stack.release();
    return status;
}

}  // namespace tethrix::protocol
