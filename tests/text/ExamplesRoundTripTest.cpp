// Every request the repository ships as text - the sample requests and the inputs of the
// golden cases - reads against the sample catalog and round-trips: print, read, print again
// gives the same text and an equal tree. The sample requests are also written canonically
// and are well-formed trees, so that they can serve as models for hand-written requests.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "TextTestSupport.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

using texttest::ReadText;
using texttest::RepositoryRoot;
using texttest::SampleGateway;

struct RequestFile {
    std::string m_testName;  // the file's name, letters, digits and '_' only
    fs::path m_path;
    std::string m_text;  // the whole file for a sample, the input section for a golden case
};

std::string TestName(const std::string& text) {
    std::string name = text;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
    return name;
}

std::vector<fs::path> FilesUnder(const fs::path& dir, const std::string& extension) {
    std::vector<fs::path> files;
    if (!fs::is_directory(dir))
        return files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(dir)) {
        if (entry.is_regular_file() && entry.path().extension() == extension)
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<RequestFile> SampleRequests() {
    std::vector<RequestFile> out;
    for (const fs::path& path : FilesUnder(RepositoryRoot() / "examples/requests", ".rq"))
        out.push_back({TestName(path.stem().string()), path, ReadText(path)});
    return out;
}

// The input section of every golden case that has one, except the cases whose input is
// malformed on purpose (those expect rqopt to exit with 2).
std::vector<RequestFile> GoldenInputs() {
    const fs::path goldenDir = RepositoryRoot() / "tests/golden";
    std::vector<RequestFile> out;
    for (const fs::path& path : FilesUnder(goldenDir, ".test")) {
        std::string input;
        bool bInInput = false;
        bool bHasInput = false;
        bool bMalformedOnPurpose = false;
        for (const std::string& line : Lines(ReadText(path))) {
            if (line.rfind("=== ", 0) == 0) {
                bInInput = line == "=== input";
                bHasInput = bHasInput || bInInput;
                bMalformedOnPurpose = bMalformedOnPurpose || line == "=== exit 2";
            } else if (bInInput) {
                input += line + "\n";
            }
        }
        if (bHasInput && !bMalformedOnPurpose) {
            const fs::path relative = fs::relative(path, goldenDir).replace_extension();
            out.push_back({TestName(relative.string()), path, input});
        }
    }
    return out;
}

std::string NameOf(const testing::TestParamInfo<RequestFile>& info) {
    return info.param.m_testName;
}

// The text without comment lines and blank lines: what printing keeps of a canonical file.
std::string WithoutCommentsAndBlankLines(const std::string& text) {
    std::string out;
    for (const std::string& line : Lines(text)) {
        const size_t first = line.find_first_not_of(" \t\r");
        if (first != std::string::npos && line[first] != '#')
            out += line + "\n";
    }
    return out;
}

// Reads the file's request; null (with a failure naming the position) when it does not read.
RqHandleNode* ReadRequest(const RequestFile& file) {
    try {
        return RqTextReader::Read(file.m_text, file.m_path.string(), &SampleGateway());
    } catch (const RqTextError& error) {
        ADD_FAILURE() << error.what();
        return nullptr;
    }
}

class SampleRequestTest : public testing::TestWithParam<RequestFile> {};
class GoldenInputTest : public testing::TestWithParam<RequestFile> {};

TEST_P(SampleRequestTest, IsCanonicalWellFormedAndRoundTrips) {
    const RequestFile& file = GetParam();
    Heap<RqHandleNode> request(ReadRequest(file));
    if (!request)
        return;
    EXPECT_EQ(RqVerifier::Describe(RqVerifier::Verify(*request)).ToUtf8(), "");
    EXPECT_EQ(texttest::RoundTripFailure(*request, &SampleGateway()), "");
    const std::string printed = RqTextWriter::Write(*request, &SampleGateway());
    // Samples are written the way the printer writes them, so that they read as models of
    // the format; only their comments and blank lines are the author's.
    EXPECT_EQ(WithoutCommentsAndBlankLines(file.m_text), WithoutCommentsAndBlankLines(printed));
}

TEST_P(GoldenInputTest, RoundTrips) {
    Heap<RqHandleNode> request(ReadRequest(GetParam()));
    if (request) {
        EXPECT_EQ(texttest::RoundTripFailure(*request, &SampleGateway()), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Examples, SampleRequestTest, testing::ValuesIn(SampleRequests()), NameOf);
INSTANTIATE_TEST_SUITE_P(Golden, GoldenInputTest, testing::ValuesIn(GoldenInputs()), NameOf);

// A wrong repository root would leave both suites empty and silently green.
TEST(ExamplesRoundTripTest, FindsTheRequestFiles) {
    EXPECT_GE(SampleRequests().size(), 12u);
    EXPECT_GE(GoldenInputs().size(), 10u);
}

}  // namespace
