#include "ordering.h"

#include <cstring>

namespace tethrix::service {

namespace {

bool isNull(const SqlValue& value) {
    return std::holds_alternative<std::monostate>(value);
}

/// A stable text form of a parameter for the ordering's identity.
std::string identityOf(const SqlValue& value) {
    if (isNull(value))
        return "n;";
    if (auto* i = std::get_if<std::int64_t>(&value))
        return "i" + std::to_string(*i) + ";";
    if (auto* d = std::get_if<double>(&value)) {
        std::string bits(sizeof(double), '\0');
        std::memcpy(bits.data(), d, sizeof(double));
        return "r" + bits + ";";
    }
    const std::string& bytes =
        std::holds_alternative<std::string>(value) ? std::get<std::string>(value) : std::get<Blob>(value).bytes;
    return (std::holds_alternative<std::string>(value) ? "t" : "b") + std::to_string(bytes.size()) + ":" + bytes;
}

std::string conjunction(const std::vector<std::string>& terms) {
    std::string sql;
    for (const auto& term : terms) {
        if (!sql.empty())
            sql += " AND ";
        sql += term;
    }
    return sql.empty() ? "1" : sql;
}

}  // namespace

Ordering::Ordering(std::shared_ptr<const TableSchema> table, CompiledFilter compiledFilter,
                   const std::vector<SortKey>& keys, const std::function<bool(const TableColumn&)>& mayHoldNull)
    : tableSchema(std::move(table)),
      filter(std::move(compiledFilter)) {
    for (const auto& key : keys) {
        parts.push_back({quoteIdentifier(key.column->name), key.descending, mayHoldNull(*key.column)});
    }
    // The tie-breaker follows the last key's direction, so that an index on
    // a single sort column (which ends in the rowid) serves the whole order.
    bool tieDescending = !keys.empty() && keys.back().descending;
    if (!tableSchema->rowid.empty()) {
        parts.push_back({tableSchema->rowid, tieDescending, false});
        seekable = true;
    } else if (!tableSchema->primaryKey.empty()) {
        for (const auto* column : tableSchema->primaryKey) {
            parts.push_back({quoteIdentifier(column->name), tieDescending, false});
        }
        seekable = true;
    }

    for (const auto& part : parts) {
        orderBy += orderBy.empty() ? " ORDER BY " : ", ";
        orderBy += part.sql + (part.descending ? " DESC" : " ASC");
    }
    cacheKey = tableSchema->name + '\n' + filter.sql + '\n';
    for (const auto& parameter : filter.parameters)
        cacheKey += identityOf(parameter);
    cacheKey += '\n' + orderBy;
}

std::string Ordering::keyColumns() const {
    std::string sql;
    for (const auto& part : parts) {
        if (!sql.empty())
            sql += ", ";
        sql += part.sql;
    }
    return sql;
}

std::string Ordering::fromClause(const OrderKey* from, std::vector<SqlValue>& parameters) const {
    std::string sql = " FROM " + quoteIdentifier(tableSchema->name);
    std::vector<std::string> conditions;
    if (!filter.sql.empty()) {
        conditions.push_back("(" + filter.sql + ")");
        parameters.insert(parameters.end(), filter.parameters.begin(), filter.parameters.end());
    }
    if (from)
        conditions.push_back(seekCondition(*from, parameters));
    if (!conditions.empty())
        sql += " WHERE " + conjunction(conditions);
    return sql + orderBy;
}

// Rows at or after `from` in a lexicographic order over the key parts:
//   p1 after v1, or p1 = v1 and p2 after v2, ..., or all equal but the last
//   and the last at or after its value.
// NULL sorts first ascending and last descending, and comparisons with NULL
// are never true, hence the IS NULL cases. The first part's own range is
// put in front as well: it is implied, and it lets SQLite seek in an index
// instead of scanning from the start.
std::string Ordering::seekCondition(const OrderKey& from, std::vector<SqlValue>& parameters) const {
    // Text and parameters are built together: the parameters must follow
    // the order of the placeholders in the text.
    std::string sql = "(" + atOrAfter(parts[0], from[0], parameters) + " AND (";
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0)
            sql += " OR ";
        sql += "(";
        for (std::size_t j = 0; j < i; ++j)
            sql += equalTo(parts[j], from[j], parameters) + " AND ";
        bool last = i + 1 == parts.size();
        sql += last ? atOrAfter(parts[i], from[i], parameters) : strictlyAfter(parts[i], from[i], parameters);
        sql += ")";
    }
    return sql + "))";
}

std::string Ordering::equalTo(const KeyPart& part, const SqlValue& value, std::vector<SqlValue>& parameters) const {
    if (isNull(value))
        return part.sql + " IS NULL";
    parameters.push_back(value);
    return part.sql + " = ?";
}

std::string Ordering::strictlyAfter(const KeyPart& part, const SqlValue& value,
                                    std::vector<SqlValue>& parameters) const {
    if (!part.descending) {
        if (isNull(value))
            return part.sql + " IS NOT NULL";
        parameters.push_back(value);
        return part.sql + " > ?";
    }
    if (isNull(value))
        return "0";
    parameters.push_back(value);
    return part.nullable ? "(" + part.sql + " < ? OR " + part.sql + " IS NULL)" : part.sql + " < ?";
}

std::string Ordering::atOrAfter(const KeyPart& part, const SqlValue& value, std::vector<SqlValue>& parameters) const {
    if (!part.descending) {
        if (isNull(value))
            return "1";
        parameters.push_back(value);
        return part.sql + " >= ?";
    }
    if (isNull(value))
        return part.sql + " IS NULL";
    parameters.push_back(value);
    return part.nullable ? "(" + part.sql + " <= ? OR " + part.sql + " IS NULL)" : part.sql + " <= ?";
}

}  // namespace tethrix::service
