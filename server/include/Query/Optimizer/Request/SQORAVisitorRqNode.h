#pragma once
// The node visitor: one Visit overload per visitable node class, in a fixed order. Every
// expression, whatever its kind, is presented through Visit(RqExpr&).
//
// Traversal: RqNode::Accept presents a node to its overload before any of its children.
// An overload that returns true has dealt with the node's subtree itself, and the traversal
// skips the node's children; false lets the traversal go on into the children, in child
// order. A Visit may rewrite the node it is given and the subtree below it, but must not
// destroy the node itself or any of its ancestors.

#include "Query/Optimizer/Request/SQORRqNode.h"

class AVisitorRqNode {
public:
    virtual ~AVisitorRqNode() = default;

#define RQ_NV_A(cls) virtual bool Visit(cls& node) = 0;
#define RQ_NV_F(cls)           \
    virtual bool Visit(cls&) { \
        return false;          \
    }
#define RQ_NV_N(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_NV_##nv(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_NV_A
#undef RQ_NV_F
#undef RQ_NV_N

    // True asks the traversal to present children before their parent. Every visitor of
    // the library walks in pre-order.
    virtual bool IsPostOrderVisitor() const {
        return false;
    }

    // Line separator for visitors that print.
    static const wchar_t* const kNewLine;
};
