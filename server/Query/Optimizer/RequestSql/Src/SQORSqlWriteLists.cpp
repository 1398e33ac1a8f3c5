// Lists that are not blocks: set operations, break filters, cache and shared lists, and the
// row offset and limit every list carries.

#include "SQORSqlWriter.h"

namespace sqlrender {

std::string SqlWriter::Top(const RqNode& root) {
    const RqNode* request = &root;
    if (const auto* handle = RqDynCast<RqHandleNode>(&root)) {
        request = handle->GetRqNode();
        if (request == nullptr)
            Fail(SqlProblem::kMalformed, &root, "a request handle without a request");
    }
    // A write is compared by the rows it writes: those of its list.
    if (const auto* write = RqDynCast<RqWrite>(request)) {
        request = write->GetNumChildren() > 0 ? write->GetIthChild(0) : nullptr;
        if (RqDynCast<RqAbstractList>(request) == nullptr)
            Fail(SqlProblem::kMalformed, write, "a write without a list of rows to write");
    }
    const auto* list = RqDynCast<RqAbstractList>(request);
    if (list == nullptr) {
        const SqlKindRole role = SqlKindFormOf(request->GetObjectType()).m_role;
        if (role == SqlKindRole::kNoSqlMeaning || role == SqlKindRole::kNotRendered)
            FailByForm(*request);
        Fail(request->IsExpr() ? SqlProblem::kNotSupported : SqlProblem::kNoSqlMeaning, request,
             KindName(request) + " is not a list of rows");
    }
    // The named queries are written first: each may read those before it.
    std::string body = List(*list, nullptr);
    if (m_namedQueries.empty())
        return body;
    if (m_bRightOrFullJoin) {
        // Materialized, a named query is computed as written and never merged into its reader.
        for (std::string& named : m_namedQueries)
            named.replace(named.find(" AS (\n"), 5, " AS MATERIALIZED (");
    }
    return "WITH " + Join(m_namedQueries, ",\n") + "\n" + body;
}

std::string SqlWriter::List(const RqAbstractList& list, const Scope* outer) {
    if (++m_listDepth > kMaxListDepth)
        Fail(SqlProblem::kNotSupported, &list, "lists nested too deeply");
    std::string sql = ListOfKind(list, outer);
    --m_listDepth;
    return sql;
}

std::string SqlWriter::ListOfKind(const RqAbstractList& list, const Scope* outer) {
    if (const auto* block = RqDynCast<RqList>(&list))
        return Block(*block, outer);
    if (const auto* op = RqDynCast<RqUnion>(&list))
        return WithLimit(list, SetOperation(list, op->IsAll(), outer), {});
    if (const auto* op = RqDynCast<RqIntersect>(&list))
        return WithLimit(list, SetOperation(list, op->IsAll(), outer), {});
    if (const auto* op = RqDynCast<RqExcept>(&list))
        return WithLimit(list, SetOperation(list, op->IsAll(), outer), {});
    if (const auto* filter = RqDynCast<RqBreakFilter>(&list))
        return BreakFilter(*filter, outer);
    if (const auto* cache = RqDynCast<RqCacheList>(&list)) {
        const RqAbstractList* inner = cache->GetList();
        if (inner == nullptr)
            Fail(SqlProblem::kMalformed, &list, "a cache list without its list");
        return WithLimit(list, List(*inner, outer), Order(*inner));
    }
    if (const auto* sharedList = RqDynCast<RqSharedList>(&list)) {
        const RqAbstractList* shared = sharedList->GetSharedRqList();
        if (shared == nullptr)
            Fail(SqlProblem::kMalformed, &list, "a shared list naming no list");
        if (!m_activeShared.insert(shared).second)
            Fail(SqlProblem::kMalformed, &list, "a shared list that reads itself");
        std::string sql = WithLimit(list, List(*shared, outer), Order(*shared));
        m_activeShared.erase(shared);
        return sql;
    }
    // Every list kind of the kind table is one of the above; another would need a meaning.
    FailByForm(list);
}

std::vector<SqlSortKey> SqlWriter::Order(const RqAbstractList& list) {
    std::vector<SqlSortKey> keys;
    if (!SqlRenderer::GetListOrder(list, keys))
        Fail(SqlProblem::kMalformed, &list, "a sort key names a column the list does not project");
    return keys;
}

bool SqlWriter::LimitApplies(const RqAbstractList& list) const {
    return m_options.m_pWithoutLimit != &list &&
           (list.GetRowLimit() != 0 || list.GetRowOffset() != 0);
}

// An offset alone is LIMIT -1 OFFSET n: SQLite has no OFFSET without LIMIT, and a negative
// limit is none (LIMIT 0 would keep no row at all).
std::string SqlWriter::LimitClause(const RqAbstractList& list) {
    m_orderDependent.push_back(&list);
    std::string clause =
        "LIMIT " + (list.GetRowLimit() != 0 ? std::to_string(list.GetRowLimit()) : "-1");
    if (list.GetRowOffset() != 0)
        clause += " OFFSET " + std::to_string(list.GetRowOffset());
    return clause;
}

// A list that is not a block applies its own row offset and limit around its rows, in the
// order its rows come in.
std::string SqlWriter::WithLimit(const RqAbstractList& list, const std::string& sql,
                                 const std::vector<SqlSortKey>& keys) {
    if (!LimitApplies(list))
        return sql;
    std::string out = "SELECT *\nFROM (\n" + Indent(sql) + "\n)";
    if (!keys.empty())
        out += "\nORDER BY " + OrderTerms(list, keys);
    return out + "\n" + LimitClause(list);
}

std::string SqlWriter::OrderTerms(const RqAbstractList& list, const std::vector<SqlSortKey>& keys) {
    std::vector<std::string> terms;
    for (const SqlSortKey& key : keys)
        terms.push_back(SqlRenderer::GetOrderTerm(list, key));
    return Join(terms, ", ");
}

std::vector<std::string> SqlWriter::ColumnNames(const RqAbstractList& list) {
    const RqProjection* projection = list.GetProjection();
    if (projection == nullptr)
        Fail(SqlProblem::kMalformed, &list, "a list without a projection");
    std::vector<std::string> names;
    std::set<int> numbers;
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        const RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column == nullptr || column->GetColumnNum() < 0)
            Fail(SqlProblem::kMalformed,
                 column != nullptr ? static_cast<const RqNode*>(column) : projection,
                 "a projection column without a column number");
        if (!numbers.insert(column->GetColumnNum()).second)
            Fail(SqlProblem::kMalformed, column, "two columns of one projection share a number");
        names.push_back(SqlRenderer::GetColumnName(list, i));
    }
    return names;
}

// ---- Set operations ----------------------------------------------------------------------

std::string SqlWriter::Member(const RqAbstractList& member, const Scope* outer) {
    std::string sql = List(member, outer);
    // A block that reads an ordered derived table row for row is rendered with that table's
    // ORDER BY, so it needs the wrapping as much as one with an ORDER BY of its own; so does
    // a block with grouping sets, which is a compound itself.
    const auto* block = RqDynCast<RqList>(&member);
    const bool bPlain = block != nullptr && block->GetOrderBy() == nullptr &&
                        RowForRowSource(*block) == nullptr && !LimitApplies(member) &&
                        (block->GetGroupBy() == nullptr || !block->GetGroupBy()->IsGroupingSets());
    // A compound's members cannot carry ORDER BY or LIMIT, nor be compounds themselves.
    return bPlain ? sql : Wrapped(sql, outer);
}

std::string SqlWriter::Wrapped(const std::string& sql, const Scope* outer) {
    if (outer == nullptr)
        return "SELECT *\nFROM " + Hoist("u" + std::to_string(m_namedQueries.size() + 1), sql);
    return "SELECT *\nFROM (\n" + Indent(sql) + "\n)";
}

std::string SqlWriter::SetOperation(const RqAbstractList& op, bool bAll, const Scope* outer) {
    std::vector<const RqAbstractList*> members;
    for (int i = 0; i < op.GetNumChildren(); ++i) {
        const auto* member = RqDynCast<RqAbstractList>(op.GetIthChild(i));
        if (member == nullptr)
            Fail(SqlProblem::kMalformed, op.GetIthChild(i) != nullptr ? op.GetIthChild(i) : &op,
                 "a set operation member that is not a list");
        members.push_back(member);
    }
    if (members.empty())
        Fail(SqlProblem::kMalformed, &op, "a set operation without members");
    const size_t numColumns = ColumnNames(*members[0]).size();
    for (const RqAbstractList* member : members) {
        if (ColumnNames(*member).size() != numColumns)
            Fail(SqlProblem::kMalformed, member,
                 "a set operation member with another number of columns");
    }
    const char* keyword = op.IsKindOf(kRqUnion)       ? "UNION"
                          : op.IsKindOf(kRqIntersect) ? "INTERSECT"
                                                      : "EXCEPT";
    if (members.size() == 1) {
        std::string sql = List(*members[0], outer);
        return bAll ? sql : "SELECT DISTINCT *\nFROM (\n" + Indent(sql) + "\n)";
    }
    if (op.IsKindOf(kRqUnion) || !bAll) {
        // SQLite evaluates a compound from left to right, so a long chain read in runs, each
        // run the first member of the next, means the same.
        const std::string separator = "\n" + std::string(keyword) + (bAll ? " ALL\n" : "\n");
        std::string sql = Member(*members[0], outer);
        for (size_t i = 1; i < members.size(); ++i) {
            if (i % kMaxCompoundTerms == 0)
                sql = Wrapped(sql, outer);
            sql += separator + Member(*members[i], outer);
        }
        return sql;
    }
    return CountedSetOperation(members, keyword, outer);
}

// SQLite has no INTERSECT ALL or EXCEPT ALL: numbering the copies of each row makes them
// distinct, and the set operation on numbered rows keeps the right counts. A chain is
// evaluated pairwise, each step renumbered, as the counts require.
std::string SqlWriter::CountedSetOperation(const std::vector<const RqAbstractList*>& members,
                                           const char* keyword, const Scope* outer) {
    const std::vector<std::string> names = ColumnNames(*members[0]);
    std::string sql = List(*members[0], outer);
    for (size_t i = 1; i < members.size(); ++i) {
        const std::string left = "SELECT *, ROW_NUMBER() OVER (PARTITION BY " + Join(names, ", ") +
                                 ") AS rq_copy\nFROM (\n" + Indent(sql) + "\n)";
        const std::string right = "SELECT *, ROW_NUMBER() OVER (PARTITION BY " +
                                  Join(ColumnNames(*members[i]), ", ") + ") AS rq_copy\nFROM (\n" +
                                  Indent(List(*members[i], outer)) + "\n)";
        sql = "SELECT " + Join(names, ", ") + "\nFROM (\n" +
              Indent(left + "\n" + keyword + "\n" + right) + "\n)";
    }
    return sql;
}

// ---- Break filters -------------------------------------------------------------------------

std::string SqlWriter::BreakFilter(const RqBreakFilter& filter, const Scope* outer) {
    const RqAbstractList* inner = filter.GetInnerList();
    if (inner == nullptr)
        Fail(SqlProblem::kMalformed, &filter, "a break filter without an inner list");
    const std::vector<std::string> names = ColumnNames(*inner);
    std::vector<std::string> partition;
    for (uint16_t index : filter.BreakColumnIndexes()) {
        if (index >= names.size())
            Fail(SqlProblem::kMalformed, &filter, "a break column outside the inner projection");
        partition.push_back(names[index]);
    }
    const std::vector<SqlSortKey> keys = Order(*inner);
    m_orderDependent.push_back(&filter);

    std::string window = "ROW_NUMBER() OVER (";
    if (!partition.empty())
        window += "PARTITION BY " + Join(partition, ", ");
    if (!keys.empty())
        window +=
            std::string(partition.empty() ? "" : " ") + "ORDER BY " + OrderTerms(*inner, keys);
    window += ")";
    const std::string alias = NewAlias("b" + std::to_string(++m_breakFilterCount));
    std::vector<std::string> items;
    for (const std::string& name : names)
        items.push_back(alias + "." + name + " AS " + name);
    std::string sql = "SELECT " + Join(items, ", ") + "\nFROM (\n" +
                      Indent("SELECT *, " + window + " AS rq_row\nFROM (\n" +
                             Indent(List(*inner, outer)) + "\n)") +
                      "\n) AS " + alias + "\nWHERE " + alias + ".rq_row = 1";
    // The kept rows come in the inner list's order.
    if (!keys.empty())
        sql += "\nORDER BY " + OrderTerms(*inner, keys);
    if (LimitApplies(filter))
        sql += "\n" + LimitClause(filter);
    return sql;
}

}  // namespace sqlrender
