// Equivalence of request-tree nodes and the orderings built on it: every field of every kind
// that changes a node's meaning tells nodes apart and no other field does, operands and
// references count by what they are, NaN keeps the order a strict weak order, and grouping
// sets compare as sets.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "../../server/Query/Optimizer/RequestText/Src/SQORTextRequestInternal.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"

namespace {

using namespace rqb;
// The repository's Ref<T> template would make a plain `Ref` ambiguous.
using rqb::Ref;

// One field of some classes: a node of a given kind that differs from the blank node of the
// kind in that field alone (null when the kind's class has no such field), and whether the
// difference changes the node's meaning.
struct Change {
    const char* m_name;
    bool m_bMatters;
    std::function<RqNode*(RqNodeType_e)> m_make;
};

// Sets the field on a blank node of any kind whose class is a T.
template <class T>
Change Set(const char* name, bool bMatters, std::function<void(T&)> set) {
    return {name, bMatters, [set](RqNodeType_e kind) -> RqNode* {
                Heap<RqNode> node(rqtext::MakeBlankNode(kind));
                T* typed = RqDynCast<T>(node.Get());
                if (typed == nullptr)
                    return nullptr;
                set(*typed);
                return node.Release();
            }};
}

// For classes that take the field only at construction: a node of T's own kind.
template <class T>
Change Make(const char* name, bool bMatters, std::function<T*()> make) {
    return {name, bMatters, [make](RqNodeType_e kind) -> RqNode* {
                if (kind != T::kKind)
                    return nullptr;
                T* node = make();
                node->SetNumChildren(0);  // as blank as the blank node
                return node;
            }};
}

template <class T, class V>
Change Value(V value) {
    return Set<T>("value", true, [value](T& literal) { literal.SetValue(value); });
}

template <class T>
std::vector<Change> IdAndName() {
    return {Make<T>("id", true, [] { return RQ_NEW T(VoidID(7, 1), ZKString()); }),
            Make<T>("name", true, [] { return RQ_NEW T(VoidID(), L"n"); })};
}

// The name of write requests and the other named request nodes.
Change NodeName() {
    return {"name", true, [](RqNodeType_e kind) -> RqNode* {
                Heap<RqNode> node(rqtext::MakeBlankNode(kind));
                return node && rqtext::SetNodeName(*node, "n") ? node.Release() : nullptr;
            }};
}

// Link targets outside every compared node.
struct Outside {
    RqDerivedColumn m_column;
    RqJoinNode m_joinNode;
    RqList m_list;
};

std::vector<Change> Changes(Outside& out) {
    std::vector<Change> changes = {
        Set<RqNode>("target", false,
                    [](RqNode& n) { n.MarkTargetType(ServerInfo::TargetType(7)); }),
        Set<RqTargetColumn>("column id", true, [](auto& c) { c.SetColumnID(VoidID(4, 1)); }),
        Set<RqTargetColumn>("table number", true, [](auto& c) { c.SetTableNum(3); }),
        Set<RqTargetColumn>("name", true, [](auto& c) { c.SetName(L"n"); }),
        Set<RqDerivedColumnReference>("column", true,
                                      [&out](auto& r) { r.SetDerivedColumn(&out.m_column); }),
        Value<RqExprStringLiteral>(L"x"),
        Value<RqExprDateLiteral>(L"x"),
        Value<RqExprTimeLiteral>(L"x"),
        Value<RqExprDateTimeLiteral>(L"x"),
        Value<RqExprIntervalLiteral>(L"x"),
        Value<RqExprNumberLiteral>(L"x"),
        Value<RqExprIntegerLiteral>(1),
        Value<RqExprFloatLiteral>(std::nan("")),
        Set<RqExprParam>("name", true, [](auto& p) { p.SetName(L"n"); }),
        Set<RqExprSessionVar>("name", true, [](auto& v) { v.SetName(L"n"); }),
        Set<RqExprCast>("type name", true, [](auto& c) { c.SetTypeName(L"INT"); }),
        Make<RqExprExternalData>(
            "form", true,
            [] { return RQ_NEW RqExprExternalData(RqExprExternalData::kCSVData, L""); }),
        Make<RqExprExternalData>(
            "data", true,
            [] { return RQ_NEW RqExprExternalData(RqExprExternalData::kUnknownData, L"x"); }),
        Make<RqExprColumnList>("sorted", false,
                               [] { return RQ_NEW RqExprColumnList({}, true, true); }),
        Set<RqExprAggr>("distinct", true, [](auto& a) { a.SetDistinctAggregation(true); }),
        Set<RqExprAggr>("sql99", true, [](auto& a) { a.SetSQL99Aggregation(true); }),
        Set<RqExprAggr>("distinct compute break", true,
                        [](auto& a) { a.SetDistinctComputeBreak(true); }),
        Set<RqExprAggr>("explicit grain", true, [](auto& a) { a.SetExplicitGrain(true); }),
        Set<RqExprAggr>("analytic", true, [](auto& a) { a.SetAnalytic(true); }),
        Set<RqExprAggr>("instantiated", false, [](auto& a) { a.SetInstantiated(false); }),
        Set<RqExprSortDependentAggr>("sort keys", true,
                                     [](auto& a) {
                                         a.SetSortSpec({{0, RqSortSpec::kDesc}});
                                     }),
        Set<RqDerivedColumn>("column number", true, [](auto& c) { c.SetColumnNum(5); }),
        Set<RqDerivedColumn>("break status", true, [](auto& c) { c.SetBreakStatus(2); }),
        Set<RqSortSpec>("column number", true, [](auto& s) { s.SetColumnNumber(5); }),
        Set<RqSortSpec>("direction", true, [](auto& s) { s.SetSortDirection(RqSortSpec::kDesc); }),
        Set<RqSortSpec>("null order", true,
                        [](auto& s) { s.SetNullSortDirection(RqSortSpec::kFirst); }),
        Set<RqSortSpec>("case insensitive", true, [](auto& s) { s.SetCaseInsensitive(true); }),
        Set<RqSortSpec>("logical", false, [](auto& s) { s.SetLogicalSelectListStatus(true); }),
        Set<RqGroupBy>("grouping sets", true, [](auto& g) { g.AddGroupingSet({}); }),
        Set<RqGroupBy>("mode", false,
                       [](auto& g) { g.SetInternalExecutionMode(RqGroupBy::kHash); }),
        Set<RqTableReference>("join type", true,
                              [](auto& t) { t.SetJoinType(SqlTableRef::kLeftOuterJoin); }),
        Set<RqTableReference>("left join columns", true,
                              [](auto& t) { t.SetLeftJoinColumnIndexes({1}); }),
        Set<RqTableReference>("right join columns", true,
                              [](auto& t) { t.SetRightJoinColumnIndexes({1}); }),
        Set<RqTableReference>(
            "driving", false,
            [](auto& t) { t.SetDrivingTableHint(RqTableReference::kDriving_LeftTable); }),
        Make<RqJoinNode>("preserved", true, [] { return RQ_NEW RqJoinNode(nullptr, true); }),
        Make<RqJoinLink>("from", true,
                         [&out] { return RQ_NEW RqJoinLink(&out.m_joinNode, nullptr); }),
        Make<RqJoinLink>("to", true,
                         [&out] { return RQ_NEW RqJoinLink(nullptr, &out.m_joinNode); }),
        Set<RqAbstractTable>("table number", true, [](auto& t) { t.SetTableNum(2); }),
        Set<RqIdentifiedTable>("table id", true, [](auto& t) { t.SetTableID(VoidID(3, 1)); }),
        Set<RqTransientOpaqueTable>("types", false, [](auto& t) { t.AddColumnTypeInfos({L"I"}); }),
        Set<RqDerivedTable>("nesting", false, [](auto& t) { t.SetNestingLevel(2); }),
        Make<RqExternalTable>("name", true, [] { return RQ_NEW RqExternalTable(L"n"); }),
        Set<RqAbstractList>("row offset", true, [](auto& l) { l.SetRowOffset(1); }),
        Set<RqAbstractList>("row limit", true, [](auto& l) { l.SetRowLimit(1); }),
        Set<RqAbstractList>("label", false, [](auto& l) { l.SetLabel(L"x"); }),
        Set<RqAbstractList>("shared", false, [](auto& l) { l.SetShared(true); }),
        Set<RqList>("distinct", true, [](auto& l) { l.SetDistinct(true); }),
        Set<RqList>("artifact", false, [](auto& l) { l.SetArtifactListNode(true); }),
        Set<RqUnion>("all", true, [](auto& u) { u.SetAll(true); }),
        Set<RqIntersect>("all", true, [](auto& i) { i.SetAll(true); }),
        Set<RqExcept>("all", true, [](auto& e) { e.SetAll(true); }),
        Set<RqSharedList>("shared list", true, [&out](auto& s) { s.SetSharedRqList(&out.m_list); }),
        Set<RqBreakFilter>("break columns", true, [](auto& f) { f.SetBreakColumnIndexes({0}); }),
        Set<RqCacheList>("marker", false, [](auto& c) { c.SetMarker(L"m"); }),
        Set<RqCache>("logical plan", true, [](auto& c) { c.SetLogicalPlan({1}); }),
        Set<RqOrderBy>("sticky", false, [](auto& o) { o.SetSticky(true); }),
        Make<RqProjection>("next number", false, [] { return RQ_NEW RqProjection(9); }),
        NodeName(),
    };
    for (auto& more : {IdAndName<RqAttribute>(), IdAndName<RqExprDimension>(),
                       IdAndName<RqExprLevel>(), IdAndName<RqEntity>()}) {
        changes.insert(changes.end(), more.begin(), more.end());
    }
    return changes;
}

TEST(Equivalence, EveryKindIsToldApartByTheFieldsThatChangeItsMeaningAlone) {
    Outside out;
    const std::vector<Change> changes = Changes(out);
    for (int value = 0; value < kRqNodeTypeCount; ++value) {
        const auto kind = static_cast<RqNodeType_e>(value);
        if (!RqIsNodeTypeValue(value) || RqIsAbstractNodeType(kind))
            continue;
        const char* kindName = RqNodeTypeName(kind);
        Heap<RqNode> blank(rqtext::MakeBlankNode(kind));
        std::set<std::string> compared;
        for (const char* name : RqEquivalence::ComparedFields(kind))
            compared.insert(name);
        std::set<std::string> matters;
        for (const Change& change : changes) {
            Heap<RqNode> changed(change.m_make(kind));
            if (!changed)
                continue;
            if (change.m_bMatters)
                matters.insert(change.m_name);
            const int c = RqEquivalence::Compare(blank.Get(), changed.Get());
            EXPECT_EQ(c == 0, !change.m_bMatters) << kindName << ": " << change.m_name;
            EXPECT_EQ(RqEquivalence::Compare(changed.Get(), blank.Get()), -c) << kindName;
        }
        // The fields the equivalence compares are exactly those this test changes.
        EXPECT_EQ(compared, matters) << kindName;
    }
}

// Strict weak order: irreflexive, transitive, and incomparability (equivalence) transitive.
void ExpectStrictWeakOrder(const std::vector<Heap<RqExpr>>& exprs) {
    const LessEquivalentRqExpr less;
    auto same = [&](const RqExpr& a, const RqExpr& b) { return !less(a, b) && !less(b, a); };
    for (const auto& a : exprs) {
        EXPECT_FALSE(less(*a, *a));
        for (const auto& b : exprs) {
            EXPECT_EQ(same(*a, *b), RqEquivalence()(*a, *b));
            for (const auto& c : exprs) {
                EXPECT_TRUE(!less(*a, *b) || !less(*b, *c) || less(*a, *c));
                EXPECT_TRUE(!same(*a, *b) || !same(*b, *c) || same(*a, *c));
            }
        }
    }
}

TEST(Equivalence, NaNIsOneValueAfterEveryNumber) {
    const double inf = std::numeric_limits<double>::infinity();
    std::vector<Heap<RqExpr>> exprs;
    for (double v : {std::nan(""), -inf, -1.0, -0.0, 0.0, 1.0, inf, -std::nan("1")})
        exprs.emplace_back(Float(v));
    exprs.emplace_back(Int(1));
    exprs.emplace_back(Add(Float(std::nan("")), Int(1)));
    exprs.emplace_back(Add(Float(1), Int(1)));
    ExpectStrictWeakOrder(exprs);

    const RqEquivalence equivalent;
    EXPECT_FALSE(equivalent(*exprs[0], *exprs[5]));  // NaN and 1
    EXPECT_FALSE(equivalent(*exprs[0], *exprs[6]));  // NaN and infinity
    EXPECT_TRUE(equivalent(*exprs[0], *exprs[7]));   // NaN and NaN, whatever the bits
    EXPECT_TRUE(equivalent(*exprs[3], *exprs[4]));   // -0 and 0
    EXPECT_FALSE(equivalent(*exprs[9], *exprs[10]));
    EXPECT_TRUE(LessEquivalentRqExpr()(*exprs[6], *exprs[0]));
}

TEST(Equivalence, OperandsCountInOrderAndNullEqualsOnlyNull) {
    struct Case {
        Heap<RqExpr> m_a;
        Heap<RqExpr> m_b;
        bool m_bEquivalent;
    };
    Case cases[] = {
        {Heap<RqExpr>(Add(Col(L"a", 1), Int(2))), Heap<RqExpr>(Add(Col(L"a", 1), Int(2))), true},
        {Heap<RqExpr>(Sub(Col(L"a"), Col(L"b"))), Heap<RqExpr>(Sub(Col(L"b"), Col(L"a"))), false},
        {Heap<RqExpr>(RQ_NEW RqExprCoalesce(Col(L"a"))),
         Heap<RqExpr>(RQ_NEW RqExprCoalesce(Col(L"a"), Col(L"b"))), false},
        {Heap<RqExpr>(Sum(Col(L"a"))), Heap<RqExpr>(Sum(Col(L"a"), By({}))), false},
        {Heap<RqExpr>(Neg(Neg(Col(L"a")))), Heap<RqExpr>(Neg(Neg(Col(L"b")))), false},
        {Heap<RqExpr>(Int(4)), Heap<RqExpr>(Float(4)), false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(RqEquivalence()(*c.m_a, *c.m_b), c.m_bEquivalent) << &c - cases;
        EXPECT_EQ(LessEquivalentRqExpr()(*c.m_a, *c.m_b) || LessEquivalentRqExpr()(*c.m_b, *c.m_a),
                  !c.m_bEquivalent);
    }
    // The shallow order looks at kinds and fields only.
    EXPECT_FALSE(RqShallowLessThan()(*cases[1].m_a, *cases[1].m_b) ||
                 RqShallowLessThan()(*cases[1].m_b, *cases[1].m_a));
    EXPECT_TRUE(RqShallowLessThan()(*cases[5].m_a, *cases[5].m_b) !=
                RqShallowLessThan()(*cases[5].m_b, *cases[5].m_a));
    EXPECT_TRUE(EquivalentVectorExprs({cases[0].m_a.Get()}, {cases[0].m_b.Get()}));
    EXPECT_FALSE(EquivalentVectorExprs({cases[0].m_a.Get()}, {cases[0].m_b.Get(), nullptr}));

    const RqExpr* none = nullptr;
    EXPECT_TRUE(RqEquivalence()(none, none));
    EXPECT_FALSE(RqEquivalence()(cases[0].m_a.Get(), none));
    EXPECT_TRUE(LessEquivalentRqExpr()(none, cases[0].m_a.Get()));
}

TEST(Equivalence, ReferencesCountByTheColumnTheyRead) {
    // EXISTS (SELECT t.#0 FROM (SELECT a, a) t): the reference reads a column of a derived
    // table inside the subquery itself.
    RqList* inner = Block().Select(Col(L"a", 1)).Select(Col(L"a", 1)).Build();
    RqList* block = Block().Select(Ref(*inner, 0)).From(Derived(inner)).Build();
    Heap<RqExpr> exists(Exists(block));
    Heap<RqExpr> copy(exists->DeepExprCopy(false));
    EXPECT_TRUE(RqEquivalence()(*exists, *copy));

    // The copy's reference moved to the other column of its own inner block, then outside.
    auto* copied = RqCast<RqList>(RqCast<RqExprSubquery>(copy->GetIthOperand(0))->GetQuery());
    auto* reference =
        RqCast<RqDerivedColumnReference>(copied->GetProjection()->GetIthColumn(0)->GetExpr());
    auto* copiedInner =
        RqCast<RqDerivedTable>(copied->GetJoinSpec()->GetIthTableReference(0)->GetLeftTable())
            ->GetInnerList();
    reference->SetDerivedColumn(copiedInner->GetProjection()->GetIthColumn(1));
    EXPECT_FALSE(RqEquivalence()(*exists, *copy));
    EXPECT_TRUE(LessEquivalentRqExpr()(*exists, *copy) != LessEquivalentRqExpr()(*copy, *exists));
    RqDerivedColumn outside(Col(L"a", 1));
    reference->SetDerivedColumn(&outside);
    EXPECT_FALSE(RqEquivalence()(*exists, *copy));

    // Outside the compared expressions, the column itself counts, not its expression.
    RqDerivedColumn twin(Col(L"a", 1));
    Heap<RqExpr> a(Ref(&outside));
    Heap<RqExpr> b(Ref(&outside));
    Heap<RqExpr> c(Ref(&twin));
    EXPECT_TRUE(RqEquivalence()(*a, *b));
    EXPECT_FALSE(RqEquivalence()(*a, *c));
    EXPECT_TRUE(RqShallowLessThan()(*a, *c) != RqShallowLessThan()(*c, *a));
}

TEST(Equivalence, GroupingSetsCompareAsABagOfSets) {
    auto groupBy = [](std::initializer_list<UInt16Vector> sets) {
        auto* g = RQ_NEW RqGroupBy(RqExprVector{Col(L"a", 1), Col(L"b", 1), Col(L"c", 1)});
        for (const UInt16Vector& set : sets)
            g->AddGroupingSet(set);
        return Heap<RqGroupBy>(g);
    };
    const auto base = groupBy({{0, 1}, {2}, {}});
    const RqEquivalence equivalent;
    EXPECT_TRUE(equivalent(*base, *groupBy({{}, {2}, {1, 0}})));
    EXPECT_FALSE(equivalent(*base, *groupBy({{0, 1}, {2}})));
    EXPECT_FALSE(equivalent(*base, *groupBy({{0, 1}, {2}, {}, {}})));
    EXPECT_FALSE(equivalent(*base, *groupBy({{0, 2}, {1}, {}})));
    EXPECT_FALSE(equivalent(*groupBy({}), *groupBy({{0, 1, 2}})));
    EXPECT_TRUE(equivalent(*groupBy({}), *groupBy({})));
}

}  // namespace
