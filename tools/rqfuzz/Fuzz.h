#pragma once
// rqfuzz and rqreduce as functions, so that tests drive them in-process, with a rule table
// of their own (planted faults) in place of the registry's (docs/fuzzing.md).

#include <iosfwd>
#include <string>
#include <vector>

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

// Exit codes of both tools.
enum FuzzExit {
    kFuzzOk = 0,        // rqfuzz: no failure; rqreduce: reduced
    kFuzzFailures = 1,  // rqfuzz: some rule failed
    kFuzzUsage = 2,     // bad command line or input
};

// `table`: the rules named by --rules (and applied on their own); null for the registry's,
// whose pipelines are then available too.
int RunRqfuzz(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
              const std::vector<RuleInfo>* table = nullptr);
int RunRqreduce(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                const std::vector<RuleInfo>* table = nullptr);
