// Test entry point shared by every test program: after each test it checks that the
// tracking allocator holds no more live blocks than before the test, and names the
// allocation sites of the blocks that leaked.
#include <gtest/gtest.h>

#include <sstream>

#include "Platform/ZKNodeAlloc.h"

namespace {

class LeakCheckListener : public testing::EmptyTestEventListener {
public:
    void OnTestStart(const testing::TestInfo&) override {
        m_liveAtStart = ZKNodeAlloc::LiveCount();
    }

    void OnTestEnd(const testing::TestInfo& info) override {
        if (info.result() == nullptr || info.result()->Skipped()) {
            return;
        }
        const long long live = ZKNodeAlloc::LiveCount();
        if (live == m_liveAtStart) {
            return;
        }
        std::ostringstream out;
        out << "tree allocations leaked by this test: " << (live - m_liveAtStart)
            << " (live before " << m_liveAtStart << ", after " << live << ")";
        for (const ZKNodeAlloc::SiteReport& site : ZKNodeAlloc::LiveSites()) {
            out << "\n  " << site.m_file << ":" << site.m_line << "  live " << site.m_live;
        }
        ADD_FAILURE() << out.str();
        m_liveAtStart = live;
    }

private:
    long long m_liveAtStart = 0;
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    // The leak check runs before the result printer so that a leak is reported with its test.
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    testing::TestEventListener* printer = listeners.Release(listeners.default_result_printer());
    listeners.Append(new LeakCheckListener);
    listeners.Append(printer);
    return RUN_ALL_TESTS();
}
