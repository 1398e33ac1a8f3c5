// Tree searches, ancestor lookups, the block a block reads, node paths and the one-line text
// of nodes and expressions.

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <type_traits>

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

RqList* Leaf(const wchar_t* label, int tableNum) {
    return Block()
        .Label(label)
        .Select(Col(L"a", tableNum))
        .From(Table(VoidID(3, 1), tableNum))
        .Build();
}

// A blank node of every kind that has a class, each made by its default constructor.
RqNode* MakeBlank(RqNodeType_e kind) {
    switch (kind) {
#define RQ_BLANK(kind, cls)                                 \
    case kind:                                              \
        if constexpr (std::is_default_constructible_v<cls>) \
            return RQ_NEW cls();                            \
        return nullptr;
#define RQ_BLANK_G(kind, cls) RQ_BLANK(kind, cls)
#define RQ_BLANK_H(kind, cls) RQ_BLANK(kind, cls)
#define RQ_BLANK_A(kind, cls)
#define RQ_BLANK_N(kind, cls)
#define RQ_BLANK_ROW_K(kind, cls, decl) RQ_BLANK_##decl(kind, cls)
#define RQ_BLANK_ROW_C(kind, cls, decl)
#define RQ_BLANK_ROW_M(kind, cls, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_BLANK_ROW_##row(kind, cls, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_BLANK_ROW_K
#undef RQ_BLANK_ROW_C
#undef RQ_BLANK_ROW_M
#undef RQ_BLANK_G
#undef RQ_BLANK_H
#undef RQ_BLANK_A
#undef RQ_BLANK_N
#undef RQ_BLANK
        default:
            return nullptr;
    }
}

// The kinds whose classes are generated from the kind table: their only state is their
// operands.
std::set<int> GeneratedKinds() {
    std::set<int> kinds;
#define RQ_GEN_ROW_K_G(value) kinds.insert(value);
#define RQ_GEN_ROW_K_H(value)
#define RQ_GEN_ROW_K_A(value)
#define RQ_GEN_ROW_K_N(value)
#define RQ_GEN_ROW_C_A(value)
#define RQ_GEN_ROW_M_N(value)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_GEN_ROW_##row##_##decl(value)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_GEN_ROW_K_G
#undef RQ_GEN_ROW_K_H
#undef RQ_GEN_ROW_K_A
#undef RQ_GEN_ROW_K_N
#undef RQ_GEN_ROW_C_A
#undef RQ_GEN_ROW_M_N
    return kinds;
}

}  // namespace

// ---- Collectors -------------------------------------------------------------------------------

TEST(UtilityTest, FindNodesIsPreOrderFromTheRootAndCanStopAtMatches) {
    NestedRequest r;
    RqNodeVector lists;
    FindNodes(r.m_request.Get(), RqNode::IsObjectType(kRqList), lists);
    // The outer block's WHERE clause comes after its FROM clause.
    EXPECT_EQ(lists, (RqNodeVector{r.m_pOuter, r.m_pInner, r.m_pSub}));
    RqNodeVector self;
    FindNodes(r.m_pInner, RqNode::IsObjectType(kRqAbstractList), self);
    EXPECT_EQ(self, RqNodeVector{r.m_pInner});
    RqNodeVector outermost;
    FindNodes(r.m_request.Get(), RqNode::IsObjectType(kRqAbstractList), outermost, false);
    EXPECT_EQ(outermost, RqNodeVector{r.m_pOuter});

    // Predicates on mutable or constant nodes; kind tests include derived kinds.
    RqNodeVector aggregates;
    FindNodes(
        r.m_request.Get(), [](RqNode* node) { return RqNode::IsAggrNode(node); }, aggregates);
    ASSERT_EQ(aggregates.size(), 1u);
    EXPECT_EQ(aggregates[0]->GetObjectType(), kRqExprAggrSum);
    const RqNode* root = r.m_request.Get();
    EXPECT_TRUE(FoundNodes(root, RqNode::IsObjectType({kRqUnion, kRqExprCond})));
    EXPECT_FALSE(FoundNodes(r.m_pSub, RqNode::IsObjectType(kRqExprAggr)));
    EXPECT_TRUE(FoundNodes(root, [](RqNode* node) { return node->IsRqList(); }));
    EXPECT_FALSE(FoundNodes(nullptr, RqNode::IsObjectType(kRqList)));
}

TEST(UtilityTest, FindTableNodesTakesOutermostMatchesOrEveryMatchWhenAskedToDescend) {
    // union all { union all { A, B }, C }, C over a derived table over D.
    RqList* a = Leaf(L"A", 1);
    RqList* b = Leaf(L"B", 2);
    RqList* d = Leaf(L"D", 4);
    RqList* c = Block().Label(L"C").Select(Col(L"a", 3)).From(Derived(d, 3)).Build();
    RqUnion* inner = Union({a, b}, true);
    Heap<RqHandleNode> request(Request(Union({inner, c}, true)));

    std::vector<RqUnion*> unions;
    FindTableNodes<RqUnion>(request.Get(), RqNode::IsObjectType(kRqUnion), unions);
    EXPECT_EQ(unions, std::vector<RqUnion*>{static_cast<RqUnion*>(request->GetRqNode())});
    unions.clear();
    FindTableNodes<RqUnion>(request.Get(), RqNode::IsObjectType(kRqUnion), unions, true);
    EXPECT_EQ(unions, (std::vector<RqUnion*>{static_cast<RqUnion*>(request->GetRqNode()), inner}));

    std::vector<RqList*> blocks;
    FindTableNodes<RqList>(request.Get(), RqNode::IsObjectType(kRqList), blocks);
    EXPECT_EQ(blocks, (std::vector<RqList*>{a, b, c}));
    blocks.clear();
    FindTableNodes<RqList>(request.Get(), RqNode::IsObjectType(kRqList), blocks, true);
    EXPECT_EQ(blocks, (std::vector<RqList*>{a, b, c, d}));
}

TEST(UtilityTest, CollectorsAndTextWalkVeryDeepTreesWithoutRecursion) {
    // A left-deep chain of 100000 ANDs would overflow a recursive walk.
    const int depth = 100000;
    RqExpr* chain = Eq(Col(L"a", 1), Int(0));
    for (int i = 1; i <= depth; ++i)
        chain = And(chain, Eq(Col(L"a", 1), Int(i)));
    Heap<RqExpr> owner(chain);
    RqNodeVector literals;
    FindNodes(chain, RqNode::IsObjectType(kRqExprIntegerLiteral), literals);
    ASSERT_EQ(literals.size(), static_cast<size_t>(depth + 1));
    EXPECT_FALSE(FoundNodes(chain, RqNode::IsObjectType(kRqExprCondOr)));
    const std::string text = Text(chain);
    EXPECT_EQ(text.substr(0, 25), "T1.a = 0 AND T1.a = 1 AND");
    EXPECT_EQ(text.substr(text.size() - 13), "T1.a = 100000");
}

// ---- Ancestors, child blocks and paths ----------------------------------------------------------

TEST(UtilityTest, ParentSearchesFindTheNearestStrictAncestor) {
    NestedRequest r;
    RqDerivedColumn* innerColumn = r.m_pInner->GetProjection()->GetIthColumn(1);
    RqExpr* sum = innerColumn->GetExpr();
    EXPECT_EQ(RqNodeUtility::GetParentRqList(sum), r.m_pInner);
    EXPECT_EQ(RqNodeUtility::GetParentRqList(r.m_pInner), r.m_pOuter) << "never the node itself";
    EXPECT_EQ(RqNodeUtility::GetParentRqList(r.m_pOuter), nullptr);
    EXPECT_EQ(RqNodeUtility::GetParentRqList(r.m_pSub), r.m_pOuter);
    EXPECT_EQ(RqNodeUtility::GetParentAbstractList(r.m_pSub->GetProjection()), r.m_pSub);
    EXPECT_EQ(RqNodeUtility::GetParentNodeOfType(
                  sum, RqNode::IsObjectType({kRqDerivedColumn, kRqJoinSpec})),
              innerColumn);
    EXPECT_EQ(RqNodeUtility::GetParentNodeOfType(sum, RqNode::IsObjectType(kRqNullNode)), nullptr);
    EXPECT_EQ(RqNodeUtility::GetRoot(sum), r.m_request.Get());
    EXPECT_TRUE(RqNodeUtility::IsAncestorOrSelf(r.m_pOuter, sum));
    EXPECT_TRUE(RqNodeUtility::IsAncestorOrSelf(sum, sum));
    EXPECT_FALSE(RqNodeUtility::IsAncestorOrSelf(r.m_pSub, sum));
}

TEST(UtilityTest, ChildRqListIsTheBlockTheFromClauseReadsAndNothingDeeper) {
    // A subquery in the projection and one in the WHERE clause are not what a block reads.
    RqList* inner = Leaf(L"inner", 1);
    RqList* outer = Block()
                        .Select(Subquery(Leaf(L"select", 5)))
                        .From(Table(VoidID(3, 2), 2))
                        .Join(SqlTableRef::kLeftOuterJoin, Table(VoidID(3, 3), 3),
                              Derived(inner, 4), Exists(Leaf(L"on", 6)))
                        .Where(Exists(Leaf(L"where", 7)))
                        .Build();
    Heap<RqHandleNode> request(Request(outer));
    EXPECT_EQ(RqNodeUtility::GetChildRqList(outer), inner);
    RqTableReference* join = outer->GetJoinSpec()->GetIthTableReference(1);
    EXPECT_EQ(RqNodeUtility::GetChildRqList(outer->GetJoinSpec()), inner);
    EXPECT_EQ(RqNodeUtility::GetChildRqList(join), inner);
    EXPECT_EQ(RqNodeUtility::GetChildRqList(join->GetRightNode()), inner);
    EXPECT_EQ(RqNodeUtility::GetChildRqList(inner), nullptr) << "a FROM clause of tables only";
    EXPECT_EQ(RqNodeUtility::GetChildRqList(request.Get()), nullptr) << "not a block";

    // The lists below a node, outermost first and subqueries included, are another question.
    RqAbstractListVector lists;
    RqNodeUtility::GetChildRqLists(outer, lists);
    ASSERT_EQ(lists.size(), 4u);
    EXPECT_EQ(lists[1], inner);

    // The first derived table decides: over a set operation or a break filter there is no one
    // block, so the answer is null even when a later derived table reads a block.
    for (RqAbstractList* first :
         {static_cast<RqAbstractList*>(Union({Leaf(L"u1", 1), Leaf(L"u2", 2)}, true)),
          static_cast<RqAbstractList*>(BreakFilter(Leaf(L"b", 1), {0}))}) {
        Heap<RqList> block(Block()
                               .Select(Int(1))
                               .From(Derived(first, 1))
                               .From(Derived(Leaf(L"later", 2), 2))
                               .Build());
        EXPECT_EQ(RqNodeUtility::GetChildRqList(block.Get()), nullptr) << Text(first);
    }
}

TEST(UtilityTest, PathNamesKindsAndChildIndexesFromTheRoot) {
    NestedRequest r;
    EXPECT_EQ(U(RqNodeUtility::GetPath(r.m_request.Get())), "RqHandleNode");
    EXPECT_EQ(U(RqNodeUtility::GetPath(r.m_pSub)),
              "RqHandleNode/RqList[0]/RqDetailFilter[2]/RqExprCondExists[0]/"
              "RqExprLogicalSubquery[0]/RqList[0]");
    // A detached subtree is named from its own top.
    Heap<RqExpr> expr(Add(Col(L"a", 1), Mul(Col(L"b", 1), Int(2))));
    EXPECT_EQ(U(RqNodeUtility::GetPath(expr->GetIthOperand(1)->GetIthOperand(1))),
              "RqExprAdd/RqExprMultiply[1]/RqExprIntegerLiteral[1]");
    EXPECT_EQ(U(RqNodeUtility::GetPath(nullptr)), "<null>");
}

// ---- Expression searches ----------------------------------------------------------------------

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
    EXPECT_EQ(SubExprFinder::FindEquivalentSubExpr(root.Get(), *columnPattern),
              product->GetIthOperand(0)->GetIthOperand(1));
    EXPECT_EQ(SubExprFinder::FindEquivalentSubExpr(root.Get(), *absent), nullptr);
}

TEST(UtilityTest, AllDerivedColumnReferencesIncludeThoseOfSubqueries) {
    NestedRequest r;
    RqDerivedColumnReferenceVector refs;
    RqExprUtility::GetAllDerivedColumnReferences(r.m_pOuter, refs);
    ASSERT_EQ(refs.size(), 3u);
    EXPECT_EQ(refs[1]->GetDerivedColumn(), r.m_pInner->GetProjection()->GetIthColumn(1));
    EXPECT_EQ(RqNodeUtility::GetParentRqList(refs[2]), r.m_pSub);
    RqExprUtility::GetAllDerivedColumnReferences(r.m_pSub, refs);
    EXPECT_EQ(refs.size(), 4u) << "results are appended";
}

// ---- Text -------------------------------------------------------------------------------------

TEST(UtilityTest, OperatorsTakeParenthesesOnlyWhereTheirOperandsBindMoreWeakly) {
    auto a = [] { return Col(L"a", 1); };
    auto b = [] { return Col(L"b", 1); };
    auto c = [] { return Col(L"c", 1); };
    auto concat = [](RqExpr* x, RqExpr* y) { return RQ_NEW RqExprConcat(x, y); };
    const std::vector<std::pair<RqExpr*, std::string>> cases = {
        {Mul(Add(a(), b()), c()), "(T1.a + T1.b) * T1.c"},
        {Add(a(), Mul(b(), c())), "T1.a + T1.b * T1.c"},
        {Sub(a(), Sub(b(), c())), "T1.a - (T1.b - T1.c)"},
        {Sub(Sub(a(), b()), c()), "T1.a - T1.b - T1.c"},
        {Neg(Add(a(), b())), "-(T1.a + T1.b)"},
        {Neg(Int(-5)), "-(-5)"},
        {Div(a(), Mul(b(), Neg(c()))), "T1.a / (T1.b * -T1.c)"},
        {concat(a(), Add(b(), c())), "T1.a || (T1.b + T1.c)"},
        {Mul(a(), concat(b(), concat(c(), a()))), "T1.a * T1.b || T1.c || T1.a"},
        {Neg(concat(a(), b())), "-(T1.a || T1.b)"},
        {And(Or(Eq(a(), Int(1)), Ne(b(), Str(L"x"))), Not(IsNull(c()))),
         "(T1.a = 1 OR T1.b <> 'x') AND NOT T1.c IS NULL"},
        {Or(Lt(a(), Int(1)), And(Ge(a(), Int(5)), Le(a(), Float(7.5)))),
         "T1.a < 1 OR T1.a >= 5 AND T1.a <= 7.5"},
        {And(Eq(a(), Int(1)), And(Eq(b(), Int(2)), Eq(c(), Int(3)))),
         "T1.a = 1 AND T1.b = 2 AND T1.c = 3"},
        {Not(Or(Eq(a(), Int(1)), Not(Eq(b(), Int(2))))), "NOT (T1.a = 1 OR NOT T1.b = 2)"},
        {Eq(Gt(a(), Int(1)), Eq(a(), Int(2))), "(T1.a > 1) = (T1.a = 2)"},
        {Between(a(), Int(1), Add(Int(2), Int(3))), "T1.a BETWEEN 1 AND 2 + 3"},
        {Like(Col(L"name", 2), Str(L"A%")), "T2.name LIKE 'A%'"},
        {In(a(), {Int(1), Int(2), Null()}), "T1.a IN (1, 2, NULL)"},
        {RQ_NEW RqExprCondAllGreaterEqual(Add(a(), b()), Subquery(Leaf(L"s", 2))),
         "T1.a + T1.b >= ALL LOGICALSUBQUERY(RqList label=s)"},
        {RQ_NEW RqExprAdd(a()), "ADD(T1.a)"},
    };
    for (const auto& [expr, expected] : cases) {
        Heap<RqExpr> owner(expr);
        EXPECT_EQ(Text(expr), expected);
    }
}

TEST(UtilityTest, EveryKindGetsADeliberateTextForm) {
    const std::set<int> generated = GeneratedKinds();
    for (int value = 0; value < kRqNodeTypeCount; ++value) {
        ASSERT_TRUE(RqIsNodeTypeValue(value));
        const auto kind = static_cast<RqNodeType_e>(value);
        const RqExprTextForm form = GetExprTextForm(kind);
        SCOPED_TRACE(RqNodeTypeName(kind));
        if (RqIsAbstractNodeType(kind)) {
            EXPECT_EQ(form, RqExprTextForm::kNone);
            continue;
        }
        Heap<RqNode> blank(MakeBlank(kind));
        ASSERT_NE(blank.Get(), nullptr) << "every class can be made blank";
        const std::string text = Text(blank.Get());
        if (!RqIsExprType(kind)) {
            EXPECT_EQ(form, RqExprTextForm::kNone);
            EXPECT_EQ(text.substr(0, std::string(RqNodeTypeName(kind)).size()),
                      RqNodeTypeName(kind));
            continue;
        }
        EXPECT_NE(form, RqExprTextForm::kNone);
        EXPECT_FALSE(text.empty());
        // The function form shows operands only: a class with fields of its own (written by
        // hand) must have a form that shows them.
        if (form == RqExprTextForm::kFunction) {
            EXPECT_TRUE(generated.count(value) != 0) << "printed as a plain function";
        }
    }
}
