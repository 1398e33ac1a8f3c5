#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAggrFinder.h"

#include "Platform/ZKThread.h"

AggrFinder::AggrFinder(bool bFindNestedAggrs, bool bFindAllNestedAggrs, bool bIgnoreFunctionalAggr,
                       bool bIgnoreTimeSeriesAggr, bool bFindInnerMostAggrOnly)
    : m_bFindNestedAggrs(bFindNestedAggrs),
      m_bFindAllNestedAggrs(bFindAllNestedAggrs),
      m_bIgnoreFunctionalAggr(bIgnoreFunctionalAggr),
      m_bIgnoreTimeSeriesAggr(bIgnoreTimeSeriesAggr),
      m_bFindInnerMostAggrOnly(bFindInnerMostAggrOnly) {}

AggrFinder::~AggrFinder() = default;

bool AggrFinder::VisitAny(RqExprAggr& aggr) {
    return VisitAggr(aggr);
}

bool AggrFinder::Visit(RqExprAggrReport& aggr) {
    return VisitAggr(aggr);
}

bool AggrFinder::Visit(RqExprNoAggregate& aggr) {
    return VisitTimeSeriesAggr(aggr);
}

bool AggrFinder::Visit(RqExprAgo& aggr) {
    return VisitTimeSeriesAggr(aggr);
}

bool AggrFinder::Visit(RqExprAggrIf& aggr) {
    return VisitTimeSeriesAggr(aggr);
}

bool AggrFinder::VisitTimeSeriesAggr(RqExprAggr& aggr) {
    // Ignored: not recorded, but whatever it wraps is still searched.
    if (m_bIgnoreTimeSeriesAggr)
        return false;
    return VisitAggr(aggr);
}

bool AggrFinder::VisitAggr(RqExprAggr& aggr) {
    if (!aggr.IsAggr())
        return false;
    if (m_bIgnoreFunctionalAggr && aggr.IsFunctionalAggr())
        return false;

    // Whether the aggregate holds another one decides both what is recorded and whether the
    // walk goes on below it. Each operand gets a walk of its own, which is quadratic in the
    // depth of nesting; aggregates nest a few levels at most.
    bool bHasNested = false;
    if (m_bFindInnerMostAggrOnly || m_bFindNestedAggrs) {
        for (int i = 0; i < aggr.GetNumOperands() && !bHasNested; ++i) {
            const RqExpr* operand = aggr.GetIthOperand(i);
            bHasNested = operand != nullptr && FindAggr(operand);
        }
    }
    if (!(m_bFindInnerMostAggrOnly && bHasNested))
        m_aggrs.push_back(&aggr);
    if (bHasNested && m_bFindNestedAggrs) {
        m_nestedAggrs.push_back(&aggr);
        return !m_bFindAllNestedAggrs;
    }
    // An innermost-only finder that does not look for nested aggregates skips the operands of
    // an aggregate it did not record as well: it answers for the outermost level only.
    return !m_bFindNestedAggrs;
}

void AggrFinder::GetAggrs(AggrList& out) const {
    out.insert(out.end(), m_aggrs.begin(), m_aggrs.end());
}

void AggrFinder::GetNestedAggrs(AggrList& out) const {
    out.insert(out.end(), m_nestedAggrs.begin(), m_nestedAggrs.end());
}

void AggrFinder::Walk(const RqExpr* expr) {
    // Accept is not const because visitors may rewrite; this one only reads.
    const_cast<RqExpr*>(expr)->Accept(*this);
}

bool AggrFinder::FindAggr(const RqExpr* expr) {
    if (expr == nullptr)
        return false;
    AggrFinder finder(false, false, false, true, false);
    finder.Walk(expr);
    return finder.FoundAggr();
}

bool AggrFinder::FindNestedAggr(RqExpr* expr) {
    if (expr == nullptr)
        return false;
    AggrFinder finder(true, false, false, true, false);
    finder.Walk(expr);
    return finder.FoundNestedAggr();
}

void AggrFinder::FindNestedAggrs(RqExpr* expr, AggrList& out) {
    if (expr == nullptr)
        return;
    AggrFinder finder(true, false, false, true, false);
    finder.Walk(expr);
    finder.GetNestedAggrs(out);
}

namespace {

// Sets `bFoundAggr` from the finder's record and answers whether one recorded aggregate
// satisfies `pred`.
template <class Pred>
bool AnyRecorded(AggrFinder& finder, bool& bFoundAggr, Pred pred) {
    bFoundAggr = finder.FoundAggr();
    for (const RqExprAggr* aggr : finder.GetAggrsList()) {
        if (pred(*aggr))
            return true;
    }
    return false;
}

bool IsRegular(const RqExprAggr& aggr) {
    return !aggr.IsFunctionalAggr();
}

}  // namespace

bool AggrFinder::FindRegularAggr(const RqExpr* expr, bool& bFoundAggr) {
    bFoundAggr = false;
    if (expr == nullptr)
        return false;
    AggrFinder finder(true, false, false, true, false);
    finder.Walk(expr);
    return AnyRecorded(finder, bFoundAggr, IsRegular);
}

bool AggrFinder::FindInnerMostRegularAggr(const RqExpr* expr, bool& bFoundAggr) {
    bFoundAggr = false;
    if (expr == nullptr)
        return false;
    // Every level of nesting is searched and only aggregates over plain values are recorded:
    // the answer is about the aggregates that read detail rows directly.
    AggrFinder finder(true, true, false, true, true);
    finder.Walk(expr);
    return AnyRecorded(finder, bFoundAggr, IsRegular);
}

bool AggrFinder::FindSortDependentAggr(const RqExpr* expr, bool& bFoundAggr) {
    bFoundAggr = false;
    if (expr == nullptr)
        return false;
    AggrFinder finder(true, true, false, true, false);
    finder.Walk(expr);
    return AnyRecorded(finder, bFoundAggr,
                       [](const RqExprAggr& aggr) { return aggr.IsSortDependent(); });
}

bool AggrFinder::FindUninstantiatedAggr(const RqExpr* expr) {
    if (expr == nullptr)
        return false;
    // A recursion over operands: a request nested beyond the stack fails with the stack
    // exception rather than a crash.
    ZKThread::LowStackCheck(0);
    if (expr->IsAggr() && !expr->IsInstantiated())
        return true;
    for (int i = 0; i < expr->GetNumOperands(); ++i) {
        if (FindUninstantiatedAggr(expr->GetIthOperand(i)))
            return true;
    }
    return false;
}
