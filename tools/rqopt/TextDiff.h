#pragma once
// Line diffs of two texts in the unified format that patch, editors and review tools read.

#include <string>
#include <string_view>
#include <vector>

// The lines of `text` without their newlines; a last line without a newline counts too.
std::vector<std::string> SplitLines(std::string_view text);

struct DiffEdit {
    enum Kind { kKeep, kDelete, kInsert };
    Kind m_kind;
    int m_before;  // line index in the old text (-1 for an insertion)
    int m_after;   // line index in the new text (-1 for a deletion)
};

// A shortest edit script turning `before` into `after` (Myers' algorithm), in text order;
// within each changed stretch the deletions come before the insertions.
std::vector<DiffEdit> DiffLines(const std::vector<std::string>& before,
                                const std::vector<std::string>& after);

// The unified diff ("--- label", "+++ label", then "@@ -l,n +l,n @@" hunks with `context`
// unchanged lines around each change); empty when the texts are equal.
std::string UnifiedDiff(std::string_view before, std::string_view after,
                        const std::string& beforeLabel, const std::string& afterLabel,
                        int context = 3);
