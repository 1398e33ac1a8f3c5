// Kind tables built from SQORRqNodeKinds.def.

#include "Query/Optimizer/Request/SQORRqNodeType.h"

#include <array>
#include <string_view>

#include "Query/Optimizer/Request/SQORRqNode.h"

namespace {

struct KindInfo {
    const char* m_name = nullptr;
    int m_parent = -1;
    int m_minOps = 0;
    int m_maxOps = 0;
    bool m_bAbstract = false;
};

#define RQ_ABSTRACT_G false
#define RQ_ABSTRACT_H false
#define RQ_ABSTRACT_A true
#define RQ_ABSTRACT_N true

constexpr std::array<KindInfo, kRqNodeTypeCount> MakeKindTable() {
    std::array<KindInfo, kRqNodeTypeCount> table{};
#define RQ_INFO_K(kind, value, cls, base, decl, minOps, maxOps) \
    table[value] = KindInfo{#cls, RqClassTraits<base>::kKind, minOps, maxOps, RQ_ABSTRACT_##decl};
#define RQ_INFO_M(kind, value, cls, base, decl, minOps, maxOps) \
    table[value] = KindInfo{#cls, -1, 0, 0, true};
#define RQ_INFO_C(kind, value, cls, base, decl, minOps, maxOps)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_INFO_##row(kind, value, cls, base, decl, minOps, maxOps)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_INFO_K
#undef RQ_INFO_M
#undef RQ_INFO_C
    return table;
}

constexpr std::array<KindInfo, kRqNodeTypeCount> kKindTable = MakeKindTable();

// Every value from 0 to the last one is a kind: the table has no holes.
constexpr bool TableIsDense() {
    for (const KindInfo& info : kKindTable) {
        if (info.m_name == nullptr)
            return false;
    }
    return true;
}
static_assert(TableIsDense(), "every value of RqNodeType_e must have a row in the kind table");

const KindInfo* Info(RqNodeType_e type) {
    const int value = static_cast<int>(type);
    return (value >= 0 && value < kRqNodeTypeCount) ? &kKindTable[value] : nullptr;
}

}  // namespace

const char* RqNodeTypeName(RqNodeType_e type) {
    const KindInfo* info = Info(type);
    return info ? info->m_name : "?";
}

bool RqNodeTypeFromName(std::string_view name, RqNodeType_e& type) {
    for (int value = 0; value < kRqNodeTypeCount; ++value) {
        if (name == kKindTable[value].m_name) {
            type = static_cast<RqNodeType_e>(value);
            return true;
        }
    }
    return false;
}

bool RqIsNodeTypeValue(int value) {
    return value >= 0 && value < kRqNodeTypeCount;
}

int RqNodeTypeParent(RqNodeType_e type) {
    const KindInfo* info = Info(type);
    return info ? info->m_parent : -1;
}

bool RqIsKindOf(RqNodeType_e type, RqNodeType_e ancestor) {
    for (int kind = type; kind >= 0; kind = kKindTable[kind].m_parent) {
        if (kind == ancestor)
            return true;
    }
    return false;
}

int RqNodeTypeMinOperands(RqNodeType_e type) {
    const KindInfo* info = Info(type);
    return info ? info->m_minOps : 0;
}

int RqNodeTypeMaxOperands(RqNodeType_e type) {
    const KindInfo* info = Info(type);
    return info ? info->m_maxOps : 0;
}

bool RqIsAbstractNodeType(RqNodeType_e type) {
    const KindInfo* info = Info(type);
    return info == nullptr || info->m_bAbstract;
}
