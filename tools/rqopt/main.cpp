// rqopt: applies rewrite rules to a request and prints it before and after.

#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "Platform/ErrorMessage.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqDumpout.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"
#include "SampleRequest.h"

namespace {

void PrintUsage(std::ostream& out) {
    out << "usage: rqopt [--help] [--version]\n"
           "Applies RemoveRedundantOrderBy to the bundled sample request (a sales report over\n"
           "a derived table that carries an ORDER BY of its own) and prints the request tree\n"
           "before and after the rule, then checks the rewritten tree with the verifier.\n";
}

std::string Narrow(const ZKString& text) {
    return text.ToUtf8();
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            PrintUsage(std::cout);
            return 0;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::cout << "rqopt 0.1.0\n";
            return 0;
        }
        std::cerr << "rqopt: unknown option '" << argv[i] << "'\n";
        PrintUsage(std::cerr);
        return 2;
    }

    try {
        std::shared_ptr<RpRepository> repository = BuildSampleCatalog();
        RpSession session(repository);
        Heap<RqHandleNode> request(BuildSampleRequest(*repository));

        std::cout << "== request as read\n"
                  << Narrow(RqDumpout::StringFrom(request.Get(), &session));
        RemoveRedundantOrderBy rule(&session);
        rule.ApplyRule(*request);
        std::cout << "\n== after RemoveRedundantOrderBy\n"
                  << Narrow(RqDumpout::StringFrom(request.Get(), &session));

        const std::vector<RqViolation> violations = RqVerifier::Verify(*request);
        if (!violations.empty()) {
            std::cerr << "rqopt: the rewritten request is malformed:\n"
                      << Narrow(RqVerifier::Describe(violations));
            return 1;
        }
    } catch (const ErrorMessage& error) {
        std::cerr << "rqopt: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
