#pragma once
// Node kinds of the request tree and the queries on them that need no node: names, the
// kind hierarchy and kind tests. Everything here is expanded from SQORRqNodeKinds.def.

#include <bitset>
#include <cstdint>
#include <initializer_list>
#include <string_view>

// The kinds of request-tree nodes. Values are fixed: they are stored and exchanged.
enum RqNodeType_e : int {
#define RQ_ENUM_K(kind, value) kind = value,
#define RQ_ENUM_M(kind, value) kind = value,
#define RQ_ENUM_C(kind, value)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_ENUM_##row(kind, value)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_ENUM_K
#undef RQ_ENUM_M
#undef RQ_ENUM_C
};

// One past the highest kind value.
inline constexpr int kRqNodeTypeCount = 253;

// A set of kinds, indexed by kind value.
using RqNodeTypeSet = std::bitset<kRqNodeTypeCount>;

// The class name of a kind ("RqList" for kRqList); "?" for a value that is not a kind.
const char* RqNodeTypeName(RqNodeType_e type);

// The kind whose class name is `name`; false when there is none.
bool RqNodeTypeFromName(std::string_view name, RqNodeType_e& type);

// True when `value` names a kind of the enum (markers included).
bool RqIsNodeTypeValue(int value);

// The kind of the nearest base class that has a kind of its own, or -1 for the root.
int RqNodeTypeParent(RqNodeType_e type);

// True when `type` is `ancestor` or a kind derived from it.
bool RqIsKindOf(RqNodeType_e type, RqNodeType_e ancestor);

// Operand counts that an expression kind accepts (max -1: unbounded); zeros for other kinds.
int RqNodeTypeMinOperands(RqNodeType_e type);
int RqNodeTypeMaxOperands(RqNodeType_e type);

// True for kinds whose classes are abstract (never instantiated).
bool RqIsAbstractNodeType(RqNodeType_e type);

// True for the expression kinds (RqExpr and everything derived from it).
inline bool RqIsExprType(RqNodeType_e type) {
    return RqIsKindOf(type, kRqExpr);
}
