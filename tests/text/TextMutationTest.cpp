// Malformed texts never crash the readers: thousands of deterministic mutations of the
// sample requests, of printed random trees and of the sample catalog either read (and then
// print, read and print again to the same text and an equal tree) or raise RqTextError at a
// position inside the text. A crash or an assertion ends the test program; a leaked node
// fails the test through the shared test main.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "RandomRequest.h"
#include "TextTestSupport.h"

namespace {

namespace fs = std::filesystem;

constexpr int kMutationsPerText = 120;

// Empty when the error names a line of the text and a column on it (columns count
// characters; one past the end of a line is where a missing token was expected).
std::string PositionProblem(const std::string& text, const RqTextError& error) {
    std::vector<int> lineLengths{0};
    for (const char c : text) {
        if (c == '\n')
            lineLengths.push_back(0);
        else if ((static_cast<unsigned char>(c) & 0xC0) != 0x80)
            ++lineLengths.back();
    }
    const int line = error.GetLine();
    if (line < 1 || line > static_cast<int>(lineLengths.size()))
        return "line outside the text";
    if (error.GetColumn() < 1 || error.GetColumn() > lineLengths[static_cast<size_t>(line - 1)] + 1)
        return "column outside its line";
    return std::string();
}

struct Failures {
    int m_count = 0;
    void Add(const std::string& what, const std::string& text) {
        if (++m_count <= 3)
            ADD_FAILURE() << what << "\n--- mutated text ---\n" << text;
    }
};

// Reads a mutated request; what reads must be printable and round-trip. Compared with the
// tree of the text it was mutated from, it is the same tree exactly when it prints the same:
// the comparison notices every field the text carries, and the text every field the
// comparison knows, whichever kind and field the mutation changed.
void CheckRequest(const std::string& text, const RqNode& original, const ARpGateway* rp,
                  Failures& failures) {
    Heap<RqHandleNode> tree;
    try {
        tree.Reset(RqTextReader::Read(text, "mutated.rq", rp));
    } catch (const RqTextError& error) {
        const std::string problem = PositionProblem(text, error);
        if (!problem.empty())
            failures.Add(problem + ": " + error.what(), text);
        return;
    }
    const std::string failure = texttest::RoundTripFailure(*tree, rp);
    if (!failure.empty())
        failures.Add(failure, text);
    std::string difference;
    const bool same = RqTextSameTree(original, *tree, &difference);
    if (same != (RqTextWriter::Write(original, rp) == RqTextWriter::Write(*tree, rp)))
        failures.Add(same ? "prints differently but compares the same"
                          : "prints the same but differs: " + difference,
                     text);
}

TEST(TextMutation, MutatedRequestsReadOrFailAtAPosition) {
    struct Input {
        std::string m_text;
        const ARpGateway* m_pRp;
    };
    std::vector<Input> inputs;
    for (const fs::directory_entry& entry :
         fs::directory_iterator(texttest::RepositoryRoot() / "examples/requests")) {
        if (entry.path().extension() == ".rq")
            inputs.push_back({texttest::ReadText(entry.path()), &texttest::SampleGateway()});
    }
    std::sort(inputs.begin(), inputs.end(),
              [](const Input& a, const Input& b) { return a.m_text < b.m_text; });
    ASSERT_GE(inputs.size(), 10u);
    for (uint64_t seed = 1001; seed <= 1030; ++seed) {
        const ARpGateway* rp = seed % 2 == 1 ? &texttest::SampleGateway() : nullptr;
        Heap<RqHandleNode> tree(textfuzz::RandomRequest(seed, rp));
        inputs.push_back({RqTextWriter::Write(*tree, rp), rp});
    }
    Failures failures;
    textfuzz::Rng rng(20240601);
    for (const Input& input : inputs) {
        Heap<RqHandleNode> original(RqTextReader::Read(input.m_text, "input.rq", input.m_pRp));
        for (int i = 0; i < kMutationsPerText; ++i)
            CheckRequest(textfuzz::Mutate(input.m_text, rng), *original, input.m_pRp, failures);
    }
    EXPECT_EQ(failures.m_count, 0);
}

TEST(TextMutation, MutatedCatalogsReadOrFailAtAPosition) {
    const std::string sample =
        texttest::ReadText(texttest::RepositoryRoot() / "examples/sales.catalog");
    ASSERT_FALSE(sample.empty());
    Failures failures;
    textfuzz::Rng rng(77);
    for (int i = 0; i < 1500; ++i) {
        const std::string text = textfuzz::Mutate(sample, rng);
        try {
            const std::string printed =
                RqCatalogText::Write(RqCatalogText::Read(text, "m.catalog"));
            try {
                if (RqCatalogText::Write(RqCatalogText::Read(printed, "p.catalog")) != printed)
                    failures.Add("printing what was read is not stable:\n" + printed, text);
            } catch (const RqTextError& error) {
                failures.Add(
                    std::string("the print does not read back: ") + error.what() + "\n" + printed,
                    text);
            }
        } catch (const RqTextError& error) {
            const std::string problem = PositionProblem(text, error);
            if (!problem.empty())
                failures.Add(problem + ": " + error.what(), text);
        }
    }
    EXPECT_EQ(failures.m_count, 0);
}

}  // namespace
