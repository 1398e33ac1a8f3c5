// The node base: ownership of children, traversal, identity and deep copies.

#include "Query/Optimizer/Request/SQORRqNode.h"

#include <algorithm>
#include <atomic>
#include <type_traits>
#include <vector>

#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORAVisitorRqNode.h"
#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqList.h"

const wchar_t* const AVisitorRqNode::kNewLine = L"\n";

// ---- NodeID -----------------------------------------------------------------------------

NodeID NodeID::Fresh() {
    // Shared by every thread; numbers only need to differ, so relaxed order suffices.
    static std::atomic<uint32_t> s_next{1};
    return NodeID(s_next.fetch_add(1, std::memory_order_relaxed));
}

ZKString NodeID::ToString() const {
    return ZKString(L"[[" + ZKString::FromInt(m_num) + L"]]");
}

// ---- Construction and destruction ---------------------------------------------------------

RqNode::RqNode() : m_nodeID(NodeID::Fresh()) {}

RqNode::RqNode(const RqNode& other)
    : m_targetType(other.m_targetType), m_targetID(other.m_targetID), m_nodeID(other.m_nodeID) {}

void RqNode::operator delete(void* p, ZKAllocSite&) {
    ZKNodeAlloc::deallocate(p, ZKNodeAlloc::BlockSize(p));
}

namespace {
// Children waiting to be destroyed on this thread. Destroying a subtree hands the children
// of each node to this list instead of destroying them from inside the parent's
// destructor, so that a deep tree does not turn into a deep recursion.
thread_local std::vector<RqNode*> t_pendingDeletes;
thread_local bool t_bDraining = false;
}  // namespace

RqNode::~RqNode() {
    while (m_pWatchers != nullptr) {
        m_pWatchers->NotifyDeletion();
    }
    if (m_children.empty()) {
        return;
    }
    for (RqNode* child : m_children) {
        if (child != nullptr) {
            child->m_pParent = nullptr;
            t_pendingDeletes.push_back(child);
        }
    }
    m_children.clear();
    if (t_bDraining) {
        return;
    }
    t_bDraining = true;
    while (!t_pendingDeletes.empty()) {
        RqNode* next = t_pendingDeletes.back();
        t_pendingDeletes.pop_back();
        delete next;
    }
    t_bDraining = false;
}

void RqNode::DestroyDetached(RqNode* node) {
    delete node;
}

// ---- Child slots --------------------------------------------------------------------------

namespace {
// Bytes of a block of child slots.
size_t SlotBytes(size_t count) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the block holds pointers, not nodes.
    return count * sizeof(RqNode*);
}
// A block of child slots, counted with the nodes under the containers' site.
RqNode** AllocateSlots(size_t count) {
    return static_cast<RqNode**>(
        ZKNodeAlloc::allocate(SlotBytes(count), ZKNodeAlloc::ContainerSite()));
}
void FreeSlots(RqNode** slots, size_t count) {
    ZKNodeAlloc::deallocate(slots, SlotBytes(count));
}
}  // namespace

RqNode::ChildList::~ChildList() {
    if (m_pData != m_inline)
        FreeSlots(m_pData, m_nCapacity);
}

void RqNode::ChildList::reserve(size_t capacity) {
    if (capacity <= m_nCapacity)
        return;
    ZK_ASSERT(capacity <= UINT32_MAX);
    RqNode** data = AllocateSlots(capacity);
    std::copy(m_pData, m_pData + m_nSize, data);
    if (m_pData != m_inline)
        FreeSlots(m_pData, m_nCapacity);
    m_pData = data;
    m_nCapacity = static_cast<uint32_t>(capacity);
}

void RqNode::ChildList::resize(size_t n) {
    if (n > m_nCapacity)
        reserve(std::max(n, 2 * static_cast<size_t>(m_nCapacity)));
    std::fill(m_pData + std::min(n, static_cast<size_t>(m_nSize)), m_pData + n, nullptr);
    m_nSize = static_cast<uint32_t>(n);
}

void RqNode::ChildList::insert(size_t i, RqNode* child) {
    push_back(nullptr);
    std::copy_backward(m_pData + i, m_pData + m_nSize - 1, m_pData + m_nSize);
    m_pData[i] = child;
}

void RqNode::ChildList::erase(size_t i) {
    std::copy(m_pData + i + 1, m_pData + m_nSize, m_pData + i);
    --m_nSize;
}

// ---- Navigation ---------------------------------------------------------------------------

RqNode* RqNode::GetIthChild(int i) const {
    ZK_ASSERT(i >= 0 && i < GetNumChildren());
    return m_children[static_cast<size_t>(i)];
}

int RqNode::GetChildIndex(const RqNode* child) const {
    if (child == nullptr)
        return -1;
    for (size_t i = 0; i < m_children.size(); ++i) {
        if (m_children[i] == child)
            return static_cast<int>(i);
    }
    return -1;
}

int RqNode::GetIndexInParent() const {
    return m_pParent ? m_pParent->GetChildIndex(this) : -1;
}

// ---- Structure changes --------------------------------------------------------------------

void RqNode::AttachChild(RqNode* child) {
    if (child == nullptr)
        return;
    // A node has one owner: attaching a node that still has a parent would leave two.
    ZK_ASSERT(child->m_pParent == nullptr);
    ZK_ASSERT(child != this);
    child->m_pParent = this;
}

void RqNode::AddChild(RqNode* child) {
    AttachChild(child);
    m_children.push_back(child);
}

void RqNode::InsertChild(int i, RqNode* child) {
    ZK_ASSERT(i >= 0 && i <= GetNumChildren());
    AttachChild(child);
    m_children.insert(static_cast<size_t>(i), child);
}

void RqNode::SetNumChildren(int n) {
    ZK_ASSERT(n >= 0);
    while (GetNumChildren() > n) {
        RqNode* last = m_children.back();
        m_children.pop_back();
        if (last != nullptr) {
            last->m_pParent = nullptr;
            DestroyDetached(last);
        }
    }
    m_children.resize(static_cast<size_t>(n));
}

RqNode* RqNode::ReleaseIthChild(int i) {
    RqNode* child = GetIthChild(i);
    if (child != nullptr) {
        m_children[static_cast<size_t>(i)] = nullptr;
        child->m_pParent = nullptr;
    }
    return child;
}

RqNode* RqNode::ReleaseFromParent() {
    if (m_pParent == nullptr)
        return nullptr;
    const int index = GetIndexInParent();
    ZK_ASSERT(index >= 0);
    return m_pParent->ReleaseIthChild(index);
}

RqNode* RqNode::ReplaceIthChild(int i, RqNode* child) {
    RqNode* old = ReleaseIthChild(i);
    AttachChild(child);
    m_children[static_cast<size_t>(i)] = child;
    return old;
}

void RqNode::SetIthChild(int i, RqNode* child) {
    RqNode* old = ReplaceIthChild(i, child);
    if (old != nullptr && old != child)
        DestroyDetached(old);
}

RqNode* RqNode::RemoveIthChild(int i) {
    RqNode* child = ReleaseIthChild(i);
    m_children.erase(static_cast<size_t>(i));
    return child;
}

void RqNode::EraseIthChild(int i) {
    DestroyDetached(RemoveIthChild(i));
}

void RqNode::DeleteChild(RqNode* child, RqNode* replacement) {
    const int index = GetChildIndex(child);
    ZK_ASSERT(index >= 0);
    SetIthChild(index, replacement);
}

void RqNode::ReplaceInParent(RqNode* replacement, RqHandleNode& holder) {
    ZK_ASSERT(holder.GetRqNode() == nullptr);
    if (m_pParent != nullptr) {
        const int index = GetIndexInParent();
        ZK_ASSERT(index >= 0);
        RqNode* self = m_pParent->ReplaceIthChild(index, replacement);
        ZK_ASSERT(self == this);
    }
    holder.SetRqNode(this);
}

void RqNode::MarkTargetRecursive(ServerInfo::TargetType type, const VoidID& id) {
    std::vector<RqNode*> work{this};
    while (!work.empty()) {
        RqNode* node = work.back();
        work.pop_back();
        node->MarkTargetType(type);
        node->MarkTargetID(id);
        for (RqNode* child : node->m_children) {
            if (child != nullptr)
                work.push_back(child);
        }
    }
}

// ---- Traversal ----------------------------------------------------------------------------

// The walk keeps its own stack, so that the depth of a tree costs heap rather than call
// stack. Each entry is a node whose children are being walked and the position of the next
// child to enter; the child count is read afresh at every step, because a Visit may rewrite
// (add, remove, replace) the children of a node the walk is in. A visitor that walks a
// subtree itself calls Accept again from inside Visit: that nesting is the call stack's, so
// every entry checks that the stack has room and otherwise raises the stack error.
void RqNode::Accept(AVisitorRqNode& visitor) {
    ZKThread::LowStackCheck(0);
    const bool bPostOrder = visitor.IsPostOrderVisitor();
    if (!bPostOrder && DispatchVisit(visitor))
        return;
    struct Frame {
        RqNode* m_pNode;
        int m_nNext;
    };
    std::vector<Frame> work{{this, 0}};
    while (!work.empty()) {
        Frame& frame = work.back();
        RqNode* node = frame.m_pNode;
        if (frame.m_nNext >= node->GetNumChildren()) {
            work.pop_back();
            if (bPostOrder)
                node->DispatchVisit(visitor);
            continue;
        }
        RqNode* child = node->GetIthChild(frame.m_nNext++);
        if (child == nullptr)
            continue;
        // `frame` may dangle once the stack grows: nothing below reads it.
        if (bPostOrder || !child->DispatchVisit(visitor))
            work.push_back({child, 0});
    }
}

bool RqNode::IsObjectType::operator()(const RqNode* node) const {
    if (node == nullptr)
        return false;
    for (int kind = node->GetObjectType(); kind >= 0;
         kind = RqNodeTypeParent(static_cast<RqNodeType_e>(kind))) {
        if (m_types.test(static_cast<size_t>(kind)))
            return true;
    }
    return false;
}

bool RqNode::IsAggrNode(const RqNode* node) {
    const RqExpr* expr = RqDynCast<RqExpr>(node);
    return expr != nullptr && expr->IsAggr();
}

// ---- Copies -------------------------------------------------------------------------------

namespace {
// Kinds that non-owning links point at: a reference's column, a join link's ends, a shared
// list's list. Lookups of these go to the small index; anything else still finds its copy
// through the full one.
RqNodeTypeSet LinkTargetKinds() {
    RqNodeTypeSet kinds;
    for (int kind = 0; kind < kRqNodeTypeCount; ++kind) {
        const auto type = static_cast<RqNodeType_e>(kind);
        if (RqIsNodeTypeValue(kind) &&
            (type == kRqDerivedColumn || type == kRqJoinNode || RqIsKindOf(type, kRqAbstractList)))
            kinds.set(static_cast<size_t>(kind));
    }
    return kinds;
}
}  // namespace

void RqNode::CopyMap::Add(const RqNode* original, RqNode* copy) {
    static const RqNodeTypeSet s_targetKinds = LinkTargetKinds();
    const auto position = static_cast<uint32_t>(m_pairs.size());
    m_pairs.emplace_back(original, copy);
    // The copy has the original's kind and is in cache, so the kind is asked of it.
    if (s_targetKinds.test(static_cast<size_t>(copy->GetObjectType())))
        m_targets.Insert(original, position);
    if (m_bAllIndexed)
        m_all.Insert(original, position);
}

RqNode* RqNode::CopyMap::Find(const RqNode* original) const {
    uint32_t position = m_targets.Find(original);
    if (position == RqNodeIndexMap::kAbsent) {
        if (!m_bAllIndexed) {
            m_all.Reserve(m_pairs.size());
            for (size_t i = 0; i < m_pairs.size(); ++i)
                m_all.Insert(m_pairs[i].first, static_cast<uint32_t>(i));
            m_bAllIndexed = true;
        }
        position = m_all.Find(original);
    }
    return position == RqNodeIndexMap::kAbsent ? nullptr : m_pairs[position].second;
}

void RqNode::FixUpCopy(const CopyMap&) {}

RqNode* RqNode::DeepCopy(bool keepIdentity) const {
    // The kinds whose classes override FixUpCopy somewhere below RqNode: only their copies
    // need the second pass, so that a large copy is not walked twice. Read off the classes
    // themselves, so that a class that starts to hold links is never skipped: an override
    // makes the member inaccessible or of another class, either of which counts.
    static const RqNodeTypeSet s_fixUpKinds = [] {
        auto inheritsFixUp = []<class T>() {
            if constexpr (requires { &T::FixUpCopy; })
                return std::is_same_v<decltype(&T::FixUpCopy), void (RqNode::*)(const CopyMap&)>;
            else
                return false;
        };
        RqNodeTypeSet kinds;
#define RQ_FIXUP_KIND(cls)                         \
    if (!inheritsFixUp.template operator()<cls>()) \
        kinds.set(static_cast<size_t>(cls::kKind));
#define RQ_FIXUP_G(cls) RQ_FIXUP_KIND(cls)
#define RQ_FIXUP_H(cls) RQ_FIXUP_KIND(cls)
#define RQ_FIXUP_A(cls)
#define RQ_FIXUP_N(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_FIXUP_##decl(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_FIXUP_G
#undef RQ_FIXUP_H
#undef RQ_FIXUP_A
#undef RQ_FIXUP_N
#undef RQ_FIXUP_KIND
        return kinds;
    }();

    ZKAllocSite& site = ZK_HERE;
    CopyMap map;
    std::vector<RqNode*> fixUps;
    auto adopt = [&](const RqNode* original, RqNode* copy) {
        if (!keepIdentity)
            copy->SetUniqueID();
        map.Add(original, copy);
        if (s_fixUpKinds.test(static_cast<size_t>(copy->GetObjectType())))
            fixUps.push_back(copy);
    };
    RqNode* root = CloneNode(site);
    adopt(this, root);
    // An explicit stack keeps deep trees off the call stack.
    std::vector<std::pair<const RqNode*, RqNode*>> work{{this, root}};
    while (!work.empty()) {
        auto [original, copy] = work.back();
        work.pop_back();
        copy->m_children.reserve(original->m_children.size());
        for (RqNode* child : original->m_children) {
            if (child == nullptr) {
                copy->m_children.push_back(nullptr);
                continue;
            }
            RqNode* childCopy = child->CloneNode(site);
            childCopy->m_pParent = copy;
            copy->m_children.push_back(childCopy);
            adopt(child, childCopy);
            work.emplace_back(child, childCopy);
        }
    }
    // Links are re-pointed only once every copy exists: a reference may be copied before the
    // column it reads.
    for (RqNode* copy : fixUps)
        copy->FixUpCopy(map);
    return root;
}

// ---- Handle node --------------------------------------------------------------------------

RqHandleNode::RqHandleNode(RqNode* request) {
    SetRqNode(request);
}

void RqHandleNode::SetRqNode(RqNode* request) {
    if (GetNumChildren() == 0) {
        AddChild(request);
    } else {
        SetIthChild(0, request);
    }
}

RqNode* RqHandleNode::ReleaseRqNode() {
    return GetNumChildren() > 0 ? ReleaseIthChild(0) : nullptr;
}

// ---- RqNodeIndexMap -----------------------------------------------------------------------

bool RqNodeIndexMap::Insert(const RqNode* node, uint32_t index) {
    ZK_ASSERT(node != nullptr);
    // At most half full, so that probe runs stay short.
    if (2 * (m_nSize + 1) > m_slots.size())
        Rehash(std::max<size_t>(16, 2 * m_slots.size()));
    const size_t mask = m_slots.size() - 1;
    for (size_t i = Home(node);; i = (i + 1) & mask) {
        Slot& slot = m_slots[i];
        if (slot.m_pKey == node)
            return false;
        if (slot.m_pKey == nullptr) {
            slot = Slot{node, index};
            ++m_nSize;
            return true;
        }
    }
}

void RqNodeIndexMap::Reserve(size_t count) {
    size_t numSlots = 16;
    while (numSlots < 2 * count)
        numSlots *= 2;
    if (numSlots > m_slots.size())
        Rehash(numSlots);
}

void RqNodeIndexMap::Rehash(size_t numSlots) {
    std::vector<Slot> old(numSlots, Slot{nullptr, 0});
    old.swap(m_slots);
    m_nShift = 64;
    for (size_t n = numSlots; n > 1; n /= 2)
        --m_nShift;
    const size_t mask = numSlots - 1;
    for (const Slot& slot : old) {
        if (slot.m_pKey == nullptr)
            continue;
        size_t i = Home(slot.m_pKey);
        while (m_slots[i].m_pKey != nullptr)
            i = (i + 1) & mask;
        m_slots[i] = slot;
    }
}

// ---- SmartRqNodePtr -----------------------------------------------------------------------

SmartRqNodePtr& SmartRqNodePtr::operator=(const SmartRqNodePtr& other) {
    if (this != &other) {
        Detach();
        Attach(other.m_pNode);
    }
    return *this;
}

SmartRqNodePtr& SmartRqNodePtr::operator=(RqNode* node) {
    Detach();
    Attach(node);
    return *this;
}

void SmartRqNodePtr::Attach(RqNode* node) {
    m_pNode = node;
    if (node == nullptr)
        return;
    m_pPrev = nullptr;
    m_pNext = node->m_pWatchers;
    if (m_pNext != nullptr)
        m_pNext->m_pPrev = this;
    node->m_pWatchers = this;
}

void SmartRqNodePtr::Detach() {
    if (m_pNode == nullptr)
        return;
    if (m_pPrev != nullptr) {
        m_pPrev->m_pNext = m_pNext;
    } else {
        m_pNode->m_pWatchers = m_pNext;
    }
    if (m_pNext != nullptr)
        m_pNext->m_pPrev = m_pPrev;
    m_pNode = nullptr;
    m_pPrev = m_pNext = nullptr;
}

void SmartRqNodePtr::NotifyDeletion() {
    Detach();
}
