// The renderer's text: the exact SQL of small requests (so that the format people read and
// diff stays put) and the refusals, each naming the node that has no SQL form.

#include "SqlTestCatalog.h"

namespace {

using namespace rqb;
using rqb::Ref;

class SqlRendererTest : public SqlTestCatalog {};

RqExprAggr* WithCount(RqExprAggr* aggr, int64_t count) {
    aggr->AddOperand(Int(count));
    return aggr;
}

TEST_F(SqlRendererTest, BlockClausesOneLineEach) {
    Heap<RqHandleNode> request(
        Request(Block()
                    .Select(Col(L"NAME", 2))
                    .Select(Col(L"AMOUNT", 1))
                    .Join(SqlTableRef::kLeftOuterJoin, Orders(), Customers(),
                          Eq(Col(L"CUST_ID", 1), Col(L"CUST_ID", 2)))
                    .Where(And(Gt(Col(L"AMOUNT", 1), Int(2)), Like(Col(L"NAME", 2), Str(L"O'A%"))))
                    .OrderBy({{1, RqSortSpec::kDesc}})
                    .Distinct()
                    .Limit(5)
                    .Offset(2)
                    .Build()));
    EXPECT_EQ(Sql(*request),
              "SELECT DISTINCT t2.\"NAME\" AS c0, t1.\"AMOUNT\" AS c1\n"
              "FROM \"Shop.dw.ORDERS\" AS t1\n"
              "  LEFT JOIN \"Shop.CUSTOMERS\" AS t2 ON t1.\"CUST_ID\" = t2.\"CUST_ID\"\n"
              "WHERE t1.\"AMOUNT\" > 2 AND t2.\"NAME\" LIKE 'O''A%'\n"
              "ORDER BY c1 DESC\n"
              "LIMIT 5 OFFSET 2");
}

// Windows run over the block's rows: their sort keys become the values of the projected
// columns they name. A condition that reads them is tested around the statement, after every
// window was computed; a row number checks that its order leaves no ties.
TEST_F(SqlRendererTest, WindowAggregatesOverTheBlocksRows) {
    Heap<RqList> grouped(
        Block()
            .Select(Col(L"REGION", 1))
            .Select(Sum(Col(L"AMOUNT", 1)))
            .Select(
                SortedBy(Aggr<RqExprAggrRank>(Sum(Col(L"AMOUNT", 1))), {{1, RqSortSpec::kDesc}}))
            .Select(Aggr<RqExprAggrReportSum>(Sum(Col(L"AMOUNT", 1))))
            .From(Orders())
            .GroupBy({Col(L"REGION", 1)})
            .Having(Le(SortedBy(Aggr<RqExprAggrRowNum>(nullptr), {{1, RqSortSpec::kAsc}}), Int(2)))
            .OrderBy({{2}})
            .Build());
    EXPECT_EQ(Sql(*grouped),
              "SELECT c0, c1, c2, c3\n"
              "FROM (\n"
              "  SELECT t1.\"REGION\" AS c0, SUM(t1.\"AMOUNT\") AS c1, "
              "RANK() OVER (ORDER BY SUM(t1.\"AMOUNT\") DESC) AS c2, "
              "SUM(SUM(t1.\"AMOUNT\")) OVER () AS c3, "
              "CASE WHEN COUNT(*) OVER (PARTITION BY SUM(t1.\"AMOUNT\")) > 1 THEN "
              "rq_error('not determined: RqExprAggrRowNum over rows that tie on its sort keys') "
              "ELSE ROW_NUMBER() OVER (ORDER BY SUM(t1.\"AMOUNT\")) END <= 2 AS rq_cond1\n"
              "  FROM \"Shop.dw.ORDERS\" AS t1\n"
              "  GROUP BY t1.\"REGION\"\n"
              ")\n"
              "WHERE rq_cond1\n"
              "ORDER BY c2");
    Heap<RqList> details(
        Block()
            .Select(Col(L"AMOUNT", 1))
            .Select(SortedBy(Aggr<RqExprAggrRunningSum>(Col(L"AMOUNT", 1), By({Col(L"REGION", 1)})),
                             {{0, RqSortSpec::kAsc}}))
            .Select(WithCount(
                SortedBy(Aggr<RqExprAggrMovingAvg>(Col(L"AMOUNT", 1)), {{0, RqSortSpec::kDesc}}),
                3))
            .From(Orders())
            .Build());
    EXPECT_EQ(Sql(*details),
              "SELECT t1.\"AMOUNT\" AS c0, SUM(t1.\"AMOUNT\") OVER (PARTITION BY t1.\"REGION\" "
              "ORDER BY t1.\"AMOUNT\" RANGE BETWEEN UNBOUNDED PRECEDING AND CURRENT ROW) AS c1, "
              "CASE WHEN COUNT(*) OVER (PARTITION BY t1.\"AMOUNT\") > 1 THEN "
              "rq_error('not determined: RqExprAggrMovingAvg over rows that tie on its sort keys') "
              "ELSE AVG(t1.\"AMOUNT\") OVER (ORDER BY t1.\"AMOUNT\" DESC ROWS BETWEEN 2 "
              "PRECEDING AND CURRENT ROW) END AS c2\n"
              "FROM \"Shop.dw.ORDERS\" AS t1");
}

TEST_F(SqlRendererTest, ParenthesesOnlyWhereTheTreeNeedsThem) {
    auto a = [] { return Col(L"ORDER_ID", 1); };
    auto b = [] { return Col(L"CUST_ID", 1); };
    Heap<RqList> block(
        Block()
            .Select(Sub(a(), Sub(b(), Int(1))))
            .Select(Mul(Add(a(), b()), Neg(Int(-5))))
            .Select(Div(a(), Mul(b(), Int(2))))
            .Select(Or(And(Eq(a(), b()), Not(IsNull(a()))), Eq(Eq(a(), b()), Int(1))))
            .From(Orders())
            .Build());
    EXPECT_EQ(Sql(*block),
              "SELECT t1.\"ORDER_ID\" - (t1.\"CUST_ID\" - 1) AS c0, "
              "(t1.\"ORDER_ID\" + t1.\"CUST_ID\") * -(-5) AS c1, "
              "CAST(t1.\"ORDER_ID\" AS REAL) / (t1.\"CUST_ID\" * 2) AS c2, "
              "t1.\"ORDER_ID\" = t1.\"CUST_ID\" AND NOT t1.\"ORDER_ID\" IS NULL OR "
              "(t1.\"ORDER_ID\" = t1.\"CUST_ID\") = 1 AS c3\n"
              "FROM \"Shop.dw.ORDERS\" AS t1");
}

// An aggregate at a coarser level than its block's grouping reads a helper table grouped at
// its own level over the same detail rows; repeated tables get fresh names.
TEST_F(SqlRendererTest, AggregateAtAnotherLevelJoinsAHelperTable) {
    RqList* detail =
        Block().Select(Col(L"REGION", 1)).Select(Col(L"AMOUNT", 1)).From(Orders()).Build();
    RqExpr* region = Ref(*detail, 0);
    RqExpr* amount = Ref(*detail, 1);
    RqExpr* groupRegion = Ref(*detail, 0);
    RqExpr* total = Ref(*detail, 1);
    Heap<RqHandleNode> request(Request(Block()
                                           .Select(region)
                                           .Select(Sum(amount))
                                           .Select(Sum(total, By({})))
                                           .From(Derived(detail, 3))
                                           .GroupBy({groupRegion})
                                           .Build()));
    EXPECT_EQ(Sql(*request),
              "SELECT t3.c0 AS c0, SUM(t3.c1) AS c1, a1.v1 AS c2\n"
              "FROM (\n"
              "    SELECT t1.\"REGION\" AS c0, t1.\"AMOUNT\" AS c1\n"
              "    FROM \"Shop.dw.ORDERS\" AS t1\n"
              "  ) AS t3\n"
              "  LEFT JOIN (\n"
              "    SELECT SUM(t3_2.c1) AS v1\n"
              "    FROM (\n"
              "        SELECT t1_2.\"REGION\" AS c0, t1_2.\"AMOUNT\" AS c1\n"
              "        FROM \"Shop.dw.ORDERS\" AS t1_2\n"
              "      ) AS t3_2\n"
              "  ) AS a1 ON 1\n"
              "GROUP BY t3.c0");
}

TEST_F(SqlRendererTest, BreakFilterKeepsTheFirstRowPerBreakValue) {
    Heap<RqHandleNode> request(Request(BreakFilter(Block()
                                                       .Select(Col(L"REGION", 1))
                                                       .Select(Col(L"AMOUNT", 1))
                                                       .From(Orders())
                                                       .OrderBy({{1, RqSortSpec::kDesc}})
                                                       .Build(),
                                                   {0})));
    EXPECT_EQ(Sql(*request),
              "SELECT b1.c0 AS c0, b1.c1 AS c1\n"
              "FROM (\n"
              "  SELECT *, ROW_NUMBER() OVER (PARTITION BY c0 ORDER BY c1 DESC) AS rq_row\n"
              "  FROM (\n"
              "    SELECT t1.\"REGION\" AS c0, t1.\"AMOUNT\" AS c1\n"
              "    FROM \"Shop.dw.ORDERS\" AS t1\n"
              "    ORDER BY c1 DESC\n"
              "  )\n"
              ") AS b1\n"
              "WHERE b1.rq_row = 1\n"
              "ORDER BY c1 DESC");
}

// Each construct without a SQL form is refused at its own node, with the kind of problem.
TEST_F(SqlRendererTest, RefusalsNameTheNode) {
    struct Case {
        const char* m_name;
        RqNode* m_pTree;
        SqlProblem m_problem;
        const char* m_pathEnd;
    };
    RqList* grouped = Block()
                          .Select(Col(L"NAME", 2))
                          .Select(Sum(Col(L"AMOUNT", 1)))
                          .Join(SqlTableRef::kInnerJoin, Orders(), Customers(),
                                Eq(Col(L"CUST_ID", 1), Col(L"CUST_ID", 2)))
                          .GroupBy({Col(L"CUST_ID", 2)})
                          .Build();
    RqList* granular = Block().Select(CountStar()).From(Orders()).Build();
    granular->SetGroupBy(RQ_NEW RqGroupBy({Col(L"REGION", 1)}, {Col(L"ORDER_ID", 1)}));
    const Case cases[] = {
        {"natural join",
         Block()
             .Select(Col(L"AMOUNT", 1))
             .Join(SqlTableRef::kNaturalJoin, Orders(), Customers(), nullptr)
             .Build(),
         SqlProblem::kNoSqlMeaning, "RqJoinNode[0]/RqTableReference[0]"},
        {"cube attribute",
         Block().Select(RQ_NEW RqAttribute(VoidID(7, 1), L"Year")).From(Orders()).Build(),
         SqlProblem::kNoSqlMeaning, "RqDerivedColumn[0]/RqAttribute[0]"},
        {"parameter",
         Block()
             .Select(Col(L"AMOUNT", 1))
             .From(Orders())
             .Where(Eq(Col(L"REGION", 1), Param(L"r")))
             .Build(),
         SqlProblem::kNoSqlMeaning, "RqDetailFilter[2]/RqExprCondEquality[0]/RqExprParam[1]"},
        {"rank ordered by itself",
         Block()
             .Select(SortedBy(Aggr<RqExprAggrRank>(Col(L"AMOUNT", 1)), {{0, RqSortSpec::kAsc}}))
             .From(Orders())
             .Build(),
         SqlProblem::kNotSupported, "RqDerivedColumn[0]/RqExprAggrRank[0]"},
        {"top n",
         Block()
             .Select(Col(L"AMOUNT", 1))
             .Select(SortedBy(Aggr<RqExprAggrTopN>(Col(L"AMOUNT", 1)), {{0, RqSortSpec::kDesc}}))
             .From(Orders())
             .Build(),
         SqlProblem::kNotSupported, "RqDerivedColumn[1]/RqExprAggrTopN[0]"},
        {"row number in a row condition",
         Block()
             .Select(Col(L"AMOUNT", 1))
             .Join(SqlTableRef::kInnerJoin, Orders(), Customers(),
                   Eq(SortedBy(Aggr<RqExprAggrRowNum>(nullptr), {{0, RqSortSpec::kAsc}}), Int(1)))
             .Build(),
         SqlProblem::kNotSupported, "RqExprAggrRowNum[0]"},
        {"sibling levels",
         Block()
             .Select(Sum(Col(L"AMOUNT", 1), By({Col(L"REGION", 1)})))
             .Select(Sum(Col(L"AMOUNT", 1), By({Col(L"CUST_ID", 1)})))
             .From(Orders())
             .Build(),
         SqlProblem::kNoSqlMeaning, "RqDerivedColumn[1]/RqExprAggrSum[0]"},
        {"value not fixed by the group", grouped, SqlProblem::kNotDetermined,
         "RqDerivedColumn[0]/RqTargetColumn[0]"},
        {"granularity", granular, SqlProblem::kNoSqlMeaning, "RqList[0]/RqGroupBy[4]"},
        {"table out of scope", Block().Select(Col(L"NAME", 2)).From(Orders()).Build(),
         SqlProblem::kMalformed, "RqDerivedColumn[0]/RqTargetColumn[0]"},
        {"cache request", RQ_NEW RqCache(Block().Select(Col(L"AMOUNT", 1)).From(Orders()).Build()),
         SqlProblem::kNoSqlMeaning, "RqHandleNode/RqCache[0]"},
    };
    for (const Case& c : cases) {
        Heap<RqHandleNode> request(Request(c.m_pTree));
        const SqlRenderResult result = SqlRenderer::Render(*request, Rp());
        EXPECT_EQ(result.m_problem, c.m_problem) << c.m_name << ": " << result.Describe();
        const std::string path = result.m_path.ToUtf8();
        const std::string end = c.m_pathEnd;
        EXPECT_TRUE(path.size() >= end.size() &&
                    path.compare(path.size() - end.size(), end.size(), end) == 0)
            << c.m_name << ": " << path;
        EXPECT_TRUE(result.m_sql.empty()) << c.m_name;
    }
}

}  // namespace

namespace {

using namespace rqb;

class SqlRendererDepthTest : public SqlTestCatalog {};

// Top-level conjuncts are walked without recursion; anything else nested that deep is refused
// rather than exhausting the stack.
TEST_F(SqlRendererDepthTest, DeepConditionsRenderOrAreRefused) {
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

}  // namespace
