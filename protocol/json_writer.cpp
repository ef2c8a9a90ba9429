#include <tethrix/protocol/json_writer.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace tethrix::protocol {

namespace {

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

/// Length of the valid UTF-8 sequence at the start of `text`, or 0 if the
/// first byte does not begin one (stray continuation, overlong form,
/// surrogate, beyond U+10FFFF, or cut short).
std::size_t validSequenceLength(std::string_view text) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(0);
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead < 0x80) {
        return 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0)
            low = 0xA0;  // overlong
        if (lead == 0xED)
            high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0)
            low = 0x90;  // overlong
        if (lead == 0xF4)
            high = 0x8F;  // beyond U+10FFFF
    } else {
        return 0;
    }
    if (text.size() < length)
        return 0;
    if (byte(1) < low || byte(1) > high)
        return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xBF)
            return 0;
    }
    return length;
}

void appendEscaped(std::string& out, unsigned char c) {
    switch (c) {
    case '"':
        out += "\\\"";
        return;
    case '\\':
        out += "\\\\";
        return;
    case '\n':
        out += "\\n";
        return;
    case '\r':
        out += "\\r";
        return;
    case '\t':
        out += "\\t";
        return;
    case '\b':
        out += "\\b";
        return;
    case '\f':
        out += "\\f";
        return;
    default:
        break;
    }
    static constexpr char hex[] = "0123456789abcdef";
    out += "\\u00";
    out += hex[c >> 4];
    out += hex[c & 0xF];
}

template <typename Number>
void appendNumber(std::string& out, Number number) {
    std::array<char, 32> buffer{};
    auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
    (void)ec;  // 32 characters hold every 64-bit integer and every shortest double
    out.append(buffer.data(), end);
}

/// Length of the run of ASCII bytes at the start of `text`, tested eight
/// bytes at a time: most text is ASCII, and the byte-wise check dominates
/// the cost of a large result otherwise.
std::size_t asciiPrefix(std::string_view text) {
    std::size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + i, 8);
        if (word & 0x8080808080808080ull)
            break;
    }
    while (i < text.size() && static_cast<unsigned char>(text[i]) < 0x80)
        ++i;
    return i;
}

}  // namespace

void appendValidUtf8(std::string& out, std::string_view text) {
    std::size_t ascii = asciiPrefix(text);
    out.append(text.data(), ascii);
    text.remove_prefix(ascii);
    while (!text.empty()) {
        const std::size_t length = validSequenceLength(text);
        if (length == 0) {
            out += replacementCharacter;
            text.remove_prefix(1);
            continue;
        }
        out.append(text.data(), length);
        text.remove_prefix(length);
    }
}

bool isValidUtf8(std::string_view text) {
    text.remove_prefix(asciiPrefix(text));
    while (!text.empty()) {
        const std::size_t length = validSequenceLength(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

void appendJsonString(std::string& out, std::string_view text) {
    out += '"';
    std::size_t i = 0;
    while (i < text.size()) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\' || c < 0x20) {
            appendEscaped(out, c);
            ++i;
            continue;
        }
        std::size_t length = validSequenceLength(text.substr(i));
        if (length == 0) {
            out += replacementCharacter;
            ++i;
            continue;
        }
        out.append(text.data() + i, length);
        i += length;
    }
    out += '"';
}

void JsonWriter::separate() {
    if (!first)
        out += ',';
    first = false;
}

void JsonWriter::beginObject() {
    separate();
    out += '{';
    first = true;
}

void JsonWriter::endObject() {
    out += '}';
    first = false;
}

void JsonWriter::beginArray() {
    separate();
    out += '[';
    first = true;
}

void JsonWriter::endArray() {
    out += ']';
    first = false;
}

void JsonWriter::key(std::string_view name) {
    separate();
    appendJsonString(out, name);
    out += ':';
    first = true;
}

void JsonWriter::string(std::string_view text) {
    separate();
    appendJsonString(out, text);
}

void JsonWriter::integer(std::int64_t number) {
    separate();
    appendNumber(out, number);
}

void JsonWriter::unsignedInteger(std::uint64_t number) {
    separate();
    appendNumber(out, number);
}

void JsonWriter::real(double number) {
    // JSON has no spelling for infinities and NaN.
    if (std::isnan(number))
        number = 0.0;
    if (std::isinf(number)) {
        number = number > 0 ? std::numeric_limits<double>::max() : std::numeric_limits<double>::lowest();
    }
    separate();
    appendNumber(out, number);
}

void JsonWriter::number(std::string_view text) {
    separate();
    out += text;
}

void JsonWriter::boolean(bool value) {
    separate();
    out += value ? "true" : "false";
}

}  // namespace tethrix::protocol
