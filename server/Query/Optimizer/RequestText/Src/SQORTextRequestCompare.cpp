// Structural comparison of two request trees. Stricter than RqEquivalence: the text format
// must carry every field, so execution choices, labels, targets and identities count too.
// It reads the nodes through their own getters, independently of how the text prints them.

#include <string>
#include <unordered_map>
#include <vector>

#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "SQORTextRequestInternal.h"

namespace {

template <class T>
const T& As(const RqNode& node) {
    return static_cast<const T&>(node);
}

// What differs between the own fields of two nodes of the same kind; empty when nothing.
std::string FieldDifference(const RqNode& a, const RqNode& b) {
    if (a.GetTargetType() != b.GetTargetType())
        return "target type " + std::to_string(a.GetTargetType()) + " vs " +
               std::to_string(b.GetTargetType());
    if (a.GetTargetID() != b.GetTargetID())
        return "target id " + a.GetTargetID().ToString().ToUtf8() + " vs " +
               b.GetTargetID().ToString().ToUtf8();
    if (a.IsExpr()) {
        // References are compared by what they point at, after the walk.
        if (a.GetObjectType() != kRqDerivedColumnReference &&
            As<RqExpr>(a).CompareFields(As<RqExpr>(b)) != 0)
            return "expression fields";
        if (a.IsKindOf(kRqExprAggr) &&
            As<RqExprAggr>(a).IsInstantiated() != As<RqExprAggr>(b).IsInstantiated())
            return "instantiated flag";
        if (a.GetObjectType() == kRqExprColumnList &&
            As<RqExprColumnList>(a).IsSorted() != As<RqExprColumnList>(b).IsSorted())
            return "sorted flag";
        return std::string();
    }
    if (a.IsKindOf(kRqAbstractList)) {
        const auto& x = As<RqAbstractList>(a);
        const auto& y = As<RqAbstractList>(b);
        if (x.GetLabel() != y.GetLabel())
            return "label";
        if (x.GetRowLimit() != y.GetRowLimit() || x.GetRowOffset() != y.GetRowOffset())
            return "row limit or offset";
        if (x.IsShared() != y.IsShared() || x.IsWithSupported() != y.IsWithSupported())
            return "shared or with flag";
    }
    std::string nameA;
    std::string nameB;
    if (rqtext::GetNodeName(a, nameA) && rqtext::GetNodeName(b, nameB) && nameA != nameB)
        return "name";
    switch (a.GetObjectType()) {
        case kRqList:
            if (As<RqList>(a).IsDistinct() != As<RqList>(b).IsDistinct() ||
                As<RqList>(a).IsArtifactListNode() != As<RqList>(b).IsArtifactListNode())
                return "distinct or artifact flag";
            break;
        case kRqUnion:
            return As<RqUnion>(a).IsAll() != As<RqUnion>(b).IsAll() ? "all flag" : "";
        case kRqIntersect:
            return As<RqIntersect>(a).IsAll() != As<RqIntersect>(b).IsAll() ? "all flag" : "";
        case kRqExcept:
            return As<RqExcept>(a).IsAll() != As<RqExcept>(b).IsAll() ? "all flag" : "";
        case kRqBreakFilter:
            return As<RqBreakFilter>(a).BreakColumnIndexes() !=
                           As<RqBreakFilter>(b).BreakColumnIndexes()
                       ? "break column indexes"
                       : "";
        case kRqCacheList:
            return As<RqCacheList>(a).GetMarker() != As<RqCacheList>(b).GetMarker() ? "marker" : "";
        case kRqProjection:
            return As<RqProjection>(a).PeekNextColumnNum() !=
                           As<RqProjection>(b).PeekNextColumnNum()
                       ? "next column number"
                       : "";
        case kRqDerivedColumn:
            if (As<RqDerivedColumn>(a).GetColumnNum() != As<RqDerivedColumn>(b).GetColumnNum())
                return "column number";
            return As<RqDerivedColumn>(a).GetBreakStatus() !=
                           As<RqDerivedColumn>(b).GetBreakStatus()
                       ? "break status"
                       : "";
        case kRqGroupBy:
            return As<RqGroupBy>(a).GetInternalExecutionMode() !=
                           As<RqGroupBy>(b).GetInternalExecutionMode()
                       ? "execution mode"
                       : "";
        case kRqOrderBy:
            if (As<RqOrderBy>(a).IsSticky() != As<RqOrderBy>(b).IsSticky())
                return "sticky flag";
            return As<RqOrderBy>(a).GetStickyTypes() != As<RqOrderBy>(b).GetStickyTypes()
                       ? "sticky types"
                       : "";
        case kRqSortSpec: {
            const auto& x = As<RqSortSpec>(a);
            const auto& y = As<RqSortSpec>(b);
            if (x.GetColumnNumber() != y.GetColumnNumber() ||
                x.GetSortDirection() != y.GetSortDirection() ||
                x.GetNullSortDirection() != y.GetNullSortDirection() ||
                x.IsLogicalSelectList() != y.IsLogicalSelectList() ||
                x.IsCaseInsensitive() != y.IsCaseInsensitive())
                return "sort key";
            break;
        }
        case kRqTableReference: {
            const auto& x = As<RqTableReference>(a);
            const auto& y = As<RqTableReference>(b);
            if (x.GetJoinType() != y.GetJoinType() ||
                x.GetDrivingTableHint() != y.GetDrivingTableHint() ||
                x.GetLeftJoinColumnIndexes() != y.GetLeftJoinColumnIndexes() ||
                x.GetRightJoinColumnIndexes() != y.GetRightJoinColumnIndexes())
                return "join fields";
            break;
        }
        case kRqJoinNode:
            return As<RqJoinNode>(a).IsPreserved() != As<RqJoinNode>(b).IsPreserved()
                       ? "preserved flag"
                       : "";
        case kRqEntity:
            return As<RqEntity>(a).GetID() != As<RqEntity>(b).GetID() ||
                           As<RqEntity>(a).GetName() != As<RqEntity>(b).GetName()
                       ? "entity"
                       : "";
        case kRqCache:
        case kRqXSACache: {
            LogicalPlanBytes x;
            LogicalPlanBytes y;
            As<RqCache>(a).GetLogicalPlan(x);
            As<RqCache>(b).GetLogicalPlan(y);
            return x != y ? "logical plan" : "";
        }
        default:
            break;
    }
    if (a.IsKindOf(kRqAbstractTable)) {
        if (As<RqAbstractTable>(a).GetTableNum() != As<RqAbstractTable>(b).GetTableNum())
            return "table number";
        if (a.IsKindOf(kRqIdentifiedTable) &&
            As<RqIdentifiedTable>(a).GetTableID() != As<RqIdentifiedTable>(b).GetTableID())
            return "table id";
        switch (a.GetObjectType()) {
            case kRqTransientOpaqueTable:
                return As<RqTransientOpaqueTable>(a).GetColumnTypeInfos() !=
                               As<RqTransientOpaqueTable>(b).GetColumnTypeInfos()
                           ? "column types"
                           : "";
            case kRqExternalTable:
                return As<RqExternalTable>(a).GetName() != As<RqExternalTable>(b).GetName() ? "name"
                                                                                            : "";
            case kRqDerivedTable:
                return As<RqDerivedTable>(a).GetNestingLevel() !=
                               As<RqDerivedTable>(b).GetNestingLevel()
                           ? "nesting level"
                           : "";
            default:
                break;
        }
    }
    return std::string();
}

class Comparison {
public:
    bool Run(const RqNode& a, const RqNode& b, std::string* difference) {
        m_entries.push_back(Entry{&a, &b, -1, 0});
        for (size_t i = 0; i < m_entries.size(); ++i) {
            const Entry entry = m_entries[i];
            const RqNode& x = *entry.m_pA;
            const RqNode& y = *entry.m_pB;
            m_map.emplace(&x, &y);
            std::string what;
            if (x.GetObjectType() != y.GetObjectType())
                what = std::string("kind ") + RqNodeTypeName(x.GetObjectType()) + " vs " +
                       RqNodeTypeName(y.GetObjectType());
            else if (x.GetNumChildren() != y.GetNumChildren())
                what = std::to_string(x.GetNumChildren()) + " vs " +
                       std::to_string(y.GetNumChildren()) + " children";
            else
                what = FieldDifference(x, y);
            if (what.empty() && !SameIdentityGroup(x, y))
                what = "identity group";
            if (!what.empty())
                return Report(i, what, difference);
            for (int c = 0; c < x.GetNumChildren(); ++c) {
                const RqNode* childA = x.GetIthChild(c);
                const RqNode* childB = y.GetIthChild(c);
                if ((childA == nullptr) != (childB == nullptr))
                    return Report(i, "child " + std::to_string(c) + " absent on one side",
                                  difference);
                if (childA != nullptr)
                    m_entries.push_back(Entry{childA, childB, static_cast<int>(i), c});
            }
        }
        // Links, now that every node has its counterpart.
        for (size_t i = 0; i < m_entries.size(); ++i) {
            const RqNode& x = *m_entries[i].m_pA;
            const RqNode& y = *m_entries[i].m_pB;
            bool same = true;
            switch (x.GetObjectType()) {
                case kRqDerivedColumnReference:
                    same = Corresponds(As<RqDerivedColumnReference>(x).GetDerivedColumn(),
                                       As<RqDerivedColumnReference>(y).GetDerivedColumn());
                    break;
                case kRqSharedList:
                    same = Corresponds(As<RqSharedList>(x).GetSharedRqList(),
                                       As<RqSharedList>(y).GetSharedRqList());
                    break;
                case kRqJoinLink:
                    same = Corresponds(As<RqJoinLink>(x).GetFrom(), As<RqJoinLink>(y).GetFrom()) &&
                           Corresponds(As<RqJoinLink>(x).GetTo(), As<RqJoinLink>(y).GetTo());
                    break;
                default:
                    break;
            }
            if (!same)
                return Report(i, "points at a node that does not correspond", difference);
        }
        return true;
    }

private:
    struct Entry {
        const RqNode* m_pA;
        const RqNode* m_pB;
        int m_parent;
        int m_childIndex;
    };

    // Identities correspond one to one: nodes that share one on one side share one on the
    // other, and only those.
    bool SameIdentityGroup(const RqNode& a, const RqNode& b) {
        const uint32_t x = a.GetNodeID().GetNum();
        const uint32_t y = b.GetNodeID().GetNum();
        const auto [it, added] = m_idsAB.emplace(x, y);
        const auto [back, addedBack] = m_idsBA.emplace(y, x);
        return it->second == y && back->second == x;
    }

    // A link target outside the compared tree must be the very same node on both sides.
    bool Corresponds(const RqNode* a, const RqNode* b) const {
        if (a == nullptr || b == nullptr)
            return a == b;
        const auto it = m_map.find(a);
        return it != m_map.end() ? it->second == b : a == b;
    }

    bool Report(size_t index, const std::string& what, std::string* difference) const {
        if (difference != nullptr) {
            std::vector<size_t> chain;
            for (int i = static_cast<int>(index); i >= 0;
                 i = m_entries[static_cast<size_t>(i)].m_parent)
                chain.push_back(static_cast<size_t>(i));
            std::string path;
            for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
                const Entry& entry = m_entries[*it];
                if (!path.empty())
                    path += "/";
                path += RqNodeTypeName(entry.m_pA->GetObjectType());
                if (entry.m_parent >= 0)
                    path += "[" + std::to_string(entry.m_childIndex) + "]";
            }
            *difference = path + ": " + what;
        }
        return false;
    }

    std::vector<Entry> m_entries;
    std::unordered_map<const RqNode*, const RqNode*> m_map;
    std::unordered_map<uint32_t, uint32_t> m_idsAB;
    std::unordered_map<uint32_t, uint32_t> m_idsBA;
};

}  // namespace

bool RqTextSameTree(const RqNode& a, const RqNode& b, std::string* firstDifference) {
    return Comparison().Run(a, b, firstDifference);
}
