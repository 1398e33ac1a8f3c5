#pragma once
// Inside the SQL renderer: the writer that walks a request tree and builds its SQLite text,
// and the analyses it shares between its parts. The writer's member functions live in one
// source file per part of the statement:
//
//   SQORSqlWriteLists.cpp   lists: set operations, break filters, row limits
//   SQORSqlWriteBlock.cpp   blocks: grain, clauses, grouping sets
//   SQORSqlWriteAggr.cpp    aggregates of detail rows, helper tables, window aggregates
//   SQORSqlWriteFrom.cpp    FROM clauses and joins
//   SQORSqlWriteExpr.cpp    expressions, functions and subqueries
//   SQORSqlAnalysis.cpp     what an expression reads and where its aggregates are
//
// A construct that cannot be rendered throws a RenderFailure naming its node; Render turns it
// into the SqlRenderResult.

#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/RequestSql/SQORSqlKindForms.h"
#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"
#include "SQORSqlPrecedence.h"

namespace sqlrender {

// Nesting beyond this is refused rather than risking the stack: requests that deep are not
// written by hand, and the check would not finish on them anyway.
constexpr int kMaxListDepth = 200;
constexpr int kMaxExprDepth = 2000;
// SQLite refuses a compound of more than 500 SELECTs (a compile-time maximum that cannot be
// raised at run time): longer chains are evaluated in runs of at most this many members.
constexpr size_t kMaxCompoundTerms = 400;

struct RenderFailure {
    SqlProblem m_problem;
    const RqNode* m_pNode;
    std::string m_reason;
};

[[noreturn]] void Fail(SqlProblem problem, const RqNode* node, std::string reason);
// A refusal by the kind's entry: no SQL meaning, or not rendered (unlisted kinds included).
[[noreturn]] void FailByForm(const RqNode& node);

std::string KindName(const RqNode* node);
std::string Utf8(const ZKString& text);
// Prefixes every line of `text` with `spaces` blanks.
std::string Indent(const std::string& text, int spaces = 2);
std::string Join(const std::vector<std::string>& parts, const char* separator);
// "name COLLATE NOCASE DESC NULLS LAST": one ORDER BY term.
std::string OrderTerm(const std::string& name, const SqlSortKey& key);

using ExprList = std::vector<const RqExpr*>;

// ---- Names in scope ----------------------------------------------------------------------

// What the expressions of one block can name: its FROM clause's tables and the columns its
// derived tables expose, and (for a subquery) what the enclosing block can name.
struct Scope {
    const Scope* m_pOuter = nullptr;
    // A helper table of aggregates: evaluated in the FROM clause, it sees no enclosing block.
    bool m_bIsolated = false;
    struct Table {
        std::string m_alias;
        RefATable m_table;
    };
    std::map<int, Table> m_tables;  // repository tables by table number
    std::set<int> m_tableNumbers;   // every table number of the FROM clause
    std::unordered_map<const RqDerivedColumn*, std::string> m_columns;  // exposed columns
};

// ---- Expression analysis (SQORSqlAnalysis.cpp) --------------------------------------------
// Operands are walked through GetIthOperand, which yields null for a subquery's block: the
// aggregates and columns of a subquery belong to the subquery's own block.

// Whether an expression nests deeper than the renderer follows (checked without recursion).
bool IsTooDeep(const RqExpr* root);
bool ContainsAggr(const RqExpr* expr);
// Rank, row number, running, moving and report aggregates are computed over the block's
// result rows, after its grouping: window functions, not aggregates of detail rows.
bool IsWindowAggr(const RqExpr* expr);
bool ContainsWindowAggr(const RqExpr* expr);
// The outermost aggregates of detail rows, in pre-order, looking through window aggregates.
void CollectAggrs(const RqExpr* expr, std::vector<const RqExprAggr*>& out);
// The outermost window aggregates of an expression.
void CollectWindowAggrs(const RqExpr* expr, std::vector<const RqExprAggr*>& out);
// Whether a subquery reads the row of the block whose scope is given (a correlation).
bool SubqueryReadsScope(const RqExpr& subquery, const Scope& scope);
// The expression reads a value of the current row outside any aggregate.
bool ReadsRowOutsideAggr(const RqExpr* expr, const Scope& scope);
bool HasEquivalent(const ExprList& list, const RqExpr& expr);
bool IsSubset(const ExprList& a, const ExprList& b);
bool SameSet(const ExprList& a, const ExprList& b);
// The members of a column list that can change a grouping: constants group all rows alike.
ExprList GroupingMembers(const RqExprColumnListOrdered* list);
// The first sub-expression outside aggregates that the grain does not determine, or null.
const RqExpr* FindUndetermined(const RqExpr* expr, const ExprList& grain, const Scope& scope);
// The top-level AND operands of a condition, left to right, without recursion.
void HarvestConjuncts(const RqExpr* cond, ExprList& out);
// The derived table a block reads row for row, keeping its order; null when it reads none.
const RqDerivedTable* RowForRowSource(const RqList& block);

// ---- Rendering context ------------------------------------------------------------------

// One grouping set of a block rendered as one branch of the stacked result: the GROUP BY
// columns it groups by and those it leaves out (null in its rows).
struct GroupingBranch {
    const RqGroupBy* m_pGroupBy = nullptr;
    ExprList m_grouped;  // the set's columns, as expressions
    ExprList m_leftOut;  // the other columns of the list
};

// How the expressions at one place of a block are rendered.
struct ExprEnv {
    const Scope* m_pScope = nullptr;
    // Aggregates computed in a helper table, by node: the column that holds the value.
    const std::unordered_map<const RqExpr*, std::string>* m_pAggrValues = nullptr;
    // Other aggregates are SQL aggregates over the block's groups.
    bool m_bInlineAggr = false;
    // Why an aggregate cannot stand here, when it cannot.
    const char* m_pNoAggrReason = "an aggregate where the block computes none";
    // The block whose result rows window aggregates run over (their sort keys name its
    // projection); null where none can stand (conditions on detail rows, other aggregates,
    // another window's operands).
    const RqList* m_pWindowBlock = nullptr;
    // The grouping set whose rows are being written, in a block with grouping sets; null
    // elsewhere.
    const GroupingBranch* m_pBranch = nullptr;
    // Where GROUPING_ID has no value: a row condition or an aggregate's measure of a block
    // with grouping sets, which see detail rows, not grouped ones.
    bool m_bNoGroupingId = false;
};

// What a block computes, gathered before any of it is written.
struct BlockShape {
    ExprList m_columns;       // the projection's expressions
    ExprList m_rowConds;      // the WHERE conjuncts on detail rows
    ExprList m_summaryConds;  // summary filter, HAVING, the aggregate conjuncts of WHERE
    std::vector<const RqExprAggr*> m_aggrs;  // aggregates of detail rows, projected first
    size_t m_numProjectedAggrs = 0;
    std::vector<const RqExprAggr*> m_windows;  // window aggregates
    const RqGroupBy* m_pGroupBy = nullptr;
    bool m_bDetails = false;  // one result row per detail row
    ExprList m_grain;         // the grouping, at an aggregated grain
};

// Aggregates computed at one level other than the block's grain, in a helper table joined
// back to the block's rows.
struct AggrLevel {
    ExprList m_level;
    std::vector<const RqExprAggr*> m_aggrs;  // one per distinct aggregate
};

// ---- The writer -----------------------------------------------------------------------

class SqlWriter {
public:
    SqlWriter(const ARpGateway* rp, const SqlRenderOptions& options,
              std::vector<const RqAbstractList*>& orderDependent)
        : m_pRp(rp), m_options(options), m_orderDependent(orderDependent) {}

    // The statement of a request handle or a list.
    std::string Top(const RqNode& root);

private:
    // ---- Lists (SQORSqlWriteLists.cpp) ---------------------------------------------------
    std::string List(const RqAbstractList& list, const Scope* outer);
    std::string ListOfKind(const RqAbstractList& list, const Scope* outer);
    std::vector<SqlSortKey> Order(const RqAbstractList& list);
    bool LimitApplies(const RqAbstractList& list) const;
    std::string LimitClause(const RqAbstractList& list);
    std::string WithLimit(const RqAbstractList& list, const std::string& sql,
                          const std::vector<SqlSortKey>& keys);
    std::string OrderTerms(const RqAbstractList& list, const std::vector<SqlSortKey>& keys);
    std::vector<std::string> ColumnNames(const RqAbstractList& list);
    std::string Member(const RqAbstractList& member, const Scope* outer);
    // A member that cannot stand in a compound as it is, read from a named or nested query.
    std::string Wrapped(const std::string& sql, const Scope* outer);
    std::string SetOperation(const RqAbstractList& op, bool bAll, const Scope* outer);
    std::string CountedSetOperation(const std::vector<const RqAbstractList*>& members,
                                    const char* keyword, const Scope* outer);
    std::string BreakFilter(const RqBreakFilter& filter, const Scope* outer);

    // ---- Blocks (SQORSqlWriteBlock.cpp) --------------------------------------------------
    std::string Block(const RqList& block, const Scope* outer);
    BlockShape Shape(const RqList& block, const Scope& scope);
    void CollectConditions(const RqList& block, BlockShape& shape);
    void DecideGrain(const Scope& scope, BlockShape& shape);
    std::vector<AggrLevel> OtherLevels(const BlockShape& shape);
    std::string Grouped(const RqList& block, const std::string& from, const Scope& scope,
                        const BlockShape& shape, const GroupingBranch* branch);
    std::string GroupByClause(const BlockShape& shape, const Scope& scope,
                              const GroupingBranch* branch);
    std::string GroupingSets(const RqList& block, const std::string& from, const Scope& scope,
                             const BlockShape& shape);
    std::string OrderAndLimit(const RqList& block, const Scope& scope);
    const RqExpr* FilterCond(const RqNode& filter);

    // ---- Aggregates and windows (SQORSqlWriteAggr.cpp) ---------------------------------------
    void CheckAggregate(const RqExprAggr& aggr);
    std::string AggrCall(const RqExprAggr& aggr, const ExprEnv& env);
    Sql Aggregate(const RqExprAggr& aggr, const ExprEnv& env);
    void CheckWindowAggr(const RqExprAggr& aggr);
    std::string WindowCall(const RqExprAggr& aggr, const ExprEnv& env);
    std::vector<std::string> WindowOrder(const RqExprAggr& aggr, const RqList& block,
                                         const ExprEnv& env);
    std::string AggrJoin(const RqList& block, const AggrLevel& level, const ExprList& rowConds,
                         const Scope& mainScope, const std::vector<const RqExprAggr*>& allAggrs,
                         std::unordered_map<const RqExpr*, std::string>& values);
    static ExprList LevelOf(const RqExprAggr& aggr, const RqList& block);

    // ---- FROM (SQORSqlWriteFrom.cpp) -----------------------------------------------------
    std::string From(const RqJoinSpec& joinSpec, Scope& scope);
    static bool PreservesRightSide(const RqNode* side);
    static bool IsJoin(const RqNode* side);
    void Register(const RqNode* side, Scope& scope,
                  std::unordered_map<const RqNode*, std::string>& aliases);
    std::string Side(const RqNode* side, const Scope& scope,
                     const std::unordered_map<const RqNode*, std::string>& aliases);
    std::string JoinCondition(const RqTableReference& reference, const Scope& scope);

    // ---- Expressions (SQORSqlWriteExpr.cpp) ----------------------------------------------
    Sql Expr(const RqExpr& expr, const ExprEnv& env);
    Sql ExprNode(const RqExpr& expr, const ExprEnv& env);
    const RqExpr& Op(const RqExpr& expr, int i);
    void CheckOperandCount(const RqExpr& expr, int min, int max);
    void CheckOperandCount(const RqExpr& expr);
    Sql Operator(const RqExpr& expr, const ExprEnv& env);
    Sql Function(const RqExpr& expr, const char* name, const ExprEnv& env);
    Sql SpecialForm(const RqExpr& expr, const ExprEnv& env);
    Sql Literal(const RqExpr& expr);
    Sql Condition(const RqExpr& expr, const ExprEnv& env);
    Sql Case(const RqExpr& expr, const ExprEnv& env);
    Sql GroupingId(const RqExpr& expr, const ExprEnv& env);
    std::string TargetColumn(const RqTargetColumn& column, const ExprEnv& env);
    std::string Reference(const RqDerivedColumnReference& reference, const ExprEnv& env);
    [[noreturn]] void Unresolved(const RqExpr& expr, bool bCrossedIsolation,
                                 const std::string& reason);
    std::string SubqueryList(const RqExpr& operand, const ExprEnv& env);
    const RqAbstractList& SubqueryOf(const RqExpr& operand);
    Sql ScalarSubquery(const RqExpr& subquery, const ExprEnv& env);
    Sql In(const RqExpr& expr, const ExprEnv& env);
    Sql Quantified(const RqExpr& expr, const ExprEnv& env);

    // ---- Names ----------------------------------------------------------------------------
    std::string NewAlias(const std::string& base);
    // Makes `sql` a query of the statement's WITH clause and returns its name. SQLite's parser
    // gives up after a few dozen nested subqueries; named queries cost no nesting, so a request
    // nested a hundred derived tables deep is still one statement SQLite reads. Only a query
    // that sees no enclosing block can move there.
    std::string Hoist(const std::string& base, const std::string& sql);

    const ARpGateway* m_pRp;
    SqlRenderOptions m_options;
    std::vector<const RqAbstractList*>& m_orderDependent;
    std::set<std::string> m_aliases;
    std::unordered_map<std::string, int> m_nextSuffix;
    std::vector<std::string> m_namedQueries;  // "d1 AS (...)", in the order they may be read
    // The statement holds a right or full join. SQLite 3.40's query flattener mistakes rows of
    // such joins when it merges a named query into the query that reads it (a UNION ALL whose
    // branch right-joins returned an extra row); named queries are then materialized.
    bool m_bRightOrFullJoin = false;
    std::set<const RqAbstractList*> m_activeShared;
    int m_listDepth = 0;
    size_t m_numConnectives = 0;

public:
    size_t GetNumConnectives() const { return m_numConnectives; }

private:
    int m_exprDepth = 0;
    int m_breakFilterCount = 0;
    int m_aggrTableCount = 0;
    int m_subqueryCount = 0;
};

}  // namespace sqlrender
