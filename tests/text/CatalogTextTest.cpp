// The catalog text format: the sample catalog, canonical printing, identifiers across a
// round trip, sessions built from a catalog, and the errors of malformed catalogs.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Platform/CompatFlags.h"
#include "Platform/ErrorMessage.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "TextTestSupport.h"

namespace {

std::string ReadSampleCatalog() {
    return texttest::ReadText(texttest::RepositoryRoot() / "examples/sales.catalog");
}

// Every object with its identifier and what it refers to, in repository order, so that two
// repositories compare as a whole.
std::vector<std::wstring> Objects(const RpRepository& repo) {
    std::vector<std::wstring> out;
    auto add = [&](const ARepositoryObject& object, const std::wstring& detail) {
        out.push_back(object.GetID().ToString() + L" " + object.GetName() + L" " + detail);
    };
    for (const RefADatabase& db : repo.GetDatabases()) {
        add(*db, std::to_wstring(db->GetFeatures().size()));
        for (const RefAConnectionPool& pool : db->GetConnectionPools())
            add(*pool, L"");
        for (const RefATable& table : db->GetTables()) {
            add(*table, table->GetSchema());
            for (const RefAColumn& column : table->GetColumns())
                add(*column, column->GetDataType() + std::to_wstring(column->GetKind()));
            for (const RefAKey& key : table->GetKeys())
                for (const RefAColumn& column : key->GetColumns())
                    add(*key, column->GetID().ToString());
        }
    }
    for (const RefAComplexJoin& join : repo.GetComplexJoins())
        add(*join, join->GetTables()[0]->GetID().ToString() + L"->" +
                       join->GetTables()[1]->GetID().ToString() +
                       std::to_wstring(join->GetCardinality()));
    return out;
}

}  // namespace

TEST(CatalogTextTest, SampleCatalogRoundTripsWithStableIdentifiers) {
    const RqCatalog sample = RqCatalogText::Read(ReadSampleCatalog(), "sales.catalog");
    const std::string printed = RqCatalogText::Write(sample);
    const RqCatalog reread = RqCatalogText::Read(printed, "printed");
    EXPECT_EQ(printed, RqCatalogText::Write(reread));
    EXPECT_EQ(Objects(*sample.m_pRepository), Objects(*reread.m_pRepository));

    // What the rules rely on in the sample: a reduced relational feature set, a keyed
    // framework source, a keyless integration source with multi-valued columns.
    const RpRepository& repo = *sample.m_pRepository;
    const RefADatabase crm = repo.FindDatabaseByName(L"CrmDB");
    ASSERT_FALSE(crm.IsNull());
    EXPECT_FALSE(crm->HasFeature(SUFeaturesTable::kFeature_NestedOrderBy));
    EXPECT_TRUE(crm->HasFeature(SUFeaturesTable::kFeature_RowNumLimit));
    const RefADatabase items = repo.FindDatabaseByName(L"ItemFramework");
    const RefADatabase feed = repo.FindDatabaseByName(L"OrderFeed");
    ASSERT_FALSE(items.IsNull());
    ASSERT_FALSE(feed.IsNull());
    EXPECT_EQ(items->GetTargetType(), ServerInfo::kFennick);
    EXPECT_TRUE(items->GetTables().at(0)->HasKey());
    EXPECT_EQ(feed->GetTargetType(), ServerInfo::kCorvelEAI);
    EXPECT_FALSE(feed->GetTables().at(0)->HasKey());
    EXPECT_EQ(feed->GetTables()[0]->FindColumn(L"LINE_SKUS")->GetKind(), kColumnKind_MultiValued);
    for (const RefADatabase& db : repo.GetDatabases())
        for (const RefATable& table : db->GetTables())
            for (const RefAColumn& column : table->GetColumns())
                EXPECT_FALSE(column->GetDataType().empty()) << column->GetName().ToUtf8();
}

// Every construct, written loosely, prints in its one canonical form.
TEST(CatalogTextTest, PrintsEveryConstructCanonically) {
    const char* text = R"(
database "Main DB" 4 {   # target types may be given by number
    features default without (nested_order_by) with (PERF_MINIMAL_WITH)
    pool P1
    pool "Pool 2"
    table T { column A "DOUBLE PRECISION" column B VARCHAR( 40 ) identity }
    table s."odd name" {
        column "x y" DECIMAL(12, 2) multivaluedset
        column E ""
        column F INTEGER 5
        key K1 (E, "x y")
        key K2 (F)
    }
}
database Cube mdxcube { features (ORDER_BY) }
database Bare corvel { features () table U { } }
join "Main DB".T -> "Main DB".s."odd name" zero_or_one_to_many
join Bare.U -> Bare.U one_to_one as U_U
join "Main DB".s."odd name" -> Bare.U many_to_many as U_join
session {
    flag veld_enable_average_rewrite = off
    property CONNECTION_POOL.Main = "Pool 2"
    property "odd.name x" = -7
    flag VELD_MAX_UNION_ALL_CHILDREN = 64
}
server { flag VELD_USE_11GSORT = 1 }
)";
    const char* canonical = R"(database "Main DB" rowstore {
    features default without (NESTED_ORDER_BY) with (PERF_MINIMAL_WITH)
    pool P1
    pool "Pool 2"

    table T {
        column A "DOUBLE PRECISION"
        column B VARCHAR(40) identity
    }

    table s."odd name" {
        column "x y" DECIMAL(12,2) multivaluedset
        column E ""
        column F INTEGER 5
        key K1 (E, "x y")
        key K2 (F)
    }
}

database Cube mdxcube {
    features default with (ORDER_BY)
}

database Bare corvel {
    features ()

    table U {
    }
}

join "Main DB".T -> "Main DB".s."odd name" zero_or_one_to_many
join Bare.U -> Bare.U one_to_one
join "Main DB".s."odd name" -> Bare.U many_to_many as U_join

session {
    property CONNECTION_POOL.Main = "Pool 2"
    property "odd.name x" = -7
    flag VELD_ENABLE_AVERAGE_REWRITE = false
    flag VELD_MAX_UNION_ALL_CHILDREN = 64
}

server {
    flag VELD_USE_11GSORT = true
}
)";
    const RqCatalog catalog = RqCatalogText::Read(text, "loose");
    EXPECT_EQ(RqCatalogText::Write(catalog), canonical);
    EXPECT_EQ(RqCatalogText::Write(RqCatalogText::Read(canonical, "canonical")), canonical);

    const RpRepository& repo = *catalog.m_pRepository;
    const RefATable odd = repo.FindTable(VoidID(kRpType_Table, 2));
    EXPECT_EQ(odd->GetSchema(), L"s");
    EXPECT_EQ(odd->FindColumn(L"x y")->GetDataType(), L"DECIMAL(12,2)");
    EXPECT_EQ(odd->FindColumn(L"F")->GetKind(), 5);
    EXPECT_EQ(repo.FindComplexJoin(VoidID(kRpType_ComplexJoin, 1))->GetCardinality(),
              k_ZeroOrOne_To_Many);
    EXPECT_TRUE(repo.FindDatabaseByName(L"Bare")->GetFeatures().empty());
}

// A repository built in code, parent by parent, keeps its identifiers through the text.
TEST(CatalogTextTest, RepositoryBuiltInCodeKeepsItsIdentifiers) {
    RqCatalog catalog;
    RpRepository& repo = *catalog.m_pRepository;
    const RefADatabase a = repo.AddDatabase(L"A", ServerInfo::kAnsiSql);
    const RefADatabase b = repo.AddDatabase(L"B", ServerInfo::kFennick, {});
    repo.AddConnectionPool(b, L"PB");
    const RefATable t1 = repo.AddTable(a, L"", L"T1");
    const RefATable t2 = repo.AddTable(a, L"x", L"T1");  // same name in another schema
    const RefATable t3 = repo.AddTable(b, L"", L"T3");
    const RefAColumn c1 = repo.AddColumn(t1, L"C", kColumnKind_Lookup, L"INTEGER");
    repo.AddColumn(t2, L"C", kColumnKind_Plain, L"DATE");
    const RefAColumn c3 = repo.AddColumn(t3, L"ID", kColumnKind_Plain, L"INTEGER");
    repo.AddKey(t1, L"PK", {c1});
    repo.AddKey(t3, L"PK", {c3});
    repo.AddComplexJoin(t3, t1, k_Many_To_ZeroOrOne);
    repo.AddComplexJoin(t2, t1, kUnknownCardinality, L"named");

    const std::string printed = RqCatalogText::Write(catalog);
    const RqCatalog reread = RqCatalogText::Read(printed, "printed");
    EXPECT_EQ(Objects(repo), Objects(*reread.m_pRepository));
    EXPECT_EQ(RqCatalogText::Write(reread), printed);
    EXPECT_NE(printed.find("    features ()\n"), std::string::npos) << printed;
}

TEST(CatalogTextTest, SessionAndServerSettingsTakeEffect) {
    const RqCatalog catalog = RqCatalogText::Read(R"(
database D ansisql { pool First pool Second }
session {
    property CONNECTION_POOL.D = "Second"
    property ROWS = 250
    property LABEL = "42"
    flag VELD_ENABLE_HASH_GROUP_BY = 0
    flag VELD_ENABLE_AVERAGE_REWRITE = false
}
server { flag VELD_USE_11GSORT = true flag VELD_MAX_UNION_ALL_CHILDREN = 8 }
)",
                                                  "settings");
    std::unique_ptr<RpSession> session = catalog.MakeSession();
    long long rows = 0;
    ZKString label;
    EXPECT_TRUE(session->GetIntegerSessionProperty(L"ROWS", rows));
    EXPECT_EQ(rows, 250);
    EXPECT_TRUE(session->GetStringSessionProperty(L"LABEL", label));
    EXPECT_EQ(label, L"42");
    const RefADatabase db = catalog.m_pRepository->FindDatabaseByName(L"D");
    EXPECT_EQ(Authorization::ConnectionPoolFrom_UserDatabase(session.get(), db)->GetName(),
              L"Second");
    EXPECT_EQ(SOCompatFlag::GetInt(L"VELD_ENABLE_HASH_GROUP_BY", session.get()), 0);
    EXPECT_FALSE(SOCompatFlag::GetBool(L"VELD_ENABLE_AVERAGE_REWRITE", session.get()));

    catalog.ApplyServerFlags();
    EXPECT_TRUE(SUCompatFlag::GetBool(L"VELD_USE_11GSORT"));
    EXPECT_EQ(SUCompatFlag::GetInt(L"VELD_MAX_UNION_ALL_CHILDREN"), 8);
    SUCompatFlag::Reset();

    // A catalog built in code can hold what the text would refuse; making the session
    // reports it instead.
    RqCatalog bad;
    bad.m_sessionFlags.push_back({L"VELD_ENABLE_HASH_GROUP_BY", L"many", true});
    EXPECT_THROW(bad.MakeSession(), ErrorMessage);
}

TEST(CatalogTextTest, MalformedCatalogsReportWhereAndWhat) {
    struct Case {
        std::string m_text;
        int m_line;
        int m_column;
        const char* m_message;
    };
    const std::string db = "database D ansisql {\n";
    const std::string t = db + "  table T { column A INTEGER column B INTEGER }\n";
    const Case cases[] = {
        {"databse D ansisql {}", 1, 1, "unknown keyword 'databse'; expected database, join"},
        {"}", 1, 1, "expected database, join, session or server, found '}'"},
        {"database D ansisq {}", 1, 12, "unknown target type 'ansisq' (did you mean 'ansisql'?)"},
        {"database D 8 {}", 1, 12, "unknown target type '8'"},
        {"database D ansisql { features default without (ORDER_BY, SORTING) }", 1, 58,
         "unknown feature 'SORTING'"},
        {"database D ansisql { pool P features () }", 1, 29, "features must come first"},
        {"database D ansisql { pool P pool P }", 1, 34,
         "There already is a connection pool named \"P\" in database \"D\""},
        {"database D ansisql {}\ndatabase D odbc {}", 2, 10,
         "There already is a database named \"D\" in the repository"},
        {"database \"\" ansisql {}", 1, 10, "a database needs a name"},
        {db + "  table s.T {}\n  table s.T {}\n}", 3, 9,
         "There already is a table named \"s\".\"T\""},
        {db + "  table T {\n    column A INTEGER\n    column A DATE\n  }\n}", 4, 12,
         "There already is a column named \"A\""},
        {db + "  table T {\n    column A INTEGER compted\n  }\n}", 3, 22,
         "unknown column kind 'compted' (did you mean 'computed'?)"},
        {db + "  table T {\n    column A INTEGER\n    colum B DATE\n  }\n}", 4, 5,
         "unknown keyword 'colum' in a table; expected column, key or '}'"},
        {db + "  table T {\n    column A VARCHAR(-1)\n  }\n}", 3, 22,
         "expected a length, found '-1'"},
        {db + "  table T {\n    column A INTEGER\n    key PK (A, Z)\n  }\n}", 4, 16,
         "table T has no column 'Z'"},
        {db + "  table T {\n    column A INTEGER\n    key PK (A, A)\n  }\n}", 4, 9,
         "names the column \"A\" twice"},
        {t + "}\njoin D.T -> D.U many_to_one", 4, 15, "database D has no table U"},
        {t + "}\njoin D.T -> E.T many_to_one", 4, 13, "unknown database 'E'"},
        {t + "}\njoin D.T -> D.T several", 4, 17, "unknown join cardinality 'several'"},
        {t + "}\njoin D.T -> D.T one_to_one\njoin D.T -> D.T one_to_one", 5, 6,
         "already have a complex join"},
        {"session { flag VELD_NO_SUCH = true }", 1, 16,
         "unknown compatibility flag 'VELD_NO_SUCH'"},
        {"session { flag VELD_ENABLE_HASH_GROUP_BY = on }", 1, 44,
         "VELD_ENABLE_HASH_GROUP_BY takes an integer, found 'on'"},
        {"session { flag VELD_ENABLE_AVERAGE_REWRITE = 2 }", 1, 46,
         "VELD_ENABLE_AVERAGE_REWRITE takes true or false, found '2'"},
        {"session { flag VELD_USE_11GSORT = true }", 1, 16, "set it in the server block"},
        {"server { property A = 1 }", 1, 10, "the server block holds only flags"},
        {"session { property A = 1\n property A = \"x\" }", 2, 11, "is already set"},
        {"session { property A = x }", 1, 24, "expected a string or an integer, found 'x'"},
        {"session { property A = \"open }", 1, 24, "unterminated string"},
        {"database D ansisql {\n  pool P\n", 3, 1,
         "expected pool, table or '}', found end of input"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_text);
        try {
            RqCatalogText::Read(c.m_text, "bad.catalog");
            ADD_FAILURE() << "no error raised";
        } catch (const RqTextError& e) {
            EXPECT_EQ(e.GetFile(), "bad.catalog");
            EXPECT_EQ(e.GetLine(), c.m_line) << e.what();
            EXPECT_EQ(e.GetColumn(), c.m_column) << e.what();
            EXPECT_NE(e.GetMessage().find(c.m_message), std::string::npos) << e.what();
        }
    }
}
