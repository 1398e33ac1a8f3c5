#pragma once
// What the fuzz targets share: the sample catalog and its session, read once, the check that
// every node an input made is freed again, and how a broken invariant ends the run.

#include <cstddef>
#include <cstdint>
#include <string_view>

class RpSession;

namespace rqfuzz {

// The session over the built-in sample catalog.
RpSession& SampleSession();

// Ends the run with the message, so that the fuzzer records the input as a crash.
[[noreturn]] void Fail(const char* what, std::string_view detail = {});

// Checks, when it goes out of scope, that the input freed every node it allocated.
class NodeBalance {
public:
    NodeBalance();
    ~NodeBalance();

private:
    long long m_nLiveAtStart;
};

inline std::string_view AsText(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace rqfuzz
