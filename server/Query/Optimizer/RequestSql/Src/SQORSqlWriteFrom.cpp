// FROM clauses: tables, derived tables, nested joins, and the bracketing that keeps a join's
// meaning when SQL would associate it otherwise.

#include "SQORSqlWriter.h"

namespace sqlrender {

std::string SqlWriter::From(const RqJoinSpec& joinSpec, Scope& scope) {
    std::vector<const RqTableReference*> references;
    for (int i = 0; i < joinSpec.GetNumJoinNodes(); ++i) {
        const RqJoinNode* node = joinSpec.GetIthJoinNode(i);
        const RqTableReference* reference = node != nullptr ? node->GetTableReference() : nullptr;
        if (reference == nullptr)
            Fail(SqlProblem::kMalformed,
                 node != nullptr ? static_cast<const RqNode*>(node) : &joinSpec,
                 "a join node without a table reference");
        references.push_back(reference);
    }
    if (references.empty())
        Fail(SqlProblem::kMalformed, &joinSpec, "a FROM clause without tables");
    // Every table is named before any condition is written, so that a condition may name any
    // table of the block.
    std::unordered_map<const RqNode*, std::string> aliases;
    for (const RqTableReference* reference : references)
        Register(reference, scope, aliases);
    std::vector<std::string> parts;
    for (const RqTableReference* reference : references) {
        std::string part = Side(reference, scope, aliases);
        // SQL reads "a, b RIGHT JOIN c" as "(a, b) RIGHT JOIN c": the unmatched rows of c would
        // appear once instead of once per row of a (and even with no row of a). The member is
        // a table of the cross product on its own.
        if (!parts.empty() && PreservesRightSide(reference))
            part = "(" + part + ")";
        parts.push_back(part);
    }
    return Join(parts, ",\n  ");
}

// Whether a join tree keeps unmatched rows of a right side somewhere along its left spine:
// the join SQL would extend with the tables written before the member. A nested join on a
// right side is parenthesized where it stands, so only the left spine matters: in
// "(b RIGHT JOIN c) JOIN d" the right join is the first join SQL meets.
bool SqlWriter::PreservesRightSide(const RqNode* side) {
    const auto* reference = RqDynCast<RqTableReference>(side);
    if (reference == nullptr)
        return false;
    if (reference->GetRightNode() != nullptr &&
        (reference->GetJoinType() == SqlTableRef::kRightOuterJoin ||
         reference->GetJoinType() == SqlTableRef::kFullOuterJoin ||
         reference->GetJoinType() == SqlTableRef::kFullOuterStitchJoin))
        return true;
    return PreservesRightSide(reference->GetLeftNode());
}

// Whether a join side renders as a join of tables rather than as one table.
bool SqlWriter::IsJoin(const RqNode* side) {
    const auto* reference = RqDynCast<RqTableReference>(side);
    if (reference == nullptr)
        return false;
    return reference->GetRightNode() != nullptr || IsJoin(reference->GetLeftNode());
}

void SqlWriter::Register(const RqNode* side, Scope& scope,
                         std::unordered_map<const RqNode*, std::string>& aliases) {
    if (const auto* reference = RqDynCast<RqTableReference>(side)) {
        if (reference->GetLeftNode() == nullptr)
            Fail(SqlProblem::kMalformed, side, "a table reference without a left side");
        Register(reference->GetLeftNode(), scope, aliases);
        if (reference->GetRightNode() != nullptr)
            Register(reference->GetRightNode(), scope, aliases);
        return;
    }
    const auto* table = RqDynCast<RqAbstractTable>(side);
    if (table == nullptr)
        Fail(SqlProblem::kMalformed, side, "a join side that is not a table");
    const int tableNum = table->GetTableNum();
    if (!scope.m_tableNumbers.insert(tableNum).second)
        Fail(SqlProblem::kMalformed, side,
             "two tables of one block share table number " + std::to_string(tableNum));
    const std::string alias = NewAlias("t" + std::to_string(tableNum));
    aliases[side] = alias;
    if (SqlKindFormOf(side->GetObjectType()).m_role != SqlKindRole::kTable)
        FailByForm(*side);
    if (const auto* derived = RqDynCast<RqDerivedTable>(side)) {
        const RqAbstractList* inner = derived->GetInnerList();
        if (inner == nullptr || inner->GetProjection() == nullptr)
            Fail(SqlProblem::kMalformed, side, "a derived table without a list");
        const RqProjection* projection = inner->GetProjection();
        for (int i = 0; i < projection->GetNumColumns(); ++i) {
            if (const RqDerivedColumn* column = projection->GetIthColumn(i))
                scope.m_columns[column] = alias + "." + SqlRenderer::GetColumnName(*inner, i);
        }
        return;
    }
    // The repository tables: atomic and opaque tables name one by identifier.
    const VoidID& id = RqCast<RqIdentifiedTable>(side)->GetTableID();
    RefATable repositoryTable = m_pRp != nullptr ? RefHelper::GetTable(m_pRp, id) : RefATable();
    if (!repositoryTable)
        Fail(SqlProblem::kMalformed, side,
             "table " + Utf8(id.ToString()) + " is not in the repository");
    scope.m_tables[tableNum] = Scope::Table{alias, repositoryTable};
}

std::string SqlWriter::Side(const RqNode* side, const Scope& scope,
                            const std::unordered_map<const RqNode*, std::string>& aliases) {
    const auto* reference = RqDynCast<RqTableReference>(side);
    if (reference == nullptr) {
        const std::string& alias = aliases.at(side);
        if (const auto* derived = RqDynCast<RqDerivedTable>(side)) {
            // A derived table sees nothing of the block that reads it: it can be a named query.
            // Its own named queries come first, so it is numbered after them (written as one
            // call, the two arguments' order of evaluation would be the compiler's choice).
            const std::string inner = List(*derived->GetInnerList(), nullptr);
            return Hoist("d" + std::to_string(m_namedQueries.size() + 1), inner) + " AS " + alias;
        }
        const Scope::Table& table = scope.m_tables.at(RqCast<RqAbstractTable>(side)->GetTableNum());
        return SqlRenderer::GetTableName(*table.m_table) + " AS " + alias;
    }
    std::string left = Side(reference->GetLeftNode(), scope, aliases);
    const RqNode* condNode = reference->GetNumChildren() > 2 ? reference->GetIthChild(2) : nullptr;
    if (reference->GetRightNode() == nullptr) {
        if (condNode != nullptr)
            Fail(SqlProblem::kMalformed, side, "a single table with a join condition");
        return left;
    }
    const char* keyword = nullptr;
    switch (reference->GetJoinType()) {
        case SqlTableRef::kInnerJoin:
            keyword = "JOIN";
            break;
        case SqlTableRef::kLeftOuterJoin:
            keyword = "LEFT JOIN";
            break;
        case SqlTableRef::kRightOuterJoin:
            keyword = "RIGHT JOIN";
            m_bRightOrFullJoin = true;
            break;
        case SqlTableRef::kFullOuterJoin:
        case SqlTableRef::kFullOuterStitchJoin:
            keyword = "FULL JOIN";
            m_bRightOrFullJoin = true;
            break;
        case SqlTableRef::kNaturalJoin:
            Fail(SqlProblem::kNoSqlMeaning, side, "a natural join names no join columns");
    }
    if (keyword == nullptr)
        Fail(SqlProblem::kMalformed, side,
             "join type " + std::to_string(reference->GetJoinType()) + " is no join type");
    std::string right = Side(reference->GetRightNode(), scope, aliases);
    // A nested join on the right keeps its own grouping: "a JOIN (b RIGHT JOIN c)". A nested
    // reference holding a single table is that table: in parentheses, SQLite would hide its
    // alias from the condition.
    if (IsJoin(reference->GetRightNode()))
        right = "(" + right + ")";
    return left + "\n  " + keyword + " " + right + " ON " + JoinCondition(*reference, scope);
}

std::string SqlWriter::JoinCondition(const RqTableReference& reference, const Scope& scope) {
    const RqNode* condNode = reference.GetNumChildren() > 2 ? reference.GetIthChild(2) : nullptr;
    if (condNode == nullptr) {
        // The join column indexes are a planning aid: the renderer does not guess an equi-join.
        if (!reference.GetLeftJoinColumnIndexes().empty() ||
            !reference.GetRightJoinColumnIndexes().empty())
            Fail(SqlProblem::kNoSqlMeaning, &reference,
                 "join column indexes without a search condition");
        return "1";
    }
    const auto* cond = RqDynCast<RqExpr>(condNode);
    if (cond == nullptr)
        Fail(SqlProblem::kMalformed, condNode, "a join condition that is not an expression");
    ExprEnv env;
    env.m_pScope = &scope;
    env.m_pNoAggrReason = "an aggregate in a join condition";
    return Expr(*cond, env).m_text;
}

}  // namespace sqlrender
