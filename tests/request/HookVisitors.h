#pragma once
// Visitors for tests: every overload of the interface calls one hook with the node and
// answers what the hook answers (true: the node's children are not walked).

#include <functional>
#include <utility>

#include "Query/Optimizer/Request/SQORAVisitorRqExpr.h"
#include "Query/Optimizer/Request/SQORAVisitorRqNode.h"
#include "Query/Optimizer/Request/SQORRqList.h"

class HookNodeVisitor : public AVisitorRqNode {
public:
    explicit HookNodeVisitor(std::function<bool(RqNode&)> hook) : m_hook(std::move(hook)) {}
#define RQ_NV_A(cls)              \
    bool Visit(cls& n) override { \
        return m_hook(n);         \
    }
#define RQ_NV_F(cls) RQ_NV_A(cls)
#define RQ_NV_N(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_NV_##nv(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_NV_A
#undef RQ_NV_F
#undef RQ_NV_N

private:
    std::function<bool(RqNode&)> m_hook;
};

// With `bDefaultsForResolvedKinds`, the overloads whose defaults report a logic error (the
// report aggregate, the no-aggregate marker) are left to those defaults.
class HookExprVisitor : public AVisitorRqExpr {
public:
    explicit HookExprVisitor(std::function<bool(RqExpr&)> hook,
                             bool bDefaultsForResolvedKinds = false)
        : m_hook(std::move(hook)), m_bDefaults(bDefaultsForResolvedKinds) {}
#define RQ_EV_A(cls)              \
    bool Visit(cls& e) override { \
        return m_hook(e);         \
    }
#define RQ_EV_F(cls) RQ_EV_A(cls)
#define RQ_EV_L(cls)                                               \
    bool Visit(cls& e) override {                                  \
        return m_bDefaults ? AVisitorRqExpr::Visit(e) : m_hook(e); \
    }
#define RQ_EV_N(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_EV_##ev(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_EV_A
#undef RQ_EV_F
#undef RQ_EV_L
#undef RQ_EV_N

private:
    std::function<bool(RqExpr&)> m_hook;
    bool m_bDefaults;
};
