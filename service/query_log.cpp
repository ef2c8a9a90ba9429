#include "query_log.h"

#include <cstdio>

namespace tethrix::service {

std::string quoteForLog(std::string_view text) {
    std::string quoted = "\"";
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (u < 0x20 || u == 0x7F) {
            static constexpr char hex[] = "0123456789abcdef";
            quoted += "\\x";
            quoted += hex[u >> 4];
            quoted += hex[u & 0xF];
        } else {
            quoted += c;
        }
    }
    return quoted + '"';
}

std::string formatQueryLogLine(const protocol::Query& query, const std::string& outcome, double milliseconds) {
    std::string columns;
    for (const auto& column : query.columns) {
        if (!columns.empty())
            columns += ',';
        columns += column;
    }
    char elapsed[32];
    std::snprintf(elapsed, sizeof elapsed, "%.2f", milliseconds);
    return "query id=" + std::to_string(query.id) + " uri=" + quoteForLog(query.uri) +
           " columns=" + quoteForLog("[" + columns + "]") + " filter=" + quoteForLog(query.filter) +
           " sort=" + quoteForLog(query.sort) + " index=" + std::to_string(query.index) +
           " count=" + std::to_string(query.count) + " " + outcome + " ms=" + elapsed;
}

void writeLogLine(const std::string& line) {
    std::string text = line + '\n';
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

}  // namespace tethrix::service
