// Whether a database can carry out an ORDER BY of the request tree itself. It lives with the
// request layer because it reads the shape of the ORDER BY; the features come from the
// database's feature table.

#include "Platform/Features.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqList.h"

// The database must sort at all; a key that places nulls explicitly first or last needs the
// NULLS FIRST/LAST syntax; and an ORDER BY that carries push-down aggregates sorts on
// expressions that are not in the select list, which a SELECT DISTINCT accepts only where
// the database allows sort expressions outside a distinct select list.
bool FeaturesMgr::IsSortPushable(const RefADatabase& db, const RqOrderBy& orderBy, ARpGateway* rp,
                                 bool bDistinct) {
    if (db.IsNull())
        return false;
    if (!IsSupportedFeature(db, SUFeaturesTable::kFeature_OrderBy, rp))
        return false;
    bool bNeedsNullsOrdering = false;
    for (int i = 0; i < orderBy.GetNumSortSpecs(); ++i) {
        const RqSortSpec* spec = orderBy.GetIthSortSpec(i);
        if (spec != nullptr && spec->GetNullSortDirection() != RqSortSpec::kNoCare) {
            bNeedsNullsOrdering = true;
            break;
        }
    }
    if (bNeedsNullsOrdering &&
        !IsSupportedFeature(db, SUFeaturesTable::kFeature_OrderByNullsOrdering, rp)) {
        return false;
    }
    if (bDistinct && orderBy.HasPushDownAggr() &&
        !IsSupportedFeature(db, SUFeaturesTable::kFeature_OrderByExprNotInSelectDistinct, rp)) {
        return false;
    }
    return true;
}
