// The check's SQLite database: statements in, typed rows out.

#include "Query/Optimizer/RequestSql/SQORSqlDatabase.h"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"

namespace {

// The function rendered statements call to fail on purpose: its argument becomes the error.
void ErrorFunction(sqlite3_context* context, int argc, sqlite3_value** argv) {
    std::string message = kSqlErrorFunction;
    if (argc > 0 && sqlite3_value_type(argv[0]) != SQLITE_NULL)
        message += std::string(": ") + reinterpret_cast<const char*>(sqlite3_value_text(argv[0]));
    sqlite3_result_error(context, message.c_str(), -1);
}

// The median of the non-NULL values of a group. The values live in a vector owned through
// the aggregate context, which SQLite hands to the final call even when a statement fails.
void MedianStep(sqlite3_context* context, int, sqlite3_value** argv) {
    auto** values = static_cast<std::vector<double>**>(
        sqlite3_aggregate_context(context, sizeof(std::vector<double>*)));
    if (values == nullptr) {
        sqlite3_result_error_nomem(context);
        return;
    }
    if (sqlite3_value_type(argv[0]) == SQLITE_NULL)
        return;
    if (*values == nullptr)
        *values = new std::vector<double>();
    (*values)->push_back(sqlite3_value_double(argv[0]));
}

void MedianFinal(sqlite3_context* context) {
    auto** values = static_cast<std::vector<double>**>(sqlite3_aggregate_context(context, 0));
    if (values == nullptr || *values == nullptr || (*values)->empty()) {
        sqlite3_result_null(context);
    } else {
        std::vector<double>& v = **values;
        const size_t middle = v.size() / 2;
        std::nth_element(v.begin(), v.begin() + middle, v.end());
        double median = v[middle];
        if (v.size() % 2 == 0)
            median = (median + *std::max_element(v.begin(), v.begin() + middle)) / 2;
        sqlite3_result_double(context, median);
    }
    if (values != nullptr)
        delete *values;
}

// The sample standard deviation of the non-NULL values (Welford's running form, which keeps
// its precision on values far from zero); NULL for fewer than two values.
struct StddevState {
    int64_t m_count;
    double m_mean;
    double m_squares;
};

void StddevStep(sqlite3_context* context, int, sqlite3_value** argv) {
    auto* state =
        static_cast<StddevState*>(sqlite3_aggregate_context(context, sizeof(StddevState)));
    if (state == nullptr) {
        sqlite3_result_error_nomem(context);
        return;
    }
    if (sqlite3_value_type(argv[0]) == SQLITE_NULL)
        return;
    const double x = sqlite3_value_double(argv[0]);
    ++state->m_count;
    const double delta = x - state->m_mean;
    state->m_mean += delta / static_cast<double>(state->m_count);
    state->m_squares += delta * (x - state->m_mean);
}

void StddevFinal(sqlite3_context* context) {
    auto* state = static_cast<StddevState*>(sqlite3_aggregate_context(context, 0));
    if (state == nullptr || state->m_count < 2)
        sqlite3_result_null(context);
    else
        sqlite3_result_double(
            context, std::sqrt(state->m_squares / static_cast<double>(state->m_count - 1)));
}

// Finalizes a statement however the function that prepared it leaves.
class Statement {
public:
    Statement() = default;
    ~Statement() { sqlite3_finalize(m_pStmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    sqlite3_stmt** Out() { return &m_pStmt; }
    sqlite3_stmt* Get() const { return m_pStmt; }

private:
    sqlite3_stmt* m_pStmt = nullptr;
};

}  // namespace

SqlValue SqlValue::Integer(int64_t value) {
    SqlValue v;
    v.m_type = kInteger;
    v.m_int = value;
    return v;
}

SqlValue SqlValue::Real(double value) {
    SqlValue v;
    v.m_type = kReal;
    v.m_real = value;
    return v;
}

SqlValue SqlValue::Text(std::string value) {
    SqlValue v;
    v.m_type = kText;
    v.m_text = std::move(value);
    return v;
}

std::string SqlValue::ToString() const {
    switch (m_type) {
        case kNull:
            return "NULL";
        case kInteger:
            return std::to_string(m_int);
        case kReal: {
            char buffer[40];
            std::snprintf(buffer, sizeof buffer, "%.15g", m_real);
            return buffer;
        }
        case kText:
            return SqlRenderer::QuoteText(m_text);
        case kBlob:
            return "<blob of " + std::to_string(m_text.size()) + " bytes>";
    }
    return "?";
}

SqlDatabase::SqlDatabase() {
    if (sqlite3_open(":memory:", &m_pDb) != SQLITE_OK) {
        m_openError =
            m_pDb != nullptr ? sqlite3_errmsg(m_pDb) : "cannot open an in-memory database";
        sqlite3_close(m_pDb);
        m_pDb = nullptr;
        return;
    }
    sqlite3_create_function(m_pDb, kSqlErrorFunction, 1, SQLITE_UTF8, nullptr, ErrorFunction,
                            nullptr, nullptr);
    sqlite3_create_function(m_pDb, kSqlMedianFunction, 1, SQLITE_UTF8, nullptr, nullptr, MedianStep,
                            MedianFinal);
    sqlite3_create_function(m_pDb, kSqlStddevFunction, 1, SQLITE_UTF8, nullptr, nullptr, StddevStep,
                            StddevFinal);
    sqlite3_progress_handler(m_pDb, 10000, &SqlDatabase::Progress, this);
    // LIKE is case-sensitive in the meaning of a request, as in standard SQL.
    std::string error;
    Execute("PRAGMA case_sensitive_like = ON", error);
}

SqlDatabase::~SqlDatabase() {
    sqlite3_close(m_pDb);
}

void SqlDatabase::StartClock() {
    m_deadline = std::chrono::steady_clock::now() + m_timeLimit;
}

int SqlDatabase::Progress(void* self) {
    return std::chrono::steady_clock::now() > static_cast<SqlDatabase*>(self)->m_deadline ? 1 : 0;
}

bool SqlDatabase::Execute(const std::string& sql, std::string& error) {
    if (m_pDb == nullptr) {
        error = m_openError;
        return false;
    }
    StartClock();
    char* message = nullptr;
    if (sqlite3_exec(m_pDb, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        error = message != nullptr ? message : sqlite3_errmsg(m_pDb);
        sqlite3_free(message);
        return false;
    }
    return true;
}

bool SqlDatabase::Query(const std::string& sql, SqlRows& out, std::string& error) {
    out = SqlRows();
    if (m_pDb == nullptr) {
        error = m_openError;
        return false;
    }
    StartClock();
    Statement stmt;
    if (sqlite3_prepare_v2(m_pDb, sql.c_str(), static_cast<int>(sql.size()), stmt.Out(), nullptr) !=
        SQLITE_OK) {
        error = sqlite3_errmsg(m_pDb);
        return false;
    }
    const int numColumns = sqlite3_column_count(stmt.Get());
    for (int i = 0; i < numColumns; ++i) {
        const char* name = sqlite3_column_name(stmt.Get(), i);
        out.m_columnNames.push_back(name != nullptr ? name : "");
    }
    for (;;) {
        const int rc = sqlite3_step(stmt.Get());
        if (rc == SQLITE_DONE)
            return true;
        if (rc != SQLITE_ROW) {
            error = rc == SQLITE_INTERRUPT ? "interrupted: the statement ran longer than " +
                                                 std::to_string(m_timeLimit.count()) + " ms"
                                           : sqlite3_errmsg(m_pDb);
            return false;
        }
        SqlRow row;
        row.reserve(numColumns);
        for (int i = 0; i < numColumns; ++i) {
            switch (sqlite3_column_type(stmt.Get(), i)) {
                case SQLITE_INTEGER:
                    row.push_back(SqlValue::Integer(sqlite3_column_int64(stmt.Get(), i)));
                    break;
                case SQLITE_FLOAT:
                    row.push_back(SqlValue::Real(sqlite3_column_double(stmt.Get(), i)));
                    break;
                case SQLITE_TEXT: {
                    const char* text =
                        reinterpret_cast<const char*>(sqlite3_column_text(stmt.Get(), i));
                    row.push_back(
                        SqlValue::Text(std::string(text, sqlite3_column_bytes(stmt.Get(), i))));
                    break;
                }
                case SQLITE_BLOB: {
                    SqlValue blob;
                    blob.m_type = SqlValue::kBlob;
                    const char* bytes =
                        static_cast<const char*>(sqlite3_column_blob(stmt.Get(), i));
                    blob.m_text.assign(bytes != nullptr ? bytes : "",
                                       sqlite3_column_bytes(stmt.Get(), i));
                    row.push_back(std::move(blob));
                    break;
                }
                default:
                    row.push_back(SqlValue::Null());
                    break;
            }
        }
        out.m_rows.push_back(std::move(row));
    }
}

bool SqlDatabase::Insert(const std::string& quotedTable, size_t numColumns,
                         const std::vector<SqlRow>& rows, std::string& error) {
    if (m_pDb == nullptr) {
        error = m_openError;
        return false;
    }
    std::string sql = "INSERT INTO " + quotedTable + " VALUES (";
    for (size_t i = 0; i < numColumns; ++i)
        sql += i == 0 ? "?" : ", ?";
    sql += ")";
    if (!Execute("BEGIN", error))
        return false;
    Statement stmt;
    bool bOk = sqlite3_prepare_v2(m_pDb, sql.c_str(), -1, stmt.Out(), nullptr) == SQLITE_OK;
    for (size_t r = 0; bOk && r < rows.size(); ++r) {
        sqlite3_reset(stmt.Get());
        for (size_t i = 0; i < numColumns; ++i) {
            const SqlValue& value = i < rows[r].size() ? rows[r][i] : SqlValue();
            const int index = static_cast<int>(i) + 1;
            switch (value.m_type) {
                case SqlValue::kNull:
                    sqlite3_bind_null(stmt.Get(), index);
                    break;
                case SqlValue::kInteger:
                    sqlite3_bind_int64(stmt.Get(), index, value.m_int);
                    break;
                case SqlValue::kReal:
                    sqlite3_bind_double(stmt.Get(), index, value.m_real);
                    break;
                case SqlValue::kText:
                    sqlite3_bind_text(stmt.Get(), index, value.m_text.data(),
                                      static_cast<int>(value.m_text.size()), SQLITE_TRANSIENT);
                    break;
                case SqlValue::kBlob:
                    sqlite3_bind_blob(stmt.Get(), index, value.m_text.data(),
                                      static_cast<int>(value.m_text.size()), SQLITE_TRANSIENT);
                    break;
            }
        }
        bOk = sqlite3_step(stmt.Get()) == SQLITE_DONE;
    }
    if (!bOk) {
        error = sqlite3_errmsg(m_pDb);
        std::string ignored;
        Execute("ROLLBACK", ignored);
        return false;
    }
    return Execute("COMMIT", error);
}
