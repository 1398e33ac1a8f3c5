// Aggregates: SQL aggregates at the block's grain, helper tables for the other levels, and
// window functions for the aggregates over the block's result rows.

#include "SQORSqlWriter.h"

namespace sqlrender {

namespace {

// How each window aggregate is written: the SQL function, what it is applied to, its frame,
// and whether rows tied on the sort keys would leave its value undetermined.
struct WindowForm {
    enum Argument { kNoArgument, kMeasure, kMeasureOrStar, kCountParameter };
    enum Frame { kWholePartition, kUpToPeers, kLastRows };
    RqNodeType_e m_kind;
    const char* m_function;
    Argument m_argument;
    Frame m_frame;
    bool m_bNeedsTotalOrder;
};

constexpr WindowForm kWindowForms[] = {
    {kRqExprAggrRank, "RANK", WindowForm::kNoArgument, WindowForm::kWholePartition, false},
    {kRqExprAggrPercentile, "PERCENT_RANK", WindowForm::kNoArgument, WindowForm::kWholePartition,
     false},
    {kRqExprAggrRowNum, "ROW_NUMBER", WindowForm::kNoArgument, WindowForm::kWholePartition, true},
    {kRqExprAggrNtile, "NTILE", WindowForm::kCountParameter, WindowForm::kWholePartition, true},
    {kRqExprAggrRunningSum, "SUM", WindowForm::kMeasure, WindowForm::kUpToPeers, false},
    {kRqExprAggrRunningCount, "COUNT", WindowForm::kMeasureOrStar, WindowForm::kUpToPeers, false},
    {kRqExprAggrRunningMin, "MIN", WindowForm::kMeasure, WindowForm::kUpToPeers, false},
    {kRqExprAggrRunningMax, "MAX", WindowForm::kMeasure, WindowForm::kUpToPeers, false},
    {kRqExprAggrMovingSum, "SUM", WindowForm::kMeasure, WindowForm::kLastRows, true},
    {kRqExprAggrMovingAvg, "AVG", WindowForm::kMeasure, WindowForm::kLastRows, true},
    {kRqExprAggrReportSum, "SUM", WindowForm::kMeasure, WindowForm::kWholePartition, false},
    {kRqExprAggrReportCount, "COUNT", WindowForm::kMeasureOrStar, WindowForm::kWholePartition,
     false},
    {kRqExprAggrReportMin, "MIN", WindowForm::kMeasure, WindowForm::kWholePartition, false},
    {kRqExprAggrReportMax, "MAX", WindowForm::kMeasure, WindowForm::kWholePartition, false},
    {kRqExprAggrReportAvg, "AVG", WindowForm::kMeasure, WindowForm::kWholePartition, false},
};

const WindowForm* FindWindowForm(RqNodeType_e kind) {
    for (const WindowForm& form : kWindowForms) {
        if (form.m_kind == kind)
            return &form;
    }
    return nullptr;
}

// The count parameter of NTILE and of the moving aggregates (checked to be an integer literal
// before rendering).
int64_t WindowParameter(const RqExprAggr& aggr) {
    return RqCast<RqExprIntegerLiteral>(aggr.GetIthParameter(0))->GetValue();
}

void CheckComputeBreak(const RqExprAggr& aggr) {
    const RqExprColumnList* computeBreak = aggr.GetComputeBreak();
    if (computeBreak != nullptr && computeBreak->GetNumColumns() > 0)
        Fail(SqlProblem::kNoSqlMeaning, &aggr, "a compute break on " + KindName(&aggr));
}

}  // namespace

// The aggregates of detail rows this page gives a SQL meaning to, and the parts they carry.
void SqlWriter::CheckAggregate(const RqExprAggr& aggr) {
    if (SqlKindFormOf(aggr.GetObjectType()).m_role != SqlKindRole::kAggregate)
        FailByForm(aggr);
    if (aggr.GetMeasure() == nullptr && !aggr.IsKindOf(kRqExprAggrCountStar))
        Fail(SqlProblem::kMalformed, &aggr, "an aggregate without a measure");
    if (aggr.GetNumParameters() > 0)
        Fail(SqlProblem::kNotSupported, &aggr, "an aggregate with parameters");
    CheckComputeBreak(aggr);
    if (ContainsAggr(aggr.GetMeasure()))
        Fail(SqlProblem::kNoSqlMeaning, &aggr, "an aggregate of an aggregate");
}

std::string SqlWriter::AggrCall(const RqExprAggr& aggr, const ExprEnv& env) {
    if (aggr.IsKindOf(kRqExprAggrCountStar))
        return "COUNT(*)";
    ExprEnv measureEnv;
    measureEnv.m_pScope = env.m_pScope;
    measureEnv.m_pNoAggrReason = "an aggregate of an aggregate";
    measureEnv.m_bNoGroupingId = env.m_bNoGroupingId || env.m_pBranch != nullptr;
    return std::string(SqlKindFormOf(aggr.GetObjectType()).m_text) + "(" +
           (aggr.IsDistinctAggregation() ? "DISTINCT " : "") +
           Expr(*aggr.GetMeasure(), measureEnv).m_text + ")";
}

Sql SqlWriter::Aggregate(const RqExprAggr& aggr, const ExprEnv& env) {
    if (IsWindowAggr(&aggr))
        return Sql{WindowCall(aggr, env)};
    if (env.m_pAggrValues != nullptr) {
        auto found = env.m_pAggrValues->find(&aggr);
        if (found != env.m_pAggrValues->end())
            return Sql{found->second};
    }
    if (!env.m_bInlineAggr)
        Fail(SqlProblem::kNoSqlMeaning, &aggr, env.m_pNoAggrReason);
    CheckAggregate(aggr);
    return Sql{AggrCall(aggr, env)};
}

// ---- Window aggregates --------------------------------------------------------------------

// The window aggregates this page gives a SQL meaning to, and the parts they may carry.
void SqlWriter::CheckWindowAggr(const RqExprAggr& aggr) {
    const WindowForm* form = FindWindowForm(aggr.GetObjectType());
    if (SqlKindFormOf(aggr.GetObjectType()).m_role != SqlKindRole::kWindowAggregate ||
        form == nullptr)
        FailByForm(aggr);
    const int numParameters =
        form->m_argument == WindowForm::kCountParameter || form->m_frame == WindowForm::kLastRows
            ? 1
            : 0;
    if (form->m_argument == WindowForm::kMeasure && aggr.GetMeasure() == nullptr)
        Fail(SqlProblem::kMalformed, &aggr, "an aggregate without a measure");
    if (aggr.GetNumParameters() != numParameters)
        Fail(SqlProblem::kNotSupported, &aggr,
             KindName(&aggr) + " with " + std::to_string(aggr.GetNumParameters()) + " parameters");
    if (numParameters == 1) {
        const auto* count = RqDynCast<RqExprIntegerLiteral>(aggr.GetIthParameter(0));
        if (count == nullptr || count->GetValue() < 1)
            Fail(SqlProblem::kNotSupported,
                 aggr.GetIthParameter(0) != nullptr ? aggr.GetIthParameter(0) : &aggr,
                 "a row count of " + KindName(&aggr) + " that is not a positive integer");
    }
    CheckComputeBreak(aggr);
    // SQLite has no DISTINCT window functions.
    if (aggr.IsDistinctAggregation())
        Fail(SqlProblem::kNotSupported, &aggr, "a DISTINCT " + KindName(&aggr));
    const auto* sorted = RqDynCast<RqExprSortDependentAggr>(&aggr);
    if (sorted != nullptr && sorted->GetSortSpec().empty())
        Fail(SqlProblem::kNotSupported, &aggr,
             KindName(&aggr) + " without sort keys: no order is given");
}

// The values a window orders its partition by: the expressions of the projected columns its
// sort keys name.
std::vector<std::string> SqlWriter::WindowOrder(const RqExprAggr& aggr, const RqList& block,
                                                const ExprEnv& env) {
    std::vector<std::string> values;
    const auto* sorted = RqDynCast<RqExprSortDependentAggr>(&aggr);
    if (sorted == nullptr)
        return values;
    const RqProjection& projection = *block.GetProjection();
    for (const auto& key : sorted->GetSortSpec()) {
        const RqDerivedColumn* column = nullptr;
        for (int i = 0; i < projection.GetNumColumns() && column == nullptr; ++i) {
            if (projection.GetIthColumn(i)->GetColumnNum() == key.m_columnNumber)
                column = projection.GetIthColumn(i);
        }
        if (column == nullptr)
            Fail(SqlProblem::kMalformed, &aggr,
                 "a sort key names column " + std::to_string(key.m_columnNumber) +
                     ", which the block does not project");
        if (ContainsWindowAggr(column->GetExpr()))
            Fail(SqlProblem::kNotSupported, &aggr,
                 "a sort key naming a column computed by a window");
        values.push_back(Expr(*column->GetExpr(), env).m_text);
    }
    return values;
}

// A window function over the result rows of env's block: partitioned by the by-list, ordered
// by the sort keys (the values of the projected columns they name).
std::string SqlWriter::WindowCall(const RqExprAggr& aggr, const ExprEnv& env) {
    if (env.m_pWindowBlock == nullptr)
        Fail(SqlProblem::kNotSupported, &aggr,
             KindName(&aggr) + " where the block's result rows are not at hand");
    CheckWindowAggr(aggr);
    const WindowForm& form = *FindWindowForm(aggr.GetObjectType());
    ExprEnv inner = env;
    inner.m_pWindowBlock = nullptr;

    std::vector<std::string> partition;
    for (const RqExpr* member : GroupingMembers(aggr.GetByList()))
        partition.push_back(Expr(*member, inner).m_text);
    const std::vector<std::string> orderValues = WindowOrder(aggr, *env.m_pWindowBlock, inner);
    std::vector<std::string> order = orderValues;
    if (const auto* sorted = RqDynCast<RqExprSortDependentAggr>(&aggr)) {
        for (size_t k = 0; k < order.size(); ++k) {
            if (sorted->GetSortSpec()[k].m_direction == RqSortSpec::kDesc)
                order[k] += " DESC";
        }
    }
    std::string spec;
    if (!partition.empty())
        spec = "PARTITION BY " + Join(partition, ", ");
    if (!order.empty())
        spec += std::string(spec.empty() ? "" : " ") + "ORDER BY " + Join(order, ", ");
    std::string argument;
    if (form.m_argument == WindowForm::kCountParameter)
        argument = std::to_string(WindowParameter(aggr));
    else if (form.m_argument != WindowForm::kNoArgument)
        argument = aggr.GetMeasure() != nullptr ? Expr(*aggr.GetMeasure(), inner).m_text : "*";
    std::string frame;
    // Every row up to the current one and its peers: rows tied on the sort keys get one value,
    // whatever order the engine puts them in.
    if (form.m_frame == WindowForm::kUpToPeers)
        frame = "RANGE BETWEEN UNBOUNDED PRECEDING AND CURRENT ROW";
    else if (form.m_frame == WindowForm::kLastRows)
        frame = "ROWS BETWEEN " + std::to_string(WindowParameter(aggr) - 1) +
                " PRECEDING AND CURRENT ROW";
    std::string call = std::string(form.m_function) + "(" + argument + ") OVER (" + spec +
                       (frame.empty() || spec.empty() ? "" : " ") + frame + ")";
    if (!form.m_bNeedsTotalOrder)
        return call;
    // Rows tied on every sort key within a partition get their numbers (buckets, windows of
    // rows) in an order nothing decides: such a result is not determined, and the statement
    // fails rather than pick one.
    std::vector<std::string> peers = partition;
    peers.insert(peers.end(), orderValues.begin(), orderValues.end());
    return "CASE WHEN COUNT(*) OVER (PARTITION BY " + Join(peers, ", ") + ") > 1 THEN " +
           kSqlErrorFunction + "(" +
           SqlRenderer::QuoteText("not determined: " + KindName(&aggr) +
                                  " over rows that tie on its sort keys") +
           ") ELSE " + call + " END";
}

// ---- Aggregates at another level --------------------------------------------------------

// A helper table that computes aggregates at `level` over the block's detail rows, joined to
// each row of the block on the level's values (NULLs match NULLs, so that each detail row
// finds exactly its own group and the join multiplies nothing).
std::string SqlWriter::AggrJoin(const RqList& block, const AggrLevel& level,
                                const ExprList& rowConds, const Scope& mainScope,
                                const std::vector<const RqExprAggr*>& allAggrs,
                                std::unordered_map<const RqExpr*, std::string>& values) {
    const std::string alias = NewAlias("a" + std::to_string(++m_aggrTableCount));
    Scope scope;
    scope.m_bIsolated = true;
    const std::string from = From(*block.GetJoinSpec(), scope);
    ExprEnv rowEnv;
    rowEnv.m_pScope = &scope;
    rowEnv.m_pNoAggrReason = "an aggregate in a row condition";
    ExprEnv mainEnv;
    mainEnv.m_pScope = &mainScope;
    mainEnv.m_pNoAggrReason = "an aggregate in a by-list";

    std::vector<std::string> items;
    std::vector<std::string> keys;
    std::vector<std::string> on;
    for (size_t i = 0; i < level.m_level.size(); ++i) {
        const std::string key = Expr(*level.m_level[i], rowEnv).m_text;
        const std::string name = "k" + std::to_string(i + 1);
        items.push_back(key + " AS " + name);
        keys.push_back(key);
        on.push_back(alias + "." + name + " IS " +
                     Operand(Expr(*level.m_level[i], mainEnv), kPredicateOperandStrength));
    }
    for (size_t j = 0; j < level.m_aggrs.size(); ++j) {
        const std::string name = "v" + std::to_string(j + 1);
        items.push_back(AggrCall(*level.m_aggrs[j], rowEnv) + " AS " + name);
        for (const RqExprAggr* aggr : allAggrs) {
            if (aggr->IsEquivalent(*level.m_aggrs[j]) &&
                SameSet(level.m_level, LevelOf(*aggr, block)))
                values[aggr] = alias + "." + name;
        }
    }
    std::string sql = "SELECT " + Join(items, ", ") + "\nFROM " + from;
    std::vector<std::string> where;
    for (const RqExpr* cond : rowConds)
        where.push_back(Operand(Expr(*cond, rowEnv), kRqStrengthAnd));
    if (!where.empty())
        sql += "\nWHERE " + Join(where, " AND ");
    if (!keys.empty())
        sql += "\nGROUP BY " + Join(keys, ", ");
    return "LEFT JOIN (\n" + Indent(sql, 4) + "\n  ) AS " + alias + " ON " +
           (on.empty() ? std::string("1") : Join(on, " AND "));
}

// The level an aggregate of `block` is computed at, as its helper table groups it.
ExprList SqlWriter::LevelOf(const RqExprAggr& aggr, const RqList& block) {
    if (aggr.GetByList() != nullptr)
        return GroupingMembers(aggr.GetByList());
    if (block.GetGroupBy() != nullptr)
        return GroupingMembers(block.GetGroupBy()->GetColumnList());
    return ExprList();
}

}  // namespace sqlrender
