#pragma once
// A multi-line text dump of a request tree for diagnostics.
//
// One node per line, indented by two spaces per level below the dumped node:
//     <KindName> [[<nodeID>]][ target=<type>][ targetID=<id>][ <fields>][: <expression>]
// The target type is written by its short name (its number when it has none) and only when
// it is not the unknown one; the target identifier only when it is not null. The fields are
// those of RqNodeUtility::GetFieldsText. An expression is one line: the ": " part carries its
// whole text (ToString), and its operands get no lines of their own; only the query blocks of
// subqueries inside it are dumped below it. Absent children are left out. The text ends each
// line with a newline and is the same for the same tree.

#include <ostream>

#include "Platform/ZKString.h"
#include "Query/Optimizer/Request/SQORRqNode.h"

class ARpGateway;

class RqDumpout {
public:
    // Writes the dump of the subtree of `node` ("<null>" and a newline for null). With a
    // gateway, repository names are added for tables and unnamed target columns.
    static void DebugPrint(const RqNode* node, std::wostream& out, ARpGateway* rp = nullptr);
    static ZKString StringFrom(const RqNode* node, ARpGateway* rp = nullptr);
};
