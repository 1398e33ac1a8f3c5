#pragma once
// The base of the request tree: node identity, targets, ownership of children, traversal,
// and the small owning handles (Heap, SmartRqNodePtr, RqHandleNode) used around nodes.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Platform/ServerInfo.h"
#include "Platform/VoidID.h"
#include "Platform/ZKAssert.h"
#include "Platform/ZKNodeAlloc.h"
#include "Platform/ZKString.h"
#include "Query/Optimizer/Request/SQORRqNodeType.h"

class AVisitorRqNode;
class AVisitorRqExpr;
class RqNode;
class RqHandleNode;
class SmartRqNodePtr;

// Forward declarations of every node class.
#define RQ_FWD_K(cls) class cls;
#define RQ_FWD_C(cls) class cls;
#define RQ_FWD_M(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_FWD_##row(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_FWD_K
#undef RQ_FWD_C
#undef RQ_FWD_M

// Compile-time facts about each node class: its kind (for a class without a kind of its
// own, the kind of its nearest base that has one), its base, and whether it has an overload
// of its own in each visitor interface.
template <class T>
struct RqClassTraits;

template <>
struct RqClassTraits<RqNode> {
    static constexpr int kKind = -1;
    using Base = void;
    static constexpr bool kHasNodeSlot = false;
    static constexpr bool kHasExprSlot = false;
    static constexpr bool kOwnKind = false;
};

#define RQ_SLOT_A 1
#define RQ_SLOT_F 1
#define RQ_SLOT_L 1
#define RQ_SLOT_N 0
// A class without a kind of its own reports the kind of its base.
#define RQ_TRAITS(kindValue, ownKind, cls, baseCls, nv, ev) \
    template <>                                             \
    struct RqClassTraits<cls> {                             \
        static constexpr int kKind = kindValue;             \
        using Base = baseCls;                               \
        static constexpr bool kHasNodeSlot = RQ_SLOT_##nv;  \
        static constexpr bool kHasExprSlot = RQ_SLOT_##ev;  \
        static constexpr bool kOwnKind = ownKind;           \
    };
#define RQ_TRAITS_K(kindName, cls, baseCls, nv, ev) RQ_TRAITS(kindName, true, cls, baseCls, nv, ev)
#define RQ_TRAITS_C(kindName, cls, baseCls, nv, ev) \
    RQ_TRAITS(RqClassTraits<baseCls>::kKind, false, cls, baseCls, nv, ev)
#define RQ_TRAITS_M(kindName, cls, baseCls, nv, ev)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_TRAITS_##row(kind, cls, base, nv, ev)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_TRAITS_K
#undef RQ_TRAITS_C
#undef RQ_TRAITS_M
#undef RQ_TRAITS

// The class whose AVisitorRqNode overload presents a node of class T (void: none).
template <class T>
struct RqNodeSlotOf {
    using type = std::conditional_t<RqClassTraits<T>::kHasNodeSlot, T,
                                    typename RqNodeSlotOf<typename RqClassTraits<T>::Base>::type>;
};
template <>
struct RqNodeSlotOf<RqNode> {
    using type = void;
};

// The class whose AVisitorRqExpr overload presents an expression of class T (void: none).
template <class T>
struct RqExprSlotOf {
    using type = std::conditional_t<RqClassTraits<T>::kHasExprSlot, T,
                                    typename RqExprSlotOf<typename RqClassTraits<T>::Base>::type>;
};
template <>
struct RqExprSlotOf<RqNode> {
    using type = void;
};

// Identity of a node within a request. Copies made with their identity kept share it.
class NodeID {
public:
    NodeID() = default;
    explicit NodeID(uint32_t num) : m_num(num) {}
    // A number never handed out before in this process.
    static NodeID Fresh();
    uint32_t GetNum() const { return m_num; }
    // "[[n]]": the number framed by two characters on each side.
    ZKString ToString() const;
    friend bool operator==(const NodeID& a, const NodeID& b) { return a.m_num == b.m_num; }
    friend bool operator!=(const NodeID& a, const NodeID& b) { return a.m_num != b.m_num; }
    friend bool operator<(const NodeID& a, const NodeID& b) { return a.m_num < b.m_num; }

private:
    uint32_t m_num = 0;
};

// Allocates a node through the tracking allocator, recording this source line:
//     RqList* list = RQ_NEW RqList();
#define RQ_NEW new (ZK_HERE)

// Members that every concrete node class declares; their definitions are generated.
#define RQ_NODE_CLASS(cls)                                                                      \
public:                                                                                         \
    static constexpr RqNodeType_e kKind = static_cast<RqNodeType_e>(RqClassTraits<cls>::kKind); \
    RqNodeType_e GetObjectType() const override {                                               \
        return kKind;                                                                           \
    }                                                                                           \
    bool DispatchVisit(AVisitorRqNode& visitor) override;                                       \
    bool DispatchExprVisit(AVisitorRqExpr& visitor) override;                                   \
    RqNode* CloneNode(ZKAllocSite& site) const override;                                        \
                                                                                                \
private:

class RqNode {
public:
    // Every node is allocated through the tracking allocator (see RQ_NEW).
    static void* operator new(std::size_t size, ZKAllocSite& site) {
        return ZKNodeAlloc::allocate(size, site);
    }
    static void operator delete(void* p, std::size_t size) { ZKNodeAlloc::deallocate(p, size); }
    static void operator delete(void* p, ZKAllocSite&);

    // Destroys the subtree below the node, children first, without deep recursion.
    virtual ~RqNode();

    RqNode& operator=(const RqNode&) = delete;

    // ---- Navigation -------------------------------------------------------------------
    RqNode* GetParent() const { return m_pParent; }
    int GetNumChildren() const { return static_cast<int>(m_children.size()); }
    RqNode* GetIthChild(int i) const;
    // Position of `child` among the children, or -1.
    int GetChildIndex(const RqNode* child) const;
    // Position of this node in its parent, or -1 without a parent.
    int GetIndexInParent() const;

    // ---- Structure changes ------------------------------------------------------------
    // Appends a child (null allowed); the node takes ownership.
    void AddChild(RqNode* child);
    // Inserts a child at position i, shifting later ones.
    void InsertChild(int i, RqNode* child);
    // Grows with null children or shrinks, destroying the children dropped.
    void SetNumChildren(int n);
    // Detaches child i and returns it, now owned by the caller; the slot stays, null.
    RqNode* ReleaseIthChild(int i);
    // Detaches this node from its parent and returns it (null without a parent).
    RqNode* ReleaseFromParent();
    // Puts `child` in slot i and destroys what was there.
    void SetIthChild(int i, RqNode* child);
    // Puts `child` in slot i and returns what was there, now owned by the caller.
    RqNode* ReplaceIthChild(int i, RqNode* child);
    // Removes slot i altogether (later children shift down) and destroys its child.
    void EraseIthChild(int i);
    // Removes slot i altogether and returns its child, now owned by the caller.
    RqNode* RemoveIthChild(int i);
    // Destroys `child`, a child of this node; `replacement` (may be null) takes its slot.
    void DeleteChild(RqNode* child, RqNode* replacement);
    // Puts `replacement` in this node's place in its parent and hands this node to `holder`,
    // which then owns it. Without a parent only the hand-over happens.
    void ReplaceInParent(RqNode* replacement, RqHandleNode& holder);

    // ---- Execution target -------------------------------------------------------------
    ServerInfo::TargetType GetTargetType() const { return m_targetType; }
    void MarkTargetType(ServerInfo::TargetType type) { m_targetType = type; }
    void GetTargetID(VoidID& id) const { id = m_targetID; }
    const VoidID& GetTargetID() const { return m_targetID; }
    void MarkTargetID(const VoidID& id) { m_targetID = id; }
    // Marks the node and its whole subtree with one target.
    void MarkTargetRecursive(ServerInfo::TargetType type, const VoidID& id);

    // ---- Identity ---------------------------------------------------------------------
    const NodeID& GetNodeID() const { return m_nodeID; }
    void SetNodeID(const NodeID& id) { m_nodeID = id; }
    void SetUniqueID() { m_nodeID = NodeID::Fresh(); }
    // True for a node copied from `other` with its identity kept (and for `other` itself).
    bool IsCopyOf(const RqNode& other) const { return m_nodeID == other.m_nodeID; }

    // ---- Kinds and traversal ----------------------------------------------------------
    virtual RqNodeType_e GetObjectType() const = 0;
    bool IsKindOf(RqNodeType_e type) const { return RqIsKindOf(GetObjectType(), type); }
    bool IsRqList() const { return GetObjectType() == kRqList; }
    bool IsRqUnion() const { return GetObjectType() == kRqUnion; }
    bool IsRqIntersect() const { return GetObjectType() == kRqIntersect; }
    bool IsRqExcept() const { return GetObjectType() == kRqExcept; }
    bool IsRqBreakFilter() const { return GetObjectType() == kRqBreakFilter; }
    bool IsSetOperation() const { return IsRqUnion() || IsRqIntersect() || IsRqExcept(); }
    bool IsExpr() const { return IsKindOf(kRqExpr); }

    // Walks the subtree with a node visitor (pre-order; a true Visit skips the children; the
    // child count is read afresh at every step). The walk keeps its own stack; an Accept
    // nested in a Visit raises the stack error (StackExhaustedException) when the thread's
    // stack runs low, instead of overflowing it.
    void Accept(AVisitorRqNode& visitor);

    // Kind test usable as a predicate: true for a node of one of the kinds or a kind
    // derived from one of them.
    class IsObjectType {
    public:
        explicit IsObjectType(RqNodeType_e type) { m_types.set(type); }
        IsObjectType(std::initializer_list<RqNodeType_e> types) {
            for (RqNodeType_e t : types)
                m_types.set(t);
        }
        bool operator()(const RqNode* node) const;
        bool operator()(const RqNode& node) const { return (*this)(&node); }

    private:
        RqNodeTypeSet m_types;
    };
    // Predicate: the node is an aggregate expression.
    static bool IsAggrNode(const RqNode* node);

    // ---- Copies -----------------------------------------------------------------------
    // A deep copy of the subtree, owned by the caller and without parent. References to
    // derived columns inside the subtree are redirected to the copies of those columns;
    // references to columns outside it keep their target. With `keepIdentity` every copy
    // keeps the node ID of its original, otherwise every copy gets a fresh one.
    RqNode* DeepCopy(bool keepIdentity) const;

    // ---- Generated per class ----------------------------------------------------------
    // Presents the node to its overload of the node visitor; returns that overload's answer.
    virtual bool DispatchVisit(AVisitorRqNode& visitor) = 0;
    // Presents an expression to its overload of the expression visitor (false for nodes
    // that are not expressions).
    virtual bool DispatchExprVisit(AVisitorRqExpr& visitor) = 0;
    // A copy of the node's own fields, without children and without parent.
    virtual RqNode* CloneNode(ZKAllocSite& site) const = 0;

protected:
    RqNode();
    // Copies the fields of `other` (target, identity); never its links.
    RqNode(const RqNode& other);

    // Called on a copy after DeepCopy has rebuilt the whole subtree, with the map from
    // original nodes to their copies; lets a class re-point non-owning links.
    class CopyMap;
    virtual void FixUpCopy(const CopyMap& map);

private:
    friend class SmartRqNodePtr;
    void AttachChild(RqNode* child);
    static void DestroyDetached(RqNode* node);

    // The child slots. Most nodes hold at most two children (operands, a column's expression,
    // a filter's condition), so those live inside the node and cost no allocation of their
    // own; a longer list moves to a block of the tracking allocator, charged to the
    // containers' site like any other list a node owns. Never copied: a copied node starts
    // without children.
    class ChildList {
    public:
        ChildList() = default;
        ChildList(const ChildList&) = delete;
        ChildList& operator=(const ChildList&) = delete;
        ~ChildList();

        size_t size() const { return m_nSize; }
        bool empty() const { return m_nSize == 0; }
        RqNode* const* begin() const { return m_pData; }
        RqNode* const* end() const { return m_pData + m_nSize; }
        RqNode*& operator[](size_t i) { return m_pData[i]; }
        RqNode* operator[](size_t i) const { return m_pData[i]; }
        RqNode* back() const { return m_pData[m_nSize - 1]; }

        void reserve(size_t capacity);
        void push_back(RqNode* child) {
            if (m_nSize == m_nCapacity)
                reserve(2 * static_cast<size_t>(m_nCapacity));
            m_pData[m_nSize++] = child;
        }
        void pop_back() { --m_nSize; }
        void clear() { m_nSize = 0; }
        // Grows with nulls or shrinks (without destroying what is dropped).
        void resize(size_t n);
        void insert(size_t i, RqNode* child);
        void erase(size_t i);

    private:
        static constexpr uint32_t kInline = 2;
        RqNode** m_pData = m_inline;
        uint32_t m_nSize = 0;
        uint32_t m_nCapacity = kInline;
        RqNode* m_inline[kInline] = {};
    };

    RqNode* m_pParent = nullptr;
    ChildList m_children;
    ServerInfo::TargetType m_targetType = ServerInfo::kUnknown;
    VoidID m_targetID;
    NodeID m_nodeID;
    SmartRqNodePtr* m_pWatchers = nullptr;
};

// Checked downcasts of request-tree nodes. RqDynCast<T> answers the node as a T, or null when
// it is not one (or is null); a class with a kind of its own is tested by kind, which is a
// table lookup, and an intermediate base without a kind (RqExprSortDependentAggr, ...) by
// the language's run-time type test. RqCast<T> is for a node that must be a T: anything
// else is a broken invariant and is reported as one.
template <class T>
T* RqDynCast(RqNode* node) {
    static_assert(std::is_base_of_v<RqNode, T>, "RqDynCast casts to a node class");
    if constexpr (std::is_same_v<T, RqNode>) {
        return node;
    } else if constexpr (RqClassTraits<T>::kOwnKind) {
        return node != nullptr && node->IsKindOf(static_cast<RqNodeType_e>(RqClassTraits<T>::kKind))
                   ? static_cast<T*>(node)
                   : nullptr;
    } else {
        return dynamic_cast<T*>(node);
    }
}
template <class T>
const T* RqDynCast(const RqNode* node) {
    return RqDynCast<T>(const_cast<RqNode*>(node));
}
template <class T>
T* RqCast(RqNode* node) {
    T* typed = RqDynCast<T>(node);
    ZK_ASSERT(typed != nullptr);
    return typed;
}
template <class T>
const T* RqCast(const RqNode* node) {
    return RqCast<T>(const_cast<RqNode*>(node));
}

// A map from nodes to numbers (positions in a table of the caller's), for walks over large
// trees that must find a node's record again. One flat open-addressed table: no allocation
// per entry, and a lookup touches one or two adjacent slots. Null is never a key.
class RqNodeIndexMap {
public:
    static constexpr uint32_t kAbsent = UINT32_MAX;

    // Adds `node` with `index`; false, and no change, when the node is already present.
    bool Insert(const RqNode* node, uint32_t index);
    // The index of `node`, or kAbsent.
    uint32_t Find(const RqNode* node) const {
        if (m_nSize == 0 || node == nullptr)
            return kAbsent;
        const size_t mask = m_slots.size() - 1;
        for (size_t i = Home(node);; i = (i + 1) & mask) {
            const Slot& slot = m_slots[i];
            if (slot.m_pKey == node)
                return slot.m_index;
            if (slot.m_pKey == nullptr)
                return kAbsent;
        }
    }
    bool Contains(const RqNode* node) const { return Find(node) != kAbsent; }
    size_t Size() const { return m_nSize; }
    // Room for `count` entries without growing.
    void Reserve(size_t count);

private:
    struct Slot {
        const RqNode* m_pKey;
        uint32_t m_index;
    };
    // Multiplicative hashing: the high bits of the product mix every bit of the address,
    // including the low ones that alignment keeps equal.
    size_t Home(const RqNode* node) const {
        return static_cast<size_t>((reinterpret_cast<uintptr_t>(node) * 0x9E3779B97F4A7C15ull) >>
                                   m_nShift);
    }
    void Rehash(size_t numSlots);

    std::vector<Slot> m_slots;
    size_t m_nSize = 0;
    unsigned m_nShift = 64;
};

// Map from the nodes of an original subtree to their copies, handed to FixUpCopy.
class RqNode::CopyMap {
public:
    // The copy of `original`, or null when it lies outside the copied subtree.
    RqNode* Find(const RqNode* original) const;
    // Records `copy` as the copy of `original` (a pair already recorded for `original` wins).
    void Add(const RqNode* original, RqNode* copy);

private:
    // Every pair, in the order of copying.
    std::vector<std::pair<const RqNode*, RqNode*>> m_pairs;
    // Positions of the pairs whose nodes non-owning links point at (derived columns, join
    // nodes, lists): the lookups of a copy almost always land here, and these are few.
    RqNodeIndexMap m_targets;
    // Positions of every pair, made by the first lookup the small index cannot answer: a
    // link to a node of another kind, or to a node outside the copy.
    mutable RqNodeIndexMap m_all;
    mutable bool m_bAllIndexed = false;
};

// The root handle of a request: holds the request's top node as its only child.
class RqHandleNode : public RqNode {
    RQ_NODE_CLASS(RqHandleNode)
public:
    RqHandleNode() = default;
    explicit RqHandleNode(RqNode* request);
    RqHandleNode(const RqHandleNode& other) : RqNode(other) {}
    RqNode* GetRqNode() const { return GetNumChildren() > 0 ? GetIthChild(0) : nullptr; }
    // Takes a request; the previous one, if any, is destroyed.
    void SetRqNode(RqNode* request);
    // Gives up the request, now owned by the caller.
    RqNode* ReleaseRqNode();
};

// A placeholder node with no meaning of its own.
class RqNullNode : public RqNode {
    RQ_NODE_CLASS(RqNullNode)
public:
    RqNullNode() = default;
    RqNullNode(const RqNullNode& other) : RqNode(other) {}
};

// Single owner of a temporary node (or of any object with a usable delete).
template <class T>
class Heap {
public:
    Heap() = default;
    explicit Heap(T* p) : m_p(p) {}
    Heap(Heap&& other) noexcept : m_p(other.Release()) {}
    Heap& operator=(Heap&& other) noexcept {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }
    Heap(const Heap&) = delete;
    Heap& operator=(const Heap&) = delete;
    ~Heap() { delete m_p; }

    T* Get() const { return m_p; }
    T* operator->() const { return m_p; }
    T& operator*() const { return *m_p; }
    explicit operator bool() const { return m_p != nullptr; }
    T* Release() { return std::exchange(m_p, nullptr); }
    void Reset(T* p = nullptr) {
        T* old = std::exchange(m_p, p);
        delete old;
    }

    friend bool operator==(const Heap& a, const Heap& b) { return a.m_p == b.m_p; }
    friend bool operator!=(const Heap& a, const Heap& b) { return a.m_p != b.m_p; }
    friend bool operator<(const Heap& a, const Heap& b) { return a.m_p < b.m_p; }

private:
    T* m_p = nullptr;
};

// A non-owning handle that learns when its node is destroyed: Get() then answers null.
class SmartRqNodePtr {
public:
    SmartRqNodePtr() = default;
    explicit SmartRqNodePtr(RqNode* node) { Attach(node); }
    SmartRqNodePtr(const SmartRqNodePtr& other) { Attach(other.m_pNode); }
    SmartRqNodePtr& operator=(const SmartRqNodePtr& other);
    SmartRqNodePtr& operator=(RqNode* node);
    ~SmartRqNodePtr() { Detach(); }

    RqNode* Get() const { return m_pNode; }
    RqNode* operator->() const { return m_pNode; }
    explicit operator bool() const { return m_pNode != nullptr; }

    // Called by the node as it is destroyed.
    void NotifyDeletion();

private:
    void Attach(RqNode* node);
    void Detach();

    RqNode* m_pNode = nullptr;
    SmartRqNodePtr* m_pNext = nullptr;
    SmartRqNodePtr* m_pPrev = nullptr;
};
