#pragma once
// The base of every rewrite rule, and the whole-request transformer interface.

#include "Query/Optimizer/Request/SQORAVisitorRqNode.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqVisitorDefaults.h"

class ARpGateway;
class ServerStatistics;

// A rewrite rule is a node visitor that the driver applies to a request pass after pass
// until it reports that it has nothing more to do. The Visit overloads stay as the visitor
// interface leaves them. A rule derives from RqNodeVisitorDefaults<RewriteRule>
// (SQORRqVisitorDefaults.h) to write only the overloads it uses; every other node answers
// false, so the walk goes on into its children.
class RewriteRule : public AVisitorRqNode {
public:
    // The driver. Each pass: the job's cancellation point, Reset, a walk of the tree below
    // `node` with this rule as visitor; passes repeat while StillActive answers true. Nothing
    // is caught: a cancellation, an error or an assertion leaves at once, and the tree keeps
    // what the interrupted pass had done.
    virtual void ApplyRule(RqNode& node);
    // Whether another pass is needed.
    virtual bool StillActive() const = 0;
    // Clears the per-pass state; options given to the constructor survive it.
    virtual void Reset() = 0;
};

// Statistics the optimizer collects about a request while transforming it.
class ServerStatistics {
public:
    int m_numTransformations = 0;
};

// Takes a whole request (its root list) and returns the root of the transformed request:
// the argument itself when it was rewritten in place, or a new root that replaces it.
class ATransformer {
public:
    virtual ~ATransformer() {}
    virtual RqAbstractList* TransformRequest(RqAbstractList* request,
                                             ServerStatistics& statistics) = 0;
};
