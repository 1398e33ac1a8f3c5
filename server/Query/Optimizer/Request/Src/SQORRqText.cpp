// The one-line text of nodes and expressions, and the words that name a node's own fields.
//
// Expression text forms (stable: tests and diagnostics compare them):
//   operators        as the table of operator forms writes them (SQORRqExprForm.h):
//                    a + b, a - b, a * b, a / b, a || b, -a, a = b, a <> b, a < ANY s,
//                    a AND b, a OR b, NOT a; parentheses only where an operand binds more
//                    weakly than its place asks (a - (b - c), (a + b) * c, -(-5))
//   predicates       a IS NULL, a BETWEEN b AND c, a LIKE b [ESCAPE c], a IN (b, c)
//   functions        NAME(args): the kind name without its "RqExprCond", "RqExpr" or "Rq"
//                    prefix, upper case (EXISTS(..), UPPER(..), TIMESTAMPADD(..)); also an
//                    operator or predicate whose operand count does not fit its form
//   aggregates       SUM([DISTINCT ]m[, params][ BY (..)][ AT [DISTINCT ](..)][ ORDER BY (..)])
//                    the name without "RqExprAggr"; COUNT(*) for the count of rows
//   literals         'text' (quotes doubled), 42, 1.5, DATE '..', TIME '..', TIMESTAMP '..',
//                    INTERVAL '..', NULL
//   columns          T<tableNum>.<name> for a target column; <label>.#<columnNum> for a
//                    reference to a derived column ("L?" when its list has no label, "#?"
//                    when the column has no number)
//   column lists     (a, b)
//   other leaves     PARAM(name), SESSIONVAR(name), ATTRIBUTE(name), DIMENSION(name),
//                    LEVEL(name), CAST(a AS type), EXTERNALDATA(CSV, n chars)
//   absent operand   <none>
//   subquery         LOGICALSUBQUERY(RqList label=sub), or LOGICALSUBQUERY(RqList[[17]]) for
//                    a block without a label: the block's kind, node ID when unlabeled, fields

#include <concepts>
#include <cwctype>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqExprForm.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"

namespace {

// ---- Small text helpers ----------------------------------------------------------------------

ZKString Widen(std::string_view text) {
    ZKString out;
    out.reserve(text.size());
    for (char c : text)
        out.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    return out;
}

ZKString Num(long long value) {
    return ZKString::FromInt(value);
}

// Keeps a text on one line.
ZKString OneLine(std::wstring_view text) {
    ZKString out;
    out.reserve(text.size());
    for (wchar_t c : text) {
        switch (c) {
            case L'\n':
                out += L"\\n";
                break;
            case L'\r':
                out += L"\\r";
                break;
            case L'\t':
                out += L"\\t";
                break;
            default:
                out.push_back(c);
        }
    }
    return out;
}

// A quoted SQL-style literal: single quotes, embedded quotes doubled.
ZKString Quote(std::wstring_view text) {
    ZKString out = L"'";
    for (wchar_t c : OneLine(text)) {
        if (c == L'\'')
            out.push_back(L'\'');
        out.push_back(c);
    }
    out.push_back(L'\'');
    return out;
}

ZKString KindName(RqNodeType_e kind) {
    return Widen(RqNodeTypeName(kind));
}

// The name of a function-like expression: its kind name without the class prefix.
ZKString FunctionName(RqNodeType_e kind) {
    std::string_view name = RqNodeTypeName(kind);
    for (std::string_view prefix : {"RqExprAggr", "RqExprCond", "RqExpr", "Rq"}) {
        if (name.size() > prefix.size() && name.substr(0, prefix.size()) == prefix) {
            name.remove_prefix(prefix.size());
            break;
        }
    }
    ZKString out = Widen(name);
    for (wchar_t& c : out)
        c = static_cast<wchar_t>(std::towupper(c));
    return out;
}

ZKString NodeRef(const RqNode* node) {
    if (node == nullptr)
        return L"<null>";
    return KindName(node->GetObjectType()) + node->GetNodeID().ToString();
}

// A list named for the reader: its label, or its kind and node ID.
ZKString ListRef(const RqAbstractList* list) {
    if (list == nullptr)
        return L"<null>";
    if (!list->GetLabel().empty())
        return OneLine(list->GetLabel());
    return NodeRef(list);
}

ZKString IndexList(const UInt16Vector& indexes) {
    ZKString out = L"(";
    for (size_t i = 0; i < indexes.size(); ++i) {
        if (i > 0)
            out += L", ";
        out += Num(indexes[i]);
    }
    return out + L")";
}

ZKString TextList(const std::vector<ZKString>& texts) {
    ZKString out = L"(";
    for (size_t i = 0; i < texts.size(); ++i) {
        if (i > 0)
            out += L", ";
        out += OneLine(texts[i]);
    }
    return out + L")";
}

const wchar_t* DirectionName(RqSortSpec::SortDirection direction) {
    switch (direction) {
        case RqSortSpec::kAsc:
            return L"ASC";
        case RqSortSpec::kDesc:
            return L"DESC";
        case RqSortSpec::kEitherDirection:
            return L"EITHER";
    }
    return L"?";
}

ZKString ColumnNumText(int columnNum) {
    return columnNum == RqDerivedColumn::kUnknownColumnNum ? ZKString(L"#?")
                                                           : L"#" + Num(columnNum);
}

const wchar_t* JoinTypeName(SqlTableRef::JoinType type) {
    switch (type) {
        case SqlTableRef::kInnerJoin:
            return L"INNER";
        case SqlTableRef::kLeftOuterJoin:
            return L"LEFT";
        case SqlTableRef::kRightOuterJoin:
            return L"RIGHT";
        case SqlTableRef::kFullOuterJoin:
            return L"FULL";
        case SqlTableRef::kFullOuterStitchJoin:
            return L"FULLSTITCH";
        case SqlTableRef::kNaturalJoin:
            return L"NATURAL";
    }
    return L"?";
}

// Appends a word to a space-separated field text.
void AddWord(ZKString& fields, const ZKString& word) {
    if (!fields.empty())
        fields.push_back(L' ');
    fields += word;
}

ZKString SortSpecText(const RqSortSpec& spec) {
    ZKString text =
        ColumnNumText(spec.GetColumnNumber()) + L" " + DirectionName(spec.GetSortDirection());
    if (spec.GetNullSortDirection() == RqSortSpec::kFirst)
        text += L" nulls=first";
    if (spec.GetNullSortDirection() == RqSortSpec::kLast)
        text += L" nulls=last";
    if (spec.IsLogicalSelectList())
        text += L" logical";
    if (spec.IsCaseInsensitive())
        text += L" nocase";
    return text;
}

}  // namespace

// ---- Text forms of expression kinds ------------------------------------------------------------

RqExprTextForm GetExprTextForm(RqNodeType_e kind) {
    if (!RqIsNodeTypeValue(kind) || !RqIsExprType(kind) || RqIsAbstractNodeType(kind))
        return RqExprTextForm::kNone;
    if (RqFindExprForm(kind) != nullptr)
        return RqExprTextForm::kOperator;
    switch (kind) {
        case kRqExprCondIsNull:
        case kRqExprCondBetween:
        case kRqExprCondLike:
        case kRqExprCondIn:
            return RqExprTextForm::kPredicate;
        case kRqExprParam:
        case kRqExprSessionVar:
        case kRqAttribute:
        case kRqExprDimension:
        case kRqExprLevel:
            return RqExprTextForm::kNamedValue;
        case kRqExprCast:
            return RqExprTextForm::kCast;
        case kRqExprExternalData:
            return RqExprTextForm::kExternalData;
        default:
            break;
    }
    // The families are read off the kind hierarchy, so that a new kind of a family is
    // written like its family.
    if (RqIsKindOf(kind, kRqColumn))
        return RqExprTextForm::kColumn;
    if (RqIsKindOf(kind, kRqExprLiteral))
        return RqExprTextForm::kLiteral;
    if (RqIsKindOf(kind, kRqExprAggr))
        return RqExprTextForm::kAggregate;
    if (RqIsKindOf(kind, kRqExprSubquery))
        return RqExprTextForm::kSubquery;
    if (RqIsKindOf(kind, kRqExprColumnListOrdered))
        return RqExprTextForm::kColumnList;
    // Every other kind is a function of its operands, which is all its class holds.
    return RqExprTextForm::kFunction;
}

namespace {

// ---- Expression printer ----------------------------------------------------------------------

// One part of an expression's text: fixed text, or a sub-node to print with at least the
// given binding strength.
struct Piece {
    ZKString m_text;
    const RqNode* m_pNode = nullptr;
    int m_minStrength = kRqStrengthNone;
    bool m_bNode = false;

    static Piece Text(ZKString text) {
        return Piece{std::move(text), nullptr, kRqStrengthNone, false};
    }
    static Piece Node(const RqNode* node, int minStrength) {
        return Piece{ZKString(), node, minStrength, true};
    }
};

class ExprPrinter {
public:
    explicit ExprPrinter(ARpGateway* rp) : m_pRp(rp) {}

    // Appends the text of `node` to `out`. The work list replaces recursion, so an
    // expression thousands of levels deep prints without exhausting the call stack.
    void Print(const RqNode* node, ZKString& out) {
        std::vector<Piece> work{Piece::Node(node, kRqStrengthNone)};
        std::vector<Piece> parts;
        while (!work.empty()) {
            Piece piece = std::move(work.back());
            work.pop_back();
            if (!piece.m_bNode) {
                out += piece.m_text;
                continue;
            }
            if (piece.m_pNode == nullptr) {
                out += L"<none>";
                continue;
            }
            const RqExpr* expr = RqDynCast<RqExpr>(piece.m_pNode);
            if (expr == nullptr) {
                out += DescribeNonExpr(piece.m_pNode);
                continue;
            }
            parts.clear();
            const int strength = Expand(*expr, parts);
            const bool bParens = strength < piece.m_minStrength;
            if (bParens)
                work.push_back(Piece::Text(L")"));
            for (auto it = parts.rbegin(); it != parts.rend(); ++it)
                work.push_back(std::move(*it));
            if (bParens)
                work.push_back(Piece::Text(L"("));
        }
    }

private:
    // A non-expression met inside an expression (the query block of a subquery). A list
    // without a label is named by its node ID as well, so that a dump can be matched up.
    ZKString DescribeNonExpr(const RqNode* node) const {
        ZKString out = KindName(node->GetObjectType());
        const auto* list = RqDynCast<RqAbstractList>(node);
        if (list != nullptr && list->GetLabel().empty())
            out += node->GetNodeID().ToString();
        const ZKString fields = RqNodeUtility::GetFieldsText(node, m_pRp);
        if (!fields.empty())
            out += L" " + fields;
        return out;
    }

    static const RqNode* Child(const RqExpr& expr, int i) {
        return i < expr.GetNumChildren() ? expr.GetIthChild(i) : nullptr;
    }

    // NAME(op0, op1, ...); also the list form (op0, op1) with an empty name.
    static int Generic(const ZKString& name, const RqExpr& expr, std::vector<Piece>& parts) {
        parts.push_back(Piece::Text(name + L"("));
        for (int i = 0; i < expr.GetNumChildren(); ++i) {
            if (i > 0)
                parts.push_back(Piece::Text(L", "));
            parts.push_back(Piece::Node(expr.GetIthChild(i), kRqStrengthNone));
        }
        parts.push_back(Piece::Text(L")"));
        return kRqStrengthAtom;
    }

    static int Leaf(ZKString text, std::vector<Piece>& parts, int strength = kRqStrengthAtom) {
        parts.push_back(Piece::Text(std::move(text)));
        return strength;
    }

    // An operator from the table of forms; one whose operand count does not fit its shape
    // (an infix form needs two operands or more, a prefix form one) is written as a function.
    static int Operator(const RqExprForm& form, const RqExpr& expr, std::vector<Piece>& parts) {
        const int n = expr.GetNumChildren();
        const ZKString text = Widen(form.m_text);
        if (form.m_shape == RqExprForm::kPrefix) {
            if (n != 1)
                return Generic(FunctionName(expr.GetObjectType()), expr, parts);
            parts.push_back(Piece::Text(RqExprFormIsWord(form) ? ZKString(text + L" ") : text));
            parts.push_back(Piece::Node(expr.GetIthChild(0), form.m_rightStrength));
            return form.m_strength;
        }
        if (n < 2)
            return Generic(FunctionName(expr.GetObjectType()), expr, parts);
        ZKString separator = L" " + text + L" ";
        if (form.m_quantifier != nullptr)
            separator += Widen(form.m_quantifier) + L" ";
        for (int i = 0; i < n; ++i) {
            if (i > 0)
                parts.push_back(Piece::Text(separator));
            parts.push_back(Piece::Node(expr.GetIthChild(i),
                                        i == 0 ? form.m_leftStrength : form.m_rightStrength));
        }
        return form.m_strength;
    }

    // IS NULL, BETWEEN, LIKE and IN: keyword forms that bind like a comparison.
    static int Predicate(const RqExpr& expr, std::vector<Piece>& parts) {
        const int n = expr.GetNumChildren();
        const int operand = kRqStrengthCompare + 1;
        const RqNodeType_e kind = expr.GetObjectType();
        const bool bFits =
            (kind == kRqExprCondIsNull && n == 1) || (kind == kRqExprCondBetween && n == 3) ||
            (kind == kRqExprCondLike && (n == 2 || n == 3)) || (kind == kRqExprCondIn && n >= 2);
        if (!bFits)
            return Generic(FunctionName(kind), expr, parts);
        parts.push_back(Piece::Node(expr.GetIthChild(0), operand));
        switch (kind) {
            case kRqExprCondIsNull:
                parts.push_back(Piece::Text(L" IS NULL"));
                break;
            case kRqExprCondBetween:
                parts.push_back(Piece::Text(L" BETWEEN "));
                parts.push_back(Piece::Node(expr.GetIthChild(1), operand));
                parts.push_back(Piece::Text(L" AND "));
                parts.push_back(Piece::Node(expr.GetIthChild(2), operand));
                break;
            case kRqExprCondLike:
                parts.push_back(Piece::Text(L" LIKE "));
                parts.push_back(Piece::Node(expr.GetIthChild(1), operand));
                if (n == 3) {
                    parts.push_back(Piece::Text(L" ESCAPE "));
                    parts.push_back(Piece::Node(expr.GetIthChild(2), operand));
                }
                break;
            case kRqExprCondIn:
                parts.push_back(Piece::Text(L" IN ("));
                for (int i = 1; i < n; ++i) {
                    if (i > 1)
                        parts.push_back(Piece::Text(L", "));
                    parts.push_back(Piece::Node(expr.GetIthChild(i), kRqStrengthNone));
                }
                parts.push_back(Piece::Text(L")"));
                break;
            default:
                ZK_LOGIC_ERROR(L"not a keyword predicate: " + KindName(kind));
        }
        return kRqStrengthCompare;
    }

    // A number's text binds like a unary minus when it carries a sign.
    static int Number(ZKString text, std::vector<Piece>& parts) {
        const int strength =
            (!text.empty() && text[0] == L'-') ? kRqStrengthUnary : kRqStrengthAtom;
        return Leaf(std::move(text), parts, strength);
    }

    static int Literal(const RqExpr& expr, std::vector<Piece>& parts) {
        switch (expr.GetObjectType()) {
            case kRqExprStringLiteral:
                return Leaf(Quote(RqCast<RqExprStringLiteral>(&expr)->GetValue()), parts);
            case kRqExprDateLiteral:
                return Leaf(L"DATE " + Quote(RqCast<RqExprDateLiteral>(&expr)->GetValue()), parts);
            case kRqExprTimeLiteral:
                return Leaf(L"TIME " + Quote(RqCast<RqExprTimeLiteral>(&expr)->GetValue()), parts);
            case kRqExprDateTimeLiteral:
                return Leaf(L"TIMESTAMP " + Quote(RqCast<RqExprDateTimeLiteral>(&expr)->GetValue()),
                            parts);
            case kRqExprIntervalLiteral:
                return Leaf(L"INTERVAL " + Quote(RqCast<RqExprIntervalLiteral>(&expr)->GetValue()),
                            parts);
            case kRqExprNumberLiteral: {
                const ZKString& value = RqCast<RqExprNumberLiteral>(&expr)->GetValue();
                return Number(value.empty() ? ZKString(L"0") : OneLine(value), parts);
            }
            case kRqExprIntegerLiteral:
                return Number(Num(RqCast<RqExprIntegerLiteral>(&expr)->GetValue()), parts);
            case kRqExprFloatLiteral:
                return Number(ZKString::FromDouble(RqCast<RqExprFloatLiteral>(&expr)->GetValue()),
                              parts);
            case kRqExprNullLiteral:
                return Leaf(L"NULL", parts);
            default:
                // A literal kind added to the table must say how its value is written.
                ZK_LOGIC_ERROR(L"a literal kind without a text form: " +
                               KindName(expr.GetObjectType()));
        }
    }

    static int NamedValue(const RqExpr& expr, std::vector<Piece>& parts) {
        const RqNodeType_e kind = expr.GetObjectType();
        auto named = [&](const ZKString& name, const VoidID& id) {
            const ZKString shown = name.empty() ? ZKString(id.ToString()) : OneLine(name);
            return Leaf(FunctionName(kind) + L"(" + shown + L")", parts);
        };
        if (const auto* param = RqDynCast<RqExprParam>(&expr))
            return named(param->GetName(), VoidID::NullID);
        if (const auto* var = RqDynCast<RqExprSessionVar>(&expr))
            return named(var->GetName(), VoidID::NullID);
        if (const auto* attribute = RqDynCast<RqAttribute>(&expr))
            return named(attribute->GetName(), attribute->GetID());
        if (const auto* dimension = RqDynCast<RqExprDimension>(&expr))
            return named(dimension->GetName(), dimension->GetID());
        const auto* level = RqCast<RqExprLevel>(&expr);
        return named(level->GetName(), level->GetID());
    }

    ZKString TargetColumnText(const RqTargetColumn& column) const {
        ZKString name = column.GetName();
        if (name.empty() && m_pRp != nullptr && !column.GetColumnID().IsNullID()) {
            RefAColumn found = RefHelper::GetColumn(m_pRp, column.GetColumnID());
            if (found)
                name = found->GetName();
        }
        if (name.empty()) {
            name = column.GetColumnID().IsNullID() ? ZKString(L"?")
                                                   : L"{" + column.GetColumnID().ToString() + L"}";
        }
        return L"T" + Num(column.GetTableNum()) + L"." + OneLine(name);
    }

    static ZKString ReferenceText(const RqDerivedColumnReference& ref) {
        const RqDerivedColumn* column = ref.GetDerivedColumn();
        if (column == nullptr)
            return L"L?.#?";
        const RqAbstractList* list = column->GetRqAbstractListContainer();
        const ZKString label = (list != nullptr && !list->GetLabel().empty())
                                   ? OneLine(list->GetLabel())
                                   : ZKString(L"L?");
        return label + L"." + ColumnNumText(column->GetColumnNum());
    }

    int Column(const RqExpr& expr, std::vector<Piece>& parts) const {
        if (const auto* ref = RqDynCast<RqDerivedColumnReference>(&expr))
            return Leaf(ReferenceText(*ref), parts);
        return Leaf(TargetColumnText(*RqCast<RqTargetColumn>(&expr)), parts);
    }

    static void AggregateTail(const RqExprAggr& aggr, std::vector<Piece>& parts) {
        if (const RqNode* byList = Child(aggr, RqExprAggr::kByList)) {
            parts.push_back(Piece::Text(L" BY "));
            parts.push_back(Piece::Node(byList, kRqStrengthAtom));
        }
        if (const RqNode* computeBreak = Child(aggr, RqExprAggr::kComputeBreak)) {
            parts.push_back(
                Piece::Text(aggr.HasDistinctComputeBreak() ? L" AT DISTINCT " : L" AT "));
            parts.push_back(Piece::Node(computeBreak, kRqStrengthAtom));
        }
        const auto* sorted = RqDynCast<RqExprSortDependentAggr>(&aggr);
        if (sorted == nullptr || sorted->GetSortSpec().empty())
            return;
        const RqExprSortDependentAggr::SortKeys& keys = sorted->GetSortSpec();
        ZKString text = L" ORDER BY (";
        for (size_t i = 0; i < keys.size(); ++i) {
            if (i > 0)
                text += L", ";
            text +=
                ColumnNumText(keys[i].m_columnNumber) + L" " + DirectionName(keys[i].m_direction);
        }
        parts.push_back(Piece::Text(text + L")"));
    }

    static int Aggregate(const RqExprAggr& aggr, std::vector<Piece>& parts) {
        const bool bCountStar = aggr.GetObjectType() == kRqExprAggrCountStar;
        parts.push_back(Piece::Text(
            (bCountStar ? ZKString(L"COUNT") : FunctionName(aggr.GetObjectType())) + L"("));
        if (aggr.IsDistinctAggregation())
            parts.push_back(Piece::Text(L"DISTINCT "));
        const RqNode* measure = Child(aggr, RqExprAggr::kMeasure);
        if (bCountStar || measure == nullptr) {
            parts.push_back(Piece::Text(L"*"));
        } else {
            parts.push_back(Piece::Node(measure, kRqStrengthNone));
        }
        for (int i = RqExprAggr::kFirstParameter; i < aggr.GetNumChildren(); ++i) {
            parts.push_back(Piece::Text(L", "));
            parts.push_back(Piece::Node(aggr.GetIthChild(i), kRqStrengthNone));
        }
        AggregateTail(aggr, parts);
        parts.push_back(Piece::Text(L")"));
        return kRqStrengthAtom;
    }

    // Appends the parts of the expression's text and returns how strongly it binds.
    int Expand(const RqExpr& expr, std::vector<Piece>& parts) const {
        const RqNodeType_e kind = expr.GetObjectType();
        switch (GetExprTextForm(kind)) {
            case RqExprTextForm::kOperator:
                return Operator(*RqFindExprForm(kind), expr, parts);
            case RqExprTextForm::kPredicate:
                return Predicate(expr, parts);
            case RqExprTextForm::kColumn:
                return Column(expr, parts);
            case RqExprTextForm::kLiteral:
                return Literal(expr, parts);
            case RqExprTextForm::kNamedValue:
                return NamedValue(expr, parts);
            case RqExprTextForm::kCast: {
                parts.push_back(Piece::Text(L"CAST("));
                parts.push_back(Piece::Node(Child(expr, 0), kRqStrengthNone));
                parts.push_back(Piece::Text(
                    L" AS " + OneLine(RqCast<RqExprCast>(&expr)->GetTypeName()) + L")"));
                return kRqStrengthAtom;
            }
            case RqExprTextForm::kExternalData: {
                const auto* data = RqCast<RqExprExternalData>(&expr);
                const wchar_t* form =
                    data->GetForm() == RqExprExternalData::kCSVData ? L"CSV" : L"UNKNOWN";
                return Leaf(ZKString(L"EXTERNALDATA(") + form + L", " +
                                Num(static_cast<long long>(data->GetData().size())) + L" chars)",
                            parts);
            }
            case RqExprTextForm::kColumnList:
                return Generic(ZKString(), expr, parts);
            case RqExprTextForm::kAggregate:
                return Aggregate(*RqCast<RqExprAggr>(&expr), parts);
            case RqExprTextForm::kSubquery:
            case RqExprTextForm::kFunction:
                return Generic(FunctionName(kind), expr, parts);
            case RqExprTextForm::kNone:
                break;
        }
        ZK_LOGIC_ERROR(L"an expression of a kind that is not an expression: " + KindName(kind));
    }

    ARpGateway* m_pRp;
};

// ---- Fields of nodes -------------------------------------------------------------------------
//
// The words of a node's own fields come from overloads chosen by class, so that a class
// derived from one of these (a kind of table, of cache) gets its base's words. FieldsOf
// below decides, class by class at compile time, which applies; a node class that none
// covers and that is not listed as having no fields does not compile.

// Words that every list carries, before and after its own.
void ListHead(const RqAbstractList& list, ZKString& fields) {
    if (!list.GetLabel().empty())
        AddWord(fields, L"label=" + OneLine(list.GetLabel()));
}
void ListTail(const RqAbstractList& list, ZKString& fields) {
    if (list.GetRowOffset() != 0)
        AddWord(fields, L"offset=" + Num(list.GetRowOffset()));
    if (list.GetRowLimit() != 0)
        AddWord(fields, L"limit=" + Num(list.GetRowLimit()));
    if (list.IsShared())
        AddWord(fields, L"shared");
    if (list.IsWithSupported())
        AddWord(fields, L"with");
}

// The own words of each list class (every list class has some).
void ListOwn(const RqList& block, ZKString& fields) {
    if (block.IsDistinct())
        AddWord(fields, L"distinct");
    if (block.IsArtifactListNode())
        AddWord(fields, L"artifact");
}
template <class SetOperation>
requires std::is_same_v<SetOperation, RqUnion> || std::is_same_v<SetOperation, RqIntersect> ||
    std::is_same_v<SetOperation, RqExcept>
void ListOwn(const SetOperation& operation, ZKString& fields) {
    if (operation.IsAll())
        AddWord(fields, L"all");
}
void ListOwn(const RqBreakFilter& filter, ZKString& fields) {
    AddWord(fields, L"breaks=" + IndexList(filter.BreakColumnIndexes()));
}
void ListOwn(const RqSharedList& shared, ZKString& fields) {
    AddWord(fields, L"of=" + ListRef(shared.GetSharedRqList()));
}
void ListOwn(const RqCacheList& cache, ZKString& fields) {
    if (!cache.GetMarker().empty())
        AddWord(fields, L"marker=" + OneLine(cache.GetMarker()));
}

// Words that every table carries: its number, and for a repository table its identifier
// (and its name, when a gateway can look it up).
void TableHead(const RqAbstractTable& table, ARpGateway* rp, ZKString& fields) {
    AddWord(fields, L"T" + Num(table.GetTableNum()));
    const auto* identified = RqDynCast<RqIdentifiedTable>(&table);
    if (identified == nullptr)
        return;
    AddWord(fields, L"id=" + identified->GetTableID().ToString());
    if (rp != nullptr && !identified->GetTableID().IsNullID()) {
        RefATable found = RefHelper::GetTable(rp, identified->GetTableID());
        if (found)
            AddWord(fields, L"name=" + OneLine(found->GetName()));
    }
}

// The own words of the table classes that have fields beyond their number and identifier.
void TableOwn(const RqTransientOpaqueTable& table, ZKString& fields) {
    const std::vector<ZKString> types = table.GetColumnTypeInfos();
    if (!types.empty())
        AddWord(fields, L"types=" + TextList(types));
}
void TableOwn(const RqExternalTable& table, ZKString& fields) {
    if (!table.GetName().empty())
        AddWord(fields, L"name=" + OneLine(table.GetName()));
}
void TableOwn(const RqDerivedTable& table, ZKString& fields) {
    if (table.GetNestingLevel() != 0)
        AddWord(fields, L"nesting=" + Num(table.GetNestingLevel()));
}

// The own words of the other node classes that have fields.
void OwnFields(const RqProjection& projection, ZKString& fields) {
    AddWord(fields, L"next=#" + Num(projection.PeekNextColumnNum()));
}
void OwnFields(const RqDerivedColumn& column, ZKString& fields) {
    AddWord(fields, ColumnNumText(column.GetColumnNum()));
    const int status = column.GetBreakStatus();
    if (status != RqDerivedColumn::kUnknownBreakStatus) {
        ZKString words;
        auto add = [&](int bit, const wchar_t* name) {
            if ((status & bit) == 0)
                return;
            if (!words.empty())
                words += L"|";
            words += name;
        };
        add(RqDerivedColumn::kNoDuplicates, L"NoDuplicates");
        add(RqDerivedColumn::kAllowDuplicates, L"AllowDuplicates");
        add(RqDerivedColumn::kLobData, L"LobData");
        AddWord(fields, L"break=" + words);
    }
    if (const int refs = column.GetNumReferences(); refs > 0)
        AddWord(fields, L"refs=" + Num(refs));
}
void OwnFields(const RqGroupBy& groupBy, ZKString& fields) {
    if (groupBy.GetInternalExecutionMode() == RqGroupBy::kHash)
        AddWord(fields, L"mode=HASH");
    if (groupBy.GetInternalExecutionMode() == RqGroupBy::kSort)
        AddWord(fields, L"mode=SORT");
    if (groupBy.IsGroupingSets()) {
        ZKString sets = L"sets=(";
        for (int i = 0; i < groupBy.GetNumGroupingSets(); ++i)
            sets += (i > 0 ? L", " : L"") + IndexList(groupBy.GetIthGroupingSet(i));
        AddWord(fields, sets + L")");
    }
}
void OwnFields(const RqOrderBy& orderBy, ZKString& fields) {
    if (orderBy.IsSticky())
        AddWord(fields, L"sticky");
    const std::vector<ZKString> types = orderBy.GetStickyTypes();
    if (!types.empty())
        AddWord(fields, L"types=" + TextList(types));
}
void OwnFields(const RqSortSpec& spec, ZKString& fields) {
    AddWord(fields, SortSpecText(spec));
}
void OwnFields(const RqTableReference& ref, ZKString& fields) {
    AddWord(fields, JoinTypeName(ref.GetJoinType()));
    if (ref.GetDrivingTableHint() == RqTableReference::kDriving_LeftTable)
        AddWord(fields, L"driving=left");
    if (ref.GetDrivingTableHint() == RqTableReference::kDriving_RightTable)
        AddWord(fields, L"driving=right");
    if (!ref.GetLeftJoinColumnIndexes().empty())
        AddWord(fields, L"leftcols=" + IndexList(ref.GetLeftJoinColumnIndexes()));
    if (!ref.GetRightJoinColumnIndexes().empty())
        AddWord(fields, L"rightcols=" + IndexList(ref.GetRightJoinColumnIndexes()));
}
void OwnFields(const RqJoinNode& node, ZKString& fields) {
    if (node.IsPreserved())
        AddWord(fields, L"preserved");
}
void OwnFields(const RqJoinLink& link, ZKString& fields) {
    AddWord(fields, L"from=" + NodeRef(link.GetFrom()));
    AddWord(fields, L"to=" + NodeRef(link.GetTo()));
}
void OwnFields(const RqEntity& entity, ZKString& fields) {
    if (!entity.GetName().empty())
        AddWord(fields, L"name=" + OneLine(entity.GetName()));
    if (!entity.GetID().IsNullID())
        AddWord(fields, L"id=" + entity.GetID().ToString());
}
void OwnFields(const RqCache& cache, ZKString& fields) {
    LogicalPlanBytes plan;
    cache.GetLogicalPlan(plan);
    if (plan.empty())
        return;
    const LogicalPlanEntry entry = cache.GetLogicalPlanEntry();
    AddWord(fields, L"plan=(limit=" + Num(entry.m_rowLimit) + L" offset=" + Num(entry.m_rowOffset) +
                        L" flags=" + Num(entry.m_flags) + L")");
}

// Nodes whose only field is a name: write requests and the request kinds that rules pass
// through untouched.
template <class T>
concept NameOnlyNode = requires(const T& node) {
    { node.GetName() } -> std::convertible_to<const ZKString&>;
}
&&!std::is_base_of_v<RqExpr, T> && !std::is_base_of_v<RqAbstractTable, T> &&
    !std::is_same_v<T, RqEntity>;

// The node classes that carry no field of their own: their text is their kind and children.
template <class T>
constexpr bool kHasNoFields = std::is_same_v<T, RqNullNode> || std::is_same_v<T, RqHandleNode> ||
                              std::is_same_v<T, RqJoinSpec> || std::is_same_v<T, RqDetailFilter> ||
                              std::is_same_v<T, RqSummaryFilter> || std::is_same_v<T, RqHaving>;

template <class T>
void FieldsOf(const T& node, ARpGateway* rp, ZKString& fields) {
    if constexpr (std::is_base_of_v<RqExpr, T>) {
        // An expression's text is ToString's, not a list of fields.
    } else if constexpr (std::is_base_of_v<RqAbstractList, T>) {
        ListHead(node, fields);
        ListOwn(node, fields);
        ListTail(node, fields);
    } else if constexpr (std::is_base_of_v<RqAbstractTable, T>) {
        TableHead(node, rp, fields);
        if constexpr (requires { TableOwn(node, fields); })
            TableOwn(node, fields);
    } else if constexpr (requires { OwnFields(node, fields); }) {
        OwnFields(node, fields);
    } else if constexpr (NameOnlyNode<T>) {
        if (!node.GetName().empty())
            AddWord(fields, L"name=" + OneLine(node.GetName()));
    } else {
        static_assert(kHasNoFields<T>, "a node class with fields needs words for them here");
    }
}

}  // namespace

ZKString RqNodeUtility::GetKindName(const RqNode* node) {
    return node == nullptr ? ZKString(L"<null>") : KindName(node->GetObjectType());
}

ZKString RqNodeUtility::GetFieldsText(const RqNode* node, ARpGateway* rp) {
    ZKString fields;
    if (node == nullptr)
        return fields;
    // One case per concrete class of the kind table.
    switch (node->GetObjectType()) {
#define RQ_FIELDS_CASE(kind, cls)                             \
    case kind:                                                \
        FieldsOf(static_cast<const cls&>(*node), rp, fields); \
        break;
#define RQ_FIELDS_G(kind, cls) RQ_FIELDS_CASE(kind, cls)
#define RQ_FIELDS_H(kind, cls) RQ_FIELDS_CASE(kind, cls)
#define RQ_FIELDS_A(kind, cls)
#define RQ_FIELDS_N(kind, cls)
#define RQ_FIELDS_ROW_K(kind, cls, decl) RQ_FIELDS_##decl(kind, cls)
#define RQ_FIELDS_ROW_C(kind, cls, decl)
#define RQ_FIELDS_ROW_M(kind, cls, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_FIELDS_ROW_##row(kind, cls, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_FIELDS_ROW_K
#undef RQ_FIELDS_ROW_C
#undef RQ_FIELDS_ROW_M
#undef RQ_FIELDS_G
#undef RQ_FIELDS_H
#undef RQ_FIELDS_A
#undef RQ_FIELDS_N
#undef RQ_FIELDS_CASE
        default:
            // Markers and abstract kinds: no node reports one as its kind.
            ZK_LOGIC_ERROR(L"a node of a kind without a class: " + KindName(node->GetObjectType()));
    }
    return fields;
}

// ---- Text ------------------------------------------------------------------------------------

ZKString ToString(const RqNode* node, ARpGateway* rp) {
    if (node == nullptr)
        return L"<null>";
    ExprPrinter printer(rp);
    ZKString out;
    if (node->IsExpr()) {
        printer.Print(node, out);
        return out;
    }
    out = KindName(node->GetObjectType());
    const ZKString fields = RqNodeUtility::GetFieldsText(node, rp);
    if (!fields.empty())
        out += L" " + fields;
    if (const auto* orderBy = RqDynCast<RqOrderBy>(node)) {
        // The keys are children of their own; a one-line text of the clause needs them.
        out += L" (";
        for (int i = 0; i < orderBy->GetNumSortSpecs(); ++i) {
            if (i > 0)
                out += L", ";
            const RqSortSpec* spec = orderBy->GetIthSortSpec(i);
            out += spec != nullptr ? SortSpecText(*spec) : ZKString(L"<none>");
        }
        out += L")";
    }
    // Expressions held directly by the node (a column's expression, a filter's condition,
    // the lists of a GROUP BY, the push-down aggregates of an ORDER BY).
    bool bFirst = true;
    for (int i = 0; i < node->GetNumChildren(); ++i) {
        const RqNode* child = node->GetIthChild(i);
        if (child == nullptr || !child->IsExpr())
            continue;
        out += bFirst ? L": " : L", ";
        bFirst = false;
        printer.Print(child, out);
    }
    return out;
}

ZKString ToString(const RqExprVector& exprs, ARpGateway* rp) {
    ExprPrinter printer(rp);
    ZKString out = L"(";
    for (size_t i = 0; i < exprs.size(); ++i) {
        if (i > 0)
            out += L", ";
        printer.Print(exprs[i], out);
    }
    return out + L")";
}
