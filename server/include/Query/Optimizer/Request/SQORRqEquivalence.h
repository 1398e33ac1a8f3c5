#pragma once
// Equivalence and orderings of request-tree expressions.
//
// Two expressions are equivalent when they have the same kind, the same own fields and
// equivalent operands in order; two absent expressions are equivalent. The same rules compare
// any two nodes (table references, clauses, blocks). Which fields of a class count is declared
// once per class in SQORRqEquivalence.cpp, with the reason for each field left out (execution
// choices, labels, bookkeeping); ComparedFields names those that count. Among them: a float
// literal's value, where every NaN is one value ordered after every number; a GROUP BY's
// grouping sets, compared as a bag of sets of positions (the order of the sets and of the
// positions in a set decide nothing; a set listed twice counts twice).
//
// A derived column reference is equivalent to another when both read the same column; when
// the column lies inside the compared expression itself (the block of a subquery reading its
// own derived table), the two references must read the columns at the same place in their own
// expressions, so that a deep copy is equivalent to its original. Join links and shared lists
// compare the nodes they name the same way.
//
// LessEquivalentRqExpr is the total order behind the equivalence: it answers "equal" (neither
// is less) exactly for equivalent expressions, so it can key ordered containers of
// expressions. RqShallowLessThan orders by kind and own fields only, ignoring operands.

#include <vector>

#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqTreeVector.h"

class RqEquivalence {
public:
    constexpr RqEquivalence() = default;

    bool operator()(const RqExpr& a, const RqExpr& b) const;
    // Null equals null and nothing else.
    bool operator()(const RqExpr* a, const RqExpr* b) const;
    bool operator()(const RqNode& a, const RqNode& b) const;
    bool operator()(const RqNode* a, const RqNode* b) const;

    // The three-way comparison that both the equivalence and LessEquivalentRqExpr use: zero
    // for equivalent nodes; null orders before any node.
    static int Compare(const RqNode* a, const RqNode* b);

    // The fields that tell two nodes of a concrete kind apart besides their children: those
    // of its class and of its bases, bases first, by name. Empty for a kind whose nodes
    // differ only in their children, and for abstract kinds.
    static std::vector<const char*> ComparedFields(RqNodeType_e kind);
};

// Strict weak order consistent with RqEquivalence.
class LessEquivalentRqExpr {
public:
    bool operator()(const RqExpr* a, const RqExpr* b) const {
        return RqEquivalence::Compare(a, b) < 0;
    }
    bool operator()(const RqExpr& a, const RqExpr& b) const {
        return RqEquivalence::Compare(&a, &b) < 0;
    }
};

// Strict weak order on the kind and the own fields of two expressions, not their operands.
class RqShallowLessThan {
public:
    bool operator()(const RqExpr* a, const RqExpr* b) const;
    bool operator()(const RqExpr& a, const RqExpr& b) const { return (*this)(&a, &b); }
    // Negative, zero or positive; null orders first.
    static int Compare(const RqExpr* a, const RqExpr* b);
};

// The two vectors have the same size and are pairwise equivalent, in order.
bool EquivalentVectorExprs(const RqExprVector& a, const RqExprVector& b,
                           const RqEquivalence& equivalence = RqEquivalence());
