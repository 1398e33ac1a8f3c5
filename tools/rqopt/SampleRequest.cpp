#include "SampleRequest.h"

#include "Platform/Features.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"

std::shared_ptr<RpRepository> BuildSampleCatalog() {
    auto catalog = std::make_shared<RpRepository>();
    RefADatabase sales = catalog->AddDatabase(L"SalesDW", ServerInfo::kAnsiSql,
                                              SUFeaturesTable::DefaultsFor(ServerInfo::kAnsiSql));
    catalog->AddConnectionPool(sales, L"SalesPool");

    RefATable orders = catalog->AddTable(sales, L"dw", L"ORDERS");
    RefAColumn orderId = catalog->AddColumn(orders, L"ORDER_ID", kColumnKind_Plain, L"INTEGER");
    catalog->AddColumn(orders, L"STORE_ID", kColumnKind_Plain, L"INTEGER");
    catalog->AddColumn(orders, L"AMOUNT", kColumnKind_Plain, L"DOUBLE");
    catalog->AddKey(orders, L"PK_ORDERS", {orderId});

    RefATable stores = catalog->AddTable(sales, L"dw", L"STORES");
    RefAColumn storeId = catalog->AddColumn(stores, L"STORE_ID", kColumnKind_Plain, L"INTEGER");
    catalog->AddColumn(stores, L"REGION", kColumnKind_Plain, L"VARCHAR");
    catalog->AddKey(stores, L"PK_STORES", {storeId});

    catalog->AddComplexJoin(orders, stores, k_Many_To_One);
    return catalog;
}

RqHandleNode* BuildSampleRequest(const RpRepository& catalog) {
    RefADatabase sales = catalog.FindDatabaseByName(L"SalesDW");
    RefATable orders = catalog.FindTableByName(sales, L"dw", L"ORDERS");
    RefATable stores = catalog.FindTableByName(sales, L"dw", L"STORES");
    const VoidID db = sales->GetID();

    // SELECT s.REGION, o.AMOUNT FROM ORDERS o JOIN STORES s ON o.STORE_ID = s.STORE_ID
    // ORDER BY o.AMOUNT DESC
    RqList* detail = rqb::Block()
                         .Label(L"detail")
                         .Select(rqb::Col(L"REGION", 2))
                         .Select(rqb::Col(L"AMOUNT", 1))
                         .Join(SqlTableRef::kInnerJoin, rqb::Table(orders->GetID(), 1),
                               rqb::Table(stores->GetID(), 2),
                               rqb::Eq(rqb::Col(L"STORE_ID", 1), rqb::Col(L"STORE_ID", 2)))
                         .OrderBy({{1, RqSortSpec::kDesc}})
                         .Target(ServerInfo::kAnsiSql, db)
                         .Build();

    // SELECT REGION, SUM(AMOUNT) FROM (detail) GROUP BY REGION ORDER BY 2 DESC
    RqExpr* region = rqb::Ref(*detail, 0);
    RqExpr* amount = rqb::Ref(*detail, 1);
    RqExpr* groupRegion = rqb::Ref(*detail, 0);
    RqList* report = rqb::Block()
                         .Label(L"report")
                         .Select(region)
                         .Select(rqb::Sum(amount))
                         .From(rqb::Derived(detail, 3))
                         .GroupBy({groupRegion})
                         .OrderBy({{1, RqSortSpec::kDesc}})
                         .Target(ServerInfo::kBuiltInExecutionEngine)
                         .Build();
    return rqb::Request(report);
}
