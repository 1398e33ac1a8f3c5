// What an expression reads and where its aggregates are: the questions the writer asks of a
// block before it writes any of it (its grain, which values its grouping determines, whether
// a subquery is correlated, whether it keeps a derived table's order).

#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "SQORSqlWriter.h"

namespace sqlrender {

bool IsTooDeep(const RqExpr* root) {
    std::vector<std::pair<const RqExpr*, int>> work{{root, 1}};
    while (!work.empty()) {
        const auto [expr, depth] = work.back();
        work.pop_back();
        if (expr == nullptr)
            continue;
        if (depth > kMaxExprDepth)
            return true;
        for (int i = 0; i < expr->GetNumOperands(); ++i)
            work.emplace_back(expr->GetIthOperand(i), depth + 1);
    }
    return false;
}

bool ContainsAggr(const RqExpr* expr) {
    if (expr == nullptr)
        return false;
    if (expr->IsAggr())
        return true;
    for (int i = 0; i < expr->GetNumOperands(); ++i) {
        if (ContainsAggr(expr->GetIthOperand(i)))
            return true;
    }
    return false;
}

bool IsWindowAggr(const RqExpr* expr) {
    const RqExprAggr* aggr = RqDynCast<RqExprAggr>(expr);
    return aggr != nullptr && (aggr->IsSortDependent() || aggr->IsKindOf(kRqExprAggrReport));
}

bool ContainsWindowAggr(const RqExpr* expr) {
    if (expr == nullptr)
        return false;
    if (IsWindowAggr(expr))
        return true;
    for (int i = 0; i < expr->GetNumOperands(); ++i) {
        if (ContainsWindowAggr(expr->GetIthOperand(i)))
            return true;
    }
    return false;
}

void CollectAggrs(const RqExpr* expr, std::vector<const RqExprAggr*>& out) {
    if (expr == nullptr)
        return;
    if (expr->IsAggr() && !IsWindowAggr(expr)) {
        out.push_back(RqCast<RqExprAggr>(expr));
        return;
    }
    for (int i = 0; i < expr->GetNumOperands(); ++i)
        CollectAggrs(expr->GetIthOperand(i), out);
}

void CollectWindowAggrs(const RqExpr* expr, std::vector<const RqExprAggr*>& out) {
    if (expr == nullptr)
        return;
    if (IsWindowAggr(expr)) {
        out.push_back(RqCast<RqExprAggr>(expr));
        return;
    }
    for (int i = 0; i < expr->GetNumOperands(); ++i)
        CollectWindowAggrs(expr->GetIthOperand(i), out);
}

// A subquery reads the row of the block that holds it when a column inside it names a table
// of that block's FROM clause (and not one of the subquery's own) or a column one of that
// block's derived tables exposes. Otherwise it has one value for the whole block.
bool SubqueryReadsScope(const RqExpr& subquery, const Scope& scope) {
    RqNodeVector nodes;
    FindNodes(
        const_cast<RqExpr*>(&subquery), [](const RqNode*) { return true; }, nodes);
    std::set<int> ownTables;
    for (const RqNode* node : nodes) {
        if (const auto* table = RqDynCast<RqAbstractTable>(node))
            ownTables.insert(table->GetTableNum());
    }
    for (const RqNode* node : nodes) {
        if (const auto* reference = RqDynCast<RqDerivedColumnReference>(node)) {
            if (scope.m_columns.count(reference->GetDerivedColumn()) > 0)
                return true;
        } else if (const auto* column = RqDynCast<RqTargetColumn>(node)) {
            const int tableNum = column->GetTableNum();
            if (ownTables.count(tableNum) == 0 && scope.m_tableNumbers.count(tableNum) > 0)
                return true;
        }
    }
    return false;
}

// A column, a reference, a subquery that reads the block's row, or any other leaf that is not
// constant reads the row. GROUPING_ID reads which grouping set the row belongs to, which its
// group fixes: no row value.
bool ReadsRowOutsideAggr(const RqExpr* expr, const Scope& scope) {
    if (expr == nullptr || expr->IsConstant() || (expr->IsAggr() && !IsWindowAggr(expr)) ||
        expr->IsKindOf(kRqExprGroupingId))
        return false;
    if (IsWindowAggr(expr)) {
        // A row number reads no value at all; otherwise its operands decide.
        for (int i = 0; i < expr->GetNumOperands(); ++i) {
            if (ReadsRowOutsideAggr(expr->GetIthOperand(i), scope))
                return true;
        }
        return false;
    }
    if (expr->IsKindOf(kRqExprSubquery))
        return SubqueryReadsScope(*expr, scope);
    bool bAnyOperand = false;
    for (int i = 0; i < expr->GetNumOperands(); ++i) {
        const RqExpr* operand = expr->GetIthOperand(i);
        if (operand == nullptr)
            continue;
        bAnyOperand = true;
        if (ReadsRowOutsideAggr(operand, scope))
            return true;
    }
    return !bAnyOperand;
}

bool HasEquivalent(const ExprList& list, const RqExpr& expr) {
    for (const RqExpr* member : list) {
        if (member->IsEquivalent(expr))
            return true;
    }
    return false;
}

bool IsSubset(const ExprList& a, const ExprList& b) {
    for (const RqExpr* member : a) {
        if (!HasEquivalent(b, *member))
            return false;
    }
    return true;
}

bool SameSet(const ExprList& a, const ExprList& b) {
    return IsSubset(a, b) && IsSubset(b, a);
}

ExprList GroupingMembers(const RqExprColumnListOrdered* list) {
    ExprList out;
    if (list == nullptr)
        return out;
    for (int i = 0; i < list->GetNumColumns(); ++i) {
        const RqExpr* member = list->GetIthColumn(i);
        if (member == nullptr)
            Fail(SqlProblem::kMalformed, list, "a grouping list with an absent member");
        if (ContainsAggr(member))
            Fail(SqlProblem::kNoSqlMeaning, member, "an aggregate inside a grouping list");
        if (!member->IsConstant() && !HasEquivalent(out, *member))
            out.push_back(member);
    }
    return out;
}

const RqExpr* FindUndetermined(const RqExpr* expr, const ExprList& grain, const Scope& scope) {
    if (expr == nullptr || (expr->IsAggr() && !IsWindowAggr(expr)) || expr->IsConstant() ||
        expr->IsKindOf(kRqExprGroupingId) || HasEquivalent(grain, *expr))
        return nullptr;
    if (IsWindowAggr(expr)) {
        for (int i = 0; i < expr->GetNumOperands(); ++i) {
            if (const RqExpr* found = FindUndetermined(expr->GetIthOperand(i), grain, scope))
                return found;
        }
        return nullptr;
    }
    if (expr->IsKindOf(kRqExprSubquery))
        return SubqueryReadsScope(*expr, scope) ? expr : nullptr;
    bool bAnyOperand = false;
    for (int i = 0; i < expr->GetNumOperands(); ++i) {
        const RqExpr* operand = expr->GetIthOperand(i);
        if (operand == nullptr)
            continue;
        bAnyOperand = true;
        if (const RqExpr* found = FindUndetermined(operand, grain, scope))
            return found;
    }
    return bAnyOperand ? nullptr : expr;
}

void HarvestConjuncts(const RqExpr* cond, ExprList& out) {
    std::vector<const RqExpr*> work{cond};
    while (!work.empty()) {
        const RqExpr* expr = work.back();
        work.pop_back();
        if (expr != nullptr && expr->GetObjectType() == kRqExprCondAnd &&
            expr->GetNumOperands() == 2) {
            work.push_back(expr->GetIthOperand(1));
            work.push_back(expr->GetIthOperand(0));
        } else {
            out.push_back(expr);
        }
    }
}

// The block's only FROM member, read through a plain (inner or natural) reference with no
// right side, with nothing that regroups or reorders its rows (no GROUP BY, no aggregate, no
// DISTINCT, no ORDER BY of its own; a WHERE only drops rows). An outer join keeps no order
// even when it has one side only: the engine runs it as a join, and the rules that drop ORDER
// BY under joins count it as one.
const RqDerivedTable* RowForRowSource(const RqList& block) {
    if (block.GetOrderBy() != nullptr || block.GetGroupBy() != nullptr || block.IsDistinct() ||
        block.GetSummaryFilter() != nullptr || block.GetHaving() != nullptr)
        return nullptr;
    const RqJoinSpec* joinSpec = block.GetJoinSpec();
    if (joinSpec == nullptr || joinSpec->GetNumJoinNodes() != 1)
        return nullptr;
    const RqJoinNode* node = joinSpec->GetIthJoinNode(0);
    const RqTableReference* reference = node != nullptr ? node->GetTableReference() : nullptr;
    if (reference == nullptr || reference->GetRightNode() != nullptr ||
        (reference->GetJoinType() != SqlTableRef::kInnerJoin &&
         reference->GetJoinType() != SqlTableRef::kNaturalJoin))
        return nullptr;
    const auto* derived = RqDynCast<RqDerivedTable>(reference->GetLeftNode());
    if (derived == nullptr || derived->GetInnerList() == nullptr ||
        derived->GetInnerList()->GetProjection() == nullptr)
        return nullptr;
    const RqProjection* projection = block.GetProjection();
    for (int i = 0; projection != nullptr && i < projection->GetNumColumns(); ++i) {
        const RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column != nullptr && ContainsAggr(column->GetExpr()))
            return nullptr;
    }
    const RqDetailFilter* filter = block.GetDetailFilter();
    const RqNode* cond =
        filter != nullptr && filter->GetNumChildren() > 0 ? filter->GetIthChild(0) : nullptr;
    if (ContainsAggr(RqDynCast<RqExpr>(cond)))
        return nullptr;
    return derived;
}

}  // namespace sqlrender
