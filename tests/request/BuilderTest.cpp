// The request builder: each helper must make exactly the shape its name promises, since
// other tests build their trees with it and trust what they get.

#include <gtest/gtest.h>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"

namespace {

using namespace rqb;
// The repository's Ref<T> template would make a plain `Ref` ambiguous.
using rqb::Ref;

// A failed expectation shows the verifier's report.
std::string Report(const RqNode& root) {
    return RqVerifier::Describe(RqVerifier::Verify(root)).ToUtf8();
}

TEST(BuilderTest, ColumnNumbersComeFromTheGeneratorAndSortKeysByPosition) {
    Heap<RqList> block(Block(4)
                           .Select(Col(L"a", 1))
                           .SelectAs(Col(L"b", 1), 10)
                           .Select(Col(L"c", 1))
                           .SelectAs(Col(L"d", 1), 2)
                           .From(Table(VoidID(3, 1), 1))
                           .OrderBy({{1, RqSortSpec::kDesc}, {3}})
                           .Build());
    // An explicit number moves the generator past it; sort keys name columns by number.
    RqProjection* projection = block->GetProjection();
    std::vector<int> numbers;
    for (int i = 0; i < projection->GetNumColumns(); ++i)
        numbers.push_back(projection->GetIthColumn(i)->GetColumnNum());
    EXPECT_EQ(numbers, (std::vector<int>{4, 10, 11, 2}));
    EXPECT_EQ(ToString(block->GetOrderBy()).ToUtf8(), "RqOrderBy (#10 DESC, #2 ASC)");
    EXPECT_TRUE(RqVerifier::Verify(*block).empty()) << Report(*block);
}

TEST(BuilderTest, FromAndJoinMakeOneJoinNodeEach) {
    RqList* left = Block().Select(Col(L"k", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqExpr* leftKey = Ref(*left, 0);
    Heap<RqList> block(Block()
                           .Select(leftKey)
                           .Join(SqlTableRef::kLeftOuterJoin, Derived(left, 1),
                                 JoinRef(SqlTableRef::kInnerJoin, Table(VoidID(3, 2), 2),
                                         Table(VoidID(3, 3), 3), Eq(Col(L"x", 2), Col(L"x", 3))),
                                 Eq(leftKey->DeepExprCopy(), Col(L"k", 2)))
                           .From(Table(VoidID(3, 4), 4))
                           .Where(IsNull(Col(L"z", 4)))
                           .Build());
    RqJoinSpec* joinSpec = block->GetJoinSpec();
    ASSERT_EQ(joinSpec->GetNumTableReferences(), 2);
    RqTableReference* join = joinSpec->GetIthTableReference(0);
    EXPECT_EQ(ToString(join).ToUtf8(), "RqTableReference LEFT: L?.#0 = T2.k");
    EXPECT_EQ(join->GetDerivedTable()->GetInnerList(), left);
    EXPECT_TRUE(join->GetRightNode()->IsKindOf(kRqTableReference));
    // A plain FROM member is a table reference with no right side and no condition.
    RqTableReference* single = joinSpec->GetIthTableReference(1);
    EXPECT_EQ(single->GetRightNode(), nullptr);
    EXPECT_EQ(single->GetSearchCond(), nullptr);
    EXPECT_TRUE(RqVerifier::Verify(*block).empty()) << Report(*block);
}

TEST(BuilderTest, ReferencesToListsNameTheColumnsTheListExposes) {
    RqList* first =
        Block().Select(Col(L"a", 1)).Select(Col(L"b", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqList* second =
        Block().Select(Col(L"c", 2)).Select(Col(L"d", 2)).From(Table(VoidID(3, 2), 2)).Build();
    Heap<RqAbstractList> filtered(BreakFilter(Union({first, second}, true), {0}));
    // A set operation's columns are its first member's; a break filter shows its inner list's.
    Heap<RqExpr> reference(Ref(*filtered, 1));
    EXPECT_EQ(static_cast<RqDerivedColumnReference*>(reference.Get())->GetDerivedColumn(),
              first->GetProjection()->GetIthColumn(1));
}

}  // namespace
