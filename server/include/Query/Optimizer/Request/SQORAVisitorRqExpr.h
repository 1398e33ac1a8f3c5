#pragma once
// The expression visitor: one Visit overload per expression class, in a fixed order.
// RqExpr::Accept(AVisitorRqExpr&) follows the same contract as the node traversal: a true
// answer skips the expression's operands, false goes on into them in operand order.

#include "Platform/ZKNodeAlloc.h"
#include "Query/Optimizer/Request/SQORRqNode.h"

class AVisitorRqExpr : public MemAllocNewdel {
public:
    virtual ~AVisitorRqExpr() = default;

#define RQ_EV_A(cls) virtual bool Visit(cls& expr) = 0;
#define RQ_EV_F(cls)           \
    virtual bool Visit(cls&) { \
        return false;          \
    }
#define RQ_EV_L(cls) virtual bool Visit(cls& expr);
#define RQ_EV_N(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_EV_##ev(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_EV_A
#undef RQ_EV_F
#undef RQ_EV_L
#undef RQ_EV_N
};

// The report aggregate and the no-aggregate marker are resolved before any visitor of the
// library meets them; a visitor that reaches one without overriding its overload is a
// programming error. The reports name fixed lines of this header so that logs stay
// comparable across builds.
inline bool AVisitorRqExpr::Visit(RqExprAggrReport&) {
    ZKAssert::handleLogicError(ZK_WIDEN(__FILE__), 366, ZKString(L""));
}
inline bool AVisitorRqExpr::Visit(RqExprNoAggregate&) {
    ZKAssert::handleLogicError(ZK_WIDEN(__FILE__), 349, ZKString(L""));
}
