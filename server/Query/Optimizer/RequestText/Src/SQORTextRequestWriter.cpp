// Prints a request tree in the request text format (docs/text-format.md).
//
// A first walk over the tree gathers what printing a node needs to know about the rest of
// the tree: which node IDs occur more than once, which blocks are referenced and need an
// anchor, which labels are ambiguous, and which repository table each table number denotes.
// The second walk prints, recursing once per level of nesting. Each node is printed by the
// function of its form (SQORTextRequestInternal.h); the generic forms serve every kind
// without a syntax of its own.
//
// The same printer gives a node's own fields for the comparison of two trees: printed alone,
// without a gateway, its children as `_` and without annotations.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Platform/ErrorMessage.h"
#include "Platform/Repository.h"
#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "SQORTextRequestInternal.h"

using namespace rqtext;

namespace {

// The execution target a node inherits from its parent.
struct Target {
    ServerInfo::TargetType m_type = ServerInfo::kUnknown;
    VoidID m_id;
};

Target TargetOf(const RqNode& node) {
    return Target{node.GetTargetType(), node.GetTargetID()};
}

// Space-separated words of a head, built piece by piece.
class Words {
public:
    void Add(const std::string& word) {
        if (word.empty())
            return;
        if (!m_text.empty())
            m_text += ' ';
        m_text += word;
    }
    const std::string& Text() const { return m_text; }

private:
    std::string m_text;
};

std::string Utf8(const ZKString& text) {
    return text.ToUtf8();
}

std::string RawID(const VoidID& id) {
    return Utf8(id.ToString());
}

// A repository name; quoted when it would otherwise read as the null identifier.
std::string RepositoryName(const ZKString& name) {
    const std::string utf8 = name.ToUtf8();
    return utf8 == "null" ? RqTextOut::Quote(utf8) : RqTextOut::Name(utf8);
}

std::string TableNumText(int tableNum) {
    return tableNum >= 0 ? "t" + std::to_string(tableNum) : "t(" + std::to_string(tableNum) + ")";
}

std::string StringList(const std::vector<ZKString>& texts) {
    std::string out = "(";
    for (size_t i = 0; i < texts.size(); ++i) {
        if (i > 0)
            out += ", ";
        out += RqTextOut::Quote(Utf8(texts[i]));
    }
    return out + ")";
}

std::string IndexList(const UInt16Vector& indexes) {
    std::string out = "(";
    for (size_t i = 0; i < indexes.size(); ++i) {
        if (i > 0)
            out += ", ";
        out += std::to_string(indexes[i]);
    }
    return out + ")";
}

template <size_t N>
std::string EnumText(const EnumWord (&table)[N], int value) {
    const char* word = WordOf(table, N, value);
    return word != nullptr ? word : std::to_string(value);
}

// The grouping sets of a GROUP BY: `((0, 1), (0), ())`.
std::string GroupingSets(const RqGroupBy& groupBy) {
    std::string out = "(";
    for (int i = 0; i < groupBy.GetNumGroupingSets(); ++i)
        out += (i > 0 ? ", " : "") + IndexList(groupBy.GetIthGroupingSet(i));
    return out + ")";
}

std::string Hex(const LogicalPlanBytes& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        out += kDigits[b >> 4];
        out += kDigits[b & 15];
    }
    return out;
}

// Wider than an int: after a column numbered INT_MAX the generator has no place, so
// `next=` always prints for such a projection.
int64_t DefaultNextColumnNum(const RqProjection& projection) {
    int64_t next = 0;
    for (int i = 0; i < projection.GetNumChildren(); ++i) {
        if (const auto* column = RqDynCast<RqDerivedColumn>(projection.GetIthChild(i)))
            next = std::max(next, int64_t(column->GetColumnNum()) + 1);
    }
    return next;
}

class Writer {
public:
    enum class Mode {
        kTree,       // the whole tree, as the text format has it
        kOwnFields,  // the root's own fields only: children as `_`, no annotations
    };

    Writer(const RqNode& root, const ARpGateway* rp, Mode mode)
        : m_root(root), m_pRp(rp), m_mode(mode) {}

    std::string Run() {
        if (m_mode == Mode::kTree)
            Scan();
        WriteItem(&m_root, Target());
        m_out += '\n';
        return std::move(m_out);
    }

private:
    // ---- The first walk ------------------------------------------------------------------

    void Scan() {
        std::vector<const RqAbstractList*> lists;
        std::unordered_set<const RqAbstractList*> referenced;
        std::unordered_map<ZKString, int> labelCount;
        std::vector<const RqNode*> work{&m_root};
        while (!work.empty()) {
            const RqNode* node = work.back();
            work.pop_back();
            ++m_idCount[node->GetNodeID().GetNum()];
            if (const auto* list = RqDynCast<RqAbstractList>(node)) {
                lists.push_back(list);
                if (!list->GetLabel().empty())
                    ++labelCount[list->GetLabel()];
            }
            if (const auto* reference = RqDynCast<RqDerivedColumnReference>(node)) {
                const RqDerivedColumn* column = reference->GetDerivedColumn();
                if (column != nullptr && column->GetRqAbstractListContainer() != nullptr)
                    referenced.insert(column->GetRqAbstractListContainer());
            } else if (const auto* shared = RqDynCast<RqSharedList>(node)) {
                if (shared->GetSharedRqList() != nullptr)
                    referenced.insert(shared->GetSharedRqList());
            } else if (const auto* table = RqDynCast<RqIdentifiedTable>(node)) {
                auto [it, added] = m_tableNums.emplace(table->GetTableNum(), table->GetTableID());
                // A number that denotes two tables resolves no name.
                if (!added && it->second != table->GetTableID())
                    m_ambiguousTableNums.insert(table->GetTableNum());
            }
            for (int i = node->GetNumChildren() - 1; i >= 0; --i) {
                if (const RqNode* child = node->GetIthChild(i))
                    work.push_back(child);
            }
        }
        int anchor = 0;
        for (const RqAbstractList* list : lists) {
            const bool needsAnchor = referenced.count(list) != 0 &&
                                     (list->GetLabel().empty() || labelCount[list->GetLabel()] > 1);
            m_lists.emplace(list, needsAnchor ? ++anchor : 0);
        }
    }

    // ---- Names of repository objects ---------------------------------------------------

    const RpRepository* Repository() const {
        return m_pRp != nullptr ? &m_pRp->GetRepository() : nullptr;
    }

    // A target identifier: the database's name, `Database.Pool`, or the raw identifier when
    // the names would not lead back to it.
    std::string TargetIDText(const VoidID& id) const {
        if (const RpRepository* rp = Repository()) {
            if (RefADatabase db = rp->FindDatabase(id)) {
                if (rp->FindDatabaseByName(db->GetName()) == db)
                    return RepositoryName(db->GetName());
            } else if (RefAConnectionPool pool = rp->FindConnectionPool(id)) {
                RefADatabase owner = pool->GetDatabase();
                if (owner && rp->FindDatabaseByName(owner->GetName()) == owner &&
                    rp->FindConnectionPoolByName(owner, pool->GetName()) == pool) {
                    return RepositoryName(owner->GetName()) + "." +
                           RqTextOut::Name(Utf8(pool->GetName()));
                }
            }
        }
        return RawID(id);
    }

    // A table: `Database.schema.TABLE` (or `Database.TABLE` without a schema) when the name
    // leads back to the identifier, else the raw identifier.
    std::string TableIDText(const VoidID& id) const {
        if (const RpRepository* rp = Repository()) {
            RefATable table = rp->FindTable(id);
            RefADatabase db = table ? table->GetDatabase() : RefADatabase();
            if (db && rp->FindDatabaseByName(db->GetName()) == db &&
                rp->FindTableByName(db, table->GetSchema(), table->GetName()) == table) {
                std::string text = RepositoryName(db->GetName()) + ".";
                if (!table->GetSchema().empty())
                    text += RqTextOut::Name(Utf8(table->GetSchema())) + ".";
                return text + RqTextOut::Name(Utf8(table->GetName()));
            }
        }
        return RawID(id);
    }

    // The suffix a target column needs so that reading it gives back its identifier: none
    // when looking its name up in the table its number denotes gives the identifier (or
    // when nothing can be looked up and it has none), `(id)` otherwise.
    std::string ColumnIDSuffix(int tableNum, const ZKString& name, const VoidID& id) const {
        const RpRepository* rp = Repository();
        const auto it = m_tableNums.find(tableNum);
        RefATable table;
        if (rp != nullptr && it != m_tableNums.end() && m_ambiguousTableNums.count(tableNum) == 0)
            table = rp->FindTable(it->second);
        if (!table)
            return id.IsNullID() ? std::string() : "(" + RawID(id) + ")";
        RefAColumn column = table->FindColumn(name);
        if (column && column->GetID() == id)
            return std::string();
        return "(" + RawID(id) + ")";
    }

    // ---- Annotations -------------------------------------------------------------------

    bool NeedsAnnotation(const RqNode& node, const Target& parent) const {
        const auto it = m_idCount.find(node.GetNodeID().GetNum());
        return node.GetTargetType() != parent.m_type || node.GetTargetID() != parent.m_id ||
               (it != m_idCount.end() && it->second > 1);
    }

    // `[target=.. at=.. same=..]` for what differs from the parent's target and for a
    // shared identity; empty when there is nothing to say.
    std::string Annotation(const RqNode& node, const Target& parent) {
        if (m_mode == Mode::kOwnFields)
            return std::string();
        Words words;
        if (node.GetTargetType() != parent.m_type) {
            const wchar_t* name = ServerInfo::TargetTypeName(node.GetTargetType());
            words.Add("target=" +
                      (name != nullptr ? ZKToUtf8(name) : std::to_string(node.GetTargetType())));
        }
        if (node.GetTargetID() != parent.m_id)
            words.Add("at=" + TargetIDText(node.GetTargetID()));
        const uint32_t num = node.GetNodeID().GetNum();
        if (m_idCount[num] > 1) {
            auto [it, added] = m_sameGroups.emplace(num, m_nextSameGroup);
            if (added)
                ++m_nextSameGroup;
            words.Add("same=" + std::to_string(it->second));
        }
        return words.Text().empty() ? std::string() : "[" + words.Text() + "]";
    }

    // ---- Layout ------------------------------------------------------------------------

    // Guards one level of nesting against the stack running out. The depth itself is the
    // reader's to limit: whatever it accepted prints, so the writer sets no limit of its own
    // (its levels are not the reader's, and two counts would disagree).
    class Level {
    public:
        explicit Level(Writer& writer) : m_writer(writer) {
            ++m_writer.m_depth;
            if (ZKThread::RemainingStack() < kStackReserve)
                ZK_THROW(ErrorMessage(
                    L"the request is nested too deeply to be printed on this thread's stack"));
        }
        ~Level() { --m_writer.m_depth; }
        Level(const Level&) = delete;
        Level& operator=(const Level&) = delete;

    private:
        Writer& m_writer;
    };

    // When printing a node's own fields, every other node prints as `_`.
    bool Elided(const RqNode& node) {
        if (m_mode == Mode::kTree || &node == &m_root)
            return false;
        m_out += '_';
        return true;
    }

    void Indent(int level) { m_out.append(static_cast<size_t>(level) * 2, ' '); }

    // ` {` + one line per item + `}`; items print at one level below the current line.
    template <class F>
    void Body(int count, F&& writeItem) {
        if (count == 0)
            return;
        const int outer = m_lineIndent;
        m_out += " {\n";
        for (int i = 0; i < count; ++i) {
            m_lineIndent = outer + 1;
            Indent(m_lineIndent);
            writeItem(i);
            m_out += '\n';
        }
        m_lineIndent = outer;
        Indent(outer);
        m_out += '}';
    }

    void ChildrenBody(const RqNode& node, const Target& self) {
        Body(node.GetNumChildren(), [&](int i) { WriteItem(node.GetIthChild(i), self); });
    }

    // The head, its annotation, the children in braces.
    void HeadAndChildren(const RqNode& node, const Target& parent, Words& head) {
        head.Add(Annotation(node, parent));
        m_out += head.Text();
        ChildrenBody(node, TargetOf(node));
    }

    // ---- Nodes -------------------------------------------------------------------------

    void WriteItem(const RqNode* node, const Target& parent) {
        if (node == nullptr) {
            m_out += "none";
            return;
        }
        if (Elided(*node))
            return;
        Level level(*this);
        if (const auto* expr = RqDynCast<RqExpr>(node))
            WriteExpr(*expr, parent, kRqExprColumnList);
        else
            WriteNode(*node, parent);
    }

    void WriteNode(const RqNode& node, const Target& parent) {
        Words head;
        const RqNodeType_e kind = node.GetObjectType();
        const char* keyword = FormWord(kind);
        head.Add(keyword != nullptr ? keyword : KindName(kind));
        switch (NodeFormOf(kind)) {
            case NodeForm::kGeneric:
            case NodeForm::kRequest:
                return WriteGeneric(node, parent, head);
            case NodeForm::kList:
                return WriteList(*RqCast<RqAbstractList>(&node), parent, head);
            case NodeForm::kSelect:
                return WriteSelect(*RqCast<RqProjection>(&node), parent, head);
            case NodeForm::kColumn:
                m_out += head.Text() + " ";
                return WriteColumn(*RqCast<RqDerivedColumn>(&node), parent);
            case NodeForm::kFilter:
                head.Add(Annotation(node, parent));
                m_out += head.Text() + " ";
                return WriteItem(node.GetNumChildren() > 0 ? node.GetIthChild(0) : nullptr,
                                 TargetOf(node));
            case NodeForm::kGroupBy:
                return WriteGroupBy(*RqCast<RqGroupBy>(&node), parent, head);
            case NodeForm::kOrderBy:
                return WriteOrderBy(*RqCast<RqOrderBy>(&node), parent, head);
            case NodeForm::kSortKey:
                m_out += head.Text() + " ";
                return WriteSortSpec(*RqCast<RqSortSpec>(&node), parent);
            case NodeForm::kFrom:
                return WriteJoinSpec(node, parent, head);
            case NodeForm::kJoinNode:
                if (RqCast<RqJoinNode>(&node)->IsPreserved())
                    head.Add("preserved");
                return HeadAndChildren(node, parent, head);
            case NodeForm::kJoin:
                return WriteTableReference(*RqCast<RqTableReference>(&node), parent, false);
            case NodeForm::kLink:
                // Links name join nodes by position in their join spec; outside of one
                // they name nothing.
                head.Add("none -> none");
                return HeadAndChildren(node, parent, head);
            case NodeForm::kTable:
                WriteTableHead(*RqCast<RqAbstractTable>(&node), head);
                return HeadAndChildren(node, parent, head);
            case NodeForm::kEntity:
                MetadataFields(node, [&](const std::string& field) { head.Add(field); });
                return HeadAndChildren(node, parent, head);
            case NodeForm::kCache: {
                LogicalPlanBytes plan;
                RqCast<RqCache>(&node)->GetLogicalPlan(plan);
                if (!plan.empty())
                    head.Add("plan=" + RqTextOut::Quote(Hex(plan)));
                return HeadAndChildren(node, parent, head);
            }
        }
    }

    // Its kind name, its name field when its class has one (an empty name only on a node
    // without children, where a string expression after it would otherwise read as the
    // name), its children.
    void WriteGeneric(const RqNode& node, const Target& parent, Words& head) {
        std::string name;
        if (GetNameField(node, name) && (!name.empty() || node.GetNumChildren() == 0))
            head.Add(RqTextOut::Quote(name));
        HeadAndChildren(node, parent, head);
    }

    void WriteList(const RqAbstractList& list, const Target& parent, Words& head) {
        ListHead(list, head);
        head.Add(Annotation(list, parent));
        m_out += head.Text();
        // A block's clauses go to their slots by kind, so absent ones are left out.
        const bool block = list.IsKindOf(kRqList);
        std::vector<const RqNode*> items;
        for (int i = 0; i < list.GetNumChildren(); ++i) {
            if (!block || list.GetIthChild(i) != nullptr)
                items.push_back(list.GetIthChild(i));
        }
        Body(static_cast<int>(items.size()),
             [&](int i) { WriteItem(items[static_cast<size_t>(i)], TargetOf(list)); });
        // A head must not end in the `shared` flag: an absent item after it would read as
        // `shared none`, a shared list.
        if (items.empty() && list.IsShared())
            m_out += " {}";
    }

    // `@label`/`$n` of a block, shared by the heads and the references that name it.
    std::string ListName(const RqAbstractList& list) const {
        const auto it = m_lists.find(&list);
        if (it == m_lists.end())
            return std::string();
        if (it->second > 0)
            return "$" + std::to_string(it->second);
        return RqTextOut::Label(Utf8(list.GetLabel()));
    }

    void ListHead(const RqAbstractList& list, Words& head) {
        if (const auto* shared = RqDynCast<RqSharedList>(&list)) {
            const RqAbstractList* target = shared->GetSharedRqList();
            head.Add(target == nullptr            ? "none"
                     : m_lists.count(target) == 0 ? "outside"
                                                  : ListName(*target));
        }
        if (!list.GetLabel().empty())
            head.Add(RqTextOut::Label(Utf8(list.GetLabel())));
        const auto it = m_lists.find(&list);
        if (it != m_lists.end() && it->second > 0)
            head.Add("$" + std::to_string(it->second));
        bool all = false;
        if (const auto* block = RqDynCast<RqList>(&list)) {
            if (block->IsDistinct())
                head.Add("distinct");
            if (block->IsArtifactListNode())
                head.Add("artifact");
        } else if (GetAllFlag(list, all) && all) {
            head.Add("all");
        } else if (const auto* filter = RqDynCast<RqBreakFilter>(&list)) {
            head.Add("cols=" + IndexList(filter->BreakColumnIndexes()));
        } else if (const auto* cached = RqDynCast<RqCacheList>(&list)) {
            if (!cached->GetMarker().empty())
                head.Add("marker=" + RqTextOut::Quote(Utf8(cached->GetMarker())));
        }
        if (list.IsShared())
            head.Add("shared");
        if (list.IsWithSupported())
            head.Add("with");
        if (list.GetRowLimit() != 0)
            head.Add("limit=" + std::to_string(list.GetRowLimit()));
        if (list.GetRowOffset() != 0)
            head.Add("offset=" + std::to_string(list.GetRowOffset()));
    }

    void WriteSelect(const RqProjection& projection, const Target& parent, Words& head) {
        if (projection.PeekNextColumnNum() != DefaultNextColumnNum(projection))
            head.Add("next=" + std::to_string(projection.PeekNextColumnNum()));
        head.Add(Annotation(projection, parent));
        m_out += head.Text();
        const Target self = TargetOf(projection);
        Body(projection.GetNumChildren(), [&](int i) {
            const RqNode* child = projection.GetIthChild(i);
            if (const auto* column = RqDynCast<RqDerivedColumn>(child)) {
                Level level(*this);
                WriteColumn(*column, self);
            } else {
                WriteItem(child, self);
            }
        });
    }

    void WriteColumn(const RqDerivedColumn& column, const Target& parent) {
        if (Elided(column))
            return;
        Words head;
        head.Add(std::to_string(column.GetColumnNum()));
        int status = column.GetBreakStatus();
        for (const EnumWord& word : kBreakStatusWords) {
            if ((status & word.m_value) != 0) {
                head.Add(word.m_word);
                status &= ~word.m_value;
            }
        }
        if (status != 0)
            head.Add("break=" + std::to_string(status));
        head.Add(Annotation(column, parent));
        m_out += head.Text() + ": ";
        WriteItem(column.GetNumChildren() > 0 ? column.GetIthChild(0) : nullptr, TargetOf(column));
    }

    // `groupby [mode=] (columns) [sets (...)] [granularity (...)]`.
    void WriteGroupBy(const RqGroupBy& groupBy, const Target& parent, Words& head) {
        if (groupBy.GetInternalExecutionMode() != RqGroupBy::kUnknown)
            head.Add("mode=" + EnumText(kGroupByModeWords, groupBy.GetInternalExecutionMode()));
        head.Add(Annotation(groupBy, parent));
        m_out += head.Text() + " ";
        const Target self = TargetOf(groupBy);
        const int count = groupBy.GetNumChildren();
        WriteSlotExpr(count > 0 ? groupBy.GetIthChild(0) : nullptr, self, kRqExprColumnListOrdered);
        if (groupBy.IsGroupingSets())
            m_out += " sets " + GroupingSets(groupBy);
        if (count > 1 && groupBy.GetIthChild(1) != nullptr) {
            m_out += " granularity ";
            WriteSlotExpr(groupBy.GetIthChild(1), self, kRqExprColumnListOrdered);
        }
    }

    void WriteOrderBy(const RqOrderBy& orderBy, const Target& parent, Words& head) {
        if (orderBy.IsSticky())
            head.Add("sticky");
        if (!orderBy.GetStickyTypes().empty())
            head.Add("types=" + StringList(orderBy.GetStickyTypes()));
        head.Add(Annotation(orderBy, parent));
        m_out += head.Text();
        const Target self = TargetOf(orderBy);
        // Entries print by what they are, not by which group the order-by counts them in: a
        // sort key after a push-down aggregate is still a key (`push key 0` would not read).
        for (int i = 0; i < orderBy.GetNumChildren(); ++i) {
            m_out += i == 0 ? " " : ", ";
            const RqNode* child = orderBy.GetIthChild(i);
            if (const auto* spec = RqDynCast<RqSortSpec>(child)) {
                Level level(*this);
                WriteSortSpec(*spec, self);
            } else if (child != nullptr) {
                m_out += "push ";
                WriteItem(child, self);
            } else {
                m_out += "none";
            }
        }
    }

    void WriteSortSpec(const RqSortSpec& spec, const Target& parent) {
        if (Elided(spec))
            return;
        Words words;
        words.Add(std::to_string(spec.GetColumnNumber()));
        if (spec.GetSortDirection() != RqSortSpec::kAsc)
            words.Add(EnumText(kDirectionWords, spec.GetSortDirection()));
        if (spec.GetNullSortDirection() != RqSortSpec::kNoCare)
            words.Add("nulls=" + EnumText(kNullOrderWords, spec.GetNullSortDirection()));
        if (spec.IsLogicalSelectList())
            words.Add("logical");
        if (spec.IsCaseInsensitive())
            words.Add("nocase");
        words.Add(Annotation(spec, parent));
        m_out += words.Text();
    }

    void WriteJoinSpec(const RqNode& spec, const Target& parent, Words& head) {
        head.Add(Annotation(spec, parent));
        m_out += head.Text();
        const Target self = TargetOf(spec);
        std::unordered_map<const RqNode*, int> positions;
        for (int i = 0; i < spec.GetNumChildren(); ++i)
            positions.emplace(spec.GetIthChild(i), i);
        auto position = [&](const RqNode* joinNode) {
            const auto it = positions.find(joinNode);
            return (joinNode == nullptr || it == positions.end()) ? std::string("none")
                                                                  : std::to_string(it->second);
        };
        Body(spec.GetNumChildren(), [&](int i) {
            const RqNode* child = spec.GetIthChild(i);
            if (child != nullptr && Elided(*child))
                return;
            if (const auto* link = RqDynCast<RqJoinLink>(child)) {
                Words words;
                words.Add("link " + position(link->GetFrom()) + " -> " + position(link->GetTo()));
                words.Add(Annotation(*link, self));
                m_out += words.Text();
            } else if (const auto* joinNode = RqDynCast<RqJoinNode>(child)) {
                WriteJoinNode(*joinNode, self);
            } else {
                WriteItem(child, self);
            }
        });
    }

    // A join node over one table reference prints as the reference itself (`join ...`, or
    // just the table when the reference joins nothing), the node's flag going with it.
    void WriteJoinNode(const RqJoinNode& joinNode, const Target& parent) {
        Level level(*this);
        const auto* reference = joinNode.GetNumChildren() == 1
                                    ? RqDynCast<RqTableReference>(joinNode.GetIthChild(0))
                                    : nullptr;
        // The node's annotation would have no place in the fused form.
        if (reference == nullptr || NeedsAnnotation(joinNode, parent)) {
            WriteNode(joinNode, parent);
            return;
        }
        const RqNode* left = reference->GetNumChildren() == 3 ? reference->GetIthChild(0) : nullptr;
        const bool simple =
            !joinNode.IsPreserved() && left != nullptr && left->IsKindOf(kRqAbstractTable) &&
            reference->GetIthChild(1) == nullptr && reference->GetIthChild(2) == nullptr &&
            reference->GetJoinType() == SqlTableRef::kInnerJoin &&
            reference->GetDrivingTableHint() == RqTableReference::kDriving_UnknownTable &&
            reference->GetLeftJoinColumnIndexes().empty() &&
            reference->GetRightJoinColumnIndexes().empty() && !NeedsAnnotation(*reference, parent);
        if (simple)
            WriteItem(left, parent);
        else
            WriteTableReference(*reference, parent, joinNode.IsPreserved());
    }

    void WriteTableReference(const RqTableReference& reference, const Target& parent,
                             bool preserved) {
        Words head;
        head.Add("join");
        head.Add(EnumText(kJoinTypeWords, reference.GetJoinType()));
        if (reference.GetDrivingTableHint() != RqTableReference::kDriving_UnknownTable)
            head.Add("driving=" + EnumText(kDrivingWords, reference.GetDrivingTableHint()));
        if (!reference.GetLeftJoinColumnIndexes().empty())
            head.Add("lcols=" + IndexList(reference.GetLeftJoinColumnIndexes()));
        if (!reference.GetRightJoinColumnIndexes().empty())
            head.Add("rcols=" + IndexList(reference.GetRightJoinColumnIndexes()));
        if (preserved)
            head.Add("preserved");
        head.Add(Annotation(reference, parent));
        m_out += head.Text();
        std::vector<std::pair<const char*, const RqNode*>> items;
        const int count = reference.GetNumChildren();
        items.emplace_back("", count > 0 ? reference.GetIthChild(0) : nullptr);
        if (count > 1 && reference.GetIthChild(1) != nullptr)
            items.emplace_back("", reference.GetIthChild(1));
        if (count > 2 && reference.GetIthChild(2) != nullptr)
            items.emplace_back("on ", reference.GetIthChild(2));
        Body(static_cast<int>(items.size()), [&](int i) {
            m_out += items[static_cast<size_t>(i)].first;
            WriteItem(items[static_cast<size_t>(i)].second, TargetOf(reference));
        });
    }

    void WriteTableHead(const RqAbstractTable& table, Words& head) {
        if (const auto* identified = RqDynCast<RqIdentifiedTable>(&table))
            head.Add(TableIDText(identified->GetTableID()));
        else if (const auto* external = RqDynCast<RqExternalTable>(&table))
            head.Add(RqTextOut::Quote(Utf8(external->GetName())));
        head.Add(TableNumText(table.GetTableNum()));
        if (const auto* transient = RqDynCast<RqTransientOpaqueTable>(&table)) {
            if (!transient->GetColumnTypeInfos().empty())
                head.Add("types=" + StringList(transient->GetColumnTypeInfos()));
        } else if (const auto* derived = RqDynCast<RqDerivedTable>(&table)) {
            if (derived->GetNestingLevel() != 0)
                head.Add("nesting=" + std::to_string(derived->GetNestingLevel()));
        }
    }

    // `id=` and `name=` of a metadata reference, each when it is set.
    template <class F>
    static void MetadataFields(const RqNode& node, const F& field) {
        VoidID id;
        ZKString name;
        GetMetadata(node, id, name);
        if (!id.IsNullID())
            field("id=" + RawID(id));
        if (!name.empty())
            field("name=" + RqTextOut::Name(Utf8(name)));
    }

    // ---- Expressions ---------------------------------------------------------------------

    // An expression in a slot whose column lists print as bare tuples of `tupleKind`.
    void WriteSlotExpr(const RqNode* node, const Target& parent, RqNodeType_e tupleKind) {
        const auto* expr = RqDynCast<RqExpr>(node);
        if (expr == nullptr) {
            WriteItem(node, parent);
            return;
        }
        Level level(*this);
        WriteExpr(*expr, parent, tupleKind);
    }

    static bool IsSortedColumnList(const RqExpr& expr) {
        const auto* list = RqDynCast<RqExprColumnList>(&expr);
        return list != nullptr && list->IsSorted();
    }

    // The functions on the path of nested expressions (WriteItem, WriteExpr, WriteCall) keep
    // their frames small; leaves and fields are printed by functions of their own.
    void WriteExpr(const RqExpr& expr, const Target& parent, RqNodeType_e tupleKind) {
        if (Elided(expr))
            return;
        const std::string annotation = Annotation(expr, parent);
        const Target self = TargetOf(expr);
        // Exactly the slot's kind: an unordered list in an ordered slot, a kind derived from
        // the ordered one, must print under its name to read back as what it is.
        if (expr.GetObjectType() == tupleKind && !IsSortedColumnList(expr)) {
            m_out += '(';
            for (int i = 0; i < expr.GetNumChildren(); ++i) {
                if (i > 0)
                    m_out += ", ";
                WriteItem(expr.GetIthChild(i), self);
            }
            m_out += ')';
        } else if (!WriteLeaf(expr)) {
            WriteCall(expr, self);
        }
        if (!annotation.empty()) {
            m_out += ' ';
            m_out += annotation;
        }
    }

    // Literals, columns and references; false for the other expressions.
    bool WriteLeaf(const RqExpr& expr) {
        const RqNodeType_e kind = expr.GetObjectType();
        ZKString text;
        switch (ExprFormOf(kind)) {
            case ExprForm::kCall:
            case ExprForm::kAggregate:
            case ExprForm::kNamed:
            case ExprForm::kMetadata:
            case ExprForm::kCast:
            case ExprForm::kExternalData:
            case ExprForm::kColumnList:
                return false;
            case ExprForm::kInteger:
                m_out += std::to_string(RqCast<RqExprIntegerLiteral>(&expr)->GetValue());
                return true;
            case ExprForm::kFloat:
                m_out += RqTextOut::Float(RqCast<RqExprFloatLiteral>(&expr)->GetValue());
                return true;
            case ExprForm::kString:
                GetTextValue(expr, text);
                m_out += RqTextOut::Quote(Utf8(text));
                return true;
            case ExprForm::kTypedText:
                GetTextValue(expr, text);
                m_out += std::string(FormWord(kind)) + " " + RqTextOut::Quote(Utf8(text));
                return true;
            case ExprForm::kNull:
                m_out += "null";
                return true;
            case ExprForm::kTargetColumn:
                WriteTargetColumn(*RqCast<RqTargetColumn>(&expr));
                return true;
            case ExprForm::kReference:
                WriteReference(*RqCast<RqDerivedColumnReference>(&expr));
                return true;
        }
        return false;
    }

    void WriteTargetColumn(const RqTargetColumn& column) {
        if (const char* word = FormWord(column.GetObjectType()))
            m_out += std::string(word) + " ";
        m_out += TableNumText(column.GetTableNum()) + "." +
                 RqTextOut::Name(Utf8(column.GetName())) +
                 ColumnIDSuffix(column.GetTableNum(), column.GetName(), column.GetColumnID());
    }

    void WriteReference(const RqDerivedColumnReference& reference) {
        const RqDerivedColumn* column = reference.GetDerivedColumn();
        if (column == nullptr) {
            m_out += "ref(none)";
            return;
        }
        const RqAbstractList* list = column->GetRqAbstractListContainer();
        if (list == nullptr || m_lists.count(list) == 0) {
            m_out += "ref(outside)";
            return;
        }
        m_out += ListName(*list) + "." + std::to_string(column->GetColumnNum());
    }

    // `Name(operands, key=value, flag)`.
    void WriteCall(const RqExpr& expr, const Target& self) {
        m_out += KindName(expr.GetObjectType());
        m_out += '(';
        bool first = true;
        auto separate = [&]() {
            if (!first)
                m_out += ", ";
            first = false;
        };
        const int count = expr.GetNumChildren();
        if (ExprFormOf(expr.GetObjectType()) == ExprForm::kAggregate) {
            // Positional: the measure, then the parameters; the two column lists by key.
            const bool hasParams = count > RqExprAggr::kFirstParameter;
            if (count > 0 && (expr.GetIthChild(0) != nullptr || hasParams)) {
                separate();
                WriteItem(expr.GetIthChild(0), self);
            }
            for (int i = RqExprAggr::kFirstParameter; i < count; ++i) {
                separate();
                WriteItem(expr.GetIthChild(i), self);
            }
            for (int slot : {int(RqExprAggr::kByList), int(RqExprAggr::kComputeBreak)}) {
                if (count > slot && expr.GetIthChild(slot) != nullptr) {
                    separate();
                    m_out += slot == RqExprAggr::kByList ? "by=" : "compute=";
                    WriteSlotExpr(expr.GetIthChild(slot), self, kRqExprColumnList);
                }
            }
        } else {
            for (int i = 0; i < count; ++i) {
                separate();
                WriteItem(expr.GetIthChild(i), self);
            }
        }
        for (const std::string& field : CallFields(expr)) {
            separate();
            m_out += field;
        }
        m_out += ')';
    }

    // The fields and flags of a call, after its operands.
    static std::vector<std::string> CallFields(const RqExpr& expr) {
        std::vector<std::string> fields;
        auto field = [&](const std::string& text) { fields.push_back(text); };
        std::string name;
        switch (ExprFormOf(expr.GetObjectType())) {
            case ExprForm::kAggregate:
                AggregateFields(*RqCast<RqExprAggr>(&expr), field);
                break;
            case ExprForm::kNamed:
                GetNameField(expr, name);
                field("name=" + RqTextOut::Name(name));
                break;
            case ExprForm::kMetadata:
                MetadataFields(expr, field);
                break;
            case ExprForm::kCast:
                field("type=" + RqTextOut::Name(Utf8(RqCast<RqExprCast>(&expr)->GetTypeName())));
                break;
            case ExprForm::kExternalData: {
                const auto* data = RqCast<RqExprExternalData>(&expr);
                if (data->GetForm() != RqExprExternalData::kUnknownData)
                    field("form=" + EnumText(kExternalFormWords, data->GetForm()));
                if (!data->GetData().empty())
                    field("data=" + RqTextOut::Quote(Utf8(data->GetData())));
                break;
            }
            case ExprForm::kColumnList:
                if (IsSortedColumnList(expr))
                    field("sorted");
                break;
            case ExprForm::kCall:
            case ExprForm::kInteger:
            case ExprForm::kFloat:
            case ExprForm::kString:
            case ExprForm::kTypedText:
            case ExprForm::kNull:
            case ExprForm::kTargetColumn:
            case ExprForm::kReference:
                break;
        }
        return fields;
    }

    // `sort=(...)` of a sort-dependent aggregate, then the flags that are set.
    template <class F>
    static void AggregateFields(const RqExprAggr& aggr, const F& field) {
        if (const auto* sorted = RqDynCast<RqExprSortDependentAggr>(&aggr)) {
            if (!sorted->GetSortSpec().empty()) {
                std::string keys = "sort=(";
                for (size_t i = 0; i < sorted->GetSortSpec().size(); ++i) {
                    const auto& key = sorted->GetSortSpec()[i];
                    keys += (i > 0 ? ", " : "") + std::to_string(key.m_columnNumber);
                    if (key.m_direction != RqSortSpec::kAsc)
                        keys += " " + EnumText(kDirectionWords, key.m_direction);
                }
                field(keys + ")");
            }
        }
        const int flags = GetAggrFlags(aggr);
        for (const EnumWord& word : kAggrFlagWords) {
            if ((flags & word.m_value) != 0)
                field(word.m_word);
        }
    }

    const RqNode& m_root;
    const ARpGateway* m_pRp;
    const Mode m_mode;
    std::string m_out;
    int m_depth = 0;
    int m_lineIndent = 0;
    std::unordered_map<uint32_t, int> m_idCount;
    std::unordered_map<uint32_t, int> m_sameGroups;
    int m_nextSameGroup = 1;
    // Every list of the printed tree with its anchor number (0: none).
    std::unordered_map<const RqAbstractList*, int> m_lists;
    // The repository table each table number denotes, and the numbers that denote two.
    std::unordered_map<int, VoidID> m_tableNums;
    std::unordered_set<int> m_ambiguousTableNums;
};

}  // namespace

std::string RqTextWriter::Write(const RqNode& root, const ARpGateway* rp) {
    return Writer(root, rp, Writer::Mode::kTree).Run();
}

std::string rqtext::OwnFieldsText(const RqNode& node) {
    return Writer(node, nullptr, Writer::Mode::kOwnFields).Run();
}
