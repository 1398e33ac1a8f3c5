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

}  // namespace
