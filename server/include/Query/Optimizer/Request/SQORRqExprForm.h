#pragma once
// How expression operators are written: for each operator kind its text, whether it stands
// before its operand or between its operands, how strongly it binds and how strongly each
// operand must bind to go without parentheses. Every printer of expressions reads this one
// table (the one-line text of the request layer, the SQL renderer), so that they agree on
// what an operator is written as and on where parentheses are needed.
//
// The strengths follow SQL: OR binds weakest, then AND, NOT, the comparisons (and the
// predicates IS NULL, BETWEEN, LIKE and IN, which are keyword forms and not in the table),
// addition, multiplication, concatenation (||), unary minus, and atoms (names, literals,
// function calls, anything in parentheses). An operand whose own strength is below what its
// place asks for is put in parentheses.

#include <cstddef>

#include "Query/Optimizer/Request/SQORRqNodeType.h"

// Binding strengths, weakest first.
enum RqExprStrength : int {
    kRqStrengthNone = 0,  // any expression: a function argument, a list member
    kRqStrengthOr = 1,
    kRqStrengthAnd = 2,
    kRqStrengthNot = 3,
    kRqStrengthCompare = 4,
    kRqStrengthAdd = 5,
    kRqStrengthMul = 6,
    kRqStrengthConcat = 7,
    kRqStrengthUnary = 8,
    kRqStrengthAtom = 9,
};

struct RqExprForm {
    enum Shape {
        kInfix,   // between its operands: a + b, a AND b AND c
        kPrefix,  // before its one operand: -a, NOT a
    };

    RqNodeType_e m_kind;
    Shape m_shape;
    // The operator: a symbol ("+", "||", "<=") or a word ("AND", "NOT"). A printer puts
    // blanks around an infix operator and after a prefix word.
    const char* m_text;
    // For a quantified comparison, "ANY" or "ALL" (written after the operator, before the
    // subquery); null otherwise.
    const char* m_quantifier;
    // How strongly the whole form binds.
    RqExprStrength m_strength;
    // The strength the first operand needs (infix forms).
    RqExprStrength m_leftStrength;
    // The strength every later operand needs (infix forms), or the operand of a prefix form.
    // An associative operator (AND, OR, ||) asks its own strength on both sides, so that a
    // nested chain reads without parentheses; a left-associative one (+, -, *, /) one more
    // on the right, so that a - (b - c) keeps them; a comparison one more on both sides.
    RqExprStrength m_rightStrength;
};

inline constexpr RqExprForm kRqExprForms[] = {
    {kRqExprCondOr, RqExprForm::kInfix, "OR", nullptr, kRqStrengthOr, kRqStrengthOr, kRqStrengthOr},
    {kRqExprCondAnd, RqExprForm::kInfix, "AND", nullptr, kRqStrengthAnd, kRqStrengthAnd,
     kRqStrengthAnd},
    {kRqExprCondNot, RqExprForm::kPrefix, "NOT", nullptr, kRqStrengthNot, kRqStrengthNone,
     kRqStrengthNot},
    {kRqExprCondEquality, RqExprForm::kInfix, "=", nullptr, kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAdd},
    {kRqExprCondNotEqual, RqExprForm::kInfix, "<>", nullptr, kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAdd},
    {kRqExprCondLess, RqExprForm::kInfix, "<", nullptr, kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAdd},
    {kRqExprCondLessEqual, RqExprForm::kInfix, "<=", nullptr, kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAdd},
    {kRqExprCondGreater, RqExprForm::kInfix, ">", nullptr, kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAdd},
    {kRqExprCondGreaterEqual, RqExprForm::kInfix, ">=", nullptr, kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAdd},
    // Quantified comparisons: the right side is a subquery, always an atom.
    {kRqExprCondAnyLessThan, RqExprForm::kInfix, "<", "ANY", kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAtom},
    {kRqExprCondAnyLessEqual, RqExprForm::kInfix, "<=", "ANY", kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAtom},
    {kRqExprCondAnyGreaterThan, RqExprForm::kInfix, ">", "ANY", kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAtom},
    {kRqExprCondAnyGreaterEqual, RqExprForm::kInfix, ">=", "ANY", kRqStrengthCompare,
     kRqStrengthAdd, kRqStrengthAtom},
    {kRqExprCondAnyNotEqual, RqExprForm::kInfix, "<>", "ANY", kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAtom},
    {kRqExprCondAllLessThan, RqExprForm::kInfix, "<", "ALL", kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAtom},
    {kRqExprCondAllLessEqual, RqExprForm::kInfix, "<=", "ALL", kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAtom},
    {kRqExprCondAllEqual, RqExprForm::kInfix, "=", "ALL", kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAtom},
    {kRqExprCondAllGreaterThan, RqExprForm::kInfix, ">", "ALL", kRqStrengthCompare, kRqStrengthAdd,
     kRqStrengthAtom},
    {kRqExprCondAllGreaterEqual, RqExprForm::kInfix, ">=", "ALL", kRqStrengthCompare,
     kRqStrengthAdd, kRqStrengthAtom},
    {kRqExprAdd, RqExprForm::kInfix, "+", nullptr, kRqStrengthAdd, kRqStrengthAdd, kRqStrengthMul},
    {kRqExprSubtract, RqExprForm::kInfix, "-", nullptr, kRqStrengthAdd, kRqStrengthAdd,
     kRqStrengthMul},
    {kRqExprMultiply, RqExprForm::kInfix, "*", nullptr, kRqStrengthMul, kRqStrengthMul,
     kRqStrengthConcat},
    {kRqExprDivide, RqExprForm::kInfix, "/", nullptr, kRqStrengthMul, kRqStrengthMul,
     kRqStrengthConcat},
    {kRqExprConcat, RqExprForm::kInfix, "||", nullptr, kRqStrengthConcat, kRqStrengthConcat,
     kRqStrengthConcat},
    // The operand of a unary minus is an atom: -(-5), -(a * b).
    {kRqExprUnaryMinus, RqExprForm::kPrefix, "-", nullptr, kRqStrengthUnary, kRqStrengthNone,
     kRqStrengthAtom},
};

// The form of an operator kind, or null for a kind that is not written as an operator.
constexpr const RqExprForm* RqFindExprForm(RqNodeType_e kind) {
    for (const RqExprForm& form : kRqExprForms) {
        if (form.m_kind == kind)
            return &form;
    }
    return nullptr;
}

// True when the operator is a word (AND, NOT), which is set off by blanks on both sides.
constexpr bool RqExprFormIsWord(const RqExprForm& form) {
    return form.m_text[0] >= 'A' && form.m_text[0] <= 'Z';
}
