#pragma once
// What a data source can do. Each database in the repository carries the set of features
// its SQL supports; the rewrite rules ask before producing a construct the source would
// reject or run badly. The kFeaturePerf_ entries are not capabilities but tuning hints
// that steer rules away from rewrites that are legal yet slow on that source.

#include <set>
#include <string_view>

#include "Platform/RepositoryFwd.h"
#include "Platform/ServerInfo.h"

class SUFeaturesTable {
public:
    enum FeatureId {
        kFeature_OrderBy,
        kFeature_Distinct,
        kFeature_DerivedTables,
        kFeature_WithClause,
        kFeature_GroupByGroupingSets,
        kFeature_RowNum,
        kFeature_RowNumLimit,
        kFeature_RowNumOffset,
        kFeature_NestedOrderBy,
        kFeature_OrderByNullsOrdering,
        kFeature_OrderByExprNotInSelectDistinct,
        kFeature_GroupBy,
        kFeature_CountDistinct,
        kFeature_UnionAll,
        kFeature_LeftOuterJoin,
        kFeature_FullOuterJoin,
        kFeature_CaseExpression,
        kFeature_WindowFunctions,
        kFeaturePerf_NoCommonQueryFactoring,
        kFeaturePerf_MinimalWith,
        kFeaturePerf_InternalBreakfilterHandling,
        kFeatureCount
    };

    // Upper-case name such as L"ORDER_BY"; nullptr for kFeatureCount or an invalid value.
    static const wchar_t* Name(FeatureId feature);
    // Accepts the name in any letter case.
    static bool FromName(std::wstring_view name, FeatureId& out);
    // The features a database of the given type has unless its definition says otherwise.
    static std::set<FeatureId> DefaultsFor(ServerInfo::TargetType type);
};

class RqOrderBy;  // request-tree class; defined by the request layer

class FeaturesMgr {
public:
    // False for a null database.
    static bool IsSupportedFeature(const RefADatabase& db, SUFeaturesTable::FeatureId feature,
                                   ARpGateway* rp);
    // Whether db can perform the sort itself. Defined by the request layer, which knows the
    // shape of an ORDER BY.
    static bool IsSortPushable(const RefADatabase& db, const RqOrderBy& orderBy, ARpGateway* rp,
                               bool bDistinct);
};
