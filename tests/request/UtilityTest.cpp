// Tree searches, ancestor lookups, node paths and the one-line text of nodes and expressions.

#include <gtest/gtest.h>

#include <memory>

#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"

using namespace rqb;

namespace {

// Texts are compared as UTF-8 so that a failure prints them readably.
std::string Text(const RqNode* node, ARpGateway* rp = nullptr) {
    return ToString(node, rp).ToUtf8();
}
std::string U(const ZKString& text) {
    return text.ToUtf8();
}

// A request over a derived table:
//   outer: SELECT inner.#0, inner.#1 + 1 FROM (inner) WHERE EXISTS (sub)
//   inner: SELECT T1.a, SUM(T1.b) FROM T1 GROUP BY T1.a
//   sub:   SELECT inner.#0 FROM T2        (reads the inner block's column)
struct NestedRequest {
    Heap<RqHandleNode> m_request;
    RqList* m_pOuter = nullptr;
    RqList* m_pInner = nullptr;
    RqList* m_pSub = nullptr;

    NestedRequest() {
        m_pInner = Block()
                       .Label(L"inner")
                       .Select(Col(L"a", 1))
                       .Select(Sum(Col(L"b", 1)))
                       .From(Table(VoidID(3, 1), 1))
                       .GroupBy({Col(L"a", 1)})
                       .Build();
        m_pSub = Block()
                     .Label(L"sub")
                     .Select(rqb::Ref(*m_pInner, 0))
                     .From(Table(VoidID(3, 2), 2))
                     .Build();
        RqExpr* first = rqb::Ref(*m_pInner, 0);
        RqExpr* second = Add(rqb::Ref(*m_pInner, 1), Int(1));
        m_pOuter = Block()
                       .Label(L"outer")
                       .Select(first)
                       .Select(second)
                       .From(Derived(m_pInner, 3))
                       .Where(Exists(m_pSub))
                       .Build();
        m_request.Reset(Request(m_pOuter));
    }
};

}  // namespace

// ---- Collectors -------------------------------------------------------------------------------

TEST(UtilityTest, FindNodesIsPreOrderInChildOrderAndIncludesTheRoot) {
    NestedRequest r;
    RqNodeVector lists;
    FindNodes(r.m_request.Get(), RqNode::IsObjectType(kRqList), lists);
    // The outer block's WHERE clause comes after its FROM clause, so the derived table's
    // block is met before the subquery's.
    ASSERT_EQ(lists.size(), 3u);
    EXPECT_EQ(lists[0], r.m_pOuter);
    EXPECT_EQ(lists[1], r.m_pInner);
    EXPECT_EQ(lists[2], r.m_pSub);

    RqNodeVector self;
    FindNodes(r.m_pInner, RqNode::IsObjectType(kRqAbstractList), self);
    ASSERT_EQ(self.size(), 1u);
    EXPECT_EQ(self[0], r.m_pInner);

    RqNodeVector columns;
    FindNodes(r.m_request.Get(), RqNode::IsObjectType(kRqDerivedColumn), columns);
    ASSERT_EQ(columns.size(), 5u);
    EXPECT_EQ(columns[0], r.m_pOuter->GetProjection()->GetIthColumn(0));
    EXPECT_EQ(columns[2], r.m_pInner->GetProjection()->GetIthColumn(0));
    EXPECT_EQ(columns[4], r.m_pSub->GetProjection()->GetIthColumn(0));
}

TEST(UtilityTest, FindNodesCanStopAtMatchesAndTakesAnyPredicateForm) {
    NestedRequest r;
    RqNodeVector outermost;
    FindNodes(r.m_request.Get(), RqNode::IsObjectType(kRqAbstractList), outermost, false);
    ASSERT_EQ(outermost.size(), 1u);
    EXPECT_EQ(outermost[0], r.m_pOuter);

    // A predicate on mutable nodes, and kind tests that include derived kinds.
    RqNodeVector aggregates;
    FindNodes(
        r.m_request.Get(), [](RqNode* node) { return RqNode::IsAggrNode(node); }, aggregates);
    ASSERT_EQ(aggregates.size(), 1u);
    EXPECT_EQ(aggregates[0]->GetObjectType(), kRqExprAggrSum);

    RqNodeVector conds;
    FindNodes(r.m_pOuter, RqNode::IsObjectType(kRqExprCond), conds);
    ASSERT_EQ(conds.size(), 1u);
    EXPECT_EQ(conds[0]->GetObjectType(), kRqExprCondExists);
}

TEST(UtilityTest, FoundNodesAnswersWhetherAnyNodeMatches) {
    NestedRequest r;
    const RqNode* root = r.m_request.Get();
    EXPECT_TRUE(FoundNodes(root, RqNode::IsObjectType(kRqExprAggrSum)));
    EXPECT_TRUE(FoundNodes(root, RqNode::IsObjectType({kRqUnion, kRqExprLogicalSubquery})));
    EXPECT_FALSE(FoundNodes(root, RqNode::IsObjectType(kRqUnion)));
    EXPECT_FALSE(FoundNodes(r.m_pSub, RqNode::IsObjectType(kRqExprAggr)));
    // A predicate written for mutable nodes is accepted on a constant tree.
    EXPECT_TRUE(
        FoundNodes(root, [](RqNode* node) { return node == nullptr ? false : node->IsRqList(); }));
    EXPECT_FALSE(FoundNodes(nullptr, RqNode::IsObjectType(kRqList)));
}

TEST(UtilityTest, FindTableNodesDoesNotDescendBelowAMatch) {
    RqList* left =
        Block().Select(Col(L"a", 1)).From(Derived(Block().Select(Col(L"a", 1)).Build(), 1)).Build();
    RqList* right = Block().Select(Col(L"b", 2)).From(Table(VoidID(3, 2), 2)).Build();
    Heap<RqHandleNode> request(Request(Union({left, right}, true)));

    std::vector<RqAbstractList*> lists;
    FindTableNodes<RqAbstractList>(request.Get(), RqNode::IsObjectType(kRqAbstractList), lists);
    ASSERT_EQ(lists.size(), 1u);
    EXPECT_EQ(lists[0]->GetObjectType(), kRqUnion);

    std::vector<RqList*> blocks;
    FindTableNodes<RqList>(request->GetRqNode(), RqNode::IsObjectType(kRqList), blocks);
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[0], left);
    EXPECT_EQ(blocks[1], right);

    std::vector<RqDerivedTable*> tables;
    FindTableNodes<RqDerivedTable>(request.Get(), RqNode::IsObjectType(kRqDerivedTable), tables);
    ASSERT_EQ(tables.size(), 1u);
    EXPECT_EQ(tables[0]->GetParent()->GetParent()->GetParent()->GetParent(), left);
}

TEST(UtilityTest, CollectorsWalkVeryDeepTreesWithoutRecursion) {
    // A left-deep chain of 100000 ANDs would overflow a recursive walk.
    const int depth = 100000;
    RqExpr* chain = Eq(Col(L"a", 1), Int(0));
    for (int i = 1; i <= depth; ++i)
        chain = And(chain, Eq(Col(L"a", 1), Int(i)));
    Heap<RqExpr> owner(chain);

    RqNodeVector literals;
    FindNodes(chain, RqNode::IsObjectType(kRqExprIntegerLiteral), literals);
    ASSERT_EQ(literals.size(), static_cast<size_t>(depth + 1));
    EXPECT_EQ(static_cast<RqExprIntegerLiteral*>(literals.front())->GetValue(), 0);
    EXPECT_EQ(static_cast<RqExprIntegerLiteral*>(literals.back())->GetValue(), depth);
    EXPECT_FALSE(FoundNodes(chain, RqNode::IsObjectType(kRqExprCondOr)));

    const std::string text = Text(chain);
    EXPECT_EQ(text.substr(0, 25), "T1.a = 0 AND T1.a = 1 AND");
    EXPECT_EQ(text.substr(text.size() - 13), "T1.a = 100000");
}

// ---- Ancestors and paths ------------------------------------------------------------------------

TEST(UtilityTest, ParentSearchesFindTheNearestStrictAncestor) {
    NestedRequest r;
    RqDerivedColumn* innerColumn = r.m_pInner->GetProjection()->GetIthColumn(1);
    RqExpr* sum = innerColumn->GetExpr();

    EXPECT_EQ(RqNodeUtility::GetParentRqList(sum), r.m_pInner);
    // Never the node itself.
    EXPECT_EQ(RqNodeUtility::GetParentRqList(r.m_pInner), r.m_pOuter);
    EXPECT_EQ(RqNodeUtility::GetParentRqList(r.m_pOuter), nullptr);
    EXPECT_EQ(RqNodeUtility::GetParentRqList(static_cast<RqNode*>(nullptr)), nullptr);

    EXPECT_EQ(RqNodeUtility::GetParentNodeOfType(sum, RqNode::IsObjectType(kRqDerivedTable)),
              r.m_pInner->GetParent());
    EXPECT_EQ(RqNodeUtility::GetParentNodeOfType(sum, RqNode::IsObjectType(kRqHandleNode)),
              r.m_request.Get());
    EXPECT_EQ(RqNodeUtility::GetParentNodeOfType(
                  sum, RqNode::IsObjectType({kRqDerivedColumn, kRqJoinSpec})),
              innerColumn);
    EXPECT_EQ(
        RqNodeUtility::GetParentNodeOfType(r.m_request.Get(), RqNode::IsObjectType(kRqNullNode)),
        nullptr);

    // The subquery's block lies below the outer block's WHERE clause.
    EXPECT_EQ(RqNodeUtility::GetParentRqList(r.m_pSub), r.m_pOuter);
    EXPECT_EQ(RqNodeUtility::GetParentAbstractList(r.m_pSub->GetProjection()), r.m_pSub);

    EXPECT_EQ(RqNodeUtility::GetRoot(sum), r.m_request.Get());
    EXPECT_TRUE(RqNodeUtility::IsAncestorOrSelf(r.m_pOuter, sum));
    EXPECT_TRUE(RqNodeUtility::IsAncestorOrSelf(sum, sum));
    EXPECT_FALSE(RqNodeUtility::IsAncestorOrSelf(r.m_pSub, sum));
}

TEST(UtilityTest, ChildListsAreTheOutermostListsBelowANode) {
    NestedRequest r;
    RqAbstractListVector lists;
    RqNodeUtility::GetChildRqLists(r.m_pOuter, lists);
    ASSERT_EQ(lists.size(), 2u);
    EXPECT_EQ(lists[0], r.m_pInner);
    EXPECT_EQ(lists[1], r.m_pSub);
    EXPECT_EQ(RqNodeUtility::GetChildRqList(r.m_request.Get()), r.m_pOuter);
    EXPECT_EQ(RqNodeUtility::GetChildRqList(r.m_pSub), nullptr);
}

TEST(UtilityTest, PathNamesKindsAndChildIndexesFromTheRoot) {
    NestedRequest r;
    EXPECT_EQ(U(RqNodeUtility::GetPath(r.m_request.Get())), "RqHandleNode");
    EXPECT_EQ(
        U(RqNodeUtility::GetPath(r.m_pInner->GetProjection()->GetIthColumn(1))),
        "RqHandleNode/RqList[0]/RqJoinSpec[1]/RqJoinNode[0]/RqTableReference[0]/RqDerivedTable[0]/"
        "RqList[0]/RqProjection[0]/RqDerivedColumn[1]");
    EXPECT_EQ(U(RqNodeUtility::GetPath(r.m_pSub)),
              "RqHandleNode/RqList[0]/RqDetailFilter[2]/RqExprCondExists[0]/"
              "RqExprLogicalSubquery[0]/RqList[0]");
    // A detached subtree is named from its own top.
    Heap<RqExpr> expr(Add(Col(L"a", 1), Mul(Col(L"b", 1), Int(2))));
    EXPECT_EQ(U(RqNodeUtility::GetPath(expr->GetIthOperand(1)->GetIthOperand(1))),
              "RqExprAdd/RqExprMultiply[1]/RqExprIntegerLiteral[1]");
    EXPECT_EQ(U(RqNodeUtility::GetPath(nullptr)), "<null>");
}

// ---- Expression searches
// -------------------------------------------------------------------------

TEST(UtilityTest, FindEquivalentSubExprReturnsTheFirstInPreOrder) {
    // (a + b) * (a + b) - b
    Heap<RqExpr> root(
        Sub(Mul(Add(Col(L"a", 1), Col(L"b", 1)), Add(Col(L"a", 1), Col(L"b", 1))), Col(L"b", 1)));
    Heap<RqExpr> sumPattern(Add(Col(L"a", 1), Col(L"b", 1)));
    Heap<RqExpr> columnPattern(Col(L"b", 1));
    Heap<RqExpr> absent(Add(Col(L"b", 1), Col(L"a", 1)));

    RqExpr* product = root->GetIthOperand(0);
    EXPECT_EQ(SubExprFinder::FindEquivalentSubExpr(root.Get(), *sumPattern),
              product->GetIthOperand(0));
    // The first b met in pre-order is inside the product, not the right operand of the root.
    EXPECT_EQ(SubExprFinder::FindEquivalentSubExpr(root.Get(), *columnPattern),
              product->GetIthOperand(0)->GetIthOperand(1));
    EXPECT_EQ(SubExprFinder::FindEquivalentSubExpr(root.Get(), *root), root.Get());
    EXPECT_EQ(SubExprFinder::FindEquivalentSubExpr(root.Get(), *absent), nullptr);
    EXPECT_EQ(SubExprFinder::FindEquivalentSubExpr(static_cast<const RqExpr*>(nullptr), *absent),
              nullptr);
}

TEST(UtilityTest, AllDerivedColumnReferencesIncludeThoseOfSubqueries) {
    NestedRequest r;
    RqDerivedColumnReferenceVector refs;
    RqExprUtility::GetAllDerivedColumnReferences(r.m_pOuter, refs);
    ASSERT_EQ(refs.size(), 3u);
    EXPECT_EQ(refs[0]->GetDerivedColumn(), r.m_pInner->GetProjection()->GetIthColumn(0));
    EXPECT_EQ(refs[1]->GetDerivedColumn(), r.m_pInner->GetProjection()->GetIthColumn(1));
    EXPECT_EQ(refs[2]->GetParent()->GetParent()->GetParent(), r.m_pSub);

    // Results are appended.
    RqExprUtility::GetAllDerivedColumnReferences(r.m_pSub, refs);
    EXPECT_EQ(refs.size(), 4u);
    RqExprUtility::GetAllDerivedColumnReferences(r.m_pInner, refs);
    EXPECT_EQ(refs.size(), 4u);
}

// ---- Text ---------------------------------------------------------------------------------------

TEST(UtilityTest, ArithmeticIsInfixWithParenthesesOnlyWhereTheTreeNeedsThem) {
    auto a = [] { return Col(L"a", 1); };
    auto b = [] { return Col(L"b", 1); };
    auto c = [] { return Col(L"c", 1); };
    Heap<RqExpr> e1(Mul(Add(a(), b()), c()));
    Heap<RqExpr> e2(Add(a(), Mul(b(), c())));
    Heap<RqExpr> e3(Sub(a(), Sub(b(), c())));
    Heap<RqExpr> e4(Sub(Sub(a(), b()), c()));
    Heap<RqExpr> e5(Neg(Add(a(), b())));
    Heap<RqExpr> e6(Neg(Int(-5)));
    Heap<RqExpr> e7(Div(a(), Mul(b(), Neg(c()))));
    EXPECT_EQ(Text(e1.Get()), "(T1.a + T1.b) * T1.c");
    EXPECT_EQ(Text(e2.Get()), "T1.a + T1.b * T1.c");
    EXPECT_EQ(Text(e3.Get()), "T1.a - (T1.b - T1.c)");
    EXPECT_EQ(Text(e4.Get()), "T1.a - T1.b - T1.c");
    EXPECT_EQ(Text(e5.Get()), "-(T1.a + T1.b)");
    EXPECT_EQ(Text(e6.Get()), "-(-5)");
    EXPECT_EQ(Text(e7.Get()), "T1.a / (T1.b * -T1.c)");
}

TEST(UtilityTest, ConditionsReadLikeSql) {
    auto a = [] { return Col(L"a", 1); };
    Heap<RqExpr> e1(
        And(Or(Eq(a(), Int(1)), Ne(Col(L"b", 1), Str(L"x"))), Not(IsNull(Col(L"c", 1)))));
    Heap<RqExpr> e2(Or(Lt(a(), Int(1)), And(Ge(a(), Int(5)), Le(a(), Float(7.5)))));
    Heap<RqExpr> e3(Between(a(), Int(1), Add(Int(2), Int(3))));
    Heap<RqExpr> e4(Like(Col(L"name", 2), Str(L"A%")));
    Heap<RqExpr> e5(In(a(), {Int(1), Int(2), Null()}));
    Heap<RqExpr> e6(Eq(Gt(a(), Int(1)), Eq(a(), Int(2))));
    Heap<RqExpr> e7(Not(Not(Eq(a(), Int(1)))));
    EXPECT_EQ(Text(e1.Get()), "(T1.a = 1 OR T1.b <> 'x') AND NOT (T1.c IS NULL)");
    EXPECT_EQ(Text(e2.Get()), "T1.a < 1 OR T1.a >= 5 AND T1.a <= 7.5");
    EXPECT_EQ(Text(e3.Get()), "T1.a BETWEEN 1 AND 2 + 3");
    EXPECT_EQ(Text(e4.Get()), "T2.name LIKE 'A%'");
    EXPECT_EQ(Text(e5.Get()), "T1.a IN (1, 2, NULL)");
    EXPECT_EQ(Text(e6.Get()), "(T1.a > 1) = (T1.a = 2)");
    EXPECT_EQ(Text(e7.Get()), "NOT (NOT (T1.a = 1))");
}

TEST(UtilityTest, FunctionsLiteralsAndLeaves) {
    Heap<RqExpr> upper(RQ_NEW RqExprUpper(Col(L"name", 2)));
    Heap<RqExpr> substring(RQ_NEW RqExprSubstring(Col(L"name", 2), Int(1), Int(3)));
    Heap<RqExpr> pi(RQ_NEW RqExprPi());
    Heap<RqExpr> cast(RQ_NEW RqExprCast(Add(Col(L"a", 1), Int(1)), L"VARCHAR(10)"));
    Heap<RqExpr> quote(Str(L"it's\nhere"));
    Heap<RqExpr> date(RQ_NEW RqExprDateLiteral(L"2024-02-29"));
    Heap<RqExpr> stamp(RQ_NEW RqExprDateTimeLiteral(L"2024-02-29 10:00:00"));
    Heap<RqExpr> number(RQ_NEW RqExprNumberLiteral(L"12.50"));
    Heap<RqExpr> param(Param(L"year"));
    Heap<RqExpr> var(RQ_NEW RqExprSessionVar(L"USER"));
    Heap<RqExpr> attribute(RQ_NEW RqAttribute(VoidID(7, 2), L"Region"));
    Heap<RqExpr> unnamed(RQ_NEW RqExprLevel(VoidID(7, 3), L""));
    Heap<RqExpr> data(RQ_NEW RqExprExternalData(RqExprExternalData::kCSVData, L"a,b\n1,2"));
    Heap<RqExpr> list(RQ_NEW RqExprColumnList(RqExprVector{Col(L"a", 1), Col(L"b", 1)}));
    Heap<RqExpr> absent(RQ_NEW RqExprCoalesce({Col(L"a", 1), nullptr}));

    EXPECT_EQ(Text(upper.Get()), "UPPER(T2.name)");
    EXPECT_EQ(Text(substring.Get()), "SUBSTRING(T2.name, 1, 3)");
    EXPECT_EQ(Text(pi.Get()), "PI()");
    EXPECT_EQ(Text(cast.Get()), "CAST(T1.a + 1 AS VARCHAR(10))");
    EXPECT_EQ(Text(quote.Get()), "'it''s\\nhere'");
    EXPECT_EQ(Text(date.Get()), "DATE '2024-02-29'");
    EXPECT_EQ(Text(stamp.Get()), "TIMESTAMP '2024-02-29 10:00:00'");
    EXPECT_EQ(Text(number.Get()), "12.50");
    EXPECT_EQ(Text(param.Get()), "PARAM(year)");
    EXPECT_EQ(Text(var.Get()), "SESSIONVAR(USER)");
    EXPECT_EQ(Text(attribute.Get()), "ATTRIBUTE(Region)");
    EXPECT_EQ(Text(unnamed.Get()), "LEVEL(7:3)");
    EXPECT_EQ(Text(data.Get()), "EXTERNALDATA(CSV, 7 chars)");
    EXPECT_EQ(Text(list.Get()), "(T1.a, T1.b)");
    EXPECT_EQ(Text(absent.Get()), "COALESCE(T1.a, <none>)");
    EXPECT_EQ(Text(nullptr), "<null>");
}

TEST(UtilityTest, AggregatesShowDistinctByListComputeBreakAndSortKeys) {
    auto a = [] { return Col(L"a", 1); };
    auto b = [] { return Col(L"b", 1); };
    Heap<RqExpr> plain(Sum(a()));
    Heap<RqExpr> grouped(Sum(a(), By({b(), Col(L"c", 1)})));
    Heap<RqExpr> total(CountStar(By({})));
    Heap<RqExpr> distinct(Distinct(Count(a(), By({b()}))));
    RqExprAggrMax* atBreak = Max(Add(a(), Int(1)), By({b()}), ComputeBreak({Col(L"c", 1)}));
    atBreak->SetDistinctComputeBreak(true);
    Heap<RqExpr> breakOwner(atBreak);
    Heap<RqExpr> rank(SortedBy(Aggr<RqExprAggrRank>(a(), By({})),
                               {{3, RqSortSpec::kDesc}, {0, RqSortSpec::kAsc}}));
    Heap<RqExpr> nested(Div(Sum(a()), Count(a())));

    EXPECT_EQ(Text(plain.Get()), "SUM(T1.a)");
    EXPECT_EQ(Text(grouped.Get()), "SUM(T1.a BY (T1.b, T1.c))");
    EXPECT_EQ(Text(total.Get()), "COUNT(* BY ())");
    EXPECT_EQ(Text(distinct.Get()), "COUNT(DISTINCT T1.a BY (T1.b))");
    EXPECT_EQ(Text(breakOwner.Get()), "MAX(T1.a + 1 BY (T1.b) AT DISTINCT (T1.c))");
    EXPECT_EQ(Text(rank.Get()), "RANK(T1.a BY () ORDER BY (#3 DESC, #0 ASC))");
    EXPECT_EQ(Text(nested.Get()), "SUM(T1.a) / COUNT(T1.a)");
}

TEST(UtilityTest, ColumnsNameTheirTableOrTheirBlock) {
    auto repository = std::make_shared<RpRepository>();
    RefADatabase db = repository->AddDatabase(L"warehouse", ServerInfo::kRowStoreDatabase);
    RefATable table = repository->AddTable(db, L"dbo", L"SALES");
    RefAColumn amount = repository->AddColumn(table, L"AMOUNT");
    RpSession session(repository);

    Heap<RqExpr> unnamed(RQ_NEW RqTargetColumn(amount->GetID(), L"", 2));
    Heap<RqExpr> named(RQ_NEW RqTargetColumn(amount->GetID(), L"amt", 2));
    EXPECT_EQ(Text(unnamed.Get(), &session), "T2.AMOUNT");
    EXPECT_EQ(Text(unnamed.Get()), "T2.{" + U(amount->GetID().ToString()) + "}");
    EXPECT_EQ(Text(named.Get(), &session), "T2.amt");

    NestedRequest r;
    RqExpr* outerFirst = r.m_pOuter->GetProjection()->GetIthColumn(0)->GetExpr();
    const int innerNum = r.m_pInner->GetProjection()->GetIthColumn(0)->GetColumnNum();
    EXPECT_EQ(Text(outerFirst), "inner.#" + std::to_string(innerNum));
    r.m_pInner->SetLabel(L"");
    EXPECT_EQ(Text(outerFirst), "L?.#" + std::to_string(innerNum));
    Heap<RqExpr> dangling(RQ_NEW RqDerivedColumnReference());
    EXPECT_EQ(Text(dangling.Get()), "L?.#?");

    Heap<RqNode> atomic(Table(table->GetID(), 4));
    const std::string id = U(table->GetID().ToString());
    EXPECT_EQ(Text(atomic.Get(), &session), "RqAtomicTable T4 id=" + id + " name=SALES");
    EXPECT_EQ(Text(atomic.Get()), "RqAtomicTable T4 id=" + id);
}

TEST(UtilityTest, NodesOtherThanExpressionsGetAShortDescription) {
    NestedRequest r;
    r.m_pOuter->SetDistinct(true);
    r.m_pOuter->SetRowLimit(10);
    r.m_pOuter->SetOrderBy(
        RQ_NEW RqOrderBy({RQ_NEW RqSortSpec(1, RqSortSpec::kDesc), RQ_NEW RqSortSpec(0)}));
    RqDerivedColumn* second = r.m_pOuter->GetProjection()->GetIthColumn(1);
    const std::string num = std::to_string(second->GetColumnNum());
    const std::string sumNum =
        std::to_string(r.m_pInner->GetProjection()->GetIthColumn(1)->GetColumnNum());

    EXPECT_EQ(Text(r.m_pOuter), "RqList label=outer distinct limit=10");
    EXPECT_EQ(Text(second), "RqDerivedColumn #" + num + ": inner.#" + sumNum + " + 1");
    EXPECT_EQ(Text(r.m_pOuter->GetOrderBy()), "RqOrderBy (#1 DESC, #0 ASC)");
    EXPECT_EQ(Text(r.m_pInner->GetGroupBy()), "RqGroupBy: (T1.a)");
    EXPECT_EQ(Text(r.m_pOuter->GetDetailFilter()),
              "RqDetailFilter: EXISTS(LOGICALSUBQUERY(RqList label=sub))");
    EXPECT_EQ(Text(r.m_pInner->GetParent()), "RqDerivedTable T3");
    EXPECT_EQ(Text(r.m_pInner->GetJoinSpec()->GetIthTableReference(0)), "RqTableReference INNER");
    EXPECT_EQ(Text(r.m_request.Get()), "RqHandleNode");

    RqExprVector pair{r.m_pInner->GetProjection()->GetIthColumn(0)->GetExpr(), second->GetExpr()};
    EXPECT_EQ(U(ToString(pair)), "(T1.a, inner.#" + sumNum + " + 1)");
    EXPECT_EQ(U(ToString(RqExprVector{})), "()");
}
