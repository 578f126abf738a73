#pragma once
// Objects that text layouts place inline: icons of the vector collection, bitmap icons
// and plain gaps. They draw onto the render target of the current draw_scope, because
// Direct2D passes inline objects its own text renderer and no way to reach the target.

#include "base/com_ptr.h"
#include "controls/vector_icons.h"

#include <d2d1.h>
#include <dwrite.h>

#include <map>
#include <memory>
#include <string>
#include <tuple>

namespace tessel::d2d {

// Bitmaps made for one render target: rendered vector icons per (collection, name, pixel
// size), and converted bitmap icons per handle. Drop it with the target.
class icon_bitmap_cache {
public:
    explicit icon_bitmap_cache(ID2D1RenderTarget* target) : target_(target) {}
    [[nodiscard]] ID2D1RenderTarget* target() const noexcept { return target_.get(); }
    // Null when the icon is empty or the bitmap cannot be made.
    [[nodiscard]] ID2D1Bitmap* vector_icon(const svg::read_only_collection& collection, std::wstring_view name,
                                           int pixel_size);
    [[nodiscard]] ID2D1Bitmap* raster_icon(HICON icon);
    void clear() noexcept { vector_bitmaps_.clear(); raster_bitmaps_.clear(); }

private:
    com_ptr<ID2D1RenderTarget> target_;
    std::map<std::tuple<const void*, std::wstring, int>, com_ptr<ID2D1Bitmap>> vector_bitmaps_;
    std::map<HICON, com_ptr<ID2D1Bitmap>> raster_bitmaps_;
};

// Makes `cache` (and its target) what inline objects draw onto until the scope ends.
// UI thread only; scopes nest.
class draw_scope {
public:
    explicit draw_scope(icon_bitmap_cache& cache) noexcept;
    ~draw_scope();
    draw_scope(const draw_scope&) = delete;
    draw_scope& operator=(const draw_scope&) = delete;
    [[nodiscard]] static icon_bitmap_cache* current() noexcept;

private:
    icon_bitmap_cache* previous_;
};

// Pixels of `target` per device-independent unit.
[[nodiscard]] float pixels_per_dip(ID2D1RenderTarget* target) noexcept;

namespace details {

// Baseline of an icon box, from its top: icons sit on the text baseline like a capital
// letter with a short descender, which centres them on the text's cap height.
inline constexpr float icon_baseline_ratio = 0.8f;

// A vector icon `size` DIPs square, with an optional overlay drawn over it.
[[nodiscard]] com_ptr<IDWriteInlineObject> make_vector_icon_object(
    std::shared_ptr<const svg::read_only_collection> collection, std::wstring name, std::wstring overlay, float size);
// A bitmap icon `size` DIPs square, with an optional overlay; the handles stay the caller's.
[[nodiscard]] com_ptr<IDWriteInlineObject> make_raster_icon_object(HICON icon, HICON overlay, float size);
// Takes up `width` DIPs and draws nothing.
[[nodiscard]] com_ptr<IDWriteInlineObject> make_gap_object(float width);

}  // namespace details
}  // namespace tessel::d2d
