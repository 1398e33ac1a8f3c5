// rqgolden: runs golden cases of rqopt (GoldenFile.h) in-process and compares what rqopt
// prints with what the case expects. With RQ_UPDATE_GOLDEN=1 (or --update) it writes the
// actual results into the files instead, for review in the commit.
//
//     rqgolden [--update] FILE.test...
//
// Paths inside the cases (catalogs, example requests) are relative to the repository root,
// which the runner makes its working directory.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "GoldenFile.h"
#include "Platform/ZKNodeAlloc.h"
#include "Rqopt.h"
#include "TextDiff.h"

namespace {

bool ReadFile(const std::filesystem::path& path, std::string& text) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return false;
    std::ostringstream content;
    content << file.rdbuf();
    text = content.str();
    return true;
}

std::string WholeLines(std::string text) {
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    return text;
}

// Prints a difference between expected and actual text; true when they are equal.
bool Compare(const std::string& file, const char* what, const std::string& expected,
             const std::string& actual) {
    if (expected == actual)
        return true;
    std::cout << file << ": " << what << " differs\n"
              << UnifiedDiff(expected, actual, "expected " + std::string(what),
                             "actual " + std::string(what));
    return false;
}

// Runs one case; 0 passed, 1 failed.
int RunCase(const std::filesystem::path& path, bool bUpdate) {
    const std::string name = path.string();
    std::string text;
    if (!ReadFile(path, text)) {
        std::cout << name << ": cannot read the file\n";
        return 1;
    }
    GoldenCase golden;
    try {
        golden = ParseGoldenFile(text, name);
    } catch (const GoldenFormatError& e) {
        std::cout << e.what() << "\n";
        return 1;
    }

    std::istringstream in(golden.m_input);
    std::ostringstream out;
    std::ostringstream err;
    const long long liveBefore = ZKNodeAlloc::LiveCount();
    const int status = RunRqopt(golden.RunArgs(), in, out, err);
    const long long leaked = ZKNodeAlloc::LiveCount() - liveBefore;

    int result = 0;
    if (leaked != 0) {
        std::cout << name << ": rqopt leaked " << leaked << " tree allocations\n";
        for (const ZKNodeAlloc::SiteReport& site : ZKNodeAlloc::LiveSites())
            std::cout << "  " << site.m_file << ":" << site.m_line << "  live " << site.m_live
                      << "\n";
        result = 1;
    }

    GoldenCase actual = golden;
    actual.m_stdout = WholeLines(out.str());
    actual.m_stderr = WholeLines(err.str());
    actual.m_exit = status;
    if (bUpdate) {
        const std::string updated = WriteGoldenFile(actual);
        if (updated != text) {
            std::ofstream file(path, std::ios::binary | std::ios::trunc);
            file << updated;
            if (!file) {
                std::cout << name << ": cannot write the file\n";
                return 1;
            }
            std::cout << name << ": updated\n";
        }
        return result;
    }

    bool bSame = Compare(name, "stdout", golden.m_stdout, actual.m_stdout);
    bSame = Compare(name, "stderr", golden.m_stderr, actual.m_stderr) && bSame;
    if (golden.m_exit != actual.m_exit) {
        std::cout << name << ": exit status " << actual.m_exit << ", expected " << golden.m_exit
                  << "\n";
        bSame = false;
    }
    if (!bSame) {
        std::cout << name << ": to accept the actual results, rerun with RQ_UPDATE_GOLDEN=1 "
                  << "and review the change\n";
        result = 1;
    }
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    const char* update = std::getenv("RQ_UPDATE_GOLDEN");
    bool bUpdate = update != nullptr && std::string(update) == "1";
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--update")
            bUpdate = true;
        else
            files.push_back(std::filesystem::absolute(arg));
    }
    if (files.empty()) {
        std::cerr << "usage: rqgolden [--update] FILE.test...\n";
        return 2;
    }
    std::error_code error;
    std::filesystem::current_path(RQ_SOURCE_DIR, error);
    if (error) {
        std::cerr << "rqgolden: cannot enter " << RQ_SOURCE_DIR << ": " << error.message() << "\n";
        return 2;
    }
    int failed = 0;
    for (const std::filesystem::path& file : files)
        failed += RunCase(file, bUpdate);
    return failed == 0 ? 0 : 1;
}
