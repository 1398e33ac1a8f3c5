// NestWithinOuterReprojection on requests of growing size, beside a bare Accept traversal of
// the same request. Three shapes, each from about 10^3 to 10^6 nodes:
//  - wide: one sorted block with a wide projection, every column read by a reference from
//    the block above; one nesting reprojects every column and switches every reference.
//  - derived: a block reading many small derived tables; each of them is nested.
//  - deep: a chain of blocks, each reading the one below as a derived table; every block of
//    the chain is nested.
// The counters give nanoseconds per node of the request before the nesting, so that the
// shapes and sizes compare directly; a cost that grows faster than the tree shows up as a
// rising ns/node. Both the nesting and the walk run on fresh batches of requests.

#include <benchmark/benchmark.h>

#include <vector>

#include "BenchSupport.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVisitorDefaults.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUVerticalListSplitter.h"

namespace {

using rqb::Ref;

struct Shape {
    Heap<RqHandleNode> m_request;
    // The blocks to nest, innermost first.
    std::vector<RqAbstractList*> m_blocks;
};

RqHandleNode& RequestOf(Shape& shape) {
    return *shape.m_request;
}

// About 6 nodes per column: the inner column and its reader above.
Shape WideShape(int size) {
    const int numColumns = size / 6;
    rqb::Block inner;
    for (int i = 0; i < numColumns; ++i)
        inner.Select(rqb::Add(rqb::Col(L"a", 1), rqb::Int(i)));
    inner.From(rqb::Table(VoidID(3, 1), 1)).OrderBy({{0}, {1, RqSortSpec::kDesc}}).Limit(10);
    RqList* innerList = inner.Build();
    rqb::Block outer;
    for (int i = 0; i < numColumns; ++i)
        outer.Select(Ref(*innerList, i));
    outer.From(rqb::Derived(innerList, 2));
    return {Heap<RqHandleNode>(rqb::Request(outer.Build())), {innerList}};
}

RqList* SmallBlock(int tableNum) {
    return rqb::Block()
        .Select(rqb::Col(L"a", tableNum))
        .Select(rqb::Col(L"b", tableNum))
        .From(rqb::Table(VoidID(3, 1), tableNum))
        .Where(rqb::Gt(rqb::Col(L"a", tableNum), rqb::Int(0)))
        .OrderBy({{1}})
        .Build();
}

// About 23 nodes per derived table.
Shape DerivedShape(int size) {
    const int numTables = size / 23;
    Shape shape;
    rqb::Block outer;
    for (int i = 0; i < numTables; ++i) {
        RqList* block = SmallBlock(i + 1);
        shape.m_blocks.push_back(block);
        outer.Select(rqb::Add(Ref(*block, 0), Ref(*block, 1)));
        outer.From(rqb::Derived(block, numTables + i + 1));
    }
    shape.m_request.Reset(rqb::Request(outer.Build()));
    return shape;
}

// About 14 nodes per block of the chain.
Shape DeepShape(int size) {
    const int depth = size / 14;
    Shape shape;
    RqList* list = SmallBlock(1);
    shape.m_blocks.push_back(list);
    for (int level = 1; level < depth; ++level) {
        RqExpr* a = Ref(*list, 0);
        RqExpr* b = Ref(*list, 1);
        list = rqb::Block()
                   .Select(a)
                   .Select(rqb::Add(b, rqb::Int(level)))
                   .From(rqb::Derived(list, level + 1))
                   .OrderBy({{0, RqSortSpec::kDesc}})
                   .Build();
        shape.m_blocks.push_back(list);
    }
    shape.m_request.Reset(rqb::Request(list));
    return shape;
}

using MakeShape = Shape (*)(int);

void BM_NestWithinOuterReprojection(benchmark::State& state, MakeShape make) {
    rqbench::TimeOnFreshItems(state, make, [](Shape& shape) {
        for (RqAbstractList* block : shape.m_blocks) {
            RqList* outer =
                VerticalListSplitter::NestWithinOuterReprojection(*block, nullptr, true, 0);
            benchmark::DoNotOptimize(outer);
        }
    });
}

// The request of a shape alone, for the bare traversal.
template <MakeShape make>
RqHandleNode* RequestAlone(int size) {
    return make(size).m_request.Release();
}

void BM_BareAccept(benchmark::State& state, rqbench::MakeRequest make) {
    rqbench::BareTraversal(state, make);
}

#define RQ_SPLITTER_BENCH(shape)                                           \
    BENCHMARK_CAPTURE(BM_NestWithinOuterReprojection, shape, shape##Shape) \
        ->RangeMultiplier(10)                                              \
        ->Range(1000, 1000000)                                             \
        ->Unit(benchmark::kMicrosecond);                                   \
    BENCHMARK_CAPTURE(BM_BareAccept, shape, &RequestAlone<shape##Shape>)   \
        ->RangeMultiplier(10)                                              \
        ->Range(1000, 1000000)                                             \
        ->Unit(benchmark::kMicrosecond);

RQ_SPLITTER_BENCH(Wide)
RQ_SPLITTER_BENCH(Derived)
RQ_SPLITTER_BENCH(Deep)

}  // namespace
