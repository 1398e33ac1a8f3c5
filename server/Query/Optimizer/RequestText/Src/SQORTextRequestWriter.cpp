// Prints a request tree in the request text format (docs/text-format.md).
//
// A first walk over the tree gathers what printing a node needs to know about the rest of
// the tree: which node IDs occur more than once, which blocks are referenced and need an
// anchor, which labels are ambiguous, and which repository table each table number denotes.
// The second walk prints, recursing once per level of nesting.

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

class Writer {
public:
    Writer(const RqNode& root, const ARpGateway* rp) : m_root(root), m_pRp(rp) {}

    std::string Run() {
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
            if (node->IsKindOf(kRqAbstractList)) {
                const auto* list = static_cast<const RqAbstractList*>(node);
                lists.push_back(list);
                if (!list->GetLabel().empty())
                    ++labelCount[list->GetLabel()];
            }
            if (node->GetObjectType() == kRqDerivedColumnReference) {
                const RqDerivedColumn* column =
                    static_cast<const RqDerivedColumnReference*>(node)->GetDerivedColumn();
                if (column != nullptr && column->GetRqAbstractListContainer() != nullptr)
                    referenced.insert(column->GetRqAbstractListContainer());
            } else if (node->GetObjectType() == kRqSharedList) {
                if (const RqAbstractList* shared =
                        static_cast<const RqSharedList*>(node)->GetSharedRqList())
                    referenced.insert(shared);
            } else if (node->IsKindOf(kRqIdentifiedTable)) {
                const auto* table = static_cast<const RqIdentifiedTable*>(node);
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

    // Guards one level of nesting: the reader refuses what is deeper, and deeper recursion
    // could exhaust the stack.
    class Level {
    public:
        explicit Level(Writer& writer) : m_writer(writer) {
            if (++m_writer.m_depth > kMaxDepth)
                ZK_THROW(
                    ErrorMessage(L"the request is nested too deeply to be printed (more than " +
                                 ZKString::FromInt(kMaxDepth) + L" levels)"));
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

    // ---- Nodes -------------------------------------------------------------------------

    void WriteItem(const RqNode* node, const Target& parent) {
        if (node == nullptr) {
            m_out += "none";
            return;
        }
        Level level(*this);
        if (node->IsExpr()) {
            WriteExpr(static_cast<const RqExpr&>(*node), parent, kRqExprColumnList);
            return;
        }
        WriteNode(*node, parent);
    }

    void WriteNode(const RqNode& node, const Target& parent) {
        const Target self = TargetOf(node);
        Words head;
        const RqNodeType_e kind = node.GetObjectType();
        const char* keyword = NodeKeyword(kind);
        head.Add(keyword != nullptr ? keyword : NodeKindName(kind));
        switch (kind) {
            case kRqList:
            case kRqUnion:
            case kRqIntersect:
            case kRqExcept:
            case kRqBreakFilter:
            case kRqCacheList:
            case kRqSharedList: {
                ListHead(static_cast<const RqAbstractList&>(node), head);
                head.Add(Annotation(node, parent));
                m_out += head.Text();
                // A block's clauses go to their slots by kind, so absent ones are left out.
                std::vector<const RqNode*> items;
                for (int i = 0; i < node.GetNumChildren(); ++i) {
                    if (kind != kRqList || node.GetIthChild(i) != nullptr)
                        items.push_back(node.GetIthChild(i));
                }
                Body(static_cast<int>(items.size()),
                     [&](int i) { WriteItem(items[static_cast<size_t>(i)], self); });
                // A head must not end in the `shared` flag: an absent item after it would
                // read as `shared none`, a shared list.
                if (items.empty() && static_cast<const RqAbstractList&>(node).IsShared())
                    m_out += " {}";
                return;
            }
            case kRqProjection: {
                const auto& projection = static_cast<const RqProjection&>(node);
                if (projection.PeekNextColumnNum() != DefaultNextColumnNum(projection))
                    head.Add("next=" + std::to_string(projection.PeekNextColumnNum()));
                head.Add(Annotation(node, parent));
                m_out += head.Text();
                Body(node.GetNumChildren(), [&](int i) {
                    const RqNode* child = node.GetIthChild(i);
                    if (child != nullptr && child->GetObjectType() == kRqDerivedColumn) {
                        Level level(*this);
                        WriteColumn(static_cast<const RqDerivedColumn&>(*child), self);
                    } else {
                        WriteItem(child, self);
                    }
                });
                return;
            }
            case kRqDerivedColumn:
                m_out += head.Text() + " ";
                WriteColumn(static_cast<const RqDerivedColumn&>(node), parent);
                return;
            case kRqDetailFilter:
            case kRqSummaryFilter:
            case kRqHaving:
                head.Add(Annotation(node, parent));
                m_out += head.Text() + " ";
                WriteItem(node.GetNumChildren() > 0 ? node.GetIthChild(0) : nullptr, self);
                return;
            case kRqGroupBy: {
                const auto& groupBy = static_cast<const RqGroupBy&>(node);
                if (groupBy.GetInternalExecutionMode() != RqGroupBy::kUnknown)
                    head.Add("mode=" +
                             EnumText(kGroupByModeWords, groupBy.GetInternalExecutionMode()));
                head.Add(Annotation(node, parent));
                m_out += head.Text() + " ";
                WriteSlotExpr(node.GetNumChildren() > 0 ? node.GetIthChild(0) : nullptr, self,
                              kRqExprColumnListOrdered);
                if (node.GetNumChildren() > 1 && node.GetIthChild(1) != nullptr) {
                    m_out += " granularity ";
                    WriteSlotExpr(node.GetIthChild(1), self, kRqExprColumnListOrdered);
                }
                return;
            }
            case kRqOrderBy:
                WriteOrderBy(static_cast<const RqOrderBy&>(node), parent, head);
                return;
            case kRqSortSpec:
                m_out += head.Text() + " ";
                WriteSortSpec(static_cast<const RqSortSpec&>(node), parent);
                return;
            case kRqJoinSpec:
                WriteJoinSpec(node, parent, head);
                return;
            case kRqJoinNode:
                if (static_cast<const RqJoinNode&>(node).IsPreserved())
                    head.Add("preserved");
                head.Add(Annotation(node, parent));
                m_out += head.Text();
                ChildrenBody(node, self);
                return;
            case kRqTableReference:
                WriteTableReference(static_cast<const RqTableReference&>(node), parent, false);
                return;
            case kRqJoinLink:
                // Links name join nodes by position in their join spec; outside of one
                // they name nothing.
                head.Add("none -> none");
                head.Add(Annotation(node, parent));
                m_out += head.Text();
                return;
            case kRqEntity: {
                const auto& entity = static_cast<const RqEntity&>(node);
                if (!entity.GetID().IsNullID())
                    head.Add("id=" + RawID(entity.GetID()));
                if (!entity.GetName().empty())
                    head.Add("name=" + RqTextOut::Name(Utf8(entity.GetName())));
                head.Add(Annotation(node, parent));
                m_out += head.Text();
                ChildrenBody(node, self);
                return;
            }
            case kRqCache:
            case kRqXSACache: {
                LogicalPlanBytes plan;
                static_cast<const RqCache&>(node).GetLogicalPlan(plan);
                if (!plan.empty())
                    head.Add("plan=" + RqTextOut::Quote(Hex(plan)));
                head.Add(Annotation(node, parent));
                m_out += head.Text();
                ChildrenBody(node, self);
                return;
            }
            default:
                break;
        }
        if (node.IsKindOf(kRqAbstractTable)) {
            WriteTableHead(static_cast<const RqAbstractTable&>(node), head);
            head.Add(Annotation(node, parent));
            m_out += head.Text();
            ChildrenBody(node, self);
            return;
        }
        // Every other node: its kind name, its name field when its class has one (an empty
        // name only on a node without children, where a string expression after it would
        // otherwise read as the name), its children.
        std::string name;
        if (GetNodeName(node, name) && (!name.empty() || node.GetNumChildren() == 0))
            head.Add(RqTextOut::Quote(name));
        head.Add(Annotation(node, parent));
        m_out += head.Text();
        ChildrenBody(node, self);
    }

    // Wider than an int: after a column numbered INT_MAX the generator has no place, so
    // `next=` always prints for such a projection.
    static int64_t DefaultNextColumnNum(const RqProjection& projection) {
        int64_t next = 0;
        for (int i = 0; i < projection.GetNumChildren(); ++i) {
            const RqNode* child = projection.GetIthChild(i);
            if (child != nullptr && child->GetObjectType() == kRqDerivedColumn) {
                const int64_t num = static_cast<const RqDerivedColumn*>(child)->GetColumnNum();
                next = std::max(next, num + 1);
            }
        }
        return next;
    }

    static std::string Hex(const LogicalPlanBytes& bytes) {
        static const char kDigits[] = "0123456789abcdef";
        std::string out;
        for (uint8_t b : bytes) {
            out += kDigits[b >> 4];
            out += kDigits[b & 15];
        }
        return out;
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
        if (list.GetObjectType() == kRqSharedList) {
            const RqAbstractList* shared = static_cast<const RqSharedList&>(list).GetSharedRqList();
            if (shared == nullptr)
                head.Add("none");
            else if (m_lists.count(shared) == 0)
                head.Add("outside");
            else
                head.Add(ListName(*shared));
        }
        if (!list.GetLabel().empty())
            head.Add(RqTextOut::Label(Utf8(list.GetLabel())));
        const auto it = m_lists.find(&list);
        if (it != m_lists.end() && it->second > 0)
            head.Add("$" + std::to_string(it->second));
        switch (list.GetObjectType()) {
            case kRqList: {
                const auto& block = static_cast<const RqList&>(list);
                if (block.IsDistinct())
                    head.Add("distinct");
                if (block.IsArtifactListNode())
                    head.Add("artifact");
                break;
            }
            case kRqUnion:
                if (static_cast<const RqUnion&>(list).IsAll())
                    head.Add("all");
                break;
            case kRqIntersect:
                if (static_cast<const RqIntersect&>(list).IsAll())
                    head.Add("all");
                break;
            case kRqExcept:
                if (static_cast<const RqExcept&>(list).IsAll())
                    head.Add("all");
                break;
            case kRqBreakFilter:
                head.Add("cols=" +
                         IndexList(static_cast<const RqBreakFilter&>(list).BreakColumnIndexes()));
                break;
            case kRqCacheList: {
                const ZKString& marker = static_cast<const RqCacheList&>(list).GetMarker();
                if (!marker.empty())
                    head.Add("marker=" + RqTextOut::Quote(Utf8(marker)));
                break;
            }
            default:
                break;
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

    void WriteColumn(const RqDerivedColumn& column, const Target& parent) {
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
            if (child == nullptr) {
                m_out += "none";
            } else if (child->GetObjectType() == kRqSortSpec) {
                Level level(*this);
                WriteSortSpec(static_cast<const RqSortSpec&>(*child), self);
            } else {
                m_out += "push ";
                WriteItem(child, self);
            }
        }
    }

    void WriteSortSpec(const RqSortSpec& spec, const Target& parent) {
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
            if (child != nullptr && child->GetObjectType() == kRqJoinLink) {
                const auto& link = static_cast<const RqJoinLink&>(*child);
                Words words;
                words.Add("link " + position(link.GetFrom()) + " -> " + position(link.GetTo()));
                words.Add(Annotation(link, self));
                m_out += words.Text();
                return;
            }
            if (child != nullptr && child->GetObjectType() == kRqJoinNode)
                WriteJoinNode(static_cast<const RqJoinNode&>(*child), self);
            else
                WriteItem(child, self);
        });
    }

    // A join node over one table reference prints as the reference itself (`join ...`, or
    // just the table when the reference joins nothing), the node's flag going with it.
    void WriteJoinNode(const RqJoinNode& joinNode, const Target& parent) {
        Level level(*this);
        const RqNode* only = joinNode.GetNumChildren() == 1 ? joinNode.GetIthChild(0) : nullptr;
        if (only == nullptr || only->GetObjectType() != kRqTableReference) {
            WriteNode(joinNode, parent);
            return;
        }
        // The node's annotation would have no place in the fused form.
        if (NeedsAnnotation(joinNode, parent)) {
            WriteNode(joinNode, parent);
            return;
        }
        const auto& reference = static_cast<const RqTableReference&>(*only);
        const RqNode* left = reference.GetNumChildren() == 3 ? reference.GetIthChild(0) : nullptr;
        const bool simple =
            !joinNode.IsPreserved() && reference.GetNumChildren() == 3 && left != nullptr &&
            left->IsKindOf(kRqAbstractTable) && reference.GetIthChild(1) == nullptr &&
            reference.GetIthChild(2) == nullptr &&
            reference.GetJoinType() == SqlTableRef::kInnerJoin &&
            reference.GetDrivingTableHint() == RqTableReference::kDriving_UnknownTable &&
            reference.GetLeftJoinColumnIndexes().empty() &&
            reference.GetRightJoinColumnIndexes().empty() && !NeedsAnnotation(reference, parent);
        if (simple) {
            WriteItem(left, parent);
            return;
        }
        WriteTableReference(reference, parent, joinNode.IsPreserved());
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
        const Target self = TargetOf(reference);
        std::vector<std::pair<const char*, const RqNode*>> items;
        const int count = reference.GetNumChildren();
        items.emplace_back("", count > 0 ? reference.GetIthChild(0) : nullptr);
        if (count > 1 && reference.GetIthChild(1) != nullptr)
            items.emplace_back("", reference.GetIthChild(1));
        if (count > 2 && reference.GetIthChild(2) != nullptr)
            items.emplace_back("on ", reference.GetIthChild(2));
        Body(static_cast<int>(items.size()), [&](int i) {
            m_out += items[static_cast<size_t>(i)].first;
            WriteItem(items[static_cast<size_t>(i)].second, self);
        });
    }

    void WriteTableHead(const RqAbstractTable& table, Words& head) {
        if (table.IsKindOf(kRqIdentifiedTable))
            head.Add(TableIDText(static_cast<const RqIdentifiedTable&>(table).GetTableID()));
        else if (table.GetObjectType() == kRqExternalTable)
            head.Add(RqTextOut::Quote(Utf8(static_cast<const RqExternalTable&>(table).GetName())));
        head.Add(TableNumText(table.GetTableNum()));
        if (table.GetObjectType() == kRqTransientOpaqueTable) {
            const auto& types =
                static_cast<const RqTransientOpaqueTable&>(table).GetColumnTypeInfos();
            if (!types.empty())
                head.Add("types=" + StringList(types));
        } else if (table.GetObjectType() == kRqDerivedTable) {
            const int nesting = static_cast<const RqDerivedTable&>(table).GetNestingLevel();
            if (nesting != 0)
                head.Add("nesting=" + std::to_string(nesting));
        }
    }

    // ---- Expressions ---------------------------------------------------------------------

    // An expression in a slot whose column lists print as bare tuples of `tupleKind`.
    void WriteSlotExpr(const RqNode* node, const Target& parent, RqNodeType_e tupleKind) {
        if (node == nullptr || !node->IsExpr()) {
            WriteItem(node, parent);
            return;
        }
        Level level(*this);
        WriteExpr(static_cast<const RqExpr&>(*node), parent, tupleKind);
    }

    // The functions on the path of nested expressions (WriteItem, WriteExpr, WriteCall) keep
    // their frames small; leaves and fields are printed by functions of their own.
    void WriteExpr(const RqExpr& expr, const Target& parent, RqNodeType_e tupleKind) {
        const std::string annotation = Annotation(expr, parent);
        const Target self = TargetOf(expr);
        const RqNodeType_e kind = expr.GetObjectType();
        if (WriteLeaf(expr)) {
        } else if (kind == tupleKind && !(kind == kRqExprColumnList &&
                                          static_cast<const RqExprColumnList&>(expr).IsSorted())) {
            m_out += '(';
            for (int i = 0; i < expr.GetNumChildren(); ++i) {
                if (i > 0)
                    m_out += ", ";
                WriteItem(expr.GetIthChild(i), self);
            }
            m_out += ')';
        } else {
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
        switch (kind) {
            case kRqTargetColumn:
            case kRqTargetCubeColumn:
            case kRqTargetCacheColumn: {
                const auto& column = static_cast<const RqTargetColumn&>(expr);
                if (kind == kRqTargetCubeColumn)
                    m_out += "cubecol ";
                else if (kind == kRqTargetCacheColumn)
                    m_out += "cachecol ";
                m_out +=
                    TableNumText(column.GetTableNum()) + "." +
                    RqTextOut::Name(Utf8(column.GetName())) +
                    ColumnIDSuffix(column.GetTableNum(), column.GetName(), column.GetColumnID());
                return true;
            }
            case kRqDerivedColumnReference:
                WriteReference(static_cast<const RqDerivedColumnReference&>(expr));
                return true;
            case kRqExprStringLiteral:
                m_out += RqTextOut::Quote(
                    Utf8(static_cast<const RqExprStringLiteral&>(expr).GetValue()));
                return true;
            case kRqExprIntegerLiteral:
                m_out += std::to_string(static_cast<const RqExprIntegerLiteral&>(expr).GetValue());
                return true;
            case kRqExprFloatLiteral:
                m_out += RqTextOut::Float(static_cast<const RqExprFloatLiteral&>(expr).GetValue());
                return true;
            case kRqExprDateLiteral:
                TextLiteral("date", static_cast<const RqExprDateLiteral&>(expr).GetValue());
                return true;
            case kRqExprTimeLiteral:
                TextLiteral("time", static_cast<const RqExprTimeLiteral&>(expr).GetValue());
                return true;
            case kRqExprDateTimeLiteral:
                TextLiteral("datetime", static_cast<const RqExprDateTimeLiteral&>(expr).GetValue());
                return true;
            case kRqExprIntervalLiteral:
                TextLiteral("interval", static_cast<const RqExprIntervalLiteral&>(expr).GetValue());
                return true;
            case kRqExprNumberLiteral:
                TextLiteral("number", static_cast<const RqExprNumberLiteral&>(expr).GetValue());
                return true;
            case kRqExprNullLiteral:
                m_out += "null";
                return true;
            default:
                return false;
        }
    }

    void TextLiteral(const char* word, const ZKString& value) {
        m_out += word;
        m_out += ' ';
        m_out += RqTextOut::Quote(Utf8(value));
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
        m_out += ExprKindName(expr.GetObjectType());
        m_out += '(';
        bool first = true;
        auto separate = [&]() {
            if (!first)
                m_out += ", ";
            first = false;
        };
        const int count = expr.GetNumChildren();
        if (expr.IsKindOf(kRqExprAggr)) {
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
        if (expr.IsKindOf(kRqExprAggr)) {
            if (const auto* sorted = dynamic_cast<const RqExprSortDependentAggr*>(&expr)) {
                if (!sorted->GetSortSpec().empty()) {
                    std::string keys = "sort=(";
                    for (size_t i = 0; i < sorted->GetSortSpec().size(); ++i) {
                        const auto& key = sorted->GetSortSpec()[i];
                        if (i > 0)
                            keys += ", ";
                        keys += std::to_string(key.m_columnNumber);
                        if (key.m_direction != RqSortSpec::kAsc)
                            keys += " " + EnumText(kDirectionWords, key.m_direction);
                    }
                    fields.push_back(keys + ")");
                }
            }
            const auto& aggr = static_cast<const RqExprAggr&>(expr);
            const std::pair<bool, const char*> flags[] = {
                {aggr.IsDistinctAggregation(), "distinct"},
                {aggr.IsSQL99Aggregation(), "sql99"},
                {aggr.HasDistinctComputeBreak(), "distinctcompute"},
                {aggr.HasExplicitGrain(), "grain"},
                {aggr.IsAnalytic(), "analytic"},
                {!aggr.IsInstantiated(), "uninstantiated"},
            };
            for (const auto& [set, word] : flags) {
                if (set)
                    fields.push_back(word);
            }
        }
        auto field = [&](const std::string& text) { fields.push_back(text); };
        switch (expr.GetObjectType()) {
            case kRqExprParam:
                field("name=" +
                      RqTextOut::Name(Utf8(static_cast<const RqExprParam&>(expr).GetName())));
                break;
            case kRqExprSessionVar:
                field("name=" +
                      RqTextOut::Name(Utf8(static_cast<const RqExprSessionVar&>(expr).GetName())));
                break;
            case kRqAttribute:
                MetadataFields(static_cast<const RqAttribute&>(expr), field);
                break;
            case kRqExprDimension:
                MetadataFields(static_cast<const RqExprDimension&>(expr), field);
                break;
            case kRqExprLevel:
                MetadataFields(static_cast<const RqExprLevel&>(expr), field);
                break;
            case kRqExprCast:
                field("type=" +
                      RqTextOut::Name(Utf8(static_cast<const RqExprCast&>(expr).GetTypeName())));
                break;
            case kRqExprExternalData: {
                const auto& data = static_cast<const RqExprExternalData&>(expr);
                if (data.GetForm() != RqExprExternalData::kUnknownData)
                    field("form=" + EnumText(kExternalFormWords, data.GetForm()));
                if (!data.GetData().empty())
                    field("data=" + RqTextOut::Quote(Utf8(data.GetData())));
                break;
            }
            case kRqExprColumnList:
                if (static_cast<const RqExprColumnList&>(expr).IsSorted())
                    field("sorted");
                break;
            default:
                break;
        }
        return fields;
    }

    template <class M, class F>
    static void MetadataFields(const M& expr, const F& field) {
        if (!expr.GetID().IsNullID())
            field("id=" + RawID(expr.GetID()));
        if (!expr.GetName().empty())
            field("name=" + RqTextOut::Name(Utf8(expr.GetName())));
    }

    const RqNode& m_root;
    const ARpGateway* m_pRp;
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
    return Writer(root, rp).Run();
}
