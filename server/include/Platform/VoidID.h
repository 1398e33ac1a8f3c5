#pragma once
// Identity of a repository object: the type identifier of its interface and a number that
// is unique among the objects of that type. Ordered by type (signed) then number.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "Platform/ZKString.h"

struct UniqueNum {
    static constexpr uint32_t kUndefined = 0xFFFFFFFFu;
    uint32_t m_num = kUndefined;

    constexpr UniqueNum() = default;
    constexpr explicit UniqueNum(uint32_t num) : m_num(num) {}
    constexpr bool IsUndefined() const { return m_num == kUndefined; }
    constexpr auto operator<=>(const UniqueNum&) const = default;
};

class VoidID {
public:
    constexpr VoidID() = default;
    constexpr VoidID(int32_t typeId, uint32_t num) : m_nTypeId(typeId), m_nNum(num) {}

    static const VoidID NullID;

    constexpr bool IsNullID() const { return m_nTypeId == 0 && m_nNum == UniqueNum::kUndefined; }
    constexpr int32_t GetTypeID() const { return m_nTypeId; }
    constexpr uint32_t GetNum() const { return m_nNum; }

    // "type:number", e.g. "3:17"; the null identifier is "null".
    ZKString ToString() const;
    // Reads what ToString writes; on failure returns false and leaves id unchanged.
    static bool FromString(std::wstring_view text, VoidID& id);

    // The check mistakes the comparison with 0 that the compiler writes for the default.
    constexpr auto operator<=>(const VoidID&) const = default;  // NOLINT(modernize-use-nullptr)

private:
    int32_t m_nTypeId = 0;
    uint32_t m_nNum = UniqueNum::kUndefined;
};

inline constexpr VoidID VoidID::NullID{};

template <>
struct std::hash<VoidID> {
    std::size_t operator()(const VoidID& id) const noexcept {
        const uint64_t packed =
            (static_cast<uint64_t>(static_cast<uint32_t>(id.GetTypeID())) << 32) | id.GetNum();
        return std::hash<uint64_t>{}(packed);
    }
};
