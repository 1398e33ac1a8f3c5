// The tracking allocator: blocks with a site header, a registry of sites, and the memory
// gateway built on them.

#include "Platform/ZKNodeAlloc.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "Platform/ZKAssert.h"

namespace {

struct alignas(std::max_align_t) BlockHeader {
    ZKAllocSite* m_pSite;
    std::size_t m_nSize;
};
static_assert(sizeof(BlockHeader) % alignof(std::max_align_t) == 0,
              "the block after the header must stay aligned for any type");
static_assert(__STDCPP_DEFAULT_NEW_ALIGNMENT__ >= alignof(std::max_align_t),
              "operator new must return blocks aligned for the header");

struct Registry {
    std::mutex m_mutex;
    // Owns the file names the sites point to; map nodes never move.
    std::map<std::pair<std::string, int>, ZKAllocSite*> m_sites;
    // Newest site first. Readers walk the chain without the mutex: a site is complete
    // before it is published here and its m_pNext never changes afterwards.
    std::atomic<ZKAllocSite*> m_pHead{nullptr};
};

Registry& TheRegistry() {
    // Never destroyed: blocks may still be freed, and sites looked up, while other static
    // objects are destroyed at exit.
    static Registry* registry = new Registry;
    return *registry;
}

ZKAllocSite& Register(const char* file, int line) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.m_mutex);
    auto [it, inserted] =
        registry.m_sites.try_emplace(std::make_pair(std::string(file), line), nullptr);
    if (inserted) {
        ZKAllocSite* site = new ZKAllocSite{it->first.first.c_str(), line, 0, 0,
                                            registry.m_pHead.load(std::memory_order_relaxed)};
        it->second = site;
        registry.m_pHead.store(site, std::memory_order_release);
    }
    return *it->second;
}

// A small per-thread cache in front of the registry, so that looking a site up by name
// takes no lock once the thread has seen it. Trivially destructible on purpose: it stays
// usable while the thread's other thread_local objects are destroyed.
struct CacheSlot {
    const char* m_pWhere;
    int m_nLine;
    ZKAllocSite* m_pSite;
};
constexpr std::size_t kCacheSlots = 64;
thread_local CacheSlot t_cache[kCacheSlots];

BlockHeader* HeaderOf(const void* p) {
    return static_cast<BlockHeader*>(const_cast<void*>(p)) - 1;
}

}  // namespace

ZKAllocSite& ZKNodeAlloc::Site(const char* file, int line) {
    if (file == nullptr) {
        file = "";
    }
    const std::uintptr_t key =
        (reinterpret_cast<std::uintptr_t>(file) >> 3) ^ (static_cast<std::uintptr_t>(line) * 31u);
    CacheSlot& slot = t_cache[key % kCacheSlots];
    // The same pointer may later hold another name when the caller built it dynamically,
    // hence the comparison by content.
    if (slot.m_pWhere == file && slot.m_nLine == line && slot.m_pSite != nullptr &&
        std::strcmp(slot.m_pSite->m_file, file) == 0) {
        return *slot.m_pSite;
    }
    ZKAllocSite& site = Register(file, line);
    slot = CacheSlot{file, line, &site};
    return site;
}

void* ZKNodeAlloc::allocate(std::size_t size, ZKAllocSite& site) {
    if (size > std::numeric_limits<std::size_t>::max() - sizeof(BlockHeader)) {
        throw std::bad_alloc();
    }
    BlockHeader* header = static_cast<BlockHeader*>(::operator new(sizeof(BlockHeader) + size));
    header->m_pSite = &site;
    header->m_nSize = size;
    site.m_nLive.fetch_add(1, std::memory_order_relaxed);
    site.m_nTotal.fetch_add(1, std::memory_order_relaxed);
    return header + 1;
}

void* ZKNodeAlloc::allocate(std::size_t size, const char* where, int line) {
    return allocate(size, Site(where, line));
}

void ZKNodeAlloc::deallocate(void* p, std::size_t size) {
    if (p == nullptr) {
        return;
    }
    BlockHeader* header = HeaderOf(p);
    ZK_ASSERT(header->m_nSize == size);
    header->m_pSite->m_nLive.fetch_sub(1, std::memory_order_relaxed);
    ::operator delete(header);
}

std::size_t ZKNodeAlloc::BlockSize(const void* p) {
    ZK_ASSERT(p != nullptr);
    return HeaderOf(p)->m_nSize;
}

long long ZKNodeAlloc::LiveCount() {
    long long live = 0;
    for (const ZKAllocSite* site = TheRegistry().m_pHead.load(std::memory_order_acquire);
         site != nullptr; site = site->m_pNext) {
        live += site->m_nLive.load(std::memory_order_relaxed);
    }
    return live;
}

std::vector<ZKNodeAlloc::SiteReport> ZKNodeAlloc::LiveSites() {
    std::vector<SiteReport> report;
    for (const ZKAllocSite* site = TheRegistry().m_pHead.load(std::memory_order_acquire);
         site != nullptr; site = site->m_pNext) {
        const long long live = site->m_nLive.load(std::memory_order_relaxed);
        if (live != 0) {
            report.push_back(SiteReport{site->m_file, site->m_line, live});
        }
    }
    std::sort(report.begin(), report.end(), [](const SiteReport& a, const SiteReport& b) {
        return a.m_file != b.m_file ? a.m_file < b.m_file : a.m_line < b.m_line;
    });
    return report;
}

ZKAllocSite& ZKNodeAlloc::ContainerSite() {
    static ZKAllocSite& site = Site("container", 0);
    return site;
}

void* memalloc::MemoryAllocatorGateway::allocateAndRemeberSize(std::size_t size, const char* where,
                                                               int line) {
    // The block header already records the size.
    return ZKNodeAlloc::allocate(size, where, line);
}

void memalloc::MemoryAllocatorGateway::readSizeAndDeallocate(void* p) {
    if (p == nullptr) {
        return;
    }
    ZKNodeAlloc::deallocate(p, ZKNodeAlloc::BlockSize(p));
}

void* MemAllocNewdel::operator new(std::size_t size, const char* where, int line) {
    return memalloc::MemoryAllocatorGateway::allocateAndRemeberSize(size, where, line);
}

void* MemAllocNewdel::operator new(std::size_t size) {
    static ZKAllocSite& unattributed = ZKNodeAlloc::Site("unattributed", 0);
    return ZKNodeAlloc::allocate(size, unattributed);
}

void MemAllocNewdel::operator delete(void* p) {
    memalloc::MemoryAllocatorGateway::readSizeAndDeallocate(p);
}

void MemAllocNewdel::operator delete(void* p, const char*, int) {
    memalloc::MemoryAllocatorGateway::readSizeAndDeallocate(p);
}
