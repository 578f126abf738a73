// Painting the list view: the metrics and colours at the window's DPI and theme, the
// text formats, the cache of laid-out cells of the rows on screen, and drawing header and
// rows into a Direct2D bitmap surface that GDI copies to the window. Kept apart from input
// and data because it is where the time of a repaint goes: nothing here asks for more
// than the rows the update region touches.

#include "base/failure.h"
#include "base/scope_exit.h"
#include "controls/dark_theme.h"
#include "controls/factories.h"
#include "controls/listview_state.h"
#include "controls/vector_icons.h"

#include <algorithm>
#include <cmath>

namespace tessel::windows::new_controls::listview::impl {
namespace {

using d2d::d2d_factory;
using d2d::dwrite_factory;

D2D1_COLOR_F colour_of(COLORREF colour) noexcept
{
    return {GetRValue(colour) / 255.f, GetGValue(colour) / 255.f, GetBValue(colour) / 255.f, 1.f};
}

D2D1_COLOR_F with_alpha(D2D1_COLOR_F colour, float alpha) noexcept
{
    colour.a = alpha;
    return colour;
}

template <class F>
F user32_function(const char* name) noexcept
{
    HMODULE user32 = ::GetModuleHandleW(L"user32");
    return user32 ? reinterpret_cast<F>(reinterpret_cast<void*>(::GetProcAddress(user32, name))) : nullptr;
}

// The dpi of the window, separately for x and y: GetDpiForWindow where the system has
// it, otherwise the Direct2D factory's desktop dpi.
void window_dpi(HWND window, float& x, float& y) noexcept
{
    static const auto get_dpi_for_window = user32_function<UINT(WINAPI*)(HWND)>("GetDpiForWindow");
    if (get_dpi_for_window && window)
        if (const UINT dpi = get_dpi_for_window(window)) {
            x = y = static_cast<float>(dpi);
            return;
        }
    x = y = 96.f;
    try {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        d2d_factory()->GetDesktopDpi(&x, &y);
#pragma GCC diagnostic pop
    } catch (...) {
        log_caught_exception(L"list view: no Direct2D factory to ask for the DPI");
    }
    if (x <= 0 || y <= 0)
        x = y = 96.f;
}

}  // namespace

float total_width(const list_state& s) noexcept
{
    float width = 0;
    for (const column& c : s.columns)
        width += c.width;
    return width;
}

int client_width(const list_state& s) noexcept
{
    RECT client{};
    ::GetClientRect(s.window, &client);
    return client.right;
}

IDWriteTextFormat* text_format(list_state& s, const cell_style* style, IDWriteInlineObject** ellipsis)
{
    const cell_style plain{};
    const cell_style& st = style ? *style : plain;
    const auto key = std::make_tuple(int(st.weight), int(st.style), int(st.alignment));
    auto found = s.formats.find(key);
    if (found == s.formats.end()) {
        com_ptr<IDWriteTextFormat> format;
        throw_if_failed(dwrite_factory()->CreateTextFormat(s.font_face.c_str(), nullptr, st.weight, st.style,
                                                          DWRITE_FONT_STRETCH_NORMAL, s.font_size, L"",
                                                          format.put()));
        throw_if_failed(format->SetWordWrapping(DWRITE_WORD_WRAPPING_NO_WRAP));
        throw_if_failed(format->SetTextAlignment(st.alignment));
        com_ptr<IDWriteInlineObject> sign;
        if (FAILED(dwrite_factory()->CreateEllipsisTrimmingSign(format.get(), sign.put())))
            sign.reset();
        found = s.formats.emplace(key, std::make_pair(std::move(format), std::move(sign))).first;
    }
    if (ellipsis)
        *ellipsis = found->second.second.get();
    return found->second.first.get();
}

void refresh_metrics(list_state& s)
{
    window_dpi(s.window, s.dpi_x, s.dpi_y);
    s.sx = s.dpi_x * 0.010416667f;
    s.sy = s.dpi_y * 0.010416667f;
    NONCLIENTMETRICSW metrics{};
    metrics.cbSize = sizeof metrics;
    float size = 0;
    static const auto for_dpi =
        user32_function<BOOL(WINAPI*)(UINT, UINT, void*, UINT, UINT)>("SystemParametersInfoForDpi");
    if (for_dpi && for_dpi(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics, 0, UINT(s.dpi_y)))
        size = std::abs(float(metrics.lfMessageFont.lfHeight)) / s.sy;
    else if (::SystemParametersInfoW(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics, 0))
        size = std::abs(float(metrics.lfMessageFont.lfHeight));  // at the system dpi, close enough
    s.font_size = size >= 6 && size <= 72 ? size : 12.f;
    const std::wstring_view face = metrics.lfMessageFont.lfFaceName;
    s.font_face = face.empty() || face == L"MS Shell Dlg" || face == L"MS Shell Dlg 2" ? L"Tahoma" : std::wstring(face);
    s.formats.clear();

    // Rows are a whole number of pixels tall, so that every row starts on a pixel.
    com_ptr<IDWriteTextLayout> probe;
    throw_if_failed(dwrite_factory()->CreateTextLayout(L"Ag", 2, text_format(s, nullptr), 1000.f, 1000.f, probe.put()));
    DWRITE_TEXT_METRICS text{};
    throw_if_failed(probe->GetMetrics(&text));
    s.icon_dips = std::round(s.font_size * 4.f / 3.f);
    const float content = std::max(text.height, s.icon_dips);
    s.row_px = std::max(1, static_cast<int>(std::ceil((content + 6.f) * s.sy)));
    s.header_px = s.row_px + std::max(1, static_cast<int>(std::lround(2.f * s.sy)));
    s.cache.clear();
    s.header_layouts.clear();
    ++s.generation;
    for (auto& surface : s.surfaces)
        surface.reset();  // made again at the new dpi
    s.icon_cache = nullptr;
}

void refresh_theme(list_state& s)
{
    const theme_settings& theme = s.theme_source();
    s.high_contrast = theme.high_contrast();
    s.dark = s.window && theme.dark_mode_allowed(s.window) && theme.apps_use_dark_theme();
    const auto system = [&](int index) { return colour_of(theme.system_colour(index)); };
    theme_colours& c = s.colours;
    if (s.dark) {
        c.window = {0.125f, 0.125f, 0.125f, 1};
        c.text = {0.94f, 0.94f, 0.94f, 1};
        c.dimmed_text = {0.55f, 0.55f, 0.55f, 1};
        c.selection = {0.0f, 0.37f, 0.72f, 1};
        c.selection_text = {1, 1, 1, 1};
        c.inactive_selection = {0.24f, 0.24f, 0.24f, 1};
        c.inactive_selection_text = c.text;
        c.hot = {1, 1, 1, 0.08f};
        c.header = {0.17f, 0.17f, 0.17f, 1};
        c.header_text = c.text;
        c.header_line = {0.3f, 0.3f, 0.3f, 1};
        c.link = {0.4f, 0.7f, 1.f, 1};
    } else {
        c.window = system(COLOR_WINDOW);
        c.text = system(COLOR_WINDOWTEXT);
        c.dimmed_text = system(COLOR_GRAYTEXT);
        c.selection = system(COLOR_HIGHLIGHT);
        c.selection_text = system(COLOR_HIGHLIGHTTEXT);
        c.inactive_selection = system(COLOR_BTNFACE);
        c.inactive_selection_text = system(COLOR_BTNTEXT);
        c.hot = with_alpha(c.selection, 0.12f);
        c.header = system(COLOR_BTNFACE);
        c.header_text = system(COLOR_BTNTEXT);
        c.header_line = system(COLOR_BTNSHADOW);
        c.link = read_link_colour();
    }
    if (s.high_contrast) {
        // The user's scheme and nothing else. The selection keeps its colours without the
        // focus: the button face is the window colour in some schemes, and a selection in
        // it would vanish. No tint marks the hot row, and links have the scheme's colour.
        c.inactive_selection = c.selection;
        c.inactive_selection_text = c.selection_text;
        c.hot = with_alpha(c.window, 0);
        c.link = system(COLOR_HOTLIGHT);
    }
    c.focus = c.selection;
    // Gray text that cannot be told from the window would hide dimmed rows: fall back to a
    // mix of text and window, or under a high-contrast scheme to its text colour.
    const auto distance = [](D2D1_COLOR_F a, D2D1_COLOR_F b) {
        return std::abs(a.r - b.r) + std::abs(a.g - b.g) + std::abs(a.b - b.b);
    };
    if (distance(c.dimmed_text, c.window) < 0.3f)
        c.dimmed_text = s.high_contrast ? c.text
                                        : D2D1_COLOR_F{(c.text.r + c.window.r) / 2, (c.text.g + c.window.g) / 2,
                                                       (c.text.b + c.window.b) / 2, 1};
    // Likewise a selection without the focus, in a scheme whose button face is its window
    // colour without saying it is a high-contrast one (Wine never says so). The light grey
    // of the usual schemes is still told apart.
    if (distance(c.inactive_selection, c.window) < 0.05f) {
        c.inactive_selection = c.selection;
        c.inactive_selection_text = c.selection_text;
    }
    if (s.window && s.dark != s.dark_parts) {
        // Set first: a new window theme sends WM_THEMECHANGED, which comes back here.
        s.dark_parts = s.dark;
        theme.theme_window(s.window, s.dark);
        if (s.tooltip)
            theme.theme_window(s.tooltip, s.dark);
    }
    s.cache.clear();  // link colours live in the layouts
    s.header_layouts.clear();
    ++s.generation;
}

namespace {

void build_cell_layout(list_state& s, cached_cell& cell, float width)
{
    markup_result parsed;
    try {
        parse_markup(cell.text, parsed);
    } catch (const std::out_of_range&) {
        // An opener cut off at the very end: show what comes before it.
        parse_markup(std::wstring_view(cell.text).substr(0, cell.text.size() - 3), parsed);
    }
    cell.plain.assign(parsed.text());
    IDWriteInlineObject* ellipsis = nullptr;
    layout_options options;
    options.factory = dwrite_factory();
    options.format = text_format(s, cell.style.get(), &ellipsis);
    options.max_width = 100000.f;
    options.max_height = float(s.row_px) / s.sy;
    options.default_colour = s.colours.text;
    options.link_colour = s.colours.link;
    options.no_underline = false;
    options.icons = svg::program_icons();
    options.vector_icon_name = s.icon_names;
    options.icon_size = s.icon_dips;
    cell.layout = build_layout(parsed, options);
    DWRITE_TEXT_METRICS metrics{};
    throw_if_failed(cell.layout->layout->GetMetrics(&metrics));
    cell.natural_width = metrics.widthIncludingTrailingWhitespace;
    const float available = std::max(1.f, width);
    throw_if_failed(cell.layout->layout->SetMaxWidth(available));
    cell.cut_off = metrics.width > available + 0.5f;
    if (cell.cut_off) {
        const DWRITE_TRIMMING trimming{DWRITE_TRIMMING_GRANULARITY_CHARACTER, 0, 0};
        cell.layout->layout->SetTrimming(&trimming, ellipsis);  // drawing clips anyway
    }
    cell.layout_width = width;
}

float content_width(const list_state& s, std::size_t column) noexcept
{
    return std::max(1.f, s.columns[column].width - 2 * cell_padding);
}

}  // namespace

cached_row& cached(list_state& s, row_index row)
{
    auto& slot = s.cache[row];
    if (!slot)
        slot = std::make_unique<cached_row>();
    cached_row& entry = *slot;
    const std::size_t count = s.columns.size();
    if (entry.generation != s.generation || !entry.filled || entry.cells.size() != count) {
        std::optional<D2D1_COLOR_F> row_colour;
        s.fill_cells(row, 0, count, row_colour);
        entry.cells.resize(count);
        for (std::size_t c = 0; c < count; ++c) {
            cached_cell& target = entry.cells[c];
            cell& source = s.scratch[c];
            if (target.text != source.text || target.style != source.style) {
                target.text.swap(source.text);
                target.style = std::move(source.style);
                target.layout.reset();
            }
            target.text_colour = source.text_colour;
            target.flags = source.flags;
        }
        entry.row_colour = row_colour;
        entry.generation = s.generation;
        entry.filled = true;
    }
    for (std::size_t c = 0; c < count; ++c) {
        cached_cell& target = entry.cells[c];
        const float width = content_width(s, c);
        if (!target.layout || target.layout_width != width)
            build_cell_layout(s, target, width);
    }
    return entry;
}

namespace {

// Drops the layouts of rows far from the screen, so that the cache stays the size of a
// few screens however far the list scrolls.
void trim_cache(list_state& s)
{
    const row_index visible = s.visible_count();
    if (s.cache.size() <= 2 * visible + 32)
        return;
    const row_index first = s.top > visible ? s.top - visible : 0;
    const row_index last = s.top + 2 * visible;
    for (auto i = s.cache.begin(); i != s.cache.end();)
        if (i->first < first || i->first > last)
            i = s.cache.erase(i);
        else
            ++i;
}

// An axis-aligned clip popped however its scope ends: a push without its pop outlives the
// frame (Wine's EndDraw does not even fail) and clips every later one to a stale area.
// The rectangle is moved by the drawing's translation here and pushed untransformed:
// Wine scales a clip for the DPI before it applies the transform, so above 96 dpi a
// translated clip lands off by part of the translation and cuts the top off a row
// drawn into an update region that starts below the window's top.
class clip_scope {
public:
    clip_scope(ID2D1RenderTarget* target, const D2D1_RECT_F& rect) noexcept : target_(target)
    {
        D2D1_MATRIX_3X2_F transform{};
        target_->GetTransform(&transform);
        const float dx = transform._31, dy = transform._32;
        target_->SetTransform(D2D1::Matrix3x2F::Identity());
        target_->PushAxisAlignedClip({rect.left + dx, rect.top + dy, rect.right + dx, rect.bottom + dy},
                                     D2D1_ANTIALIAS_MODE_ALIASED);
        target_->SetTransform(transform);
    }
    ~clip_scope() { target_->PopAxisAlignedClip(); }
    clip_scope(const clip_scope&) = delete;
    clip_scope& operator=(const clip_scope&) = delete;

private:
    ID2D1RenderTarget* target_;
};

struct brushes {
    com_ptr<ID2D1SolidColorBrush> solid;
    ID2D1SolidColorBrush* with(D2D1_COLOR_F colour)
    {
        solid->SetColor(colour);
        return solid.get();
    }
};

void draw_header(list_state& s, ID2D1RenderTarget* target, brushes& b, float client_width_dips)
{
    const float height = float(s.header_px) / s.sy;
    const float offset = float(s.h_offset) / s.sx;
    target->FillRectangle({0, 0, client_width_dips, height}, b.with(s.colours.header));
    if (s.header_generation != s.generation || s.header_layouts.size() != s.columns.size()) {
        s.header_layouts.clear();
        for (const column& c : s.columns) {
            const markup_result parsed = parse_markup(c.header);
            layout_options options;
            options.factory = dwrite_factory();
            options.format = text_format(s, nullptr);
            options.max_width = 100000.f;
            options.max_height = height;
            options.default_colour = s.colours.header_text;
            options.icons = svg::program_icons();
            options.vector_icon_name = s.icon_names;
            options.icon_size = s.icon_dips;
            s.header_layouts.push_back(build_layout(parsed, options));
        }
        s.header_generation = s.generation;
    }
    const float pixel_x = 1.f / s.sx;
    float x = -offset;
    for (std::size_t c = 0; c < s.columns.size(); ++c) {
        const float width = s.columns[c].width;
        const D2D1_RECT_F rect{x, 0, x + width, height};
        if (s.pressed_tab == c)
            target->FillRectangle(rect, b.with(with_alpha(s.colours.header_text, 0.15f)));
        else if (s.hot_tab == c)
            target->FillRectangle(rect, b.with(with_alpha(s.colours.header_text, 0.07f)));
        {
            const clip_scope clip(target, {x, 0, x + width - pixel_x, height});
            const rich_layout& layout = s.header_layouts[c];
            const float text_height = layout.height();
            const float y = std::round((height - text_height) / 2 * s.sy) / s.sy;
            layout.draw(target, {x + cell_padding, y}, b.with(s.colours.header_text), *s.icon_cache);
        }
        const float line = std::round((x + width) * s.sx) / s.sx - pixel_x / 2;
        target->DrawLine({line, 3.f}, {line, height - 3.f}, b.with(s.colours.header_line), pixel_x);
        x += width;
    }
    const float bottom = height - 0.5f / s.sy;
    target->DrawLine({0, bottom}, {client_width_dips, bottom}, b.with(s.colours.header_line), 1.f / s.sy);
}

void draw_row(list_state& s, ID2D1RenderTarget* target, brushes& b, row_index row, cached_row& entry,
              float client_width_dips, bool has_focus)
{
    const float top = (float(s.header_px) + float(row - s.top) * float(s.row_px)) / s.sy;
    const float height = float(s.row_px) / s.sy;
    const float offset = float(s.h_offset) / s.sx;
    const float right = std::max(client_width_dips, total_width(s) - offset);
    const D2D1_RECT_F rect{0, top, right, top + height};
    const bool selected = s.row_selected(row);

    if (entry.row_colour && !s.high_contrast)
        target->FillRectangle(rect, b.with(*entry.row_colour));
    if (selected)
        target->FillRectangle(rect, b.with(has_focus ? s.colours.selection : s.colours.inactive_selection));
    else if (row == s.hot)
        target->FillRectangle(rect, b.with(s.colours.hot));

    const D2D1_COLOR_F row_text = selected ? (has_focus ? s.colours.selection_text : s.colours.inactive_selection_text)
                                           : s.colours.text;
    float x = -offset;
    for (std::size_t c = 0; c < s.columns.size(); ++c) {
        const float width = s.columns[c].width;
        if (x < client_width_dips && x + width > 0) {
            const cached_cell& cell = entry.cells[c];
            D2D1_COLOR_F colour = row_text;
            if (!(selected && (has_focus || s.high_contrast))) {
                if (cell.text_colour && !s.high_contrast)
                    colour = *cell.text_colour;
                else if (cell.flags & cell_dimmed)
                    colour = s.colours.dimmed_text;
            }
            const clip_scope clip(target, {x, top, x + width, top + height});
            const float text_height = cell.layout->height();
            const float y = top + std::round((height - text_height) / 2 * s.sy) / s.sy;
            cell.layout->draw(target, {x + cell_padding, y}, b.with(colour), *s.icon_cache);
        }
        x += width;
    }
    if (!s.handlers.row_paint.empty()) {
        const float first_width = s.columns.empty() ? 0 : s.columns[0].width;
        const row_paint paint{target, row, rect, {-offset, top, -offset + first_width, top + height}, row_text,
                              selected};
        const clip_scope clip(target, rect);  // marks stay inside their row
        for (const auto& hook : s.handlers.row_paint)
            hook(paint);
    }
    if (row == s.focus && has_focus) {
        // Four one-pixel bars rather than a stroked rectangle, which some Direct2D
        // implementations leave out at this width.
        // Inset by a pixel, so that it stays inside the selection colour of its row.
        const float px = 1.f / s.sx, py = 1.f / s.sy;
        const float left = px, right = client_width_dips - px, up = top + py, bottom = top + height - py;
        ID2D1SolidColorBrush* brush = b.with(selected ? s.colours.selection_text : s.colours.focus);
        target->FillRectangle({left, up, right, up + py}, brush);
        target->FillRectangle({left, bottom - py, right, bottom}, brush);
        target->FillRectangle({left, up, left + px, bottom}, brush);
        target->FillRectangle({right - px, up, right, bottom}, brush);
    }
}

}  // namespace

// Draws the part `update` of the client area onto `dc` (the window's paint DC, or any
// DC for WM_PRINTCLIENT).
void draw_into(list_state& s, HDC dc, const RECT& update)
{
    RECT client{};
    ::GetClientRect(s.window, &client);
    RECT area{};
    if (!::IntersectRect(&area, &update, &client))
        return;
    const UINT area_width = UINT(area.right - area.left), area_height = UINT(area.bottom - area.top);
    const UINT strip_height = UINT(2 * s.row_px);
    list_state::surface& surface = area_height <= strip_height && area_width <= UINT(client.right) ? s.surfaces[1]
                                                                                                  : s.surfaces[0];
    const UINT want_width = std::max<UINT>(area_width, UINT(client.right));
    const UINT want_height = &surface == &s.surfaces[1] ? strip_height : std::max<UINT>(area_height, UINT(client.bottom));
    if (!surface.target || surface.width < want_width || surface.height < want_height) {
        surface.reset();
        static const com_ptr<IWICImagingFactory> wic = create_instance<IWICImagingFactory>(CLSID_WICImagingFactory);
        surface.width = want_width;
        surface.height = want_height;
        throw_if_failed(wic->CreateBitmap(surface.width, surface.height, GUID_WICPixelFormat32bppPBGRA,
                                          WICBitmapCacheOnLoad, surface.bitmap.put()));
        const D2D1_RENDER_TARGET_PROPERTIES properties{D2D1_RENDER_TARGET_TYPE_DEFAULT,
                                                       {DXGI_FORMAT_B8G8R8A8_UNORM, D2D1_ALPHA_MODE_PREMULTIPLIED},
                                                       s.dpi_x, s.dpi_y, D2D1_RENDER_TARGET_USAGE_NONE,
                                                       D2D1_FEATURE_LEVEL_DEFAULT};
        throw_if_failed(
            d2d_factory()->CreateWicBitmapRenderTarget(surface.bitmap.get(), &properties, surface.target.put()));
        surface.icons = std::make_unique<d2d::icon_bitmap_cache>(surface.target.get());
    }
    s.icon_cache = surface.icons.get();

    // The rows the update region touches; their layouts are made before drawing starts.
    row_index first = s.top, last = s.top;
    if (area.bottom > s.header_px && s.rows > s.top) {
        const int from = std::max(0, static_cast<int>(area.top) - s.header_px);
        const int to = static_cast<int>(area.bottom) - s.header_px;
        first = s.top + static_cast<row_index>(from / s.row_px);
        last = std::min(s.rows, s.top + static_cast<row_index>((to + s.row_px - 1) / s.row_px));
    }
    std::vector<cached_row*> entries;
    for (row_index row = first; row < last; ++row)
        entries.push_back(&cached(s, row));

    const bool has_focus = ::GetFocus() == s.window;
    const float width_dips = float(client.right) / s.sx;
    brushes b;
    ID2D1RenderTarget* target = surface.target.get();
    target->BeginDraw();
    HRESULT drawn = S_OK;
    try {
        // Only the update region is drawn and copied: a one-row scroll costs one row. The
        // region's top left corner is the surface's; the drawing is shifted by the
        // region's offset, which every clip below takes into account.
        target->SetTransform(D2D1::Matrix3x2F::Identity());
        const clip_scope region(target, {0, 0, float(area_width) / s.sx, float(area_height) / s.sy});
        target->SetTransform(D2D1::Matrix3x2F::Translation(-float(area.left) / s.sx, -float(area.top) / s.sy));
        target->Clear(s.colours.window);
        throw_if_failed(target->CreateSolidColorBrush(s.colours.text, b.solid.put()));
        for (row_index row = first; row < last; ++row)
            draw_row(s, target, b, row, *entries[row - first], width_dips, has_focus);
        if (area.top < s.header_px)
            draw_header(s, target, b, width_dips);
    } catch (...) {
        drawn = hresult_from_caught_exception();
    }
    const HRESULT ended = target->EndDraw();
    if (ended == static_cast<HRESULT>(D2DERR_RECREATE_TARGET)) {
        surface.reset();
        ::InvalidateRect(s.window, nullptr, FALSE);
        return;
    }
    throw_if_failed(drawn);
    throw_if_failed(ended);
    {
        const WICRect part{0, 0, INT(area_width), INT(area_height)};
        com_ptr<IWICBitmapLock> lock;
        throw_if_failed(surface.bitmap->Lock(&part, WICBitmapLockRead, lock.put()));
        UINT stride = 0, size = 0;
        BYTE* pixels = nullptr;
        throw_if_failed(lock->GetStride(&stride));
        throw_if_failed(lock->GetDataPointer(&size, &pixels));
        BITMAPINFO info{};
        info.bmiHeader.biSize = sizeof info.bmiHeader;
        info.bmiHeader.biWidth = LONG(stride / 4);
        info.bmiHeader.biHeight = -LONG(area_height);  // top row first
        info.bmiHeader.biPlanes = 1;
        info.bmiHeader.biBitCount = 32;
        info.bmiHeader.biCompression = BI_RGB;
        ::SetDIBitsToDevice(dc, area.left, area.top, area_width, area_height, 0, 0, 0, area_height, pixels, &info,
                            DIB_RGB_COLORS);
    }
    trim_cache(s);
    update_tips(s);
}

void paint(list_state& s)
{
    const unique_paint ps = begin_paint(s.window);
    draw_into(s, ps->hdc, ps->rcPaint);
}

}  // namespace tessel::windows::new_controls::listview::impl
