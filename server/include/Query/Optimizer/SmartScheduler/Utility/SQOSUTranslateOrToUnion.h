#pragma once
// The OR-to-UNION rewrite splits a block whose filter ORs conditions on last-update columns
// (the incremental-extract pattern "changed since t, or created since t") into a UNION of
// one block per branch, each of which a source can answer from its change tracking. The
// rewrite itself is not part of the library yet; its candidate test is, because the key
// rewrite for object-framework sources must know in advance that a block may be split
// (docs/rules/TranslateOrToUnion.md).

#include <vector>

#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqList.h"

class TranslateOrToUnion {
public:
    // True when the filter holds a conjunct the rewrite would translate (its two result
    // lists are not needed). A null filter holds none.
    static bool DoesFilterContainLastUpdateColumns(RqDetailFilter* pFilter, ARpGateway* rp);

    // Splits the conjunctive normal form of the filter's condition: `candidates` receives the
    // conjuncts that are translate candidates, `others` the rest, in the condition's order;
    // both are new expressions owned by the caller (the filter is left untouched). A
    // candidate is a disjunction of at least two literals, each a comparison (=, <>, <, <=,
    // >, >=, BETWEEN) of which one operand is a last-update column of the repository. True
    // when there is at least one candidate; a condition too large for the normal form has
    // none.
    static bool DoesFilterContainTranslateCandidate(RqDetailFilter* pFilter, ARpGateway* rp,
                                                    std::vector<Heap<RqExprCond>>& candidates,
                                                    std::vector<Heap<RqExprCond>>& others);

    // A target column whose repository column is a last-update column.
    static bool IsLastUpdateColumn(const RqExpr* pExpr, ARpGateway* rp);
};
