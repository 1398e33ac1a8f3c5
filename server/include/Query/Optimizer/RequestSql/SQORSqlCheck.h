#pragma once
// The differential check of a rewrite: the request as it was and as it was rewritten run on
// the same generated data in an in-memory SQLite database, and their results are compared.
//
// Results are compared as bags of rows, or, as far as the original request's top list orders
// them, as sequences of groups of rows tied on every sort key, each group as a bag. Numbers
// compare with a small relative tolerance (an AVG and a SUM/COUNT agree), integers and reals
// by value.
//
// A request is only compared when its result is determined: it renders (every construct has
// a SQL meaning), it runs, and on this data every row limit and break filter picks its rows
// unambiguously. Otherwise the outcome is "not comparable" with the reason: a case that
// cannot be compared is never reported as passing.
//
//     SqlCheckOutcome outcome = SqlCheck::Compare(before, after, session, options);
//     std::cout << outcome.Report();
//
// To check a chain of rewrites against the original, keep one session (the data is made once):
//
//     SqlCheckSession check(session, options);
//     SqlRunResult original = check.Run(request);
//     ... after each rule: check.Compare(original, check.Run(request)) ...

#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Query/Optimizer/RequestSql/SQORSqlDataGenerator.h"
#include "Query/Optimizer/RequestSql/SQORSqlDatabase.h"
#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"

class ARpGateway;
class RqAbstractList;
class RqBreakFilter;
class RqNode;

struct SqlCheckOptions {
    uint64_t m_seed = 1;
    uint32_t m_rows = 1000;          // rows of a full-size generated table
    uint32_t m_timeLimitMs = 10000;  // per statement
    // The whole check of one session (every statement it runs, the loading of its tables
    // included): past it, what is left is "not comparable".
    uint32_t m_totalTimeLimitMs = 60000;
    // Statements larger than these are not run: SQLite's preparation alone would take longer
    // than any limit (a balanced AND/OR of 40,000 conditions takes half a minute), and it
    // cannot be interrupted.
    size_t m_maxSqlBytes = 8u << 20;
    size_t m_maxConnectives = 6000;
    size_t m_maxReportedRows = 5;  // differing rows shown per side
};

// One request run on the check's data.
struct SqlRunResult {
    bool m_bComparable = false;
    std::string m_reason;  // why the result cannot be compared
    std::string m_sql;     // the statement, when the request rendered
    SqlRows m_rows;
    // The result's order: the top list's sort keys, most significant first.
    std::vector<SqlSortKey> m_order;
};

struct SqlCheckOutcome {
    enum Kind { kSame, kDifferent, kNotComparable };

    Kind m_kind = kNotComparable;
    std::string m_reason;  // what differs, or why the results cannot be compared
    std::string m_beforeSql;
    std::string m_afterSql;
    size_t m_beforeRowCount = 0;
    size_t m_afterRowCount = 0;
    // The first rows found on one side only (for an ordered result: in the first group of
    // tied rows that differs).
    std::vector<SqlRow> m_onlyBefore;
    std::vector<SqlRow> m_onlyAfter;
    size_t m_onlyBeforeCount = 0;  // before the lists above were cut to the reported rows
    size_t m_onlyAfterCount = 0;
    uint64_t m_seed = 0;
    uint32_t m_rows = 0;

    bool IsSame() const { return m_kind == kSame; }
    // A printable account: the verdict and, for a difference, the differing rows and the SQL
    // of both sides.
    std::string Report() const;
    static const char* KindName(Kind kind);
};

class SqlCheckSession {
public:
    SqlCheckSession(const ARpGateway* rp, const SqlCheckOptions& options);
    ~SqlCheckSession();
    SqlCheckSession(const SqlCheckSession&) = delete;
    SqlCheckSession& operator=(const SqlCheckSession&) = delete;

    // Plants the tree's literals in the tables loaded from now on (Run does it for the request
    // it runs; call it first for every request the session will run, so that all of them
    // find their literals).
    void AddLiterals(const RqNode& request);
    // Renders the request (a handle or a list), loads the tables it reads, checks that its
    // result is determined on the data and runs it.
    SqlRunResult Run(const RqNode& request);
    // Compares the results of an original and a rewritten request.
    SqlCheckOutcome Compare(const SqlRunResult& before, const SqlRunResult& after) const;

    // Loads a table with the given rows instead of generated ones (the tables a test fills
    // by hand); a table is loaded once, so this must come before any Run that reads it.
    bool LoadRows(const ATable& table, const std::vector<SqlRow>& rows, std::string& error);

private:
    bool LoadTables(const RqNode& request, std::string& error);
    // Empty when the list's choice of rows is determined on the data, else why not.
    std::string CheckLimit(const RqAbstractList& list);
    std::string CheckBreakFilter(const RqBreakFilter& filter);
    // Why a rendered statement is not run (too large, or out of time), else empty; gives the
    // database the time the statement may take.
    std::string Budget(const SqlRenderResult& rendered);
    // Runs a query within the session's time; false with the error otherwise.
    bool Query(const std::string& sql, SqlRows& rows, std::string& error);

    const ARpGateway* m_pRp;
    SqlCheckOptions m_options;
    std::unique_ptr<SqlDatabase> m_pDb;
    std::unique_ptr<SqlDataGenerator> m_pGenerator;
    std::set<std::string> m_loadedTables;
    std::chrono::steady_clock::time_point m_deadline;
};

class SqlCheck {
public:
    // Runs both requests on data made from the options and compares their results.
    static SqlCheckOutcome Compare(const RqNode& before, const RqNode& after, const ARpGateway* rp,
                                   const SqlCheckOptions& options = SqlCheckOptions());
};
