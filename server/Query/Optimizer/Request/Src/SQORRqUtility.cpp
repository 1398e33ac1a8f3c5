// Tree searches: collectors, ancestors, the block a block reads, node paths, equivalent
// sub-expressions and derived column references. The text of nodes is in SQORRqText.cpp.

#include "Query/Optimizer/Request/SQORRqUtility.h"

#include <vector>

#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqList.h"

// ---- RqNodeUtility --------------------------------------------------------------------------

RqList* RqNodeUtility::GetParentRqList(RqNode* node) {
    return RqDynCast<RqList>(GetParentNodeOfType(node, RqNode::IsObjectType(kRqList)));
}

const RqList* RqNodeUtility::GetParentRqList(const RqNode* node) {
    return RqDynCast<RqList>(GetParentNodeOfType(node, RqNode::IsObjectType(kRqList)));
}

RqAbstractList* RqNodeUtility::GetParentAbstractList(RqNode* node) {
    return RqDynCast<RqAbstractList>(
        GetParentNodeOfType(node, RqNode::IsObjectType(kRqAbstractList)));
}

RqNode* RqNodeUtility::GetParentNodeOfType(RqNode* node, const RqNode::IsObjectType& type) {
    if (node == nullptr)
        return nullptr;
    for (RqNode* up = node->GetParent(); up != nullptr; up = up->GetParent()) {
        if (type(up))
            return up;
    }
    return nullptr;
}

const RqNode* RqNodeUtility::GetParentNodeOfType(const RqNode* node,
                                                 const RqNode::IsObjectType& type) {
    return GetParentNodeOfType(const_cast<RqNode*>(node), type);
}

RqNode* RqNodeUtility::GetRoot(RqNode* node) {
    if (node == nullptr)
        return nullptr;
    while (node->GetParent() != nullptr)
        node = node->GetParent();
    return node;
}

bool RqNodeUtility::IsAncestorOrSelf(const RqNode* ancestor, const RqNode* node) {
    if (ancestor == nullptr)
        return false;
    for (const RqNode* up = node; up != nullptr; up = up->GetParent()) {
        if (up == ancestor)
            return true;
    }
    return false;
}

void RqNodeUtility::GetChildRqLists(RqNode* node, RqAbstractListVector& out) {
    if (node == nullptr)
        return;
    const RqNode::IsObjectType isList(kRqAbstractList);
    for (int i = 0; i < node->GetNumChildren(); ++i) {
        FindTableNodes<RqAbstractList>(node->GetIthChild(i), isList, out);
    }
}

RqList* RqNodeUtility::GetChildRqList(RqNode* node) {
    if (RqList* block = RqDynCast<RqList>(node))
        node = block->GetJoinSpec();
    const RqNode::IsObjectType isFromPart({kRqJoinSpec, kRqJoinNode, kRqTableReference});
    std::vector<RqNode*> work;
    if (node != nullptr)
        work.push_back(node);
    while (!work.empty()) {
        RqNode* part = work.back();
        work.pop_back();
        if (RqDerivedTable* derived = RqDynCast<RqDerivedTable>(part))
            return RqDynCast<RqList>(derived->GetInnerList());
        if (!isFromPart(part))
            continue;
        for (int i = part->GetNumChildren() - 1; i >= 0; --i) {
            RqNode* child = part->GetIthChild(i);
            if (child != nullptr && (isFromPart(child) || child->IsKindOf(kRqAbstractTable)))
                work.push_back(child);
        }
    }
    return nullptr;
}

ZKString RqNodeUtility::GetPath(const RqNode* node) {
    if (node == nullptr)
        return L"<null>";
    std::vector<const RqNode*> chain;
    for (const RqNode* up = node; up != nullptr; up = up->GetParent())
        chain.push_back(up);
    ZKString path = GetKindName(chain.back());
    for (auto it = chain.rbegin() + 1; it != chain.rend(); ++it) {
        path +=
            L"/" + GetKindName(*it) + L"[" + ZKString::FromInt((*it)->GetIndexInParent()) + L"]";
    }
    return path;
}

ZKString RqNodeUtility::AbbreviatePath(const ZKString& path, int maxSteps) {
    const std::wstring& text = path;
    std::vector<size_t> slashes;
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] == L'/')
            slashes.push_back(i);
    constexpr int kHead = 2;
    constexpr int kTail = 4;
    const int steps = static_cast<int>(slashes.size()) + 1;
    if (steps <= maxSteps || steps <= kHead + kTail + 1)
        return path;
    const size_t headEnd = slashes[kHead - 1];
    const size_t tailStart = slashes[slashes.size() - kTail];
    const int left = steps - kHead - kTail;
    return ZKString(text.substr(0, headEnd) + L"/...(" + std::to_wstring(left) + L" more)..." +
                    text.substr(tailStart));
}

// ---- Expressions ----------------------------------------------------------------------------

const RqExpr* SubExprFinder::FindEquivalentSubExpr(const RqExpr* root, const RqExpr& pattern) {
    if (root == nullptr)
        return nullptr;
    const RqEquivalence equivalent;
    std::vector<const RqExpr*> work{root};
    while (!work.empty()) {
        const RqExpr* expr = work.back();
        work.pop_back();
        if (equivalent(*expr, pattern))
            return expr;
        for (int i = expr->GetNumOperands() - 1; i >= 0; --i) {
            if (const RqExpr* operand = expr->GetIthOperand(i))
                work.push_back(operand);
        }
    }
    return nullptr;
}

RqExpr* SubExprFinder::FindEquivalentSubExpr(RqExpr* root, const RqExpr& pattern) {
    return const_cast<RqExpr*>(FindEquivalentSubExpr(static_cast<const RqExpr*>(root), pattern));
}

void RqExprUtility::GetAllDerivedColumnReferences(const RqNode* node,
                                                  RqDerivedColumnReferenceVector& out) {
    RqNodeVector found;
    FindNodes(const_cast<RqNode*>(node), RqNode::IsObjectType(kRqDerivedColumnReference), found);
    for (RqNode* ref : found)
        out.push_back(RqCast<RqDerivedColumnReference>(ref));
}
