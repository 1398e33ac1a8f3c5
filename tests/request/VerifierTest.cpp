// The tree verifier: each way of breaking a well-formed tree is reported once, with its kind,
// at the node that is wrong, under the node's path.
//
// A child whose parent link names another node, and a node held in two places, cannot be
// provoked here: every public operation that links a node asserts that it has no parent yet,
// and every one that unlinks it clears the link; those checks guard the node layer itself.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "../../server/Query/Optimizer/RequestText/Src/SQORTextRequestInternal.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"

namespace {

using namespace rqb;
// The repository's Ref<T> template would make a plain `Ref` ambiguous.
using rqb::Ref;

// A violation expected at the node under a path.
using Expected = std::pair<RqViolation::Kind, std::wstring>;

void ExpectViolations(const std::vector<RqViolation>& violations,
                      const std::vector<Expected>& expected, const char* what = "") {
    const std::string report = RqVerifier::Describe(violations).ToUtf8();
    ASSERT_EQ(violations.size(), expected.size()) << what << "\n" << report;
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(violations[i].m_kind, expected[i].first) << what << "\n" << report;
        EXPECT_EQ(std::wstring(violations[i].m_path), expected[i].second) << what;
    }
}

const std::wstring kOuter = L"RqHandleNode/RqBreakFilter[0]/RqList[0]";
const std::wstring kInner =
    kOuter + L"/RqJoinSpec[1]/RqJoinNode[0]/RqTableReference[0]/RqDerivedTable[0]/RqList[0]";

RqExpr* GroupingId(RqExpr* column) {
    return RQ_NEW RqExprGroupingId(column);
}

// A request over a block grouped by grouping sets, with a rank and a correlated EXISTS in
// the outer block:
//   BREAK FILTER (0) OF
//     SELECT inner.region, inner.total, RANK(inner.total) ORDER BY #11 DESC
//     FROM (SELECT region, product, SUM(sales), GROUPING_ID(region), NTILE(sales, 4)
//           FROM t1 WHERE sales > 0
//           GROUP BY GROUPING SETS ((region, product), (region), ()) ORDER BY #0) inner
//     WHERE EXISTS (SELECT 1 FROM t3 WHERE t3.region = inner.region)
//     ORDER BY #11 DESC
struct Sample {
    Heap<RqHandleNode> m_request;
    Heap<RqList> m_outside{Block().Select(Col(L"a", 1)).Build()};  // a list of another tree
    RqList* m_pInner;
    RqList* m_pOuter;
    RqList* m_pSub;
    RqBreakFilter* m_pTop;

    Sample() {
        RqExprAggr* ntile = Aggr<RqExprAggrNtile>(Col(L"sales", 1));
        ntile->AddOperand(Int(4));
        m_pInner = Block()
                       .Select(Col(L"region", 1))
                       .Select(Col(L"product", 1))
                       .Select(Sum(Col(L"sales", 1)))
                       .Select(GroupingId(Col(L"region", 1)))
                       .Select(ntile)
                       .From(Table(VoidID(3, 10), 1))
                       .Where(Gt(Col(L"sales", 1), Int(0)))
                       .GroupBy({Col(L"region", 1), Col(L"product", 1)})
                       .OrderBy({{0}})
                       .Build();
        for (const UInt16Vector& set : {UInt16Vector{0, 1}, UInt16Vector{0}, UInt16Vector{}})
            m_pInner->GetGroupBy()->AddGroupingSet(set);
        m_pSub = Block()
                     .Select(Int(1))
                     .From(Table(VoidID(3, 11), 3))
                     .Where(Eq(Col(L"region", 3), Ref(*m_pInner, 0)))
                     .Build();
        // The outer block numbers its columns from 10, so that a number of the inner block
        // is no column of the outer one.
        m_pOuter = Block(10)
                       .Select(Ref(*m_pInner, 0))
                       .Select(Ref(*m_pInner, 2))
                       .Select(SortedBy(Aggr<RqExprAggrRank>(Ref(*m_pInner, 2), By({})),
                                        {{11, RqSortSpec::kDesc}}))
                       .From(Derived(m_pInner, 2))
                       .Where(Exists(m_pSub))
                       .OrderBy({{1, RqSortSpec::kDesc}})
                       .Build();
        m_pTop = BreakFilter(m_pOuter, {0});
        m_request.Reset(Request(m_pTop));
    }
    std::vector<RqViolation> Verify() const { return RqVerifier::Verify(*m_request); }
    RqDerivedColumn* OuterColumn(int i) const { return m_pOuter->GetProjection()->GetIthColumn(i); }
    RqExpr* InnerExpr(int i) const { return m_pInner->GetProjection()->GetIthColumn(i)->GetExpr(); }
    RqExprAggrRank* Rank() const { return RqCast<RqExprAggrRank>(OuterColumn(2)->GetExpr()); }
    RqTableReference* InnerFrom() const { return m_pInner->GetJoinSpec()->GetIthTableReference(0); }
    RqGroupBy* InnerGroupBy() const { return m_pInner->GetGroupBy(); }
    template <class... P>
    void AddGroupingSet(P... positions) const {
        InnerGroupBy()->AddGroupingSet(UInt16Vector{static_cast<uint16_t>(positions)...});
    }
    // Joins a table into the subquery's FROM clause.
    void JoinToSub(RqNode* table) const {
        m_pSub->GetJoinSpec()->AddJoinNode(
            RQ_NEW RqJoinNode(RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, table)));
    }
    // Adds a column to a block and returns its expression.
    static RqExpr* Add(RqList* block, RqExpr* expr) {
        block->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(expr));
        return expr;
    }
};

TEST(VerifierTest, ABlockReadsTheColumnsOfASharedListElsewhereInTheRequest) {
    RqList* shared = Block().Select(Col(L"a", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqList* reader = Block().Select(Ref(*shared, 0)).From(Derived(Shared(shared))).Build();
    Heap<RqHandleNode> request(Request(Union({RQ_NEW RqCacheList(shared), reader}, true)));
    ExpectViolations(RqVerifier::Verify(*request), {});
}

// One way of breaking the clean sample, and where and how it is reported (once).
struct Fault {
    const char* m_name;
    RqViolation::Kind m_kind;
    std::wstring m_path;
    std::function<void(Sample&)> m_break;
};

void ExpectEachReportedOnce(const std::vector<Fault>& faults) {
    for (const Fault& fault : faults) {
        Sample sample;
        ExpectViolations(sample.Verify(), {});
        fault.m_break(sample);
        ExpectViolations(sample.Verify(), {{fault.m_kind, fault.m_path}}, fault.m_name);
    }
}

using V = RqViolation;
const std::wstring from = kInner + L"/RqJoinSpec[1]/RqJoinNode[0]/RqTableReference[0]";
const std::wstring innerCol = kInner + L"/RqProjection[0]/RqDerivedColumn[";
const std::wstring outerCol = kOuter + L"/RqProjection[0]/RqDerivedColumn[";
const std::wstring ref = L"]/RqDerivedColumnReference[0]";

TEST(VerifierTest, ColumnsAreNamedOnlyWhereTheyCanBeRead) {
    const std::wstring joinedToSub =
        kOuter +
        L"/RqDetailFilter[2]/RqExprCondExists[0]/RqExprLogicalSubquery[0]/RqList[0]"
        L"/RqJoinSpec[1]/RqJoinNode[1]/RqTableReference[0]/RqDerivedTable[0]";
    ExpectEachReportedOnce({
        {"second holder of a number", V::kDuplicateColumnNumber, outerCol + L"2]",
         [](Sample& s) { s.OuterColumn(2)->SetColumnNum(10); }},
        {"sort key naming no column", V::kSortSpecColumn, kOuter + L"/RqOrderBy[6]/RqSortSpec[0]",
         [](Sample& s) { s.m_pOuter->GetOrderBy()->GetIthSortSpec(0)->SetColumnNumber(42); }},
        // 0 is a column of the block the rank's block reads, not of its own.
        {"aggregate sort key naming no column", V::kAggrSortKeyColumn,
         outerCol + L"2]/RqExprAggrRank[0]",
         [](Sample& s) {
             s.Rank()->SetSortSpec({{11, RqSortSpec::kDesc}, {0, RqSortSpec::kAsc}});
         }},
        {"break index past the columns", V::kBreakFilterIndex, L"RqHandleNode/RqBreakFilter[0]",
         [](Sample& s) { s.m_pTop->SetBreakColumnIndexes(UInt16Vector(1, 5)); }},
        {"reference to its own block", V::kReferenceOutOfScope, innerCol + L"5" + ref,
         [](Sample& s) { Sample::Add(s.m_pInner, Ref(*s.m_pInner, 1)); }},
        {"reference to a column of another tree", V::kDanglingReference, outerCol + L"3" + ref,
         [](Sample& s) { Sample::Add(s.m_pOuter, Ref(*s.m_outside, 0)); }},
        {"reference to no column", V::kDanglingReference, outerCol + L"3" + ref,
         [](Sample& s) { Sample::Add(s.m_pOuter, RQ_NEW RqDerivedColumnReference()); }},
        {"reference into a subquery of its block", V::kReferenceOutOfScope, outerCol + L"3" + ref,
         [](Sample& s) { Sample::Add(s.m_pOuter, Ref(*s.m_pSub, 0)); }},
        // A derived table's block does not see its enclosing block's FROM clause (no lateral
        // joins), unlike the correlated subquery of the sample.
        {"lateral reference", V::kReferenceOutOfScope,
         joinedToSub + L"/RqList[0]/RqProjection[0]/RqDerivedColumn[0]/RqDerivedColumnReference[0]",
         [](Sample& s) { s.JoinToSub(Derived(Block().Select(Ref(*s.m_pInner, 0)).Build())); }},
        {"shared list naming a list outside", V::kSharedListTarget,
         joinedToSub + L"/RqSharedList[0]",
         [](Sample& s) { s.JoinToSub(Derived(Shared(s.m_outside.Get()))); }},
    });
}

TEST(VerifierTest, MisshapenNodesAreReportedOnceWhereTheyAre) {
    ExpectEachReportedOnce({
        {"clause in another's slot", V::kClauseSlot, kOuter + L"/RqOrderBy[5]",
         [](Sample& s) {
             RqNode* orderBy = s.m_pOuter->ReleaseIthChild(RqList::kOrderByChild);
             s.m_pOuter->SetIthChild(RqList::kHavingChild, orderBy);
         }},
        {"clause past the slots", V::kClauseSlot, kOuter + L"/RqHaving[7]",
         [](Sample& s) { s.m_pOuter->AddChild(RQ_NEW RqHaving(Gt(Int(1), Int(0)))); }},
        {"block without projection", V::kClauseSlot, kOuter,
         [](Sample& s) { s.m_pOuter->SetProjection(nullptr); }},
        {"projection member not a column", V::kProjectionMember,
         kOuter + L"/RqProjection[0]/RqSortSpec[3]",
         [](Sample& s) { s.m_pOuter->GetProjection()->AddChild(RQ_NEW RqSortSpec(7)); }},
        {"column without expression", V::kProjectionMember, outerCol + L"0]",
         [](Sample& s) { delete s.OuterColumn(0)->ReleaseExpr(); }},
        {"column with two expressions", V::kProjectionMember, outerCol + L"0]",
         [](Sample& s) { s.OuterColumn(0)->AddChild(Int(1)); }},
        {"filter without condition", V::kFilterShape, kOuter + L"/RqDetailFilter[2]",
         [](Sample& s) { s.m_pOuter->GetDetailFilter()->SetIthChild(0, Int(1)); }},
        {"join condition not a condition", V::kTableReferenceShape,
         from + L"/RqExprIntegerLiteral[2]",
         [](Sample& s) { s.InnerFrom()->SetSearchCond(Int(1)); }},
        {"right side not a table", V::kTableReferenceShape, from + L"/RqTargetColumn[1]",
         [](Sample& s) { s.InnerFrom()->SetRightTable(Col(L"x", 1)); }},
        {"no left side", V::kTableReferenceShape, from,
         [](Sample& s) { s.InnerFrom()->SetLeftTable(nullptr); }},
        {"join node after a join link", V::kChildKind, kInner + L"/RqJoinSpec[1]/RqJoinNode[2]",
         [](Sample& s) {
             RqJoinSpec* spec = s.m_pInner->GetJoinSpec();
             spec->AddJoinLink(RQ_NEW RqJoinLink(spec->GetIthJoinNode(0), nullptr));
             spec->AddChild(RQ_NEW RqJoinNode(
                 RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, Table(VoidID(3, 12), 4))));
         }},
        {"too few operands", V::kOperandCount, kInner + L"/RqDetailFilter[2]/RqExprCondGreater[0]",
         [](Sample& s) { s.m_pInner->GetDetailFilter()->GetCondExpr()->SetNumOperands(1); }},
        {"aggregate without its fixed slots", V::kOperandCount, innerCol + L"2]/RqExprAggrSum[0]",
         [](Sample& s) { s.InnerExpr(2)->SetNumOperands(2); }},
        {"parameter the kind does not take", V::kOperandCount, innerCol + L"2]/RqExprAggrSum[0]",
         [](Sample& s) { s.InnerExpr(2)->AddOperand(Int(5)); }},
        {"by-list not a column list", V::kChildKind,
         innerCol + L"2]/RqExprAggrSum[0]/RqTargetColumn[1]",
         [](Sample& s) { s.InnerExpr(2)->SetIthOperand(RqExprAggr::kByList, Col(L"a", 1)); }},
        {"window aggregate with an empty parameter slot", V::kOperandCount,
         innerCol + L"4]/RqExprAggrNtile[0]",
         [](Sample& s) { s.InnerExpr(4)->SetIthOperand(RqExprAggr::kFirstParameter, nullptr); }},
        {"group-by with a third child", V::kChildKind, kInner + L"/RqGroupBy[4]",
         [](Sample& s) { s.InnerGroupBy()->AddChild(Int(1)); }},
        {"grouping set position past the columns", V::kGroupingSet, kInner + L"/RqGroupBy[4]",
         [](Sample& s) { s.AddGroupingSet(1, 2); }},
        {"grouping set position twice", V::kGroupingSet, kInner + L"/RqGroupBy[4]",
         [](Sample& s) { s.AddGroupingSet(1, 0, 1); }},
        {"grouping id in a block without GROUP BY", V::kGroupingId,
         outerCol + L"3]/RqExprGroupingId[0]",
         [](Sample& s) { Sample::Add(s.m_pOuter, GroupingId(Ref(*s.m_pInner, 0))); }},
        {"grouping id over a column not grouped by", V::kGroupingId,
         innerCol + L"5]/RqExprGroupingId[0]",
         [](Sample& s) { Sample::Add(s.m_pInner, GroupingId(Col(L"sales", 1))); }},
    });
}

TEST(VerifierTest, EveryFaultIsReportedInWalkOrder) {
    Sample sample;
    // Deleting the SUM column leaves the outer block's two readers of it pointing nowhere; an
    // unnumbered column strands the sort keys that named it.
    RqProjection* innerProjection = sample.m_pInner->GetProjection();
    innerProjection->DeleteColumn(innerProjection->GetIthColumn(2));
    sample.OuterColumn(1)->SetColumnNum(RqDerivedColumn::kUnknownColumnNum);
    const std::wstring column = kOuter + L"/RqProjection[0]/RqDerivedColumn[";
    ExpectViolations(sample.Verify(),
                     {{RqViolation::kColumnNumber, column + L"1]"},
                      {RqViolation::kDanglingReference, column + L"1]/RqDerivedColumnReference[0]"},
                      {RqViolation::kAggrSortKeyColumn, column + L"2]/RqExprAggrRank[0]"},
                      {RqViolation::kDanglingReference,
                       column + L"2]/RqExprAggrRank[0]/RqDerivedColumnReference[0]"},
                      {RqViolation::kSortSpecColumn, kOuter + L"/RqOrderBy[6]/RqSortSpec[0]"}});

    // Paths start at the node verified.
    EXPECT_EQ(std::wstring(RqVerifier::Verify(*sample.m_pOuter).at(0).m_path),
              L"RqList/RqProjection[0]/RqDerivedColumn[1]");
}

TEST(VerifierTest, ABlockReadsOnlyWhatItsFromClauseExposes) {
    // Two derived tables joined, one over a UNION ALL, the other with a derived table of its own:
    //   SELECT u.x, a.k FROM (SELECT k FROM (SELECT k FROM t1) d) a
    //                   LEFT JOIN (SELECT x FROM t2 UNION ALL SELECT y FROM t3) u ON a.k = u.x
    RqList* d = Block().Select(Col(L"k", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqList* a = Block().Select(Ref(*d, 0)).From(Derived(d, 4)).Build();
    RqList* u1 = Block().Select(Col(L"x", 2)).From(Table(VoidID(3, 2), 2)).Build();
    RqList* u2 = Block().Select(Col(L"y", 3)).From(Table(VoidID(3, 3), 3)).Build();
    RqUnion* u = Union({u1, u2}, true);
    Heap<RqList> outer(Block()
                           .Select(Ref(*u, 0))
                           .Select(Ref(*a, 0))
                           .Join(SqlTableRef::kLeftOuterJoin, Derived(a, 5), Derived(u, 6),
                                 Eq(Ref(*a, 0), Ref(*u, 0)))
                           .Build());
    ExpectViolations(RqVerifier::Verify(*outer), {});

    // A union shows its first member's columns, never the others'; a block two derived
    // tables down is out of reach; sibling derived tables do not see each other.
    Sample::Add(outer.Get(), Ref(*u2, 0));
    Sample::Add(outer.Get(), Ref(*d, 0));
    Sample::Add(a, Ref(*u1, 0));
    const std::wstring column = L"/RqProjection[0]/RqDerivedColumn[";
    const std::wstring reference = L"]/RqDerivedColumnReference[0]";
    const RqViolation::Kind kOut = RqViolation::kReferenceOutOfScope;
    ExpectViolations(RqVerifier::Verify(*outer),
                     {{kOut, L"RqList" + column + L"2" + reference},
                      {kOut, L"RqList" + column + L"3" + reference},
                      {kOut,
                       L"RqList/RqJoinSpec[1]/RqJoinNode[0]/RqTableReference[0]"
                       L"/RqDerivedTable[0]/RqList[0]" +
                           column + L"1" + reference}});
}

TEST(VerifierTest, EveryKindHoldsOnlyWhatItIsMadeOf) {
    // Placeholders fit no node but the named request kinds, whose contents are their producers'.
    for (int value = 0; value < kRqNodeTypeCount; ++value) {
        const auto kind = static_cast<RqNodeType_e>(value);
        if (!RqIsNodeTypeValue(value) || RqIsAbstractNodeType(kind))
            continue;
        Heap<RqNode> node(rqtext::MakeBlankNode(kind));
        std::string name;
        const bool bHoldsAnything = !node->IsExpr() && rqtext::GetNameField(*node, name);
        node->AddChild(RQ_NEW RqNullNode());
        node->AddChild(RQ_NEW RqNullNode());
        EXPECT_EQ(RqVerifier::Verify(*node).empty(), bHoldsAnything) << RqNodeTypeName(kind);
    }
}

TEST(VerifierTest, DeepTreesAreWalkedWithoutRecursion) {
    // Deeper than a recursive walk could go; a fault at the bottom is still found.
    RqList* inner = Block().Select(Col(L"a", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqExpr* bottom = Eq(Ref(*inner, 0), Int(0));
    RqExpr* cond = bottom;
    for (int i = 1; i < 50000; ++i)
        cond = And(cond, Eq(Ref(*inner, 0), Int(i)));
    Heap<RqHandleNode> request(
        Request(Block().Select(Ref(*inner, 0)).From(Derived(inner)).Where(cond).Build()));
    EXPECT_TRUE(RqVerifier::Verify(*request).empty());
    bottom->SetNumOperands(1);
    const std::vector<RqViolation> violations = RqVerifier::Verify(*request);
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].m_pNode, bottom);
}

}  // namespace
