// The diagnostic dump of a whole request: one line per node, expressions on one line with
// the blocks of their subqueries below them.

#include <gtest/gtest.h>

#include <sstream>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqDumpout.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"

using namespace rqb;

namespace {

// Numbers the nodes 1, 2, ... in pre-order, so that the dump does not depend on how many
// nodes the process made before.
void Renumber(RqNode* root) {
    RqNodeVector nodes;
    FindNodes(
        root, [](const RqNode*) { return true; }, nodes);
    for (size_t i = 0; i < nodes.size(); ++i)
        nodes[i]->SetNodeID(NodeID(static_cast<uint32_t>(i + 1)));
}

// outer: SELECT DISTINCT inner.#10, SUM(inner.#11 BY (inner.#10)) FROM (inner)
//        WHERE inner.#11 > 5 AND EXISTS (SELECT T2.k FROM T2 WHERE T2.k = inner.#10)
//        GROUP BY inner.#10 ORDER BY 2 DESC LIMIT 100
// inner: SELECT T1.a, T1.b FROM T1, on a warehouse.
RqHandleNode* SmallRequest() {
    RqList* inner = Block(10)
                        .Label(L"inner")
                        .Select(Col(L"a", 1))
                        .Select(Col(L"b", 1))
                        .From(Table(VoidID(3, 1), 1))
                        .Target(ServerInfo::kMppWarehouse, VoidID(1, 7))
                        .Build();
    RqList* sub = Block()
                      .Select(Col(L"k", 2))
                      .From(Table(VoidID(3, 2), 2))
                      .Where(Eq(Col(L"k", 2), rqb::Ref(*inner, 0)))
                      .Build();
    RqList* outer = Block()
                        .Label(L"outer")
                        .Select(rqb::Ref(*inner, 0))
                        .Select(Sum(rqb::Ref(*inner, 1), By({rqb::Ref(*inner, 0)})))
                        .From(Derived(inner, 3))
                        .Where(And(Gt(rqb::Ref(*inner, 1), Int(5)), Exists(sub)))
                        .GroupBy({rqb::Ref(*inner, 0)})
                        .OrderBy({{1, RqSortSpec::kDesc}})
                        .Distinct()
                        .Limit(100)
                        .Build();
    outer->GetGroupBy()->SetInternalExecutionMode(RqGroupBy::kHash);
    outer->MarkTargetType(ServerInfo::kBuiltInExecutionEngine);
    RqHandleNode* request = Request(outer);
    Renumber(request);
    return request;
}

}  // namespace

TEST(DumpoutTest, ASubtreeStartsAtItsOwnLevelAndDebugPrintWritesTheSameText) {
    Heap<RqHandleNode> request(SmallRequest());
    RqList* outer = RqCast<RqList>(request->GetRqNode());
    EXPECT_EQ(RqDumpout::StringFrom(outer->GetOrderBy()).ToUtf8(),
              "RqOrderBy [[47]]\n  RqSortSpec [[48]] #1 DESC\n");
    EXPECT_EQ(RqDumpout::StringFrom(nullptr).ToUtf8(), "<null>\n");
    std::wostringstream out;
    RqDumpout::DebugPrint(request.Get(), out);
    EXPECT_EQ(ZKString(out.str()), RqDumpout::StringFrom(request.Get()));
}
