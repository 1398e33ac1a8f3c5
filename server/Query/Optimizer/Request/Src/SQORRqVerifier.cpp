// Structural verification of request trees. The tree is walked once, iteratively, to record
// every node with the node that holds it; the link checks happen during that walk, and so do
// the checks that read only a node and what it owns. The checks that follow a non-owning link
// (a reference's column, a shared list's target, and the break filter, whose inner list may
// be one) wait until the walk has recorded the whole tree, so that links resolve against all
// of it and the verifier never dereferences one before the walk has found the node it names.
// Reports keep the order of the walk either way.
//
// Requests run to tens of thousands of nodes, more than the caches hold, so a node is visited
// once rather than once per phase, and the per-node work is kept to a few flat-table lookups
// without allocations: the records are found again through one open-addressed index, and what
// is asked per clause (the column numbers of a projection, the projections a block reads) is
// computed once.

#include "Query/Optimizer/Request/SQORRqVerifier.h"

#include <algorithm>
#include <array>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace {

using Kind = RqViolation::Kind;

ZKString TypeName(const RqNode& node) {
    return ZKString::FromUtf8(RqNodeTypeName(node.GetObjectType()));
}

ZKString Segment(const RqNode& node, int index) {
    return TypeName(node) + L"[" + ZKString::FromInt(index) + L"]";
}

ZKString Num(long long value) {
    return ZKString::FromInt(value);
}

bool IsA(const RqNode* node, RqNodeType_e kind) {
    return node != nullptr && node->IsKindOf(kind);
}

bool IsExactly(const RqNode* node, RqNodeType_e kind) {
    return node != nullptr && node->GetObjectType() == kind;
}

// Child i, or null when the node has fewer children.
const RqNode* Slot(const RqNode& node, int i) {
    return i < node.GetNumChildren() ? node.GetIthChild(i) : nullptr;
}

// What the verifier checks of a node, by the node's class. Every class of the kind table has
// one: expressions by the expression rules, the others by the shape declared for their class
// below, so that a kind added to the table without a shape does not compile.
enum class Shape {
    kNone,            // abstract kinds and markers: no node has them
    kExpression,      // operand counts and kinds, references, sort keys, grouping ids
    kHandle,          // at most one request
    kBlock,           // the seven clause slots, a projection in slot 0
    kProjection,      // derived columns with distinct numbers
    kDerivedColumn,   // one expression
    kFilter,          // one condition
    kGroupBy,         // column lists, grouping sets within the columns
    kOrderBy,         // sort specs, then push-down aggregates
    kSortSpec,        // a column of its block, no children
    kJoinSpec,        // join nodes, then join links
    kJoinNode,        // one table reference
    kTableReference,  // sides and a condition
    kDerivedTable,    // one inner list
    kSetOperation,    // lists, at least one
    kBreakFilter,     // one inner list, break indexes within its projection
    kCacheList,       // at most one list (cache lists and caches)
    kSharedList,      // names a list of the tree, no children
    kLeaf,            // no children
    // Write requests and the request kinds that rules pass through: they hold whatever
    // their producers put there, and only their producers know what that is.
    kOpaque,
};

template <class T>
struct ShapeOf;
#define RQ_SHAPE(cls, shape)                          \
    template <>                                       \
    struct ShapeOf<cls> {                             \
        static constexpr Shape kShape = Shape::shape; \
    };
RQ_SHAPE(RqNullNode, kLeaf)
RQ_SHAPE(RqStats, kOpaque)
RQ_SHAPE(RqHandleNode, kHandle)
RQ_SHAPE(RqList, kBlock)
RQ_SHAPE(RqUnion, kSetOperation)
RQ_SHAPE(RqIntersect, kSetOperation)
RQ_SHAPE(RqExcept, kSetOperation)
RQ_SHAPE(RqSharedList, kSharedList)
RQ_SHAPE(RqBreakFilter, kBreakFilter)
RQ_SHAPE(RqProjection, kProjection)
RQ_SHAPE(RqDerivedColumn, kDerivedColumn)
RQ_SHAPE(RqDetailFilter, kFilter)
RQ_SHAPE(RqSummaryFilter, kFilter)
RQ_SHAPE(RqHaving, kFilter)
RQ_SHAPE(RqJoinLink, kLeaf)
RQ_SHAPE(RqJoinNode, kJoinNode)
RQ_SHAPE(RqJoinSpec, kJoinSpec)
RQ_SHAPE(RqAtomicTable, kLeaf)
RQ_SHAPE(RqOpaqueTable, kLeaf)
RQ_SHAPE(RqTransientOpaqueTable, kLeaf)
RQ_SHAPE(RqXSACacheTable, kLeaf)
RQ_SHAPE(RqVELDNativeTable, kLeaf)
RQ_SHAPE(RqExternalTable, kLeaf)
RQ_SHAPE(RqDerivedTable, kDerivedTable)
RQ_SHAPE(RqEntity, kLeaf)
RQ_SHAPE(RqTableReference, kTableReference)
RQ_SHAPE(RqGroupBy, kGroupBy)
RQ_SHAPE(RqSortSpec, kSortSpec)
RQ_SHAPE(RqOrderBy, kOrderBy)
RQ_SHAPE(RqCache, kCacheList)
RQ_SHAPE(RqXSACache, kCacheList)
RQ_SHAPE(RqCacheList, kCacheList)
RQ_SHAPE(RqDelete, kOpaque)
RQ_SHAPE(RqInsert, kOpaque)
RQ_SHAPE(RqDrop, kOpaque)
RQ_SHAPE(RqPopulate, kOpaque)
RQ_SHAPE(RqCreateIndex, kOpaque)
RQ_SHAPE(RqWrite, kOpaque)
RQ_SHAPE(RqMolapStarJoin, kOpaque)
RQ_SHAPE(RqMolapFilterJoin, kOpaque)
RQ_SHAPE(RqSummaryAdvisorQuery, kOpaque)
RQ_SHAPE(RqExplainPlan, kOpaque)
RQ_SHAPE(RqDataMiningQuery, kOpaque)
RQ_SHAPE(RqXSAGrainCheck, kOpaque)
RQ_SHAPE(RqProbeQuery, kOpaque)
RQ_SHAPE(RqSummarize, kOpaque)
RQ_SHAPE(RqCanonicalMap, kOpaque)
RQ_SHAPE(RqDetectAnomalies, kOpaque)
#undef RQ_SHAPE

template <class T>
constexpr Shape ShapeOfClass() {
    if constexpr (std::is_base_of_v<RqExpr, T>)
        return Shape::kExpression;
    else
        return ShapeOf<T>::kShape;
}

constexpr std::array<Shape, kRqNodeTypeCount> MakeShapeTable() {
    std::array<Shape, kRqNodeTypeCount> table{};
#define RQ_SHAPE_G(value, cls) table[value] = ShapeOfClass<cls>();
#define RQ_SHAPE_H(value, cls) table[value] = ShapeOfClass<cls>();
#define RQ_SHAPE_A(value, cls)
#define RQ_SHAPE_N(value, cls)
#define RQ_SHAPE_K(value, cls, decl) RQ_SHAPE_##decl(value, cls)
#define RQ_SHAPE_C(value, cls, decl)
#define RQ_SHAPE_M(value, cls, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_SHAPE_##row(value, cls, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_SHAPE_K
#undef RQ_SHAPE_C
#undef RQ_SHAPE_M
#undef RQ_SHAPE_G
#undef RQ_SHAPE_H
#undef RQ_SHAPE_A
#undef RQ_SHAPE_N
    return table;
}

constexpr std::array<Shape, kRqNodeTypeCount> kShapes = MakeShapeTable();

Shape ShapeOfNode(const RqNode& node) {
    return kShapes[static_cast<size_t>(node.GetObjectType())];
}

struct NodeRecord {
    const RqNode* m_pNode;
    const RqNode* m_pOwner;  // the node that holds it in the walk; null for the root
    int m_index;             // its position in the owner
    const RqNode* m_pBlock;  // the nearest RqList strictly above it; null when none
};

class Verification {
public:
    explicit Verification(const RqNode& root) { Walk(root); }

    std::vector<RqViolation> Run() {
        const size_t numImmediate = m_checked.size();
        m_bChecking = true;
        for (uint32_t position : m_deferred) {
            m_checkKey = (static_cast<uint64_t>(position) << 1) | 1;
            CheckLinks(m_records[position]);
        }
        // Both runs are in walk order; a node's own checks come before those of its links.
        std::inplace_merge(
            m_checked.begin(), m_checked.begin() + static_cast<std::ptrdiff_t>(numImmediate),
            m_checked.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        for (auto& [key, violation] : m_checked) {
            violation.m_path = PathOf(violation.m_pNode);
            m_violations.push_back(std::move(violation));
        }
        return std::move(m_violations);
    }

private:
    // ---- Walk and records ---------------------------------------------------------------

    void Walk(const RqNode& root) {
        struct Pending {
            const RqNode* m_pNode;
            const RqNode* m_pOwner;
            int m_index;
            uint32_t m_ownerRecord;  // the owner's record, so that it need not be looked up
        };
        std::vector<Pending> work{{&root, nullptr, -1, RqNodeIndexMap::kAbsent}};
        while (!work.empty()) {
            const Pending pending = work.back();
            work.pop_back();
            const RqNode* node = pending.m_pNode;
            const RqNode* owner = pending.m_pOwner;
            if (owner != nullptr && node->GetParent() != owner) {
                Report(node, ChildPath(owner, node, pending.m_index), RqViolation::kParentLink,
                       L"held by " + PathOf(owner) + L" but its parent link names " +
                           DescribeNode(node->GetParent()));
            }
            const auto position = static_cast<uint32_t>(m_records.size());
            if (!m_recordOf.Insert(node, position)) {
                // Held a second time (or by its own subtree): walking it again could loop,
                // and its checks run where it was first found.
                Report(node, ChildPath(owner, node, pending.m_index), RqViolation::kSharedNode,
                       L"also held at " + PathOf(node));
                continue;
            }
            const RqNode* block = nullptr;
            if (owner != nullptr) {
                block =
                    IsExactly(owner, kRqList) ? owner : m_records[pending.m_ownerRecord].m_pBlock;
            }
            m_records.push_back({node, owner, pending.m_index, block});
            m_bChecking = true;
            m_checkKey = static_cast<uint64_t>(position) << 1;
            if (CheckNode(m_records.back()))
                m_deferred.push_back(position);
            m_bChecking = false;
            // Last child first, so that children are recorded in child order (pre-order).
            for (int i = node->GetNumChildren() - 1; i >= 0; --i) {
                if (const RqNode* child = node->GetIthChild(i))
                    work.push_back({child, node, i, position});
            }
        }
    }

    // Paths are built only for reports: building one per node would cost the square of the
    // depth on deep expression chains.
    ZKString PathOf(const RqNode* node) const {
        std::vector<const NodeRecord*> chain;
        for (const RqNode* p = node; p != nullptr; p = chain.back()->m_pOwner) {
            chain.push_back(&RecordOf(p));
        }
        ZKString path = TypeName(*chain.back()->m_pNode);
        for (auto it = chain.rbegin() + 1; it != chain.rend(); ++it) {
            path += L"/" + Segment(*(*it)->m_pNode, (*it)->m_index);
        }
        return path;
    }
    ZKString ChildPath(const RqNode* owner, const RqNode* child, int index) const {
        return PathOf(owner) + L"/" + Segment(*child, index);
    }

    ZKString DescribeNode(const RqNode* node) const {
        if (node == nullptr)
            return L"no node";
        if (IsLive(node))
            return PathOf(node);
        return TypeName(*node) + L" outside this tree";
    }

    bool IsLive(const RqNode* node) const { return m_recordOf.Contains(node); }
    // The record of a node the walk found.
    const NodeRecord& RecordOf(const RqNode* node) const {
        const uint32_t position = m_recordOf.Find(node);
        ZK_ASSERT(position != RqNodeIndexMap::kAbsent);
        return m_records[position];
    }
    const RqNode* Owner(const RqNode* node) const {
        const uint32_t position = m_recordOf.Find(node);
        return position == RqNodeIndexMap::kAbsent ? nullptr : m_records[position].m_pOwner;
    }

    void Report(const RqNode* node, const ZKString& path, Kind kind, const ZKString& message) {
        m_violations.push_back({node, path, kind, message});
    }
    void Report(const RqNode* node, Kind kind, const ZKString& message) {
        if (m_bChecking) {
            // The node may be a child the walk has yet to record: Run finds its path.
            m_checked.push_back({m_checkKey, {node, ZKString(), kind, message}});
        } else {
            Report(node, PathOf(node), kind, message);
        }
    }

    // ---- Blocks and projections -------------------------------------------------------------

    static const RqNode* ProjectionOfBlock(const RqNode* block) {
        const RqNode* projection =
            block != nullptr ? Slot(*block, RqList::kProjectionChild) : nullptr;
        return IsExactly(projection, kRqProjection) ? projection : nullptr;
    }

    // The projection a list exposes to its readers, found through the children the walk has
    // seen (never through the list's own getters, which may assume a well-formed list).
    const RqNode* ExposedProjection(const RqNode* list) const {
        // Every node of the chain is one the walk found, so a chain longer than the tree
        // goes round a cycle (shared lists naming each other, a list held below itself).
        for (size_t steps = 0; list != nullptr && steps <= m_records.size(); ++steps) {
            switch (ShapeOfNode(*list)) {
                case Shape::kBlock:
                    return ProjectionOfBlock(list);
                case Shape::kSetOperation:
                case Shape::kBreakFilter:
                case Shape::kCacheList:
                    // A cache is not a list: no block reads it.
                    if (RqDynCast<RqAbstractList>(list) == nullptr)
                        return nullptr;
                    list = Slot(*list, 0);
                    break;
                case Shape::kSharedList: {
                    const RqAbstractList* shared = RqCast<RqSharedList>(list)->GetSharedRqList();
                    list = IsLive(shared) ? shared : nullptr;
                    break;
                }
                case Shape::kNone:
                case Shape::kExpression:
                case Shape::kHandle:
                case Shape::kProjection:
                case Shape::kDerivedColumn:
                case Shape::kFilter:
                case Shape::kGroupBy:
                case Shape::kOrderBy:
                case Shape::kSortSpec:
                case Shape::kJoinSpec:
                case Shape::kJoinNode:
                case Shape::kTableReference:
                case Shape::kDerivedTable:
                case Shape::kLeaf:
                case Shape::kOpaque:
                    return nullptr;  // exposes no columns
            }
        }
        return nullptr;
    }

    // Whether a derived column of `projection` has the number. Every sort key of a block asks
    // this of the same projection: a wide projection sorts its numbers once, so that a wide
    // ORDER BY does not cost columns times keys.
    bool HasColumnNumber(const RqNode* projection, int columnNumber) {
        if (projection == nullptr)
            return false;
        const int numChildren = projection->GetNumChildren();
        if (numChildren <= kLinearScanColumns) {
            for (int i = 0; i < numChildren; ++i) {
                if (ColumnNumberAt(*projection, i) == columnNumber)
                    return true;
            }
            return false;
        }
        auto [it, bInserted] = m_columnNumbers.try_emplace(projection);
        std::vector<int>& numbers = it->second;
        if (bInserted) {
            for (int i = 0; i < numChildren; ++i) {
                const int number = ColumnNumberAt(*projection, i);
                if (number != kNoColumn)
                    numbers.push_back(number);
            }
            std::sort(numbers.begin(), numbers.end());
        }
        return std::binary_search(numbers.begin(), numbers.end(), columnNumber);
    }

    // The number of derived column i of a projection; kNoColumn for another member.
    static constexpr int kNoColumn = INT32_MIN;
    static int ColumnNumberAt(const RqNode& projection, int i) {
        const auto* column = RqDynCast<RqDerivedColumn>(projection.GetIthChild(i));
        return column != nullptr ? column->GetColumnNum() : kNoColumn;
    }
    static constexpr int kLinearScanColumns = 16;

    // The projections that the derived tables of a block's FROM clause expose.
    void CollectFromProjections(const RqNode* block, std::vector<const RqNode*>& out) {
        const RqNode* joinSpec = Slot(*block, RqList::kJoinSpecChild);
        if (!IsExactly(joinSpec, kRqJoinSpec))
            return;
        std::vector<const RqNode*>& work = m_scratchNodes;
        work.assign(1, joinSpec);
        while (!work.empty()) {
            const RqNode* node = work.back();
            work.pop_back();
            if (IsExactly(node, kRqDerivedTable)) {
                if (const RqNode* projection = ExposedProjection(Slot(*node, 0))) {
                    out.push_back(projection);
                }
                continue;
            }
            for (int i = 0; i < node->GetNumChildren(); ++i) {
                const RqNode* child = node->GetIthChild(i);
                // Join conditions and nested blocks hold no table of this FROM clause.
                if (child != nullptr && !child->IsExpr() && !child->IsKindOf(kRqAbstractList)) {
                    work.push_back(child);
                }
            }
        }
    }

    // The block whose FROM clause a block inside an expression subquery also reads: the
    // block holding the subquery. Null for a block that is not inside a subquery (a derived
    // table's block, a set operation member read by a derived table, the top block).
    const RqNode* CorrelationScopeOf(const RqNode* block) const {
        bool bInSubquery = false;
        for (const RqNode* p = Owner(block); p != nullptr; p = Owner(p)) {
            if (IsExactly(p, kRqList))
                return bInSubquery ? p : nullptr;
            if (IsExactly(p, kRqDerivedTable))
                return nullptr;
            if (IsA(p, kRqExprSubquery))
                bInSubquery = true;
        }
        return nullptr;
    }

    // The projections a reference in `block` may read: those its FROM clause exposes, and
    // through correlation those of the blocks holding the subqueries it is in. Computed once
    // per block.
    const std::vector<const RqNode*>& VisibleProjections(const RqNode* block) {
        auto it = m_visible.find(block);
        if (it != m_visible.end())
            return it->second;
        std::vector<const RqNode*> visible;
        CollectFromProjections(block, visible);
        if (const RqNode* outer = CorrelationScopeOf(block)) {
            const std::vector<const RqNode*>& outerVisible = VisibleProjections(outer);
            visible.insert(visible.end(), outerVisible.begin(), outerVisible.end());
        }
        return m_visible.emplace(block, std::move(visible)).first->second;
    }

    // ---- Checks -----------------------------------------------------------------------------

    // The checks of a node that read only the node and what it owns; true when checks of its
    // links remain for CheckLinks.
    bool CheckNode(const NodeRecord& record) {
        const RqNode& node = *record.m_pNode;
        switch (ShapeOfNode(node)) {
            case Shape::kExpression:
                CheckExpr(record);
                return RqDynCast<RqDerivedColumnReference>(&node) != nullptr;
            case Shape::kHandle:
                if (node.GetNumChildren() > 1)
                    Report(&node, RqViolation::kChildKind, L"holds more than one request");
                break;
            case Shape::kBlock:
                CheckList(node);
                break;
            case Shape::kProjection:
                CheckProjection(node);
                break;
            case Shape::kDerivedColumn:
                CheckOneChild(node, kRqExpr, RqViolation::kProjectionMember,
                              L"a derived column holds exactly one expression");
                break;
            case Shape::kFilter:
                CheckOneChild(node, kRqExprCond, RqViolation::kFilterShape,
                              L"a filter holds exactly one condition");
                break;
            case Shape::kGroupBy:
                CheckGroupBy(*RqCast<RqGroupBy>(&node));
                break;
            case Shape::kOrderBy:
                CheckOrderBy(*RqCast<RqOrderBy>(&node));
                break;
            case Shape::kSortSpec:
                CheckSortSpec(*RqCast<RqSortSpec>(&node), record.m_pOwner);
                CheckLeaf(node);
                break;
            case Shape::kJoinSpec:
                CheckJoinSpec(node);
                break;
            case Shape::kJoinNode:
                CheckOneChild(node, kRqTableReference, RqViolation::kChildKind,
                              L"a join node holds exactly one table reference");
                break;
            case Shape::kTableReference:
                CheckTableReference(node);
                break;
            case Shape::kDerivedTable:
                CheckOneChild(node, kRqAbstractList, RqViolation::kChildKind,
                              L"a derived table holds exactly one inner list");
                break;
            case Shape::kSetOperation:
                CheckSetOperation(node);
                break;
            case Shape::kCacheList:
                if (node.GetNumChildren() > 1 ||
                    (node.GetNumChildren() == 1 && !IsA(node.GetIthChild(0), kRqAbstractList))) {
                    Report(&node, RqViolation::kChildKind, TypeName(node) + L" holds one list");
                }
                break;
            case Shape::kBreakFilter:
            case Shape::kSharedList:
                return true;
            case Shape::kLeaf:
                CheckLeaf(node);
                break;
            case Shape::kOpaque:
                break;
            case Shape::kNone:
                ZK_LOGIC_ERROR(L"a node of an abstract kind");
                break;
        }
        return false;
    }

    // The node holds one child, of `kind` or a kind derived from it.
    void CheckOneChild(const RqNode& node, RqNodeType_e kind, Kind violation,
                       const wchar_t* message) {
        if (node.GetNumChildren() != 1 || !IsA(node.GetIthChild(0), kind))
            Report(&node, violation, message);
    }

    // The checks that follow non-owning links, once the whole tree is recorded.
    void CheckLinks(const NodeRecord& record) {
        const RqNode* node = record.m_pNode;
        if (const auto* reference = RqDynCast<RqDerivedColumnReference>(node)) {
            CheckReference(*reference, record.m_pBlock);
        } else if (const auto* filter = RqDynCast<RqBreakFilter>(node)) {
            CheckBreakFilter(*filter);
        } else if (const auto* shared = RqDynCast<RqSharedList>(node)) {
            CheckSharedList(*shared);
            CheckLeaf(*shared);
        } else {
            ZK_LOGIC_ERROR(L"only references, break filters and shared lists have links");
        }
    }

    void CheckLeaf(const RqNode& node) {
        for (int i = 0; i < node.GetNumChildren(); ++i) {
            if (node.GetIthChild(i) != nullptr) {
                Report(node.GetIthChild(i), RqViolation::kChildKind,
                       TypeName(node) + L" holds no children");
            }
        }
    }

    void CheckList(const RqNode& list) {
        static constexpr RqNodeType_e kSlotKinds[RqList::kNumClauses] = {
            kRqProjection, kRqJoinSpec, kRqDetailFilter, kRqSummaryFilter,
            kRqGroupBy,    kRqHaving,   kRqOrderBy};
        for (int i = 0; i < list.GetNumChildren(); ++i) {
            const RqNode* clause = list.GetIthChild(i);
            if (clause == nullptr)
                continue;
            if (i >= RqList::kNumClauses) {
                Report(clause, RqViolation::kClauseSlot,
                       L"a block has " + Num(RqList::kNumClauses) +
                           L" clause slots; this is slot " + Num(i));
            } else if (clause->GetObjectType() != kSlotKinds[i]) {
                Report(clause, RqViolation::kClauseSlot,
                       L"slot " + Num(i) + L" of a block holds an " +
                           ZKString::FromUtf8(RqNodeTypeName(kSlotKinds[i])));
            }
        }
        if (ProjectionOfBlock(&list) == nullptr) {
            Report(&list, RqViolation::kClauseSlot, L"the block has no projection in slot 0");
        }
    }

    void CheckProjection(const RqNode& projection) {
        // For each column, the first column with its number (itself when it is the first):
        // numbers are sorted with their positions, and each run of equal ones names its head.
        std::vector<std::pair<int, int>>& byNumber = m_scratchNumbers;
        byNumber.clear();
        for (int i = 0; i < projection.GetNumChildren(); ++i) {
            const int number = ColumnNumberAt(projection, i);
            if (number != kNoColumn && number >= 0)
                byNumber.emplace_back(number, i);
        }
        std::sort(byNumber.begin(), byNumber.end());
        std::vector<int>& firstWithNumber = m_scratchFirst;
        firstWithNumber.assign(static_cast<size_t>(projection.GetNumChildren()), -1);
        for (size_t k = 0; k < byNumber.size(); ++k) {
            const bool bHead = k == 0 || byNumber[k].first != byNumber[k - 1].first;
            firstWithNumber[static_cast<size_t>(byNumber[k].second)] =
                bHead ? byNumber[k].second
                      : firstWithNumber[static_cast<size_t>(byNumber[k - 1].second)];
        }
        for (int i = 0; i < projection.GetNumChildren(); ++i) {
            const RqNode* member = projection.GetIthChild(i);
            const auto* column = RqDynCast<RqDerivedColumn>(member);
            if (column == nullptr) {
                Report(member != nullptr ? member : &projection, RqViolation::kProjectionMember,
                       L"projection member " + Num(i) +
                           (member != nullptr ? L" is not a derived column" : L" is absent"));
                continue;
            }
            const int number = column->GetColumnNum();
            if (number < 0) {
                Report(member, RqViolation::kColumnNumber,
                       L"column number " + Num(number) + L": every column needs one");
                continue;
            }
            const int first = firstWithNumber[static_cast<size_t>(i)];
            if (first != i) {
                Report(member, RqViolation::kDuplicateColumnNumber,
                       L"column number " + Num(number) + L" is also the number of column " +
                           Num(first));
            }
        }
    }

    void CheckGroupBy(const RqGroupBy& groupBy) {
        if (groupBy.GetNumChildren() > 2) {
            Report(&groupBy, RqViolation::kChildKind,
                   L"a group-by holds its columns and its granularity only");
        }
        for (int i = 0; i < groupBy.GetNumChildren() && i < 2; ++i) {
            const RqNode* list = groupBy.GetIthChild(i);
            if (list != nullptr && !IsA(list, kRqExprColumnListOrdered)) {
                Report(list, RqViolation::kChildKind, L"a group-by holds column lists");
            }
        }
        CheckGroupingSets(groupBy);
    }

    // Each grouping set names positions of the GROUP BY's column list, each at most once: a
    // position outside the list names no column, and one named twice says nothing more
    // (it is a sign of a set built from the wrong list).
    void CheckGroupingSets(const RqGroupBy& groupBy) {
        const RqNode* columns = Slot(groupBy, 0);
        const int numColumns =
            IsA(columns, kRqExprColumnListOrdered) ? columns->GetNumChildren() : 0;
        for (int s = 0; s < groupBy.GetNumGroupingSets(); ++s) {
            std::vector<uint16_t>& seen = m_scratchPositions;
            seen.clear();
            for (uint16_t position : groupBy.GetIthGroupingSet(s)) {
                const bool bRepeated = std::find(seen.begin(), seen.end(), position) != seen.end();
                if (position >= numColumns || bRepeated) {
                    Report(&groupBy, RqViolation::kGroupingSet,
                           L"grouping set " + Num(s) + L" names position " + Num(position) +
                               (bRepeated ? ZKString(L" twice")
                                          : L" of a column list of " + Num(numColumns)));
                }
                seen.push_back(position);
            }
        }
    }

    void CheckOrderBy(const RqOrderBy& orderBy) {
        const int numSpecs = orderBy.GetNumSortSpecs();
        if (orderBy.GetNumChildren() < numSpecs) {
            Report(&orderBy, RqViolation::kChildKind,
                   L"holds " + Num(orderBy.GetNumChildren()) + L" children for " + Num(numSpecs) +
                       L" sort specs");
        }
        for (int i = 0; i < orderBy.GetNumChildren(); ++i) {
            const RqNode* child = orderBy.GetIthChild(i);
            const bool bSpecSlot = i < numSpecs;
            if (bSpecSlot ? IsExactly(child, kRqSortSpec) : IsA(child, kRqExpr))
                continue;
            Report(child != nullptr ? child : &orderBy, RqViolation::kChildKind,
                   L"child " + Num(i) + L" of an order-by must be " +
                       (bSpecSlot ? L"a sort spec" : L"a push-down aggregate"));
        }
    }

    void CheckSortSpec(const RqSortSpec& spec, const RqNode* orderBy) {
        if (!IsExactly(orderBy, kRqOrderBy)) {
            // Only an order-by gives a sort spec a block; its container reports the misplacement.
            return;
        }
        const RqNode* block = Owner(orderBy);
        if (!IsExactly(block, kRqList) || ProjectionOfBlock(block) == nullptr)
            return;
        if (!HasColumnNumber(ProjectionOfBlock(block), spec.GetColumnNumber())) {
            Report(&spec, RqViolation::kSortSpecColumn,
                   L"column number " + Num(spec.GetColumnNumber()) +
                       L" is not in the projection of " + PathOf(block));
        }
    }

    void CheckJoinSpec(const RqNode& joinSpec) {
        bool bSeenLink = false;
        for (int i = 0; i < joinSpec.GetNumChildren(); ++i) {
            const RqNode* child = joinSpec.GetIthChild(i);
            if (IsExactly(child, kRqJoinLink)) {
                bSeenLink = true;
            } else if (!IsExactly(child, kRqJoinNode) || bSeenLink) {
                Report(child != nullptr ? child : &joinSpec, RqViolation::kChildKind,
                       L"child " + Num(i) +
                           L": a join spec holds its join nodes, then its join links");
            }
        }
    }

    void CheckTableReference(const RqNode& reference) {
        auto isSide = [](const RqNode* side) {
            return IsA(side, kRqAbstractTable) || IsExactly(side, kRqTableReference);
        };
        if (reference.GetNumChildren() > 3) {
            Report(&reference, RqViolation::kTableReferenceShape,
                   L"holds " + Num(reference.GetNumChildren()) + L" children; at most 3");
        }
        const RqNode* left = Slot(reference, RqTableReference::kLeftChild);
        const RqNode* right = Slot(reference, RqTableReference::kRightChild);
        const RqNode* cond = Slot(reference, RqTableReference::kCondChild);
        if (!isSide(left)) {
            Report(left != nullptr ? left : &reference, RqViolation::kTableReferenceShape,
                   left != nullptr ? ZKString(L"the left side is not a table")
                                   : ZKString(L"the table reference has no left side"));
        }
        if (right != nullptr && !isSide(right)) {
            Report(right, RqViolation::kTableReferenceShape, L"the right side is not a table");
        }
        if (cond != nullptr && !IsA(cond, kRqExprCond)) {
            Report(cond, RqViolation::kTableReferenceShape, L"slot 2 holds the join condition");
        }
    }

    void CheckBreakFilter(const RqBreakFilter& filter) {
        if (filter.GetNumChildren() != 1 || !IsA(filter.GetIthChild(0), kRqAbstractList)) {
            Report(&filter, RqViolation::kChildKind,
                   L"a break filter holds exactly one inner list");
            return;
        }
        const RqNode* projection = ExposedProjection(filter.GetIthChild(0));
        if (projection == nullptr)
            return;  // reported at the inner list
        const int numColumns = projection->GetNumChildren();
        for (uint16_t index : filter.BreakColumnIndexes()) {
            if (index >= numColumns) {
                Report(&filter, RqViolation::kBreakFilterIndex,
                       L"break index " + Num(index) + L" is outside the inner projection of " +
                           Num(numColumns) + L" columns");
            }
        }
    }

    void CheckSetOperation(const RqNode& operation) {
        if (operation.GetNumChildren() == 0) {
            Report(&operation, RqViolation::kChildKind, L"a set operation without members");
        }
        for (int i = 0; i < operation.GetNumChildren(); ++i) {
            const RqNode* member = operation.GetIthChild(i);
            if (!IsA(member, kRqAbstractList)) {
                Report(member != nullptr ? member : &operation, RqViolation::kChildKind,
                       L"member " + Num(i) + L" of a set operation is not a list");
            }
        }
    }

    void CheckSharedList(const RqSharedList& shared) {
        const RqAbstractList* target = shared.GetSharedRqList();
        if (target == nullptr) {
            Report(&shared, RqViolation::kSharedListTarget, L"names no shared list");
        } else if (!IsLive(target)) {
            Report(&shared, RqViolation::kSharedListTarget, L"names a list outside this tree");
        }
    }

    // ---- Expressions ------------------------------------------------------------------------

    void CheckExpr(const NodeRecord& record) {
        const RqNode& expr = *record.m_pNode;
        const RqNodeType_e kind = expr.GetObjectType();
        const int numOperands = expr.GetNumChildren();
        const int maxOperands = RqNodeTypeMaxOperands(kind);
        if (expr.IsKindOf(kRqExprAggr)) {
            CheckAggr(expr, record.m_pBlock, numOperands, maxOperands);
        } else {
            const int minOperands = RqNodeTypeMinOperands(kind);
            if (numOperands < minOperands || (maxOperands >= 0 && numOperands > maxOperands)) {
                Report(&expr, RqViolation::kOperandCount,
                       OperandRange(numOperands, minOperands, maxOperands));
            }
            const bool bSubquery = expr.IsKindOf(kRqExprSubquery);
            for (int i = 0; i < numOperands; ++i) {
                const RqNode* operand = expr.GetIthChild(i);
                if (operand == nullptr) {
                    Report(&expr, RqViolation::kOperandCount, L"operand " + Num(i) + L" is absent");
                } else if (bSubquery ? !operand->IsKindOf(kRqAbstractList) : !operand->IsExpr()) {
                    Report(operand, RqViolation::kChildKind,
                           bSubquery ? ZKString(L"a subquery's operand is a list")
                                     : ZKString(L"an expression's operands are expressions"));
                }
            }
        }
        if (const auto* groupingId = RqDynCast<RqExprGroupingId>(&expr))
            CheckGroupingId(*groupingId, record.m_pBlock);
    }

    // A grouping id tells the rows of one grouping set from another's by the GROUP BY columns
    // that the set leaves out: it needs its block's GROUP BY, and its operands must be columns
    // of that GROUP BY (an operand that is not would have no bit to stand for).
    void CheckGroupingId(const RqExprGroupingId& groupingId, const RqNode* block) {
        const auto* groupBy =
            block != nullptr ? RqDynCast<RqGroupBy>(Slot(*block, RqList::kGroupByChild)) : nullptr;
        if (groupBy == nullptr) {
            Report(&groupingId, RqViolation::kGroupingId,
                   block == nullptr ? ZKString(L"a grouping id outside any block")
                                    : L"the block " + PathOf(block) + L" has no GROUP BY");
            return;
        }
        const auto* columns = RqDynCast<RqExprColumnListOrdered>(Slot(*groupBy, 0));
        for (int i = 0; i < groupingId.GetNumChildren(); ++i) {
            const auto* operand = RqDynCast<RqExpr>(groupingId.GetIthChild(i));
            if (operand != nullptr &&
                (columns == nullptr || !columns->HasEquivalentMember(*operand))) {
                Report(
                    &groupingId, RqViolation::kGroupingId,
                    L"operand " + Num(i) + L" is not a column of the GROUP BY of " + PathOf(block));
            }
        }
    }

    static ZKString OperandRange(int numOperands, int minOperands, int maxOperands) {
        return Num(numOperands) + L" operands; the kind takes " + Num(minOperands) +
               (maxOperands >= 0 ? L" to " + Num(maxOperands) : ZKString(L" or more"));
    }

    void CheckAggr(const RqNode& aggr, const RqNode* block, int numOperands, int maxOperands) {
        const int kFixed = RqExprAggr::kFirstParameter;
        if (numOperands < kFixed ||
            (maxOperands >= 0 && numOperands > std::max(maxOperands, kFixed))) {
            Report(&aggr, RqViolation::kOperandCount,
                   OperandRange(numOperands, kFixed,
                                maxOperands >= 0 ? std::max(maxOperands, kFixed) : -1) +
                       L" (measure, by-list, compute break, parameters)");
        }
        for (int i = 0; i < numOperands; ++i) {
            const RqNode* operand = aggr.GetIthChild(i);
            if (i == RqExprAggr::kByList || i == RqExprAggr::kComputeBreak) {
                if (operand != nullptr && !IsA(operand, kRqExprColumnList)) {
                    Report(operand, RqViolation::kChildKind,
                           i == RqExprAggr::kByList
                               ? ZKString(L"an aggregate's by-list is a column list")
                               : ZKString(L"an aggregate's compute break is a column list"));
                }
            } else if (operand != nullptr && !operand->IsExpr()) {
                Report(operand, RqViolation::kChildKind,
                       L"an aggregate's operands are expressions");
            } else if (operand == nullptr && i >= kFixed) {
                Report(&aggr, RqViolation::kOperandCount,
                       L"parameter " + Num(i - kFixed) + L" is absent");
            }
        }
        const auto* sorted = RqDynCast<RqExprSortDependentAggr>(&aggr);
        if (sorted == nullptr)
            return;
        const RqNode* projection = ProjectionOfBlock(block);
        if (projection == nullptr)
            return;  // no block to name columns of: reported elsewhere
        for (const RqExprSortDependentAggr::SortKey& key : sorted->GetSortSpec()) {
            if (!HasColumnNumber(projection, key.m_columnNumber)) {
                Report(&aggr, RqViolation::kAggrSortKeyColumn,
                       L"sort key column number " + Num(key.m_columnNumber) +
                           L" is not in the projection of " + PathOf(block));
            }
        }
    }

    void CheckReference(const RqDerivedColumnReference& reference, const RqNode* block) {
        const RqDerivedColumn* column = reference.GetDerivedColumn();
        if (column == nullptr) {
            Report(&reference, RqViolation::kDanglingReference,
                   L"refers to no column (never set, or its column was destroyed)");
            return;
        }
        const uint32_t position = m_recordOf.Find(column);
        if (position == RqNodeIndexMap::kAbsent) {
            Report(&reference, RqViolation::kDanglingReference,
                   L"refers to column " + Num(column->GetColumnNum()) + L" outside this tree");
            return;
        }
        if (block == nullptr) {
            Report(&reference, RqViolation::kReferenceOutOfScope, L"the reference is in no block");
            return;
        }
        const std::vector<const RqNode*>& visible = VisibleProjections(block);
        if (std::find(visible.begin(), visible.end(), m_records[position].m_pOwner) !=
            visible.end())
            return;
        Report(&reference, RqViolation::kReferenceOutOfScope,
               L"refers to " + PathOf(column) +
                   L", which no derived table of its block (or, through a subquery, of an "
                   L"enclosing block) exposes");
    }

    std::vector<NodeRecord> m_records;
    RqNodeIndexMap m_recordOf;              // position of each node's record
    std::vector<RqViolation> m_violations;  // the walk's, then the checks'
    // The checks' reports, keyed by the position of the node checked times two, plus one for
    // the checks of its links.
    std::vector<std::pair<uint64_t, RqViolation>> m_checked;
    bool m_bChecking = false;
    uint64_t m_checkKey = 0;
    std::vector<uint32_t> m_deferred;  // records whose links remain to be checked
    std::unordered_map<const RqNode*, std::vector<const RqNode*>> m_visible;
    // Sorted column numbers of the wide projections that sort keys were checked against.
    std::unordered_map<const RqNode*, std::vector<int>> m_columnNumbers;
    std::vector<const RqNode*> m_scratchNodes;
    std::vector<std::pair<int, int>> m_scratchNumbers;
    std::vector<int> m_scratchFirst;
    std::vector<uint16_t> m_scratchPositions;
};

}  // namespace

std::vector<RqViolation> RqVerifier::Verify(const RqNode& root) {
    return Verification(root).Run();
}

ZKString RqVerifier::Describe(const std::vector<RqViolation>& violations) {
    ZKString text;
    for (const RqViolation& violation : violations) {
        if (!text.empty())
            text += L"\n";
        text += ZKString(KindName(violation.m_kind)) + L" at " + violation.m_path + L": " +
                violation.m_message;
    }
    return text;
}

const wchar_t* RqVerifier::KindName(RqViolation::Kind kind) {
    switch (kind) {
        case RqViolation::kParentLink:
            return L"kParentLink";
        case RqViolation::kSharedNode:
            return L"kSharedNode";
        case RqViolation::kClauseSlot:
            return L"kClauseSlot";
        case RqViolation::kProjectionMember:
            return L"kProjectionMember";
        case RqViolation::kColumnNumber:
            return L"kColumnNumber";
        case RqViolation::kDuplicateColumnNumber:
            return L"kDuplicateColumnNumber";
        case RqViolation::kDanglingReference:
            return L"kDanglingReference";
        case RqViolation::kReferenceOutOfScope:
            return L"kReferenceOutOfScope";
        case RqViolation::kSortSpecColumn:
            return L"kSortSpecColumn";
        case RqViolation::kAggrSortKeyColumn:
            return L"kAggrSortKeyColumn";
        case RqViolation::kBreakFilterIndex:
            return L"kBreakFilterIndex";
        case RqViolation::kTableReferenceShape:
            return L"kTableReferenceShape";
        case RqViolation::kFilterShape:
            return L"kFilterShape";
        case RqViolation::kOperandCount:
            return L"kOperandCount";
        case RqViolation::kChildKind:
            return L"kChildKind";
        case RqViolation::kSharedListTarget:
            return L"kSharedListTarget";
        case RqViolation::kGroupingSet:
            return L"kGroupingSet";
        case RqViolation::kGroupingId:
            return L"kGroupingId";
    }
    return L"?";
}
