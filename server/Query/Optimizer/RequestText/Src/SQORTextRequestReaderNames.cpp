// Reads identifiers and the names of repository objects (databases, pools, tables, columns),
// registers labels and anchors, and settles at the end what only the whole text tells: the
// blocks that references and shared lists name, and the identifiers of columns named in
// tables that are declared after them.

#include <algorithm>

#include "Platform/Repository.h"
#include "Query/Optimizer/RequestText/SQORTextSuggest.h"
#include "SQORTextRequestReader.h"

namespace rqtext {

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

std::string ShownName(const RqToken& name) {
    return name.Is(RqTokenKind::kAnchor) ? "$" + name.m_text : RqTextOut::Label(name.m_text);
}

}  // namespace

// `3:17`, `-3:17` or `null`.
bool RequestReader::AcceptRawID(VoidID& id) {
    const RqToken at = m_lex.Peek();
    if (m_lex.AcceptWord("null")) {
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

VoidID RequestReader::ExpectRawID() {
    VoidID id;
    if (!AcceptRawID(id))
        m_lex.Expected("an identifier (such as 3:17) or null");
    return id;
}

const RpRepository& RequestReader::RepositoryFor(const RqToken& at, const std::string& what) const {
    if (m_pRp == nullptr)
        Fail(at, what + " needs a repository to be resolved");
    return m_pRp->GetRepository();
}

// A target identifier: raw, or `Database` / `Database.Pool`.
VoidID RequestReader::ParseTargetID() {
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
    RefAConnectionPool pool = rp.FindConnectionPoolByName(db, ZKString::FromUtf8(poolName).View());
    if (!pool)
        Fail(at, "unknown connection pool " + shown);
    return pool->GetID();
}

// A table identifier: raw, or `Database.schema.TABLE` / `Database.TABLE`.
VoidID RequestReader::ParseTableID() {
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
int RequestReader::ParseTableNum() {
    const RqToken at = m_lex.Peek();
    if (at.IsWord("t") && m_lex.Peek(1).IsPunct("(")) {
        m_lex.Next();
        m_lex.Next();
        const int num = ExpectInt("a table number");
        m_lex.ExpectPunct(")");
        return num;
    }
    if (!IsTableNumWord(at))
        m_lex.Expected("a table number (t1)");
    m_lex.Next();
    // Every number up to the largest int prints in this form, so every one reads.
    const std::string digits = at.m_text.substr(1);
    const size_t first = std::min(digits.find_first_not_of('0'), digits.size() - 1);
    if (digits.size() - first > 10 ||
        std::stoll(digits.substr(first)) > std::numeric_limits<int>::max())
        Fail(at, "table number out of range: " + digits);
    return static_cast<int>(std::stoll(digits.substr(first)));
}

bool RequestReader::IsTableNumWord(const RqToken& token) {
    const std::string& text = token.m_text;
    return token.Is(RqTokenKind::kIdentifier) && text.size() >= 2 && text[0] == 't' &&
           std::all_of(text.begin() + 1, text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The repository table each table number denotes, for the columns named by number; a number
// that denotes two tables resolves no name.
void RequestReader::NoteTableNum(const RqIdentifiedTable& table) {
    auto [it, added] = m_tableNums.emplace(table.GetTableNum(), table.GetTableID());
    if (!added && it->second != table.GetTableID())
        m_ambiguousTableNums.insert(table.GetTableNum());
}

void RequestReader::RegisterLabel(RqAbstractList* list, const RqToken& at) {
    if (!list->GetLabel().empty())
        Fail(at, "a list has one label");
    list->SetLabel(ZKString::FromUtf8(at.m_text));
    auto [it, added] = m_labels.emplace(at.m_text, list);
    // Copies of a block keep its label; a label is only wrong where it is used.
    if (!added)
        it->second = nullptr;
}

void RequestReader::RegisterAnchor(RqAbstractList* list, const RqToken& at) {
    if (!m_anchors.emplace(at.m_text, list).second)
        Fail(at, "duplicate anchor $" + at.m_text);
}

RqAbstractList* RequestReader::FindList(const RqToken& name) const {
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
        Fail(name,
             "label " + RqTextOut::Label(name.m_text) + " names more than one list; use an anchor");
    return it->second;
}

void RequestReader::ResolveReferences() {
    for (const PendingRef& pending : m_pendingRefs) {
        const auto columns = m_columns.find(FindList(pending.m_name));
        RqDerivedColumn* column = nullptr;
        if (columns != m_columns.end()) {
            const auto it = columns->second.find(pending.m_columnNum);
            column = it != columns->second.end() ? it->second : nullptr;
        }
        if (column == nullptr)
            Fail(pending.m_name, "list " + ShownName(pending.m_name) + " has no column " +
                                     std::to_string(pending.m_columnNum));
        pending.m_pRef->SetDerivedColumn(column);
    }
    for (const PendingShared& pending : m_pendingShared)
        pending.m_pList->SetSharedRqList(FindList(pending.m_name));
}

// Columns written without their identifier take the one their name has in the table their
// number denotes (when the request denotes one and a repository is at hand).
void RequestReader::ResolveColumns() {
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
                                   MetadataUtil::GenerateQualifiedName(table).ToUtf8() +
                                   DidYouMean(name, known));
        }
        pending.m_pColumn->SetColumnID(column->GetID());
    }
}

}  // namespace rqtext
