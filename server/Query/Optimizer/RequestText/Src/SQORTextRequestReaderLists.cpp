// Reads lists and their clauses: blocks, set operations, break filters, cache and shared
// lists; select, where, summary, having, groupby and orderby.

#include <algorithm>
#include <string>

#include "SQORTextRequestReader.h"

namespace rqtext {

Owned RequestReader::ParseList(RqNodeType_e kind) {
    Owned owned(MakeBlankNode(kind));
    auto* list = RqCast<RqAbstractList>(owned.Get());
    if (auto* shared = RqDynCast<RqSharedList>(list))
        ParseSharedTarget(*shared);
    ParseListHead(*list);
    Annotate(list, ParseAnnotation());
    if (auto* block = RqDynCast<RqList>(list))
        ParseListBody(*block);
    else
        ParseChildren(*list, !list->IsKindOf(kRqSharedList));
    return owned;
}

// `shared @label`, `$anchor`, `none` or `outside`: the list a shared list reads.
void RequestReader::ParseSharedTarget(RqSharedList& list) {
    const RqToken at = m_lex.Peek();
    if (at.Is(RqTokenKind::kLabel) || at.Is(RqTokenKind::kAnchor)) {
        m_lex.Next();
        m_pendingShared.push_back({&list, at});
    } else if (!m_lex.AcceptWord("none") && !m_lex.AcceptWord("outside")) {
        m_lex.Expected("the shared list (@label, $anchor or none)");
    }
}

// Label, anchor, flags and fields in any order. A list without a body is followed directly
// by the next item, so the head stops where that item begins: a reference (`@x.0`, `$1.0`)
// or a shared list (`shared @x`, `shared none`), which the `shared` flag is never followed by.
void RequestReader::ParseListHead(RqAbstractList& list) {
    while (true) {
        const RqToken at = m_lex.Peek();
        const RqToken& after = m_lex.Peek(1);
        const bool startsItem =
            ((at.Is(RqTokenKind::kLabel) || at.Is(RqTokenKind::kAnchor)) && after.IsPunct(".")) ||
            (at.IsWord("shared") &&
             (after.Is(RqTokenKind::kLabel) || after.Is(RqTokenKind::kAnchor) ||
              after.IsWord("none") || after.IsWord("outside")));
        if (startsItem)
            return;
        if (at.Is(RqTokenKind::kLabel)) {
            m_lex.Next();
            RegisterLabel(&list, at);
        } else if (at.Is(RqTokenKind::kAnchor)) {
            m_lex.Next();
            RegisterAnchor(&list, at);
        } else if (PeekKey()) {
            m_lex.Next();
            m_lex.Next();
            if (!ParseListField(list, at))
                Fail(at, "'" + std::string(FormWord(list.GetObjectType())) + "' has no field '" +
                             at.m_text + "'");
        } else if (at.Is(RqTokenKind::kIdentifier) && SetListFlag(list, at.m_text)) {
            m_lex.Next();
        } else {
            return;
        }
    }
}

// Sets the flag `word` of the list's head; false for a word that is not one of its flags.
bool RequestReader::SetListFlag(RqAbstractList& list, const std::string& word) {
    auto* block = RqDynCast<RqList>(&list);
    if (word == "shared")
        list.SetShared(true);
    else if (word == "with")
        list.SetWithSupported(true);
    else if (word == "distinct" && block != nullptr)
        block->SetDistinct(true);
    else if (word == "artifact" && block != nullptr)
        block->SetArtifactListNode(true);
    else
        return word == "all" && SetAllFlag(list, true);
    return true;
}

// A `key=value` of a list head whose key has been read; false for a key it does not have.
bool RequestReader::ParseListField(RqAbstractList& list, const RqToken& at) {
    if (at.m_text == "limit") {
        list.SetRowLimit(ExpectCount("a row limit"));
    } else if (at.m_text == "offset") {
        list.SetRowOffset(ExpectCount("a row offset"));
    } else if (auto* filter = RqDynCast<RqBreakFilter>(&list); filter && at.m_text == "cols") {
        filter->SetBreakColumnIndexes(ParseIndexList());
    } else if (auto* cached = RqDynCast<RqCacheList>(&list); cached && at.m_text == "marker") {
        cached->SetMarker(ZKString::FromUtf8(m_lex.ExpectString("a marker")));
    } else {
        return false;
    }
    return true;
}

void RequestReader::ParseListBody(RqList& list) {
    list.SetNumChildren(RqList::kNumClauses);
    if (!m_lex.AcceptPunct("{"))
        return;
    while (!m_lex.AcceptPunct("}")) {
        const RqToken at = m_lex.Peek();
        RqNodeType_e kind = kRqInvalid;
        int slot = -1;
        if (at.Is(RqTokenKind::kIdentifier) && NodeWordKind(at.m_text, kind))
            slot = ClauseSlot(kind);
        if (slot < 0)
            m_lex.Expected(
                "a clause (select, from, where, groupby, summary, having, orderby) or '}'");
        if (list.GetIthChild(slot) != nullptr)
            Fail(at, "a list has one '" + at.m_text + "' clause");
        Level level(*this);
        m_lex.Next();
        Owned clause = ParseClause(kind, list);
        list.SetIthChild(slot, clause.Release());
    }
}

Owned RequestReader::ParseClause(RqNodeType_e kind, RqList& owner) {
    switch (NodeFormOf(kind)) {
        case NodeForm::kSelect:
            return ParseSelect(&owner);
        case NodeForm::kFrom:
            return ParseFrom();
        case NodeForm::kGroupBy:
            return ParseGroupBy();
        case NodeForm::kOrderBy:
            return ParseOrderBy();
        case NodeForm::kFilter:
            return ParseFilter(kind);
        case NodeForm::kGeneric:
        case NodeForm::kRequest:
        case NodeForm::kList:
        case NodeForm::kColumn:
        case NodeForm::kSortKey:
        case NodeForm::kJoinNode:
        case NodeForm::kJoin:
        case NodeForm::kLink:
        case NodeForm::kTable:
        case NodeForm::kEntity:
        case NodeForm::kCache:
            break;
    }
    // Only the kinds that have a clause slot in a list come here.
    ZK_LOGIC_ERROR(L"a clause kind without a form of a clause");
}

Owned RequestReader::ParseSelect(RqList* owner) {
    bool hasNext = false;
    int next = 0;
    if (AcceptKey("next")) {
        next = ExpectInt("a column number");
        hasNext = true;
    }
    Heap<RqProjection> projection(RQ_NEW RqProjection(next));
    Annotate(projection.Get(), ParseAnnotation());
    std::unordered_map<int, RqDerivedColumn*> columns;
    int highest = -1;
    if (m_lex.AcceptPunct("{")) {
        while (!m_lex.AcceptPunct("}")) {
            const RqToken at = m_lex.Peek();
            if (m_lex.AcceptWord("none")) {
                projection->AddChild(nullptr);
                continue;
            }
            if (!at.Is(RqTokenKind::kInteger))
                m_lex.Expected("a column (number: expression) or '}'");
            Owned column = ParseColumn();
            auto* derived = RqCast<RqDerivedColumn>(column.Get());
            if (!columns.emplace(derived->GetColumnNum(), derived).second)
                Fail(at, "duplicate column number " + std::to_string(derived->GetColumnNum()) +
                             " in a select list");
            highest = std::max(highest, derived->GetColumnNum());
            projection->AddChild(column.Release());
        }
    }
    // Without `next=` the generator stands after the highest column number (when there is
    // a number after it: the writer gives a column numbered INT_MAX a `next=`).
    if (!hasNext && highest >= 0 && highest < std::numeric_limits<int>::max())
        projection->ReSyncColumnNumGenerator(highest);
    if (owner != nullptr)
        m_columns[owner] = std::move(columns);
    return Owned(projection.Release());
}

// `number {status} [annotation]: expression` (after the `column` keyword when alone).
Owned RequestReader::ParseColumn() {
    const int num = ExpectInt("a column number");
    Heap<RqDerivedColumn> column(RQ_NEW RqDerivedColumn(nullptr, num));
    int status = 0;
    while (true) {
        const RqToken at = m_lex.Peek();
        int bit = 0;
        if (at.Is(RqTokenKind::kIdentifier) && ValueOf(kBreakStatusWords, 3, at.m_text, bit)) {
            m_lex.Next();
            status |= bit;
        } else if (AcceptKey("break")) {
            status |= ExpectInt("a break status");
        } else {
            break;
        }
    }
    column->SetBreakStatus(status);
    Annotate(column.Get(), ParseAnnotation());
    m_lex.ExpectPunct(":");
    Owned expr = ParseExprItem();
    column->SetIthChild(0, expr.Release());
    return Owned(column.Release());
}

Owned RequestReader::ParseFilter(RqNodeType_e kind) {
    Owned filter(MakeBlankNode(kind));
    Annotate(filter.Get(), ParseAnnotation());
    Owned cond = ParseItemOf(kRqExprCond, "a condition");
    filter->AddChild(cond.Release());
    return filter;
}

// `groupby [mode=] [annotation] columns [sets (...)] [granularity columns]`.
Owned RequestReader::ParseGroupBy() {
    Heap<RqGroupBy> groupBy(RQ_NEW RqGroupBy());
    groupBy->SetNumChildren(0);
    if (AcceptKey("mode"))
        groupBy->SetInternalExecutionMode(static_cast<RqGroupBy::InternalExecutionMode>(
            ExpectEnum(kGroupByModeWords, "an execution mode")));
    Annotate(groupBy.Get(), ParseAnnotation());
    Owned columns = ParseExprItem(kRqExprColumnListOrdered);
    groupBy->AddChild(columns.Release());
    groupBy->AddChild(nullptr);
    if (m_lex.AcceptWord("sets"))
        ParseGroupingSets(*groupBy);
    if (m_lex.AcceptWord("granularity")) {
        Owned granularity = ParseExprItem(kRqExprColumnListOrdered);
        groupBy->SetIthChild(1, granularity.Release());
    }
    return Owned(groupBy.Release());
}

// `((0, 1), (0), ())`: each set names columns of the GROUP BY by their positions in its
// column list, each position once.
void RequestReader::ParseGroupingSets(RqGroupBy& groupBy) {
    const int columns = groupBy.GetNumColumns();
    m_lex.ExpectPunct("(");
    do {
        UInt16Vector set;
        m_lex.ExpectPunct("(");
        if (!m_lex.AcceptPunct(")")) {
            do {
                const RqToken at = m_lex.Peek();
                const int64_t position = m_lex.ExpectInteger("a column position");
                if (position < 0 || position >= columns)
                    Fail(at, "grouping set position " + std::to_string(position) +
                                 " out of range: the groupby has " + std::to_string(columns) +
                                 (columns == 1 ? " column" : " columns"));
                if (std::find(set.begin(), set.end(), position) != set.end())
                    Fail(at, "position " + std::to_string(position) +
                                 " appears twice in a grouping set");
                set.push_back(static_cast<uint16_t>(position));
            } while (m_lex.AcceptPunct(","));
            m_lex.ExpectPunct(")");
        }
        groupBy.AddGroupingSet(set);
    } while (m_lex.AcceptPunct(","));
    m_lex.ExpectPunct(")");
}

Owned RequestReader::ParseOrderBy() {
    bool sticky = false;
    std::vector<ZKString> types;
    while (true) {
        if (m_lex.AcceptWord("sticky"))
            sticky = true;
        else if (AcceptKey("types"))
            types = ParseStringList();
        else
            break;
    }
    Owned orderBy(RQ_NEW RqOrderBy(SortSpecVector(), types, sticky));
    Annotate(orderBy.Get(), ParseAnnotation());
    if (!m_lex.Peek().Is(RqTokenKind::kInteger) && !PeekWord("none") && !PeekWord("push"))
        return orderBy;
    do {
        Level level(*this);
        if (m_lex.AcceptWord("none")) {
            orderBy->AddChild(nullptr);
        } else if (m_lex.AcceptWord("push")) {
            Owned aggr = ParseExprItem();
            orderBy->AddChild(aggr.Release());
        } else if (m_lex.Peek().Is(RqTokenKind::kInteger)) {
            Owned spec = ParseSortSpec();
            orderBy->AddChild(spec.Release());
        } else {
            m_lex.Expected("a sort key (column number), push or none");
        }
    } while (m_lex.AcceptPunct(","));
    return orderBy;
}

// `number [asc|desc|either] [nulls=first|last] [logical] [nocase] [annotation]`.
Owned RequestReader::ParseSortSpec() {
    const int num = ExpectInt("a column number");
    auto direction = RqSortSpec::kAsc;
    auto nulls = RqSortSpec::kNoCare;
    bool logical = false;
    bool noCase = false;
    while (true) {
        const RqToken at = m_lex.Peek();
        int value = 0;
        if (at.Is(RqTokenKind::kIdentifier) && ValueOf(kDirectionWords, 3, at.m_text, value)) {
            m_lex.Next();
            direction = static_cast<RqSortSpec::SortDirection>(value);
        } else if (AcceptKey("nulls")) {
            nulls = static_cast<RqSortSpec::NullSortDirection>(
                ExpectEnum(kNullOrderWords, "a null order"));
        } else if (m_lex.AcceptWord("logical")) {
            logical = true;
        } else if (m_lex.AcceptWord("nocase")) {
            noCase = true;
        } else {
            break;
        }
    }
    Owned spec(RQ_NEW RqSortSpec(num, direction, logical, noCase, nulls));
    Annotate(spec.Get(), ParseAnnotation());
    return spec;
}

}  // namespace rqtext
