#pragma once
// The request text format: a request tree written so that a person can read, write and
// diff it (docs/text-format.md). Printing is canonical (defaults are left out, one clause
// per line) and reading what was printed gives an equivalent tree.
#include <string>
#include <string_view>

#include "Query/Optimizer/Request/SQORRqNode.h"
#include "Query/Optimizer/RequestText/SQORTextLexer.h"

class ARpGateway;

class RqTextWriter {
public:
    // Prints `root` (normally the request's RqHandleNode; any node prints in its own
    // syntax). With a gateway, repository objects are named by their names wherever the
    // names lead back to the same identifiers; without one, by identifier.
    static std::string Write(const RqNode& root, const ARpGateway* rp = nullptr);
};

class RqTextReader {
public:
    // Reads one request and returns its root, owned by the caller. Names of repository
    // objects are resolved through the gateway's repository (identifiers need none).
    // Throws RqTextError, naming `fileName` and the position, on any malformed input.
    static RqHandleNode* Read(std::string_view text, const std::string& fileName,
                              const ARpGateway* rp = nullptr);
};

// Structural comparison of two trees, for checking that reading a printed tree gives the
// tree back: the same kinds in the same child slots, the same fields (execution choices and
// labels included), the same targets, node identities shared by the same groups of nodes,
// and references, shared lists and join links pointing at corresponding nodes. On a
// difference, `firstDifference` (when given) receives the path of the first node that
// differs and what differs.
bool RqTextSameTree(const RqNode& a, const RqNode& b, std::string* firstDifference = nullptr);
