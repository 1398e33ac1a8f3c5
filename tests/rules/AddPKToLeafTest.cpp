// AddPKToLeaf through its API: the candidate test it asks of the OR-to-UNION rewrite, the
// result flags and Visit answers, a block applied without a parent, and the assertions and
// the error on broken inputs. What the rule does to whole requests is shown by the golden
// cases in tests/golden/AddPKToLeaf/.

#include <gtest/gtest.h>

#include "Platform/ErrorMessage.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAddPKToLeaf.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUTranslateOrToUnion.h"

namespace {

constexpr std::string_view kCatalog = R"(
database Fw fennick {
    pool P
    table STOCK {
        column PART_ID INTEGER
        column QTY INTEGER
        column CREATED TIMESTAMP lastupdate
        column CHANGED TIMESTAMP lastupdate
        key PK_STOCK (PART_ID, QTY)
    }
    table PARTS {
        column PART_ID INTEGER
        column NAME VARCHAR(20)
        key PK_PARTS (PART_ID)
    }
    table LOG {
        column NOTE VARCHAR(20)
    }
}
database Dw ansisql {
    pool Q
    table FACTS {
        column ID INTEGER
        key PK_FACTS (ID)
    }
}
join Fw.STOCK -> Fw.PARTS many_to_one
)";

class AddPKToLeafTest : public testing::Test {
protected:
    AddPKToLeafTest()
        : m_catalog(RqCatalogText::Read(kCatalog, "test.catalog")),
          m_pSession(m_catalog.MakeSession()) {}

    // A request over the framework whose one block selects `select`, reads `from` and keeps
    // the rows of `where` (none when empty).
    Heap<RqHandleNode> Request(const std::string& select, const std::string& from,
                               const std::string& where = "",
                               const std::string& target = "fennick at=Fw") {
        std::string text = "request [target=" + target + "] {\n list @b {\n";
        if (!select.empty())
            text += "  select {\n" + select + "\n  }\n";
        text += "  from {\n" + from + "\n  }\n";
        if (!where.empty())
            text += "  where " + where + "\n";
        text += " }\n}\n";
        return Heap<RqHandleNode>(RqTextReader::Read(text, "test.rq", m_pSession.get()));
    }

    static RqList* Block(RqNode& request) { return RqCast<RqList>(request.GetIthChild(0)); }

    bool HasCandidate(const std::string& where) {
        Heap<RqHandleNode> request = Request("0: t1.QTY", "table Fw.STOCK t1", where);
        return TranslateOrToUnion::DoesFilterContainLastUpdateColumns(
            Block(*request)->GetDetailFilter(), m_pSession.get());
    }

    RqCatalog m_catalog;
    std::unique_ptr<RpSession> m_pSession;
};

const std::string kJoin =
    "join inner {\n table Fw.STOCK t1\n table Fw.PARTS t2\n on Eq(t1.PART_ID, t2.PART_ID)\n }";

TEST_F(AddPKToLeafTest, TranslateCandidatesAreOrsOfLastUpdateComparisons) {
    const std::string t = "datetime \"2026-01-01 00:00:00\"";
    const struct {
        std::string m_where;
        bool m_bCandidate;
    } cases[] = {
        {"", false},
        {"Gt(t1.CHANGED, " + t + ")", false},  // one comparison: nothing to split
        {"Or(Gt(t1.CHANGED, " + t + "), Gt(t1.CREATED, " + t + "))", true},
        {"Or(Gt(t1.CHANGED, " + t + "), Le(" + t + ", t1.CHANGED))", true},  // either side
        {"Or(Gt(t1.CHANGED, " + t + "), Gt(t1.QTY, 3))", false},       // a branch on a plain column
        {"Or(Gt(t1.CHANGED, " + t + "), IsNull(t1.CREATED))", false},  // not a comparison
        {"Or(Between(t1.CHANGED, " + t + ", " + t + "), Eq(t1.CREATED, " + t + "))", true},
        // Found in a conjunct of the normal form, beside others.
        {"And(Gt(t1.QTY, 3), Or(Gt(t1.CHANGED, " + t + "), Gt(t1.CREATED, " + t + ")))", true},
        // NOT over an AND of comparisons becomes an OR of the opposite comparisons.
        {"Not(And(Le(t1.CHANGED, " + t + "), Le(t1.CREATED, " + t + ")))", true},
        // Distributed: (a OR c) AND (b OR c), and neither conjunct is all last-update.
        {"Or(And(Gt(t1.CHANGED, " + t + "), Gt(t1.CREATED, " + t + ")), Gt(t1.QTY, 3))", false},
        // A column the repository cannot name is no last-update column.
        {"Or(Gt(t1.CHANGED(null), " + t + "), Gt(t1.CREATED, " + t + "))", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_where);
        EXPECT_EQ(HasCandidate(c.m_where), c.m_bCandidate);
    }
    EXPECT_FALSE(TranslateOrToUnion::DoesFilterContainLastUpdateColumns(nullptr, m_pSession.get()));
}

TEST_F(AddPKToLeafTest, CandidateSplitKeepsTheConditionsOrderAndLeavesTheFilter) {
    const std::string t = "datetime \"2026-01-01 00:00:00\"";
    Heap<RqHandleNode> request = Request("0: t1.QTY", "table Fw.STOCK t1",
                                         "And(Gt(t1.QTY, 3), And(Or(Gt(t1.CHANGED, " + t +
                                             "), Gt(t1.CREATED, " + t + ")), Lt(t1.QTY, 9)))");
    RqDetailFilter* filter = Block(*request)->GetDetailFilter();
    const std::string before = RqTextWriter::Write(*filter);
    std::vector<Heap<RqExprCond>> candidates;
    std::vector<Heap<RqExprCond>> others;
    EXPECT_TRUE(TranslateOrToUnion::DoesFilterContainTranslateCandidate(filter, m_pSession.get(),
                                                                        candidates, others));
    ASSERT_EQ(candidates.size(), 1u);
    ASSERT_EQ(others.size(), 2u);
    EXPECT_TRUE(candidates[0]->IsKindOf(kRqExprCondOr));
    EXPECT_TRUE(others[0]->IsKindOf(kRqExprCondGreater));
    EXPECT_TRUE(others[1]->IsKindOf(kRqExprCondLess));
    EXPECT_EQ(RqTextWriter::Write(*filter), before);
}

TEST_F(AddPKToLeafTest, ResultFlagsTellWhatThePassDid) {
    const struct {
        const char* m_what;
        std::string m_select;
        std::string m_target;
        bool m_bAdded;
        bool m_bPushed;
    } cases[] = {
        {"mandatory key", "0: t1.QTY", "fennick at=Fw", true, false},
        {"computed column", "0: Add(t1.QTY, 1)", "fennick at=Fw", true, true},
        {"one side projected", "0: t2.NAME", "fennick at=Fw", false, false},
        {"newer framework", "0: t1.QTY", "fennicknext at=Fw", true, false},
        {"other target", "0: Add(t1.QTY, 1)", "ansisql at=Fw", false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_what);
        Heap<RqHandleNode> request = Request(c.m_select, kJoin, "", c.m_target);
        AddPKToLeaf rule(m_pSession.get());
        rule.ApplyRule(*request);
        EXPECT_EQ(rule.AddedPrimaryKeyColumns(), c.m_bAdded);
        EXPECT_EQ(rule.PushedUpUnsupportedColumns(), c.m_bPushed);
        EXPECT_TRUE(RqVerifier::Verify(*request).empty());
    }
}

TEST_F(AddPKToLeafTest, VisitAnswersWhetherTheBlockWasTakenCareOf) {
    Heap<RqHandleNode> request = Request("0: t2.NAME", "table Fw.PARTS t2");
    AddPKToLeaf rule(m_pSession.get());
    // A framework block without joins needs no key, and is still the rule's: true.
    const std::string before = RqTextWriter::Write(*request);
    EXPECT_TRUE(rule.Visit(*Block(*request)));
    EXPECT_EQ(RqTextWriter::Write(*request), before);

    Heap<RqHandleNode> other = Request("0: t1.ID", "table Dw.FACTS t1", "", "ansisql at=Dw");
    EXPECT_FALSE(rule.Visit(*Block(*other)));

    // After a write, framework blocks are left alone and the walk goes on below them.
    Heap<RqHandleNode> below = Request("0: Add(t1.QTY, 1)", kJoin);
    Heap<RqWrite> write(RQ_NEW RqWrite());
    EXPECT_FALSE(rule.Visit(*write));
    EXPECT_FALSE(rule.Visit(*Block(*below)));
    EXPECT_FALSE(rule.AddedPrimaryKeyColumns());
}

TEST_F(AddPKToLeafTest, ABlockWithoutParentKeepsItsPlaceAsRoot) {
    Heap<RqHandleNode> request = Request("0: t1.QTY", kJoin);
    Heap<RqNode> block(Block(*request)->ReleaseFromParent());
    AddPKToLeaf rule(m_pSession.get());
    rule.ApplyRule(*block);
    // The part key is appended to the block itself: nothing can be put in its place.
    EXPECT_TRUE(rule.AddedPrimaryKeyColumns());
    EXPECT_EQ(RqCast<RqList>(block.Get())->GetProjection()->GetNumColumns(), 2);
    EXPECT_EQ(block->GetParent(), nullptr);
}

TEST_F(AddPKToLeafTest, ATableWithoutKeyRaises38119NamingIt) {
    Heap<RqHandleNode> request =
        Request("0: Add(t1.QTY, 1)", "join inner {\n table Fw.STOCK t1\n table Fw.LOG t2\n }");
    const std::string before = RqTextWriter::Write(*request);
    AddPKToLeaf rule(m_pSession.get());
    try {
        rule.ApplyRule(*request);
        FAIL() << "no error";
    } catch (const ErrorMessage& e) {
        EXPECT_EQ(e.GetNumber(), 38119u);
        EXPECT_NE(e.GetText().find(L"\"Fw\".\"LOG\""), std::wstring::npos);
    }
    // Keys are collected before anything is appended: the block is as it was.
    EXPECT_EQ(RqTextWriter::Write(*request), before);
}

using AddPKToLeafDeathTest = AddPKToLeafTest;

TEST_F(AddPKToLeafDeathTest, BrokenBlocksStopWithTheirAssertion) {
    const struct {
        std::string m_select;
        std::string m_from;
        const char* m_assertion;
    } cases[] = {
        {"", kJoin, "NULL != projection"},
        {"0: Add(t1.QTY, 1)\n1: t1.QTY(null)", kJoin, "!colID.IsNullID\\(\\)"},
        {"0: Add(t1.QTY, 1)", "table null t1", "!tableID.IsNullID\\(\\)"},
        {"0: Add(t1.QTY, 1)", "table 3:999 t1", "!table.IsNull\\(\\)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_assertion);
        Heap<RqHandleNode> request = Request(c.m_select, c.m_from);
        AddPKToLeaf rule(m_pSession.get());
        EXPECT_DEATH(
            rule.ApplyRule(*request),
            std::string("ASSERTION FAILED: .*SQOSUAddPKToLeaf\\.cpp:[0-9]+: ") + c.m_assertion);
    }
}

}  // namespace
