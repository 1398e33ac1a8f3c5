// The catalog text format: the sample catalog, canonical printing, identifiers across a
// round trip, and sessions built from a catalog. The positioned errors of malformed catalogs
// are golden cases (tests/golden/errors/catalog-*.test).

#include <gtest/gtest.h>

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
