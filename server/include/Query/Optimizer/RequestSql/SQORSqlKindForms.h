#pragma once
// How the SQL renderer treats each kind of node: one entry per concrete kind of the kind
// table, saying whether it is rendered, in which form, or why not. The renderer dispatches on
// these entries, so a kind is never rendered by accident: a kind added to the kind table has
// no entry until someone decides what it means in SQL, and until then it is refused as
// unlisted (a test walks every kind and fails on an unlisted one).

#include "Query/Optimizer/Request/SQORRqNodeType.h"

enum class SqlKindRole {
    kUnlisted,         // no entry: abstract kinds and markers only (never a node of a tree)
    kRequest,          // the request handle: means its request
    kList,             // a list of rows: block, set operation, break filter, cache or shared list
    kTable,            // a FROM member: a repository table or a derived table
    kBlockPart,        // a clause or part of a block or aggregate, rendered by its owner
    kOperator,         // an infix or prefix operator (the precedence table gives its form)
    kFunction,         // a SQLite function applied to the operands in order (m_text names it)
    kSpecialForm,      // a form of its own: literals, columns, CASE, CAST, IN, subqueries, ...
    kAggregate,        // an aggregate of detail rows (m_text: the SQL aggregate function)
    kWindowAggregate,  // a window function over the block's result rows
    kNoSqlMeaning,     // no meaning in SQL terms (m_text: why)
    kNotRendered,      // a meaning the renderer does not produce (m_text: what is missing)
};

struct SqlKindForm {
    RqNodeType_e m_kind;
    SqlKindRole m_role;
    // The SQL function of a function or an aggregate; the reason of a refusal; else null.
    const char* m_text;
};

// The entry of a kind. A kind without one gets an entry of role kUnlisted, which the renderer
// refuses as not rendered.
const SqlKindForm& SqlKindFormOf(RqNodeType_e kind);
