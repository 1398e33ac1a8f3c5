// Structural comparison of two request trees. Stricter than RqEquivalence: the text format
// must carry every field, so execution choices, labels, targets and identities count too.
// A node's fields are compared twice over: through its getters, read here independently of
// the text, and as the writer prints them, so that the comparison cannot answer "same" for
// a field that the text carries, whatever kind it belongs to.

#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "SQORTextRequestInternal.h"

namespace {

using namespace rqtext;

// True when `a` is a T and the fields `fields` reads of it differ from those of `b` (a node
// of the same kind).
template <class T, class F>
bool Differ(const RqNode& a, const RqNode& b, F fields) {
    const T* x = RqDynCast<T>(&a);
    return x != nullptr && fields(*x) != fields(*RqCast<T>(&b));
}

bool AllFlag(const RqNode& node) {
    bool all = false;
    GetAllFlag(node, all);
    return all;
}

std::tuple<VoidID, ZKString, std::string> NamesOf(const RqNode& node) {
    VoidID id;
    ZKString name;
    std::string nameField;
    GetMetadata(node, id, name);
    GetNameField(node, nameField);
    return {id, name, nameField};
}

std::vector<UInt16Vector> GroupingSetsOf(const RqGroupBy& groupBy) {
    std::vector<UInt16Vector> sets;
    for (int i = 0; i < groupBy.GetNumGroupingSets(); ++i)
        sets.push_back(groupBy.GetIthGroupingSet(i));
    return sets;
}

LogicalPlanBytes PlanOf(const RqCache& cache) {
    LogicalPlanBytes plan;
    cache.GetLogicalPlan(plan);
    return plan;
}

// What differs between the getters of two expressions of the same kind.
std::string ExprGetterDifference(const RqExpr& a, const RqExpr& b) {
    // References are compared by what they point at, after the walk.
    if (!a.IsKindOf(kRqDerivedColumnReference) && a.CompareFields(b) != 0)
        return "expression fields";
    if (Differ<RqExprAggr>(a, b, [](const RqExprAggr& n) { return GetAggrFlags(n); }))
        return "aggregate flags";
    if (Differ<RqExprColumnList>(a, b, [](const RqExprColumnList& n) { return n.IsSorted(); }))
        return "sorted flag";
    return std::string();
}

// What differs between the getters of two nodes of the same kind that are not expressions.
std::string NodeGetterDifference(const RqNode& a, const RqNode& b) {
    if (Differ<RqAbstractList>(a, b, [](const RqAbstractList& n) {
            return std::tuple(n.GetLabel(), n.GetRowLimit(), n.GetRowOffset(), n.IsShared(),
                              n.IsWithSupported(), AllFlag(n));
        }))
        return "list head";
    if (Differ<RqList>(a, b, [](const RqList& n) {
            return std::tuple(n.IsDistinct(), n.IsArtifactListNode());
        }))
        return "distinct or artifact flag";
    if (Differ<RqBreakFilter>(a, b, [](const RqBreakFilter& n) { return n.BreakColumnIndexes(); }))
        return "break column indexes";
    if (Differ<RqCacheList>(a, b, [](const RqCacheList& n) { return n.GetMarker(); }))
        return "marker";
    if (Differ<RqProjection>(a, b, [](const RqProjection& n) { return n.PeekNextColumnNum(); }))
        return "next column number";
    if (Differ<RqDerivedColumn>(a, b, [](const RqDerivedColumn& n) {
            return std::tuple(n.GetColumnNum(), n.GetBreakStatus());
        }))
        return "column number or break status";
    if (Differ<RqGroupBy>(a, b, [](const RqGroupBy& n) {
            return std::tuple(n.GetInternalExecutionMode(), GroupingSetsOf(n));
        }))
        return "execution mode or grouping sets";
    if (Differ<RqOrderBy>(
            a, b, [](const RqOrderBy& n) { return std::tuple(n.IsSticky(), n.GetStickyTypes()); }))
        return "sticky flag or types";
    if (Differ<RqSortSpec>(a, b, [](const RqSortSpec& n) {
            return std::tuple(n.GetColumnNumber(), n.GetSortDirection(), n.GetNullSortDirection(),
                              n.IsLogicalSelectList(), n.IsCaseInsensitive());
        }))
        return "sort key";
    if (Differ<RqTableReference>(a, b, [](const RqTableReference& n) {
            return std::tuple(n.GetJoinType(), n.GetDrivingTableHint(),
                              n.GetLeftJoinColumnIndexes(), n.GetRightJoinColumnIndexes());
        }))
        return "join fields";
    if (Differ<RqJoinNode>(a, b, [](const RqJoinNode& n) { return n.IsPreserved(); }))
        return "preserved flag";
    if (Differ<RqAbstractTable>(a, b, [](const RqAbstractTable& n) { return n.GetTableNum(); }))
        return "table number";
    if (Differ<RqIdentifiedTable>(a, b, [](const RqIdentifiedTable& n) { return n.GetTableID(); }))
        return "table id";
    if (Differ<RqTransientOpaqueTable>(
            a, b, [](const RqTransientOpaqueTable& n) { return n.GetColumnTypeInfos(); }))
        return "column types";
    if (Differ<RqExternalTable>(a, b, [](const RqExternalTable& n) { return n.GetName(); }))
        return "name";
    if (Differ<RqDerivedTable>(a, b, [](const RqDerivedTable& n) { return n.GetNestingLevel(); }))
        return "nesting level";
    if (Differ<RqCache>(a, b, [](const RqCache& n) { return PlanOf(n); }))
        return "logical plan";
    return NamesOf(a) != NamesOf(b) ? "name or identifier" : std::string();
}

// The printed fields on one line, for the message.
std::string OneLine(const std::string& text) {
    std::string out;
    bool blank = false;
    for (const char c : text) {
        if (c == '\n' || c == ' ') {
            blank = true;
            continue;
        }
        if (blank && !out.empty())
            out += ' ';
        blank = false;
        out += c;
    }
    return out;
}

// What differs between the own fields of two nodes of the same kind; empty when nothing.
std::string FieldDifference(const RqNode& a, const RqNode& b) {
    if (a.GetTargetType() != b.GetTargetType())
        return "target type " + std::to_string(a.GetTargetType()) + " vs " +
               std::to_string(b.GetTargetType());
    if (a.GetTargetID() != b.GetTargetID())
        return "target id " + a.GetTargetID().ToString().ToUtf8() + " vs " +
               b.GetTargetID().ToString().ToUtf8();
    const auto* expr = RqDynCast<RqExpr>(&a);
    std::string what = expr != nullptr ? ExprGetterDifference(*expr, *RqCast<RqExpr>(&b))
                                       : NodeGetterDifference(a, b);
    if (!what.empty())
        return what;
    const std::string printedA = OwnFieldsText(a);
    const std::string printedB = OwnFieldsText(b);
    if (printedA != printedB)
        return "printed fields " + OneLine(printedA) + " vs " + OneLine(printedB);
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
            if (const auto* reference = RqDynCast<RqDerivedColumnReference>(&x)) {
                same = Corresponds(reference->GetDerivedColumn(),
                                   RqCast<RqDerivedColumnReference>(&y)->GetDerivedColumn());
            } else if (const auto* shared = RqDynCast<RqSharedList>(&x)) {
                same = Corresponds(shared->GetSharedRqList(),
                                   RqCast<RqSharedList>(&y)->GetSharedRqList());
            } else if (const auto* link = RqDynCast<RqJoinLink>(&x)) {
                const auto* other = RqCast<RqJoinLink>(&y);
                same = Corresponds(link->GetFrom(), other->GetFrom()) &&
                       Corresponds(link->GetTo(), other->GetTo());
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
