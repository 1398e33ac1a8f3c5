#pragma once
// Splits one query block vertically: the block keeps the work that must happen below (its
// FROM, WHERE and inner columns) and a new outer block, reading it as a derived table, takes
// over what must happen above (a reprojection, ORDER BY, GROUP BY, DISTINCT). Around that,
// the expression operations every splitting rule needs: composing an outer expression into an
// equivalent inner one, rendering the parts of an expression that a child block must compute
// as references to new child columns, and moving aggregates into a projection.
//
// The class has no state: every operation is static and works in place on the tree it is
// given. Nodes it creates are allocated through the tracking allocator.

#include <cstdint>

#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqTreeVector.h"

class VerticalListSplitter {
public:
    // Puts a new outer block in `abstractListNode`'s place and makes the block its only
    // (derived) table. The outer block reprojects every inner column, in order and with the
    // same column number, except those whose numbers are in `pColumnsToLeaveOut` (null: none);
    // references from above that read an inner column now read its outer column. The ORDER BY
    // moves outward with the row limit and offset, unless it sorts on a column left out;
    // DISTINCT moves outward when `bMoveDistinct` is set. `nestingLevel` is the nesting level
    // of the block's place; the new derived table is one deeper. Returns the outer block.
    static RqList* NestWithinOuterReprojection(RqAbstractList& abstractListNode,
                                               Int32Vector* pColumnsToLeaveOut, bool bMoveDistinct,
                                               uint32_t nestingLevel);

    // Gives the outer projection what `pChildColumn` of the inner projection computes, read
    // through the inner block: every reference of the outer projection to the child column
    // is replaced by the child column's expression with its own child references rendered
    // into the inner projection. The child column's expression is left empty.
    static void AddOuterColumn(RqDerivedColumn* pChildColumn, RqProjection& innerProjection,
                               RqProjection& outerProjection, bool bKeepSubqueries);

    // A new expression that computes `pOuterExpr` from inside the block of `innerProjection`:
    // references to that projection's columns are replaced by copies of their expressions.
    static RqExpr* CreateDirectEquivalentInnerExpr(const RqExpr* pOuterExpr,
                                                   RqProjection& innerProjection);

    // A new expression that computes `pExpr` with every reference to a column of
    // `pInnerProjection` replaced by that column's expression, or, when `pPatternProjection`
    // is another projection, by the pattern's column at the same index. A reference to a
    // column outside the inner projection sets `bFailed` and gives null.
    static RqExpr* ComposeEquivalentInnerExpr(const RqExpr* pExpr, RqProjection* pInnerProjection,
                                              RqProjection* pPatternProjection, bool& bFailed,
                                              bool bIgnoreProjectionDiffs);

    // A new expression free of derived column references: each chain of references is
    // followed down to the expression that finally computes the value. A COALESCE is copied
    // as it stands.
    static RqExpr* ComposeAllDerivedColumnReferences(const RqExpr* pExpr);

    // Renders the parts of `pExpr` that the child block computes as references to columns of
    // `childProjection`, adding the columns it lacks. Returns the rendered expression; when
    // that is a new expression, `pExpr` has been destroyed.
    static RqExpr* RenderChildReferences(RqExpr* pExpr, RqProjection& childProjection,
                                         bool bKeepSubqueries, bool bNoEvaluateInChild);

    // Adds each outermost aggregate of `pExpr` to `projection` as a column, in the order found
    // (an aggregate the projection already computes is not added twice).
    static void AddAggrSubExprs(RqExpr* pExpr, RqProjection& projection);

    // Makes the outer columns that compute what an inner column already computes read that
    // column, and merges inner columns that compute equivalent expressions.
    static void EliminateDuplicateExpressions(RqProjection& innerProjection, RqList& outerList);

    // Moves the GROUP BY of `innerList` to `outerList`, over the outer block's columns.
    static void RelocateGroupByToOuterList(RqList& innerList, RqList& outerList);

    // Moves the ORDER BY of `innerList` to `pOuterList`, over the outer columns that read the
    // sorted inner columns; when no sort key can be mapped the ORDER BY stays inside.
    static void RelocateOrderByToOuterList(RqList& innerList, RqList* pOuterList);

    // Appends to `result` new sort specs of `pOuterList` equivalent to those of `pOrderBy`
    // (an ORDER BY over `innerList`'s columns); empty when one key cannot be mapped.
    static void ComputeEquivalentOuterSortSpecs(RqAbstractList& innerList, RqOrderBy* pOrderBy,
                                                RqList* pOuterList, SortSpecVector& result);

    // True when the first sort keys of the block's ORDER BY, as many as there are break
    // columns, are the break columns in some order (no ORDER BY: when there are none).
    static bool OrderByIsConsistentWithBreakColumns(RqList* pList,
                                                    const UInt16Vector& breakColumnIndexes);

    // Replaces the block's ORDER BY by one that only makes the break columns adjacent.
    static void MakeBreakFilterSort(RqList* pList, const UInt16Vector& breakColumnIndexes);

    // Puts a break filter over the block and a new outer block over the filter; returns the
    // new top (the block itself when no break column is left), which the caller puts where
    // the block stood.
    static RqAbstractList* AddBreakFilter(const UInt16Vector& breakColumnIndexes, RqList* pList);
};

// ANDs a copy of the search condition of `pTableRef` and of the table references joined to
// it in front of `searchCond`.
void CollectSearchCond(RqTableReference* pTableRef, Heap<RqExprCond>& searchCond);

// Replaces, inside `pExpr`, every reference to a column of `innerProjection` by a copy of that
// column's expression.
void ComposeInnerReferences(RqExpr* pExpr, RqProjection& innerProjection);

// The work of RenderChildReferences: returns `pExpr` itself (its operands rendered in place)
// or a new reference that replaces it; the caller disposes of `pExpr` in that case.
RqExpr* AddSubExprChildReferences(RqExpr* pExpr, RqProjection& childProjection,
                                  bool bKeepSubqueries, bool bNoEvaluateInChild);

// Drops repeated columns from the block's ORDER BY and from `breakColumnIndexes`.
void RemoveDuplicateOrderByColumnAndBreakIndex(RqList* pList, UInt16Vector& breakColumnIndexes);
