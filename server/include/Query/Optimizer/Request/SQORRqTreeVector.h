#pragma once
// Vector types shared by the request tree and the rules.

#include <cstdint>
#include <vector>

class RqExpr;
class RqExprCond;
class RqNode;
class RqAbstractList;
class RqDerivedColumn;
class RqDerivedColumnReference;
class RqSortSpec;
class RqColumn;

using UInt16Vector = std::vector<uint16_t>;  // projection indexes
using Int32Vector = std::vector<int32_t>;
using RqExprVector = std::vector<RqExpr*>;
using RqNodeVector = std::vector<RqNode*>;
using RqAbstractListVector = std::vector<RqAbstractList*>;
using RqDerivedColumnVector = std::vector<RqDerivedColumn*>;
using RqDerivedColumnReferenceVector = std::vector<RqDerivedColumnReference*>;
using SortSpecVector = std::vector<RqSortSpec*>;
using RqColumnVector = std::vector<RqColumn*>;
