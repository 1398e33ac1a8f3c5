// Trees of many nodes: child lists that outgrow the slots kept inside a node, the node index
// the copy and the verifier find records with, and copies and verification of wide and deep
// requests, whose paths (a wide projection's sorted column numbers, a copy that re-points
// thousands of references) small samples never take.

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"

namespace {

using namespace rqb;
// The repository's Ref<T> template would make a plain `Ref` ambiguous.
using rqb::Ref;

// Every node of the subtree, in pre-order.
RqNodeVector Nodes(const RqNode& root) {
    RqNodeVector nodes;
    FindNodes(
        const_cast<RqNode*>(&root), [](const RqNode*) { return true; }, nodes);
    return nodes;
}

TEST(WideTree, NodeIndexFindsWhatWasInsertedFirstAndNothingElse) {
    std::vector<Heap<RqNode>> nodes;
    for (int i = 0; i < 2000; ++i)
        nodes.emplace_back(RQ_NEW RqNullNode());
    RqNodeIndexMap index;
    for (uint32_t i = 0; i < 1000; ++i)
        ASSERT_TRUE(index.Insert(nodes[i].Get(), i));
    EXPECT_FALSE(index.Insert(nodes[7].Get(), 99)) << "a second insertion changes nothing";
    EXPECT_EQ(index.Size(), 1000u);
    for (uint32_t i = 0; i < 1000; ++i)
        ASSERT_EQ(index.Find(nodes[i].Get()), i);
    for (size_t i = 1000; i < nodes.size(); ++i)
        ASSERT_FALSE(index.Contains(nodes[i].Get()));
    EXPECT_EQ(index.Find(nullptr), RqNodeIndexMap::kAbsent);
    EXPECT_EQ(RqNodeIndexMap().Find(nodes[0].Get()), RqNodeIndexMap::kAbsent);
}

// Random edits of one node's children, checked against a plain vector after every step.
TEST(WideTree, ChildSlotsFollowEveryEditAcrossGrowthAndShrinking) {
    Heap<RqNode> parent(RQ_NEW RqNullNode());
    std::vector<RqNode*> model;
    std::mt19937 random(7);
    for (int step = 0; step < 600; ++step) {
        const int size = static_cast<int>(model.size());
        const int at = size == 0 ? 0 : static_cast<int>(random() % static_cast<unsigned>(size));
        switch (random() % 6) {
            case 0:
            case 1: {
                RqNode* child = RQ_NEW RqNullNode();
                const int where = static_cast<int>(random() % static_cast<unsigned>(size + 1));
                parent->InsertChild(where, child);
                model.insert(model.begin() + where, child);
                break;
            }
            case 2:
                parent->AddChild(RQ_NEW RqNullNode());
                model.push_back(parent->GetIthChild(size));
                break;
            case 3:
                if (size > 0) {
                    parent->EraseIthChild(at);
                    model.erase(model.begin() + at);
                }
                break;
            case 4:
                if (size > 0) {
                    Heap<RqNode> removed(parent->RemoveIthChild(at));
                    EXPECT_EQ(removed.Get(), model[static_cast<size_t>(at)]);
                    if (removed) {
                        EXPECT_EQ(removed->GetParent(), nullptr);
                    }
                    model.erase(model.begin() + at);
                }
                break;
            case 5: {
                // Shrinks (destroying the children dropped) or grows with empty slots.
                const int n = static_cast<int>(random() % 12);
                parent->SetNumChildren(n);
                model.resize(static_cast<size_t>(n), nullptr);
                break;
            }
        }
        ASSERT_EQ(parent->GetNumChildren(), static_cast<int>(model.size())) << "step " << step;
        for (int i = 0; i < parent->GetNumChildren(); ++i) {
            ASSERT_EQ(parent->GetIthChild(i), model[static_cast<size_t>(i)]) << "step " << step;
            if (model[static_cast<size_t>(i)] != nullptr) {
                ASSERT_EQ(model[static_cast<size_t>(i)]->GetParent(), parent.Get());
            }
        }
    }
}

// SELECT 40 columns over an inner block, each reading one of its columns, ORDER BY every
// third one.
RqHandleNode* WideRequest() {
    RqList* inner =
        Block().Select(Col(L"a", 1)).Select(Col(L"b", 1)).From(Table(VoidID(3, 1), 1)).Build();
    Block outer;
    for (int i = 0; i < 40; ++i)
        outer.Select(Add(Ref(*inner, i % 2), Int(i)));
    outer.From(Derived(inner));
    SortSpecVector keys;
    for (int i = 0; i < 40; i += 3)
        keys.push_back(RQ_NEW RqSortSpec(outer.Column(i)->GetColumnNum()));
    RqList* block = outer.Build();
    block->SetOrderBy(RQ_NEW RqOrderBy(keys));
    return Request(block);
}

TEST(WideTree, CopiesOfWideAndDeepRequestsReadOnlyTheirOwnColumns) {
    Heap<RqHandleNode> wide(WideRequest());
    RqList* deepest = Block().Select(Col(L"a", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqList* chain = deepest;
    for (int level = 0; level < 1000; ++level)
        chain = Block().Select(Ref(*chain, 0)).From(Derived(chain)).Build();
    Heap<RqHandleNode> deep(Request(chain));

    for (const RqHandleNode* original : {wide.Get(), deep.Get()}) {
        const RqNodeVector originals = Nodes(*original);
        Heap<RqNode> fresh(original->DeepCopy(false));
        Heap<RqNode> kept(original->DeepCopy(true));
        // A reference to a column outside the copy would be a dangling one here.
        EXPECT_TRUE(RqVerifier::Verify(*fresh).empty())
            << RqVerifier::Describe(RqVerifier::Verify(*fresh)).ToUtf8();
        const RqNodeVector freshNodes = Nodes(*fresh);
        const RqNodeVector keptNodes = Nodes(*kept);
        ASSERT_EQ(freshNodes.size(), originals.size());
        ASSERT_EQ(keptNodes.size(), originals.size());
        std::set<uint32_t> ids;
        for (const RqNode* node : originals)
            ids.insert(node->GetNodeID().GetNum());
        for (size_t i = 0; i < originals.size(); ++i) {
            ASSERT_EQ(freshNodes[i]->GetObjectType(), originals[i]->GetObjectType());
            ASSERT_TRUE(ids.insert(freshNodes[i]->GetNodeID().GetNum()).second)
                << "every fresh copy has a number of its own";
            ASSERT_TRUE(keptNodes[i]->IsCopyOf(*originals[i]));
        }
    }
    EXPECT_EQ(deepest->GetProjection()->GetIthColumn(0)->GetNumReferences(), 1)
        << "the references of the copies left the original's columns";
}

TEST(WideTree, SharedListsNamingEachOtherDoNotTrapTheVerifier) {
    RqSharedList* first = Shared(nullptr);
    RqSharedList* second = Shared(first);
    first->SetSharedRqList(second);
    Heap<RqHandleNode> request(
        Request(Block().Select(Int(1)).From(Derived(first)).From(Derived(second)).Build()));
    EXPECT_TRUE(RqVerifier::Verify(*request).empty());
}

}  // namespace
