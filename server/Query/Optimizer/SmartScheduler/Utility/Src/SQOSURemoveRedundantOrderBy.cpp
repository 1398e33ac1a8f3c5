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

namespace {

// A table reference multiplies or filters rows against a second table: every outer join,
// and an inner join of two tables. A side that is a nested reference is not a table: the
// nested reference counts (or not) by itself when the walk reaches it. A natural join is
// never taken as one.
bool JoinsTwoTables(const RqTableReference& reference) {
    switch (reference.GetJoinType()) {
        case SqlTableRef::kLeftOuterJoin:
        case SqlTableRef::kRightOuterJoin:
        case SqlTableRef::kFullOuterJoin:
        case SqlTableRef::kFullOuterStitchJoin:
            return true;
        case SqlTableRef::kInnerJoin:
            return reference.GetLeftTable() != nullptr && reference.GetRightTable() != nullptr;
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
    std::deque<RqNode*, ZKAllocator<RqNode*>> queue;
    queue.push_back(root);
    while (!queue.empty()) {
        RqNode* node = queue.front();
        queue.pop_front();

        // Nodes bound to the internal raw-data storage stay there; every other node is left
        // for target assignment to decide afresh.
        if (node->GetTargetType() != ServerInfo::kInternalRawDataStorage) {
            node->MarkTargetType(ServerInfo::kUnknown);
        }

        if (const RqTableReference* reference = RqDynCast<RqTableReference>(node)) {
            if (JoinsTwoTables(*reference)) {
                m_bFoundTwoTableJoin = true;
            }
        } else if (node->IsKindOf(kRqOrderBy)) {
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
