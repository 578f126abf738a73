#pragma once
// Language pack files ("languages\<code>.<display name>.<version>.lpack" beside the
// executable): the container of per-module string table images, its file name fields,
// and the read-only mapping that keeps a chosen pack alive for the program's life.

#include "base/unique_handle.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tessel {

inline constexpr std::byte pack_signature[16] = {
    std::byte{0x91}, std::byte{0x58}, std::byte{0x27}, std::byte{0xFD}, std::byte{0x72}, std::byte{0xA1},
    std::byte{0xC1}, std::byte{0x4C}, std::byte{0x8A}, std::byte{0xBA}, std::byte{0x56}, std::byte{0x4E},
    std::byte{0xFC}, std::byte{0x98}, std::byte{0xDD}, std::byte{0x21}};

struct pack_version {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint32_t build = 0;
    std::uint32_t revision = 0;

    friend bool operator==(const pack_version&, const pack_version&) = default;
};

// The 2-2-4 decimal layout: V = major * 100000000 + minor * 1000000 + build * 10000 + revision.
[[nodiscard]] pack_version unpack_version(std::uint64_t packed) noexcept;
// Digit by digit, value * 10 + (character - '0'): other characters are not rejected, they
// enter the number with their code.
[[nodiscard]] std::uint64_t parse_version_field(std::wstring_view field) noexcept;

struct pack_record {
    std::wstring code;
    std::wstring display_name;
    pack_version version;
    std::wstring path;
};

// "<code>.<display name>.<version>.lpack": the code runs to the first ".", the version
// from the last "." before the extension; a name without all three fields is no pack.
[[nodiscard]] std::optional<pack_record> parse_pack_file_name(std::wstring_view file_name, std::wstring_view folder);

// The packs in "<program folder>\languages", in the order the file system lists them.
// A missing folder gives an empty list.
[[nodiscard]] std::vector<pack_record> enumerate_packs(std::wstring_view program_folder);

// Signature, a directory that lies inside the file and is sorted by hash, module
// offsets past the directory, and a well-formed table image for every module. A pack
// that fails any of it is not used at all.
[[nodiscard]] bool is_well_formed_pack(std::span<const std::byte> pack) noexcept;

// The table image of the named module (it runs to the end of the file), found by a
// lower-bound search of the directory and an exact hash match. Anything up to the last
// "\" of the name is ignored.
[[nodiscard]] std::optional<std::span<const std::byte>> find_module(std::span<const std::byte> pack,
                                                                    std::wstring_view module_name) noexcept;

// A whole file mapped read-only. The file and mapping handles are closed once the view
// exists; the view stays until the object goes.
class mapped_file {
public:
    mapped_file() = default;
    // False (and nothing mapped) when the file cannot be opened or mapped, is empty, or
    // is larger than a pack can address.
    bool map(const std::wstring& path) noexcept;
    void reset() noexcept;

    [[nodiscard]] std::span<const std::byte> bytes() const noexcept
    {
        return {static_cast<const std::byte*>(view_.get()), size_};
    }
    [[nodiscard]] bool is_mapped() const noexcept { return static_cast<bool>(view_); }

private:
    unique_mapped_view view_;
    std::size_t size_ = 0;
};

}  // namespace tessel
