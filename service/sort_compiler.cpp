#include "sort_compiler.h"

#include "query_error.h"

#include <cctype>
#include <string>

namespace tethrix::service {

namespace {

bool isBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool isNameCharacter(char c) {
    auto u = static_cast<unsigned char>(c);
    return std::isalnum(u) || u == '_';
}

class SortParser {
public:
    SortParser(std::string_view text, const TableSchema& table) : text(text), table(table) {}

    std::vector<SortKey> parse() {
        std::vector<SortKey> keys;
        skipBlanks();
        if (at == text.size())
            return keys;
        for (;;) {
            if (keys.size() == maxSortKeys)
                throw QueryError("sort: too many keys", at);
            keys.push_back(key());
            skipBlanks();
            if (at == text.size())
                return keys;
            if (text[at] != ',') {
                throw QueryError("sort: expected \",\" or the end after \"" + std::string(lastKey) + "\"", at);
            }
            ++at;
            skipBlanks();
        }
    }

private:
    SortKey key() {
        std::size_t start = at;
        std::string_view name = word();
        if (name.empty() || std::isdigit(static_cast<unsigned char>(name[0]))) {
            throw QueryError("sort: expected a column", start);
        }
        SortKey sortKey;
        sortKey.column = table.findColumn(name);
        if (!sortKey.column) {
            throw QueryError("sort: unknown column \"" + std::string(name) + "\" in table \"" + table.name + "\"",
                             start);
        }
        std::size_t end = at;
        skipBlanks();
        std::size_t directionStart = at;
        std::string_view direction = word();
        if (equalsIgnoringCase(direction, "DESC")) {
            sortKey.descending = true;
            end = at;
        } else if (equalsIgnoringCase(direction, "ASC")) {
            end = at;
        } else {
            at = directionStart;
        }
        lastKey = text.substr(start, end - start);
        return sortKey;
    }

    std::string_view word() {
        std::size_t start = at;
        while (at < text.size() && isNameCharacter(text[at]))
            ++at;
        return text.substr(start, at - start);
    }

    void skipBlanks() {
        while (at < text.size() && isBlank(text[at]))
            ++at;
    }

    std::string_view text;
    const TableSchema& table;
    std::size_t at = 0;
    std::string_view lastKey;
};

}  // namespace

std::vector<SortKey> compileSort(std::string_view sort, const TableSchema& table) {
    return SortParser(sort, table).parse();
}

}  // namespace tethrix::service
