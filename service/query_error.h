// A query that cannot be answered, with the reason a client is told.
#ifndef TETHRIX_SERVICE_QUERY_ERROR_H
#define TETHRIX_SERVICE_QUERY_ERROR_H

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

namespace tethrix::service {

class QueryError : public std::runtime_error {
public:
    explicit QueryError(const std::string& reason, std::optional<std::size_t> position = std::nullopt)
        : std::runtime_error(reason),
          position(position) {}
    /// Byte offset into the filter or sort the reason is about.
    std::optional<std::size_t> getPosition() const { return position; }

private:
    std::optional<std::size_t> position;
};

}  // namespace tethrix::service

#endif
