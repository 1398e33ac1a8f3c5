// The differential check: run, make sure the result is determined, compare.

#include "Query/Optimizer/RequestSql/SQORSqlCheck.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>

#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"

namespace {

std::string Where(const RqNode& node) {
    return RqNodeUtility::AbbreviatePath(RqNodeUtility::GetPath(&node)).ToUtf8();
}

// ---- Values ------------------------------------------------------------------------------------

int TypeRank(const SqlValue& v) {
    switch (v.m_type) {
        case SqlValue::kNull:
            return 0;
        case SqlValue::kInteger:
        case SqlValue::kReal:
            return 1;
        case SqlValue::kText:
            return 2;
        case SqlValue::kBlob:
            return 3;
    }
    return 4;
}

// A total order on values (SQLite's order of types, numbers by value), to sort bags.
int CompareExact(const SqlValue& a, const SqlValue& b) {
    const int ra = TypeRank(a);
    const int rb = TypeRank(b);
    if (ra != rb)
        return ra < rb ? -1 : 1;
    if (ra == 1) {
        if (a.m_type == SqlValue::kInteger && b.m_type == SqlValue::kInteger)
            return a.m_int < b.m_int ? -1 : a.m_int > b.m_int ? 1 : 0;
        const double x = a.AsDouble();
        const double y = b.AsDouble();
        return x < y ? -1 : x > y ? 1 : 0;
    }
    if (ra >= 2)
        return a.m_text.compare(b.m_text) < 0 ? -1 : a.m_text == b.m_text ? 0 : 1;
    return 0;
}

// Equality as the comparison of results understands it: numbers within a relative tolerance,
// so that results computed in different but equivalent ways agree.
bool SameValue(const SqlValue& a, const SqlValue& b) {
    if (a.IsNumber() && b.IsNumber()) {
        if (a.m_type == SqlValue::kInteger && b.m_type == SqlValue::kInteger)
            return a.m_int == b.m_int;
        const double x = a.AsDouble();
        const double y = b.AsDouble();
        if (x == y)
            return true;
        const double diff = std::fabs(x - y);
        return diff <= 1e-9 * std::max(std::fabs(x), std::fabs(y)) || diff < 1e-12;
    }
    return CompareExact(a, b) == 0 && a.m_type == b.m_type;
}

bool SameRow(const SqlRow& a, const SqlRow& b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (!SameValue(a[i], b[i]))
            return false;
    }
    return true;
}

bool IdenticalRows(const SqlRow& a, const SqlRow& b, size_t numColumns) {
    for (size_t i = 0; i < numColumns; ++i) {
        if (CompareExact(a[i], b[i]) != 0 || a[i].m_type != b[i].m_type)
            return false;
    }
    return true;
}

bool RowLess(const SqlRow& a, const SqlRow& b) {
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        const int c = CompareExact(a[i], b[i]);
        if (c != 0)
            return c < 0;
    }
    return a.size() < b.size();
}

std::string RowText(const SqlRow& row) {
    std::string out = "(";
    for (size_t i = 0; i < row.size(); ++i)
        out += (i == 0 ? "" : ", ") + row[i].ToString();
    return out + ")";
}

// The rows of each bag that the other lacks, by tolerant equality.
void BagDifference(std::vector<SqlRow> a, std::vector<SqlRow> b, std::vector<SqlRow>& onlyA,
                   std::vector<SqlRow>& onlyB) {
    std::sort(a.begin(), a.end(), RowLess);
    std::sort(b.begin(), b.end(), RowLess);
    size_t i = 0;
    size_t j = 0;
    while (i < a.size() || j < b.size()) {
        if (i < a.size() && j < b.size() && SameRow(a[i], b[j])) {
            ++i;
            ++j;
        } else if (j >= b.size() || (i < a.size() && RowLess(a[i], b[j]))) {
            onlyA.push_back(std::move(a[i++]));
        } else {
            onlyB.push_back(std::move(b[j++]));
        }
    }
    // Values within the tolerance of each other can sort apart; pair the leftovers again.
    if (onlyA.empty() || onlyB.empty() || onlyA.size() * onlyB.size() > 40000000)
        return;
    std::vector<bool> used(onlyB.size(), false);
    std::vector<SqlRow> restA;
    for (SqlRow& row : onlyA) {
        bool bMatched = false;
        for (size_t k = 0; k < onlyB.size() && !bMatched; ++k) {
            if (!used[k] && SameRow(row, onlyB[k])) {
                used[k] = true;
                bMatched = true;
            }
        }
        if (!bMatched)
            restA.push_back(std::move(row));
    }
    std::vector<SqlRow> restB;
    for (size_t k = 0; k < onlyB.size(); ++k) {
        if (!used[k])
            restB.push_back(std::move(onlyB[k]));
    }
    onlyA = std::move(restA);
    onlyB = std::move(restB);
}

// Ties of a sort key: a case-insensitive key folds ASCII letters, as SQLite's NOCASE does.
bool SameKey(const SqlValue& a, const SqlValue& b, bool bCaseInsensitive) {
    if (!bCaseInsensitive || a.m_type != SqlValue::kText || b.m_type != SqlValue::kText)
        return SameValue(a, b);
    if (a.m_text.size() != b.m_text.size())
        return false;
    for (size_t i = 0; i < a.m_text.size(); ++i) {
        const char x = a.m_text[i];
        const char y = b.m_text[i];
        if (x != y && !(std::isalpha(static_cast<unsigned char>(x)) &&
                        std::tolower(static_cast<unsigned char>(x)) ==
                            std::tolower(static_cast<unsigned char>(y))))
            return false;
    }
    return true;
}

// Consecutive rows tied on every sort key, as [begin, end) ranges.
std::vector<std::pair<size_t, size_t>> Runs(const std::vector<SqlRow>& rows,
                                            const std::vector<SqlSortKey>& keys) {
    std::vector<std::pair<size_t, size_t>> runs;
    for (size_t i = 0; i < rows.size(); ++i) {
        bool bTied = !runs.empty();
        for (size_t k = 0; bTied && k < keys.size(); ++k) {
            const int column = keys[k].m_columnIndex;
            bTied = SameKey(rows[i][column], rows[i - 1][column], keys[k].m_bCaseInsensitive);
        }
        if (bTied)
            runs.back().second = i + 1;
        else
            runs.emplace_back(i, i + 1);
    }
    return runs;
}

}  // namespace

// ---- SqlCheckOutcome
// -----------------------------------------------------------------------------

const char* SqlCheckOutcome::KindName(Kind kind) {
    switch (kind) {
        case kSame:
            return "same";
        case kDifferent:
            return "different";
        case kNotComparable:
            return "not comparable";
    }
    return "?";
}

std::string SqlCheckOutcome::Report() const {
    const std::string data =
        " (seed " + std::to_string(m_seed) + ", " + std::to_string(m_rows) + " rows per table)";
    if (m_kind == kNotComparable)
        return std::string(KindName(m_kind)) + data + ": " + m_reason + "\n";
    if (m_kind == kSame)
        return std::string(KindName(m_kind)) + data + ": both return " +
               std::to_string(m_beforeRowCount) + " rows\n";
    std::string out = std::string(KindName(m_kind)) + data + ": " + m_reason + "\n";
    auto rows = [&](const char* title, const std::vector<SqlRow>& list, size_t count) {
        out += std::string("  ") + title;
        if (list.empty())
            out += ": none\n";
        else if (count > list.size())
            out += " (" + std::to_string(count) + ", the first " + std::to_string(list.size()) +
                   "):\n";
        else
            out += ":\n";
        for (const SqlRow& row : list)
            out += "    " + RowText(row) + "\n";
    };
    rows("rows only in the original", m_onlyBefore, m_onlyBeforeCount);
    rows("rows only in the rewritten request", m_onlyAfter, m_onlyAfterCount);
    out += "  original SQL:\n" + SqlRenderer::IndentLines(m_beforeSql, "    ") + "\n";
    out += "  rewritten SQL:\n" + SqlRenderer::IndentLines(m_afterSql, "    ") + "\n";
    return out;
}

// ---- SqlCheckSession
// -----------------------------------------------------------------------------

SqlCheckSession::SqlCheckSession(const ARpGateway* rp, const SqlCheckOptions& options)
    : m_pRp(rp), m_options(options), m_pDb(std::make_unique<SqlDatabase>()) {
    m_deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(options.m_totalTimeLimitMs);
    m_pDb->SetTimeLimit(std::chrono::milliseconds(options.m_timeLimitMs));
    if (rp != nullptr) {
        m_pGenerator = std::make_unique<SqlDataGenerator>(
            rp->GetRepository(), SqlDataOptions{options.m_seed, options.m_rows});
    }
}

SqlCheckSession::~SqlCheckSession() = default;

void SqlCheckSession::AddLiterals(const RqNode& request) {
    if (m_pGenerator != nullptr)
        m_pGenerator->AddLiterals(request);
}

bool SqlCheckSession::LoadTables(const RqNode& request, std::string& error) {
    if (m_pGenerator == nullptr)
        return true;
    m_pGenerator->AddLiterals(request);
    for (const RefATable& table : SqlDataGenerator::TablesReadBy(request, m_pRp)) {
        const std::string name = SqlRenderer::GetTableName(*table);
        if (m_loadedTables.count(name) > 0)
            continue;
        if (!m_pGenerator->Load(*m_pDb, *table, error)) {
            error = "cannot load table " + name + ": " + error;
            return false;
        }
        m_loadedTables.insert(name);
    }
    return true;
}

bool SqlCheckSession::LoadRows(const ATable& table, const std::vector<SqlRow>& rows,
                               std::string& error) {
    const std::string name = SqlRenderer::GetTableName(table);
    if (!m_loadedTables.insert(name).second) {
        error = "table " + name + " is already loaded";
        return false;
    }
    return m_pDb->Execute(SqlDataGenerator::CreateStatement(table), error) &&
           m_pDb->Insert(name, std::max<size_t>(table.GetColumns().size(), 1), rows, error);
}

std::string SqlCheckSession::Budget(const SqlRenderResult& rendered) {
    if (rendered.m_sql.size() > m_options.m_maxSqlBytes)
        return "the statement is too large to check (" + std::to_string(rendered.m_sql.size()) +
               " bytes, at most " + std::to_string(m_options.m_maxSqlBytes) + ")";
    if (rendered.m_numConnectives > m_options.m_maxConnectives)
        return "the statement is too large to check (" + std::to_string(rendered.m_numConnectives) +
               " ANDs and ORs, at most " + std::to_string(m_options.m_maxConnectives) + ")";
    return std::string();
}

bool SqlCheckSession::Query(const std::string& sql, SqlRows& rows, std::string& error) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        m_deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        error = "interrupted: the check ran longer than " +
                std::to_string(m_options.m_totalTimeLimitMs) + " ms";
        return false;
    }
    m_pDb->SetTimeLimit(std::min(left, std::chrono::milliseconds(m_options.m_timeLimitMs)));
    return m_pDb->Query(sql, rows, error);
}

SqlRunResult SqlCheckSession::Run(const RqNode& request) {
    SqlRunResult result;
    const SqlRenderResult rendered = SqlRenderer::Render(request, m_pRp);
    if (!rendered.IsOk()) {
        result.m_reason = rendered.Describe();
        return result;
    }
    result.m_sql = rendered.m_sql;
    result.m_reason = Budget(rendered);
    if (!result.m_reason.empty())
        return result;
    std::string error;
    if (!m_pDb->IsOpen()) {
        result.m_reason = "SQLite: " + m_pDb->GetOpenError();
        return result;
    }
    if (!LoadTables(request, error)) {
        result.m_reason = error;
        return result;
    }

    // Every list whose rows depend on an order must pick them unambiguously on this data.
    std::set<const RqAbstractList*> checked;
    for (const RqAbstractList* list : rendered.m_orderDependentLists) {
        if (!checked.insert(list).second)
            continue;
        std::string why;
        if (list->GetRowLimit() != 0 || list->GetRowOffset() != 0)
            why = CheckLimit(*list);
        if (const auto* filter = RqDynCast<RqBreakFilter>(list); why.empty() && filter != nullptr)
            why = CheckBreakFilter(*filter);
        if (!why.empty()) {
            result.m_reason = why;
            return result;
        }
    }

    if (!Query(result.m_sql, result.m_rows, error)) {
        result.m_reason = "SQLite: " + error;
        return result;
    }
    const RqNode* top = &request;
    if (const auto* handle = RqDynCast<RqHandleNode>(top))
        top = handle->GetRqNode();
    // The rows a write writes land in a table: a bag, whatever order its list gives them.
    if (RqDynCast<RqWrite>(top) != nullptr)
        top = nullptr;
    std::vector<SqlSortKey> keys;
    if (const auto* list = RqDynCast<RqAbstractList>(top);
        list != nullptr && SqlRenderer::GetListOrder(*list, keys))
        result.m_order = keys;
    result.m_bComparable = true;
    return result;
}

std::string SqlCheckSession::CheckLimit(const RqAbstractList& list) {
    const std::string where = "a row limit at " + Where(list);
    SqlRenderOptions options;
    options.m_pWithoutLimit = &list;
    const SqlRenderResult rendered = SqlRenderer::Render(list, m_pRp, options);
    if (!rendered.IsOk())
        return "cannot check " + where + " on its own: " + rendered.Describe();
    if (const std::string why = Budget(rendered); !why.empty())
        return "cannot check " + where + ": " + why;
    std::vector<SqlSortKey> keys;
    SqlRenderer::GetListOrder(list, keys);
    std::string order;
    for (const SqlSortKey& key : keys)
        order += (order.empty() ? "ORDER BY " : ", ") + SqlRenderer::GetOrderTerm(list, key);
    // Rows tied on every sort key share a rank; the rank is the position of the tie's first row.
    const std::string sql = "SELECT *, RANK() OVER (" + order + ") AS rq_rank\nFROM (\n" +
                            SqlRenderer::IndentLines(rendered.m_sql, "  ") + "\n)";
    SqlRows rows;
    std::string error;
    if (!Query(sql, rows, error))
        return "cannot check " + where + ": SQLite: " + error;
    const size_t numColumns = rows.m_columnNames.empty() ? 0 : rows.m_columnNames.size() - 1;
    std::map<int64_t, std::vector<const SqlRow*>> ties;
    for (const SqlRow& row : rows.m_rows)
        ties[row[numColumns].m_int].push_back(&row);
    const uint64_t begin = list.GetRowOffset();
    const uint64_t end = list.GetRowLimit() != 0 ? begin + list.GetRowLimit() : UINT64_MAX;
    for (const auto& [rank, members] : ties) {
        const uint64_t first = static_cast<uint64_t>(rank - 1);
        const uint64_t last = first + members.size();
        const bool bPartly = first < end && last > begin && (first < begin || last > end);
        if (!bPartly)
            continue;
        for (const SqlRow* row : members) {
            if (!IdenticalRows(*row, *members[0], numColumns))
                return "not determined: " + where +
                       " cuts through rows that tie on every sort key (a row limit over a partial "
                       "order)";
        }
    }
    return std::string();
}

std::string SqlCheckSession::CheckBreakFilter(const RqBreakFilter& filter) {
    const std::string where = "the break filter at " + Where(filter);
    const RqAbstractList* inner = filter.GetInnerList();
    const SqlRenderResult rendered = SqlRenderer::Render(*inner, m_pRp);
    if (!rendered.IsOk())
        return "cannot check " + where + " on its own: " + rendered.Describe();
    std::vector<SqlSortKey> keys;
    SqlRenderer::GetListOrder(*inner, keys);
    std::string all;
    for (int i = 0; i < inner->GetProjection()->GetNumColumns(); ++i)
        all += (i == 0 ? "" : ", ") + SqlRenderer::GetColumnName(*inner, i);
    std::string breaks;
    for (uint16_t index : filter.BreakColumnIndexes())
        breaks += (breaks.empty() ? "" : ", ") + SqlRenderer::GetColumnName(*inner, index);
    std::string window;
    if (!breaks.empty())
        window = "PARTITION BY " + breaks;
    for (size_t k = 0; k < keys.size(); ++k)
        window += (k == 0 ? (window.empty() ? "ORDER BY " : " ORDER BY ") : ", ") +
                  SqlRenderer::GetOrderTerm(*inner, keys[k]);
    // Per break value, the distinct rows that come first in the inner order: more than one
    // means the break filter could keep either.
    std::string sql =
        "SELECT COUNT(*)\nFROM (\n  SELECT DISTINCT " + all +
        "\n  FROM (\n    SELECT *, RANK() OVER (" + window + ") AS rq_rank\n    FROM (\n" +
        SqlRenderer::IndentLines(rendered.m_sql, "      ") + "\n    )\n  )\n  WHERE rq_rank = 1\n)";
    if (!breaks.empty())
        sql += "\nGROUP BY " + breaks;
    SqlRows rows;
    std::string error;
    if (!Query(sql, rows, error))
        return "cannot check " + where + ": SQLite: " + error;
    for (const SqlRow& row : rows.m_rows) {
        if (row[0].m_int > 1)
            return "not determined: " + where +
                   " keeps one of several different rows (its other columns are not determined by "
                   "its break columns in the inner list's order)";
    }
    return std::string();
}

SqlCheckOutcome SqlCheckSession::Compare(const SqlRunResult& before,
                                         const SqlRunResult& after) const {
    SqlCheckOutcome outcome;
    outcome.m_seed = m_options.m_seed;
    outcome.m_rows = m_options.m_rows;
    outcome.m_beforeSql = before.m_sql;
    outcome.m_afterSql = after.m_sql;
    outcome.m_beforeRowCount = before.m_rows.m_rows.size();
    outcome.m_afterRowCount = after.m_rows.m_rows.size();
    if (!before.m_bComparable || !after.m_bComparable) {
        outcome.m_kind = SqlCheckOutcome::kNotComparable;
        outcome.m_reason = !before.m_bComparable ? "the original request: " + before.m_reason
                                                 : "the rewritten request: " + after.m_reason;
        return outcome;
    }
    const size_t beforeColumns = before.m_rows.m_columnNames.size();
    const size_t afterColumns = after.m_rows.m_columnNames.size();
    outcome.m_kind = SqlCheckOutcome::kDifferent;
    if (beforeColumns != afterColumns) {
        outcome.m_reason = "the original returns " + std::to_string(beforeColumns) +
                           " columns, the rewritten request " + std::to_string(afterColumns);
        return outcome;
    }
    const std::vector<SqlRow>& a = before.m_rows.m_rows;
    const std::vector<SqlRow>& b = after.m_rows.m_rows;
    auto keep = [&](std::vector<SqlRow>& onlyA, std::vector<SqlRow>& onlyB) {
        outcome.m_onlyBeforeCount = onlyA.size();
        outcome.m_onlyAfterCount = onlyB.size();
        if (onlyA.size() > m_options.m_maxReportedRows)
            onlyA.resize(m_options.m_maxReportedRows);
        if (onlyB.size() > m_options.m_maxReportedRows)
            onlyB.resize(m_options.m_maxReportedRows);
        outcome.m_onlyBefore = std::move(onlyA);
        outcome.m_onlyAfter = std::move(onlyB);
    };
    const std::string counts = "the original returns " + std::to_string(a.size()) +
                               " rows, the rewritten request " + std::to_string(b.size());

    if (before.m_order.empty()) {
        std::vector<SqlRow> onlyA;
        std::vector<SqlRow> onlyB;
        BagDifference(a, b, onlyA, onlyB);
        if (onlyA.empty() && onlyB.empty()) {
            outcome.m_kind = SqlCheckOutcome::kSame;
            return outcome;
        }
        outcome.m_reason = counts + "; their rows differ";
        keep(onlyA, onlyB);
        return outcome;
    }

    // The original's order fixes the sequence of groups of tied rows; inside a group the rows
    // are a bag.
    const std::vector<std::pair<size_t, size_t>> runsA = Runs(a, before.m_order);
    const std::vector<std::pair<size_t, size_t>> runsB = Runs(b, before.m_order);
    for (size_t r = 0; r < std::max(runsA.size(), runsB.size()); ++r) {
        std::vector<SqlRow> groupA;
        std::vector<SqlRow> groupB;
        if (r < runsA.size())
            groupA.assign(a.begin() + runsA[r].first, a.begin() + runsA[r].second);
        if (r < runsB.size())
            groupB.assign(b.begin() + runsB[r].first, b.begin() + runsB[r].second);
        std::vector<SqlRow> onlyA;
        std::vector<SqlRow> onlyB;
        BagDifference(groupA, groupB, onlyA, onlyB);
        if (onlyA.empty() && onlyB.empty())
            continue;
        outcome.m_reason = counts +
                           "; in the order of the original, the group of rows tied on the "
                           "sort keys at position " +
                           std::to_string(r < runsA.size() ? runsA[r].first + 1 : a.size() + 1) +
                           " differs";
        keep(onlyA, onlyB);
        return outcome;
    }
    outcome.m_kind = SqlCheckOutcome::kSame;
    return outcome;
}

// ---- SqlCheck
// ------------------------------------------------------------------------------------

SqlCheckOutcome SqlCheck::Compare(const RqNode& before, const RqNode& after, const ARpGateway* rp,
                                  const SqlCheckOptions& options) {
    SqlCheckSession session(rp, options);
    session.AddLiterals(before);
    session.AddLiterals(after);
    const SqlRunResult original = session.Run(before);
    const SqlRunResult rewritten = session.Run(after);
    return session.Compare(original, rewritten);
}
