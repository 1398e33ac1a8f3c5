#pragma once
// Default Visit overloads for visitors that care about a few kinds of node, so that a
// visitor writes only the overloads it uses. The visitor interfaces stay as they are; these
// templates sit between an interface (or a class derived from it, such as RewriteRule) and
// the visitor:
//
//     class MyRule : public RqNodeVisitorDefaults<RewriteRule> {
//     public:
//         RQ_VISIT_DEFAULTS(RqNodeVisitorDefaults<RewriteRule>);
//         bool Visit(RqHandleNode& root) override;           // one kind
//         bool VisitAny(RqAbstractTable& table) override;    // every table kind alike
//         ...
//     };
//
// Every overload that the visitor does not write hands its node to the family hook of the
// nearest abstract class the node's class derives from: VisitAny(RqIdentifiedTable&) for an
// atomic table, VisitAny(RqExprAggr&) for a sum, VisitAny(RqExprCond&) for a LIKE. A family
// hook that the visitor does not write hands on to the family above it, up to the root
// hook, which answers false: the walk goes on into the node's children. So overriding
// VisitAny(RqAbstractTable&) catches every table kind that has no overload of its own, and
// overriding the root hook changes the answer for every node the visitor leaves alone.
//
// The overloads and the families are expanded from the kind table (SQORRqNodeKinds.def): an
// overload for every row with a slot in the interface, a family hook for every abstract
// class. A family that the visitor never meets (expression families in a node visitor, which
// presents every expression through Visit(RqExpr&); list and table families in an expression
// visitor) gets a hook whose parameter no node converts to, so that overriding it does not
// compile.
//
// The report aggregate and the no-aggregate marker keep the interface's own default, a logic
// error: they are resolved before any visitor of the library runs, and reaching one is a
// programming error that no family hook may hide. A visitor that expects them overrides
// their Visit overloads.

#include <type_traits>

#include "Query/Optimizer/Request/SQORAVisitorRqExpr.h"
#include "Query/Optimizer/Request/SQORAVisitorRqNode.h"
#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqList.h"

// Inside a class derived from one of the defaults: keeps the inherited Visit and VisitAny
// overloads visible beside the ones the class writes.
#define RQ_VISIT_DEFAULTS(Base) \
    using Base::Visit;          \
    using Base::VisitAny

// The parameter type of the hook of a family that a visitor never meets.
template <class Family>
struct RqUnmetFamily {
    RqUnmetFamily() = delete;
};

// The hook parameter of family F in a node visitor, and in an expression visitor.
template <class F>
using RqNodeFamilyParam = std::conditional_t<std::is_base_of_v<RqExpr, F>, RqUnmetFamily<F>, F>;
template <class F>
using RqExprFamilyParam = std::conditional_t<std::is_base_of_v<RqExpr, F>, F, RqUnmetFamily<F>>;

// Both expansions below declare one family hook per abstract class of the kind table, in the
// shape RQ_FAMILY_HOOK_A(cls, Param) gives, and nothing for the other rows.
#define RQ_FAMILY_HOOK_A(cls, Param)          \
    virtual bool VisitAny(Param<cls>& node) { \
        return VisitParentFamily<cls>(node);  \
    }
#define RQ_FAMILY_HOOK_G(cls, Param)
#define RQ_FAMILY_HOOK_H(cls, Param)
#define RQ_FAMILY_HOOK_N(cls, Param)

// The slots that have a default in these templates: abstract ones and those whose default
// answers false. L (logic error) and N (no slot) rows get nothing.
#define RQ_DEFAULT_SLOT_A(cls)       \
    bool Visit(cls& node) override { \
        return VisitAny(node);       \
    }
#define RQ_DEFAULT_SLOT_F(cls) RQ_DEFAULT_SLOT_A(cls)
#define RQ_DEFAULT_SLOT_L(cls)
#define RQ_DEFAULT_SLOT_N(cls)

template <class Base>
class RqNodeVisitorDefaults : public Base {
    static_assert(std::is_base_of_v<AVisitorRqNode, Base>, "a node visitor's defaults");

public:
    using Base::Base;
    using Base::Visit;

#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_DEFAULT_SLOT_##nv(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND

    // The root family: every node that nothing nearer handles.
    virtual bool VisitAny(RqNode&) {
        return false;
    }
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_FAMILY_HOOK_##decl(cls, RqNodeFamilyParam)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND

private:
    template <class Family, class Node>
    bool VisitParentFamily(Node& node) {
        if constexpr (std::is_same_v<Node, RqUnmetFamily<Family>>) {
            return false;  // never called: no node converts to the parameter
        } else {
            return VisitAny(static_cast<typename RqClassTraits<Family>::Base&>(node));
        }
    }
};

template <class Base = AVisitorRqExpr>
class RqExprVisitorDefaults : public Base {
    static_assert(std::is_base_of_v<AVisitorRqExpr, Base>, "an expression visitor's defaults");

public:
    using Base::Base;
    // Keeps the logic-error overloads of the report aggregate and the no-aggregate marker
    // visible beside the defaults.
    using Base::Visit;

#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_DEFAULT_SLOT_##ev(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND

    // RqExpr's row gives the root family of expressions.
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_FAMILY_HOOK_##decl(cls, RqExprFamilyParam)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND

private:
    template <class Family, class Node>
    bool VisitParentFamily(Node& node) {
        if constexpr (std::is_same_v<Node, RqUnmetFamily<Family>>) {
            return false;  // never called: no node converts to the parameter
        } else if constexpr (std::is_same_v<Family, RqExpr>) {
            return false;  // every expression that nothing nearer handles
        } else {
            return VisitAny(static_cast<typename RqClassTraits<Family>::Base&>(node));
        }
    }
};

#undef RQ_FAMILY_HOOK_A
#undef RQ_FAMILY_HOOK_G
#undef RQ_FAMILY_HOOK_H
#undef RQ_FAMILY_HOOK_N
#undef RQ_DEFAULT_SLOT_A
#undef RQ_DEFAULT_SLOT_F
#undef RQ_DEFAULT_SLOT_L
#undef RQ_DEFAULT_SLOT_N
