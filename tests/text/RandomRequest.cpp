#include "RandomRequest.h"

#include <algorithm>
#include <cctype>
#include <cfloat>
#include <climits>
#include <cstring>
#include <limits>
#include <tuple>
#include <vector>

// The generator makes nodes the way the reader does (blank nodes of every kind, names of
// generic nodes), so that it reaches every kind of the kind table without a list of its own.
#include "../../server/Query/Optimizer/RequestText/Src/SQORTextRequestInternal.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace textfuzz {

uint64_t Rng::Next() {
    uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

namespace {

// Values that need care from printers and lexers: quotes, escapes, control and non-ASCII
// characters, words of the format, numbers at the limits of their types.
// clang-format off
const ZKString kTexts[] = {
    L"", L"AMOUNT", L"order date", L"null", L"none", L"t1", L"a\"b\\c", L"line\nbreak\r\ttab",
    L"caf\u00e9 \u4e2d\u6587", L"\U0001F600", L"\x01\x1f\x7f", L"# not a comment }",
    L"VARCHAR(20)", L"sorted", ZKString(std::wstring(L"nul\0inside", 10))};
const wchar_t* const kLabels[] = {
    L"detail", L"a", L"my block", L"q\"uote", L"\u4e2d", L"123", L"null", L"list", L"_"};
const int64_t kInts[] = {0, 1, -1, 42, INT64_MIN, INT64_MAX, 1000000007};
const double kFloats[] = {
    0.0, -0.0, 0.1, 1e300, -5e-324, 1.5, DBL_MAX, DBL_MIN, -123456789.125,
    std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
    -std::numeric_limits<double>::infinity()};
// clang-format on
const int kTableNums[] = {0, 1, 1, 2, 3, 7, -1, INT_MIN, INT_MAX, 999999999, 1000000000};
const int kTargetTypes[] = {0,  1,  2,  3,  4,  5,  6,  7,  9, 33,  34,
                            41, 47, 56, 58, 59, 60, 76, 77, 8, 100, -1};

constexpr int kMaxListDepth = 4;
constexpr int kMaxExprDepth = 4;

class Generator {
public:
    Generator(uint64_t seed, const ARpGateway* rp) : m_rng(seed) {
        for (int value = 0; value < kRqNodeTypeCount; ++value) {
            const auto kind = static_cast<RqNodeType_e>(value);
            if (!RqIsNodeTypeValue(value) || RqIsAbstractNodeType(kind) || kind == kRqHandleNode)
                continue;
            if (RqIsExprType(kind)) {
                m_exprKinds.push_back(kind);
                if (RqIsKindOf(kind, kRqExprCond))
                    m_condKinds.push_back(kind);
            } else if (rqtext::NodeFormOf(kind) == rqtext::NodeForm::kGeneric) {
                m_genericKinds.push_back(kind);
            }
        }
        if (rp == nullptr)
            return;
        for (const RefADatabase& db : rp->GetRepository().GetDatabases()) {
            m_targetIDs.push_back(db->GetID());
            for (const RefAConnectionPool& pool : db->GetConnectionPools())
                m_targetIDs.push_back(pool->GetID());
            for (const RefATable& table : db->GetTables()) {
                m_tableIDs.push_back(table->GetID());
                for (const RefAColumn& column : table->GetColumns())
                    m_columns.push_back({column->GetName(), column->GetID()});
            }
        }
    }

    RqHandleNode* Make() {
        Heap<RqHandleNode> root(RQ_NEW RqHandleNode());
        const int count = m_rng.Chance(90) ? 1 : m_rng.Below(3);
        for (int i = 0; i < count; ++i)
            root->AddChild(m_rng.Chance(5) ? nullptr : Top());
        Settle(*root);
        return root.Release();
    }

private:
    template <class T>
    T* Blank(RqNodeType_e kind) {
        return static_cast<T*>(rqtext::MakeBlankNode(kind));
    }
    const ZKString& Text() { return m_rng.Pick(kTexts); }
    template <class T>
    const T& Any(const std::vector<T>& items) {
        return items[static_cast<size_t>(m_rng.Below(static_cast<int>(items.size())))];
    }
    int TableNum() { return m_rng.Pick(kTableNums); }

    VoidID RawID(int32_t type) {
        return m_rng.Chance(10) ? VoidID::NullID
                                : VoidID(m_rng.Chance(10) ? -type : type,
                                         static_cast<uint32_t>(m_rng.Below(40)));
    }
    VoidID TableID() {
        return !m_tableIDs.empty() && m_rng.Chance(80) ? Any(m_tableIDs) : RawID(3);
    }
    VoidID TargetID() {
        return !m_targetIDs.empty() && m_rng.Chance(60) ? Any(m_targetIDs) : RawID(1);
    }

    // ---- Requests and lists --------------------------------------------------------------

    RqNode* Top() {
        switch (m_rng.Below(10)) {
            case 0: {
                auto* cache = Blank<RqCache>(m_rng.Chance(50) ? kRqCache : kRqXSACache);
                if (m_rng.Chance(50)) {
                    LogicalPlanBytes plan(static_cast<size_t>(m_rng.Below(9)));
                    for (uint8_t& b : plan)
                        b = static_cast<uint8_t>(m_rng.Below(256));
                    cache->SetLogicalPlan(plan);
                }
                cache->AddChild(List());
                return cache;
            }
            case 1:
            case 2:
            case 3: {
                // Write requests and the other kinds that print under their kind name.
                RqNode* node = Blank<RqNode>(Any(m_genericKinds));
                rqtext::SetNameField(*node, Text().ToUtf8());
                for (int i = m_rng.Below(3); i > 0; --i)
                    node->AddChild(m_rng.Chance(15) ? static_cast<RqNode*>(Expr(0)) : List());
                return node;
            }
            case 4:
                return RQ_NEW RqEntity(RawID(12), m_rng.Chance(50) ? Text() : ZKString());
            default:
                return List();
        }
    }

    RqAbstractList* List() {
        ++m_listDepth;
        const int roll = m_listDepth > kMaxListDepth ? 0 : m_rng.Below(14);
        RqAbstractList* list = nullptr;
        if (roll == 1 || roll == 2) {
            const RqNodeType_e kinds[] = {kRqUnion, kRqIntersect, kRqExcept};
            list = Blank<RqAbstractList>(m_rng.Pick(kinds));
            rqtext::SetAllFlag(*list, m_rng.Chance(50));
            for (int i = 1 + m_rng.Below(3); i > 0; --i)
                list->AddChild(m_rng.Chance(5) ? nullptr : List());
        } else if (roll == 3) {
            auto* filter = Blank<RqBreakFilter>(kRqBreakFilter);
            UInt16Vector columns;
            for (int i = m_rng.Below(4); i > 0; --i)
                columns.push_back(static_cast<uint16_t>(m_rng.Below(6)));
            filter->SetBreakColumnIndexes(columns);
            filter->AddChild(List());
            list = filter;
        } else if (roll == 4) {
            auto* cached = Blank<RqCacheList>(kRqCacheList);
            if (m_rng.Chance(50))
                cached->SetMarker(Text());
            cached->AddChild(List());
            list = cached;
        } else if (roll == 5) {
            // Reads a list chosen once the whole tree stands.
            auto* shared = Blank<RqSharedList>(kRqSharedList);
            m_sharedLists.push_back(shared);
            list = shared;
        } else {
            list = Block();
        }
        if (m_rng.Chance(50))
            list->SetLabel(m_rng.Pick(kLabels));
        if (m_rng.Chance(10))
            list->SetRowLimit(m_rng.Chance(50) ? 10 : UINT32_MAX);
        if (m_rng.Chance(10))
            list->SetRowOffset(static_cast<uint32_t>(m_rng.Below(100)));
        list->SetShared(m_rng.Chance(10));
        list->SetWithSupported(m_rng.Chance(10));
        --m_listDepth;
        return list;
    }

    RqList* Block() {
        auto* list = Blank<RqList>(kRqList);
        list->SetNumChildren(RqList::kNumClauses);
        list->SetDistinct(m_rng.Chance(20));
        list->SetArtifactListNode(m_rng.Chance(10));
        if (m_rng.Chance(85))
            list->SetIthChild(RqList::kProjectionChild, Select());
        if (m_rng.Chance(60))
            list->SetIthChild(RqList::kJoinSpecChild, From());
        const std::pair<RqNodeType_e, int> filters[] = {
            {kRqDetailFilter, 40}, {kRqSummaryFilter, 15}, {kRqHaving, 15}};
        for (const auto& [kind, percent] : filters) {
            if (!m_rng.Chance(percent))
                continue;
            RqNode* filter = Blank<RqNode>(kind);
            filter->AddChild(m_rng.Chance(10) ? nullptr : Cond(0));
            list->SetIthChild(rqtext::ClauseSlot(kind), filter);
        }
        if (m_rng.Chance(30))
            list->SetIthChild(RqList::kGroupByChild, GroupBy());
        if (m_rng.Chance(40))
            list->SetIthChild(RqList::kOrderByChild, OrderBy());
        return list;
    }

    // ---- Clauses -------------------------------------------------------------------------

    RqProjection* Select() {
        // An explicit generator position, or the one the columns imply.
        const bool explicitNext = m_rng.Chance(15);
        auto* projection = RQ_NEW RqProjection(explicitNext ? m_rng.Below(60) - 5 : 0);
        int num = m_rng.Chance(20) ? -3 : 0;
        for (int i = m_rng.Below(5); i > 0; --i) {
            if (m_rng.Chance(4)) {
                projection->AddChild(nullptr);
                continue;
            }
            auto* column = RQ_NEW RqDerivedColumn(m_rng.Chance(5) ? nullptr : Expr(0), num);
            if (m_rng.Chance(30)) {
                const int statuses[] = {1, 2, 4, 3, 5, 8, 24, 15};
                column->SetBreakStatus(m_rng.Pick(statuses));
            }
            if (!explicitNext)
                projection->ReSyncColumnNumGenerator(num);
            projection->AddChild(column);
            num += 1 + m_rng.Below(3);
        }
        // The largest number leaves the generator no place after it.
        if (m_rng.Chance(5))
            projection->AddChild(RQ_NEW RqDerivedColumn(Leaf(kRqExprNullLiteral), INT_MAX));
        return projection;
    }

    RqNode* GroupBy() {
        auto* groupBy = Blank<RqGroupBy>(kRqGroupBy);
        const RqGroupBy::InternalExecutionMode modes[] = {RqGroupBy::kUnknown, RqGroupBy::kHash,
                                                          RqGroupBy::kSort};
        groupBy->SetInternalExecutionMode(m_rng.Pick(modes));
        const int roll = m_rng.Below(20);
        groupBy->AddChild(roll == 0   ? nullptr
                          : roll == 1 ? Expr(1)
                                      : ColumnList(kRqExprColumnListOrdered, 1));
        groupBy->AddChild(m_rng.Chance(20) ? ColumnList(kRqExprColumnListOrdered, 1) : nullptr);
        // Grouping sets: each a few distinct positions of the column list, in any order.
        for (int sets = m_rng.Chance(30) ? 1 + m_rng.Below(4) : 0; sets > 0; --sets) {
            UInt16Vector set;
            for (int i = 0; i < groupBy->GetNumColumns(); ++i) {
                if (m_rng.Chance(50))
                    set.insert(set.begin() + m_rng.Below(int(set.size()) + 1), uint16_t(i));
            }
            groupBy->AddGroupingSet(set);
        }
        return groupBy;
    }

    RqNode* OrderBy() {
        std::vector<ZKString> types;
        if (m_rng.Chance(20))
            types = {Text(), L"INTEGER"};
        auto* orderBy = RQ_NEW RqOrderBy(SortSpecVector(), types, m_rng.Chance(20));
        for (int i = m_rng.Below(4); i > 0; --i) {
            const int roll = m_rng.Below(10);
            if (roll == 0)
                orderBy->AddChild(nullptr);
            else if (roll == 1)
                orderBy->AddChild(Aggregate(kRqExprAggrSum, 1));
            else
                orderBy->AddChild(SortSpec());
        }
        return orderBy;
    }

    RqSortSpec* SortSpec() {
        const RqSortSpec::SortDirection directions[] = {RqSortSpec::kAsc, RqSortSpec::kDesc,
                                                        RqSortSpec::kEitherDirection};
        const RqSortSpec::NullSortDirection nulls[] = {RqSortSpec::kNoCare, RqSortSpec::kFirst,
                                                       RqSortSpec::kLast};
        return RQ_NEW RqSortSpec(m_rng.Below(8) - 1, m_rng.Pick(directions), m_rng.Chance(20),
                                 m_rng.Chance(20), m_rng.Pick(nulls));
    }

    RqNode* From() {
        auto* spec = Blank<RqJoinSpec>(kRqJoinSpec);
        std::vector<RqJoinNode*> nodes;
        for (int i = 1 + m_rng.Below(3); i > 0; --i) {
            const int roll = m_rng.Below(20);
            if (roll == 0) {
                spec->AddChild(nullptr);
                continue;
            }
            RqJoinNode* node = nullptr;
            if (roll == 1) {
                // A join node that only the written-out form can carry.
                node = RQ_NEW RqJoinNode(nullptr, m_rng.Chance(50));
                node->SetNumChildren(0);
                for (int j = m_rng.Below(3); j > 0; --j)
                    node->AddChild(m_rng.Chance(50) ? TableRef(1) : Table());
            } else {
                node = RQ_NEW RqJoinNode(TableRef(0), m_rng.Chance(15));
            }
            spec->AddChild(node);
            nodes.push_back(node);
        }
        if (!nodes.empty() && m_rng.Chance(25)) {
            for (int i = 1 + m_rng.Below(2); i > 0; --i) {
                auto end = [&]() { return m_rng.Chance(10) ? nullptr : Any(nodes); };
                RqJoinNode* from = end();
                spec->InsertChild(m_rng.Below(spec->GetNumChildren() + 1),
                                  RQ_NEW RqJoinLink(from, end()));
            }
        }
        return spec;
    }

    RqTableReference* TableRef(int nesting) {
        if (nesting == 0 && m_rng.Chance(50))
            return RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, Table(), nullptr, nullptr);
        auto side = [&]() -> RqNode* {
            if (m_rng.Chance(5))
                return nullptr;
            return nesting < 2 && m_rng.Chance(15) ? TableRef(nesting + 1) : Table();
        };
        const SqlTableRef::JoinType types[] = {
            SqlTableRef::kInnerJoin,           SqlTableRef::kLeftOuterJoin,
            SqlTableRef::kRightOuterJoin,      SqlTableRef::kFullOuterJoin,
            SqlTableRef::kFullOuterStitchJoin, SqlTableRef::kNaturalJoin};
        const RqTableReference::DrivingTableHint hints[] = {
            RqTableReference::kDriving_UnknownTable, RqTableReference::kDriving_UnknownTable,
            RqTableReference::kDriving_LeftTable, RqTableReference::kDriving_RightTable};
        RqNode* left = side();
        RqNode* right = m_rng.Chance(50) ? side() : nullptr;
        RqExpr* cond = m_rng.Chance(40) ? Cond(1) : nullptr;
        auto* reference =
            RQ_NEW RqTableReference(m_rng.Pick(types), left, cond, right, m_rng.Pick(hints));
        if (m_rng.Chance(15))
            reference->SetLeftJoinColumnIndexes({0, static_cast<uint16_t>(m_rng.Below(9))});
        if (m_rng.Chance(15))
            reference->SetRightJoinColumnIndexes({static_cast<uint16_t>(m_rng.Below(9))});
        return reference;
    }

    RqNode* Table() {
        const RqNodeType_e kinds[] = {kRqAtomicTable,          kRqAtomicTable,   kRqOpaqueTable,
                                      kRqTransientOpaqueTable, kRqXSACacheTable, kRqVELDNativeTable,
                                      kRqExternalTable,        kRqDerivedTable,  kRqDerivedTable};
        RqNodeType_e kind = m_rng.Pick(kinds);
        if (kind == kRqDerivedTable && m_listDepth >= kMaxListDepth)
            kind = kRqAtomicTable;
        RqAbstractTable* table = nullptr;
        if (kind == kRqExternalTable) {
            table = RQ_NEW RqExternalTable(Text());
        } else {
            table = Blank<RqAbstractTable>(kind);
            if (auto* derived = RqDynCast<RqDerivedTable>(table)) {
                if (m_rng.Chance(20))
                    derived->SetNestingLevel(m_rng.Below(4) - 1);
                table->AddChild(List());
            } else {
                RqCast<RqIdentifiedTable>(table)->SetTableID(TableID());
            }
            if (auto* transient = RqDynCast<RqTransientOpaqueTable>(table);
                transient && m_rng.Chance(50))
                transient->AddColumnTypeInfos({Text(), L"INT"});
        }
        table->SetTableNum(TableNum());
        return table;
    }

    // ---- Expressions ---------------------------------------------------------------------

    RqExpr* Expr(int depth) {
        if (depth >= kMaxExprDepth || m_rng.Chance(40)) {
            const RqNodeType_e leaves[] = {kRqExprIntegerLiteral,     kRqExprFloatLiteral,
                                           kRqExprStringLiteral,      kRqExprNullLiteral,
                                           kRqTargetColumn,           kRqTargetColumn,
                                           kRqDerivedColumnReference, kRqDerivedColumnReference};
            return Leaf(m_rng.Pick(leaves));
        }
        return Call(Any(m_exprKinds), depth);
    }

    RqExpr* Cond(int depth) { return Call(Any(m_condKinds), depth); }

    // Expressions with fields of their own and no operands; null for the other kinds.
    RqExpr* Leaf(RqNodeType_e kind) {
        using rqtext::ExprForm;
        double real = m_rng.Pick(kFloats);
        switch (rqtext::ExprFormOf(kind)) {
            case ExprForm::kInteger:
                return RQ_NEW RqExprIntegerLiteral(m_rng.Chance(50) ? m_rng.Pick(kInts)
                                                                    : int64_t(m_rng.Next()));
            case ExprForm::kFloat:
                if (m_rng.Chance(30)) {
                    const uint64_t bits = m_rng.Next();
                    std::memcpy(&real, &bits, sizeof real);
                }
                return RQ_NEW RqExprFloatLiteral(real);
            case ExprForm::kString:
            case ExprForm::kTypedText:
            case ExprForm::kNamed:
            case ExprForm::kNull: {
                // A text value or a name, whichever the class has.
                auto* expr = Blank<RqExpr>(kind);
                rqtext::SetTextValue(*expr, Text());
                rqtext::SetNameField(*expr, Text().ToUtf8());
                return expr;
            }
            case ExprForm::kMetadata:
                return RqCast<RqExpr>(rqtext::MakeMetadataNode(kind, RawID(7), Text()));
            case ExprForm::kTargetColumn:
                return TargetColumn(kind);
            case ExprForm::kReference:
                // Points at a column chosen once the whole tree stands.
                return m_references.emplace_back(RQ_NEW RqDerivedColumnReference());
            case ExprForm::kCall:
            case ExprForm::kAggregate:
            case ExprForm::kCast:
            case ExprForm::kExternalData:
            case ExprForm::kColumnList:
                break;
        }
        return nullptr;
    }

    RqTargetColumn* TargetColumn(RqNodeType_e kind) {
        auto* column = Blank<RqTargetColumn>(kind);
        column->SetTableNum(TableNum());
        if (!m_columns.empty() && m_rng.Chance(70)) {
            const auto& [name, id] = Any(m_columns);
            column->SetName(name);
            column->SetColumnID(m_rng.Chance(70) ? id : RawID(4));
        } else {
            column->SetName(Text());
            column->SetColumnID(m_rng.Chance(50) ? VoidID::NullID : RawID(4));
        }
        return column;
    }

    RqExpr* Call(RqNodeType_e kind, int depth) {
        if (RqExpr* leaf = Leaf(kind))
            return leaf;
        if (RqIsKindOf(kind, kRqExprAggr))
            return Aggregate(kind, depth);
        if (kind == kRqExprColumnList || kind == kRqExprColumnListOrdered)
            return ColumnList(kind, depth);
        RqExpr* expr = nullptr;
        if (kind == kRqExprExternalData) {
            const RqExprExternalData::ExternalDataForm forms[] = {RqExprExternalData::kCSVData,
                                                                  RqExprExternalData::kUnknownData};
            expr = RQ_NEW RqExprExternalData(m_rng.Pick(forms), Text());
        } else {
            expr = Blank<RqExpr>(kind);
        }
        if (auto* cast = RqDynCast<RqExprCast>(expr))
            cast->SetTypeName(Text());
        if (RqIsKindOf(kind, kRqExprSubquery)) {
            expr->AddChild(m_rng.Chance(5) || m_listDepth >= kMaxListDepth ? nullptr : List());
            return expr;
        }
        const int minOps = RqNodeTypeMinOperands(kind);
        const int maxOps = RqNodeTypeMaxOperands(kind);
        const int count = minOps + m_rng.Below((maxOps < 0 ? 3 : maxOps - minOps) + 1);
        for (int i = 0; i < count; ++i)
            expr->AddChild(m_rng.Chance(8) ? nullptr : Expr(depth + 1));
        return expr;
    }

    // Measure, by-list, compute break, then the parameters the kind allows.
    RqExpr* Aggregate(RqNodeType_e kind, int depth) {
        auto* aggr = Blank<RqExprAggr>(kind);
        aggr->AddChild(m_rng.Chance(15) ? nullptr : Expr(depth + 1));
        aggr->AddChild(m_rng.Chance(40) ? ColumnList(kRqExprColumnList, depth + 1) : nullptr);
        aggr->AddChild(m_rng.Chance(20) ? ColumnList(kRqExprColumnList, depth + 1) : nullptr);
        const int maxOps = RqNodeTypeMaxOperands(kind);
        const int maxParams = maxOps < 0 ? 2 : std::max(0, maxOps - RqExprAggr::kFirstParameter);
        for (int i = m_rng.Below(maxParams + 1); i > 0; --i)
            aggr->AddChild(m_rng.Chance(10) ? nullptr : Expr(depth + 1));
        int flags = 0;
        for (const rqtext::EnumWord& flag : rqtext::kAggrFlagWords)
            flags |= m_rng.Chance(15) ? flag.m_value : 0;
        rqtext::SetAggrFlags(*aggr, flags);
        if (auto* sorted = RqDynCast<RqExprSortDependentAggr>(aggr); sorted && m_rng.Chance(50)) {
            RqExprSortDependentAggr::SortKeys keys;
            const RqSortSpec::SortDirection directions[] = {RqSortSpec::kAsc, RqSortSpec::kDesc,
                                                            RqSortSpec::kEitherDirection};
            for (int i = 1 + m_rng.Below(3); i > 0; --i)
                keys.push_back({m_rng.Below(6) - 1, m_rng.Pick(directions)});
            sorted->SetSortSpec(keys);
        }
        return aggr;
    }

    RqExpr* ColumnList(RqNodeType_e kind, int depth) {
        RqExpr* list = kind == kRqExprColumnList
                           ? RQ_NEW RqExprColumnList(RqExprVector(), m_rng.Chance(20), true)
                           : Blank<RqExpr>(kind);
        for (int i = m_rng.Below(4); i > 0; --i)
            list->AddChild(m_rng.Chance(5) ? nullptr : Expr(depth + 1));
        return list;
    }

    // ---- What needs the whole tree -------------------------------------------------------

    // Points references and shared lists at nodes anywhere in the tree (before or after
    // them in text order), makes identity groups and marks targets.
    void Settle(RqHandleNode& root) {
        std::vector<RqNode*> nodes;
        std::vector<RqAbstractList*> lists;
        std::vector<RqDerivedColumn*> columns;
        for (std::vector<RqNode*> work{&root}; !work.empty();) {
            RqNode* node = work.back();
            work.pop_back();
            nodes.push_back(node);
            if (auto* list = RqDynCast<RqAbstractList>(node))
                lists.push_back(list);
            auto* column = RqDynCast<RqDerivedColumn>(node);
            if (column != nullptr && column->GetRqAbstractListContainer() != nullptr)
                columns.push_back(column);
            for (int i = 0; i < node->GetNumChildren(); ++i) {
                if (RqNode* child = node->GetIthChild(i))
                    work.push_back(child);
            }
        }
        for (RqDerivedColumnReference* reference : m_references) {
            if (!columns.empty() && m_rng.Chance(92))
                reference->SetDerivedColumn(Any(columns));
        }
        for (RqSharedList* shared : m_sharedLists) {
            RqAbstractList* target = Any(lists);
            if (target != shared && m_rng.Chance(90))
                shared->SetSharedRqList(target);
        }
        auto anyNode = [&]() { return Any(nodes); };
        for (int group = m_rng.Chance(40) ? 1 + m_rng.Below(3) : 0; group > 0; --group) {
            const NodeID id = anyNode()->GetNodeID();
            for (int i = 1 + m_rng.Below(2); i > 0; --i)
                anyNode()->SetNodeID(id);
        }
        if (m_rng.Chance(30))
            root.MarkTargetRecursive(ServerInfo::kBuiltInExecutionEngine, VoidID::NullID);
        for (RqNode* node : nodes) {
            if (m_rng.Chance(6))
                node->MarkTargetType(static_cast<ServerInfo::TargetType>(m_rng.Pick(kTargetTypes)));
            if (m_rng.Chance(6))
                node->MarkTargetID(TargetID());
        }
    }

    Rng m_rng;
    int m_listDepth = 0;
    std::vector<RqNodeType_e> m_exprKinds;
    std::vector<RqNodeType_e> m_condKinds;
    std::vector<RqNodeType_e> m_genericKinds;
    std::vector<VoidID> m_tableIDs;
    std::vector<VoidID> m_targetIDs;
    std::vector<std::pair<ZKString, VoidID>> m_columns;
    std::vector<RqDerivedColumnReference*> m_references;
    std::vector<RqSharedList*> m_sharedLists;
};

}  // namespace

RqHandleNode* RandomRequest(uint64_t seed, const ARpGateway* rp) {
    return Generator(seed, rp).Make();
}

// ---- Mutations ---------------------------------------------------------------------------

namespace {

// Where the pieces of a text are: runs of word characters, strings (to their closing quote
// on the same line), and single other characters; blanks separate them.
std::vector<std::pair<size_t, size_t>> Pieces(const std::string& text) {
    auto isWord = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
    };
    std::vector<std::pair<size_t, size_t>> pieces;
    for (size_t i = 0; i < text.size();) {
        const char c = text[i];
        size_t end = i + 1;
        if (c == ' ' || c == '\n' || c == '\t' || c == '\r') {
            ++i;
            continue;
        }
        if (isWord(c)) {
            while (end < text.size() && isWord(text[end]))
                ++end;
        } else if (c == '"') {
            while (end < text.size() && text[end] != '"' && text[end] != '\n')
                end += text[end] == '\\' ? 2 : 1;
            end = std::min(end + 1, text.size());
        }
        pieces.emplace_back(i, end - i);
        i = end;
    }
    return pieces;
}

// clang-format off
const char* const kWords[] = {
    "{", "}", "(", ")", "[", "]", ",", "=", ":", ".", "->", "-", "none", "null", "list",
    "select", "from", "where", "join", "table", "derived t1", "push", "[same=1]", "[target=",
    "at=", "@x", "@\"", "$1", "$1.0", "@detail.9", "t1", "t(-1)", "\"", "\"\\u{110000}\"", "#",
    "Sum(", "by=", "link 0 -> 9", "request", "shared @a", "cols=(", "breakfilter", "orderby",
    "groupby", "granularity", "types=(", "plan=\"0g\"", "nan", "-inf", "ref(none)", "\n", "0:",
    "database", "column", "key", "features", "default", "pool", "session", "property", "flag",
    "server", "many_to_one", "VARCHAR(", "computed", "with", "desc", "nocase", "logical",
    "distinct", "all", "sticky", "preserved", "nulls=first", "mode=hash", "sets ((0), ())",
    "sets ((1, 0))", "artifact", "limit=3", "nodup", "sorted", "uninstantiated",
};
const char* const kNumbers[] = {"0", "-1", "99999999999999999999", "2147483648", "4294967296",
                                "-0", "1e999", "007", "3:4", "1.5", "1000000000", "65536"};
// clang-format on

// Whole lines moved or copied about make texts that still read: repeated columns, clauses
// and blocks, labels and identity groups that now occur twice.
void MoveLine(std::string& text, Rng& rng) {
    std::vector<size_t> starts{0};
    for (size_t i = 0; i + 1 < text.size(); ++i) {
        if (text[i] == '\n')
            starts.push_back(i + 1);
    }
    const size_t from = starts[static_cast<size_t>(rng.Below(int(starts.size())))];
    const size_t end = text.find('\n', from);
    const std::string line =
        text.substr(from, end == std::string::npos ? std::string::npos : end + 1 - from);
    const size_t to = starts[static_cast<size_t>(rng.Below(int(starts.size())))];
    if (rng.Chance(50))
        text.erase(from, line.size());
    text.insert(std::min(to, text.size()), line);
}

}  // namespace

std::string Mutate(const std::string& original, Rng& rng) {
    std::string text = original;
    for (int edits = rng.Chance(60) ? 1 : 2 + rng.Below(2); edits > 0; --edits) {
        if (rng.Chance(25)) {
            MoveLine(text, rng);
            continue;
        }
        const auto pieces = Pieces(text);
        if (pieces.empty() || text.empty())
            return text + rng.Pick(kWords);
        const auto anyPiece = [&]() {
            return pieces[static_cast<size_t>(rng.Below(int(pieces.size())))];
        };
        const auto [at, size] = anyPiece();
        const std::string piece = text.substr(at, size);
        const size_t pos = static_cast<size_t>(rng.Below(int(text.size())));
        switch (rng.Below(10)) {
            case 0:
                text.erase(at, size);
                break;
            case 1:
                text.insert(at + size, " " + piece);
                break;
            case 2: {
                // Swap with a neighbour or with any piece; the later one first, so that the
                // earlier position stays valid.
                auto [otherAt, otherSize] = anyPiece();
                const size_t index = static_cast<size_t>(
                    std::find(pieces.begin(), pieces.end(), std::make_pair(at, size)) -
                    pieces.begin());
                if (rng.Chance(50) && index + 1 < pieces.size())
                    std::tie(otherAt, otherSize) = pieces[index + 1];
                const std::string other = text.substr(otherAt, otherSize);
                if (otherAt > at) {
                    text.replace(otherAt, otherSize, piece);
                    text.replace(at, size, other);
                } else if (otherAt < at) {
                    text.replace(at, size, other);
                    text.replace(otherAt, otherSize, piece);
                }
                break;
            }
            case 3: {
                const auto [otherAt, otherSize] = anyPiece();
                text.replace(at, size, text.substr(otherAt, otherSize));
                break;
            }
            case 4:
                text.erase(pos, 1);
                break;
            case 5:
                text.insert(pos, 1, static_cast<char>(rng.Below(256)));
                break;
            case 6:
                text.insert(at, std::string(rng.Pick(kWords)) + " ");
                break;
            case 7: {
                // A number changed, or a piece replaced by a number when the text has none.
                size_t numberAt = at;
                size_t numberSize = size;
                for (int tries = 0; tries < 20; ++tries) {
                    const auto [candidate, candidateSize] = anyPiece();
                    if (std::isdigit(static_cast<unsigned char>(text[candidate]))) {
                        numberAt = candidate;
                        numberSize = candidateSize;
                        break;
                    }
                }
                text.replace(numberAt, numberSize, rng.Pick(kNumbers));
                break;
            }
            case 8:
                if (rng.Chance(30)) {
                    text.resize(pos);
                    break;
                }
                [[fallthrough]];
            default:
                text.insert(at, piece.substr(0, static_cast<size_t>(rng.Below(int(size))) + 1));
                break;
        }
    }
    return text;
}

}  // namespace textfuzz
