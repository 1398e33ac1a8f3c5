// Indented dump of a request tree, one node per line.

#include "Query/Optimizer/Request/SQORRqDumpout.h"

#include <utility>
#include <vector>

#include "Platform/ServerInfo.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"

namespace {

ZKString TargetText(const RqNode& node) {
    ZKString text;
    const ServerInfo::TargetType type = node.GetTargetType();
    if (type != ServerInfo::kUnknown) {
        const wchar_t* name = ServerInfo::TargetTypeName(type);
        text += L" target=";
        text += name != nullptr ? ZKString(name) : ZKString::FromInt(static_cast<int>(type));
    }
    if (!node.GetTargetID().IsNullID())
        text += L" targetID=" + node.GetTargetID().ToString();
    return text;
}

}  // namespace

ZKString RqDumpout::StringFrom(const RqNode* root, ARpGateway* rp) {
    if (root == nullptr)
        return L"<null>\n";
    ZKString out;
    // Explicit stack of (node, depth): a deep tree must not exhaust the call stack.
    std::vector<std::pair<const RqNode*, int>> work{{root, 0}};
    std::vector<const RqNode*> below;
    while (!work.empty()) {
        const auto [node, depth] = work.back();
        work.pop_back();
        out.append(static_cast<size_t>(depth) * 2, L' ');
        out += RqNodeUtility::GetKindName(node);
        out += L" " + node->GetNodeID().ToString();
        out += TargetText(*node);
        below.clear();
        if (node->IsExpr()) {
            out += L": " + ToString(node, rp);
            // The expression's text names the blocks of its subqueries; their contents
            // follow below it.
            RqNodeVector subqueries;
            FindNodes(const_cast<RqNode*>(node), RqNode::IsObjectType(kRqExprSubquery), subqueries,
                      false);
            for (const RqNode* subquery : subqueries) {
                for (int i = 0; i < subquery->GetNumChildren(); ++i) {
                    const RqNode* child = subquery->GetIthChild(i);
                    if (child != nullptr && !child->IsExpr())
                        below.push_back(child);
                }
            }
        } else {
            const ZKString fields = RqNodeUtility::GetFieldsText(node, rp);
            if (!fields.empty())
                out += L" " + fields;
            for (int i = 0; i < node->GetNumChildren(); ++i) {
                if (const RqNode* child = node->GetIthChild(i))
                    below.push_back(child);
            }
        }
        out += L"\n";
        for (auto it = below.rbegin(); it != below.rend(); ++it)
            work.emplace_back(*it, depth + 1);
    }
    return out;
}

void RqDumpout::DebugPrint(const RqNode* node, std::wostream& out, ARpGateway* rp) {
    out << StringFrom(node, rp);
    out.flush();
}
