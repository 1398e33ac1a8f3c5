// The metadata repository, the session gateway and the helpers that read through it.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <unordered_set>

#include "Platform/ErrorMessage.h"
#include "Platform/Repository.h"

namespace {

class RepositoryTest : public testing::Test {
protected:
    void SetUp() override {
        m_pRepo = std::make_shared<RpRepository>();
        RpRepository& repo = *m_pRepo;
        m_db = repo.AddDatabase(L"Sales", ServerInfo::kRowStoreDatabase);
        m_mainPool = repo.AddConnectionPool(m_db, L"Main");
        m_reportPool = repo.AddConnectionPool(m_db, L"Reporting");
        m_orders = repo.AddTable(m_db, L"dbo", L"Orders");
        m_orderId = repo.AddColumn(m_orders, L"ID", kColumnKind_Plain, L"INTEGER");
        m_orderLine = repo.AddColumn(m_orders, L"Line", kColumnKind_Plain, L"INTEGER");
        repo.AddColumn(m_orders, L"Tags", kColumnKind_MultiValuedSet, L"VARCHAR");
        m_customers = repo.AddTable(m_db, L"", L"Customers");
        repo.AddColumn(m_customers, L"ID", kColumnKind_Plain, L"INTEGER");
        // Key order differs from column order on purpose.
        m_orderKey = repo.AddKey(m_orders, L"PK_Orders", {m_orderLine, m_orderId});
        m_join = repo.AddComplexJoin(m_orders, m_customers, k_Many_To_One);
    }

    std::shared_ptr<RpRepository> m_pRepo;
    RefADatabase m_db;
    RefAConnectionPool m_mainPool, m_reportPool;
    RefATable m_orders, m_customers;
    RefAColumn m_orderId, m_orderLine;
    RefAKey m_orderKey;
    RefAComplexJoin m_join;
};

}  // namespace

TEST_F(RepositoryTest, LookupsFindObjectsOfTheirKindOnly) {
    const RpRepository& repo = *m_pRepo;
    EXPECT_EQ(repo.FindObject(m_orders->GetID()).Get(), m_orders.Get());
    // Right number, wrong kind; out of range; null.
    EXPECT_TRUE(repo.FindTable(m_db->GetID()).IsNull());
    EXPECT_TRUE(repo.FindTable(VoidID(kRpType_Table, 3)).IsNull());
    EXPECT_TRUE(repo.FindTable(VoidID(kRpType_Table, 0)).IsNull());
    EXPECT_TRUE(repo.FindObject(VoidID::NullID).IsNull());
    // Names are exact, and a table is found by its schema too.
    EXPECT_TRUE(repo.FindDatabaseByName(L"sales").IsNull());
    EXPECT_EQ(repo.FindTableByName(m_db, L"dbo", L"Orders"), m_orders);
    EXPECT_TRUE(repo.FindTableByName(m_db, L"", L"Orders").IsNull());
    EXPECT_TRUE(m_orders->FindColumn(L"line").IsNull());
    // Keys keep their own column order.
    EXPECT_EQ(m_orderKey->GetColumns(), (std::vector<RefAColumn>{m_orderLine, m_orderId}));
}

TEST_F(RepositoryTest, DuplicatesAndBadDefinitionsRaiseErrors) {
    RpRepository& repo = *m_pRepo;
    const std::pair<unsigned long, std::function<void()>> refusals[] = {
        {kErr_DuplicateRepositoryName, [&] { repo.AddDatabase(L"Sales", ServerInfo::kAnsiSql); }},
        {kErr_DuplicateRepositoryName, [&] { repo.AddConnectionPool(m_db, L"Main"); }},
        {kErr_DuplicateRepositoryName, [&] { repo.AddTable(m_db, L"dbo", L"Orders"); }},
        {kErr_DuplicateRepositoryName, [&] { repo.AddColumn(m_orders, L"ID"); }},
        {kErr_DuplicateRepositoryName, [&] { repo.AddKey(m_orders, L"PK_Orders", {m_orderId}); }},
        {kErr_InvalidRepositoryDefinition, [&] { repo.AddTable(m_db, L"dbo", L""); }},
        {kErr_InvalidRepositoryDefinition, [&] { repo.AddKey(m_customers, L"K", {}); }},
        {kErr_InvalidRepositoryDefinition, [&] { repo.AddKey(m_customers, L"K", {m_orderId}); }},
        {kErr_InvalidRepositoryDefinition,
         [&] {
             repo.AddKey(m_orders, L"K", {m_orderId, m_orderId});
         }},
        // The join exists already; the reverse order is the same pair of tables.
        {kErr_InvalidRepositoryDefinition,
         [&] { repo.AddComplexJoin(m_customers, m_orders, k_One_To_Many); }},
    };
    for (const auto& [number, refused] : refusals) {
        try {
            refused();
            ADD_FAILURE() << "no ErrorMessage raised, expected " << number;
        } catch (const ErrorMessage& e) {
            EXPECT_EQ(e.GetNumber(), number) << e.what();
        }
    }
    ErrorMessage::ClearLastPrethrown();
    // The same names are fine in another scope, and failed additions left nothing behind.
    EXPECT_NO_THROW(repo.AddTable(m_db, L"other", L"Orders"));
    EXPECT_NO_THROW(repo.AddColumn(m_customers, L"Line"));
    EXPECT_EQ(repo.GetDatabases().size(), 1u);
    EXPECT_EQ(m_orders->GetKeys().size(), 1u);
    EXPECT_EQ(repo.GetComplexJoins().size(), 1u);
}

TEST_F(RepositoryTest, ComplexJoinIsFoundAndReadFromEitherSide) {
    const RpRepository& repo = *m_pRepo;
    EXPECT_EQ(repo.FindComplexJoinBetween(m_customers->GetID(), m_orders->GetID()), m_join);
    EXPECT_EQ(m_join->GetCardinalityFrom(m_orders->GetID()), k_Many_To_One);
    EXPECT_EQ(m_join->GetCardinalityFrom(m_customers->GetID()), k_One_To_Many);
    EXPECT_EQ(m_join->GetName(), ZKString(L"Orders_Customers"));
    EXPECT_TRUE(repo.FindComplexJoinBetween(m_orders->GetID(), m_orders->GetID()).IsNull());
    for (int c = kUnknownCardinality; c <= k_Many_To_ZeroOrOne; ++c)
        EXPECT_EQ(AComplexJoin::Reverse(AComplexJoin::Reverse(JoinCardinality(c))), c);
    EXPECT_EQ(AComplexJoin::Reverse(k_ZeroOrOne_To_Many), k_Many_To_ZeroOrOne);
}

TEST_F(RepositoryTest, RelationsIterateByIdentifierInRepositoryOrder) {
    RpSession session(m_pRepo);
    const VoidRelIter keyColumns(&session, m_orderKey->GetID(), RpRepository::kRel_KeyColumns);
    EXPECT_EQ(std::vector<VoidID>(keyColumns.begin(), keyColumns.end()),
              (std::vector<VoidID>{m_orderLine->GetID(), m_orderId->GetID()}));
    EXPECT_EQ(
        VoidRelIter(&session, VoidID(kRpType_Table, 99), RpRepository::kRel_TableKeys).Count(), 0u);
    EXPECT_DEATH(VoidRelIter(&session, m_db->GetID(), RpRepository::kRel_TableColumns),
                 "ASSERTION FAILED");
    EXPECT_TRUE(RefHelper::GetTable(&session, m_db->GetID()).IsNull());
}

TEST_F(RepositoryTest, QualifiedNamesQuoteEachPart) {
    EXPECT_EQ(MetadataUtil::GenerateQualifiedName(m_orders),
              ZKString(L"\"Sales\".\"dbo\".\"Orders\""));
    EXPECT_EQ(MetadataUtil::GenerateQualifiedName(m_customers),
              ZKString(L"\"Sales\".\"Customers\""));
    const RefADatabase odd = m_pRepo->AddDatabase(L"My \"DB\"", ServerInfo::kAnsiSql);
    EXPECT_EQ(MetadataUtil::GenerateQualifiedName(m_pRepo->AddTable(odd, L"s\"", L"t")),
              ZKString(L"\"My \"\"DB\"\"\".\"s\"\"\".\"t\""));
}

TEST_F(RepositoryTest, ReferencesOutliveTheRepositoryObject) {
    RefATable orders = m_orders;
    std::weak_ptr<RpRepository> weak = m_pRepo;
    SetUp();  // replaces every member, dropping the last owner of the first repository
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(orders->GetDatabase()->GetName(), ZKString(L"Sales"));
    EXPECT_EQ(orders->GetColumns().size(), 3u);
}

TEST_F(RepositoryTest, SessionPropertiesTargetsAndPools) {
    RpSession session(m_pRepo);
    ZKString text;
    long long number = 0;
    session.SetIntegerSessionProperty(L"P", -17);
    EXPECT_TRUE(session.GetStringSessionProperty(L"P", text) && text == L"-17");
    session.SetStringSessionProperty(L"P", L"abc");
    EXPECT_FALSE(session.GetIntegerSessionProperty(L"P", number));
    session.SetStringSessionProperty(L"P", L" 42 ");
    EXPECT_TRUE(session.GetIntegerSessionProperty(L"P", number) && number == 42);
    EXPECT_TRUE(session.RemoveSessionProperty(L"P"));
    EXPECT_FALSE(session.GetStringSessionProperty(L"P", text));

    // A target is a database or one of its pools.
    EXPECT_EQ(session.GetDatabaseByTargetID(m_reportPool->GetID()), m_db);
    EXPECT_TRUE(session.GetDatabaseByTargetID(m_orders->GetID()).IsNull());
    EXPECT_TRUE(session.GetDatabaseByTargetID(VoidID(kRpType_ConnectionPool, 50)).IsNull());

    // The session chooses a database's pool by name; without a choice the first one.
    EXPECT_EQ(Authorization::ConnectionPoolFrom_UserDatabase(&session, m_db), m_mainPool);
    EXPECT_EQ(Authorization::ConnectionPoolFrom_UserDatabase(nullptr, m_db), m_mainPool);
    session.SetStringSessionProperty(L"CONNECTION_POOL.Sales", L"Reporting");
    EXPECT_EQ(Authorization::ConnectionPoolFrom_UserDatabase(&session, m_db), m_reportPool);
    session.SetStringSessionProperty(L"CONNECTION_POOL.Sales", L"Missing");
    EXPECT_TRUE(Authorization::ConnectionPoolFrom_UserDatabase(&session, m_db).IsNull());
    const RefADatabase bare = m_pRepo->AddDatabase(L"Bare", ServerInfo::kAnsiSql);
    EXPECT_TRUE(Authorization::ConnectionPoolFrom_UserDatabase(&session, bare).IsNull());
}

TEST_F(RepositoryTest, ReadersRunWhileTheRepositoryGrows) {
    std::atomic<bool> done{false};
    std::atomic<bool> shrank{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            std::size_t last = 0;
            while (!done) {
                const std::size_t now = m_orders->GetColumns().size();
                if (now < last || m_pRepo->FindTableByName(m_db, L"dbo", L"Orders") != m_orders)
                    shrank = true;
                last = now;
            }
        });
    }
    for (int i = 0; i < 2000; ++i) {
        m_pRepo->AddColumn(m_orders, ZKString(L"C") + ZKString::FromInt(i));
        m_pRepo->AddTable(m_db, L"grow", ZKString(L"T") + ZKString::FromInt(i));
    }
    done = true;
    for (std::thread& t : readers)
        t.join();
    EXPECT_FALSE(shrank);
    EXPECT_EQ(m_pRepo->FindColumn(VoidID(kRpType_Column, 2004))->GetName(), ZKString(L"C1999"));
}

TEST(VoidIDTest, TextFormRoundTripsAndOrderIsSignedTypeThenUnsignedNumber) {
    for (const VoidID id :
         {VoidID(3, 17), VoidID(-5, 0), VoidID::NullID, VoidID(INT32_MIN, UniqueNum::kUndefined)}) {
        VoidID back(1, 1);
        EXPECT_TRUE(VoidID::FromString(id.ToString(), back) && back == id)
            << id.ToString().ToUtf8();
    }
    VoidID untouched(7, 7);
    for (const wchar_t* bad :
         {L"", L"3", L":4", L"3:-4", L"3: 4", L"3:4294967296", L"2147483648:1"})
        EXPECT_FALSE(VoidID::FromString(bad, untouched)) << ZKString(bad).ToUtf8();
    EXPECT_EQ(untouched, VoidID(7, 7));
    EXPECT_LT(VoidID(-1, 5), VoidID(0, 0));
    EXPECT_LT(VoidID(1, 1), VoidID(1, 0x80000000u));
    EXPECT_EQ(std::unordered_set<VoidID>({VoidID(1, 2), VoidID(2, 1), VoidID(1, 2)}).size(), 2u);
}
