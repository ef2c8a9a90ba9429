// A small JSON text writer for the encoder and for update text. Writing
// straight into a string keeps large results cheap: no intermediate
// document is built.
#ifndef TETHRIX_PROTOCOL_JSON_WRITER_H
#define TETHRIX_PROTOCOL_JSON_WRITER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tethrix::protocol {

class JsonWriter {
public:
    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    /// Writes `"name":`, with the comma before it where one is due.
    void key(std::string_view name);

    void string(std::string_view text);
    void integer(std::int64_t number);
    void unsignedInteger(std::uint64_t number);
    void real(double number);
    /// Writes a number already spelt as JSON, e.g. "187.0".
    void number(std::string_view text);
    void boolean(bool value);

    std::string take() { return std::move(out); }

private:
    void separate();

    std::string out;
    /// True right after an opening bracket or a key: no comma is due.
    bool first = true;
};

/// Appends `text` as a quoted JSON string. Invalid UTF-8 bytes become U+FFFD.
void appendJsonString(std::string& out, std::string_view text);

/// True if `text` is valid UTF-8 throughout, and so passes through JSON as it is.
bool isValidUtf8(std::string_view text);

/// Appends `text` unquoted, each byte that starts no valid UTF-8 sequence
/// replaced by U+FFFD, as appendJsonString repairs it.
void appendValidUtf8(std::string& out, std::string_view text);

}  // namespace tethrix::protocol

#endif
