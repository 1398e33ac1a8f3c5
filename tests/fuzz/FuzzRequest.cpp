// Fuzzes the request reader and everything behind it: a text that reads must print, read
// back to the same tree, go through the default pipeline, verify, print again and render as
// SQL, and every node it made must be freed. Any rule that joins the pipeline is fuzzed here.

#include <exception>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

namespace {

void CheckRoundTrip(const RqHandleNode& root, const RpSession& session, const char* when) {
    const std::string printed = RqTextWriter::Write(root, &session);
    Heap<RqHandleNode> again(RqTextReader::Read(printed, "printed.rq", &session));
    std::string difference;
    if (!RqTextSameTree(root, *again, &difference))
        rqfuzz::Fail(when, difference + "\n" + printed);
    if (RqTextWriter::Write(*again, &session) != printed)
        rqfuzz::Fail(when, "a second print differs from the first:\n" + printed);
}

void ApplyDefaultPipeline(RqHandleNode& root, RpSession& session) {
    ServerStatistics statistics;
    const RuleContext context{&session, &statistics};
    for (const RuleSpec& spec :
         RuleRegistry::PipelineRules(*RuleRegistry::FindPipeline("default"))) {
        try {
            RuleRegistry::Apply(spec, context, root);
        } catch (const std::exception&) {
            // A rule may refuse a request (an error, a stack too small); the tree it leaves
            // must still be whole, which the verifier below checks.
            return;
        }
        if (!RqVerifier::Verify(root).empty())
            rqfuzz::Fail(
                "a rule left the request malformed",
                spec.ToString() + "\n" + RqVerifier::Describe(RqVerifier::Verify(root)).ToUtf8());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RpSession& session = rqfuzz::SampleSession();
    rqfuzz::NodeBalance balance;
    Heap<RqHandleNode> root;
    try {
        root.Reset(RqTextReader::Read(rqfuzz::AsText(data, size), "fuzz.rq", &session));
    } catch (const RqTextError&) {
        return 0;
    }
    // The tools refuse a malformed tree before any rule sees it; so does the target.
    if (!RqVerifier::Verify(*root).empty())
        return 0;
    CheckRoundTrip(*root, session, "the request read does not read back from its print");
    (void)SqlRenderer::Render(*root, &session);
    ApplyDefaultPipeline(*root, session);
    CheckRoundTrip(*root, session, "the rewritten request does not read back from its print");
    (void)SqlRenderer::Render(*root, &session);
    return 0;
}
