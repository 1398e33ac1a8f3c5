#pragma once
// Deterministic pseudo-random request trees and text mutations for the tests of the text
// formats. The same seed gives the same tree and the same mutation on every platform: the
// generator draws from its own splitmix64 sequence, not from the standard distributions,
// whose results differ between standard libraries.

#include <cstdint>
#include <string>

class ARpGateway;
class RqHandleNode;

namespace textfuzz {

class Rng {
public:
    explicit Rng(uint64_t seed) : m_state(seed) {}
    uint64_t Next();
    // 0 <= result < n (n > 0).
    int Below(int n) { return static_cast<int>(Next() % static_cast<uint64_t>(n)); }
    bool Chance(int percent) { return Below(100) < percent; }
    template <class T, std::size_t N>
    const T& Pick(const T (&items)[N]) {
        return items[static_cast<std::size_t>(Below(static_cast<int>(N)))];
    }

private:
    uint64_t m_state;
};

// A random request (caller-owned). With a gateway, tables, columns and targets are mostly
// the repository's own objects, so that the text names them; without one they are raw
// identifiers.
RqHandleNode* RandomRequest(uint64_t seed, const ARpGateway* rp);

// The text with one to three random edits: tokens deleted, duplicated, swapped or replaced,
// characters deleted, random bytes or format words inserted, numbers changed, the text cut.
std::string Mutate(const std::string& text, Rng& rng);

}  // namespace textfuzz
