#pragma once
// Finds the aggregates of an expression: whether it has any, which ones, whether one is nested
// inside another, whether one depends on the order of rows or is a regular (non-functional)
// one. A finder is an expression visitor set by five options; the static entry points build
// one with fixed options, walk one expression and answer. The lists point into the
// expression tree and own nothing.

#include <list>

#include "Platform/ZKNodeAlloc.h"
#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqVisitorDefaults.h"

using AggrList = std::list<RqExprAggr*, ZKAllocator<RqExprAggr*>>;

// The aggregates that a finder told to ignore time series passes by (it searches their
// operands instead): the period-ago family, the conditional aggregate and the no-aggregate
// marker. Every other aggregate class is recorded. Derived from the kind table, so that a
// new aggregate kind falls on one side or the other by its base class.
inline bool IsTimeSeriesAggrKind(RqNodeType_e kind) {
    return RqIsKindOf(kind, kRqExprAgo) || kind == kRqExprAggrIf || kind == kRqExprNoAggregate;
}

class AggrFinder : public RqExprVisitorDefaults<AVisitorRqExpr> {
public:
    AggrFinder(bool bFindNestedAggrs, bool bFindAllNestedAggrs, bool bIgnoreFunctionalAggr,
               bool bIgnoreTimeSeriesAggr, bool bFindInnerMostAggrOnly);
    ~AggrFinder() override;

    // Every aggregate class reaches VisitAggr; the time-series ones first pass the option.
    bool VisitAny(RqExprAggr& aggr) override;
    bool Visit(RqExprAggrReport& aggr) override;
    bool Visit(RqExprNoAggregate& aggr) override;
    bool Visit(RqExprAgo& aggr) override;
    bool Visit(RqExprAggrIf& aggr) override;
    using RqExprVisitorDefaults<AVisitorRqExpr>::Visit;

    bool FoundAggr() const { return !m_aggrs.empty(); }
    bool FoundNestedAggr() const { return !m_nestedAggrs.empty(); }
    // Append, in the order found, to the end of `out` (not cleared first).
    void GetAggrs(AggrList& out) const;
    void GetNestedAggrs(AggrList& out) const;
    AggrList& GetAggrsList() { return m_aggrs; }

    // Static entry points: a fresh finder per call; every one ignores time-series aggregates.
    static bool FindAggr(const RqExpr* expr);
    static bool FindNestedAggr(RqExpr* expr);
    static void FindNestedAggrs(RqExpr* expr, AggrList& out);
    // `bFoundAggr`: some aggregate was recorded. Result: one of them is not functional.
    static bool FindRegularAggr(const RqExpr* expr, bool& bFoundAggr);
    // As FindRegularAggr, counting only aggregates that contain no other aggregate.
    static bool FindInnerMostRegularAggr(const RqExpr* expr, bool& bFoundAggr);
    // `bFoundAggr`: some aggregate was recorded. Result: one of them depends on row order.
    static bool FindSortDependentAggr(const RqExpr* expr, bool& bFoundAggr);
    // An aggregate not instantiated yet, anywhere in the expression (no finder; time-series
    // aggregates count).
    static bool FindUninstantiatedAggr(const RqExpr* expr);

protected:
    virtual bool VisitAggr(RqExprAggr& aggr);

private:
    // Applies the time-series option to an aggregate of that family.
    bool VisitTimeSeriesAggr(RqExprAggr& aggr);
    // Runs `this` over `expr`, which the walk does not change.
    void Walk(const RqExpr* expr);

    bool m_bFindNestedAggrs;
    bool m_bFindAllNestedAggrs;
    bool m_bIgnoreFunctionalAggr;
    bool m_bIgnoreTimeSeriesAggr;
    bool m_bFindInnerMostAggrOnly;
    AggrList m_nestedAggrs;
    AggrList m_aggrs;
};
