// The request generator: a recursive walk that writes blocks, FROM clauses and expressions
// while it keeps, for each block, the typed columns in scope, so that every expression it
// writes compares and computes values of one kind and every reference names a column that
// exists.

#include "RqRequestGenerator.h"

#include <algorithm>
#include <random>

#include "Platform/Repository.h"
#include "Platform/ServerInfo.h"

namespace {

// The kinds of values the generator keeps apart: SQLite would compare a text with a number,
// but the request would not mean the same thing on a typed engine.
enum class GenType { kInt, kReal, kText, kDate };

bool IsNumeric(GenType type) {
    return type == GenType::kInt || type == GenType::kReal;
}

bool TypeFrom(const std::string& dataType, GenType& type) {
    auto starts = [&](const char* prefix) { return dataType.rfind(prefix, 0) == 0; };
    if (starts("INT") || starts("BIGINT") || starts("SMALLINT"))
        type = GenType::kInt;
    else if (starts("DOUBLE") || starts("REAL") || starts("FLOAT") || starts("DECIMAL") ||
             starts("NUMERIC"))
        type = GenType::kReal;
    else if (starts("VARCHAR") || starts("CHAR") || starts("TEXT"))
        type = GenType::kText;
    else if (starts("DATE") && !starts("DATETIME"))
        type = GenType::kDate;
    else
        return false;
    return true;
}

struct GenTable {
    std::string m_name;      // as the request text names it
    std::string m_database;  // the database's name
    std::string m_target;    // the database's target type name
    std::vector<std::pair<std::string, GenType>> m_columns;
};

struct GenColumn {
    std::string m_text;
    GenType m_type;
};

// The columns a block's expressions may read: its own FROM clause's, then (for subqueries)
// those of the blocks around it.
struct GenScope {
    std::vector<GenColumn> m_columns;
    const GenScope* m_pOuter = nullptr;
};

// A list as written: its text and the types of the columns it exposes.
struct GenList {
    std::string m_text;
    std::vector<GenType> m_types;
    std::string m_label;
    std::string m_database;  // the one database its tables come from, else empty
};

std::string Pad(int indent) {
    return std::string(static_cast<size_t>(indent) * 2, ' ');
}

}  // namespace

class RqRequestGenerator::Impl {
public:
    Impl(const RpRepository& repository, const RqGenOptions& options) : m_options(options) {
        for (const RefADatabase& database : repository.GetDatabases()) {
            const std::string dbName = database->GetName().ToUtf8();
            const std::string target =
                ZKToUtf8(ServerInfo::TargetTypeName(database->GetTargetType()));
            for (const RefATable& table : database->GetTables()) {
                GenTable gen;
                gen.m_database = dbName;
                gen.m_target = target;
                gen.m_name = dbName + ".";
                if (!table->GetSchema().ToUtf8().empty())
                    gen.m_name += table->GetSchema().ToUtf8() + ".";
                gen.m_name += table->GetName().ToUtf8();
                for (const RefAColumn& column : table->GetColumns()) {
                    GenType type;
                    // Multi-valued columns hold several values per row: no SQL meaning.
                    if (column->GetKind() > kColumnKind_Lookup)
                        continue;
                    if (TypeFrom(column->GetDataType().ToUtf8(), type))
                        gen.m_columns.push_back({column->GetName().ToUtf8(), type});
                }
                if (!gen.m_columns.empty())
                    m_tables.push_back(std::move(gen));
            }
        }
    }

    size_t NumTables() const { return m_tables.size(); }

    std::string Generate(uint64_t seed) {
        m_rng.seed(seed);
        m_nextTable = 1;
        m_nextLabel = 1;
        if (m_tables.empty())
            return "request {\n}\n";
        GenList top = ListNode(1, 0, nullptr, nullptr, true);
        return "request [target=engine] {\n" + top.m_text + "}\n";
    }

private:
    // ---- Randomness ---------------------------------------------------------------------------
    size_t Pick(size_t n) { return n == 0 ? 0 : static_cast<size_t>(m_rng() % n); }
    bool Chance(int percent) { return static_cast<int>(m_rng() % 100) < percent; }
    template <class T>
    const T& PickOf(const std::vector<T>& items) {
        return items[Pick(items.size())];
    }

    std::string NewLabel() { return "b" + std::to_string(m_nextLabel++); }
    std::string NewTable() { return "t" + std::to_string(m_nextTable++); }

    // ---- Lists --------------------------------------------------------------------------------

    // A block, a set operation or a break filter. `wanted` fixes the exposed column types (a
    // set operation's later members); `outer` is the scope of a subquery's block.
    GenList ListNode(int indent, int depth, const std::vector<GenType>* wanted,
                     const GenScope* outer, bool bTop) {
        if (depth < m_options.m_maxDepth && outer == nullptr && Chance(m_options.m_setOperation))
            return SetOperation(indent, depth, wanted);
        if (depth < m_options.m_maxDepth && outer == nullptr && wanted == nullptr &&
            Chance(m_options.m_breakFilter))
            return BreakFilter(indent, depth);
        return Block(indent, depth, wanted, outer, bTop, false);
    }

    GenList SetOperation(int indent, int depth, const std::vector<GenType>* wanted) {
        static const char* const kOps[] = {"union", "union", "intersect", "except"};
        const std::string op = kOps[Pick(4)];
        GenList result;
        result.m_label = NewLabel();
        const bool bAll = Chance(50);
        GenList first = Block(indent + 1, depth + 1, wanted, nullptr, false, false);
        const size_t members = Chance(20) ? 3 : 2;
        std::string body = first.m_text;
        result.m_database = first.m_database;
        for (size_t i = 1; i < members; ++i) {
            GenList next = Block(indent + 1, depth + 1, &first.m_types, nullptr, false, false);
            if (next.m_database != result.m_database)
                result.m_database.clear();
            body += next.m_text;
        }
        std::string head = Pad(indent) + op + " @" + result.m_label + (bAll ? " all" : "");
        result.m_text = head + " {\n" + body + Pad(indent) + "}\n";
        result.m_types = first.m_types;
        // A set operation exposes its first member's columns: references name that list.
        result.m_label = first.m_label;
        return result;
    }

    GenList BreakFilter(int indent, int depth) {
        // The inner block orders every column, so the row kept for each break value is the
        // first of a total order and the result is determined.
        GenList inner = Block(indent + 1, depth + 1, nullptr, nullptr, false, true);
        GenList result;
        result.m_label = NewLabel();
        result.m_types = inner.m_types;
        result.m_database = inner.m_database;
        std::string cols = "0";
        if (inner.m_types.size() > 2 && Chance(40))
            cols += ", 1";
        result.m_text = Pad(indent) + "breakfilter @" + result.m_label + " cols=(" + cols +
                        ") {\n" + inner.m_text + Pad(indent) + "}\n";
        // References name the inner list, whose columns the break filter exposes.
        result.m_label = inner.m_label;
        return result;
    }

    struct FromResult {
        std::vector<std::string> m_lines;  // items of the FROM clause, already indented
        GenScope m_scope;
        std::vector<std::string> m_databases;
        bool m_bJoin = false;
    };

    std::string TableItem(const GenTable& table, FromResult& from, std::string& alias) {
        alias = NewTable();
        for (const auto& [name, type] : table.m_columns)
            from.m_scope.m_columns.push_back({alias + "." + name, type});
        from.m_databases.push_back(table.m_database);
        return "table " + table.m_name + " " + alias;
    }

    // A join condition between a column of `left` and one of the table just added: the same
    // name when both have one, else any pair of one type; a constant truth when none exist.
    std::string JoinCondition(const std::vector<GenColumn>& left, const GenTable& right,
                              const std::string& rightAlias, const GenScope& scope) {
        std::vector<std::pair<std::string, std::string>> same, typed;
        for (const GenColumn& l : left) {
            const std::string lname = l.m_text.substr(l.m_text.find('.') + 1);
            for (const auto& [name, type] : right.m_columns) {
                if (type != l.m_type)
                    continue;
                typed.push_back({l.m_text, rightAlias + "." + name});
                if (name == lname)
                    same.push_back(typed.back());
            }
        }
        const auto& pairs = !same.empty() && Chance(85) ? same : typed;
        std::string cond;
        if (pairs.empty())
            cond = "Eq(1, 1)";
        else {
            const auto& [a, b] = PickOf(pairs);
            cond = "Eq(" + a + ", " + b + ")";
        }
        if (Chance(15))
            cond = "And(" + cond + ", " + Cond(scope, 0, false) + ")";
        return cond;
    }

    // `join <type> { left right on ... }`, nesting to the left now and then.
    std::string JoinItem(int indent, FromResult& from, int levels) {
        static const char* const kOuter[] = {"left", "right", "full"};
        const std::string type = Chance(m_options.m_outerJoin) ? kOuter[Pick(3)] : "inner";
        std::string left;
        const size_t before = from.m_scope.m_columns.size();
        if (levels > 1 && Chance(35)) {
            left = JoinItem(indent + 1, from, levels - 1);
        } else {
            std::string alias;
            left = Pad(indent + 1) + TableItem(PickOf(m_tables), from, alias) + "\n";
        }
        const std::vector<GenColumn> leftColumns(from.m_scope.m_columns.begin() + before,
                                                 from.m_scope.m_columns.end());
        const GenTable& right = RelatedTable(from.m_databases.back());
        std::string alias;
        const std::string rightLine = Pad(indent + 1) + TableItem(right, from, alias) + "\n";
        // The condition names only the join's own tables.
        GenScope own;
        own.m_columns.assign(from.m_scope.m_columns.begin() + before, from.m_scope.m_columns.end());
        const std::string on = JoinCondition(leftColumns, right, alias, own);
        from.m_bJoin = true;
        return Pad(indent) + "join " + type + " {\n" + left + rightLine + Pad(indent + 1) + "on " +
               on + "\n" + Pad(indent) + "}\n";
    }

    // Mostly a table of the same database, so that many blocks run in one source.
    const GenTable& RelatedTable(const std::string& database) {
        if (Chance(75)) {
            std::vector<size_t> same;
            for (size_t i = 0; i < m_tables.size(); ++i)
                if (m_tables[i].m_database == database)
                    same.push_back(i);
            if (!same.empty())
                return m_tables[PickOf(same)];
        }
        return PickOf(m_tables);
    }

    // The FROM clause of a block. Its tables are limited (m_maxTables), so that the joins the
    // check runs stay small: a product of a dozen tables takes SQLite minutes even on a few
    // rows per table.
    FromResult From(int indent, int depth) {
        FromResult from;
        size_t items = 1;
        if (Chance(25))
            items = 1 + Pick(static_cast<size_t>(std::max(1, m_options.m_maxFromItems)));
        int budget = m_options.m_maxTables;
        for (size_t i = 0; i < items && budget > 0; ++i) {
            const int roll = static_cast<int>(Pick(100));
            const size_t before = from.m_databases.size();
            if (roll < 30 && depth < m_options.m_maxDepth) {
                const std::string alias = NewTable();
                GenList inner = ListNode(indent + 2, depth + 1, nullptr, nullptr, false);
                for (size_t c = 0; c < inner.m_types.size(); ++c)
                    from.m_scope.m_columns.push_back(
                        {"@" + inner.m_label + "." + std::to_string(c), inner.m_types[c]});
                from.m_databases.push_back(inner.m_database.empty() ? "" : inner.m_database);
                from.m_lines.push_back(Pad(indent + 1) + "derived " + alias + " {\n" +
                                       inner.m_text + Pad(indent + 1) + "}\n");
            } else if (roll < 65 && budget >= 2) {
                from.m_lines.push_back(JoinItem(indent + 1, from, std::min(3, budget - 1)));
            } else {
                std::string alias;
                from.m_lines.push_back(Pad(indent + 1) + TableItem(PickOf(m_tables), from, alias) +
                                       "\n");
            }
            budget -= static_cast<int>(from.m_databases.size() - before);
        }
        if (items > 1)
            from.m_bJoin = true;
        return from;
    }

    // ---- Expressions ----------------------------------------------------------------------------

    std::string Literal(GenType type) {
        switch (type) {
            case GenType::kInt:
                return std::to_string(static_cast<int>(Pick(12)) - 1);
            case GenType::kReal:
                return std::to_string(Pick(40)) + ".5";
            case GenType::kText: {
                static const char* const kTexts[] = {"\"West\"", "\"A\"", "\"x\"", "\"Books\"",
                                                     "\"\""};
                return kTexts[Pick(5)];
            }
            case GenType::kDate:
                return "date \"2024-0" + std::to_string(1 + Pick(9)) + "-1" +
                       std::to_string(Pick(10)) + "\"";
        }
        return "null";
    }

    // Columns of the scope (and, with `bOuter`, of the scopes around it) of a type.
    std::vector<const GenColumn*> ColumnsOf(const GenScope& scope, GenType type, bool bOuter,
                                            bool bAnyNumeric = false) {
        std::vector<const GenColumn*> found;
        for (const GenScope* s = &scope; s != nullptr; s = bOuter ? s->m_pOuter : nullptr) {
            for (const GenColumn& column : s->m_columns)
                if (column.m_type == type ||
                    (bAnyNumeric && IsNumeric(type) && IsNumeric(column.m_type)))
                    found.push_back(&column);
        }
        return found;
    }

    std::string Value(const GenScope& scope, GenType type, int depth) {
        const int roll = static_cast<int>(Pick(100));
        std::vector<const GenColumn*> columns =
            ColumnsOf(scope, type, false, type == GenType::kReal);
        if (roll < 55 && !columns.empty())
            return PickOf(columns)->m_text;
        if (roll < 70 || depth >= 2) {
            if (!columns.empty() && roll >= 62)
                return PickOf(columns)->m_text;
            return Literal(type);
        }
        if (roll < 88 && IsNumeric(type)) {
            static const char* const kOps[] = {"Add", "Sub", "Mul", "Add", "Div"};
            const std::string op = type == GenType::kReal ? kOps[Pick(5)] : kOps[Pick(4)];
            return op + "(" + Value(scope, type, depth + 1) + ", " + Value(scope, type, depth + 1) +
                   ")";
        }
        if (roll < 92 && IsNumeric(type))
            return "Neg(" + Value(scope, type, depth + 1) + ")";
        std::string text =
            "IfCase(" + Cond(scope, depth + 1, false) + ", " + Value(scope, type, depth + 1);
        if (Chance(70))
            text += ", " + Value(scope, type, depth + 1);
        return text + ")";
    }

    GenType AnyType() {
        static const GenType kTypes[] = {GenType::kInt, GenType::kInt, GenType::kReal,
                                         GenType::kText, GenType::kDate};
        return kTypes[Pick(5)];
    }

    // A type some column of the scope has, so that conditions read the rows.
    GenType ScopeType(const GenScope& scope) {
        if (scope.m_columns.empty() || Chance(10))
            return AnyType();
        return PickOf(scope.m_columns).m_type;
    }

    std::string Cond(const GenScope& scope, int depth, bool bSubqueries) {
        const int roll = static_cast<int>(Pick(100));
        if (depth < 2 && roll < 22) {
            // Or more often than And: a conjunction of random comparisons keeps few rows, and a
            // check over an empty result shows little.
            const char* op = Chance(40) ? "And" : "Or";
            return std::string(op) + "(" + Cond(scope, depth + 1, bSubqueries) + ", " +
                   Cond(scope, depth + 1, bSubqueries) + ")";
        }
        if (depth < 2 && roll < 28)
            return "Not(" + Cond(scope, depth + 1, bSubqueries) + ")";
        if (roll < 36) {
            const std::string test = "IsNull(" + Value(scope, ScopeType(scope), 1) + ")";
            return Chance(50) ? "Not(" + test + ")" : test;
        }
        if (roll < 44) {
            const GenType type = ScopeType(scope);
            std::string text = "In(" + Value(scope, type, 1);
            for (size_t i = 0, n = 1 + Pick(3); i < n; ++i)
                text += ", " + Literal(type);
            return text + ")";
        }
        if (roll < 48) {
            const GenType type = ScopeType(scope);
            return "Between(" + Value(scope, type, 1) + ", " + Literal(type) + ", " +
                   Literal(type) + ")";
        }
        if (bSubqueries && roll < 60 && depth < 3)
            return SubqueryCond(scope);
        static const char* const kCmp[] = {"Eq", "Ne", "Lt", "Le", "Gt", "Ge"};
        const GenType type = ScopeType(scope);
        return std::string(kCmp[Pick(6)]) + "(" + Value(scope, type, 1) + ", " +
               (Chance(60) ? Literal(type) : Value(scope, type, 1)) + ")";
    }

    // EXISTS or IN over a block of its own, correlated to the enclosing block now and then.
    std::string SubqueryCond(const GenScope& scope) {
        std::string text;
        if (Chance(50)) {
            GenList sub = Block(m_subqueryIndent, m_blockDepth + 1, nullptr, &scope, false, false);
            text = "Exists(Subquery(" + Trim(sub.m_text) + "))";
        } else {
            const GenType type = ScopeType(scope);
            const std::vector<GenType> one{type};
            GenList sub = Block(m_subqueryIndent, m_blockDepth + 1, &one, &scope, false, false);
            text = std::string(Chance(20) ? "Not(" : "") + "In(" + Value(scope, type, 1) +
                   ", Subquery(" + Trim(sub.m_text) + "))";
            if (text.rfind("Not(", 0) == 0)
                text += ")";
        }
        return text;
    }

    static std::string Trim(const std::string& text) {
        const size_t first = text.find_first_not_of(' ');
        std::string out = text.substr(first == std::string::npos ? 0 : first);
        while (!out.empty() && out.back() == '\n')
            out.pop_back();
        return out;
    }

    // ---- Blocks ---------------------------------------------------------------------------------

    struct Aggregation {
        std::vector<std::string> m_group;  // GROUP BY expressions
        bool m_bGroupBy = false;
        // A subquery's block: an aggregate at a level of its own there has no SQL form when
        // the block reads the enclosing block's columns.
        bool m_bSubquery = false;
    };

    std::string Aggregate(const GenScope& scope, GenType type, const Aggregation& agg) {
        std::string text;
        const std::vector<const GenColumn*> columns = ColumnsOf(scope, type, false, true);
        std::string measure = columns.empty() ? Literal(type) : PickOf(columns)->m_text;
        if (Chance(15) && IsNumeric(type))
            measure = Value(scope, type, 1);
        if (type == GenType::kInt && Chance(40))
            text = Chance(40) ? "CountStar(" : "Count(" + measure;
        else if (IsNumeric(type))
            text = std::string(Chance(60) ? "Sum(" : (type == GenType::kReal ? "Avg(" : "Max(")) +
                   measure;
        else
            text = std::string(Chance(50) ? "Min(" : "Max(") + measure;
        const bool bStar = text == "CountStar(";
        std::vector<std::string> fields;
        if (!bStar && Chance(15))
            fields.push_back("distinct");
        // A by-list coarser than the block's grouping: a window of the grouped rows.
        if (agg.m_bGroupBy && !agg.m_bSubquery && Chance(20)) {
            std::vector<std::string> by;
            for (const std::string& g : agg.m_group)
                if (Chance(50))
                    by.push_back(g);
            std::string list = "by=(";
            for (size_t i = 0; i < by.size(); ++i)
                list += (i ? ", " : "") + by[i];
            fields.push_back(list + ")");
        }
        for (size_t i = 0; i < fields.size(); ++i)
            text += (bStar && i == 0 ? "" : ", ") + fields[i];
        return text + ")";
    }

    // Projected expression of a grouped block: a grouping column, an aggregate, or arithmetic
    // over them.
    std::string GroupedValue(const GenScope& scope, GenType type, const Aggregation& agg,
                             const std::vector<GenColumn>& groupColumns) {
        std::vector<const GenColumn*> keys;
        for (const GenColumn& g : groupColumns)
            if (g.m_type == type)
                keys.push_back(&g);
        if (!keys.empty() && Chance(45))
            return PickOf(keys)->m_text;
        std::string aggregate = Aggregate(scope, type, agg);
        if (IsNumeric(type) && Chance(15))
            aggregate = "Add(" + aggregate + ", " + Literal(type) + ")";
        return aggregate;
    }

    std::string SummaryCond(const GenScope& scope, const Aggregation& agg,
                            const std::vector<GenColumn>& groupColumns) {
        const GenType type = Chance(70) ? GenType::kInt : ScopeType(scope);
        std::string left = GroupedValue(scope, type, agg, groupColumns);
        static const char* const kCmp[] = {"Gt", "Ge", "Lt", "Ne", "Eq"};
        std::string cond = std::string(kCmp[Pick(5)]) + "(" + left + ", " + Literal(type) + ")";
        if (Chance(20))
            cond = "Or(" + cond + ", IsNull(" + GroupedValue(scope, type, agg, groupColumns) + "))";
        return cond;
    }

    GenList Block(int indent, int depth, const std::vector<GenType>* wanted, const GenScope* outer,
                  bool bTop, bool bTotalOrder) {
        GenList list;
        list.m_label = NewLabel();
        const int saveIndent = m_subqueryIndent;
        const int saveDepth = m_blockDepth;
        m_subqueryIndent = indent + 2;
        FromResult from = From(indent + 1, depth);
        from.m_scope.m_pOuter = outer;
        m_blockDepth = depth;
        // A subquery's own columns first, the enclosing block's now and then (correlation).
        GenScope exprScope = from.m_scope;
        if (outer != nullptr && Chance(40))
            for (const GenColumn& c : outer->m_columns)
                if (Chance(30))
                    exprScope.m_columns.push_back(c);

        // Grouping.
        Aggregation agg;
        agg.m_bSubquery = outer != nullptr;
        std::vector<GenColumn> groupColumns;
        const bool bGrouped = Chance(m_options.m_grouping) && !bTotalOrder;
        if (bGrouped) {
            agg.m_bGroupBy = Chance(80);
            const size_t keys = agg.m_bGroupBy ? 1 + Pick(2) : 0;
            for (size_t i = 0; i < keys && !from.m_scope.m_columns.empty(); ++i) {
                const GenColumn& c = PickOf(from.m_scope.m_columns);
                if (std::find(agg.m_group.begin(), agg.m_group.end(), c.m_text) ==
                    agg.m_group.end()) {
                    agg.m_group.push_back(c.m_text);
                    groupColumns.push_back(c);
                }
            }
        }

        // Projection.
        std::vector<GenType> types;
        if (wanted != nullptr)
            types = *wanted;
        else if (bGrouped) {
            for (const GenColumn& g : groupColumns)
                if (Chance(85))
                    types.push_back(g.m_type);
            for (size_t i = 0, n = 1 + Pick(2); i < n; ++i)
                types.push_back(Chance(60) ? GenType::kInt : AnyType());
        } else {
            const size_t n = 1 + Pick(static_cast<size_t>(std::max(1, m_options.m_maxColumns)));
            for (size_t i = 0; i < n; ++i)
                types.push_back(from.m_scope.m_columns.empty() || Chance(15)
                                    ? AnyType()
                                    : PickOf(from.m_scope.m_columns).m_type);
        }
        std::string select = Pad(indent + 1) + "select {\n";
        for (size_t i = 0; i < types.size(); ++i) {
            std::string value;
            if (bGrouped)
                value = GroupedValue(from.m_scope, types[i], agg, groupColumns);
            else {
                std::vector<const GenColumn*> columns = ColumnsOf(from.m_scope, types[i], false);
                value = !columns.empty() && Chance(70) ? PickOf(columns)->m_text
                                                       : Value(exprScope, types[i], 0);
            }
            select += Pad(indent + 2) + std::to_string(i) + ": " + value + "\n";
        }
        select += Pad(indent + 1) + "}\n";

        std::string body = select + Pad(indent + 1) + "from {\n";
        for (const std::string& line : from.m_lines)
            body += line;
        body += Pad(indent + 1) + "}\n";
        if (Chance(55))
            body += Pad(indent + 1) + "where " + Cond(exprScope, 0, depth < m_options.m_maxDepth) +
                    "\n";
        if (agg.m_bGroupBy) {
            std::string g = "groupby (";
            for (size_t i = 0; i < agg.m_group.size(); ++i)
                g += (i ? ", " : "") + agg.m_group[i];
            body += Pad(indent + 1) + g + ")\n";
        }
        if (bGrouped && Chance(25))
            body += Pad(indent + 1) + (Chance(50) ? "having " : "summary ") +
                    SummaryCond(from.m_scope, agg, groupColumns) + "\n";

        // Order and row limit. A limit comes with an order over every column, so that the
        // rows it keeps are determined (up to identical rows).
        const bool bLimit = !bTotalOrder && Chance(m_options.m_limit) && outer == nullptr;
        const bool bOrder =
            bTotalOrder || bLimit || Chance(bTop ? 50 : m_options.m_orderByInDerived);
        if (bOrder) {
            std::vector<size_t> keys(types.size());
            for (size_t i = 0; i < keys.size(); ++i)
                keys[i] = i;
            for (size_t i = keys.size(); i > 1; --i)
                std::swap(keys[i - 1], keys[Pick(i)]);
            if (!bTotalOrder && !bLimit && keys.size() > 1)
                keys.resize(1 + Pick(keys.size()));
            std::string o = "orderby ";
            for (size_t i = 0; i < keys.size(); ++i) {
                o += (i ? ", " : "") + std::to_string(keys[i]);
                if (Chance(30))
                    o += " desc";
            }
            body += Pad(indent + 1) + o + "\n";
        }

        std::string head = Pad(indent) + "list @" + list.m_label;
        if (Chance(12) && !bTotalOrder)
            head += " distinct";
        if (bLimit) {
            head += " limit=" + std::to_string(1 + Pick(8));
            if (Chance(30))
                head += " offset=" + std::to_string(1 + Pick(3));
        }
        // Targets: the one database of the block's tables now and then, else the engine. Now
        // and then a block is bound to its database with its type still unknown, as a rule
        // leaves the blocks it hands back for the server to assign again.
        std::string database;
        if (!from.m_databases.empty() &&
            std::all_of(from.m_databases.begin(), from.m_databases.end(),
                        [&](const std::string& d) { return d == from.m_databases.front(); }))
            database = from.m_databases.front();
        list.m_database = database;
        if (Chance(60)) {
            if (!database.empty()) {
                const bool bUnknown = Chance(10);
                for (const GenTable& t : m_tables)
                    if (t.m_database == database) {
                        head += " [target=" + (bUnknown ? std::string("unknown") : t.m_target) +
                                " at=" + database + "]";
                        break;
                    }
            } else {
                head += " [target=engine]";
            }
        }
        list.m_text = head + " {\n" + body + Pad(indent) + "}\n";
        list.m_types = types;
        m_subqueryIndent = saveIndent;
        m_blockDepth = saveDepth;
        return list;
    }

    RqGenOptions m_options;
    std::vector<GenTable> m_tables;
    std::mt19937_64 m_rng;
    int m_nextTable = 1;
    int m_nextLabel = 1;
    int m_blockDepth = 0;
    int m_subqueryIndent = 2;
};

RqRequestGenerator::RqRequestGenerator(const RpRepository& repository, const RqGenOptions& options)
    : m_pImpl(new Impl(repository, options)) {}

RqRequestGenerator::~RqRequestGenerator() {
    delete m_pImpl;
}

std::string RqRequestGenerator::Generate(uint64_t seed) {
    return m_pImpl->Generate(seed);
}

size_t RqRequestGenerator::GetNumUsableTables() const {
    return m_pImpl->NumTables();
}
