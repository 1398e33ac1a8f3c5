// The spelling and strength of every operator the renderer writes.

#include "SQORSqlPrecedence.h"

namespace sqlrender {

namespace {

constexpr OperatorForm kOperators[] = {
    {kRqExprCondOr, "OR", kStrengthOr, OperatorForm::kAssociative},
    {kRqExprCondAnd, "AND", kStrengthAnd, OperatorForm::kAssociative},
    {kRqExprCondNot, "NOT", kStrengthNot, OperatorForm::kPrefix},
    {kRqExprCondEquality, "=", kStrengthCompare, OperatorForm::kNonAssociative},
    {kRqExprCondNotEqual, "<>", kStrengthCompare, OperatorForm::kNonAssociative},
    {kRqExprCondLess, "<", kStrengthCompare, OperatorForm::kNonAssociative},
    {kRqExprCondLessEqual, "<=", kStrengthCompare, OperatorForm::kNonAssociative},
    {kRqExprCondGreater, ">", kStrengthCompare, OperatorForm::kNonAssociative},
    {kRqExprCondGreaterEqual, ">=", kStrengthCompare, OperatorForm::kNonAssociative},
    {kRqExprAdd, "+", kStrengthAdd, OperatorForm::kLeftAssociative},
    {kRqExprSubtract, "-", kStrengthAdd, OperatorForm::kLeftAssociative},
    {kRqExprMultiply, "*", kStrengthMul, OperatorForm::kLeftAssociative},
    {kRqExprDivide, "/", kStrengthMul, OperatorForm::kLeftAssociative},
    {kRqExprConcat, "||", kStrengthConcat, OperatorForm::kAssociative},
    {kRqExprUnaryMinus, "-", kStrengthUnary, OperatorForm::kPrefix},
};

}  // namespace

const OperatorForm* FindOperatorForm(RqNodeType_e kind) {
    for (const OperatorForm& form : kOperators) {
        if (form.m_kind == kind)
            return &form;
    }
    return nullptr;
}

std::string Operand(const Sql& operand, int minStrength) {
    return operand.m_strength < minStrength ? "(" + operand.m_text + ")" : operand.m_text;
}

int OperandStrength(const OperatorForm& form, int position) {
    switch (form.m_shape) {
        case OperatorForm::kAssociative:
            return form.m_strength;
        case OperatorForm::kLeftAssociative:
            return position == 0 ? form.m_strength : form.m_strength + 1;
        case OperatorForm::kNonAssociative:
            return form.m_strength + 1;
        case OperatorForm::kPrefix:
            // "- -5" must not become "--5", a comment: a prefix operand is an atom or
            // parenthesized.
            return form.m_strength == kStrengthUnary ? kStrengthAtom : form.m_strength;
    }
    return kStrengthAtom;
}

}  // namespace sqlrender
