#include "table_schema.h"

#include <algorithm>
#include <cctype>

namespace tethrix::service {

namespace {

std::string upper(std::string_view text) {
    std::string result(text);
    for (auto& c : result)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return result;
}

bool contains(const std::string& haystack, const char* needle) {
    return haystack.find(needle) != std::string::npos;
}

std::string lower(std::string_view text) {
    std::string result(text);
    for (auto& c : result)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

}  // namespace

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

protocol::ColumnType columnTypeFor(std::string_view declaredType) {
    std::string type = upper(declaredType);
    if (contains(type, "BOOL"))
        return protocol::ColumnType::boolean;
    if (contains(type, "INT"))
        return protocol::ColumnType::integer;
    if (contains(type, "REAL") || contains(type, "FLOA") || contains(type, "DOUB"))
        return protocol::ColumnType::real;
    return protocol::ColumnType::text;
}

Affinity affinityFor(std::string_view declaredType) {
    std::string type = upper(declaredType);
    if (contains(type, "INT"))
        return Affinity::integer;
    if (contains(type, "CHAR") || contains(type, "CLOB") || contains(type, "TEXT"))
        return Affinity::text;
    if (type.empty() || contains(type, "BLOB"))
        return Affinity::blob;
    if (contains(type, "REAL") || contains(type, "FLOA") || contains(type, "DOUB"))
        return Affinity::real;
    return Affinity::numeric;
}

const TableColumn* TableSchema::findColumn(std::string_view wanted) const {
    for (const auto& column : columns) {
        if (equalsIgnoringCase(column.name, wanted))
            return &column;
    }
    return nullptr;
}

std::shared_ptr<const TableSchema> SchemaCatalog::findTable(std::string_view name) {
    std::string key = lower(name);
    auto known = tables.find(key);
    if (known != tables.end())
        return known->second;

    // Only real tables are content; views and SQLite's own tables are not.
    auto statement = database.prepare(
        "SELECT name, wr FROM pragma_table_list WHERE schema = 'main' AND type = 'table' "
        "AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\' AND name = ?1 COLLATE NOCASE");
    statement.bind(1, std::string(name));
    if (!statement.step())
        return nullptr;
    auto schema = load(std::string(statement.text(0)), statement.integer(1) != 0);
    tables.emplace(key, schema);
    return schema;
}

std::shared_ptr<const TableSchema> SchemaCatalog::load(const std::string& name, bool withoutRowid) {
    auto schema = std::make_shared<TableSchema>();
    schema->name = name;
    auto statement = database.prepare("SELECT name, type, \"notnull\", pk FROM pragma_table_info(?1) ORDER BY cid");
    statement.bind(1, name);
    std::vector<std::pair<std::int64_t, std::size_t>> keyParts;
    while (statement.step()) {
        TableColumn column;
        column.name = std::string(statement.text(0));
        column.declaredType = std::string(statement.text(1));
        column.type = columnTypeFor(column.declaredType);
        column.affinity = affinityFor(column.declaredType);
        column.notNull = statement.integer(2) != 0;
        if (statement.integer(3) > 0)
            keyParts.emplace_back(statement.integer(3), schema->columns.size());
        schema->columns.push_back(std::move(column));
    }
    std::sort(keyParts.begin(), keyParts.end());
    for (const auto& part : keyParts)
        schema->primaryKey.push_back(&schema->columns[part.second]);

    if (!withoutRowid) {
        for (const char* alias : {"rowid", "_rowid_", "oid"}) {
            if (!schema->findColumn(alias)) {
                schema->rowid = alias;
                break;
            }
        }
    }
    return schema;
}

}  // namespace tethrix::service
