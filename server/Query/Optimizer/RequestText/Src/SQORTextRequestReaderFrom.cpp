// Reads the from clause: join nodes, written out or as the reference or table they hold,
// joins (table references) with their sides and condition, links, and tables.

#include "SQORTextRequestReader.h"

namespace rqtext {

Owned RequestReader::ParseFrom() {
    Owned spec(MakeBlankNode(kRqJoinSpec));
    Annotate(spec.Get(), ParseAnnotation());
    std::vector<PendingLink> links;
    if (m_lex.AcceptPunct("{")) {
        while (!m_lex.AcceptPunct("}")) {
            Level level(*this);
            ParseFromItem(*spec, links);
        }
    }
    // Links name join nodes by position, which may come after them.
    for (const PendingLink& pending : links) {
        auto* link =
            RQ_NEW RqJoinLink(LinkEnd(*spec, pending.m_from), LinkEnd(*spec, pending.m_to));
        spec->SetIthChild(pending.m_slot, link);
        Annotate(link, pending.m_annotation);
    }
    return spec;
}

void RequestReader::ParseFromItem(RqNode& spec, std::vector<PendingLink>& links) {
    const RqToken at = m_lex.Peek();
    RqNodeType_e kind = kRqInvalid;
    if (m_lex.AcceptWord("none")) {
        spec.AddChild(nullptr);
    } else if (m_lex.AcceptWord("link")) {
        PendingLink link{spec.GetNumChildren(), m_lex.Peek(), RqToken(), {}};
        ExpectLinkEnd();
        m_lex.ExpectPunct("->");
        link.m_to = m_lex.Peek();
        ExpectLinkEnd();
        link.m_annotation = ParseAnnotation();
        links.push_back(link);
        spec.AddChild(nullptr);  // the link is made once every node is known
    } else if (m_lex.AcceptWord("node")) {
        Owned node = ParseJoinNode();
        spec.AddChild(node.Release());
    } else if (m_lex.AcceptWord("join")) {
        bool preserved = false;
        Owned reference = ParseTableReference(&preserved);
        Owned node(RQ_NEW RqJoinNode(nullptr, preserved));
        node->SetIthChild(0, reference.Release());
        spec.AddChild(node.Release());
    } else if (at.Is(RqTokenKind::kIdentifier) && NodeWordKind(at.m_text, kind) &&
               NodeFormOf(kind) == NodeForm::kTable) {
        // A table alone: a join node over a reference that joins nothing.
        Owned table = ParseNode(kind);
        Owned reference(RQ_NEW RqTableReference());
        reference->SetIthChild(RqTableReference::kLeftChild, table.Release());
        Owned node(RQ_NEW RqJoinNode(nullptr, false));
        node->SetIthChild(0, reference.Release());
        spec.AddChild(node.Release());
    } else {
        m_lex.Expected("a table, join, node, link or '}'");
    }
}

void RequestReader::ExpectLinkEnd() {
    if (!m_lex.AcceptWord("none") && !m_lex.Peek().Is(RqTokenKind::kInteger))
        m_lex.Expected("a join node position or none");
    if (m_lex.Peek().Is(RqTokenKind::kInteger))
        m_lex.Next();
}

RqJoinNode* RequestReader::LinkEnd(const RqNode& spec, const RqToken& at) const {
    if (!at.Is(RqTokenKind::kInteger))
        return nullptr;
    RqNode* node = at.m_int >= 0 && at.m_int < spec.GetNumChildren()
                       ? spec.GetIthChild(static_cast<int>(at.m_int))
                       : nullptr;
    auto* joinNode = RqDynCast<RqJoinNode>(node);
    if (joinNode == nullptr)
        Fail(at, "a link names join nodes by their position in the from clause; " +
                     std::to_string(at.m_int) + " is not one");
    return joinNode;
}

Owned RequestReader::ParseJoinNode() {
    const bool preserved = m_lex.AcceptWord("preserved");
    Owned node(RQ_NEW RqJoinNode(nullptr, preserved));
    node->SetNumChildren(0);
    Annotate(node.Get(), ParseAnnotation());
    ParseChildren(*node, false);
    return node;
}

// `join type {field} [annotation] { left [right] [on condition] }`. `preserved` is the flag
// of the join node that a reference in a from clause stands for.
Owned RequestReader::ParseTableReference(bool* preserved) {
    const auto type = static_cast<SqlTableRef::JoinType>(ExpectEnum(kJoinTypeWords, "a join type"));
    Heap<RqTableReference> reference(RQ_NEW RqTableReference(type));
    while (true) {
        const RqToken at = m_lex.Peek();
        if (AcceptKey("driving")) {
            reference->SetDrivingTableHint(static_cast<RqTableReference::DrivingTableHint>(
                ExpectEnum(kDrivingWords, "a driving table")));
        } else if (AcceptKey("lcols")) {
            reference->SetLeftJoinColumnIndexes(ParseIndexList());
        } else if (AcceptKey("rcols")) {
            reference->SetRightJoinColumnIndexes(ParseIndexList());
        } else if (at.IsWord("preserved")) {
            if (preserved == nullptr)
                Fail(at, "'preserved' marks a join of a from clause");
            m_lex.Next();
            *preserved = true;
        } else {
            break;
        }
    }
    Annotate(reference.Get(), ParseAnnotation());
    ParseJoinBody(*reference);
    return Owned(reference.Release());
}

// `{ left [right] [on condition] }`: a side is a table, a nested join or none.
void RequestReader::ParseJoinBody(RqTableReference& reference) {
    if (!m_lex.AcceptPunct("{"))
        return;
    int sides = 0;
    while (!m_lex.AcceptPunct("}")) {
        const RqToken at = m_lex.Peek();
        if (m_lex.AcceptWord("on")) {
            if (reference.GetIthChild(RqTableReference::kCondChild) != nullptr)
                Fail(at, "a join has one 'on' condition");
            Owned cond = ParseItemOf(kRqExprCond, "a condition");
            reference.SetIthChild(RqTableReference::kCondChild, cond.Release());
            continue;
        }
        RqNodeType_e kind = kRqInvalid;
        const bool isSide = at.IsWord("none") || at.IsWord("join") ||
                            (at.Is(RqTokenKind::kIdentifier) && NodeWordKind(at.m_text, kind) &&
                             NodeFormOf(kind) == NodeForm::kTable);
        if (!isSide)
            m_lex.Expected("a table, join, on or '}'");
        if (sides == 2)
            Fail(at, "a join has two sides");
        Owned side = ParseItem();
        reference.SetIthChild(sides++, side.Release());
    }
}

// `table ID tN`, `external "name" tN`, `derived tN { list }`, with the fields of the kind.
Owned RequestReader::ParseTable(RqNodeType_e kind) {
    Owned table(MakeBlankNode(kind));
    if (auto* identified = RqDynCast<RqIdentifiedTable>(table.Get()))
        identified->SetTableID(ParseTableID());
    else if (RqIsKindOf(kind, kRqExternalTable))
        table.Reset(RQ_NEW RqExternalTable(
            ZKString::FromUtf8(m_lex.ExpectString("the external table's name"))));
    RqCast<RqAbstractTable>(table.Get())->SetTableNum(ParseTableNum());
    while (PeekKey()) {
        const RqToken at = m_lex.Next();
        m_lex.Next();
        auto* transient = RqDynCast<RqTransientOpaqueTable>(table.Get());
        auto* derived = RqDynCast<RqDerivedTable>(table.Get());
        if (at.m_text == "types" && transient != nullptr)
            transient->AddColumnTypeInfos(ParseStringList());
        else if (at.m_text == "nesting" && derived != nullptr)
            derived->SetNestingLevel(ExpectInt("a nesting level"));
        else
            Fail(at, "'" + std::string(FormWord(kind)) + "' has no field '" + at.m_text + "'");
    }
    if (const auto* identified = RqDynCast<RqIdentifiedTable>(table.Get()))
        NoteTableNum(*identified);
    Annotate(table.Get(), ParseAnnotation());
    ParseChildren(*table, table->IsKindOf(kRqDerivedTable));
    return table;
}

}  // namespace rqtext
