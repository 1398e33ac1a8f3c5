#pragma once
// Expressions of the request tree. Operands are the expression's children, in order.
// Classes whose only state is their operands are generated from SQORRqNodeKinds.def;
// the classes below carry fields of their own.

#include <cstdint>
#include <initializer_list>
#include <type_traits>
#include <vector>

#include "Query/Optimizer/Request/SQORRqNode.h"
#include "Query/Optimizer/Request/SQORRqTreeVector.h"

class ARpGateway;
class RqEquivalence;

// Members of every concrete expression class; definitions are generated.
#define RQ_EXPR_CLASS(cls) RQ_NODE_CLASS(cls)

class RqExpr : public RqNode {
public:
    RqExpr() = default;
    // Takes ownership of the operands (null operands are kept as absent ones).
    explicit RqExpr(std::initializer_list<RqExpr*> operands) { AdoptOperands(operands); }
    template <class... E>
    requires(sizeof...(E) > 0 &&
             (std::is_convertible_v<E*, RqExpr*> && ...)) explicit RqExpr(E*... operands)
        : RqExpr({static_cast<RqExpr*>(operands)...}) {}

    using RqNode::Accept;
    // Walks the expression with an expression visitor; operands that are not expressions
    // (the query block of a subquery) are not entered.
    void Accept(AVisitorRqExpr& visitor);

    int GetNumOperands() const { return GetNumChildren(); }
    // Operand i, or null when it is absent or is not an expression.
    RqExpr* GetIthOperand(int i) const;
    void SetNumOperands(int n) { SetNumChildren(n); }
    // Puts `operand` at position i and destroys the previous one.
    void SetIthOperand(int i, RqExpr* operand) { SetIthChild(i, operand); }
    // Puts `operand` at position i and returns the previous one, now caller-owned.
    RqExpr* ReplaceIthOperand(int i, RqExpr* operand);
    void AddOperand(RqExpr* operand) { AddChild(operand); }

    // A deep, caller-owned copy (see RqNode::DeepCopy).
    RqExpr* DeepExprCopy(bool keepIdentity = false) const;

    // The expression is an aggregate.
    virtual bool IsAggr() const { return false; }
    // The expression's aggregate has been instantiated (its level is settled).
    virtual bool IsInstantiated() const { return true; }
    // The expression is a condition.
    bool IsCond() const { return IsKindOf(kRqExprCond); }
    // The constant test: the value does not depend on any row, so it adds no grouping and
    // can be computed at any level. Literals, parameters and session variables, and
    // deterministic functions of constants; never columns, references, aggregates,
    // subqueries, metadata references or non-deterministic functions.
    bool IsConstant() const;
    // The value-expression test: the expression yields one value per row and can be
    // projected; column lists, metadata references and markers are not value expressions.
    bool IsValueExpr() const;
    // The expression is a physical table column (a target column of any kind).
    bool IsTargetColumn() const { return IsKindOf(kRqTargetColumn); }
    // The projection test: the expression reads a value of its block's current row directly
    // (a column of any kind: a physical column or a reference to a derived column, or the row
    // identifier), so that when a block is split it gets a column of its own in the inner
    // block and the outer block reads it through a reference. Every other expression is
    // computed from such values and can be re-computed wherever they are read: constants
    // need no column at all, and functions, conditions and aggregates are composed from
    // their operands (an aggregate in particular belongs to the block that groups).
    bool IsInnerProjectable() const;
    // The projection test against a given inner projection: as above, except that a
    // reference passes only when it reads a column of `inner` (a reference elsewhere, or to
    // no column, is not a column the inner block can project).
    bool IsInnerProjectable(const RqProjection& inner) const;

    // Equivalence with `other` (see RqEquivalence): same kinds, same own fields and
    // equivalent operands in order.
    bool IsEquivalent(const RqExpr& other) const;
    bool IsEquivalent(const RqExpr& other, const RqEquivalence& equivalence) const;

    // Three-way comparison of the expression's own fields (not its kind, not its operands)
    // with those of `other`, an expression of the same kind: negative, zero or positive. The
    // fields compared are those that change the expression's meaning; a class with fields
    // overrides this and calls its base first. RqEquivalence, LessEquivalentRqExpr and
    // RqShallowLessThan are built on it.
    virtual int CompareFields(const RqExpr& other) const;
    bool SameFields(const RqExpr& other) const { return CompareFields(other) == 0; }

protected:
    RqExpr(const RqExpr& other) = default;
    void AdoptOperands(std::initializer_list<RqExpr*> operands);
};

// ---- Conditions ------------------------------------------------------------------------

class RqExprCond : public RqExpr {
public:
    using RqExpr::RqExpr;

protected:
    RqExprCond(const RqExprCond&) = default;
};

// Comparisons of two operands (=, <>, <, <=, >, >=).
class RqExprCondEqualityOperator : public RqExprCond {
public:
    using RqExprCond::RqExprCond;

protected:
    RqExprCondEqualityOperator(const RqExprCondEqualityOperator&) = default;
};

// AND, OR and NOT.
class RqExprCondConnective : public RqExprCond {
public:
    using RqExprCond::RqExprCond;
    RqExprCond* GetLeftCond() const;
    RqExprCond* GetRightCond() const;

protected:
    RqExprCondConnective(const RqExprCondConnective&) = default;
};

class RqExprCondAnd : public RqExprCondConnective {
    RQ_EXPR_CLASS(RqExprCondAnd)
public:
    using RqExprCondConnective::RqExprCondConnective;
    RqExprCondAnd(const RqExprCondAnd&) = default;
    // The conjunction of the two, owning both; when one is null the other is returned.
    static RqExprCond* Concatenate(RqExprCond* left, RqExprCond* right);
    // As Concatenate, with a copy of `right`; `left` is taken over.
    static RqExprCond* ConcatenateCopy(RqExprCond* left, const RqExprCond* right);
};

class RqExprCondOr : public RqExprCondConnective {
    RQ_EXPR_CLASS(RqExprCondOr)
public:
    using RqExprCondConnective::RqExprCondConnective;
    RqExprCondOr(const RqExprCondOr&) = default;
    static RqExprCond* Concatenate(RqExprCond* left, RqExprCond* right);
    static RqExprCond* ConcatenateCopy(RqExprCond* left, const RqExprCond* right);
};

// ---- Columns and references --------------------------------------------------------------

class RqColumn : public RqExpr {
public:
    RqColumn() = default;

protected:
    RqColumn(const RqColumn&) = default;
};

// A physical column of a data source: repository identifier (or name) and the request's
// number of the table it belongs to.
class RqTargetColumn : public RqColumn {
    RQ_EXPR_CLASS(RqTargetColumn)
public:
    RqTargetColumn() = default;
    RqTargetColumn(const ZKString& name, int tableNum) : m_name(name), m_tableNum(tableNum) {}
    RqTargetColumn(const VoidID& columnID, const ZKString& name, int tableNum)
        : m_columnID(columnID), m_name(name), m_tableNum(tableNum) {}
    RqTargetColumn(const RqTargetColumn&) = default;

    void GetColumnID(VoidID& id) const { id = m_columnID; }
    const VoidID& GetColumnID() const { return m_columnID; }
    void SetColumnID(const VoidID& id) { m_columnID = id; }
    const ZKString& GetName() const { return m_name; }
    void SetName(const ZKString& name) { m_name = name; }
    int GetTableNum() const { return m_tableNum; }
    void SetTableNum(int tableNum) { m_tableNum = tableNum; }
    int CompareFields(const RqExpr& other) const override;

private:
    VoidID m_columnID;
    ZKString m_name;
    int m_tableNum = 0;
};

class RqTargetCubeColumn : public RqTargetColumn {
    RQ_EXPR_CLASS(RqTargetCubeColumn)
public:
    using RqTargetColumn::RqTargetColumn;
    RqTargetCubeColumn(const RqTargetCubeColumn&) = default;
};

class RqTargetCacheColumn : public RqTargetColumn {
    RQ_EXPR_CLASS(RqTargetCacheColumn)
public:
    using RqTargetColumn::RqTargetColumn;
    RqTargetCacheColumn(const RqTargetCacheColumn&) = default;
};

// Reads a column of a child block. The link is not owning; the referenced column keeps a
// list of its references, so that it can redirect them (SwitchDerivedColumnReferences) and
// clear them when it is destroyed.
class RqDerivedColumnReference : public RqColumn {
    RQ_EXPR_CLASS(RqDerivedColumnReference)
public:
    explicit RqDerivedColumnReference(RqDerivedColumn* column = nullptr);
    RqDerivedColumnReference(const RqDerivedColumnReference& other);
    ~RqDerivedColumnReference() override;

    RqDerivedColumn* GetDerivedColumn() const { return m_pColumn; }
    void SetDerivedColumn(RqDerivedColumn* column);
    // Orders by the identity of the referenced column.
    int CompareFields(const RqExpr& other) const override;

protected:
    void FixUpCopy(const CopyMap& map) override;

private:
    friend class RqDerivedColumn;
    RqDerivedColumn* m_pColumn = nullptr;
    RqDerivedColumnReference* m_pPrevRef = nullptr;
    RqDerivedColumnReference* m_pNextRef = nullptr;
};

// ---- Literals, parameters, session variables --------------------------------------------

class RqExprLiteral : public RqExpr {
public:
    RqExprLiteral() = default;

protected:
    RqExprLiteral(const RqExprLiteral&) = default;
};

// Literals whose value is kept as text (strings, dates, times, intervals, decimals).
#define RQ_TEXT_LITERAL(cls)                                                 \
    class cls : public RqExprLiteral {                                       \
        RQ_EXPR_CLASS(cls)                                                   \
    public:                                                                  \
        explicit cls(const ZKString& value = ZKString()) : m_value(value) {} \
        cls(const cls&) = default;                                           \
        const ZKString& GetValue() const { return m_value; }                 \
        void SetValue(const ZKString& value) { m_value = value; }            \
        int CompareFields(const RqExpr& other) const override;               \
                                                                             \
    private:                                                                 \
        ZKString m_value;                                                    \
    };
RQ_TEXT_LITERAL(RqExprStringLiteral)
RQ_TEXT_LITERAL(RqExprDateLiteral)
RQ_TEXT_LITERAL(RqExprTimeLiteral)
RQ_TEXT_LITERAL(RqExprDateTimeLiteral)
RQ_TEXT_LITERAL(RqExprIntervalLiteral)
RQ_TEXT_LITERAL(RqExprNumberLiteral)
#undef RQ_TEXT_LITERAL

class RqExprIntegerLiteral : public RqExprLiteral {
    RQ_EXPR_CLASS(RqExprIntegerLiteral)
public:
    explicit RqExprIntegerLiteral(int64_t value = 0) : m_value(value) {}
    RqExprIntegerLiteral(const RqExprIntegerLiteral&) = default;
    int64_t GetValue() const { return m_value; }
    void SetValue(int64_t value) { m_value = value; }
    int CompareFields(const RqExpr& other) const override;

private:
    int64_t m_value;
};

class RqExprFloatLiteral : public RqExprLiteral {
    RQ_EXPR_CLASS(RqExprFloatLiteral)
public:
    explicit RqExprFloatLiteral(double value = 0) : m_value(value) {}
    RqExprFloatLiteral(const RqExprFloatLiteral&) = default;
    double GetValue() const { return m_value; }
    void SetValue(double value) { m_value = value; }
    // NaN equals NaN and orders after every number, so that the order stays total.
    int CompareFields(const RqExpr& other) const override;

private:
    double m_value;
};

class RqExprNullLiteral : public RqExprLiteral {
    RQ_EXPR_CLASS(RqExprNullLiteral)
public:
    RqExprNullLiteral() = default;
    RqExprNullLiteral(const RqExprNullLiteral&) = default;
};

// Named values bound outside the expression: a request parameter, a session variable.
#define RQ_NAMED_EXPR(cls)                                                \
    class cls : public RqExpr {                                           \
        RQ_EXPR_CLASS(cls)                                                \
    public:                                                               \
        explicit cls(const ZKString& name = ZKString()) : m_name(name) {} \
        cls(const cls&) = default;                                        \
        const ZKString& GetName() const { return m_name; }                \
        void SetName(const ZKString& name) { m_name = name; }             \
        int CompareFields(const RqExpr& other) const override;            \
                                                                          \
    private:                                                              \
        ZKString m_name;                                                  \
    };
RQ_NAMED_EXPR(RqExprParam)
RQ_NAMED_EXPR(RqExprSessionVar)
#undef RQ_NAMED_EXPR

// References to repository metadata (an attribute, a dimension, a hierarchy level).
#define RQ_METADATA_EXPR(cls)                                                   \
    class cls : public RqExpr {                                                 \
        RQ_EXPR_CLASS(cls)                                                      \
    public:                                                                     \
        cls() = default;                                                        \
        cls(const VoidID& id, const ZKString& name) : m_id(id), m_name(name) {} \
        cls(const cls&) = default;                                              \
        const VoidID& GetID() const { return m_id; }                            \
        const ZKString& GetName() const { return m_name; }                      \
        int CompareFields(const RqExpr& other) const override;                  \
                                                                                \
    private:                                                                    \
        VoidID m_id;                                                            \
        ZKString m_name;                                                        \
    };
RQ_METADATA_EXPR(RqAttribute)
RQ_METADATA_EXPR(RqExprDimension)
RQ_METADATA_EXPR(RqExprLevel)
#undef RQ_METADATA_EXPR

// CAST(operand AS type).
class RqExprCast : public RqExpr {
    RQ_EXPR_CLASS(RqExprCast)
public:
    RqExprCast() = default;
    RqExprCast(RqExpr* operand, const ZKString& typeName)
        : RqExpr({operand}), m_typeName(typeName) {}
    RqExprCast(const RqExprCast&) = default;
    const ZKString& GetTypeName() const { return m_typeName; }
    void SetTypeName(const ZKString& typeName) { m_typeName = typeName; }
    int CompareFields(const RqExpr& other) const override;

private:
    ZKString m_typeName;
};

// Rows supplied with the request itself (for instance CSV text).
class RqExprExternalData : public RqExpr {
    RQ_EXPR_CLASS(RqExprExternalData)
public:
    enum ExternalDataForm { kCSVData = 0, kUnknownData = 1 };
    RqExprExternalData() = default;
    RqExprExternalData(ExternalDataForm form, const ZKString& data) : m_form(form), m_data(data) {}
    RqExprExternalData(const RqExprExternalData&) = default;
    ExternalDataForm GetForm() const { return m_form; }
    const ZKString& GetData() const { return m_data; }
    int CompareFields(const RqExpr& other) const override;

private:
    ExternalDataForm m_form = kUnknownData;
    ZKString m_data;
};

// ---- Subqueries: the one operand is a query block (not an expression) ------------------

class RqExprSubquery : public RqExpr {
public:
    RqExprSubquery() = default;
    explicit RqExprSubquery(RqAbstractList* query);
    RqAbstractList* GetQuery() const;

protected:
    RqExprSubquery(const RqExprSubquery&) = default;
};

#define RQ_SUBQUERY_EXPR(cls)                 \
    class cls : public RqExprSubquery {       \
        RQ_EXPR_CLASS(cls)                    \
    public:                                   \
        using RqExprSubquery::RqExprSubquery; \
        cls(const cls&) = default;            \
    };
RQ_SUBQUERY_EXPR(RqExprLogicalSubquery)
RQ_SUBQUERY_EXPR(RqExprPhysicalSubquery)
RQ_SUBQUERY_EXPR(RqExprPersistSubquery)
#undef RQ_SUBQUERY_EXPR

// ---- Column lists ------------------------------------------------------------------------

// An ordered list of expressions (its operands). Aggregates carry their grouping lists as
// RqExprColumnList operands; a GROUP BY holds its columns in one.
class RqExprColumnListOrdered : public RqExpr {
    RQ_EXPR_CLASS(RqExprColumnListOrdered)
public:
    RqExprColumnListOrdered() = default;
    // Takes the members; with `bOwnsMembers` false they are deep-copied instead.
    explicit RqExprColumnListOrdered(const RqExprVector& members, bool bOwnsMembers = true);
    RqExprColumnListOrdered(const RqExprColumnListOrdered&) = default;

    int GetNumColumns() const { return GetNumOperands(); }
    RqExpr* GetIthColumn(int i) const { return GetIthOperand(i); }
    // Puts `column` at position i (growing the list if needed) and destroys the old member.
    void SetIthColumn(int i, RqExpr* column);
    void SetNumColumns(int n) { SetNumOperands(n); }
    void AppendColumn(RqExpr* column) { AddOperand(column); }
    // The members in order (replaces the content of `out`).
    void GetColumns(RqExprVector& out) const;

    // Every member has an equivalent member in `other`.
    bool IsSubsetOf(const RqExprColumnListOrdered& other) const;
    // The members are equivalent, in order, to the first members of `other`.
    bool IsPrefixSubsetOf(const RqExprColumnListOrdered& other) const;
    bool HasEquivalentMember(const RqExpr& expr) const;
};

class RqExprColumnList : public RqExprColumnListOrdered {
    RQ_EXPR_CLASS(RqExprColumnList)
public:
    RqExprColumnList() = default;
    // `bSorted`: the members are kept in a canonical order, not in the order given.
    RqExprColumnList(const RqExprVector& members, bool bSorted, bool bOwnsMembers);
    explicit RqExprColumnList(const RqExprVector& members)
        : RqExprColumnList(members, false, true) {}
    RqExprColumnList(const RqExprColumnList&) = default;
    // A sorted list keeps its members in the LessEquivalentRqExpr order (equivalent members
    // in insertion order).
    bool IsSorted() const { return m_bSorted; }
    // Adds a member (taken over): at its place in the order when the list is sorted,
    // appended otherwise.
    void AddMember(RqExpr* column);

private:
    bool m_bSorted = false;
};

// ---- Sort keys ---------------------------------------------------------------------------

// One key of an ORDER BY: a projection column named by its column number.
class RqSortSpec : public RqNode {
    RQ_NODE_CLASS(RqSortSpec)
public:
    enum SortDirection { kAsc = 0, kDesc = 1, kEitherDirection = 2 };
    enum NullSortDirection { kFirst = 0, kLast = 1, kNoCare = 2 };

    RqSortSpec(int columnNumber = -1, SortDirection direction = kAsc,
               bool bLogicalSelectList = false, bool bCaseInsensitive = false,
               NullSortDirection nullDirection = kNoCare);
    // A copy; with `keepIdentity` the copy keeps this spec's node ID.
    RqSortSpec(const RqSortSpec& other, bool keepIdentity);
    RqSortSpec(const RqSortSpec& other) : RqSortSpec(other, true) {}

    int GetColumnNumber() const { return m_columnNumber; }
    void SetColumnNumber(int columnNumber) { m_columnNumber = columnNumber; }
    SortDirection GetSortDirection() const { return m_direction; }
    void SetSortDirection(SortDirection direction) { m_direction = direction; }
    NullSortDirection GetNullSortDirection() const { return m_nullDirection; }
    void SetNullSortDirection(NullSortDirection direction) { m_nullDirection = direction; }
    // The column is one of the logical select list (projected for the user).
    bool IsLogicalSelectList() const { return m_bLogicalSelectList; }
    void SetLogicalSelectListStatus(bool status) { m_bLogicalSelectList = status; }
    bool IsCaseInsensitive() const { return m_bCaseInsensitive; }
    void SetCaseInsensitive(bool value) { m_bCaseInsensitive = value; }

private:
    int m_columnNumber;
    SortDirection m_direction;
    bool m_bLogicalSelectList;
    bool m_bCaseInsensitive;
    NullSortDirection m_nullDirection;
};

// ---- Aggregates --------------------------------------------------------------------------

// Operands of every aggregate: 0 the measure (absent for COUNT(*)), 1 the by-list (the
// break list: the grouping level the aggregate is computed at), 2 the compute break (the
// second column list), then the aggregate's own parameters (TopN's count, ...). Either list
// may be absent (null).
class RqExprAggr : public RqExpr {
public:
    enum Flags { kNoFlags = 0, kDistinct = 1 };
    enum OperandIndex { kMeasure = 0, kByList = 1, kComputeBreak = 2, kFirstParameter = 3 };

    RqExprAggr() { SetNumOperands(3); }
    // Takes ownership of the three parts; `flags` is a set of Flags.
    explicit RqExprAggr(RqExpr* measure, RqExprColumnList* byList = nullptr,
                        RqExprColumnList* computeBreak = nullptr, int flags = kNoFlags);

    bool IsAggr() const override { return true; }
    bool IsInstantiated() const override { return m_bInstantiated; }
    void SetInstantiated(bool value) { m_bInstantiated = value; }

    RqExpr* GetMeasure() const { return GetIthOperand(kMeasure); }
    void SetMeasure(RqExpr* measure) { SetIthOperand(kMeasure, measure); }
    RqExpr* ReleaseMeasure();
    RqExprColumnList* GetByList() const;
    void SetByList(RqExprColumnList* list);
    RqExprColumnList* GetBreakList() const { return GetByList(); }
    RqExprColumnList* GetComputeBreak() const;
    void SetComputeBreak(RqExprColumnList* list);
    RqExprColumnList* GetSecondColumnList() const { return GetComputeBreak(); }
    int GetNumParameters() const {
        return GetNumOperands() > kFirstParameter ? GetNumOperands() - kFirstParameter : 0;
    }
    RqExpr* GetIthParameter(int i) const { return GetIthOperand(kFirstParameter + i); }

    bool IsSQL99Aggregation() const { return m_bSQL99; }
    void SetSQL99Aggregation(bool value) { m_bSQL99 = value; }
    bool IsDistinctAggregation() const { return m_bDistinct; }
    void SetDistinctAggregation(bool value) { m_bDistinct = value; }
    // The compute break groups distinct rows (its rows are de-duplicated first).
    bool HasDistinctComputeBreak() const { return m_bDistinctComputeBreak; }
    void SetDistinctComputeBreak(bool value) { m_bDistinctComputeBreak = value; }
    // The by-list states the aggregate's grain even where the compute break differs.
    bool HasExplicitGrain() const { return m_bExplicitGrain; }
    void SetExplicitGrain(bool value) { m_bExplicitGrain = value; }
    // An analytic (window) evaluation that the database computes over its own rows.
    bool IsAnalytic() const { return m_bAnalytic; }
    void SetAnalytic(bool value) { m_bAnalytic = value; }

    // Computed from other aggregates' results at a level (ranks, running and moving
    // aggregates, report aggregates, subtotals, ...), not from detail rows.
    virtual bool IsFunctionalAggr() const;
    // The result depends on the order of the rows.
    virtual bool IsSortDependent() const { return false; }
    // The aggregate only wraps an aggregation done elsewhere.
    virtual bool IsAggrWrapper() const;
    // The aggregate can be computed by a hash group-by.
    virtual bool IsHashable() const;

    // The flags that change the aggregate's result (distinct, SQL99 grouping, distinct
    // compute break, explicit grain, analytic); the instantiation state is not compared.
    int CompareFields(const RqExpr& other) const override;

protected:
    RqExprAggr(const RqExprAggr&) = default;

private:
    bool m_bInstantiated = true;
    bool m_bSQL99 = false;
    bool m_bDistinct = false;
    bool m_bDistinctComputeBreak = false;
    bool m_bExplicitGrain = false;
    bool m_bAnalytic = false;
};

// Aggregates whose value depends on an order of rows; the order is their sort
// keys: column numbers of the projection and directions.
class RqExprSortDependentAggr : public RqExprAggr {
public:
    struct SortKey {
        int m_columnNumber;
        RqSortSpec::SortDirection m_direction;
        friend bool operator==(const SortKey&, const SortKey&) = default;
    };
    // Held by the node, so counted by the tracking allocator.
    using SortKeys = std::vector<SortKey, ZKAllocator<SortKey>>;

    using RqExprAggr::RqExprAggr;
    bool IsSortDependent() const override { return true; }
    const SortKeys& GetSortSpec() const { return m_sortSpec; }
    void SetSortSpec(const SortKeys& keys) { m_sortSpec = keys; }
    // The directions of the sort keys, in key order (replaces the content of `out`).
    void GetSortDirections(std::vector<RqSortSpec::SortDirection>& out) const;
    int CompareFields(const RqExpr& other) const override;

protected:
    RqExprSortDependentAggr(const RqExprSortDependentAggr&) = default;

private:
    SortKeys m_sortSpec;
};

// The report aggregates: an aggregate of aggregated rows over the whole report.
class RqExprAggrReport : public RqExprAggr {
    RQ_EXPR_CLASS(RqExprAggrReport)
public:
    using RqExprAggr::RqExprAggr;
    RqExprAggrReport(const RqExprAggrReport&) = default;
};

// Aggregates of two measures (operands 0 and 3: the second measure is the first parameter).
class RqExprAggrBiVariate : public RqExprAggr {
public:
    using RqExprAggr::RqExprAggr;

protected:
    RqExprAggrBiVariate(const RqExprAggrBiVariate&) = default;
};

// ---- Generated expression classes ----------------------------------------------------------
#define RQ_GEN_G(cls, base)        \
    class cls : public base {      \
        RQ_EXPR_CLASS(cls)         \
    public:                        \
        using base::base;          \
        cls(const cls&) = default; \
    };
#define RQ_GEN_H(cls, base)
#define RQ_GEN_A(cls, base)
#define RQ_GEN_N(cls, base)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_GEN_##decl(cls, base)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_GEN_G
#undef RQ_GEN_H
#undef RQ_GEN_A
#undef RQ_GEN_N
