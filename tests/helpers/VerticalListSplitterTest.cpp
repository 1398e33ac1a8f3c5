// The vertical list splitter on trees built by hand: the nesting (what the outer block reads,
// what moves outward, who reads the outer block), columns moved up through AddOuterColumn and
// rendered into a child, composition across blocks, GROUP BY and ORDER BY relocation and the
// break-filter operations. Every rewritten request must still pass the verifier.

#include <gtest/gtest.h>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUVerticalListSplitter.h"

namespace {

using rqb::Ref;

void ExpectValid(const RqNode& root) {
    const std::vector<RqViolation> violations = RqVerifier::Verify(root);
    EXPECT_TRUE(violations.empty()) << RqVerifier::Describe(violations).ToUtf8();
}

// SELECT region (#5), amount (#7), amount * 2 (#8) FROM sales ORDER BY amount DESC, region
// LIMIT 10 OFFSET 2, read by an outer block through a derived table.
struct Nested {
    RqHandleNode* m_pRequest;
    RqList* m_pInner;
    RqList* m_pTop;
};

Nested MakeNested(bool bDistinct = false) {
    rqb::Block inner;
    inner.SelectAs(rqb::Col(L"region", 1), 5)
        .SelectAs(rqb::Col(L"amount", 1), 7)
        .SelectAs(rqb::Mul(rqb::Col(L"amount", 1), rqb::Int(2)), 8)
        .From(rqb::Table(VoidID(3, 1), 1))
        .OrderBy({{1, RqSortSpec::kDesc}, {0}})
        .Limit(10)
        .Offset(2)
        .Distinct(bDistinct);
    RqList* innerList = inner.Build();
    rqb::Block top;
    top.Select(Ref(*innerList, 0)).Select(Ref(*innerList, 2)).From(rqb::Derived(innerList, 2));
    RqList* topList = top.Build();
    return {rqb::Request(topList), innerList, topList};
}

TEST(VerticalListSplitter, NestingReprojectsEveryColumnAndMovesOrderAndPaging) {
    Nested n = MakeNested(true);
    Heap<RqHandleNode> request(n.m_pRequest);
    RqList* outer =
        VerticalListSplitter::NestWithinOuterReprojection(*n.m_pInner, nullptr, true, 0);

    // The outer block stands where the inner one stood and reads it as its only table.
    RqDerivedTable* place = RqCast<RqDerivedTable>(outer->GetParent());
    EXPECT_EQ(place->GetParent()->GetParent()->GetParent()->GetParent(), n.m_pTop);
    ASSERT_EQ(outer->GetJoinSpec()->GetNumTableReferences(), 1);
    RqDerivedTable* table = outer->GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->GetInnerList(), n.m_pInner);
    EXPECT_EQ(table->GetNestingLevel(), 1);

    const RqProjection* outerProjection = outer->GetProjection();
    ASSERT_EQ(outerProjection->GetNumColumns(), 3);
    for (int i = 0; i < 3; ++i) {
        const RqDerivedColumn* column = outerProjection->GetIthColumn(i);
        EXPECT_EQ(column->GetColumnNum(),
                  n.m_pInner->GetProjection()->GetIthColumn(i)->GetColumnNum());
        EXPECT_EQ(RqCast<RqDerivedColumnReference>(column->GetExpr())->GetDerivedColumn(),
                  n.m_pInner->GetProjection()->GetIthColumn(i));
    }
    // The top block now reads the outer columns.
    for (int i = 0; i < 2; ++i) {
        const auto* ref =
            RqCast<RqDerivedColumnReference>(n.m_pTop->GetProjection()->GetIthColumn(i)->GetExpr());
        EXPECT_EQ(ref->GetDerivedColumn(), outerProjection->GetIthColumn(i == 0 ? 0 : 2));
    }
    // ORDER BY, paging and DISTINCT moved outward.
    EXPECT_EQ(n.m_pInner->GetOrderBy(), nullptr);
    ASSERT_NE(outer->GetOrderBy(), nullptr);
    ASSERT_EQ(outer->GetOrderBy()->GetNumSortSpecs(), 2);
    EXPECT_EQ(outer->GetOrderBy()->GetIthSortSpec(0)->GetColumnNumber(), 7);
    EXPECT_EQ(outer->GetOrderBy()->GetIthSortSpec(0)->GetSortDirection(), RqSortSpec::kDesc);
    EXPECT_EQ(outer->GetOrderBy()->GetIthSortSpec(1)->GetColumnNumber(), 5);
    EXPECT_EQ(outer->m_rowLimit, 10u);
    EXPECT_EQ(outer->m_rowOffset, 2u);
    EXPECT_EQ(n.m_pInner->m_rowLimit, 0u);
    EXPECT_EQ(n.m_pInner->m_rowOffset, 0u);
    EXPECT_TRUE(outer->IsDistinct());
    EXPECT_FALSE(n.m_pInner->IsDistinct());
    ExpectValid(*request);
}

// A column the inner block's target cannot compute moves up: the outer block computes it
// from inner columns, reusing the one that already holds the operand.
TEST(VerticalListSplitter, AddOuterColumnMovesTheComputationUp) {
    Nested n = MakeNested();
    Heap<RqHandleNode> request(n.m_pRequest);
    RqList* outer =
        VerticalListSplitter::NestWithinOuterReprojection(*n.m_pInner, nullptr, true, 0);
    RqProjection* innerProjection = n.m_pInner->GetProjection();
    RqDerivedColumn* doubled = innerProjection->GetIthColumn(2);
    VerticalListSplitter::AddOuterColumn(doubled, *innerProjection, *outer->GetProjection(), false);
    innerProjection->DeleteColumn(doubled);

    EXPECT_EQ(innerProjection->GetNumColumns(), 2);
    const RqExpr* moved = outer->GetProjection()->GetIthColumn(2)->GetExpr();
    ASSERT_TRUE(moved->IsKindOf(kRqExprMultiply)) << ToString(moved).ToUtf8();
    EXPECT_EQ(RqCast<RqDerivedColumnReference>(moved->GetIthOperand(0))->GetDerivedColumn(),
              innerProjection->GetIthColumn(1));
    // The top block still reads the outer column.
    EXPECT_EQ(
        RqCast<RqDerivedColumnReference>(n.m_pTop->GetProjection()->GetIthColumn(1)->GetExpr())
            ->GetDerivedColumn(),
        outer->GetProjection()->GetIthColumn(2));
    ExpectValid(*request);
}

}  // namespace
