#include "controls/rich_layout.h"

#include "base/failure.h"

#include <algorithm>
#include <cmath>

namespace tessel::windows::new_controls {
namespace {

D2D1_COLOR_F element_colour(const markup_element& element, const layout_options& options) noexcept
{
    if (element.first_number != 0)
        return unpack_markup_colour(element.first_number);
    return parse_markup_colour(element.argument).value_or(options.default_colour);
}

// Numbers in markup come from translators, and DirectWrite refuses some of them with an
// error that would fail the whole layout (a blank window for a typo). Each is clamped to
// the nearest value DirectWrite takes: weight 1-999 (see set_markup_weight), stretch 1-9 (DWRITE_FONT_STRETCH
// ultra-condensed to ultra-expanded), and a size percentage whose result lies between
// min_markup_font_size and max_markup_font_size DIPs ("s:0:" gives the smallest size).
DWRITE_FONT_WEIGHT markup_weight(std::int64_t number) noexcept
{
    return static_cast<DWRITE_FONT_WEIGHT>(std::clamp<std::int64_t>(number, 1, 999));
}

// Some DirectWrite implementations stop at ultra-black (950) rather than 999; a weight
// above that which they refuse is drawn ultra-black.
void set_markup_weight(IDWriteTextLayout* layout, std::int64_t number, DWRITE_TEXT_RANGE range)
{
    const DWRITE_FONT_WEIGHT weight = markup_weight(number);
    const HRESULT hr = layout->SetFontWeight(weight, range);
    if (hr == E_INVALIDARG && weight > DWRITE_FONT_WEIGHT_ULTRA_BLACK)
        throw_if_failed(layout->SetFontWeight(DWRITE_FONT_WEIGHT_ULTRA_BLACK, range));
    else
        throw_if_failed(hr);
}

DWRITE_FONT_STRETCH markup_stretch(std::int64_t number) noexcept
{
    return static_cast<DWRITE_FONT_STRETCH>(std::clamp<std::int64_t>(number, DWRITE_FONT_STRETCH_ULTRA_CONDENSED,
                                                                     DWRITE_FONT_STRETCH_ULTRA_EXPANDED));
}

float markup_size(float base_size, std::int64_t percent) noexcept
{
    const double size = static_cast<double>(base_size) * static_cast<double>(percent) * 0.01;
    if (!std::isfinite(size))
        return base_size;
    return static_cast<float>(std::clamp(size, double{min_markup_font_size}, double{max_markup_font_size}));
}

std::wstring icon_name(std::int64_t number, const layout_options& options)
{
    if (number == 0 || !options.vector_icon_name)
        return {};
    return options.vector_icon_name(number);
}

}  // namespace

rich_layout build_layout(const markup_result& markup, const layout_options& options)
{
    rich_layout result;
    throw_if_failed(options.factory->CreateTextLayout(markup.text().data(), static_cast<UINT32>(markup.text().size()),
                                                      options.format, options.max_width, options.max_height,
                                                      result.layout.put()));
    IDWriteTextLayout* const layout = result.layout.get();
    const float base_size = options.format->GetFontSize();
    const float icon_size = options.icon_size > 0 ? options.icon_size : std::round(base_size * 4.f / 3.f);

    const auto set_inline = [&](com_ptr<IDWriteInlineObject> object, DWRITE_TEXT_RANGE range) {
        throw_if_failed(layout->SetInlineObject(object.get(), range));
        result.inline_objects.push_back(std::move(object));
    };

    for (const markup_element& e : markup.elements) {
        const DWRITE_TEXT_RANGE r = e.range;
        switch (e.tag) {
        case L'b': throw_if_failed(layout->SetFontWeight(DWRITE_FONT_WEIGHT_BOLD, r)); break;
        case L'w': set_markup_weight(layout, e.first_number, r); break;
        case L'i': throw_if_failed(layout->SetFontStyle(DWRITE_FONT_STYLE_ITALIC, r)); break;
        case L'u': throw_if_failed(layout->SetUnderline(TRUE, r)); break;
        case L'-': throw_if_failed(layout->SetStrikethrough(TRUE, r)); break;
        case L'c': throw_if_failed(layout->SetFontStretch(markup_stretch(e.first_number), r)); break;
        case L's': throw_if_failed(layout->SetFontSize(markup_size(base_size, e.first_number), r)); break;
        case L'f': throw_if_failed(layout->SetFontFamilyName(std::wstring(e.argument).c_str(), r)); break;
        case L'F':
            // The number is the address of a collection the caller keeps alive.
            throw_if_failed(layout->SetFontCollection(
                reinterpret_cast<IDWriteFontCollection*>(static_cast<std::intptr_t>(e.first_number)), r));
            break;
        case L'T': result.colours.push_back({r, element_colour(e, options)}); break;
        case L'B': result.backgrounds.push_back({r, element_colour(e, options)}); break;
        case L'h':
            result.colours.push_back({r, options.link_colour});
            if (!options.no_underline)
                throw_if_failed(layout->SetUnderline(TRUE, r));
            result.links.push_back({r, std::wstring(e.argument), false});
            break;
        case L'H':
            result.links.push_back({r, std::wstring(e.argument), true});
            result.has_hover_ranges = true;
            break;
        case L'g': set_inline(d2d::details::make_gap_object(static_cast<float>(e.first_number)), r); break;
        case L'v':
        case L'V': {
            // "V" is the same icon sized to the font instead of the icon size, for icons
            // that stand in for a word.
            std::wstring name = e.argument.empty() ? icon_name(e.first_number, options) : std::wstring(e.argument);
            if (name.empty() || !options.icons || options.icons->find(name).empty())
                break;
            set_inline(d2d::details::make_vector_icon_object(options.icons, std::move(name),
                                                             icon_name(e.second_number, options),
                                                             e.tag == L'V' ? base_size : icon_size),
                       r);
            break;
        }
        case L'r':
            if (e.first_number != 0)
                set_inline(d2d::details::make_raster_icon_object(
                               reinterpret_cast<HICON>(static_cast<std::intptr_t>(e.first_number)),
                               reinterpret_cast<HICON>(static_cast<std::intptr_t>(e.second_number)), icon_size),
                           r);
            break;
        case L'I':
            // The number is the address of the caller's object; the layout adds its own
            // reference.
            if (e.first_number != 0)
                throw_if_failed(layout->SetInlineObject(
                    reinterpret_cast<IDWriteInlineObject*>(static_cast<std::intptr_t>(e.first_number)), r));
            break;
        default: break;  // unknown tags show their content as plain text
        }
    }
    return result;
}

const std::vector<cluster_box>& rich_layout::clusters() const
{
    if (clusters_)
        return *clusters_;
    UINT32 line_count = 0;
    HRESULT hr = layout->GetLineMetrics(nullptr, 0, &line_count);
    if (hr != E_NOT_SUFFICIENT_BUFFER)
        throw_if_failed(hr);
    std::vector<DWRITE_LINE_METRICS> lines(line_count);
    throw_if_failed(layout->GetLineMetrics(lines.data(), line_count, &line_count));
    UINT32 cluster_count = 0;
    hr = layout->GetClusterMetrics(nullptr, 0, &cluster_count);
    if (hr != E_NOT_SUFFICIENT_BUFFER)
        throw_if_failed(hr);
    std::vector<DWRITE_CLUSTER_METRICS> metrics(cluster_count);
    throw_if_failed(layout->GetClusterMetrics(metrics.data(), cluster_count, &cluster_count));

    DWRITE_TEXT_METRICS text{};
    throw_if_failed(layout->GetMetrics(&text));
    const DWRITE_TEXT_ALIGNMENT alignment = layout->GetTextAlignment();
    const float box_width = layout->GetMaxWidth();

    std::vector<cluster_box> boxes;
    boxes.reserve(cluster_count);
    std::size_t next_cluster = 0;
    UINT32 position = 0;
    float top = text.top;
    for (const DWRITE_LINE_METRICS& line : lines) {
        const UINT32 line_end = position + line.length;
        const UINT32 visible_end = line_end - line.trailingWhitespaceLength;
        // Where the line starts depends on the alignment and on its width without the
        // trailing blanks, which hang past the edge.
        float visible_width = 0;
        for (std::size_t c = next_cluster, p = position; c < metrics.size() && p < visible_end; p += metrics[c].length, ++c)
            visible_width += metrics[c].width;
        float x = 0;
        if (alignment == DWRITE_TEXT_ALIGNMENT_TRAILING)
            x = box_width - visible_width;
        else if (alignment == DWRITE_TEXT_ALIGNMENT_CENTER)
            x = (box_width - visible_width) / 2;
        while (next_cluster < metrics.size() && position < line_end) {
            const DWRITE_CLUSTER_METRICS& m = metrics[next_cluster++];
            boxes.push_back({position, m.length, {x, top, x + m.width, top + line.height}});
            x += m.width;
            position += m.length;
        }
        top += line.height;
    }
    clusters_ = std::move(boxes);
    return *clusters_;
}

std::vector<D2D1_RECT_F> rich_layout::range_rects(DWRITE_TEXT_RANGE range) const
{
    std::vector<D2D1_RECT_F> rects;
    const UINT32 end = range.startPosition + range.length;
    for (const cluster_box& box : clusters()) {
        if (box.position + box.length <= range.startPosition || box.position >= end)
            continue;
        if (!rects.empty() && rects.back().top == box.rect.top)
            rects.back().right = std::max(rects.back().right, box.rect.right);
        else
            rects.push_back(box.rect);
    }
    return rects;
}

std::optional<UINT32> rich_layout::position_at(D2D1_POINT_2F point) const
{
    for (const cluster_box& box : clusters())
        if (point.x >= box.rect.left && point.x < box.rect.right && point.y >= box.rect.top &&
            point.y < box.rect.bottom)
            return box.position;
    return std::nullopt;
}

std::optional<std::size_t> rich_layout::link_at(D2D1_POINT_2F point) const
{
    const std::optional<UINT32> position = position_at(point);
    if (!position)
        return std::nullopt;
    for (std::size_t i = 0; i < links.size(); ++i)
        if (*position >= links[i].range.startPosition && *position - links[i].range.startPosition < links[i].range.length)
            return i;
    return std::nullopt;
}

float rich_layout::height() const
{
    DWRITE_TEXT_METRICS metrics{};
    throw_if_failed(layout->GetMetrics(&metrics));
    return metrics.height;
}

void rich_layout::draw(ID2D1RenderTarget* target, D2D1_POINT_2F origin, ID2D1Brush* default_brush,
                       d2d::icon_bitmap_cache& icons) const
{
    for (const coloured_range& background : backgrounds) {
        com_ptr<ID2D1SolidColorBrush> brush;
        throw_if_failed(target->CreateSolidColorBrush(background.colour, brush.put()));
        for (D2D1_RECT_F rect : range_rects(background.range))
            target->FillRectangle({rect.left + origin.x, rect.top + origin.y, rect.right + origin.x,
                                   rect.bottom + origin.y},
                                  brush.get());
    }
    // Brushes belong to a target: set them again only when the target changes.
    if (effects_target_.get() != target) {
        for (const coloured_range& colour : colours) {
            com_ptr<ID2D1SolidColorBrush> brush;
            throw_if_failed(target->CreateSolidColorBrush(colour.colour, brush.put()));
            throw_if_failed(layout->SetDrawingEffect(brush.get(), colour.range));
        }
        effects_target_ = com_ptr<ID2D1RenderTarget>(target);
    }
    d2d::draw_scope scope(icons);
    target->DrawTextLayout(origin, layout.get(), default_brush, D2D1_DRAW_TEXT_OPTIONS_NONE);
}

D2D1_COLOR_F parse_link_colour(std::wstring_view text) noexcept
{
    constexpr D2D1_COLOR_F fallback{0, 0, 1, 1};
    int channels[3] = {};
    std::size_t pos = 0;
    for (int i = 0; i < 3; ++i) {
        while (pos < text.size() && text[pos] == L' ')
            ++pos;
        if (pos >= text.size() || text[pos] < L'0' || text[pos] > L'9')
            return fallback;
        int value = 0;
        while (pos < text.size() && text[pos] >= L'0' && text[pos] <= L'9' && value <= 255)
            value = value * 10 + (text[pos++] - L'0');
        if (value > 255)
            return fallback;
        channels[i] = value;
        while (pos < text.size() && text[pos] == L' ')
            ++pos;
        if (i < 2) {
            if (pos >= text.size() || text[pos] != L',')
                return fallback;
            ++pos;
        }
    }
    if (pos != text.size())
        return fallback;
    return {channels[0] / 255.f, channels[1] / 255.f, channels[2] / 255.f, 1.f};
}

D2D1_COLOR_F read_link_colour()
{
    wchar_t value[64] = {};
    DWORD size = sizeof value;
    if (::RegGetValueW(HKEY_CURRENT_USER, L"Software\\Microsoft\\Internet Explorer\\Settings", L"Anchor Color",
                       RRF_RT_REG_SZ, nullptr, value, &size) != ERROR_SUCCESS)
        return parse_link_colour(L"0,0,255");
    return parse_link_colour(value);
}

}  // namespace tessel::windows::new_controls
