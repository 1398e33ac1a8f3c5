// Every node kind gets a deliberate answer from the renderer: each expression kind it renders
// is computed here on SQLite and its value checked (operand order, bracketing and the choice
// of SQL function included), and each one it refuses is refused at its own node, as the kind's
// entry says. A kind added to the kind table fails here until it is given an entry.

#include <set>

#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/RequestSql/SQORSqlKindForms.h"
#include "SqlTestCatalog.h"

namespace {

class SqlKindFormsTest : public SqlTestCatalog {};

bool IsRendered(SqlKindRole role) {
    return role == SqlKindRole::kOperator || role == SqlKindRole::kFunction ||
           role == SqlKindRole::kSpecialForm || role == SqlKindRole::kAggregate ||
           role == SqlKindRole::kWindowAggregate;
}

// A list body and the rows it returns over three orders of AMOUNT 1, 2 and 4 (sorted, joined
// by ", "). Nested operators are chosen so that a lost parenthesis changes the value.
struct ValueCase {
    const char* m_body;
    const char* m_rows;
};

const ValueCase kValueCases[] = {
    {R"(select { 0: Add(1, 2) 1: Sub(7, Sub(3, 1)) 2: Mul(Add(1, 2), 3) 3: Div(12, Mul(2, 3))
                 4: Div(7, 2) 5: Neg(Sub(1, 3)) 6: Neg(-5) 7: Concat(Add(1, 2), "x", "y") })",
     "3|5|9|2|3.5|2|5|'3xy'"},
    {R"(select { 0: Not(And(Eq(1, 1), Eq(0, 1))) 1: And(Or(Eq(1, 1), Eq(1, 0)), Eq(0, 1))
                 2: Eq(1, Eq(2, 0)) 3: Ne(1, 2) 4: Lt(1, 2) 5: Le(3, 2) 6: Gt(1, 2) 7: Ge(2, 2)
                 8: Or(Not(Eq(1, 1)), Eq(2, 2)) 9: Between(Add(1, 1), 1, 2) 10: IsNull(null)
                 11: Like("abc", "a%") 12: In(2, 1, 2) 13: Not(IsNull(1)) })",
     "1|0|0|1|1|0|0|1|1|1|1|1|1|1"},
    {R"(select { 0: Upper("aB") 1: Lower("aB") 2: CharLength("abc") 3: Length("ab")
                 4: Replace("abcb", "b", "x") 5: Substring("abcdef", 2, 3) 6: Abs(-2)
                 7: Sign(-3) 8: Round(2.567, 1) 9: Floor(2.5) 10: Ceil(2.1) 11: Sqrt(9) })",
     "'AB'|'ab'|3|2|'axcx'|'bcd'|2|-1|2.6|2|3|3"},
    {R"(select { 0: Exp(0) 1: Pow(2, 10) 2: Log(100) 3: Log10(100) 4: Mod(7, 3) 5: Pi()
                 6: Sin(1) 7: Cos(1) 8: Tan(1) 9: Asin(1) 10: Acos(0.5) 11: Atan(1)
                 12: Atan2(1, 2) 13: Sinh(1) 14: Cosh(1) 15: Tanh(1) 16: Degrees(Pi())
                 17: Radians(180) 18: IfNull(null, 2) 19: NullIf(2, 2) })",
     "1|1024|4.60517018598809|2|1|3.14159265358979|0.841470984807897|0.54030230586814|"
     "1.5574077246549|1.5707963267949|1.0471975511966|0.785398163397448|0.463647609000806|"
     "1.1752011936438|1.54308063481524|0.761594155955765|180|3.14159265358979|2|NULL"},
    {R"(select { 0: 7 1: 2.5 2: number "1.50" 3: "it's" 4: date "2024-01-31" 5: time "13:45:00"
                 6: datetime "2024-01-31 13:45:00" 7: null 8: Square(3) 9: Cot(1)
                 10: OctetLength("\u{e9}") 11: Left("abc", 2) 12: Trim("  a ") 13: GroupingId() })",
     "7|2.5|1.5|'it''s'|'2024-01-31'|'13:45:00'|'2024-01-31 13:45:00'|NULL|9|0.642092615934331|"
     "2|'ab'|'a'|0"},
    {R"(select { 0: Coalesce(null, 2) 1: Cast("12", type="INTEGER") 2: IfCase(Eq(1, 0), 1, 2)
                 3: LookupCase(2, 1, "a", 2, "b") 4: Exists(Subquery(list { select { 0: 1 } }))
                 5: Subquery(list { select { 0: 4 } }) 6: PhysicalSubquery(list { select { 0: 5 } })
                 7: PersistSubquery(list { select { 0: 6 } }) })",
     "2|12|2|'b'|1|4|5|6"},
    {R"(select { 0: CondAnyLessThan(1, Subquery(list { select { 0: 2 } }))
                 1: CondAnyLessEqual(3, Subquery(list { select { 0: 2 } }))
                 2: CondAnyGreaterThan(3, Subquery(list { select { 0: 2 } }))
                 3: CondAnyGreaterEqual(1, Subquery(list { select { 0: 2 } }))
                 4: CondAnyNotEqual(2, Subquery(list { select { 0: 2 } }))
                 5: CondAllLessThan(1, Subquery(list { select { 0: 2 } }))
                 6: CondAllLessEqual(3, Subquery(list { select { 0: 2 } }))
                 7: CondAllEqual(2, Subquery(list { select { 0: 2 } }))
                 8: CondAllGreaterThan(2, Subquery(list { select { 0: 2 } }))
                 9: CondAllGreaterEqual(2, Subquery(list { select { 0: 2 } })) })",
     "1|0|1|0|0|1|0|1|0|1"},
    {R"(select { 0: Sum(t1.AMOUNT) 1: Count(t1.AMOUNT) 2: CountStar() 3: Avg(t1.AMOUNT)
                 4: Min(t1.AMOUNT) 5: Max(t1.AMOUNT) 6: AggrMedian(t1.AMOUNT)
                 7: AggrStddev(t1.AMOUNT) } from { table Shop.dw.ORDERS t1 })",
     "7|3|3|2.33333333333333|1|4|2|1.52752523165195"},
    {R"(select { 0: @d.0 1: Rank(@d.0, sort=(0)) 2: RowNum(none, sort=(0 desc))
                 3: AggrPercentile(@d.0, sort=(0)) 4: AggrNtile(@d.0, 2, sort=(0))
                 5: AggrRunningSum(@d.0, sort=(0)) 6: AggrRunningCount(none, sort=(0))
                 7: AggrRunningMin(@d.0, sort=(0 desc)) 8: AggrRunningMax(@d.0, sort=(0)) }
        from { derived t3 { list @d { select { 0: t1.AMOUNT } from { table Shop.dw.ORDERS t1 } } } })",
     "1|1|3|0|1|1|1|1|1, 2|2|2|0.5|1|3|2|2|2, 4|3|1|1|2|7|3|4|4"},
    {R"(select { 0: t1.AMOUNT 1: AggrMovingSum(t1.AMOUNT, 2, sort=(0))
                 2: AggrMovingAvg(t1.AMOUNT, 2, sort=(0)) 3: AggrReportSum(t1.AMOUNT)
                 4: AggrReportCount(none) 5: AggrReportMin(t1.AMOUNT) 6: AggrReportMax(t1.AMOUNT)
                 7: AggrReportAvg(t1.AMOUNT) } from { table Shop.dw.ORDERS t1 })",
     "1|1|1|7|3|1|4|2.33333333333333, 2|3|1.5|7|3|1|4|2.33333333333333, "
     "4|6|3|7|3|1|4|2.33333333333333"},
};

std::string Joined(const std::vector<std::string>& rows) {
    std::string out;
    for (const std::string& row : rows)
        out += (out.empty() ? "" : ", ") + row;
    return out;
}

TEST_F(SqlKindFormsTest, EveryRenderedKindHasItsValue) {
    std::set<RqNodeType_e> covered;
    for (const ValueCase& c : kValueCases) {
        Heap<RqHandleNode> request(Read(std::string("request { list { ") + c.m_body + " } }"));
        ASSERT_TRUE(request);
        RqNodeVector nodes;
        FindNodes(request.Get(), RqNode::IsObjectType(kRqExpr), nodes);
        for (const RqNode* node : nodes)
            covered.insert(node->GetObjectType());
        const SqlRunResult run = RunOn(*request, {{I(1), I(10), R(1), T("N")},
                                                  {I(2), I(10), R(2), T("S")},
                                                  {I(3), I(20), R(4), T("N")}});
        EXPECT_TRUE(run.m_bComparable) << run.m_reason << "\n" << c.m_body;
        EXPECT_EQ(Joined(SortedRows(run.m_rows)), c.m_rows) << run.m_sql;
    }
    for (int value = 0; value < kRqNodeTypeCount; ++value) {
        const auto kind = static_cast<RqNodeType_e>(value);
        if (RqIsExprType(kind) && IsRendered(SqlKindFormOf(kind).m_role)) {
            EXPECT_TRUE(covered.count(kind)) << RqNodeTypeName(kind) << " has no value case";
        }
    }
}

// A refused expression is refused at its own node, with the problem its entry names.
TEST_F(SqlKindFormsTest, EveryKindHasAnEntryAndRefusedKindsAreRefusedAtTheirNode) {
    for (int value = 0; value < kRqNodeTypeCount; ++value) {
        const auto kind = static_cast<RqNodeType_e>(value);
        const SqlKindForm& form = SqlKindFormOf(kind);
        EXPECT_EQ(form.m_kind, kind);
        if (RqIsAbstractNodeType(kind)) {
            EXPECT_EQ(form.m_role, SqlKindRole::kUnlisted) << RqNodeTypeName(kind);
            continue;
        }
        EXPECT_NE(form.m_role, SqlKindRole::kUnlisted) << RqNodeTypeName(kind) << " has no entry";
        const bool bRefused =
            form.m_role == SqlKindRole::kNoSqlMeaning || form.m_role == SqlKindRole::kNotRendered;
        if (!bRefused || !RqIsExprType(kind))
            continue;
        std::string operands;
        for (int i = 0; i < RqNodeTypeMinOperands(kind); ++i)
            operands += i == 0 ? "1" : ", 1";
        Heap<RqHandleNode> request(Read(std::string("request { list { select { 0: ") +
                                        RqNodeTypeName(kind) + "(" + operands + ") } } }"));
        ASSERT_TRUE(request) << RqNodeTypeName(kind);
        const SqlRenderResult result = SqlRenderer::Render(*request, Rp());
        EXPECT_EQ(result.m_problem, form.m_role == SqlKindRole::kNoSqlMeaning
                                        ? SqlProblem::kNoSqlMeaning
                                        : SqlProblem::kNotSupported)
            << RqNodeTypeName(kind) << ": " << result.Describe();
        ASSERT_NE(result.m_pNode, nullptr) << RqNodeTypeName(kind);
        EXPECT_EQ(result.m_pNode->GetObjectType(), kind) << result.Describe();
    }
}

}  // namespace
