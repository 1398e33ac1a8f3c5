// The request text format: a request read from text means what it says, the comparison
// notices what lies outside a node's fields, and nesting is bounded. Every kind and field is
// covered by the random round trips, the printed forms and the positioned errors of malformed
// requests by golden cases (tests/golden/text, tests/golden/errors).

#include <gtest/gtest.h>
#include <pthread.h>

#include <string>

#include "Platform/ErrorMessage.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "TextTestSupport.h"

using namespace rqb;

namespace {

using rqb::Ref;

// Runs `fn` on a thread with a stack of `bytes`.
template <typename Fn>
void RunWithStack(size_t bytes, Fn fn) {
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, bytes), 0);
    pthread_t thread;
    auto trampoline = [](void* arg) -> void* {
        (*static_cast<Fn*>(arg))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, trampoline, &fn), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

RqList* SmallBlock() {
    return Block().Select(Int(1)).Select(Str(L"two")).Build();
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

std::string NestedNots(int depth) {
    std::string text = "request { list { where ";
    for (int i = 0; i < depth; ++i)
        text += "Not(";
    return text + "IsNull(1)" + std::string(static_cast<size_t>(depth), ')') + " } }";
}

std::string NestedDerivedTables(int depth) {
    std::string text = "request {";
    for (int i = 0; i < depth; ++i)
        text += " list { select { 0: 1 } from { derived t" + std::to_string(i) + " {";
    text += " list { select { 0: 1 } }";
    for (int i = 0; i < depth; ++i)
        text += " } } }";
    return text + " }";
}

// The deepest request of a shape that reads, found by deepening it one level at a time from
// `start` until the reader refuses it.
Heap<RqHandleNode> DeepestReadable(std::string (*shape)(int), int start) {
    Heap<RqHandleNode> last;
    for (int depth = start;; ++depth) {
        try {
            last.Reset(RqTextReader::Read(shape(depth), "deep.rq"));
        } catch (const RqTextError& error) {
            EXPECT_NE(error.GetMessage().find("nesting deeper than"), std::string::npos)
                << error.what();
            EXPECT_GT(depth, start) << "the starting depth is already refused";
            return last;
        }
    }
}

// A stack that holds the deepest request in every build, sanitizers' larger frames included,
// so that the tests below reach the depth limit rather than the stack guard.
constexpr size_t kRoomyStack = size_t{64} * 1024 * 1024;

TEST(RequestTextLimits, WhateverReadsPrintsAndReadsBack) {
    // The limit counts levels of the text; whatever the reader accepts right up to it, the
    // writer prints and the reader reads back the same.
    RunWithStack(kRoomyStack, [] {
        Heap<RqHandleNode> nots(DeepestReadable(NestedNots, 3990));
        ASSERT_NE(nots.Get(), nullptr);
        EXPECT_EQ(texttest::RoundTripFailure(*nots, nullptr), "");
        Heap<RqHandleNode> derived(DeepestReadable(NestedDerivedTables, 990));
        ASSERT_NE(derived.Get(), nullptr);
        EXPECT_EQ(texttest::RoundTripFailure(*derived, nullptr), "");
    });
}

void FarTooDeep() {
    std::string text = NestedNots(1000000) + " $";
    try {
        Heap<RqHandleNode> tooDeep(RqTextReader::Read(text, "deep.rq"));
        ADD_FAILURE() << "read without error";
    } catch (const RqTextError& error) {
        EXPECT_NE(error.GetMessage().find("nesting deeper than"), std::string::npos);
        EXPECT_LT(error.GetColumn(), 20000);
    }
    try {
        Heap<RqHandleNode> broken(RqTextReader::Read("request { bogus }\n" + text, "bad.rq"));
        ADD_FAILURE() << "read without error";
    } catch (const RqTextError& error) {
        EXPECT_EQ(error.GetLine(), 1);
    }
}

TEST(RequestTextLimits, FarTooDeepIsRefusedWithoutReadingTheRest) {
    // A million levels are refused at the limit, long before the end of the text; the error
    // of a text is its first one, however broken the rest is.
    RunWithStack(kRoomyStack, [] { FarTooDeep(); });
}

TEST(RequestTextLimits, ByteOrderMarkIsSkipped) {
    Heap<RqHandleNode> marked(RqTextReader::Read("\xEF\xBB\xBFrequest { list { } }", "bom.rq"));
    Heap<RqHandleNode> plain(RqTextReader::Read("request { list { } }", "plain.rq"));
    EXPECT_EQ(RqTextWriter::Write(*marked), RqTextWriter::Write(*plain));
}

TEST(RequestTextLimits, WritingOnATooSmallStackFailsCleanly) {
    // The writer guards its recursion with the stack check alone: on a thread whose stack
    // cannot hold the tree it refuses with an error instead of crashing.
    RqExpr* chain = IsNull(Int(1));
    for (int i = 0; i < 3000; ++i)
        chain = Not(chain);
    Heap<RqHandleNode> deep(Request(Block().Where(chain).Build()));
    bool bRefused = false;
    RunWithStack(std::size_t{256} * 1024, [&] {
        try {
            RqTextWriter::Write(*deep);
        } catch (const ErrorMessage&) {
            bRefused = true;
        }
    });
    EXPECT_TRUE(bRefused);
}

}  // namespace
