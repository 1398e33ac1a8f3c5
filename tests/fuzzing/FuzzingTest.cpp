// The fuzzing tools against rules that are wrong on purpose: the generator's requests all
// mean something, a short campaign over the real rules passes, and each planted fault is
// found within a few hundred requests and reduced to a request of a handful of lines.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "BuiltinCatalog.h"
#include "Fuzz.h"
#include "FuzzCheck.h"
#include "Platform/Repository.h"
#include "Platform/ZKAssert.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"
#include "Reducer.h"
#include "RqRequestGenerator.h"

namespace {

// Drops the WHERE clause of every block: wrong whenever a filter removes a row.
class DropFilter : public RqNodeVisitorDefaults<RewriteRule> {
public:
    bool StillActive() const override { return false; }
    void Reset() override {}
    bool Visit(RqList& list) override {
        if (list.GetDetailFilter() != nullptr)
            delete list.GetDetailFilter()->ReleaseFromParent();
        return false;
    }
};

// Turns every inner join with a condition into a left outer join: wrong whenever a left row
// has no partner.
class InnerToLeft : public RqNodeVisitorDefaults<RewriteRule> {
public:
    bool StillActive() const override { return false; }
    void Reset() override {}
    bool Visit(RqTableReference& reference) override {
        if (reference.GetJoinType() == SqlTableRef::kInnerJoin &&
            reference.GetRightNode() != nullptr && reference.GetSearchCond() != nullptr)
            reference.SetJoinType(SqlTableRef::kLeftOuterJoin);
        return false;
    }
};

// Breaks an invariant on any block that groups: the kind of fault that kills the optimizer.
class AssertOnGroupBy : public RqNodeVisitorDefaults<RewriteRule> {
public:
    bool StillActive() const override { return false; }
    void Reset() override {}
    bool Visit(RqList& list) override {
        ZK_ASSERT(list.GetGroupBy() == nullptr);
        return false;
    }
};

// Never finishes on a request: the kind of fault a time limit must catch.
class Spin : public RqNodeVisitorDefaults<RewriteRule> {
public:
    bool StillActive() const override { return false; }
    void Reset() override {}
    bool Visit(RqHandleNode&) override {
        for (volatile bool bForever = true; bForever;) {
        }
        return false;
    }
};

template <class Rule>
std::unique_ptr<RewriteRule> Make(const RuleContext&, const NoRuleOptions&) {
    return std::make_unique<Rule>();
}

const std::vector<RuleInfo>& PlantedRules() {
    static const std::vector<RuleInfo> table = {
        RuleInfo::Make<NoRuleOptions>("DropFilter", "Drops every WHERE.", &Make<DropFilter>),
        RuleInfo::Make<NoRuleOptions>("InnerToLeft", "Inner joins become left joins.",
                                      &Make<InnerToLeft>),
        RuleInfo::Make<NoRuleOptions>("AssertOnGroupBy", "Asserts on a grouping.",
                                      &Make<AssertOnGroupBy>),
        RuleInfo::Make<NoRuleOptions>("Spin", "Never finishes.", &Make<Spin>),
    };
    return table;
}

struct FuzzOutput {
    int m_status;
    std::string m_out;
    std::string m_err;
};

FuzzOutput Fuzz(const std::vector<std::string>& args,
                const std::vector<RuleInfo>* table = nullptr) {
    std::ostringstream out, err;
    const int status = RunRqfuzz(args, out, err, table);
    return {status, out.str(), err.str()};
}

std::string TempDir(const std::string& name) {
    std::string dir = testing::TempDir() + "rqfuzz-" + name;
    std::filesystem::remove_all(dir);
    return dir;
}

// The file of the first failure rqfuzz reported.
std::string FirstFailureFile(const std::string& out) {
    const size_t fail = out.find("FAIL ");
    if (fail == std::string::npos)
        return "";
    const size_t end = out.find('\n', fail);
    const size_t colon = out.rfind(": ", end);
    return out.substr(colon + 2, end - colon - 2);
}

TEST(RequestGenerator, EveryRequestReadsVerifiesAndRenders) {
    const RqCatalog catalog = RqCatalogText::Read(
        "database D ansisql { table T { column A INTEGER column B VARCHAR(10) column C DOUBLE }"
        " table U { column A INTEGER column D DATE } }",
        "catalog");
    const std::string path = testing::TempDir() + "rqfuzz-small.catalog";
    std::ofstream(path) << RqCatalogText::Write(catalog);
    FuzzCheckOptions options;
    options.m_catalog = path;
    options.m_seeds = {1};
    options.m_bIsolate = false;
    const FuzzChecker checker(options);
    RqRequestGenerator generator(*catalog.m_pRepository);
    EXPECT_EQ(generator.Generate(7), generator.Generate(7));
    EXPECT_NE(generator.Generate(7), generator.Generate(8));
    size_t comparable = 0;
    for (uint64_t seed = 1; seed <= 150; ++seed) {
        const std::string text = generator.Generate(seed);
        const FuzzVerdict verdict = checker.Check(text, {});
        ASSERT_NE(verdict.m_kind, FuzzVerdict::kInvalid) << verdict.m_detail << text;
        EXPECT_TRUE(verdict.m_bRendered) << verdict.m_detail << text;
        comparable += verdict.m_kind == FuzzVerdict::kPass;
    }
    EXPECT_GE(comparable, 120u);
}

// The weights keep every shape the rules act on in the stream: a change that starves one of
// them makes the campaigns blind to it.
TEST(RequestGenerator, CoversTheShapesTheRulesActOn) {
    const RqCatalog catalog = RqCatalogText::Read(RqoptBuiltinCatalog(), "sample");
    RqRequestGenerator generator(*catalog.m_pRepository);
    const std::vector<std::string> shapes = {
        "join inner",  "join left", "join right",      "join full",   "derived",
        "union",       "intersect", "except",          "breakfilter", "Exists(Subquery(",
        ", Subquery(", "groupby",   "having",          "summary",     "by=(",
        "distinct",    "limit=",    "offset=",         "IfCase(",     "Not(",
        "Or(",         "orderby",   "[target=engine]", "at=CrmDB"};
    std::map<std::string, int> seen;
    const int requests = 300;
    for (int seed = 1; seed <= requests; ++seed) {
        const std::string text = generator.Generate(static_cast<uint64_t>(seed));
        for (const std::string& shape : shapes)
            seen[shape] += text.find(shape) != std::string::npos;
    }
    for (const std::string& shape : shapes)
        EXPECT_GE(seen[shape], requests * 3 / 100) << shape;
}

TEST(Rqfuzz, ShortRunOverTheRegisteredRulesPasses) {
    const FuzzOutput run =
        Fuzz({"--requests", "300", "--quiet", "--check-seeds", "1", "--out", TempDir("short")});
    EXPECT_EQ(run.m_status, kFuzzOk) << run.m_out;
    EXPECT_NE(run.m_out.find("rqfuzz: 300 requests"), std::string::npos) << run.m_out;
    EXPECT_EQ(run.m_out.find("FAIL"), std::string::npos) << run.m_out;
}

// The planted fault is found, saved and reduced to a few lines that still fail the same way.
void ExpectFoundAndReduced(const std::string& rule, const std::string& kind) {
    const std::string dir = TempDir(rule);
    const FuzzOutput run =
        Fuzz({"--rules", rule, "--requests", "1000", "--stop-after", "1", "--quiet", "--out", dir},
             &PlantedRules());
    ASSERT_EQ(run.m_status, kFuzzFailures) << run.m_out;
    EXPECT_NE(run.m_out.find("FAIL " + kind + " " + rule), std::string::npos) << run.m_out;
    const std::string file = FirstFailureFile(run.m_out);
    ASSERT_TRUE(std::filesystem::exists(file)) << run.m_out;

    // The saved file names the data seed in its header; the reducer needs it.
    std::ifstream saved(file);
    std::string header;
    std::getline(saved, header);
    const size_t at = header.find("data seed ");
    ASSERT_NE(at, std::string::npos) << header;
    const std::string seed = header.substr(at + 10, header.find(',', at) - at - 10);

    std::ostringstream out, err;
    ASSERT_EQ(RunRqreduce({"--rules", rule, "--seed", seed, file}, out, err, &PlantedRules()),
              kFuzzOk)
        << err.str();
    const std::string reduced = out.str();
    EXPECT_LE(RequestReducer::CountLines(reduced), 15u) << reduced;
    EXPECT_NE(err.str().find("steps"), std::string::npos);

    FuzzCheckOptions options;
    options.m_seeds = {std::stoull(seed)};
    const FuzzVerdict verdict =
        FuzzChecker(options).Check(reduced, RuleRegistry::ParseRuleList(rule, PlantedRules()));
    EXPECT_EQ(FuzzVerdict::KindName(verdict.m_kind), kind) << reduced;
}

TEST(Rqfuzz, DroppedFilterIsFoundAndReduced) {
    ExpectFoundAndReduced("DropFilter", "different");
}

TEST(Rqfuzz, InnerJoinMadeOuterIsFoundAndReduced) {
    ExpectFoundAndReduced("InnerToLeft", "different");
}

TEST(Rqfuzz, AnAssertionInARuleIsACrashOfThatRule) {
    const FuzzOutput run = Fuzz({"--rules", "AssertOnGroupBy", "--requests", "200", "--stop-after",
                                 "1", "--quiet", "--out", TempDir("assert")},
                                &PlantedRules());
    ASSERT_EQ(run.m_status, kFuzzFailures) << run.m_out;
    EXPECT_NE(run.m_out.find("FAIL crash AssertOnGroupBy"), std::string::npos) << run.m_out;
    std::ifstream saved(FirstFailureFile(run.m_out));
    std::ostringstream text;
    text << saved.rdbuf();
    EXPECT_NE(text.str().find("GetGroupBy() == nullptr"), std::string::npos) << text.str();
}

// A check that runs out of time is a crash of its rules only when the rules alone do: a check
// whose statements outlast it on SQLite says so and is no failure.
TEST(FuzzChecker, TimeOutsBlameTheRulesOnlyWhenTheRulesLoop) {
    FuzzCheckOptions options;
    options.m_seeds = {1};
    options.m_rows = 1000;
    options.m_timeLimitS = 1;
    const FuzzChecker checker(options);
    // Sums over the cross product of four tables: far more than a second of SQLite's work.
    const std::string slow =
        "request {\n  list @a {\n    select {\n"
        "      0: Sum(Add(t1.AMOUNT, Add(t2.AMOUNT, t3.AMOUNT)))\n    }\n"
        "    from {\n      table SalesDW.dw.FACT_SALES t1\n"
        "      table SalesDW.dw.FACT_SALES t2\n      table SalesDW.dw.FACT_SALES t3\n"
        "      table SalesDW.dw.FACT_SALES t4\n"
        "    }\n  }\n}\n";
    const FuzzVerdict slowCheck =
        checker.Check(slow, {RuleRegistry::ParseRuleSpec("DeleteOrphanCols")});
    EXPECT_EQ(slowCheck.m_kind, FuzzVerdict::kNotComparable) << slowCheck.m_detail;
    EXPECT_NE(slowCheck.m_detail.find("the check ran past 1 seconds"), std::string::npos)
        << slowCheck.m_detail;

    const std::string quick =
        "request {\n  list @a {\n    select {\n      0: t1.AMOUNT\n    }\n"
        "    from {\n      table SalesDW.dw.FACT_SALES t1\n    }\n  }\n}\n";
    const FuzzVerdict spin =
        checker.Check(quick, {RuleRegistry::ParseRuleSpec("Spin", PlantedRules())});
    EXPECT_EQ(spin.m_kind, FuzzVerdict::kCrash) << spin.m_detail;
    EXPECT_EQ(spin.m_rule, "Spin");
    EXPECT_NE(spin.m_detail.find("timed out: the rules alone"), std::string::npos) << spin.m_detail;
}

TEST(Rqreduce, ACommandDecidesWhatFailureMeans) {
    // The failure: the request still reads the returns table.
    const std::string path = testing::TempDir() + "rqreduce-command.rq";
    std::ofstream(path) << "request {\n  list @a {\n    select {\n      0: t1.AMOUNT\n"
                           "      1: t2.REASON\n    }\n    from {\n      join left {\n"
                           "        table SalesDW.dw.FACT_SALES t1\n"
                           "        table CrmDB.crm.RETURNS t2\n"
                           "        on Eq(t1.SALE_ID, t2.SALE_ID)\n      }\n    }\n"
                           "    where Gt(t1.AMOUNT, 3)\n    orderby 0\n  }\n}\n";
    std::ostringstream out, err;
    ASSERT_EQ(RunRqreduce({"--command", "grep -q RETURNS", path}, out, err), kFuzzOk) << err.str();
    EXPECT_NE(out.str().find("CrmDB.crm.RETURNS"), std::string::npos) << out.str();
    EXPECT_EQ(out.str().find("FACT_SALES"), std::string::npos) << out.str();
    EXPECT_EQ(out.str().find("where"), std::string::npos) << out.str();
}

TEST(Rqreduce, InlinesADerivedTableThatOnlyProjects) {
    // The derived table must dissolve for the filter to name the column itself.
    const std::string path = testing::TempDir() + "rqreduce-inline.rq";
    std::ofstream(path) << "request {\n  list @outer {\n    select {\n      0: @inner.0\n"
                           "      1: @inner.1\n    }\n    from {\n      derived t2 {\n"
                           "        list @inner {\n          select {\n            0: t1.AMOUNT\n"
                           "            1: t1.QUANTITY\n          }\n          from {\n"
                           "            table SalesDW.dw.FACT_SALES t1\n          }\n        }\n"
                           "      }\n    }\n    where Gt(@inner.0, 3)\n  }\n}\n";
    // The failure: the request reads the sales and filters on their amount.
    const std::string script = testing::TempDir() + "rqreduce-inline.sh";
    std::ofstream(script)
        << "grep -q FACT_SALES \"$1\" && grep -q 'Gt(t1.AMOUNT\\|Gt(@inner.0' \"$1\"\n";
    std::ostringstream out, err;
    ASSERT_EQ(RunRqreduce({"--command", "sh " + script, path}, out, err), kFuzzOk) << err.str();
    EXPECT_EQ(out.str().find("derived"), std::string::npos) << out.str();
    EXPECT_NE(out.str().find("where Gt(t1.AMOUNT, 3)"), std::string::npos) << out.str();
}

TEST(FuzzChecker, ARowLimitThatLosesItsOrderIsNotedNotFailed) {
    // The derived block keeps its two largest sales; the rule keeps only the top ORDER BY, and
    // without its own the limit is free to keep any two.
    const std::string text =
        "request {\n  list @top {\n    select {\n      0: @page.0\n    }\n    from {\n"
        "      derived t2 {\n        list @page limit=2 {\n          select {\n"
        "            0: t1.AMOUNT\n          }\n          from {\n"
        "            table SalesDW.dw.FACT_SALES t1\n          }\n          orderby 0 desc\n"
        "        }\n      }\n    }\n    orderby 0\n  }\n}\n";
    FuzzCheckOptions options;
    options.m_bIsolate = false;
    const FuzzVerdict verdict =
        FuzzChecker(options).Check(text, RuleRegistry::ParseRuleList("RemoveRedundantOrderBy"));
    EXPECT_EQ(verdict.m_kind, FuzzVerdict::kPass) << verdict.m_detail;
    EXPECT_EQ(verdict.m_undetermined, "RemoveRedundantOrderBy");
    EXPECT_EQ(verdict.m_fired, std::vector<std::string>{"RemoveRedundantOrderBy"});
}

TEST(Rqreduce, KeepsTheMemberAndDropsTheFlagsThatDoNotMatter) {
    // The failure lies in the second member's filter: the union, the first member, the
    // row limit and DISTINCT all go.
    const std::string path = testing::TempDir() + "rqreduce-member.rq";
    std::ofstream(path)
        << "request {\n  union @u all {\n"
           "    list @a distinct limit=3 {\n      select {\n        0: t1.AMOUNT\n"
           "      }\n      from {\n        table SalesDW.dw.FACT_SALES t1\n      }\n"
           "      orderby 0 desc\n    }\n"
           "    list @b distinct {\n      select {\n        0: t2.QUANTITY\n      }\n"
           "      from {\n        table SalesDW.dw.FACT_SALES t2\n      }\n"
           "      where Ge(t2.QUANTITY, 2)\n    }\n  }\n}\n";
    std::ostringstream out, err;
    ASSERT_EQ(RunRqreduce({"--command", "grep -q 'Ge('", path}, out, err), kFuzzOk) << err.str();
    for (const char* gone : {"union", "@a", "limit=", "distinct", "AMOUNT"})
        EXPECT_EQ(out.str().find(gone), std::string::npos) << gone << "\n" << out.str();
    EXPECT_LE(RequestReducer::CountLines(out.str()), 7u) << out.str();
}

TEST(Rqreduce, RefusesARequestThatDoesNotFail) {
    const std::string path = testing::TempDir() + "rqreduce-fine.rq";
    std::ofstream(path) << "request {\n  list {\n    select {\n      0: 1\n    }\n  }\n}\n";
    std::ostringstream out, err;
    EXPECT_EQ(RunRqreduce({"--rules", "DropFilter", path}, out, err, &PlantedRules()), kFuzzUsage);
    EXPECT_NE(err.str().find("do not fail"), std::string::npos) << err.str();
}

}  // namespace
