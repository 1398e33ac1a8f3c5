#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"

#include <deque>

RemoveRedundantOrderBy::RemoveRedundantOrderBy(ARpGateway* rp)
    : m_pRp(rp), m_bSkippedTopMostOrderBy(false), m_bFoundTwoTableJoin(false) {}

void RemoveRedundantOrderBy::Reset() {
    m_bSkippedTopMostOrderBy = false;
    m_bFoundTwoTableJoin = false;
}

bool RemoveRedundantOrderBy::Visit(RqHandleNode& node) {
    // The walk below covers the whole request, so the driver's traversal stops here.
    MarkNodesToUnknownTargetAndDeleteOrderBys(&node);
    return true;
}

// The rule does its work from the root; every other node is left to the walk.
bool RemoveRedundantOrderBy::Visit(RqStats&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqList&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqUnion&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqIntersect&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqExcept&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqSharedList&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqBreakFilter&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqProjection&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqDerivedColumn&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqDetailFilter&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqSummaryFilter&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqJoinNode&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqJoinSpec&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqAtomicTable&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqOpaqueTable&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqTransientOpaqueTable&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqXSACacheTable&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqVELDNativeTable&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqExternalTable&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqDerivedTable&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqEntity&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqTableReference&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqExpr&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqGroupBy&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqHaving&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqSortSpec&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqOrderBy&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqCache&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqDelete&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqInsert&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqDrop&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqPopulate&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqCreateIndex&) {
    return false;
}
bool RemoveRedundantOrderBy::Visit(RqCanonicalMap&) {
    return false;
}

namespace {

// A table reference multiplies or filters rows against a second table: every outer join,
// and an inner join with both sides present. A natural join is never taken as one.
bool JoinsTwoTables(const RqTableReference& reference) {
    switch (reference.GetJoinType()) {
        case SqlTableRef::kLeftOuterJoin:
        case SqlTableRef::kRightOuterJoin:
        case SqlTableRef::kFullOuterJoin:
        case SqlTableRef::kFullOuterStitchJoin:
            return true;
        case SqlTableRef::kInnerJoin:
            return reference.GetLeftNode() != nullptr && reference.GetRightNode() != nullptr;
        case SqlTableRef::kNaturalJoin:
            return false;
    }
    return false;
}

}  // namespace

void RemoveRedundantOrderBy::MarkNodesToUnknownTargetAndDeleteOrderBys(RqNode* root) {
    if (root == nullptr) {
        return;
    }
    // Breadth first, so that the first ORDER BY met is the shallowest one. A deque grows in
    // blocks, and the explicit queue keeps deep requests off the call stack.
    std::deque<RqNode*> queue;
    queue.push_back(root);
    while (!queue.empty()) {
        RqNode* node = queue.front();
        queue.pop_front();

        // Nodes bound to the internal raw-data storage stay there; every other node is left
        // for target assignment to decide afresh.
        if (node->GetTargetType() != ServerInfo::kInternalRawDataStorage) {
            node->MarkTargetType(ServerInfo::kUnknown);
        }

        const RqNodeType_e kind = node->GetObjectType();
        if (kind == kRqTableReference) {
            if (JoinsTwoTables(static_cast<const RqTableReference&>(*node))) {
                m_bFoundTwoTableJoin = true;
            }
        } else if (kind == kRqOrderBy) {
            // The order of an inner block does not reach the result. Only the topmost
            // ORDER BY counts, and only while no join above it has mixed the rows.
            if (m_bSkippedTopMostOrderBy || m_bFoundTwoTableJoin) {
                delete node->ReleaseFromParent();
            } else {
                m_bSkippedTopMostOrderBy = true;
            }
            continue;
        }

        for (int i = 0; i < node->GetNumChildren(); ++i) {
            if (RqNode* child = node->GetIthChild(i)) {
                queue.push_back(child);
            }
        }
    }
}
