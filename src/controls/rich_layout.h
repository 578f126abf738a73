#pragma once
// Markup to DirectWrite: builds a text layout with every element of a parse result
// applied, keeps what the layout cannot hold itself (colours, backgrounds, links), draws
// it, and answers where text and links are, from line and cluster metrics so that it
// does not depend on DirectWrite's hit testing.

#include "base/com_ptr.h"
#include "controls/inline_objects.h"
#include "controls/markup.h"
#include "controls/vector_icons.h"

#include <d2d1.h>
#include <dwrite.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tessel::windows::new_controls {

struct coloured_range {
    DWRITE_TEXT_RANGE range;
    D2D1_COLOR_F colour;
};

// An "h" link or an "H" clickable range.
struct link_range {
    DWRITE_TEXT_RANGE range;
    std::wstring argument;  // the tooltip; empty when none
    bool hover_only;        // set for "H": no link colour, no underline
};

// Bounds of a size set by markup ("[[[s:percent:...]]]"), in DIPs: a zero, tiny or
// absurd percentage from a translation is clamped into them instead of failing the layout.
// Weights are clamped to 1-999 (950 where DirectWrite stops there) and stretches to 1-9.
inline constexpr float min_markup_font_size = 1.0f;
inline constexpr float max_markup_font_size = 1000.0f;

struct layout_options {
    IDWriteFactory* factory = nullptr;
    IDWriteTextFormat* format = nullptr;  // base font family and size
    float max_width = 0;
    float max_height = 0;
    D2D1_COLOR_F default_colour{0, 0, 0, 1};  // also for colour strings that cannot be read
    D2D1_COLOR_F link_colour{0, 0, 1, 1};
    bool no_underline = false;  // links without underline
    // Icons of "v" and "V" elements that name them; the number form is resolved through
    // vector_icon_name (no icon when it is missing or answers an empty name).
    std::shared_ptr<const svg::read_only_collection> icons;
    std::function<std::wstring(std::int64_t)> vector_icon_name;
    // Size of "v" and "r" icons in DIPs; 0 for 4/3 of the font size (16 at 12).
    float icon_size = 0;
};

struct cluster_box {
    UINT32 position;
    UINT32 length;
    D2D1_RECT_F rect;  // layout coordinates, DIPs
};

class rich_layout {
public:
    com_ptr<IDWriteTextLayout> layout;
    std::vector<coloured_range> colours;      // in application order: later ones win
    std::vector<coloured_range> backgrounds;  // painted behind the glyphs, in order
    std::vector<link_range> links;            // inner ones first
    bool has_hover_ranges = false;
    std::vector<com_ptr<IDWriteInlineObject>> inline_objects;

    // Where each cluster lies; computed on first use.
    [[nodiscard]] const std::vector<cluster_box>& clusters() const;
    // One rectangle per line that `range` touches.
    [[nodiscard]] std::vector<D2D1_RECT_F> range_rects(DWRITE_TEXT_RANGE range) const;
    // The text position under a point of layout coordinates, if any.
    [[nodiscard]] std::optional<UINT32> position_at(D2D1_POINT_2F point) const;
    // Index into links of the innermost link under the point, if any.
    [[nodiscard]] std::optional<std::size_t> link_at(D2D1_POINT_2F point) const;
    // Height of the laid-out text in DIPs.
    [[nodiscard]] float height() const;

    // Draws backgrounds, then the text with its colours and inline objects.
    void draw(ID2D1RenderTarget* target, D2D1_POINT_2F origin, ID2D1Brush* default_brush,
              d2d::icon_bitmap_cache& icons) const;

private:
    mutable std::optional<std::vector<cluster_box>> clusters_;
    // Brushes set as drawing effects, valid for one target.
    mutable com_ptr<ID2D1RenderTarget> effects_target_;
};

[[nodiscard]] rich_layout build_layout(const markup_result& markup, const layout_options& options);

// The link colour the user chose for the system's browser ("Anchor Color", "R,G,B"),
// blue when unset or unreadable.
[[nodiscard]] D2D1_COLOR_F read_link_colour();
[[nodiscard]] D2D1_COLOR_F parse_link_colour(std::wstring_view text) noexcept;

}  // namespace tessel::windows::new_controls
