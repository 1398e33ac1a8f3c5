#pragma once
// The SQL form of a request tree: one SQLite statement that returns the rows the request
// means (docs/semantics.md). The renderer never guesses: a construct without a SQL meaning,
// or one it cannot render faithfully, makes it report the node by its path instead.
//
// The text is readable: one clause per line, nested queries indented, stable names. Tables
// are named t<table number> (a repeated number gets a suffix), the columns a list produces
// c<column number>; helper subqueries are a<n> (aggregates at another level), b<n> (break
// filters) and q<n> (subqueries in expressions); derived tables, wrapped set operation
// members and subqueries that read no enclosing row are named queries of the statement's
// WITH clause, d<n>, u<n> and s<n>, so that nesting costs SQLite's parser nothing. Repository
// tables are SQLite tables named by their qualified name as one identifier ("SalesDW.dw.ORDERS"),
// as the check's data generator creates them. A write request is rendered as the rows it writes.

#include <string>
#include <string_view>
#include <vector>

#include "Platform/ZKString.h"
#include "Query/Optimizer/Request/SQORRqExpr.h"

class ARpGateway;
class ATable;
class RqAbstractList;
class RqDerivedColumn;
class RqNode;

// Why a tree has no SQL statement.
enum class SqlProblem {
    kNone,
    kNoSqlMeaning,   // the construct has no meaning in SQL terms
    kNotSupported,   // it has one, but the renderer does not produce it
    kNotDetermined,  // the data does not determine the result (a value not fixed by its group)
    kMalformed,      // the tree is broken (a reference to nothing, a table out of scope)
};

struct SqlRenderResult {
    std::string m_sql;  // UTF-8, without a trailing semicolon
    SqlProblem m_problem = SqlProblem::kNone;
    const RqNode* m_pNode = nullptr;  // the node that could not be rendered
    ZKString m_path;                  // its path, in RqNodeUtility::GetPath's form
    std::string m_reason;
    // The lists whose rows depend on an order (a row limit or offset, a break filter), as
    // rendered: the check asks the data whether that order is total enough.
    std::vector<const RqAbstractList*> m_orderDependentLists;
    // The ANDs and ORs written: the time SQLite takes to prepare a statement grows with the
    // square of a condition's width, so the check bounds them.
    size_t m_numConnectives = 0;

    bool IsOk() const { return m_problem == SqlProblem::kNone; }
    // "no SQL meaning at <path>: <reason>" (empty when the rendering succeeded).
    std::string Describe() const;
    static const char* ProblemName(SqlProblem problem);
};

struct SqlRenderOptions {
    // Render this list without its row offset and limit: the check looks at every row the
    // limit chooses from.
    const RqAbstractList* m_pWithoutLimit = nullptr;
};

// One key of the order of a list's rows, by position in the list's exposed projection.
struct SqlSortKey {
    int m_columnIndex = 0;
    RqSortSpec::SortDirection m_direction = RqSortSpec::kAsc;
    RqSortSpec::NullSortDirection m_nulls = RqSortSpec::kNoCare;
    bool m_bCaseInsensitive = false;
};

class SqlRenderer {
public:
    // The statement for `root`: a request handle or any list. Never throws for a tree it
    // cannot render; the result says why.
    static SqlRenderResult Render(const RqNode& root, const ARpGateway* rp,
                                  const SqlRenderOptions& options = SqlRenderOptions());

    // The order of a list's rows: a block's ORDER BY; a break filter's, cache list's or shared
    // list's inner list's order; none for a set operation. False when a sort key names a
    // column the list does not project.
    static bool GetListOrder(const RqAbstractList& list, std::vector<SqlSortKey>& out);
    // The name under which a list's statement returns column `index` of its exposed
    // projection ("c3"), so that a statement around it can name it.
    static std::string GetColumnName(const RqAbstractList& list, int index);
    // "c3 DESC NULLS LAST": the ORDER BY term of a key over those names.
    static std::string GetOrderTerm(const RqAbstractList& list, const SqlSortKey& key);

    // The SQLite table holding a repository table's rows: its qualified name (database,
    // schema when it has one, table, joined by dots, a dot or backslash inside a part
    // escaped with a backslash so that different tables never share a name) quoted as one
    // identifier.
    static std::string GetTableName(const ATable& table);
    // A double-quoted identifier, inner quotes doubled.
    static std::string QuoteIdentifier(std::string_view name);
    // A single-quoted text literal, inner quotes doubled.
    static std::string QuoteText(std::string_view text);
    // `text` with every line prefixed by `pad` (statements nested in others, reports).
    static std::string IndentLines(std::string_view text, std::string_view pad);
};

// The function a rendered statement calls to fail on purpose (a scalar subquery with more
// than one row); the check's database defines it. Its message starts with this name.
inline constexpr const char* kSqlErrorFunction = "rq_error";
// The aggregates SQLite lacks, which the check's database defines: the median of the non-NULL
// values (the mean of the middle two for an even count) and their sample standard deviation
// (NULL for fewer than two values).
inline constexpr const char* kSqlMedianFunction = "rq_median";
inline constexpr const char* kSqlStddevFunction = "rq_stddev";
