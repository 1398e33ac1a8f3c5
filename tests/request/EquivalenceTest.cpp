// Equivalence of expressions and the orderings built on it: own fields per class, operand
// order, references by the column they read, copies of subqueries, and the consistency of
// LessEquivalentRqExpr with the equivalence.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <set>
#include <vector>

#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace {

RqExpr* Int(int64_t value) {
    return RQ_NEW RqExprIntegerLiteral(value);
}
RqTargetColumn* Col(uint32_t id, int tableNum = 1) {
    return RQ_NEW RqTargetColumn(VoidID(4, id), L"C" + ZKString::FromInt(id), tableNum);
}

// Builds two expressions that must be equivalent, or must differ in one respect.
struct Pair {
    const char* m_name;
    std::function<RqExpr*()> m_left;
    std::function<RqExpr*()> m_right;
};

RqExprAggr* Flagged(RqExprAggr* aggr, const std::function<void(RqExprAggr&)>& set) {
    set(*aggr);
    return aggr;
}

RqExprAggrRank* Ranked(RqExprSortDependentAggr::SortKeys keys) {
    auto* rank = RQ_NEW RqExprAggrRank(Col(1));
    rank->SetSortSpec(keys);
    return rank;
}

void ExpectOrderConsistent(const RqExpr& a, const RqExpr& b, bool bEquivalent, const char* name) {
    const LessEquivalentRqExpr less;
    EXPECT_EQ(RqEquivalence()(a, b), bEquivalent) << name;
    EXPECT_EQ(RqEquivalence()(b, a), bEquivalent) << name << " (reversed)";
    EXPECT_EQ(!less(a, b) && !less(b, a), bEquivalent) << name << " (order)";
    EXPECT_FALSE(less(a, b) && less(b, a)) << name << " (asymmetry)";
}

TEST(Equivalence, SameKindFieldsAndOperandsAreEquivalent) {
    const std::vector<Pair> pairs = {
        {"literal", [] { return Int(4); }, [] { return Int(4); }},
        {"text literal", [] { return RQ_NEW RqExprStringLiteral(L"x"); },
         [] { return RQ_NEW RqExprStringLiteral(L"x"); }},
        {"float NaN", [] { return RQ_NEW RqExprFloatLiteral(std::nan("")); },
         [] { return RQ_NEW RqExprFloatLiteral(std::nan("")); }},
        {"column", [] { return Col(3); }, [] { return Col(3); }},
        {"function", [] { return RQ_NEW RqExprAdd(Col(1), Int(2)); },
         [] { return RQ_NEW RqExprAdd(Col(1), Int(2)); }},
        {"cast", [] { return RQ_NEW RqExprCast(Col(1), L"INT"); },
         [] { return RQ_NEW RqExprCast(Col(1), L"INT"); }},
        {"aggregate",
         [] { return RQ_NEW RqExprAggrSum(Col(1), RQ_NEW RqExprColumnList(RqExprVector{Col(2)})); },
         [] {
             return RQ_NEW RqExprAggrSum(Col(1), RQ_NEW RqExprColumnList(RqExprVector{Col(2)}));
         }},
        {"rank",
         [] {
             return Ranked({{1, RqSortSpec::kDesc}});
         },
         [] {
             return Ranked({{1, RqSortSpec::kDesc}});
         }},
        {"instantiation state is not meaning",
         [] {
             return Flagged(RQ_NEW RqExprAggrSum(Col(1)),
                            [](RqExprAggr& a) { a.SetInstantiated(false); });
         },
         [] { return RQ_NEW RqExprAggrSum(Col(1)); }},
    };
    for (const Pair& p : pairs) {
        Heap<RqExpr> a(p.m_left());
        Heap<RqExpr> b(p.m_right());
        ExpectOrderConsistent(*a, *b, true, p.m_name);
    }
}

TEST(Equivalence, EachFieldKindAndOperandOrderMatters) {
    const std::vector<Pair> pairs = {
        {"literal value", [] { return Int(4); }, [] { return Int(5); }},
        {"literal kind", [] { return Int(4); }, [] { return RQ_NEW RqExprFloatLiteral(4); }},
        {"text value", [] { return RQ_NEW RqExprDateLiteral(L"2020-01-01"); },
         [] { return RQ_NEW RqExprDateLiteral(L"2020-01-02"); }},
        {"column id", [] { return Col(3); }, [] { return Col(4); }},
        {"column table number", [] { return Col(3, 1); }, [] { return Col(3, 2); }},
        {"column name", [] { return RQ_NEW RqTargetColumn(L"A", 1); },
         [] { return RQ_NEW RqTargetColumn(L"B", 1); }},
        {"column kind", [] { return Col(3); },
         [] { return RQ_NEW RqTargetCubeColumn(VoidID(4, 3), L"C3", 1); }},
        {"parameter name", [] { return RQ_NEW RqExprParam(L"a"); },
         [] { return RQ_NEW RqExprParam(L"b"); }},
        {"cast type", [] { return RQ_NEW RqExprCast(Col(1), L"INT"); },
         [] { return RQ_NEW RqExprCast(Col(1), L"CHAR"); }},
        {"operand order", [] { return RQ_NEW RqExprSubtract(Col(1), Col(2)); },
         [] { return RQ_NEW RqExprSubtract(Col(2), Col(1)); }},
        {"operand count", [] { return RQ_NEW RqExprCoalesce(Col(1)); },
         [] { return RQ_NEW RqExprCoalesce(Col(1), Col(2)); }},
        {"absent operand", [] { return RQ_NEW RqExprAggrSum(Col(1)); },
         [] { return RQ_NEW RqExprAggrSum(Col(1), RQ_NEW RqExprColumnList()); }},
        {"deep operand", [] { return RQ_NEW RqExprUpper(RQ_NEW RqExprLower(Col(1))); },
         [] { return RQ_NEW RqExprUpper(RQ_NEW RqExprLower(Col(2))); }},
        {"distinct",
         [] { return RQ_NEW RqExprAggrCount(Col(1), nullptr, nullptr, RqExprAggr::kDistinct); },
         [] { return RQ_NEW RqExprAggrCount(Col(1)); }},
        {"distinct compute break",
         [] {
             return Flagged(RQ_NEW RqExprAggrSum(Col(1)),
                            [](RqExprAggr& a) { a.SetDistinctComputeBreak(true); });
         },
         [] { return RQ_NEW RqExprAggrSum(Col(1)); }},
        {"sql99",
         [] {
             return Flagged(RQ_NEW RqExprAggrSum(Col(1)),
                            [](RqExprAggr& a) { a.SetSQL99Aggregation(true); });
         },
         [] { return RQ_NEW RqExprAggrSum(Col(1)); }},
        {"sort direction",
         [] {
             return Ranked({{1, RqSortSpec::kDesc}});
         },
         [] {
             return Ranked({{1, RqSortSpec::kAsc}});
         }},
        {"sort keys",
         [] {
             return Ranked({{1, RqSortSpec::kDesc}});
         },
         [] {
             return Ranked({{1, RqSortSpec::kDesc}, {2, RqSortSpec::kAsc}});
         }},
    };
    for (const Pair& p : pairs) {
        Heap<RqExpr> a(p.m_left());
        Heap<RqExpr> b(p.m_right());
        ExpectOrderConsistent(*a, *b, false, p.m_name);
    }
}

TEST(Equivalence, NullEqualsOnlyNull) {
    Heap<RqExpr> a(Int(1));
    const RqEquivalence equivalent;
    EXPECT_TRUE(
        equivalent(static_cast<const RqExpr*>(nullptr), static_cast<const RqExpr*>(nullptr)));
    EXPECT_FALSE(equivalent(a.Get(), static_cast<const RqExpr*>(nullptr)));
    EXPECT_FALSE(equivalent(static_cast<const RqExpr*>(nullptr), a.Get()));
    EXPECT_TRUE(LessEquivalentRqExpr()(nullptr, a.Get()));
}

TEST(Equivalence, ReferencesAreEquivalentWhenTheyReadTheSameColumn) {
    RqDerivedColumn x(Col(1));
    RqDerivedColumn y(Col(1));
    Heap<RqExpr> rx1(RQ_NEW RqDerivedColumnReference(&x));
    Heap<RqExpr> rx2(RQ_NEW RqDerivedColumnReference(&x));
    Heap<RqExpr> ry(RQ_NEW RqDerivedColumnReference(&y));
    ExpectOrderConsistent(*rx1, *rx2, true, "same column");
    ExpectOrderConsistent(*rx1, *ry, false, "columns with equivalent expressions");
    EXPECT_FALSE(RqShallowLessThan()(*rx1, *rx2) || RqShallowLessThan()(*rx2, *rx1));
    EXPECT_TRUE(RqShallowLessThan()(*rx1, *ry) || RqShallowLessThan()(*ry, *rx1));
}

TEST(Equivalence, CopyOfASubqueryReadingItsOwnBlockIsEquivalent) {
    // EXISTS (SELECT t.a FROM (SELECT c1) t), where the reference reads a column of a derived
    // table inside the subquery itself.
    auto* inner = RQ_NEW RqList();
    inner->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(Col(1)));
    auto* block = RQ_NEW RqList();
    block->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(
        RQ_NEW RqDerivedColumnReference(inner->GetProjection()->GetIthColumn(0))));
    block->SetJoinSpec(RQ_NEW RqJoinSpec({RQ_NEW RqJoinNode(
        RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, RQ_NEW RqDerivedTable(inner)))}));
    Heap<RqExpr> exists(RQ_NEW RqExprCondExists(RQ_NEW RqExprLogicalSubquery(block)));
    Heap<RqExpr> copy(exists->DeepExprCopy(false));
    ExpectOrderConsistent(*exists, *copy, true, "copy of a subquery");

    // Pointing the copy's reference outside its own block breaks the equivalence.
    RqDerivedColumn outside(Col(1));
    auto* copiedBlock = static_cast<RqExprSubquery*>(copy->GetIthOperand(0))->GetQuery();
    static_cast<RqDerivedColumnReference*>(copiedBlock->GetProjection()->GetIthColumn(0)->GetExpr())
        ->SetDerivedColumn(&outside);
    ExpectOrderConsistent(*exists, *copy, false, "reference leaving the subquery");
}

TEST(Equivalence, OrderedSetKeepsOneOfEachEquivalenceClass) {
    std::vector<Heap<RqExpr>> owned;
    owned.emplace_back(RQ_NEW RqExprAdd(Col(1), Int(2)));
    owned.emplace_back(Col(1));
    owned.emplace_back(RQ_NEW RqExprAdd(Col(1), Int(2)));
    owned.emplace_back(RQ_NEW RqExprAdd(Col(1), Int(3)));
    owned.emplace_back(Col(1));
    owned.emplace_back(Int(2));
    std::set<const RqExpr*, LessEquivalentRqExpr> unique;
    for (const Heap<RqExpr>& e : owned)
        unique.insert(e.Get());
    EXPECT_EQ(unique.size(), 4u);
}

TEST(Equivalence, ShallowOrderIgnoresOperandsAndVectorsCompareInOrder) {
    Heap<RqExpr> a(RQ_NEW RqExprAdd(Col(1), Int(2)));
    Heap<RqExpr> b(RQ_NEW RqExprAdd(Col(5), Int(6)));
    Heap<RqExpr> c(RQ_NEW RqExprMultiply(Col(1), Int(2)));
    const RqShallowLessThan shallow;
    EXPECT_FALSE(shallow(*a, *b) || shallow(*b, *a));
    EXPECT_TRUE(shallow(*a, *c) != shallow(*c, *a));
    EXPECT_FALSE(RqEquivalence()(*a, *b));

    Heap<RqExpr> a2(a->DeepExprCopy(false));
    EXPECT_TRUE(EquivalentVectorExprs({a.Get(), c.Get()}, {a2.Get(), c.Get()}, RqEquivalence()));
    EXPECT_FALSE(EquivalentVectorExprs({a.Get(), c.Get()}, {c.Get(), a2.Get()}, RqEquivalence()));
    EXPECT_FALSE(EquivalentVectorExprs({a.Get()}, {a2.Get(), c.Get()}, RqEquivalence()));
    EXPECT_TRUE(a->IsEquivalent(*a2));
}

TEST(Equivalence, TableReferencesCompareTheirTablesAndJoins) {
    auto make = [](uint32_t table, SqlTableRef::JoinType join) {
        return RQ_NEW RqTableReference(join, RQ_NEW RqAtomicTable(VoidID(3, table), 1),
                                       RQ_NEW RqExprCondIsNull(Col(1)),
                                       RQ_NEW RqAtomicTable(VoidID(3, 9), 2));
    };
    Heap<RqNode> a(make(1, SqlTableRef::kInnerJoin));
    Heap<RqNode> same(make(1, SqlTableRef::kInnerJoin));
    Heap<RqNode> otherTable(make(2, SqlTableRef::kInnerJoin));
    Heap<RqNode> otherJoin(make(1, SqlTableRef::kLeftOuterJoin));
    const RqEquivalence equivalent;
    EXPECT_TRUE(equivalent(*a, *same));
    EXPECT_FALSE(equivalent(*a, *otherTable));
    EXPECT_FALSE(equivalent(*a, *otherJoin));
}

}  // namespace
