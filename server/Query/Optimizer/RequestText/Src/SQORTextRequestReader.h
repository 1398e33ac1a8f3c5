#pragma once
// The reader of the request text format (docs/text-format.md), one recursive-descent parser
// whose parts live in the sources named after them:
//   SQORTextRequestReader.cpp        the request, items, nodes of the generic forms, annotations
//   SQORTextRequestReaderLists.cpp   lists and their clauses
//   SQORTextRequestReaderFrom.cpp    the from clause: join nodes, joins, links, tables
//   SQORTextRequestReaderExprs.cpp   expressions
//   SQORTextRequestReaderNames.cpp   identifiers, repository names, labels and references
//
// Every node is owned from the moment it is made: by a Heap while its own fields are read,
// then by its parent, so a failure anywhere destroys exactly what was built. What may only
// be known once the whole text is read (the blocks that references and shared lists name,
// the identifiers of columns looked up by name in tables declared after them, and the
// targets that nodes inherit) is recorded on the way and settled at the end.

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "SQORTextRequestInternal.h"

class RpRepository;

namespace rqtext {

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

// How a node is named in messages: its keyword, or its kind name.
std::string Describe(const RqNode* node);

class RequestReader {
public:
    RequestReader(std::string_view text, const std::string& fileName, const ARpGateway* rp)
        : m_lex(text, fileName), m_pRp(rp) {}

    RqHandleNode* Run();

private:
    // ---- Errors, nesting and tokens (SQORTextRequestReader.cpp) --------------------------

    [[noreturn]] void Fail(const RqToken& at, const std::string& message) const {
        m_lex.Fail(at, message);
    }

    // One level of nesting: refused beyond kMaxDepth or when the stack runs low.
    class Level {
    public:
        explicit Level(RequestReader& reader);
        ~Level() { --m_reader.m_depth; }
        Level(const Level&) = delete;
        Level& operator=(const Level&) = delete;

    private:
        RequestReader& m_reader;
    };

    bool PeekWord(std::string_view word, int ahead = 0) const {
        return m_lex.Peek(ahead).IsWord(word);
    }
    // An identifier followed by '=': the key of a key=value field.
    bool PeekKey() const {
        return m_lex.Peek().Is(RqTokenKind::kIdentifier) && m_lex.Peek(1).IsPunct("=");
    }
    // Consumes `key=` when it comes next.
    bool AcceptKey(std::string_view key);
    int64_t ExpectIntIn(std::string_view what, int64_t low, int64_t high);
    int ExpectInt(std::string_view what) {
        return static_cast<int>(
            ExpectIntIn(what, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
    }
    uint32_t ExpectCount(std::string_view what) {
        return static_cast<uint32_t>(ExpectIntIn(what, 0, std::numeric_limits<uint32_t>::max()));
    }
    int ExpectEnum(const EnumWord* table, size_t count, std::string_view what);
    template <size_t N>
    int ExpectEnum(const EnumWord (&table)[N], std::string_view what) {
        return ExpectEnum(table, N, what);
    }
    // `(1, 2)`: positions, each at most `limit`.
    UInt16Vector ParseIndexList(int64_t limit = 65535);
    std::vector<ZKString> ParseStringList();

    // ---- Annotations and items (SQORTextRequestReader.cpp) ------------------------------

    Annotation ParseAnnotation();
    void Annotate(RqNode* node, const Annotation& annotation);
    void InheritTargets(RqNode& root);

    // One child: `none`, a node, or an expression (whose bare tuples are `tupleKind`).
    Owned ParseItem(RqNodeType_e tupleKind = kRqExprColumnList);
    // An item that must be absent or of `kind`, named `what` in the message.
    Owned ParseItemOf(RqNodeType_e kind, const char* what,
                      RqNodeType_e tupleKind = kRqExprColumnList);
    Owned ParseExprItem(RqNodeType_e tupleKind = kRqExprColumnList) {
        return ParseItemOf(kRqExpr, "an expression", tupleKind);
    }
    // `{ item ... }` appended to the node's children; no braces, no children.
    void ParseChildren(RqNode& node, bool listsOnly);
    Owned ParseNode(RqNodeType_e kind);
    Owned ParseGenericNode(RqNodeType_e kind, const RqToken& at);
    Owned ParseEntity();
    Owned ParseCache(RqNodeType_e kind);

    // ---- Lists and clauses (SQORTextRequestReaderLists.cpp) ------------------------------

    Owned ParseList(RqNodeType_e kind);
    void ParseSharedTarget(RqSharedList& list);
    void ParseListHead(RqAbstractList& list);
    bool ParseListField(RqAbstractList& list, const RqToken& at);
    static bool SetListFlag(RqAbstractList& list, const std::string& word);
    void ParseListBody(RqList& list);
    Owned ParseClause(RqNodeType_e kind, RqList& owner);
    Owned ParseSelect(RqList* owner);
    Owned ParseColumn();
    Owned ParseFilter(RqNodeType_e kind);
    Owned ParseGroupBy();
    void ParseGroupingSets(RqGroupBy& groupBy);
    Owned ParseOrderBy();
    Owned ParseSortSpec();

    // ---- The from clause (SQORTextRequestReaderFrom.cpp) -------------------------------

    struct PendingLink {
        int m_slot;
        RqToken m_from;
        RqToken m_to;
        Annotation m_annotation;
    };
    Owned ParseFrom();
    void ParseFromItem(RqNode& spec, std::vector<PendingLink>& links);
    void ExpectLinkEnd();
    RqJoinNode* LinkEnd(const RqNode& spec, const RqToken& at) const;
    Owned ParseJoinNode();
    Owned ParseTableReference(bool* preserved);
    void ParseJoinBody(RqTableReference& reference);
    Owned ParseTable(RqNodeType_e kind);

    // ---- Expressions (SQORTextRequestReaderExprs.cpp) ----------------------------------

    // What the arguments of a call say, gathered before the call's node is made (some
    // classes take their fields only through their constructors).
    struct CallArgs {
        RqNodeType_e m_kind = kRqInvalid;
        ExprForm m_form = ExprForm::kCall;
        std::vector<Owned> m_operands;
        Owned m_byList;
        Owned m_computeBreak;
        bool m_bHasBy = false;
        bool m_bHasCompute = false;
        RqExprSortDependentAggr::SortKeys m_sortKeys;
        bool m_bHasSort = false;
        int m_aggrFlags = 0;
        bool m_bSorted = false;
        VoidID m_id;
        std::string m_name;
        ZKString m_typeName;
        ZKString m_data;
        int m_dataForm = RqExprExternalData::kUnknownData;
    };
    Owned ParseExpr(RqNodeType_e tupleKind);
    Owned ParseLeaf();
    Owned ParseTuple(RqNodeType_e tupleKind);
    Owned ParseWordExpr(const RqToken& at);
    Owned ParseWordLeaf();
    Owned ParseTargetColumn(RqNodeType_e kind);
    Owned ParseCall();
    RqNodeType_e CallKind(const RqToken& at) const;
    bool ParseCallFlag(CallArgs& args);
    bool ParseCallField(const RqToken& at, CallArgs& args);
    void CheckOperand(const RqToken& at, const CallArgs& args, const RqNode* operand) const;
    void CheckOperandCount(const RqToken& at, const CallArgs& args) const;
    Owned MakeCall(const RqToken& at, CallArgs& args);
    RqExprSortDependentAggr::SortKeys ParseAggrSortKeys();

    // ---- Identifiers, names, labels and references (SQORTextRequestReaderNames.cpp) -----

    bool AcceptRawID(VoidID& id);
    VoidID ExpectRawID();
    const RpRepository& RepositoryFor(const RqToken& at, const std::string& what) const;
    VoidID ParseTargetID();
    VoidID ParseTableID();
    int ParseTableNum();
    static bool IsTableNumWord(const RqToken& token);
    void NoteTableNum(const RqIdentifiedTable& table);
    void RegisterLabel(RqAbstractList* list, const RqToken& at);
    void RegisterAnchor(RqAbstractList* list, const RqToken& at);
    RqAbstractList* FindList(const RqToken& name) const;
    void ResolveReferences();
    void ResolveColumns();

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

}  // namespace rqtext
