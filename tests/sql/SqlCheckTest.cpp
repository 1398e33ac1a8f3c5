// The differential check: how two results are compared, wrong rewrites caught on generated
// data, equivalent ones passed, and what cannot be compared said so, never passed.

#include <chrono>

#include "SqlTestCatalog.h"

namespace {

class SqlCheckTest : public SqlTestCatalog {
protected:
    // REGION, CUST_ID, SUM(AMOUNT) and GROUPING_ID() of the orders, grouped by the given sets
    // of positions in (REGION, CUST_ID). The text format does not write grouping sets yet.
    RqHandleNode* GroupingSets(const std::vector<UInt16Vector>& sets) const {
        RqHandleNode* request = Read(
            "request { list { select { 0: t1.REGION 1: t1.CUST_ID 2: Sum(t1.AMOUNT) 3: "
            "GroupingId() } from { table Shop.dw.ORDERS t1 } groupby (t1.REGION, t1.CUST_ID) } }");
        for (const UInt16Vector& set : sets)
            RqCast<RqList>(request->GetRqNode())->GetGroupBy()->AddGroupingSet(set);
        return request;
    }

    SqlCheckOutcome Check(const RqNode& before, const RqNode& after, uint64_t seed,
                          uint32_t rows = 1000) const {
        SqlCheckOptions options;
        options.m_seed = seed;
        options.m_rows = rows;
        return SqlCheck::Compare(before, after, Rp(), options);
    }
};

// ---- The comparison of two results -------------------------------------------------------

SqlRunResult Result(std::vector<SqlRow> rows, std::vector<SqlSortKey> order = {}) {
    SqlRunResult result;
    result.m_bComparable = true;
    result.m_rows.m_columnNames.assign(rows.empty() ? 2 : rows[0].size(), "c");
    result.m_rows.m_rows = std::move(rows);
    result.m_order = std::move(order);
    return result;
}

TEST_F(SqlCheckTest, ResultsCompareAsBagsOrAsSequencesOfTiedGroups) {
    const SqlValue a = T("a");
    const std::vector<SqlSortKey> byFirst = {SqlSortKey{0}};
    SqlSortKey caseless{0};
    caseless.m_bCaseInsensitive = true;
    const struct {
        const char* m_name;
        SqlRunResult m_before;
        SqlRunResult m_after;
        SqlCheckOutcome::Kind m_kind;
    } cases[] = {
        {"bag in another order", Result({{I(1), a}, {I(2), N()}}), Result({{I(2), N()}, {I(1), a}}),
         SqlCheckOutcome::kSame},
        {"bag with a row twice", Result({{I(1), a}, {I(1), a}}), Result({{I(1), a}}),
         SqlCheckOutcome::kDifferent},
        {"tied rows in another order", Result({{I(1), a}, {I(1), N()}, {I(2), a}}, byFirst),
         Result({{I(1), N()}, {I(1), a}, {I(2), a}}), SqlCheckOutcome::kSame},
        {"groups in another order", Result({{I(1), a}, {I(2), a}}, byFirst),
         Result({{I(2), a}, {I(1), a}}), SqlCheckOutcome::kDifferent},
        {"a row appended at the end", Result({{I(1), a}, {I(2), a}}, byFirst),
         Result({{I(1), a}, {I(2), a}, {I(3), a}}), SqlCheckOutcome::kDifferent},
        {"the last group dropped", Result({{I(1), a}, {I(2), a}}, byFirst), Result({{I(1), a}}),
         SqlCheckOutcome::kDifferent},
        {"a caseless key ties letter cases", Result({{T("a"), I(1)}, {T("A"), I(2)}}, {caseless}),
         Result({{T("A"), I(2)}, {T("a"), I(1)}}), SqlCheckOutcome::kSame},
        {"an integer and its real", Result({{I(3), R(0.1 + 0.2)}}), Result({{R(3), R(0.3)}}),
         SqlCheckOutcome::kSame},
        {"numbers beyond the tolerance", Result({{I(1), a}}), Result({{R(1.001), a}}),
         SqlCheckOutcome::kDifferent},
        {"a number and its text", Result({{I(1), a}}), Result({{T("1"), a}}),
         SqlCheckOutcome::kDifferent},
        {"NULL and zero", Result({{N(), a}}), Result({{I(0), a}}), SqlCheckOutcome::kDifferent},
        {"another number of columns", Result({{I(1), a}}), Result({{I(1)}}),
         SqlCheckOutcome::kDifferent},
        {"nothing to compare", Result({}), SqlRunResult(), SqlCheckOutcome::kNotComparable},
    };
    SqlCheckSession session(Rp(), SqlCheckOptions());
    for (const auto& c : cases) {
        EXPECT_EQ(session.Compare(c.m_before, c.m_after).m_kind, c.m_kind) << c.m_name;
        // A comparison is symmetric in its verdict, whichever side holds the order.
        SqlRunResult after = c.m_after;
        after.m_order = c.m_before.m_order;
        EXPECT_EQ(session.Compare(after, c.m_before).m_kind, c.m_kind) << c.m_name << " reversed";
    }
}

// ---- Rewrites on generated data ------------------------------------------------------------

// A rewrite as one request text with the changed parts written [[original|rewritten]].
struct Rewrite {
    const char* m_name;
    const char* m_text;
};

std::string Side(const std::string& text, bool bRewritten) {
    std::string out;
    size_t at = 0;
    for (size_t open; (open = text.find("[[", at)) != std::string::npos;) {
        const size_t bar = text.find('|', open);
        const size_t close = text.find("]]", bar);
        out += text.substr(at, open - at);
        out += bRewritten ? text.substr(bar + 1, close - bar - 1)
                          : text.substr(open + 2, bar - open - 2);
        at = close + 2;
    }
    return out + text.substr(at);
}

#define ORDERS "table Shop.dw.ORDERS t1 "
#define CUSTOMERS "table Shop.CUSTOMERS t2 "
#define CUST_JOIN "on Eq(t1.CUST_ID, t2.CUST_ID) "
#define REGIONS "list { select { 0: t1.REGION } from { " ORDERS "} } "
#define NAMES "list { select { 0: t2.NAME } from { " CUSTOMERS "} } "
#define ALPHA "list { select { 0: t2.NAME } from { " CUSTOMERS "} where Eq(t2.NAME, \"alpha\") } "

// Mistakes a plausible rule would make, and mistakes of the check itself (an appended row, an
// offset that keeps nothing, a lost parenthesis, a join associated otherwise): each must be
// told apart on every seed, so the data must hold NULLs in nullable columns, duplicates, rows
// without a partner and empty input.
const Rewrite kWrongRewrites[] = {
    {"dropped filter", "list { select { 0: t1.ORDER_ID 1: t1.AMOUNT } from { " ORDERS
                       "} [[where Gt(t1.AMOUNT, 2)|]] }"},
    {"lost DISTINCT", "list [[distinct|]] { select { 0: t1.REGION } from { " ORDERS "} }"},
    {"lost DISTINCT inside a derived table",
     "list { select { 0: CountStar() } from { derived t3 { list [[distinct|]] { select { 0: "
     "t1.REGION } from { " ORDERS "} } } } }"},
    {"lost inherited order",
     "list { select { 0: @s.0 } from { derived t3 { list @s { select { "
     "0: t1.CUST_ID } from { " ORDERS "} [[orderby 0|]] } } } }"},
    {"reversed order", "list { select { 0: t1.ORDER_ID } from { " ORDERS "} orderby 0[[ desc|]] }"},
    {"NULLs moved to the other end",
     "list { select { 0: t1.CUST_ID } from { " ORDERS "} orderby 0 desc nulls=[[first|last]] }"},
    {"a caseless order made case-sensitive",
     "list { select { 0: t1.REGION } from { " ORDERS "} orderby 0[[ nocase|]] }"},
    {"NULLs moved to the other end, ascending",
     "list { select { 0: t1.CUST_ID } from { " ORDERS "} orderby 0 nulls=[[last|first]] }"},
    {"rows appended at the end of an ordered result",
     "list { select { 0: t1.ORDER_ID } from { " ORDERS
     "} [[where Lt(t1.ORDER_ID, 300)|]] orderby 0 }"},
    {"row offset dropped",
     "list [[offset=3 |]]limit=5 { select { 0: t1.ORDER_ID } from { " ORDERS "} orderby 0 }"},
    {"row offset without a limit changed",
     "list offset=[[3|4]] { select { 0: t1.ORDER_ID } from { " ORDERS "} orderby 0 }"},
    {"inner join made left outer",
     "list { select { 0: t1.ORDER_ID 1: t2.NAME } from { join "
     "[[inner|left]] { " ORDERS CUSTOMERS CUST_JOIN "} } }"},
    {"left outer join made right outer",
     "list { select { 0: t1.ORDER_ID 1: t2.NAME } from { join "
     "[[left|right]] { " ORDERS CUSTOMERS CUST_JOIN "} } }"},
    {"join associated otherwise",
     "list { select { 0: CountStar() } from { [[join left { " ORDERS "join inner { " CUSTOMERS
     "table Shop.dw.ORDERS t3 on Eq(t2.CUST_ID, t3.CUST_ID) } " CUST_JOIN "}|join inner { join "
     "left { " ORDERS CUSTOMERS CUST_JOIN "} table Shop.dw.ORDERS t3 on Eq(t2.CUST_ID, "
     "t3.CUST_ID) }]] } }"},
    {"filter pushed onto the null-supplying side",
     "list { select { 0: t1.ORDER_ID 1: t2.NAME } from { join left { " ORDERS CUSTOMERS
     "on [[Eq(t1.CUST_ID, t2.CUST_ID) } } where Eq(t2.NAME, \"alpha\")|And(Eq(t1.CUST_ID, "
     "t2.CUST_ID), Eq(t2.NAME, \"alpha\")) } }]] }"},
    {"lost parentheses", "list { select { 0: t1.ORDER_ID } from { " ORDERS "} where [[Not(And(Gt("
                         "t1.AMOUNT, 2), Lt(t1.CUST_ID, 300)))|And(Not(Gt(t1.AMOUNT, 2)), "
                         "Lt(t1.CUST_ID, 300))]] }"},
    {"COUNT(x) made COUNT(*)",
     "list { select { 0: t1.REGION 1: [[Count(t1.AMOUNT)|CountStar()]] "
     "} from { " ORDERS "} groupby (t1.REGION) }"},
    {"AVG made SUM / COUNT(*)",
     "list { select { 0: t1.REGION 1: [[Avg(t1.AMOUNT)|Div(Sum("
     "t1.AMOUNT), CountStar())]] } from { " ORDERS "} groupby (t1.REGION) }"},
    {"COUNT(DISTINCT x) made COUNT(x)",
     "list { select { 0: t1.REGION 1: Count(t1.CUST_ID[[, "
     "distinct|]]) } from { " ORDERS "} groupby (t1.REGION) }"},
    {"SUM of only NULLs made a SUM of zeros",
     "list { select { 0: t1.CUST_ID 1: Sum([[t1.AMOUNT|"
     "IfNull(t1.AMOUNT, 0)]]) } from { " ORDERS "} groupby (t1.CUST_ID) }"},
    {"COUNT(*) of no rows made SUM(1)",
     "list { select { 0: [[CountStar()|Sum(1)]] } from { " ORDERS "} where Eq(1, 0) }"},
    {"GROUP BY column dropped", "list { select { 0: t1.REGION 1: Sum(t1.AMOUNT) } from { " ORDERS
                                "} groupby (t1.REGION[[, t1.CUST_ID|]]) }"},
    {"by-list dropped",
     "list { select { 0: t1.REGION 1: Sum(t1.AMOUNT[[, by=()|]]) } from { " ORDERS
     "} groupby (t1.REGION) }"},
    {"by-list changed",
     "list { select { 0: t1.ORDER_ID 1: Sum(t1.AMOUNT, by=([[t1.REGION|"
     "t1.CUST_ID]])) } from { " ORDERS "} }"},
    {"HAVING on an aggregate made a row filter",
     "list { select { 0: t1.REGION 1: Sum(t1.AMOUNT) } from { " ORDERS "} [[|where Gt(t1.AMOUNT, "
     "5.0) ]]groupby (t1.REGION) [[having Gt(Max(t1.AMOUNT), 5.0)|]] }"},
    {"UNION ALL made UNION", "union[[ all|]] { " REGIONS NAMES "}"},
    {"EXCEPT made EXCEPT ALL", "except[[| all]] { " REGIONS NAMES "}"},
    {"INTERSECT ALL made INTERSECT", "intersect[[ all|]] { " REGIONS NAMES "}"},
    {"EXCEPT members swapped", "except { [[" REGIONS ALPHA "|" ALPHA REGIONS "]]}"},
    {"NOT IN made NOT EXISTS",
     "list { select { 0: t2.CUST_ID } from { " CUSTOMERS "} where Not([[In(t2.CUST_ID, Subquery("
     "list { select { 0: t1.CUST_ID } from { " ORDERS "} }))|Exists(Subquery(list { select { 0: "
     "t1.CUST_ID } from { " ORDERS "} where Eq(t1.CUST_ID, t2.CUST_ID) }))]]) }"},
    {"correlation dropped",
     "list { select { 0: t2.NAME } from { " CUSTOMERS "} where Exists(Subquery("
     "list { select { 0: 1 } from { " ORDERS "} [[where Eq(t1.CUST_ID, "
     "t2.CUST_ID) |]]})) }"},
    {"ANY made ALL",
     "list { select { 0: t1.ORDER_ID } from { " ORDERS "} where CondA[[ny|ll]]Less"
     "Than(t1.CUST_ID, Subquery(list { select { 0: t2.CUST_ID } from { " CUSTOMERS "} })) }"},
    {"break column changed",
     "breakfilter cols=([[0|1]]) { list { select { 0: t1.REGION 1: "
     "t1.ORDER_ID } from { " ORDERS "} orderby 1 } }"},
    {"rank order reversed",
     "list { select { 0: t1.ORDER_ID 1: Rank(t1.ORDER_ID, sort=(0[[ "
     "desc|]])) } from { " ORDERS "} }"},
};

// Rewrites of the kind the rules make, and forms the renderer must keep apart: each pair means
// the same rows.
const Rewrite kEquivalentRewrites[] = {
    {"AVG as SUM / COUNT, equal within the tolerance",
     "list { select { 0: t1.REGION 1: [[Avg(t1.AMOUNT)|Div(Sum(t1.AMOUNT), Count(t1.AMOUNT))]] } "
     "from { " ORDERS "} groupby (t1.REGION) }"},
    {"a constant factor out of a sum",
     "list { select { 0: t1.REGION 1: [[Sum(Mul(t1.AMOUNT, 0.1))|"
     "Mul(Sum(t1.AMOUNT), 0.1)]] } from { " ORDERS "} groupby (t1.REGION) }"},
    {"a finer order than a caseless one",
     "list { select { 0: t1.REGION 1: t1.ORDER_ID } from { " ORDERS
     "} orderby 0 nocase[[|, 1 desc]] }"},
    {"a GROUP BY made DISTINCT over aggregates by the grouping",
     "list [[|distinct ]]{ select { 0: t1.REGION 1: Sum(t1.AMOUNT[[|, by=(t1.REGION)]]) 2: "
     "Count(t1.CUST_ID, [[|by=(t1.REGION), ]]distinct) } from { " ORDERS
     "} [[groupby (t1.REGION) |]]}"},
    {"a summary filter made the WHERE of an outer block",
     "[[list { select { 0: t1.REGION 1: Sum(t1.AMOUNT) } from { " ORDERS "} groupby (t1.REGION) "
     "summary Gt(Sum(t1.AMOUNT), 150) }|list { select { 0: @g.0 1: @g.1 } from { derived t3 { list "
     "@g { select { 0: t1.REGION 1: Sum(t1.AMOUNT) } from { " ORDERS "} groupby (t1.REGION) } } } "
     "where Gt(@g.1, 150) }]]"},
    {"an inner order under a join",
     "list { select { 0: @s.0 } from { join inner { derived t3 { list "
     "@s { select { 0: t1.CUST_ID } from { " ORDERS "} [[orderby 0|]] } } " CUSTOMERS
     "on Eq(@s.0, t2.CUST_ID) } } }"},
    {"an inner order under DISTINCT",
     "list distinct { select { 0: @s.0 } from { derived t3 { list @s "
     "{ select { 0: t1.REGION } from { " ORDERS "} [[orderby 0 desc|]] "
     "} } } }"},
    {"De Morgan",
     "list { select { 0: t1.ORDER_ID } from { " ORDERS "} where [[Not(And(Gt(t1.AMOUNT, 2),"
     " Lt(t1.CUST_ID, 300)))|Or(Not(Gt(t1.AMOUNT, 2)), Not(Lt(t1.CUST_ID, 300)))]] }"},
    {"cross product members swapped around a nested right join",
     "list { select { 0: CountStar() } from { [[table Shop.dw.ORDERS t4 |]]join inner { join right "
     "{ " CUSTOMERS ORDERS CUST_JOIN "} table Shop.dw.ORDERS t3 on Eq(t1.ORDER_ID, t3.ORDER_ID) } "
     "[[|table Shop.dw.ORDERS t4 ]]} }"},
};

TEST_F(SqlCheckTest, RewritesAreToldApartOnEverySeed) {
    auto check = [&](const Rewrite& rewrite, SqlCheckOutcome::Kind expected) {
        Heap<RqHandleNode> before(Read("request { " + Side(rewrite.m_text, false) + " }"));
        Heap<RqHandleNode> after(Read("request { " + Side(rewrite.m_text, true) + " }"));
        ASSERT_TRUE(before && after) << rewrite.m_name;
        for (uint64_t seed : {1, 2, 3}) {
            const SqlCheckOutcome outcome = Check(*before, *after, seed);
            EXPECT_EQ(outcome.m_kind, expected) << rewrite.m_name << "\n" << outcome.Report();
        }
    };
    for (const Rewrite& rewrite : kWrongRewrites)
        check(rewrite, SqlCheckOutcome::kDifferent);
    for (const Rewrite& rewrite : kEquivalentRewrites)
        check(rewrite, SqlCheckOutcome::kSame);
}

// The report shows what differs and both statements.
TEST_F(SqlCheckTest, ADifferenceIsReportedWithItsRowsAndStatements) {
    const std::string text =
        "list { select { 0: t1.ORDER_ID 1: t2.NAME } from { join [[left|inner]] "
        "{ " ORDERS CUSTOMERS CUST_JOIN "} } }";
    Heap<RqHandleNode> before(Read("request { " + Side(text, false) + " }"));
    Heap<RqHandleNode> after(Read("request { " + Side(text, true) + " }"));
    const std::string report = Check(*before, *after, 1, 300).Report();
    for (const char* part :
         {"different (seed 1, 300 rows per table)", "rows only in the original (",
          "rows only in the rewritten request: none", "LEFT JOIN", "\n      JOIN"})
        EXPECT_NE(report.find(part), std::string::npos) << part << "\n" << report;
}

TEST_F(SqlCheckTest, WhatCannotBeComparedIsNeverSame) {
    Heap<RqHandleNode> plain(
        Read("request { list { select { 0: t1.AMOUNT } from { " ORDERS "} } }"));
    Heap<RqHandleNode> cube(
        Read("request { list { select { 0: Attribute(name=Year) } from { " ORDERS "} } }"));
    SqlCheckOutcome outcome = Check(*plain, *cube, 1);
    EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kNotComparable);
    EXPECT_EQ(outcome.m_reason.find("the rewritten request: no SQL meaning at RqHandleNode/RqList"),
              0u)
        << outcome.m_reason;
    // Few distinct regions among many rows: a limit of 3 in region order cuts through a tie.
    Heap<RqHandleNode> limited(
        Read("request { list limit=3 { select { 0: t1.REGION 1: t1.ORDER_ID } from { " ORDERS
             "} orderby 0 } }"));
    outcome = Check(*limited, *limited, 1);
    EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kNotComparable);
    EXPECT_EQ(outcome.m_reason.find("the original request: not determined: a row limit"), 0u)
        << outcome.m_reason;
}

// ---- Grouping sets ---------------------------------------------------------------------------

TEST_F(SqlCheckTest, GroupingSetsAreTheirGroupingsStacked) {
    Heap<RqHandleNode> sets(GroupingSets({{0, 1}, {0}, {}}));
    const std::string stacked =
        "union all { list { select { 0: t1.REGION 1: t1.CUST_ID 2: Sum(t1.AMOUNT) 3: 0 } from "
        "{ " ORDERS
        "} groupby (t1.REGION, t1.CUST_ID) } list { select { 0: t1.REGION 1: null 2: "
        "Sum(t1.AMOUNT) "
        "3: [[1|2]] } from { " ORDERS
        "} groupby (t1.REGION) } list { select { 0: null 1: null 2: "
        "Sum(t1.AMOUNT) 3: 3 } from { " ORDERS "} } }";
    Heap<RqHandleNode> same(Read("request { " + Side(stacked, false) + " }"));
    Heap<RqHandleNode> wrongId(Read("request { " + Side(stacked, true) + " }"));
    Heap<RqHandleNode> droppedSet(GroupingSets({{0, 1}, {0}}));
    for (uint64_t seed : {1, 2, 3}) {
        const SqlCheckOutcome outcome = Check(*sets, *same, seed);
        EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kSame) << outcome.Report();
        EXPECT_EQ(Check(*sets, *wrongId, seed).m_kind, SqlCheckOutcome::kDifferent);
        EXPECT_EQ(Check(*sets, *droppedSet, seed).m_kind, SqlCheckOutcome::kDifferent);
    }
}

// ---- The data ----------------------------------------------------------------------------------

TEST_F(SqlCheckTest, GeneratedDataIsDeterministicAndAwkward) {
    auto text = [](const std::vector<SqlRow>& list) {
        std::string out;
        for (const SqlRow& row : list)
            for (const SqlValue& value : row)
                out += value.ToString() + ",";
        return out;
    };
    const std::vector<SqlRow> rows = SqlDataGenerator(*m_pRepository, {7, 400}).MakeRows(*m_orders);
    EXPECT_EQ(text(rows), text(SqlDataGenerator(*m_pRepository, {7, 400}).MakeRows(*m_orders)));
    EXPECT_NE(text(rows), text(SqlDataGenerator(*m_pRepository, {8, 400}).MakeRows(*m_orders)));

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
    for (const SqlRow& row : SqlDataGenerator(*m_pRepository, {7, 400}).MakeRows(*lines)) {
        EXPECT_FALSE(row[0].IsNull() || row[1].IsNull());
        EXPECT_TRUE(pairs.emplace(row[0].m_int, row[1].m_int).second);
    }
    EXPECT_GT(pairs.size(), 100u);
    // Over many seeds some tables are empty and some hold a single row.
    std::set<uint32_t> counts;
    for (uint64_t seed = 1; seed <= 60; ++seed)
        counts.insert(SqlDataGenerator(*m_pRepository, {seed, 400}).RowCount(*m_customers));
    EXPECT_TRUE(counts.count(0) && counts.count(1) && counts.count(400)) << counts.size();
}

TEST_F(SqlCheckTest, ThousandsOfRowsCheckWellUnderASecond) {
    Heap<RqHandleNode> request(
        Read("request { list { select { 0: @d.1 1: Count(@d.0) 2: Count(@d.0, by=()) } from { "
             "derived t3 "
             "{ list @d { select { 0: t1.ORDER_ID 1: t2.NAME } from { join full { " ORDERS CUSTOMERS
                 CUST_JOIN "} } } } } groupby (@d.1) } }"));
    const auto start = std::chrono::steady_clock::now();
    const SqlCheckOutcome outcome = Check(*request, *request, 5, 3000);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kSame) << outcome.Report();
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 1000);
}

}  // namespace
