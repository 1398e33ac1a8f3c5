#pragma once
// Test data for the differential check: the SQLite tables of the repository tables a request
// reads, filled with deterministic pseudo-random rows. The data is made to expose wrong
// rewrites rather than to look real: NULLs, duplicates, skewed and sparse values, empty and
// one-row tables, join columns drawn from small overlapping ranges (so that joins multiply
// rows and some rows find no partner). Declared keys hold (no NULL, no repeated value), since
// a rewrite may rely on them.
//
// The rows of a table depend only on the seed, the row count and the table's qualified name
// and columns, so loading the tables of two requests in any order gives the same data.

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "Platform/Repository.h"
#include "Query/Optimizer/RequestSql/SQORSqlDatabase.h"

class RqNode;

// Literals of the requests, planted among the generated values so that the requests'
// filters select rows (a filter on "West" finds nothing in random words).
struct SqlLiterals {
    std::set<std::string> m_texts;     // string literals, and LIKE patterns without wildcards
    std::set<int64_t> m_integers;      // integer literals v, with v - 1, v + 1 and 2v
    std::set<double> m_reals;          // every numeric literal, with the same neighbours
    std::set<std::string> m_temporal;  // date, time and timestamp literals, as text

    // Adds the literals found anywhere in the tree.
    void AddFrom(const RqNode& root);
    // Adds a number with its neighbours v - 1, v + 1 and 2v.
    void AddNumber(double value);
};

struct SqlDataOptions {
    SqlDataOptions() = default;
    SqlDataOptions(uint64_t seed, uint32_t rows) : m_seed(seed), m_rows(rows) {}

    uint64_t m_seed = 1;
    uint32_t m_rows = 1000;  // rows of a full-size table; some tables get fewer, or none
    SqlLiterals m_literals;
};

class SqlDataGenerator {
public:
    // How a column's values are made and stored, from its catalog data type.
    enum ValueKind { kInteger, kReal, kText, kDate, kTime, kTimestamp, kBoolean };

    SqlDataGenerator(const RpRepository& repository, const SqlDataOptions& options);

    // More literals to plant in the tables made from now on.
    void AddLiterals(const RqNode& root) { m_options.m_literals.AddFrom(root); }

    // The repository tables a tree reads, once each, in tree order.
    static std::vector<RefATable> TablesReadBy(const RqNode& root, const ARpGateway* rp);
    // Every table of the repository, in repository order.
    static std::vector<RefATable> AllTables(const RpRepository& repository);

    // The kind of a catalog data type (INTEGER, DOUBLE, VARCHAR(20), DATE, ...); a column
    // without a data type holds integers.
    static ValueKind KindOf(const ZKString& dataType);
    // "CREATE TABLE ..." for the table, with the SQLite type of each column.
    static std::string CreateStatement(const ATable& table);

    // The number of rows the table gets and the rows themselves.
    uint32_t RowCount(const ATable& table) const;
    std::vector<SqlRow> MakeRows(const ATable& table) const;
    // Creates the table in `db` and fills it.
    bool Load(SqlDatabase& db, const ATable& table, std::string& error) const;

private:
    bool IsKeyLike(const ZKString& columnName) const;
    void MakeColumn(const std::string& tableName, const AColumn& column, bool bNotNull,
                    bool bUniqueKey, size_t c, std::vector<SqlRow>& rows) const;

    SqlDataOptions m_options;
    // Column names that join tables: the names of key columns (of any table), and names
    // ending in ID or KEY (upper case). Other columns take few, skewed values, so that groups
    // hold many rows; they still collide across tables, since columns of one kind share them.
    std::set<std::wstring> m_keyLikeNames;
};
