// Fuzzes the differential check on small data: a request that reads is run as read and after
// the default pipeline on a few generated rows, and the two results compared. A difference
// is a wrong rewrite (or a wrong renderer) and ends the run like a crash.

#include <exception>
#include <string>

#include "FuzzSupport.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/RequestSql/SQORSqlCheck.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RpSession& session = rqfuzz::SampleSession();
    rqfuzz::NodeBalance balance;
    Heap<RqHandleNode> root;
    try {
        root.Reset(RqTextReader::Read(rqfuzz::AsText(data, size), "fuzz.rq", &session));
    } catch (const RqTextError&) {
        return 0;
    }
    if (!RqVerifier::Verify(*root).empty())
        return 0;
    Heap<RqNode> original(root->DeepCopy(false));
    ServerStatistics statistics;
    const RuleContext context{&session, &statistics};
    try {
        for (const RuleSpec& spec :
             RuleRegistry::PipelineRules(*RuleRegistry::FindPipeline("default")))
            RuleRegistry::Apply(spec, context, *root);
    } catch (const std::exception&) {
        return 0;
    }
    SqlCheckOptions options;
    options.m_rows = 4;
    SqlCheckSession check(&session, options);
    check.AddLiterals(*original);
    check.AddLiterals(*root);
    const SqlCheckOutcome outcome = check.Compare(check.Run(*original), check.Run(*root));
    if (outcome.m_kind == SqlCheckOutcome::kDifferent)
        rqfuzz::Fail("the default pipeline changed the result", outcome.Report());
    return 0;
}
