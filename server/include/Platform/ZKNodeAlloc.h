#pragma once
// The tracking allocator through which every request-tree node is allocated. Each block
// is charged to the source line that allocated it (its site), so that a leak can be traced
// to the code that made the node: tests check after every case that no block is left, and
// LiveSites names the lines responsible when one is.
//
// Every block carries a small header (its site and size) in front of the memory handed
// out, so freeing needs no lookup. Counters are atomics; a site is registered under a
// mutex once, the first time it is used, and never goes away.

#include <atomic>
#include <cstddef>
#include <limits>
#include <new>
#include <string>
#include <vector>

struct ZKAllocSite {
    const char* m_file;
    int m_line;
    std::atomic<long long> m_nLive;   // blocks allocated here and not yet freed
    std::atomic<long long> m_nTotal;  // blocks ever allocated here
    ZKAllocSite* m_pNext;             // registry chain; fixed once the site is published
};

class ZKNodeAlloc {
public:
    // The one site for (file, line), registered on first use. file is compared by content
    // and copied, so it need not outlive the call.
    static ZKAllocSite& Site(const char* file, int line);

    // Fast path for callers that hold their site (see ZK_HERE). The memory is aligned for
    // any fundamental type.
    static void* allocate(std::size_t size, ZKAllocSite& site);
    static void* allocate(std::size_t size, const char* where, int line);
    // size must be the size the block was allocated with. nullptr is ignored.
    static void deallocate(void* p, std::size_t size);
    // The size a live block was allocated with.
    static std::size_t BlockSize(const void* p);

    static long long LiveCount();
    struct SiteReport {
        std::string m_file;
        int m_line;
        long long m_live;
    };
    // Sites that hold live blocks, sorted by file then line.
    static std::vector<SiteReport> LiveSites();

    // The shared site of all containers using ZKAllocator.
    static ZKAllocSite& ContainerSite();
};

// The site of the current source line, resolved once per line and usable in an expression:
//     void* p = ZKNodeAlloc::allocate(sizeof(Node), ZK_HERE);
#define ZK_HERE                                                                \
    ([]() -> ZKAllocSite& {                                                    \
        static ZKAllocSite& zkSite_ = ::ZKNodeAlloc::Site(__FILE__, __LINE__); \
        return zkSite_;                                                        \
    }())

namespace memalloc {

// Allocation for objects that do not know their own size when they are freed.
class MemoryAllocatorGateway {
public:
    static void* allocateAndRemeberSize(std::size_t size, const char* where, int line);
    static void readSizeAndDeallocate(void* p);
};

}  // namespace memalloc

// Base of objects created through the memory gateway; their blocks are counted with the
// tree nodes. Create with ZK_GATEWAY_NEW so that the block is charged to the creating line.
class MemAllocNewdel {
public:
    static void* operator new(std::size_t size, const char* where, int line);
    // A plain new cannot name its caller; such blocks are charged to the site "unattributed".
    static void* operator new(std::size_t size);
    static void operator delete(void* p);
    // Called only when a constructor run by the placement form above throws.
    static void operator delete(void* p, const char* where, int line);

protected:
    ~MemAllocNewdel() = default;
};

#define ZK_GATEWAY_NEW new (__FILE__, __LINE__)

// Standard allocator whose blocks are counted with the tree nodes, so that containers
// owned by nodes are part of the leak check. All containers share the site "container".
template <class T>
class ZKAllocator {
public:
    using value_type = T;

    ZKAllocator() noexcept = default;
    template <class U>
    ZKAllocator(const ZKAllocator<U>&) noexcept {}

    // sizeof(T) is the element's size whatever T is, a pointer too (vectors of nodes).
    // NOLINTBEGIN(bugprone-sizeof-expression)
    T* allocate(std::size_t n) {
        static_assert(alignof(T) <= alignof(std::max_align_t),
                      "ZKAllocator cannot over-align blocks");
        if (n > std::numeric_limits<std::size_t>::max() / sizeof(T)) {
            throw std::bad_array_new_length();
        }
        return static_cast<T*>(ZKNodeAlloc::allocate(n * sizeof(T), ZKNodeAlloc::ContainerSite()));
    }
    void deallocate(T* p, std::size_t n) noexcept { ZKNodeAlloc::deallocate(p, n * sizeof(T)); }
    // NOLINTEND(bugprone-sizeof-expression)

    template <class U>
    bool operator==(const ZKAllocator<U>&) const noexcept {
        return true;
    }
};
