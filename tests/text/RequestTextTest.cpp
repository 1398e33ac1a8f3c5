// The request text format: the exact text of a small request, round trips over every node
// kind, references and anchors, identity groups, inherited targets, names against raw
// identifiers, and the errors of malformed requests.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>

#include "Platform/ErrorMessage.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"

using namespace rqb;

namespace {

using rqb::Ref;

// Print, read, print again: the texts agree and the tree read equals the original.
void ExpectRoundTrip(const RqNode& root, const ARpGateway* rp = nullptr) {
    const std::string text = RqTextWriter::Write(root, rp);
    Heap<RqHandleNode> back;
    try {
        back.Reset(RqTextReader::Read(text, "printed.rq", rp));
    } catch (const RqTextError& error) {
        ADD_FAILURE() << error.what() << "\n" << text;
        return;
    }
    EXPECT_EQ(text, RqTextWriter::Write(*back, rp));
    std::string difference;
    EXPECT_TRUE(RqTextSameTree(root, *back, &difference)) << difference << "\n" << text;
}

// SalesDW with two tables; ORDERS.AMOUNT is 4:3.
struct Catalog {
    std::shared_ptr<RpRepository> m_pRepo = std::make_shared<RpRepository>();
    RefADatabase m_db;
    RefATable m_orders;
    RefATable m_stores;
    RefAConnectionPool m_pool;
    std::unique_ptr<RpSession> m_pSession;

    Catalog() {
        m_db = m_pRepo->AddDatabase(L"SalesDW", ServerInfo::kAnsiSql);
        m_pool = m_pRepo->AddConnectionPool(m_db, L"Pool");
        m_orders = m_pRepo->AddTable(m_db, L"dw", L"ORDERS");
        m_pRepo->AddColumn(m_orders, L"STORE_ID");
        m_pRepo->AddColumn(m_orders, L"AMOUNT");
        m_stores = m_pRepo->AddTable(m_db, L"", L"STORES");
        m_pRepo->AddColumn(m_stores, L"STORE_ID");
        m_pRepo->AddColumn(m_stores, L"REGION");
        m_pSession = std::make_unique<RpSession>(m_pRepo);
    }
    VoidID Column(const RefATable& table, const wchar_t* name) const {
        return table->FindColumn(name)->GetID();
    }
    RqTargetColumn* Col(const RefATable& table, const wchar_t* name, int tableNum) const {
        return RQ_NEW RqTargetColumn(Column(table, name), name, tableNum);
    }
};

// The report over a detail block of the sample sales request.
RqHandleNode* SalesRequest(const Catalog& c) {
    RqList* detail =
        Block()
            .Label(L"detail")
            .Select(c.Col(c.m_stores, L"REGION", 2))
            .Select(c.Col(c.m_orders, L"AMOUNT", 1))
            .Join(SqlTableRef::kInnerJoin, Table(c.m_orders->GetID(), 1),
                  Table(c.m_stores->GetID(), 2),
                  Eq(c.Col(c.m_orders, L"STORE_ID", 1), c.Col(c.m_stores, L"STORE_ID", 2)))
            .OrderBy({{1, RqSortSpec::kDesc}})
            .Target(ServerInfo::kAnsiSql, c.m_db->GetID())
            .Build();
    RqExpr* region = Ref(*detail, 0);
    RqExpr* amount = Ref(*detail, 1);
    RqExpr* groupRegion = Ref(*detail, 0);
    return Request(Block()
                       .Label(L"report")
                       .Select(region)
                       .Select(Sum(amount))
                       .From(Derived(detail, 3))
                       .GroupBy({groupRegion})
                       .OrderBy({{1, RqSortSpec::kDesc}})
                       .Target(ServerInfo::kBuiltInExecutionEngine)
                       .Build());
}

constexpr const char* kSalesText = R"(request {
  list @report [target=engine] {
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
            join inner {
              table SalesDW.dw.ORDERS t1
              table SalesDW.STORES t2
              on Eq(t1.STORE_ID, t2.STORE_ID)
            }
          }
          orderby 1 desc
        }
      }
    }
    groupby (@detail.0)
    orderby 1 desc
  }
}
)";

TEST(RequestTextFormat, SmallRequestPrintsExactly) {
    Catalog c;
    Heap<RqHandleNode> request(SalesRequest(c));
    EXPECT_EQ(kSalesText, RqTextWriter::Write(*request, c.m_pSession.get()));
    ExpectRoundTrip(*request, c.m_pSession.get());

    // Without a gateway every repository object is its raw identifier, and still reads.
    const std::string raw = RqTextWriter::Write(*request);
    EXPECT_NE(raw.find("list @detail [target=ansisql at=1:1]"), std::string::npos) << raw;
    EXPECT_NE(raw.find("table 3:1 t1"), std::string::npos) << raw;
    EXPECT_NE(raw.find("1: t1.AMOUNT(4:2)"), std::string::npos) << raw;
    ExpectRoundTrip(*request);
}

TEST(RequestTextFormat, HandWrittenTextPrintsCanonically) {
    // Fields in another order, defaults spelled out, comments and odd spacing.
    const char* text = R"(# a comment
request { list @b limit=5 distinct { select next=2 { 1: 1 0: "x" }
  orderby 0 asc nulls=any , 1 desc
  where And(IsNull(null),Not(Gt(2.5, -inf))) } })";
    Heap<RqHandleNode> request(RqTextReader::Read(text, "hand.rq"));
    EXPECT_EQ(R"(request {
  list @b distinct limit=5 {
    select {
      1: 1
      0: "x"
    }
    where And(IsNull(null), Not(Gt(2.5, -inf)))
    orderby 0, 1 desc
  }
}
)",
              RqTextWriter::Write(*request));
}

// ---- Every node kind ----------------------------------------------------------------------

// A node of a concrete kind made with its class's simplest constructor.
template <class T>
RqNode* MakeOf() {
    if constexpr (std::is_default_constructible_v<T>)
        return RQ_NEW T();
    else if constexpr (std::is_constructible_v<T, std::initializer_list<RqExpr*>>)
        return RQ_NEW T(std::initializer_list<RqExpr*>{});
    else
        return RQ_NEW T(nullptr);
}

RqNode* MakeKind(RqNodeType_e kind) {
    switch (kind) {
#define RQ_T_G(kind, cls) \
    case kind:            \
        return MakeOf<cls>();
#define RQ_T_H(kind, cls) RQ_T_G(kind, cls)
#define RQ_T_A(kind, cls)
#define RQ_T_N(kind, cls)
#define RQ_T_K(kind, cls, decl) RQ_T_##decl(kind, cls)
#define RQ_T_C(kind, cls, decl)
#define RQ_T_M(kind, cls, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_T_##row(kind, cls, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
        default:
            return nullptr;
    }
}

RqList* SmallBlock(const wchar_t* label = L"") {
    return Block().Label(label).Select(Int(1)).Select(Str(L"two")).Build();
}

// An expression of `kind` with its minimum operands (and fields off their defaults where
// the class has them), in the select list of a block.
RqHandleNode* ExprRequest(RqNodeType_e kind) {
    RqExpr* expr = static_cast<RqExpr*>(MakeKind(kind));
    expr->SetNumChildren(0);
    if (expr->IsKindOf(kRqExprSubquery)) {
        expr->AddChild(SmallBlock());
    } else if (expr->IsKindOf(kRqExprAggr)) {
        auto* aggr = static_cast<RqExprAggr*>(expr);
        aggr->AddChild(Int(7));
        aggr->AddChild(RQ_NEW RqExprColumnList(RqExprVector{Int(1)}));
        aggr->AddChild(nullptr);
        for (int i = 3; i < RqNodeTypeMinOperands(kind); ++i)
            aggr->AddChild(Float(0.5));
        aggr->SetDistinctAggregation(true);
        aggr->SetAnalytic(true);
        aggr->SetInstantiated(false);
        if (auto* sorted = dynamic_cast<RqExprSortDependentAggr*>(aggr))
            sorted->SetSortSpec({{0, RqSortSpec::kDesc}, {1, RqSortSpec::kAsc}});
    } else {
        const int count =
            std::max(RqNodeTypeMinOperands(kind), RqNodeTypeMaxOperands(kind) != 0 ? 1 : 0);
        for (int i = 0; i < count; ++i)
            expr->AddChild(i == 1 ? nullptr : static_cast<RqExpr*>(Int(i)));
    }
    return Request(Block().Label(L"b").Select(expr).Build());
}

// A block that uses node `node` of `kind` in the slot where such a node lives.
RqHandleNode* NodeRequest(RqNodeType_e kind, RqNode* node) {
    Block block;
    block.Label(L"host").Select(Int(1));
    RqList& list = block.List();
    switch (kind) {
        case kRqProjection:
        case kRqDerivedColumn:
            delete node;
            list.GetProjection()->ReSyncColumnNumGenerator(8);  // next= off its default
            list.GetProjection()->GetIthColumn(0)->SetBreakStatus(RqDerivedColumn::kLobData | 8);
            break;
        case kRqDetailFilter:
        case kRqSummaryFilter:
        case kRqHaving:
            // A clause present with no condition.
            list.SetIthChild(kind == kRqDetailFilter ? RqList::kDetailFilterChild
                             : kind == kRqHaving     ? RqList::kHavingChild
                                                     : RqList::kSummaryFilterChild,
                             node);
            break;
        case kRqGroupBy:
            static_cast<RqGroupBy*>(node)->AppendColumn(Int(1));
            static_cast<RqGroupBy*>(node)->SetGranularity(RQ_NEW RqExprColumnListOrdered());
            static_cast<RqGroupBy*>(node)->SetInternalExecutionMode(RqGroupBy::kSort);
            list.SetGroupBy(static_cast<RqGroupBy*>(node));
            break;
        case kRqOrderBy:
        case kRqSortSpec: {
            delete node;
            auto* orderBy = RQ_NEW RqOrderBy(
                {RQ_NEW RqSortSpec(0, RqSortSpec::kEitherDirection, true, true, RqSortSpec::kLast)},
                {L"INTEGER"}, true);
            orderBy->AppendPushDownAggr(Heap<RqExpr>(Sum(Int(1))).Get());
            list.SetOrderBy(orderBy);
            break;
        }
        default: {
            // Tables, joins, links: a from clause with two join nodes and a link.
            auto* spec = RQ_NEW RqJoinSpec();
            RqNode* table = node->IsKindOf(kRqAbstractTable) ? node : (delete node, nullptr);
            if (table == nullptr)
                table = Table(VoidID(3, 9), 4);
            if (table->GetObjectType() == kRqDerivedTable) {
                static_cast<RqDerivedTable*>(table)->SetInnerList(SmallBlock());
                static_cast<RqDerivedTable*>(table)->SetNestingLevel(2);
            } else if (table->GetObjectType() == kRqTransientOpaqueTable) {
                static_cast<RqTransientOpaqueTable*>(table)->AddColumnTypeInfos({L"INT", L""});
            }
            static_cast<RqAbstractTable*>(table)->SetTableNum(4);
            auto* reference = RQ_NEW RqTableReference(SqlTableRef::kFullOuterStitchJoin, table,
                                                      Eq(Int(1), Int(2)), Table(VoidID(3, 2), 5),
                                                      RqTableReference::kDriving_RightTable);
            reference->SetLeftJoinColumnIndexes({0, 1});
            auto* first = RQ_NEW RqJoinNode(reference, true);
            auto* second = RQ_NEW RqJoinNode(
                JoinRef(SqlTableRef::kInnerJoin, Table(VoidID(3, 7), 6), nullptr, nullptr));
            spec->AddJoinNode(first);
            spec->AddJoinNode(second);
            spec->AddJoinLink(RQ_NEW RqJoinLink(second, first));
            list.SetJoinSpec(spec);
            break;
        }
    }
    return Request(block.Build());
}

// A request holding `node` of a list or request-level kind.
RqHandleNode* TopRequest(RqNodeType_e kind, RqNode* node) {
    switch (kind) {
        case kRqHandleNode:
            static_cast<RqHandleNode*>(node)->SetRqNode(SmallBlock());
            return static_cast<RqHandleNode*>(node);
        case kRqList:
            delete node;
            return Request(Block().Label(L"only").Distinct().Limit(4).Offset(2).Build());
        case kRqUnion:
        case kRqIntersect:
        case kRqExcept:
        case kRqBreakFilter:
        case kRqCacheList:
        case kRqCache:
        case kRqXSACache: {
            node->SetNumChildren(0);
            node->AddChild(SmallBlock());
            if (node->IsSetOperation())
                node->AddChild(SmallBlock());
            if (kind == kRqBreakFilter)
                static_cast<RqBreakFilter*>(node)->SetBreakColumnIndexes({1, 0});
            if (kind == kRqCacheList)
                static_cast<RqCacheList*>(node)->SetMarker(L"m\"1");
            if (node->IsKindOf(kRqCache))
                static_cast<RqCache*>(node)->SetLogicalPlanEntry({5, 2, 0xFFFFFFFFu});
            if (node->IsKindOf(kRqAbstractList))
                static_cast<RqAbstractList*>(node)->SetWithSupported(true);
            return Request(node);
        }
        case kRqSharedList: {
            // The shared list reads a block printed after it.
            RqList* shared = SmallBlock();
            shared->SetShared(true);
            static_cast<RqSharedList*>(node)->SetSharedRqList(shared);
            return Request(Union({static_cast<RqSharedList*>(node), shared}, true));
        }
        case kRqEntity:
            delete node;
            return Request(RQ_NEW RqEntity(VoidID(12, 3), L"Region"));
        default: {
            // Named request nodes and the other generic ones, holding a block.
            if (kind == kRqWrite)
                static_cast<RqWrite*>(node)->SetName(L"target \"table\"");
            node->AddChild(SmallBlock());
            return Request(node);
        }
    }
}

TEST(RequestTextFormat, EveryConcreteKindRoundTrips) {
    int covered = 0;
    for (int value = 0; value < kRqNodeTypeCount; ++value) {
        const auto kind = static_cast<RqNodeType_e>(value);
        if (RqIsAbstractNodeType(kind))
            continue;
        SCOPED_TRACE(RqNodeTypeName(kind));
        RqNode* node = MakeKind(kind);
        ASSERT_NE(node, nullptr);
        Heap<RqHandleNode> request;
        if (RqIsExprType(kind)) {
            delete node;
            request.Reset(ExprRequest(kind));
        } else if (RqIsKindOf(kind, kRqAbstractTable) || kind == kRqJoinSpec ||
                   kind == kRqJoinNode || kind == kRqTableReference || kind == kRqJoinLink ||
                   kind == kRqProjection || kind == kRqDerivedColumn || kind == kRqDetailFilter ||
                   kind == kRqSummaryFilter || kind == kRqHaving || kind == kRqGroupBy ||
                   kind == kRqOrderBy || kind == kRqSortSpec) {
            request.Reset(NodeRequest(kind, node));
        } else {
            request.Reset(TopRequest(kind, node));
        }
        ExpectRoundTrip(*request);
        ++covered;
    }
    EXPECT_GT(covered, 200);
}

TEST(RequestTextFormat, LiteralValuesSurviveExactly) {
    const double values[] = {0.1,
                             -0.0,
                             1e300,
                             5e-324,
                             std::numeric_limits<double>::quiet_NaN(),
                             std::numeric_limits<double>::infinity(),
                             -std::numeric_limits<double>::infinity()};
    Block block;
    for (double v : values)
        block.Select(Float(v));
    block.Select(Int(std::numeric_limits<int64_t>::min()))
        .Select(Int(std::numeric_limits<int64_t>::max()))
        .Select(Str(L"quote \" back \\ tab \t newline \n \u00e9\u4e2d"))
        .Select(RQ_NEW RqExprDateLiteral(L"2024-02-29"))
        .Select(RQ_NEW RqExprNumberLiteral(L"1.50"))
        .Select(Param(L"not an identifier"))
        .Select(RQ_NEW RqExprCast(Null(), L"VARCHAR(20)"))
        .Select(RQ_NEW RqExprExternalData(RqExprExternalData::kCSVData, L"a,b\n1,2"))
        .Select(RQ_NEW RqTargetCubeColumn(VoidID(4, 1), L"weird name", -2));
    Heap<RqHandleNode> request(Request(block.Build()));
    ExpectRoundTrip(*request);
    const std::string text = RqTextWriter::Write(*request);
    EXPECT_NE(text.find("4: nan"), std::string::npos) << text;
    EXPECT_NE(text.find("cubecol t(-2).\"weird name\"(4:1)"), std::string::npos) << text;
}

// ---- References, anchors, shared lists ------------------------------------------------------

TEST(RequestTextReferences, UnlabelledBlocksGetAnchorsAndForwardReferencesResolve) {
    RqList* inner = SmallBlock();  // no label
    RqList* twin1 = SmallBlock(L"twin");
    RqList* twin2 = SmallBlock(L"twin");
    RqExpr* first = Ref(*inner, 1);
    RqExpr* fromTwin = Ref(*twin2, 0);
    Heap<RqHandleNode> request(Request(Block()
                                           .Select(first)
                                           .Select(fromTwin)
                                           .Select(RQ_NEW RqDerivedColumnReference())
                                           .From(Derived(inner, 1))
                                           .From(Derived(twin1, 2))
                                           .From(Derived(twin2, 3))
                                           .Build()));
    const std::string text = RqTextWriter::Write(*request);
    // Anchors in tree order: the unlabelled block, then the second of the two "twin" blocks
    // (the first is never referenced).
    EXPECT_NE(text.find("0: $1.1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("1: $2.0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("2: ref(none)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("list $1 {"), std::string::npos) << text;
    EXPECT_NE(text.find("list @twin $2 {"), std::string::npos) << text;
    ExpectRoundTrip(*request);
}

TEST(RequestTextReferences, ReferenceOutsideThePrintedTreeHasAFormOfItsOwn) {
    Heap<RqList> inner(SmallBlock(L"in"));
    Heap<RqExpr> reference(Ref(*inner, 0));
    EXPECT_EQ("ref(outside)\n", RqTextWriter::Write(*reference));
    Heap<RqExpr> dangling(RQ_NEW RqDerivedColumnReference());
    EXPECT_EQ("ref(none)\n", RqTextWriter::Write(*dangling));
}

TEST(RequestTextReferences, SharedListsAndJoinLinksPointAtTheirNodes) {
    const char* text = R"(request {
  union {
    shared @s
    list @s shared {
      select {
        0: 1
      }
      from {
        table 3:1 t1
        table 3:2 t2
        link 1 -> 0
      }
    }
  }
}
)";
    Heap<RqHandleNode> request(RqTextReader::Read(text, "shared.rq"));
    auto* setOp = static_cast<RqUnion*>(request->GetRqNode());
    auto* shared = static_cast<RqSharedList*>(setOp->GetIthList(0));
    auto* block = static_cast<RqList*>(setOp->GetIthList(1));
    EXPECT_EQ(shared->GetSharedRqList(), block);
    auto* link = static_cast<RqJoinLink*>(block->GetJoinSpec()->GetIthChild(2));
    EXPECT_EQ(link->GetFrom(), block->GetJoinSpec()->GetIthJoinNode(1));
    EXPECT_EQ(link->GetTo(), block->GetJoinSpec()->GetIthJoinNode(0));
    EXPECT_EQ(text, RqTextWriter::Write(*request));
}

// ---- Identities and targets -----------------------------------------------------------------

TEST(RequestTextAnnotations, IdentityGroupsAreNumberedByFirstAppearance) {
    Heap<RqExpr> original(Add(Col(L"A", 1), Int(2)));
    Block block;
    block.Select(Int(0));  // unique identity: no same=
    block.Select(original->DeepExprCopy(true));
    block.Select(original->DeepExprCopy(true));
    block.Select(Col(L"B", 1));
    Heap<RqHandleNode> request(Request(block.Build()));
    const std::string text = RqTextWriter::Write(*request);
    EXPECT_NE(text.find("1: Add(t1.A [same=2], 2 [same=3]) [same=1]"), std::string::npos) << text;
    EXPECT_NE(text.find("2: Add(t1.A [same=2], 2 [same=3]) [same=1]"), std::string::npos) << text;
    EXPECT_NE(text.find("0: 0\n"), std::string::npos) << text;
    ExpectRoundTrip(*request);

    // The reader gives each group one fresh identity, distinct from every other node's.
    Heap<RqHandleNode> back(RqTextReader::Read(text, "ids.rq"));
    const RqProjection& projection = *static_cast<RqList*>(back->GetRqNode())->GetProjection();
    const RqNode* a = projection.GetIthColumn(1)->GetExpr();
    const RqNode* b = projection.GetIthColumn(2)->GetExpr();
    EXPECT_TRUE(a->IsCopyOf(*b));
    EXPECT_FALSE(a->IsCopyOf(*a->GetIthChild(0)));
    EXPECT_NE(a->GetNodeID(), original->GetNodeID());
}

TEST(RequestTextAnnotations, TargetsAreInheritedAndPrintedWhereTheyChange) {
    const char* text = R"(request [target=odbc at=3:4] {
  list @a [target=engine] {
    select {
      0: Add(1 [target=ansisql], 2) [at=null]
      1 [target=99]: 3
    }
  }
}
)";
    Heap<RqHandleNode> request(RqTextReader::Read(text, "targets.rq"));
    auto* list = static_cast<RqList*>(request->GetRqNode());
    const RqDerivedColumn* column0 = list->GetProjection()->GetIthColumn(0);
    const RqExpr* add = column0->GetExpr();
    EXPECT_EQ(ServerInfo::kOdbcGeneric, request->GetTargetType());
    EXPECT_EQ(ServerInfo::kBuiltInExecutionEngine, column0->GetTargetType());
    EXPECT_EQ(VoidID(3, 4), column0->GetTargetID());
    // The operands inherit what the annotation after their expression says.
    EXPECT_TRUE(add->GetTargetID().IsNullID());
    EXPECT_EQ(ServerInfo::kAnsiSql, add->GetIthChild(0)->GetTargetType());
    EXPECT_TRUE(add->GetIthChild(1)->GetTargetID().IsNullID());
    EXPECT_EQ(ServerInfo::kBuiltInExecutionEngine, add->GetIthChild(1)->GetTargetType());
    EXPECT_EQ(99, list->GetProjection()->GetIthColumn(1)->GetIthChild(0)->GetTargetType());
    EXPECT_EQ(text, RqTextWriter::Write(*request));
}

// ---- Repository names -------------------------------------------------------------------------

TEST(RequestTextNames, ColumnsPrintShortOnlyWhenTheNameGivesTheirIdentifier) {
    Catalog c;
    Block block;
    block
        .Select(c.Col(c.m_orders, L"AMOUNT", 1))                     // resolves: short
        .Select(RQ_NEW RqTargetColumn(VoidID(4, 99), L"AMOUNT", 1))  // another id
        .Select(Col(L"AMOUNT", 1))                                   // no id at all
        .Select(Col(L"NOPE", 7))                                     // table 7 is not known
        .From(Table(c.m_orders->GetID(), 1))
        .Target(ServerInfo::kAnsiSql, c.m_pool->GetID());
    Heap<RqHandleNode> request(Request(block.Build()));
    const std::string text = RqTextWriter::Write(*request, c.m_pSession.get());
    EXPECT_NE(text.find("0: t1.AMOUNT\n"), std::string::npos) << text;
    EXPECT_NE(text.find("1: t1.AMOUNT(4:99)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("2: t1.AMOUNT(null)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("3: t7.NOPE\n"), std::string::npos) << text;
    EXPECT_NE(text.find("at=SalesDW.Pool"), std::string::npos) << text;
    ExpectRoundTrip(*request, c.m_pSession.get());
}

TEST(RequestTextNames, NamesThatAreNotIdentifiersAreQuoted) {
    auto repo = std::make_shared<RpRepository>();
    RefADatabase db = repo->AddDatabase(L"null", ServerInfo::kOdbcGeneric);
    RefATable table = repo->AddTable(db, L"my schema", L"T.1");
    repo->AddColumn(table, L"a b");
    RpSession session(repo);
    Heap<RqHandleNode> request(
        Request(Block()
                    .Select(RQ_NEW RqTargetColumn(table->FindColumn(L"a b")->GetID(), L"a b", 1))
                    .From(Table(table->GetID(), 1))
                    .Target(ServerInfo::kOdbcGeneric, db->GetID())
                    .Build()));
    const std::string text = RqTextWriter::Write(*request, &session);
    // A database named like the null identifier must not read as it.
    EXPECT_NE(text.find("[target=odbc at=\"null\"]"), std::string::npos) << text;
    EXPECT_NE(text.find("table \"null\".\"my schema\".\"T.1\" t1"), std::string::npos) << text;
    EXPECT_NE(text.find("0: t1.\"a b\"\n"), std::string::npos) << text;
    ExpectRoundTrip(*request, &session);
}

// ---- The comparison the round trips rely on ---------------------------------------------------

TEST(RequestTextSameTree, NoticesEveryKindOfDifference) {
    Catalog c;
    Heap<RqHandleNode> a(SalesRequest(c));
    auto differs = [&](auto&& change, const std::string& expected) {
        Heap<RqHandleNode> b(static_cast<RqHandleNode*>(a->DeepCopy(true)));
        std::string difference;
        EXPECT_TRUE(RqTextSameTree(*a, *b, &difference)) << difference;
        change(*static_cast<RqList*>(b->GetRqNode()));
        EXPECT_FALSE(RqTextSameTree(*a, *b, &difference));
        EXPECT_EQ(expected, difference);
    };
    differs([](RqList& report) { report.SetLabel(L"other"); }, "RqHandleNode/RqList[0]: list head");
    differs([](RqList& report) { report.GetOrderBy()->SetSticky(true); },
            "RqHandleNode/RqList[0]/RqOrderBy[6]: sticky flag or types");
    differs([](RqList& report) { report.GetGroupBy()->SetInternalExecutionMode(RqGroupBy::kHash); },
            "RqHandleNode/RqList[0]/RqGroupBy[4]: execution mode or grouping sets");
    differs(
        [](RqList& report) { report.GetProjection()->MarkTargetType(ServerInfo::kOdbcGeneric); },
        "RqHandleNode/RqList[0]/RqProjection[0]: target type 0 vs 2");
    // Two nodes that shared no identity now share one.
    differs([](RqList& report) { report.GetProjection()->SetNodeID(report.GetNodeID()); },
            "RqHandleNode/RqList[0]/RqProjection[0]: identity group");
    // The first column now reads the detail block's second column instead of its first.
    differs(
        [](RqList& report) {
            auto* reference = static_cast<RqDerivedColumnReference*>(
                report.GetProjection()->GetIthColumn(0)->GetExpr());
            auto* detail = static_cast<RqList*>(
                report.GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable()->GetInnerList());
            reference->SetDerivedColumn(detail->GetProjection()->GetIthColumn(1));
        },
        "RqHandleNode/RqList[0]/RqProjection[0]/RqDerivedColumn[0]/RqDerivedColumnReference[0]: "
        "points at a node that does not correspond");
}

// ---- The format as a tool: read, rewrite, print -------------------------------------------------

TEST(RequestTextFormat, RuleOutputPrintsAsADiffOfTheInput) {
    Catalog c;
    Heap<RqHandleNode> request(RqTextReader::Read(kSalesText, "sales.rq", c.m_pSession.get()));
    RemoveRedundantOrderBy rule(c.m_pSession.get());
    rule.ApplyRule(*request);
    // The detail block's ORDER BY goes and target types are left for target assignment to
    // decide afresh; the rule does not enter the ORDER BY it keeps, so its sort key keeps
    // the engine, which the text shows as an annotation of the key.
    std::string expected = kSalesText;
    auto replace = [&](const std::string& from, const std::string& to) {
        const size_t at = expected.find(from);
        ASSERT_NE(at, std::string::npos) << from;
        expected.replace(at, from.size(), to);
    };
    replace("list @report [target=engine] {", "list @report {");
    replace("list @detail [target=ansisql at=SalesDW] {", "list @detail [at=SalesDW] {");
    replace("          }\n          orderby 1 desc\n", "          }\n");
    replace("    orderby 1 desc\n  }\n}", "    orderby 1 desc [target=engine]\n  }\n}");
    EXPECT_EQ(expected, RqTextWriter::Write(*request, c.m_pSession.get()));
}

// ---- Malformed requests -------------------------------------------------------------------------

TEST(RequestTextErrors, MalformedRequestsReportWhereAndWhat) {
    Catalog c;
    struct Case {
        const char* m_text;
        int m_line;
        int m_column;
        const char* m_message;
    };
    const Case cases[] = {
        {"list {}", 1, 1, "expected 'request', found 'list'"},
        {"request { list } list", 1, 18, "expected end of input, found 'list'"},
        {"request { list {\n select { 0: Foo(1) } } }", 2, 14, "unknown expression 'Foo'"},
        {"request { list { select { 0: Upper(1, 2) } } }", 1, 30,
         "'Upper' takes 1 operand, found 2"},
        {"request { list { select { 0: Concat(1) } } }", 1, 30,
         "'Concat' takes at least 2 operands, found 1"},
        {"request { list { select { 0: Locate(1) } } }", 1, 30,
         "'Locate' takes 2 to 3 operands, found 1"},
        {"request { list { select { 0: Sum(1, 2) } } }", 1, 30,
         "'Sum' takes no parameters, found 1"},
        {"request { list { select { 0: Sum(1, sort=(0)) } } }", 1, 30,
         "'Sum' is not sort-dependent and has no sort keys"},
        {"request { list { select { 0: Add(1, limit=2) } } }", 1, 37, "'Add' has no field 'limit'"},
        {"request { list { select { 0: Write(1) } } }", 1, 30, "'Write' is not an expression"},
        {"request { list { select { 0: @x.0 } } }", 1, 30, "no list is labelled @x"},
        {"request { list @x { select { 0: @x.4 } } }", 1, 33, "list @x has no column 4"},
        {"request { list { select { 0: $7.0 } } }", 1, 30, "no list has the anchor $7"},
        {"request { union { list @x list @x { select { 0: @x.0 } } } }", 1, 49,
         "label @x names more than one list; use an anchor"},
        {"request { union { list $1 list $1 } }", 1, 32, "duplicate anchor $1"},
        {"request { list { select { 0: 1\n 0: 2 } } }", 2, 2,
         "duplicate column number 0 in a select list"},
        {"request { list { where IsNull(1) where Eq(1, 1) } }", 1, 34,
         "a list has one 'where' clause"},
        {"request { list { where Add(1, 2) } }", 1, 24, "expected a condition, found 'Add'"},
        {"request { list { from { derived t1 { Add(1, 2) } } } }", 1, 38,
         "expected a list, found 'Add'"},
        {"request { union { Add(1, 2) } }", 1, 19, "expected a list, found 'Add'"},
        {"request { list { select { 0: Subquery(1) } } }", 1, 39,
         "expected a list, found 'IntegerLiteral'"},
        {"request { list { select { 0: Add(list, 1) } } }", 1, 34,
         "expected an expression, found 'list'"},
        {"request { where Eq(1, 1) }", 1, 11,
         "'where' is a clause of a list and cannot stand here"},
        {"request { list { select { 0: \"abc } } }", 1, 30, "unterminated string"},
        {"request { list { select { 0: 1 }", 1, 33,
         "expected a clause (select, from, where, groupby, summary, having, orderby) or '}', "
         "found end of input"},
        {"request [target=nowhere] { }", 1, 17, "unknown target type 'nowhere'"},
        {"request [colour=red] { }", 1, 10,
         "unknown annotation 'colour' (expected target, at or same)"},
        {"request { list { from { table SalesDW.dw.FOO t1 } } }", 1, 31,
         "unknown table SalesDW.dw.FOO"},
        {"request [at=Nowhere] { }", 1, 13, "unknown database Nowhere"},
        {"request { list { select { 0: t1.FOO } from { table SalesDW.dw.ORDERS t1 } } }", 1, 30,
         "unknown column FOO in table \"SalesDW\".\"dw\".\"ORDERS\""},
        {"request { list { from { table 3:1 t1 link 0 -> 3 } } }", 1, 48,
         "a link names join nodes by their position in the from clause; 3 is not one"},
        {"request { list { orderby 0 nulls=sometimes } }", 1, 34,
         "expected a null order (first, last or any), found 'sometimes'"},
        {"request { list limit=-1 }", 1, 22, "a row limit out of range: -1"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.m_text);
        try {
            Heap<RqHandleNode> request(
                RqTextReader::Read(test.m_text, "bad.rq", c.m_pSession.get()));
            ADD_FAILURE() << "read without error";
        } catch (const RqTextError& error) {
            EXPECT_EQ(test.m_message, error.GetMessage());
            EXPECT_EQ(test.m_line, error.GetLine());
            EXPECT_EQ(test.m_column, error.GetColumn());
            EXPECT_EQ("bad.rq", error.GetFile());
        }
    }

    // Names need a repository to resolve against.
    try {
        Heap<RqHandleNode> request(RqTextReader::Read("request [at=SalesDW] { }", "n.rq"));
        ADD_FAILURE() << "read without error";
    } catch (const RqTextError& error) {
        EXPECT_EQ("database SalesDW needs a repository to be resolved", error.GetMessage());
    }
}

TEST(RequestTextErrors, DeepNestingFailsCleanlyBothWays) {
    // Just under the limit reads and prints; far over it fails on both sides.
    auto nested = [](int depth) {
        std::string text = "request { list { where ";
        for (int i = 0; i < depth; ++i)
            text += "Not(";
        text += "IsNull(1)";
        text += std::string(static_cast<size_t>(depth), ')');
        return text + " } }";
    };
    Heap<RqHandleNode> fine(RqTextReader::Read(nested(1900), "deep.rq"));
    ExpectRoundTrip(*fine);
    try {
        Heap<RqHandleNode> tooDeep(RqTextReader::Read(nested(100000), "deep.rq"));
        ADD_FAILURE() << "read without error";
    } catch (const RqTextError& error) {
        EXPECT_EQ("nesting deeper than 2000 levels", error.GetMessage());
        EXPECT_EQ(1, error.GetLine());
    }

    RqExpr* chain = IsNull(Int(1));
    for (int i = 0; i < 3000; ++i)
        chain = Not(chain);
    Heap<RqHandleNode> deep(Request(Block().Where(chain).Build()));
    EXPECT_THROW(RqTextWriter::Write(*deep), ErrorMessage);
}

}  // namespace
