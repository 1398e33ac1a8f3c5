// Reads the request text format (docs/text-format.md): the request, items, the nodes of the
// generic forms and annotations. The parts of the grammar with more to them live in the
// sources that SQORTextRequestReader.h lists.

#include "SQORTextRequestReader.h"

#include "Platform/ZKThread.h"
#include "Query/Optimizer/RequestText/SQORTextSuggest.h"

namespace rqtext {

std::string Describe(const RqNode* node) {
    if (node == nullptr)
        return "none";
    const RqNodeType_e kind = node->GetObjectType();
    const char* keyword = RqIsExprType(kind) ? nullptr : FormWord(kind);
    return "'" + (keyword != nullptr ? std::string(keyword) : KindName(kind)) + "'";
}

RqHandleNode* RequestReader::Run() {
    if (!m_lex.AcceptWord("request"))
        m_lex.Expected("'request'");
    Heap<RqHandleNode> root(RQ_NEW RqHandleNode());
    Annotate(root.Get(), ParseAnnotation());
    ParseChildren(*root, false);
    if (!m_lex.AtEnd())
        m_lex.Expected("end of input");
    ResolveReferences();
    ResolveColumns();
    InheritTargets(*root);
    return root.Release();
}

// ---- Errors, nesting and tokens --------------------------------------------------------------

RequestReader::Level::Level(RequestReader& reader) : m_reader(reader) {
    if (++m_reader.m_depth > kMaxDepth)
        m_reader.Fail(m_reader.m_lex.Peek(),
                      "nesting deeper than " + std::to_string(kMaxDepth) + " levels");
    if (ZKThread::RemainingStack() < kStackReserve)
        m_reader.Fail(m_reader.m_lex.Peek(), "nesting too deep for this thread's stack");
}

bool RequestReader::AcceptKey(std::string_view key) {
    if (!PeekKey() || m_lex.Peek().m_text != key)
        return false;
    m_lex.Next();
    m_lex.Next();
    return true;
}

int64_t RequestReader::ExpectIntIn(std::string_view what, int64_t low, int64_t high) {
    const RqToken at = m_lex.Peek();
    const int64_t value = m_lex.ExpectInteger(what);
    if (value < low || value > high)
        Fail(at, std::string(what) + " out of range: " + std::to_string(value));
    return value;
}

int RequestReader::ExpectEnum(const EnumWord* table, size_t count, std::string_view what) {
    const RqToken at = m_lex.Peek();
    int value = 0;
    if (at.Is(RqTokenKind::kIdentifier) && ValueOf(table, count, at.m_text, value)) {
        m_lex.Next();
        return value;
    }
    // A number is accepted for a value of the table only: the fields are enumerations
    // without a fixed type, which cannot hold other values.
    if (at.Is(RqTokenKind::kInteger)) {
        m_lex.Next();
        if (at.m_int < std::numeric_limits<int>::min() ||
            at.m_int > std::numeric_limits<int>::max() ||
            WordOf(table, count, static_cast<int>(at.m_int)) == nullptr)
            Fail(at, std::string(what) + " out of range: " + at.m_text);
        return static_cast<int>(at.m_int);
    }
    std::string choices;
    for (size_t i = 0; i < count; ++i)
        choices += (i == 0 ? "" : i + 1 == count ? " or " : ", ") + std::string(table[i].m_word);
    m_lex.Expected(std::string(what) + " (" + choices + ")");
}

UInt16Vector RequestReader::ParseIndexList(int64_t limit) {
    UInt16Vector out;
    m_lex.ExpectPunct("(");
    if (!m_lex.AcceptPunct(")")) {
        do {
            out.push_back(static_cast<uint16_t>(ExpectIntIn("a column index", 0, limit)));
        } while (m_lex.AcceptPunct(","));
        m_lex.ExpectPunct(")");
    }
    return out;
}

std::vector<ZKString> RequestReader::ParseStringList() {
    std::vector<ZKString> out;
    m_lex.ExpectPunct("(");
    if (!m_lex.AcceptPunct(")")) {
        do {
            out.push_back(ZKString::FromUtf8(m_lex.ExpectString("a type name")));
        } while (m_lex.AcceptPunct(","));
        m_lex.ExpectPunct(")");
    }
    return out;
}

// ---- Annotations -----------------------------------------------------------------------------

Annotation RequestReader::ParseAnnotation() {
    Annotation annotation;
    if (!m_lex.AcceptPunct("["))
        return annotation;
    while (!m_lex.AcceptPunct("]")) {
        const RqToken key = m_lex.Peek();
        const std::string name = m_lex.ExpectIdentifier("target=, at= or same=");
        m_lex.ExpectPunct("=");
        if (name == "target") {
            const RqToken value = m_lex.Peek();
            if (value.Is(RqTokenKind::kInteger)) {
                annotation.m_type = static_cast<ServerInfo::TargetType>(ExpectInt("a target type"));
            } else {
                const std::string word = m_lex.ExpectIdentifier("a target type");
                if (!ServerInfo::TargetTypeFromName(ZKString::FromUtf8(word).View(),
                                                    annotation.m_type))
                    Fail(value, "unknown target type '" + word + "'" +
                                    DidYouMean(word, TargetTypeNames()));
            }
            annotation.m_bHasType = true;
        } else if (name == "at") {
            annotation.m_id = ParseTargetID();
            annotation.m_bHasID = true;
        } else if (name == "same") {
            annotation.m_same = ExpectIntIn("an identity group", 1, 1000000000);
            annotation.m_bHasSame = true;
        } else {
            Fail(key, "unknown annotation '" + name + "' (expected target, at or same)");
        }
    }
    return annotation;
}

// Records what the annotation says of `node`; the targets are settled at the end.
void RequestReader::Annotate(RqNode* node, const Annotation& annotation) {
    if (annotation.m_bHasType || annotation.m_bHasID)
        m_annotations[node] = annotation;
    if (annotation.m_bHasSame) {
        auto [it, added] = m_sameGroups.emplace(annotation.m_same, NodeID());
        if (added)
            it->second = NodeID::Fresh();
        node->SetNodeID(it->second);
    }
}

// Every node takes its parent's target unless its annotation says otherwise.
void RequestReader::InheritTargets(RqNode& root) {
    struct Item {
        RqNode* m_node;
        ServerInfo::TargetType m_type;
        VoidID m_id;
    };
    std::vector<Item> work{{&root, ServerInfo::kUnknown, VoidID::NullID}};
    while (!work.empty()) {
        Item item = work.back();
        work.pop_back();
        const auto it = m_annotations.find(item.m_node);
        if (it != m_annotations.end()) {
            if (it->second.m_bHasType)
                item.m_type = it->second.m_type;
            if (it->second.m_bHasID)
                item.m_id = it->second.m_id;
        }
        item.m_node->MarkTargetType(item.m_type);
        item.m_node->MarkTargetID(item.m_id);
        for (int i = 0; i < item.m_node->GetNumChildren(); ++i) {
            if (RqNode* child = item.m_node->GetIthChild(i))
                work.push_back(Item{child, item.m_type, item.m_id});
        }
    }
}

// ---- Items -----------------------------------------------------------------------------------

Owned RequestReader::ParseItem(RqNodeType_e tupleKind) {
    Level level(*this);
    const RqToken& at = m_lex.Peek();
    if (at.IsWord("none") && !m_lex.Peek(1).IsPunct("(")) {
        m_lex.Next();
        return Owned();
    }
    RqNodeType_e kind = kRqInvalid;
    if (at.Is(RqTokenKind::kIdentifier) && !m_lex.Peek(1).IsPunct("(") &&
        NodeWordKind(at.m_text, kind))
        return ParseNode(kind);
    return ParseExpr(tupleKind);
}

Owned RequestReader::ParseItemOf(RqNodeType_e kind, const char* what, RqNodeType_e tupleKind) {
    const RqToken& at = m_lex.Peek();
    Owned item = ParseItem(tupleKind);
    if (item && !item->IsKindOf(kind))
        Fail(at, std::string("expected ") + what + ", found " + Describe(item.Get()));
    return item;
}

void RequestReader::ParseChildren(RqNode& node, bool listsOnly) {
    if (!m_lex.AcceptPunct("{"))
        return;
    while (!m_lex.AcceptPunct("}")) {
        if (m_lex.AtEnd())
            m_lex.Expected("'}'");
        Owned child = listsOnly ? ParseItemOf(kRqAbstractList, "a list") : ParseItem();
        node.AddChild(child.Release());
    }
}

Owned RequestReader::ParseNode(RqNodeType_e kind) {
    const RqToken at = m_lex.Next();
    switch (NodeFormOf(kind)) {
        case NodeForm::kGeneric:
            return ParseGenericNode(kind, at);
        case NodeForm::kRequest:
            Fail(at, "'request' only begins the text");
        case NodeForm::kList:
            return ParseList(kind);
        case NodeForm::kColumn:
            return ParseColumn();
        case NodeForm::kSortKey:
            return ParseSortSpec();
        case NodeForm::kJoinNode:
            return ParseJoinNode();
        case NodeForm::kJoin:
            return ParseTableReference(nullptr);
        case NodeForm::kLink:
            Fail(at, "'link' belongs in a from clause");
        case NodeForm::kTable:
            return ParseTable(kind);
        case NodeForm::kEntity:
            return ParseEntity();
        case NodeForm::kCache:
            return ParseCache(kind);
        case NodeForm::kSelect:
        case NodeForm::kFilter:
        case NodeForm::kGroupBy:
        case NodeForm::kOrderBy:
        case NodeForm::kFrom:
            Fail(at, "'" + at.m_text + "' is a clause of a list and cannot stand here");
    }
    Fail(at, "'" + at.m_text + "' cannot stand here");
}

// A node under its kind name, with its name field when its class has one.
Owned RequestReader::ParseGenericNode(RqNodeType_e kind, const RqToken& at) {
    Owned node(MakeBlankNode(kind));
    if (!node)
        Fail(at, "'" + at.m_text + "' is an abstract kind");
    // Only a class with a name field takes the string: for the others it is the next
    // item, an expression.
    if (m_lex.Peek().Is(RqTokenKind::kString) && SetNameField(*node, m_lex.Peek().m_text))
        m_lex.Next();
    Annotate(node.Get(), ParseAnnotation());
    ParseChildren(*node, false);
    return node;
}

Owned RequestReader::ParseEntity() {
    VoidID id;
    ZKString name;
    while (PeekKey()) {
        const RqToken at = m_lex.Next();
        m_lex.Next();
        if (at.m_text == "id")
            id = ExpectRawID();
        else if (at.m_text == "name")
            name = ZKString::FromUtf8(m_lex.ExpectName("a name"));
        else
            Fail(at, "'entity' has no field '" + at.m_text + "'");
    }
    Owned entity(MakeMetadataNode(kRqEntity, id, name));
    Annotate(entity.Get(), ParseAnnotation());
    ParseChildren(*entity, false);
    return entity;
}

Owned RequestReader::ParseCache(RqNodeType_e kind) {
    Owned cache(MakeBlankNode(kind));
    if (AcceptKey("plan")) {
        const RqToken at = m_lex.Peek();
        const std::string hex = m_lex.ExpectString("the plan's bytes in hexadecimal");
        LogicalPlanBytes bytes;
        auto digit = [](char c) {
            return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        };
        for (size_t i = 0; i + 1 < hex.size(); i += 2) {
            const int high = digit(hex[i]);
            const int low = digit(hex[i + 1]);
            if (high < 0 || low < 0)
                break;
            bytes.push_back(static_cast<uint8_t>(high * 16 + low));
        }
        if (bytes.size() * 2 != hex.size())
            Fail(at, "a plan is an even number of hexadecimal digits (0-9, a-f)");
        RqCast<RqCache>(cache.Get())->SetLogicalPlan(bytes);
    }
    Annotate(cache.Get(), ParseAnnotation());
    ParseChildren(*cache, true);
    return cache;
}

}  // namespace rqtext

RqHandleNode* RqTextReader::Read(std::string_view text, const std::string& fileName,
                                 const ARpGateway* rp) {
    return rqtext::RequestReader(text, fileName, rp).Run();
}
