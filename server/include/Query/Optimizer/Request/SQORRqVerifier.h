#pragma once
// Structural verification of a request tree. A rewrite that leaves a tree malformed (a
// dangling column reference, a sort key naming a column that is gone, a clause in the wrong
// slot) usually fails much later and far away; the verifier finds such faults at once and
// names the node. It never asserts and never changes the tree: it reports every violation it
// finds, so that one run shows the whole damage.
//
// Rules checked (each violation carries one Kind):
//  - links: every child's parent link names the node that holds it; no node is held twice.
//  - block shape: an RqList holds at most its seven clauses, each in its own slot, and always
//    a projection; projections hold derived columns with one expression each; filters hold
//    one condition; table references hold tables or table references on their sides and a
//    condition (or nothing) in slot 2; the other containers hold the kinds they are made of.
//  - column numbers: every derived column has a number (kUnknownColumnNum is not allowed:
//    sort specs, break filters and rules name columns by number, and an unnumbered column can
//    be named by none of them) and the numbers of one projection are distinct.
//  - references: every RqDerivedColumnReference points at a live derived column of this tree
//    that its block can see (see below).
//  - ordering: every sort spec of a block's ORDER BY and every sort key of a sort-dependent
//    aggregate names a column number of its block's projection.
//  - break filters: every break index lies within the inner list's projection.
//  - expressions: operand counts lie within the kind's bounds (an aggregate always has its
//    three fixed slots, measure, by-list and compute break, then at most the kind's
//    parameters); only subqueries have a non-expression operand, a query block.
//  - shared lists name a list of this tree.
//  - grouping: each grouping set names positions of its GROUP BY's column list, each once;
//    a grouping id (RqExprGroupingId) lies in a block with a GROUP BY, and each of its
//    operands is equivalent to a column of that GROUP BY.
//  - what each kind holds is declared per class: write requests and the request kinds that
//    rules pass through are the only ones whose children are left unchecked.
//
// Visibility of a reference. The referring block is the nearest RqList above the reference.
// It sees the projection that each derived table of its FROM clause exposes: the derived
// table's inner list's projection, where a set operation exposes its first member's, a break
// filter, cache list or shared list the one of the list it reads. Derived tables nested in
// join trees count; blocks nested deeper do not. A block inside an expression subquery also
// sees what the block holding that subquery sees (a correlated reference): the subquery is
// evaluated for each row of that block, so those rows' columns are defined where it runs. A
// derived table's block does not see its enclosing block: it is evaluated before and
// independently of the block that reads it.

#include <vector>

#include "Platform/ZKString.h"
#include "Query/Optimizer/Request/SQORRqNode.h"

struct RqViolation {
    enum Kind {
        kParentLink,             // a child's parent link names another node
        kSharedNode,             // a node is held in two places (or in a cycle)
        kClauseSlot,             // an RqList slot holds the wrong clause, or no projection
        kProjectionMember,       // a projection member is not a derived column with one expr
        kColumnNumber,           // a derived column without a (non-negative) column number
        kDuplicateColumnNumber,  // two columns of one projection share a number
        kDanglingReference,      // a reference to no column, or to a column not in this tree
        kReferenceOutOfScope,    // a reference to a column its block cannot see
        kSortSpecColumn,         // an ORDER BY key names no column of its block
        kAggrSortKeyColumn,      // a sort-dependent aggregate's key names no column of its block
        kBreakFilterIndex,       // a break index outside the inner projection
        kTableReferenceShape,    // a table reference side or condition of the wrong kind
        kFilterShape,            // a filter clause without exactly one condition
        kOperandCount,           // an expression with too few or too many operands
        kChildKind,              // any other container holding a child of the wrong kind
        kSharedListTarget,       // a shared list naming no list of this tree
        kGroupingSet,            // a grouping set position outside the GROUP BY list, or twice
        kGroupingId,             // a grouping id without a GROUP BY, or over a non-member
    };

    const RqNode* m_pNode;  // the offending node
    // Where the walk found it, from the node verified, in RqNodeUtility::GetPath's format:
    // "RqHandleNode/RqList[0]/RqProjection[0]/RqDerivedColumn[2]".
    ZKString m_path;
    Kind m_kind;
    ZKString m_message;
};

class RqVerifier {
public:
    // Every violation in the tree below `root` (root included), in pre-order.
    static std::vector<RqViolation> Verify(const RqNode& root);
    // One line per violation: "<kind> at <path>: <message>".
    static ZKString Describe(const std::vector<RqViolation>& violations);
    // The name of a kind ("kDanglingReference").
    static const wchar_t* KindName(RqViolation::Kind kind);
};
