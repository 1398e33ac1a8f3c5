// The compatibility flag catalogue and the layered resolution of flag values.

#include "Platform/CompatFlags.h"

#include <atomic>
#include <cstdint>
#include <iterator>

#include "Platform/Repository.h"
#include "Platform/SystemUtility.h"
#include "Platform/ZKAssert.h"

namespace {

// The one catalogue of flags: name, integer?, server scope?, default, description.
constexpr CompatFlagInfo kFlags[] = {
    {L"VELD_ENABLE_HASH_GROUP_BY", true, false, 2,
     L"Hash aggregation in the engine: 0 never, 1 only for inputs known to be small, 2 whenever "
     L"the plan allows."},
    {L"VELD_ENABLE_SORT_AGGREGATION", false, false, 1,
     L"Allow aggregating over input that is already sorted on the grouping columns."},
    {L"VELD_USE_11GSORT", false, true, 0,
     L"Use the earlier sort implementation throughout the server."},
    {L"VELD_ENABLE_COUNT_DISTINCT_REWRITE", false, false, 1,
     L"Rewrite COUNT(DISTINCT) as a grouping followed by a count where that is cheaper."},
    {L"VELD_ENABLE_AVERAGE_REWRITE", false, false, 1,
     L"Rewrite AVG as SUM over COUNT so that partial aggregates can be combined."},
    {L"VELD_ENABLE_AGGRESSIVE_FILTER_NORMALIZATION_FOR_COMMONQUERY_FACTORING", false, false, 0,
     L"Normalize filters more thoroughly so that more common subqueries are found and shared."},
    {L"VELD_UNIONALL_REWRITE_ENABLED", false, false, 1,
     L"Allow the rewrites that move work across UNION ALL."},
    {L"VELD_MAX_UNION_ALL_CHILDREN", true, false, 0,
     L"Most inputs one UNION ALL may have after rewriting; 0 means no limit."},
    {L"VELD_NEST_UNION_ALL_TO_MAX_CHILDREN", false, false, 0,
     L"Split a UNION ALL with more inputs than the limit into nested ones."},
    {L"VELD_UNDO_16038091", false, true, 0,
     L"Revert change 16038091 throughout the server, for sites that depend on the earlier plans."},
    {L"VELD_DISABLE_DELETEORPHAN_IN_DERIVEDTABLE", false, false, 0,
     L"Keep columns of derived tables that nothing references instead of removing them."},
};
constexpr std::size_t kFlagCount = std::size(kFlags);

// Server-wide values by catalogue position. Each slot packs "is set" (bit 32) with the value
// (low 32 bits) so that both are read in one load; zero, the static initial state, means
// the catalogue default applies.
constexpr long long kSetBit = 1LL << 32;
std::atomic<long long> g_serverValues[kFlagCount];

long long Pack(int value) {
    return kSetBit | static_cast<long long>(static_cast<uint32_t>(value));
}

[[noreturn]] void UnknownFlag(const ZKString& name) {
    const ZKString condition = L"compatibility flag in the catalogue: " + name;
    ZKAssert::handleAssert(ZK_WIDEN(__FILE__), __LINE__, condition.c_str());
}

const CompatFlagInfo& Require(const ZKString& name, bool bIsInt) {
    const CompatFlagInfo* info = CompatFlagCatalog::Find(name);
    if (info == nullptr) {
        UnknownFlag(name);
    }
    // A boolean flag read as a number, or the reverse, is a misunderstanding of the flag.
    ZK_ASSERT(info->m_bIsInt == bIsInt);
    return *info;
}

std::size_t IndexOf(const CompatFlagInfo& info) {
    return static_cast<std::size_t>(&info - kFlags);
}

int ServerValue(const CompatFlagInfo& info) {
    const long long packed = g_serverValues[IndexOf(info)].load(std::memory_order_acquire);
    if ((packed & kSetBit) == 0) {
        return info.m_default;
    }
    return static_cast<int>(static_cast<uint32_t>(packed & 0xFFFFFFFFLL));
}

int Resolve(const CompatFlagInfo& info, ARpGateway* rp) {
    int value = 0;
    if (!info.m_bServerScope && rp != nullptr && rp->GetCompatFlagOverride(info.m_name, value)) {
        return value;
    }
    return ServerValue(info);
}

}  // namespace

const CompatFlagInfo* CompatFlagCatalog::Find(std::wstring_view name) {
    const std::wstring_view text = BaseStringUtil::Trim(name);
    for (const CompatFlagInfo& info : kFlags) {
        if (BaseStringUtil::EqualsNoCase(info.m_name, text)) {
            return &info;
        }
    }
    return nullptr;
}

const std::vector<CompatFlagInfo>& CompatFlagCatalog::All() {
    static const std::vector<CompatFlagInfo> all(std::begin(kFlags), std::end(kFlags));
    return all;
}

bool SOCompatFlag::GetBool(const ZKString& name, ARpGateway* rp) {
    return Resolve(Require(name, false), rp) != 0;
}

int SOCompatFlag::GetInt(const ZKString& name, ARpGateway* rp) {
    return Resolve(Require(name, true), rp);
}

bool SUCompatFlag::GetBool(const ZKString& name) {
    return ServerValue(Require(name, false)) != 0;
}

int SUCompatFlag::GetInt(const ZKString& name) {
    return ServerValue(Require(name, true));
}

void SUCompatFlag::SetBool(const ZKString& name, bool value) {
    g_serverValues[IndexOf(Require(name, false))].store(Pack(value ? 1 : 0),
                                                        std::memory_order_release);
}

void SUCompatFlag::SetInt(const ZKString& name, int value) {
    g_serverValues[IndexOf(Require(name, true))].store(Pack(value), std::memory_order_release);
}

void SUCompatFlag::Reset() {
    for (std::atomic<long long>& v : g_serverValues) {
        v.store(0, std::memory_order_release);
    }
}
