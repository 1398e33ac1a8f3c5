// The per-class members that every concrete node class declares through RQ_NODE_CLASS:
// visitor dispatch and the shallow copy. Expanded from SQORRqNodeKinds.def, so that a new
// kind needs nothing here.

#include <type_traits>

#include "Query/Optimizer/Request/SQORAVisitorRqExpr.h"
#include "Query/Optimizer/Request/SQORAVisitorRqNode.h"
#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace {

// Presents `node` to the overload that SlotOf<T> names; a class without one anywhere in its
// base chain has nothing to present.
template <template <class> class SlotOf, class Visitor, class T>
bool Dispatch(Visitor& visitor, T& node) {
    using Slot = typename SlotOf<T>::type;
    if constexpr (std::is_void_v<Slot>) {
        (void)visitor;
        (void)node;
        return false;
    } else {
        return visitor.Visit(static_cast<Slot&>(node));
    }
}

}  // namespace

#define RQ_DEFINE_MEMBERS(cls)                                           \
    static_assert(std::is_base_of_v<RqClassTraits<cls>::Base, cls>,      \
                  #cls " must derive from the base its kind row names"); \
    bool cls::DispatchVisit(AVisitorRqNode& visitor) {                   \
        return Dispatch<RqNodeSlotOf>(visitor, *this);                   \
    }                                                                    \
    bool cls::DispatchExprVisit(AVisitorRqExpr& visitor) {               \
        return Dispatch<RqExprSlotOf>(visitor, *this);                   \
    }                                                                    \
    RqNode* cls::CloneNode(ZKAllocSite& site) const {                    \
        return new (site) cls(*this);                                    \
    }
#define RQ_CHECK_BASE(cls)                                          \
    static_assert(std::is_base_of_v<RqClassTraits<cls>::Base, cls>, \
                  #cls " must derive from the base its kind row names");
#define RQ_DEF_G(cls) RQ_DEFINE_MEMBERS(cls)
#define RQ_DEF_H(cls) RQ_DEFINE_MEMBERS(cls)
#define RQ_DEF_A(cls) RQ_CHECK_BASE(cls)
#define RQ_DEF_N(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_DEF_##decl(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
