// The messages exchanged between the client library and tethrix-service.
// Both sides include this one definition, so the two cannot drift apart.
// docs/protocol.md describes the wire form of each message.
#ifndef TETHRIX_PROTOCOL_MESSAGES_H
#define TETHRIX_PROTOCOL_MESSAGES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tethrix::protocol {

/// Raised whenever a message changes shape; peers of different versions
/// refuse each other at the handshake instead of misreading each other.
constexpr int protocolVersion = 2;

/// The WebSocket path of the service; every other path is a file.
constexpr const char* webSocketPath = "/tethrix";

/// Largest frame the service reads. Requests are small; a bigger frame is
/// hostile or broken and is refused before it is parsed.
constexpr std::size_t maxRequestFrameBytes = std::size_t{1} << 20;
/// Largest frame the service writes and the client reads. Results carry
/// rows and may be large, but not unbounded.
constexpr std::size_t maxResultFrameBytes = std::size_t{64} << 20;

/// Chosen by the client, unique among its open requests on one connection.
using RequestId = std::uint64_t;

/// Column types as numbers; the numbers are part of the protocol.
enum class ColumnType : int { integer = 1, real = 2, boolean = 3, text = 4 };

bool isColumnType(std::int64_t number);

/// One cell: int64 for integer, double for real, bool, std::string for text.
using Value = std::variant<std::int64_t, double, bool, std::string>;

/// Opens a connection in both directions: the client names the version it
/// speaks, the service answers with its own and where its files are.
struct Hello {
    int version = protocolVersion;
    std::string software;      ///< free text naming the sender; may be empty
    std::string filesBaseUrl;  ///< service only: base of relative file URLs; may be empty
    /// "binary": the client asks for results as binary frames (result_frame.h);
    /// the service repeats it when it will send them. Empty: JSON results.
    std::string resultFormat;
};

struct Query {
    RequestId id = 0;
    std::string uri;                   ///< content://<authority>/<table>
    std::vector<std::string> columns;  ///< projection in order; empty: all columns
    std::string filter;                ///< filter expression; may be empty
    std::string sort;                  ///< "column [ASC|DESC], ..."; may be empty
    std::int32_t index = 0;            ///< first row wanted
    std::int32_t count = 0;            ///< rows wanted; 0: no limit
};

struct Column {
    std::string name;
    ColumnType type = ColumnType::text;
};

struct Result {
    RequestId id = 0;
    std::uint64_t startIndex = 0;  ///< index of rows[0] within the whole content
    std::vector<Column> columns;
    /// Each row has one cell per column, of the column's type.
    std::vector<std::vector<Value>> rows;
};

/// A refused request (with its id) or a protocol error (without one).
struct Error {
    std::optional<RequestId> id;
    std::string reason;
    /// Character offset into the filter or sort the error is about.
    std::optional<std::uint64_t> position;
};

/// Drops the answer to a query or ends a subscription's updates.
struct Cancel {
    RequestId id = 0;
};

struct Subscribe {
    RequestId id = 0;
    std::string uri;  ///< servicedata://<name>
};

struct Update {
    RequestId id = 0;     ///< of the subscription
    std::string address;  ///< where in the tree the data apply
    std::string data;     ///< update text for the client's internalizer
};

struct Unsubscribe {
    RequestId id = 0;
};

struct Ping {
    std::uint64_t id = 0;
};

struct Pong {
    std::uint64_t id = 0;  ///< that of the ping answered
};

using Message = std::variant<Hello, Query, Result, Error, Cancel, Subscribe, Update, Unsubscribe, Ping, Pong>;

/// The "type" of a message on the wire, e.g. "query".
const char* typeName(const Message& message);

bool operator==(const Hello& a, const Hello& b);
bool operator==(const Query& a, const Query& b);
bool operator==(const Column& a, const Column& b);
bool operator==(const Result& a, const Result& b);
bool operator==(const Error& a, const Error& b);
bool operator==(const Cancel& a, const Cancel& b);
bool operator==(const Subscribe& a, const Subscribe& b);
bool operator==(const Update& a, const Update& b);
bool operator==(const Unsubscribe& a, const Unsubscribe& b);
bool operator==(const Ping& a, const Ping& b);
bool operator==(const Pong& a, const Pong& b);

template <typename T>
bool operator!=(const T& a, const T& b) {
    return !(a == b);
}

}  // namespace tethrix::protocol

#endif
