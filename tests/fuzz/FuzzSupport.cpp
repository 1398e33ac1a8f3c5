#include "FuzzSupport.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "BuiltinCatalog.h"
#include "Platform/Repository.h"
#include "Platform/ZKNodeAlloc.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"

namespace rqfuzz {

RpSession& SampleSession() {
    static const RqCatalog catalog = RqCatalogText::Read(RqoptBuiltinCatalog(), "sales.catalog");
    static const std::unique_ptr<RpSession> session = catalog.MakeSession();
    return *session;
}

void Fail(const char* what, std::string_view detail) {
    std::fprintf(stderr, "fuzz: %s\n%.*s\n", what, static_cast<int>(detail.size()), detail.data());
    std::abort();
}

NodeBalance::NodeBalance() : m_nLiveAtStart(ZKNodeAlloc::LiveCount()) {}

NodeBalance::~NodeBalance() {
    const long long live = ZKNodeAlloc::LiveCount();
    if (live != m_nLiveAtStart)
        Fail("the input leaked tree nodes", std::to_string(live - m_nLiveAtStart));
}

}  // namespace rqfuzz
