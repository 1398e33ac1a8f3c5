// The tracking allocator: per-site counting, the site registry, concurrency, the memory
// gateway and the container allocator.

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/ZKNodeAlloc.h"

namespace {

class GatewayObject : public MemAllocNewdel {
public:
    explicit GatewayObject(bool bFail) : m_payload{} {
        if (bFail)
            throw std::runtime_error("construction failed");
    }
    long long m_payload[5];
};

}  // namespace

TEST(ZKNodeAllocTest, BlocksAreCountedPerSiteAndListedByTheSitesHoldingThem) {
    const long long liveBefore = ZKNodeAlloc::LiveCount();
    std::vector<std::pair<void*, std::size_t>> blocks;
    for (std::size_t size : {0, 1, 7, 4096}) {
        void* p = ZKNodeAlloc::allocate(size, "node_alloc_test_zz.cpp", 2);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t), 0u);
        EXPECT_EQ(ZKNodeAlloc::BlockSize(p), size);
        blocks.emplace_back(p, size);
    }
    blocks.emplace_back(ZKNodeAlloc::allocate(8, "node_alloc_test_aa.cpp", 9), 8);
    blocks.emplace_back(ZKNodeAlloc::allocate(8, "node_alloc_test_aa.cpp", 3), 8);
    ZKNodeAlloc::deallocate(ZKNodeAlloc::allocate(8, "node_alloc_test_mm.cpp", 1), 8);
    EXPECT_EQ(ZKNodeAlloc::LiveCount() - liveBefore, 6);

    // Sorted by file and line; a site whose blocks are all freed is not listed.
    std::vector<std::pair<std::string, long long>> ours;
    for (const ZKNodeAlloc::SiteReport& r : ZKNodeAlloc::LiveSites()) {
        if (r.m_file.rfind("node_alloc_test_", 0) == 0)
            ours.emplace_back(r.m_file + ":" + std::to_string(r.m_line), r.m_live);
    }
    const std::vector<std::pair<std::string, long long>> expected = {
        {"node_alloc_test_aa.cpp:3", 1},
        {"node_alloc_test_aa.cpp:9", 1},
        {"node_alloc_test_zz.cpp:2", 4}};
    EXPECT_EQ(ours, expected);
    for (const auto& [p, size] : blocks)
        ZKNodeAlloc::deallocate(p, size);
    ZKNodeAlloc::deallocate(nullptr, 0);
    EXPECT_EQ(ZKNodeAlloc::LiveCount(), liveBefore);
}

TEST(ZKNodeAllocTest, ConcurrentThreadsKeepExactCounts) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    const long long liveBefore = ZKNodeAlloc::LiveCount();
    ZKAllocSite& shared = ZKNodeAlloc::Site("node_alloc_test_shared.cpp", 1);
    const long long sharedTotalBefore = shared.m_nTotal.load();
    std::vector<ZKAllocSite*> registered(kThreads, nullptr);

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // All threads race to register the same new site by a name of their own making.
            const std::string name = "node_alloc_test_race.cpp";
            registered[t] = &ZKNodeAlloc::Site(name.c_str(), 77);
            std::vector<void*> held;
            for (int i = 0; i < kRounds; ++i) {
                const std::size_t size = static_cast<std::size_t>(8 + (i % 5) * 8);
                held.push_back(i % 2 == 0 ? ZKNodeAlloc::allocate(size, shared)
                                          : ZKNodeAlloc::allocate(size, name.c_str(), 77));
                if (held.size() == 16 || i + 1 == kRounds) {
                    for (void* q : held)
                        ZKNodeAlloc::deallocate(q, ZKNodeAlloc::BlockSize(q));
                    held.clear();
                }
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    for (int t = 1; t < kThreads; ++t)
        EXPECT_EQ(registered[t], registered[0]);
    EXPECT_EQ(shared.m_nTotal.load() - sharedTotalBefore, kThreads * kRounds / 2);
    EXPECT_EQ(ZKNodeAlloc::LiveCount(), liveBefore);
}

TEST(ZKNodeAllocDeathTest, FreeingWithWrongSizeIsAnAssertion) {
    EXPECT_DEATH(
        {
            void* p = ZKNodeAlloc::allocate(24, ZK_HERE);
            ZKNodeAlloc::deallocate(p, 32);
        },
        "ASSERTION FAILED: .*ZKNodeAlloc\\.cpp:[0-9]+: header->m_nSize == size");
}

TEST(MemoryGatewayTest, GatewayObjectsAreChargedToTheCreatingLine) {
    const long long liveBefore = ZKNodeAlloc::LiveCount();
    const int line = __LINE__ + 1;
    GatewayObject* attributed = ZK_GATEWAY_NEW GatewayObject(false);
    GatewayObject* plain = new GatewayObject(false);
    EXPECT_EQ(ZKNodeAlloc::Site(__FILE__, line).m_nLive.load(), 1);
    EXPECT_GE(ZKNodeAlloc::Site("unattributed", 0).m_nLive.load(), 1);
    delete attributed;
    delete plain;
    EXPECT_EQ(ZKNodeAlloc::LiveCount(), liveBefore);

    // A constructor that throws must not leave its block behind.
    EXPECT_THROW((void)(ZK_GATEWAY_NEW GatewayObject(true)), std::runtime_error);
    EXPECT_EQ(ZKNodeAlloc::LiveCount(), liveBefore);
}

TEST(ZKAllocatorTest, ContainersAreCountedUnderTheContainerSite) {
    ZKAllocSite& site = ZKNodeAlloc::ContainerSite();
    const long long before = site.m_nLive.load();
    {
        std::vector<int, ZKAllocator<int>> numbers(1000);
        std::set<int, std::less<int>, ZKAllocator<int>> ordered;
        for (int i = 0; i < 1000; ++i)
            ordered.insert(i);
        EXPECT_EQ(site.m_nLive.load() - before, 1001);  // one vector buffer, 1000 tree nodes
    }
    EXPECT_EQ(site.m_nLive.load(), before);
}
