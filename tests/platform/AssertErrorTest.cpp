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

TEST(ZKAssertDeathTest, FailedAssertionReportsSiteAndConditionThenAborts) {
    EXPECT_EQ(Twice(4), 8);
    EXPECT_DEATH(Twice(-1), "ASSERTION FAILED: .*AssertErrorTest\\.cpp:[0-9]+: x >= 0");
}

TEST(ZKAssertDeathTest, LogicErrorReportsMessageInUtf8) {
    EXPECT_DEATH(ZK_LOGIC_ERROR(ZKString(L"caf\u00e9 state lost")),
                 "LOGIC ERROR: .*AssertErrorTest\\.cpp:[0-9]+: caf\xc3\xa9 state lost");
}

TEST(ZKAssertDeathTest, ReplacedReporterRunsAndProcessStillAborts) {
    EXPECT_DEATH(
        {
            ZKAssert::SetReporter(&QuietReporter);
            ZK_ASSERT(1 + 1 == 3);
        },
        "custom reporter saw: 1 \\+ 1 == 3");
}

TEST(ZKAssertTest, SetReporterReturnsPreviousAndNullRestoresDefault) {
    const ZKAssert::Reporter original = ZKAssert::SetReporter(&QuietReporter);
    EXPECT_EQ(original, &ZKAssert::DefaultReporter);
    EXPECT_EQ(ZKAssert::SetReporter(nullptr), &QuietReporter);
    EXPECT_EQ(ZKAssert::SetReporter(original), &ZKAssert::DefaultReporter);
}

TEST(ErrorMessageTest, CatalogueMessageSubstitutesArgumentsOfEveryKind) {
    const ErrorMessage e(kErr_TableWithoutPrimaryKey, ZKString(L"\"db\".\"t\""));
    EXPECT_EQ(e.GetNumber(), 38119u);
    const ZKString text = e.GetText();
    EXPECT_NE(text.find(L"\"db\".\"t\""), ZKString::npos);
    EXPECT_EQ(text.find(L"%1"), ZKString::npos);
    EXPECT_EQ(std::string(e.what()), "[38119] " + text.ToUtf8());

    const ErrorMessage mixed(99999, std::string("caf\xc3\xa9"), L"w", -42, 18446744073709551615ull,
                             0.1, true, std::wstring(L"x"));
    ASSERT_EQ(mixed.GetArgs().size(), 7u);
    EXPECT_EQ(mixed.GetArgs()[0], ZKString(L"caf\u00e9"));
    EXPECT_EQ(mixed.GetArgs()[2], ZKString(L"-42"));
    EXPECT_EQ(mixed.GetArgs()[3], ZKString(L"18446744073709551615"));
    EXPECT_EQ(mixed.GetArgs()[4], ZKString(L"0.1"));
    EXPECT_EQ(mixed.GetArgs()[5], ZKString(L"true"));
}

TEST(ErrorMessageTest, UnknownNumberStillShowsItsArguments) {
    EXPECT_EQ(ErrorMessage::CatalogueText(99999), nullptr);
    const ErrorMessage e(99999, L"first", 7);
    const ZKString text = e.GetText();
    EXPECT_NE(text.find(L"99999"), ZKString::npos);
    EXPECT_NE(text.find(L"'first', '7'"), ZKString::npos);
    EXPECT_EQ(std::string(e.what()).rfind("[99999] ", 0), 0u);
}

TEST(ErrorMessageTest, MissingArgumentLeavesPlaceholderVisible) {
    // The flag message has %1 and %2; with only one argument the %2 must not vanish.
    const ErrorMessage e(kErr_BadCompatFlagValue, L"FLAG_A");
    const ZKString text = e.GetText();
    EXPECT_NE(text.find(L"FLAG_A"), ZKString::npos);
    EXPECT_NE(text.find(L"%2"), ZKString::npos);
}

TEST(ErrorMessageTest, TextMessageHasNumberZeroAndNoPrefix) {
    const ErrorMessage e(ZKString(L"plain \u00e9"));
    EXPECT_EQ(e.GetNumber(), 0u);
    EXPECT_TRUE(e.GetArgs().empty());
    EXPECT_EQ(e.GetText(), ZKString(L"plain \u00e9"));
    EXPECT_STREQ(e.what(), "plain \xc3\xa9");
    EXPECT_FALSE(e.IsPrethrown());
    EXPECT_EQ(e.GetFile(), nullptr);
}

TEST(ErrorMessageTest, ThrowRecordsSiteOnExceptionAndInThreadRecord) {
    ErrorMessage::ClearLastPrethrown();
    int throwLine = 0;
    try {
        throwLine = __LINE__ + 1;
        ZK_THROW(ErrorMessage(kErr_UnknownRewriteRule, L"NoSuchRule"));
    } catch (const ErrorMessage& e) {
        EXPECT_TRUE(e.IsPrethrown());
        EXPECT_EQ(e.GetLine(), throwLine);
        ASSERT_NE(e.GetFile(), nullptr);
        EXPECT_NE(std::wstring(e.GetFile()).find(L"AssertErrorTest.cpp"), std::wstring::npos);
    }
    const std::vector<ErrorMessage> record = ErrorMessage::LastPrethrown();
    ASSERT_EQ(record.size(), 1u);
    EXPECT_EQ(record[0].GetNumber(), static_cast<unsigned long>(kErr_UnknownRewriteRule));
    EXPECT_EQ(record[0].GetLine(), throwLine);

    // The record is per thread.
    std::size_t otherThreadRecord = 99;
    std::thread([&] { otherThreadRecord = ErrorMessage::LastPrethrown().size(); }).join();
    EXPECT_EQ(otherThreadRecord, 0u);
    ErrorMessage::ClearLastPrethrown();
}

TEST(ErrorMessageTest, ThreadRecordKeepsOnlyRecentErrorsAndHonoursLogFlag) {
    ErrorMessage::ClearLastPrethrown();
    const ErrorMessage quiet(ZKString(L"not logged"));
    ErrorMessage::prethrowProcess(quiet, false, L"f.cpp", 3);
    EXPECT_TRUE(quiet.IsPrethrown());
    EXPECT_EQ(quiet.GetLine(), 3);
    EXPECT_TRUE(ErrorMessage::LastPrethrown().empty());

    for (int i = 0; i < 20; ++i) {
        ErrorMessage::prethrowProcess(ErrorMessage(kErr_InternalError, i), true, L"f.cpp", i);
    }
    const std::vector<ErrorMessage> record = ErrorMessage::LastPrethrown();
    ASSERT_EQ(record.size(), ErrorMessage::kPrethrownHistory);
    EXPECT_EQ(record.front().GetArgs()[0], ZKString::FromInt(20 - ErrorMessage::kPrethrownHistory));
    EXPECT_EQ(record.back().GetArgs()[0], ZKString(L"19"));
    ErrorMessage::ClearLastPrethrown();
}
