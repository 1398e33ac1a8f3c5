// The default visitor overloads: a visitor that writes only a few overloads and family hooks
// sees every other node through the nearest family it handles, and the report aggregate and
// the no-aggregate marker stay logic errors whatever families the visitor handles.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVisitorDefaults.h"

namespace {

using Seen = std::map<std::string, std::string>;  // node class -> what handled it

// Records which handler saw the node's class; false lets the walk go on.
bool Note(Seen& seen, const RqNode& node, const char* handler) {
    seen[RqNodeTypeName(node.GetObjectType())] = handler;
    return false;
}

// "Class=handler ..." in class order.
std::string Describe(const Seen& seen) {
    std::string text;
    for (const auto& [cls, handler] : seen)
        text += (text.empty() ? "" : " ") + cls + "=" + handler;
    return text;
}

// Handles one table kind itself, every other table and every list by family, and the rest
// of the nodes through the root hook.
class TableAndListNotes : public RqNodeVisitorDefaults<AVisitorRqNode> {
public:
    RQ_VISIT_DEFAULTS(RqNodeVisitorDefaults<AVisitorRqNode>);

    bool Visit(RqDerivedTable& node) override { return Note(m_seen, node, "derived"); }
    bool VisitAny(RqAbstractTable& node) override { return Note(m_seen, node, "table"); }
    bool VisitAny(RqAbstractList& node) override { return Note(m_seen, node, "list"); }
    bool VisitAny(RqNode& node) override { return Note(m_seen, node, "node"); }

    Seen m_seen;
};

TEST(NodeVisitorDefaults, FamiliesCatchTheKindsWithoutAnOverload) {
    // A union of a block over a table and a block over a derived table, filtered on a break.
    RqList* leaf = rqb::Block().Select(rqb::Col(L"a", 1)).From(rqb::Table(VoidID(3, 1), 1)).Build();
    RqList* nested = rqb::Block().Select(rqb::Ref(*leaf, 0)).From(rqb::Derived(leaf, 2)).Build();
    RqList* other =
        rqb::Block().Select(rqb::Col(L"a", 3)).From(rqb::Table(VoidID(3, 2), 3)).Build();
    Heap<RqHandleNode> request(
        rqb::Request(rqb::BreakFilter(rqb::Union({nested, other}, true), {0})));

    TableAndListNotes visitor;
    request->Accept(visitor);
    // Expressions reach a node visitor as RqExpr, whatever their kind.
    EXPECT_EQ(Describe(visitor.m_seen),
              "RqAtomicTable=table RqBreakFilter=list RqDerivedColumn=node "
              "RqDerivedColumnReference=node RqDerivedTable=derived RqHandleNode=node "
              "RqJoinNode=node RqJoinSpec=node RqList=list RqProjection=node "
              "RqTableReference=node RqTargetColumn=node RqUnion=list");
}

// Collects aggregates and LIKEs without looking inside them, conditions, and other
// expressions.
class AggrAndCondNotes : public RqExprVisitorDefaults<> {
public:
    RQ_VISIT_DEFAULTS(RqExprVisitorDefaults<>);

    bool Visit(RqExprCondLike& expr) override { return !Note(m_seen, expr, "like"); }
    bool VisitAny(RqExprAggr& expr) override { return !Note(m_seen, expr, "aggregate"); }
    bool VisitAny(RqExprCond& expr) override { return Note(m_seen, expr, "condition"); }
    bool VisitAny(RqExpr& expr) override { return Note(m_seen, expr, "expression"); }

    Seen m_seen;
};

TEST(ExprVisitorDefaults, FamiliesCatchTheKindsWithoutAnOverload) {
    Heap<RqExpr> expr(
        rqb::And(rqb::Or(rqb::Gt(rqb::Sum(rqb::Col(L"inside_sum", 1)), rqb::Int(0)),
                         rqb::Like(rqb::Col(L"name", 1), rqb::Str(L"A%"))),
                 rqb::Eq(rqb::Aggr<RqExprAggrReportSum>(rqb::Col(L"inside_report", 1)),
                         rqb::Aggr<RqExprAggrRank>(rqb::Col(L"inside_rank", 1)))));
    AggrAndCondNotes visitor;
    expr->Accept(visitor);
    // The operands of the aggregates and of the LIKE are never reached.
    EXPECT_EQ(Describe(visitor.m_seen),
              "RqExprAggrRank=aggregate RqExprAggrReportSum=aggregate RqExprAggrSum=aggregate "
              "RqExprCondAnd=condition RqExprCondEquality=condition RqExprCondGreater=condition "
              "RqExprCondLike=like RqExprCondOr=condition RqExprIntegerLiteral=expression");
}

TEST(ExprVisitorDefaultsDeathTest, ReportAggregateAndNoAggregateStayLogicErrors) {
    // Handling every aggregate by family does not make these two kinds handled.
    Heap<RqExpr> report(RQ_NEW RqExprAggrReport(rqb::Col(L"a", 1)));
    Heap<RqExpr> none(RQ_NEW RqExprNoAggregate(rqb::Col(L"a", 1)));
    AggrAndCondNotes visitor;
    EXPECT_DEATH(report->Accept(visitor), "LOGIC ERROR: .*SQORAVisitorRqExpr\\.h:366");
    EXPECT_DEATH(none->Accept(visitor), "LOGIC ERROR: .*SQORAVisitorRqExpr\\.h:349");
}

}  // namespace
