// Tree searches, node paths and the one-line text of nodes and expressions.
//
// Expression text forms (stable: tests and diagnostics compare them):
//   arithmetic       a + b, a - b, a * b, a / b, -a        (parenthesised only where needed)
//   comparisons      a = b, a <> b, a < b, a <= b, a > b, a >= b, a < ANY s, a = ALL s
//   connectives      a AND b, a OR b, NOT (a)               (NOT always parenthesises)
//   predicates       a IS NULL, a BETWEEN b AND c, a LIKE b [ESCAPE c], a IN (b, c)
//   functions        NAME(args): the kind name without its "RqExprCond", "RqExpr" or "Rq"
//                    prefix, upper case (EXISTS(..), UPPER(..), TIMESTAMPADD(..))
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

#include "Query/Optimizer/Request/SQORRqUtility.h"

#include <cwctype>
#include <string_view>

#include "Platform/Repository.h"
#include "Platform/ServerInfo.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace {

// Binding strength of an expression form; a sub-expression weaker than its context asks
// for parentheses.
enum Precedence {
    kPrecNone = 0,
    kPrecOr = 1,
    kPrecAnd = 2,
    kPrecNot = 3,
    kPrecCompare = 4,
    kPrecAdd = 5,
    kPrecMul = 6,
    kPrecUnary = 7,
    kPrecPrimary = 8,
};

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

// ---- Expression printer --------------------------------------------------------------------

// One part of an expression's text: fixed text, or a sub-node to print with at least the
// given binding strength.
struct Piece {
    ZKString m_text;
    const RqNode* m_pNode = nullptr;
    int m_minPrec = kPrecNone;
    bool m_bNode = false;

    static Piece Text(ZKString text) { return Piece{std::move(text), nullptr, kPrecNone, false}; }
    static Piece Node(const RqNode* node, int minPrec) {
        return Piece{ZKString(), node, minPrec, true};
    }
};

class ExprPrinter {
public:
    explicit ExprPrinter(ARpGateway* rp) : m_pRp(rp) {}

    // Appends the text of `node` to `out`. The work list replaces recursion, so an
    // expression thousands of levels deep prints without exhausting the call stack.
    void Print(const RqNode* node, ZKString& out) {
        std::vector<Piece> work{Piece::Node(node, kPrecNone)};
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
            if (!piece.m_pNode->IsExpr()) {
                out += DescribeNonExpr(piece.m_pNode);
                continue;
            }
            parts.clear();
            const int prec = Expand(*static_cast<const RqExpr*>(piece.m_pNode), parts);
            const bool bParens = prec < piece.m_minPrec;
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
        const auto* list = dynamic_cast<const RqAbstractList*>(node);
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

    // name(op0, op1, ...)
    static int Generic(const ZKString& name, const RqExpr& expr, std::vector<Piece>& parts) {
        parts.push_back(Piece::Text(name + L"("));
        for (int i = 0; i < expr.GetNumChildren(); ++i) {
            if (i > 0)
                parts.push_back(Piece::Text(L", "));
            parts.push_back(Piece::Node(expr.GetIthChild(i), kPrecNone));
        }
        parts.push_back(Piece::Text(L")"));
        return kPrecPrimary;
    }

    // Left-associative infix over all operands: a op b op c.
    static int Infix(const wchar_t* op, int prec, const RqExpr& expr, std::vector<Piece>& parts) {
        for (int i = 0; i < expr.GetNumChildren(); ++i) {
            if (i > 0)
                parts.push_back(Piece::Text(op));
            parts.push_back(Piece::Node(expr.GetIthChild(i), i == 0 ? prec : prec + 1));
        }
        return prec;
    }

    // A comparison `left op right`; a quantified comparison binds its subquery side tighter.
    static int Compare(const wchar_t* op, const RqExpr& expr, std::vector<Piece>& parts,
                       int rightPrec = kPrecCompare + 1) {
        if (expr.GetNumChildren() != 2)
            return Generic(FunctionName(expr.GetObjectType()), expr, parts);
        parts.push_back(Piece::Node(expr.GetIthChild(0), kPrecCompare + 1));
        parts.push_back(Piece::Text(op));
        parts.push_back(Piece::Node(expr.GetIthChild(1), rightPrec));
        return kPrecCompare;
    }

    static int Quantified(const wchar_t* op, const RqExpr& expr, std::vector<Piece>& parts) {
        return Compare(op, expr, parts, kPrecPrimary);
    }

    static int List(const RqExpr& expr, std::vector<Piece>& parts) {
        parts.push_back(Piece::Text(L"("));
        for (int i = 0; i < expr.GetNumChildren(); ++i) {
            if (i > 0)
                parts.push_back(Piece::Text(L", "));
            parts.push_back(Piece::Node(expr.GetIthChild(i), kPrecNone));
        }
        parts.push_back(Piece::Text(L")"));
        return kPrecPrimary;
    }

    static int Leaf(ZKString text, std::vector<Piece>& parts, int prec = kPrecPrimary) {
        parts.push_back(Piece::Text(std::move(text)));
        return prec;
    }

    // A number's text binds like a unary minus when it carries a sign.
    static int Number(ZKString text, std::vector<Piece>& parts) {
        const int prec = (!text.empty() && text[0] == L'-') ? kPrecUnary : kPrecPrimary;
        return Leaf(std::move(text), parts, prec);
    }

    static ZKString Named(RqNodeType_e kind, const ZKString& name, const VoidID& id) {
        return FunctionName(kind) + L"(" + (name.empty() ? id.ToString() : OneLine(name)) + L")";
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
            parts.push_back(Piece::Node(measure, kPrecNone));
        }
        for (int i = RqExprAggr::kFirstParameter; i < aggr.GetNumChildren(); ++i) {
            parts.push_back(Piece::Text(L", "));
            parts.push_back(Piece::Node(aggr.GetIthChild(i), kPrecNone));
        }
        if (const RqNode* byList = Child(aggr, RqExprAggr::kByList)) {
            parts.push_back(Piece::Text(L" BY "));
            parts.push_back(Piece::Node(byList, kPrecPrimary));
        }
        if (const RqNode* computeBreak = Child(aggr, RqExprAggr::kComputeBreak)) {
            parts.push_back(
                Piece::Text(aggr.HasDistinctComputeBreak() ? L" AT DISTINCT " : L" AT "));
            parts.push_back(Piece::Node(computeBreak, kPrecPrimary));
        }
        if (const auto* sorted = dynamic_cast<const RqExprSortDependentAggr*>(&aggr)) {
            const RqExprSortDependentAggr::SortKeys& keys = sorted->GetSortSpec();
            if (!keys.empty()) {
                ZKString text = L" ORDER BY (";
                for (size_t i = 0; i < keys.size(); ++i) {
                    if (i > 0)
                        text += L", ";
                    text += ColumnNumText(keys[i].m_columnNumber) + L" " +
                            DirectionName(keys[i].m_direction);
                }
                parts.push_back(Piece::Text(text + L")"));
            }
        }
        parts.push_back(Piece::Text(L")"));
        return kPrecPrimary;
    }

    // Appends the parts of the expression's text and returns how strongly it binds.
    int Expand(const RqExpr& expr, std::vector<Piece>& parts) const {
        const RqNodeType_e kind = expr.GetObjectType();
        const int n = expr.GetNumChildren();
        switch (kind) {
            case kRqExprAdd:
                return n == 2 ? Infix(L" + ", kPrecAdd, expr, parts) : Generic(L"ADD", expr, parts);
            case kRqExprSubtract:
                return n == 2 ? Infix(L" - ", kPrecAdd, expr, parts)
                              : Generic(L"SUBTRACT", expr, parts);
            case kRqExprMultiply:
                return n == 2 ? Infix(L" * ", kPrecMul, expr, parts)
                              : Generic(L"MULTIPLY", expr, parts);
            case kRqExprDivide:
                return n == 2 ? Infix(L" / ", kPrecMul, expr, parts)
                              : Generic(L"DIVIDE", expr, parts);
            case kRqExprUnaryMinus:
                if (n != 1)
                    return Generic(L"UNARYMINUS", expr, parts);
                parts.push_back(Piece::Text(L"-"));
                parts.push_back(Piece::Node(expr.GetIthChild(0), kPrecPrimary));
                return kPrecUnary;

            case kRqExprCondEquality:
                return Compare(L" = ", expr, parts);
            case kRqExprCondNotEqual:
                return Compare(L" <> ", expr, parts);
            case kRqExprCondLess:
                return Compare(L" < ", expr, parts);
            case kRqExprCondLessEqual:
                return Compare(L" <= ", expr, parts);
            case kRqExprCondGreater:
                return Compare(L" > ", expr, parts);
            case kRqExprCondGreaterEqual:
                return Compare(L" >= ", expr, parts);
            case kRqExprCondAnyLessThan:
                return Quantified(L" < ANY ", expr, parts);
            case kRqExprCondAnyLessEqual:
                return Quantified(L" <= ANY ", expr, parts);
            case kRqExprCondAnyGreaterThan:
                return Quantified(L" > ANY ", expr, parts);
            case kRqExprCondAnyGreaterEqual:
                return Quantified(L" >= ANY ", expr, parts);
            case kRqExprCondAnyNotEqual:
                return Quantified(L" <> ANY ", expr, parts);
            case kRqExprCondAllLessThan:
                return Quantified(L" < ALL ", expr, parts);
            case kRqExprCondAllLessEqual:
                return Quantified(L" <= ALL ", expr, parts);
            case kRqExprCondAllEqual:
                return Quantified(L" = ALL ", expr, parts);
            case kRqExprCondAllGreaterThan:
                return Quantified(L" > ALL ", expr, parts);
            case kRqExprCondAllGreaterEqual:
                return Quantified(L" >= ALL ", expr, parts);

            case kRqExprCondAnd:
                return n >= 1 ? Infix(L" AND ", kPrecAnd, expr, parts)
                              : Generic(L"AND", expr, parts);
            case kRqExprCondOr:
                return n >= 1 ? Infix(L" OR ", kPrecOr, expr, parts) : Generic(L"OR", expr, parts);
            case kRqExprCondNot:
                if (n != 1)
                    return Generic(L"NOT", expr, parts);
                parts.push_back(Piece::Text(L"NOT "));
                parts.push_back(Piece::Node(expr.GetIthChild(0), kPrecPrimary + 1));
                return kPrecNot;
            case kRqExprCondIsNull:
                if (n != 1)
                    return Generic(L"ISNULL", expr, parts);
                parts.push_back(Piece::Node(expr.GetIthChild(0), kPrecCompare + 1));
                parts.push_back(Piece::Text(L" IS NULL"));
                return kPrecCompare;
            case kRqExprCondBetween:
                if (n != 3)
                    return Generic(L"BETWEEN", expr, parts);
                parts.push_back(Piece::Node(expr.GetIthChild(0), kPrecCompare + 1));
                parts.push_back(Piece::Text(L" BETWEEN "));
                parts.push_back(Piece::Node(expr.GetIthChild(1), kPrecCompare + 1));
                parts.push_back(Piece::Text(L" AND "));
                parts.push_back(Piece::Node(expr.GetIthChild(2), kPrecCompare + 1));
                return kPrecCompare;
            case kRqExprCondLike:
                if (n != 2 && n != 3)
                    return Generic(L"LIKE", expr, parts);
                parts.push_back(Piece::Node(expr.GetIthChild(0), kPrecCompare + 1));
                parts.push_back(Piece::Text(L" LIKE "));
                parts.push_back(Piece::Node(expr.GetIthChild(1), kPrecCompare + 1));
                if (n == 3) {
                    parts.push_back(Piece::Text(L" ESCAPE "));
                    parts.push_back(Piece::Node(expr.GetIthChild(2), kPrecCompare + 1));
                }
                return kPrecCompare;
            case kRqExprCondIn:
                if (n < 2)
                    return Generic(L"IN", expr, parts);
                parts.push_back(Piece::Node(expr.GetIthChild(0), kPrecCompare + 1));
                parts.push_back(Piece::Text(L" IN ("));
                for (int i = 1; i < n; ++i) {
                    if (i > 1)
                        parts.push_back(Piece::Text(L", "));
                    parts.push_back(Piece::Node(expr.GetIthChild(i), kPrecNone));
                }
                parts.push_back(Piece::Text(L")"));
                return kPrecCompare;

            case kRqExprColumnList:
            case kRqExprColumnListOrdered:
                return List(expr, parts);

            case kRqTargetColumn:
            case kRqTargetCubeColumn:
            case kRqTargetCacheColumn:
                return Leaf(TargetColumnText(static_cast<const RqTargetColumn&>(expr)), parts);
            case kRqDerivedColumnReference:
                return Leaf(ReferenceText(static_cast<const RqDerivedColumnReference&>(expr)),
                            parts);

            case kRqExprStringLiteral:
                return Leaf(Quote(static_cast<const RqExprStringLiteral&>(expr).GetValue()), parts);
            case kRqExprDateLiteral:
                return Leaf(
                    L"DATE " + Quote(static_cast<const RqExprDateLiteral&>(expr).GetValue()),
                    parts);
            case kRqExprTimeLiteral:
                return Leaf(
                    L"TIME " + Quote(static_cast<const RqExprTimeLiteral&>(expr).GetValue()),
                    parts);
            case kRqExprDateTimeLiteral:
                return Leaf(L"TIMESTAMP " +
                                Quote(static_cast<const RqExprDateTimeLiteral&>(expr).GetValue()),
                            parts);
            case kRqExprIntervalLiteral:
                return Leaf(L"INTERVAL " +
                                Quote(static_cast<const RqExprIntervalLiteral&>(expr).GetValue()),
                            parts);
            case kRqExprNumberLiteral: {
                const ZKString& value = static_cast<const RqExprNumberLiteral&>(expr).GetValue();
                return Number(value.empty() ? ZKString(L"0") : OneLine(value), parts);
            }
            case kRqExprIntegerLiteral:
                return Number(Num(static_cast<const RqExprIntegerLiteral&>(expr).GetValue()),
                              parts);
            case kRqExprFloatLiteral:
                return Number(
                    ZKString::FromDouble(static_cast<const RqExprFloatLiteral&>(expr).GetValue()),
                    parts);
            case kRqExprNullLiteral:
                return Leaf(L"NULL", parts);

            case kRqExprParam:
                return Leaf(
                    L"PARAM(" + OneLine(static_cast<const RqExprParam&>(expr).GetName()) + L")",
                    parts);
            case kRqExprSessionVar:
                return Leaf(L"SESSIONVAR(" +
                                OneLine(static_cast<const RqExprSessionVar&>(expr).GetName()) +
                                L")",
                            parts);
            case kRqAttribute: {
                const auto& meta = static_cast<const RqAttribute&>(expr);
                return Leaf(Named(kind, meta.GetName(), meta.GetID()), parts);
            }
            case kRqExprDimension: {
                const auto& meta = static_cast<const RqExprDimension&>(expr);
                return Leaf(Named(kind, meta.GetName(), meta.GetID()), parts);
            }
            case kRqExprLevel: {
                const auto& meta = static_cast<const RqExprLevel&>(expr);
                return Leaf(Named(kind, meta.GetName(), meta.GetID()), parts);
            }
            case kRqExprCast: {
                const auto& cast = static_cast<const RqExprCast&>(expr);
                parts.push_back(Piece::Text(L"CAST("));
                parts.push_back(Piece::Node(Child(cast, 0), kPrecNone));
                parts.push_back(Piece::Text(L" AS " + OneLine(cast.GetTypeName()) + L")"));
                return kPrecPrimary;
            }
            case kRqExprExternalData: {
                const auto& data = static_cast<const RqExprExternalData&>(expr);
                const wchar_t* form =
                    data.GetForm() == RqExprExternalData::kCSVData ? L"CSV" : L"UNKNOWN";
                return Leaf(ZKString(L"EXTERNALDATA(") + form + L", " +
                                Num(static_cast<long long>(data.GetData().size())) + L" chars)",
                            parts);
            }
            default:
                break;
        }
        if (expr.IsAggr()) {
            if (const auto* aggr = dynamic_cast<const RqExprAggr*>(&expr))
                return Aggregate(*aggr, parts);
        }
        return Generic(FunctionName(kind), expr, parts);
    }

    ARpGateway* m_pRp;
};

// Fields of the nodes that carry a name and nothing else.
const ZKString* GenericNodeName(const RqNode* node) {
    switch (node->GetObjectType()) {
#define RQ_NAMED_CASE(cls) \
    case k##cls:           \
        return &static_cast<const cls*>(node)->GetName();
        RQ_NAMED_CASE(RqWrite)
        RQ_NAMED_CASE(RqDelete)
        RQ_NAMED_CASE(RqInsert)
        RQ_NAMED_CASE(RqDrop)
        RQ_NAMED_CASE(RqPopulate)
        RQ_NAMED_CASE(RqCreateIndex)
        RQ_NAMED_CASE(RqStats)
        RQ_NAMED_CASE(RqMolapStarJoin)
        RQ_NAMED_CASE(RqMolapFilterJoin)
        RQ_NAMED_CASE(RqSummaryAdvisorQuery)
        RQ_NAMED_CASE(RqExplainPlan)
        RQ_NAMED_CASE(RqDataMiningQuery)
        RQ_NAMED_CASE(RqXSAGrainCheck)
        RQ_NAMED_CASE(RqProbeQuery)
        RQ_NAMED_CASE(RqSummarize)
        RQ_NAMED_CASE(RqCanonicalMap)
        RQ_NAMED_CASE(RqDetectAnomalies)
#undef RQ_NAMED_CASE
        default:
            return nullptr;
    }
}

void AddListFields(const RqAbstractList& list, ZKString& fields) {
    if (!list.GetLabel().empty())
        AddWord(fields, L"label=" + OneLine(list.GetLabel()));
    switch (list.GetObjectType()) {
        case kRqList: {
            const auto& block = static_cast<const RqList&>(list);
            if (block.IsDistinct())
                AddWord(fields, L"distinct");
            if (block.IsArtifactListNode())
                AddWord(fields, L"artifact");
            break;
        }
        case kRqUnion:
            if (static_cast<const RqUnion&>(list).IsAll())
                AddWord(fields, L"all");
            break;
        case kRqIntersect:
            if (static_cast<const RqIntersect&>(list).IsAll())
                AddWord(fields, L"all");
            break;
        case kRqExcept:
            if (static_cast<const RqExcept&>(list).IsAll())
                AddWord(fields, L"all");
            break;
        case kRqBreakFilter:
            AddWord(fields,
                    L"breaks=" +
                        IndexList(static_cast<const RqBreakFilter&>(list).BreakColumnIndexes()));
            break;
        case kRqSharedList:
            AddWord(fields,
                    L"of=" + ListRef(static_cast<const RqSharedList&>(list).GetSharedRqList()));
            break;
        case kRqCacheList: {
            const ZKString& marker = static_cast<const RqCacheList&>(list).GetMarker();
            if (!marker.empty())
                AddWord(fields, L"marker=" + OneLine(marker));
            break;
        }
        default:
            break;
    }
    if (list.GetRowOffset() != 0)
        AddWord(fields, L"offset=" + Num(list.GetRowOffset()));
    if (list.GetRowLimit() != 0)
        AddWord(fields, L"limit=" + Num(list.GetRowLimit()));
    if (list.IsShared())
        AddWord(fields, L"shared");
    if (list.IsWithSupported())
        AddWord(fields, L"with");
}

void AddTableFields(const RqAbstractTable& table, ARpGateway* rp, ZKString& fields) {
    AddWord(fields, L"T" + Num(table.GetTableNum()));
    if (const auto* identified = dynamic_cast<const RqIdentifiedTable*>(&table)) {
        AddWord(fields, L"id=" + identified->GetTableID().ToString());
        if (rp != nullptr && !identified->GetTableID().IsNullID()) {
            RefATable found = RefHelper::GetTable(rp, identified->GetTableID());
            if (found)
                AddWord(fields, L"name=" + OneLine(found->GetName()));
        }
    }
    switch (table.GetObjectType()) {
        case kRqTransientOpaqueTable: {
            const auto& types =
                static_cast<const RqTransientOpaqueTable&>(table).GetColumnTypeInfos();
            if (!types.empty())
                AddWord(fields, L"types=" + TextList(types));
            break;
        }
        case kRqExternalTable: {
            const ZKString& name = static_cast<const RqExternalTable&>(table).GetName();
            if (!name.empty())
                AddWord(fields, L"name=" + OneLine(name));
            break;
        }
        case kRqDerivedTable: {
            const int level = static_cast<const RqDerivedTable&>(table).GetNestingLevel();
            if (level != 0)
                AddWord(fields, L"nesting=" + Num(level));
            break;
        }
        default:
            break;
    }
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

// ---- RqNodeUtility --------------------------------------------------------------------------

RqList* RqNodeUtility::GetParentRqList(RqNode* node) {
    return static_cast<RqList*>(GetParentNodeOfType(node, RqNode::IsObjectType(kRqList)));
}

const RqList* RqNodeUtility::GetParentRqList(const RqNode* node) {
    return static_cast<const RqList*>(GetParentNodeOfType(node, RqNode::IsObjectType(kRqList)));
}

RqAbstractList* RqNodeUtility::GetParentAbstractList(RqNode* node) {
    return static_cast<RqAbstractList*>(
        GetParentNodeOfType(node, RqNode::IsObjectType(kRqAbstractList)));
}

RqNode* RqNodeUtility::GetParentNodeOfType(RqNode* node, const RqNode::IsObjectType& type) {
    if (node == nullptr)
        return nullptr;
    for (RqNode* up = node->GetParent(); up != nullptr; up = up->GetParent()) {
        if (type(up))
            return up;
    }
    return nullptr;
}

const RqNode* RqNodeUtility::GetParentNodeOfType(const RqNode* node,
                                                 const RqNode::IsObjectType& type) {
    return GetParentNodeOfType(const_cast<RqNode*>(node), type);
}

RqNode* RqNodeUtility::GetRoot(RqNode* node) {
    if (node == nullptr)
        return nullptr;
    while (node->GetParent() != nullptr)
        node = node->GetParent();
    return node;
}

bool RqNodeUtility::IsAncestorOrSelf(const RqNode* ancestor, const RqNode* node) {
    if (ancestor == nullptr)
        return false;
    for (const RqNode* up = node; up != nullptr; up = up->GetParent()) {
        if (up == ancestor)
            return true;
    }
    return false;
}

void RqNodeUtility::GetChildRqLists(RqNode* node, RqAbstractListVector& out) {
    if (node == nullptr)
        return;
    const RqNode::IsObjectType isList(kRqAbstractList);
    for (int i = 0; i < node->GetNumChildren(); ++i) {
        FindTableNodes<RqAbstractList>(node->GetIthChild(i), isList, out);
    }
}

RqAbstractList* RqNodeUtility::GetChildRqList(RqNode* node) {
    RqAbstractListVector lists;
    GetChildRqLists(node, lists);
    return lists.empty() ? nullptr : lists.front();
}

ZKString RqNodeUtility::GetPath(const RqNode* node) {
    if (node == nullptr)
        return L"<null>";
    std::vector<const RqNode*> chain;
    for (const RqNode* up = node; up != nullptr; up = up->GetParent())
        chain.push_back(up);
    ZKString path = KindName(chain.back()->GetObjectType());
    for (auto it = chain.rbegin() + 1; it != chain.rend(); ++it) {
        path +=
            L"/" + KindName((*it)->GetObjectType()) + L"[" + Num((*it)->GetIndexInParent()) + L"]";
    }
    return path;
}

ZKString RqNodeUtility::GetKindName(const RqNode* node) {
    return node == nullptr ? ZKString(L"<null>") : KindName(node->GetObjectType());
}

ZKString RqNodeUtility::GetFieldsText(const RqNode* node, ARpGateway* rp) {
    ZKString fields;
    if (node == nullptr || node->IsExpr())
        return fields;
    if (const auto* list = dynamic_cast<const RqAbstractList*>(node)) {
        AddListFields(*list, fields);
        return fields;
    }
    if (const auto* table = dynamic_cast<const RqAbstractTable*>(node)) {
        AddTableFields(*table, rp, fields);
        return fields;
    }
    if (const ZKString* name = GenericNodeName(node)) {
        if (!name->empty())
            AddWord(fields, L"name=" + OneLine(*name));
        return fields;
    }
    switch (node->GetObjectType()) {
        case kRqProjection:
            AddWord(fields,
                    L"next=#" + Num(static_cast<const RqProjection*>(node)->PeekNextColumnNum()));
            break;
        case kRqDerivedColumn: {
            const auto* column = static_cast<const RqDerivedColumn*>(node);
            AddWord(fields, ColumnNumText(column->GetColumnNum()));
            const int status = column->GetBreakStatus();
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
            if (const int refs = column->GetNumReferences(); refs > 0)
                AddWord(fields, L"refs=" + Num(refs));
            break;
        }
        case kRqGroupBy: {
            const auto mode = static_cast<const RqGroupBy*>(node)->GetInternalExecutionMode();
            if (mode == RqGroupBy::kHash)
                AddWord(fields, L"mode=HASH");
            if (mode == RqGroupBy::kSort)
                AddWord(fields, L"mode=SORT");
            break;
        }
        case kRqOrderBy: {
            const auto* orderBy = static_cast<const RqOrderBy*>(node);
            if (orderBy->IsSticky())
                AddWord(fields, L"sticky");
            if (!orderBy->GetStickyTypes().empty())
                AddWord(fields, L"types=" + TextList(orderBy->GetStickyTypes()));
            break;
        }
        case kRqSortSpec:
            AddWord(fields, SortSpecText(*static_cast<const RqSortSpec*>(node)));
            break;
        case kRqTableReference: {
            const auto* ref = static_cast<const RqTableReference*>(node);
            AddWord(fields, JoinTypeName(ref->GetJoinType()));
            if (ref->GetDrivingTableHint() == RqTableReference::kDriving_LeftTable)
                AddWord(fields, L"driving=left");
            if (ref->GetDrivingTableHint() == RqTableReference::kDriving_RightTable)
                AddWord(fields, L"driving=right");
            if (!ref->GetLeftJoinColumnIndexes().empty())
                AddWord(fields, L"leftcols=" + IndexList(ref->GetLeftJoinColumnIndexes()));
            if (!ref->GetRightJoinColumnIndexes().empty())
                AddWord(fields, L"rightcols=" + IndexList(ref->GetRightJoinColumnIndexes()));
            break;
        }
        case kRqJoinNode:
            if (static_cast<const RqJoinNode*>(node)->IsPreserved())
                AddWord(fields, L"preserved");
            break;
        case kRqJoinLink: {
            const auto* link = static_cast<const RqJoinLink*>(node);
            AddWord(fields, L"from=" + NodeRef(link->GetFrom()));
            AddWord(fields, L"to=" + NodeRef(link->GetTo()));
            break;
        }
        case kRqEntity: {
            const auto* entity = static_cast<const RqEntity*>(node);
            if (!entity->GetName().empty())
                AddWord(fields, L"name=" + OneLine(entity->GetName()));
            if (!entity->GetID().IsNullID())
                AddWord(fields, L"id=" + entity->GetID().ToString());
            break;
        }
        case kRqCache:
        case kRqXSACache: {
            const auto* cache = static_cast<const RqCache*>(node);
            LogicalPlanBytes plan;
            cache->GetLogicalPlan(plan);
            if (!plan.empty()) {
                const LogicalPlanEntry entry = cache->GetLogicalPlanEntry();
                AddWord(fields, L"plan=(limit=" + Num(entry.m_rowLimit) + L" offset=" +
                                    Num(entry.m_rowOffset) + L" flags=" + Num(entry.m_flags) +
                                    L")");
            }
            break;
        }
        default:
            break;
    }
    return fields;
}

// ---- Expressions ----------------------------------------------------------------------------

const RqExpr* SubExprFinder::FindEquivalentSubExpr(const RqExpr* root, const RqExpr& pattern) {
    if (root == nullptr)
        return nullptr;
    const RqEquivalence equivalent;
    std::vector<const RqExpr*> work{root};
    while (!work.empty()) {
        const RqExpr* expr = work.back();
        work.pop_back();
        if (equivalent(*expr, pattern))
            return expr;
        for (int i = expr->GetNumOperands() - 1; i >= 0; --i) {
            if (const RqExpr* operand = expr->GetIthOperand(i))
                work.push_back(operand);
        }
    }
    return nullptr;
}

RqExpr* SubExprFinder::FindEquivalentSubExpr(RqExpr* root, const RqExpr& pattern) {
    return const_cast<RqExpr*>(FindEquivalentSubExpr(static_cast<const RqExpr*>(root), pattern));
}

void RqExprUtility::GetAllDerivedColumnReferences(const RqNode* node,
                                                  RqDerivedColumnReferenceVector& out) {
    RqNodeVector found;
    FindNodes(const_cast<RqNode*>(node), RqNode::IsObjectType(kRqDerivedColumnReference), found);
    for (RqNode* ref : found)
        out.push_back(static_cast<RqDerivedColumnReference*>(ref));
}

// ---- Text -----------------------------------------------------------------------------------

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
    if (node->GetObjectType() == kRqOrderBy) {
        // The keys are children of their own; a one-line text of the clause needs them.
        const auto* orderBy = static_cast<const RqOrderBy*>(node);
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
