#pragma once
// Searching the request tree (node collectors, ancestor lookups, equivalent sub-expressions,
// derived column references), naming a node by its path from the root, and the compact
// one-line text of a node or an expression used in diagnostics and tests.
//
// Every walk here keeps its own stack, so a deep tree (a long chain of ANDs, a deeply nested
// block) costs heap, not call stack.

#include <type_traits>
#include <vector>

#include "Platform/ZKString.h"
#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqNode.h"
#include "Query/Optimizer/Request/SQORRqTreeVector.h"

class ARpGateway;
class RqList;

// ---- Node collectors ------------------------------------------------------------------------

namespace RqUtilityDetail {
// Calls `pred` with the node as the predicate accepts it: `const RqNode*` when it can,
// otherwise `RqNode*` (the collectors never change a node themselves).
template <class Pred>
bool Test(Pred& pred, const RqNode* node) {
    if constexpr (std::is_invocable_r_v<bool, Pred&, const RqNode*>) {
        return pred(node);
    } else {
        return pred(const_cast<RqNode*>(node));
    }
}

// The work stack of a walk. Most subtrees searched are small expressions: their walk keeps
// its stack in place, and only a large subtree costs an allocation.
template <class NodePtr>
class WalkStack {
public:
    explicit WalkStack(NodePtr root) { Push(root); }
    bool Empty() const { return m_size == 0; }
    void Push(NodePtr node) {
        if (m_size < kInPlace)
            m_inPlace[m_size] = node;
        else
            m_spilled.push_back(node);
        ++m_size;
    }
    NodePtr Pop() {
        --m_size;
        if (m_size < kInPlace)
            return m_inPlace[m_size];
        NodePtr node = m_spilled.back();
        m_spilled.pop_back();
        return node;
    }

private:
    static constexpr size_t kInPlace = 32;
    NodePtr m_inPlace[kInPlace];
    std::vector<NodePtr> m_spilled;
    size_t m_size = 0;
};
}  // namespace RqUtilityDetail

// Appends to `out`, in pre-order and child order, every node of the subtree of `root` (the
// root included) that satisfies `pred`. With `bDescendIntoMatches` false the walk does not
// enter the subtree below a match. Null children are skipped.
template <class Pred>
void FindNodes(RqNode* root, Pred pred, RqNodeVector& out, bool bDescendIntoMatches = true) {
    if (root == nullptr)
        return;
    RqUtilityDetail::WalkStack<RqNode*> work(root);
    while (!work.Empty()) {
        RqNode* node = work.Pop();
        if (RqUtilityDetail::Test(pred, node)) {
            out.push_back(node);
            if (!bDescendIntoMatches)
                continue;
        }
        for (int i = node->GetNumChildren() - 1; i >= 0; --i) {
            if (RqNode* child = node->GetIthChild(i))
                work.Push(child);
        }
    }
}

// True when some node of the subtree of `root` (the root included) satisfies `pred`.
template <class Pred>
bool FoundNodes(const RqNode* root, Pred pred) {
    if (root == nullptr)
        return false;
    RqUtilityDetail::WalkStack<const RqNode*> work(root);
    while (!work.Empty()) {
        const RqNode* node = work.Pop();
        if (RqUtilityDetail::Test(pred, node))
            return true;
        for (int i = node->GetNumChildren() - 1; i >= 0; --i) {
            if (const RqNode* child = node->GetIthChild(i))
                work.Push(child);
        }
    }
    return false;
}

// The matches of `pred` in the subtree of `root` (the root included), in pre-order, cast
// to T: every node that `pred` accepts must be a T. By default only the outermost matches
// are collected (the walk does not enter a match); with `bDescendIntoMatches` the walk goes
// on below them too, so that matches nested in matches are collected as well (every union
// of a request, nested unions included).
template <class T, class Pred>
void FindTableNodes(RqNode* root, Pred pred, std::vector<T*>& out,
                    bool bDescendIntoMatches = false) {
    RqNodeVector found;
    FindNodes(root, pred, found, bDescendIntoMatches);
    for (RqNode* node : found)
        out.push_back(RqCast<T>(node));
}

// ---- Ancestors, children and paths ----------------------------------------------------------

class RqNodeUtility {
public:
    // The nearest RqList strictly above `node` (never the node itself), or null.
    static RqList* GetParentRqList(RqNode* node);
    static const RqList* GetParentRqList(const RqNode* node);
    // The nearest list of any kind (block, set operation, break filter, ...) strictly above
    // `node`, or null.
    static RqAbstractList* GetParentAbstractList(RqNode* node);
    // The nearest ancestor (never the node itself) of one of the kinds, or null.
    static RqNode* GetParentNodeOfType(RqNode* node, const RqNode::IsObjectType& type);
    static const RqNode* GetParentNodeOfType(const RqNode* node, const RqNode::IsObjectType& type);
    // The top of the tree that holds `node` (the node itself when it has no parent).
    static RqNode* GetRoot(RqNode* node);
    // True when `ancestor` is `node` or lies above it.
    static bool IsAncestorOrSelf(const RqNode* ancestor, const RqNode* node);
    // The lists directly below `node`: the outermost RqAbstractList nodes of its subtree,
    // the node itself excluded (the inner lists of its derived tables, the members of a set
    // operation, the inner list of a break filter, the query blocks of subqueries), in
    // pre-order. Lists nested inside those are not included.
    static void GetChildRqLists(RqNode* node, RqAbstractListVector& out);
    // The block that a block reads through its FROM clause: starting from a block (its FROM
    // clause is searched) or from a part of a FROM clause (join spec, join node, table
    // reference, derived table), the walk goes through join specs, join nodes, table
    // references and derived tables only, in child order, and the first derived table met
    // decides: its inner list when that is a block (RqList), else null. A derived table over
    // a set operation, a break filter, a shared or a cache list has no single block below it,
    // so it gives null rather than a block found deeper. Search conditions, subqueries and
    // the blocks nested further down are never entered. Null from any other node and when
    // the FROM clause has no derived table.
    static RqList* GetChildRqList(RqNode* node);
    // Names the node by its place in the tree: the kind name of the root, then for each node
    // on the way down its kind name and its index among its parent's children, joined by
    // "/", e.g. "RqHandleNode/RqList[0]/RqJoinSpec[1]/RqJoinNode[0]". Null gives "<null>".
    static ZKString GetPath(const RqNode* node);
    // A path of GetPath's form cut for a message a person reads: beyond `maxSteps` steps, the
    // first two and the last four are kept around "/...(n more)...", since a deep request's
    // full path would run to tens of kilobytes on one line.
    static ZKString AbbreviatePath(const ZKString& path, int maxSteps = 12);
    // The class name of the node's kind ("RqList"); "<null>" for null.
    static ZKString GetKindName(const RqNode* node);
    // The node's own fields as space-separated words, without its kind, identity, target or
    // children: "label=inner distinct limit=10" for a block, "#3 DESC" for a sort key, ...
    // Empty for a node without fields and for expressions (their text is ToString's).
    static ZKString GetFieldsText(const RqNode* node, ARpGateway* rp = nullptr);
};

// ---- Expressions ----------------------------------------------------------------------------

class SubExprFinder {
public:
    // The first sub-expression of `root` (the root included), in pre-order over the
    // operands, that is equivalent to `pattern` (RqEquivalence); null when there is none.
    // Query blocks below subqueries are not searched.
    static const RqExpr* FindEquivalentSubExpr(const RqExpr* root, const RqExpr& pattern);
    static RqExpr* FindEquivalentSubExpr(RqExpr* root, const RqExpr& pattern);
};

class RqExprUtility {
public:
    // Appends every RqDerivedColumnReference of the subtree of `node` (the node included),
    // in pre-order, including those inside the query blocks of subqueries.
    static void GetAllDerivedColumnReferences(const RqNode* node,
                                              RqDerivedColumnReferenceVector& out);
};

// ---- Text -----------------------------------------------------------------------------------

// How ToString writes an expression of each kind (see SQORRqText.cpp for the forms). Every
// expression kind gets one deliberately: operators from the table of operator forms
// (SQORRqExprForm.h), the keyword predicates and the leaves with fields of their own by
// name, the families (columns, literals, aggregates, subqueries, column lists) by the kind
// hierarchy, and the function form NAME(args) for every other kind, whose class holds
// nothing but its operands. kNone for a value that is not the kind of any expression.
enum class RqExprTextForm {
    kNone,
    kOperator,
    kPredicate,
    kColumn,
    kLiteral,
    kNamedValue,
    kCast,
    kExternalData,
    kColumnList,
    kAggregate,
    kSubquery,
    kFunction,
};
RqExprTextForm GetExprTextForm(RqNodeType_e kind);

// A deterministic one-line text of a node. An expression is written in a compact infix form
// (see SQORRqText.cpp for the forms); any other node as its kind name followed by its own
// fields and, for nodes that hold expressions directly (derived columns, filters, GROUP BY),
// ": " and the text of those expressions. With a gateway, repository names are looked up for
// target columns and tables that carry no name of their own. Null gives "<null>".
ZKString ToString(const RqNode* node, ARpGateway* rp = nullptr);
// "(" + the texts of the expressions joined by ", " + ")".
ZKString ToString(const RqExprVector& exprs, ARpGateway* rp = nullptr);
