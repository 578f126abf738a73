#pragma once
// The vector icon collection: our own icons, compiled from SVG sources by
// tools/icons/build_icons.py into the "VICON2" resource, read back here and rendered onto
// pixel surfaces.
//
// The reader takes a collection whole or not at all: a damaged or hostile collection is
// refused as one. So that one icon of ours can never make all of them disappear, the
// generator refuses at build time every icon this reader would reject (validate_icon's
// limits are repeated there).
//
// Resource (little-endian):
//   0   16  magic: the GUID {1395E7F2-8BD3-49A5-B5BC-8BEB4C73B8F7} in binary form
//   16  4   size of the decompressed collection
//   20  4   size of the compressed data that follows
//   24  ..  one LZ4 block holding the collection
//
// Collection (decompressed; offsets from its start, all little-endian):
//   0   8   header: bits 0-15 layout version (1), bits 16-31 zero, bits 32-63 icon count
//   8   16 × count  name index, sorted by name (bytewise), each entry:
//               u32 name offset, u32 name length, u32 icon offset, u32 icon size
//   ..  names (UTF-8, not terminated) and icons, each icon 4-byte aligned:
//       f32 × 4   view box: x, y, width, height
//       u32       path count
//       paths, each:
//           u8  flags: 1 = filled, 2 = even-odd fill rule, 4 = stroked
//           u8  line cap: 0 butt, 1 round, 2 square
//           u8  line join: 0 miter, 1 round, 2 bevel
//           u8  zero
//           u32 fill colour, u32 stroke colour: bytes R, G, B, A (opacity folded into A)
//           f32 stroke width, f32 miter limit (view-box units)
//           u32 verb count, u32 point count
//           verbs, one byte each, padded with zeros to a multiple of 4:
//               0 move (1 point), 1 line (1), 2 quadratic (2), 3 cubic (3), 4 close (0)
//           points: f32 x, f32 y each
// The reader checks all of it once, when the collection is loaded; an icon it hands out
// is known to lie within the data, so drawing never reads out of bounds.

#include "base/unique_handle.h"

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::svg {

// {1395E7F2-8BD3-49A5-B5BC-8BEB4C73B8F7}
inline constexpr GUID collection_magic = {0x1395E7F2, 0x8BD3, 0x49A5, {0xB5, 0xBC, 0x8B, 0xEB, 0x4C, 0x73, 0xB8, 0xF7}};
inline constexpr std::uint16_t collection_layout_version = 1;
inline constexpr std::size_t resource_header_size = 24;

enum class path_verb : std::uint8_t { move = 0, line = 1, quadratic = 2, cubic = 3, close = 4 };
enum path_flags : std::uint8_t { path_filled = 1, path_even_odd = 2, path_stroked = 4 };

struct point_f {
    float x;
    float y;
};

struct path_view {
    std::uint8_t flags;
    std::uint8_t line_cap;
    std::uint8_t line_join;
    std::uint32_t fill_rgba;    // bytes R, G, B, A
    std::uint32_t stroke_rgba;
    float stroke_width;
    float miter_limit;
    std::span<const std::uint8_t> verbs;
    std::span<const std::byte> points;  // point count × 8 bytes, read unaligned
    [[nodiscard]] point_f point(std::size_t index) const noexcept;
};

// One icon inside a collection: valid as long as the collection is.
class icon_view {
public:
    icon_view() = default;
    icon_view(std::span<const std::byte> record) noexcept : record_(record) {}
    [[nodiscard]] bool empty() const noexcept { return record_.empty(); }
    [[nodiscard]] float view_x() const noexcept;
    [[nodiscard]] float view_y() const noexcept;
    [[nodiscard]] float view_width() const noexcept;
    [[nodiscard]] float view_height() const noexcept;
    [[nodiscard]] std::uint32_t path_count() const noexcept;
    // Walks the paths in drawing order.
    template <class callback>
    void for_each_path(callback&& fn) const;

private:
    [[nodiscard]] path_view path_at(std::size_t& offset) const noexcept;
    std::span<const std::byte> record_;
};

class read_only_collection {
public:
    read_only_collection() = default;
    // From the bytes of a "VICON2" resource. Anything malformed (bad magic, sizes past
    // the end, a broken LZ4 block, an inner record out of bounds) gives an empty
    // collection.
    [[nodiscard]] static read_only_collection from_resource(std::span<const std::byte> resource);
    // From decompressed collection bytes (same checks).
    [[nodiscard]] static read_only_collection from_collection(std::vector<std::byte> data);

    [[nodiscard]] bool empty() const noexcept { return count_ == 0; }
    [[nodiscard]] std::size_t size() const noexcept { return count_; }
    [[nodiscard]] std::uint64_t header() const noexcept { return header_; }
    [[nodiscard]] std::size_t decompressed_size() const noexcept { return data_.size(); }
    [[nodiscard]] std::string_view name(std::size_t index) const noexcept;
    [[nodiscard]] icon_view icon(std::size_t index) const noexcept;
    [[nodiscard]] icon_view find(std::string_view name) const noexcept;
    [[nodiscard]] icon_view find(std::wstring_view name) const noexcept;

private:
    [[nodiscard]] bool validate() const noexcept;
    std::vector<std::byte> data_;
    std::uint64_t header_ = 0;
    std::size_t count_ = 0;
};

// Loads collections from module resources once and shares them. Loading and lookups may
// come from any thread; inserting takes the lock exclusively.
class collection_cache {
public:
    collection_cache() = default;
    collection_cache(const collection_cache&) = delete;
    collection_cache& operator=(const collection_cache&) = delete;

    // False when the resource is missing or cannot be loaded; a resource that is present
    // but malformed loads as an empty collection.
    bool load(HMODULE module, const wchar_t* resource_name);
    [[nodiscard]] std::shared_ptr<const read_only_collection> get(HMODULE module, const wchar_t* resource_name) const;

    // The process-wide cache.
    [[nodiscard]] static collection_cache& instance();

private:
    using key = std::pair<HMODULE, std::wstring>;
    static key make_key(HMODULE module, const wchar_t* resource_name);
    mutable SRWLOCK lock_ = SRWLOCK_INIT;
    std::map<key, std::shared_ptr<const read_only_collection>> collections_;
};

// The program's own collection: resource 137 of type "VICON2" in the executable.
inline constexpr int icon_collection_resource_id = 137;
[[nodiscard]] std::shared_ptr<const read_only_collection> program_icons();

// 32-bit premultiplied BGRA pixels, top row first, rows packed (stride = width × 4): the
// layout of DXGI_FORMAT_B8G8R8A8_UNORM with premultiplied alpha and of WIC's
// 32bppPBGRA, so the pixels go to Direct2D, WIC and GDI+ without conversion.
class surface_t {
public:
    surface_t() = default;
    surface_t(int width, int height) : width_(width), height_(height), pixels_(std::size_t(width) * height) {}
    [[nodiscard]] int width() const noexcept { return width_; }
    [[nodiscard]] int height() const noexcept { return height_; }
    [[nodiscard]] int stride() const noexcept { return width_ * 4; }
    [[nodiscard]] std::uint32_t* data() noexcept { return pixels_.data(); }
    [[nodiscard]] const std::uint32_t* data() const noexcept { return pixels_.data(); }
    [[nodiscard]] std::uint32_t pixel(int x, int y) const noexcept { return pixels_[std::size_t(y) * width_ + x]; }
    void clear() noexcept { std::fill(pixels_.begin(), pixels_.end(), 0u); }

private:
    int width_ = 0;
    int height_ = 0;
    std::vector<std::uint32_t> pixels_;
};

// Draws the icon scaled to fit a size × size square at (x, y) of the surface, centred,
// over what the surface holds. Fills and strokes with FreeType's rasterizer and stroker.
void render_icon(const icon_view& icon, surface_t& surface, int x, int y, int size);
// A new size × size surface with the icon; transparent when the icon is empty.
[[nodiscard]] surface_t render_icon(const icon_view& icon, int size);

// An icon for windows and message boxes, through GDI+ (which the program starts).
[[nodiscard]] unique_hicon create_hicon(const surface_t& surface);

// ---------------------------------------------------------------------------------------

template <class callback>
void icon_view::for_each_path(callback&& fn) const
{
    std::size_t offset = 20;
    const std::uint32_t count = path_count();
    for (std::uint32_t i = 0; i < count; ++i)
        fn(path_at(offset));
}

}  // namespace tessel::svg
