// The renderer on trees too deep to walk recursively. The text it writes is shown by the golden
// cases tests/golden/sql/render-*.test, its refusals by refuse-*.test and SqlKindFormsTest.

#include "SqlTestCatalog.h"

namespace {

using namespace rqb;

class SqlRendererTest : public SqlTestCatalog {};

// Top-level conjuncts are walked without recursion; anything else nested that deep is refused
// rather than exhausting the stack.
TEST_F(SqlRendererTest, DeepConditionsRenderOrAreRefused) {
    RqExpr* conjunction = Gt(Col(L"AMOUNT", 1), Int(0));
    RqExpr* disjunction = Gt(Col(L"AMOUNT", 1), Int(0));
    for (int i = 1; i < 100000; ++i) {
        conjunction = And(conjunction, Gt(Col(L"AMOUNT", 1), Int(i % 7)));
        disjunction = Or(disjunction, Gt(Col(L"AMOUNT", 1), Int(i % 7)));
    }
    Heap<RqList> conjunctive(
        Block().Select(Col(L"AMOUNT", 1)).From(Orders()).Where(conjunction).Build());
    Heap<RqList> disjunctive(
        Block().Select(Col(L"AMOUNT", 1)).From(Orders()).Where(disjunction).Build());
    EXPECT_TRUE(SqlRenderer::Render(*conjunctive, Rp()).IsOk());
    EXPECT_EQ(SqlRenderer::Render(*disjunctive, Rp()).m_problem, SqlProblem::kNotSupported);
}

// SQLite has no GROUPING SETS: one grouped SELECT per set, stacked, with the block's DISTINCT,
// ORDER BY and limit around them. (A golden case once the text format writes grouping sets.)
TEST_F(SqlRendererTest, GroupingSetsAreOneSelectPerSet) {
    Heap<RqHandleNode> request(WithGroupingSets(
        Read("request { list distinct limit=3 { select { 0: t1.REGION 1: t1.CUST_ID 2: Sum("
             "t1.AMOUNT) 3: GroupingId() 4: Add(t1.CUST_ID, 1) } from { " ORDERS_T1 "} groupby ("
             "t1.REGION, t1.CUST_ID) having Gt(CountStar(), 1) orderby 3 } }"),
        {{0, 1}, {1}, {}}));
    EXPECT_EQ(
        Sql(*request),
        "SELECT DISTINCT c0, c1, c2, c3, c4\nFROM (\n"
        "  SELECT t1.\"REGION\" AS c0, t1.\"CUST_ID\" AS c1, SUM(t1.\"AMOUNT\") AS c2, 0 AS c3, "
        "t1.\"CUST_ID\" + 1 AS c4\n  FROM \"Shop.dw.ORDERS\" AS t1\n"
        "  GROUP BY t1.\"REGION\", t1.\"CUST_ID\"\n  HAVING COUNT(*) > 1\n  UNION ALL\n"
        "  SELECT NULL AS c0, t1.\"CUST_ID\" AS c1, SUM(t1.\"AMOUNT\") AS c2, 2 AS c3, "
        "t1.\"CUST_ID\" + 1 AS c4\n  FROM \"Shop.dw.ORDERS\" AS t1\n"
        "  GROUP BY t1.\"CUST_ID\"\n  HAVING COUNT(*) > 1\n  UNION ALL\n"
        "  SELECT NULL AS c0, NULL AS c1, SUM(t1.\"AMOUNT\") AS c2, 3 AS c3, NULL + 1 AS c4\n"
        "  FROM \"Shop.dw.ORDERS\" AS t1\n  HAVING COUNT(*) > 1\n)\nORDER BY c3\nLIMIT 3");
}

}  // namespace
