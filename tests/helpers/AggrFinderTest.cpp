// AggrFinder: what each entry point answers, how the options steer the walk through nested
// and time-series aggregates, and that every expression kind gets the answer its place in the
// kind table gives it.

#include <gtest/gtest.h>

#include <vector>

#include "../../server/Query/Optimizer/RequestText/Src/SQORTextRequestInternal.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAggrFinder.h"

namespace {

using rqb::Add;
using rqb::Aggr;
using rqb::Avg;
using rqb::Col;
using rqb::Int;
using rqb::Max;
using rqb::Sum;

std::vector<RqExprAggr*> ToVector(const AggrList& list) {
    return {list.begin(), list.end()};
}

// What a finder with the given options records over `expr`: (all recorded, nested ones).
struct Found {
    std::vector<RqExprAggr*> m_aggrs;
    std::vector<RqExprAggr*> m_nested;
};
Found Record(RqExpr& expr, bool bNested, bool bAllNested, bool bIgnoreFunctional,
             bool bIgnoreTimeSeries, bool bInnerMostOnly) {
    AggrFinder finder(bNested, bAllNested, bIgnoreFunctional, bIgnoreTimeSeries, bInnerMostOnly);
    expr.Accept(finder);
    AggrList aggrs;
    AggrList nested;
    finder.GetAggrs(aggrs);
    finder.GetNestedAggrs(nested);
    return {ToVector(aggrs), ToVector(nested)};
}

TEST(AggrFinder, FindAggrLooksThroughExpressionsAndIgnoredTimeSeriesAggregates) {
    Heap<RqExpr> plusOne(Add(Sum(Col(L"amount", 1)), Int(1)));
    EXPECT_TRUE(AggrFinder::FindAggr(plusOne.Get()));
    // The period-ago function is passed by, but the sum below it is still found.
    Heap<RqExpr> agoOfSum(Aggr<RqExprAgo>(Sum(Col(L"amount", 1))));
    EXPECT_TRUE(AggrFinder::FindAggr(agoOfSum.Get()));
    Heap<RqExpr> agoOfColumn(Aggr<RqExprAgo>(Col(L"amount", 1)));
    EXPECT_FALSE(AggrFinder::FindAggr(agoOfColumn.Get()));
    Heap<RqExpr> column(Col(L"amount", 1));
    EXPECT_FALSE(AggrFinder::FindAggr(column.Get()));
    EXPECT_FALSE(AggrFinder::FindAggr(nullptr));
    // A finder of its own counts the time-series aggregate itself.
    EXPECT_EQ(Record(*agoOfColumn, false, false, false, false, false).m_aggrs.size(), 1u);
}

TEST(AggrFinder, NestedSearchStopsBelowTheFirstNestingUnlessToldToFindAll) {
    RqExprAggrAvg* avg = Avg(Col(L"amount", 1));
    RqExprAggrSum* sum = Sum(avg);
    RqExprAggrMax* max = Max(sum);
    Heap<RqExpr> expr(Add(max, Int(1)));

    AggrList list;
    RqExprAggr* earlier = Sum(Col(L"x", 1));
    Heap<RqExpr> keep(earlier);
    list.push_back(earlier);
    AggrFinder::FindNestedAggrs(expr.Get(), list);
    EXPECT_EQ(ToVector(list), (std::vector<RqExprAggr*>{earlier, max}));  // appended
    EXPECT_TRUE(AggrFinder::FindNestedAggr(expr.Get()));
    Heap<RqExpr> flat(Sum(Col(L"amount", 1)));
    EXPECT_FALSE(AggrFinder::FindNestedAggr(flat.Get()));

    const Found all = Record(*expr, true, true, false, true, false);
    EXPECT_EQ(all.m_aggrs, (std::vector<RqExprAggr*>{max, sum, avg}));
    EXPECT_EQ(all.m_nested, (std::vector<RqExprAggr*>{max, sum}));

    // Innermost only, with every level searched: the average alone reads plain values.
    const Found innermost = Record(*expr, true, true, false, true, true);
    EXPECT_EQ(innermost.m_aggrs, (std::vector<RqExprAggr*>{avg}));
    // Innermost only without the nested search: the outer aggregate is skipped and its
    // operands are not searched, so nothing is recorded.
    EXPECT_TRUE(Record(*expr, false, false, false, true, true).m_aggrs.empty());
    // The plain finder records the outermost aggregate only.
    EXPECT_EQ(Record(*expr, false, false, false, true, false).m_aggrs,
              (std::vector<RqExprAggr*>{max}));
}

TEST(AggrFinder, FunctionalAggregatesCanBeSkippedAndTheirOperandsSearched) {
    RqExprAggrSum* sum = Sum(Col(L"amount", 1));
    auto* rank = rqb::SortedBy(Aggr<RqExprAggrRank>(sum), {{0, RqSortSpec::kDesc}});
    Heap<RqExpr> expr(rank);
    EXPECT_EQ(Record(*expr, false, false, true, true, false).m_aggrs,
              (std::vector<RqExprAggr*>{sum}));
    EXPECT_EQ(Record(*expr, false, false, false, true, false).m_aggrs,
              (std::vector<RqExprAggr*>{rank}));

    bool bFound = true;
    EXPECT_TRUE(AggrFinder::FindSortDependentAggr(expr.Get(), bFound));
    EXPECT_TRUE(bFound);
    // The rank is functional and the regular-aggregate search stops below it; the sum it
    // ranks is the innermost aggregate, and a regular one.
    EXPECT_FALSE(AggrFinder::FindRegularAggr(expr.Get(), bFound));
    EXPECT_TRUE(bFound);
    EXPECT_TRUE(AggrFinder::FindInnerMostRegularAggr(expr.Get(), bFound));
    EXPECT_TRUE(bFound);

    Heap<RqExpr> rankOfColumn(
        rqb::SortedBy(Aggr<RqExprAggrRank>(Col(L"amount", 1)), {{0, RqSortSpec::kAsc}}));
    EXPECT_FALSE(AggrFinder::FindRegularAggr(rankOfColumn.Get(), bFound));
    EXPECT_TRUE(bFound);
    Heap<RqExpr> plain(Sum(Col(L"amount", 1)));
    EXPECT_FALSE(AggrFinder::FindSortDependentAggr(plain.Get(), bFound));
    EXPECT_TRUE(bFound);
    Heap<RqExpr> none(Add(Col(L"amount", 1), Int(2)));
    for (auto find : {&AggrFinder::FindSortDependentAggr, &AggrFinder::FindRegularAggr,
                      &AggrFinder::FindInnerMostRegularAggr}) {
        bFound = true;
        EXPECT_FALSE(find(none.Get(), bFound));
        EXPECT_FALSE(bFound);
        bFound = true;
        EXPECT_FALSE(find(nullptr, bFound));
        EXPECT_FALSE(bFound);
    }
}

TEST(AggrFinder, AFinderAccumulatesOverSeveralWalks) {
    RqExprAggrSum* first = Sum(Col(L"a", 1));
    RqExprAggrMax* second = Max(Col(L"b", 1));
    Heap<RqExpr> one(first);
    Heap<RqExpr> two(Add(Int(1), second));
    AggrFinder finder(false, false, false, true, false);
    one->Accept(finder);
    two->Accept(finder);
    EXPECT_EQ(ToVector(finder.GetAggrsList()), (std::vector<RqExprAggr*>{first, second}));
    EXPECT_FALSE(finder.FoundNestedAggr());
}

TEST(AggrFinder, UninstantiatedAggregatesAreFoundAtAnyDepthTimeSeriesIncluded) {
    RqExprAggr* ago = Aggr<RqExprAgo>(Col(L"a", 1));
    Heap<RqExpr> expr(Add(Int(1), Add(Int(2), ago)));
    EXPECT_FALSE(AggrFinder::FindUninstantiatedAggr(expr.Get()));
    ago->SetInstantiated(false);
    EXPECT_TRUE(AggrFinder::FindUninstantiatedAggr(expr.Get()));
    EXPECT_FALSE(AggrFinder::FindUninstantiatedAggr(nullptr));
}

// Every concrete expression kind, alone and over a sum: an aggregate kind is recorded unless
// it is a time-series one, which is passed by; any other kind is looked through.
TEST(AggrFinder, EveryExpressionKindGetsTheAnswerOfItsFamily) {
    int aggregates = 0;
    int timeSeries = 0;
    for (int value = 0; value < kRqNodeTypeCount; ++value) {
        const auto kind = static_cast<RqNodeType_e>(value);
        if (!RqIsNodeTypeValue(value) || RqIsAbstractNodeType(kind) || !RqIsKindOf(kind, kRqExpr))
            continue;
        SCOPED_TRACE(RqNodeTypeName(kind));
        Heap<RqNode> blank(rqtext::MakeBlankNode(kind));
        ASSERT_TRUE(blank);
        auto* expr = RqCast<RqExpr>(blank.Get());
        const bool bAggr = RqIsKindOf(kind, kRqExprAggr);
        const bool bTimeSeries = IsTimeSeriesAggrKind(kind);
        EXPECT_TRUE(bAggr || !bTimeSeries);
        EXPECT_EQ(expr->IsAggr(), bAggr);
        aggregates += bAggr && !bTimeSeries ? 1 : 0;
        timeSeries += bTimeSeries ? 1 : 0;
        EXPECT_EQ(AggrFinder::FindAggr(expr), bAggr && !bTimeSeries);
        EXPECT_EQ(Record(*expr, false, false, false, false, false).m_aggrs.size(), bAggr ? 1u : 0u);
        if (RqNodeTypeMaxOperands(kind) == 0)
            continue;
        if (expr->GetNumOperands() == 0)
            expr->SetNumOperands(1);
        RqExprAggrSum* sum = Sum(Col(L"a", 1));
        expr->SetIthOperand(0, sum);
        // The sum is found below every kind the plain finder does not stop at.
        const Found found = Record(*expr, false, false, false, true, false);
        if (bAggr && !bTimeSeries) {
            EXPECT_EQ(found.m_aggrs, (std::vector<RqExprAggr*>{RqCast<RqExprAggr>(expr)}));
            EXPECT_TRUE(AggrFinder::FindNestedAggr(expr));
        } else {
            EXPECT_EQ(found.m_aggrs, (std::vector<RqExprAggr*>{sum}));
        }
    }
    // The recorded family and the time-series family as the finder's callers know them.
    EXPECT_EQ(aggregates, 41);
    EXPECT_EQ(timeSeries, 5);  // period ago with to-date and rolling, if, no-aggregate
}

}  // namespace
