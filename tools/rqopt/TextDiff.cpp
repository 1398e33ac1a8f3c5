#include "TextDiff.h"

#include <algorithm>

std::vector<std::string> SplitLines(std::string_view text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            lines.emplace_back(text.substr(start));
            break;
        }
        lines.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

namespace {

// Myers' greedy search over the lines between the common prefix and suffix. `trace[d]`
// keeps the furthest reach of every diagonal before step d, which is all the walk back
// needs; only diagonals -d-1..d+1 can have been reached then, so only they are kept.
void MyersMiddle(const std::vector<std::string>& a, const std::vector<std::string>& b, int a0,
                 int a1, int b0, int b1, std::vector<DiffEdit>& out) {
    const int n = a1 - a0;
    const int m = b1 - b0;
    const int max = n + m;
    std::vector<int> v(2 * max + 3, 0);
    const int offset = max + 1;
    std::vector<std::vector<int>> trace;
    int steps = 0;
    for (int d = 0; d <= max; ++d) {
        trace.emplace_back(v.begin() + offset - d - 1, v.begin() + offset + d + 2);
        bool done = false;
        for (int k = -d; k <= d; k += 2) {
            int x = (k == -d || (k != d && v[offset + k - 1] < v[offset + k + 1]))
                        ? v[offset + k + 1]
                        : v[offset + k - 1] + 1;
            int y = x - k;
            while (x < n && y < m && a[a0 + x] == b[b0 + y]) {
                ++x;
                ++y;
            }
            v[offset + k] = x;
            if (x >= n && y >= m) {
                done = true;
                break;
            }
        }
        if (done) {
            steps = d;
            break;
        }
    }

    // Walk back from the end, collecting the edits in reverse.
    std::vector<DiffEdit> reversed;
    int x = n;
    int y = m;
    for (int d = steps; d >= 0; --d) {
        const std::vector<int>& reach = trace[d];
        auto at = [&](int k) { return reach[k + d + 1]; };
        const int k = x - y;
        const int prevK = (k == -d || (k != d && at(k - 1) < at(k + 1))) ? k + 1 : k - 1;
        const int prevX = at(prevK);
        const int prevY = prevX - prevK;
        while (x > prevX && y > prevY) {
            --x;
            --y;
            reversed.push_back({DiffEdit::kKeep, a0 + x, b0 + y});
        }
        if (d > 0) {
            if (x == prevX)
                reversed.push_back({DiffEdit::kInsert, -1, b0 + prevY});
            else
                reversed.push_back({DiffEdit::kDelete, a0 + prevX, -1});
        }
        x = prevX;
        y = prevY;
    }
    out.insert(out.end(), reversed.rbegin(), reversed.rend());
}

std::string Range(int start, int count) {
    // An empty range names the line before it, as patch expects.
    if (count == 1)
        return std::to_string(start + 1);
    return std::to_string(count == 0 ? start : start + 1) + "," + std::to_string(count);
}

}  // namespace

std::vector<DiffEdit> DiffLines(const std::vector<std::string>& before,
                                const std::vector<std::string>& after) {
    int prefix = 0;
    const int n = static_cast<int>(before.size());
    const int m = static_cast<int>(after.size());
    while (prefix < n && prefix < m && before[prefix] == after[prefix])
        ++prefix;
    int suffix = 0;
    while (suffix < n - prefix && suffix < m - prefix &&
           before[n - 1 - suffix] == after[m - 1 - suffix])
        ++suffix;

    std::vector<DiffEdit> edits;
    for (int i = 0; i < prefix; ++i)
        edits.push_back({DiffEdit::kKeep, i, i});
    MyersMiddle(before, after, prefix, n - suffix, prefix, m - suffix, edits);
    for (int i = suffix; i > 0; --i)
        edits.push_back({DiffEdit::kKeep, n - i, m - i});

    // Myers may interleave deletions and insertions within one changed stretch; readers
    // expect the old lines first.
    for (size_t i = 0; i < edits.size();) {
        if (edits[i].m_kind == DiffEdit::kKeep) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < edits.size() && edits[end].m_kind != DiffEdit::kKeep)
            ++end;
        std::stable_partition(edits.begin() + i, edits.begin() + end,
                              [](const DiffEdit& e) { return e.m_kind == DiffEdit::kDelete; });
        i = end;
    }
    return edits;
}

std::string UnifiedDiff(std::string_view beforeText, std::string_view afterText,
                        const std::string& beforeLabel, const std::string& afterLabel,
                        int context) {
    const std::vector<std::string> before = SplitLines(beforeText);
    const std::vector<std::string> after = SplitLines(afterText);
    const std::vector<DiffEdit> edits = DiffLines(before, after);
    const int count = static_cast<int>(edits.size());

    // Lines of each text that precede edit i, for the hunk headers.
    std::vector<int> beforeSeen(count + 1, 0);
    std::vector<int> afterSeen(count + 1, 0);
    for (int i = 0; i < count; ++i) {
        beforeSeen[i + 1] = beforeSeen[i] + (edits[i].m_kind != DiffEdit::kInsert ? 1 : 0);
        afterSeen[i + 1] = afterSeen[i] + (edits[i].m_kind != DiffEdit::kDelete ? 1 : 0);
    }

    std::string out;
    int i = 0;
    while (i < count) {
        if (edits[i].m_kind == DiffEdit::kKeep) {
            ++i;
            continue;
        }
        // A hunk: from `context` lines before this change up to `context` lines after the
        // last change that lies within 2 * context unchanged lines of the one before it.
        const int start = std::max(0, i - context);
        int lastChange = i;
        for (int j = i + 1; j < count; ++j) {
            if (edits[j].m_kind == DiffEdit::kKeep)
                continue;
            if (j - lastChange - 1 > 2 * context)
                break;
            lastChange = j;
        }
        const int end = std::min(count, lastChange + 1 + context);
        if (out.empty())
            out += "--- " + beforeLabel + "\n+++ " + afterLabel + "\n";
        out += "@@ -" + Range(beforeSeen[start], beforeSeen[end] - beforeSeen[start]) + " +" +
               Range(afterSeen[start], afterSeen[end] - afterSeen[start]) + " @@\n";
        for (int j = start; j < end; ++j) {
            const DiffEdit& edit = edits[j];
            switch (edit.m_kind) {
                case DiffEdit::kKeep:
                    out += " " + before[edit.m_before] + "\n";
                    break;
                case DiffEdit::kDelete:
                    out += "-" + before[edit.m_before] + "\n";
                    break;
                case DiffEdit::kInsert:
                    out += "+" + after[edit.m_after] + "\n";
                    break;
            }
        }
        i = end;
    }
    return out;
}
