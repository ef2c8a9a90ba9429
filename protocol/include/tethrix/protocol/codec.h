// The JSON form of the messages: one message per WebSocket text frame.
#ifndef TETHRIX_PROTOCOL_CODEC_H
#define TETHRIX_PROTOCOL_CODEC_H

#include <tethrix/protocol/messages.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tethrix::protocol {

/// Why a frame was refused. `id` is set when the frame was readable far
/// enough to tell which request it was, so the sender can be answered.
struct DecodeError {
    std::string reason;
    std::optional<RequestId> id;
};

/// Either a message or the reason why there is none.
struct Decoded {
    std::optional<Message> message;
    DecodeError error;

    explicit operator bool() const { return message.has_value(); }
};

/// Reads one frame. Total: whatever the bytes, the answer is a message or an
/// error, never an exception. Frames above `maxBytes`, malformed JSON,
/// unknown types, unknown or missing keys, wrong value types and values
/// out of range are all refused.
Decoded decode(std::string_view frame, std::size_t maxBytes = maxRequestFrameBytes) noexcept;

/// Writes one frame. Text that is not valid UTF-8 is repaired (each bad
/// byte becomes U+FFFD) and non-finite reals are clamped (NaN to 0), so that
/// every frame written is valid JSON that decode accepts.
std::string encode(const Message& message);

}  // namespace tethrix::protocol

#endif
