// Requests at the edges of what the check reaches: deep nesting, long compounds, wide blocks
// and writes are compared, and quickly; what SQLite cannot prepare in time is refused with
// the reason; tables whose qualified names read alike stay apart; the generated data leaves
// its narrow ranges often enough to matter.

#include <chrono>
#include <cmath>
#include <ctime>

#include "SqlTestCatalog.h"

namespace {

class SqlCheckReachTest : public SqlTestCatalog {
protected:
    // Compares a request with itself on generated data, within a second of processor time
    // (the machine's other work does not count).
    void ExpectSameQuickly(const std::string& text) const {
        Heap<RqNode> request(Read(text));
        ASSERT_TRUE(request);
        const std::clock_t start = std::clock();
        const SqlCheckOutcome outcome = SqlCheck::Compare(*request, *request, Rp());
        const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
        EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kSame) << outcome.Report();
        EXPECT_LT(seconds, 1.0) << text.substr(0, 60);
    }
};

// A block over the orders, with a condition when one is given.
std::string OrdersBlock(const std::string& label, int tableNum, const std::string& where = "") {
    const std::string t = "t" + std::to_string(tableNum);
    return "list @" + label + " { select { 0: " + t + ".REGION 1: " + t +
           ".AMOUNT } from { table Shop.dw.ORDERS " + t + " }" +
           (where.empty() ? "" : " where " + where) + " }";
}

TEST_F(SqlCheckReachTest, DeepWideAndLongRequestsAreCompared) {
    // A hundred derived tables, each block reading the one below it, with an ORDER BY and a
    // row limit halfway down whose choice the blocks above keep.
    std::string nested = OrdersBlock("l0", 1);
    for (int k = 1; k <= 100; ++k) {
        const std::string inner = "@l" + std::to_string(k - 1);
        nested = "list @l" + std::to_string(k) + " { select { 0: " + inner + ".0 1: " + inner +
                 ".1 } from { derived t" + std::to_string(k + 1) + " { " + nested + " } }" +
                 (k == 50 ? " where Gt(" + inner + ".1, 0)" : "") + " }";
    }
    ExpectSameQuickly("request { " + nested + " }");

    // EXISTS forty deep, each subquery reading no enclosing row.
    std::string exists = "list { select { 0: t41.ORDER_ID } from { table Shop.dw.ORDERS t41 } }";
    for (int k = 40; k >= 1; --k) {
        const std::string t = "t" + std::to_string(k);
        exists = "list { select { 0: " + t + ".ORDER_ID } from { table Shop.dw.ORDERS " + t +
                 " } where Exists(Subquery(" + exists + ")) }";
    }
    ExpectSameQuickly("request { " + exists + " }");

    std::string branches;
    for (int k = 0; k < 2000; ++k)
        branches += OrdersBlock("b" + std::to_string(k), 1,
                                "Eq(t1.ORDER_ID, " + std::to_string(k % 700) + ")") +
                    " ";
    ExpectSameQuickly("request { union all { " + branches + "} }");
    // A chain of distinct unions keeps its meaning when read in runs.
    ExpectSameQuickly("request { union { " + branches + "} }");

    std::string columns;
    for (int k = 0; k < 1500; ++k)
        columns += std::to_string(k) + ": " + (k % 2 == 0 ? "t1.AMOUNT " : "t1.REGION ");
    ExpectSameQuickly("request { list { select { " + columns +
                      "} from { table Shop.dw.ORDERS t1 } } }");

    ExpectSameQuickly(
        "request { Write \"REGION_TOTALS\" { list { select { 0: t1.REGION 1: Sum(t1.AMOUNT) } "
        "from { table Shop.dw.ORDERS t1 } groupby (t1.REGION) orderby 0 } } }");
}

TEST_F(SqlCheckReachTest, AWriteIsComparedByTheRowsItWrites) {
    Heap<RqNode> before(Read(
        "request { Write \"BIG\" { list { select { 0: t1.ORDER_ID } from { table Shop.dw.ORDERS "
        "t1 } where Gt(t1.AMOUNT, 10) } } }"));
    Heap<RqNode> after(Read(
        "request { Write \"BIG\" { list { select { 0: t1.ORDER_ID } from { table Shop.dw.ORDERS "
        "t1 } where Gt(t1.AMOUNT, 11) } } }"));
    ASSERT_TRUE(before && after);
    const SqlCheckOutcome outcome = SqlCheck::Compare(*before, *after, Rp());
    EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kDifferent) << outcome.Report();
}

// A balanced tree of ANDs and ORs over `leaves` comparisons.
std::string Balanced(int lo, int hi, bool bAnd) {
    if (hi - lo == 1)
        return "Eq(t1.CUST_ID, " + std::to_string(lo) + ")";
    const int middle = (lo + hi) / 2;
    return std::string(bAnd ? "And(" : "Or(") + Balanced(lo, middle, !bAnd) + ", " +
           Balanced(middle, hi, !bAnd) + ")";
}

TEST_F(SqlCheckReachTest, WhatSqliteCannotPrepareInTimeIsRefusedQuickly) {
    // SQLite takes well over a minute to prepare this condition, and cannot be interrupted
    // while it does.
    Heap<RqNode> wide(
        Read("request { list { select { 0: t1.ORDER_ID } from { table "
             "Shop.dw.ORDERS t1 } where " +
             Balanced(0, 100000, true) + " } }"));
    ASSERT_TRUE(wide);
    const auto start = std::chrono::steady_clock::now();
    const SqlCheckOutcome outcome = SqlCheck::Compare(*wide, *wide, Rp());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kNotComparable);
    EXPECT_NE(outcome.m_reason.find("too large"), std::string::npos) << outcome.m_reason;

    // The time of the whole check holds however many statements it runs.
    Heap<RqNode> small(
        Read("request { list { select { 0: t1.ORDER_ID } from { table "
             "Shop.dw.ORDERS t1 } where " +
             Balanced(0, 8, true) + " } }"));
    ASSERT_TRUE(small);
    SqlCheckOptions options;
    options.m_totalTimeLimitMs = 0;
    const SqlCheckOutcome late = SqlCheck::Compare(*small, *small, Rp(), options);
    EXPECT_EQ(late.m_kind, SqlCheckOutcome::kNotComparable);
    EXPECT_NE(late.m_reason.find("interrupted"), std::string::npos) << late.m_reason;
}

TEST_F(SqlCheckReachTest, QualifiedNamesThatReadAlikeNameDifferentTables) {
    // Database "X.y" with table Z, and database X with schema y and table Z.
    RefATable dotted = m_pRepository->AddTable(
        m_pRepository->AddDatabase(L"X.y", ServerInfo::kAnsiSql), L"", L"Z");
    m_pRepository->AddColumn(dotted, L"V", kColumnKind_Plain, L"INTEGER");
    RefATable schema =
        m_pRepository->AddTable(m_pRepository->AddDatabase(L"X", ServerInfo::kAnsiSql), L"y", L"Z");
    m_pRepository->AddColumn(schema, L"V", kColumnKind_Plain, L"INTEGER");
    EXPECT_NE(SqlRenderer::GetTableName(*dotted), SqlRenderer::GetTableName(*schema));

    // Tables named by identifier: the qualified names themselves read alike.
    Heap<RqNode> request(Read("request { list { select { 0: t1.V 1: t2.V } from { table " +
                              dotted->GetID().ToString().ToUtf8() + " t1 table " +
                              schema->GetID().ToString().ToUtf8() + " t2 } } }"));
    ASSERT_TRUE(request);
    SqlCheckSession session(Rp(), SqlCheckOptions());
    std::string error;
    ASSERT_TRUE(session.LoadRows(*dotted, {{I(1)}}, error)) << error;
    ASSERT_TRUE(session.LoadRows(*schema, {{I(2)}}, error)) << error;
    const SqlRunResult result = session.Run(*request);
    ASSERT_TRUE(result.m_bComparable) << result.m_reason;
    EXPECT_EQ(SortedRows(result.m_rows), std::vector<std::string>{"1|2"});
}

TEST_F(SqlCheckReachTest, GeneratedDataLeavesItsNarrowRanges) {
    RefATable wide = m_pRepository->AddTable(
        m_pRepository->AddDatabase(L"Wide", ServerInfo::kAnsiSql), L"", L"FACTS");
    m_pRepository->AddColumn(wide, L"N", kColumnKind_Plain, L"INTEGER");
    m_pRepository->AddColumn(wide, L"X", kColumnKind_Plain, L"DOUBLE");
    m_pRepository->AddColumn(wide, L"S", kColumnKind_Plain, L"VARCHAR(400)");
    m_pRepository->AddColumn(wide, L"D", kColumnKind_Plain, L"DATE");
    SqlDataOptions options;
    options.m_seed = 3;
    options.m_rows = 2000;
    SqlDataGenerator generator(*m_pRepository, options);
    int64_t minInt = 0, maxInt = 0;
    double maxReal = 0;
    size_t longest = 0;
    bool bNonAscii = false;
    std::set<std::string> years;
    for (const SqlRow& row : generator.MakeRows(*wide)) {
        if (row[0].m_type == SqlValue::kInteger) {
            minInt = std::min(minInt, row[0].m_int);
            maxInt = std::max(maxInt, row[0].m_int);
        }
        if (row[1].m_type == SqlValue::kReal)
            maxReal = std::max(maxReal, std::fabs(row[1].m_real));
        if (row[2].m_type == SqlValue::kText) {
            longest = std::max(longest, row[2].m_text.size());
            for (char c : row[2].m_text)
                bNonAscii = bNonAscii || static_cast<unsigned char>(c) >= 0x80;
        }
        if (row[3].m_type == SqlValue::kText)
            years.insert(row[3].m_text.substr(0, 4));
    }
    EXPECT_LT(minInt, -1000000);
    EXPECT_GT(maxInt, 1000000);
    EXPECT_GT(maxReal, 10000.0);
    EXPECT_GT(longest, 100u);
    EXPECT_TRUE(bNonAscii);
    EXPECT_GE(years.size(), 5u);
}

}  // namespace
