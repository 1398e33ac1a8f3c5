// Reads the request text format (docs/text-format.md) into a request tree.
//
// Recursive descent, one call level per level of nesting (bounded). Every node is owned from
// the moment it is made: by a Heap while its own fields are read, then by its parent, so a
// failure anywhere destroys exactly what was built. What may only be known once the whole
// text is read (the blocks that references and shared lists name, the identifiers of columns
// looked up by name in tables that are declared after them, and the targets that nodes
// inherit) is recorded on the way and settled at the end.

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Platform/Repository.h"
#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/RequestText/SQORTextSuggest.h"
#include "SQORTextRequestInternal.h"

using namespace rqtext;

namespace {

// The repository's tables as a request names them (Database.schema.TABLE), for suggestions.
std::vector<std::string> TableNames(const RpRepository& rp) {
    std::vector<std::string> names;
    for (const RefADatabase& db : rp.GetDatabases()) {
        for (const RefATable& table : db->GetTables()) {
            std::string name = RqTextOut::Name(db->GetName().ToUtf8()) + ".";
            if (!table->GetSchema().empty())
                name += RqTextOut::Name(table->GetSchema().ToUtf8()) + ".";
            names.push_back(name + RqTextOut::Name(table->GetName().ToUtf8()));
        }
    }
    return names;
}

using Owned = Heap<RqNode>;

// What an annotation says of one node.
struct Annotation {
    bool m_bHasType = false;
    bool m_bHasID = false;
    ServerInfo::TargetType m_type = ServerInfo::kUnknown;
    VoidID m_id;
    bool m_bHasSame = false;
    int64_t m_same = 0;
};

bool IsClauseKind(RqNodeType_e kind) {
    switch (kind) {
        case kRqProjection:
        case kRqJoinSpec:
        case kRqDetailFilter:
        case kRqSummaryFilter:
        case kRqGroupBy:
        case kRqHaving:
        case kRqOrderBy:
            return true;
        default:
            return false;
    }
}

int ClauseSlot(RqNodeType_e kind) {
    switch (kind) {
        case kRqProjection:
            return RqList::kProjectionChild;
        case kRqJoinSpec:
            return RqList::kJoinSpecChild;
        case kRqDetailFilter:
            return RqList::kDetailFilterChild;
        case kRqSummaryFilter:
            return RqList::kSummaryFilterChild;
        case kRqGroupBy:
            return RqList::kGroupByChild;
        case kRqHaving:
            return RqList::kHavingChild;
        default:
            return RqList::kOrderByChild;
    }
}

bool IsTableKind(RqNodeType_e kind) {
    return RqIsKindOf(kind, kRqAbstractTable);
}

// How a node is named in messages: its keyword, or its kind name.
std::string Describe(const RqNode* node) {
    if (node == nullptr)
        return "none";
    const char* keyword = NodeKeyword(node->GetObjectType());
    return "'" + (keyword != nullptr ? std::string(keyword) : ExprKindName(node->GetObjectType())) +
           "'";
}

template <size_t N>
bool WordValue(const EnumWord (&table)[N], std::string_view word, int& value) {
    return ValueOf(table, N, word, value);
}

template <size_t N>
std::string WordChoices(const EnumWord (&table)[N]) {
    std::string out;
    for (size_t i = 0; i < N; ++i)
        out += (i == 0 ? "" : i + 1 == N ? " or " : ", ") + std::string(table[i].m_word);
    return out;
}

class Reader {
public:
    Reader(std::string_view text, const std::string& fileName, const ARpGateway* rp)
        : m_lex(text, fileName), m_pRp(rp) {}

    RqHandleNode* Run() {
        if (!m_lex.AcceptWord("request"))
            m_lex.Expected("'request'");
        Heap<RqHandleNode> root(RQ_NEW RqHandleNode());
        Annotate(root.Get(), ParseAnnotation());
        ParseChildren(*root, nullptr);
        if (!m_lex.AtEnd())
            m_lex.Expected("end of input");
        ResolveReferences();
        ResolveColumns();
        InheritTargets(*root);
        return root.Release();
    }

private:
    // ---- Errors and nesting ------------------------------------------------------------

    [[noreturn]] void Fail(const RqToken& at, const std::string& message) const {
        m_lex.Fail(at, message);
    }

    class Level {
    public:
        explicit Level(Reader& reader) : m_reader(reader) {
            if (++m_reader.m_depth > kMaxDepth || ZKThread::RemainingStack() < kStackReserve)
                m_reader.Fail(m_reader.m_lex.Peek(),
                              m_reader.m_depth > kMaxDepth
                                  ? "nesting deeper than " + std::to_string(kMaxDepth) + " levels"
                                  : std::string("nesting too deep for this thread's stack"));
        }
        ~Level() { --m_reader.m_depth; }
        Level(const Level&) = delete;
        Level& operator=(const Level&) = delete;

    private:
        Reader& m_reader;
    };

    bool PeekWord(std::string_view word, int ahead = 0) const {
        return m_lex.Peek(ahead).IsWord(word);
    }
    // An identifier followed by '=': the key of a key=value field.
    bool PeekKey() const {
        return m_lex.Peek().Is(RqTokenKind::kIdentifier) && m_lex.Peek(1).IsPunct("=");
    }

    int64_t ExpectIntIn(std::string_view what, int64_t low, int64_t high) {
        const RqToken at = m_lex.Peek();
        const int64_t value = m_lex.ExpectInteger(what);
        if (value < low || value > high)
            Fail(at, std::string(what) + " out of range: " + std::to_string(value));
        return value;
    }

    int ExpectInt(std::string_view what) {
        return static_cast<int>(
            ExpectIntIn(what, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
    }

    uint32_t ExpectCount(std::string_view what) {
        return static_cast<uint32_t>(ExpectIntIn(what, 0, std::numeric_limits<uint32_t>::max()));
    }

    template <size_t N>
    int ExpectEnum(const EnumWord (&table)[N], std::string_view what) {
        const RqToken at = m_lex.Peek();
        int value = 0;
        if (at.Is(RqTokenKind::kIdentifier) && WordValue(table, at.m_text, value)) {
            m_lex.Next();
            return value;
        }
        // A number is accepted for a value of the table only: the fields are enumerations
        // without a fixed type, which cannot hold other values.
        if (at.Is(RqTokenKind::kInteger)) {
            m_lex.Next();
            if (at.m_int < std::numeric_limits<int>::min() ||
                at.m_int > std::numeric_limits<int>::max() ||
                WordOf(table, N, static_cast<int>(at.m_int)) == nullptr)
                Fail(at, std::string(what) + " out of range: " + at.m_text);
            return static_cast<int>(at.m_int);
        }
        m_lex.Expected(std::string(what) + " (" + WordChoices(table) + ")");
    }

    // `(1, 2)`: projection positions.
    UInt16Vector ParseIndexList() {
        UInt16Vector out;
        m_lex.ExpectPunct("(");
        if (!m_lex.AcceptPunct(")")) {
            do {
                out.push_back(static_cast<uint16_t>(ExpectIntIn("a column index", 0, 65535)));
            } while (m_lex.AcceptPunct(","));
            m_lex.ExpectPunct(")");
        }
        return out;
    }

    std::vector<ZKString> ParseStringList() {
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

    // ---- Identifiers and repository names ----------------------------------------------

    // `3:17`, `-3:17` or `null`.
    bool AcceptRawID(VoidID& id) {
        const RqToken at = m_lex.Peek();
        if (at.IsWord("null")) {
            m_lex.Next();
            id = VoidID::NullID;
            return true;
        }
        std::string text;
        if (at.Is(RqTokenKind::kVoidID)) {
            text = m_lex.Next().m_text;
        } else if (at.Is(RqTokenKind::kInteger) && m_lex.Peek(1).IsPunct(":") &&
                   m_lex.Peek(2).Is(RqTokenKind::kInteger)) {
            text = m_lex.Next().m_text;
            m_lex.Next();
            text += ":" + m_lex.Next().m_text;
        } else {
            return false;
        }
        if (!VoidID::FromString(ZKString::FromUtf8(text).View(), id))
            Fail(at, "bad identifier " + text);
        return true;
    }

    VoidID ExpectRawID() {
        VoidID id;
        if (!AcceptRawID(id))
            m_lex.Expected("an identifier (such as 3:17) or null");
        return id;
    }

    const RpRepository& RepositoryFor(const RqToken& at, const std::string& what) const {
        if (m_pRp == nullptr)
            Fail(at, what + " needs a repository to be resolved");
        return m_pRp->GetRepository();
    }

    // A target identifier: raw, or `Database` / `Database.Pool`.
    VoidID ParseTargetID() {
        VoidID id;
        if (AcceptRawID(id))
            return id;
        const RqToken at = m_lex.Peek();
        const std::string dbName = m_lex.ExpectName("a database name or an identifier");
        std::string poolName;
        const bool hasPool = m_lex.AcceptPunct(".");
        if (hasPool)
            poolName = m_lex.ExpectName("a connection pool name");
        const std::string shown =
            RqTextOut::Name(dbName) + (hasPool ? "." + RqTextOut::Name(poolName) : "");
        const RpRepository& rp = RepositoryFor(at, "database " + shown);
        RefADatabase db = rp.FindDatabaseByName(ZKString::FromUtf8(dbName).View());
        if (!db)
            Fail(at, "unknown database " + RqTextOut::Name(dbName));
        if (!hasPool)
            return db->GetID();
        RefAConnectionPool pool =
            rp.FindConnectionPoolByName(db, ZKString::FromUtf8(poolName).View());
        if (!pool)
            Fail(at, "unknown connection pool " + shown);
        return pool->GetID();
    }

    // A table identifier: raw, or `Database.schema.TABLE` / `Database.TABLE`.
    VoidID ParseTableID() {
        VoidID id;
        if (AcceptRawID(id))
            return id;
        const RqToken at = m_lex.Peek();
        std::vector<std::string> parts{m_lex.ExpectName("a table name or an identifier")};
        while (m_lex.AcceptPunct("."))
            parts.push_back(m_lex.ExpectName("a name"));
        std::string shown;
        for (const std::string& part : parts)
            shown += (shown.empty() ? "" : ".") + RqTextOut::Name(part);
        if (parts.size() < 2 || parts.size() > 3)
            Fail(at, "a table is named Database.schema.TABLE or Database.TABLE, not " + shown);
        const RpRepository& rp = RepositoryFor(at, "table " + shown);
        RefADatabase db = rp.FindDatabaseByName(ZKString::FromUtf8(parts[0]).View());
        RefATable table;
        if (db) {
            const ZKString schema = parts.size() == 3 ? ZKString::FromUtf8(parts[1]) : ZKString();
            table = rp.FindTableByName(db, schema.View(), ZKString::FromUtf8(parts.back()).View());
        }
        if (!table)
            Fail(at, "unknown table " + shown + DidYouMean(shown, TableNames(rp)));
        return table->GetID();
    }

    // `t1`, or `t(-1)` for a number below zero.
    int ParseTableNum() {
        const RqToken at = m_lex.Peek();
        if (at.IsWord("t") && m_lex.Peek(1).IsPunct("(")) {
            m_lex.Next();
            m_lex.Next();
            const int num = ExpectInt("a table number");
            m_lex.ExpectPunct(")");
            return num;
        }
        if (IsTableNumWord(at)) {
            m_lex.Next();
            // Every number up to the largest int prints in this form, so every one reads.
            const std::string digits = at.m_text.substr(1);
            const size_t first = std::min(digits.find_first_not_of('0'), digits.size() - 1);
            if (digits.size() - first > 10 ||
                std::stoll(digits.substr(first)) > std::numeric_limits<int>::max())
                Fail(at, "table number out of range: " + digits);
            return static_cast<int>(std::stoll(digits.substr(first)));
        }
        m_lex.Expected("a table number (t1)");
    }

    static bool IsTableNumWord(const RqToken& token) {
        if (!token.Is(RqTokenKind::kIdentifier) || token.m_text.size() < 2 ||
            token.m_text[0] != 't')
            return false;
        for (size_t i = 1; i < token.m_text.size(); ++i) {
            if (token.m_text[i] < '0' || token.m_text[i] > '9')
                return false;
        }
        return true;
    }

    // ---- Annotations -------------------------------------------------------------------

    Annotation ParseAnnotation() {
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
                    annotation.m_type = static_cast<ServerInfo::TargetType>(
                        ExpectIntIn("a target type", std::numeric_limits<int>::min(),
                                    std::numeric_limits<int>::max()));
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
    void Annotate(RqNode* node, const Annotation& annotation) {
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
    void InheritTargets(RqNode& root) {
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

    // ---- Items -------------------------------------------------------------------------

    // One child: `none`, a node, or an expression (whose bare tuples are `tupleKind`).
    Owned ParseItem(RqNodeType_e tupleKind = kRqExprColumnList) {
        Level level(*this);
        const RqToken& at = m_lex.Peek();
        if (at.IsWord("none") && !m_lex.Peek(1).IsPunct("(")) {
            m_lex.Next();
            return Owned();
        }
        RqNodeType_e kind = kRqInvalid;
        if (at.Is(RqTokenKind::kIdentifier) && !m_lex.Peek(1).IsPunct("(") &&
            NodeWordKind(at.m_text, kind)) {
            if (IsClauseKind(kind))
                FailMisplacedClause(at);
            return ParseNode(kind);
        }
        return ParseExpr(tupleKind);
    }

    [[noreturn]] void FailMisplacedClause(const RqToken& at) const {
        Fail(at, "'" + at.m_text + "' is a clause of a list and cannot stand here");
    }

    // Fails unless `item` (read at `at`) is absent or of `kind`, named `what` in the message.
    void CheckKind(const RqToken& at, const RqNode* item, RqNodeType_e kind,
                   const char* what) const {
        if (item != nullptr && !item->IsKindOf(kind))
            Fail(at, std::string("expected ") + what + ", found " + Describe(item));
    }

    // An item that must be an expression (or none).
    Owned ParseExprItem(RqNodeType_e tupleKind = kRqExprColumnList) {
        const RqToken& at = m_lex.Peek();
        Owned item = ParseItem(tupleKind);
        CheckKind(at, item.Get(), kRqExpr, "an expression");
        return item;
    }

    // An item that must be a condition (or none).
    Owned ParseCondItem() {
        const RqToken& at = m_lex.Peek();
        Owned item = ParseItem();
        CheckKind(at, item.Get(), kRqExprCond, "a condition");
        return item;
    }

    // An item that must be a list (or none).
    Owned ParseListItem() {
        const RqToken& at = m_lex.Peek();
        Owned item = ParseItem();
        CheckKind(at, item.Get(), kRqAbstractList, "a list");
        return item;
    }

    // `{ item ... }` appended to the node's children; no braces, no children. With
    // `bListsOnly`, every child must be a list.
    void ParseChildren(RqNode& node, const char* onlyLists) {
        if (!m_lex.AcceptPunct("{"))
            return;
        while (!m_lex.AcceptPunct("}")) {
            if (m_lex.AtEnd())
                m_lex.Expected("'}'");
            Owned child = onlyLists != nullptr ? ParseListItem() : ParseItem();
            node.AddChild(child.Release());
        }
    }

    Owned ParseNode(RqNodeType_e kind) {
        const RqToken at = m_lex.Next();
        switch (kind) {
            case kRqHandleNode:
                Fail(at, "'request' only begins the text");
            case kRqList:
            case kRqUnion:
            case kRqIntersect:
            case kRqExcept:
            case kRqSharedList:
            case kRqBreakFilter:
            case kRqCacheList:
                return ParseList(kind);
            case kRqDerivedColumn:
                return ParseColumn(nullptr);
            case kRqSortSpec:
                return ParseSortSpec();
            case kRqJoinNode:
                return ParseJoinNode();
            case kRqTableReference:
                return ParseTableReference(nullptr);
            case kRqJoinLink:
                Fail(at, "'link' belongs in a from clause");
            case kRqEntity:
                return ParseEntity();
            case kRqCache:
            case kRqXSACache:
                return ParseCache(kind);
            default:
                break;
        }
        if (IsTableKind(kind))
            return ParseTable(kind);
        return ParseGenericNode(kind, at);
    }

    // ---- Lists -------------------------------------------------------------------------

    void RegisterLabel(RqAbstractList* list, const RqToken& at) {
        if (!list->GetLabel().empty())
            Fail(at, "a list has one label");
        list->SetLabel(ZKString::FromUtf8(at.m_text));
        auto [it, added] = m_labels.emplace(at.m_text, list);
        // Copies of a block keep its label; a label is only wrong where it is used.
        if (!added)
            it->second = nullptr;
    }

    void RegisterAnchor(RqAbstractList* list, const RqToken& at) {
        if (!m_anchors.emplace(at.m_text, list).second)
            Fail(at, "duplicate anchor $" + at.m_text);
    }

    Owned ParseList(RqNodeType_e kind) {
        Owned owned(MakeBlankNode(kind));
        auto* list = static_cast<RqAbstractList*>(owned.Get());
        if (kind == kRqSharedList) {
            const RqToken at = m_lex.Peek();
            if (at.Is(RqTokenKind::kLabel) || at.Is(RqTokenKind::kAnchor)) {
                m_lex.Next();
                m_pendingShared.push_back({static_cast<RqSharedList*>(list), at});
            } else if (!m_lex.AcceptWord("none") && !m_lex.AcceptWord("outside")) {
                m_lex.Expected("the shared list (@label, $anchor or none)");
            }
        }
        // Head: label, anchor, flags and fields in any order, then the annotation. A list
        // without a body is followed directly by the next item, so the head stops where
        // that item begins: a reference (`@x.0`, `$1.0`) or a shared list (`shared @x`,
        // `shared none`), which the `shared` flag is never followed by.
        while (true) {
            const RqToken at = m_lex.Peek();
            const RqToken& after = m_lex.Peek(1);
            const bool startsItem =
                ((at.Is(RqTokenKind::kLabel) || at.Is(RqTokenKind::kAnchor)) &&
                 after.IsPunct(".")) ||
                (at.IsWord("shared") &&
                 (after.Is(RqTokenKind::kLabel) || after.Is(RqTokenKind::kAnchor) ||
                  after.IsWord("none") || after.IsWord("outside")));
            if (startsItem) {
                break;
            } else if (at.Is(RqTokenKind::kLabel)) {
                m_lex.Next();
                RegisterLabel(list, at);
            } else if (at.Is(RqTokenKind::kAnchor)) {
                m_lex.Next();
                RegisterAnchor(list, at);
            } else if (PeekKey()) {
                m_lex.Next();
                m_lex.Next();
                if (at.m_text == "limit")
                    list->SetRowLimit(ExpectCount("a row limit"));
                else if (at.m_text == "offset")
                    list->SetRowOffset(ExpectCount("a row offset"));
                else if (at.m_text == "cols" && kind == kRqBreakFilter)
                    static_cast<RqBreakFilter*>(list)->SetBreakColumnIndexes(ParseIndexList());
                else if (at.m_text == "marker" && kind == kRqCacheList)
                    static_cast<RqCacheList*>(list)->SetMarker(
                        ZKString::FromUtf8(m_lex.ExpectString("a marker")));
                else
                    Fail(at, "'" + std::string(NodeKeyword(kind)) + "' has no field '" + at.m_text +
                                 "'");
            } else if (at.IsWord("shared")) {
                m_lex.Next();
                list->SetShared(true);
            } else if (at.IsWord("with")) {
                m_lex.Next();
                list->SetWithSupported(true);
            } else if (at.IsWord("distinct") && kind == kRqList) {
                m_lex.Next();
                static_cast<RqList*>(list)->SetDistinct(true);
            } else if (at.IsWord("artifact") && kind == kRqList) {
                m_lex.Next();
                static_cast<RqList*>(list)->SetArtifactListNode(true);
            } else if (at.IsWord("all") && list->IsSetOperation()) {
                m_lex.Next();
                SetAll(*list, true);
            } else {
                break;
            }
        }
        Annotate(list, ParseAnnotation());
        if (kind == kRqList)
            ParseListBody(static_cast<RqList&>(*list));
        else if (kind == kRqSharedList)
            ParseChildren(*list, nullptr);
        else
            ParseChildren(*list, "lists");
        return owned;
    }

    static void SetAll(RqAbstractList& list, bool value) {
        switch (list.GetObjectType()) {
            case kRqUnion:
                static_cast<RqUnion&>(list).SetAll(value);
                break;
            case kRqIntersect:
                static_cast<RqIntersect&>(list).SetAll(value);
                break;
            default:
                static_cast<RqExcept&>(list).SetAll(value);
                break;
        }
    }

    void ParseListBody(RqList& list) {
        list.SetNumChildren(RqList::kNumClauses);
        if (!m_lex.AcceptPunct("{"))
            return;
        while (!m_lex.AcceptPunct("}")) {
            const RqToken at = m_lex.Peek();
            RqNodeType_e kind = kRqInvalid;
            if (!at.Is(RqTokenKind::kIdentifier) || !NodeWordKind(at.m_text, kind) ||
                !IsClauseKind(kind))
                m_lex.Expected(
                    "a clause (select, from, where, groupby, summary, having, orderby) "
                    "or '}'");
            const int slot = ClauseSlot(kind);
            if (list.GetIthChild(slot) != nullptr)
                Fail(at, "a list has one '" + at.m_text + "' clause");
            Level level(*this);
            m_lex.Next();
            Owned clause;
            switch (kind) {
                case kRqProjection:
                    clause = ParseSelect(&list);
                    break;
                case kRqJoinSpec:
                    clause = ParseFrom();
                    break;
                case kRqGroupBy:
                    clause = ParseGroupBy();
                    break;
                case kRqOrderBy:
                    clause = ParseOrderBy();
                    break;
                default:
                    clause = ParseFilter(kind);
                    break;
            }
            list.SetIthChild(slot, clause.Release());
        }
    }

    // ---- Clauses -----------------------------------------------------------------------

    Owned ParseSelect(RqList* owner) {
        bool hasNext = false;
        int next = 0;
        if (PeekWord("next") && m_lex.Peek(1).IsPunct("=")) {
            m_lex.Next();
            m_lex.Next();
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
                Heap<RqNode> column = ParseColumn(nullptr);
                auto* derived = static_cast<RqDerivedColumn*>(column.Get());
                if (!columns.emplace(derived->GetColumnNum(), derived).second)
                    Fail(at, "duplicate column number " + std::to_string(derived->GetColumnNum()) +
                                 " in a select list");
                if (derived->GetColumnNum() > highest)
                    highest = derived->GetColumnNum();
                projection->AddChild(column.Release());
            }
        }
        // Without `next=` the generator stands after the highest column number (when there
        // is a number after it: the writer gives a column numbered INT_MAX a `next=`).
        if (!hasNext && highest >= 0 && highest < std::numeric_limits<int>::max())
            projection->ReSyncColumnNumGenerator(highest);
        if (owner != nullptr)
            m_columns[owner] = std::move(columns);
        return Owned(projection.Release());
    }

    // `number {status} [annotation]: expression` (after the `column` keyword when alone).
    Owned ParseColumn(RqList*) {
        const int num = ExpectInt("a column number");
        Heap<RqDerivedColumn> column(RQ_NEW RqDerivedColumn(nullptr, num));
        int status = 0;
        while (true) {
            const RqToken at = m_lex.Peek();
            int bit = 0;
            if (at.Is(RqTokenKind::kIdentifier) && WordValue(kBreakStatusWords, at.m_text, bit)) {
                m_lex.Next();
                status |= bit;
            } else if (at.IsWord("break") && m_lex.Peek(1).IsPunct("=")) {
                m_lex.Next();
                m_lex.Next();
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

    Owned ParseFilter(RqNodeType_e kind) {
        Owned filter(MakeBlankNode(kind));
        Annotate(filter.Get(), ParseAnnotation());
        Owned cond = ParseCondItem();
        filter->AddChild(cond.Release());
        return filter;
    }

    Owned ParseGroupBy() {
        Owned groupBy(MakeBlankNode(kRqGroupBy));
        if (PeekWord("mode") && m_lex.Peek(1).IsPunct("=")) {
            m_lex.Next();
            m_lex.Next();
            static_cast<RqGroupBy&>(*groupBy).SetInternalExecutionMode(
                static_cast<RqGroupBy::InternalExecutionMode>(
                    ExpectEnum(kGroupByModeWords, "an execution mode")));
        }
        Annotate(groupBy.Get(), ParseAnnotation());
        Owned columns = ParseExprItem(kRqExprColumnListOrdered);
        groupBy->AddChild(columns.Release());
        Owned granularity;
        if (m_lex.AcceptWord("granularity"))
            granularity = ParseExprItem(kRqExprColumnListOrdered);
        groupBy->AddChild(granularity.Release());
        return groupBy;
    }

    Owned ParseOrderBy() {
        bool sticky = false;
        std::vector<ZKString> types;
        while (true) {
            if (m_lex.AcceptWord("sticky")) {
                sticky = true;
            } else if (PeekWord("types") && m_lex.Peek(1).IsPunct("=")) {
                m_lex.Next();
                m_lex.Next();
                types = ParseStringList();
            } else {
                break;
            }
        }
        Owned orderBy(RQ_NEW RqOrderBy(SortSpecVector(), types, sticky));
        Annotate(orderBy.Get(), ParseAnnotation());
        auto startsEntry = [&]() {
            return m_lex.Peek().Is(RqTokenKind::kInteger) || PeekWord("none") || PeekWord("push");
        };
        if (!startsEntry())
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
    Owned ParseSortSpec() {
        const int num = ExpectInt("a column number");
        auto direction = RqSortSpec::kAsc;
        auto nulls = RqSortSpec::kNoCare;
        bool logical = false;
        bool noCase = false;
        while (true) {
            const RqToken at = m_lex.Peek();
            int value = 0;
            if (at.Is(RqTokenKind::kIdentifier) && WordValue(kDirectionWords, at.m_text, value)) {
                m_lex.Next();
                direction = static_cast<RqSortSpec::SortDirection>(value);
            } else if (at.IsWord("nulls") && m_lex.Peek(1).IsPunct("=")) {
                m_lex.Next();
                m_lex.Next();
                nulls = static_cast<RqSortSpec::NullSortDirection>(
                    ExpectEnum(kNullOrderWords, "a null order"));
            } else if (at.IsWord("logical")) {
                m_lex.Next();
                logical = true;
            } else if (at.IsWord("nocase")) {
                m_lex.Next();
                noCase = true;
            } else {
                break;
            }
        }
        Owned spec(RQ_NEW RqSortSpec(num, direction, logical, noCase, nulls));
        Annotate(spec.Get(), ParseAnnotation());
        return spec;
    }

    // ---- The from clause ---------------------------------------------------------------

    Owned ParseFrom() {
        Owned spec(MakeBlankNode(kRqJoinSpec));
        Annotate(spec.Get(), ParseAnnotation());
        struct PendingLink {
            int m_slot;
            RqToken m_from;
            RqToken m_to;
            Annotation m_annotation;
        };
        std::vector<PendingLink> links;
        if (m_lex.AcceptPunct("{")) {
            while (!m_lex.AcceptPunct("}")) {
                Level level(*this);
                const RqToken at = m_lex.Peek();
                RqNodeType_e kind = kRqInvalid;
                if (at.IsWord("none")) {
                    m_lex.Next();
                    spec->AddChild(nullptr);
                } else if (at.IsWord("link")) {
                    m_lex.Next();
                    PendingLink link{spec->GetNumChildren(), m_lex.Peek(), RqToken(), {}};
                    ExpectLinkEnd();
                    m_lex.ExpectPunct("->");
                    link.m_to = m_lex.Peek();
                    ExpectLinkEnd();
                    link.m_annotation = ParseAnnotation();
                    links.push_back(link);
                    spec->AddChild(nullptr);  // the link is made once every node is known
                } else if (at.IsWord("node")) {
                    m_lex.Next();
                    Owned node = ParseJoinNode();
                    spec->AddChild(node.Release());
                } else if (at.IsWord("join")) {
                    m_lex.Next();
                    bool preserved = false;
                    Owned reference = ParseTableReference(&preserved);
                    Owned node(RQ_NEW RqJoinNode(nullptr, preserved));
                    node->SetIthChild(0, reference.Release());
                    spec->AddChild(node.Release());
                } else if (at.Is(RqTokenKind::kIdentifier) && NodeWordKind(at.m_text, kind) &&
                           IsTableKind(kind)) {
                    // A table alone: a join node over a reference that joins nothing.
                    Owned table = ParseNode(kind);
                    Owned reference(RQ_NEW RqTableReference());
                    reference->SetIthChild(RqTableReference::kLeftChild, table.Release());
                    Owned node(RQ_NEW RqJoinNode(nullptr, false));
                    node->SetIthChild(0, reference.Release());
                    spec->AddChild(node.Release());
                } else {
                    m_lex.Expected("a table, join, node, link or '}'");
                }
            }
        }
        for (const PendingLink& pending : links) {
            auto* link =
                RQ_NEW RqJoinLink(LinkEnd(*spec, pending.m_from), LinkEnd(*spec, pending.m_to));
            spec->SetIthChild(pending.m_slot, link);
            Annotate(link, pending.m_annotation);
        }
        return spec;
    }

    void ExpectLinkEnd() {
        if (!m_lex.AcceptWord("none") && !m_lex.Peek().Is(RqTokenKind::kInteger))
            m_lex.Expected("a join node position or none");
        if (m_lex.Peek().Is(RqTokenKind::kInteger))
            m_lex.Next();
    }

    RqJoinNode* LinkEnd(const RqNode& spec, const RqToken& at) const {
        if (!at.Is(RqTokenKind::kInteger))
            return nullptr;
        const RqNode* node = at.m_int >= 0 && at.m_int < spec.GetNumChildren()
                                 ? spec.GetIthChild(static_cast<int>(at.m_int))
                                 : nullptr;
        if (node == nullptr || node->GetObjectType() != kRqJoinNode)
            Fail(at, "a link names join nodes by their position in the from clause; " +
                         std::to_string(at.m_int) + " is not one");
        return const_cast<RqJoinNode*>(static_cast<const RqJoinNode*>(node));
    }

    Owned ParseJoinNode() {
        const bool preserved = m_lex.AcceptWord("preserved");
        Owned node(RQ_NEW RqJoinNode(nullptr, preserved));
        node->SetNumChildren(0);
        Annotate(node.Get(), ParseAnnotation());
        ParseChildren(*node, nullptr);
        return node;
    }

    // `join type {field} [annotation] { left [right] [on condition] }`. `preserved` is the
    // flag of the join node that a reference in a from clause stands for.
    Owned ParseTableReference(bool* preserved) {
        const auto type =
            static_cast<SqlTableRef::JoinType>(ExpectEnum(kJoinTypeWords, "a join type"));
        Heap<RqTableReference> reference(RQ_NEW RqTableReference(type));
        while (true) {
            const RqToken at = m_lex.Peek();
            if (PeekKey() && at.m_text == "driving") {
                m_lex.Next();
                m_lex.Next();
                reference->SetDrivingTableHint(static_cast<RqTableReference::DrivingTableHint>(
                    ExpectEnum(kDrivingWords, "a driving table")));
            } else if (PeekKey() && at.m_text == "lcols") {
                m_lex.Next();
                m_lex.Next();
                reference->SetLeftJoinColumnIndexes(ParseIndexList());
            } else if (PeekKey() && at.m_text == "rcols") {
                m_lex.Next();
                m_lex.Next();
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
        if (m_lex.AcceptPunct("{")) {
            int sides = 0;
            while (!m_lex.AcceptPunct("}")) {
                const RqToken at = m_lex.Peek();
                if (m_lex.AcceptWord("on")) {
                    if (reference->GetIthChild(RqTableReference::kCondChild) != nullptr)
                        Fail(at, "a join has one 'on' condition");
                    Owned cond = ParseCondItem();
                    reference->SetIthChild(RqTableReference::kCondChild, cond.Release());
                    continue;
                }
                RqNodeType_e kind = kRqInvalid;
                const bool isSide = at.IsWord("none") || at.IsWord("join") ||
                                    (at.Is(RqTokenKind::kIdentifier) &&
                                     NodeWordKind(at.m_text, kind) && IsTableKind(kind));
                if (!isSide)
                    m_lex.Expected("a table, join, on or '}'");
                if (sides == 2)
                    Fail(at, "a join has two sides");
                Owned side = ParseItem();
                reference->SetIthChild(sides++, side.Release());
            }
        }
        return Owned(reference.Release());
    }

    Owned ParseTable(RqNodeType_e kind) {
        Owned table(MakeBlankNode(kind));
        if (table->IsKindOf(kRqIdentifiedTable)) {
            static_cast<RqIdentifiedTable&>(*table).SetTableID(ParseTableID());
        } else if (kind == kRqExternalTable) {
            table.Reset(RQ_NEW RqExternalTable(
                ZKString::FromUtf8(m_lex.ExpectString("the external table's name"))));
        }
        auto& abstract = static_cast<RqAbstractTable&>(*table);
        abstract.SetTableNum(ParseTableNum());
        while (PeekKey()) {
            const RqToken at = m_lex.Next();
            m_lex.Next();
            if (at.m_text == "types" && kind == kRqTransientOpaqueTable)
                static_cast<RqTransientOpaqueTable&>(abstract).AddColumnTypeInfos(
                    ParseStringList());
            else if (at.m_text == "nesting" && kind == kRqDerivedTable)
                static_cast<RqDerivedTable&>(abstract).SetNestingLevel(
                    ExpectInt("a nesting level"));
            else
                Fail(at,
                     "'" + std::string(NodeKeyword(kind)) + "' has no field '" + at.m_text + "'");
        }
        if (table->IsKindOf(kRqIdentifiedTable)) {
            const auto& identified = static_cast<const RqIdentifiedTable&>(*table);
            auto [it, added] =
                m_tableNums.emplace(identified.GetTableNum(), identified.GetTableID());
            if (!added && it->second != identified.GetTableID())
                m_ambiguousTableNums.insert(identified.GetTableNum());
        }
        Annotate(table.Get(), ParseAnnotation());
        ParseChildren(*table, kind == kRqDerivedTable ? "lists" : nullptr);
        return table;
    }

    // ---- Other nodes -------------------------------------------------------------------

    Owned ParseEntity() {
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
        Owned entity(RQ_NEW RqEntity(id, name));
        Annotate(entity.Get(), ParseAnnotation());
        ParseChildren(*entity, nullptr);
        return entity;
    }

    Owned ParseCache(RqNodeType_e kind) {
        Owned cache(MakeBlankNode(kind));
        if (PeekKey() && m_lex.Peek().m_text == "plan") {
            m_lex.Next();
            m_lex.Next();
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
            static_cast<RqCache&>(*cache).SetLogicalPlan(bytes);
        }
        Annotate(cache.Get(), ParseAnnotation());
        ParseChildren(*cache, "lists");
        return cache;
    }

    // A node under its kind name, with its name field when its class has one.
    Owned ParseGenericNode(RqNodeType_e kind, const RqToken& at) {
        Owned node(MakeBlankNode(kind));
        if (!node)
            Fail(at, "'" + at.m_text + "' is an abstract kind");
        // Only a class with a name field takes the string: for the others it is the next
        // item, an expression.
        if (m_lex.Peek().Is(RqTokenKind::kString) && SetNodeName(*node, m_lex.Peek().m_text))
            m_lex.Next();
        Annotate(node.Get(), ParseAnnotation());
        ParseChildren(*node, nullptr);
        return node;
    }

    // ---- Expressions -------------------------------------------------------------------

    // What the arguments of a call say, gathered before the call's node is made (some
    // classes take their fields only through their constructors).
    struct CallArgs {
        RqNodeType_e m_kind = kRqInvalid;
        std::vector<Owned> operands;
        Owned byList;
        Owned computeBreak;
        bool hasBy = false;
        bool hasCompute = false;
        RqExprSortDependentAggr::SortKeys sortKeys;
        bool hasSort = false;
        int aggrFlags = 0;
        bool sorted = false;
        VoidID id;
        ZKString name;
        ZKString typeName;
        ZKString data;
        int form = RqExprExternalData::kUnknownData;
    };
    enum AggrFlag {
        kDistinct = 1,
        kSQL99 = 2,
        kDistinctCompute = 4,
        kGrain = 8,
        kAnalytic = 16,
        kUninstantiated = 32
    };
    static constexpr EnumWord kAggrFlags[] = {
        {kDistinct, "distinct"}, {kSQL99, "sql99"},       {kDistinctCompute, "distinctcompute"},
        {kGrain, "grain"},       {kAnalytic, "analytic"}, {kUninstantiated, "uninstantiated"},
    };

    // The functions on the path of nested expressions (ParseItem, ParseExpr, ParseWordExpr,
    // ParseCall) keep their frames small; the work that does not recurse (leaves, fields,
    // messages) is done in functions of its own.
    Owned ParseExpr(RqNodeType_e tupleKind) {
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
    Owned ParseLeaf() {
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
            default:
                if (at.IsPunct("-") && m_lex.Peek(1).IsWord("inf")) {
                    m_lex.Next();
                    m_lex.Next();
                    return Owned(
                        RQ_NEW RqExprFloatLiteral(-std::numeric_limits<double>::infinity()));
                }
                m_lex.Expected("an expression");
        }
    }

    Owned ParseTuple(RqNodeType_e tupleKind) {
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

    Owned ParseWordExpr(const RqToken& at) {
        const RqToken& next = m_lex.Peek(1);
        if ((IsTableNumWord(at) && next.IsPunct(".")) || (at.IsWord("t") && next.IsPunct("(")))
            return ParseTargetColumn(kRqTargetColumn);
        if (next.IsPunct("(") && !at.IsWord("ref"))
            return ParseCall();
        return ParseWordLeaf();
    }

    // Leaves that start with a word: null, nan, inf, typed literals, column forms.
    Owned ParseWordLeaf() {
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
        if (word == "cubecol" || word == "cachecol")
            return ParseTargetColumn(word == "cubecol" ? kRqTargetCubeColumn
                                                       : kRqTargetCacheColumn);
        if (m_lex.Peek().Is(RqTokenKind::kString)) {
            const ZKString value = ZKString::FromUtf8(m_lex.Peek().m_text);
            Owned literal;
            if (word == "date")
                literal.Reset(RQ_NEW RqExprDateLiteral(value));
            else if (word == "time")
                literal.Reset(RQ_NEW RqExprTimeLiteral(value));
            else if (word == "datetime")
                literal.Reset(RQ_NEW RqExprDateTimeLiteral(value));
            else if (word == "interval")
                literal.Reset(RQ_NEW RqExprIntervalLiteral(value));
            else if (word == "number")
                literal.Reset(RQ_NEW RqExprNumberLiteral(value));
            if (literal) {
                m_lex.Next();
                return literal;
            }
        }
        Fail(at, "unknown word '" + word + "' (an expression or a node was expected)");
    }

    // `t1.NAME` with its identifier in parentheses when the name does not give it.
    Owned ParseTargetColumn(RqNodeType_e kind) {
        const RqToken at = m_lex.Peek();
        const int tableNum = ParseTableNum();
        m_lex.ExpectPunct(".");
        const int nameLine = m_lex.Peek().m_line;
        const std::string name = m_lex.ExpectName("a column name");
        Owned owned(MakeBlankNode(kind));
        auto& column = static_cast<RqTargetColumn&>(*owned);
        column.SetTableNum(tableNum);
        column.SetName(ZKString::FromUtf8(name));
        // The identifier follows on the name's line; a parenthesis on a later line begins
        // the next item of a body, a column list such as `(null)`.
        if (m_lex.Peek().IsPunct("(") && m_lex.Peek().m_line == nameLine) {
            m_lex.Next();
            column.SetColumnID(ExpectRawID());
            m_lex.ExpectPunct(")");
        } else {
            m_pendingColumns.push_back({&column, at});
        }
        return owned;
    }

    // `Name(operands, key=value, flag)`.
    Owned ParseCall() {
        const RqToken& at = m_lex.Peek();
        m_lex.Next();
        auto args = std::make_unique<CallArgs>();
        args->m_kind = CallKind(at);
        m_lex.ExpectPunct("(");
        if (!m_lex.AcceptPunct(")")) {
            do {
                const RqToken& arg = m_lex.Peek();
                if (PeekKey() && RqIsKindOf(args->m_kind, kRqExprAggr) &&
                    (arg.IsWord("by") || arg.IsWord("compute"))) {
                    m_lex.Next();
                    m_lex.Next();
                    Owned& slot = arg.IsWord("by") ? args->byList : args->computeBreak;
                    (arg.IsWord("by") ? args->hasBy : args->hasCompute) = true;
                    slot = ParseExprItem();
                } else if (!ParseCallField(at, *args)) {
                    Owned operand = ParseItem();
                    CheckOperand(arg, *args, operand.Get());
                    args->operands.push_back(std::move(operand));
                }
            } while (m_lex.AcceptPunct(","));
            m_lex.ExpectPunct(")");
        }
        return FinishCall(at, *args);
    }

    RqNodeType_e CallKind(const RqToken& at) const {
        RqNodeType_e kind = kRqInvalid;
        if (!KindFromName(at.m_text, kind))
            Fail(at,
                 "unknown expression '" + at.m_text + "'" + DidYouMean(at.m_text, ExprKindNames()));
        if (!RqIsExprType(kind))
            Fail(at, "'" + at.m_text + "' is not an expression");
        return kind;
    }

    // A `key=value` field or a flag word of the call; false for an operand.
    bool ParseCallField(const RqToken& at, CallArgs& args) {
        const RqNodeType_e kind = args.m_kind;
        const RqToken arg = m_lex.Peek();
        const bool isAggr = RqIsKindOf(kind, kRqExprAggr);
        if (arg.Is(RqTokenKind::kIdentifier) &&
            (m_lex.Peek(1).IsPunct(",") || m_lex.Peek(1).IsPunct(")"))) {
            int flag = 0;
            if (isAggr && WordValue(kAggrFlags, arg.m_text, flag)) {
                m_lex.Next();
                args.aggrFlags |= flag;
                return true;
            }
            if (arg.IsWord("sorted") && kind == kRqExprColumnList) {
                m_lex.Next();
                args.sorted = true;
                return true;
            }
            return false;
        }
        if (!PeekKey())
            return false;
        m_lex.Next();
        m_lex.Next();
        const std::string& key = arg.m_text;
        const bool hasNameField = kind == kRqExprParam || kind == kRqExprSessionVar;
        const bool isMetadata =
            kind == kRqAttribute || kind == kRqExprDimension || kind == kRqExprLevel;
        if (isAggr && key == "sort") {
            args.sortKeys = ParseAggrSortKeys();
            args.hasSort = true;
        } else if (key == "name" && (hasNameField || isMetadata)) {
            args.name = ZKString::FromUtf8(m_lex.ExpectName("a name"));
        } else if (key == "id" && isMetadata) {
            args.id = ExpectRawID();
        } else if (key == "type" && kind == kRqExprCast) {
            args.typeName = ZKString::FromUtf8(m_lex.ExpectName("a type name"));
        } else if (key == "form" && kind == kRqExprExternalData) {
            args.form = ExpectEnum(kExternalFormWords, "a data form");
        } else if (key == "data" && kind == kRqExprExternalData) {
            args.data = ZKString::FromUtf8(m_lex.ExpectString("the data"));
        } else {
            Fail(arg, "'" + at.m_text + "' has no field '" + key + "'");
        }
        return true;
    }

    // A subquery's first operand is its list; every other operand is an expression.
    void CheckOperand(const RqToken& at, const CallArgs& args, const RqNode* operand) const {
        if (operand == nullptr)
            return;
        const bool listSlot = RqIsKindOf(args.m_kind, kRqExprSubquery) && args.operands.empty();
        if (listSlot && !operand->IsKindOf(kRqAbstractList))
            Fail(at, "expected a list, found " + Describe(operand));
        if (!listSlot && !operand->IsExpr())
            Fail(at, "expected an expression, found " + Describe(operand));
    }

    Owned FinishCall(const RqToken& at, CallArgs& args) {
        const RqNodeType_e kind = args.m_kind;
        const bool isAggr = RqIsKindOf(kind, kRqExprAggr);
        const std::string shown = "'" + at.m_text + "'";
        // Operand counts come from the kind table; an aggregate's by-list and compute break
        // always take their two slots, so only its parameters vary.
        const int minOps = RqNodeTypeMinOperands(kind);
        const int maxOps = RqNodeTypeMaxOperands(kind);
        if (isAggr) {
            const int params =
                args.operands.empty() ? 0 : static_cast<int>(args.operands.size()) - 1;
            const int maxParams =
                maxOps < 0 ? -1 : std::max(0, maxOps - RqExprAggr::kFirstParameter);
            if (maxParams >= 0 && params > maxParams)
                Fail(at, shown + " takes " + Plural(maxParams, "parameter", true) + ", found " +
                             std::to_string(params));
        } else {
            const int count = static_cast<int>(args.operands.size());
            if (count < minOps || (maxOps >= 0 && count > maxOps)) {
                std::string expected = minOps == maxOps ? Plural(minOps, "operand", false)
                                       : maxOps < 0 ? "at least " + Plural(minOps, "operand", false)
                                                    : std::to_string(minOps) + " to " +
                                                          Plural(maxOps, "operand", false);
                Fail(at, shown + " takes " + expected + ", found " + std::to_string(count));
            }
        }
        if (args.hasSort && !IsSortDependentKind(kind))
            Fail(at, shown + " is not sort-dependent and has no sort keys");

        Owned expr;
        switch (kind) {
            case kRqAttribute:
                expr.Reset(RQ_NEW RqAttribute(args.id, args.name));
                break;
            case kRqExprDimension:
                expr.Reset(RQ_NEW RqExprDimension(args.id, args.name));
                break;
            case kRqExprLevel:
                expr.Reset(RQ_NEW RqExprLevel(args.id, args.name));
                break;
            case kRqExprExternalData:
                expr.Reset(RQ_NEW RqExprExternalData(
                    static_cast<RqExprExternalData::ExternalDataForm>(args.form), args.data));
                break;
            case kRqExprColumnList:
                expr.Reset(RQ_NEW RqExprColumnList(RqExprVector(), args.sorted, true));
                break;
            default:
                expr.Reset(MakeBlankNode(kind));
                if (!expr)
                    Fail(at, shown + " is an abstract kind");
                break;
        }
        if (kind == kRqExprParam)
            static_cast<RqExprParam&>(*expr).SetName(args.name);
        else if (kind == kRqExprSessionVar)
            static_cast<RqExprSessionVar&>(*expr).SetName(args.name);
        else if (kind == kRqExprCast)
            static_cast<RqExprCast&>(*expr).SetTypeName(args.typeName);

        if (isAggr) {
            auto& aggr = static_cast<RqExprAggr&>(*expr);
            aggr.AddChild(args.operands.empty() ? nullptr : args.operands[0].Release());
            aggr.AddChild(args.hasBy ? args.byList.Release() : nullptr);
            aggr.AddChild(args.hasCompute ? args.computeBreak.Release() : nullptr);
            for (size_t i = 1; i < args.operands.size(); ++i)
                aggr.AddChild(args.operands[i].Release());
            aggr.SetDistinctAggregation((args.aggrFlags & kDistinct) != 0);
            aggr.SetSQL99Aggregation((args.aggrFlags & kSQL99) != 0);
            aggr.SetDistinctComputeBreak((args.aggrFlags & kDistinctCompute) != 0);
            aggr.SetExplicitGrain((args.aggrFlags & kGrain) != 0);
            aggr.SetAnalytic((args.aggrFlags & kAnalytic) != 0);
            aggr.SetInstantiated((args.aggrFlags & kUninstantiated) == 0);
            if (args.hasSort)
                dynamic_cast<RqExprSortDependentAggr&>(aggr).SetSortSpec(args.sortKeys);
        } else {
            for (Owned& operand : args.operands)
                expr->AddChild(operand.Release());
        }
        return expr;
    }

    static bool IsSortDependentKind(RqNodeType_e kind) {
        Heap<RqNode> probe(MakeBlankNode(kind));
        return probe && dynamic_cast<RqExprSortDependentAggr*>(probe.Get()) != nullptr;
    }

    static std::string Plural(int count, const char* noun, bool noneWord) {
        if (count == 0 && noneWord)
            return std::string("no ") + noun + "s";
        return (noneWord ? "at most " : "") + std::to_string(count) + " " + noun +
               (count == 1 ? "" : "s");
    }

    // `(1 desc, 2)`.
    RqExprSortDependentAggr::SortKeys ParseAggrSortKeys() {
        RqExprSortDependentAggr::SortKeys keys;
        m_lex.ExpectPunct("(");
        if (!m_lex.AcceptPunct(")")) {
            do {
                RqExprSortDependentAggr::SortKey key{ExpectInt("a column number"),
                                                     RqSortSpec::kAsc};
                int value = 0;
                if (m_lex.Peek().Is(RqTokenKind::kIdentifier) &&
                    WordValue(kDirectionWords, m_lex.Peek().m_text, value)) {
                    m_lex.Next();
                    key.m_direction = static_cast<RqSortSpec::SortDirection>(value);
                }
                keys.push_back(key);
            } while (m_lex.AcceptPunct(","));
            m_lex.ExpectPunct(")");
        }
        return keys;
    }

    // ---- Settling at the end -----------------------------------------------------------

    RqAbstractList* FindList(const RqToken& name) const {
        if (name.Is(RqTokenKind::kAnchor)) {
            const auto it = m_anchors.find(name.m_text);
            if (it == m_anchors.end())
                Fail(name, "no list has the anchor $" + name.m_text);
            return it->second;
        }
        const auto it = m_labels.find(name.m_text);
        if (it == m_labels.end())
            Fail(name, "no list is labelled " + RqTextOut::Label(name.m_text));
        if (it->second == nullptr)
            Fail(name, "label " + RqTextOut::Label(name.m_text) +
                           " names more than one list; use an anchor");
        return it->second;
    }

    void ResolveReferences() {
        for (const PendingRef& pending : m_pendingRefs) {
            RqAbstractList* list = FindList(pending.m_name);
            const auto columns = m_columns.find(list);
            const auto column = columns != m_columns.end()
                                    ? columns->second.find(pending.m_columnNum)
                                    : std::unordered_map<int, RqDerivedColumn*>::const_iterator();
            if (columns == m_columns.end() || column == columns->second.end())
                Fail(pending.m_name, "list " + ShownName(pending.m_name) + " has no column " +
                                         std::to_string(pending.m_columnNum));
            pending.m_pRef->SetDerivedColumn(column->second);
        }
        for (const PendingShared& pending : m_pendingShared)
            pending.m_pList->SetSharedRqList(FindList(pending.m_name));
    }

    static std::string ShownName(const RqToken& name) {
        return name.Is(RqTokenKind::kAnchor) ? "$" + name.m_text : RqTextOut::Label(name.m_text);
    }

    // Columns written without their identifier take the one their name has in the table
    // their number denotes (when the request denotes one and a repository is at hand).
    void ResolveColumns() {
        if (m_pRp == nullptr)
            return;
        const RpRepository& rp = m_pRp->GetRepository();
        for (const PendingColumn& pending : m_pendingColumns) {
            const int tableNum = pending.m_pColumn->GetTableNum();
            const auto it = m_tableNums.find(tableNum);
            if (it == m_tableNums.end() || m_ambiguousTableNums.count(tableNum) != 0)
                continue;
            RefATable table = rp.FindTable(it->second);
            if (!table)
                continue;
            RefAColumn column = table->FindColumn(pending.m_pColumn->GetName().View());
            if (!column) {
                const std::string name = pending.m_pColumn->GetName().ToUtf8();
                std::vector<std::string> known;
                for (const RefAColumn& candidate : table->GetColumns())
                    known.push_back(candidate->GetName().ToUtf8());
                Fail(pending.m_at, "unknown column " + RqTextOut::Name(name) + " in table " +
                                       Utf8Of(MetadataUtil::GenerateQualifiedName(table)) +
                                       DidYouMean(name, known));
            }
            pending.m_pColumn->SetColumnID(column->GetID());
        }
    }

    static std::string Utf8Of(const ZKString& text) { return text.ToUtf8(); }

    struct PendingRef {
        RqDerivedColumnReference* m_pRef;
        RqToken m_name;
        int m_columnNum;
    };
    struct PendingShared {
        RqSharedList* m_pList;
        RqToken m_name;
    };
    struct PendingColumn {
        RqTargetColumn* m_pColumn;
        RqToken m_at;
    };

    RqTextLexer m_lex;
    const ARpGateway* m_pRp;
    int m_depth = 0;
    std::unordered_map<RqNode*, Annotation> m_annotations;
    std::unordered_map<int64_t, NodeID> m_sameGroups;
    // Labels (null when two lists carry one) and anchors, by their text.
    std::unordered_map<std::string, RqAbstractList*> m_labels;
    std::unordered_map<std::string, RqAbstractList*> m_anchors;
    // The columns of each block by number, for references.
    std::unordered_map<const RqAbstractList*, std::unordered_map<int, RqDerivedColumn*>> m_columns;
    std::vector<PendingRef> m_pendingRefs;
    std::vector<PendingShared> m_pendingShared;
    std::vector<PendingColumn> m_pendingColumns;
    std::unordered_map<int, VoidID> m_tableNums;
    std::unordered_set<int> m_ambiguousTableNums;
};

}  // namespace

RqHandleNode* RqTextReader::Read(std::string_view text, const std::string& fileName,
                                 const ARpGateway* rp) {
    return Reader(text, fileName, rp).Run();
}
