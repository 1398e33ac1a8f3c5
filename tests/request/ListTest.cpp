// Query blocks: clause slots and ownership, derived columns and their references, projection
// numbering and matching, GROUP BY / ORDER BY / break-filter accessors, the FROM clause,
// deep copies of blocks, cache plans, sort pushability and the node traversal contract.

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <vector>

#include "Platform/Features.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORAVisitorRqNode.h"
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
RqList* MakeLeafBlock(int numColumns, uint32_t tableNum = 1) {
    auto* block = RQ_NEW RqList();
    for (int i = 1; i <= numColumns; ++i)
        block->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(Col(i)));
    auto* table = RQ_NEW RqAtomicTable(VoidID(3, tableNum), 1);
    auto* ref = RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, table);
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
    return static_cast<RqDerivedColumnReference*>(
        block.GetProjection()->GetIthColumn(column)->GetExpr());
}

// Records the kinds presented; answers true for the kinds in m_handled.
class RecordingNodeVisitor : public AVisitorRqNode {
public:
#define RQ_NV_A(cls)              \
    bool Visit(cls& n) override { \
        return Record(n);         \
    }
#define RQ_NV_F(cls) RQ_NV_A(cls)
#define RQ_NV_N(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_NV_##nv(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_NV_A
#undef RQ_NV_F
#undef RQ_NV_N

    std::vector<RqNodeType_e> m_seen;
    RqNodeTypeSet m_handled;

private:
    // Expressions are all presented through Visit(RqExpr&) and recorded as kRqExpr.
    bool Record(RqNode& n) {
        const RqNodeType_e kind = n.IsExpr() ? kRqExpr : n.GetObjectType();
        m_seen.push_back(kind);
        return m_handled.test(static_cast<size_t>(kind));
    }
};

TEST(ListClauses, FreshBlockHasSevenSlotsAndAnEmptyProjection) {
    RqList block(40);
    ASSERT_EQ(block.GetNumChildren(), RqList::kNumClauses);
    ASSERT_NE(block.GetProjection(), nullptr);
    EXPECT_EQ(block.GetProjection()->GetNumColumns(), 0);
    EXPECT_EQ(block.GetProjection()->PeekNextColumnNum(), 40);
    for (int i = 1; i < RqList::kNumClauses; ++i)
        EXPECT_EQ(block.GetIthChild(i), nullptr) << i;

    auto* orderBy = RQ_NEW RqOrderBy();
    auto* groupBy = RQ_NEW RqGroupBy();
    block.SetOrderBy(orderBy);
    block.SetGroupBy(groupBy);
    EXPECT_EQ(block.GetIthChild(RqList::kOrderByChild), orderBy);
    EXPECT_EQ(block.GetIthChild(RqList::kGroupByChild), groupBy);
    EXPECT_EQ(block.GetNumChildren(), RqList::kNumClauses);
}

TEST(ListClauses, SettersDestroyTheOldClauseAndReleaseLeavesTheSlotEmpty) {
    RqList block;
    auto* first = RQ_NEW RqDetailFilter(RQ_NEW RqExprCondIsNull(Col(1)));
    block.SetDetailFilter(first);
    SmartRqNodePtr watch(first);
    block.SetDetailFilter(RQ_NEW RqDetailFilter(RQ_NEW RqExprCondIsNull(Col(2))));
    EXPECT_EQ(watch.Get(), nullptr);

    SmartRqNodePtr projection(block.GetProjection());
    block.SetProjection(nullptr);
    EXPECT_EQ(projection.Get(), nullptr);
    EXPECT_EQ(block.GetProjection(), nullptr);

    Heap<RqNode> released(block.GetDetailFilter()->ReleaseFromParent());
    EXPECT_EQ(block.GetDetailFilter(), nullptr);
    EXPECT_EQ(block.GetNumChildren(), RqList::kNumClauses);
    EXPECT_EQ(released->GetParent(), nullptr);

    block.SetHaving(RQ_NEW RqHaving(RQ_NEW RqExprCondIsNull(Col(3))));
    Heap<RqNode> having(block.ReleaseIthChild(RqList::kHavingChild));
    EXPECT_EQ(block.GetHaving(), nullptr);
}

TEST(ListClauses, FilterConditionIsChildZeroAndSetCondDestroysTheOld) {
    RqExprCond* cond = RQ_NEW RqExprCondIsNull(Col(1));
    RqSummaryFilter filter(cond);
    EXPECT_EQ(filter.GetIthChild(0), cond);
    EXPECT_EQ(filter.GetCond(), cond);
    SmartRqNodePtr watch(cond);
    filter.SetCond(RQ_NEW RqExprCondIsNull(Col(2)));
    EXPECT_EQ(watch.Get(), nullptr);
    Heap<RqExpr> released(filter.ReleaseCond());
    EXPECT_EQ(filter.GetCond(), nullptr);
}

TEST(ListClauses, DeleteChildPutsTheReplacementInPlaceAndReplaceInParentHandsOverTheOld) {
    RqList block;
    auto* oldOrder = RQ_NEW RqOrderBy({RQ_NEW RqSortSpec(0)});
    auto* newOrder = RQ_NEW RqOrderBy({RQ_NEW RqSortSpec(1)});
    block.SetOrderBy(oldOrder);
    SmartRqNodePtr watch(oldOrder);
    block.DeleteChild(oldOrder, newOrder);
    EXPECT_EQ(watch.Get(), nullptr);
    EXPECT_EQ(block.GetOrderBy(), newOrder);

    Heap<RqList> outer(MakeOuterBlock(MakeLeafBlock(2)));
    RqDerivedTable* table = outer->GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable();
    RqAbstractList* inner = table->GetInnerList();
    auto* replacement = RQ_NEW RqList();
    {
        RqHandleNode holder;
        inner->ReplaceInParent(replacement, holder);
        EXPECT_EQ(table->GetInnerList(), replacement);
        EXPECT_EQ(holder.GetRqNode(), inner);
        EXPECT_EQ(inner->GetParent(), &holder);
    }
    EXPECT_EQ(RefOf(*outer, 0)->GetDerivedColumn(), nullptr)
        << "the replaced block's columns are gone";
}

TEST(ListReferences, ReferencesRegisterSwitchAndAreClearedWhenTheColumnGoes) {
    auto* a = RQ_NEW RqDerivedColumn(Col(1));
    RqDerivedColumn b(Col(2));
    Heap<RqDerivedColumnReference> r1(RQ_NEW RqDerivedColumnReference(a));
    Heap<RqDerivedColumnReference> r2(RQ_NEW RqDerivedColumnReference(a));
    {
        Heap<RqDerivedColumnReference> r3(RQ_NEW RqDerivedColumnReference(a));
        EXPECT_EQ(a->GetNumReferences(), 3);
    }
    RqDerivedColumnReferenceVector refs;
    a->GetReferences(refs);
    EXPECT_EQ(refs, (RqDerivedColumnReferenceVector{r1.Get(), r2.Get()}));

    a->SwitchDerivedColumnReferences(&b);
    EXPECT_EQ(a->GetNumReferences(), 0);
    EXPECT_EQ(r1->GetDerivedColumn(), &b);
    EXPECT_EQ(r2->GetDerivedColumn(), &b);

    r2->SetDerivedColumn(a);
    EXPECT_EQ(b.GetNumReferences(), 1);
    delete a;
    EXPECT_EQ(r2->GetDerivedColumn(), nullptr);
    EXPECT_EQ(r1->GetDerivedColumn(), &b);
}

TEST(ListReferences, ColumnKnowsItsContainer) {
    Heap<RqList> block(MakeLeafBlock(1));
    RqDerivedColumn* column = block->GetProjection()->GetIthColumn(0);
    EXPECT_EQ(column->GetProjection(), block->GetProjection());
    EXPECT_EQ(column->GetRqAbstractListContainer(), block.Get());
    RqDerivedColumn loose(Col(1));
    EXPECT_EQ(loose.GetRqAbstractListContainer(), nullptr);
}

TEST(ListProjection, NumberingHandsOutFreshNumbersPastExplicitOnes) {
    RqProjection projection(3);
    auto* first = RQ_NEW RqDerivedColumn(Col(1));
    projection.AddColumn(first);
    EXPECT_EQ(first->GetColumnNum(), 3);
    projection.AddColumn(RQ_NEW RqDerivedColumn(Col(2), 10));
    auto* next = RQ_NEW RqDerivedColumn(Col(3));
    projection.AddColumn(next);
    EXPECT_EQ(next->GetColumnNum(), 11);
    projection.AddColumn(RQ_NEW RqDerivedColumn(Col(4), 5));
    EXPECT_EQ(projection.GetNextColumnNum(), 12)
        << "an explicit lower number does not move the generator back";
    projection.ReSyncColumnNumGenerator(20);
    EXPECT_EQ(projection.GetNextColumnNum(), 21);

    auto* inserted = RQ_NEW RqDerivedColumn(Col(5));
    projection.InsertColumn(0, inserted);
    EXPECT_EQ(projection.GetIthColumn(0), inserted);
    EXPECT_EQ(inserted->GetColumnNum(), 22);
    EXPECT_EQ(projection.FindColumnIndex(10), 2);
    EXPECT_EQ(projection.FindColumnIndex(first), 1);
    EXPECT_EQ(projection.FindColumnIndex(99), -1);

    // A column numbered at the top of the range saturates the generator instead of
    // overflowing it; only asking it for one more number is the broken invariant.
    constexpr int kTop = std::numeric_limits<int>::max();
    projection.AddColumn(RQ_NEW RqDerivedColumn(Col(6), kTop));
    projection.ReSyncColumnNumGenerator(kTop);
    EXPECT_EQ(projection.PeekNextColumnNum(), kTop);
    EXPECT_DEATH(projection.GetNextColumnNum(), "m_nextColumnNum != std::numeric_limits");
}

TEST(ListProjection, MatchingAndInsertionGoByEquivalence) {
    RqProjection projection;
    Heap<RqExpr> expr(RQ_NEW RqExprAdd(Col(1), Int(2)));
    RqDerivedColumn* added = projection.InsertColumnExpr(expr.Get());
    EXPECT_EQ(expr->GetParent(), nullptr) << "InsertColumnExpr copies";
    EXPECT_NE(added->GetExpr(), expr.Get());
    EXPECT_EQ(projection.InsertColumnExpr(expr.Get()), added);
    EXPECT_EQ(projection.GetNumColumns(), 1);

    RqExpr* donated = RQ_NEW RqExprAdd(Col(1), Int(2));
    SmartRqNodePtr watch(donated);
    EXPECT_EQ(projection.InsertDonatedColumnExpr(donated), added);
    EXPECT_EQ(watch.Get(), nullptr) << "a donated expression that matches is destroyed";

    RqExpr* other = Col(3);
    RqDerivedColumn* second = projection.InsertDonatedColumnExpr(other);
    EXPECT_EQ(second->GetExpr(), other);
    EXPECT_EQ(projection.GetMatchingColumn(second->GetColumnNum()), second);
    Heap<RqExpr> probe(Col(3));
    EXPECT_EQ(projection.GetMatchingColumn(probe.Get()), second);
    EXPECT_EQ(projection.GetMatchingColumnIndex(probe.Get()), 1u);
    Heap<RqExpr> missing(Col(4));
    EXPECT_EQ(projection.GetMatchingColumnIndex(missing.Get()), RqProjection::kNoMatch);
    EXPECT_EQ(projection.GetMatchingColumn(missing.Get()), nullptr);
}

TEST(ListProjection, MatchingReferencesAreFoundInsideColumnExpressions) {
    Heap<RqList> outer(MakeOuterBlock(MakeLeafBlock(2)));
    RqDerivedColumn* innerColumn = RefOf(*outer, 1)->GetDerivedColumn();
    RqProjection* projection = outer->GetProjection();
    projection->AddColumn(
        RQ_NEW RqDerivedColumn(RQ_NEW RqExprAdd(RQ_NEW RqDerivedColumnReference(innerColumn),
                                                RQ_NEW RqDerivedColumnReference(innerColumn))));
    Heap<RqExpr> probe(RQ_NEW RqDerivedColumnReference(innerColumn));
    RqDerivedColumnReferenceVector found;
    projection->GetMatchingColumnReferences(probe.Get(), found, RqEquivalence());
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0], RefOf(*outer, 1));
    EXPECT_EQ(found[1]->GetParent(), projection->GetIthColumn(2)->GetExpr());
}

TEST(ListProjection, DeleteColumnSwitchesToTheReplacementOrClearsReferences) {
    Heap<RqList> outer(MakeOuterBlock(MakeLeafBlock(3)));
    RqProjection* inner = RefOf(*outer, 0)->GetDerivedColumn()->GetProjection();
    RqDerivedColumn* c0 = inner->GetIthColumn(0);
    RqDerivedColumn* c1 = inner->GetIthColumn(1);
    RqDerivedColumn* c2 = inner->GetIthColumn(2);

    inner->DeleteColumn(c0, c2);
    EXPECT_EQ(inner->GetNumColumns(), 2) << "the slot is erased";
    EXPECT_EQ(RefOf(*outer, 0)->GetDerivedColumn(), c2);
    EXPECT_EQ(c2->GetNumReferences(), 2);

    inner->DeleteColumn(c1, nullptr);
    EXPECT_EQ(RefOf(*outer, 1)->GetDerivedColumn(), nullptr);
    EXPECT_EQ(inner->GetIthColumn(0), c2);

    Heap<RqDerivedColumn> removed(inner->RemoveColumn(c2));
    EXPECT_EQ(inner->GetNumColumns(), 0);
    EXPECT_EQ(removed->GetParent(), nullptr);
    EXPECT_EQ(RefOf(*outer, 2)->GetDerivedColumn(), c2) << "a removed column keeps its references";
}

TEST(ListGroupBy, ColumnsGranularityAndModes) {
    RqExpr* a = Col(1);
    RqGroupBy groupBy({a, Col(2)}, {Col(9)}, RqGroupBy::kHash);
    EXPECT_EQ(groupBy.GetNumChildren(), 2);
    EXPECT_EQ(groupBy.GetIthChild(0), groupBy.GetColumnList());
    EXPECT_EQ(groupBy.GetIthColumn(0), a);
    EXPECT_EQ(groupBy.GetNumColumns(), 2);
    ASSERT_NE(groupBy.GetGranularity(), nullptr);
    EXPECT_EQ(groupBy.GetGranularity()->GetNumColumns(), 1);
    EXPECT_EQ(groupBy.GetInternalExecutionMode(), RqGroupBy::kHash);

    groupBy.AppendColumn(Col(3));
    Heap<RqExprColumnListOrdered> wide(
        RQ_NEW RqExprColumnListOrdered(RqExprVector{Col(3), Col(2), Col(1)}));
    EXPECT_TRUE(groupBy.IsSubsetOf(*wide));
    EXPECT_FALSE(groupBy.IsPrefixSubsetOf(*wide));
    Heap<RqExpr> probe(Col(2));
    EXPECT_TRUE(groupBy.HasEquivalentMember(*probe));

    RqGroupBy empty;
    EXPECT_EQ(empty.GetNumColumns(), 0);
    EXPECT_EQ(empty.GetGranularity(), nullptr);
    EXPECT_TRUE(empty.IsSubsetOf(*wide));
}

TEST(ListOrderBy, SortSpecsComeBeforePushDownAggregates) {
    auto* s0 = RQ_NEW RqSortSpec(0);
    RqOrderBy orderBy({s0}, std::vector<ZKString>{L"INTEGER"}, true);
    EXPECT_TRUE(orderBy.IsSticky());
    EXPECT_EQ(orderBy.GetStickyTypes(), std::vector<ZKString>{L"INTEGER"});
    EXPECT_FALSE(orderBy.HasPushDownAggr());

    Heap<RqExpr> aggr(RQ_NEW RqExprAggrSum(Col(1)));
    orderBy.AppendPushDownAggr(aggr.Get());
    EXPECT_EQ(aggr->GetParent(), nullptr) << "the ORDER BY keeps a copy";
    auto* s1 = RQ_NEW RqSortSpec(1, RqSortSpec::kDesc);
    orderBy.AppendSortSpec(s1);
    ASSERT_EQ(orderBy.GetNumSortSpecs(), 2);
    EXPECT_EQ(orderBy.GetIthSortSpec(1), s1);
    ASSERT_EQ(orderBy.GetNumPushDownAggrs(), 1);
    EXPECT_EQ(orderBy.GetIthChild(2), orderBy.GetIthPushDownAggr(0));
    EXPECT_TRUE(RqEquivalence()(orderBy.GetIthPushDownAggr(0), aggr.Get()));

    orderBy.EraseIthChild(0);
    EXPECT_EQ(orderBy.GetNumSortSpecs(), 1);
    EXPECT_EQ(orderBy.GetIthSortSpec(0), s1);
    EXPECT_TRUE(orderBy.HasPushDownAggr());
}

TEST(ListBreakFilter, IndexesAndNumbersThroughTheInnerProjection) {
    RqList* inner = MakeLeafBlock(3);
    inner->GetProjection()->GetIthColumn(0)->SetColumnNum(30);
    inner->GetProjection()->GetIthColumn(2)->SetColumnNum(10);
    RqBreakFilter filter(inner, {2, 0});
    EXPECT_EQ(filter.GetInnerList(), inner);
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

TEST(ListSetOperations, ProjectionIsTheFirstMembersAndSetIthListReplaces) {
    RqList* first = MakeLeafBlock(1);
    RqList* second = MakeLeafBlock(1);
    RqUnion unionAll({first, second}, true);
    EXPECT_TRUE(unionAll.IsUnionAll());
    EXPECT_EQ(unionAll.GetNumLists(), 2);
    EXPECT_EQ(unionAll.GetProjection(), first->GetProjection());
    SmartRqNodePtr watch(first);
    auto* third = MakeLeafBlock(2);
    unionAll.SetIthList(0, third);
    EXPECT_EQ(watch.Get(), nullptr);
    EXPECT_EQ(unionAll.GetProjection(), third->GetProjection());
    EXPECT_FALSE(unionAll.IsFoldableList());

    RqList block;
    EXPECT_TRUE(block.IsFoldableList());
    block.SetShared(true);
    EXPECT_FALSE(block.IsFoldableList());
}

TEST(ListFrom, TableReferenceSlotsAndJoinSpecKeepsNodesBeforeLinks) {
    auto* left = RQ_NEW RqAtomicTable(VoidID(3, 1), 1);
    RqTableReference single(SqlTableRef::kInnerJoin, left);
    EXPECT_EQ(single.GetNumChildren(), 3);
    EXPECT_EQ(single.GetLeftTable(), left);
    EXPECT_EQ(single.GetRightTable(), nullptr);
    EXPECT_EQ(single.GetSearchCond(), nullptr);
    EXPECT_TRUE(single.IsDeclarativeTableReference());
    EXPECT_FALSE(single.IsDerivedTableReference());

    RqTableReference derived(SqlTableRef::kLeftOuterJoin, RQ_NEW RqDerivedTable(RQ_NEW RqList()),
                             RQ_NEW RqExprCondIsNull(Col(1)),
                             RQ_NEW RqAtomicTable(VoidID(3, 2), 2));
    EXPECT_TRUE(derived.IsDerivedTableReference());
    EXPECT_FALSE(derived.IsDeclarativeTableReference());
    EXPECT_NE(derived.GetSearchCond(), nullptr);

    auto* n1 =
        RQ_NEW RqJoinNode(RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, RQ_NEW RqAtomicTable()));
    auto* n2 =
        RQ_NEW RqJoinNode(RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, RQ_NEW RqAtomicTable()));
    RqJoinSpec spec({n1});
    auto* link = RQ_NEW RqJoinLink(n1, n2);
    spec.AddJoinLink(link);
    spec.AddJoinNode(n2);
    EXPECT_EQ(spec.GetNumJoinNodes(), 2);
    EXPECT_EQ(spec.GetIthChild(1), n2);
    EXPECT_EQ(spec.GetIthChild(2), link);
    EXPECT_EQ(spec.GetIthTableReference(1), n2->GetTableReference());
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
    RqJoinNode* node = spec->GetIthJoinNode(0);
    spec->AddJoinLink(RQ_NEW RqJoinLink(node, node));

    Heap<RqList> fresh(static_cast<RqList*>(outer->DeepCopy(false)));
    Heap<RqList> kept(static_cast<RqList*>(outer->DeepCopy(true)));
    RqAbstractList* copiedInner =
        fresh->GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable()->GetInnerList();
    ASSERT_NE(copiedInner, inner);
    EXPECT_EQ(RefOf(*fresh, 1)->GetDerivedColumn(), copiedInner->GetProjection()->GetIthColumn(1));
    EXPECT_EQ(RefOf(*fresh, 2)->GetDerivedColumn(), &external);
    EXPECT_EQ(inner->GetProjection()->GetIthColumn(1)->GetNumReferences(), 1)
        << "the original keeps its references";
    EXPECT_EQ(external.GetNumReferences(), 3);

    auto* copiedLink = static_cast<RqJoinLink*>(fresh->GetJoinSpec()->GetIthChild(1));
    EXPECT_EQ(copiedLink->GetFrom(), fresh->GetJoinSpec()->GetIthJoinNode(0));
    EXPECT_EQ(copiedLink->GetTo(), fresh->GetJoinSpec()->GetIthJoinNode(0));

    EXPECT_TRUE(RqEquivalence()(*outer, *fresh)) << "a copy is equivalent to its original";
    EXPECT_FALSE(fresh->IsCopyOf(*outer));
    EXPECT_FALSE(copiedInner->IsCopyOf(*inner));
    EXPECT_TRUE(kept->IsCopyOf(*outer));
    EXPECT_TRUE(RefOf(*kept, 0)->IsCopyOf(*RefOf(*outer, 0)));
}

TEST(ListCopy, SharedListFollowsACopiedTargetOnly) {
    RqList* shared = MakeLeafBlock(1);
    auto* view = RQ_NEW RqSharedList(shared);
    Heap<RqUnion> both(RQ_NEW RqUnion({shared, view}, false));
    EXPECT_EQ(view->GetProjection(), shared->GetProjection());
    Heap<RqUnion> copy(static_cast<RqUnion*>(both->DeepCopy(false)));
    EXPECT_EQ(static_cast<RqSharedList*>(copy->GetIthList(1))->GetSharedRqList(),
              copy->GetIthList(0));
    Heap<RqSharedList> viewCopy(static_cast<RqSharedList*>(view->DeepCopy(false)));
    EXPECT_EQ(viewCopy->GetSharedRqList(), shared);
}

TEST(ListCache, LogicalPlanEntryIsLittleEndianLimitOffsetFlags) {
    RqCache cache(MakeLeafBlock(1));
    EXPECT_EQ(cache.GetLogicalPlanEntry().m_rowLimit, 0u);
    LogicalPlanEntry entry;
    entry.m_rowLimit = 0x01020304u;
    entry.m_rowOffset = 5;
    entry.m_flags = 0xA0000000u;
    cache.SetLogicalPlanEntry(entry);
    LogicalPlanBytes bytes;
    cache.GetLogicalPlan(bytes);
    EXPECT_EQ(bytes, (LogicalPlanBytes{4, 3, 2, 1, 5, 0, 0, 0, 0, 0, 0, 0xA0}));
    bytes.push_back(0x77);
    bytes[4] = 9;
    cache.SetLogicalPlan(bytes);
    EXPECT_EQ(cache.GetLogicalPlanEntry().m_rowOffset, 9u);
    cache.SetLogicalPlanEntry(entry);
    cache.GetLogicalPlan(bytes);
    EXPECT_EQ(bytes.size(), 13u) << "later entries are kept";
    EXPECT_EQ(cache.GetProjection(), cache.GetList()->GetProjection());
}

TEST(ListRepository, CommonComplexJoinAndSortPushability) {
    auto repository = std::make_shared<RpRepository>();
    RefADatabase plain = repository->AddDatabase(L"plain", ServerInfo::kUnknown,
                                                 {SUFeaturesTable::kFeature_OrderBy});
    RefADatabase rich = repository->AddDatabase(
        L"rich", ServerInfo::kUnknown,
        {SUFeaturesTable::kFeature_OrderBy, SUFeaturesTable::kFeature_OrderByNullsOrdering,
         SUFeaturesTable::kFeature_OrderByExprNotInSelectDistinct});
    RefADatabase none = repository->AddDatabase(L"none", ServerInfo::kUnknown, {});
    RefATable t1 = repository->AddTable(plain, L"", L"T1");
    RefATable t2 = repository->AddTable(plain, L"", L"T2");
    RefATable t3 = repository->AddTable(plain, L"", L"T3");
    RefAComplexJoin join = repository->AddComplexJoin(t1, t2, k_One_To_Many);
    RpSession session(repository);

    RqAtomicTable a(t1->GetID(), 1);
    RqAtomicTable b(t2->GetID(), 2);
    RqAtomicTable c(t3->GetID(), 3);
    EXPECT_EQ(a.GetCommonComplexJoin(&session, &b), join);
    EXPECT_EQ(b.GetCommonComplexJoin(&session, &a), join);
    EXPECT_TRUE(a.GetCommonComplexJoin(&session, &c).IsNull());

    RqOrderBy simple({RQ_NEW RqSortSpec(0)});
    RqOrderBy nullsFirst(
        {RQ_NEW RqSortSpec(0, RqSortSpec::kAsc, false, false, RqSortSpec::kFirst)});
    RqOrderBy withAggr({RQ_NEW RqSortSpec(0)});
    Heap<RqExpr> aggr(RQ_NEW RqExprAggrSum(Col(1)));
    withAggr.AppendPushDownAggr(aggr.Get());

    EXPECT_FALSE(FeaturesMgr::IsSortPushable(RefADatabase(), simple, &session, false));
    EXPECT_FALSE(FeaturesMgr::IsSortPushable(none, simple, &session, false));
    EXPECT_TRUE(FeaturesMgr::IsSortPushable(plain, simple, &session, true));
    EXPECT_FALSE(FeaturesMgr::IsSortPushable(plain, nullsFirst, &session, false));
    EXPECT_TRUE(FeaturesMgr::IsSortPushable(rich, nullsFirst, &session, false));
    EXPECT_TRUE(FeaturesMgr::IsSortPushable(plain, withAggr, &session, false));
    EXPECT_FALSE(FeaturesMgr::IsSortPushable(plain, withAggr, &session, true));
    EXPECT_TRUE(FeaturesMgr::IsSortPushable(rich, withAggr, &session, true));
}

TEST(ListTraversal, ChildOrderAndAHandledListHidesEverythingBelow) {
    RqList* inner = MakeLeafBlock(1);
    inner->SetOrderBy(RQ_NEW RqOrderBy({RQ_NEW RqSortSpec(0)}));
    RqList* outer = MakeOuterBlock(inner);
    outer->SetDetailFilter(RQ_NEW RqDetailFilter(RQ_NEW RqExprCondIsNull(Col(1))));
    RqHandleNode root(outer);

    RecordingNodeVisitor all;
    root.Accept(all);
    const std::vector<RqNodeType_e> expected = {
        kRqHandleNode,     kRqList,          kRqProjection,     kRqDerivedColumn, kRqExpr,
        kRqJoinSpec,       kRqJoinNode,      kRqTableReference, kRqDerivedTable,  kRqList,
        kRqProjection,     kRqDerivedColumn, kRqExpr,           kRqJoinSpec,      kRqJoinNode,
        kRqTableReference, kRqAtomicTable,   kRqOrderBy,        kRqSortSpec,      kRqDetailFilter,
        kRqExpr,           kRqExpr};
    EXPECT_EQ(all.m_seen, expected);

    RecordingNodeVisitor listsHandled;
    listsHandled.m_handled.set(kRqList);
    root.Accept(listsHandled);
    EXPECT_EQ(listsHandled.m_seen, (std::vector<RqNodeType_e>{kRqHandleNode, kRqList}));
}

}  // namespace
