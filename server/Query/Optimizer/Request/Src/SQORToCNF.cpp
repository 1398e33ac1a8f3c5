// Conversion of conditions to conjunctive normal form.
//
// The conversion works on indexes, not on trees: every distinct literal (a predicate of the
// condition, possibly negated) gets a slot in a pool, a clause is a list of slots and a CNF a
// list of clauses. Trees are built only once the whole CNF is known, so a conversion that
// fails on the size limit has built nothing and has not touched the condition.

#include "Query/Optimizer/Request/SQORToCNF.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "Query/Optimizer/Request/SQORRqEquivalence.h"

namespace {

// One disjunction of literals, each literal slot once. `m_slots` keeps the order of first
// appearance (the order of the built OR chain); `m_sorted` is the same set sorted, for
// membership tests and as the key that finds repeated clauses.
struct Clause {
    std::vector<int> m_slots;
    std::vector<int> m_sorted;

    explicit Clause(int slot) : m_slots{slot}, m_sorted{slot} {}
    void Add(int slot) {
        auto at = std::lower_bound(m_sorted.begin(), m_sorted.end(), slot);
        if (at != m_sorted.end() && *at == slot)
            return;
        m_sorted.insert(at, slot);
        m_slots.push_back(slot);
    }
};

// A conjunction of clauses. The key set, when valid, holds the sorted slots of every clause
// and no two clauses share a key; it is rebuilt only when a conjunction needs it, so that a
// long chain of ORs (which only ever has one clause) never pays for it. `m_nUses` is the
// number of literals over all clauses: the size of the CNF once built.
struct Cnf {
    std::vector<Clause> m_clauses;
    std::set<std::vector<int>> m_keys;
    bool m_bKeysValid = false;
    size_t m_nUses = 0;

    // Drops repeated clauses (the first stays) and makes the keys valid.
    void EnsureKeys() {
        if (m_bKeysValid)
            return;
        m_keys.clear();
        m_nUses = 0;
        std::vector<Clause> kept;
        kept.reserve(m_clauses.size());
        for (Clause& clause : m_clauses) {
            if (m_keys.insert(clause.m_sorted).second) {
                m_nUses += clause.m_slots.size();
                kept.push_back(std::move(clause));
            }
        }
        m_clauses = std::move(kept);
        m_bKeysValid = true;
    }
};

// The pairs of comparisons of which one holds exactly when the other does not (for
// non-null operands; both are unknown on nulls).
constexpr std::pair<RqNodeType_e, RqNodeType_e> kOppositeComparisons[] = {
    {kRqExprCondEquality, kRqExprCondNotEqual},
    {kRqExprCondLess, kRqExprCondGreaterEqual},
    {kRqExprCondGreater, kRqExprCondLessEqual},
};

// The opposite of a comparison kind, or -1 for a kind that has none (every other kind).
int OppositeComparison(RqNodeType_e kind) {
    for (const auto& [one, other] : kOppositeComparisons) {
        if (kind == one)
            return other;
        if (kind == other)
            return one;
    }
    return -1;
}

RqExpr* NewComparison(int kind, RqExpr* left, RqExpr* right) {
    switch (kind) {
        case kRqExprCondEquality:
            return RQ_NEW RqExprCondEquality(left, right);
        case kRqExprCondNotEqual:
            return RQ_NEW RqExprCondNotEqual(left, right);
        case kRqExprCondLess:
            return RQ_NEW RqExprCondLess(left, right);
        case kRqExprCondGreaterEqual:
            return RQ_NEW RqExprCondGreaterEqual(left, right);
        case kRqExprCondGreater:
            return RQ_NEW RqExprCondGreater(left, right);
        case kRqExprCondLessEqual:
            return RQ_NEW RqExprCondLessEqual(left, right);
        default:
            ZK_LOGIC_ERROR(ZKString(L"not a comparison kind"));
    }
}

RqExpr* CopyOf(const RqExpr* expr) {
    return expr != nullptr ? expr->DeepExprCopy() : nullptr;
}

void MarkLike(RqNode* node, const RqNode* model) {
    if (node == nullptr || model == nullptr)
        return;
    node->MarkTargetType(model->GetTargetType());
    node->MarkTargetID(model->GetTargetID());
}

// The non-null operands of a connective, in order.
void PresentOperands(const RqExpr& expr, std::vector<const RqExpr*>& out) {
    out.clear();
    for (int i = 0; i < expr.GetNumOperands(); ++i) {
        if (const RqExpr* operand = expr.GetIthOperand(i))
            out.push_back(operand);
    }
}

// Appends the operands of the tree of `kind` nodes rooted at `root`, left to right.
void HarvestTree(const RqExpr* root, RqNodeType_e kind, std::vector<const RqExpr*>& out) {
    if (root == nullptr)
        return;
    std::vector<const RqExpr*> work{root};
    while (!work.empty()) {
        const RqExpr* expr = work.back();
        work.pop_back();
        if (expr->GetObjectType() != kind) {
            out.push_back(expr);
            continue;
        }
        for (int i = expr->GetNumOperands() - 1; i >= 0; --i) {
            if (const RqExpr* operand = expr->GetIthOperand(i))
                work.push_back(operand);
        }
    }
}

void ToConds(const std::vector<const RqExpr*>& exprs, std::vector<const RqExprCond*>& out) {
    for (const RqExpr* expr : exprs)
        out.push_back(RqCast<RqExprCond>(expr));
}

}  // namespace

// ---- The conversion proper ------------------------------------------------------------------

class ToCNF::Converter {
public:
    Converter(const RqExpr* root, bool bFlattenNot, size_t maxConjuncts)
        : m_pRoot(root), m_bFlattenNot(bFlattenNot), m_maxConjuncts(maxConjuncts) {}

    ~Converter() {
        for (Literal& literal : m_literals)
            delete literal.m_pOwned;
    }

    // Computes the CNF of the root; false when the size limit was hit.
    bool Run() {
        struct Frame {
            const RqExpr* m_pNode;
            bool m_bNegated;
            bool m_bCombine;  // second visit of a connective: combine its operands' CNFs
            bool m_bConjunction;
            size_t m_numOperands;
        };
        std::vector<Frame> work{{m_pRoot, false, false, false, 0}};
        std::vector<Cnf> results;
        std::vector<const RqExpr*> operands;
        while (!work.empty()) {
            const Frame frame = work.back();
            work.pop_back();
            if (frame.m_bCombine) {
                // The operands' CNFs are the last results, in operand order.
                const size_t first = results.size() - frame.m_numOperands;
                Cnf acc = std::move(results[first]);
                for (size_t i = first + 1; i < results.size(); ++i) {
                    const bool bFits = frame.m_bConjunction ? Conjoin(acc, std::move(results[i]))
                                                            : Disjoin(acc, std::move(results[i]));
                    if (!bFits)
                        return false;
                }
                results.resize(first);
                results.push_back(std::move(acc));
                continue;
            }
            const RqExpr* node = frame.m_pNode;
            const RqNodeType_e kind = node->GetObjectType();
            if (kind == kRqExprCondNot && m_bFlattenNot && node->GetNumOperands() == 1 &&
                node->GetIthOperand(0) != nullptr) {
                work.push_back({node->GetIthOperand(0), !frame.m_bNegated, false, false, 0});
                continue;
            }
            if (kind == kRqExprCondAnd || kind == kRqExprCondOr) {
                PresentOperands(*node, operands);
                if (!operands.empty()) {
                    // NOT over AND is an OR of the negations, and the reverse (De Morgan).
                    const bool bConjunction = (kind == kRqExprCondAnd) != frame.m_bNegated;
                    work.push_back({node, frame.m_bNegated, true, bConjunction, operands.size()});
                    for (auto it = operands.rbegin(); it != operands.rend(); ++it) {
                        work.push_back({*it, frame.m_bNegated, false, false, 0});
                    }
                    continue;
                }
            }
            Cnf leaf;
            leaf.m_clauses.emplace_back(AddLiteral(node, frame.m_bNegated));
            leaf.m_nUses = 1;
            results.push_back(std::move(leaf));
        }
        ZK_ASSERT(results.size() == 1);
        m_result = std::move(results.front());
        m_result.EnsureKeys();
        return m_result.m_clauses.size() <= m_maxConjuncts;
    }

    // Builds the conjuncts of the CNF that Run computed. With `takenOver` (the root, owned
    // by the caller) the predicates' last uses take the nodes out of it instead of copying
    // them; the root is then destroyed by the caller as usual, and the released nodes are
    // no longer part of it. Returns the root when it was itself consumed (so the caller must
    // not destroy it), null otherwise.
    RqExpr* Build(RqExpr* takenOver, std::vector<RqExpr*>& conjuncts) {
        std::vector<size_t> remaining(m_literals.size(), 0);
        for (const Clause& clause : m_result.m_clauses) {
            for (int slot : clause.m_slots)
                ++remaining[static_cast<size_t>(slot)];
        }
        RqExpr* consumedRoot = nullptr;
        auto use = [&](int slot) -> RqExpr* {
            Literal& literal = m_literals[static_cast<size_t>(slot)];
            const bool bLast = --remaining[static_cast<size_t>(slot)] == 0;
            if (literal.m_pOwned != nullptr) {
                return bLast ? std::exchange(literal.m_pOwned, nullptr) : CopyOf(literal.m_pOwned);
            }
            if (!bLast || takenOver == nullptr)
                return CopyOf(literal.m_pBorrowed);
            RqExpr* node = const_cast<RqExpr*>(literal.m_pBorrowed);
            if (node == takenOver) {
                consumedRoot = takenOver;
                return node;
            }
            return RqCast<RqExpr>(node->ReleaseFromParent());
        };
        for (const Clause& clause : m_result.m_clauses) {
            RqExpr* disjunction = use(clause.m_slots.front());
            for (size_t i = 1; i < clause.m_slots.size(); ++i) {
                RqExpr* next = use(clause.m_slots[i]);
                disjunction = RQ_NEW RqExprCondOr(disjunction, next);
                MarkLike(disjunction, m_pRoot);
            }
            conjuncts.push_back(disjunction);
        }
        return consumedRoot;
    }

private:
    // A literal: either a predicate of the condition itself (borrowed, copied when used) or
    // one made for the conversion (owned: a negation).
    struct Literal {
        const RqExpr* m_pBorrowed = nullptr;
        RqExpr* m_pOwned = nullptr;
        const RqExpr* Get() const { return m_pOwned != nullptr ? m_pOwned : m_pBorrowed; }
    };

    int AddLiteral(const RqExpr* node, bool bNegated) {
        Literal literal;
        if (!bNegated) {
            literal.m_pBorrowed = node;
        } else {
            literal.m_pOwned = Negate(node);
        }
        auto found = m_slots.find(literal.Get());
        if (found != m_slots.end()) {
            delete literal.m_pOwned;
            return found->second;
        }
        const int slot = static_cast<int>(m_literals.size());
        m_literals.push_back(literal);
        m_slots.emplace(literal.Get(), slot);
        return slot;
    }

    RqExpr* Negate(const RqExpr* node) const {
        const int opposite = OppositeComparison(node->GetObjectType());
        if (opposite >= 0 && node->GetNumOperands() == 2) {
            RqExpr* negated = NewComparison(opposite, CopyOf(node->GetIthOperand(0)),
                                            CopyOf(node->GetIthOperand(1)));
            MarkLike(negated, node);
            return negated;
        }
        RqExpr* negated = RQ_NEW RqExprCondNot(CopyOf(node));
        MarkLike(negated, m_pRoot);
        return negated;
    }

    // acc AND b, into acc: the clauses of both, without repeating a set of literals.
    bool Conjoin(Cnf& acc, Cnf&& b) const {
        acc.EnsureKeys();
        for (Clause& clause : b.m_clauses) {
            if (!acc.m_keys.insert(clause.m_sorted).second)
                continue;
            if (acc.m_clauses.size() >= m_maxConjuncts ||
                acc.m_nUses + clause.m_slots.size() > ToCNF::kMaxLiteralUses)
                return false;
            acc.m_nUses += clause.m_slots.size();
            acc.m_clauses.push_back(std::move(clause));
        }
        return true;
    }

    // acc OR b, into acc: one clause per pair, the union of the two, with repeated clauses
    // merged at once (a repetition left in would be multiplied by every later distribution
    // and count against the limits). The size is checked before anything is built: the
    // number of pairs against the limit and the internal cap on clauses, and an upper bound
    // of the literals they hold (each pair at most both clauses' literals) against the cap
    // on literal uses.
    bool Disjoin(Cnf& acc, Cnf&& b) const {
        const size_t n = acc.m_clauses.size();
        const size_t m = b.m_clauses.size();
        const size_t maxClauses = std::min(m_maxConjuncts, ToCNF::kMaxClauses);
        if (n == 0 || m > maxClauses / n)
            return false;
        if (m * acc.m_nUses + n * b.m_nUses > ToCNF::kMaxLiteralUses)
            return false;
        if (m == 1) {
            // The common case of a chain of ORs: extend every clause in place.
            for (Clause& clause : acc.m_clauses) {
                for (int slot : b.m_clauses.front().m_slots)
                    clause.Add(slot);
            }
        } else {
            std::vector<Clause> product;
            product.reserve(n * m);
            for (const Clause& left : acc.m_clauses) {
                for (const Clause& right : b.m_clauses) {
                    Clause clause = left;
                    for (int slot : right.m_slots)
                        clause.Add(slot);
                    product.push_back(std::move(clause));
                }
            }
            acc.m_clauses = std::move(product);
        }
        acc.m_bKeysValid = false;
        if (acc.m_clauses.size() > 1)
            acc.EnsureKeys();
        else
            acc.m_nUses = acc.m_clauses.front().m_slots.size();
        return true;
    }

    const RqExpr* m_pRoot;
    bool m_bFlattenNot;
    size_t m_maxConjuncts;
    std::vector<Literal> m_literals;
    std::map<const RqExpr*, int, LessEquivalentRqExpr> m_slots;
    Cnf m_result;
};

// ---- ToCNF ----------------------------------------------------------------------------------

ToCNF::ToCNF(const RqExprCond* cond, bool bFlattenNot, bool bDeepCopy, size_t maxConjuncts)
    : m_pCond(cond), m_bFlattenNot(bFlattenNot), m_maxConjuncts(maxConjuncts) {
    if (!bDeepCopy && cond != nullptr) {
        // Taking a node over from its parent would leave the parent pointing at it.
        ZK_ASSERT(cond->GetParent() == nullptr);
        m_pTakenOver = const_cast<RqExprCond*>(cond);
    }
}

ToCNF::~ToCNF() {
    for (RqExpr* conjunct : m_conjuncts)
        delete conjunct;
    delete m_pTakenOver;
}

void ToCNF::GenerateCNF() {
    if (m_bGenerated)
        return;
    m_bGenerated = true;
    if (m_pCond == nullptr)
        return;
    Converter converter(m_pCond, m_bFlattenNot, m_maxConjuncts);
    m_bSuccess = converter.Run();
    if (!m_bSuccess) {
        // The condition stays as it was: the one conjunct is the condition itself.
        m_conjuncts.push_back(m_pTakenOver != nullptr ? std::exchange(m_pTakenOver, nullptr)
                                                      : m_pCond->DeepExprCopy());
        return;
    }
    if (converter.Build(m_pTakenOver, m_conjuncts) == m_pTakenOver && m_pTakenOver != nullptr) {
        m_pTakenOver = nullptr;  // the condition is itself the (only) conjunct
    }
    // What remains of a condition taken over (its connectives, repeated predicates) is no
    // longer needed.
    delete std::exchange(m_pTakenOver, nullptr);
}

bool ToCNF::GetConversionSuccess() const {
    return m_bSuccess;
}

void ToCNF::GetConjuncts(std::vector<RqExprCond*>& out) const {
    ZK_ASSERT(m_bGenerated);
    out.clear();
    for (RqExpr* conjunct : m_conjuncts)
        out.push_back(RqCast<RqExprCond>(conjunct));
}

void ToCNF::GetConjuncts(std::vector<RqExpr*>& out) const {
    ZK_ASSERT(m_bGenerated);
    out = m_conjuncts;
}

size_t ToCNF::GetNumConjuncts() const {
    return m_conjuncts.size();
}

void ToCNF::ReleaseConjuncts(std::vector<RqExprCond*>& out) {
    ZK_ASSERT(m_bGenerated);
    // Every conjunct is checked before any is handed over, so that a failed check leaves
    // this object owning them all.
    for (RqExpr* conjunct : m_conjuncts)
        ZK_ASSERT(RqDynCast<RqExprCond>(conjunct) != nullptr);
    for (RqExpr* conjunct : m_conjuncts)
        out.push_back(RqCast<RqExprCond>(conjunct));
    m_conjuncts.clear();
}

void ToCNF::ReleaseConjuncts(std::vector<RqExpr*>& out) {
    ZK_ASSERT(m_bGenerated);
    out.insert(out.end(), m_conjuncts.begin(), m_conjuncts.end());
    m_conjuncts.clear();
}

RqExpr* ToCNF::ReleaseAsCondition() {
    ZK_ASSERT(m_bGenerated);
    RqExpr* conjunction = nullptr;
    for (RqExpr* conjunct : m_conjuncts) {
        if (conjunction == nullptr) {
            conjunction = conjunct;
            continue;
        }
        conjunction = RQ_NEW RqExprCondAnd(conjunction, conjunct);
        MarkLike(conjunction, m_pCond);
    }
    m_conjuncts.clear();
    return conjunction;
}

void ToCNF::HarvestConjuncts(const RqExpr* cond, std::vector<const RqExpr*>& out) {
    HarvestTree(cond, kRqExprCondAnd, out);
}

void ToCNF::HarvestConjuncts(const RqExprCond* cond, std::vector<const RqExprCond*>& out) {
    std::vector<const RqExpr*> found;
    HarvestTree(cond, kRqExprCondAnd, found);
    ToConds(found, out);
}

void ToCNF::HarvestDisjuncts(const RqExpr* cond, std::vector<const RqExpr*>& out) {
    HarvestTree(cond, kRqExprCondOr, out);
}

void ToCNF::HarvestDisjuncts(const RqExprCond* cond, std::vector<const RqExprCond*>& out) {
    std::vector<const RqExpr*> found;
    HarvestTree(cond, kRqExprCondOr, found);
    ToConds(found, out);
}

void ToCNF::HarvestDisjunctivePredicates(const RqExprCond* cond,
                                         std::vector<const RqExprCond*>& out) {
    std::vector<const RqExpr*> conjuncts;
    HarvestTree(cond, kRqExprCondAnd, conjuncts);
    for (const RqExpr* conjunct : conjuncts) {
        if (const auto* disjunction = RqDynCast<RqExprCondOr>(conjunct))
            out.push_back(disjunction);
    }
}

// ---- ToCNFConjuncts -------------------------------------------------------------------------

ToCNFConjuncts::ToCNFConjuncts(const RqExprCond* cond, bool bFlattenNot, size_t maxConjuncts) {
    m_bSuccess = GenerateOwnedCNFConjuncts(cond, m_conjuncts, bFlattenNot, maxConjuncts);
}

bool ToCNFConjuncts::GenerateOwnedCNFConjuncts(const RqExprCond* cond,
                                               std::vector<Heap<RqExprCond>>& out, bool bFlattenNot,
                                               size_t maxConjuncts) {
    ToCNF cnf(cond, bFlattenNot, true, maxConjuncts);
    cnf.GenerateCNF();
    std::vector<RqExprCond*> conjuncts;
    cnf.ReleaseConjuncts(conjuncts);
    for (RqExprCond* conjunct : conjuncts)
        out.emplace_back(conjunct);
    return cnf.GetConversionSuccess();
}

RqExprCond* ToCNFConjuncts::GetIthConjunct(size_t i) const {
    ZK_ASSERT(i < m_conjuncts.size());
    return m_conjuncts[i].Get();
}

void ToCNFConjuncts::GetConjuncts(std::vector<RqExprCond*>& out) const {
    out.clear();
    for (const Heap<RqExprCond>& conjunct : m_conjuncts) {
        if (conjunct)
            out.push_back(conjunct.Get());
    }
}

RqExprCond* ToCNFConjuncts::ReleaseIthConjunct(size_t i) {
    ZK_ASSERT(i < m_conjuncts.size());
    return m_conjuncts[i].Release();
}

void ToCNFConjuncts::ReleaseConjuncts(std::vector<RqExprCond*>& out) {
    for (Heap<RqExprCond>& conjunct : m_conjuncts) {
        if (conjunct)
            out.push_back(conjunct.Release());
    }
    m_conjuncts.clear();
}

void ToCNFConjuncts::ReleaseConjuncts(std::vector<Heap<RqExprCond>>& out) {
    for (Heap<RqExprCond>& conjunct : m_conjuncts) {
        if (conjunct)
            out.push_back(std::move(conjunct));
    }
    m_conjuncts.clear();
}
