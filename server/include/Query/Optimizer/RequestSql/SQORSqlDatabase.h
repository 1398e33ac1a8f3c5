#pragma once
// An in-memory SQLite database for the differential check: typed values, rows, and the few
// operations the check needs (run a statement, collect its rows, insert rows in bulk).

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;

// One value as SQLite returns it.
struct SqlValue {
    enum Type { kNull, kInteger, kReal, kText, kBlob };

    Type m_type = kNull;
    int64_t m_int = 0;
    double m_real = 0;
    std::string m_text;  // text (UTF-8) or blob bytes

    static SqlValue Null() { return SqlValue(); }
    static SqlValue Integer(int64_t value);
    static SqlValue Real(double value);
    static SqlValue Text(std::string value);

    bool IsNull() const { return m_type == kNull; }
    bool IsNumber() const { return m_type == kInteger || m_type == kReal; }
    double AsDouble() const { return m_type == kInteger ? static_cast<double>(m_int) : m_real; }
    // SQL literal form, for reports: NULL, 42, 2.5, 'text'.
    std::string ToString() const;
};

using SqlRow = std::vector<SqlValue>;

struct SqlRows {
    std::vector<std::string> m_columnNames;
    std::vector<SqlRow> m_rows;
};

class SqlDatabase {
public:
    // Opens a fresh in-memory database; a failure is reported by IsOpen and GetOpenError.
    SqlDatabase();
    ~SqlDatabase();
    SqlDatabase(const SqlDatabase&) = delete;
    SqlDatabase& operator=(const SqlDatabase&) = delete;

    bool IsOpen() const { return m_pDb != nullptr; }
    const std::string& GetOpenError() const { return m_openError; }

    // Statements that run longer than this are interrupted and fail ("interrupted"), so that
    // a request whose joins explode cannot hang the check.
    void SetTimeLimit(std::chrono::milliseconds limit) { m_timeLimit = limit; }

    // Runs statements that return no rows (several, separated by semicolons).
    bool Execute(const std::string& sql, std::string& error);
    // Runs one query and collects every row.
    bool Query(const std::string& sql, SqlRows& out, std::string& error);
    // Inserts rows into a table of `numColumns` columns, in one transaction.
    bool Insert(const std::string& quotedTable, size_t numColumns, const std::vector<SqlRow>& rows,
                std::string& error);

private:
    void StartClock();
    static int Progress(void* self);

    sqlite3* m_pDb = nullptr;
    std::string m_openError;
    std::chrono::milliseconds m_timeLimit{10000};
    std::chrono::steady_clock::time_point m_deadline;
};
