// The node base: ownership of children, traversal, identity and deep copies.

#include "Query/Optimizer/Request/SQORRqNode.h"

#include <atomic>
#include <vector>

#include "Query/Optimizer/Request/SQORAVisitorRqNode.h"
#include "Query/Optimizer/Request/SQORRqExpr.h"

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
    m_children.insert(m_children.begin() + i, child);
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
    m_children.resize(static_cast<size_t>(n), nullptr);
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
    m_children.erase(m_children.begin() + i);
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

void RqNode::Accept(AVisitorRqNode& visitor) {
    if (visitor.IsPostOrderVisitor()) {
        for (int i = 0; i < GetNumChildren(); ++i) {
            if (RqNode* child = GetIthChild(i))
                child->Accept(visitor);
        }
        DispatchVisit(visitor);
        return;
    }
    if (DispatchVisit(visitor)) {
        return;
    }
    // The count is read afresh at every step: a visit below may have rewritten this node's
    // later children.
    for (int i = 0; i < GetNumChildren(); ++i) {
        if (RqNode* child = GetIthChild(i))
            child->Accept(visitor);
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
    return node != nullptr && node->IsExpr() && static_cast<const RqExpr*>(node)->IsAggr();
}

// ---- Copies -------------------------------------------------------------------------------

void RqNode::FixUpCopy(const CopyMap&) {}

RqNode* RqNode::DeepCopy(bool keepIdentity) const {
    ZKAllocSite& site = ZK_HERE;
    CopyMap map;
    std::vector<RqNode*> copies;
    RqNode* root = CloneNode(site);
    map.Add(this, root);
    copies.push_back(root);
    // An explicit stack keeps deep trees off the call stack.
    std::vector<std::pair<const RqNode*, RqNode*>> work{{this, root}};
    while (!work.empty()) {
        auto [original, copy] = work.back();
        work.pop_back();
        for (RqNode* child : original->m_children) {
            if (child == nullptr) {
                copy->m_children.push_back(nullptr);
                continue;
            }
            RqNode* childCopy = child->CloneNode(site);
            copy->AddChild(childCopy);
            map.Add(child, childCopy);
            copies.push_back(childCopy);
            work.emplace_back(child, childCopy);
        }
    }
    for (RqNode* copy : copies) {
        if (!keepIdentity)
            copy->SetUniqueID();
        copy->FixUpCopy(map);
    }
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
