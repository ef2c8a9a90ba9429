// The query log of --log-queries: one line per query on standard error.
#ifndef TETHRIX_SERVICE_QUERY_LOG_H
#define TETHRIX_SERVICE_QUERY_LOG_H

#include <tethrix/protocol/messages.h>

#include <string>
#include <string_view>

namespace tethrix::service {

/// `text` in double quotes, with quotes, backslashes and control
/// characters escaped, so that one entry is always one line.
std::string quoteForLog(std::string_view text);

/// e.g. query id=7 uri=content://a/tracks columns=[title,year] filter="year>1990"
///      sort="title" index=0 count=200 rows=200 ms=0.42
std::string formatQueryLogLine(const protocol::Query& query, const std::string& outcome, double milliseconds);

/// Writes `line` and a newline to standard error in one call, so that lines
/// from different threads do not mix.
void writeLogLine(const std::string& line);

}  // namespace tethrix::service

#endif
