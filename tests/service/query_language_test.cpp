// The filter and sort languages: what compiles to which SQL, and which
// errors name which position.
#include <zarvo/testkit/thrown.h>
#include "filter_compiler.h"
#include "query_error.h"
#include "sort_compiler.h"
#include "table_schema.h"

#include <gtest/gtest.h>

namespace tethrix::service {
namespace {

TableSchema sampleTable() {
    TableSchema table;
    table.name = "tracks";
    auto add = [&](const char* name, const char* declared) {
        TableColumn column;
        column.name = name;
        column.declaredType = declared;
        column.type = columnTypeFor(declared);
        column.affinity = affinityFor(declared);
        table.columns.push_back(column);
    };
    add("id", "INTEGER");
    add("name", "TEXT");
    add("score", "REAL");
    add("favourite", "BOOLEAN");
    add("cover", "VARCHAR(200)");
    add("raw", "");
    table.rowid = "rowid";
    return table;
}

struct ValidFilter {
    std::string filter;
    std::string sql;
    std::vector<SqlValue> parameters;
};

TEST(FilterCompilerTest, CompilesToParameterizedSql) {
    using I = std::int64_t;
    using S = std::string;
    const std::vector<ValidFilter> cases = {
        {"", "", {}},
        {"id=42", R"("id" = ?)", {I{42}}},
        {"name=Anna", R"("name" = ?)", {S("Anna")}},
        {"name=42", R"("name" = ?)", {S("42")}},  // text column: the key's own spelling
        {"id = '42'", R"("id" = ?)", {S("42")}},  // quoted: text, SQLite converts
        {"id==1", R"("id" = ?)", {I{1}}},
        {"id<>1", R"("id" != ?)", {I{1}}},
        {"id != -7", R"("id" != ?)", {I{-7}}},
        {"score >= 2.5", R"("score" >= ?)", {2.5}},
        {"score<1e3", R"("score" < ?)", {1000.0}},
        {"raw=5", R"("raw" = ?)", {I{5}}},
        {"favourite=true", R"("favourite" = ?)", {I{1}}},
        {"name = 'it''s'", R"("name" = ?)", {S("it's")}},
        {R"(name="say ""hi""")", R"("name" = ?)", {S("say \"hi\"")}},
        {"NAME = x", R"("name" = ?)", {S("x")}},
        {"cover=covers/a.png", R"("cover" = ?)", {S("covers/a.png")}},
        {"name=nan", R"("name" = ?)", {S("nan")}},
        {"score=nan", R"("score" = ?)", {S("nan")}},
        {"id=1 AND name=a OR score<2", R"((("id" = ? AND "name" = ?) OR "score" < ?))", {I{1}, S("a"), I{2}}},
        {"id=1 OR name=a AND score<2", R"(("id" = ? OR ("name" = ? AND "score" < ?)))", {I{1}, S("a"), I{2}}},
        {"NOT (id=1 OR id=2)", R"((NOT ("id" = ? OR "id" = ?)))", {I{1}, I{2}}},
        {"name IS NULL", R"("name" IS NULL)", {}},
        {"name is not null", R"("name" IS NOT NULL)", {}},
        {"name LIKE 'A%'", R"("name" LIKE ?)", {S("A%")}},
        {"id NOT LIKE 4%", R"("id" NOT LIKE ?)", {S("4%")}},
        // Whatever a filter holds becomes a parameter, never SQL.
        {"name='x'' OR ''1''=''1'", R"("name" = ?)", {S("x' OR '1'='1")}},
        {"name LIKE '%'' OR 1=1 --'", R"("name" LIKE ?)", {S("%' OR 1=1 --")}},
    };
    TableSchema table = sampleTable();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.filter);
        CompiledFilter compiled = compileFilter(c.filter, table);
        EXPECT_EQ(compiled.sql, c.sql);
        EXPECT_EQ(compiled.parameters, c.parameters);
    }
}

struct BadText {
    std::string text;
    std::string reasonPart;
    std::size_t position;
};

template <typename Compile>
void expectRefused(Compile compile, const BadText& bad) {
    const auto error = zarvo::testkit::thrown<QueryError>(compile);
    ASSERT_TRUE(error) << "compiled";
    EXPECT_NE(std::string(error->what()).find(bad.reasonPart), std::string::npos) << error->what();
    EXPECT_EQ(error->getPosition(), std::optional<std::size_t>(bad.position));
}

TEST(FilterCompilerTest, ErrorsNameWhatAndWhere) {
    const std::vector<BadText> cases = {
        {"nme=1", "filter: unknown column \"nme\" in table \"tracks\"", 0},
        {"id=1 AND nme=1", "unknown column \"nme\"", 9},
        {"id=", "expected a value after \"=\" instead of the end", 3},
        {"id 1", "expected a comparison after \"id\" instead of \"1\"", 3},
        {"name='abc", "unterminated string", 5},
        {"(id=1", "expected \")\" instead of the end", 5},
        {"id=1)", "unexpected \")\"", 4},
        {"id=1 AND", "expected a column instead of the end", 8},
        {"id ! 1", "unexpected \"!\"", 3},
        {"id=NULL", "compare with NULL by IS NULL", 3},
        {"id IS 1", "expected NULL instead of \"1\"", 6},
        {"id NOT 1", "expected LIKE after NOT", 7},
        {"1=id", "expected a column instead of \"1\"", 0},
        {"'id'=1", "expected a column instead of a string", 0},
        {"and=1", "expected a column instead of \"and\"", 0},
        {"id=1 id=2", "unexpected \"id\"", 5},
        {"name LIKE", "expected a pattern after LIKE", 9},
    };
    TableSchema table = sampleTable();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        expectRefused([&] { compileFilter(c.text, table); }, c);
    }
}

TEST(FilterCompilerTest, HostileSizesAreRefusedNotRecursedInto) {
    TableSchema table = sampleTable();
    std::string deep = std::string(maxFilterNesting + 1, '(') + "id=1" + std::string(maxFilterNesting + 1, ')');
    expectRefused([&] { compileFilter(deep, table); }, {deep, "filter: nested too deeply", maxFilterNesting});
    std::string manyNots;
    for (int i = 0; i < 100000; ++i)
        manyNots += "NOT ";
    EXPECT_THROW(compileFilter(manyNots + "id=1", table), QueryError);

    std::string wide = "id=0";
    for (std::size_t i = 1; i < maxFilterConditions; ++i)
        wide += " OR id=" + std::to_string(i);
    EXPECT_EQ(compileFilter(wide, table).parameters.size(), maxFilterConditions);
    EXPECT_THROW(compileFilter(wide + " OR id=1", table), QueryError);
}

struct ValidSort {
    std::string sort;
    std::vector<std::pair<std::string, bool>> keys;  ///< column, descending
};

TEST(SortCompilerTest, ReadsColumnsAndDirections) {
    const std::vector<ValidSort> cases = {
        {"", {}},
        {"name", {{"name", false}}},
        {"name DESC", {{"name", true}}},
        {" Name  desc , id asc", {{"name", true}, {"id", false}}},
    };
    TableSchema table = sampleTable();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sort);
        auto keys = compileSort(c.sort, table);
        ASSERT_EQ(keys.size(), c.keys.size());
        for (std::size_t i = 0; i < keys.size(); ++i) {
            EXPECT_EQ(keys[i].column->name, c.keys[i].first);
            EXPECT_EQ(keys[i].descending, c.keys[i].second);
        }
    }
}

TEST(SortCompilerTest, ErrorsNameWhatAndWhere) {
    const std::vector<BadText> cases = {
        {"titel", "sort: unknown column \"titel\" in table \"tracks\"", 0},
        {"name, titel DESC", "unknown column \"titel\"", 6},
        {"name DESC x", "expected \",\" or the end after \"name DESC\"", 10},
        {"name DESCX", "expected \",\" or the end after \"name\"", 5},
        {"name,", "expected a column", 5},
        {"1abc", "expected a column", 0},
    };
    TableSchema table = sampleTable();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        expectRefused([&] { compileSort(c.text, table); }, c);
    }
    std::string keys = "id";
    for (std::size_t i = 1; i < maxSortKeys; ++i)
        keys += ",id";
    EXPECT_EQ(compileSort(keys, table).size(), maxSortKeys);
    expectRefused([&] { compileSort(keys + ",id", table); }, {keys, "sort: too many keys", keys.size() + 1});
}

TEST(ColumnTypesTest, DeclaredTypesMapToClientTypes) {
    using T = protocol::ColumnType;
    const std::vector<std::pair<const char*, T>> cases = {
        {"INTEGER", T::integer},  {"bigint", T::integer}, {"REAL", T::real},       {"DOUBLE PRECISION", T::real},
        {"float", T::real},       {"BOOL", T::boolean},   {"Boolean", T::boolean}, {"TEXT", T::text},
        {"VARCHAR(20)", T::text}, {"", T::text},          {"BLOB", T::text},       {"NUMERIC", T::text},
        {"DATETIME", T::text},
    };
    for (const auto& [declared, type] : cases) {
        EXPECT_EQ(columnTypeFor(declared), type) << declared;
    }
}

}  // namespace
}  // namespace tethrix::service
