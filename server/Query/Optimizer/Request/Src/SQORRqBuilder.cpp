// The request-tree builder: thin wrappers over the node constructors, so that each helper
// makes exactly the node its name says and hands ownership on.

#include "Query/Optimizer/Request/SQORRqBuilder.h"

#include <utility>

namespace rqb {

// ---- Columns and literals -------------------------------------------------------------------

RqTargetColumn* Col(const ZKString& name, int tableNum) {
    return RQ_NEW RqTargetColumn(name, tableNum);
}

RqDerivedColumnReference* Ref(RqDerivedColumn* column) {
    ZK_ASSERT(column != nullptr);
    return RQ_NEW RqDerivedColumnReference(column);
}

RqDerivedColumn* Column(const RqAbstractList& list, int columnIndex) {
    RqProjection* projection = list.GetProjection();
    ZK_ASSERT(projection != nullptr);
    ZK_ASSERT(columnIndex >= 0 && columnIndex < projection->GetNumColumns());
    return projection->GetIthColumn(columnIndex);
}

RqDerivedColumnReference* Ref(const RqAbstractList& list, int columnIndex) {
    return Ref(Column(list, columnIndex));
}

RqExprIntegerLiteral* Int(int64_t value) {
    return RQ_NEW RqExprIntegerLiteral(value);
}
RqExprStringLiteral* Str(const ZKString& value) {
    return RQ_NEW RqExprStringLiteral(value);
}
RqExprFloatLiteral* Float(double value) {
    return RQ_NEW RqExprFloatLiteral(value);
}
RqExprNullLiteral* Null() {
    return RQ_NEW RqExprNullLiteral();
}
RqExprParam* Param(const ZKString& name) {
    return RQ_NEW RqExprParam(name);
}

// ---- Conditions -----------------------------------------------------------------------------

RqExprCond* Eq(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprCondEquality({left, right});
}
RqExprCond* Ne(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprCondNotEqual({left, right});
}
RqExprCond* Lt(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprCondLess({left, right});
}
RqExprCond* Le(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprCondLessEqual({left, right});
}
RqExprCond* Gt(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprCondGreater({left, right});
}
RqExprCond* Ge(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprCondGreaterEqual({left, right});
}
RqExprCond* And(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprCondAnd({left, right});
}
RqExprCond* Or(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprCondOr({left, right});
}
RqExprCond* Not(RqExpr* operand) {
    return RQ_NEW RqExprCondNot({operand});
}
RqExprCond* IsNull(RqExpr* operand) {
    return RQ_NEW RqExprCondIsNull({operand});
}
RqExprCond* Between(RqExpr* value, RqExpr* low, RqExpr* high) {
    return RQ_NEW RqExprCondBetween({value, low, high});
}
RqExprCond* Like(RqExpr* value, RqExpr* pattern) {
    return RQ_NEW RqExprCondLike({value, pattern});
}

RqExprCond* In(RqExpr* value, std::initializer_list<RqExpr*> members) {
    RqExprCondIn* in = RQ_NEW RqExprCondIn({value});
    for (RqExpr* member : members)
        in->AddOperand(member);
    return in;
}

// ---- Arithmetic -----------------------------------------------------------------------------

RqExpr* Add(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprAdd({left, right});
}
RqExpr* Sub(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprSubtract({left, right});
}
RqExpr* Mul(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprMultiply({left, right});
}
RqExpr* Div(RqExpr* left, RqExpr* right) {
    return RQ_NEW RqExprDivide({left, right});
}
RqExpr* Neg(RqExpr* operand) {
    return RQ_NEW RqExprUnaryMinus({operand});
}

// ---- Subqueries -----------------------------------------------------------------------------

RqExprLogicalSubquery* Subquery(RqAbstractList* query) {
    return RQ_NEW RqExprLogicalSubquery(query);
}

RqExprCond* Exists(RqAbstractList* query) {
    return RQ_NEW RqExprCondExists({Subquery(query)});
}

// ---- Aggregates -----------------------------------------------------------------------------

ExprList::ExprList(std::initializer_list<RqExpr*> exprs) : m_exprs(exprs), m_bPresent(true) {}

ExprList::ExprList(ExprList&& other) noexcept
    : m_exprs(std::move(other.m_exprs)), m_bPresent(std::exchange(other.m_bPresent, false)) {
    other.m_exprs.clear();
}

ExprList& ExprList::operator=(ExprList&& other) noexcept {
    if (this != &other) {
        for (RqExpr* expr : m_exprs)
            delete expr;
        m_exprs = std::move(other.m_exprs);
        other.m_exprs.clear();
        m_bPresent = std::exchange(other.m_bPresent, false);
    }
    return *this;
}

ExprList::~ExprList() {
    for (RqExpr* expr : m_exprs)
        delete expr;
}

RqExprColumnList* ExprList::ReleaseColumnList() {
    if (!m_bPresent)
        return nullptr;
    RqExprColumnList* list = RQ_NEW RqExprColumnList(m_exprs);
    m_exprs.clear();
    m_bPresent = false;
    return list;
}

RqExprAggrSum* Sum(RqExpr* measure, By by, ComputeBreak computeBreak) {
    return Aggr<RqExprAggrSum>(measure, std::move(by), std::move(computeBreak));
}
RqExprAggrCount* Count(RqExpr* measure, By by, ComputeBreak computeBreak) {
    return Aggr<RqExprAggrCount>(measure, std::move(by), std::move(computeBreak));
}
RqExprAggrCountStar* CountStar(By by, ComputeBreak computeBreak) {
    return Aggr<RqExprAggrCountStar>(nullptr, std::move(by), std::move(computeBreak));
}
RqExprAggrAvg* Avg(RqExpr* measure, By by, ComputeBreak computeBreak) {
    return Aggr<RqExprAggrAvg>(measure, std::move(by), std::move(computeBreak));
}
RqExprAggrMin* Min(RqExpr* measure, By by, ComputeBreak computeBreak) {
    return Aggr<RqExprAggrMin>(measure, std::move(by), std::move(computeBreak));
}
RqExprAggrMax* Max(RqExpr* measure, By by, ComputeBreak computeBreak) {
    return Aggr<RqExprAggrMax>(measure, std::move(by), std::move(computeBreak));
}

// ---- Tables ---------------------------------------------------------------------------------

RqAtomicTable* Table(const VoidID& tableID, int tableNum) {
    return RQ_NEW RqAtomicTable(tableID, tableNum);
}

RqDerivedTable* Derived(RqAbstractList* inner, int tableNum) {
    ZK_ASSERT(inner != nullptr);
    RqDerivedTable* table = RQ_NEW RqDerivedTable(inner);
    table->SetTableNum(tableNum);
    return table;
}

RqTableReference* JoinRef(SqlTableRef::JoinType joinType, RqNode* left, RqNode* right,
                          RqExpr* cond) {
    return RQ_NEW RqTableReference(joinType, left, cond, right);
}

// ---- Lists and set operations -----------------------------------------------------------------

RqUnion* Union(std::initializer_list<RqAbstractList*> lists, bool bAll) {
    return RQ_NEW RqUnion(RqAbstractListVector(lists), bAll);
}

RqIntersect* Intersect(std::initializer_list<RqAbstractList*> lists, bool bAll) {
    return RQ_NEW RqIntersect(RqAbstractListVector(lists), bAll);
}

RqExcept* Except(std::initializer_list<RqAbstractList*> lists, bool bAll) {
    return RQ_NEW RqExcept(RqAbstractListVector(lists), bAll);
}

RqBreakFilter* BreakFilter(RqAbstractList* inner, std::initializer_list<uint16_t> indexes) {
    return RQ_NEW RqBreakFilter(inner, UInt16Vector(indexes));
}

RqSharedList* Shared(RqAbstractList* shared) {
    return RQ_NEW RqSharedList(shared);
}

RqHandleNode* Request(RqNode* request) {
    return RQ_NEW RqHandleNode(request);
}

void MarkBlockTarget(RqNode* node, ServerInfo::TargetType type, const VoidID& targetID) {
    ZK_ASSERT(node != nullptr);
    std::vector<RqNode*> work{node};
    while (!work.empty()) {
        RqNode* current = work.back();
        work.pop_back();
        current->MarkTargetType(type);
        current->MarkTargetID(targetID);
        for (int i = 0; i < current->GetNumChildren(); ++i) {
            RqNode* child = current->GetIthChild(i);
            // A nested list is a block of its own, with its own target.
            if (child != nullptr && !child->IsKindOf(kRqAbstractList))
                work.push_back(child);
        }
    }
}

// ---- Query blocks -----------------------------------------------------------------------------

Block::Block(int firstColumnNum) : m_pList(RQ_NEW RqList(firstColumnNum)) {
    if (m_pList->GetProjection() == nullptr) {
        m_pList->SetProjection(RQ_NEW RqProjection(firstColumnNum));
    }
}

Block::~Block() {
    delete m_pList;
}

Block& Block::Label(const ZKString& label) {
    m_pList->SetLabel(label);
    return *this;
}

Block& Block::Select(RqExpr* expr) {
    m_pList->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(expr));
    return *this;
}

Block& Block::SelectAs(RqExpr* expr, int columnNumber) {
    // The projection re-synchronises its generator, so later Select calls skip this number.
    m_pList->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(expr, columnNumber));
    return *this;
}

Block& Block::From(RqNode* table) {
    ZK_ASSERT(table != nullptr);
    RqTableReference* reference = RqDynCast<RqTableReference>(table);
    if (reference == nullptr)
        reference = RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, table);
    if (m_pList->GetJoinSpec() == nullptr)
        m_pList->SetJoinSpec(RQ_NEW RqJoinSpec());
    m_pList->GetJoinSpec()->AddJoinNode(RQ_NEW RqJoinNode(reference));
    return *this;
}

Block& Block::Join(SqlTableRef::JoinType joinType, RqNode* left, RqNode* right, RqExpr* cond) {
    return From(JoinRef(joinType, left, right, cond));
}

namespace {
// A filter holds a condition; anything else given to a filter clause is a misuse.
RqExprCond* AsCondition(RqExpr* cond) {
    return cond != nullptr ? RqCast<RqExprCond>(cond) : nullptr;
}
}  // namespace

Block& Block::Where(RqExpr* cond) {
    m_pList->SetDetailFilter(RQ_NEW RqDetailFilter(AsCondition(cond)));
    return *this;
}

Block& Block::SummaryFilter(RqExpr* cond) {
    m_pList->SetSummaryFilter(RQ_NEW RqSummaryFilter(AsCondition(cond)));
    return *this;
}

Block& Block::GroupBy(std::initializer_list<RqExpr*> exprs) {
    m_pList->SetGroupBy(RQ_NEW RqGroupBy(RqExprVector(exprs)));
    return *this;
}

Block& Block::Having(RqExpr* cond) {
    m_pList->SetHaving(RQ_NEW RqHaving(AsCondition(cond)));
    return *this;
}

Block& Block::OrderBy(std::initializer_list<Order> keys) {
    m_orderKeys.assign(keys.begin(), keys.end());
    m_bHasOrderBy = true;
    return *this;
}

Block& Block::Distinct(bool value) {
    m_pList->SetDistinct(value);
    return *this;
}

Block& Block::Limit(uint32_t rows) {
    m_pList->SetRowLimit(rows);
    return *this;
}

Block& Block::Offset(uint32_t rows) {
    m_pList->SetRowOffset(rows);
    return *this;
}

Block& Block::Target(ServerInfo::TargetType type, const VoidID& targetID) {
    m_bHasTarget = true;
    m_targetType = type;
    m_targetID = targetID;
    return *this;
}

RqDerivedColumn* Block::Column(int index) const {
    return rqb::Column(*m_pList, index);
}

RqList* Block::Build() {
    ZK_ASSERT(m_pList != nullptr);
    if (m_bHasOrderBy) {
        // Keys are given by position so that tests need not know the generator's numbers;
        // the clause itself names columns by number.
        SortSpecVector specs;
        for (const Order& key : m_orderKeys) {
            specs.push_back(
                RQ_NEW RqSortSpec(Column(key.m_columnIndex)->GetColumnNum(), key.m_direction));
        }
        m_pList->SetOrderBy(RQ_NEW RqOrderBy(specs));
    }
    if (m_bHasTarget)
        MarkBlockTarget(m_pList, m_targetType, m_targetID);
    return std::exchange(m_pList, nullptr);
}

}  // namespace rqb
