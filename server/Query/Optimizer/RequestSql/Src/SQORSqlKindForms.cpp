// The renderer's entry for every concrete node kind. The reasons are the ones docs/semantics.md
// gives; a kind moves from "not rendered" to a form only together with its rendering and a
// test of its value.

#include "Query/Optimizer/RequestSql/SQORSqlKindForms.h"

#include <array>

#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"

namespace {

using R = SqlKindRole;

constexpr const char* kCube = "cube and hierarchy metadata have no SQL meaning";
constexpr const char* kOutside = "its value is bound outside the request";
constexpr const char* kForeignRows = "its rows come from outside the repository's tables";
constexpr const char* kNoRows = "its effect is not a bag of rows the tree describes";
constexpr const char* kEngineOnly = "it stands for work the server's engine does elsewhere";
constexpr const char* kDates = "calendar, fiscal and timestamp arithmetic are not rendered";
constexpr const char* kNoFunction = "no SQLite form of this function is written";

constexpr SqlKindForm kForms[] = {
    // ---- Requests, lists, tables and the parts of blocks ---------------------------------
    {kRqHandleNode, R::kRequest, nullptr},
    {kRqList, R::kList, nullptr},
    {kRqUnion, R::kList, nullptr},
    {kRqIntersect, R::kList, nullptr},
    {kRqExcept, R::kList, nullptr},
    {kRqSharedList, R::kList, nullptr},
    {kRqBreakFilter, R::kList, nullptr},
    {kRqCacheList, R::kList, nullptr},
    {kRqAtomicTable, R::kTable, nullptr},
    {kRqOpaqueTable, R::kTable, nullptr},
    {kRqDerivedTable, R::kTable, nullptr},
    {kRqProjection, R::kBlockPart, nullptr},
    {kRqDerivedColumn, R::kBlockPart, nullptr},
    {kRqDetailFilter, R::kBlockPart, nullptr},
    {kRqSummaryFilter, R::kBlockPart, nullptr},
    {kRqHaving, R::kBlockPart, nullptr},
    {kRqGroupBy, R::kBlockPart, nullptr},
    {kRqSortSpec, R::kBlockPart, nullptr},
    {kRqOrderBy, R::kBlockPart, nullptr},
    {kRqJoinSpec, R::kBlockPart, nullptr},
    {kRqJoinNode, R::kBlockPart, nullptr},
    {kRqJoinLink, R::kBlockPart, nullptr},
    {kRqTableReference, R::kBlockPart, nullptr},
    {kRqExprColumnList, R::kBlockPart, nullptr},
    {kRqExprColumnListOrdered, R::kBlockPart, nullptr},
    {kRqNullNode, R::kNoSqlMeaning, "a placeholder node has no SQL meaning"},
    {kRqTransientOpaqueTable, R::kNoSqlMeaning, kForeignRows},
    {kRqXSACacheTable, R::kNoSqlMeaning, kForeignRows},
    {kRqVELDNativeTable, R::kNoSqlMeaning, kForeignRows},
    {kRqExternalTable, R::kNoSqlMeaning, kForeignRows},
    {kRqEntity, R::kNoSqlMeaning, kForeignRows},
    {kRqStats, R::kNoSqlMeaning, kNoRows},
    {kRqCache, R::kNoSqlMeaning, kNoRows},
    {kRqXSACache, R::kNoSqlMeaning, kNoRows},
    {kRqDelete, R::kNoSqlMeaning, kNoRows},
    {kRqInsert, R::kNoSqlMeaning, kNoRows},
    {kRqDrop, R::kNoSqlMeaning, kNoRows},
    {kRqPopulate, R::kNoSqlMeaning, kNoRows},
    {kRqCreateIndex, R::kNoSqlMeaning, kNoRows},
    {kRqWrite, R::kNoSqlMeaning, kNoRows},
    {kRqMolapStarJoin, R::kNoSqlMeaning, kNoRows},
    {kRqMolapFilterJoin, R::kNoSqlMeaning, kNoRows},
    {kRqSummaryAdvisorQuery, R::kNoSqlMeaning, kNoRows},
    {kRqExplainPlan, R::kNoSqlMeaning, kNoRows},
    {kRqDataMiningQuery, R::kNoSqlMeaning, kNoRows},
    {kRqXSAGrainCheck, R::kNoSqlMeaning, kNoRows},
    {kRqProbeQuery, R::kNoSqlMeaning, kNoRows},
    {kRqSummarize, R::kNoSqlMeaning, kNoRows},
    {kRqCanonicalMap, R::kNoSqlMeaning, kNoRows},
    {kRqDetectAnomalies, R::kNoSqlMeaning, kNoRows},

    // ---- Operators ---------------------------------------------------------------------
    {kRqExprAdd, R::kOperator, nullptr},
    {kRqExprSubtract, R::kOperator, nullptr},
    {kRqExprMultiply, R::kOperator, nullptr},
    {kRqExprDivide, R::kOperator, nullptr},
    {kRqExprUnaryMinus, R::kOperator, nullptr},
    {kRqExprConcat, R::kOperator, nullptr},
    {kRqExprCondEquality, R::kOperator, nullptr},
    {kRqExprCondNotEqual, R::kOperator, nullptr},
    {kRqExprCondLess, R::kOperator, nullptr},
    {kRqExprCondLessEqual, R::kOperator, nullptr},
    {kRqExprCondGreater, R::kOperator, nullptr},
    {kRqExprCondGreaterEqual, R::kOperator, nullptr},
    {kRqExprCondAnd, R::kOperator, nullptr},
    {kRqExprCondOr, R::kOperator, nullptr},
    {kRqExprCondNot, R::kOperator, nullptr},

    // ---- Functions: the operands in order, counted by the kind table --------------------------
    {kRqExprUpper, R::kFunction, "upper"},
    {kRqExprLower, R::kFunction, "lower"},
    {kRqExprCharLength, R::kFunction, "length"},
    {kRqExprLength, R::kFunction, "length"},
    {kRqExprReplace, R::kFunction, "replace"},
    {kRqExprSubstring, R::kFunction, "substr"},
    {kRqExprAbs, R::kFunction, "abs"},
    {kRqExprSign, R::kFunction, "sign"},
    {kRqExprRound, R::kFunction, "round"},
    {kRqExprFloor, R::kFunction, "floor"},
    {kRqExprCeil, R::kFunction, "ceil"},
    {kRqExprSqrt, R::kFunction, "sqrt"},
    {kRqExprExp, R::kFunction, "exp"},
    {kRqExprPow, R::kFunction, "pow"},
    {kRqExprLog, R::kFunction, "ln"},
    {kRqExprLog10, R::kFunction, "log10"},
    {kRqExprMod, R::kFunction, "mod"},
    {kRqExprPi, R::kFunction, "pi"},
    {kRqExprSin, R::kFunction, "sin"},
    {kRqExprCos, R::kFunction, "cos"},
    {kRqExprTan, R::kFunction, "tan"},
    {kRqExprAsin, R::kFunction, "asin"},
    {kRqExprAcos, R::kFunction, "acos"},
    {kRqExprAtan, R::kFunction, "atan"},
    {kRqExprAtan2, R::kFunction, "atan2"},
    {kRqExprSinh, R::kFunction, "sinh"},
    {kRqExprCosh, R::kFunction, "cosh"},
    {kRqExprTanh, R::kFunction, "tanh"},
    {kRqExprDegrees, R::kFunction, "degrees"},
    {kRqExprRadians, R::kFunction, "radians"},
    {kRqExprIfNull, R::kFunction, "ifnull"},
    {kRqExprNullIf, R::kFunction, "nullif"},

    // ---- Forms of their own ------------------------------------------------------------------
    {kRqTargetColumn, R::kSpecialForm, nullptr},
    {kRqDerivedColumnReference, R::kSpecialForm, nullptr},
    {kRqExprIntegerLiteral, R::kSpecialForm, nullptr},
    {kRqExprFloatLiteral, R::kSpecialForm, nullptr},
    {kRqExprNumberLiteral, R::kSpecialForm, nullptr},
    {kRqExprStringLiteral, R::kSpecialForm, nullptr},
    {kRqExprDateLiteral, R::kSpecialForm, nullptr},
    {kRqExprTimeLiteral, R::kSpecialForm, nullptr},
    {kRqExprDateTimeLiteral, R::kSpecialForm, nullptr},
    {kRqExprNullLiteral, R::kSpecialForm, nullptr},
    {kRqExprSquare, R::kSpecialForm, nullptr},
    {kRqExprCot, R::kSpecialForm, nullptr},
    {kRqExprOctetLength, R::kSpecialForm, nullptr},
    {kRqExprLeft, R::kSpecialForm, nullptr},
    {kRqExprTrim, R::kSpecialForm, nullptr},
    {kRqExprCoalesce, R::kSpecialForm, nullptr},
    {kRqExprCast, R::kSpecialForm, nullptr},
    {kRqExprIfCase, R::kSpecialForm, nullptr},
    {kRqExprLookupCase, R::kSpecialForm, nullptr},
    {kRqExprCondIsNull, R::kSpecialForm, nullptr},
    {kRqExprCondBetween, R::kSpecialForm, nullptr},
    {kRqExprCondLike, R::kSpecialForm, nullptr},
    {kRqExprCondIn, R::kSpecialForm, nullptr},
    {kRqExprCondExists, R::kSpecialForm, nullptr},
    {kRqExprLogicalSubquery, R::kSpecialForm, nullptr},
    {kRqExprPhysicalSubquery, R::kSpecialForm, nullptr},
    {kRqExprPersistSubquery, R::kSpecialForm, nullptr},
    {kRqExprCondAnyLessThan, R::kSpecialForm, nullptr},
    {kRqExprCondAnyLessEqual, R::kSpecialForm, nullptr},
    {kRqExprCondAnyGreaterThan, R::kSpecialForm, nullptr},
    {kRqExprCondAnyGreaterEqual, R::kSpecialForm, nullptr},
    {kRqExprCondAnyNotEqual, R::kSpecialForm, nullptr},
    {kRqExprCondAllLessThan, R::kSpecialForm, nullptr},
    {kRqExprCondAllLessEqual, R::kSpecialForm, nullptr},
    {kRqExprCondAllEqual, R::kSpecialForm, nullptr},
    {kRqExprCondAllGreaterThan, R::kSpecialForm, nullptr},
    {kRqExprCondAllGreaterEqual, R::kSpecialForm, nullptr},
    {kRqExprGroupingId, R::kSpecialForm, nullptr},

    // ---- Aggregates ----------------------------------------------------------------------------
    {kRqExprAggrSum, R::kAggregate, "SUM"},
    {kRqExprAggrCount, R::kAggregate, "COUNT"},
    {kRqExprAggrCountStar, R::kAggregate, "COUNT"},
    {kRqExprAggrAvg, R::kAggregate, "AVG"},
    {kRqExprAggrMin, R::kAggregate, "MIN"},
    {kRqExprAggrMax, R::kAggregate, "MAX"},
    {kRqExprAggrMedian, R::kAggregate, kSqlMedianFunction},
    {kRqExprAggrStddev, R::kAggregate, kSqlStddevFunction},
    {kRqExprAggrRank, R::kWindowAggregate, nullptr},
    {kRqExprAggrPercentile, R::kWindowAggregate, nullptr},
    {kRqExprAggrRowNum, R::kWindowAggregate, nullptr},
    {kRqExprAggrNtile, R::kWindowAggregate, nullptr},
    {kRqExprAggrRunningSum, R::kWindowAggregate, nullptr},
    {kRqExprAggrRunningCount, R::kWindowAggregate, nullptr},
    {kRqExprAggrRunningMin, R::kWindowAggregate, nullptr},
    {kRqExprAggrRunningMax, R::kWindowAggregate, nullptr},
    {kRqExprAggrMovingSum, R::kWindowAggregate, nullptr},
    {kRqExprAggrMovingAvg, R::kWindowAggregate, nullptr},
    {kRqExprAggrReportSum, R::kWindowAggregate, nullptr},
    {kRqExprAggrReportCount, R::kWindowAggregate, nullptr},
    {kRqExprAggrReportMin, R::kWindowAggregate, nullptr},
    {kRqExprAggrReportMax, R::kWindowAggregate, nullptr},
    {kRqExprAggrReportAvg, R::kWindowAggregate, nullptr},
    {kRqExprAggrFirst, R::kNoSqlMeaning, "first depends on an order of detail rows"},
    {kRqExprAggrLast, R::kNoSqlMeaning, "last depends on an order of detail rows"},
    {kRqDimensionAggr, R::kNoSqlMeaning, kCube},
    {kRqExprNoAggregate, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprAggrExternal, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprEvaluateAggr, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprEvaluateAggrLogical, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprAggrReport, R::kNotRendered, "the bare report aggregate names no function"},
    {kRqExprAggrTopN, R::kNotRendered, "top N keeps only some rows, which no value per row says"},
    {kRqExprAggrBottomN, R::kNotRendered,
     "bottom N keeps only some rows, which no value per row says"},
    {kRqExprAggrSubtotal, R::kNotRendered, "subtotals are not rendered"},
    {kRqExprAggrIf, R::kNotRendered, "conditional aggregates are not rendered"},
    {kRqExprAggrWidthBucket, R::kNotRendered, "width buckets are not rendered"},
    {kRqExprAggrListAgg, R::kNotRendered, "list aggregates are not rendered"},
    {kRqExprAggrNullAgg, R::kNotRendered, "null aggregates are not rendered"},
    {kRqExprAggrNullIfNotUnique, R::kNotRendered, "null-if-not-unique is not rendered"},
    {kRqExprAggrTrendline, R::kNotRendered, "trend lines are not rendered"},
    {kRqExprAggrBin, R::kNotRendered, "bins are not rendered"},
    {kRqExprAggrCorrelation, R::kNotRendered, "bi-variate aggregates are not rendered"},
    {kRqExprAggrCovariance, R::kNotRendered, "bi-variate aggregates are not rendered"},
    {kRqExprAgo, R::kNotRendered, kDates},
    {kRqExprToDate, R::kNotRendered, kDates},
    {kRqExprPeriodRolling, R::kNotRendered, kDates},

    // ---- Expressions without a SQL meaning -------------------------------------------------
    {kRqTargetCubeColumn, R::kNoSqlMeaning, kCube},
    {kRqTargetCacheColumn, R::kNoSqlMeaning, "a cache column's rows are not in the repository"},
    {kRqAttribute, R::kNoSqlMeaning, kCube},
    {kRqExprDimension, R::kNoSqlMeaning, kCube},
    {kRqExprLevel, R::kNoSqlMeaning, kCube},
    {kRqExprCondGroupByContent, R::kNoSqlMeaning, kCube},
    {kRqExprMemberReference, R::kNoSqlMeaning, kCube},
    {kRqExprCalculatedMember, R::kNoSqlMeaning, kCube},
    {kRqExprQualify, R::kNoSqlMeaning, kCube},
    {kRqExprIsAncestor, R::kNoSqlMeaning, kCube},
    {kRqExprIsLeaf, R::kNoSqlMeaning, kCube},
    {kRqExprIsRoot, R::kNoSqlMeaning, kCube},
    {kRqExprIsSibling, R::kNoSqlMeaning, kCube},
    {kRqExprDepth, R::kNoSqlMeaning, kCube},
    {kRqExprAllValues, R::kNoSqlMeaning, kCube},
    {kRqExprIDOf, R::kNoSqlMeaning, kCube},
    {kRqExprEvaluate, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprEvaluatePredicate, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprLookup, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprXSALookup, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprDictLookup, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprIndexCol, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprParam, R::kNoSqlMeaning, kOutside},
    {kRqExprSessionVar, R::kNoSqlMeaning, kOutside},
    {kRqExprVariableReplace, R::kNoSqlMeaning, kOutside},
    {kRqExprDatabase, R::kNoSqlMeaning, kOutside},
    {kRqExprUser, R::kNoSqlMeaning, kOutside},
    {kRqExprRand, R::kNoSqlMeaning, "a random value is not a function of the rows"},
    {kRqExprRowID, R::kNoSqlMeaning, "row identifiers are the storage's, not the rows'"},
    {kRqExprPredict, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprExternalData, R::kNoSqlMeaning, kForeignRows},
    {kRqExprBinPlaceHolder, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprTimeDimSeqNum, R::kNoSqlMeaning, kCube},
    {kRqExprGrainCheckDisplay, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprNLSSort, R::kNoSqlMeaning, "sort keys of a national language are the engine's"},
    {kRqExprJsonValue, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprCondOuterJoinFilter, R::kNoSqlMeaning, kEngineOnly},
    {kRqExprMashupsNoAggregate, R::kNoSqlMeaning, kEngineOnly},

    // ---- Expressions with a meaning the renderer does not produce -------------------------
    {kRqExprIntervalLiteral, R::kNotRendered, "interval literals are not rendered"},
    {kRqExprExtract, R::kNotRendered, kDates},
    {kRqExprCalendarExtract, R::kNotRendered, kDates},
    {kRqExprFiscalExtract, R::kNotRendered, kDates},
    {kRqExprTimestampAdd, R::kNotRendered, kDates},
    {kRqExprTimestampDiff, R::kNotRendered, kDates},
    {kRqExprBitLength, R::kNotRendered, kNoFunction},
    {kRqExprPosition, R::kNotRendered, kNoFunction},
    {kRqExprLocate, R::kNotRendered, kNoFunction},
    {kRqExprAscii, R::kNotRendered, kNoFunction},
    {kRqExprExtractBit, R::kNotRendered, kNoFunction},
    {kRqExprTruncate, R::kNotRendered, kNoFunction},
    {kRqExprModf, R::kNotRendered, kNoFunction},
    {kRqExprCanonical, R::kNotRendered, kNoFunction},
    {kRqExprInsert, R::kNotRendered, kNoFunction},
    {kRqExprRight, R::kNotRendered, kNoFunction},
    {kRqExprSpace, R::kNotRendered, kNoFunction},
    {kRqExprRepeat, R::kNotRendered, kNoFunction},
    {kRqExprChar, R::kNotRendered, kNoFunction},
    {kRqExprCondMultiColumnIn, R::kNotRendered, "a multi-column IN is not rendered"},
    {kRqExprCondAtomicWrapper, R::kNotRendered, "an atomic condition wrapper is not rendered"},
};

// One entry per kind: a second one would make the table's answer depend on its order.
constexpr bool EachKindOnce() {
    std::array<bool, kRqNodeTypeCount> seen{};
    for (const SqlKindForm& form : kForms) {
        if (seen[form.m_kind])
            return false;
        seen[form.m_kind] = true;
    }
    return true;
}
static_assert(EachKindOnce(), "a kind has two entries in the renderer's table");

struct FormIndex {
    std::array<const SqlKindForm*, kRqNodeTypeCount> m_byKind{};
    std::array<SqlKindForm, kRqNodeTypeCount> m_unlisted{};

    FormIndex() {
        for (int kind = 0; kind < kRqNodeTypeCount; ++kind)
            m_unlisted[kind] = SqlKindForm{static_cast<RqNodeType_e>(kind), R::kUnlisted,
                                           "the renderer has no entry for this kind"};
        for (const SqlKindForm& form : kForms)
            m_byKind[form.m_kind] = &form;
    }
};

}  // namespace

const SqlKindForm& SqlKindFormOf(RqNodeType_e kind) {
    static const FormIndex index;
    const int value = static_cast<int>(kind);
    if (value < 0 || value >= kRqNodeTypeCount)
        return index.m_unlisted[0];
    return index.m_byKind[value] != nullptr ? *index.m_byKind[value] : index.m_unlisted[value];
}
