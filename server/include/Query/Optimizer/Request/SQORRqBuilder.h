#pragma once
// A small builder for request trees, so that code that makes trees (tests above all) reads
// like the query it builds:
//
//     RqList* inner = rqb::Block()
//                         .Label(L"inner")
//                         .Select(rqb::Col(L"region", 1))
//                         .Select(rqb::Sum(rqb::Col(L"sales", 1)))
//                         .From(rqb::Table(VoidID(3, 10), 1))
//                         .GroupBy({rqb::Col(L"region", 1)})
//                         .Build();
//     RqExpr* region = rqb::Ref(*inner, 0);    // take references before handing inner over
//     Heap<RqHandleNode> request(rqb::Request(rqb::Block()
//                                                 .Select(region)
//                                                 .From(rqb::Derived(inner))
//                                                 .OrderBy({{0, RqSortSpec::kDesc}})
//                                                 .Build()));
//
// Code that writes `using namespace rqb;` also needs `using rqb::Ref;` in its own namespace
// (an unnamed one will do): the repository's Ref<T> template makes a plain `Ref` ambiguous.
//
// Ownership: every helper returns a new node (RQ_NEW) owned by the caller until it is handed
// to another helper or to the block builder, which then own it. A Block that is destroyed
// without Build destroys what it holds. Helpers assert on misuse (an index out of range).

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace rqb {

// ---- Columns and literals -------------------------------------------------------------------

// A physical column named `name` of the request's table number `tableNum`.
RqTargetColumn* Col(const ZKString& name, int tableNum = 0);
// A reference to a derived column.
RqDerivedColumnReference* Ref(RqDerivedColumn* column);
// A reference to column `columnIndex` of the projection that `list` exposes (for a set
// operation, its first member's; for a break filter or shared list, its inner list's).
RqDerivedColumnReference* Ref(const RqAbstractList& list, int columnIndex);
// Column `columnIndex` of the projection that `list` exposes.
RqDerivedColumn* Column(const RqAbstractList& list, int columnIndex);

RqExprIntegerLiteral* Int(int64_t value);
RqExprStringLiteral* Str(const ZKString& value);
RqExprFloatLiteral* Float(double value);
RqExprNullLiteral* Null();
RqExprParam* Param(const ZKString& name);

// ---- Conditions -----------------------------------------------------------------------------

RqExprCond* Eq(RqExpr* left, RqExpr* right);
RqExprCond* Ne(RqExpr* left, RqExpr* right);
RqExprCond* Lt(RqExpr* left, RqExpr* right);
RqExprCond* Le(RqExpr* left, RqExpr* right);
RqExprCond* Gt(RqExpr* left, RqExpr* right);
RqExprCond* Ge(RqExpr* left, RqExpr* right);
RqExprCond* And(RqExpr* left, RqExpr* right);
RqExprCond* Or(RqExpr* left, RqExpr* right);
RqExprCond* Not(RqExpr* operand);
RqExprCond* IsNull(RqExpr* operand);
RqExprCond* Between(RqExpr* value, RqExpr* low, RqExpr* high);
RqExprCond* Like(RqExpr* value, RqExpr* pattern);
// value IN (members...).
RqExprCond* In(RqExpr* value, std::initializer_list<RqExpr*> members);

// ---- Arithmetic -----------------------------------------------------------------------------

RqExpr* Add(RqExpr* left, RqExpr* right);
RqExpr* Sub(RqExpr* left, RqExpr* right);
RqExpr* Mul(RqExpr* left, RqExpr* right);
RqExpr* Div(RqExpr* left, RqExpr* right);
RqExpr* Neg(RqExpr* operand);

// ---- Subqueries -----------------------------------------------------------------------------

// A subquery over `query` (taken over), usable as an operand.
RqExprLogicalSubquery* Subquery(RqAbstractList* query);
// EXISTS (query).
RqExprCond* Exists(RqAbstractList* query);

// ---- Aggregates -----------------------------------------------------------------------------

// An expression list owned until an aggregate takes it; what is never taken is destroyed.
class ExprList {
public:
    ExprList() = default;
    ExprList(std::initializer_list<RqExpr*> exprs);
    ExprList(ExprList&& other) noexcept;
    ExprList& operator=(ExprList&& other) noexcept;
    ExprList(const ExprList&) = delete;
    ExprList& operator=(const ExprList&) = delete;
    ~ExprList();

    bool IsPresent() const { return m_bPresent; }
    // The list as a column list (null when none was given); the caller owns it.
    RqExprColumnList* ReleaseColumnList();

private:
    RqExprVector m_exprs;
    bool m_bPresent = false;
};

// The by-list of an aggregate: the grouping level it is computed at. `By({})` is an empty,
// present by-list (the grand total); leaving the argument out leaves the slot null.
class By : public ExprList {
public:
    using ExprList::ExprList;
};
// The compute break of an aggregate (its second column list).
class ComputeBreak : public ExprList {
public:
    using ExprList::ExprList;
};

// Any aggregate class: Aggr<RqExprAggrMedian>(measure, By({...})).
template <class A>
A* Aggr(RqExpr* measure, By by = By(), ComputeBreak computeBreak = ComputeBreak()) {
    RqExprColumnList* byList = by.ReleaseColumnList();
    RqExprColumnList* breakList = computeBreak.ReleaseColumnList();
    return RQ_NEW A(measure, byList, breakList);
}

RqExprAggrSum* Sum(RqExpr* measure, By by = By(), ComputeBreak computeBreak = ComputeBreak());
RqExprAggrCount* Count(RqExpr* measure, By by = By(), ComputeBreak computeBreak = ComputeBreak());
RqExprAggrCountStar* CountStar(By by = By(), ComputeBreak computeBreak = ComputeBreak());
RqExprAggrAvg* Avg(RqExpr* measure, By by = By(), ComputeBreak computeBreak = ComputeBreak());
RqExprAggrMin* Min(RqExpr* measure, By by = By(), ComputeBreak computeBreak = ComputeBreak());
RqExprAggrMax* Max(RqExpr* measure, By by = By(), ComputeBreak computeBreak = ComputeBreak());

// Marks the aggregate DISTINCT and returns it: Distinct(Count(e)).
template <class A>
A* Distinct(A* aggr) {
    aggr->SetDistinctAggregation(true);
    return aggr;
}

// Gives a sort-dependent aggregate (rank, row number, ...) its sort keys, by column numbers
// of its block's projection, and returns it:
//     SortedBy(Aggr<RqExprAggrRank>(Ref(*inner, 1)), {{1, RqSortSpec::kDesc}})
template <class A>
A* SortedBy(A* aggr, std::initializer_list<RqExprSortDependentAggr::SortKey> keys) {
    aggr->SetSortSpec(RqExprSortDependentAggr::SortKeys(keys));
    return aggr;
}

// ---- Tables ---------------------------------------------------------------------------------

// A repository table.
RqAtomicTable* Table(const VoidID& tableID, int tableNum = 0);
// A derived table over `inner` (taken over).
RqDerivedTable* Derived(RqAbstractList* inner, int tableNum = 0);
// A join of two sides (tables or nested joins), usable as a side of another join.
RqTableReference* JoinRef(SqlTableRef::JoinType joinType, RqNode* left, RqNode* right,
                          RqExpr* cond);

// ---- Lists and set operations -----------------------------------------------------------------

RqUnion* Union(std::initializer_list<RqAbstractList*> lists, bool bAll);
RqIntersect* Intersect(std::initializer_list<RqAbstractList*> lists, bool bAll = false);
RqExcept* Except(std::initializer_list<RqAbstractList*> lists, bool bAll = false);
// One row per change of the inner list's columns at `indexes` (projection positions).
RqBreakFilter* BreakFilter(RqAbstractList* inner, std::initializer_list<uint16_t> indexes);
// A consumer's view of `shared`, which stays where the request keeps it.
RqSharedList* Shared(RqAbstractList* shared);
// The request root over `request` (taken over).
RqHandleNode* Request(RqNode* request);

// Marks `node` and the nodes below it with a target, stopping at nested lists (the blocks
// that a derived table, set operation or subquery holds keep their own target).
void MarkBlockTarget(RqNode* node, ServerInfo::TargetType type, const VoidID& targetID);

// ---- Query blocks -----------------------------------------------------------------------------

// One ORDER BY key by projection position (converted to the column number at Build).
struct Order {
    int m_columnIndex;
    RqSortSpec::SortDirection m_direction = RqSortSpec::kAsc;
};

class Block {
public:
    // A block whose projection numbers its columns from `firstColumnNum`.
    explicit Block(int firstColumnNum = 0);
    ~Block();
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    Block& Label(const ZKString& label);
    // Appends a column over `expr`, numbered by the projection's generator.
    Block& Select(RqExpr* expr);
    // Appends a column over `expr` with an explicit column number.
    Block& SelectAs(RqExpr* expr, int columnNumber);
    // Adds a FROM member over one table (an RqAbstractTable, or a join from JoinRef).
    Block& From(RqNode* table);
    // Adds a FROM member joining two sides.
    Block& Join(SqlTableRef::JoinType joinType, RqNode* left, RqNode* right, RqExpr* cond);
    // Clauses; a second call replaces the first one's clause.
    Block& Where(RqExpr* cond);
    Block& SummaryFilter(RqExpr* cond);
    Block& GroupBy(std::initializer_list<RqExpr*> exprs);
    Block& Having(RqExpr* cond);
    Block& OrderBy(std::initializer_list<Order> keys);
    Block& Distinct(bool value = true);
    Block& Limit(uint32_t rows);
    Block& Offset(uint32_t rows);
    // Marks the block (not the blocks nested in it) with a target, at Build.
    Block& Target(ServerInfo::TargetType type, const VoidID& targetID = VoidID::NullID);

    // The block being built (still owned by the builder).
    RqList& List() const { return *m_pList; }
    // Column `index` of the projection built so far.
    RqDerivedColumn* Column(int index) const;

    // Hands the block over; the builder is empty afterwards.
    RqList* Build();

private:
    RqList* m_pList;
    std::vector<Order> m_orderKeys;
    bool m_bHasOrderBy = false;
    bool m_bHasTarget = false;
    ServerInfo::TargetType m_targetType = ServerInfo::kUnknown;
    VoidID m_targetID;
};

}  // namespace rqb
