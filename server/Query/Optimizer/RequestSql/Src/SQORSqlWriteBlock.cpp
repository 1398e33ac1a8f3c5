// Blocks: what a block computes (its conditions, aggregates and grain), the SELECT that
// computes it, grouping sets as one SELECT per set stacked with UNION ALL, and the block's
// order and row limit.

#include "SQORSqlWriter.h"

namespace sqlrender {

std::string SqlWriter::Block(const RqList& block, const Scope* outer) {
    Scope scope;
    scope.m_pOuter = outer;
    const RqJoinSpec* joinSpec = block.GetJoinSpec();
    const std::string from = joinSpec != nullptr ? From(*joinSpec, scope) : std::string();
    const BlockShape shape = Shape(block, scope);
    const bool bGroupingSets = shape.m_pGroupBy != nullptr && shape.m_pGroupBy->IsGroupingSets();
    std::string sql = bGroupingSets ? GroupingSets(block, from, scope, shape)
                                    : Grouped(block, from, scope, shape, nullptr);
    return sql + OrderAndLimit(block, scope);
}

// ---- What the block computes ------------------------------------------------------------

BlockShape SqlWriter::Shape(const RqList& block, const Scope& scope) {
    BlockShape shape;
    const RqProjection* projection = block.GetProjection();
    if (projection == nullptr)
        Fail(SqlProblem::kMalformed, &block, "a block without a projection");
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        const RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column == nullptr || column->GetExpr() == nullptr)
            Fail(SqlProblem::kMalformed,
                 column != nullptr ? static_cast<const RqNode*>(column) : projection,
                 "a projection column without an expression");
        shape.m_columns.push_back(column->GetExpr());
    }
    if (shape.m_columns.empty())
        Fail(SqlProblem::kMalformed, projection, "a block without columns");
    ColumnNames(block);
    shape.m_pGroupBy = block.GetGroupBy();
    CollectConditions(block, shape);

    for (const RqExpr* expr : shape.m_columns)
        CollectAggrs(expr, shape.m_aggrs);
    shape.m_numProjectedAggrs = shape.m_aggrs.size();
    for (const RqExpr* cond : shape.m_summaryConds)
        CollectAggrs(cond, shape.m_aggrs);
    for (const RqExprAggr* aggr : shape.m_aggrs)
        CheckAggregate(*aggr);
    for (const RqExpr* expr : shape.m_columns)
        CollectWindowAggrs(expr, shape.m_windows);
    for (const RqExpr* cond : shape.m_summaryConds)
        CollectWindowAggrs(cond, shape.m_windows);
    for (const RqExprAggr* window : shape.m_windows)
        CheckWindowAggr(*window);

    DecideGrain(scope, shape);
    // Values outside aggregates must be fixed by the group they stand for.
    if (!shape.m_bDetails) {
        ExprList checked = shape.m_columns;
        checked.insert(checked.end(), shape.m_summaryConds.begin(), shape.m_summaryConds.end());
        for (const RqExpr* expr : checked) {
            if (const RqExpr* undetermined = FindUndetermined(expr, shape.m_grain, scope))
                Fail(SqlProblem::kNotDetermined, undetermined,
                     "a value the block's grouping does not determine");
        }
    }
    return shape;
}

// WHERE conjuncts with aggregates are conditions on the aggregated rows, like the summary
// filter and HAVING; the others are conditions on detail rows.
void SqlWriter::CollectConditions(const RqList& block, BlockShape& shape) {
    ExprList conjuncts;
    if (const RqDetailFilter* filter = block.GetDetailFilter()) {
        HarvestConjuncts(FilterCond(*filter), conjuncts);
        for (const RqExpr* conjunct : conjuncts) {
            if (conjunct == nullptr)
                Fail(SqlProblem::kMalformed, filter, "a conjunction with an absent operand");
        }
    }
    if (const RqSummaryFilter* filter = block.GetSummaryFilter())
        shape.m_summaryConds.push_back(FilterCond(*filter));
    if (const RqHaving* having = block.GetHaving())
        shape.m_summaryConds.push_back(FilterCond(*having));
    ExprList all = shape.m_columns;
    all.insert(all.end(), conjuncts.begin(), conjuncts.end());
    all.insert(all.end(), shape.m_summaryConds.begin(), shape.m_summaryConds.end());
    if (shape.m_pGroupBy != nullptr)
        all.push_back(shape.m_pGroupBy->GetColumnList());
    for (const RqExpr* expr : all) {
        if (IsTooDeep(expr))
            Fail(SqlProblem::kNotSupported, expr, "an expression nested too deeply");
    }
    for (const RqExpr* conjunct : conjuncts)
        (ContainsAggr(conjunct) ? shape.m_summaryConds : shape.m_rowConds).push_back(conjunct);
}

// The grain: the GROUP BY, or the lowest level of the projection.
void SqlWriter::DecideGrain(const Scope& scope, BlockShape& shape) {
    if (const RqGroupBy* groupBy = shape.m_pGroupBy) {
        const RqExprColumnListOrdered* granularity = groupBy->GetGranularity();
        if (granularity != nullptr && granularity->GetNumColumns() > 0)
            Fail(SqlProblem::kNoSqlMeaning, groupBy, "a GROUP BY granularity has no SQL meaning");
        shape.m_grain = GroupingMembers(groupBy->GetColumnList());
        return;
    }
    bool bRowLevel = false;
    for (const RqExpr* expr : shape.m_columns)
        bRowLevel = bRowLevel || ReadsRowOutsideAggr(expr, scope);
    for (const RqExpr* cond : shape.m_summaryConds)
        bRowLevel = bRowLevel || ReadsRowOutsideAggr(cond, scope);
    shape.m_bDetails = bRowLevel || shape.m_numProjectedAggrs == 0;
    if (shape.m_bDetails)
        return;
    for (const RqExprAggr* aggr : shape.m_aggrs) {
        ExprList level = GroupingMembers(aggr->GetByList());
        if (level.size() > shape.m_grain.size())
            shape.m_grain = level;
    }
    for (const RqExprAggr* aggr : shape.m_aggrs) {
        if (!IsSubset(GroupingMembers(aggr->GetByList()), shape.m_grain))
            Fail(SqlProblem::kNoSqlMeaning, aggr,
                 "aggregates at sibling levels: neither by-list contains the other");
    }
}

// The aggregates that are not computed at the block's grain, grouped by level.
std::vector<AggrLevel> SqlWriter::OtherLevels(const BlockShape& shape) {
    std::vector<AggrLevel> levels;
    for (const RqExprAggr* aggr : shape.m_aggrs) {
        ExprList level;
        if (aggr->GetByList() != nullptr)
            level = GroupingMembers(aggr->GetByList());
        else if (shape.m_pGroupBy != nullptr)
            level = shape.m_grain;
        if (!shape.m_bDetails) {
            if (!IsSubset(level, shape.m_grain))
                Fail(SqlProblem::kNoSqlMeaning, aggr,
                     "an aggregate whose by-list is finer than its block's grouping");
            if (SameSet(level, shape.m_grain))
                continue;
        }
        AggrLevel* target = nullptr;
        for (AggrLevel& existing : levels) {
            if (SameSet(existing.m_level, level))
                target = &existing;
        }
        if (target == nullptr) {
            levels.push_back(AggrLevel{level, {}});
            target = &levels.back();
        }
        bool bKnown = false;
        for (const RqExprAggr* known : target->m_aggrs)
            bKnown = bKnown || known->IsEquivalent(*aggr);
        if (!bKnown)
            target->m_aggrs.push_back(aggr);
    }
    return levels;
}

// ---- The SELECT ----------------------------------------------------------------------------

// One SELECT of the block: grouped by the block's grain, or (for one grouping set) by the
// set's columns, with the set's left-out columns null.
std::string SqlWriter::Grouped(const RqList& block, const std::string& from, const Scope& scope,
                               const BlockShape& shape, const GroupingBranch* branch) {
    // Aggregates at the grain are SQL aggregates; the others come from helper tables.
    std::unordered_map<const RqExpr*, std::string> aggrValues;
    std::string joins;
    const std::vector<AggrLevel> levels = OtherLevels(shape);
    if (!levels.empty() && block.GetJoinSpec() == nullptr)
        Fail(SqlProblem::kNotSupported, levels[0].m_aggrs[0],
             "an aggregate at another level in a block without FROM");
    for (const AggrLevel& level : levels)
        joins +=
            "\n  " + AggrJoin(block, level, shape.m_rowConds, scope, shape.m_aggrs, aggrValues);

    ExprEnv rowEnv;
    rowEnv.m_pScope = &scope;
    rowEnv.m_pNoAggrReason = "an aggregate in a row condition";
    rowEnv.m_bNoGroupingId = branch != nullptr;
    ExprEnv env;
    env.m_pScope = &scope;
    env.m_pAggrValues = &aggrValues;
    env.m_bInlineAggr = !shape.m_bDetails;
    env.m_pWindowBlock = &block;
    env.m_pBranch = branch;

    // Windows run over the rows before the summary conditions (which may read them), and SQL
    // evaluates windows after WHERE and HAVING: the conditions then become columns of the
    // statement, tested by an outer one.
    const bool bConditionsOutside = !shape.m_windows.empty() && !shape.m_summaryConds.empty();
    const std::vector<std::string> names = ColumnNames(block);
    std::vector<std::string> items;
    for (size_t i = 0; i < shape.m_columns.size(); ++i)
        items.push_back(Expr(*shape.m_columns[i], env).m_text + " AS " + names[i]);
    std::vector<std::string> outerWhere;
    for (size_t i = 0; bConditionsOutside && i < shape.m_summaryConds.size(); ++i) {
        items.push_back(Expr(*shape.m_summaryConds[i], env).m_text + " AS rq_cond" +
                        std::to_string(i + 1));
        outerWhere.push_back("rq_cond" + std::to_string(i + 1));
    }
    // Otherwise the summary conditions are HAVING, or WHERE at the details level.
    auto summary = [&](std::vector<std::string>& into) {
        for (const RqExpr* cond : shape.m_summaryConds)
            into.push_back(Operand(Expr(*cond, env), kRqStrengthAnd));
    };
    std::vector<std::string> where;
    for (const RqExpr* cond : shape.m_rowConds)
        where.push_back(Operand(Expr(*cond, rowEnv), kRqStrengthAnd));
    if (shape.m_bDetails && !bConditionsOutside)
        summary(where);
    const std::string groupBy = shape.m_bDetails ? "" : GroupByClause(shape, scope, branch);
    std::vector<std::string> having;
    if (!shape.m_bDetails && !bConditionsOutside)
        summary(having);
    // A grand total is one row even when it projects no aggregate; a hidden COUNT(*) makes
    // SQLite aggregate.
    const bool bHiddenTotal =
        !shape.m_bDetails && groupBy.empty() && shape.m_numProjectedAggrs == 0;
    if (bHiddenTotal)
        items.push_back("COUNT(*) AS rq_rows");

    const bool bWrapped = bConditionsOutside || bHiddenTotal;
    const bool bDistinct = block.IsDistinct() && branch == nullptr;
    std::string sql =
        std::string(bDistinct && !bWrapped ? "SELECT DISTINCT " : "SELECT ") + Join(items, ", ");
    if (block.GetJoinSpec() != nullptr)
        sql += "\nFROM " + from + joins;
    if (!where.empty())
        sql += "\nWHERE " + Join(where, " AND ");
    sql += groupBy;
    if (!having.empty())
        sql += "\nHAVING " + Join(having, " AND ");
    if (!bWrapped)
        return sql;
    sql = std::string(bDistinct ? "SELECT DISTINCT " : "SELECT ") + Join(names, ", ") +
          "\nFROM (\n" + Indent(sql) + "\n)";
    return outerWhere.empty() ? sql : sql + "\nWHERE " + Join(outerWhere, " AND ");
}

// "\nGROUP BY ..." at an aggregated grain; empty for the grand total.
std::string SqlWriter::GroupByClause(const BlockShape& shape, const Scope& scope,
                                     const GroupingBranch* branch) {
    ExprEnv groupEnv;
    groupEnv.m_pScope = &scope;
    groupEnv.m_pNoAggrReason = "an aggregate in a GROUP BY";
    const RqExprColumnListOrdered* list =
        shape.m_pGroupBy != nullptr ? shape.m_pGroupBy->GetColumnList() : nullptr;
    ExprList grain = shape.m_grain;
    bool bHasColumns = list != nullptr && list->GetNumColumns() > 0;
    if (branch != nullptr) {
        grain.clear();
        for (const RqExpr* column : branch->m_grouped) {
            if (!column->IsConstant() && !HasEquivalent(grain, *column))
                grain.push_back(column);
        }
        bHasColumns = !branch->m_grouped.empty();
    }
    std::vector<std::string> keys;
    for (const RqExpr* expr : grain)
        keys.push_back(Expr(*expr, groupEnv).m_text);
    // Constants only: one group when there are rows, none otherwise. A text constant, since
    // SQLite reads an integer here as a column position.
    if (keys.empty() && bHasColumns)
        keys.push_back("'constant'");
    return keys.empty() ? std::string() : "\nGROUP BY " + Join(keys, ", ");
}

// A block grouped by several grouping sets: one SELECT per set, stacked with UNION ALL, and
// the block's DISTINCT (here), ORDER BY and row limit (after) applied to the stacked rows.
// SQLite has no GROUPING SETS of its own.
std::string SqlWriter::GroupingSets(const RqList& block, const std::string& from,
                                    const Scope& scope, const BlockShape& shape) {
    const RqGroupBy& groupBy = *shape.m_pGroupBy;
    // Windows would run over the stacked rows, and an aggregate's own by-list at a set that
    // leaves some of its columns out has no level: neither is written here.
    if (!shape.m_windows.empty())
        Fail(SqlProblem::kNotSupported, shape.m_windows[0],
             "a window aggregate in a block with grouping sets");
    for (const RqExprAggr* aggr : shape.m_aggrs) {
        if (aggr->GetByList() != nullptr)
            Fail(SqlProblem::kNotSupported, aggr,
                 "an aggregate with a by-list of its own in a block with grouping sets");
    }
    const RqExprColumnListOrdered* list = groupBy.GetColumnList();
    const int numColumns = list != nullptr ? list->GetNumColumns() : 0;
    std::vector<std::string> branches;
    for (int s = 0; s < groupBy.GetNumGroupingSets(); ++s) {
        std::vector<bool> inSet(numColumns, false);
        for (uint16_t position : groupBy.GetIthGroupingSet(s)) {
            if (position >= numColumns)
                Fail(SqlProblem::kMalformed, &groupBy,
                     "a grouping set names position " + std::to_string(position) +
                         " of a GROUP BY list of " + std::to_string(numColumns));
            inSet[position] = true;
        }
        GroupingBranch branch;
        branch.m_pGroupBy = &groupBy;
        for (int i = 0; i < numColumns; ++i)
            (inSet[i] ? branch.m_grouped : branch.m_leftOut).push_back(list->GetIthColumn(i));
        branches.push_back(Grouped(block, from, scope, shape, &branch));
    }
    return std::string(block.IsDistinct() ? "SELECT DISTINCT " : "SELECT ") +
           Join(ColumnNames(block), ", ") + "\nFROM (\n" + Indent(Join(branches, "\nUNION ALL\n")) +
           "\n)";
}

// ---- Order and limit -------------------------------------------------------------------------

std::string SqlWriter::OrderAndLimit(const RqList& block, const Scope& scope) {
    std::string sql;
    if (block.GetOrderBy() != nullptr) {
        const std::vector<SqlSortKey> keys = Order(block);
        if (!keys.empty())
            sql += "\nORDER BY " + OrderTerms(block, keys);
    } else if (const RqDerivedTable* source = RowForRowSource(block)) {
        // Rows read row for row come in their table's order, projected or not.
        const RqAbstractList& inner = *source->GetInnerList();
        std::vector<std::string> terms;
        for (const SqlSortKey& key : Order(inner)) {
            const RqDerivedColumn* column = inner.GetProjection()->GetIthColumn(key.m_columnIndex);
            terms.push_back(OrderTerm(scope.m_columns.at(column), key));
        }
        if (!terms.empty())
            sql += "\nORDER BY " + Join(terms, ", ");
    }
    if (LimitApplies(block))
        sql += "\n" + LimitClause(block);
    return sql;
}

const RqExpr* SqlWriter::FilterCond(const RqNode& filter) {
    const RqExpr* cond =
        RqDynCast<RqExpr>(filter.GetNumChildren() > 0 ? filter.GetIthChild(0) : nullptr);
    if (cond == nullptr)
        Fail(SqlProblem::kMalformed, &filter, "a filter without a condition");
    return cond;
}

}  // namespace sqlrender
