// The SQL renderer: a request tree becomes one SQLite statement with the meaning that
// docs/semantics.md gives it. Every construct is either rendered faithfully or refused with
// the node that stops it; the renderer never chooses a meaning the page does not state.
// This file holds the public entry points, the order of a list's rows, and names and quoting;
// SQORSqlWriter.h says where the rest is.

#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"

#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "SQORSqlWriter.h"

namespace sqlrender {

void Fail(SqlProblem problem, const RqNode* node, std::string reason) {
    throw RenderFailure{problem, node, std::move(reason)};
}

void FailByForm(const RqNode& node) {
    const SqlKindForm& form = SqlKindFormOf(node.GetObjectType());
    const SqlProblem problem = form.m_role == SqlKindRole::kNoSqlMeaning
                                   ? SqlProblem::kNoSqlMeaning
                                   : SqlProblem::kNotSupported;
    Fail(problem, &node,
         KindName(&node) + ": " + (form.m_text != nullptr ? form.m_text : "it is not a value"));
}

std::string KindName(const RqNode* node) {
    return RqNodeUtility::GetKindName(node).ToUtf8();
}

std::string Utf8(const ZKString& text) {
    return text.ToUtf8();
}

std::string Indent(const std::string& text, int spaces) {
    return SqlRenderer::IndentLines(text, std::string(spaces, ' '));
}

std::string Join(const std::vector<std::string>& parts, const char* separator) {
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0)
            out += separator;
        out += parts[i];
    }
    return out;
}

std::string OrderTerm(const std::string& name, const SqlSortKey& key) {
    std::string term = name;
    if (key.m_bCaseInsensitive)
        term += " COLLATE NOCASE";
    // Either direction is free to the request; ascending is the one rendered.
    if (key.m_direction == RqSortSpec::kDesc)
        term += " DESC";
    if (key.m_nulls == RqSortSpec::kFirst)
        term += " NULLS FIRST";
    else if (key.m_nulls == RqSortSpec::kLast)
        term += " NULLS LAST";
    return term;
}

std::string SqlWriter::NewAlias(const std::string& base) {
    // The next suffix to try is kept per base: thousands of blocks each naming its t1 would
    // otherwise try every suffix taken before.
    std::string alias = base;
    int& next = m_nextSuffix[base];
    next = std::max(next, 2);
    while (!m_aliases.insert(alias).second)
        alias = base + "_" + std::to_string(next++);
    return alias;
}

std::string SqlWriter::Hoist(const std::string& base, const std::string& sql) {
    std::string name = NewAlias(base);
    m_namedQueries.push_back(name + " AS (\n" + Indent(sql) + "\n)");
    return name;
}

namespace {

bool BlockOrder(const RqList& block, std::vector<SqlSortKey>& out, int depth);

// The order of a list's rows, as keys over its exposed projection. A set operation's rows
// have none; a break filter, cache list and shared list pass their list's order on.
bool ListOrder(const RqAbstractList* list, std::vector<SqlSortKey>& out, int depth) {
    // A shared list could name a chain of lists; the walk is bounded.
    if (list == nullptr || depth > kMaxListDepth)
        return true;
    if (const auto* block = RqDynCast<RqList>(list))
        return BlockOrder(*block, out, depth);
    if (const auto* filter = RqDynCast<RqBreakFilter>(list))
        return ListOrder(filter->GetInnerList(), out, depth + 1);
    if (const auto* cache = RqDynCast<RqCacheList>(list))
        return ListOrder(cache->GetList(), out, depth + 1);
    if (const auto* shared = RqDynCast<RqSharedList>(list))
        return ListOrder(shared->GetSharedRqList(), out, depth + 1);
    return true;
}

bool BlockOrder(const RqList& block, std::vector<SqlSortKey>& out, int depth) {
    const RqProjection* projection = block.GetProjection();
    if (const RqOrderBy* orderBy = block.GetOrderBy()) {
        for (int i = 0; i < orderBy->GetNumSortSpecs(); ++i) {
            const RqSortSpec* spec = orderBy->GetIthSortSpec(i);
            const int index = spec != nullptr && projection != nullptr
                                  ? projection->FindColumnIndex(spec->GetColumnNumber())
                                  : -1;
            if (index < 0)
                return false;
            out.push_back(SqlSortKey{index, spec->GetSortDirection(), spec->GetNullSortDirection(),
                                     spec->IsCaseInsensitive()});
        }
        return true;
    }
    const RqDerivedTable* source = RowForRowSource(block);
    if (source == nullptr || projection == nullptr)
        return true;
    // The table's keys, as far as the block projects them: a key it does not project still
    // orders the rows, but the keys after it can no longer be named.
    const RqAbstractList& inner = *source->GetInnerList();
    std::vector<SqlSortKey> innerKeys;
    if (!ListOrder(&inner, innerKeys, depth + 1))
        return false;
    for (const SqlSortKey& key : innerKeys) {
        const RqDerivedColumn* innerColumn = inner.GetProjection()->GetIthColumn(key.m_columnIndex);
        int index = -1;
        for (int i = 0; i < projection->GetNumColumns() && index < 0; ++i) {
            const RqDerivedColumn* column = projection->GetIthColumn(i);
            const auto* reference = RqDynCast<RqDerivedColumnReference>(
                column != nullptr ? column->GetExpr() : nullptr);
            if (reference != nullptr && reference->GetDerivedColumn() == innerColumn)
                index = i;
        }
        if (index < 0)
            break;
        SqlSortKey outer = key;
        outer.m_columnIndex = index;
        out.push_back(outer);
    }
    return true;
}

// SQL's quoting: the text between two quote characters, each quote inside doubled.
std::string QuoteDoubling(std::string_view text, char quote) {
    std::string out(1, quote);
    for (char c : text) {
        out += c;
        if (c == quote)
            out += quote;
    }
    return out + quote;
}

}  // namespace

}  // namespace sqlrender

// ---- SqlRenderResult ---------------------------------------------------------------------------

const char* SqlRenderResult::ProblemName(SqlProblem problem) {
    switch (problem) {
        case SqlProblem::kNone:
            return "renderable";
        case SqlProblem::kNoSqlMeaning:
            return "no SQL meaning";
        case SqlProblem::kNotSupported:
            return "not rendered";
        case SqlProblem::kNotDetermined:
            return "not determined";
        case SqlProblem::kMalformed:
            return "malformed";
    }
    return "?";
}

std::string SqlRenderResult::Describe() const {
    if (IsOk())
        return std::string();
    return std::string(ProblemName(m_problem)) + " at " +
           RqNodeUtility::AbbreviatePath(m_path).ToUtf8() + ": " + m_reason;
}

// ---- SqlRenderer -------------------------------------------------------------------------------

SqlRenderResult SqlRenderer::Render(const RqNode& root, const ARpGateway* rp,
                                    const SqlRenderOptions& options) {
    SqlRenderResult result;
    try {
        sqlrender::SqlWriter writer(rp, options, result.m_orderDependentLists);
        result.m_sql = writer.Top(root);
        result.m_numConnectives = writer.GetNumConnectives();
    } catch (const sqlrender::RenderFailure& failure) {
        result.m_sql.clear();
        result.m_orderDependentLists.clear();
        result.m_problem = failure.m_problem;
        result.m_pNode = failure.m_pNode;
        result.m_path = RqNodeUtility::GetPath(failure.m_pNode);
        result.m_reason = failure.m_reason;
    }
    return result;
}

bool SqlRenderer::GetListOrder(const RqAbstractList& list, std::vector<SqlSortKey>& out) {
    out.clear();
    if (!sqlrender::ListOrder(&list, out, 0)) {
        out.clear();
        return false;
    }
    return true;
}

std::string SqlRenderer::GetColumnName(const RqAbstractList& list, int index) {
    const RqProjection* projection = list.GetProjection();
    const RqDerivedColumn* column =
        projection != nullptr ? projection->GetIthColumn(index) : nullptr;
    return "c" + std::to_string(column != nullptr ? column->GetColumnNum() : index);
}

std::string SqlRenderer::GetOrderTerm(const RqAbstractList& list, const SqlSortKey& key) {
    return sqlrender::OrderTerm(GetColumnName(list, key.m_columnIndex), key);
}

// A dot or backslash inside a part of a qualified name is escaped with a backslash, so that
// the dots between the parts tell them apart: database "X.y" with table Z is "X\.y.Z", database
// X with schema y and table Z is "X.y.Z". A table without a database starts with a dot.
std::string SqlRenderer::GetTableName(const ATable& table) {
    auto part = [](const ZKString& text) {
        std::string out;
        for (char c : text.ToUtf8()) {
            if (c == '.' || c == '\\')
                out += '\\';
            out += c;
        }
        return out;
    };
    std::string name;
    if (RefADatabase database = table.GetDatabase())
        name = part(database->GetName());
    name += ".";
    if (!table.GetSchema().empty())
        name += part(table.GetSchema()) + ".";
    return QuoteIdentifier(name + part(table.GetName()));
}

std::string SqlRenderer::QuoteIdentifier(std::string_view name) {
    return sqlrender::QuoteDoubling(name, '"');
}

std::string SqlRenderer::QuoteText(std::string_view text) {
    return sqlrender::QuoteDoubling(text, '\'');
}

std::string SqlRenderer::IndentLines(std::string_view text, std::string_view pad) {
    std::string out(pad);
    for (char c : text) {
        out += c;
        if (c == '\n')
            out += pad;
    }
    return out;
}
