// The differential check on generated data: wrong rewrites are caught, equivalent ones pass,
// and what cannot be compared is said so, never passed.

#include <chrono>
#include <functional>

#include "SqlTestCatalog.h"

namespace {

using namespace rqb;
using rqb::Ref;

class SqlCheckTest : public SqlTestCatalog {
protected:
    SqlCheckOutcome Check(const RqNode& before, const RqNode& after, uint64_t seed,
                          uint32_t rows = 300) const {
        SqlCheckOptions options;
        options.m_seed = seed;
        options.m_rows = rows;
        return SqlCheck::Compare(before, after, Rp(), options);
    }

    RqList* OrdersJoinCustomers(SqlTableRef::JoinType type) const {
        return Block()
            .Select(Col(L"ORDER_ID", 1))
            .Select(Col(L"NAME", 2))
            .Join(type, Orders(), Customers(), Eq(Col(L"CUST_ID", 1), Col(L"CUST_ID", 2)))
            .Build();
    }
};

struct Rewrite {
    const char* m_name;
    RqNode* m_pBefore;
    RqNode* m_pAfter;
};

TEST_F(SqlCheckTest, WrongRewritesAreDifferent) {
    RqList* filtered = Block()
                           .Select(Col(L"ORDER_ID", 1))
                           .Select(Col(L"AMOUNT", 1))
                           .From(Orders())
                           .Where(Gt(Col(L"AMOUNT", 1), Int(2)))
                           .Build();
    RqList* unfiltered = static_cast<RqList*>(filtered->DeepCopy(false));
    unfiltered->SetDetailFilter(nullptr);
    RqList* distinct = Block().Select(Col(L"REGION", 1)).From(Orders()).Distinct().Build();
    RqList* repeated = static_cast<RqList*>(distinct->DeepCopy(false));
    repeated->SetDistinct(false);
    RqList* descending = Block()
                             .Select(Col(L"ORDER_ID", 1))
                             .From(Orders())
                             .OrderBy({{0, RqSortSpec::kDesc}})
                             .Build();
    RqList* ascending = static_cast<RqList*>(descending->DeepCopy(false));
    ascending->GetOrderBy()->GetIthSortSpec(0)->SetSortDirection(RqSortSpec::kAsc);
    RqList* ofRegion = Block()
                           .Select(Col(L"REGION", 1))
                           .Select(Sum(Col(L"AMOUNT", 1), By({})))
                           .From(Orders())
                           .GroupBy({Col(L"REGION", 1)})
                           .Build();
    RqList* lostBy = static_cast<RqList*>(ofRegion->DeepCopy(false));
    static_cast<RqExprAggr*>(lostBy->GetProjection()->GetIthColumn(1)->GetExpr())
        ->SetByList(nullptr);
    // A block that reads one derived table row for row keeps its order.
    RqList* sorted = Block().Select(Col(L"CUST_ID", 1)).From(Orders()).OrderBy({{0}}).Build();
    RqExpr* sortedID = Ref(*sorted, 0);
    RqList* rowForRow = Block().Select(sortedID).From(Derived(sorted, 3)).Build();
    RqList* unordered = static_cast<RqList*>(rowForRow->DeepCopy(false));
    static_cast<RqList*>(static_cast<RqDerivedTable*>(
                             unordered->GetJoinSpec()->GetIthTableReference(0)->GetLeftNode())
                             ->GetInnerList())
        ->SetOrderBy(nullptr);
    const Rewrite rewrites[] = {
        {"dropped filter", filtered, unfiltered},
        {"lost inherited order", rowForRow, unordered},
        {"lost DISTINCT", distinct, repeated},
        {"changed join type", OrdersJoinCustomers(SqlTableRef::kLeftOuterJoin),
         OrdersJoinCustomers(SqlTableRef::kInnerJoin)},
        {"reversed order", descending, ascending},
        {"lost by-list", ofRegion, lostBy},
    };
    for (const Rewrite& rewrite : rewrites) {
        Heap<RqNode> before(rewrite.m_pBefore);
        Heap<RqNode> after(rewrite.m_pAfter);
        for (uint64_t seed : {1, 2, 3}) {
            const SqlCheckOutcome outcome = Check(*before, *after, seed);
            EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kDifferent) << rewrite.m_name << "\n"
                                                                   << outcome.Report();
        }
    }
    // The report shows what differs and both statements.
    Heap<RqNode> before(OrdersJoinCustomers(SqlTableRef::kLeftOuterJoin));
    Heap<RqNode> after(OrdersJoinCustomers(SqlTableRef::kInnerJoin));
    const std::string report = Check(*before, *after, 1).Report();
    for (const char* part :
         {"different (seed 1, 300 rows per table)", "rows only in the original (",
          "rows only in the rewritten request: none", "LEFT JOIN", "\n      JOIN"})
        EXPECT_NE(report.find(part), std::string::npos) << part << "\n" << report;
}

// Mistakes a plausible rule would make, each built as the correct tree (false) and the wrong
// one (true): the default data and two other seeds must tell every pair apart, so the data
// must hold NULLs in nullable columns, duplicates, rows without a partner and empty input.
TEST_F(SqlCheckTest, WrongRewritesOfRulesAreCaughtOnEverySeed) {
    auto custJoin = [&] { return Eq(Col(L"CUST_ID", 1), Col(L"CUST_ID", 2)); };
    auto byRegion = [&](RqExpr* measure) {
        return Block()
            .Select(Col(L"REGION", 1))
            .Select(measure)
            .From(Orders())
            .GroupBy({Col(L"REGION", 1)})
            .Build();
    };
    auto regionsAndNames = [&] {
        return std::pair{Block().Select(Col(L"REGION", 1)).From(Orders()).Build(),
                         Block().Select(Col(L"NAME", 2)).From(Customers()).Build()};
    };
    const std::pair<const char*, std::function<RqNode*(bool)>> cases[] = {
        {"inner join made left outer",
         [&](bool bWrong) {
             return OrdersJoinCustomers(bWrong ? SqlTableRef::kLeftOuterJoin
                                               : SqlTableRef::kInnerJoin);
         }},
        {"left outer join made right outer",
         [&](bool bWrong) {
             return OrdersJoinCustomers(bWrong ? SqlTableRef::kRightOuterJoin
                                               : SqlTableRef::kLeftOuterJoin);
         }},
        {"filter pushed onto the null-supplying side",
         [&](bool bWrong) {
             RqExpr* named = Eq(Col(L"NAME", 2), Str(L"alpha"));
             Block block;
             block.Select(Col(L"ORDER_ID", 1)).Select(Col(L"NAME", 2));
             block.Join(SqlTableRef::kLeftOuterJoin, Orders(), Customers(),
                        bWrong ? And(custJoin(), named) : custJoin());
             if (!bWrong)
                 block.Where(named);
             return block.Build();
         }},
        {"COUNT(x) made COUNT(*)",
         [&](bool bWrong) {
             return byRegion(bWrong ? static_cast<RqExpr*>(CountStar()) : Count(Col(L"AMOUNT", 1)));
         }},
        {"AVG made SUM / COUNT(*)",
         [&](bool bWrong) {
             return byRegion(bWrong ? Div(Sum(Col(L"AMOUNT", 1)), CountStar())
                                    : static_cast<RqExpr*>(Avg(Col(L"AMOUNT", 1))));
         }},
        {"COUNT(DISTINCT x) made COUNT(x)",
         [&](bool bWrong) {
             return byRegion(bWrong ? Count(Col(L"CUST_ID", 1))
                                    : Distinct(Count(Col(L"CUST_ID", 1))));
         }},
        {"SUM(x) of only NULLs made SUM(IFNULL(x, 0))",
         [&](bool bWrong) {
             RqExpr* amount = Col(L"AMOUNT", 1);
             if (bWrong)
                 amount = RQ_NEW RqExprIfNull({amount, Int(0)});
             return Block()
                 .Select(Col(L"CUST_ID", 1))
                 .Select(Sum(amount))
                 .From(Orders())
                 .GroupBy({Col(L"CUST_ID", 1)})
                 .Build();
         }},
        {"COUNT(*) of no rows made SUM(1)",
         [&](bool bWrong) {
             return Block()
                 .Select(bWrong ? static_cast<RqExpr*>(Sum(Int(1))) : CountStar())
                 .From(Orders())
                 .Where(Eq(Int(1), Int(0)))
                 .Build();
         }},
        {"GROUP BY column dropped",
         [&](bool bWrong) {
             Block block;
             block.Select(Col(L"REGION", 1)).Select(Sum(Col(L"AMOUNT", 1))).From(Orders());
             if (bWrong)
                 block.GroupBy({Col(L"REGION", 1)});
             else
                 block.GroupBy({Col(L"REGION", 1), Col(L"CUST_ID", 1)});
             return block.Build();
         }},
        {"HAVING on an aggregate turned into a row filter",
         [&](bool bWrong) {
             Block block;
             block.Select(Col(L"REGION", 1)).Select(Sum(Col(L"AMOUNT", 1))).From(Orders());
             block.GroupBy({Col(L"REGION", 1)});
             if (bWrong)
                 block.Where(Gt(Col(L"AMOUNT", 1), Float(5)));
             else
                 block.Having(Gt(Max(Col(L"AMOUNT", 1)), Float(5)));
             return block.Build();
         }},
        {"UNION ALL made UNION",
         [&](bool bWrong) {
             auto [regions, names] = regionsAndNames();
             return Union({regions, names}, !bWrong);
         }},
        {"EXCEPT made EXCEPT ALL",
         [&](bool bWrong) {
             auto [regions, names] = regionsAndNames();
             return Except({regions, names}, bWrong);
         }},
        {"INTERSECT ALL made INTERSECT",
         [&](bool bWrong) {
             auto [regions, names] = regionsAndNames();
             return Intersect({regions, names}, !bWrong);
         }},
        {"NOT IN made NOT EXISTS",
         [&](bool bWrong) {
             RqList* ordered = Block().Select(Col(L"CUST_ID", 1)).From(Orders()).Build();
             if (bWrong)
                 ordered->SetDetailFilter(RQ_NEW RqDetailFilter(custJoin()));
             RqExpr* cond = bWrong ? static_cast<RqExpr*>(Exists(ordered))
                                   : In(Col(L"CUST_ID", 2), {Subquery(ordered)});
             return Block().Select(Col(L"CUST_ID", 2)).From(Customers()).Where(Not(cond)).Build();
         }},
        {"row offset dropped",
         [&](bool bWrong) {
             return Block()
                 .Select(Col(L"ORDER_ID", 1))
                 .From(Orders())
                 .OrderBy({{0}})
                 .Offset(bWrong ? 0 : 3)
                 .Limit(5)
                 .Build();
         }},
    };
    for (const auto& [name, make] : cases) {
        Heap<RqNode> before(make(false));
        Heap<RqNode> after(make(true));
        for (uint64_t seed : {1, 2, 3}) {
            const SqlCheckOutcome outcome = Check(*before, *after, seed, 1000);
            EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kDifferent) << name << "\n"
                                                                   << outcome.Report();
        }
    }
}

// Rewrites of the kind the rules make: each pair means the same rows.
TEST_F(SqlCheckTest, EquivalentRewritesAreSame) {
    // AVG as SUM / COUNT, which agrees only within the tolerance.
    RqList* average = Block()
                          .Select(Col(L"REGION", 1))
                          .Select(Avg(Col(L"AMOUNT", 1)))
                          .From(Orders())
                          .GroupBy({Col(L"REGION", 1)})
                          .Build();
    RqList* quotient = Block()
                           .Select(Col(L"REGION", 1))
                           .Select(Div(Sum(Col(L"AMOUNT", 1)), Count(Col(L"AMOUNT", 1))))
                           .From(Orders())
                           .GroupBy({Col(L"REGION", 1)})
                           .Build();
    // A GROUP BY turned into DISTINCT over aggregates with the grouping as their by-list.
    RqList* grouped = Block()
                          .Select(Col(L"REGION", 1))
                          .Select(Sum(Col(L"AMOUNT", 1)))
                          .Select(Distinct(Count(Col(L"CUST_ID", 1))))
                          .From(Orders())
                          .GroupBy({Col(L"REGION", 1)})
                          .Build();
    RqList* windowed = Block()
                           .Select(Col(L"REGION", 1))
                           .Select(Sum(Col(L"AMOUNT", 1), By({Col(L"REGION", 1)})))
                           .Select(Distinct(Count(Col(L"CUST_ID", 1), By({Col(L"REGION", 1)}))))
                           .From(Orders())
                           .Distinct()
                           .Build();
    // A summary filter turned into the WHERE of an outer block over the aggregated rows.
    RqList* summary = Block()
                          .Select(Col(L"REGION", 1))
                          .Select(Sum(Col(L"AMOUNT", 1)))
                          .From(Orders())
                          .GroupBy({Col(L"REGION", 1)})
                          .SummaryFilter(Gt(Sum(Col(L"AMOUNT", 1)), Int(150)))
                          .Build();
    RqList* inner = Block()
                        .Select(Col(L"REGION", 1))
                        .Select(Sum(Col(L"AMOUNT", 1)))
                        .From(Orders())
                        .GroupBy({Col(L"REGION", 1)})
                        .Build();
    RqExpr* region = Ref(*inner, 0);
    RqExpr* total = Ref(*inner, 1);
    RqExpr* filterTotal = Ref(*inner, 1);
    RqList* outer = Block()
                        .Select(region)
                        .Select(total)
                        .From(Derived(inner, 3))
                        .Where(Gt(filterTotal, Int(150)))
                        .Build();
    // An ORDER BY inside a joined derived table orders nothing.
    auto joinedOrders = [&](bool bSorted) {
        Block inner;
        inner.Select(Col(L"CUST_ID", 1)).From(Orders());
        if (bSorted)
            inner.OrderBy({{0}});
        RqList* list = inner.Build();
        RqExpr* id = Ref(*list, 0);
        RqExpr* joinID = Ref(*list, 0);
        return Block()
            .Select(id)
            .Join(SqlTableRef::kInnerJoin, Derived(list, 3), Customers(),
                  Eq(joinID, Col(L"CUST_ID", 2)))
            .Build();
    };
    // A constant factor out of a sum: equal in exact arithmetic, not in rounding.
    RqList* sumOfTenths = Block()
                              .Select(Col(L"REGION", 1))
                              .Select(Sum(Mul(Col(L"AMOUNT", 1), Float(0.1))))
                              .From(Orders())
                              .GroupBy({Col(L"REGION", 1)})
                              .Build();
    RqList* tenthOfSum = Block()
                             .Select(Col(L"REGION", 1))
                             .Select(Mul(Sum(Col(L"AMOUNT", 1)), Float(0.1)))
                             .From(Orders())
                             .GroupBy({Col(L"REGION", 1)})
                             .Build();
    // A finer order is one of the orders a case-insensitive sort allows.
    RqList* caseless = Block()
                           .Select(Col(L"REGION", 1))
                           .Select(Col(L"ORDER_ID", 1))
                           .From(Orders())
                           .OrderBy({{0}})
                           .Build();
    caseless->GetOrderBy()->GetIthSortSpec(0)->SetCaseInsensitive(true);
    RqList* finer = static_cast<RqList*>(caseless->DeepCopy(false));
    finer->GetOrderBy()->AppendSortSpec(RQ_NEW RqSortSpec(
        finer->GetProjection()->GetIthColumn(1)->GetColumnNum(), RqSortSpec::kDesc));
    const Rewrite rewrites[] = {
        {"average", average, quotient},
        {"finer order", caseless, finer},
        {"constant factor", sumOfTenths, tenthOfSum},
        {"local aggregation", grouped, windowed},
        {"summary filter", summary, outer},
        {"inner order under a join", joinedOrders(true), joinedOrders(false)},
    };
    for (const Rewrite& rewrite : rewrites) {
        Heap<RqNode> before(rewrite.m_pBefore);
        Heap<RqNode> after(rewrite.m_pAfter);
        for (uint64_t seed : {1, 2, 3, 4}) {
            const SqlCheckOutcome outcome = Check(*before, *after, seed);
            EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kSame) << rewrite.m_name << "\n"
                                                              << outcome.Report();
        }
    }
}

TEST_F(SqlCheckTest, WhatCannotBeComparedIsNeverSame) {
    Heap<RqNode> plain(Block().Select(Col(L"AMOUNT", 1)).From(Orders()).Build());
    Heap<RqNode> cube(
        Block().Select(RQ_NEW RqAttribute(VoidID(7, 1), L"Year")).From(Orders()).Build());
    SqlCheckOutcome outcome = Check(*plain, *cube, 1);
    EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kNotComparable);
    EXPECT_EQ(
        outcome.m_reason.find("the rewritten request: no SQL meaning at RqList/RqProjection[0]"),
        0u)
        << outcome.m_reason;
    // Few distinct regions among many rows: a limit of 3 in region order cuts through a tie.
    Heap<RqNode> limited(Block()
                             .Select(Col(L"REGION", 1))
                             .Select(Col(L"ORDER_ID", 1))
                             .From(Orders())
                             .OrderBy({{0}})
                             .Limit(3)
                             .Build());
    outcome = Check(*limited, *limited, 1);
    EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kNotComparable);
    EXPECT_EQ(outcome.m_reason.find("the original request: not determined: a row limit"), 0u)
        << outcome.m_reason;
}

TEST_F(SqlCheckTest, GeneratedDataIsDeterministicAndAwkward) {
    SqlDataGenerator first(*m_pRepository, SqlDataOptions{7, 400});
    SqlDataGenerator same(*m_pRepository, SqlDataOptions{7, 400});
    SqlDataGenerator other(*m_pRepository, SqlDataOptions{8, 400});
    const std::vector<SqlRow> rows = first.MakeRows(*m_orders);
    auto text = [](const std::vector<SqlRow>& list) {
        std::string out;
        for (const SqlRow& row : list)
            for (const SqlValue& value : row)
                out += value.ToString() + ",";
        return out;
    };
    EXPECT_EQ(text(rows), text(same.MakeRows(*m_orders)));
    EXPECT_NE(text(rows), text(other.MakeRows(*m_orders)));

    // Declared keys hold; the other join columns repeat, miss partners and hold NULLs.
    std::set<int64_t> orderIDs;
    std::map<int64_t, int> custIDs;
    std::vector<int> nulls(4, 0);
    for (const SqlRow& row : rows) {
        for (size_t c = 0; c < row.size(); ++c)
            nulls[c] += row[c].IsNull() ? 1 : 0;
        EXPECT_TRUE(orderIDs.insert(row[0].m_int).second) << row[0].ToString();
        if (!row[1].IsNull())
            ++custIDs[row[1].m_int];
    }
    ASSERT_GE(rows.size(), 100u);
    EXPECT_EQ(nulls[0], 0);
    EXPECT_TRUE(std::all_of(nulls.begin() + 1, nulls.end(), [](int n) { return n > 0; }));
    EXPECT_TRUE(
        std::any_of(custIDs.begin(), custIDs.end(), [](const auto& k) { return k.second > 1; }));
    EXPECT_TRUE(
        std::any_of(custIDs.begin(), custIDs.end(), [](const auto& k) { return k.first > 1000; }));
    RefATable lines = m_pRepository->AddTable(m_orders->GetDatabase(), L"dw", L"LINES");
    RefAColumn order = m_pRepository->AddColumn(lines, L"ORDER_ID", kColumnKind_Plain, L"INTEGER");
    RefAColumn line = m_pRepository->AddColumn(lines, L"LINE_NO", kColumnKind_Plain, L"SMALLINT");
    m_pRepository->AddKey(lines, L"PK_LINES", {order, line});
    std::set<std::pair<int64_t, int64_t>> pairs;
    for (const SqlRow& row :
         SqlDataGenerator(*m_pRepository, SqlDataOptions{7, 400}).MakeRows(*lines)) {
        EXPECT_FALSE(row[0].IsNull() || row[1].IsNull());
        EXPECT_TRUE(pairs.emplace(row[0].m_int, row[1].m_int).second);
    }
    EXPECT_GT(pairs.size(), 100u);
    // Over many seeds some tables are empty and some hold a single row.
    std::set<uint32_t> counts;
    for (uint64_t seed = 1; seed <= 60; ++seed)
        counts.insert(
            SqlDataGenerator(*m_pRepository, SqlDataOptions{seed, 400}).RowCount(*m_customers));
    EXPECT_TRUE(counts.count(0) && counts.count(1) && counts.count(400)) << counts.size();

    EXPECT_EQ(
        SqlDataGenerator::CreateStatement(*m_customers),
        "CREATE TABLE \"Shop.CUSTOMERS\" (\"CUST_ID\" INTEGER, \"NAME\" TEXT, \"SINCE\" TEXT)");
    EXPECT_EQ(SqlDataGenerator::KindOf(L"decimal(10,2)"), SqlDataGenerator::kReal);
    EXPECT_EQ(SqlDataGenerator::KindOf(L"TIMESTAMP"), SqlDataGenerator::kTimestamp);
    EXPECT_EQ(SqlDataGenerator::KindOf(L"BIGINT"), SqlDataGenerator::kInteger);
    EXPECT_EQ(SqlDataGenerator::KindOf(L"char(3)"), SqlDataGenerator::kText);
}

TEST_F(SqlCheckTest, ThousandsOfRowsCheckWellUnderASecond) {
    RqList* detail = OrdersJoinCustomers(SqlTableRef::kFullOuterJoin);
    RqExpr* name = Ref(*detail, 1);
    RqExpr* groupName = Ref(*detail, 1);
    RqExpr* id = Ref(*detail, 0);
    RqExpr* all = Ref(*detail, 0);
    Heap<RqNode> request(Block()
                             .Select(name)
                             .Select(Count(id))
                             .Select(Count(all, By({})))
                             .From(Derived(detail, 3))
                             .GroupBy({groupName})
                             .Build());
    const auto start = std::chrono::steady_clock::now();
    const SqlCheckOutcome outcome = Check(*request, *request, 5, 3000);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kSame) << outcome.Report();
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 1000);
}

}  // namespace
