// The SQL renderer: a request tree becomes one SQLite statement with the meaning that
// docs/semantics.md gives it. Every construct is either rendered faithfully or refused with
// the node that stops it; the renderer never chooses a meaning the page does not state.

#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"

namespace {

// Nesting beyond this is refused rather than risking the stack: requests that deep are not
// written by hand, and the check would not finish on them anyway.
constexpr int kMaxListDepth = 200;
constexpr int kMaxExprDepth = 2000;

struct RenderFailure {
    SqlProblem m_problem;
    const RqNode* m_pNode;
    std::string m_reason;
};

[[noreturn]] void Fail(SqlProblem problem, const RqNode* node, std::string reason) {
    throw RenderFailure{problem, node, std::move(reason)};
}

std::string KindName(const RqNode* node) {
    return RqNodeUtility::GetKindName(node).ToUtf8();
}

std::string Utf8(const ZKString& text) {
    return text.ToUtf8();
}

// Prefixes every line of `text` with `spaces` blanks.
std::string Indent(const std::string& text, int spaces = 2) {
    return SqlRenderer::IndentLines(text, std::string(spaces, ' '));
}

std::string Join(const std::vector<std::string>& parts, const char* separator) {
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0)
            out += separator;
        out += parts[i];
    }
    return out;
}

// ---- Names in scope ------------------------------------------------------------------------

// What the expressions of one block can name: its FROM clause's tables and the columns its
// derived tables expose, and (for a subquery) what the enclosing block can name.
struct Scope {
    const Scope* m_pOuter = nullptr;
    // A helper table of aggregates: evaluated in the FROM clause, it sees no enclosing block.
    bool m_bIsolated = false;
    struct Table {
        std::string m_alias;
        RefATable m_table;
    };
    std::map<int, Table> m_tables;  // repository tables by table number
    std::set<int> m_tableNumbers;   // every table number of the FROM clause
    std::unordered_map<const RqDerivedColumn*, std::string> m_columns;  // exposed columns
};

// ---- Expression analysis ---------------------------------------------------------------------
// Operands are walked through GetIthOperand, which yields null for a subquery's block: the
// aggregates and columns of a subquery belong to the subquery's own block.

// Whether an expression nests deeper than the renderer follows. Checked once, without
// recursion, before the recursive analyses below walk the expression.
bool IsTooDeep(const RqExpr* root) {
    std::vector<std::pair<const RqExpr*, int>> work{{root, 1}};
    while (!work.empty()) {
        const auto [expr, depth] = work.back();
        work.pop_back();
        if (expr == nullptr)
            continue;
        if (depth > kMaxExprDepth)
            return true;
        for (int i = 0; i < expr->GetNumOperands(); ++i)
            work.emplace_back(expr->GetIthOperand(i), depth + 1);
    }
    return false;
}

bool ContainsAggr(const RqExpr* expr) {
    if (expr == nullptr)
        return false;
    if (expr->IsAggr())
        return true;
    for (int i = 0; i < expr->GetNumOperands(); ++i) {
        if (ContainsAggr(expr->GetIthOperand(i)))
            return true;
    }
    return false;
}

// Rank, row number, running, moving and report aggregates are computed over the block's
// result rows, after its grouping: window functions, not aggregates of detail rows. Their
// operands are values of a result row like any projected expression.
bool IsWindowAggr(const RqExpr* expr) {
    if (expr == nullptr || !expr->IsAggr())
        return false;
    const auto& aggr = static_cast<const RqExprAggr&>(*expr);
    return aggr.IsSortDependent() || aggr.IsKindOf(kRqExprAggrReport);
}

bool ContainsWindowAggr(const RqExpr* expr) {
    if (expr == nullptr)
        return false;
    if (IsWindowAggr(expr))
        return true;
    for (int i = 0; i < expr->GetNumOperands(); ++i) {
        if (ContainsWindowAggr(expr->GetIthOperand(i)))
            return true;
    }
    return false;
}

// The outermost aggregates of detail rows in an expression, in pre-order, looking through
// window aggregates (whose measures may hold them).
void CollectAggrs(const RqExpr* expr, std::vector<const RqExprAggr*>& out) {
    if (expr == nullptr)
        return;
    if (expr->IsAggr() && !IsWindowAggr(expr)) {
        out.push_back(static_cast<const RqExprAggr*>(expr));
        return;
    }
    for (int i = 0; i < expr->GetNumOperands(); ++i)
        CollectAggrs(expr->GetIthOperand(i), out);
}

// The outermost window aggregates of an expression.
void CollectWindowAggrs(const RqExpr* expr, std::vector<const RqExprAggr*>& out) {
    if (expr == nullptr)
        return;
    if (IsWindowAggr(expr)) {
        out.push_back(static_cast<const RqExprAggr*>(expr));
        return;
    }
    for (int i = 0; i < expr->GetNumOperands(); ++i)
        CollectWindowAggrs(expr->GetIthOperand(i), out);
}

// A subquery reads the row of the block that holds it when a column inside it names a table
// of that block's FROM clause (and not one of the subquery's own) or a column one of that
// block's derived tables exposes. Otherwise it has one value for the whole block.
bool SubqueryReadsScope(const RqExpr& subquery, const Scope& scope) {
    RqNodeVector nodes;
    FindNodes(
        const_cast<RqExpr*>(&subquery), [](const RqNode*) { return true; }, nodes);
    std::set<int> ownTables;
    for (const RqNode* node : nodes) {
        if (node->IsKindOf(kRqAbstractTable))
            ownTables.insert(static_cast<const RqAbstractTable*>(node)->GetTableNum());
    }
    for (const RqNode* node : nodes) {
        if (node->GetObjectType() == kRqDerivedColumnReference &&
            scope.m_columns.count(
                static_cast<const RqDerivedColumnReference*>(node)->GetDerivedColumn()) > 0)
            return true;
        if (node->IsKindOf(kRqTargetColumn)) {
            const int tableNum = static_cast<const RqTargetColumn*>(node)->GetTableNum();
            if (ownTables.count(tableNum) == 0 && scope.m_tableNumbers.count(tableNum) > 0)
                return true;
        }
    }
    return false;
}

// The expression reads a value of the current row outside any aggregate: a column, a
// reference, a subquery that reads the block's row, or any other leaf that is not constant.
bool ReadsRowOutsideAggr(const RqExpr* expr, const Scope& scope) {
    if (expr == nullptr || expr->IsConstant() || (expr->IsAggr() && !IsWindowAggr(expr)))
        return false;
    if (IsWindowAggr(expr)) {
        // A row number reads no value at all; otherwise its operands decide.
        for (int i = 0; i < expr->GetNumOperands(); ++i) {
            if (ReadsRowOutsideAggr(expr->GetIthOperand(i), scope))
                return true;
        }
        return false;
    }
    if (expr->IsKindOf(kRqExprSubquery))
        return SubqueryReadsScope(*expr, scope);
    bool bAnyOperand = false;
    for (int i = 0; i < expr->GetNumOperands(); ++i) {
        const RqExpr* operand = expr->GetIthOperand(i);
        if (operand == nullptr)
            continue;
        bAnyOperand = true;
        if (ReadsRowOutsideAggr(operand, scope))
            return true;
    }
    return !bAnyOperand;
}

using ExprList = std::vector<const RqExpr*>;

bool HasEquivalent(const ExprList& list, const RqExpr& expr) {
    for (const RqExpr* member : list) {
        if (member->IsEquivalent(expr))
            return true;
    }
    return false;
}

bool IsSubset(const ExprList& a, const ExprList& b) {
    for (const RqExpr* member : a) {
        if (!HasEquivalent(b, *member))
            return false;
    }
    return true;
}

bool SameSet(const ExprList& a, const ExprList& b) {
    return IsSubset(a, b) && IsSubset(b, a);
}

// The members of a column list that can change a grouping: constants group all rows alike.
ExprList GroupingMembers(const RqExprColumnListOrdered* list) {
    ExprList out;
    if (list == nullptr)
        return out;
    for (int i = 0; i < list->GetNumColumns(); ++i) {
        const RqExpr* member = list->GetIthColumn(i);
        if (member == nullptr)
            Fail(SqlProblem::kMalformed, list, "a grouping list with an absent member");
        if (ContainsAggr(member))
            Fail(SqlProblem::kNoSqlMeaning, member, "an aggregate inside a grouping list");
        if (!member->IsConstant() && !HasEquivalent(out, *member))
            out.push_back(member);
    }
    return out;
}

// The first sub-expression outside aggregates that the grain does not determine, or null.
const RqExpr* FindUndetermined(const RqExpr* expr, const ExprList& grain, const Scope& scope) {
    if (expr == nullptr || (expr->IsAggr() && !IsWindowAggr(expr)) || expr->IsConstant() ||
        HasEquivalent(grain, *expr))
        return nullptr;
    if (IsWindowAggr(expr)) {
        for (int i = 0; i < expr->GetNumOperands(); ++i) {
            if (const RqExpr* found = FindUndetermined(expr->GetIthOperand(i), grain, scope))
                return found;
        }
        return nullptr;
    }
    if (expr->IsKindOf(kRqExprSubquery))
        return SubqueryReadsScope(*expr, scope) ? expr : nullptr;
    bool bAnyOperand = false;
    for (int i = 0; i < expr->GetNumOperands(); ++i) {
        const RqExpr* operand = expr->GetIthOperand(i);
        if (operand == nullptr)
            continue;
        bAnyOperand = true;
        if (const RqExpr* found = FindUndetermined(operand, grain, scope))
            return found;
    }
    return bAnyOperand ? nullptr : expr;
}

// The top-level AND operands of a condition, left to right, without recursion.
void HarvestConjuncts(const RqExpr* cond, ExprList& out) {
    std::vector<const RqExpr*> work{cond};
    while (!work.empty()) {
        const RqExpr* expr = work.back();
        work.pop_back();
        if (expr != nullptr && expr->GetObjectType() == kRqExprCondAnd &&
            expr->GetNumOperands() == 2) {
            work.push_back(expr->GetIthOperand(1));
            work.push_back(expr->GetIthOperand(0));
        } else {
            out.push_back(expr);
        }
    }
}

// The derived table a block reads row for row: the block's only FROM member, read through a
// plain (inner or natural) reference with no right side, with nothing that regroups or
// reorders its rows (no GROUP BY, no aggregate, no DISTINCT, no ORDER BY of its own; a WHERE
// only drops rows). Such a block keeps that table's order. An outer join keeps no order even
// when it has one side only: the engine runs it as a join, and the rules that drop ORDER BY
// under joins count it as one. Null otherwise.
const RqDerivedTable* RowForRowSource(const RqList& block) {
    if (block.GetOrderBy() != nullptr || block.GetGroupBy() != nullptr || block.IsDistinct() ||
        block.GetSummaryFilter() != nullptr || block.GetHaving() != nullptr)
        return nullptr;
    const RqJoinSpec* joinSpec = block.GetJoinSpec();
    if (joinSpec == nullptr || joinSpec->GetNumJoinNodes() != 1)
        return nullptr;
    const RqJoinNode* node = joinSpec->GetIthJoinNode(0);
    const RqTableReference* reference = node != nullptr ? node->GetTableReference() : nullptr;
    if (reference == nullptr || reference->GetRightNode() != nullptr ||
        (reference->GetJoinType() != SqlTableRef::kInnerJoin &&
         reference->GetJoinType() != SqlTableRef::kNaturalJoin) ||
        reference->GetLeftNode() == nullptr ||
        reference->GetLeftNode()->GetObjectType() != kRqDerivedTable)
        return nullptr;
    const RqDerivedTable* derived = static_cast<const RqDerivedTable*>(reference->GetLeftNode());
    if (derived->GetInnerList() == nullptr || derived->GetInnerList()->GetProjection() == nullptr)
        return nullptr;
    const RqProjection* projection = block.GetProjection();
    for (int i = 0; projection != nullptr && i < projection->GetNumColumns(); ++i) {
        const RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column != nullptr && ContainsAggr(column->GetExpr()))
            return nullptr;
    }
    const RqDetailFilter* filter = block.GetDetailFilter();
    if (filter != nullptr && filter->GetNumChildren() > 0 && filter->GetIthChild(0) != nullptr &&
        filter->GetIthChild(0)->IsExpr() &&
        ContainsAggr(static_cast<const RqExpr*>(filter->GetIthChild(0))))
        return nullptr;
    return derived;
}

// "name COLLATE NOCASE DESC NULLS LAST": one ORDER BY term.
std::string OrderTerm(const std::string& name, const SqlSortKey& key) {
    std::string term = name;
    if (key.m_bCaseInsensitive)
        term += " COLLATE NOCASE";
    // Either direction is free to the request; ascending is the one rendered.
    if (key.m_direction == RqSortSpec::kDesc)
        term += " DESC";
    if (key.m_nulls == RqSortSpec::kFirst)
        term += " NULLS FIRST";
    else if (key.m_nulls == RqSortSpec::kLast)
        term += " NULLS LAST";
    return term;
}

// ---- Kinds ---------------------------------------------------------------------------------

// Expression kinds that the meaning page declares without SQL meaning (the others that the
// renderer does not handle are "not supported": they have a meaning it does not produce).
bool HasNoSqlMeaning(RqNodeType_e kind) {
    switch (kind) {
        case kRqAttribute:
        case kRqExprDimension:
        case kRqExprLevel:
        case kRqExprCondGroupByContent:
        case kRqExprMemberReference:
        case kRqExprCalculatedMember:
        case kRqExprQualify:
        case kRqExprIsAncestor:
        case kRqExprIsLeaf:
        case kRqExprIsRoot:
        case kRqExprIsSibling:
        case kRqExprDepth:
        case kRqExprAllValues:
        case kRqExprIDOf:
        case kRqExprGroupingId:
        case kRqExprEvaluate:
        case kRqExprEvaluatePredicate:
        case kRqExprEvaluateAggr:
        case kRqExprEvaluateAggrLogical:
        case kRqExprLookup:
        case kRqExprXSALookup:
        case kRqExprDictLookup:
        case kRqExprIndexCol:
        case kRqExprParam:
        case kRqExprSessionVar:
        case kRqExprDatabase:
        case kRqExprUser:
        case kRqExprRand:
        case kRqExprRowID:
        case kRqExprPredict:
        case kRqExprExternalData:
        case kRqExprBinPlaceHolder:
        case kRqExprTimeDimSeqNum:
        case kRqExprGrainCheckDisplay:
        case kRqExprNLSSort:
        case kRqExprJsonValue:
        case kRqExprVariableReplace:
        case kRqExprCondOuterJoinFilter:
        case kRqExprMashupsNoAggregate:
        case kRqExprNoAggregate:
        case kRqExprAggrExternal:
        case kRqDimensionAggr:
        case kRqExprAggrFirst:
        case kRqExprAggrLast:
        case kRqTargetCubeColumn:
        case kRqTargetCacheColumn:
            return true;
        default:
            return false;
    }
}

// Scalar functions whose SQL form is a call with the operands in order.
struct FunctionForm {
    RqNodeType_e m_kind;
    const char* m_name;
    int m_minOps;
    int m_maxOps;
};

constexpr FunctionForm kFunctions[] = {
    {kRqExprUpper, "upper", 1, 1},
    {kRqExprLower, "lower", 1, 1},
    {kRqExprCharLength, "length", 1, 1},
    {kRqExprLength, "length", 1, 1},
    {kRqExprTrim, "trim", 1, 1},
    {kRqExprReplace, "replace", 3, 3},
    {kRqExprSubstring, "substr", 2, 3},
    {kRqExprAbs, "abs", 1, 1},
    {kRqExprSign, "sign", 1, 1},
    {kRqExprRound, "round", 1, 2},
    {kRqExprFloor, "floor", 1, 1},
    {kRqExprCeil, "ceil", 1, 1},
    {kRqExprSqrt, "sqrt", 1, 1},
    {kRqExprExp, "exp", 1, 1},
    {kRqExprPow, "pow", 2, 2},
    {kRqExprLog, "ln", 1, 1},
    {kRqExprLog10, "log10", 1, 1},
    {kRqExprMod, "mod", 2, 2},
    {kRqExprPi, "pi", 0, 0},
    {kRqExprSin, "sin", 1, 1},
    {kRqExprCos, "cos", 1, 1},
    {kRqExprTan, "tan", 1, 1},
    {kRqExprAsin, "asin", 1, 1},
    {kRqExprAcos, "acos", 1, 1},
    {kRqExprAtan, "atan", 1, 1},
    {kRqExprAtan2, "atan2", 2, 2},
    {kRqExprSinh, "sinh", 1, 1},
    {kRqExprCosh, "cosh", 1, 1},
    {kRqExprTanh, "tanh", 1, 1},
    {kRqExprDegrees, "degrees", 1, 1},
    {kRqExprRadians, "radians", 1, 1},
    {kRqExprIfNull, "ifnull", 2, 2},
    {kRqExprNullIf, "nullif", 2, 2},
};

const FunctionForm* FindFunction(RqNodeType_e kind) {
    for (const FunctionForm& form : kFunctions) {
        if (form.m_kind == kind)
            return &form;
    }
    return nullptr;
}

const char* ComparisonOperator(RqNodeType_e kind) {
    switch (kind) {
        case kRqExprCondEquality:
        case kRqExprCondAllEqual:
            return "=";
        case kRqExprCondNotEqual:
        case kRqExprCondAnyNotEqual:
            return "<>";
        case kRqExprCondLess:
        case kRqExprCondAnyLessThan:
        case kRqExprCondAllLessThan:
            return "<";
        case kRqExprCondLessEqual:
        case kRqExprCondAnyLessEqual:
        case kRqExprCondAllLessEqual:
            return "<=";
        case kRqExprCondGreater:
        case kRqExprCondAnyGreaterThan:
        case kRqExprCondAllGreaterThan:
            return ">";
        case kRqExprCondGreaterEqual:
        case kRqExprCondAnyGreaterEqual:
        case kRqExprCondAllGreaterEqual:
            return ">=";
        default:
            return nullptr;
    }
}

bool IsQuantifiedAny(RqNodeType_e kind) {
    return kind >= kRqExprCondAnyLessThan && kind <= kRqExprCondAnyNotEqual;
}

bool IsQuantifiedAll(RqNodeType_e kind) {
    return kind >= kRqExprCondAllLessThan && kind <= kRqExprCondAllGreaterEqual;
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

bool IsNumberText(const std::string& text) {
    size_t i = 0;
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        ++i;
    bool bDigits = false;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
        ++i;
        bDigits = true;
    }
    if (i < text.size() && text[i] == '.') {
        ++i;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
            ++i;
            bDigits = true;
        }
    }
    if (bDigits && i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '-' || text[i] == '+'))
            ++i;
        bool bExponent = false;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
            ++i;
            bExponent = true;
        }
        return bExponent && i == text.size();
    }
    return bDigits && i == text.size();
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

// How the aggregates of an expression are rendered.
struct ExprEnv {
    const Scope* m_pScope = nullptr;
    // Aggregates computed in a helper table, by node: the column that holds the value.
    const std::unordered_map<const RqExpr*, std::string>* m_pAggrValues = nullptr;
    // Other aggregates are SQL aggregates over the block's groups.
    bool m_bInlineAggr = false;
    // Why an aggregate cannot stand here, when it cannot.
    const char* m_pNoAggrReason = "an aggregate where the block computes none";
    // The block whose result rows window aggregates run over (their sort keys name its
    // projection); null where none can stand (conditions on detail rows, other aggregates,
    // another window's operands).
    const RqList* m_pWindowBlock = nullptr;
};

// Binding strength of an SQL expression, to parenthesize only where needed.
enum Precedence {
    kPrecOr = 20,
    kPrecAnd = 30,
    kPrecNot = 40,
    kPrecCompare = 50,
    kPrecAdd = 70,
    kPrecMul = 80,
    kPrecConcat = 85,
    kPrecUnary = 90,
    kPrecAtom = 100,
};

// How each window aggregate is written: the SQL function, what it is applied to, its
// frame, and whether rows tied on the sort keys would leave its value undetermined.
struct WindowForm {
    enum Argument { kNoArgument, kMeasure, kMeasureOrStar, kCountParameter };
    enum Frame { kWholePartition, kUpToPeers, kLastRows };
    RqNodeType_e m_kind;
    const char* m_function;
    Argument m_argument;
    Frame m_frame;
    bool m_bNeedsTotalOrder;
};

constexpr WindowForm kWindowForms[] = {
    {kRqExprAggrRank, "RANK", WindowForm::kNoArgument, WindowForm::kWholePartition, false},
    {kRqExprAggrPercentile, "PERCENT_RANK", WindowForm::kNoArgument, WindowForm::kWholePartition,
     false},
    {kRqExprAggrRowNum, "ROW_NUMBER", WindowForm::kNoArgument, WindowForm::kWholePartition, true},
    {kRqExprAggrNtile, "NTILE", WindowForm::kCountParameter, WindowForm::kWholePartition, true},
    {kRqExprAggrRunningSum, "SUM", WindowForm::kMeasure, WindowForm::kUpToPeers, false},
    {kRqExprAggrRunningCount, "COUNT", WindowForm::kMeasureOrStar, WindowForm::kUpToPeers, false},
    {kRqExprAggrRunningMin, "MIN", WindowForm::kMeasure, WindowForm::kUpToPeers, false},
    {kRqExprAggrRunningMax, "MAX", WindowForm::kMeasure, WindowForm::kUpToPeers, false},
    {kRqExprAggrMovingSum, "SUM", WindowForm::kMeasure, WindowForm::kLastRows, true},
    {kRqExprAggrMovingAvg, "AVG", WindowForm::kMeasure, WindowForm::kLastRows, true},
    {kRqExprAggrReportSum, "SUM", WindowForm::kMeasure, WindowForm::kWholePartition, false},
    {kRqExprAggrReportCount, "COUNT", WindowForm::kMeasureOrStar, WindowForm::kWholePartition,
     false},
    {kRqExprAggrReportMin, "MIN", WindowForm::kMeasure, WindowForm::kWholePartition, false},
    {kRqExprAggrReportMax, "MAX", WindowForm::kMeasure, WindowForm::kWholePartition, false},
    {kRqExprAggrReportAvg, "AVG", WindowForm::kMeasure, WindowForm::kWholePartition, false},
};

const WindowForm* FindWindowForm(RqNodeType_e kind) {
    for (const WindowForm& form : kWindowForms) {
        if (form.m_kind == kind)
            return &form;
    }
    return nullptr;
}

// The count parameter of NTILE and of the moving aggregates (checked to be an integer
// literal before rendering).
int64_t WindowParameter(const RqExprAggr& aggr) {
    return static_cast<const RqExprIntegerLiteral*>(aggr.GetIthParameter(0))->GetValue();
}

struct Sql {
    std::string m_text;
    int m_prec = kPrecAtom;
};

// A literal whose value is text, as a quoted SQL string.
template <class Literal>
Sql QuotedValue(const RqExpr& expr) {
    return Sql{SqlRenderer::QuoteText(Utf8(static_cast<const Literal&>(expr).GetValue()))};
}

std::string Operand(const Sql& sql, int minPrec) {
    return sql.m_prec < minPrec ? "(" + sql.m_text + ")" : sql.m_text;
}

// A group of aggregates computed at one level other than the block's grain, in a helper
// table joined back to the block's rows.
struct AggrLevel {
    ExprList m_level;
    std::vector<const RqExprAggr*> m_aggrs;  // one per distinct aggregate
};

class Writer {
public:
    Writer(const ARpGateway* rp, const SqlRenderOptions& options,
           std::vector<const RqAbstractList*>& orderDependent)
        : m_pRp(rp), m_options(options), m_orderDependent(orderDependent) {}

    std::string Top(const RqNode& root) {
        const RqNode* request = &root;
        if (root.GetObjectType() == kRqHandleNode) {
            request = static_cast<const RqHandleNode&>(root).GetRqNode();
            if (request == nullptr)
                Fail(SqlProblem::kMalformed, &root, "a request handle without a request");
        }
        if (!request->IsKindOf(kRqAbstractList)) {
            Fail(HasNoSqlMeaning(request->GetObjectType()) || !request->IsExpr()
                     ? SqlProblem::kNoSqlMeaning
                     : SqlProblem::kNotSupported,
                 request, KindName(request) + " is not a list of rows");
        }
        return List(static_cast<const RqAbstractList&>(*request), nullptr);
    }

private:
    // ---- Lists ---------------------------------------------------------------------------

    std::string List(const RqAbstractList& list, const Scope* outer) {
        if (++m_listDepth > kMaxListDepth)
            Fail(SqlProblem::kNotSupported, &list, "lists nested too deeply");
        std::string sql;
        switch (list.GetObjectType()) {
            case kRqList:
                sql = Block(static_cast<const RqList&>(list), outer);
                break;
            case kRqUnion:
            case kRqIntersect:
            case kRqExcept:
                sql = WithLimit(list, SetOperation(list, outer), {});
                break;
            case kRqBreakFilter:
                sql = BreakFilter(static_cast<const RqBreakFilter&>(list), outer);
                break;
            case kRqCacheList: {
                const RqAbstractList* inner = static_cast<const RqCacheList&>(list).GetList();
                if (inner == nullptr)
                    Fail(SqlProblem::kMalformed, &list, "a cache list without its list");
                sql = WithLimit(list, List(*inner, outer), Order(*inner));
                break;
            }
            case kRqSharedList: {
                const RqAbstractList* shared =
                    static_cast<const RqSharedList&>(list).GetSharedRqList();
                if (shared == nullptr)
                    Fail(SqlProblem::kMalformed, &list, "a shared list naming no list");
                if (!m_activeShared.insert(shared).second)
                    Fail(SqlProblem::kMalformed, &list, "a shared list that reads itself");
                sql = WithLimit(list, List(*shared, outer), Order(*shared));
                m_activeShared.erase(shared);
                break;
            }
            default:
                Fail(SqlProblem::kNoSqlMeaning, &list, KindName(&list) + " has no SQL meaning");
        }
        --m_listDepth;
        return sql;
    }

    std::vector<SqlSortKey> Order(const RqAbstractList& list) {
        std::vector<SqlSortKey> keys;
        if (!SqlRenderer::GetListOrder(list, keys))
            Fail(SqlProblem::kMalformed, &list,
                 "a sort key names a column the list does not project");
        return keys;
    }

    bool LimitApplies(const RqAbstractList& list) const {
        return m_options.m_pWithoutLimit != &list &&
               (list.GetRowLimit() != 0 || list.GetRowOffset() != 0);
    }

    std::string LimitClause(const RqAbstractList& list) {
        m_orderDependent.push_back(&list);
        std::string clause =
            "LIMIT " + (list.GetRowLimit() != 0 ? std::to_string(list.GetRowLimit()) : "-1");
        if (list.GetRowOffset() != 0)
            clause += " OFFSET " + std::to_string(list.GetRowOffset());
        return clause;
    }

    // A list that is not a block applies its own row offset and limit around its rows, in
    // the order its rows come in.
    std::string WithLimit(const RqAbstractList& list, const std::string& sql,
                          const std::vector<SqlSortKey>& keys) {
        if (!LimitApplies(list))
            return sql;
        std::string out = "SELECT *\nFROM (\n" + Indent(sql) + "\n)";
        if (!keys.empty())
            out += "\nORDER BY " + OrderTerms(list, keys);
        return out + "\n" + LimitClause(list);
    }

    std::string OrderTerms(const RqAbstractList& list, const std::vector<SqlSortKey>& keys) {
        std::vector<std::string> terms;
        for (const SqlSortKey& key : keys)
            terms.push_back(SqlRenderer::GetOrderTerm(list, key));
        return Join(terms, ", ");
    }

    std::vector<std::string> ColumnNames(const RqAbstractList& list) {
        const RqProjection* projection = list.GetProjection();
        if (projection == nullptr)
            Fail(SqlProblem::kMalformed, &list, "a list without a projection");
        std::vector<std::string> names;
        std::set<int> numbers;
        for (int i = 0; i < projection->GetNumColumns(); ++i) {
            const RqDerivedColumn* column = projection->GetIthColumn(i);
            if (column == nullptr || column->GetColumnNum() < 0)
                Fail(SqlProblem::kMalformed,
                     column != nullptr ? static_cast<const RqNode*>(column) : projection,
                     "a projection column without a column number");
            if (!numbers.insert(column->GetColumnNum()).second)
                Fail(SqlProblem::kMalformed, column,
                     "two columns of one projection share a number");
            names.push_back(SqlRenderer::GetColumnName(list, i));
        }
        return names;
    }

    // ---- Set operations ------------------------------------------------------------------

    std::string Member(const RqAbstractList& member, const Scope* outer) {
        std::string sql = List(member, outer);
        // A block that reads an ordered derived table row for row is rendered with that
        // table's ORDER BY, so it needs the wrapping as much as one with an ORDER BY of its own.
        const auto* block =
            member.GetObjectType() == kRqList ? static_cast<const RqList*>(&member) : nullptr;
        const bool bPlain = block != nullptr && block->GetOrderBy() == nullptr &&
                            RowForRowSource(*block) == nullptr && !LimitApplies(member);
        // A compound's members cannot carry ORDER BY or LIMIT, nor be compounds themselves.
        return bPlain ? sql : "SELECT *\nFROM (\n" + Indent(sql) + "\n)";
    }

    std::string SetOperation(const RqAbstractList& op, const Scope* outer) {
        const RqNodeType_e kind = op.GetObjectType();
        const bool bAll = kind == kRqUnion       ? static_cast<const RqUnion&>(op).IsAll()
                          : kind == kRqIntersect ? static_cast<const RqIntersect&>(op).IsAll()
                                                 : static_cast<const RqExcept&>(op).IsAll();
        std::vector<const RqAbstractList*> members;
        for (int i = 0; i < op.GetNumChildren(); ++i) {
            const RqNode* child = op.GetIthChild(i);
            if (child == nullptr || !child->IsKindOf(kRqAbstractList))
                Fail(SqlProblem::kMalformed, child != nullptr ? child : &op,
                     "a set operation member that is not a list");
            members.push_back(static_cast<const RqAbstractList*>(child));
        }
        if (members.empty())
            Fail(SqlProblem::kMalformed, &op, "a set operation without members");
        const std::vector<std::string> names = ColumnNames(*members[0]);
        for (const RqAbstractList* member : members) {
            if (ColumnNames(*member).size() != names.size())
                Fail(SqlProblem::kMalformed, member,
                     "a set operation member with another number of columns");
        }
        const char* keyword = kind == kRqUnion       ? "UNION"
                              : kind == kRqIntersect ? "INTERSECT"
                                                     : "EXCEPT";
        if (members.size() == 1) {
            std::string sql = List(*members[0], outer);
            return bAll ? sql : "SELECT DISTINCT *\nFROM (\n" + Indent(sql) + "\n)";
        }
        if (kind == kRqUnion || !bAll) {
            std::string sql = Member(*members[0], outer);
            for (size_t i = 1; i < members.size(); ++i)
                sql += "\n" + std::string(keyword) + (bAll ? " ALL\n" : "\n") +
                       Member(*members[i], outer);
            return sql;
        }
        // SQLite has no INTERSECT ALL or EXCEPT ALL: numbering the copies of each row makes
        // them distinct, and the set operation on numbered rows keeps the right counts. A
        // chain is evaluated pairwise, each step renumbered, as the counts require.
        std::string sql = List(*members[0], outer);
        for (size_t i = 1; i < members.size(); ++i) {
            const std::string left = "SELECT *, ROW_NUMBER() OVER (PARTITION BY " +
                                     Join(names, ", ") + ") AS rq_copy\nFROM (\n" + Indent(sql) +
                                     "\n)";
            const std::string right = "SELECT *, ROW_NUMBER() OVER (PARTITION BY " +
                                      Join(ColumnNames(*members[i]), ", ") +
                                      ") AS rq_copy\nFROM (\n" + Indent(List(*members[i], outer)) +
                                      "\n)";
            sql = "SELECT " + Join(names, ", ") + "\nFROM (\n" +
                  Indent(left + "\n" + keyword + "\n" + right) + "\n)";
        }
        return sql;
    }

    // ---- Break filters -------------------------------------------------------------------

    std::string BreakFilter(const RqBreakFilter& filter, const Scope* outer) {
        const RqAbstractList* inner = filter.GetInnerList();
        if (inner == nullptr)
            Fail(SqlProblem::kMalformed, &filter, "a break filter without an inner list");
        const std::vector<std::string> names = ColumnNames(*inner);
        std::vector<std::string> partition;
        for (uint16_t index : filter.BreakColumnIndexes()) {
            if (index >= names.size())
                Fail(SqlProblem::kMalformed, &filter,
                     "a break column outside the inner projection");
            partition.push_back(names[index]);
        }
        const std::vector<SqlSortKey> keys = Order(*inner);
        m_orderDependent.push_back(&filter);

        std::string window = "ROW_NUMBER() OVER (";
        if (!partition.empty())
            window += "PARTITION BY " + Join(partition, ", ");
        if (!keys.empty())
            window +=
                std::string(partition.empty() ? "" : " ") + "ORDER BY " + OrderTerms(*inner, keys);
        window += ")";
        const std::string alias = NewAlias("b" + std::to_string(++m_breakFilterCount));
        std::vector<std::string> items;
        for (const std::string& name : names)
            items.push_back(alias + "." + name + " AS " + name);
        std::string sql = "SELECT " + Join(items, ", ") + "\nFROM (\n" +
                          Indent("SELECT *, " + window + " AS rq_row\nFROM (\n" +
                                 Indent(List(*inner, outer)) + "\n)") +
                          "\n) AS " + alias + "\nWHERE " + alias + ".rq_row = 1";
        // The kept rows come in the inner list's order.
        if (!keys.empty())
            sql += "\nORDER BY " + OrderTerms(*inner, keys);
        if (LimitApplies(filter))
            sql += "\n" + LimitClause(filter);
        return sql;
    }

    // ---- Blocks --------------------------------------------------------------------------

    std::string Block(const RqList& block, const Scope* outer) {
        Scope scope;
        scope.m_pOuter = outer;
        const RqJoinSpec* joinSpec = block.GetJoinSpec();
        const std::string from = joinSpec != nullptr ? From(*joinSpec, scope) : std::string();

        const RqProjection* projection = block.GetProjection();
        if (projection == nullptr)
            Fail(SqlProblem::kMalformed, &block, "a block without a projection");
        ExprList columns;
        for (int i = 0; i < projection->GetNumColumns(); ++i) {
            const RqDerivedColumn* column = projection->GetIthColumn(i);
            if (column == nullptr || column->GetExpr() == nullptr)
                Fail(SqlProblem::kMalformed,
                     column != nullptr ? static_cast<const RqNode*>(column) : projection,
                     "a projection column without an expression");
            columns.push_back(column->GetExpr());
        }
        if (columns.empty())
            Fail(SqlProblem::kMalformed, projection, "a block without columns");
        ColumnNames(block);

        // WHERE conjuncts with aggregates are conditions on the aggregated rows.
        ExprList conjuncts;
        if (const RqDetailFilter* filter = block.GetDetailFilter()) {
            HarvestConjuncts(FilterCond(*filter), conjuncts);
            for (const RqExpr* conjunct : conjuncts) {
                if (conjunct == nullptr)
                    Fail(SqlProblem::kMalformed, filter, "a conjunction with an absent operand");
            }
        }
        ExprList summaryConds;
        if (const RqSummaryFilter* filter = block.GetSummaryFilter())
            summaryConds.push_back(FilterCond(*filter));
        if (const RqHaving* having = block.GetHaving())
            summaryConds.push_back(FilterCond(*having));
        ExprList all = columns;
        all.insert(all.end(), conjuncts.begin(), conjuncts.end());
        all.insert(all.end(), summaryConds.begin(), summaryConds.end());
        if (block.GetGroupBy() != nullptr)
            all.push_back(block.GetGroupBy()->GetColumnList());
        for (const RqExpr* expr : all) {
            if (IsTooDeep(expr))
                Fail(SqlProblem::kNotSupported, expr, "an expression nested too deeply");
        }
        ExprList rowConds;
        for (const RqExpr* conjunct : conjuncts)
            (ContainsAggr(conjunct) ? summaryConds : rowConds).push_back(conjunct);

        std::vector<const RqExprAggr*> aggrs;
        for (const RqExpr* expr : columns)
            CollectAggrs(expr, aggrs);
        const size_t numProjectedAggrs = aggrs.size();
        for (const RqExpr* cond : summaryConds)
            CollectAggrs(cond, aggrs);
        for (const RqExprAggr* aggr : aggrs)
            CheckAggregate(*aggr);
        std::vector<const RqExprAggr*> windows;
        for (const RqExpr* expr : columns)
            CollectWindowAggrs(expr, windows);
        for (const RqExpr* cond : summaryConds)
            CollectWindowAggrs(cond, windows);
        for (const RqExprAggr* window : windows)
            CheckWindowAggr(*window);

        // The grain: the GROUP BY, or the lowest level of the projection.
        const RqGroupBy* groupBy = block.GetGroupBy();
        bool bDetails = false;
        ExprList grain;
        if (groupBy != nullptr) {
            const RqExprColumnListOrdered* granularity = groupBy->GetGranularity();
            if (granularity != nullptr && granularity->GetNumColumns() > 0)
                Fail(SqlProblem::kNoSqlMeaning, groupBy,
                     "a GROUP BY granularity has no SQL meaning");
            grain = GroupingMembers(groupBy->GetColumnList());
        } else {
            bool bRowLevel = false;
            for (const RqExpr* expr : columns)
                bRowLevel = bRowLevel || ReadsRowOutsideAggr(expr, scope);
            for (const RqExpr* cond : summaryConds)
                bRowLevel = bRowLevel || ReadsRowOutsideAggr(cond, scope);
            bDetails = bRowLevel || numProjectedAggrs == 0;
            if (!bDetails) {
                for (const RqExprAggr* aggr : aggrs) {
                    ExprList level = GroupingMembers(aggr->GetByList());
                    if (level.size() > grain.size())
                        grain = level;
                }
                for (const RqExprAggr* aggr : aggrs) {
                    if (!IsSubset(GroupingMembers(aggr->GetByList()), grain))
                        Fail(SqlProblem::kNoSqlMeaning, aggr,
                             "aggregates at sibling levels: neither by-list contains the other");
                }
            }
        }

        // Values outside aggregates must be fixed by the group they stand for.
        if (!bDetails) {
            ExprList checked = columns;
            checked.insert(checked.end(), summaryConds.begin(), summaryConds.end());
            for (const RqExpr* expr : checked) {
                if (const RqExpr* undetermined = FindUndetermined(expr, grain, scope))
                    Fail(SqlProblem::kNotDetermined, undetermined,
                         "a value the block's grouping does not determine");
            }
        }

        // Aggregates at the grain are SQL aggregates; the others come from helper tables.
        std::vector<AggrLevel> levels;
        for (const RqExprAggr* aggr : aggrs) {
            ExprList level;
            if (aggr->GetByList() != nullptr)
                level = GroupingMembers(aggr->GetByList());
            else if (groupBy != nullptr)
                level = grain;
            if (!bDetails) {
                if (!IsSubset(level, grain))
                    Fail(SqlProblem::kNoSqlMeaning, aggr,
                         "an aggregate whose by-list is finer than its block's grouping");
                if (SameSet(level, grain))
                    continue;
            }
            AggrLevel* target = nullptr;
            for (AggrLevel& existing : levels) {
                if (SameSet(existing.m_level, level))
                    target = &existing;
            }
            if (target == nullptr) {
                levels.push_back(AggrLevel{level, {}});
                target = &levels.back();
            }
            bool bKnown = false;
            for (const RqExprAggr* known : target->m_aggrs)
                bKnown = bKnown || known->IsEquivalent(*aggr);
            if (!bKnown)
                target->m_aggrs.push_back(aggr);
        }
        std::unordered_map<const RqExpr*, std::string> aggrValues;
        std::string joins;
        if (!levels.empty()) {
            if (joinSpec == nullptr)
                Fail(SqlProblem::kNotSupported, levels[0].m_aggrs[0],
                     "an aggregate at another level in a block without FROM");
            for (const AggrLevel& level : levels)
                joins += "\n  " + AggrJoin(block, level, rowConds, scope, aggrs, aggrValues);
        }

        ExprEnv rowEnv;
        rowEnv.m_pScope = &scope;
        rowEnv.m_pNoAggrReason = "an aggregate in a row condition";
        ExprEnv env;
        env.m_pScope = &scope;
        env.m_pAggrValues = &aggrValues;
        env.m_bInlineAggr = !bDetails;
        env.m_pWindowBlock = &block;

        // Windows run over the rows before the summary conditions (which may read them), and
        // SQL evaluates windows after WHERE and HAVING: the conditions then become columns of
        // the statement, tested by an outer one.
        const bool bWrapped = !windows.empty() && !summaryConds.empty();
        std::vector<std::string> items;
        for (int i = 0; i < projection->GetNumColumns(); ++i)
            items.push_back(Expr(*columns[i], env).m_text + " AS " +
                            SqlRenderer::GetColumnName(block, i));
        std::vector<std::string> outerItems;
        std::vector<std::string> outerWhere;
        if (bWrapped) {
            for (int i = 0; i < projection->GetNumColumns(); ++i)
                outerItems.push_back(SqlRenderer::GetColumnName(block, i));
            for (size_t i = 0; i < summaryConds.size(); ++i) {
                const std::string name = "rq_cond" + std::to_string(i + 1);
                items.push_back(Expr(*summaryConds[i], env).m_text + " AS " + name);
                outerWhere.push_back(name);
            }
            summaryConds.clear();
        }
        std::string sql =
            std::string(block.IsDistinct() && !bWrapped ? "SELECT DISTINCT " : "SELECT ") +
            Join(items, ", ");
        if (joinSpec != nullptr)
            sql += "\nFROM " + from + joins;

        std::vector<std::string> where;
        for (const RqExpr* cond : rowConds)
            where.push_back(Operand(Expr(*cond, rowEnv), kPrecAnd));
        if (bDetails) {
            for (const RqExpr* cond : summaryConds)
                where.push_back(Operand(Expr(*cond, env), kPrecAnd));
        }
        if (!where.empty())
            sql += "\nWHERE " + Join(where, " AND ");

        if (!bDetails) {
            const RqExprColumnListOrdered* groupList =
                groupBy != nullptr ? groupBy->GetColumnList() : nullptr;
            ExprEnv groupEnv;
            groupEnv.m_pScope = &scope;
            groupEnv.m_pNoAggrReason = "an aggregate in a GROUP BY";
            std::vector<std::string> keys;
            for (const RqExpr* expr : grain)
                keys.push_back(Expr(*expr, groupEnv).m_text);
            if (keys.empty() && groupList != nullptr && groupList->GetNumColumns() > 0) {
                // Constants only: one group when there are rows, none otherwise. A text
                // constant, since SQLite reads an integer here as a column position.
                keys.push_back("'constant'");
            }
            if (!keys.empty()) {
                sql += "\nGROUP BY " + Join(keys, ", ");
            } else if (numProjectedAggrs == 0) {
                Fail(SqlProblem::kNotSupported, groupBy,
                     "an empty GROUP BY over a projection without aggregates");
            }
            std::vector<std::string> having;
            for (const RqExpr* cond : summaryConds)
                having.push_back(Operand(Expr(*cond, env), kPrecAnd));
            if (!having.empty())
                sql += "\nHAVING " + Join(having, " AND ");
        }
        if (bWrapped) {
            sql = std::string(block.IsDistinct() ? "SELECT DISTINCT " : "SELECT ") +
                  Join(outerItems, ", ") + "\nFROM (\n" + Indent(sql) + "\n)\nWHERE " +
                  Join(outerWhere, " AND ");
        }

        if (block.GetOrderBy() != nullptr) {
            const std::vector<SqlSortKey> keys = Order(block);
            if (!keys.empty())
                sql += "\nORDER BY " + OrderTerms(block, keys);
        } else if (const RqDerivedTable* source = RowForRowSource(block)) {
            // Rows read row for row come in their table's order, projected or not.
            const RqAbstractList& inner = *source->GetInnerList();
            std::vector<std::string> terms;
            for (const SqlSortKey& key : Order(inner)) {
                const RqDerivedColumn* column =
                    inner.GetProjection()->GetIthColumn(key.m_columnIndex);
                terms.push_back(OrderTerm(scope.m_columns.at(column), key));
            }
            if (!terms.empty())
                sql += "\nORDER BY " + Join(terms, ", ");
        }
        if (LimitApplies(block))
            sql += "\n" + LimitClause(block);
        return sql;
    }

    const RqExpr* FilterCond(const RqNode& filter) {
        const RqNode* cond = filter.GetNumChildren() > 0 ? filter.GetIthChild(0) : nullptr;
        if (cond == nullptr || !cond->IsExpr())
            Fail(SqlProblem::kMalformed, &filter, "a filter without a condition");
        return static_cast<const RqExpr*>(cond);
    }

    // The aggregates this page gives a SQL meaning to, and the parts they may carry.
    void CheckAggregate(const RqExprAggr& aggr) {
        switch (aggr.GetObjectType()) {
            case kRqExprAggrSum:
            case kRqExprAggrCount:
            case kRqExprAggrAvg:
            case kRqExprAggrMin:
            case kRqExprAggrMax:
            case kRqExprAggrMedian:
            case kRqExprAggrStddev:
                if (aggr.GetMeasure() == nullptr)
                    Fail(SqlProblem::kMalformed, &aggr, "an aggregate without a measure");
                break;
            case kRqExprAggrCountStar:
                break;
            default:
                Fail(HasNoSqlMeaning(aggr.GetObjectType()) ? SqlProblem::kNoSqlMeaning
                                                           : SqlProblem::kNotSupported,
                     &aggr, "aggregate " + KindName(&aggr) + " is not rendered");
        }
        if (aggr.GetNumParameters() > 0)
            Fail(SqlProblem::kNotSupported, &aggr, "an aggregate with parameters");
        const RqExprColumnList* computeBreak = aggr.GetComputeBreak();
        if (computeBreak != nullptr && computeBreak->GetNumColumns() > 0)
            Fail(SqlProblem::kNoSqlMeaning, &aggr, "a compute break on " + KindName(&aggr));
        if (ContainsAggr(aggr.GetMeasure()))
            Fail(SqlProblem::kNoSqlMeaning, &aggr, "an aggregate of an aggregate");
    }

    std::string AggrCall(const RqExprAggr& aggr, const ExprEnv& env) {
        ExprEnv measureEnv;
        measureEnv.m_pScope = env.m_pScope;
        measureEnv.m_pNoAggrReason = "an aggregate of an aggregate";
        if (aggr.GetObjectType() == kRqExprAggrCountStar)
            return "COUNT(*)";
        const char* name = "";
        switch (aggr.GetObjectType()) {
            case kRqExprAggrSum:
                name = "SUM";
                break;
            case kRqExprAggrCount:
                name = "COUNT";
                break;
            case kRqExprAggrAvg:
                name = "AVG";
                break;
            case kRqExprAggrMin:
                name = "MIN";
                break;
            case kRqExprAggrMedian:
                name = kSqlMedianFunction;
                break;
            case kRqExprAggrStddev:
                name = kSqlStddevFunction;
                break;
            default:
                name = "MAX";
                break;
        }
        return std::string(name) + "(" + (aggr.IsDistinctAggregation() ? "DISTINCT " : "") +
               Expr(*aggr.GetMeasure(), measureEnv).m_text + ")";
    }

    // ---- Window aggregates -----------------------------------------------------------------

    // The window aggregates this page gives a SQL meaning to, and the parts they may carry.
    void CheckWindowAggr(const RqExprAggr& aggr) {
        const WindowForm* form = FindWindowForm(aggr.GetObjectType());
        if (form == nullptr) {
            // Top and bottom N keep only some of the block's rows, which a value per row does
            // not say; the bare report aggregate names no function.
            Fail(SqlProblem::kNotSupported, &aggr,
                 "aggregate " + KindName(&aggr) + " is not rendered");
        }
        const bool bNeedsMeasure = form->m_argument == WindowForm::kMeasure;
        const int numParameters = form->m_argument == WindowForm::kCountParameter ||
                                          form->m_frame == WindowForm::kLastRows
                                      ? 1
                                      : 0;
        if (bNeedsMeasure && aggr.GetMeasure() == nullptr)
            Fail(SqlProblem::kMalformed, &aggr, "an aggregate without a measure");
        if (aggr.GetNumParameters() != numParameters)
            Fail(SqlProblem::kNotSupported, &aggr,
                 KindName(&aggr) + " with " + std::to_string(aggr.GetNumParameters()) +
                     " parameters");
        if (numParameters == 1) {
            const RqExpr* count = aggr.GetIthParameter(0);
            if (count == nullptr || count->GetObjectType() != kRqExprIntegerLiteral ||
                static_cast<const RqExprIntegerLiteral*>(count)->GetValue() < 1)
                Fail(SqlProblem::kNotSupported, count != nullptr ? count : &aggr,
                     "a row count of " + KindName(&aggr) + " that is not a positive integer");
        }
        const RqExprColumnList* computeBreak = aggr.GetComputeBreak();
        if (computeBreak != nullptr && computeBreak->GetNumColumns() > 0)
            Fail(SqlProblem::kNoSqlMeaning, &aggr, "a compute break on " + KindName(&aggr));
        // SQLite has no DISTINCT window functions.
        if (aggr.IsDistinctAggregation())
            Fail(SqlProblem::kNotSupported, &aggr, "a DISTINCT " + KindName(&aggr));
        if (aggr.IsSortDependent() &&
            static_cast<const RqExprSortDependentAggr&>(aggr).GetSortSpec().empty())
            Fail(SqlProblem::kNotSupported, &aggr,
                 KindName(&aggr) + " without sort keys: no order is given");
    }

    // A window function over the result rows of env's block: partitioned by the by-list,
    // ordered by the sort keys (the values of the projected columns they name).
    std::string WindowCall(const RqExprAggr& aggr, const ExprEnv& env) {
        if (env.m_pWindowBlock == nullptr)
            Fail(SqlProblem::kNotSupported, &aggr,
                 KindName(&aggr) + " where the block's result rows are not at hand");
        CheckWindowAggr(aggr);
        const RqList& block = *env.m_pWindowBlock;
        ExprEnv inner = env;
        inner.m_pWindowBlock = nullptr;

        std::vector<std::string> partition;
        for (const RqExpr* member : GroupingMembers(aggr.GetByList()))
            partition.push_back(Expr(*member, inner).m_text);
        std::vector<std::string> order;
        std::vector<std::string> orderValues;
        if (aggr.IsSortDependent()) {
            const RqProjection& projection = *block.GetProjection();
            for (const auto& key :
                 static_cast<const RqExprSortDependentAggr&>(aggr).GetSortSpec()) {
                const RqDerivedColumn* column = nullptr;
                for (int i = 0; i < projection.GetNumColumns() && column == nullptr; ++i) {
                    if (projection.GetIthColumn(i)->GetColumnNum() == key.m_columnNumber)
                        column = projection.GetIthColumn(i);
                }
                if (column == nullptr)
                    Fail(SqlProblem::kMalformed, &aggr,
                         "a sort key names column " + std::to_string(key.m_columnNumber) +
                             ", which the block does not project");
                if (ContainsWindowAggr(column->GetExpr()))
                    Fail(SqlProblem::kNotSupported, &aggr,
                         "a sort key naming a column computed by a window");
                const std::string value = Expr(*column->GetExpr(), inner).m_text;
                orderValues.push_back(value);
                order.push_back(value + (key.m_direction == RqSortSpec::kDesc ? " DESC" : ""));
            }
        }
        std::string spec;
        if (!partition.empty())
            spec = "PARTITION BY " + Join(partition, ", ");
        if (!order.empty())
            spec += std::string(spec.empty() ? "" : " ") + "ORDER BY " + Join(order, ", ");
        const WindowForm* form = FindWindowForm(aggr.GetObjectType());
        ZK_ASSERT(form != nullptr);
        std::string argument;
        switch (form->m_argument) {
            case WindowForm::kNoArgument:
                break;
            case WindowForm::kMeasure:
                argument = Expr(*aggr.GetMeasure(), inner).m_text;
                break;
            case WindowForm::kMeasureOrStar:
                argument = aggr.GetMeasure() != nullptr ? Expr(*aggr.GetMeasure(), inner).m_text
                                                        : std::string("*");
                break;
            case WindowForm::kCountParameter:
                argument = std::to_string(WindowParameter(aggr));
                break;
        }
        std::string frame;
        switch (form->m_frame) {
            case WindowForm::kWholePartition:
                break;
            case WindowForm::kUpToPeers:
                // Every row up to the current one and its peers: rows tied on the sort keys
                // get one value, whatever order the engine puts them in.
                frame = "RANGE BETWEEN UNBOUNDED PRECEDING AND CURRENT ROW";
                break;
            case WindowForm::kLastRows:
                frame = "ROWS BETWEEN " + std::to_string(WindowParameter(aggr) - 1) +
                        " PRECEDING AND CURRENT ROW";
                break;
        }
        const std::string call = std::string(form->m_function) + "(" + argument + ") OVER (" +
                                 spec + (frame.empty() || spec.empty() ? "" : " ") + frame + ")";
        const bool bNeedsTotalOrder = form->m_bNeedsTotalOrder;
        if (!bNeedsTotalOrder)
            return call;
        // Rows tied on every sort key within a partition get their numbers (buckets, windows
        // of rows) in an order nothing decides: such a result is not determined, and the
        // statement fails rather than pick one.
        std::vector<std::string> peers = partition;
        peers.insert(peers.end(), orderValues.begin(), orderValues.end());
        return "CASE WHEN COUNT(*) OVER (PARTITION BY " + Join(peers, ", ") + ") > 1 THEN " +
               kSqlErrorFunction + "(" +
               SqlRenderer::QuoteText("not determined: " + KindName(&aggr) +
                                      " over rows that tie on its sort keys") +
               ") ELSE " + call + " END";
    }

    // A helper table that computes aggregates at `level` over the block's detail rows, joined
    // to each row of the block on the level's values (NULLs match NULLs, so that each detail
    // row finds exactly its own group and the join multiplies nothing).
    std::string AggrJoin(const RqList& block, const AggrLevel& level, const ExprList& rowConds,
                         const Scope& mainScope, const std::vector<const RqExprAggr*>& allAggrs,
                         std::unordered_map<const RqExpr*, std::string>& values) {
        const std::string alias = NewAlias("a" + std::to_string(++m_aggrTableCount));
        Scope scope;
        scope.m_bIsolated = true;
        const std::string from = From(*block.GetJoinSpec(), scope);
        ExprEnv rowEnv;
        rowEnv.m_pScope = &scope;
        rowEnv.m_pNoAggrReason = "an aggregate in a row condition";
        ExprEnv mainEnv;
        mainEnv.m_pScope = &mainScope;
        mainEnv.m_pNoAggrReason = "an aggregate in a by-list";

        std::vector<std::string> items;
        std::vector<std::string> keys;
        std::vector<std::string> on;
        for (size_t i = 0; i < level.m_level.size(); ++i) {
            const std::string key = Expr(*level.m_level[i], rowEnv).m_text;
            const std::string name = "k" + std::to_string(i + 1);
            items.push_back(key + " AS " + name);
            keys.push_back(key);
            on.push_back(alias + "." + name + " IS " +
                         Operand(Expr(*level.m_level[i], mainEnv), kPrecCompare + 1));
        }
        for (size_t j = 0; j < level.m_aggrs.size(); ++j) {
            const std::string name = "v" + std::to_string(j + 1);
            items.push_back(AggrCall(*level.m_aggrs[j], rowEnv) + " AS " + name);
            for (const RqExprAggr* aggr : allAggrs) {
                if (aggr->IsEquivalent(*level.m_aggrs[j]) &&
                    SameSet(level.m_level, LevelOf(*aggr, block)))
                    values[aggr] = alias + "." + name;
            }
        }
        std::string sql = "SELECT " + Join(items, ", ") + "\nFROM " + from;
        std::vector<std::string> where;
        for (const RqExpr* cond : rowConds)
            where.push_back(Operand(Expr(*cond, rowEnv), kPrecAnd));
        if (!where.empty())
            sql += "\nWHERE " + Join(where, " AND ");
        if (!keys.empty())
            sql += "\nGROUP BY " + Join(keys, ", ");
        return "LEFT JOIN (\n" + Indent(sql, 4) + "\n  ) AS " + alias + " ON " +
               (on.empty() ? std::string("1") : Join(on, " AND "));
    }

    // The level an aggregate of `block` is computed at, as its helper table groups it.
    static ExprList LevelOf(const RqExprAggr& aggr, const RqList& block) {
        if (aggr.GetByList() != nullptr)
            return GroupingMembers(aggr.GetByList());
        if (block.GetGroupBy() != nullptr)
            return GroupingMembers(block.GetGroupBy()->GetColumnList());
        return ExprList();
    }

    // ---- FROM ----------------------------------------------------------------------------

    std::string From(const RqJoinSpec& joinSpec, Scope& scope) {
        std::vector<const RqTableReference*> references;
        for (int i = 0; i < joinSpec.GetNumJoinNodes(); ++i) {
            const RqJoinNode* node = joinSpec.GetIthJoinNode(i);
            const RqTableReference* reference =
                node != nullptr ? node->GetTableReference() : nullptr;
            if (reference == nullptr)
                Fail(SqlProblem::kMalformed,
                     node != nullptr ? static_cast<const RqNode*>(node) : &joinSpec,
                     "a join node without a table reference");
            references.push_back(reference);
        }
        if (references.empty())
            Fail(SqlProblem::kMalformed, &joinSpec, "a FROM clause without tables");
        // Every table is named before any condition is written, so that a condition may name
        // any table of the block.
        std::unordered_map<const RqNode*, std::string> aliases;
        for (const RqTableReference* reference : references)
            Register(reference, scope, aliases);
        std::vector<std::string> parts;
        for (const RqTableReference* reference : references) {
            std::string part = Side(reference, scope, aliases);
            // SQL reads "a, b RIGHT JOIN c" as "(a, b) RIGHT JOIN c": the unmatched rows of c
            // would appear once instead of once per row of a (and even with no row of a). The
            // member is a table of the cross product on its own.
            if (!parts.empty() && PreservesRightSide(reference))
                part = "(" + part + ")";
            parts.push_back(part);
        }
        return Join(parts, ",\n  ");
    }

    // Whether a join tree holds a right or full outer join, whose meaning changes when the
    // tables before it in the FROM clause are joined into its left side.
    static bool PreservesRightSide(const RqNode* side) {
        if (side == nullptr || side->GetObjectType() != kRqTableReference)
            return false;
        const RqTableReference& reference = static_cast<const RqTableReference&>(*side);
        if (reference.GetRightNode() != nullptr &&
            (reference.GetJoinType() == SqlTableRef::kRightOuterJoin ||
             reference.GetJoinType() == SqlTableRef::kFullOuterJoin ||
             reference.GetJoinType() == SqlTableRef::kFullOuterStitchJoin))
            return true;
        return PreservesRightSide(reference.GetLeftNode());
    }

    void Register(const RqNode* side, Scope& scope,
                  std::unordered_map<const RqNode*, std::string>& aliases) {
        if (side->GetObjectType() == kRqTableReference) {
            const RqTableReference& reference = static_cast<const RqTableReference&>(*side);
            if (reference.GetLeftNode() == nullptr)
                Fail(SqlProblem::kMalformed, side, "a table reference without a left side");
            Register(reference.GetLeftNode(), scope, aliases);
            if (reference.GetRightNode() != nullptr)
                Register(reference.GetRightNode(), scope, aliases);
            return;
        }
        if (!side->IsKindOf(kRqAbstractTable))
            Fail(SqlProblem::kMalformed, side, "a join side that is not a table");
        const int tableNum = static_cast<const RqAbstractTable&>(*side).GetTableNum();
        if (!scope.m_tableNumbers.insert(tableNum).second)
            Fail(SqlProblem::kMalformed, side,
                 "two tables of one block share table number " + std::to_string(tableNum));
        const std::string alias = NewAlias("t" + std::to_string(tableNum));
        aliases[side] = alias;
        switch (side->GetObjectType()) {
            case kRqAtomicTable:
            case kRqOpaqueTable: {
                const VoidID& id = static_cast<const RqIdentifiedTable&>(*side).GetTableID();
                RefATable table = m_pRp != nullptr ? RefHelper::GetTable(m_pRp, id) : RefATable();
                if (!table)
                    Fail(SqlProblem::kMalformed, side,
                         "table " + Utf8(id.ToString()) + " is not in the repository");
                scope.m_tables[tableNum] = Scope::Table{alias, table};
                break;
            }
            case kRqDerivedTable: {
                const RqAbstractList* inner =
                    static_cast<const RqDerivedTable&>(*side).GetInnerList();
                if (inner == nullptr || inner->GetProjection() == nullptr)
                    Fail(SqlProblem::kMalformed, side, "a derived table without a list");
                const RqProjection* projection = inner->GetProjection();
                for (int i = 0; i < projection->GetNumColumns(); ++i) {
                    if (const RqDerivedColumn* column = projection->GetIthColumn(i))
                        scope.m_columns[column] =
                            alias + "." + SqlRenderer::GetColumnName(*inner, i);
                }
                break;
            }
            default:
                Fail(SqlProblem::kNoSqlMeaning, side, KindName(side) + " has no SQL meaning");
        }
    }

    std::string Side(const RqNode* side, const Scope& scope,
                     const std::unordered_map<const RqNode*, std::string>& aliases) {
        if (side->GetObjectType() != kRqTableReference) {
            const std::string& alias = aliases.at(side);
            if (side->GetObjectType() == kRqDerivedTable) {
                const RqAbstractList& inner =
                    *static_cast<const RqDerivedTable&>(*side).GetInnerList();
                // A derived table sees nothing of the block that reads it.
                return "(\n" + Indent(List(inner, nullptr), 4) + "\n  ) AS " + alias;
            }
            const Scope::Table& table =
                scope.m_tables.at(static_cast<const RqAbstractTable&>(*side).GetTableNum());
            return SqlRenderer::GetTableName(*table.m_table) + " AS " + alias;
        }
        const RqTableReference& reference = static_cast<const RqTableReference&>(*side);
        std::string left = Side(reference.GetLeftNode(), scope, aliases);
        const RqNode* condNode =
            reference.GetNumChildren() > 2 ? reference.GetIthChild(2) : nullptr;
        if (reference.GetRightNode() == nullptr) {
            if (condNode != nullptr)
                Fail(SqlProblem::kMalformed, side, "a single table with a join condition");
            return left;
        }
        const char* keyword = "JOIN";
        switch (reference.GetJoinType()) {
            case SqlTableRef::kInnerJoin:
                break;
            case SqlTableRef::kLeftOuterJoin:
                keyword = "LEFT JOIN";
                break;
            case SqlTableRef::kRightOuterJoin:
                keyword = "RIGHT JOIN";
                break;
            case SqlTableRef::kFullOuterJoin:
            case SqlTableRef::kFullOuterStitchJoin:
                keyword = "FULL JOIN";
                break;
            default:
                Fail(SqlProblem::kNoSqlMeaning, side, "a natural join names no join columns");
        }
        if (condNode != nullptr && !condNode->IsExpr())
            Fail(SqlProblem::kMalformed, condNode, "a join condition that is not an expression");
        if (condNode == nullptr && (!reference.GetLeftJoinColumnIndexes().empty() ||
                                    !reference.GetRightJoinColumnIndexes().empty()))
            Fail(SqlProblem::kNoSqlMeaning, side, "join column indexes without a search condition");
        std::string right = Side(reference.GetRightNode(), scope, aliases);
        if (reference.GetRightNode()->GetObjectType() == kRqTableReference)
            right = "(" + right + ")";
        std::string cond = "1";
        if (condNode != nullptr) {
            ExprEnv env;
            env.m_pScope = &scope;
            env.m_pNoAggrReason = "an aggregate in a join condition";
            cond = Expr(static_cast<const RqExpr&>(*condNode), env).m_text;
        }
        return left + "\n  " + keyword + " " + right + " ON " + cond;
    }

    // ---- Expressions ---------------------------------------------------------------------

    Sql Expr(const RqExpr& expr, const ExprEnv& env) {
        if (++m_exprDepth > kMaxExprDepth)
            Fail(SqlProblem::kNotSupported, &expr, "an expression nested too deeply");
        Sql sql = ExprNode(expr, env);
        --m_exprDepth;
        return sql;
    }

    const RqExpr& Op(const RqExpr& expr, int i) {
        const RqExpr* operand = i < expr.GetNumOperands() ? expr.GetIthOperand(i) : nullptr;
        if (operand == nullptr)
            Fail(SqlProblem::kMalformed, &expr, "an absent operand of " + KindName(&expr));
        return *operand;
    }

    void CheckOperandCount(const RqExpr& expr, int min, int max) {
        const int n = expr.GetNumOperands();
        if (n < min || (max >= 0 && n > max))
            Fail(SqlProblem::kMalformed, &expr,
                 KindName(&expr) + " with " + std::to_string(n) + " operands");
    }

    Sql Binary(const RqExpr& expr, const ExprEnv& env, const char* op, int prec) {
        CheckOperandCount(expr, 2, 2);
        const bool bAssociative = prec == kPrecAnd || prec == kPrecOr;
        return Sql{Operand(Expr(Op(expr, 0), env), prec + (prec == kPrecCompare ? 1 : 0)) + " " +
                       op + " " + Operand(Expr(Op(expr, 1), env), bAssociative ? prec : prec + 1),
                   prec};
    }

    Sql ExprNode(const RqExpr& expr, const ExprEnv& env) {
        const RqNodeType_e kind = expr.GetObjectType();
        if (expr.IsAggr())
            return Aggregate(static_cast<const RqExprAggr&>(expr), env);
        if (HasNoSqlMeaning(kind))
            Fail(SqlProblem::kNoSqlMeaning, &expr, KindName(&expr) + " has no SQL meaning");
        switch (kind) {
            case kRqTargetColumn:
                return Sql{TargetColumn(static_cast<const RqTargetColumn&>(expr), env)};
            case kRqDerivedColumnReference:
                return Sql{Reference(static_cast<const RqDerivedColumnReference&>(expr), env)};
            case kRqExprIntegerLiteral: {
                const int64_t value = static_cast<const RqExprIntegerLiteral&>(expr).GetValue();
                return Sql{std::to_string(value), value < 0 ? kPrecUnary : kPrecAtom};
            }
            case kRqExprFloatLiteral: {
                const double value = static_cast<const RqExprFloatLiteral&>(expr).GetValue();
                return Sql{RealText(value, &expr), value < 0 ? kPrecUnary : kPrecAtom};
            }
            case kRqExprNumberLiteral: {
                const std::string text =
                    Utf8(static_cast<const RqExprNumberLiteral&>(expr).GetValue());
                if (!IsNumberText(text))
                    Fail(SqlProblem::kNotSupported, &expr, "a number literal that is not a number");
                return Sql{text, text[0] == '-' || text[0] == '+' ? kPrecUnary : kPrecAtom};
            }
            // Dates and times are ISO text in SQLite, compared as text like strings.
            case kRqExprStringLiteral:
                return QuotedValue<RqExprStringLiteral>(expr);
            case kRqExprDateLiteral:
                return QuotedValue<RqExprDateLiteral>(expr);
            case kRqExprTimeLiteral:
                return QuotedValue<RqExprTimeLiteral>(expr);
            case kRqExprDateTimeLiteral:
                return QuotedValue<RqExprDateTimeLiteral>(expr);
            case kRqExprNullLiteral:
                return Sql{"NULL"};
            case kRqExprAdd:
                return Binary(expr, env, "+", kPrecAdd);
            case kRqExprSubtract:
                return Binary(expr, env, "-", kPrecAdd);
            case kRqExprMultiply:
                return Binary(expr, env, "*", kPrecMul);
            case kRqExprDivide: {
                // Numeric division: SQLite divides integers by truncation otherwise.
                CheckOperandCount(expr, 2, 2);
                return Sql{"CAST(" + Expr(Op(expr, 0), env).m_text + " AS REAL) / " +
                               Operand(Expr(Op(expr, 1), env), kPrecMul + 1),
                           kPrecMul};
            }
            case kRqExprUnaryMinus:
                CheckOperandCount(expr, 1, 1);
                return Sql{"-" + Operand(Expr(Op(expr, 0), env), kPrecAtom), kPrecUnary};
            case kRqExprSquare: {
                CheckOperandCount(expr, 1, 1);
                return Sql{"pow(" + Expr(Op(expr, 0), env).m_text + ", 2)"};
            }
            case kRqExprCot:
                CheckOperandCount(expr, 1, 1);
                return Sql{"1.0 / tan(" + Expr(Op(expr, 0), env).m_text + ")", kPrecMul};
            case kRqExprOctetLength:
                CheckOperandCount(expr, 1, 1);
                return Sql{"length(CAST(" + Expr(Op(expr, 0), env).m_text + " AS BLOB))"};
            case kRqExprLeft:
                CheckOperandCount(expr, 2, 2);
                return Sql{"substr(" + Expr(Op(expr, 0), env).m_text + ", 1, " +
                           Expr(Op(expr, 1), env).m_text + ")"};
            case kRqExprConcat: {
                CheckOperandCount(expr, 1, -1);
                std::vector<std::string> parts;
                for (int i = 0; i < expr.GetNumOperands(); ++i)
                    parts.push_back(Operand(Expr(Op(expr, i), env), kPrecConcat + 1));
                return Sql{Join(parts, " || "),
                           expr.GetNumOperands() > 1 ? kPrecConcat : kPrecAtom};
            }
            case kRqExprCoalesce: {
                CheckOperandCount(expr, 1, -1);
                if (expr.GetNumOperands() == 1)
                    return Expr(Op(expr, 0), env);
                std::vector<std::string> parts;
                for (int i = 0; i < expr.GetNumOperands(); ++i)
                    parts.push_back(Expr(Op(expr, i), env).m_text);
                return Sql{"coalesce(" + Join(parts, ", ") + ")"};
            }
            case kRqExprCast: {
                CheckOperandCount(expr, 1, 1);
                const std::string type =
                    CastType(static_cast<const RqExprCast&>(expr).GetTypeName());
                if (type.empty())
                    Fail(SqlProblem::kNotSupported, &expr, "a cast to an unknown type");
                return Sql{"CAST(" + Expr(Op(expr, 0), env).m_text + " AS " + type + ")"};
            }
            case kRqExprIfCase: {
                CheckOperandCount(expr, 2, -1);
                std::string text = "CASE";
                const int n = expr.GetNumOperands();
                for (int i = 0; i + 1 < n; i += 2)
                    text += " WHEN " + Expr(Op(expr, i), env).m_text + " THEN " +
                            Expr(Op(expr, i + 1), env).m_text;
                if (n % 2 == 1)
                    text += " ELSE " + Expr(Op(expr, n - 1), env).m_text;
                return Sql{text + " END"};
            }
            case kRqExprLookupCase: {
                CheckOperandCount(expr, 2, -1);
                const int n = expr.GetNumOperands();
                std::string text = "CASE " + Expr(Op(expr, 0), env).m_text;
                int i = 1;
                for (; i + 1 < n; i += 2)
                    text += " WHEN " + Expr(Op(expr, i), env).m_text + " THEN " +
                            Expr(Op(expr, i + 1), env).m_text;
                if (i < n)
                    text += " ELSE " + Expr(Op(expr, i), env).m_text;
                if (n == 2)
                    Fail(SqlProblem::kNotSupported, &expr, "a lookup case without any match");
                return Sql{text + " END"};
            }
            case kRqExprCondEquality:
            case kRqExprCondNotEqual:
            case kRqExprCondLess:
            case kRqExprCondLessEqual:
            case kRqExprCondGreater:
            case kRqExprCondGreaterEqual:
                return Binary(expr, env, ComparisonOperator(kind), kPrecCompare);
            case kRqExprCondAnd:
                return Binary(expr, env, "AND", kPrecAnd);
            case kRqExprCondOr:
                return Binary(expr, env, "OR", kPrecOr);
            case kRqExprCondNot:
                CheckOperandCount(expr, 1, 1);
                return Sql{"NOT " + Operand(Expr(Op(expr, 0), env), kPrecNot), kPrecNot};
            case kRqExprCondIsNull:
                CheckOperandCount(expr, 1, 1);
                return Sql{Operand(Expr(Op(expr, 0), env), kPrecCompare + 1) + " IS NULL",
                           kPrecCompare};
            case kRqExprCondBetween:
                CheckOperandCount(expr, 3, 3);
                return Sql{Operand(Expr(Op(expr, 0), env), kPrecCompare + 1) + " BETWEEN " +
                               Operand(Expr(Op(expr, 1), env), kPrecCompare + 1) + " AND " +
                               Operand(Expr(Op(expr, 2), env), kPrecCompare + 1),
                           kPrecCompare};
            case kRqExprCondLike: {
                CheckOperandCount(expr, 2, 3);
                std::string text = Operand(Expr(Op(expr, 0), env), kPrecCompare + 1) + " LIKE " +
                                   Operand(Expr(Op(expr, 1), env), kPrecCompare + 1);
                if (expr.GetNumOperands() == 3)
                    text += " ESCAPE " + Operand(Expr(Op(expr, 2), env), kPrecCompare + 1);
                return Sql{text, kPrecCompare};
            }
            case kRqExprCondIn:
                return In(expr, env);
            case kRqExprCondExists: {
                CheckOperandCount(expr, 1, 1);
                return Sql{"EXISTS (\n" + Indent(SubqueryList(Op(expr, 0), env)) + "\n)"};
            }
            case kRqExprLogicalSubquery:
            case kRqExprPhysicalSubquery:
            case kRqExprPersistSubquery:
                return ScalarSubquery(expr, env);
            default:
                break;
        }
        if (IsQuantifiedAny(kind) || IsQuantifiedAll(kind))
            return Quantified(expr, env);
        if (const FunctionForm* form = FindFunction(kind)) {
            CheckOperandCount(expr, form->m_minOps, form->m_maxOps);
            std::vector<std::string> args;
            for (int i = 0; i < expr.GetNumOperands(); ++i)
                args.push_back(Expr(Op(expr, i), env).m_text);
            return Sql{std::string(form->m_name) + "(" + Join(args, ", ") + ")"};
        }
        Fail(SqlProblem::kNotSupported, &expr, KindName(&expr) + " is not rendered");
    }

    Sql Aggregate(const RqExprAggr& aggr, const ExprEnv& env) {
        if (IsWindowAggr(&aggr))
            return Sql{WindowCall(aggr, env)};
        if (env.m_pAggrValues != nullptr) {
            auto found = env.m_pAggrValues->find(&aggr);
            if (found != env.m_pAggrValues->end())
                return Sql{found->second};
        }
        if (!env.m_bInlineAggr)
            Fail(SqlProblem::kNoSqlMeaning, &aggr, env.m_pNoAggrReason);
        CheckAggregate(aggr);
        return Sql{AggrCall(aggr, env)};
    }

    std::string TargetColumn(const RqTargetColumn& column, const ExprEnv& env) {
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

    std::string Reference(const RqDerivedColumnReference& reference, const ExprEnv& env) {
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

    [[noreturn]] void Unresolved(const RqExpr& expr, bool bCrossedIsolation,
                                 const std::string& reason) {
        if (bCrossedIsolation)
            Fail(
                SqlProblem::kNotSupported, &expr,
                "an aggregate at another level in a block that reads an enclosing block's columns");
        Fail(SqlProblem::kMalformed, &expr, reason);
    }

    // The list a subquery operand holds, rendered where it may read the current block.
    std::string SubqueryList(const RqExpr& operand, const ExprEnv& env) {
        if (!operand.IsKindOf(kRqExprSubquery))
            Fail(SqlProblem::kNotSupported, &operand, "a subquery operand that is not a subquery");
        const RqAbstractList* query = static_cast<const RqExprSubquery&>(operand).GetQuery();
        if (query == nullptr)
            Fail(SqlProblem::kMalformed, &operand, "a subquery without a list");
        return List(*query, env.m_pScope);
    }

    const RqAbstractList& SubqueryOf(const RqExpr& operand) {
        const RqAbstractList* query = operand.IsKindOf(kRqExprSubquery)
                                          ? static_cast<const RqExprSubquery&>(operand).GetQuery()
                                          : nullptr;
        if (query == nullptr || query->GetProjection() == nullptr ||
            query->GetProjection()->GetNumColumns() == 0)
            Fail(SqlProblem::kMalformed, &operand, "a subquery without a list of columns");
        return *query;
    }

    // The value of a subquery's single row: a second row makes the statement fail on purpose,
    // since SQLite would otherwise silently take any of them.
    Sql ScalarSubquery(const RqExpr& subquery, const ExprEnv& env) {
        const RqAbstractList& query = SubqueryOf(subquery);
        const std::string alias = NewAlias("q" + std::to_string(++m_subqueryCount));
        const std::string column = alias + "." + SqlRenderer::GetColumnName(query, 0);
        return Sql{"(SELECT CASE WHEN COUNT(*) > 1 THEN " + std::string(kSqlErrorFunction) +
                   "('a scalar subquery returned more than one row') ELSE MIN(" + column +
                   ") END\nFROM (\n" + Indent(SubqueryList(subquery, env)) + "\n) AS " + alias +
                   ")"};
    }

    Sql In(const RqExpr& expr, const ExprEnv& env) {
        CheckOperandCount(expr, 2, -1);
        const std::string value = Operand(Expr(Op(expr, 0), env), kPrecCompare + 1);
        if (expr.GetNumOperands() == 2 && Op(expr, 1).IsKindOf(kRqExprSubquery)) {
            const RqAbstractList& query = SubqueryOf(Op(expr, 1));
            if (query.GetProjection()->GetNumColumns() != 1)
                Fail(SqlProblem::kMalformed, &expr, "IN over a subquery of several columns");
            return Sql{value + " IN (\n" + Indent(SubqueryList(Op(expr, 1), env)) + "\n)",
                       kPrecCompare};
        }
        std::vector<std::string> members;
        for (int i = 1; i < expr.GetNumOperands(); ++i) {
            if (Op(expr, i).IsKindOf(kRqExprSubquery))
                Fail(SqlProblem::kNotSupported, &expr, "IN over a subquery among other members");
            members.push_back(Expr(Op(expr, i), env).m_text);
        }
        return Sql{value + " IN (" + Join(members, ", ") + ")", kPrecCompare};
    }

    // x op ANY (s) and x op ALL (s), which SQLite lacks, in three-valued logic: true, false or
    // unknown as the comparisons with the subquery's rows decide.
    Sql Quantified(const RqExpr& expr, const ExprEnv& env) {
        CheckOperandCount(expr, 2, 2);
        const RqExpr& subquery = Op(expr, 1);
        const RqAbstractList& query = SubqueryOf(subquery);
        const bool bAny = IsQuantifiedAny(expr.GetObjectType());
        auto exists = [&](const std::string& condTemplate) {
            const std::string alias = NewAlias("q" + std::to_string(++m_subqueryCount));
            const std::string column = alias + "." + SqlRenderer::GetColumnName(query, 0);
            const std::string comparison = Operand(Expr(Op(expr, 0), env), kPrecCompare + 1) + " " +
                                           ComparisonOperator(expr.GetObjectType()) + " " + column;
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

    // ---- Names -----------------------------------------------------------------------------

    std::string NewAlias(const std::string& base) {
        std::string alias = base;
        for (int n = 2; !m_aliases.insert(alias).second; ++n)
            alias = base + "_" + std::to_string(n);
        return alias;
    }

    const ARpGateway* m_pRp;
    SqlRenderOptions m_options;
    std::vector<const RqAbstractList*>& m_orderDependent;
    std::set<std::string> m_aliases;
    std::set<const RqAbstractList*> m_activeShared;
    int m_listDepth = 0;
    int m_exprDepth = 0;
    int m_breakFilterCount = 0;
    int m_aggrTableCount = 0;
    int m_subqueryCount = 0;
};

}  // namespace

// ---- SqlRenderResult ---------------------------------------------------------------------------

const char* SqlRenderResult::ProblemName(SqlProblem problem) {
    switch (problem) {
        case SqlProblem::kNone:
            return "renderable";
        case SqlProblem::kNoSqlMeaning:
            return "no SQL meaning";
        case SqlProblem::kNotSupported:
            return "not rendered";
        case SqlProblem::kNotDetermined:
            return "not determined";
        case SqlProblem::kMalformed:
            return "malformed";
    }
    return "?";
}

std::string SqlRenderResult::Describe() const {
    if (IsOk())
        return std::string();
    return std::string(ProblemName(m_problem)) + " at " + m_path.ToUtf8() + ": " + m_reason;
}

// ---- SqlRenderer -------------------------------------------------------------------------------

SqlRenderResult SqlRenderer::Render(const RqNode& root, const ARpGateway* rp,
                                    const SqlRenderOptions& options) {
    SqlRenderResult result;
    try {
        Writer writer(rp, options, result.m_orderDependentLists);
        result.m_sql = writer.Top(root);
    } catch (const RenderFailure& failure) {
        result.m_sql.clear();
        result.m_orderDependentLists.clear();
        result.m_problem = failure.m_problem;
        result.m_pNode = failure.m_pNode;
        result.m_path = RqNodeUtility::GetPath(failure.m_pNode);
        result.m_reason = failure.m_reason;
    }
    return result;
}

namespace {

bool ListOrder(const RqAbstractList* list, std::vector<SqlSortKey>& out, int depth) {
    // A shared list could name a chain of lists; the walk is bounded.
    if (list == nullptr || depth > kMaxListDepth)
        return true;
    switch (list->GetObjectType()) {
        case kRqList: {
            const RqList& block = static_cast<const RqList&>(*list);
            const RqProjection* projection = block.GetProjection();
            if (const RqOrderBy* orderBy = block.GetOrderBy()) {
                for (int i = 0; i < orderBy->GetNumSortSpecs(); ++i) {
                    const RqSortSpec* spec = orderBy->GetIthSortSpec(i);
                    const int index = spec != nullptr && projection != nullptr
                                          ? projection->FindColumnIndex(spec->GetColumnNumber())
                                          : -1;
                    if (index < 0)
                        return false;
                    out.push_back(SqlSortKey{index, spec->GetSortDirection(),
                                             spec->GetNullSortDirection(),
                                             spec->IsCaseInsensitive()});
                }
                return true;
            }
            const RqDerivedTable* source = RowForRowSource(block);
            if (source == nullptr || projection == nullptr)
                return true;
            // The table's keys, as far as the block projects them: a key it does not project
            // still orders the rows, but the keys after it can no longer be named.
            const RqAbstractList& inner = *source->GetInnerList();
            std::vector<SqlSortKey> innerKeys;
            if (!ListOrder(&inner, innerKeys, depth + 1))
                return false;
            for (const SqlSortKey& key : innerKeys) {
                const RqDerivedColumn* innerColumn =
                    inner.GetProjection()->GetIthColumn(key.m_columnIndex);
                int index = -1;
                for (int i = 0; i < projection->GetNumColumns() && index < 0; ++i) {
                    const RqDerivedColumn* column = projection->GetIthColumn(i);
                    const RqExpr* expr = column != nullptr ? column->GetExpr() : nullptr;
                    if (expr != nullptr && expr->GetObjectType() == kRqDerivedColumnReference &&
                        static_cast<const RqDerivedColumnReference*>(expr)->GetDerivedColumn() ==
                            innerColumn)
                        index = i;
                }
                if (index < 0)
                    break;
                SqlSortKey outer = key;
                outer.m_columnIndex = index;
                out.push_back(outer);
            }
            return true;
        }
        case kRqBreakFilter:
            return ListOrder(static_cast<const RqBreakFilter*>(list)->GetInnerList(), out,
                             depth + 1);
        case kRqCacheList:
            return ListOrder(static_cast<const RqCacheList*>(list)->GetList(), out, depth + 1);
        case kRqSharedList:
            return ListOrder(static_cast<const RqSharedList*>(list)->GetSharedRqList(), out,
                             depth + 1);
        default:
            return true;
    }
}

}  // namespace

bool SqlRenderer::GetListOrder(const RqAbstractList& list, std::vector<SqlSortKey>& out) {
    out.clear();
    if (!ListOrder(&list, out, 0)) {
        out.clear();
        return false;
    }
    return true;
}

std::string SqlRenderer::GetColumnName(const RqAbstractList& list, int index) {
    const RqProjection* projection = list.GetProjection();
    const RqDerivedColumn* column =
        projection != nullptr ? projection->GetIthColumn(index) : nullptr;
    return "c" + std::to_string(column != nullptr ? column->GetColumnNum() : index);
}

std::string SqlRenderer::GetOrderTerm(const RqAbstractList& list, const SqlSortKey& key) {
    return OrderTerm(GetColumnName(list, key.m_columnIndex), key);
}

std::string SqlRenderer::GetTableName(const ATable& table) {
    std::string name;
    if (RefADatabase database = table.GetDatabase())
        name = database->GetName().ToUtf8() + ".";
    if (!table.GetSchema().empty())
        name += table.GetSchema().ToUtf8() + ".";
    return QuoteIdentifier(name + table.GetName().ToUtf8());
}

namespace {

// SQL's quoting: the text between two quote characters, each quote inside doubled.
std::string QuoteDoubling(std::string_view text, char quote) {
    std::string out(1, quote);
    for (char c : text) {
        out += c;
        if (c == quote)
            out += quote;
    }
    return out + quote;
}

}  // namespace

std::string SqlRenderer::QuoteIdentifier(std::string_view name) {
    return QuoteDoubling(name, '"');
}

std::string SqlRenderer::IndentLines(std::string_view text, std::string_view pad) {
    std::string out(pad);
    for (char c : text) {
        out += c;
        if (c == '\n')
            out += pad;
    }
    return out;
}

std::string SqlRenderer::QuoteText(std::string_view text) {
    return QuoteDoubling(text, '\'');
}
