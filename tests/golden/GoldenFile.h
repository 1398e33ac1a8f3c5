#pragma once
// One golden case of rqopt: the command line, the request given on standard input, and
// the expected standard output, standard error and exit status. The file reads:
//
//     # What the case shows (any number of comment lines).
//     $ rqopt --diff --rules RemoveRedundantOrderBy
//     === input
//     <the request, given on standard input>
//     === stdout
//     <expected standard output>
//     === stderr
//     <expected standard error>
//     === exit 2
//
// A case whose rules, as they are meant to work, change the rows of its request declares it
// as a known hazard, before its input, with the check's verdict and the reason:
//
//     === hazard not comparable
//     The derived table's ORDER BY decides which rows the page keeps; the rule deletes it.
//
// The SQL check of every case (tests/rqopt/SqlCheckAllTest.cpp) then expects that verdict
// ("different" or "not comparable") instead of "same".
//
// Every section is optional: a missing stdout or stderr section expects nothing there, a
// missing exit line expects 0. With an input section and no "-" on the command line, "-"
// is added. Sections hold whole lines and are compared exactly.

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

class GoldenFormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct GoldenCase {
    std::string m_preamble;  // the comments and the command line, kept as written
    std::vector<std::string> m_args;
    bool m_bHasInput = false;
    std::string m_input;
    std::string m_stdout;
    std::string m_stderr;
    int m_exit = 0;
    std::string m_hazard;        // the verdict a known hazard expects; empty for none
    std::string m_hazardReason;  // why, as written

    bool IsKnownHazard() const { return !m_hazard.empty(); }

    // The arguments rqopt runs with: m_args, plus "-" when the input comes from the file.
    std::vector<std::string> RunArgs() const;
};

// Throws GoldenFormatError ("file:line: message") on a malformed file.
GoldenCase ParseGoldenFile(std::string_view text, const std::string& fileName);
// The file text of a case; parsing it gives the case back.
std::string WriteGoldenFile(const GoldenCase& golden);
// Splits a command line at blanks; single or double quotes keep blanks inside an argument.
// Throws GoldenFormatError on an unterminated quote.
std::vector<std::string> SplitCommandLine(std::string_view line);
