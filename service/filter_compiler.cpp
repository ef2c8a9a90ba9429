#include "filter_compiler.h"

#include "query_error.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <optional>

namespace tethrix::service {

namespace {

enum class TokenKind { word, string, op, open, close, end };

struct Token {
    TokenKind kind = TokenKind::end;
    std::string text;  ///< the word, the unquoted string, or the operator
    std::size_t position = 0;
};

bool isWordCharacter(char c) {
    switch (c) {
    case '(':
    case ')':
    case '\'':
    case '"':
    case '=':
    case '!':
    case '<':
    case '>':
        return false;
    default:
        return !std::isspace(static_cast<unsigned char>(c));
    }
}

class Tokenizer {
public:
    explicit Tokenizer(std::string_view text) : text(text) {}

    Token next() {
        while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])))
            ++at;
        Token token;
        token.position = at;
        if (at == text.size())
            return token;
        char c = text[at];
        if (c == '(' || c == ')') {
            token.kind = c == '(' ? TokenKind::open : TokenKind::close;
            token.text = std::string(1, c);
            ++at;
        } else if (c == '\'' || c == '"') {
            token.kind = TokenKind::string;
            token.text = quoted(c);
        } else if (c == '=' || c == '!' || c == '<' || c == '>') {
            token.kind = TokenKind::op;
            token.text = comparison();
        } else {
            token.kind = TokenKind::word;
            std::size_t start = at;
            while (at < text.size() && isWordCharacter(text[at]))
                ++at;
            token.text = std::string(text.substr(start, at - start));
        }
        return token;
    }

private:
    std::string quoted(char quote) {
        std::size_t start = at++;
        std::string value;
        while (at < text.size()) {
            char c = text[at++];
            if (c != quote) {
                value += c;
                continue;
            }
            if (at < text.size() && text[at] == quote) {
                value += quote;
                ++at;
                continue;
            }
            return value;
        }
        throw QueryError("filter: unterminated string", start);
    }

    std::string comparison() {
        std::size_t start = at;
        char c = text[at++];
        char n = at < text.size() ? text[at] : '\0';
        if ((c == '=' || c == '!' || c == '<' || c == '>') && n == '=') {
            ++at;
        } else if (c == '<' && n == '>') {
            ++at;
        } else if (c == '!') {
            throw QueryError("filter: unexpected \"!\"", start);
        }
        return std::string(text.substr(start, at - start));
    }

    std::string_view text;
    std::size_t at = 0;
};

bool isKeyword(const Token& token, const char* keyword) {
    return token.kind == TokenKind::word && equalsIgnoringCase(token.text, keyword);
}

bool isIdentifier(const std::string& word) {
    if (word.empty())
        return false;
    auto first = static_cast<unsigned char>(word[0]);
    if (!std::isalpha(first) && first != '_')
        return false;
    for (char c : word) {
        auto u = static_cast<unsigned char>(c);
        if (!std::isalnum(u) && u != '_')
            return false;
    }
    return true;
}

bool isReservedWord(const std::string& word) {
    for (const char* keyword : {"AND", "OR", "NOT", "IS", "NULL", "LIKE"}) {
        if (equalsIgnoringCase(word, keyword))
            return true;
    }
    return false;
}

std::string describe(const Token& token) {
    switch (token.kind) {
    case TokenKind::end:
        return "the end";
    case TokenKind::string:
        return "a string";
    default:
        return "\"" + token.text + "\"";
    }
}

/// A bare word as a number, if all of it reads as one.
std::optional<SqlValue> numberOf(const std::string& word) {
    const char* begin = word.data();
    const char* end = begin + word.size();
    if (begin != end && *begin == '+')
        ++begin;
    std::int64_t integer = 0;
    auto [integerEnd, integerError] = std::from_chars(begin, end, integer);
    if (integerError == std::errc() && integerEnd == end)
        return SqlValue{integer};
    double real = 0;
    auto [realEnd, realError] = std::from_chars(begin, end, real, std::chars_format::general);
    if (realError == std::errc() && realEnd == end && std::isfinite(real))
        return SqlValue{real};
    return std::nullopt;
}

/// How a bare value is bound: as a number where SQLite would compare the
/// column numerically, as text where the column holds text.
SqlValue bareValue(const std::string& word, const TableColumn& column) {
    if (column.affinity == Affinity::text)
        return word;
    if (column.type == protocol::ColumnType::boolean) {
        if (equalsIgnoringCase(word, "true"))
            return std::int64_t{1};
        if (equalsIgnoringCase(word, "false"))
            return std::int64_t{0};
    }
    if (auto number = numberOf(word))
        return *number;
    return word;
}

class FilterParser {
public:
    FilterParser(std::string_view text, const TableSchema& table) : tokens(text), table(table) { advance(); }

    CompiledFilter parse() {
        std::string sql = orExpression();
        if (current.kind != TokenKind::end) {
            throw QueryError("filter: unexpected " + describe(current), current.position);
        }
        return CompiledFilter{std::move(sql), std::move(parameters)};
    }

private:
    void advance() { current = tokens.next(); }

    std::string orExpression() {
        std::string sql = andExpression();
        while (isKeyword(current, "OR")) {
            advance();
            sql = "(" + sql + " OR " + andExpression() + ")";
        }
        return sql;
    }

    std::string andExpression() {
        std::string sql = notExpression();
        while (isKeyword(current, "AND")) {
            advance();
            sql = "(" + sql + " AND " + notExpression() + ")";
        }
        return sql;
    }

    std::string notExpression() {
        if (!isKeyword(current, "NOT"))
            return primary();
        Nesting nesting(*this, current.position);
        advance();
        return "(NOT " + notExpression() + ")";
    }

    std::string primary() {
        if (current.kind != TokenKind::open)
            return condition();
        Nesting nesting(*this, current.position);
        advance();
        std::string sql = orExpression();
        if (current.kind != TokenKind::close) {
            throw QueryError("filter: expected \")\" instead of " + describe(current), current.position);
        }
        advance();
        return sql;
    }

    std::string condition() {
        if (current.kind != TokenKind::word || !isIdentifier(current.text) || isReservedWord(current.text)) {
            throw QueryError("filter: expected a column instead of " + describe(current), current.position);
        }
        if (++conditions > maxFilterConditions) {
            throw QueryError("filter: too many conditions", current.position);
        }
        const TableColumn* column = table.findColumn(current.text);
        if (!column) {
            throw QueryError("filter: unknown column \"" + current.text + "\" in table \"" + table.name + "\"",
                             current.position);
        }
        std::string columnText = current.text;
        std::string name = quoteIdentifier(column->name);
        advance();
        if (current.kind == TokenKind::op)
            return comparison(name, *column);
        if (isKeyword(current, "IS"))
            return nullTest(name);
        if (isKeyword(current, "LIKE"))
            return like(name, "LIKE");
        if (isKeyword(current, "NOT")) {
            advance();
            if (!isKeyword(current, "LIKE")) {
                throw QueryError("filter: expected LIKE after NOT instead of " + describe(current), current.position);
            }
            return like(name, "NOT LIKE");
        }
        throw QueryError("filter: expected a comparison after \"" + columnText + "\" instead of " + describe(current),
                         current.position);
    }

    std::string comparison(const std::string& name, const TableColumn& column) {
        std::string op = current.text;
        if (op == "==")
            op = "=";
        if (op == "<>")
            op = "!=";
        std::string written = current.text;
        advance();
        if (isKeyword(current, "NULL")) {
            throw QueryError("filter: compare with NULL by IS NULL or IS NOT NULL", current.position);
        }
        if (current.kind == TokenKind::string) {
            parameters.emplace_back(current.text);
        } else if (current.kind == TokenKind::word) {
            parameters.push_back(bareValue(current.text, column));
        } else {
            throw QueryError("filter: expected a value after \"" + written + "\" instead of " + describe(current),
                             current.position);
        }
        advance();
        return name + " " + op + " ?";
    }

    std::string nullTest(const std::string& name) {
        advance();
        bool negated = isKeyword(current, "NOT");
        if (negated)
            advance();
        if (!isKeyword(current, "NULL")) {
            throw QueryError("filter: expected NULL instead of " + describe(current), current.position);
        }
        advance();
        return name + (negated ? " IS NOT NULL" : " IS NULL");
    }

    std::string like(const std::string& name, const char* op) {
        advance();
        if (current.kind != TokenKind::string && current.kind != TokenKind::word) {
            throw QueryError(std::string("filter: expected a pattern after ") + op + " instead of " + describe(current),
                             current.position);
        }
        parameters.emplace_back(current.text);
        advance();
        return name + " " + op + " ?";
    }

    /// Counts one level of parentheses or NOT for as long as it lives.
    class Nesting {
    public:
        Nesting(FilterParser& parser, std::size_t position) : parser(parser) {
            if (++parser.depth > maxFilterNesting)
                throw QueryError("filter: nested too deeply", position);
        }
        ~Nesting() { --parser.depth; }
        Nesting(const Nesting&) = delete;
        Nesting& operator=(const Nesting&) = delete;

    private:
        FilterParser& parser;
    };

    Tokenizer tokens;
    const TableSchema& table;
    Token current;
    std::vector<SqlValue> parameters;
    std::size_t depth = 0;
    std::size_t conditions = 0;
};

bool isBlank(std::string_view text) {
    for (char c : text) {
        if (!std::isspace(static_cast<unsigned char>(c)))
            return false;
    }
    return true;
}

}  // namespace

CompiledFilter compileFilter(std::string_view filter, const TableSchema& table) {
    if (isBlank(filter))
        return {};
    return FilterParser(filter, table).parse();
}

}  // namespace tethrix::service
