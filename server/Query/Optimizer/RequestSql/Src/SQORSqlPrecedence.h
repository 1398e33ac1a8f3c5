#pragma once
// Operators in SQLite text: how each operator kind is spelt and how strongly it binds, and
// where an operand needs parentheses. This is the renderer's only knowledge of operator
// strength; everything that writes an operator goes through it.

#include <string>

#include "Query/Optimizer/Request/SQORRqNodeType.h"

namespace sqlrender {

// How strongly a piece of SQL binds, weakest first, as SQLite parses it. The comparisons
// share one strength here (SQLite ranks < above =); no comparison is ever written as a bare
// operand of another, so the finer ranking never matters.
enum Strength {
    kStrengthOr = 20,
    kStrengthAnd = 30,
    kStrengthNot = 40,
    kStrengthCompare = 50,  // = <> < <= > >=, IS, IN, LIKE, BETWEEN
    kStrengthAdd = 70,
    kStrengthMul = 80,
    kStrengthConcat = 85,
    kStrengthUnary = 90,
    kStrengthAtom = 100,  // names, literals, calls, CASE, CAST, parenthesized text
};

// A piece of SQL with the strength of its outermost operator.
struct Sql {
    std::string m_text;
    int m_strength = kStrengthAtom;
};

// How an operator kind is written.
struct OperatorForm {
    RqNodeType_e m_kind;
    const char* m_operator;
    Strength m_strength;
    enum Shape {
        kPrefix,           // NOT x, -x
        kLeftAssociative,  // a - b - c is (a - b) - c
        kAssociative,      // AND, OR, ||: any grouping means the same
        kNonAssociative,   // comparisons: an operand comparison is always parenthesized
    } m_shape;
};

// The form of an operator kind; null for a kind that is not an operator.
const OperatorForm* FindOperatorForm(RqNodeType_e kind);

// The operand's text, parenthesized when it binds more weakly than `minStrength`.
std::string Operand(const Sql& operand, int minStrength);

// The strength an operand must have at a position of an operator: the first operand of a
// left-associative operator may be one of the same strength, the second may not.
int OperandStrength(const OperatorForm& form, int position);

}  // namespace sqlrender
