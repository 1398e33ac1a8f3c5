// Deterministic test data for the differential check.

#include "Query/Optimizer/RequestSql/SQORSqlDataGenerator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cwctype>
#include <iterator>

#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"

namespace {

std::wstring Upper(const ZKString& text) {
    std::wstring out;
    for (wchar_t c : text)
        out += static_cast<wchar_t>(std::towupper(c));
    return out;
}

bool Contains(const std::wstring& text, const wchar_t* part) {
    return text.find(part) != std::wstring::npos;
}

// FNV-1a over the UTF-8 text, so that names give the same stream on every platform.
uint64_t Hash(uint64_t seed, const std::string& text) {
    uint64_t h = 1469598103934665603ull ^ (seed * 0x9E3779B97F4A7C15ull);
    for (unsigned char c : text) {
        h ^= c;
        h *= 1099511628211ull;
    }
    return h;
}

// SplitMix64: small, fast and the same everywhere (the standard distributions are not).
class Random {
public:
    explicit Random(uint64_t seed) : m_state(seed) {}
    uint64_t Next() {
        uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    // Uniform in [0, 1).
    double Unit() { return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0); }
    // Uniform in [0, n).
    int64_t Below(int64_t n) {
        return n <= 0 ? 0 : static_cast<int64_t>(Next() % static_cast<uint64_t>(n));
    }
    // In [0, n), small values much more often than large ones.
    int64_t Skewed(int64_t n) {
        const double u = Unit();
        return std::min<int64_t>(n - 1, static_cast<int64_t>(n * u * u));
    }
    bool Chance(double p) { return Unit() < p; }

private:
    uint64_t m_state;
};

// "2024-01-01" plus `days`, by the civil calendar.
std::string DateText(int64_t days) {
    // Days since 1970-01-01 of 2024-01-01.
    int64_t z = 19723 + days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    const int64_t day = doy - (153 * mp + 2) / 5 + 1;
    const int64_t month = mp < 10 ? mp + 3 : mp - 9;
    const int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d", static_cast<int>(year),
                  static_cast<int>(month), static_cast<int>(day));
    return buffer;
}

std::string TimeText(int64_t hour, int64_t minute) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%02d:%02d:00", static_cast<int>(hour),
                  static_cast<int>(minute));
    return buffer;
}

// Words that collide across columns, with the cases that trip comparisons up: an empty
// string, letter case, blanks, LIKE's wildcard characters.
const char* const kWords[] = {"alpha", "beta",  "Gamma", "",     "alpha beta",
                              "ALPHA", "delta", "e%_z",  "zeta", "eta"};
// Rarer texts: non-ASCII letters (which sort after every ASCII one and which NOCASE does not
// fold), a combining accent, a letter outside the basic plane.
const char* const kUnicodeWords[] = {"\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89",
                                     "e\xCC\x81te",       "\xE6\x97\xA5\xE6\x9C\xAC",
                                     "stra\303\237e",     "\xF0\x9F\x98\x80 smile"};

// How often a value leaves the narrow ranges where values collide.
constexpr double kWideChance = 0.15;
// The wide dates: from two years before to four years after the narrow quarter.
constexpr int64_t kWideDaysBefore = int64_t{2} * 365;
constexpr int64_t kWideDays = int64_t{6} * 365;

const char* SqliteType(SqlDataGenerator::ValueKind kind) {
    switch (kind) {
        case SqlDataGenerator::kInteger:
        case SqlDataGenerator::kBoolean:
            return "INTEGER";
        case SqlDataGenerator::kReal:
            return "REAL";
        default:
            return "TEXT";
    }
}

// One of the literals, now and then, else the generated value.
template <class T>
bool PickLiteral(Random& random, const std::set<T>& literals, T& out) {
    if (literals.empty() || !random.Chance(0.25))
        return false;
    auto it = literals.begin();
    std::advance(it, random.Below(static_cast<int64_t>(literals.size())));
    out = *it;
    return true;
}

}  // namespace

void SqlLiterals::AddFrom(const RqNode& root) {
    RqNodeVector found;
    FindNodes(const_cast<RqNode*>(&root), RqNode::IsObjectType(kRqExprLiteral), found);
    for (const RqNode* node : found) {
        if (const auto* literal = RqDynCast<RqExprStringLiteral>(node)) {
            const std::string text = literal->GetValue().ToUtf8();
            m_texts.insert(text);
            std::string plain;
            for (char c : text) {
                if (c != '%' && c != '_')
                    plain += c;
            }
            m_texts.insert(plain);
        } else if (const auto* integer = RqDynCast<RqExprIntegerLiteral>(node)) {
            AddNumber(static_cast<double>(integer->GetValue()));
            // Neighbours too, so that comparisons with the literal go both ways.
            const int64_t value = integer->GetValue();
            if (value > INT64_MIN / 2 && value < INT64_MAX / 2) {
                for (int64_t near : {value - 1, value, value + 1, 2 * value})
                    m_integers.insert(near);
            }
        } else if (const auto* real = RqDynCast<RqExprFloatLiteral>(node)) {
            AddNumber(real->GetValue());
        } else if (const auto* number = RqDynCast<RqExprNumberLiteral>(node)) {
            // Decimal text: planted as the real it reads as, when it reads as one.
            const std::string text = number->GetValue().ToUtf8();
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            if (!text.empty() && end == text.c_str() + text.size())
                AddNumber(value);
        } else if (const auto* date = RqDynCast<RqExprDateLiteral>(node)) {
            m_temporal.insert(date->GetValue().ToUtf8());
        } else if (const auto* time = RqDynCast<RqExprTimeLiteral>(node)) {
            m_temporal.insert(time->GetValue().ToUtf8());
        } else if (const auto* timestamp = RqDynCast<RqExprDateTimeLiteral>(node)) {
            m_temporal.insert(timestamp->GetValue().ToUtf8());
        }
        // Null and interval literals name no value a column could hold.
    }
}

void SqlLiterals::AddNumber(double value) {
    if (std::isfinite(value)) {
        for (double near : {value - 1.0, value, value + 1.0, 2.0 * value})
            m_reals.insert(near);
    }
}

SqlDataGenerator::SqlDataGenerator(const RpRepository& repository, const SqlDataOptions& options)
    : m_options(options) {
    for (const RefATable& table : AllTables(repository)) {
        for (const RefAKey& key : table->GetKeys()) {
            for (const RefAColumn& column : key->GetColumns())
                m_keyLikeNames.insert(Upper(column->GetName()));
        }
    }
}

std::vector<RefATable> SqlDataGenerator::TablesReadBy(const RqNode& root, const ARpGateway* rp) {
    std::vector<RefATable> tables;
    RqNodeVector found;
    FindNodes(const_cast<RqNode*>(&root), RqNode::IsObjectType(kRqIdentifiedTable), found);
    for (const RqNode* node : found) {
        RefATable table = RefHelper::GetTable(rp, RqCast<RqIdentifiedTable>(node)->GetTableID());
        if (table && std::find(tables.begin(), tables.end(), table) == tables.end())
            tables.push_back(table);
    }
    return tables;
}

std::vector<RefATable> SqlDataGenerator::AllTables(const RpRepository& repository) {
    std::vector<RefATable> tables;
    for (const RefADatabase& database : repository.GetDatabases()) {
        for (const RefATable& table : database->GetTables())
            tables.push_back(table);
    }
    return tables;
}

SqlDataGenerator::ValueKind SqlDataGenerator::KindOf(const ZKString& dataType) {
    const std::wstring type = Upper(dataType);
    if (type.empty() || Contains(type, L"INT"))
        return kInteger;
    if (Contains(type, L"BOOL") || type == L"BIT")
        return kBoolean;
    if (Contains(type, L"TIMESTAMP") || Contains(type, L"DATETIME"))
        return kTimestamp;
    if (Contains(type, L"DATE"))
        return kDate;
    if (Contains(type, L"TIME"))
        return kTime;
    for (const wchar_t* real : {L"DOUB", L"FLOA", L"REAL", L"DEC", L"NUM", L"MONEY"}) {
        if (Contains(type, real))
            return kReal;
    }
    return kText;
}

std::string SqlDataGenerator::CreateStatement(const ATable& table) {
    std::string sql = "CREATE TABLE " + SqlRenderer::GetTableName(table) + " (";
    const std::vector<RefAColumn> columns = table.GetColumns();
    for (size_t i = 0; i < columns.size(); ++i) {
        sql += (i == 0 ? "" : ", ") + SqlRenderer::QuoteIdentifier(columns[i]->GetName().ToUtf8()) +
               " " + SqliteType(KindOf(columns[i]->GetDataType()));
    }
    // SQLite wants a column; a table without any still has rows to join.
    if (columns.empty())
        sql += "rq_no_column INTEGER";
    return sql + ")";
}

bool SqlDataGenerator::IsKeyLike(const ZKString& columnName) const {
    const std::wstring name = Upper(columnName);
    if (m_keyLikeNames.count(name) > 0)
        return true;
    auto endsWith = [&](const wchar_t* suffix) {
        const std::wstring s = suffix;
        return name.size() >= s.size() && name.compare(name.size() - s.size(), s.size(), s) == 0;
    };
    return endsWith(L"ID") || endsWith(L"KEY");
}

uint32_t SqlDataGenerator::RowCount(const ATable& table) const {
    const std::string name = SqlRenderer::GetTableName(table);
    const uint64_t pick = Random(Hash(m_options.m_seed, "rows:" + name)).Next() % 20;
    const uint32_t rows = m_options.m_rows;
    if (pick == 0)
        return 0;
    if (pick == 1)
        return std::min<uint32_t>(rows, 1);
    if (pick < 6)
        return std::max<uint32_t>(rows / 4, std::min<uint32_t>(rows, 1));
    if (pick < 11)
        return std::max<uint32_t>(rows / 2, std::min<uint32_t>(rows, 1));
    return rows;
}

namespace {

using KeyPositions = std::vector<std::vector<size_t>>;

// The positions of the columns of each declared key of the table.
KeyPositions DeclaredKeys(const ATable& table, const std::vector<RefAColumn>& columns) {
    KeyPositions keys;
    for (const RefAKey& key : table.GetKeys()) {
        std::vector<size_t> positions;
        for (const RefAColumn& keyColumn : key->GetColumns()) {
            for (size_t c = 0; c < columns.size(); ++c) {
                if (columns[c] == keyColumn)
                    positions.push_back(c);
            }
        }
        if (!positions.empty())
            keys.push_back(positions);
    }
    return keys;
}

bool InKey(const KeyPositions& keys, size_t c, bool bAlone) {
    for (const std::vector<size_t>& key : keys) {
        if (std::find(key.begin(), key.end(), c) != key.end() && (!bAlone || key.size() == 1))
            return true;
    }
    return false;
}

// Keys of several columns (or of a kind with few values) are made unique by dropping the rows
// that repeat a key.
void DropRepeatedKeys(const KeyPositions& keys, std::vector<SqlRow>& rows) {
    for (const std::vector<size_t>& key : keys) {
        std::set<std::string> seen;
        std::vector<SqlRow> kept;
        for (SqlRow& row : rows) {
            std::string tuple;
            for (size_t c : key)
                tuple += row[c].ToString() + '\x1f';
            if (seen.insert(tuple).second)
                kept.push_back(std::move(row));
        }
        rows = std::move(kept);
    }
}

// One of the request's literals of the column's kind, now and then.
bool PickPlanted(SqlDataGenerator::ValueKind kind, Random& random, const SqlLiterals& literals,
                 SqlValue& value) {
    int64_t integer = 0;
    double real = 0;
    std::string text;
    if (kind == SqlDataGenerator::kInteger && PickLiteral(random, literals.m_integers, integer)) {
        value = SqlValue::Integer(integer);
        return true;
    }
    if (kind == SqlDataGenerator::kReal && PickLiteral(random, literals.m_reals, real)) {
        value = SqlValue::Real(real);
        return true;
    }
    const bool bTemporal = kind == SqlDataGenerator::kDate || kind == SqlDataGenerator::kTime ||
                           kind == SqlDataGenerator::kTimestamp;
    if ((kind == SqlDataGenerator::kText && PickLiteral(random, literals.m_texts, text)) ||
        (bTemporal && PickLiteral(random, literals.m_temporal, text))) {
        value = SqlValue::Text(text);
        return true;
    }
    return false;
}

// How one column's values are drawn: its random stream, and the skew that decides which of
// its values come often.
struct ColumnDraw {
    Random m_random;
    int64_t m_wordShift;
    bool m_bLargeOften;
    // The wide values have a stream of their own: the narrow values, and with them the
    // collisions and planted literals that requests are written against, stay where they were.
    Random m_wide;

    int64_t Skewed(int64_t n) {
        const int64_t v = m_random.Skewed(n);
        return m_bLargeOften ? n - 1 - v : v;
    }

    // A value of the kind: `key` when the column holds keys, else a skewed one from a narrow
    // range where values collide, now and then replaced by one from a wide range.
    SqlValue Value(SqlDataGenerator::ValueKind kind, bool bKeyValue, int64_t key) {
        SqlValue value = Narrow(kind, bKeyValue, key);
        if (bKeyValue || !m_wide.Chance(kWideChance))
            return value;
        switch (kind) {
            case SqlDataGenerator::kInteger:
                return SqlValue::Integer(WideInteger());
            case SqlDataGenerator::kReal:
                // Quarters of integers below 2^34 are exact in binary, and so are the sums of
                // a table's values, whatever the order of rows.
                return SqlValue::Real(static_cast<double>(WideInteger()) * 0.25);
            case SqlDataGenerator::kText:
                return SqlValue::Text(WideText());
            case SqlDataGenerator::kDate:
                return SqlValue::Text(DateText(WideDay()));
            case SqlDataGenerator::kTimestamp:
                // The narrow value's time of day stays.
                return SqlValue::Text(DateText(WideDay()) + value.m_text.substr(10));
            case SqlDataGenerator::kTime:
            case SqlDataGenerator::kBoolean:
                break;
        }
        return value;
    }

    SqlValue Narrow(SqlDataGenerator::ValueKind kind, bool bKeyValue, int64_t key) {
        switch (kind) {
            case SqlDataGenerator::kInteger:
                return SqlValue::Integer(bKeyValue ? key : Skewed(12) - 2);
            case SqlDataGenerator::kBoolean:
                return SqlValue::Integer(m_random.Below(2));
            case SqlDataGenerator::kReal:
                // Quarters are exact in binary, so sums do not depend on the order of rows.
                return SqlValue::Real(bKeyValue ? static_cast<double>(key)
                                                : static_cast<double>(Skewed(40) - 6) * 0.25);
            case SqlDataGenerator::kText:
                return SqlValue::Text(bKeyValue ? "K" + std::to_string(key)
                                                : kWords[(m_random.Skewed(10) + m_wordShift) % 10]);
            case SqlDataGenerator::kDate:
                return SqlValue::Text(DateText(bKeyValue ? key : m_random.Skewed(90)));
            case SqlDataGenerator::kTime:
                return SqlValue::Text(TimeText(m_random.Skewed(24), m_random.Below(4) * 15));
            case SqlDataGenerator::kTimestamp:
                return SqlValue::Text(DateText(bKeyValue ? key : m_random.Skewed(90)) + " " +
                                      TimeText(m_random.Skewed(24), m_random.Below(4) * 15));
        }
        return SqlValue::Null();
    }

    // Negative and large numbers of every magnitude up to 2^33, so that ORDER BY and range
    // conditions meet values of mixed magnitudes.
    int64_t WideInteger() {
        const int64_t magnitude = int64_t{1} << m_wide.Below(33);
        const int64_t value = magnitude + m_wide.Below(magnitude);
        return m_wide.Chance(0.5) ? -value : value;
    }

    // Long texts and texts beyond ASCII.
    std::string WideText() {
        if (m_wide.Chance(0.5))
            return kUnicodeWords[m_wide.Below(std::size(kUnicodeWords))];
        std::string text;
        const int64_t length = 100 + m_wide.Below(200);
        for (int64_t i = 0; i < length; ++i)
            text += static_cast<char>('a' + m_wide.Below(26));
        return text;
    }

    // Days over several years around the narrow quarter (leap days, year ends, months of
    // every length).
    int64_t WideDay() { return m_wide.Below(kWideDays) - kWideDaysBefore; }
};

}  // namespace

std::vector<SqlRow> SqlDataGenerator::MakeRows(const ATable& table) const {
    const std::string tableName = SqlRenderer::GetTableName(table);
    const uint32_t count = RowCount(table);
    const std::vector<RefAColumn> columns = table.GetColumns();
    std::vector<SqlRow> rows(count, SqlRow(std::max<size_t>(columns.size(), 1)));
    // The table's declared keys hold: their columns are never NULL and their values never
    // repeat, since rewrites may rely on that.
    const KeyPositions keys = DeclaredKeys(table, columns);
    for (size_t c = 0; c < columns.size(); ++c)
        MakeColumn(tableName, *columns[c], InKey(keys, c, false), InKey(keys, c, true), c, rows);
    DropRepeatedKeys(keys, rows);
    return rows;
}

// Column c of every row. A column that is a key on its own takes distinct values from a range
// a third larger than the table. Other join columns draw from a range smaller than the tables,
// shared by every column of that name: values repeat (joins multiply rows) and some are
// missing (rows without a partner).
void SqlDataGenerator::MakeColumn(const std::string& tableName, const AColumn& column,
                                  bool bNotNull, bool bUniqueKey, size_t c,
                                  std::vector<SqlRow>& rows) const {
    const uint32_t count = static_cast<uint32_t>(rows.size());
    const int64_t keyRange = std::max<int64_t>(3, m_options.m_rows * 2 / 3);
    const std::string columnName = tableName + "." + column.GetName().ToUtf8();
    // Columns of one kind share their values but not how often each comes: the frequent
    // values of one column are rare in another, so that a bag of one has more copies of some
    // value than a bag of the other (EXCEPT ALL keeps rows, INTERSECT ALL drops some) even
    // when the other is larger.
    const uint64_t shape = Random(Hash(m_options.m_seed, "shape:" + columnName)).Next();
    ColumnDraw draw{Random(Hash(m_options.m_seed, columnName)), static_cast<int64_t>(shape % 10),
                    (shape >> 8) % 2 == 1, Random(Hash(m_options.m_seed, "wide:" + columnName))};
    Random& random = draw.m_random;
    const ValueKind kind = KindOf(column.GetDataType());
    const bool bKey = IsKeyLike(column.GetName());
    std::vector<int64_t> distinct;
    if (bUniqueKey) {
        distinct.resize(std::max<int64_t>(keyRange, count + count / 3 + 1));
        for (size_t i = 0; i < distinct.size(); ++i)
            distinct[i] = static_cast<int64_t>(i);
        for (size_t i = 0; i < count; ++i)
            std::swap(distinct[i], distinct[i + random.Below(distinct.size() - i)]);
    }
    for (uint32_t r = 0; r < count; ++r) {
        SqlValue& value = rows[r][c];
        if (!bNotNull && random.Chance(bKey ? 0.04 : 0.08))
            continue;  // NULL
        // A few keys far outside the shared range match nothing anywhere.
        const bool bStray = bKey && random.Chance(0.04);
        const int64_t key = !distinct.empty() ? distinct[r]
                            : bStray          ? keyRange + 1000 + random.Below(1000000)
                                              : random.Below(keyRange);
        if (distinct.empty() && PickPlanted(kind, random, m_options.m_literals, value))
            continue;
        value = draw.Value(kind, bKey || !distinct.empty(), key);
    }
}

bool SqlDataGenerator::Load(SqlDatabase& db, const ATable& table, std::string& error) const {
    if (!db.Execute(CreateStatement(table), error))
        return false;
    const std::string name = SqlRenderer::GetTableName(table);
    const std::vector<RefAColumn> columns = table.GetColumns();
    if (!db.Insert(name, std::max<size_t>(columns.size(), 1), MakeRows(table), error))
        return false;
    // The declared keys are indexed: requests look rows up and join by key, and a request of
    // many blocks over one table would otherwise scan it once per block.
    const KeyPositions keys = DeclaredKeys(table, columns);
    for (size_t k = 0; k < keys.size(); ++k) {
        std::vector<std::string> keyColumns;
        for (size_t c : keys[k])
            keyColumns.push_back(SqlRenderer::QuoteIdentifier(columns[c]->GetName().ToUtf8()));
        std::string index = name.substr(0, name.size() - 1) + " key " + std::to_string(k) + "\"";
        std::string sql = "CREATE INDEX " + index + " ON " + name + " (";
        for (size_t i = 0; i < keyColumns.size(); ++i)
            sql += (i == 0 ? "" : ", ") + keyColumns[i];
        if (!db.Execute(sql + ")", error))
            return false;
    }
    return true;
}
