#pragma once
// Operators in SQLite text. How each operator kind is spelt and how strongly it binds comes
// from the request layer's one table of operator forms (SQORRqExprForm.h), which the one-line
// expression text reads too; this file only says where an operand needs parentheses.

#include <string>

#include "Query/Optimizer/Request/SQORRqExprForm.h"

namespace sqlrender {

// A piece of SQL with the strength of its outermost operator (RqExprStrength).
struct Sql {
    std::string m_text;
    int m_strength = kRqStrengthAtom;
};

// The operand's text, parenthesized when it binds more weakly than `minStrength`.
std::string Operand(const Sql& operand, int minStrength);

// The strength an operand needs at a position of an operator: the first operand of an infix
// form its left strength, every later one (and the operand of a prefix form) its right one.
int OperandStrength(const RqExprForm& form, int position);

// The strength the operands of a keyword predicate (IS NULL, BETWEEN, LIKE, IN, a quantified
// comparison) need: that of a comparison's operands.
inline constexpr int kPredicateOperandStrength = kRqStrengthAdd;

}  // namespace sqlrender
