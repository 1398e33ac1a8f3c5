// Expressions: operators, functions, literals, columns, conditions, CASE forms, subqueries and
// GROUPING_ID. Which of these a kind is comes from the kind's entry (SQORSqlKindForms.h);
// operator spelling and strength from SQORSqlPrecedence.h.

#include <cctype>
#include <cmath>
#include <cstdio>
#include <string_view>

#include "SQORSqlWriter.h"

namespace sqlrender {

namespace {

// The form of x op ANY (s) or x op ALL (s); null for any other kind.
const RqExprForm* FindQuantifiedForm(RqNodeType_e kind) {
    const RqExprForm* form = RqFindExprForm(kind);
    return form != nullptr && form->m_quantifier != nullptr ? form : nullptr;
}

// True for an ANY comparison, false for an ALL one.
bool IsAnyForm(const RqExprForm& form) {
    return std::string_view(form.m_quantifier) == "ANY";
}

// The SQLite type a CAST names, from the request's type name; empty when it names none.
std::string CastType(const ZKString& typeName) {
    std::string upper;
    for (wchar_t c : typeName)
        upper += static_cast<char>(c < 128 ? std::toupper(static_cast<int>(c)) : '?');
    if (upper.find("INT") != std::string::npos)
        return "INTEGER";
    for (const char* text : {"CHAR", "TEXT", "CLOB", "STRING", "DATE", "TIME"}) {
        if (upper.find(text) != std::string::npos)
            return "TEXT";
    }
    for (const char* real : {"REAL", "FLOA", "DOUB", "DEC", "NUM"}) {
        if (upper.find(real) != std::string::npos)
            return "REAL";
    }
    return std::string();
}

bool IsDigit(char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

// Decimal text SQLite reads as the same number: digits, an optional point and exponent.
bool IsNumberText(const std::string& text) {
    size_t i = 0;
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        ++i;
    bool bDigits = false;
    for (; i < text.size() && IsDigit(text[i]); ++i)
        bDigits = true;
    if (i < text.size() && text[i] == '.') {
        for (++i; i < text.size() && IsDigit(text[i]); ++i)
            bDigits = true;
    }
    if (!bDigits || i == text.size())
        return bDigits;
    if (text[i] != 'e' && text[i] != 'E')
        return false;
    ++i;
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        ++i;
    const size_t exponent = i;
    while (i < text.size() && IsDigit(text[i]))
        ++i;
    return i > exponent && i == text.size();
}

std::string RealText(double value, const RqNode* node) {
    if (!std::isfinite(value))
        Fail(SqlProblem::kNotSupported, node, "a literal that is not a finite number");
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%.17g", value);
    std::string text = buffer;
    // A real must stay a real for SQLite, whose division and sums depend on the type.
    if (text.find_first_of(".e") == std::string::npos)
        text += ".0";
    return text;
}

// A literal whose value is text, as a quoted SQL string.
template <class Literal>
bool QuotedValue(const RqExpr& expr, Sql& out) {
    const auto* literal = RqDynCast<Literal>(&expr);
    if (literal != nullptr)
        out = Sql{SqlRenderer::QuoteText(Utf8(literal->GetValue()))};
    return literal != nullptr;
}

// In a grouping set's rows, a GROUP BY column the set leaves out is null (outside aggregates).
// A constant groups nothing and stays itself.
bool IsLeftOut(const RqExpr& expr, const GroupingBranch& branch) {
    return !expr.IsConstant() && HasEquivalent(branch.m_leftOut, expr) &&
           !HasEquivalent(branch.m_grouped, expr);
}

}  // namespace

Sql SqlWriter::Expr(const RqExpr& expr, const ExprEnv& env) {
    if (++m_exprDepth > kMaxExprDepth)
        Fail(SqlProblem::kNotSupported, &expr, "an expression nested too deeply");
    if (expr.IsKindOf(kRqExprCondConnective))
        ++m_numConnectives;
    Sql sql = ExprNode(expr, env);
    --m_exprDepth;
    return sql;
}

Sql SqlWriter::ExprNode(const RqExpr& expr, const ExprEnv& env) {
    if (env.m_pBranch != nullptr && IsLeftOut(expr, *env.m_pBranch))
        return Sql{"NULL"};
    const SqlKindForm& form = SqlKindFormOf(expr.GetObjectType());
    switch (form.m_role) {
        case SqlKindRole::kAggregate:
        case SqlKindRole::kWindowAggregate:
            return Aggregate(*RqCast<RqExprAggr>(&expr), env);
        case SqlKindRole::kOperator:
            return Operator(expr, env);
        case SqlKindRole::kFunction:
            return Function(expr, form.m_text, env);
        case SqlKindRole::kSpecialForm:
            return SpecialForm(expr, env);
        case SqlKindRole::kNoSqlMeaning:
        case SqlKindRole::kNotRendered:
        case SqlKindRole::kUnlisted:
            FailByForm(expr);
        case SqlKindRole::kRequest:
        case SqlKindRole::kList:
        case SqlKindRole::kTable:
        case SqlKindRole::kBlockPart:
            break;
    }
    Fail(SqlProblem::kMalformed, &expr, KindName(&expr) + " where a value is expected");
}

const RqExpr& SqlWriter::Op(const RqExpr& expr, int i) {
    const RqExpr* operand = i < expr.GetNumOperands() ? expr.GetIthOperand(i) : nullptr;
    if (operand == nullptr)
        Fail(SqlProblem::kMalformed, &expr, "an absent operand of " + KindName(&expr));
    return *operand;
}

void SqlWriter::CheckOperandCount(const RqExpr& expr, int min, int max) {
    const int n = expr.GetNumOperands();
    if (n < min || (max >= 0 && n > max))
        Fail(SqlProblem::kMalformed, &expr,
             KindName(&expr) + " with " + std::to_string(n) + " operands");
}

// The operand counts the kind table allows.
void SqlWriter::CheckOperandCount(const RqExpr& expr) {
    CheckOperandCount(expr, RqNodeTypeMinOperands(expr.GetObjectType()),
                      RqNodeTypeMaxOperands(expr.GetObjectType()));
}

Sql SqlWriter::Operator(const RqExpr& expr, const ExprEnv& env) {
    const RqExprForm* form = RqFindExprForm(expr.GetObjectType());
    if (form == nullptr || form->m_quantifier != nullptr)
        Fail(SqlProblem::kNotSupported, &expr, KindName(&expr) + " has no operator form");
    CheckOperandCount(expr);
    const std::string op = form->m_text;
    if (form->m_shape == RqExprForm::kPrefix)
        return Sql{op + (RqExprFormIsWord(*form) ? " " : "") +
                       Operand(Expr(Op(expr, 0), env), OperandStrength(*form, 0)),
                   form->m_strength};
    std::vector<std::string> parts;
    for (int i = 0; i < expr.GetNumOperands(); ++i) {
        const Sql operand = Expr(Op(expr, i), env);
        // Numeric division: SQLite divides integers by truncation otherwise.
        if (i == 0 && expr.IsKindOf(kRqExprDivide))
            parts.push_back("CAST(" + operand.m_text + " AS REAL)");
        else
            parts.push_back(Operand(operand, OperandStrength(*form, i == 0 ? 0 : 1)));
    }
    return Sql{Join(parts, (" " + op + " ").c_str()), form->m_strength};
}

Sql SqlWriter::Function(const RqExpr& expr, const char* name, const ExprEnv& env) {
    CheckOperandCount(expr);
    std::vector<std::string> args;
    for (int i = 0; i < expr.GetNumOperands(); ++i)
        args.push_back(Expr(Op(expr, i), env).m_text);
    return Sql{std::string(name) + "(" + Join(args, ", ") + ")"};
}

Sql SqlWriter::SpecialForm(const RqExpr& expr, const ExprEnv& env) {
    switch (expr.GetObjectType()) {
        case kRqTargetColumn:
            return Sql{TargetColumn(*RqCast<RqTargetColumn>(&expr), env)};
        case kRqDerivedColumnReference:
            return Sql{Reference(*RqCast<RqDerivedColumnReference>(&expr), env)};
        case kRqExprIntegerLiteral:
        case kRqExprFloatLiteral:
        case kRqExprNumberLiteral:
        case kRqExprStringLiteral:
        case kRqExprDateLiteral:
        case kRqExprTimeLiteral:
        case kRqExprDateTimeLiteral:
        case kRqExprNullLiteral:
            return Literal(expr);
        case kRqExprSquare:
            CheckOperandCount(expr);
            return Sql{"pow(" + Expr(Op(expr, 0), env).m_text + ", 2)"};
        case kRqExprCot:
            CheckOperandCount(expr);
            return Sql{"1.0 / tan(" + Expr(Op(expr, 0), env).m_text + ")", kRqStrengthMul};
        case kRqExprOctetLength:
            CheckOperandCount(expr);
            return Sql{"length(CAST(" + Expr(Op(expr, 0), env).m_text + " AS BLOB))"};
        case kRqExprLeft:
            CheckOperandCount(expr);
            return Sql{"substr(" + Expr(Op(expr, 0), env).m_text + ", 1, " +
                       Expr(Op(expr, 1), env).m_text + ")"};
        case kRqExprTrim:
            // The characters to trim and the side are further operands SQLite spells otherwise.
            if (expr.GetNumOperands() > 1)
                Fail(SqlProblem::kNotSupported, &expr, "a trim of given characters or one side");
            CheckOperandCount(expr);
            return Sql{"trim(" + Expr(Op(expr, 0), env).m_text + ")"};
        case kRqExprCondIsNull:
        case kRqExprCondBetween:
        case kRqExprCondLike:
        case kRqExprCondIn:
        case kRqExprCondExists:
            return Condition(expr, env);
        case kRqExprIfCase:
        case kRqExprLookupCase:
        case kRqExprCoalesce:
        case kRqExprCast:
            return Case(expr, env);
        case kRqExprLogicalSubquery:
        case kRqExprPhysicalSubquery:
        case kRqExprPersistSubquery:
            return ScalarSubquery(expr, env);
        case kRqExprGroupingId:
            return GroupingId(expr, env);
        default:
            break;
    }
    if (FindQuantifiedForm(expr.GetObjectType()) != nullptr)
        return Quantified(expr, env);
    // The kind's entry calls it a form of its own, but none is written here: refused rather
    // than guessed (the test of every kind renders each form and would fail).
    Fail(SqlProblem::kNotSupported, &expr, KindName(&expr) + " has no form written for it");
}

Sql SqlWriter::Literal(const RqExpr& expr) {
    if (const auto* integer = RqDynCast<RqExprIntegerLiteral>(&expr)) {
        const int64_t value = integer->GetValue();
        return Sql{std::to_string(value), value < 0 ? kRqStrengthUnary : kRqStrengthAtom};
    }
    if (const auto* real = RqDynCast<RqExprFloatLiteral>(&expr)) {
        const double value = real->GetValue();
        return Sql{RealText(value, &expr), value < 0 ? kRqStrengthUnary : kRqStrengthAtom};
    }
    if (const auto* number = RqDynCast<RqExprNumberLiteral>(&expr)) {
        const std::string text = Utf8(number->GetValue());
        if (!IsNumberText(text))
            Fail(SqlProblem::kNotSupported, &expr, "a number literal that is not a number");
        return Sql{text, text[0] == '-' || text[0] == '+' ? kRqStrengthUnary : kRqStrengthAtom};
    }
    if (RqDynCast<RqExprNullLiteral>(&expr) != nullptr)
        return Sql{"NULL"};
    // Dates and times are ISO text in SQLite, compared as text like strings.
    Sql out;
    if (QuotedValue<RqExprStringLiteral>(expr, out) || QuotedValue<RqExprDateLiteral>(expr, out) ||
        QuotedValue<RqExprTimeLiteral>(expr, out) || QuotedValue<RqExprDateTimeLiteral>(expr, out))
        return out;
    FailByForm(expr);
}

Sql SqlWriter::Condition(const RqExpr& expr, const ExprEnv& env) {
    CheckOperandCount(expr);
    const int compare = kPredicateOperandStrength;
    switch (expr.GetObjectType()) {
        case kRqExprCondIsNull:
            return Sql{Operand(Expr(Op(expr, 0), env), compare) + " IS NULL", kRqStrengthCompare};
        case kRqExprCondBetween:
            return Sql{Operand(Expr(Op(expr, 0), env), compare) + " BETWEEN " +
                           Operand(Expr(Op(expr, 1), env), compare) + " AND " +
                           Operand(Expr(Op(expr, 2), env), compare),
                       kRqStrengthCompare};
        case kRqExprCondLike: {
            std::string text = Operand(Expr(Op(expr, 0), env), compare) + " LIKE " +
                               Operand(Expr(Op(expr, 1), env), compare);
            if (expr.GetNumOperands() == 3)
                text += " ESCAPE " + Operand(Expr(Op(expr, 2), env), compare);
            return Sql{text, kRqStrengthCompare};
        }
        case kRqExprCondIn:
            return In(expr, env);
        case kRqExprCondExists:
            return Sql{"EXISTS (\n" + Indent(SubqueryList(Op(expr, 0), env)) + "\n)"};
        default:
            break;
    }
    Fail(SqlProblem::kNotSupported, &expr, KindName(&expr) + " has no form written for it");
}

Sql SqlWriter::Case(const RqExpr& expr, const ExprEnv& env) {
    CheckOperandCount(expr);
    const int n = expr.GetNumOperands();
    if (const auto* cast = RqDynCast<RqExprCast>(&expr)) {
        const std::string type = CastType(cast->GetTypeName());
        if (type.empty())
            Fail(SqlProblem::kNotSupported, &expr, "a cast to an unknown type");
        return Sql{"CAST(" + Expr(Op(expr, 0), env).m_text + " AS " + type + ")"};
    }
    if (expr.IsKindOf(kRqExprCoalesce)) {
        if (n == 1)
            return Expr(Op(expr, 0), env);
        std::vector<std::string> parts;
        for (int i = 0; i < n; ++i)
            parts.push_back(Expr(Op(expr, i), env).m_text);
        return Sql{"coalesce(" + Join(parts, ", ") + ")"};
    }
    // IfCase(c1, v1, ..., [else]); LookupCase(x, m1, v1, ..., [else]).
    const bool bLookup = expr.IsKindOf(kRqExprLookupCase);
    if (bLookup && n == 2)
        Fail(SqlProblem::kNotSupported, &expr, "a lookup case without any match");
    std::string text = bLookup ? "CASE " + Expr(Op(expr, 0), env).m_text : "CASE";
    int i = bLookup ? 1 : 0;
    for (; i + 1 < n; i += 2)
        text +=
            " WHEN " + Expr(Op(expr, i), env).m_text + " THEN " + Expr(Op(expr, i + 1), env).m_text;
    if (i < n)
        text += " ELSE " + Expr(Op(expr, i), env).m_text;
    return Sql{text + " END"};
}

// GROUPING_ID(c1, ..., cn): bit n-1-i is set when ci is not grouped by in the row's grouping
// set. Each branch of a block with grouping sets knows its set, so the value is a constant
// there; without grouping sets every row is grouped by every column, and the value is 0.
Sql SqlWriter::GroupingId(const RqExpr& expr, const ExprEnv& env) {
    if (env.m_bNoGroupingId)
        Fail(SqlProblem::kNoSqlMeaning, &expr,
             "GROUPING_ID over detail rows of a block with grouping sets");
    const GroupingBranch* branch = env.m_pBranch;
    if (branch == nullptr)
        return Sql{"0"};
    ExprList operands;
    for (int i = 0; i < expr.GetNumOperands(); ++i)
        operands.push_back(&Op(expr, i));
    if (operands.empty()) {
        const RqExprColumnListOrdered* list = branch->m_pGroupBy->GetColumnList();
        for (int i = 0; list != nullptr && i < list->GetNumColumns(); ++i)
            operands.push_back(list->GetIthColumn(i));
    }
    if (operands.size() > 62)
        Fail(SqlProblem::kNotSupported, &expr, "GROUPING_ID of more than 62 columns");
    int64_t mask = 0;
    for (const RqExpr* operand : operands) {
        const bool bGrouped = HasEquivalent(branch->m_grouped, *operand);
        if (!bGrouped && !HasEquivalent(branch->m_leftOut, *operand))
            Fail(SqlProblem::kMalformed, operand,
                 "GROUPING_ID of a column the block does not group by");
        mask = mask * 2 + (bGrouped ? 0 : 1);
    }
    return Sql{std::to_string(mask)};
}

std::string SqlWriter::TargetColumn(const RqTargetColumn& column, const ExprEnv& env) {
    const int tableNum = column.GetTableNum();
    bool bCrossedIsolation = false;
    for (const Scope* scope = env.m_pScope; scope != nullptr; scope = scope->m_pOuter) {
        auto found = scope->m_tables.find(tableNum);
        if (found != scope->m_tables.end()) {
            ZKString name = column.GetName();
            if (name.empty()) {
                RefAColumn byID = RefHelper::GetColumn(m_pRp, column.GetColumnID());
                if (!byID)
                    Fail(SqlProblem::kMalformed, &column,
                         "a column without a name or a known identifier");
                name = byID->GetName();
            }
            if (!found->second.m_table->FindColumn(name.View()))
                Fail(SqlProblem::kMalformed, &column,
                     "table " + Utf8(found->second.m_table->GetName()) + " has no column " +
                         Utf8(name));
            return found->second.m_alias + "." + SqlRenderer::QuoteIdentifier(Utf8(name));
        }
        if (scope->m_tableNumbers.count(tableNum) > 0)
            Fail(SqlProblem::kMalformed, &column,
                 "table number " + std::to_string(tableNum) +
                     " names a derived table, not a repository table");
        bCrossedIsolation = bCrossedIsolation || scope->m_bIsolated;
    }
    Unresolved(column, bCrossedIsolation,
               "table number " + std::to_string(tableNum) + " is in no enclosing FROM clause");
}

std::string SqlWriter::Reference(const RqDerivedColumnReference& reference, const ExprEnv& env) {
    const RqDerivedColumn* column = reference.GetDerivedColumn();
    if (column == nullptr)
        Fail(SqlProblem::kMalformed, &reference, "a reference to no column");
    bool bCrossedIsolation = false;
    for (const Scope* scope = env.m_pScope; scope != nullptr; scope = scope->m_pOuter) {
        auto found = scope->m_columns.find(column);
        if (found != scope->m_columns.end())
            return found->second;
        bCrossedIsolation = bCrossedIsolation || scope->m_bIsolated;
    }
    Unresolved(reference, bCrossedIsolation,
               "a reference to a column no derived table of an enclosing FROM exposes");
}

void SqlWriter::Unresolved(const RqExpr& expr, bool bCrossedIsolation, const std::string& reason) {
    if (bCrossedIsolation)
        Fail(SqlProblem::kNotSupported, &expr,
             "an aggregate at another level in a block that reads an enclosing block's columns");
    Fail(SqlProblem::kMalformed, &expr, reason);
}

// The list a subquery operand holds, rendered where it may read the current block.
std::string SqlWriter::SubqueryList(const RqExpr& operand, const ExprEnv& env) {
    const auto* subquery = RqDynCast<RqExprSubquery>(&operand);
    if (subquery == nullptr)
        Fail(SqlProblem::kNotSupported, &operand, "a subquery operand that is not a subquery");
    if (subquery->GetQuery() == nullptr)
        Fail(SqlProblem::kMalformed, &operand, "a subquery without a list");
    // Which value a grouping set's left-out column has inside a correlated subquery is not
    // something SQLite's branches could say.
    if (env.m_pBranch != nullptr && SubqueryReadsScope(operand, *env.m_pScope))
        Fail(SqlProblem::kNotSupported, &operand,
             "a correlated subquery in a block with grouping sets");
    // A subquery that reads no enclosing row is a named query, so that a chain of them costs
    // no nesting.
    bool bCorrelated = false;
    for (const Scope* scope = env.m_pScope; scope != nullptr && !bCorrelated;
         scope = scope->m_pOuter)
        bCorrelated = SubqueryReadsScope(operand, *scope);
    if (!bCorrelated) {
        // The subquery's own named queries first, so that it is numbered after them.
        const std::string inner = List(*subquery->GetQuery(), nullptr);
        return "SELECT *\nFROM " + Hoist("s" + std::to_string(m_namedQueries.size() + 1), inner);
    }
    return List(*subquery->GetQuery(), env.m_pScope);
}

const RqAbstractList& SqlWriter::SubqueryOf(const RqExpr& operand) {
    const auto* subquery = RqDynCast<RqExprSubquery>(&operand);
    const RqAbstractList* query = subquery != nullptr ? subquery->GetQuery() : nullptr;
    if (query == nullptr || query->GetProjection() == nullptr ||
        query->GetProjection()->GetNumColumns() == 0)
        Fail(SqlProblem::kMalformed, &operand, "a subquery without a list of columns");
    return *query;
}

// The value of a subquery's single row: a second row makes the statement fail on purpose,
// since SQLite would otherwise silently take any of them.
Sql SqlWriter::ScalarSubquery(const RqExpr& subquery, const ExprEnv& env) {
    const RqAbstractList& query = SubqueryOf(subquery);
    const std::string alias = NewAlias("q" + std::to_string(++m_subqueryCount));
    const std::string column = alias + "." + SqlRenderer::GetColumnName(query, 0);
    return Sql{"(SELECT CASE WHEN COUNT(*) > 1 THEN " + std::string(kSqlErrorFunction) +
               "('a scalar subquery returned more than one row') ELSE MIN(" + column +
               ") END\nFROM (\n" + Indent(SubqueryList(subquery, env)) + "\n) AS " + alias + ")"};
}

Sql SqlWriter::In(const RqExpr& expr, const ExprEnv& env) {
    const std::string value = Operand(Expr(Op(expr, 0), env), kPredicateOperandStrength);
    if (expr.GetNumOperands() == 2 && Op(expr, 1).IsKindOf(kRqExprSubquery)) {
        const RqAbstractList& query = SubqueryOf(Op(expr, 1));
        if (query.GetProjection()->GetNumColumns() != 1)
            Fail(SqlProblem::kMalformed, &expr, "IN over a subquery of several columns");
        return Sql{value + " IN (\n" + Indent(SubqueryList(Op(expr, 1), env)) + "\n)",
                   kRqStrengthCompare};
    }
    std::vector<std::string> members;
    for (int i = 1; i < expr.GetNumOperands(); ++i) {
        const RqExpr& member = Op(expr, i);
        if (member.IsKindOf(kRqExprSubquery))
            Fail(SqlProblem::kNotSupported, &expr, "IN over a subquery among other members");
        // A parenthesized list of values, In(x, (1, 2)), lists its values as members.
        if (const auto* list = RqDynCast<RqExprColumnListOrdered>(&member)) {
            for (int k = 0; k < list->GetNumColumns(); ++k) {
                const RqExpr* value = list->GetIthColumn(k);
                if (value == nullptr)
                    Fail(SqlProblem::kMalformed, list, "an empty slot in a list of values");
                if (value->IsKindOf(kRqExprSubquery) || value->IsKindOf(kRqExprColumnListOrdered))
                    Fail(SqlProblem::kNotSupported, value,
                         "IN over a list holding a subquery or another list");
                members.push_back(Expr(*value, env).m_text);
            }
            continue;
        }
        members.push_back(Expr(member, env).m_text);
    }
    return Sql{value + " IN (" + Join(members, ", ") + ")", kRqStrengthCompare};
}

// x op ANY (s) and x op ALL (s), which SQLite lacks, in three-valued logic: true, false or
// unknown as the comparisons with the subquery's rows decide.
Sql SqlWriter::Quantified(const RqExpr& expr, const ExprEnv& env) {
    CheckOperandCount(expr);
    const RqExprForm& form = *FindQuantifiedForm(expr.GetObjectType());
    const bool bAny = IsAnyForm(form);
    const RqExpr& subquery = Op(expr, 1);
    const RqAbstractList& query = SubqueryOf(subquery);
    auto exists = [&](const std::string& condTemplate) {
        const std::string alias = NewAlias("q" + std::to_string(++m_subqueryCount));
        const std::string column = alias + "." + SqlRenderer::GetColumnName(query, 0);
        const std::string comparison = Operand(Expr(Op(expr, 0), env), kPredicateOperandStrength) +
                                       " " + form.m_text + " " + column;
        std::string cond = condTemplate;
        cond.replace(cond.find('@'), 1, comparison);
        return "EXISTS (SELECT 1 FROM (\n" + Indent(SubqueryList(subquery, env)) + "\n) AS " +
               alias + " WHERE " + cond + ")";
    };
    const std::string decisive = exists(bAny ? "@" : "NOT (@)");
    const std::string unknown = exists("(@) IS NULL");
    return Sql{"CASE WHEN " + decisive + " THEN " + (bAny ? "1" : "0") + " WHEN " + unknown +
               " THEN NULL ELSE " + (bAny ? "0" : "1") + " END"};
}

}  // namespace sqlrender
