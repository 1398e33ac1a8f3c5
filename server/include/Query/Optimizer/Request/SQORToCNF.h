#pragma once
// Conversion of a condition to conjunctive normal form: an AND of conjuncts, each an OR of
// literals (a predicate that is not AND/OR, or its negation).
//
//     ToCNF cnf(filter->GetCond(), true, true);
//     cnf.GenerateCNF();
//     std::vector<RqExprCond*> conjuncts;
//     cnf.GetConjuncts(conjuncts);       // still owned by cnf
//
// How the conversion reads the condition:
// - AND and OR nodes are flattened; OR is distributed over AND. Absent operands of AND and
//   OR are ignored; an AND or OR without any operand is kept as a literal.
// - bFlattenNot true: NOT is pushed down to the predicates: De Morgan over AND and OR,
//   double negations cancel, and a negated comparison becomes the opposite comparison
//   (= and <>, < and >=, > and <=); any other negated predicate stays NOT (p). All of these
//   are equivalences under SQL's three-valued logic, so the result filters the same rows.
//   bFlattenNot false: a NOT node and everything below it is one literal.
// - Literals that are equivalent (RqEquivalence) are merged within a conjunct, and
//   conjuncts made of the same set of literals are merged; the first occurrence keeps its
//   place. Nothing else is simplified (a OR NOT a is not true when a is unknown).
// - Order: conjuncts follow the order of the condition, left to right; a disjunction of two
//   CNFs lists the pairs with the left conjunct varying slowest.
// - A conjunct with several literals is a left-deep OR chain; the new AND, OR and NOT nodes
//   carry the target type and target ID of the converted condition, and a negated
//   comparison those of the comparison it replaces.
//
// Ownership: bDeepCopy true leaves the condition untouched (the conjuncts are copies);
// bDeepCopy false takes the condition over: it must be detached (no parent), and from then
// on it belongs to the ToCNF object, whose conjuncts reuse its nodes. Either way the
// conjuncts belong to the ToCNF object until ReleaseConjuncts hands them to the caller.
//
// Size limit: when a conjunction or a distribution would give more than maxConjuncts
// conjuncts, the conversion stops: GetConversionSuccess answers false and the one conjunct
// is the condition itself, unconverted (a copy, or the condition taken over). Distribution
// is checked before it is built, so a failed conversion never builds the large form.
//
// Whatever limit the caller passes (SIZE_MAX included), the conversion never works past two
// internal caps: a distribution (OR over ANDs) never makes more than kMaxClauses conjuncts,
// and the CNF never holds more than kMaxLiteralUses literals counted over all its conjuncts.
// An OR of k ANDs distributes into 2^k conjuncts, so without them a condition of a few dozen
// ANDs would exhaust memory; with them it is reported as a failed conversion (the conversion
// never raises), in time and memory bounded by the caps. A plain conjunction is already in
// CNF and is limited by the caller's limit and the literal cap only. Both caps are counted
// after repeated conjuncts are merged, at every step, so a condition whose CNF fits only
// once repetitions are gone still converts.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Query/Optimizer/Request/SQORRqExpr.h"

class ToCNF {
public:
    // The internal caps on the size of a CNF (see above).
    static constexpr size_t kMaxClauses = 4096;
    static constexpr size_t kMaxLiteralUses = size_t{1} << 20;

    ToCNF(const RqExprCond* cond, bool bFlattenNot, bool bDeepCopy, size_t maxConjuncts = SIZE_MAX);
    ~ToCNF();
    ToCNF(const ToCNF&) = delete;
    ToCNF& operator=(const ToCNF&) = delete;

    // Runs the conversion (once; later calls do nothing). A null condition has no conjuncts.
    void GenerateCNF();
    // False when the size limit stopped the conversion (meaningful after GenerateCNF).
    bool GetConversionSuccess() const;

    // Replaces the content of `out` with the conjuncts, in order; they stay owned by this
    // object. Asserts that GenerateCNF has run. The first form asserts that every conjunct
    // is a condition (an operand of AND that is not a condition, such as a boolean column,
    // is a conjunct of its own); the second takes any expression.
    void GetConjuncts(std::vector<RqExprCond*>& out) const;
    void GetConjuncts(std::vector<RqExpr*>& out) const;
    size_t GetNumConjuncts() const;

    // Appends the conjuncts to `out` and hands them over: the caller owns and must destroy
    // them. This object is left without conjuncts.
    void ReleaseConjuncts(std::vector<RqExprCond*>& out);
    void ReleaseConjuncts(std::vector<RqExpr*>& out);
    // The whole CNF as one condition (a left-deep AND of the conjuncts; null without
    // conjuncts), owned by the caller. This object is left without conjuncts.
    RqExpr* ReleaseAsCondition();

    // The operands of the top-level AND tree of `cond`, left to right (`cond` itself when it
    // is not an AND). Nothing is copied; absent operands are skipped.
    static void HarvestConjuncts(const RqExpr* cond, std::vector<const RqExpr*>& out);
    static void HarvestConjuncts(const RqExprCond* cond, std::vector<const RqExprCond*>& out);
    // The operands of the top-level OR tree of `cond`, left to right (`cond` itself when it
    // is not an OR). Nothing is copied; absent operands are skipped.
    static void HarvestDisjuncts(const RqExpr* cond, std::vector<const RqExpr*>& out);
    static void HarvestDisjuncts(const RqExprCond* cond, std::vector<const RqExprCond*>& out);
    // The conjuncts of `cond`'s top-level AND tree that are disjunctions (OR nodes), left to
    // right: the places where the condition could be split into alternatives.
    static void HarvestDisjunctivePredicates(const RqExprCond* cond,
                                             std::vector<const RqExprCond*>& out);

private:
    class Converter;

    const RqExprCond* m_pCond;
    bool m_bFlattenNot;
    size_t m_maxConjuncts;
    bool m_bGenerated = false;
    bool m_bSuccess = true;
    RqExpr* m_pTakenOver = nullptr;    // the condition, when it was taken over
    std::vector<RqExpr*> m_conjuncts;  // owned
};

// A conversion whose conjuncts are kept as single owners (Heap), for callers that move
// them around: out of this object, into containers, back into the tree. The input is
// always copied; see ToCNF for the form of the result.
class ToCNFConjuncts {
public:
    ToCNFConjuncts() = default;
    // Converts `cond` (null: no conjuncts).
    explicit ToCNFConjuncts(const RqExprCond* cond, bool bFlattenNot = true,
                            size_t maxConjuncts = SIZE_MAX);
    ToCNFConjuncts(ToCNFConjuncts&&) noexcept = default;
    ToCNFConjuncts& operator=(ToCNFConjuncts&&) noexcept = default;

    // Appends the conjuncts of `cond` to `out`, owned there. Returns the conversion's
    // success; on failure the one conjunct appended is a copy of `cond`.
    static bool GenerateOwnedCNFConjuncts(const RqExprCond* cond,
                                          std::vector<Heap<RqExprCond>>& out,
                                          bool bFlattenNot = true, size_t maxConjuncts = SIZE_MAX);

    bool GetConversionSuccess() const { return m_bSuccess; }
    size_t GetNumConjuncts() const { return m_conjuncts.size(); }
    // Conjunct i (null once released).
    RqExprCond* GetIthConjunct(size_t i) const;
    const std::vector<Heap<RqExprCond>>& GetOwnedConjuncts() const { return m_conjuncts; }
    // Replaces the content of `out` with the conjuncts that are still held, in order.
    void GetConjuncts(std::vector<RqExprCond*>& out) const;
    // Hands conjunct i to the caller; its slot stays, empty.
    RqExprCond* ReleaseIthConjunct(size_t i);
    // Appends every conjunct still held to `out` and hands them over; none is left.
    void ReleaseConjuncts(std::vector<RqExprCond*>& out);
    void ReleaseConjuncts(std::vector<Heap<RqExprCond>>& out);

private:
    bool m_bSuccess = true;
    std::vector<Heap<RqExprCond>> m_conjuncts;
};
