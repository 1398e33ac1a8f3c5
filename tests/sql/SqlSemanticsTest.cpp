// What rendered requests return, on rows chosen by hand so that each construct's corner
// (NULL keys, rows without a partner, duplicates, ties, empty input) decides the result.

#include "SqlTestCatalog.h"

namespace {

using Rows = std::vector<std::string>;

#define FROM_ORDERS "from { " ORDERS_T1 "} "

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

    // A request's run on the rows above (or on no order at all), from the text of its list or
    // from its tree.
    SqlRunResult Run(RqHandleNode* tree, bool bNoOrders = false) const {
        Heap<RqHandleNode> owner(tree);
        return tree != nullptr
                   ? RunOn(*tree, bNoOrders ? std::vector<SqlRow>() : OrderRows(), CustomerRows())
                   : SqlRunResult();
    }
    SqlRunResult Run(const std::string& list, bool bNoOrders = false) const {
        return Run(Read("request { " + list + " }"), bNoOrders);
    }
    template <class Request>
    Rows Bag(const Request& request, bool bNoOrders = false) const {
        const SqlRunResult run = Run(request, bNoOrders);
        EXPECT_TRUE(run.m_bComparable) << run.m_reason << "\n" << run.m_sql;
        return SortedRows(run.m_rows);
    }
    Rows Sequence(const std::string& list) const {
        const SqlRunResult run = Run(list);
        EXPECT_TRUE(run.m_bComparable) << run.m_reason << "\n" << run.m_sql;
        return RowsInOrder(run.m_rows);
    }
    std::string WhyNotComparable(const std::string& list) const {
        const SqlRunResult run = Run(list);
        EXPECT_FALSE(run.m_bComparable) << run.m_sql;
        return run.m_reason;
    }
};

TEST_F(SqlSemanticsTest, JoinsKeepOrExtendUnmatchedRowsAndKeepTheirBracketing) {
    const Rows inner = {"1|10", "2|10", "3|20"};
    const Rows leftOnly = {"4|NULL", "5|NULL"};
    const Rows rightOnly = {"NULL|40", "NULL|NULL"};
    auto join = [&](const std::string& type) {
        return Bag("list { select { 0: t1.ORDER_ID 1: t2.CUST_ID } from { join " + type +
                   " { " ORDERS_T1 CUSTOMERS_T2 "on Eq(t1.CUST_ID, t2.CUST_ID) } } }");
    };
    auto sorted = [](const std::vector<Rows>& parts) {
        Rows all;
        for (const Rows& part : parts)
            all.insert(all.end(), part.begin(), part.end());
        std::sort(all.begin(), all.end());
        return all;
    };
    EXPECT_EQ(join("inner"), inner);
    EXPECT_EQ(join("left"), sorted({inner, leftOnly}));
    EXPECT_EQ(join("right"), sorted({inner, rightOnly}));
    EXPECT_EQ(join("full"), sorted({inner, leftOnly, rightOnly}));
    EXPECT_EQ(join("fullstitch"), sorted({inner, leftOnly, rightOnly}));
    const char* customerOrders = "join inner { " CUSTOMERS_T2
                                 "table Shop.dw.ORDERS t3 on "
                                 "Eq(t2.CUST_ID, t3.CUST_ID) } ";
    const char* customerOrRightOrders = "join right { " CUSTOMERS_T2
                                        "table Shop.dw.ORDERS t3 on "
                                        "Eq(t2.CUST_ID, t3.CUST_ID) } ";
    const std::pair<std::string, const char*> counts[] = {
        // Several FROM members are a cross product.
        {"from { " ORDERS_T1 CUSTOMERS_T2 "}", "20"},
        // Orders LEFT JOIN (customers JOIN their orders): 2 + 2 + 1 rows matched, 2 kept alone.
        {std::string("from { join left { " ORDERS_T1) + customerOrders +
             "on Eq(t1.CUST_ID, t2.CUST_ID) } }",
         "7"},
        // Orders times (customers RIGHT JOIN orders): the orders without a customer once per
        // row of the first table, not once in all; so too when the right join is nested.
        {std::string("from { " ORDERS_T1) + customerOrRightOrders + "}", "25"},
        {std::string("from { " ORDERS_T1 "join inner { ") + customerOrRightOrders +
             "table Shop.dw.ORDERS t4 on Eq(t3.ORDER_ID, t4.ORDER_ID) } }",
         "25"},
    };
    for (const auto& [from, count] : counts)
        EXPECT_EQ(Bag("list { select { 0: CountStar() } " + from + " }"), Rows{count}) << from;
}

// A by-list is a window partition over the detail rows; a NULL key is a partition too.
TEST_F(SqlSemanticsTest, ByListsPartitionTheDetailRows) {
    EXPECT_EQ(Bag("list { select { 0: t1.ORDER_ID 1: Sum(t1.AMOUNT, by=(t1.REGION)) 2: CountStar("
                  "by=()) } " FROM_ORDERS "}"),
              (Rows{"1|11|5", "2|3|5", "3|11|5", "4|11|5", "5|NULL|5"}));
    // Without a GROUP BY and without detail columns, the finest by-list is the grain.
    EXPECT_EQ(Bag("list { select { 0: Sum(t1.AMOUNT, by=(t1.REGION)) 1: Div(Sum(t1.AMOUNT, by=("
                  "t1.REGION)), Sum(t1.AMOUNT, by=())) } " FROM_ORDERS "}"),
              (Rows{"11|0.785714285714286", "3|0.214285714285714", "NULL|NULL"}));
    // In a grouped block, a coarser level is the same for every group it contains.
    EXPECT_EQ(Bag("list { select { 0: t1.REGION 1: t1.CUST_ID 2: CountStar() 3: CountStar(by=("
                  "t1.REGION)) } " FROM_ORDERS "groupby (t1.REGION, t1.CUST_ID) }"),
              (Rows{"'N'|10|1|3", "'N'|20|1|3", "'N'|NULL|1|3", "'S'|10|1|1", "NULL|30|1|1"}));
}

TEST_F(SqlSemanticsTest, AggregatesOfTheWholeInputAndDistinct) {
    EXPECT_EQ(Bag("list { select { 0: Count(t1.CUST_ID, distinct) 1: Count(t1.CUST_ID) 2: "
                  "Avg(t1.AMOUNT) 3: Sum(t1.CUST_ID, distinct) } " FROM_ORDERS "}"),
              (Rows{"3|4|3.5|60"}));
    // The grand total has one row even over no rows; a grouping has none.
    EXPECT_EQ(Bag("list { select { 0: CountStar() 1: Sum(t1.AMOUNT) } " FROM_ORDERS "}", true),
              Rows{"0|NULL"});
    EXPECT_EQ(Bag("list { select { 0: CountStar() } " FROM_ORDERS "groupby (t1.REGION) }", true),
              Rows{});
    // An even count takes the mean of the middle two; DISTINCT reads each value once.
    EXPECT_EQ(Bag("list { select { 0: t1.REGION 1: AggrMedian(t1.AMOUNT) 2: AggrStddev(t1.AMOUNT) }"
                  " " FROM_ORDERS "groupby (t1.REGION) }"),
              (Rows{"'N'|4|1.52752523165195", "'S'|3|NULL", "NULL|NULL|NULL"}));
    EXPECT_EQ(Bag("list { select { 0: AggrMedian(t1.AMOUNT) 1: AggrMedian(t1.CUST_ID) 2: "
                  "AggrMedian(t1.CUST_ID, distinct) } " FROM_ORDERS "}"),
              (Rows{"3.5|15|20"}));
}

// A WHERE conjunct with an aggregate, the summary filter and HAVING all keep aggregated rows,
// after the aggregates are computed from the rows that pass the rest of WHERE.
TEST_F(SqlSemanticsTest, AggregateConditionsFilterAggregatedRows) {
    const std::string sumOver4 = "Gt(Sum(t1.AMOUNT), 4)";
    const std::string clauses[] = {
        "where And(Gt(t1.AMOUNT, 2), " + sumOver4 + ") groupby (t1.REGION)",
        "where Gt(t1.AMOUNT, 2) summary " + sumOver4 + " groupby (t1.REGION)",
        "where Gt(t1.AMOUNT, 2) groupby (t1.REGION) having " + sumOver4,
    };
    for (const std::string& clause : clauses)
        EXPECT_EQ(
            Bag("list { select { 0: t1.REGION 1: Sum(t1.AMOUNT) } " FROM_ORDERS + clause + " }"),
            Rows{"'N'|9"})
            << clause;
    // At the details level a summary condition filters rows by their windowed aggregates.
    EXPECT_EQ(Bag("list { select { 0: t1.ORDER_ID } " FROM_ORDERS
                  "summary Gt(t1.AMOUNT, Avg(t1.AMOUNT, by=())) }"),
              (Rows{"1", "3"}));
}

TEST_F(SqlSemanticsTest, BreakFilterTakesTheFirstRowInTheInnerOrder) {
    const std::string inner =
        "{ list { select { 0: t1.REGION 1: t1.AMOUNT } " FROM_ORDERS "orderby 1 desc } }";
    EXPECT_EQ(Sequence("breakfilter cols=(0) " + inner), (Rows{"'N'|5", "'S'|3", "NULL|NULL"}));
    EXPECT_EQ(Sequence("breakfilter limit=1 offset=1 cols=(0) " + inner), Rows{"'S'|3"});
    // Without an inner order the row kept is anyone's guess when the other columns differ.
    EXPECT_NE(WhyNotComparable("breakfilter cols=(0) { list { select { 0: t1.REGION 1: t1.AMOUNT "
                               "} " FROM_ORDERS "} }")
                  .find("break filter"),
              std::string::npos);
}

TEST_F(SqlSemanticsTest, SetOperationsCountRowsWithAllAndDeduplicateWithout) {
    const std::string members = "{ list { select { 0: t1.CUST_ID } " FROM_ORDERS
                                "} list { select { 0: t2.CUST_ID } from { " CUSTOMERS_T2 "} } ";
    EXPECT_EQ(Bag("union all " + members + "}").size(), 9u);
    EXPECT_EQ(Bag("union " + members + "}"), (Rows{"10", "20", "30", "40", "NULL"}));
    EXPECT_EQ(Bag("intersect " + members + "}"), (Rows{"10", "20", "NULL"}));
    EXPECT_EQ(Bag("intersect all " + members + "}"), (Rows{"10", "20", "NULL"}));
    EXPECT_EQ(Bag("except " + members + "}"), Rows{"30"});
    EXPECT_EQ(Bag("except all " + members + "}"), (Rows{"10", "30"}));
    // A chain subtracts each member's counts in turn.
    EXPECT_EQ(Bag("except all " + members +
                  "list { select { 0: t1.CUST_ID } " FROM_ORDERS "where Eq(t1.ORDER_ID, 1) } }"),
              Rows{"30"});
    // A shared list reads the rows of the list it names; a cache list those of its list.
    EXPECT_EQ(Bag("union { list @r { select { 0: t1.REGION } " FROM_ORDERS "} shared @r }"),
              (Rows{"'N'", "'S'", "NULL"}));
    EXPECT_EQ(Bag("union all { list { select { 0: t1.REGION } " FROM_ORDERS "} cachelist { list "
                  "{ select { 0: t1.REGION } " FROM_ORDERS "} } }")
                  .size(),
              10u);
}

TEST_F(SqlSemanticsTest, ConditionsAndSubqueriesInThreeValuedLogic) {
    EXPECT_EQ(Bag("list { select { 0: Div(7, 2) 1: Like(\"Ann\", \"ann\") 2: In(null, 1) } }"),
              Rows{"3.5|0|NULL"});
    // Quantified comparisons: the subquery holds 2 and NULL for ANY, 3 and 4 for ALL.
    auto quantified = [&](const std::string& kind, int low) {
        return Bag("list { select { 0: t1.ORDER_ID 1: " + kind +
                   "(t1.AMOUNT, Subquery(list { select "
                   "{ 0: t3.AMOUNT } from { table Shop.dw.ORDERS t3 } where Between(t3.ORDER_ID, " +
                   std::to_string(low) + ", " + std::to_string(low + 1) +
                   ") })) } " FROM_ORDERS "}");
    };
    EXPECT_EQ(quantified("CondAnyGreaterThan", 4), (Rows{"1|1", "2|1", "3|1", "4|NULL", "5|NULL"}));
    EXPECT_EQ(quantified("CondAllGreaterEqual", 2), (Rows{"1|1", "2|0", "3|1", "4|0", "5|NULL"}));
    // A correlated EXISTS reads the enclosing row.
    EXPECT_EQ(
        Bag("list { select { 0: t1.ORDER_ID } " FROM_ORDERS "where Exists(Subquery(list { "
            "select { 0: 1 } from { " CUSTOMERS_T2 "} where Eq(t2.CUST_ID, t1.CUST_ID) })) }"),
        (Rows{"1", "2", "3"}));
    // A scalar subquery with two rows has no value.
    EXPECT_NE(WhyNotComparable("list { select { 0: Subquery(list { select { 0: t3.AMOUNT } from { "
                               "table Shop.dw.ORDERS t3 } }) } }")
                  .find("more than one row"),
              std::string::npos);
}

TEST_F(SqlSemanticsTest, GroupedBlocksAndTheirSubqueries) {
    // A subquery that reads nothing of the block has one value for all its groups.
    EXPECT_EQ(Bag("list { select { 0: t1.REGION } " FROM_ORDERS "groupby (t1.REGION) having Gt(Sum("
                  "t1.AMOUNT), Subquery(list { select { 0: Avg(t3.AMOUNT) } from { table "
                  "Shop.dw.ORDERS t3 } })) }"),
              Rows{"'N'"});
    // A grouping on constants has one group when there are rows and none otherwise.
    const std::string constant = "list { select { 0: CountStar() } " FROM_ORDERS "groupby (1) }";
    EXPECT_EQ(Bag(constant), Rows{"5"});
    EXPECT_EQ(Bag(constant, true), Rows{});
    // A helper table of another level cannot see the enclosing block of a subquery.
    Heap<RqHandleNode> correlated(Read(
        "request { list { select { 0: t1.ORDER_ID } " FROM_ORDERS
        "where Exists(Subquery(list { "
        "select { 0: Sum(t3.AMOUNT, by=()) 1: t3.ORDER_ID } from { table Shop.dw.ORDERS t3 } where "
        "Eq(t3.CUST_ID, t1.CUST_ID) })) } }"));
    EXPECT_EQ(SqlRenderer::Render(*correlated, Rp()).m_problem, SqlProblem::kNotSupported);
}

// Grouping sets stack one grouping per set; a column a set leaves out is NULL in its rows, and
// GROUPING_ID says which columns those are. The empty set is the grand total.
TEST_F(SqlSemanticsTest, GroupingSetsStackTheirGroupings) {
    auto bySets = [&](const std::string& head, const std::string& select, const std::string& tail) {
        return WithGroupingSets(Read("request { list " + head + "{ select { " + select +
                                     " } " FROM_ORDERS "groupby (t1.REGION) " + tail + "} }"),
                                {{0}, {}});
    };
    const std::string ids = "0: t1.REGION 1: CountStar() 2: GroupingId(t1.REGION) 3: GroupingId()";
    EXPECT_EQ(Bag(bySets("", ids, "")),
              (Rows{"'N'|3|0|0", "'S'|1|0|0", "NULL|1|0|0", "NULL|5|1|1"}));
    EXPECT_EQ(Bag(bySets("", ids, "having Gt(CountStar(), 1) ")),
              (Rows{"'N'|3|0|0", "NULL|5|1|1"}));
    // Without an aggregate the grand total is still one row, even over no rows.
    EXPECT_EQ(Bag(bySets("", "0: t1.REGION", "")), (Rows{"'N'", "'S'", "NULL", "NULL"}));
    EXPECT_EQ(Bag(bySets("", "0: t1.REGION", ""), true), (Rows{"NULL"}));
    // DISTINCT, ORDER BY and the row limit apply to the stacked rows: counts 3, 1, 1 and 5.
    const SqlRunResult run = Run(bySets("distinct limit=2 ", "0: CountStar()", "orderby 0 desc "));
    EXPECT_EQ(RowsInOrder(run.m_rows), (Rows{"5", "3"})) << run.m_reason << run.m_sql;
}

TEST_F(SqlSemanticsTest, RowLimitAndOffsetAreComparableOnlyWhenTheOrderDecides) {
    auto limited = [](const std::string& head, const std::string& order) {
        return "list " + head + " { select { 0: t1.REGION 1: t1.AMOUNT } " FROM_ORDERS "orderby " +
               order + " }";
    };
    EXPECT_EQ(Sequence(limited("limit=2", "1 desc")), (Rows{"'N'|5", "'N'|4"}));
    // NULL first, then all three N rows: the tie lies inside the window, or is cut by its end
    // or by its start.
    EXPECT_EQ(Sequence(limited("limit=4", "0")).size(), 4u);
    EXPECT_EQ(Sequence(limited("offset=4", "0")), Rows{"'S'|3"});
    EXPECT_EQ(Sequence(limited("offset=3", "1")), (Rows{"'N'|4", "'N'|5"}));
    for (const char* head : {"limit=2", "offset=2", "offset=2 limit=5"})
        EXPECT_NE(WhyNotComparable(limited(head, "0")).find("partial order"), std::string::npos)
            << head;
    // A block reading an ordered derived table row for row pages through it in that order.
    EXPECT_EQ(Sequence("list limit=2 offset=1 { select { 0: @s.0 1: @s.1 } from { derived t4 { " +
                       limited("@s", "1 desc") + " } } where Ne(@s.0, \"S\") }"),
              (Rows{"'N'|4", "'N'|2"}));
    // The limit of an inner block decides the outer block's rows as well.
    EXPECT_NE(WhyNotComparable("list { select { 0: Sum(@s.1) } from { derived t4 { " +
                               limited("@s limit=3", "0") + " } } }")
                  .find("partial order"),
              std::string::npos);
    // DISTINCT keeps no order of the table it reads: the statement has none to follow.
    const SqlRunResult distinct = Run("list distinct { select { 0: @s.0 } from { derived t4 { " +
                                      limited("@s", "0 desc") + " } } }");
    EXPECT_TRUE(distinct.m_bComparable && distinct.m_order.empty()) << distinct.m_sql;
}

// Window aggregates run over the block's result rows: partitioned by their by-list, ordered by
// the projected columns their sort keys name (NULL is the smallest value).
TEST_F(SqlSemanticsTest, WindowAggregatesOverDetailRows) {
    // ORDER_ID, AMOUNT and one window by REGION, ordered by AMOUNT (column 1) descending.
    auto by = [&](const std::string& window) {
        return Bag("list { select { 0: t1.ORDER_ID 1: t1.AMOUNT 2: " + window +
                   " } " FROM_ORDERS "}");
    };
    const std::string region = ", by=(t1.REGION), sort=(1 desc))";
    EXPECT_EQ(by("Rank(t1.AMOUNT" + region),
              (Rows{"1|5|1", "2|3|1", "3|4|2", "4|2|3", "5|NULL|1"}));
    EXPECT_EQ(by("RowNum(none" + region), (Rows{"1|5|1", "2|3|1", "3|4|2", "4|2|3", "5|NULL|1"}));
    EXPECT_EQ(by("AggrPercentile(t1.AMOUNT" + region),
              (Rows{"1|5|0", "2|3|0", "3|4|0.5", "4|2|1", "5|NULL|0"}));
    EXPECT_EQ(by("AggrNtile(t1.AMOUNT, 2" + region),
              (Rows{"1|5|1", "2|3|1", "3|4|1", "4|2|2", "5|NULL|1"}));
    EXPECT_EQ(by("AggrRunningSum(t1.AMOUNT" + region),
              (Rows{"1|5|5", "2|3|3", "3|4|9", "4|2|11", "5|NULL|NULL"}));
    EXPECT_EQ(by("AggrRunningCount(t1.AMOUNT" + region),
              (Rows{"1|5|1", "2|3|1", "3|4|2", "4|2|3", "5|NULL|0"}));
    EXPECT_EQ(by("AggrRunningMax(t1.AMOUNT, by=(), sort=(1))"),
              (Rows{"1|5|5", "2|3|3", "3|4|4", "4|2|2", "5|NULL|NULL"}));
    // A window of two rows: the current one and the one before it.
    EXPECT_EQ(by("AggrMovingSum(t1.AMOUNT, 2" + region),
              (Rows{"1|5|5", "2|3|3", "3|4|9", "4|2|6", "5|NULL|NULL"}));
    // Report aggregates have no order; an absent by-list is the whole result.
    EXPECT_EQ(by("AggrReportSum(t1.AMOUNT, by=(t1.REGION))"),
              (Rows{"1|5|11", "2|3|3", "3|4|11", "4|2|11", "5|NULL|NULL"}));
    EXPECT_EQ(by("AggrReportCount(none)"), (Rows{"1|5|5", "2|3|5", "3|4|5", "4|2|5", "5|NULL|5"}));
}

// Ranks and running aggregates give rows tied on the sort keys one value; a row number, a
// moving window or a tile over such rows is not determined.
TEST_F(SqlSemanticsTest, WindowAggregatesOverTiedRows) {
    auto byCustomer = [](const std::string& window) {
        return "list { select { 0: t1.ORDER_ID 1: t1.CUST_ID 2: " + window + " } " FROM_ORDERS "}";
    };
    EXPECT_EQ(Bag(byCustomer("Rank(t1.CUST_ID, sort=(1))")),
              (Rows{"1|10|2", "2|10|2", "3|20|4", "4|NULL|1", "5|30|5"}));
    EXPECT_EQ(Bag(byCustomer("AggrRunningCount(none, sort=(1))")),
              (Rows{"1|10|3", "2|10|3", "3|20|4", "4|NULL|1", "5|30|5"}));
    for (const char* window : {"RowNum(none, sort=(1))", "AggrMovingSum(t1.AMOUNT, 3, sort=(1))"})
        EXPECT_NE(WhyNotComparable(byCustomer(window)).find("not determined"), std::string::npos);
    // A second key that separates the tied rows makes the order total.
    EXPECT_EQ(Bag(byCustomer("RowNum(none, sort=(1, 0 desc))")),
              (Rows{"1|10|3", "2|10|2", "3|20|4", "4|NULL|1", "5|30|5"}));
    // Ties in different partitions are no ties.
    EXPECT_EQ(Bag(byCustomer("RowNum(none, by=(t1.ORDER_ID), sort=(1))")),
              (Rows{"1|10|1", "2|10|1", "3|20|1", "4|NULL|1", "5|30|1"}));
}

// Over a grouped block, windows see one row per group; the summary conditions apply after
// every window was computed, so a report total still counts the groups they drop.
TEST_F(SqlSemanticsTest, WindowAggregatesOverGroups) {
    auto grouped = [&](const std::string& having) {
        return Bag(
            "list { select { 0: t1.REGION 1: Sum(t1.AMOUNT) 2: Rank(Sum(t1.AMOUNT), sort=(1 "
            "desc)) 3: AggrReportSum(Sum(t1.AMOUNT)) } " FROM_ORDERS "groupby (t1.REGION) " +
            having + "}");
    };
    EXPECT_EQ(grouped(""), (Rows{"'N'|11|1|14", "'S'|3|2|14", "NULL|NULL|3|14"}));
    EXPECT_EQ(grouped("having Le(Rank(Sum(t1.AMOUNT), sort=(1 desc)), 1) "), (Rows{"'N'|11|1|14"}));
    EXPECT_EQ(grouped("having Gt(Sum(t1.AMOUNT), 5) "), (Rows{"'N'|11|1|14"}));
}

}  // namespace
