// Reads expressions: literals, columns and references, column lists written as tuples, and
// calls `Name(operands, key=value, flag)` with the fields of their forms.
//
// The functions on the path of nested expressions (ParseItem, ParseExpr, ParseWordExpr,
// ParseCall) keep their frames small; the work that does not recurse (leaves, fields,
// messages) is done in functions of their own.

#include <cmath>
#include <limits>

#include "Query/Optimizer/RequestText/SQORTextSuggest.h"
#include "SQORTextRequestReader.h"

namespace rqtext {

namespace {

std::string Plural(int count, const char* noun, bool noneWord) {
    if (count == 0 && noneWord)
        return std::string("no ") + noun + "s";
    return (noneWord ? "at most " : "") + std::to_string(count) + " " + noun +
           (count == 1 ? "" : "s");
}

}  // namespace

Owned RequestReader::ParseExpr(RqNodeType_e tupleKind) {
    const RqToken& at = m_lex.Peek();
    Owned expr;
    if (at.Is(RqTokenKind::kIdentifier))
        expr = ParseWordExpr(at);
    else if (at.IsPunct("("))
        expr = ParseTuple(tupleKind);
    else
        expr = ParseLeaf();
    Annotate(expr.Get(), ParseAnnotation());
    return expr;
}

// Literals and references that do not start with a word.
Owned RequestReader::ParseLeaf() {
    const RqToken at = m_lex.Peek();
    switch (at.m_kind) {
        case RqTokenKind::kInteger:
            m_lex.Next();
            return Owned(RQ_NEW RqExprIntegerLiteral(at.m_int));
        case RqTokenKind::kFloat:
            m_lex.Next();
            return Owned(RQ_NEW RqExprFloatLiteral(at.m_float));
        case RqTokenKind::kString:
            m_lex.Next();
            return Owned(RQ_NEW RqExprStringLiteral(ZKString::FromUtf8(at.m_text)));
        case RqTokenKind::kLabel:
        case RqTokenKind::kAnchor: {
            m_lex.Next();
            m_lex.ExpectPunct(".");
            const int num = ExpectInt("a column number");
            auto* reference = RQ_NEW RqDerivedColumnReference();
            m_pendingRefs.push_back({reference, at, num});
            return Owned(reference);
        }
        case RqTokenKind::kEnd:
        case RqTokenKind::kIdentifier:
        case RqTokenKind::kVoidID:
        case RqTokenKind::kPunct:
            break;
    }
    if (at.IsPunct("-") && m_lex.Peek(1).IsWord("inf")) {
        m_lex.Next();
        m_lex.Next();
        return Owned(RQ_NEW RqExprFloatLiteral(-std::numeric_limits<double>::infinity()));
    }
    m_lex.Expected("an expression");
}

Owned RequestReader::ParseTuple(RqNodeType_e tupleKind) {
    m_lex.ExpectPunct("(");
    Owned list(MakeBlankNode(tupleKind));
    if (!m_lex.AcceptPunct(")")) {
        do {
            Owned member = ParseExprItem();
            list->AddChild(member.Release());
        } while (m_lex.AcceptPunct(","));
        m_lex.ExpectPunct(")");
    }
    return list;
}

Owned RequestReader::ParseWordExpr(const RqToken& at) {
    const RqToken& next = m_lex.Peek(1);
    if ((IsTableNumWord(at) && next.IsPunct(".")) || (at.IsWord("t") && next.IsPunct("(")))
        return ParseTargetColumn(kRqTargetColumn);
    if (next.IsPunct("(") && !at.IsWord("ref"))
        return ParseCall();
    return ParseWordLeaf();
}

// Leaves that start with a word: null, nan, inf, typed literals, column forms.
Owned RequestReader::ParseWordLeaf() {
    const RqToken at = m_lex.Next();
    const std::string& word = at.m_text;
    if (word == "null")
        return Owned(RQ_NEW RqExprNullLiteral());
    if (word == "nan")
        return Owned(RQ_NEW RqExprFloatLiteral(std::numeric_limits<double>::quiet_NaN()));
    if (word == "inf")
        return Owned(RQ_NEW RqExprFloatLiteral(std::numeric_limits<double>::infinity()));
    if (word == "ref" && m_lex.AcceptPunct("(")) {
        if (!m_lex.AcceptWord("none") && !m_lex.AcceptWord("outside"))
            m_lex.Expected("none or outside");
        m_lex.ExpectPunct(")");
        return Owned(RQ_NEW RqDerivedColumnReference());
    }
    RqNodeType_e kind = kRqInvalid;
    if (LeafWordKind(word, kind)) {
        if (ExprFormOf(kind) == ExprForm::kTargetColumn)
            return ParseTargetColumn(kind);
        if (m_lex.Peek().Is(RqTokenKind::kString)) {
            Owned literal(MakeBlankNode(kind));
            SetTextValue(*literal, ZKString::FromUtf8(m_lex.Next().m_text));
            return literal;
        }
    }
    Fail(at, "unknown word '" + word + "' (an expression or a node was expected)");
}

// `t1.NAME` with its identifier in parentheses when the name does not give it.
Owned RequestReader::ParseTargetColumn(RqNodeType_e kind) {
    const RqToken at = m_lex.Peek();
    const int tableNum = ParseTableNum();
    m_lex.ExpectPunct(".");
    const int nameLine = m_lex.Peek().m_line;
    const std::string name = m_lex.ExpectName("a column name");
    Owned owned(MakeBlankNode(kind));
    auto* column = RqCast<RqTargetColumn>(owned.Get());
    column->SetTableNum(tableNum);
    column->SetName(ZKString::FromUtf8(name));
    // The identifier follows on the name's line; a parenthesis on a later line begins the
    // next item of a body, a column list such as `(null)`.
    if (m_lex.Peek().IsPunct("(") && m_lex.Peek().m_line == nameLine) {
        m_lex.Next();
        column->SetColumnID(ExpectRawID());
        m_lex.ExpectPunct(")");
    } else {
        m_pendingColumns.push_back({column, at});
    }
    return owned;
}

// `Name(operands, key=value, flag)`.
Owned RequestReader::ParseCall() {
    const RqToken& at = m_lex.Peek();
    m_lex.Next();
    auto args = std::make_unique<CallArgs>();
    args->m_kind = CallKind(at);
    args->m_form = ExprFormOf(args->m_kind);
    m_lex.ExpectPunct("(");
    if (!m_lex.AcceptPunct(")")) {
        do {
            const RqToken& arg = m_lex.Peek();
            if (!ParseCallFlag(*args) && !ParseCallField(at, *args)) {
                Owned operand = ParseItem();
                CheckOperand(arg, *args, operand.Get());
                args->m_operands.push_back(std::move(operand));
            }
        } while (m_lex.AcceptPunct(","));
        m_lex.ExpectPunct(")");
    }
    CheckOperandCount(at, *args);
    return MakeCall(at, *args);
}

RqNodeType_e RequestReader::CallKind(const RqToken& at) const {
    RqNodeType_e kind = kRqInvalid;
    if (!KindFromName(at.m_text, kind))
        Fail(at, "unknown expression '" + at.m_text + "'" + DidYouMean(at.m_text, ExprKindNames()));
    if (!RqIsExprType(kind))
        Fail(at, "'" + at.m_text + "' is not an expression");
    return kind;
}

// A flag word of the call (an identifier alone before ',' or ')'); false otherwise.
bool RequestReader::ParseCallFlag(CallArgs& args) {
    const RqToken& arg = m_lex.Peek();
    if (!arg.Is(RqTokenKind::kIdentifier) ||
        !(m_lex.Peek(1).IsPunct(",") || m_lex.Peek(1).IsPunct(")")))
        return false;
    int flag = 0;
    if (args.m_form == ExprForm::kAggregate && ValueOf(kAggrFlagWords, 6, arg.m_text, flag))
        args.m_aggrFlags |= flag;
    else if (args.m_form == ExprForm::kColumnList && arg.m_text == "sorted")
        args.m_bSorted = true;
    else
        return false;
    m_lex.Next();
    return true;
}

// A `key=value` field of the call; false for an operand.
bool RequestReader::ParseCallField(const RqToken& at, CallArgs& args) {
    if (!PeekKey())
        return false;
    const RqToken key = m_lex.Next();
    m_lex.Next();
    const ExprForm form = args.m_form;
    const bool aggregate = form == ExprForm::kAggregate;
    const bool metadata = form == ExprForm::kMetadata;
    if (aggregate && (key.m_text == "by" || key.m_text == "compute")) {
        const bool by = key.m_text == "by";
        (by ? args.m_bHasBy : args.m_bHasCompute) = true;
        (by ? args.m_byList : args.m_computeBreak) = ParseExprItem();
    } else if (aggregate && key.m_text == "sort") {
        args.m_sortKeys = ParseAggrSortKeys();
        args.m_bHasSort = true;
    } else if (key.m_text == "name" && (form == ExprForm::kNamed || metadata)) {
        args.m_name = m_lex.ExpectName("a name");
    } else if (key.m_text == "id" && metadata) {
        args.m_id = ExpectRawID();
    } else if (key.m_text == "type" && form == ExprForm::kCast) {
        args.m_typeName = ZKString::FromUtf8(m_lex.ExpectName("a type name"));
    } else if (key.m_text == "form" && form == ExprForm::kExternalData) {
        args.m_dataForm = ExpectEnum(kExternalFormWords, "a data form");
    } else if (key.m_text == "data" && form == ExprForm::kExternalData) {
        args.m_data = ZKString::FromUtf8(m_lex.ExpectString("the data"));
    } else {
        Fail(key, "'" + at.m_text + "' has no field '" + key.m_text + "'");
    }
    return true;
}

// A subquery's first operand is its list; every other operand is an expression.
void RequestReader::CheckOperand(const RqToken& at, const CallArgs& args,
                                 const RqNode* operand) const {
    if (operand == nullptr)
        return;
    const bool listSlot = RqIsKindOf(args.m_kind, kRqExprSubquery) && args.m_operands.empty();
    if (listSlot && !operand->IsKindOf(kRqAbstractList))
        Fail(at, "expected a list, found " + Describe(operand));
    if (!listSlot && !operand->IsExpr())
        Fail(at, "expected an expression, found " + Describe(operand));
}

// Operand counts come from the kind table; an aggregate's by-list and compute break always
// take their two slots, so only its parameters vary.
void RequestReader::CheckOperandCount(const RqToken& at, const CallArgs& args) const {
    const std::string shown = "'" + at.m_text + "'";
    const int minOps = RqNodeTypeMinOperands(args.m_kind);
    const int maxOps = RqNodeTypeMaxOperands(args.m_kind);
    const int count = static_cast<int>(args.m_operands.size());
    if (args.m_form == ExprForm::kAggregate) {
        const int params = std::max(0, count - 1);
        const int maxParams = maxOps < 0 ? -1 : std::max(0, maxOps - RqExprAggr::kFirstParameter);
        if (maxParams >= 0 && params > maxParams)
            Fail(at, shown + " takes " + Plural(maxParams, "parameter", true) + ", found " +
                         std::to_string(params));
        if (args.m_bHasSort && RqDynCast<RqExprSortDependentAggr>(
                                   Heap<RqNode>(MakeBlankNode(args.m_kind)).Get()) == nullptr)
            Fail(at, shown + " is not sort-dependent and has no sort keys");
    } else if (count < minOps || (maxOps >= 0 && count > maxOps)) {
        const std::string expected =
            minOps == maxOps ? Plural(minOps, "operand", false)
            : maxOps < 0     ? "at least " + Plural(minOps, "operand", false)
                             : std::to_string(minOps) + " to " + Plural(maxOps, "operand", false);
        Fail(at, shown + " takes " + expected + ", found " + std::to_string(count));
    }
}

Owned RequestReader::MakeCall(const RqToken& at, CallArgs& args) {
    Owned expr;
    switch (args.m_form) {
        case ExprForm::kMetadata:
            expr.Reset(MakeMetadataNode(args.m_kind, args.m_id, ZKString::FromUtf8(args.m_name)));
            break;
        case ExprForm::kExternalData:
            expr.Reset(RQ_NEW RqExprExternalData(
                static_cast<RqExprExternalData::ExternalDataForm>(args.m_dataForm), args.m_data));
            break;
        case ExprForm::kColumnList:
            expr.Reset(RQ_NEW RqExprColumnList(RqExprVector(), args.m_bSorted, true));
            break;
        case ExprForm::kCall:
        case ExprForm::kAggregate:
        case ExprForm::kNamed:
        case ExprForm::kCast:
        case ExprForm::kInteger:
        case ExprForm::kFloat:
        case ExprForm::kString:
        case ExprForm::kTypedText:
        case ExprForm::kNull:
        case ExprForm::kTargetColumn:
        case ExprForm::kReference:
            expr.Reset(MakeBlankNode(args.m_kind));
            break;
    }
    if (!expr)
        Fail(at, "'" + at.m_text + "' is an abstract kind");
    if (args.m_form == ExprForm::kNamed)
        SetNameField(*expr, args.m_name);
    else if (auto* cast = RqDynCast<RqExprCast>(expr.Get()))
        cast->SetTypeName(args.m_typeName);
    if (auto* aggr = RqDynCast<RqExprAggr>(expr.Get())) {
        aggr->AddChild(args.m_operands.empty() ? nullptr : args.m_operands[0].Release());
        aggr->AddChild(args.m_bHasBy ? args.m_byList.Release() : nullptr);
        aggr->AddChild(args.m_bHasCompute ? args.m_computeBreak.Release() : nullptr);
        for (size_t i = 1; i < args.m_operands.size(); ++i)
            aggr->AddChild(args.m_operands[i].Release());
        SetAggrFlags(*aggr, args.m_aggrFlags);
        if (args.m_bHasSort)
            RqCast<RqExprSortDependentAggr>(aggr)->SetSortSpec(args.m_sortKeys);
    } else {
        for (Owned& operand : args.m_operands)
            expr->AddChild(operand.Release());
    }
    return expr;
}

// `(1 desc, 2)`.
RqExprSortDependentAggr::SortKeys RequestReader::ParseAggrSortKeys() {
    RqExprSortDependentAggr::SortKeys keys;
    m_lex.ExpectPunct("(");
    if (!m_lex.AcceptPunct(")")) {
        do {
            RqExprSortDependentAggr::SortKey key{ExpectInt("a column number"), RqSortSpec::kAsc};
            int value = 0;
            if (m_lex.Peek().Is(RqTokenKind::kIdentifier) &&
                ValueOf(kDirectionWords, 3, m_lex.Peek().m_text, value)) {
                m_lex.Next();
                key.m_direction = static_cast<RqSortSpec::SortDirection>(value);
            }
            keys.push_back(key);
        } while (m_lex.AcceptPunct(","));
        m_lex.ExpectPunct(")");
    }
    return keys;
}

}  // namespace rqtext
