// Golden files: the sections a case is made of, the errors of a malformed file, and the
// rewrite that RQ_UPDATE_GOLDEN performs, which must keep what a person wrote.

#include <gtest/gtest.h>

#include "GoldenFile.h"

namespace {

const char* const kCase =
    "# Shows a diff.\n"
    "\n"
    "$ rqopt --diff --session \"GREETING=hello world\" --rules 'A,B'\n"
    "=== input\n"
    "request {\n"
    "}\n"
    "=== stdout\n"
    "--- before A\n"
    "\n"
    "=== exit 1\n";

std::string ErrorOf(const std::string& text) {
    try {
        ParseGoldenFile(text, "case.test");
    } catch (const GoldenFormatError& e) {
        return e.what();
    }
    return "no error";
}

TEST(GoldenFile, SectionsHoldTheirLinesExactly) {
    const GoldenCase golden = ParseGoldenFile(kCase, "case.test");
    EXPECT_EQ(golden.m_args, (std::vector<std::string>{"--diff", "--session",
                                                       "GREETING=hello world", "--rules", "A,B"}));
    EXPECT_EQ(golden.m_input, "request {\n}\n");
    EXPECT_EQ(golden.m_stdout, "--- before A\n\n");
    EXPECT_EQ(golden.m_stderr, "");
    EXPECT_EQ(golden.m_exit, 1);
    // The input goes to standard input.
    EXPECT_EQ(golden.RunArgs().back(), "-");

    // Missing sections expect nothing and exit 0; an explicit "-" is not doubled.
    const GoldenCase bare = ParseGoldenFile("$ rqopt --list-rules", "case.test");
    EXPECT_FALSE(bare.m_bHasInput);
    EXPECT_EQ(bare.m_exit, 0);
    EXPECT_EQ(bare.RunArgs(), std::vector<std::string>{"--list-rules"});
    EXPECT_EQ(ParseGoldenFile("$ rqopt - --diff\n=== input\nx\n", "case.test").RunArgs(),
              (std::vector<std::string>{"-", "--diff"}));
}

TEST(GoldenFile, MalformedFilesNameTheLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"# no command\n=== input\n", "case.test:1: "},
        {"$ rqopt\nrqopt --diff\n", "case.test:2: "},
        {"$ rqopt\n=== stdout\n=== stdout\n", "case.test:3: "},
        {"$ rqopt\n=== exit 2 3\n", "case.test:2: "},
        {"$ rqopt\n=== exit 2\nmore\n", "case.test:3: "},
        {"$ rqopt --session \"A=b\n", "case.test:1: "},
    };
    for (const auto& [text, where] : cases)
        EXPECT_EQ(ErrorOf(text).rfind(where, 0), 0u) << text << " -> " << ErrorOf(text);
}

TEST(GoldenFile, UpdatingKeepsThePreambleAndInput) {
    GoldenCase golden = ParseGoldenFile(kCase, "case.test");
    // The file that was read is written back unchanged.
    EXPECT_EQ(WriteGoldenFile(golden), kCase);
    golden.m_stdout = "";
    golden.m_stderr = "rqopt: failed";  // no final newline: the writer ends the line
    golden.m_exit = 2;
    const std::string text = WriteGoldenFile(golden);
    EXPECT_EQ(text.rfind(golden.m_preamble + "=== input\nrequest {\n}\n", 0), 0u) << text;
    const GoldenCase again = ParseGoldenFile(text, "case.test");
    EXPECT_EQ(again.m_stderr, "rqopt: failed\n");
    EXPECT_EQ(again.m_exit, 2);
}

}  // namespace
