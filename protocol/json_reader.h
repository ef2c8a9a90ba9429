// Reads one JSON text into a boost::json::value, more strictly and more
// exactly than boost::json::parse: a key given twice in one object is an
// error, and every real number is the double nearest to its text (the
// library's own conversion can be off by one unit in the last place, which
// would change a real on its way through the protocol).
#ifndef TETHRIX_PROTOCOL_JSON_READER_H
#define TETHRIX_PROTOCOL_JSON_READER_H

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

}  // namespace tethrix::protocol

#endif
