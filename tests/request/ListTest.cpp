// Query blocks: clause slots and ownership, filters, derived columns and their references,
// projection numbering and matching, GROUP BY and its grouping sets, ORDER BY, break filters,
// set operations, the FROM clause, deep copies of blocks, cache plans and sort pushability.

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <vector>

#include "Platform/Features.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace {

RqExpr* Int(int64_t value) {
    return RQ_NEW RqExprIntegerLiteral(value);
}
RqTargetColumn* Col(uint32_t id) {
    return RQ_NEW RqTargetColumn(VoidID(4, id), L"C" + ZKString::FromInt(id), 1);
}

// A block over one table with columns reading target columns 1..n.
RqList* MakeLeafBlock(int numColumns) {
    auto* block = RQ_NEW RqList();
    for (int i = 1; i <= numColumns; ++i)
        block->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(Col(i)));
    auto* ref =
        RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, RQ_NEW RqAtomicTable(VoidID(3, 1), 1));
    block->SetJoinSpec(RQ_NEW RqJoinSpec({RQ_NEW RqJoinNode(ref)}));
    return block;
}

// An outer block over a derived table of `inner` whose columns refer to every inner column.
RqList* MakeOuterBlock(RqList* inner) {
    auto* outer = RQ_NEW RqList();
    RqProjection* innerProjection = inner->GetProjection();
    for (int i = 0; i < innerProjection->GetNumColumns(); ++i) {
        outer->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(
            RQ_NEW RqDerivedColumnReference(innerProjection->GetIthColumn(i))));
    }
    auto* ref = RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, RQ_NEW RqDerivedTable(inner));
    outer->SetJoinSpec(RQ_NEW RqJoinSpec({RQ_NEW RqJoinNode(ref)}));
    return outer;
}

RqDerivedColumnReference* RefOf(const RqList& block, int column) {
    return RqCast<RqDerivedColumnReference>(block.GetProjection()->GetIthColumn(column)->GetExpr());
}

// A GROUP BY over target columns with those ids (none: no column list at all).
RqGroupBy* GroupByOf(std::initializer_list<uint32_t> ids, bool bListPresent = true) {
    RqExprVector columns;
    for (uint32_t id : ids)
        columns.push_back(Col(id));
    auto* groupBy = RQ_NEW RqGroupBy(columns);
    if (!bListPresent)
        groupBy->SetIthChild(0, nullptr);
    return groupBy;
}

// A filter that would take any expression, condition or not.
template <class Filter>
concept TakesAnyExpression = requires(Filter& f, RqExpr* e) {
    f.SetCond(e);
}
|| std::is_constructible_v<Filter, RqExpr*>;

TEST(ListClauses, EveryFilterReadsBackTheConditionItWasGiven) {
    // A filter holds a condition: setting one and reading it back agree for all three
    // clauses, including a condition over a Boolean column, wrapped to be a condition.
    static_assert(!TakesAnyExpression<RqDetailFilter> && !TakesAnyExpression<RqSummaryFilter> &&
                  !TakesAnyExpression<RqHaving>);
    RqDetailFilter detail;
    RqSummaryFilter summary;
    RqHaving having;
    auto check = [](auto& filter) {
        RqExprCond* flag = RQ_NEW RqExprCondAtomicWrapper(Col(1));
        filter.SetCond(flag);
        EXPECT_EQ(filter.GetCond(), flag);
        EXPECT_EQ(filter.GetCondExpr(), flag);
        SmartRqNodePtr watch(flag);
        RqExprCond* comparison = RQ_NEW RqExprCondEquality(Col(1), Int(1));
        filter.SetCond(comparison);
        EXPECT_EQ(watch.Get(), nullptr);
        Heap<RqExprCond> released(filter.ReleaseCond());
        EXPECT_EQ(released.Get(), comparison);
        EXPECT_EQ(filter.GetCond(), nullptr);
    };
    check(detail);
    check(summary);
    check(having);
}

TEST(ListProjection, NumberingHandsOutFreshNumbersPastExplicitOnes) {
    RqProjection projection(3);
    auto* first = RQ_NEW RqDerivedColumn(Col(1));
    projection.AddColumn(first);
    EXPECT_EQ(first->GetColumnNum(), 3);
    projection.AddColumn(RQ_NEW RqDerivedColumn(Col(2), 10));
    projection.AddColumn(RQ_NEW RqDerivedColumn(Col(4), 5));
    EXPECT_EQ(projection.GetNextColumnNum(), 11) << "a lower number does not move it back";
    projection.ReSyncColumnNumGenerator(20);
    auto* inserted = RQ_NEW RqDerivedColumn(Col(5));
    projection.InsertColumn(0, inserted);
    EXPECT_EQ(inserted->GetColumnNum(), 21);
    EXPECT_EQ(projection.FindColumnIndex(10), 2);
    EXPECT_EQ(projection.FindColumnIndex(99), -1);
    // A column numbered at the top of the range saturates the generator instead of
    // overflowing it; only asking it for one more number is the broken invariant.
    constexpr int kTop = std::numeric_limits<int>::max();
    projection.AddColumn(RQ_NEW RqDerivedColumn(Col(6), kTop));
    EXPECT_EQ(projection.PeekNextColumnNum(), kTop);
    EXPECT_DEATH(projection.GetNextColumnNum(), "m_nextColumnNum != std::numeric_limits");
}

TEST(ListProjection, MatchingAndInsertionGoByEquivalence) {
    RqProjection projection;
    Heap<RqExpr> expr(RQ_NEW RqExprAdd(Col(1), Int(2)));
    RqDerivedColumn* added = projection.InsertColumnExpr(expr.Get());
    EXPECT_EQ(expr->GetParent(), nullptr) << "InsertColumnExpr copies";
    EXPECT_EQ(projection.InsertColumnExpr(expr.Get()), added);
    RqExpr* donated = RQ_NEW RqExprAdd(Col(1), Int(2));
    SmartRqNodePtr watch(donated);
    EXPECT_EQ(projection.InsertDonatedColumnExpr(donated), added);
    EXPECT_EQ(watch.Get(), nullptr) << "a donated expression that matches is destroyed";
    RqDerivedColumn* second = projection.InsertDonatedColumnExpr(Col(3));
    Heap<RqExpr> probe(Col(3));
    EXPECT_EQ(projection.GetMatchingColumn(probe.Get()), second);
    EXPECT_EQ(projection.GetMatchingColumnIndex(probe.Get()), 1u);
    Heap<RqExpr> missing(Col(4));
    EXPECT_EQ(projection.GetMatchingColumnIndex(missing.Get()), RqProjection::kNoMatch);

    // References are found inside the columns' expressions, in order.
    Heap<RqList> outer(MakeOuterBlock(MakeLeafBlock(2)));
    RqDerivedColumn* innerColumn = RefOf(*outer, 1)->GetDerivedColumn();
    outer->GetProjection()->AddColumn(
        RQ_NEW RqDerivedColumn(RQ_NEW RqExprAdd(RQ_NEW RqDerivedColumnReference(innerColumn),
                                                RQ_NEW RqDerivedColumnReference(innerColumn))));
    Heap<RqExpr> reference(RQ_NEW RqDerivedColumnReference(innerColumn));
    RqDerivedColumnReferenceVector found;
    outer->GetProjection()->GetMatchingColumnReferences(reference.Get(), found, RqEquivalence());
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0], RefOf(*outer, 1));
}

TEST(ListProjection, DeleteColumnSwitchesToTheReplacementOrClearsReferences) {
    Heap<RqList> outer(MakeOuterBlock(MakeLeafBlock(3)));
    RqProjection* inner = RefOf(*outer, 0)->GetDerivedColumn()->GetProjection();
    RqDerivedColumn* c1 = inner->GetIthColumn(1);
    RqDerivedColumn* c2 = inner->GetIthColumn(2);
    inner->DeleteColumn(inner->GetIthColumn(0), c2);
    EXPECT_EQ(RefOf(*outer, 0)->GetDerivedColumn(), c2);
    inner->DeleteColumn(c1, nullptr);
    EXPECT_EQ(RefOf(*outer, 1)->GetDerivedColumn(), nullptr);
    Heap<RqDerivedColumn> removed(inner->RemoveColumn(c2));
    EXPECT_EQ(inner->GetNumColumns(), 0);
    EXPECT_EQ(RefOf(*outer, 2)->GetDerivedColumn(), c2) << "a removed column keeps its references";
}

TEST(ListGroupBy, ComparisonsOfTwoGroupBysReadTheirColumnListsAsOrderedLists) {
    Heap<RqGroupBy> ab(GroupByOf({1, 2}));
    Heap<RqGroupBy> ba(GroupByOf({2, 1}));
    Heap<RqGroupBy> abc(GroupByOf({1, 2, 3}));
    Heap<RqGroupBy> empty(GroupByOf({}));
    Heap<RqGroupBy> absent(GroupByOf({}, false));
    EXPECT_TRUE(ab->IsSubsetOf(*abc));
    EXPECT_FALSE(abc->IsSubsetOf(*ab));
    EXPECT_TRUE(ab->IsPrefixSubsetOf(*abc));
    EXPECT_FALSE(ba->IsPrefixSubsetOf(*abc));
    EXPECT_TRUE(ab->HasSameColumns(*ba));
    EXPECT_FALSE(ab->HasSameColumns(*abc));
    // An absent column list is an empty one, on either side.
    for (const RqGroupBy* none : {empty.Get(), absent.Get()}) {
        EXPECT_TRUE(none->IsSubsetOf(*ab));
        EXPECT_TRUE(none->IsPrefixSubsetOf(*ab));
        EXPECT_FALSE(ab->IsSubsetOf(*none));
        EXPECT_FALSE(ab->IsPrefixSubsetOf(*none));
    }
    EXPECT_TRUE(empty->HasSameColumns(*absent));
    EXPECT_TRUE(absent->HasSameColumns(*empty));
    // Grouping sets play no part in what is grouped by.
    ba->AddGroupingSet({0});
    EXPECT_TRUE(ab->HasSameColumns(*ba));
}

TEST(ListGroupBy, GroupingSetsAreFoundAsSetsAndKeptByCopies) {
    Heap<RqGroupBy> groupBy(GroupByOf({1, 2, 3}));
    EXPECT_FALSE(groupBy->IsGroupingSets());
    groupBy->AddGroupingSet({2, 0});
    groupBy->AddGroupingSet({1});
    groupBy->AddGroupingSet({});
    EXPECT_TRUE(groupBy->IsGroupingSets());
    EXPECT_EQ(groupBy->FindGroupingSet({0, 2}), 0) << "the order of the positions is free";
    EXPECT_EQ(groupBy->FindGroupingSet({2, 0, 2}), 0) << "so is repeating one";
    EXPECT_EQ(groupBy->FindGroupingSet({}), 2) << "the grand total";
    EXPECT_EQ(groupBy->FindGroupingSet({0}), -1);
    EXPECT_EQ(groupBy->GetIthGroupingSet(0), (UInt16Vector{2, 0})) << "kept as given";

    // Copies keep the sets, deep or through a block.
    Heap<RqGroupBy> copy(RqCast<RqGroupBy>(groupBy->DeepCopy(false)));
    RqList block;
    block.SetGroupBy(groupBy.Release());
    Heap<RqList> blockCopy(RqCast<RqList>(block.DeepCopy(false)));
    for (const RqGroupBy* copied : {copy.Get(), blockCopy->GetGroupBy()}) {
        ASSERT_EQ(copied->GetNumGroupingSets(), 3);
        EXPECT_EQ(copied->GetIthGroupingSet(0), (UInt16Vector{2, 0}));
        EXPECT_EQ(copied->FindGroupingSet({1}), 1);
    }
    block.GetGroupBy()->ClearGroupingSets();
    EXPECT_FALSE(block.GetGroupBy()->IsGroupingSets());
    EXPECT_TRUE(blockCopy->GetGroupBy()->IsGroupingSets()) << "the copy owns its sets";
}

TEST(ListOrderBy, SortSpecsComeBeforePushDownAggregates) {
    RqOrderBy orderBy({RQ_NEW RqSortSpec(0)}, std::vector<ZKString>{L"INTEGER"}, true);
    EXPECT_EQ(orderBy.GetStickyTypes(), std::vector<ZKString>{L"INTEGER"});
    Heap<RqExpr> aggr(RQ_NEW RqExprAggrSum(Col(1)));
    orderBy.AppendPushDownAggr(aggr.Get());
    EXPECT_EQ(aggr->GetParent(), nullptr) << "the ORDER BY keeps a copy";
    auto* s1 = RQ_NEW RqSortSpec(1, RqSortSpec::kDesc);
    orderBy.AppendSortSpec(s1);
    ASSERT_EQ(orderBy.GetNumSortSpecs(), 2);
    EXPECT_EQ(orderBy.GetIthSortSpec(1), s1);
    EXPECT_EQ(orderBy.GetIthChild(2), orderBy.GetIthPushDownAggr(0));
    orderBy.EraseIthChild(0);
    EXPECT_EQ(orderBy.GetNumSortSpecs(), 1);
    EXPECT_TRUE(orderBy.HasPushDownAggr());
}

TEST(ListBreakFilter, IndexesAndNumbersThroughTheInnerProjection) {
    RqList* inner = MakeLeafBlock(3);
    inner->GetProjection()->GetIthColumn(0)->SetColumnNum(30);
    inner->GetProjection()->GetIthColumn(2)->SetColumnNum(10);
    RqBreakFilter filter(inner, {2, 0});
    EXPECT_EQ(filter.GetProjection(), inner->GetProjection());
    UInt16Vector out{7};
    filter.GetBreakColumnIndexes(out, false);
    EXPECT_EQ(out, (UInt16Vector{2, 0}));
    filter.GetBreakColumnIndexes(out, true);
    EXPECT_EQ(out, (UInt16Vector{0, 2}));
    filter.GetBreakColumnNumbers(out);
    EXPECT_EQ(out, (UInt16Vector{10, 30}));
    filter.GetBreakColumnIndexesAccountForNoOrderBy(out, false);
    EXPECT_EQ(out, (UInt16Vector{0, 2})) << "without ORDER BY the breaks follow the projection";
    inner->SetOrderBy(RQ_NEW RqOrderBy({RQ_NEW RqSortSpec(10)}));
    filter.GetBreakColumnIndexesAccountForNoOrderBy(out, false);
    EXPECT_EQ(out, (UInt16Vector{2, 0}));
}

TEST(ListSetOperations, ProjectionIsTheFirstMembersAndOnlyUnsharedBlocksFold) {
    RqList* first = MakeLeafBlock(1);
    RqUnion unionAll({first, MakeLeafBlock(1)}, true);
    EXPECT_EQ(unionAll.GetProjection(), first->GetProjection());
    auto* third = MakeLeafBlock(2);
    unionAll.SetIthList(0, third);
    EXPECT_EQ(unionAll.GetProjection(), third->GetProjection());
    EXPECT_FALSE(unionAll.IsFoldableList());
    RqList block;
    EXPECT_TRUE(block.IsFoldableList());
    block.SetShared(true);
    EXPECT_FALSE(block.IsFoldableList());
}

TEST(ListFrom, TableReferencesAndJoinSpecKeepsNodesBeforeLinks) {
    RqTableReference single(SqlTableRef::kInnerJoin, RQ_NEW RqAtomicTable(VoidID(3, 1), 1));
    EXPECT_EQ(single.GetNumChildren(), 3);
    EXPECT_TRUE(single.IsDeclarativeTableReference());
    RqTableReference derived(SqlTableRef::kLeftOuterJoin, RQ_NEW RqDerivedTable(RQ_NEW RqList()),
                             RQ_NEW RqExprCondIsNull(Col(1)),
                             RQ_NEW RqAtomicTable(VoidID(3, 2), 2));
    EXPECT_TRUE(derived.IsDerivedTableReference());
    EXPECT_FALSE(derived.IsDeclarativeTableReference());

    // A side that is a nested reference is a node, not a table: the table accessors answer
    // null for it.
    auto* nested = RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, RQ_NEW RqAtomicTable());
    RqTableReference outer(SqlTableRef::kInnerJoin, RQ_NEW RqAtomicTable(), nullptr, nested);
    EXPECT_EQ(outer.GetRightNode(), nested);
    EXPECT_EQ(outer.GetRightTable(), nullptr);
    EXPECT_TRUE(outer.IsDeclarativeTableReference());

    auto* n1 =
        RQ_NEW RqJoinNode(RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, RQ_NEW RqAtomicTable()));
    auto* n2 =
        RQ_NEW RqJoinNode(RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, RQ_NEW RqAtomicTable()));
    RqJoinSpec spec({n1});
    auto* link = RQ_NEW RqJoinLink(n1, n2);
    spec.AddJoinLink(link);
    spec.AddJoinNode(n2);
    EXPECT_EQ(spec.GetIthChild(1), n2);
    EXPECT_EQ(spec.GetIthChild(2), link);
    std::vector<RqJoinLink*> links;
    n2->GetIncidentLinks(links);
    EXPECT_EQ(links, std::vector<RqJoinLink*>{link});
}

TEST(ListCopy, DeepCopyRepointsInternalLinksAndKeepsExternalOnes) {
    RqDerivedColumn external(Col(99));
    RqList* inner = MakeLeafBlock(2);
    Heap<RqList> outer(MakeOuterBlock(inner));
    outer->GetProjection()->AddColumn(
        RQ_NEW RqDerivedColumn(RQ_NEW RqDerivedColumnReference(&external)));
    RqJoinSpec* spec = outer->GetJoinSpec();
    spec->AddJoinLink(RQ_NEW RqJoinLink(spec->GetIthJoinNode(0), spec->GetIthJoinNode(0)));
    Heap<RqList> fresh(RqCast<RqList>(outer->DeepCopy(false)));
    RqAbstractList* copiedInner =
        fresh->GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable()->GetInnerList();
    ASSERT_NE(copiedInner, inner);
    EXPECT_EQ(RefOf(*fresh, 1)->GetDerivedColumn(), copiedInner->GetProjection()->GetIthColumn(1));
    EXPECT_EQ(RefOf(*fresh, 2)->GetDerivedColumn(), &external);
    EXPECT_EQ(inner->GetProjection()->GetIthColumn(1)->GetNumReferences(), 1);
    auto* copiedLink = RqCast<RqJoinLink>(fresh->GetJoinSpec()->GetIthChild(1));
    EXPECT_EQ(copiedLink->GetFrom(), fresh->GetJoinSpec()->GetIthJoinNode(0));
    EXPECT_TRUE(RqEquivalence()(*outer, *fresh)) << "a copy is equivalent to its original";

    // A shared list follows its target when the target is copied along.
    RqList* shared = MakeLeafBlock(1);
    auto* view = RQ_NEW RqSharedList(shared);
    Heap<RqUnion> both(RQ_NEW RqUnion({shared, view}, false));
    Heap<RqUnion> copy(RqCast<RqUnion>(both->DeepCopy(false)));
    EXPECT_EQ(RqCast<RqSharedList>(copy->GetIthList(1))->GetSharedRqList(), copy->GetIthList(0));
    Heap<RqSharedList> viewCopy(RqCast<RqSharedList>(view->DeepCopy(false)));
    EXPECT_EQ(viewCopy->GetSharedRqList(), shared);
}

TEST(ListRepository, CommonComplexJoinAndSortPushability) {
    auto repository = std::make_shared<RpRepository>();
    RefADatabase plain = repository->AddDatabase(L"plain", ServerInfo::kUnknown,
                                                 {SUFeaturesTable::kFeature_OrderBy});
    RefADatabase rich = repository->AddDatabase(
        L"rich", ServerInfo::kUnknown,
        {SUFeaturesTable::kFeature_OrderBy, SUFeaturesTable::kFeature_OrderByNullsOrdering,
         SUFeaturesTable::kFeature_OrderByExprNotInSelectDistinct});
    RefATable t1 = repository->AddTable(plain, L"", L"T1");
    RefATable t2 = repository->AddTable(plain, L"", L"T2");
    RefATable t3 = repository->AddTable(plain, L"", L"T3");
    RefAComplexJoin join = repository->AddComplexJoin(t1, t2, k_One_To_Many);
    RpSession session(repository);
    RqAtomicTable a(t1->GetID(), 1);
    RqAtomicTable b(t2->GetID(), 2);
    RqAtomicTable c(t3->GetID(), 3);
    EXPECT_EQ(b.GetCommonComplexJoin(&session, &a), join);
    EXPECT_TRUE(a.GetCommonComplexJoin(&session, &c).IsNull());

    RqOrderBy simple({RQ_NEW RqSortSpec(0)});
    RqOrderBy nullsFirst(
        {RQ_NEW RqSortSpec(0, RqSortSpec::kAsc, false, false, RqSortSpec::kFirst)});
    RqOrderBy withAggr({RQ_NEW RqSortSpec(0)});
    Heap<RqExpr> aggr(RQ_NEW RqExprAggrSum(Col(1)));
    withAggr.AppendPushDownAggr(aggr.Get());
    EXPECT_FALSE(FeaturesMgr::IsSortPushable(RefADatabase(), simple, &session, false));
    EXPECT_TRUE(FeaturesMgr::IsSortPushable(plain, simple, &session, true));
    EXPECT_FALSE(FeaturesMgr::IsSortPushable(plain, nullsFirst, &session, false));
    EXPECT_TRUE(FeaturesMgr::IsSortPushable(rich, nullsFirst, &session, false));
    EXPECT_TRUE(FeaturesMgr::IsSortPushable(plain, withAggr, &session, false));
    EXPECT_FALSE(FeaturesMgr::IsSortPushable(plain, withAggr, &session, true));
    EXPECT_TRUE(FeaturesMgr::IsSortPushable(rich, withAggr, &session, true));
}

}  // namespace
