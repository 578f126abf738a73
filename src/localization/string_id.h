#pragma once
// String ids and module-name hashes: 32-bit FNV-1a over the low byte of each UTF-16 unit,
// "A"-"Z" folded to lower case, every byte sign-extended before it enters the hash.
// The sign extension and the low-byte rule are odd, but packs already written hash this
// way, so the pack tool (tools/strings) and this header must never drift apart.

#include <cstdint>
#include <string_view>

namespace tessel {

[[nodiscard]] constexpr std::uint32_t string_id(std::wstring_view key) noexcept
{
    std::uint32_t hash = 0x811C9DC5u;
    for (const wchar_t unit : key) {
        std::uint8_t byte = static_cast<std::uint8_t>(unit);
        if (unit >= L'A' && unit <= L'Z')
            byte = static_cast<std::uint8_t>(unit + 0x20);
        const auto extended = static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<std::int8_t>(byte)));
        hash = (hash ^ extended) * 0x01000193u;
    }
    return hash;
}

// A module is named by its file name; anything up to the last "\" is a path and ignored.
[[nodiscard]] constexpr std::uint32_t module_hash(std::wstring_view name) noexcept
{
    if (const auto slash = name.rfind(L'\\'); slash != std::wstring_view::npos)
        name.remove_prefix(slash + 1);
    return string_id(name);
}

static_assert(string_id(L"Hide disconnected") == 0x19E65AA4u);
static_assert(module_hash(L"common") == 0x4D5B0474u);

}  // namespace tessel
