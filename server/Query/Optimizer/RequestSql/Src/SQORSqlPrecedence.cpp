// Where an operand of an operator needs parentheses.

#include "SQORSqlPrecedence.h"

namespace sqlrender {

std::string Operand(const Sql& operand, int minStrength) {
    return operand.m_strength < minStrength ? "(" + operand.m_text + ")" : operand.m_text;
}

int OperandStrength(const RqExprForm& form, int position) {
    if (form.m_shape == RqExprForm::kPrefix || position > 0)
        return form.m_rightStrength;
    return form.m_leftStrength;
}

}  // namespace sqlrender
