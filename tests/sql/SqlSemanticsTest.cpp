// What rendered requests return, on rows chosen by hand so that each construct's corner
// (NULL keys, rows without a partner, duplicates, empty input) decides the expected result.

#include "SqlTestCatalog.h"

namespace {

using namespace rqb;
using rqb::Ref;

using Rows = std::vector<std::string>;

class SqlSemanticsTest : public SqlTestCatalog {
protected:
    // ORDER_ID, CUST_ID, AMOUNT, REGION
    std::vector<SqlRow> OrderRows() const {
        return {{I(1), I(10), R(5), T("N")},
                {I(2), I(10), R(3), T("S")},
                {I(3), I(20), R(4), T("N")},
                {I(4), N(), R(2), T("N")},
                {I(5), I(30), N(), N()}};
    }
    // CUST_ID, NAME, SINCE
    std::vector<SqlRow> CustomerRows() const {
        return {{I(10), T("Ann"), T("2024-01-05")},
                {I(20), T("bob"), N()},
                {I(40), T("Cy"), T("2024-02-01")},
                {N(), T("Nil"), N()}};
    }

    // The rows of a comparable run, sorted; a failed run reports why.
    Rows Bag(RqNode* tree) const {
        Heap<RqNode> owner(tree);
        const SqlRunResult run = RunOn(*tree, OrderRows(), CustomerRows());
        EXPECT_TRUE(run.m_bComparable) << run.m_reason << "\n" << run.m_sql;
        return SortedRows(run.m_rows);
    }
    Rows Sequence(RqNode* tree) const {
        Heap<RqNode> owner(tree);
        const SqlRunResult run = RunOn(*tree, OrderRows(), CustomerRows());
        EXPECT_TRUE(run.m_bComparable) << run.m_reason << "\n" << run.m_sql;
        return RowsInOrder(run.m_rows);
    }
    std::string WhyNotComparable(RqNode* tree) const {
        Heap<RqNode> owner(tree);
        const SqlRunResult run = RunOn(*tree, OrderRows(), CustomerRows());
        EXPECT_FALSE(run.m_bComparable) << run.m_sql;
        return run.m_reason;
    }
    RqList* OrderColumn(const wchar_t* name, int tableNum = 1) const {
        return Block().Select(Col(name, tableNum)).From(Orders(tableNum)).Build();
    }
};

TEST_F(SqlSemanticsTest, JoinTypesKeepOrExtendUnmatchedRows) {
    const Rows inner = {"1|10", "2|10", "3|20"};
    const Rows leftOnly = {"4|NULL", "5|NULL"};
    const Rows rightOnly = {"NULL|40", "NULL|NULL"};
    auto join = [&](SqlTableRef::JoinType type) {
        return Bag(
            Block()
                .Select(Col(L"ORDER_ID", 1))
                .Select(Col(L"CUST_ID", 2))
                .Join(type, Orders(), Customers(), Eq(Col(L"CUST_ID", 1), Col(L"CUST_ID", 2)))
                .Build());
    };
    auto sorted = [](std::vector<Rows> parts) {
        Rows all;
        for (const Rows& part : parts)
            all.insert(all.end(), part.begin(), part.end());
        std::sort(all.begin(), all.end());
        return all;
    };
    EXPECT_EQ(join(SqlTableRef::kInnerJoin), inner);
    EXPECT_EQ(join(SqlTableRef::kLeftOuterJoin), sorted({inner, leftOnly}));
    EXPECT_EQ(join(SqlTableRef::kRightOuterJoin), sorted({inner, rightOnly}));
    EXPECT_EQ(join(SqlTableRef::kFullOuterJoin), sorted({inner, leftOnly, rightOnly}));
    EXPECT_EQ(join(SqlTableRef::kFullOuterStitchJoin), sorted({inner, leftOnly, rightOnly}));
    // Several FROM members are a cross product.
    EXPECT_EQ(Bag(Block().Select(CountStar()).From(Orders()).From(Customers()).Build()),
              Rows{"20"});
}

// A by-list is a window partition over the detail rows; a NULL key is a partition too.
TEST_F(SqlSemanticsTest, ByListsPartitionTheDetailRows) {
    EXPECT_EQ(Bag(Block()
                      .Select(Col(L"ORDER_ID", 1))
                      .Select(Sum(Col(L"AMOUNT", 1), By({Col(L"REGION", 1)})))
                      .Select(CountStar(By({})))
                      .From(Orders())
                      .Build()),
              (Rows{"1|11|5", "2|3|5", "3|11|5", "4|11|5", "5|NULL|5"}));
    // Without a GROUP BY and without detail columns, the finest by-list is the grain.
    EXPECT_EQ(Bag(Block()
                      .Select(Sum(Col(L"AMOUNT", 1), By({Col(L"REGION", 1)})))
                      .Select(Div(Sum(Col(L"AMOUNT", 1), By({Col(L"REGION", 1)})),
                                  Sum(Col(L"AMOUNT", 1), By({}))))
                      .From(Orders())
                      .Build()),
              (Rows{"11|0.785714285714286", "3|0.214285714285714", "NULL|NULL"}));
    // In a grouped block, a coarser level is the same for every group it contains.
    EXPECT_EQ(Bag(Block()
                      .Select(Col(L"REGION", 1))
                      .Select(Col(L"CUST_ID", 1))
                      .Select(CountStar())
                      .Select(CountStar(By({Col(L"REGION", 1)})))
                      .From(Orders())
                      .GroupBy({Col(L"REGION", 1), Col(L"CUST_ID", 1)})
                      .Build()),
              (Rows{"'N'|10|1|3", "'N'|20|1|3", "'N'|NULL|1|3", "'S'|10|1|1", "NULL|30|1|1"}));
}

TEST_F(SqlSemanticsTest, AggregatesOfTheWholeInputAndDistinct) {
    EXPECT_EQ(Bag(Block()
                      .Select(Distinct(Count(Col(L"CUST_ID", 1))))
                      .Select(Count(Col(L"CUST_ID", 1)))
                      .Select(Avg(Col(L"AMOUNT", 1)))
                      .Select(Distinct(Sum(Col(L"CUST_ID", 1))))
                      .From(Orders())
                      .Build()),
              (Rows{"3|4|3.5|60"}));
    // The grand total has one row even over no rows; a grouping has none.
    Heap<RqList> total(
        Block().Select(CountStar()).Select(Sum(Col(L"AMOUNT", 1))).From(Orders()).Build());
    EXPECT_EQ(SortedRows(RunOn(*total, {}).m_rows), Rows{"0|NULL"});
    Heap<RqList> grouped(
        Block().Select(CountStar()).From(Orders()).GroupBy({Col(L"REGION", 1)}).Build());
    EXPECT_TRUE(RunOn(*grouped, {}).m_rows.m_rows.empty());
}

// A WHERE conjunct with an aggregate, the summary filter and HAVING all keep aggregated rows,
// after the aggregates are computed from the rows that pass the rest of WHERE.
TEST_F(SqlSemanticsTest, AggregateConditionsFilterAggregatedRows) {
    auto block = [&](int where) {
        Block b;
        b.Select(Col(L"REGION", 1))
            .Select(Sum(Col(L"AMOUNT", 1)))
            .From(Orders())
            .GroupBy({Col(L"REGION", 1)});
        RqExpr* sumOver4 = Gt(Sum(Col(L"AMOUNT", 1)), Int(4));
        if (where == 0)
            b.Where(And(Gt(Col(L"AMOUNT", 1), Int(2)), sumOver4));
        else if (where == 1)
            b.Where(Gt(Col(L"AMOUNT", 1), Int(2))).SummaryFilter(sumOver4);
        else
            b.Where(Gt(Col(L"AMOUNT", 1), Int(2))).Having(sumOver4);
        return b.Build();
    };
    for (int where = 0; where < 3; ++where)
        EXPECT_EQ(Bag(block(where)), Rows{"'N'|9"}) << where;
    // At the details level a summary condition filters rows by their windowed aggregates.
    EXPECT_EQ(Bag(Block()
                      .Select(Col(L"ORDER_ID", 1))
                      .From(Orders())
                      .SummaryFilter(Gt(Col(L"AMOUNT", 1), Avg(Col(L"AMOUNT", 1), By({}))))
                      .Build()),
              (Rows{"1", "3"}));
}

TEST_F(SqlSemanticsTest, BreakFilterTakesTheFirstRowInTheInnerOrder) {
    auto inner = [&] {
        return Block()
            .Select(Col(L"REGION", 1))
            .Select(Col(L"AMOUNT", 1))
            .From(Orders())
            .OrderBy({{1, RqSortSpec::kDesc}})
            .Build();
    };
    EXPECT_EQ(Sequence(BreakFilter(inner(), {0})), (Rows{"'N'|5", "'S'|3", "NULL|NULL"}));
    RqBreakFilter* limited = BreakFilter(inner(), {0});
    limited->SetRowLimit(1);
    limited->SetRowOffset(1);
    EXPECT_EQ(Sequence(limited), Rows{"'S'|3"});
    // Without an inner order the row kept is anyone's guess when the other columns differ.
    EXPECT_NE(
        WhyNotComparable(
            BreakFilter(
                Block().Select(Col(L"REGION", 1)).Select(Col(L"AMOUNT", 1)).From(Orders()).Build(),
                {0}))
            .find("break filter"),
        std::string::npos);
}

TEST_F(SqlSemanticsTest, SetOperationsCountRowsWithAllAndDeduplicateWithout) {
    auto setOp = [&](RqNodeType_e kind, bool bAll) -> RqAbstractList* {
        RqAbstractList* a = OrderColumn(L"CUST_ID");
        RqAbstractList* b = Block().Select(Col(L"CUST_ID", 2)).From(Customers()).Build();
        if (kind == kRqUnion)
            return Union({a, b}, bAll);
        return kind == kRqIntersect ? static_cast<RqAbstractList*>(Intersect({a, b}, bAll))
                                    : static_cast<RqAbstractList*>(Except({a, b}, bAll));
    };
    EXPECT_EQ(Bag(setOp(kRqUnion, true)).size(), 9u);
    EXPECT_EQ(Bag(setOp(kRqUnion, false)), (Rows{"10", "20", "30", "40", "NULL"}));
    EXPECT_EQ(Bag(setOp(kRqIntersect, false)), (Rows{"10", "20", "NULL"}));
    EXPECT_EQ(Bag(setOp(kRqIntersect, true)), (Rows{"10", "20", "NULL"}));
    EXPECT_EQ(Bag(setOp(kRqExcept, false)), Rows{"30"});
    EXPECT_EQ(Bag(setOp(kRqExcept, true)), (Rows{"10", "30"}));
    // A chain subtracts each member's counts in turn.
    EXPECT_EQ(Bag(Except({OrderColumn(L"CUST_ID"),
                          Block().Select(Col(L"CUST_ID", 2)).From(Customers()).Build(),
                          Block()
                              .Select(Col(L"CUST_ID", 1))
                              .From(Orders())
                              .Where(Eq(Col(L"ORDER_ID", 1), Int(1)))
                              .Build()},
                         true)),
              Rows{"30"});
}

TEST_F(SqlSemanticsTest, ExpressionsFollowTheMeaningPage) {
    EXPECT_EQ(Bag(Block()
                      .Select(Div(Int(7), Int(2)))
                      .Select(Like(Str(L"Ann"), Str(L"ann")))
                      .Select(Between(Int(2), Int(2), Int(3)))
                      .Select(In(Null(), {Int(1)}))
                      .Build()),
              Rows{"3.5|0|1|NULL"});
    // Quantified comparisons in three-valued logic: the subquery holds 2 and NULL for ANY,
    // 3 and 4 for ALL.
    auto quantified = [&](RqNodeType_e kind, int64_t low) {
        RqList* sub = Block()
                          .Select(Col(L"AMOUNT", 3))
                          .From(Orders(3))
                          .Where(Between(Col(L"ORDER_ID", 3), Int(low), Int(low + 1)))
                          .Build();
        RqExpr* cond = kind == kRqExprCondAnyGreaterThan
                           ? static_cast<RqExpr*>(RQ_NEW RqExprCondAnyGreaterThan(
                                 {Col(L"AMOUNT", 1), Subquery(sub)}))
                           : RQ_NEW RqExprCondAllGreaterEqual({Col(L"AMOUNT", 1), Subquery(sub)});
        return Bag(Block().Select(Col(L"ORDER_ID", 1)).Select(cond).From(Orders()).Build());
    };
    EXPECT_EQ(quantified(kRqExprCondAnyGreaterThan, 4),
              (Rows{"1|1", "2|1", "3|1", "4|NULL", "5|NULL"}));
    EXPECT_EQ(quantified(kRqExprCondAllGreaterEqual, 2),
              (Rows{"1|1", "2|0", "3|1", "4|0", "5|NULL"}));
    // A correlated EXISTS reads the enclosing row.
    EXPECT_EQ(Bag(Block()
                      .Select(Col(L"ORDER_ID", 1))
                      .From(Orders())
                      .Where(Exists(Block()
                                        .Select(Int(1))
                                        .From(Customers())
                                        .Where(Eq(Col(L"CUST_ID", 2), Col(L"CUST_ID", 1)))
                                        .Build()))
                      .Build()),
              (Rows{"1", "2", "3"}));
    // A scalar subquery with two rows has no value.
    EXPECT_NE(WhyNotComparable(Block().Select(Subquery(OrderColumn(L"AMOUNT", 3))).Build())
                  .find("more than one row"),
              std::string::npos);
}

TEST_F(SqlSemanticsTest, NestedJoinsAndListsThatPassRowsThrough) {
    // Orders LEFT JOIN (customers JOIN their orders): 2 + 2 + 1 rows matched, 2 kept alone.
    EXPECT_EQ(Bag(Block()
                      .Select(CountStar())
                      .Join(SqlTableRef::kLeftOuterJoin, Orders(),
                            JoinRef(SqlTableRef::kInnerJoin, Customers(), Orders(3),
                                    Eq(Col(L"CUST_ID", 2), Col(L"CUST_ID", 3))),
                            Eq(Col(L"CUST_ID", 1), Col(L"CUST_ID", 2)))
                      .Build()),
              Rows{"7"});
    // Orders times (customers RIGHT JOIN orders): 5 x 5 rows, the two orders without a
    // customer once per row of the first table, not once in all.
    EXPECT_EQ(Bag(Block()
                      .Select(CountStar())
                      .From(Orders())
                      .Join(SqlTableRef::kRightOuterJoin, Customers(), Orders(3),
                            Eq(Col(L"CUST_ID", 2), Col(L"CUST_ID", 3)))
                      .Build()),
              Rows{"25"});
    // A shared list reads the rows of the list it names; a cache list those of its list.
    RqList* regions = OrderColumn(L"REGION");
    EXPECT_EQ(Bag(Union({regions, Shared(regions)}, false)), (Rows{"'N'", "'S'", "NULL"}));
    EXPECT_EQ(
        Bag(Union({OrderColumn(L"REGION"), RQ_NEW RqCacheList(OrderColumn(L"REGION", 3))}, true))
            .size(),
        10u);
}

TEST_F(SqlSemanticsTest, GroupedBlocksAndTheirSubqueries) {
    // A subquery that reads nothing of the block has one value for all its groups.
    EXPECT_EQ(Bag(Block()
                      .Select(Col(L"REGION", 1))
                      .From(Orders())
                      .GroupBy({Col(L"REGION", 1)})
                      .Having(Gt(
                          Sum(Col(L"AMOUNT", 1)),
                          Subquery(Block().Select(Avg(Col(L"AMOUNT", 3))).From(Orders(3)).Build())))
                      .Build()),
              Rows{"'N'"});
    // A grouping on constants has one group when there are rows and none otherwise.
    Heap<RqList> constant(Block().Select(CountStar()).From(Orders()).GroupBy({Int(1)}).Build());
    EXPECT_EQ(SortedRows(RunOn(*constant, OrderRows()).m_rows), Rows{"5"});
    EXPECT_TRUE(RunOn(*constant, {}).m_rows.m_rows.empty());
    // A helper table of another level cannot see the enclosing block of a subquery.
    Heap<RqList> correlated(Block()
                                .Select(Col(L"ORDER_ID", 1))
                                .From(Orders())
                                .Where(Exists(Block()
                                                  .Select(Sum(Col(L"AMOUNT", 3), By({})))
                                                  .Select(Col(L"ORDER_ID", 3))
                                                  .From(Orders(3))
                                                  .Where(Eq(Col(L"CUST_ID", 3), Col(L"CUST_ID", 1)))
                                                  .Build()))
                                .Build());
    EXPECT_EQ(SqlRenderer::Render(*correlated, Rp()).m_problem, SqlProblem::kNotSupported);
}

TEST_F(SqlSemanticsTest, RowLimitIsComparableOnlyWhenTheOrderDecides) {
    auto limited = [&](RqSortSpec::SortDirection direction, int sortIndex, uint32_t limit) {
        return Block()
            .Select(Col(L"REGION", 1))
            .Select(Col(L"AMOUNT", 1))
            .From(Orders())
            .OrderBy({{sortIndex, direction}})
            .Limit(limit)
            .Build();
    };
    EXPECT_EQ(Sequence(limited(RqSortSpec::kDesc, 1, 2)), (Rows{"'N'|5", "'N'|4"}));
    // NULL first, then all three N rows: the tie lies inside the window.
    EXPECT_EQ(Sequence(limited(RqSortSpec::kAsc, 0, 4)).size(), 4u);
    EXPECT_NE(WhyNotComparable(limited(RqSortSpec::kAsc, 0, 2)).find("partial order"),
              std::string::npos);
    // A block reading an ordered derived table row for row pages through it in that order.
    RqList* ordered = limited(RqSortSpec::kDesc, 1, 0);
    RqExpr* region = Ref(*ordered, 0);
    RqList* page = Block()
                       .Select(region)
                       .Select(Ref(*ordered, 1))
                       .From(Derived(ordered, 4))
                       .Where(Ne(Ref(*ordered, 0), Str(L"S")))
                       .Build();
    page->SetRowLimit(2);
    page->SetRowOffset(1);
    EXPECT_EQ(Sequence(page), (Rows{"'N'|4", "'N'|2"}));
    // The limit of an inner block decides the outer block's rows as well.
    RqList* inner = limited(RqSortSpec::kAsc, 0, 3);
    RqExpr* amount = Ref(*inner, 1);
    EXPECT_NE(WhyNotComparable(Block().Select(Sum(amount)).From(Derived(inner, 4)).Build())
                  .find("partial order"),
              std::string::npos);
}

// Window aggregates run over the block's result rows: partitioned by their by-list, ordered by
// the projected columns their sort keys name (NULL is the smallest value).
RqExprAggr* WithCount(RqExprAggr* aggr, int64_t count) {
    aggr->AddOperand(Int(count));
    return aggr;
}

TEST_F(SqlSemanticsTest, WindowAggregatesOverDetailRows) {
    // ORDER_ID, AMOUNT and one window by REGION, ordered by AMOUNT (column 1) descending.
    auto by = [&](RqExprAggr* window) {
        return Bag(Block()
                       .Select(Col(L"ORDER_ID", 1))
                       .Select(Col(L"AMOUNT", 1))
                       .Select(window)
                       .From(Orders())
                       .Build());
    };
    auto region = [] { return By({Col(L"REGION", 1)}); };
    auto amount = [] { return Col(L"AMOUNT", 1); };
    const RqExprSortDependentAggr::SortKey desc{1, RqSortSpec::kDesc};
    EXPECT_EQ(by(SortedBy(Aggr<RqExprAggrRank>(amount(), region()), {desc})),
              (Rows{"1|5|1", "2|3|1", "3|4|2", "4|2|3", "5|NULL|1"}));
    EXPECT_EQ(by(SortedBy(Aggr<RqExprAggrRowNum>(nullptr, region()), {desc})),
              (Rows{"1|5|1", "2|3|1", "3|4|2", "4|2|3", "5|NULL|1"}));
    EXPECT_EQ(by(SortedBy(Aggr<RqExprAggrPercentile>(amount(), region()), {desc})),
              (Rows{"1|5|0", "2|3|0", "3|4|0.5", "4|2|1", "5|NULL|0"}));
    EXPECT_EQ(by(WithCount(SortedBy(Aggr<RqExprAggrNtile>(amount(), region()), {desc}), 2)),
              (Rows{"1|5|1", "2|3|1", "3|4|1", "4|2|2", "5|NULL|1"}));
    EXPECT_EQ(by(SortedBy(Aggr<RqExprAggrRunningSum>(amount(), region()), {desc})),
              (Rows{"1|5|5", "2|3|3", "3|4|9", "4|2|11", "5|NULL|NULL"}));
    EXPECT_EQ(by(SortedBy(Aggr<RqExprAggrRunningCount>(amount(), region()), {desc})),
              (Rows{"1|5|1", "2|3|1", "3|4|2", "4|2|3", "5|NULL|0"}));
    EXPECT_EQ(by(SortedBy(Aggr<RqExprAggrRunningMin>(amount(), region()), {desc})),
              (Rows{"1|5|5", "2|3|3", "3|4|4", "4|2|2", "5|NULL|NULL"}));
    EXPECT_EQ(by(SortedBy(Aggr<RqExprAggrRunningMax>(amount(), By({})), {{1, RqSortSpec::kAsc}})),
              (Rows{"1|5|5", "2|3|3", "3|4|4", "4|2|2", "5|NULL|NULL"}));
    // A window of two rows: the current one and the one before it.
    EXPECT_EQ(by(WithCount(SortedBy(Aggr<RqExprAggrMovingSum>(amount(), region()), {desc}), 2)),
              (Rows{"1|5|5", "2|3|3", "3|4|9", "4|2|6", "5|NULL|NULL"}));
    EXPECT_EQ(by(WithCount(SortedBy(Aggr<RqExprAggrMovingAvg>(amount(), region()), {desc}), 2)),
              (Rows{"1|5|5", "2|3|3", "3|4|4.5", "4|2|3", "5|NULL|NULL"}));
    // Report aggregates have no order; an absent by-list is the whole result.
    EXPECT_EQ(by(Aggr<RqExprAggrReportSum>(amount(), region())),
              (Rows{"1|5|11", "2|3|3", "3|4|11", "4|2|11", "5|NULL|NULL"}));
    EXPECT_EQ(by(Aggr<RqExprAggrReportAvg>(amount())),
              (Rows{"1|5|3.5", "2|3|3.5", "3|4|3.5", "4|2|3.5", "5|NULL|3.5"}));
    EXPECT_EQ(by(Aggr<RqExprAggrReportCount>(nullptr)),
              (Rows{"1|5|5", "2|3|5", "3|4|5", "4|2|5", "5|NULL|5"}));
    EXPECT_EQ(by(Aggr<RqExprAggrReportMin>(amount(), region())),
              (Rows{"1|5|2", "2|3|3", "3|4|2", "4|2|2", "5|NULL|NULL"}));
    EXPECT_EQ(by(Aggr<RqExprAggrReportMax>(amount(), By({}))),
              (Rows{"1|5|5", "2|3|5", "3|4|5", "4|2|5", "5|NULL|5"}));
}

// Ranks and running aggregates give rows tied on the sort keys one value; a row number, a
// moving window or a tile over such rows is not determined.
TEST_F(SqlSemanticsTest, WindowAggregatesOverTiedRows) {
    auto byCustomer = [&](RqExprAggr* window) {
        return Block()
            .Select(Col(L"ORDER_ID", 1))
            .Select(Col(L"CUST_ID", 1))
            .Select(window)
            .From(Orders())
            .Build();
    };
    const RqExprSortDependentAggr::SortKey asc{1, RqSortSpec::kAsc};
    EXPECT_EQ(Bag(byCustomer(SortedBy(Aggr<RqExprAggrRank>(Col(L"CUST_ID", 1)), {asc}))),
              (Rows{"1|10|2", "2|10|2", "3|20|4", "4|NULL|1", "5|30|5"}));
    EXPECT_EQ(Bag(byCustomer(SortedBy(Aggr<RqExprAggrRunningCount>(nullptr), {asc}))),
              (Rows{"1|10|3", "2|10|3", "3|20|4", "4|NULL|1", "5|30|5"}));
    EXPECT_NE(WhyNotComparable(byCustomer(SortedBy(Aggr<RqExprAggrRowNum>(nullptr), {asc})))
                  .find("not determined"),
              std::string::npos);
    EXPECT_NE(
        WhyNotComparable(
            byCustomer(WithCount(SortedBy(Aggr<RqExprAggrMovingSum>(Col(L"AMOUNT", 1)), {asc}), 3)))
            .find("not determined"),
        std::string::npos);
    // A second key that separates the tied rows makes the order total.
    EXPECT_EQ(
        Bag(byCustomer(SortedBy(Aggr<RqExprAggrRowNum>(nullptr), {asc, {0, RqSortSpec::kDesc}}))),
        (Rows{"1|10|3", "2|10|2", "3|20|4", "4|NULL|1", "5|30|5"}));
    // Ties in different partitions are no ties.
    EXPECT_EQ(Bag(byCustomer(
                  SortedBy(Aggr<RqExprAggrRowNum>(nullptr, By({Col(L"ORDER_ID", 1)})), {asc}))),
              (Rows{"1|10|1", "2|10|1", "3|20|1", "4|NULL|1", "5|30|1"}));
}

// Over a grouped block, windows see one row per group; the summary conditions apply after
// every window was computed, so a report total still counts the groups they drop.
TEST_F(SqlSemanticsTest, WindowAggregatesOverGroups) {
    auto grouped = [&](RqExpr* summary) {
        Block block;
        block.Select(Col(L"REGION", 1))
            .Select(Sum(Col(L"AMOUNT", 1)))
            .Select(
                SortedBy(Aggr<RqExprAggrRank>(Sum(Col(L"AMOUNT", 1))), {{1, RqSortSpec::kDesc}}))
            .Select(Aggr<RqExprAggrReportSum>(Sum(Col(L"AMOUNT", 1))))
            .From(Orders())
            .GroupBy({Col(L"REGION", 1)});
        if (summary != nullptr)
            block.Having(summary);
        return Bag(block.Build());
    };
    EXPECT_EQ(grouped(nullptr), (Rows{"'N'|11|1|14", "'S'|3|2|14", "NULL|NULL|3|14"}));
    EXPECT_EQ(
        grouped(Le(SortedBy(Aggr<RqExprAggrRank>(Sum(Col(L"AMOUNT", 1))), {{1, RqSortSpec::kDesc}}),
                   Int(1))),
        (Rows{"'N'|11|1|14"}));
    EXPECT_EQ(grouped(Gt(Sum(Col(L"AMOUNT", 1)), Int(5))), (Rows{"'N'|11|1|14"}));
}

TEST_F(SqlSemanticsTest, MedianAndStandardDeviation) {
    EXPECT_EQ(Bag(Block()
                      .Select(Col(L"REGION", 1))
                      .Select(Aggr<RqExprAggrMedian>(Col(L"AMOUNT", 1)))
                      .Select(Aggr<RqExprAggrStddev>(Col(L"AMOUNT", 1)))
                      .From(Orders())
                      .GroupBy({Col(L"REGION", 1)})
                      .Build()),
              (Rows{"'N'|4|1.52752523165195", "'S'|3|NULL", "NULL|NULL|NULL"}));
    // An even count takes the mean of the middle two; DISTINCT reads each value once.
    EXPECT_EQ(Bag(Block()
                      .Select(Aggr<RqExprAggrMedian>(Col(L"AMOUNT", 1)))
                      .Select(Aggr<RqExprAggrStddev>(Col(L"AMOUNT", 1)))
                      .Select(Aggr<RqExprAggrMedian>(Col(L"CUST_ID", 1)))
                      .Select(Distinct(Aggr<RqExprAggrMedian>(Col(L"CUST_ID", 1))))
                      .From(Orders())
                      .Build()),
              (Rows{"3.5|1.29099444873581|15|20"}));
}

}  // namespace
