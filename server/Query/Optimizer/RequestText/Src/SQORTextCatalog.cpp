// Reading and printing catalogs: the repository a request is optimized against and the
// session it runs in. The reader builds the repository as it goes, so identifiers are
// handed out in text order; the printer walks the repository in identifier order, which
// makes print, read, print a fixed point.

#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Query/Optimizer/RequestText/SQORTextSuggest.h"

#include <algorithm>
#include <climits>
#include <iterator>
#include <set>
#include <utility>

#include "Platform/CompatFlags.h"
#include "Platform/ErrorMessage.h"
#include "Platform/Features.h"
#include "Platform/ServerInfo.h"
#include "Platform/SystemUtility.h"

namespace {

using FeatureId = SUFeaturesTable::FeatureId;
using FeatureSet = std::set<FeatureId>;

struct ColumnKindName {
    int m_kind;
    const char* m_name;
};

constexpr ColumnKindName kColumnKinds[] = {
    {kColumnKind_Plain, "plain"},
    {kColumnKind_Computed, "computed"},
    {kColumnKind_Identity, "identity"},
    {kColumnKind_Lookup, "lookup"},
    {kColumnKind_MultiValued, "multivalued"},
    {kColumnKind_MultiValuedSet, "multivaluedset"},
    {kColumnKind_LastUpdate, "lastupdate"},
};

struct CardinalityName {
    JoinCardinality m_cardinality;
    const char* m_name;
};

constexpr CardinalityName kCardinalities[] = {
    {kUnknownCardinality, "unknown"},
    {k_One_To_One, "one_to_one"},
    {k_One_To_ZeroOrOne, "one_to_zero_or_one"},
    {k_ZeroOrOne_To_One, "zero_or_one_to_one"},
    {k_One_To_Many, "one_to_many"},
    {k_ZeroOrOne_To_ZeroOrOne, "zero_or_one_to_zero_or_one"},
    {k_Many_To_One, "many_to_one"},
    {k_ZeroOrOne_To_Many, "zero_or_one_to_many"},
    {k_Many_To_Many, "many_to_many"},
    {k_Many_To_ZeroOrOne, "many_to_zero_or_one"},
};

// Names known to the format, for suggestions when one is misspelt.
template <class Entry, std::size_t N>
std::vector<std::string> NamesOf(const Entry (&table)[N]) {
    std::vector<std::string> names;
    for (const Entry& entry : table)
        names.emplace_back(entry.m_name);
    return names;
}

std::vector<std::string> FeatureNames() {
    std::vector<std::string> names;
    for (int f = 0; f < SUFeaturesTable::kFeatureCount; ++f)
        names.push_back(ZKToUtf8(SUFeaturesTable::Name(static_cast<FeatureId>(f))));
    return names;
}

std::string Utf8(const ZKString& text) {
    return text.ToUtf8();
}

ZKString Wide(std::string_view utf8) {
    return ZKString::FromUtf8(utf8);
}

std::string Quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

// The table as the text names it inside its database: schema.name, or name alone.
std::string TableText(const ZKString& schema, const ZKString& name) {
    std::string text;
    if (!schema.empty())
        text = RqTextOut::Name(Utf8(schema)) + ".";
    return text + RqTextOut::Name(Utf8(name));
}

std::string QualifiedTableText(const RefATable& table) {
    return RqTextOut::Name(Utf8(table->GetDatabase()->GetName())) + "." +
           TableText(table->GetSchema(), table->GetName());
}

// Data types such as INTEGER or VARCHAR(40) print bare; anything else (DOUBLE PRECISION,
// an empty type) is quoted. The bare form must be exactly what the reader rebuilds from
// the tokens, or a second printing would differ from the first.
bool IsBareDataType(std::string_view type) {
    const size_t open = type.find('(');
    if (open == std::string_view::npos)
        return RqTextOut::IsIdentifier(type);
    if (!RqTextOut::IsIdentifier(type.substr(0, open)) || type.back() != ')')
        return false;
    std::string_view args = type.substr(open + 1, type.size() - open - 2);
    int count = 0;
    while (true) {
        const size_t comma = args.find(',');
        const std::string_view number = args.substr(0, comma);
        if (number.empty() || (number.size() > 1 && number[0] == '0') || number.size() > 18)
            return false;
        for (const char c : number)
            if (c < '0' || c > '9')
                return false;
        ++count;
        if (comma == std::string_view::npos)
            break;
        args.remove_prefix(comma + 1);
    }
    return count <= 2;
}

// A property name of dotted identifiers (CONNECTION_POOL.SalesDW) prints bare.
bool IsBareDottedName(std::string_view name) {
    while (true) {
        const size_t dot = name.find('.');
        if (!RqTextOut::IsIdentifier(name.substr(0, dot)))
            return false;
        if (dot == std::string_view::npos)
            return true;
        name.remove_prefix(dot + 1);
    }
}

std::string FeatureList(const FeatureSet& features) {
    std::string text = "(";
    for (const FeatureId f : features) {
        if (text.size() > 1)
            text += ", ";
        text += Utf8(SUFeaturesTable::Name(f));
    }
    return text + ")";
}

class CatalogReader {
public:
    CatalogReader(std::string_view text, const std::string& fileName, RqCatalog& catalog)
        : m_lex(text, fileName), m_catalog(catalog), m_repo(*catalog.m_pRepository) {}

    void ReadAll() {
        while (!m_lex.AtEnd()) {
            const RqToken& tok = m_lex.Peek();
            if (tok.IsWord("database")) {
                ReadDatabase();
            } else if (tok.IsWord("join")) {
                ReadJoin();
            } else if (tok.IsWord("session")) {
                ReadSettings(true);
            } else if (tok.IsWord("server")) {
                ReadSettings(false);
            } else if (tok.Is(RqTokenKind::kIdentifier)) {
                m_lex.Fail(tok, "unknown keyword " + Quoted(tok.m_text) +
                                    "; expected database, join, session or server");
            } else {
                m_lex.Expected("database, join, session or server");
            }
        }
    }

private:
    // Runs a repository call; the repository's own refusal (a duplicate name, an empty
    // one) is reported at the name that caused it.
    template <class Fn>
    auto Repo(const RqToken& at, Fn fn) -> decltype(fn()) {
        try {
            return fn();
        } catch (const ErrorMessage& e) {
            std::string message = Utf8(e.GetText());
            if (!message.empty() && message.back() == '.')
                message.pop_back();
            m_lex.Fail(at, message);
        }
    }

    void ReadDatabase() {
        m_lex.ExpectWord("database");
        const RqToken nameTok = m_lex.Peek();
        const std::string name = m_lex.ExpectName("a database name");
        const ServerInfo::TargetType type = ReadTargetType();
        m_lex.ExpectPunct("{");
        // The features are fixed when the database is made, so they come before the rest.
        FeatureSet features = SUFeaturesTable::DefaultsFor(type);
        if (m_lex.AcceptWord("features"))
            features = ReadFeatures(type);
        const RefADatabase db =
            Repo(nameTok, [&] { return m_repo.AddDatabase(Wide(name), type, features); });
        while (!m_lex.AcceptPunct("}")) {
            const RqToken& tok = m_lex.Peek();
            if (tok.IsWord("pool")) {
                m_lex.Next();
                const RqToken poolTok = m_lex.Peek();
                const std::string pool = m_lex.ExpectName("a connection pool name");
                Repo(poolTok, [&] { return m_repo.AddConnectionPool(db, Wide(pool)); });
            } else if (tok.IsWord("table")) {
                ReadTable(db);
            } else if (tok.IsWord("features")) {
                m_lex.Fail(tok, "features must come first in a database");
            } else if (tok.Is(RqTokenKind::kIdentifier)) {
                m_lex.Fail(tok, "unknown keyword " + Quoted(tok.m_text) +
                                    " in a database; expected pool, table or '}'");
            } else {
                m_lex.Expected("pool, table or '}'");
            }
        }
    }

    ServerInfo::TargetType ReadTargetType() {
        const RqToken tok = m_lex.Peek();
        if (!tok.Is(RqTokenKind::kIdentifier) && !tok.Is(RqTokenKind::kInteger))
            m_lex.Expected("a target type");
        m_lex.Next();
        ServerInfo::TargetType type = ServerInfo::kUnknown;
        if (!ServerInfo::TargetTypeFromName(Wide(tok.m_text), type))
            m_lex.Fail(tok, "unknown target type " + Quoted(tok.m_text) +
                                DidYouMean(tok.m_text, TargetTypeNames()));
        return type;
    }

    FeatureSet ReadFeatures(ServerInfo::TargetType type) {
        if (!m_lex.AcceptWord("default"))
            return ReadFeatureList();
        FeatureSet features = SUFeaturesTable::DefaultsFor(type);
        while (true) {
            if (m_lex.AcceptWord("without")) {
                for (const FeatureId f : ReadFeatureList())
                    features.erase(f);
            } else if (m_lex.AcceptWord("with")) {
                features.merge(ReadFeatureList());
            } else {
                return features;
            }
        }
    }

    // ( NAME, NAME, ... ), possibly empty.
    FeatureSet ReadFeatureList() {
        FeatureSet features;
        m_lex.ExpectPunct("(");
        if (m_lex.AcceptPunct(")"))
            return features;
        do {
            const RqToken tok = m_lex.Peek();
            const std::string name = m_lex.ExpectIdentifier("a feature name");
            FeatureId f{};
            if (!SUFeaturesTable::FromName(Wide(name), f))
                m_lex.Fail(tok,
                           "unknown feature " + Quoted(name) + DidYouMean(name, FeatureNames()));
            features.insert(f);
        } while (m_lex.AcceptPunct(","));
        m_lex.ExpectPunct(")");
        return features;
    }

    void ReadTable(const RefADatabase& db) {
        m_lex.ExpectWord("table");
        const RqToken nameTok = m_lex.Peek();
        std::string schema;
        std::string name = m_lex.ExpectName("a table name");
        if (m_lex.AcceptPunct(".")) {
            schema = std::move(name);
            name = m_lex.ExpectName("a table name");
        }
        const RefATable table =
            Repo(nameTok, [&] { return m_repo.AddTable(db, Wide(schema), Wide(name)); });
        m_lex.ExpectPunct("{");
        while (!m_lex.AcceptPunct("}")) {
            const RqToken& tok = m_lex.Peek();
            if (tok.IsWord("column")) {
                ReadColumn(table);
            } else if (tok.IsWord("key")) {
                ReadKey(table);
            } else if (tok.Is(RqTokenKind::kIdentifier)) {
                m_lex.Fail(tok, "unknown keyword " + Quoted(tok.m_text) +
                                    " in a table; expected column, key or '}'");
            } else {
                m_lex.Expected("column, key or '}'");
            }
        }
    }

    void ReadColumn(const RefATable& table) {
        m_lex.ExpectWord("column");
        const RqToken nameTok = m_lex.Peek();
        const std::string name = m_lex.ExpectName("a column name");
        const RqToken typeTok = m_lex.Peek();
        std::string type = m_lex.ExpectName("a data type");
        // VARCHAR(40), DECIMAL(12,2): kept as one text, as SQL writes it.
        if (typeTok.Is(RqTokenKind::kIdentifier) && m_lex.AcceptPunct("(")) {
            type += "(" + std::to_string(ReadLength());
            if (m_lex.AcceptPunct(","))
                type += "," + std::to_string(ReadLength());
            m_lex.ExpectPunct(")");
            type += ")";
        }
        int kind = kColumnKind_Plain;
        const RqToken kindTok = m_lex.Peek();
        if (kindTok.Is(RqTokenKind::kIdentifier) && !kindTok.IsWord("column") &&
            !kindTok.IsWord("key")) {
            const ColumnKindName* found = nullptr;
            for (const ColumnKindName& entry : kColumnKinds)
                if (kindTok.m_text == entry.m_name)
                    found = &entry;
            // A word on the next line is a misspelt statement, not a kind, and is reported
            // as such by the table's loop.
            if (found == nullptr && kindTok.m_line == typeTok.m_line)
                m_lex.Fail(kindTok, "unknown column kind " + Quoted(kindTok.m_text) +
                                        DidYouMean(kindTok.m_text, NamesOf(kColumnKinds)));
            if (found != nullptr) {
                kind = found->m_kind;
                m_lex.Next();
            }
        } else if (kindTok.Is(RqTokenKind::kInteger) && kindTok.m_line == typeTok.m_line) {
            // Kinds without a name still print, as their number.
            if (kindTok.m_int < 0 || kindTok.m_int > INT_MAX)
                m_lex.Fail(kindTok, "unknown column kind " + Quoted(kindTok.m_text));
            kind = static_cast<int>(kindTok.m_int);
            m_lex.Next();
        }
        Repo(nameTok, [&] { return m_repo.AddColumn(table, Wide(name), kind, Wide(type)); });
    }

    int64_t ReadLength() {
        const RqToken tok = m_lex.Peek();
        const int64_t value = m_lex.ExpectInteger("a length");
        if (value < 0)
            m_lex.Fail(tok, "expected a length, found " + tok.Describe());
        return value;
    }

    void ReadKey(const RefATable& table) {
        m_lex.ExpectWord("key");
        const RqToken nameTok = m_lex.Peek();
        const std::string name = m_lex.ExpectName("a key name");
        std::vector<RefAColumn> columns;
        m_lex.ExpectPunct("(");
        if (!m_lex.Peek().IsPunct(")")) {
            do {
                const RqToken colTok = m_lex.Peek();
                const std::string col = m_lex.ExpectName("a column name");
                RefAColumn column = table->FindColumn(Wide(col));
                if (column.IsNull())
                    m_lex.Fail(colTok, "table " + TableText(table->GetSchema(), table->GetName()) +
                                           " has no column " + Quoted(col));
                columns.push_back(std::move(column));
            } while (m_lex.AcceptPunct(","));
        }
        m_lex.ExpectPunct(")");
        Repo(nameTok, [&] { return m_repo.AddKey(table, Wide(name), columns); });
    }

    // database.table or database.schema.table
    RefATable ReadQualifiedTable() {
        const RqToken dbTok = m_lex.Peek();
        const std::string dbName = m_lex.ExpectName("a database name");
        const RefADatabase db = m_repo.FindDatabaseByName(Wide(dbName));
        if (db.IsNull())
            m_lex.Fail(dbTok, "unknown database " + Quoted(dbName));
        m_lex.ExpectPunct(".");
        const RqToken tableTok = m_lex.Peek();
        std::string schema;
        std::string name = m_lex.ExpectName("a table name");
        if (m_lex.AcceptPunct(".")) {
            schema = std::move(name);
            name = m_lex.ExpectName("a table name");
        }
        RefATable table = m_repo.FindTableByName(db, Wide(schema), Wide(name));
        if (table.IsNull())
            m_lex.Fail(tableTok, "database " + RqTextOut::Name(dbName) + " has no table " +
                                     TableText(Wide(schema), Wide(name)));
        return table;
    }

    void ReadJoin() {
        m_lex.ExpectWord("join");
        const RqToken firstTok = m_lex.Peek();
        const RefATable first = ReadQualifiedTable();
        m_lex.ExpectPunct("->");
        const RefATable second = ReadQualifiedTable();
        const RqToken cardTok = m_lex.Peek();
        const std::string card = m_lex.ExpectIdentifier("a join cardinality");
        const CardinalityName* found = nullptr;
        for (const CardinalityName& entry : kCardinalities)
            if (card == entry.m_name)
                found = &entry;
        if (found == nullptr)
            m_lex.Fail(cardTok, "unknown join cardinality " + Quoted(card) +
                                    DidYouMean(card, NamesOf(kCardinalities)));
        std::string name;
        if (m_lex.AcceptWord("as"))
            name = m_lex.ExpectName("a join name");
        Repo(firstTok, [&] {
            return m_repo.AddComplexJoin(first, second, found->m_cardinality, Wide(name));
        });
    }

    void ReadSettings(bool bSession) {
        m_lex.Next();
        m_lex.ExpectPunct("{");
        while (!m_lex.AcceptPunct("}")) {
            const RqToken& tok = m_lex.Peek();
            if (tok.IsWord("flag")) {
                ReadFlag(bSession);
            } else if (tok.IsWord("property") && bSession) {
                ReadProperty();
            } else if (tok.IsWord("property")) {
                m_lex.Fail(tok,
                           "the server block holds only flags; properties belong to the "
                           "session");
            } else if (tok.Is(RqTokenKind::kIdentifier)) {
                m_lex.Fail(tok, "unknown keyword " + Quoted(tok.m_text) +
                                    (bSession ? " in the session; expected property, flag or '}'"
                                              : " in the server block; expected flag or '}'"));
            } else {
                m_lex.Expected(bSession ? "property, flag or '}'" : "flag or '}'");
            }
        }
    }

    // NAME, a dotted run of identifiers, or a string.
    std::string ReadPropertyName() {
        if (m_lex.Peek().Is(RqTokenKind::kString))
            return m_lex.Next().m_text;
        std::string name = m_lex.ExpectIdentifier("a property name");
        while (m_lex.AcceptPunct("."))
            name += "." + m_lex.ExpectIdentifier("a property name part");
        return name;
    }

    void ReadProperty() {
        m_lex.ExpectWord("property");
        const RqToken nameTok = m_lex.Peek();
        RqCatalog::Setting setting;
        setting.m_name = Wide(ReadPropertyName());
        for (const RqCatalog::Setting& seen : m_catalog.m_sessionProperties)
            if (seen.m_name == setting.m_name)
                m_lex.Fail(nameTok,
                           "the session property " + Utf8(setting.m_name) + " is already set");
        m_lex.ExpectPunct("=");
        const RqToken valueTok = m_lex.Peek();
        if (valueTok.Is(RqTokenKind::kInteger)) {
            setting.m_bInt = true;
            setting.m_value = ZKString::FromInt(valueTok.m_int);
        } else if (valueTok.Is(RqTokenKind::kString)) {
            setting.m_value = Wide(valueTok.m_text);
        } else {
            m_lex.Expected("a string or an integer");
        }
        m_lex.Next();
        m_catalog.m_sessionProperties.push_back(std::move(setting));
    }

    void ReadFlag(bool bSession) {
        m_lex.ExpectWord("flag");
        const RqToken nameTok = m_lex.Peek();
        const std::string name = m_lex.ExpectName("a compatibility flag name");
        const CompatFlagInfo* info = CompatFlagCatalog::Find(Wide(name));
        if (info == nullptr)
            m_lex.Fail(nameTok, "unknown compatibility flag " + Quoted(name));
        if (bSession && info->m_bServerScope)
            m_lex.Fail(nameTok, "the compatibility flag " + Utf8(info->m_name) +
                                    " applies to the whole server; set it in the server block");
        std::vector<RqCatalog::Setting>& settings =
            bSession ? m_catalog.m_sessionFlags : m_catalog.m_serverFlags;
        for (const RqCatalog::Setting& seen : settings)
            if (seen.m_name == info->m_name)
                m_lex.Fail(nameTok, "the compatibility flag " + Utf8(info->m_name) +
                                        " is already set in this block");
        m_lex.ExpectPunct("=");
        const RqToken valueTok = m_lex.Peek();
        RqCatalog::Setting setting;
        setting.m_name = info->m_name;
        setting.m_bInt = info->m_bIsInt;
        if (info->m_bIsInt) {
            if (!valueTok.Is(RqTokenKind::kInteger) || valueTok.m_int < INT_MIN ||
                valueTok.m_int > INT_MAX)
                m_lex.Fail(valueTok, "the compatibility flag " + Utf8(info->m_name) +
                                         " takes an integer, found " + valueTok.Describe());
            setting.m_value = ZKString::FromInt(valueTok.m_int);
        } else {
            bool value = false;
            if ((!valueTok.Is(RqTokenKind::kIdentifier) && !valueTok.Is(RqTokenKind::kInteger)) ||
                !BaseStringUtil::BooleanFrom(Wide(valueTok.m_text), value))
                m_lex.Fail(valueTok, "the compatibility flag " + Utf8(info->m_name) +
                                         " takes true or false, found " + valueTok.Describe());
            setting.m_value = value ? L"true" : L"false";
        }
        m_lex.Next();
        settings.push_back(std::move(setting));
    }

    RqTextLexer m_lex;
    RqCatalog& m_catalog;
    RpRepository& m_repo;
};

class CatalogWriter {
public:
    explicit CatalogWriter(const RqCatalog& catalog) : m_catalog(catalog) {}

    std::string Write() {
        const RpRepository& repo = *m_catalog.m_pRepository;
        for (const RefADatabase& db : repo.GetDatabases())
            WriteDatabase(db);
        const std::vector<RefAComplexJoin> joins = repo.GetComplexJoins();
        if (!joins.empty())
            Separate();
        for (const RefAComplexJoin& join : joins)
            WriteJoin(join);
        if (!m_catalog.m_sessionProperties.empty() || !m_catalog.m_sessionFlags.empty()) {
            Separate();
            m_out += "session {\n";
            for (const RqCatalog::Setting& p : m_catalog.m_sessionProperties)
                m_out += "    property " + PropertyName(p.m_name) + " = " + PropertyValue(p) + "\n";
            for (const RqCatalog::Setting& f : m_catalog.m_sessionFlags)
                WriteFlag(f);
            m_out += "}\n";
        }
        if (!m_catalog.m_serverFlags.empty()) {
            Separate();
            m_out += "server {\n";
            for (const RqCatalog::Setting& f : m_catalog.m_serverFlags)
                WriteFlag(f);
            m_out += "}\n";
        }
        return std::move(m_out);
    }

private:
    void Separate() {
        if (!m_out.empty())
            m_out += "\n";
    }

    void WriteDatabase(const RefADatabase& db) {
        Separate();
        const ServerInfo::TargetType type = db->GetTargetType();
        const wchar_t* typeName = ServerInfo::TargetTypeName(type);
        m_out += "database " + RqTextOut::Name(Utf8(db->GetName())) + " " +
                 (typeName != nullptr ? Utf8(typeName) : std::to_string(static_cast<int>(type))) +
                 " {\n";
        WriteFeatures(type, db->GetFeatures());
        for (const RefAConnectionPool& pool : db->GetConnectionPools())
            m_out += "    pool " + RqTextOut::Name(Utf8(pool->GetName())) + "\n";
        bool bFirst = m_out.ends_with("{\n");
        for (const RefATable& table : db->GetTables()) {
            if (!bFirst)
                m_out += "\n";
            bFirst = false;
            WriteTable(table);
        }
        m_out += "}\n";
    }

    // Relative to the target type's defaults when that names fewer features than the
    // full list, so that a database differing in one feature reads as just that.
    void WriteFeatures(ServerInfo::TargetType type, const FeatureSet& features) {
        const FeatureSet defaults = SUFeaturesTable::DefaultsFor(type);
        if (features == defaults)
            return;
        FeatureSet removed, added;
        std::set_difference(defaults.begin(), defaults.end(), features.begin(), features.end(),
                            std::inserter(removed, removed.end()));
        std::set_difference(features.begin(), features.end(), defaults.begin(), defaults.end(),
                            std::inserter(added, added.end()));
        m_out += "    features";
        if (removed.size() + added.size() <= features.size()) {
            m_out += " default";
            if (!removed.empty())
                m_out += " without " + FeatureList(removed);
            if (!added.empty())
                m_out += " with " + FeatureList(added);
        } else {
            m_out += " " + FeatureList(features);
        }
        m_out += "\n";
    }

    void WriteTable(const RefATable& table) {
        m_out += "    table " + TableText(table->GetSchema(), table->GetName()) + " {\n";
        for (const RefAColumn& column : table->GetColumns()) {
            const std::string type = Utf8(column->GetDataType());
            m_out += "        column " + RqTextOut::Name(Utf8(column->GetName())) + " " +
                     (IsBareDataType(type) ? type : RqTextOut::Quote(type));
            if (column->GetKind() != kColumnKind_Plain) {
                const char* kindName = nullptr;
                for (const ColumnKindName& entry : kColumnKinds)
                    if (entry.m_kind == column->GetKind())
                        kindName = entry.m_name;
                m_out += " " + (kindName != nullptr ? std::string(kindName)
                                                    : std::to_string(column->GetKind()));
            }
            m_out += "\n";
        }
        for (const RefAKey& key : table->GetKeys()) {
            m_out += "        key " + RqTextOut::Name(Utf8(key->GetName())) + " (";
            bool bFirst = true;
            for (const RefAColumn& column : key->GetColumns()) {
                m_out += (bFirst ? "" : ", ") + RqTextOut::Name(Utf8(column->GetName()));
                bFirst = false;
            }
            m_out += ")\n";
        }
        m_out += "    }\n";
    }

    void WriteJoin(const RefAComplexJoin& join) {
        const std::vector<RefATable> tables = join->GetTables();
        const char* card = "unknown";
        for (const CardinalityName& entry : kCardinalities)
            if (entry.m_cardinality == join->GetCardinality())
                card = entry.m_name;
        m_out += "join " + QualifiedTableText(tables[0]) + " -> " + QualifiedTableText(tables[1]) +
                 " " + card;
        // The repository names an unnamed join after its tables; only another name prints.
        if (join->GetName() != tables[0]->GetName() + L"_" + tables[1]->GetName())
            m_out += " as " + RqTextOut::Name(Utf8(join->GetName()));
        m_out += "\n";
    }

    static std::string PropertyName(const ZKString& name) {
        const std::string text = Utf8(name);
        return IsBareDottedName(text) ? text : RqTextOut::Quote(text);
    }

    static std::string PropertyValue(const RqCatalog::Setting& p) {
        long long value = 0;
        if (p.m_bInt && BaseStringUtil::IntFrom(p.m_value, value))
            return std::to_string(value);
        return RqTextOut::Quote(Utf8(p.m_value));
    }

    // Flags print in their catalogue spelling and kind. A setting the catalogue refuses
    // (possible only for a catalog built in code) still prints, as written, and the reader
    // then reports it.
    void WriteFlag(const RqCatalog::Setting& f) {
        const CompatFlagInfo* info = CompatFlagCatalog::Find(f.m_name);
        std::string name = Utf8(f.m_name);
        std::string value = RqTextOut::Quote(Utf8(f.m_value));
        if (info != nullptr) {
            name = Utf8(info->m_name);
            long long number = 0;
            bool flag = false;
            if (info->m_bIsInt && BaseStringUtil::IntFrom(f.m_value, number))
                value = std::to_string(number);
            else if (!info->m_bIsInt && BaseStringUtil::BooleanFrom(f.m_value, flag))
                value = flag ? "true" : "false";
        }
        m_out += "    flag " + RqTextOut::Name(name) + " = " + value + "\n";
    }

    const RqCatalog& m_catalog;
    std::string m_out;
};

[[noreturn]] void BadFlagValue(const CompatFlagInfo& info, const ZKString& value) {
    ZK_THROW(ErrorMessage(kErr_BadCompatFlagValue, info.m_name, value));
}

}  // namespace

std::unique_ptr<RpSession> RqCatalog::MakeSession() const {
    auto session = std::make_unique<RpSession>(m_pRepository);
    for (const Setting& p : m_sessionProperties) {
        if (!p.m_bInt) {
            session->SetStringSessionProperty(p.m_name, p.m_value);
            continue;
        }
        long long value = 0;
        if (!BaseStringUtil::IntFrom(p.m_value, value))
            ZK_THROW(ErrorMessage(kErr_PropertyNotInteger, p.m_value));
        session->SetIntegerSessionProperty(p.m_name, value);
    }
    for (const Setting& f : m_sessionFlags)
        session->SetCompatFlagFromText(f.m_name, f.m_value);
    return session;
}

void RqCatalog::ApplyServerFlags() const {
    for (const Setting& f : m_serverFlags) {
        const CompatFlagInfo* info = CompatFlagCatalog::Find(f.m_name);
        if (info == nullptr)
            ZK_THROW(ErrorMessage(kErr_UnknownCompatFlag, f.m_name));
        if (info->m_bIsInt) {
            long long value = 0;
            if (!BaseStringUtil::IntFrom(f.m_value, value) || value < INT_MIN || value > INT_MAX)
                BadFlagValue(*info, f.m_value);
            SUCompatFlag::SetInt(info->m_name, static_cast<int>(value));
        } else {
            bool value = false;
            if (!BaseStringUtil::BooleanFrom(f.m_value, value))
                BadFlagValue(*info, f.m_value);
            SUCompatFlag::SetBool(info->m_name, value);
        }
    }
}

RqCatalog RqCatalogText::Read(std::string_view text, const std::string& fileName) {
    RqCatalog catalog;
    CatalogReader reader(text, fileName, catalog);
    reader.ReadAll();
    return catalog;
}

std::string RqCatalogText::Write(const RqCatalog& catalog) {
    return CatalogWriter(catalog).Write();
}
