#pragma once
// The sample catalog and request bundled with rqopt.

#include <memory>

#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqList.h"

// A small sales star schema in one relational database.
std::shared_ptr<RpRepository> BuildSampleCatalog();

// Revenue per region over a derived table of orders joined to stores; the inner block keeps
// an ORDER BY that cannot reach the result, and the report is ordered by revenue.
RqHandleNode* BuildSampleRequest(const RpRepository& catalog);
