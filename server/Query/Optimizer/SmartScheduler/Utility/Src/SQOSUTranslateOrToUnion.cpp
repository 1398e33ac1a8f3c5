#include "Query/Optimizer/SmartScheduler/Utility/SQOSUTranslateOrToUnion.h"

#include "Query/Optimizer/Request/SQORToCNF.h"

namespace {

// A comparison that a source can answer from its change tracking when one side is a
// last-update column: the two-operand comparisons and BETWEEN (the column being compared,
// or a bound).
bool IsLastUpdateComparison(const RqExpr* literal, ARpGateway* rp) {
    if (literal == nullptr ||
        !(literal->IsKindOf(kRqExprCondEqualityOperator) || literal->IsKindOf(kRqExprCondBetween)))
        return false;
    for (int i = 0; i < literal->GetNumOperands(); ++i) {
        if (TranslateOrToUnion::IsLastUpdateColumn(literal->GetIthOperand(i), rp))
            return true;
    }
    return false;
}

// A conjunct the rewrite splits: an OR whose every branch compares a last-update column.
// A single comparison is no candidate: there is nothing to split.
bool IsTranslateCandidate(const RqExprCond* conjunct, ARpGateway* rp) {
    std::vector<const RqExpr*> literals;
    ToCNF::HarvestDisjuncts(static_cast<const RqExpr*>(conjunct), literals);
    if (literals.size() < 2)
        return false;
    for (const RqExpr* literal : literals) {
        if (!IsLastUpdateComparison(literal, rp))
            return false;
    }
    return true;
}

}  // namespace

bool TranslateOrToUnion::IsLastUpdateColumn(const RqExpr* pExpr, ARpGateway* rp) {
    const RqTargetColumn* column = RqDynCast<RqTargetColumn>(pExpr);
    if (column == nullptr || column->GetColumnID().IsNullID() || rp == nullptr)
        return false;
    const RefAColumn repositoryColumn = RefHelper::GetColumn(rp, column->GetColumnID());
    return !repositoryColumn.IsNull() && repositoryColumn->GetKind() == kColumnKind_LastUpdate;
}

bool TranslateOrToUnion::DoesFilterContainTranslateCandidate(
    RqDetailFilter* pFilter, ARpGateway* rp, std::vector<Heap<RqExprCond>>& candidates,
    std::vector<Heap<RqExprCond>>& others) {
    if (pFilter == nullptr || pFilter->GetCond() == nullptr)
        return false;
    std::vector<Heap<RqExprCond>> conjuncts;
    // A condition too large for the normal form comes back as one unconverted conjunct;
    // the test below then finds no candidate in it unless it is itself a plain OR chain.
    ToCNFConjuncts::GenerateOwnedCNFConjuncts(pFilter->GetCond(), conjuncts);
    bool bFound = false;
    for (Heap<RqExprCond>& conjunct : conjuncts) {
        if (IsTranslateCandidate(conjunct.Get(), rp)) {
            bFound = true;
            candidates.push_back(std::move(conjunct));
        } else {
            others.push_back(std::move(conjunct));
        }
    }
    return bFound;
}

bool TranslateOrToUnion::DoesFilterContainLastUpdateColumns(RqDetailFilter* pFilter,
                                                            ARpGateway* rp) {
    std::vector<Heap<RqExprCond>> candidates;
    std::vector<Heap<RqExprCond>> others;
    return DoesFilterContainTranslateCandidate(pFilter, rp, candidates, others);
}
