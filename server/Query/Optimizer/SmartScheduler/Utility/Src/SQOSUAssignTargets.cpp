#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAssignTargets.h"

#include <vector>

#include "Platform/Repository.h"

AssignTargets::AssignTargets(ARpGateway* rp) : m_pRp(rp), m_numAssigned(0) {}

ServerInfo::TargetType AssignTargets::TargetTypeOf(const ARpGateway* rp, const VoidID& targetID) {
    if (targetID.IsNullID())
        return ServerInfo::kBuiltInExecutionEngine;
    RefADatabase database = RefHelper::GetDatabase(rp, targetID);
    if (database.IsNull()) {
        const RefAConnectionPool pool = RefHelper::GetConnectionPool(rp, targetID);
        if (!pool.IsNull())
            database = pool->GetDatabase();
    }
    return database.IsNull() ? ServerInfo::kUnknown : database->GetTargetType();
}

bool AssignTargets::Visit(RqHandleNode& node) {
    // Nodes of one block share their target, so the last answer is kept: a request asks the
    // repository about as often as it changes blocks, not once per node.
    VoidID lastID;
    ServerInfo::TargetType lastType = TargetTypeOf(m_pRp, lastID);
    std::vector<RqNode*, ZKAllocator<RqNode*>> work{&node};
    while (!work.empty()) {
        RqNode* current = work.back();
        work.pop_back();
        if (current->GetTargetType() == ServerInfo::kUnknown) {
            const VoidID& id = current->GetTargetID();
            if (id != lastID) {
                lastID = id;
                lastType = TargetTypeOf(m_pRp, id);
            }
            if (lastType != ServerInfo::kUnknown) {
                current->MarkTargetType(lastType);
                ++m_numAssigned;
            }
        }
        for (int i = current->GetNumChildren() - 1; i >= 0; --i) {
            if (RqNode* child = current->GetIthChild(i))
                work.push_back(child);
        }
    }
    return true;
}
