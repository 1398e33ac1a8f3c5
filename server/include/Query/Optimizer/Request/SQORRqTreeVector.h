#pragma once
// Vector types shared by the request tree and the rules.

#include <cstdint>
#include <vector>

#include "Platform/ZKNodeAlloc.h"
#include "Platform/ZKString.h"

class RqExpr;
class RqExprCond;
class RqNode;
class RqAbstractList;
class RqDerivedColumn;
class RqDerivedColumnReference;
class RqSortSpec;
class RqColumn;

// Projection indexes. Held by nodes, so their storage is counted by the tracking allocator
// with every other container of the request tree.
using UInt16Vector = std::vector<uint16_t, ZKAllocator<uint16_t>>;
// The grouping sets of a GROUP BY: each a list of positions in its column list.
using RqGroupingSetVector = std::vector<UInt16Vector, ZKAllocator<UInt16Vector>>;
// Texts held by nodes (the type names of an ORDER BY's keys, of a transient table's columns).
using RqTextVector = std::vector<ZKString, ZKAllocator<ZKString>>;
using Int32Vector = std::vector<int32_t>;
using RqExprVector = std::vector<RqExpr*>;
using RqNodeVector = std::vector<RqNode*>;
using RqAbstractListVector = std::vector<RqAbstractList*>;
using RqDerivedColumnVector = std::vector<RqDerivedColumn*>;
using RqDerivedColumnReferenceVector = std::vector<RqDerivedColumnReference*>;
using SortSpecVector = std::vector<RqSortSpec*>;
using RqColumnVector = std::vector<RqColumn*>;
