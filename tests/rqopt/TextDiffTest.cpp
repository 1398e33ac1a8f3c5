// Line diffs and suggestions: the edit script is minimal and rebuilds the new text, and the
// unified diff's hunks apply as patch would apply them.

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "Query/Optimizer/RequestText/SQORTextSuggest.h"
#include "TextDiff.h"

namespace {

std::string Numbered(int count, int changed = -1, int changed2 = -1) {
    std::string text;
    for (int i = 1; i <= count; ++i)
        text += (i == changed || i == changed2 ? "x" : "l") + std::to_string(i) + "\n";
    return text;
}

// Length of a longest common subsequence, the slow obvious way.
int Lcs(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    std::vector<std::vector<int>> t(a.size() + 1, std::vector<int>(b.size() + 1, 0));
    for (size_t i = 1; i <= a.size(); ++i)
        for (size_t j = 1; j <= b.size(); ++j)
            t[i][j] =
                a[i - 1] == b[j - 1] ? t[i - 1][j - 1] + 1 : std::max(t[i - 1][j], t[i][j - 1]);
    return t[a.size()][b.size()];
}

// Applies a unified diff to `before` as patch does, trusting only the old start of each hunk
// header for positions and checking every context and removed line against the old text.
std::string Patch(const std::vector<std::string>& before, const std::string& diff) {
    std::string out;
    size_t next = 0;  // first old line not yet copied
    std::istringstream in(diff);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("@@ -", 0) == 0) {
            // An empty old range ("-N,0") names the line before the hunk.
            const std::string range = line.substr(4, line.find(' ', 4) - 4);
            const size_t start = std::stoul(range);
            const size_t first = range.ends_with(",0") ? start : start - 1;
            EXPECT_GE(first, next) << line;
            while (next < first)
                out += before[next++] + "\n";
        } else if (line[0] == '+' && line.rfind("+++", 0) != 0) {
            out += line.substr(1) + "\n";
        } else if ((line[0] == ' ' || line[0] == '-') && line.rfind("---", 0) != 0) {
            EXPECT_EQ(next < before.size() ? before[next] : "<end>", line.substr(1)) << line;
            if (line[0] == ' ')
                out += line.substr(1) + "\n";
            ++next;
        }
    }
    while (next < before.size())
        out += before[next++] + "\n";
    return out;
}

TEST(TextDiff, HunksOfTheUnifiedFormat) {
    struct Case {
        std::string m_before, m_after;
        int m_context;
        std::string m_diff;  // without the two header lines
    };
    const Case cases[] = {
        {"a\nb\n", "a\nb\n", 3, ""},
        {"", "", 3, ""},
        {Numbered(10), Numbered(10, 5), 3,
         "@@ -2,7 +2,7 @@\n l2\n l3\n l4\n-l5\n+x5\n l6\n l7\n l8\n"},
        // At the edges the context is cut short.
        {Numbered(3), Numbered(3, 1), 3, "@@ -1,3 +1,3 @@\n-l1\n+x1\n l2\n l3\n"},
        // An empty side names the line before it.
        {"", "a\nb\n", 3, "@@ -0,0 +1,2 @@\n+a\n+b\n"},
        {"a\n", "", 3, "@@ -1 +0,0 @@\n-a\n"},
        {"a\nb\n", "a\nn\nb\n", 0, "@@ -1,0 +2 @@\n+n\n"},
        // A replaced stretch lists its old lines first.
        {"k\na\nb\nk\n", "k\nc\nd\nk\n", 3, "@@ -1,4 +1,4 @@\n k\n-a\n-b\n+c\n+d\n k\n"},
        // The last line counts without its newline.
        {"a\nb", "a\nc", 3, "@@ -1,2 +1,2 @@\n a\n-b\n+c\n"},
    };
    for (const Case& c : cases) {
        const std::string diff = UnifiedDiff(c.m_before, c.m_after, "x", "y", c.m_context);
        EXPECT_EQ(diff, c.m_diff.empty() ? "" : "--- x\n+++ y\n" + c.m_diff) << c.m_before << "->\n"
                                                                             << c.m_after;
    }
}

TEST(TextDiff, NearChangesShareAHunkAndFarOnesDoNot) {
    // Six unchanged lines between two changes: their contexts touch, one hunk.
    const std::string one = UnifiedDiff(Numbered(20), Numbered(20, 5, 12), "a", "b");
    EXPECT_EQ(one.find("\n@@ "), one.rfind("\n@@ ")) << one;
    EXPECT_NE(one.find("@@ -2,14 +2,14 @@"), std::string::npos) << one;
    // Seven: two hunks.
    const std::string two = UnifiedDiff(Numbered(20), Numbered(20, 5, 13), "a", "b");
    EXPECT_NE(two.find("@@ -2,7 +2,7 @@"), std::string::npos) << two;
    EXPECT_NE(two.find("@@ -10,7 +10,7 @@"), std::string::npos) << two;
}

TEST(TextDiff, RandomEditsAreMinimalAndPatchBack) {
    std::mt19937 random(20240611);
    for (int round = 0; round < 400; ++round) {
        std::vector<std::string> a, b;
        const int n = static_cast<int>(random() % 14);
        const int m = static_cast<int>(random() % 14);
        for (int i = 0; i < n; ++i)
            a.push_back(std::string(1, static_cast<char>('a' + random() % 3)));
        for (int i = 0; i < m; ++i)
            b.push_back(std::string(1, static_cast<char>('a' + random() % 3)));
        SCOPED_TRACE(testing::PrintToString(a) + " -> " + testing::PrintToString(b));

        const std::vector<DiffEdit> edits = DiffLines(a, b);
        int kept = 0;
        std::vector<std::string> rebuilt;
        for (const DiffEdit& edit : edits) {
            if (edit.m_kind == DiffEdit::kKeep) {
                ++kept;
                EXPECT_EQ(a[edit.m_before], b[edit.m_after]);
            }
            if (edit.m_kind != DiffEdit::kDelete)
                rebuilt.push_back(b[edit.m_after]);
        }
        EXPECT_EQ(rebuilt, b);
        EXPECT_EQ(kept, Lcs(a, b));

        std::string before, after;
        for (const std::string& l : a)
            before += l + "\n";
        for (const std::string& l : b)
            after += l + "\n";
        for (int context : {0, 1, 3}) {
            const std::string diff = UnifiedDiff(before, after, "x", "y", context);
            EXPECT_EQ(Patch(a, diff), after) << diff;
        }
    }
}

// The misspellings of whole command lines are golden cases; these are the edges.
TEST(DidYouMean, SuggestsTheNearestNameWhenNearEnough) {
    const std::vector<std::string> names = {"--diff", "--dump", "--disable", "--rules"};
    EXPECT_EQ(ClosestName("--rlues", names), "--rules");  // one swap is one edit
    EXPECT_EQ(ClosestName("--verbose", names), "");
    EXPECT_EQ(ClosestName("x", {"no"}), "");
    EXPECT_EQ(EditDistanceNoCase("kitten", "sitting"), 3u);
}

}  // namespace
