// Names and classification of target types.

#include "Platform/ServerInfo.h"

#include <iterator>

#include "Platform/SystemUtility.h"

namespace {

struct TargetTypeEntry {
    ServerInfo::TargetType m_type;
    const wchar_t* m_name;
    bool m_bMdx;      // queried in a multidimensional language rather than SQL
    bool m_bStorage;  // stores data but evaluates nothing
};

constexpr TargetTypeEntry kTargetTypes[] = {
    {ServerInfo::kBuiltInExecutionEngine, L"engine", false, false},
    {ServerInfo::kUnknown, L"unknown", false, false},
    {ServerInfo::kOdbcGeneric, L"odbc", false, false},
    {ServerInfo::kAnsiSql, L"ansisql", false, false},
    {ServerInfo::kRowStoreDatabase, L"rowstore", false, false},
    {ServerInfo::kColumnStoreDatabase, L"columnstore", false, false},
    {ServerInfo::kMppWarehouse, L"mppwarehouse", false, false},
    {ServerInfo::kEmbeddedSql, L"embeddedsql", false, false},
    {ServerInfo::kInternalRawDataStorage, L"rawstore", false, true},
    {ServerInfo::kCubeMdxServer, L"mdxcube", true, false},
    {ServerInfo::kCubeAnalysisServer, L"analysiscube", true, false},
    {ServerInfo::kCubeMemberServer, L"membercube", true, false},
    {ServerInfo::kFennick, L"fennick", false, false},
    {ServerInfo::kCorvelEAI, L"corvel", false, false},
    {ServerInfo::kCubeSemanticServer, L"semanticcube", true, false},
    {ServerInfo::kFennickNext, L"fennicknext", false, false},
    {ServerInfo::kCubeXmlaServer, L"xmlacube", true, false},
    {ServerInfo::kColumnarAppliance, L"columnarappliance", false, false},
    {ServerInfo::kCubeXmlaServerNext, L"xmlacubenext", true, false},
};

const TargetTypeEntry* Lookup(ServerInfo::TargetType type) {
    for (const TargetTypeEntry& entry : kTargetTypes) {
        if (entry.m_type == type) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

bool ServerInfo::IsRemoteTargetType(TargetType type) {
    return type != kBuiltInExecutionEngine && type != kUnknown;
}

bool ServerInfo::IsTargetTypeMDXBased(TargetType type) {
    const TargetTypeEntry* entry = Lookup(type);
    return entry != nullptr && entry->m_bMdx;
}

bool ServerInfo::IsPureStorageServerType(TargetType type) {
    const TargetTypeEntry* entry = Lookup(type);
    return entry != nullptr && entry->m_bStorage;
}

const wchar_t* ServerInfo::TargetTypeName(TargetType type) {
    const TargetTypeEntry* entry = Lookup(type);
    return entry != nullptr ? entry->m_name : nullptr;
}

bool ServerInfo::TargetTypeFromName(std::wstring_view name, TargetType& out) {
    const std::wstring_view text = BaseStringUtil::Trim(name);
    long long number = 0;
    if (BaseStringUtil::IntFrom(text, number)) {
        for (const TargetTypeEntry& entry : kTargetTypes) {
            if (entry.m_type == number) {
                out = entry.m_type;
                return true;
            }
        }
        return false;
    }
    for (const TargetTypeEntry& entry : kTargetTypes) {
        if (BaseStringUtil::EqualsNoCase(entry.m_name, text)) {
            out = entry.m_type;
            return true;
        }
    }
    return false;
}
