#include "GoldenFile.h"

#include <algorithm>

namespace {

constexpr std::string_view kMarker = "=== ";
constexpr std::string_view kCommand = "$ rqopt";

[[noreturn]] void Fail(const std::string& fileName, int line, const std::string& message) {
    throw GoldenFormatError(fileName + ":" + std::to_string(line) + ": " + message);
}

bool IsBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

}  // namespace

std::vector<std::string> GoldenCase::RunArgs() const {
    std::vector<std::string> args = m_args;
    if (m_bHasInput && std::find(args.begin(), args.end(), "-") == args.end())
        args.push_back("-");
    return args;
}

std::vector<std::string> SplitCommandLine(std::string_view line) {
    std::vector<std::string> args;
    size_t i = 0;
    while (i < line.size()) {
        if (line[i] == ' ' || line[i] == '\t') {
            ++i;
            continue;
        }
        std::string arg;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t') {
            const char c = line[i++];
            if (c != '"' && c != '\'') {
                arg += c;
                continue;
            }
            const size_t close = line.find(c, i);
            if (close == std::string_view::npos)
                throw GoldenFormatError(std::string("unterminated ") + c + " in the command line");
            arg += line.substr(i, close - i);
            i = close + 1;
        }
        args.push_back(arg);
    }
    return args;
}

GoldenCase ParseGoldenFile(std::string_view text, const std::string& fileName) {
    GoldenCase golden;
    std::string* section = &golden.m_preamble;
    std::vector<std::string> seen;
    bool bHasCommand = false;
    int lineNumber = 0;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos)
            end = text.size();
        const std::string_view line = text.substr(start, end - start);
        start = end + 1;
        ++lineNumber;

        if (line.substr(0, kMarker.size()) == kMarker) {
            const std::string name(line.substr(kMarker.size()));
            const std::string key = name.substr(0, name.find(' '));
            if (std::find(seen.begin(), seen.end(), key) != seen.end())
                Fail(fileName, lineNumber, "a second '" + key + "' section");
            seen.push_back(key);
            if (name == "input") {
                golden.m_bHasInput = true;
                section = &golden.m_input;
            } else if (name == "stdout") {
                section = &golden.m_stdout;
            } else if (name == "stderr") {
                section = &golden.m_stderr;
            } else if (key == "hazard") {
                golden.m_hazard = name.size() > key.size() ? name.substr(key.size() + 1) : "";
                if (golden.m_hazard != "different" && golden.m_hazard != "not comparable")
                    Fail(fileName, lineNumber,
                         "'=== hazard' takes the verdict: different or not comparable");
                section = &golden.m_hazardReason;
            } else if (key == "exit") {
                const std::string code = name.substr(key.size());
                try {
                    size_t used = 0;
                    golden.m_exit = std::stoi(code, &used);
                    if (!IsBlank(code.substr(used)))
                        throw std::invalid_argument(code);
                } catch (const std::exception&) {
                    Fail(fileName, lineNumber, "'=== exit' takes a number");
                }
                section = nullptr;
            } else {
                Fail(fileName, lineNumber,
                     "unknown section '" + name + "' (hazard, input, stdout, stderr or exit N)");
            }
            continue;
        }
        if (section == nullptr) {
            if (!IsBlank(line))
                Fail(fileName, lineNumber, "text after the exit status");
            continue;
        }
        if (section == &golden.m_preamble) {
            if (line.substr(0, kCommand.size()) == kCommand &&
                (line.size() == kCommand.size() || line[kCommand.size()] == ' ')) {
                if (bHasCommand)
                    Fail(fileName, lineNumber, "a second command line");
                bHasCommand = true;
                try {
                    golden.m_args = SplitCommandLine(line.substr(kCommand.size()));
                } catch (const GoldenFormatError& e) {
                    Fail(fileName, lineNumber, e.what());
                }
            } else if (!IsBlank(line) && line[0] != '#') {
                Fail(fileName, lineNumber,
                     "expected a comment, the command line ('$ rqopt ...') or a section");
            }
        }
        *section += line;
        *section += '\n';
    }
    if (!bHasCommand)
        Fail(fileName, 1, "no command line ('$ rqopt ...')");
    if (golden.IsKnownHazard() &&
        golden.m_hazardReason.find_first_not_of(" \t\r\n") == std::string::npos)
        Fail(fileName, 1, "a known hazard without its reason");
    return golden;
}

std::string WriteGoldenFile(const GoldenCase& golden) {
    // A section holds whole lines: the next marker must start a line of its own.
    auto lines = [](const std::string& content) {
        return content.empty() || content.back() == '\n' ? content : content + "\n";
    };
    std::string text = lines(golden.m_preamble);
    if (golden.IsKnownHazard())
        text += "=== hazard " + golden.m_hazard + "\n" + lines(golden.m_hazardReason);
    if (golden.m_bHasInput)
        text += "=== input\n" + lines(golden.m_input);
    if (!golden.m_stdout.empty())
        text += "=== stdout\n" + lines(golden.m_stdout);
    if (!golden.m_stderr.empty())
        text += "=== stderr\n" + lines(golden.m_stderr);
    if (golden.m_exit != 0)
        text += "=== exit " + std::to_string(golden.m_exit) + "\n";
    return text;
}
