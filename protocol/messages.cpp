#include <tethrix/protocol/messages.h>

namespace tethrix::protocol {

bool isColumnType(std::int64_t number) {
    return number >= static_cast<int>(ColumnType::integer) && number <= static_cast<int>(ColumnType::text);
}

namespace {

struct TypeNameOf {
    const char* operator()(const Hello&) const { return "hello"; }
    const char* operator()(const Query&) const { return "query"; }
    const char* operator()(const Result&) const { return "result"; }
    const char* operator()(const Error&) const { return "error"; }
    const char* operator()(const Cancel&) const { return "cancel"; }
    const char* operator()(const Subscribe&) const { return "subscribe"; }
    const char* operator()(const Update&) const { return "update"; }
    const char* operator()(const Unsubscribe&) const { return "unsubscribe"; }
    const char* operator()(const Ping&) const { return "ping"; }
    const char* operator()(const Pong&) const { return "pong"; }
};

}  // namespace

const char* typeName(const Message& message) {
    return std::visit(TypeNameOf{}, message);
}

bool operator==(const Hello& a, const Hello& b) {
    return a.version == b.version && a.software == b.software && a.filesBaseUrl == b.filesBaseUrl &&
           a.resultFormat == b.resultFormat;
}

bool operator==(const Query& a, const Query& b) {
    return a.id == b.id && a.uri == b.uri && a.columns == b.columns && a.filter == b.filter && a.sort == b.sort &&
           a.index == b.index && a.count == b.count;
}

bool operator==(const Column& a, const Column& b) {
    return a.name == b.name && a.type == b.type;
}

bool operator==(const Result& a, const Result& b) {
    return a.id == b.id && a.startIndex == b.startIndex && a.columns == b.columns && a.rows == b.rows;
}

bool operator==(const Error& a, const Error& b) {
    return a.id == b.id && a.reason == b.reason && a.position == b.position;
}

bool operator==(const Cancel& a, const Cancel& b) {
    return a.id == b.id;
}

bool operator==(const Subscribe& a, const Subscribe& b) {
    return a.id == b.id && a.uri == b.uri;
}

bool operator==(const Update& a, const Update& b) {
    return a.id == b.id && a.address == b.address && a.data == b.data;
}

bool operator==(const Unsubscribe& a, const Unsubscribe& b) {
    return a.id == b.id;
}

bool operator==(const Ping& a, const Ping& b) {
    return a.id == b.id;
}

bool operator==(const Pong& a, const Pong& b) {
    return a.id == b.id;
}

}  // namespace tethrix::protocol
