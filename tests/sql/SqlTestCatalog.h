#pragma once
// The small catalog the SQL tests build their requests over: orders and customers, joined on
// CUST_ID, with typed columns, and helpers to run a tree on rows given by hand.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/RequestSql/SQORSqlCheck.h"
#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"

// Table numbers 1 and 2 are ORDERS and CUSTOMERS wherever the tests use them; in request
// texts they are these FROM members.
#define ORDERS_T1 "table Shop.dw.ORDERS t1 "
#define CUSTOMERS_T2 "table Shop.CUSTOMERS t2 "

class SqlTestCatalog : public testing::Test {
protected:
    SqlTestCatalog() : m_pRepository(std::make_shared<RpRepository>()) {
        RefADatabase shop = m_pRepository->AddDatabase(L"Shop", ServerInfo::kAnsiSql);
        m_orders = m_pRepository->AddTable(shop, L"dw", L"ORDERS");
        RefAColumn orderID =
            m_pRepository->AddColumn(m_orders, L"ORDER_ID", kColumnKind_Plain, L"INTEGER");
        m_pRepository->AddColumn(m_orders, L"CUST_ID", kColumnKind_Plain, L"INTEGER");
        m_pRepository->AddColumn(m_orders, L"AMOUNT", kColumnKind_Plain, L"DOUBLE");
        m_pRepository->AddColumn(m_orders, L"REGION", kColumnKind_Plain, L"VARCHAR(10)");
        m_pRepository->AddKey(m_orders, L"PK_ORDERS", {orderID});
        m_customers = m_pRepository->AddTable(shop, L"", L"CUSTOMERS");
        RefAColumn custID =
            m_pRepository->AddColumn(m_customers, L"CUST_ID", kColumnKind_Plain, L"INTEGER");
        m_pRepository->AddColumn(m_customers, L"NAME", kColumnKind_Plain, L"VARCHAR(20)");
        m_pRepository->AddColumn(m_customers, L"SINCE", kColumnKind_Plain, L"DATE");
        m_pRepository->AddKey(m_customers, L"PK_CUSTOMERS", {custID});
        m_pSession = std::make_unique<RpSession>(m_pRepository);
    }

    RqAtomicTable* Orders(int tableNum = 1) const {
        return rqb::Table(m_orders->GetID(), tableNum);
    }
    RqAtomicTable* Customers(int tableNum = 2) const {
        return rqb::Table(m_customers->GetID(), tableNum);
    }
    const ARpGateway* Rp() const { return m_pSession.get(); }

    // A request from its text (docs/text-format.md), over tables Shop.dw.ORDERS and
    // Shop.CUSTOMERS; a malformed text fails the test and gives null.
    RqHandleNode* Read(const std::string& text) const {
        try {
            return RqTextReader::Read(text, "<test>", Rp());
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what() << "\n" << text;
            return nullptr;
        }
    }

    // The request with its top block's GROUP BY given grouping sets (positions in its list):
    // the text format does not write them yet.
    static RqHandleNode* WithGroupingSets(RqHandleNode* request,
                                          const std::vector<UInt16Vector>& sets) {
        for (const UInt16Vector& set : sets)
            RqCast<RqList>(request->GetRqNode())->GetGroupBy()->AddGroupingSet(set);
        return request;
    }

    std::string Sql(const RqNode& root) const {
        const SqlRenderResult result = SqlRenderer::Render(root, Rp());
        EXPECT_TRUE(result.IsOk()) << result.Describe();
        return result.m_sql;
    }

    // Runs a request on hand-made rows: each table the request reads that is not given is
    // left empty.
    SqlRunResult RunOn(const RqNode& root, const std::vector<SqlRow>& orders,
                       const std::vector<SqlRow>& customers = {}) const {
        SqlCheckSession session(Rp(), SqlCheckOptions());
        std::string error;
        EXPECT_TRUE(session.LoadRows(*m_orders, orders, error)) << error;
        EXPECT_TRUE(session.LoadRows(*m_customers, customers, error)) << error;
        return session.Run(root);
    }

    static SqlValue I(int64_t v) { return SqlValue::Integer(v); }
    static SqlValue R(double v) { return SqlValue::Real(v); }
    static SqlValue T(const char* v) { return SqlValue::Text(v); }
    static SqlValue N() { return SqlValue::Null(); }

    std::shared_ptr<RpRepository> m_pRepository;
    RefATable m_orders;
    RefATable m_customers;
    std::unique_ptr<RpSession> m_pSession;
};

// The rows as text, sorted, for comparing bags in expectations.
std::vector<std::string> SortedRows(const SqlRows& rows);
// The rows as text, in order.
std::vector<std::string> RowsInOrder(const SqlRows& rows);
