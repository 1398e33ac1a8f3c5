// The tree verifier: a well-formed request verifies clean, and each way of breaking a tree
// is reported with its kind, at the node that is wrong, under the node's path.
//
// Two checks cannot be provoked here: a child whose parent link names another node, and a
// node held in two places. Every public operation that links a node (AddChild, InsertChild,
// SetIthChild, ReplaceIthChild) asserts that the node has no parent yet and sets the link
// itself, and every operation that unlinks one clears it; so only code inside the node layer
// could produce either fault, and those checks guard against such code.

#include <gtest/gtest.h>

#include <string>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"

namespace {

using namespace rqb;
// The repository's Ref<T> template would make a plain `Ref` ambiguous.
using rqb::Ref;

std::string Report(const std::vector<RqViolation>& violations) {
    return RqVerifier::Describe(violations).ToUtf8();
}

// The one violation expected, at `node` with `path`.
void ExpectOnly(const std::vector<RqViolation>& violations, RqViolation::Kind kind,
                const RqNode* node, const std::wstring& path) {
    ASSERT_EQ(violations.size(), 1u) << Report(violations);
    EXPECT_EQ(violations[0].m_kind, kind) << Report(violations);
    EXPECT_EQ(violations[0].m_pNode, node) << Report(violations);
    EXPECT_EQ(std::wstring(violations[0].m_path), path);
    EXPECT_FALSE(violations[0].m_message.empty());
}

const std::wstring kOuter = L"RqHandleNode/RqBreakFilter[0]/RqList[0]";
const std::wstring kInner =
    kOuter + L"/RqJoinSpec[1]/RqJoinNode[0]/RqTableReference[0]/RqDerivedTable[0]/RqList[0]";

// A request over a grouped block, with a rank and a correlated EXISTS in the outer block:
//   BREAK FILTER (0) OF
//     SELECT inner.region, inner.total, RANK(inner.total) ORDER BY #11 DESC
//     FROM (SELECT region, product, SUM(sales) FROM t1 WHERE sales > 0
//           GROUP BY region, product ORDER BY #0) inner
//     WHERE EXISTS (SELECT 1 FROM t3 WHERE t3.region = inner.region)
//     ORDER BY #11 DESC
struct Sample {
    Heap<RqHandleNode> m_request;
    RqList* m_pInner;
    RqList* m_pOuter;
    RqList* m_pSub;
    RqBreakFilter* m_pTop;

    Sample() {
        m_pInner = Block()
                       .Label(L"inner")
                       .Select(Col(L"region", 1))
                       .Select(Col(L"product", 1))
                       .Select(Sum(Col(L"sales", 1)))
                       .From(Table(VoidID(3, 10), 1))
                       .Where(Gt(Col(L"sales", 1), Int(0)))
                       .GroupBy({Col(L"region", 1), Col(L"product", 1)})
                       .OrderBy({{0}})
                       .Build();
        m_pSub = Block()
                     .Label(L"sub")
                     .Select(Int(1))
                     .From(Table(VoidID(3, 11), 3))
                     .Where(Eq(Col(L"region", 3), Ref(*m_pInner, 0)))
                     .Build();
        // The outer block numbers its columns from 10, so that a number of the inner block
        // is no column of the outer one.
        m_pOuter = Block(10)
                       .Label(L"outer")
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
    RqExprAggrRank* Rank() const { return static_cast<RqExprAggrRank*>(OuterColumn(2)->GetExpr()); }
};

// Two derived tables joined, one over a UNION ALL, the other with a derived table of its own:
//   SELECT u.x, a.k FROM (SELECT k FROM (SELECT k FROM t1) d) a
//                   LEFT JOIN (SELECT x FROM t2 UNION ALL SELECT y FROM t3) u ON a.k = u.x
struct JoinSample {
    Heap<RqList> m_outer;
    RqList* m_pA;
    RqList* m_pD;
    RqList* m_pU1;
    RqList* m_pU2;

    JoinSample() {
        m_pD = Block().Select(Col(L"k", 1)).From(Table(VoidID(3, 1), 1)).Build();
        m_pA = Block().Select(Ref(*m_pD, 0)).From(Derived(m_pD, 4)).Build();
        m_pU1 = Block().Select(Col(L"x", 2)).From(Table(VoidID(3, 2), 2)).Build();
        m_pU2 = Block().Select(Col(L"y", 3)).From(Table(VoidID(3, 3), 3)).Build();
        RqUnion* u = Union({m_pU1, m_pU2}, true);
        m_outer.Reset(Block()
                          .Select(Ref(*u, 0))
                          .Select(Ref(*m_pA, 0))
                          .Join(SqlTableRef::kLeftOuterJoin, Derived(m_pA, 5), Derived(u, 6),
                                Eq(Ref(*m_pA, 0), Ref(*u, 0)))
                          .Build());
    }
    // Adds `expr` as a column of `block`.
    static void AddColumn(RqList* block, RqExpr* expr) {
        block->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(expr));
    }
};

TEST(VerifierTest, WellFormedRequestsVerifyClean) {
    Sample sample;
    EXPECT_TRUE(sample.Verify().empty()) << Report(sample.Verify());

    JoinSample joins;
    EXPECT_TRUE(RqVerifier::Verify(*joins.m_outer).empty())
        << Report(RqVerifier::Verify(*joins.m_outer));

    // A block that reads a shared list sees the shared list's columns; the shared list lives
    // elsewhere in the same request.
    RqList* shared = Block().Select(Col(L"a", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqList* reader = Block().Select(Ref(*shared, 0)).From(Derived(Shared(shared))).Build();
    Heap<RqHandleNode> request(Request(Union({RQ_NEW RqCacheList(shared), reader}, true)));
    EXPECT_TRUE(RqVerifier::Verify(*request).empty()) << Report(RqVerifier::Verify(*request));
}

TEST(VerifierTest, PathsStartAtTheNodeVerified) {
    Sample sample;
    // The second holder of a number is the one reported.
    sample.OuterColumn(0)->SetColumnNum(11);
    const std::vector<RqViolation> violations = RqVerifier::Verify(*sample.m_pOuter);
    ExpectOnly(violations, RqViolation::kDuplicateColumnNumber, sample.OuterColumn(1),
               L"RqList/RqProjection[0]/RqDerivedColumn[1]");
}

TEST(VerifierTest, ReferencesToDestroyedOrForeignColumnsDangle) {
    Sample sample;
    // Deleting the SUM column leaves the outer block's two readers of it pointing nowhere.
    RqProjection* innerProjection = sample.m_pInner->GetProjection();
    innerProjection->DeleteColumn(innerProjection->GetIthColumn(2));
    std::vector<RqViolation> violations = sample.Verify();
    ASSERT_EQ(violations.size(), 2u) << Report(violations);
    EXPECT_EQ(violations[0].m_kind, RqViolation::kDanglingReference);
    EXPECT_EQ(violations[0].m_pNode, sample.OuterColumn(1)->GetExpr());
    EXPECT_EQ(std::wstring(violations[0].m_path),
              kOuter + L"/RqProjection[0]/RqDerivedColumn[1]/RqDerivedColumnReference[0]");
    EXPECT_EQ(violations[1].m_kind, RqViolation::kDanglingReference);
    EXPECT_EQ(
        std::wstring(violations[1].m_path),
        kOuter +
            L"/RqProjection[0]/RqDerivedColumn[2]/RqExprAggrRank[0]/RqDerivedColumnReference[0]");

    // A reference into another tree, and one that was never pointed anywhere.
    Sample other;
    Sample target;
    RqExpr* foreign = Ref(*target.m_pInner, 0);
    other.m_pOuter->GetDetailFilter()->SetCond(Eq(foreign, RQ_NEW RqDerivedColumnReference()));
    violations = other.Verify();
    ASSERT_EQ(violations.size(), 2u) << Report(violations);
    EXPECT_EQ(violations[0].m_kind, RqViolation::kDanglingReference);
    EXPECT_EQ(violations[0].m_pNode, foreign);
    EXPECT_EQ(std::wstring(violations[0].m_path),
              kOuter + L"/RqDetailFilter[2]/RqExprCondEquality[0]/RqDerivedColumnReference[0]");
    EXPECT_EQ(violations[1].m_kind, RqViolation::kDanglingReference);
    EXPECT_EQ(std::wstring(violations[1].m_path),
              kOuter + L"/RqDetailFilter[2]/RqExprCondEquality[0]/RqDerivedColumnReference[1]");
}

TEST(VerifierTest, ABlockReadsOnlyWhatItsFromClauseExposes) {
    {
        // Its own columns are not in its FROM clause.
        Sample sample;
        RqExpr* self = Ref(*sample.m_pInner, 1);
        sample.m_pInner->GetDetailFilter()->SetCond(Eq(self, Str(L"x")));
        ExpectOnly(
            sample.Verify(), RqViolation::kReferenceOutOfScope, self,
            kInner + L"/RqDetailFilter[2]/RqExprCondEquality[0]/RqDerivedColumnReference[0]");
    }
    {
        // A subquery block in its own WHERE is not in its FROM clause either.
        Sample sample;
        RqExpr* intoSubquery = Ref(*sample.m_pSub, 0);
        sample.m_pOuter->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(intoSubquery));
        ExpectOnly(sample.Verify(), RqViolation::kReferenceOutOfScope, intoSubquery,
                   kOuter + L"/RqProjection[0]/RqDerivedColumn[3]/RqDerivedColumnReference[0]");
    }
    {
        // A derived table's block does not see its enclosing block's FROM clause (no lateral
        // joins), unlike the correlated subquery of the sample.
        Sample sample;
        RqExpr* lateral = Ref(*sample.m_pInner, 0);
        RqList* sub = Block().Select(Col(L"q", 5)).From(Table(VoidID(3, 12), 5)).Build();
        RqList* wrapper = Block().Select(lateral).From(Derived(sub)).Build();
        sample.m_pSub->GetJoinSpec()->AddJoinNode(
            RQ_NEW RqJoinNode(RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, Derived(wrapper))));
        ExpectOnly(
            sample.Verify(), RqViolation::kReferenceOutOfScope, lateral,
            kOuter +
                L"/RqDetailFilter[2]/RqExprCondExists[0]/RqExprLogicalSubquery[0]/RqList[0]"
                L"/RqJoinSpec[1]/RqJoinNode[1]/RqTableReference[0]/RqDerivedTable[0]/RqList[0]"
                L"/RqProjection[0]/RqDerivedColumn[0]/RqDerivedColumnReference[0]");
    }
    {
        JoinSample joins;
        // A union shows its first member's columns, never the others'.
        RqExpr* secondMember = Ref(*joins.m_pU2, 0);
        // A block two derived tables down is out of reach.
        RqExpr* tooDeep = Ref(*joins.m_pD, 0);
        // Sibling derived tables do not see each other.
        RqExpr* sibling = Ref(*joins.m_pU1, 0);
        JoinSample::AddColumn(joins.m_outer.Get(), secondMember);
        JoinSample::AddColumn(joins.m_outer.Get(), tooDeep);
        JoinSample::AddColumn(joins.m_pA, sibling);
        const std::vector<RqViolation> violations = RqVerifier::Verify(*joins.m_outer);
        ASSERT_EQ(violations.size(), 3u) << Report(violations);
        for (const RqViolation& violation : violations) {
            EXPECT_EQ(violation.m_kind, RqViolation::kReferenceOutOfScope) << Report(violations);
        }
        EXPECT_EQ(violations[0].m_pNode, secondMember);
        EXPECT_EQ(violations[1].m_pNode, tooDeep);
        EXPECT_EQ(violations[2].m_pNode, sibling);
        EXPECT_EQ(
            std::wstring(violations[2].m_path),
            L"RqList/RqJoinSpec[1]/RqJoinNode[0]/RqTableReference[0]/RqDerivedTable[0]/RqList[0]"
            L"/RqProjection[0]/RqDerivedColumn[1]/RqDerivedColumnReference[0]");
    }
}

TEST(VerifierTest, SortKeysNameColumnsOfTheirBlock) {
    Sample sample;
    RqSortSpec* spec = sample.m_pOuter->GetOrderBy()->GetIthSortSpec(0);
    spec->SetColumnNumber(42);
    ExpectOnly(sample.Verify(), RqViolation::kSortSpecColumn, spec,
               kOuter + L"/RqOrderBy[6]/RqSortSpec[0]");

    // Number 11 is a column of the rank's block; 0 only one of the block it reads.
    spec->SetColumnNumber(11);
    sample.Rank()->SetSortSpec({{11, RqSortSpec::kDesc}, {0, RqSortSpec::kAsc}});
    ExpectOnly(sample.Verify(), RqViolation::kAggrSortKeyColumn, sample.Rank(),
               kOuter + L"/RqProjection[0]/RqDerivedColumn[2]/RqExprAggrRank[0]");
}

TEST(VerifierTest, ColumnNumbersAreSetAndDistinctWithinAProjection) {
    Sample sample;
    sample.OuterColumn(2)->SetColumnNum(10);
    ExpectOnly(sample.Verify(), RqViolation::kDuplicateColumnNumber, sample.OuterColumn(2),
               kOuter + L"/RqProjection[0]/RqDerivedColumn[2]");

    // An unnumbered column also strands the sort keys that named it; every fault is reported.
    sample.OuterColumn(2)->SetColumnNum(12);
    sample.OuterColumn(1)->SetColumnNum(RqDerivedColumn::kUnknownColumnNum);
    const std::vector<RqViolation> violations = sample.Verify();
    ASSERT_EQ(violations.size(), 3u) << Report(violations);
    EXPECT_EQ(violations[0].m_kind, RqViolation::kColumnNumber);
    EXPECT_EQ(violations[0].m_pNode, sample.OuterColumn(1));
    EXPECT_EQ(violations[1].m_kind, RqViolation::kAggrSortKeyColumn);
    EXPECT_EQ(violations[2].m_kind, RqViolation::kSortSpecColumn);
    const std::string text = Report(violations);
    EXPECT_EQ(
        text.rfind("kColumnNumber at "
                   "RqHandleNode/RqBreakFilter[0]/RqList[0]/RqProjection[0]/RqDerivedColumn[1]: ",
                   0),
        0u)
        << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST(VerifierTest, BreakIndexesLieWithinTheInnerProjection) {
    Sample sample;
    sample.m_pTop->SetBreakColumnIndexes({0, 2, 3});
    ExpectOnly(sample.Verify(), RqViolation::kBreakFilterIndex, sample.m_pTop,
               L"RqHandleNode/RqBreakFilter[0]");
}

TEST(VerifierTest, ClausesSitInTheirOwnSlots) {
    {
        Sample sample;
        RqNode* orderBy = sample.m_pOuter->ReleaseIthChild(RqList::kOrderByChild);
        sample.m_pOuter->SetIthChild(RqList::kHavingChild, orderBy);
        ExpectOnly(sample.Verify(), RqViolation::kClauseSlot, orderBy, kOuter + L"/RqOrderBy[5]");
    }
    {
        Sample sample;
        RqNode* extra = RQ_NEW RqHaving(Gt(Int(1), Int(0)));
        sample.m_pOuter->AddChild(extra);
        ExpectOnly(sample.Verify(), RqViolation::kClauseSlot, extra, kOuter + L"/RqHaving[7]");
    }
    {
        Heap<RqHandleNode> request(Request(Block().Select(Int(1)).Build()));
        RqList* block = static_cast<RqList*>(request->GetRqNode());
        block->SetProjection(nullptr);
        ExpectOnly(RqVerifier::Verify(*request), RqViolation::kClauseSlot, block,
                   L"RqHandleNode/RqList[0]");
    }
}

TEST(VerifierTest, ProjectionsHoldDerivedColumnsWithOneExpression) {
    Sample sample;
    RqNode* stray = RQ_NEW RqSortSpec(7);
    sample.m_pOuter->GetProjection()->AddChild(stray);
    ExpectOnly(sample.Verify(), RqViolation::kProjectionMember, stray,
               kOuter + L"/RqProjection[0]/RqSortSpec[3]");

    delete sample.m_pOuter->GetProjection()->RemoveIthChild(3);
    delete sample.OuterColumn(0)->ReleaseExpr();
    ExpectOnly(sample.Verify(), RqViolation::kProjectionMember, sample.OuterColumn(0),
               kOuter + L"/RqProjection[0]/RqDerivedColumn[0]");
}

TEST(VerifierTest, FiltersAndJoinsHoldConditionsAndTables) {
    {
        Sample sample;
        // A filter accepts only a condition; the generic child operation can still plant one.
        sample.m_pOuter->GetDetailFilter()->SetIthChild(0, Int(1));
        ExpectOnly(sample.Verify(), RqViolation::kFilterShape, sample.m_pOuter->GetDetailFilter(),
                   kOuter + L"/RqDetailFilter[2]");
    }
    {
        Sample sample;
        RqTableReference* reference = sample.m_pInner->GetJoinSpec()->GetIthTableReference(0);
        const std::wstring path = kInner + L"/RqJoinSpec[1]/RqJoinNode[0]/RqTableReference[0]";
        RqExpr* notACondition = Int(1);
        reference->SetSearchCond(notACondition);
        ExpectOnly(sample.Verify(), RqViolation::kTableReferenceShape, notACondition,
                   path + L"/RqExprIntegerLiteral[2]");

        reference->SetSearchCond(nullptr);
        RqExpr* notATable = Col(L"x", 1);
        reference->SetRightTable(notATable);
        ExpectOnly(sample.Verify(), RqViolation::kTableReferenceShape, notATable,
                   path + L"/RqTargetColumn[1]");

        reference->SetRightTable(nullptr);
        reference->SetLeftTable(nullptr);
        ExpectOnly(sample.Verify(), RqViolation::kTableReferenceShape, reference, path);
    }
}

TEST(VerifierTest, OperandCountsFollowTheKind) {
    Sample sample;
    RqExpr* greater = sample.m_pInner->GetDetailFilter()->GetCondExpr();
    greater->SetNumOperands(1);
    ExpectOnly(sample.Verify(), RqViolation::kOperandCount, greater,
               kInner + L"/RqDetailFilter[2]/RqExprCondGreater[0]");
    greater->AddOperand(Int(0));

    // An aggregate keeps its three fixed slots and takes only the parameters of its kind.
    RqExprAggr* sum =
        static_cast<RqExprAggr*>(sample.m_pInner->GetProjection()->GetIthColumn(2)->GetExpr());
    const std::wstring sumPath = kInner + L"/RqProjection[0]/RqDerivedColumn[2]/RqExprAggrSum[0]";
    sum->SetNumOperands(2);
    ExpectOnly(sample.Verify(), RqViolation::kOperandCount, sum, sumPath);
    sum->SetNumOperands(3);
    sum->AddOperand(Int(5));
    ExpectOnly(sample.Verify(), RqViolation::kOperandCount, sum, sumPath);
    sum->SetNumOperands(3);

    // A by-list that is not a column list.
    RqExpr* notAList = Col(L"region", 1);
    sum->SetIthOperand(RqExprAggr::kByList, notAList);
    ExpectOnly(sample.Verify(), RqViolation::kChildKind, notAList, sumPath + L"/RqTargetColumn[1]");
    sum->SetIthOperand(RqExprAggr::kByList, nullptr);

    // A tile count is the one parameter a NTILE takes.
    sample.m_pInner->GetProjection()->AddColumn(
        RQ_NEW RqDerivedColumn(Aggr<RqExprAggrNtile>(Col(L"sales", 1))));
    RqExprAggr* ntile =
        static_cast<RqExprAggr*>(sample.m_pInner->GetProjection()->GetIthColumn(3)->GetExpr());
    ntile->AddOperand(Int(4));
    EXPECT_TRUE(sample.Verify().empty()) << Report(sample.Verify());
}

TEST(VerifierTest, SharedListsNameAListOfTheTree) {
    Heap<RqList> elsewhere(Block().Select(Col(L"a", 1)).From(Table(VoidID(3, 1), 1)).Build());
    RqSharedList* shared = Shared(elsewhere.Get());
    Heap<RqHandleNode> request(Request(Block().Select(Int(1)).From(Derived(shared)).Build()));
    ExpectOnly(
        RqVerifier::Verify(*request), RqViolation::kSharedListTarget, shared,
        L"RqHandleNode/RqList[0]/RqJoinSpec[1]/RqJoinNode[0]/RqTableReference[0]/RqDerivedTable[0]"
        L"/RqSharedList[0]");
}

TEST(VerifierTest, DeepTreesAreWalkedWithoutRecursion) {
    // Deep enough that a recursive walk would exhaust a thread's stack.
    constexpr int kDepth = 50000;
    RqList* inner = Block().Select(Col(L"a", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqExpr* cond = Eq(Ref(*inner, 0), Int(0));
    for (int i = 1; i < kDepth; ++i)
        cond = And(cond, Eq(Ref(*inner, 0), Int(i)));
    Heap<RqHandleNode> request(
        Request(Block().Select(Ref(*inner, 0)).From(Derived(inner)).Where(cond).Build()));
    EXPECT_TRUE(RqVerifier::Verify(*request).empty());

    // A fault at the bottom is still found, with its full path.
    RqExpr* bottom = cond;
    while (bottom->GetObjectType() == kRqExprCondAnd)
        bottom = bottom->GetIthOperand(0);
    bottom->SetNumOperands(1);
    const std::vector<RqViolation> violations = RqVerifier::Verify(*request);
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].m_pNode, bottom);
    EXPECT_EQ(violations[0].m_kind, RqViolation::kOperandCount);
}

}  // namespace
