// Reads one JSON text into a boost::json::value, more strictly and more
// exactly than boost::json::parse: a key given twice in one object is an
// error, and every real number is the double nearest to its text (the
// library's own conversion can be off by one unit in the last place, which
// would change a real on its way through the protocol).
#ifndef TETHRIX_PROTOCOL_JSON_READER_H
#define TETHRIX_PROTOCOL_JSON_READER_H

#include <boost/json/error.hpp>
#include <boost/json/storage_ptr.hpp>
#include <boost/json/value.hpp>

#include <cstddef>
#include <string>
#include <string_view>

namespace tethrix::protocol {

struct JsonReadResult {
    boost::json::value value;
    std::string error;  ///< empty on success; otherwise what and at which byte
};

JsonReadResult readJson(std::string_view text, std::size_t maxDepth);

/// How readJsonInto went: `code` is set when the text is not JSON, with the
/// byte where reading stopped.
struct JsonParseStatus {
    boost::system::error_code code;
    std::size_t consumed = 0;
};

/// Reads one JSON text into `value` with the same exact reals as readJson,
/// keeping the last of repeated keys. The value's memory comes from
/// `storage`; `temp` is scratch space for the parser's stack, so that a
/// small text needs no heap at all.
JsonParseStatus readJsonInto(std::string_view text, boost::json::storage_ptr storage, unsigned char* temp,
                             std::size_t tempSize, boost::json::value& value);

}  // namespace tethrix::protocol

#endif
