#pragma once
// Shrinks a request text while a predicate keeps holding, in the manner of test-case
// reducers for compilers: candidate edits are tried one at a time, biggest first, an edit is
// kept when the predicate still holds on its result, and the passes repeat until no single
// edit is kept.
//
// The edits work on the structure of the canonical request text (one clause per line,
// children in braces): delete a clause, a column, a FROM item, a set operation's member or a
// whole block; replace a block by a block nested in it; inline a derived table whose block
// only projects; drop flags, limits and target annotations; replace a call by one of its
// operands or by a constant, a column reference by a constant, drop an operand of a list of
// values. An edit may produce a text that does not read: the predicate is expected to reject
// it (the default predicates read and verify every candidate first).

#include <cstddef>
#include <functional>
#include <string>

struct ReduceStats {
    size_t m_steps = 0;  // edits kept
    size_t m_tried = 0;  // candidates the predicate judged
    size_t m_linesBefore = 0;
    size_t m_linesAfter = 0;
};

class RequestReducer {
public:
    using Predicate = std::function<bool(const std::string& text)>;

    explicit RequestReducer(Predicate predicate, size_t maxTries = 20000)
        : m_predicate(std::move(predicate)), m_maxTries(maxTries) {}

    // The smallest text found for which the predicate holds; `text` itself must satisfy it.
    std::string Reduce(const std::string& text, ReduceStats* pStats = nullptr);

    static size_t CountLines(const std::string& text);

private:
    bool Try(const std::string& candidate);

    Predicate m_predicate;
    size_t m_maxTries;
    ReduceStats m_stats;
};
