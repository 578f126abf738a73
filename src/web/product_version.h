#pragma once
// The program's own version and the packed form the update service speaks:
// ((major * 100 + minor) * 100 + build) * 10000 + revision, so 3.1.0.1234 is 301001234.

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tessel::web {

struct product_version {
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    std::uint16_t build = 0;
    std::uint16_t revision = 0;

    bool operator==(const product_version&) const = default;
};

// The product version of a module's version resource (RT_VERSION 1, block "\"); null: the
// executable. Empty when the module has no version resource.
[[nodiscard]] std::optional<product_version> module_product_version(HMODULE module = nullptr);

[[nodiscard]] constexpr std::uint64_t packed_version(const product_version& v) noexcept
{
    return ((std::uint64_t{v.major} * 100 + v.minor) * 100 + v.build) * 10000 + v.revision;
}

// Parts beyond what 16 bits hold cannot come from a version resource; they are cut.
[[nodiscard]] constexpr product_version unpacked_version(std::uint64_t packed) noexcept
{
    return {static_cast<std::uint16_t>(packed / 100000000), static_cast<std::uint16_t>(packed / 1000000 % 100),
            static_cast<std::uint16_t>(packed / 10000 % 100), static_cast<std::uint16_t>(packed % 10000)};
}

// "3.1.0.1234"
[[nodiscard]] std::wstring dotted_version(const product_version& v);

// A release is newer only when its packed version is greater.
[[nodiscard]] constexpr bool is_newer_release(std::uint64_t offered, std::uint64_t own) noexcept
{
    return offered > own;
}

}  // namespace tessel::web
