// Assertion reporting, logic errors and the user-facing error messages.

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "Platform/ErrorMessage.h"
#include "Platform/ZKAssert.h"

namespace {

void QuietReporter(const wchar_t*, const wchar_t*, int, const wchar_t* text) {
    std::fprintf(stderr, "custom reporter saw: %s\n", ZKToUtf8(text).c_str());
    std::fflush(stderr);
}

int Twice(int x) {
    ZK_ASSERT(x >= 0);
    return 2 * x;
}

}  // namespace

TEST(ZKAssertDeathTest, FailuresReportSiteAndTextThenAbort) {
    EXPECT_EQ(Twice(4), 8);
    EXPECT_DEATH(Twice(-1), "ASSERTION FAILED: .*AssertErrorTest\\.cpp:[0-9]+: x >= 0");
    EXPECT_DEATH(ZK_LOGIC_ERROR(ZKString(L"caf\u00e9 state lost")),
                 "LOGIC ERROR: .*AssertErrorTest\\.cpp:[0-9]+: caf\xc3\xa9 state lost");
    // A replaced reporter runs, and the process still aborts.
    EXPECT_DEATH(
        {
            ZKAssert::SetReporter(&QuietReporter);
            ZK_ASSERT(1 + 1 == 3);
        },
        "custom reporter saw: 1 \\+ 1 == 3");
}

TEST(ErrorMessageTest, ArgumentsOfEveryKindFillTheCatalogueText) {
    const ErrorMessage e(kErr_TableWithoutPrimaryKey, ZKString(L"\"db\".\"t\""));
    EXPECT_NE(e.GetText().find(L"\"db\".\"t\""), ZKString::npos);
    EXPECT_EQ(std::string(e.what()), "[38119] " + e.GetText().ToUtf8());

    const ErrorMessage mixed(99999, std::string("caf\xc3\xa9"), L"w", -42, 18446744073709551615ull,
                             0.1, true);
    EXPECT_EQ(mixed.GetArgs(), (std::vector<ZKString>{L"caf\u00e9", L"w", L"-42",
                                                      L"18446744073709551615", L"0.1", L"true"}));
    // A number without catalogue text still shows its arguments.
    EXPECT_NE(mixed.GetText().find(L"'caf\u00e9', 'w'"), ZKString::npos);
    // A placeholder without an argument stays visible rather than vanishing.
    EXPECT_NE(ErrorMessage(kErr_BadCompatFlagValue, L"F").GetText().find(L"%2"), ZKString::npos);

    EXPECT_STREQ(ErrorMessage(ZKString(L"plain \u00e9")).what(), "plain \xc3\xa9");
}

TEST(ErrorMessageTest, ThrowingRecordsTheSiteOnTheErrorAndInTheThreadsRecord) {
    ErrorMessage::ClearLastPrethrown();
    int throwLine = 0;
    try {
        throwLine = __LINE__ + 1;
        ZK_THROW(ErrorMessage(kErr_UnknownRewriteRule, L"NoSuchRule"));
    } catch (const ErrorMessage& e) {
        EXPECT_TRUE(e.IsPrethrown());
        EXPECT_EQ(e.GetLine(), throwLine);
        EXPECT_NE(std::wstring(e.GetFile()).find(L"AssertErrorTest.cpp"), std::wstring::npos);
    }
    ASSERT_EQ(ErrorMessage::LastPrethrown().size(), 1u);
    EXPECT_EQ(ErrorMessage::LastPrethrown()[0].GetLine(), throwLine);
    // The record is per thread.
    std::size_t otherThreadRecord = 99;
    std::thread([&] { otherThreadRecord = ErrorMessage::LastPrethrown().size(); }).join();
    EXPECT_EQ(otherThreadRecord, 0u);

    // Without the log flag nothing is recorded; the record keeps only the latest errors.
    ErrorMessage::ClearLastPrethrown();
    ErrorMessage::prethrowProcess(ErrorMessage(ZKString(L"not logged")), false, L"f.cpp", 3);
    EXPECT_TRUE(ErrorMessage::LastPrethrown().empty());
    for (int i = 0; i < 20; ++i)
        ErrorMessage::prethrowProcess(ErrorMessage(kErr_InternalError, i), true, L"f.cpp", i);
    const std::vector<ErrorMessage> record = ErrorMessage::LastPrethrown();
    ASSERT_EQ(record.size(), ErrorMessage::kPrethrownHistory);
    EXPECT_EQ(record.front().GetArgs()[0], ZKString::FromInt(20 - ErrorMessage::kPrethrownHistory));
    EXPECT_EQ(record.back().GetArgs()[0], ZKString(L"19"));
    ErrorMessage::ClearLastPrethrown();
}
