// AssignTargets: which type an identifier stands for, and that the walk gives a type back only
// where it was left unknown.

#include <gtest/gtest.h>

#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAssignTargets.h"

namespace {

constexpr std::string_view kCatalog = R"(
database Fw fennick {
    pool FwPool
    table ITEMS {
        column ID INTEGER
        key PK_ITEMS (ID)
    }
}
database Dw ansisql {
    table FACTS {
        column ID INTEGER
    }
}
)";

TEST(AssignTargets, AnIdentifierStandsForItsDatabaseDirectlyOrThroughAPool) {
    const RqCatalog catalog = RqCatalogText::Read(kCatalog, "test.catalog");
    const std::unique_ptr<RpSession> session = catalog.MakeSession();
    const RpRepository& repository = *catalog.m_pRepository;
    const RefADatabase fw = repository.FindDatabaseByName(L"Fw");
    const RefADatabase dw = repository.FindDatabaseByName(L"Dw");
    const RefAConnectionPool pool = repository.FindConnectionPoolByName(fw, L"FwPool");
    ASSERT_FALSE(pool.IsNull());
    EXPECT_EQ(AssignTargets::TargetTypeOf(session.get(), fw->GetID()), ServerInfo::kFennick);
    EXPECT_EQ(AssignTargets::TargetTypeOf(session.get(), pool->GetID()), ServerInfo::kFennick);
    EXPECT_EQ(AssignTargets::TargetTypeOf(session.get(), dw->GetID()), ServerInfo::kAnsiSql);
    EXPECT_EQ(AssignTargets::TargetTypeOf(session.get(), VoidID::NullID),
              ServerInfo::kBuiltInExecutionEngine);
    // A table is no data source, and an identifier the repository does not know stays unknown.
    const RefATable items = fw->GetTables().front();
    EXPECT_EQ(AssignTargets::TargetTypeOf(session.get(), items->GetID()), ServerInfo::kUnknown);
    EXPECT_EQ(AssignTargets::TargetTypeOf(session.get(), VoidID(kRpType_Database, 999)),
              ServerInfo::kUnknown);
}

TEST(AssignTargets, OnlyUnknownTypesAreAssignedAndEveryNodeIsReached) {
    const RqCatalog catalog = RqCatalogText::Read(kCatalog, "test.catalog");
    const std::unique_ptr<RpSession> session = catalog.MakeSession();
    // The outer block keeps its declared (wrong on purpose) type; everything else was left
    // unknown, down to the expressions of a subquery.
    const std::string text = R"(request [target=unknown] {
  list @outer [target=rowstore at=Fw] {
    select {
      0: @inner.0
    }
    from {
      derived t1 {
        list @inner [target=unknown at=Fw] {
          select {
            0: t2.ID
          }
          from {
            table Fw.ITEMS t2
          }
          where In(t2.ID, Subquery(list @sub [target=unknown at=Dw] {
            select {
              0: t3.ID
            }
            from {
              table Dw.FACTS t3
            }
          }))
        }
      }
    }
  }
})";
    Heap<RqHandleNode> request(RqTextReader::Read(text, "test.rq", session.get()));
    AssignTargets rule(session.get());
    rule.ApplyRule(*request);
    EXPECT_GT(rule.GetNumAssigned(), 0u);
    const std::string after = RqTextWriter::Write(*request, session.get());
    EXPECT_NE(after.find("request [target=engine]"), std::string::npos) << after;
    EXPECT_NE(after.find("list @outer [target=rowstore at=Fw]"), std::string::npos) << after;
    EXPECT_NE(after.find("list @inner [target=fennick"), std::string::npos) << after;
    EXPECT_NE(after.find("list @sub [target=ansisql"), std::string::npos) << after;
    EXPECT_EQ(after.find("unknown"), std::string::npos) << after;
}

}  // namespace
