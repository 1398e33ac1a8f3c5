// Database features: names and the defaults of each target type.

#include "Platform/Features.h"

#include <cstdint>
#include <initializer_list>
#include <iterator>

#include "Platform/Repository.h"
#include "Platform/SystemUtility.h"
#include "Platform/ZKAssert.h"

namespace {

using F = SUFeaturesTable;

constexpr const wchar_t* kFeatureNames[] = {
    L"ORDER_BY",
    L"DISTINCT",
    L"DERIVED_TABLES",
    L"WITH_CLAUSE",
    L"GROUPING_SETS",
    L"ROWNUM",
    L"ROWNUM_LIMIT",
    L"ROWNUM_OFFSET",
    L"NESTED_ORDER_BY",
    L"ORDER_BY_NULLS_ORDERING",
    L"ORDER_BY_EXPR_NOT_IN_SELECT_DISTINCT",
    L"GROUP_BY",
    L"COUNT_DISTINCT",
    L"UNION_ALL",
    L"LEFT_OUTER_JOIN",
    L"FULL_OUTER_JOIN",
    L"CASE_EXPRESSION",
    L"WINDOW_FUNCTIONS",
    L"PERF_NO_COMMON_QUERY_FACTORING",
    L"PERF_MINIMAL_WITH",
    L"PERF_INTERNAL_BREAKFILTER_HANDLING",
};
static_assert(std::size(kFeatureNames) == F::kFeatureCount, "every feature needs a name");
static_assert(F::kFeatureCount <= 64, "feature masks are 64 bits wide");

constexpr uint64_t Mask(std::initializer_list<F::FeatureId> features) {
    uint64_t mask = 0;
    for (const F::FeatureId f : features) {
        mask |= uint64_t{1} << f;
    }
    return mask;
}

// What every SQL source we talk to handles.
constexpr uint64_t kSqlCore =
    Mask({F::kFeature_OrderBy, F::kFeature_Distinct, F::kFeature_DerivedTables, F::kFeature_GroupBy,
          F::kFeature_CountDistinct, F::kFeature_UnionAll, F::kFeature_LeftOuterJoin,
          F::kFeature_CaseExpression});
// Analytic SQL: common table expressions, grouping sets, window functions, full joins.
constexpr uint64_t kSqlAnalytic =
    kSqlCore | Mask({F::kFeature_WithClause, F::kFeature_GroupByGroupingSets,
                     F::kFeature_FullOuterJoin, F::kFeature_WindowFunctions});

struct TargetDefaults {
    ServerInfo::TargetType m_type;
    uint64_t m_mask;
};

// The one table of default feature sets. Types not listed (unknown, plain storage, cube
// servers) get none: rules must not send SQL constructs to them.
constexpr TargetDefaults kDefaults[] = {
    {ServerInfo::kBuiltInExecutionEngine,
     kSqlAnalytic | Mask({F::kFeature_NestedOrderBy, F::kFeature_OrderByNullsOrdering,
                          F::kFeature_OrderByExprNotInSelectDistinct})},
    // A generic driver promises little; stay with what any SQL dialect has.
    {ServerInfo::kOdbcGeneric,
     Mask({F::kFeature_OrderBy, F::kFeature_Distinct, F::kFeature_GroupBy, F::kFeature_UnionAll,
           F::kFeature_LeftOuterJoin, F::kFeature_CaseExpression})},
    {ServerInfo::kAnsiSql, kSqlCore | Mask({F::kFeature_WithClause, F::kFeature_FullOuterJoin})},
    {ServerInfo::kRowStoreDatabase,
     kSqlAnalytic | Mask({F::kFeature_RowNum, F::kFeature_RowNumLimit, F::kFeature_RowNumOffset,
                          F::kFeature_NestedOrderBy, F::kFeature_OrderByNullsOrdering})},
    {ServerInfo::kColumnStoreDatabase,
     kSqlAnalytic | Mask({F::kFeature_NestedOrderBy, F::kFeature_OrderByNullsOrdering})},
    // Materializing common table expressions is costly on a parallel warehouse.
    {ServerInfo::kMppWarehouse,
     kSqlAnalytic | Mask({F::kFeature_OrderByNullsOrdering, F::kFeaturePerf_MinimalWith})},
    {ServerInfo::kEmbeddedSql, kSqlCore | Mask({F::kFeature_WithClause, F::kFeature_WindowFunctions,
                                                F::kFeature_OrderByNullsOrdering})},
    // The appliance plans shared subqueries poorly; keep them inline.
    {ServerInfo::kFennick, kSqlAnalytic | Mask({F::kFeaturePerf_NoCommonQueryFactoring})},
    {ServerInfo::kCorvelEAI, Mask({F::kFeature_OrderBy, F::kFeature_Distinct})},
    {ServerInfo::kFennickNext,
     kSqlAnalytic | Mask({F::kFeature_NestedOrderBy, F::kFeature_OrderByNullsOrdering})},
    {ServerInfo::kColumnarAppliance,
     kSqlAnalytic |
         Mask({F::kFeature_OrderByNullsOrdering, F::kFeaturePerf_InternalBreakfilterHandling})},
};

}  // namespace

const wchar_t* SUFeaturesTable::Name(FeatureId feature) {
    if (static_cast<int>(feature) < 0 || feature >= kFeatureCount) {
        return nullptr;
    }
    return kFeatureNames[feature];
}

bool SUFeaturesTable::FromName(std::wstring_view name, FeatureId& out) {
    const std::wstring_view text = BaseStringUtil::Trim(name);
    for (int i = 0; i < kFeatureCount; ++i) {
        if (BaseStringUtil::EqualsNoCase(kFeatureNames[i], text)) {
            out = static_cast<FeatureId>(i);
            return true;
        }
    }
    return false;
}

std::set<SUFeaturesTable::FeatureId> SUFeaturesTable::DefaultsFor(ServerInfo::TargetType type) {
    std::set<FeatureId> features;
    for (const TargetDefaults& entry : kDefaults) {
        if (entry.m_type != type) {
            continue;
        }
        for (int i = 0; i < kFeatureCount; ++i) {
            if ((entry.m_mask >> i) & 1u) {
                features.insert(static_cast<FeatureId>(i));
            }
        }
    }
    return features;
}

bool FeaturesMgr::IsSupportedFeature(const RefADatabase& db, SUFeaturesTable::FeatureId feature,
                                     ARpGateway* /*rp*/) {
    ZK_ASSERT(static_cast<int>(feature) >= 0 && feature < SUFeaturesTable::kFeatureCount);
    if (db.IsNull()) {
        return false;
    }
    return db->HasFeature(feature);
}
