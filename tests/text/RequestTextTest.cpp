// The request text format: every kind value gets a deliberate answer (a node of each concrete
// kind round-trips with its fields set, and the comparison tells those fields from their
// defaults), a request read from text means what it says, the comparison notices what lies
// outside a node's fields, and nesting is bounded. The printed forms and the positioned
// errors of malformed requests are golden cases (tests/golden/text, tests/golden/errors).

#include <gtest/gtest.h>

#include <string>

#include "../../server/Query/Optimizer/RequestText/Src/SQORTextRequestInternal.h"
#include "Platform/ErrorMessage.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "TextTestSupport.h"

using namespace rqb;
using namespace rqtext;

namespace {

using rqb::Ref;

void ExpectRoundTrip(const RqNode& root, const ARpGateway* rp = nullptr) {
    EXPECT_EQ(texttest::RoundTripFailure(root, rp), "");
}

RqList* SmallBlock() {
    return Block().Select(Int(1)).Select(Str(L"two")).Build();
}

// ---- Every kind ------------------------------------------------------------------------------

// An expression of `kind` with the operands its kind needs; with `on`, its fields are set.
RqExpr* SampleExpr(RqNodeType_e kind, bool on) {
    Heap<RqNode> node(MakeBlankNode(kind));
    // The fields that only a constructor takes.
    if (ExprFormOf(kind) == ExprForm::kMetadata)
        node.Reset(MakeMetadataNode(kind, on ? VoidID(7, 3) : VoidID(), on ? L"R" : L""));
    else if (kind == kRqExprExternalData)
        node.Reset(RQ_NEW RqExprExternalData(
            on ? RqExprExternalData::kCSVData : RqExprExternalData::kUnknownData, on ? L"a" : L""));
    else if (kind == kRqExprColumnList)
        node.Reset(RQ_NEW RqExprColumnList(RqExprVector{Int(1)}, on, true));
    auto* expr = RqCast<RqExpr>(node.Get());
    if (on) {
        SetNameField(*expr, "name \"quoted\"");
        SetTextValue(*expr, L"2024-01-31");
        if (auto* integer = RqDynCast<RqExprIntegerLiteral>(expr))
            integer->SetValue(-7);
        if (auto* real = RqDynCast<RqExprFloatLiteral>(expr))
            real->SetValue(0.5);
        if (auto* cast = RqDynCast<RqExprCast>(expr))
            cast->SetTypeName(L"VARCHAR(20)");
        if (auto* column = RqDynCast<RqTargetColumn>(expr)) {
            column->SetTableNum(-3);
            column->SetColumnID(VoidID(4, 2));
        }
    }
    if (RqIsKindOf(kind, kRqExprSubquery)) {
        expr->AddChild(SmallBlock());
    } else if (auto* aggr = RqDynCast<RqExprAggr>(expr)) {
        aggr->AddChild(Int(7));
        aggr->AddChild(RQ_NEW RqExprColumnList(RqExprVector{Int(1)}));
        aggr->AddChild(nullptr);
        for (int i = RqExprAggr::kFirstParameter; i < RqNodeTypeMinOperands(kind); ++i)
            aggr->AddChild(Float(0.5));
        SetAggrFlags(*aggr, on ? kAggrDistinct | kAggrAnalytic | kAggrUninstantiated : 0);
        if (auto* sorted = RqDynCast<RqExprSortDependentAggr>(aggr); sorted && on)
            sorted->SetSortSpec({{0, RqSortSpec::kDesc}, {1, RqSortSpec::kAsc}});
    } else if (expr->GetNumChildren() == 0) {
        const int count =
            std::max(RqNodeTypeMinOperands(kind), RqNodeTypeMaxOperands(kind) != 0 ? 1 : 0);
        for (int i = 0; i < count; ++i)
            expr->AddChild(i == 1 ? nullptr : Int(i));
    }
    return RqCast<RqExpr>(node.Release());
}

// A node of `kind` (not an expression) with the children its kind needs, and the fields that
// only a constructor takes set when `on`.
RqNode* MakeNode(RqNodeType_e kind, bool on) {
    const auto table = [] {
        return JoinRef(SqlTableRef::kInnerJoin, Table(VoidID(3, 9), 4), nullptr, nullptr);
    };
    if (kind == kRqList)
        return Block().Select(Int(1)).Build();
    if (kind == kRqGroupBy)
        return RQ_NEW RqGroupBy(RqExprVector{Int(1), Int(2)}, RqExprVector{Int(3)});
    if (kind == kRqOrderBy)
        return RQ_NEW RqOrderBy({RQ_NEW RqSortSpec(0)},
                                on ? std::vector<ZKString>{L"INTEGER"} : std::vector<ZKString>{},
                                false);
    if (kind == kRqJoinSpec)
        return RQ_NEW RqJoinSpec({RQ_NEW RqJoinNode(table())});
    if (kind == kRqJoinNode)
        return RQ_NEW RqJoinNode(table(), on);
    if (kind == kRqTableReference)
        return JoinRef(SqlTableRef::kInnerJoin, Table(VoidID(3, 9), 4), Table(VoidID(3, 2), 5),
                       Eq(Int(1), Int(2)));
    if (kind == kRqEntity)
        return MakeMetadataNode(kind, on ? VoidID(12, 3) : VoidID(), on ? L"Region" : L"");
    if (kind == kRqExternalTable)
        return RQ_NEW RqExternalTable(on ? L"ext \"x\"" : L"");
    RqNode* node =
        kind == kRqDerivedColumn ? RQ_NEW RqDerivedColumn(nullptr, 5) : MakeBlankNode(kind);
    if (node->IsSetOperation())
        node->AddChild(SmallBlock());
    if (NodeFormOf(kind) == NodeForm::kFilter)
        node->AddChild(Eq(Int(1), Int(2)));
    else if (kind == kRqProjection)
        node->AddChild(RQ_NEW RqDerivedColumn(Int(1), 0));
    else if (kind == kRqDerivedColumn)
        node->SetIthChild(0, Int(1));
    else if (kind != kRqHandleNode && kind != kRqSharedList && kind != kRqSortSpec &&
             kind != kRqJoinLink && !node->IsKindOf(kRqIdentifiedTable))
        node->AddChild(SmallBlock());
    return node;
}

// Sets the fields of a node (not an expression) that have setters.
void SetNodeFields(RqNode& node) {
    SetNameField(node, "name \"quoted\"");
    SetAllFlag(node, true);
    if (auto* list = RqDynCast<RqAbstractList>(&node)) {
        list->SetLabel(L"a label");
        list->SetRowLimit(4);
        list->SetRowOffset(2);
        list->SetShared(true);
        list->SetWithSupported(true);
    }
    if (auto* block = RqDynCast<RqList>(&node)) {
        block->SetDistinct(true);
        block->SetArtifactListNode(true);
    }
    if (auto* filter = RqDynCast<RqBreakFilter>(&node))
        filter->SetBreakColumnIndexes({1, 0});
    if (auto* cached = RqDynCast<RqCacheList>(&node))
        cached->SetMarker(L"m\"1");
    if (auto* cache = RqDynCast<RqCache>(&node))
        cache->SetLogicalPlanEntry({5, 2, 0xFFFFFFFFu});
    if (auto* projection = RqDynCast<RqProjection>(&node))
        projection->ReSyncColumnNumGenerator(8);
    if (auto* column = RqDynCast<RqDerivedColumn>(&node))
        column->SetBreakStatus(RqDerivedColumn::kLobData | 8);
    if (auto* groupBy = RqDynCast<RqGroupBy>(&node)) {
        groupBy->SetInternalExecutionMode(RqGroupBy::kSort);
        groupBy->AddGroupingSet({1, 0});
        groupBy->AddGroupingSet({});
    }
    if (auto* orderBy = RqDynCast<RqOrderBy>(&node))
        orderBy->SetSticky(true);
    if (auto* spec = RqDynCast<RqSortSpec>(&node)) {
        spec->SetSortDirection(RqSortSpec::kEitherDirection);
        spec->SetNullSortDirection(RqSortSpec::kLast);
        spec->SetLogicalSelectListStatus(true);
        spec->SetCaseInsensitive(true);
    }
    if (auto* reference = RqDynCast<RqTableReference>(&node)) {
        reference->SetJoinType(SqlTableRef::kFullOuterStitchJoin);
        reference->SetDrivingTableHint(RqTableReference::kDriving_RightTable);
        reference->SetLeftJoinColumnIndexes({0, 1});
        reference->SetRightJoinColumnIndexes({2});
    }
    if (auto* table = RqDynCast<RqAbstractTable>(&node))
        table->SetTableNum(-4);
    if (auto* identified = RqDynCast<RqIdentifiedTable>(&node))
        identified->SetTableID(VoidID(3, 7));
    if (auto* transient = RqDynCast<RqTransientOpaqueTable>(&node))
        transient->AddColumnTypeInfos({L"INT", L""});
    if (auto* derived = RqDynCast<RqDerivedTable>(&node))
        derived->SetNestingLevel(2);
}

// A request holding `node` where a node of its kind lives.
RqHandleNode* Host(RqNode* node) {
    const RqNodeType_e kind = node->GetObjectType();
    if (auto* handle = RqDynCast<RqHandleNode>(node)) {
        handle->SetRqNode(SmallBlock());
        return handle;
    }
    if (auto* expr = RqDynCast<RqExpr>(node))
        return Request(Block().Select(expr).Build());
    if (auto* shared = RqDynCast<RqSharedList>(node)) {
        RqList* target = SmallBlock();
        shared->SetSharedRqList(target);
        return Request(Union({shared, target}, true));
    }
    Block block;
    block.Select(Int(1));
    RqList& list = block.List();
    if (ClauseSlot(kind) >= 0) {
        list.SetIthChild(ClauseSlot(kind), node);
    } else if (kind == kRqDerivedColumn) {
        list.GetProjection()->AddChild(node);
    } else if (kind == kRqSortSpec) {
        list.SetOrderBy(RQ_NEW RqOrderBy({RqCast<RqSortSpec>(node)}));
    } else if (kind == kRqJoinNode || kind == kRqJoinLink || kind == kRqTableReference ||
               node->IsKindOf(kRqAbstractTable)) {
        // A from clause with two join nodes, a link between them, and the node in its place.
        auto* first = RQ_NEW RqJoinNode(
            JoinRef(SqlTableRef::kInnerJoin, Table(VoidID(3, 1), 1), nullptr, nullptr));
        RqJoinNode* second = RqDynCast<RqJoinNode>(node);
        if (second == nullptr && kind != kRqJoinLink)
            second =
                RQ_NEW RqJoinNode(RqDynCast<RqTableReference>(node) != nullptr
                                      ? RqCast<RqTableReference>(node)
                                      : JoinRef(SqlTableRef::kInnerJoin, node, nullptr, nullptr));
        if (kind == kRqJoinLink) {
            delete node;
            second = RQ_NEW RqJoinNode(
                JoinRef(SqlTableRef::kInnerJoin, Table(VoidID(3, 2), 2), nullptr, nullptr));
        }
        auto* spec = RQ_NEW RqJoinSpec({first, second});
        spec->AddJoinLink(RQ_NEW RqJoinLink(second, first));
        list.SetJoinSpec(spec);
    } else {
        return Request(node);  // request nodes: write requests, caches, entities, ...
    }
    return Request(block.Build());
}

// Whether a kind has fields of its own, by its form: the comparison must tell a node of the
// kind with its fields set from one with them at their defaults.
bool HasOwnFields(RqNodeType_e kind) {
    if (RqIsExprType(kind)) {
        const ExprForm form = ExprFormOf(kind);
        return form != ExprForm::kCall && form != ExprForm::kNull && form != ExprForm::kReference;
    }
    switch (NodeFormOf(kind)) {
        case NodeForm::kGeneric: {
            std::string name;
            return GetNameField(*Heap<RqNode>(MakeBlankNode(kind)), name);
        }
        case NodeForm::kRequest:
        case NodeForm::kFilter:
        case NodeForm::kFrom:
        case NodeForm::kLink:
            return false;
        case NodeForm::kList:
        case NodeForm::kSelect:
        case NodeForm::kColumn:
        case NodeForm::kGroupBy:
        case NodeForm::kOrderBy:
        case NodeForm::kSortKey:
        case NodeForm::kJoinNode:
        case NodeForm::kJoin:
        case NodeForm::kTable:
        case NodeForm::kEntity:
        case NodeForm::kCache:
            return true;
    }
    return true;
}

RqHandleNode* Sample(RqNodeType_e kind, bool on) {
    if (RqIsExprType(kind))
        return Host(SampleExpr(kind, on));
    RqNode* node = MakeNode(kind, on);
    if (on)
        SetNodeFields(*node);
    return Host(node);
}

TEST(RequestTextKinds, EveryKindValueRoundTripsAndItsFieldsAreCompared) {
    for (int value = 0; value < kRqNodeTypeCount; ++value) {
        const auto kind = static_cast<RqNodeType_e>(value);
        SCOPED_TRACE(RqNodeTypeName(kind));
        RqNodeType_e named = kRqInvalid;
        if (RqIsAbstractNodeType(kind)) {
            // Abstract kinds and markers have no node, and the reader takes no name of theirs.
            EXPECT_EQ(MakeBlankNode(kind), nullptr);
            EXPECT_FALSE(KindFromName(RqNodeTypeName(kind), named));
            continue;
        }
        Heap<RqHandleNode> set(Sample(kind, true));
        Heap<RqHandleNode> plain(Sample(kind, false));
        ExpectRoundTrip(*set);
        ExpectRoundTrip(*plain);
        std::string difference;
        EXPECT_EQ(HasOwnFields(kind), !RqTextSameTree(*set, *plain, &difference)) << difference;
    }
}

// ---- The meaning of a request read from text ---------------------------------------------

TEST(RequestTextMeaning, ARequestReadFromTextIsTheTreeItDescribes) {
    const char* text = R"(request [target=engine] {
  list @report {
    select {
      0: @detail.0
      1: Sum(@detail.1)
    }
    from {
      derived t3 {
        list @detail [target=ansisql at=SalesDW] {
          select {
            0: t2.REGION
            1: t1.AMOUNT
          }
          from {
            join left {
              table SalesDW.dw.FACT_SALES t1
              table SalesDW.dw.DIM_STORE t2
              on Eq(t1.STORE_KEY, t2.STORE_KEY)
            }
          }
        }
      }
    }
    groupby (@detail.0)
    orderby 1 desc
  }
}
)";
    try {
        Heap<RqHandleNode> unresolved(RqTextReader::Read(text, "sales.rq"));
        ADD_FAILURE() << "names read without a repository";
    } catch (const RqTextError& error) {
        EXPECT_EQ(error.GetMessage(), "database SalesDW needs a repository to be resolved");
    }
    const ARpGateway& rp = texttest::SampleGateway();
    Heap<RqHandleNode> request(RqTextReader::Read(text, "sales.rq", &rp));
    EXPECT_EQ(text, RqTextWriter::Write(*request, &rp));
    const auto* report = RqCast<RqList>(request->GetRqNode());
    const auto* detail = RqCast<RqList>(
        report->GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable()->GetInnerList());
    EXPECT_EQ(report->GetTargetType(), ServerInfo::kBuiltInExecutionEngine);
    EXPECT_EQ(detail->GetTargetType(), ServerInfo::kAnsiSql);
    const RefADatabase db = rp.GetRepository().FindDatabaseByName(L"SalesDW");
    EXPECT_EQ(detail->GetTargetID(), db->GetID());
    // The sum reads the detail block's second column; the group-by its first.
    const auto* sum = RqCast<RqExprAggr>(report->GetProjection()->GetIthColumn(1)->GetExpr());
    EXPECT_EQ(RqCast<RqDerivedColumnReference>(sum->GetMeasure())->GetDerivedColumn(),
              detail->GetProjection()->GetIthColumn(1));
    EXPECT_EQ(report->GetOrderBy()->GetIthSortSpec(0)->GetSortDirection(), RqSortSpec::kDesc);
    // The left side of the join is the fact table; columns get their identifiers by name.
    const RqTableReference* join = detail->GetJoinSpec()->GetIthTableReference(0);
    EXPECT_EQ(join->GetJoinType(), SqlTableRef::kLeftOuterJoin);
    const auto* facts = RqCast<RqAtomicTable>(join->GetLeftTable());
    EXPECT_EQ(facts->GetTableNum(), 1);
    const RefATable factTable = rp.GetRepository().FindTable(facts->GetTableID());
    EXPECT_EQ(factTable->GetName(), L"FACT_SALES");
    const auto* amount =
        RqCast<RqTargetColumn>(detail->GetProjection()->GetIthColumn(1)->GetExpr());
    EXPECT_EQ(amount->GetColumnID(), factTable->FindColumn(L"AMOUNT")->GetID());
    EXPECT_EQ(amount->GetTargetType(), ServerInfo::kAnsiSql);  // inherited from its block
}

// ---- What the comparison notices besides fields ---------------------------------------------

TEST(RequestTextSameTree, NoticesTargetsIdentitiesAndWhatReferencesPointAt) {
    RqList* inner = Block().Label(L"in").Select(Int(1)).Select(Int(2)).Build();
    RqExpr* reference = Ref(*inner, 0);
    Heap<RqHandleNode> a(Request(Block().Select(reference).From(Derived(inner, 1)).Build()));
    auto differs = [&](auto&& change, const std::string& expected) {
        Heap<RqHandleNode> b(RqCast<RqHandleNode>(a->DeepCopy(true)));
        std::string difference;
        EXPECT_TRUE(RqTextSameTree(*a, *b, &difference)) << difference;
        change(*RqCast<RqList>(b->GetRqNode()));
        EXPECT_FALSE(RqTextSameTree(*a, *b, &difference));
        EXPECT_NE(difference.find(expected), std::string::npos) << difference;
    };
    differs([](RqList& outer) { outer.GetProjection()->MarkTargetType(ServerInfo::kOdbcGeneric); },
            "RqProjection[0]: target type");
    differs([](RqList& outer) { outer.GetProjection()->MarkTargetID(VoidID(1, 2)); },
            "RqProjection[0]: target id");
    // Two nodes that shared no identity now share one.
    differs([](RqList& outer) { outer.GetProjection()->SetNodeID(outer.GetNodeID()); },
            "RqProjection[0]: identity group");
    // The column now reads the inner block's second column instead of its first.
    differs(
        [](RqList& outer) {
            const RqList* copy = RqCast<RqList>(
                outer.GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable()->GetInnerList());
            RqCast<RqDerivedColumnReference>(outer.GetProjection()->GetIthColumn(0)->GetExpr())
                ->SetDerivedColumn(copy->GetProjection()->GetIthColumn(1));
        },
        "RqDerivedColumnReference[0]: points at a node that does not correspond");
}

TEST(RequestTextSameTree, AReferenceOutsideThePrintedTreeHasAFormOfItsOwn) {
    Heap<RqList> inner(SmallBlock());
    Heap<RqExpr> reference(Ref(*inner, 0));
    EXPECT_EQ("ref(outside)\n", RqTextWriter::Write(*reference));
    Heap<RqExpr> dangling(RQ_NEW RqDerivedColumnReference());
    EXPECT_EQ("ref(none)\n", RqTextWriter::Write(*dangling));
}

// ---- Limits --------------------------------------------------------------------------

TEST(RequestTextLimits, DeepNestingFailsCleanlyBothWays) {
    // Just under the limit reads and prints; far over it fails on both sides.
    auto nested = [](int depth) {
        std::string text = "request { list { where ";
        for (int i = 0; i < depth; ++i)
            text += "Not(";
        return text + "IsNull(1)" + std::string(static_cast<size_t>(depth), ')') + " } }";
    };
    Heap<RqHandleNode> fine(RqTextReader::Read(nested(1900), "deep.rq"));
    ExpectRoundTrip(*fine);
    try {
        Heap<RqHandleNode> tooDeep(RqTextReader::Read(nested(100000), "deep.rq"));
        ADD_FAILURE() << "read without error";
    } catch (const RqTextError& error) {
        EXPECT_EQ("nesting deeper than 2000 levels", error.GetMessage());
    }
    RqExpr* chain = IsNull(Int(1));
    for (int i = 0; i < 3000; ++i)
        chain = Not(chain);
    Heap<RqHandleNode> deep(Request(Block().Where(chain).Build()));
    EXPECT_THROW(RqTextWriter::Write(*deep), ErrorMessage);
}

}  // namespace
