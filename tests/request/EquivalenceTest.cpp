// Equivalence of request-tree nodes and its orderings: every field of every kind that changes
// a node's meaning tells nodes apart and no other does; operands and references count by what
// they are; NaN keeps the order strict weak; grouping sets compare as a bag of sets.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "../../server/Query/Optimizer/RequestText/Src/SQORTextRequestInternal.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"

namespace {

using namespace rqb;
// The repository's Ref<T> template would make a plain `Ref` ambiguous.
using rqb::Ref;

// A node of a given kind that differs from the blank node of the kind in one field alone
// (null when the kind's class has no such field), and whether that changes its meaning.
struct Change {
    const char* m_name;
    bool m_bMatters;
    std::function<RqNode*(RqNodeType_e)> m_make;
};

// Sets the field on a blank node of any kind whose class is a T.
template <class T>
Change Set(const char* name, std::function<void(T&)> set, bool bMatters = true) {
    return {name, bMatters, [set](RqNodeType_e kind) -> RqNode* {
                Heap<RqNode> node(rqtext::MakeBlankNode(kind));
                T* typed = RqDynCast<T>(node.Get());
                if (typed != nullptr)
                    set(*typed);
                return typed != nullptr ? node.Release() : nullptr;
            }};
}
template <class T>
Change Ignored(const char* name, std::function<void(T&)> set) {
    return Set<T>(name, set, false);
}

// For classes that take the field only at construction: a node of T's own kind.
template <class T>
Change Make(const char* name, std::function<T*()> make) {
    return {name, true, [make](RqNodeType_e kind) -> RqNode* {
                RqNode* node = kind == T::kKind ? make() : nullptr;
                if (node != nullptr)
                    node->SetNumChildren(0);  // as blank as the blank node
                return node;
            }};
}

template <class... T>
std::vector<Change> Values(const ZKString& value) {
    return {Set<T>("value", [value](T& literal) { literal.SetValue(value); })...};
}
template <class... T>
std::vector<Change> IdsAndNames() {
    return {Make<T>("id", [] { return RQ_NEW T(VoidID(7, 1), ZKString()); })...,
            Make<T>("name", [] { return RQ_NEW T(VoidID(), L"n"); })...};
}

// The name of write requests and the other named request nodes.
Change NodeName() {
    return {"name", true, [](RqNodeType_e kind) -> RqNode* {
                Heap<RqNode> node(rqtext::MakeBlankNode(kind));
                return node && rqtext::SetNameField(*node, "n") ? node.Release() : nullptr;
            }};
}

// Link targets outside every compared node.
struct Outside {
    RqDerivedColumn m_column;
    RqJoinNode m_joinNode;
    RqList m_list;
};

std::vector<Change> Changes(Outside& out) {
    using S = RqSortSpec;
    using E = RqExprExternalData;
    std::vector<Change> changes = {
        Ignored<RqNode>("target", [](auto& n) { n.MarkTargetType(ServerInfo::TargetType(7)); }),
        Set<RqTargetColumn>("column id", [](auto& c) { c.SetColumnID(VoidID(4, 1)); }),
        Set<RqTargetColumn>("table number", [](auto& c) { c.SetTableNum(3); }),
        Set<RqTargetColumn>("name", [](auto& c) { c.SetName(L"n"); }),
        Set<RqDerivedColumnReference>("column",
                                      [&](auto& r) { r.SetDerivedColumn(&out.m_column); }),
        Set<RqExprIntegerLiteral>("value", [](auto& i) { i.SetValue(1); }),
        Set<RqExprFloatLiteral>("value", [](auto& f) { f.SetValue(std::nan("")); }),
        Set<RqExprParam>("name", [](auto& p) { p.SetName(L"n"); }),
        Set<RqExprSessionVar>("name", [](auto& v) { v.SetName(L"n"); }),
        Set<RqExprCast>("type name", [](auto& c) { c.SetTypeName(L"INT"); }),
        Make<E>("form", [] { return RQ_NEW E(E::kCSVData, L""); }),
        Make<E>("data", [] { return RQ_NEW E(E::kUnknownData, L"x"); }),
        Set<RqExprAggr>("distinct", [](auto& a) { a.SetDistinctAggregation(true); }),
        Set<RqExprAggr>("sql99", [](auto& a) { a.SetSQL99Aggregation(true); }),
        Set<RqExprAggr>("distinct compute break", [](auto& a) { a.SetDistinctComputeBreak(true); }),
        Set<RqExprAggr>("explicit grain", [](auto& a) { a.SetExplicitGrain(true); }),
        Set<RqExprAggr>("analytic", [](auto& a) { a.SetAnalytic(true); }),
        Ignored<RqExprAggr>("instantiated", [](auto& a) { a.SetInstantiated(false); }),
        Set<RqExprSortDependentAggr>("sort keys",
                                     [](auto& a) {
                                         a.SetSortSpec({{0, S::kDesc}});
                                     }),
        Set<RqDerivedColumn>("column number", [](auto& c) { c.SetColumnNum(5); }),
        Set<RqDerivedColumn>("break status", [](auto& c) { c.SetBreakStatus(2); }),
        Set<S>("column number", [](auto& s) { s.SetColumnNumber(5); }),
        Set<S>("direction", [](auto& s) { s.SetSortDirection(S::kDesc); }),
        Set<S>("null order", [](auto& s) { s.SetNullSortDirection(S::kFirst); }),
        Set<S>("case insensitive", [](auto& s) { s.SetCaseInsensitive(true); }),
        Ignored<S>("logical", [](auto& s) { s.SetLogicalSelectListStatus(true); }),
        Set<RqGroupBy>("grouping sets", [](auto& g) { g.AddGroupingSet({}); }),
        Ignored<RqGroupBy>("mode", [](auto& g) { g.SetInternalExecutionMode(RqGroupBy::kHash); }),
        Set<RqTableReference>("join type",
                              [](auto& t) { t.SetJoinType(SqlTableRef::kNaturalJoin); }),
        Set<RqTableReference>("left join columns",
                              [](auto& t) { t.SetLeftJoinColumnIndexes({1}); }),
        Set<RqTableReference>("right join columns",
                              [](auto& t) { t.SetRightJoinColumnIndexes({1}); }),
        Ignored<RqTableReference>("driving", [](auto& t) { t.SetDrivingTableHint({}); }),
        Make<RqJoinNode>("preserved", [] { return RQ_NEW RqJoinNode(nullptr, true); }),
        Make<RqJoinLink>("from", [&] { return RQ_NEW RqJoinLink(&out.m_joinNode, nullptr); }),
        Make<RqJoinLink>("to", [&] { return RQ_NEW RqJoinLink(nullptr, &out.m_joinNode); }),
        Set<RqAbstractTable>("table number", [](auto& t) { t.SetTableNum(2); }),
        Set<RqIdentifiedTable>("table id", [](auto& t) { t.SetTableID(VoidID(3, 1)); }),
        Make<RqExternalTable>("name", [] { return RQ_NEW RqExternalTable(L"n"); }),
        Set<RqAbstractList>("row offset", [](auto& l) { l.SetRowOffset(1); }),
        Set<RqAbstractList>("row limit", [](auto& l) { l.SetRowLimit(1); }),
        Ignored<RqAbstractList>("label", [](auto& l) { l.SetLabel(L"x"); }),
        Set<RqList>("distinct", [](auto& l) { l.SetDistinct(true); }),
        Set<RqUnion>("all", [](auto& u) { u.SetAll(true); }),
        Set<RqIntersect>("all", [](auto& i) { i.SetAll(true); }),
        Set<RqExcept>("all", [](auto& e) { e.SetAll(true); }),
        Set<RqSharedList>("shared list", [&](auto& s) { s.SetSharedRqList(&out.m_list); }),
        Set<RqBreakFilter>("break columns", [](auto& f) { f.SetBreakColumnIndexes({0}); }),
        Set<RqCache>("logical plan", [](auto& c) { c.SetLogicalPlan({1}); }),
        Ignored<RqOrderBy>("sticky", [](auto& o) { o.SetSticky(true); }),
        NodeName(),
    };
    for (const auto& more :
         {Values<RqExprStringLiteral, RqExprDateLiteral, RqExprTimeLiteral, RqExprDateTimeLiteral,
                 RqExprIntervalLiteral, RqExprNumberLiteral>(L"x"),
          IdsAndNames<RqAttribute, RqExprDimension, RqExprLevel, RqEntity>()}) {
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
        const std::vector<const char*> names = RqEquivalence::ComparedFields(kind);
        const std::set<std::string> compared(names.begin(), names.end());
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

TEST(Equivalence, TheOrderIsStrictWeakAndTiesExactlyTheEquivalentExpressions) {
    const double inf = std::numeric_limits<double>::infinity();
    std::vector<Heap<RqExpr>> exprs;
    for (double v : {std::nan(""), -inf, -0.0, 0.0, 1.0, inf, -std::nan("1")})
        exprs.emplace_back(Float(v));
    for (RqExpr* e : std::initializer_list<RqExpr*>{
             Int(1), Add(Float(std::nan("")), Int(1)), Add(Float(1), Int(1)),
             Sub(Col(L"a"), Col(L"b")), Sub(Col(L"b"), Col(L"a")), Sub(Col(L"b"), Col(L"a")),
             Sum(Col(L"a")), Sum(Col(L"a"), By({})), RQ_NEW RqExprCoalesce(Col(L"a")),
             RQ_NEW RqExprCoalesce(Col(L"a"), Col(L"b"))})
        exprs.emplace_back(e);
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
    // NaN is one value, whatever its bits, after every number; -0 is 0; operands count in
    // order, absent ones included.
    const std::tuple<int, int, bool> pairs[] = {
        {0, 6, true},  {0, 4, false},   {0, 5, false},  {2, 3, true},    {4, 7, false},
        {8, 9, false}, {10, 11, false}, {11, 12, true}, {13, 14, false}, {15, 16, false}};
    for (const auto& [i, j, bEquivalent] : pairs)
        EXPECT_EQ(RqEquivalence()(*exprs[i], *exprs[j]), bEquivalent) << i << " " << j;
    EXPECT_TRUE(less(*exprs[5], *exprs[0]));
    // The shallow order reads kinds and fields only.
    EXPECT_FALSE(RqShallowLessThan()(*exprs[10], *exprs[11]) ||
                 RqShallowLessThan()(*exprs[11], *exprs[10]));
    EXPECT_TRUE(EquivalentVectorExprs({exprs[11].Get()}, {exprs[12].Get()}));
    EXPECT_FALSE(EquivalentVectorExprs({exprs[11].Get()}, {exprs[12].Get(), nullptr}));
    const RqExpr* none = nullptr;
    EXPECT_TRUE(RqEquivalence()(none, none) && !RqEquivalence()(exprs[0].Get(), none));
    EXPECT_TRUE(less(none, exprs[0].Get()));
}

TEST(Equivalence, ReferencesCountByTheColumnTheyRead) {
    // EXISTS (SELECT t.#0 FROM (SELECT a, a) t): the reference reads a column of a derived
    // table inside the subquery itself, so a copy reads its own copy of the column.
    RqList* inner = Block().Select(Col(L"a", 1)).Select(Col(L"a", 1)).Build();
    Heap<RqExpr> exists(Exists(Block().Select(Ref(*inner, 0)).From(Derived(inner)).Build()));
    Heap<RqExpr> copy(exists->DeepExprCopy(false));
    EXPECT_TRUE(RqEquivalence()(*exists, *copy));

    // The copy's reference moved to the other column of its own inner block, then outside.
    RqDerivedColumnReferenceVector references;
    RqExprUtility::GetAllDerivedColumnReferences(copy.Get(), references);
    RqDerivedColumnReference* reference = references.at(0);
    reference->SetDerivedColumn(reference->GetDerivedColumn()->GetProjection()->GetIthColumn(1));
    EXPECT_FALSE(RqEquivalence()(*exists, *copy));
    EXPECT_TRUE(LessEquivalentRqExpr()(*exists, *copy) != LessEquivalentRqExpr()(*copy, *exists));
    RqDerivedColumn outside(Col(L"a", 1));
    reference->SetDerivedColumn(&outside);
    EXPECT_FALSE(RqEquivalence()(*exists, *copy));

    // Outside the compared expressions, the column itself counts, not its expression.
    RqDerivedColumn twin(Col(L"a", 1));
    Heap<RqExpr> a(Ref(&outside)), b(Ref(&outside)), c(Ref(&twin));
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
}

}  // namespace
