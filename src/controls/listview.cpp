#include "controls/listview.h"

#include "base/failure.h"
#include "controls/dark_theme.h"
#include "controls/factories.h"
#include "controls/listview_state.h"
#include "controls/vector_icons.h"

#include <vssym32.h>
#include <windowsx.h>

#include <algorithm>
#include <cmath>
#include <locale>

namespace tessel::windows::new_controls::listview::impl {
namespace {

using d2d::d2d_factory;
using d2d::dwrite_factory;
using list_state = listview<uniform_height>::state;

constexpr row_index max_find_rows = 10000;
// Scroll bars take int positions: longer lists scroll in steps of several rows.
constexpr row_index max_scroll_units = row_index{1} << 30;

D2D1_COLOR_F colour_of(COLORREF colour) noexcept
{
    return {GetRValue(colour) / 255.f, GetGValue(colour) / 255.f, GetBValue(colour) / 255.f, 1.f};
}

D2D1_COLOR_F with_alpha(D2D1_COLOR_F colour, float alpha) noexcept
{
    colour.a = alpha;
    return colour;
}

bool key_down(int key) noexcept { return (::GetKeyState(key) & 0x8000) != 0; }

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
    }
    if (x <= 0 || y <= 0)
        x = y = 96.f;
}

bool blank(wchar_t c) noexcept { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

void register_class(const std::wstring& name, WNDPROC proc)
{
    static std::vector<std::wstring> registered;
    if (std::find(registered.begin(), registered.end(), name) != registered.end())
        return;
    WNDCLASSEXW wc{};
    wc.cbSize = sizeof wc;
    wc.style = CS_DBLCLKS;
    wc.lpfnWndProc = proc;
    wc.hInstance = ::GetModuleHandleW(nullptr);
    wc.hCursor = ::LoadCursorW(nullptr, IDC_ARROW);
    wc.lpszClassName = name.c_str();
    if (!::RegisterClassExW(&wc) && ::GetLastError() != ERROR_CLASS_ALREADY_EXISTS)
        throw_last_error();
    registered.push_back(name);
}

// What a selection looked like, to tell whether an operation changed it.
struct selection_snapshot {
    row_index count, first, last_end;
    friend bool operator==(const selection_snapshot&, const selection_snapshot&) = default;
};

selection_snapshot snapshot(const iselection& s) noexcept
{
    return {s.count(), s.first_selected(), s.selected_rows().last_end()};
}

}  // namespace

// ---------------------------------------------------------------------------------------
// The window

class window_procedure {
public:
    static LRESULT CALLBACK proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept;
};

namespace {

LRESULT handle(list_state& s, UINT message, WPARAM wparam, LPARAM lparam);
void refresh_metrics(list_state& s);
void refresh_theme(list_state& s);
void update_scroll_bars(list_state& s);

}  // namespace

LRESULT CALLBACK window_procedure::proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept
{
    if (message == WM_NCCREATE) {
        auto* created = static_cast<list_state*>(reinterpret_cast<const CREATESTRUCTW*>(lparam)->lpCreateParams);
        created->window = window;
        ::SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(created));
    }
    auto* s = reinterpret_cast<list_state*>(::GetWindowLongPtrW(window, GWLP_USERDATA));
    if (!s)
        return ::DefWindowProcW(window, message, wparam, lparam);
    if (message == WM_NCDESTROY) {
        // Cleared first, so that nothing arriving late reaches the state; the C++ object
        // outlives its window and learns of it through window() answering null.
        ::SetWindowLongPtrW(window, GWLP_USERDATA, 0);
        if (s->accessible) {
            detach_accessible(s->accessible.get());
            s->accessible.reset();
        }
        s->window = nullptr;
        s->tooltip = nullptr;  // a child of ours: destroyed with us
        for (auto& surface : s->surfaces)
            surface.reset();
        return ::DefWindowProcW(window, message, wparam, lparam);
    }
    try {
        return handle(*s, message, wparam, lparam);
    } catch (...) {
        debug_report(L"list view: a message failed: " + system_message(hresult_from_caught_exception()));
        return ::DefWindowProcW(window, message, wparam, lparam);
    }
}

// ---------------------------------------------------------------------------------------
// State helpers

bool list_state::row_selected(row_index row) const noexcept
{
    try {
        return selection->is_selected(row);
    } catch (...) {
        return false;
    }
}

row_index list_state::visible_count() const noexcept
{
    RECT client{};
    ::GetClientRect(window, &client);
    const int height = client.bottom - header_px;
    if (height <= 0 || row_px <= 0)
        return 0;
    return static_cast<row_index>((height + row_px - 1) / row_px);
}

RECT list_state::row_rect(row_index row) const noexcept
{
    RECT client{};
    ::GetClientRect(window, &client);
    const long long offset = row >= top ? static_cast<long long>(row - top) : -static_cast<long long>(top - row);
    const long long y = header_px + offset * row_px;
    const long long clamped = std::clamp<long long>(y, -0x3fffffff, 0x3fffffff);
    return {0, static_cast<LONG>(clamped), client.right, static_cast<LONG>(clamped + row_px)};
}

row_outline list_state::outline(row_index row) const
{
    return handlers.outline_of_row ? handlers.outline_of_row(row) : row_outline{};
}

void list_state::fill_plain(row_index row, std::size_t first_column, std::size_t count)
{
    std::optional<D2D1_COLOR_F> row_colour;
    fill_cells(row, first_column, count, row_colour);
}

void list_state::fill_cells(row_index row, std::size_t first_column, std::size_t count,
                            std::optional<D2D1_COLOR_F>& row_colour)
{
    scratch.resize(count);
    for (cell& c : scratch) {
        c.text.clear();
        c.style.reset();
        c.text_colour.reset();
        c.flags = 0;
    }
    row_colour.reset();
    bool filled = false;
    try {
        for (const cell_text_provider& provider : handlers.cell_text)
            filled = provider(row, first_column, std::span<cell>(scratch.data(), count), row_colour);
    } catch (...) {
        // One row that cannot say what it shows must not stop the others from showing.
        debug_report(L"list view: the cells of row " + std::to_wstring(row) + L" failed: " +
                     system_message(hresult_from_caught_exception()));
        filled = false;
    }
    if (!filled) {
        for (cell& c : scratch)
            c = cell{};
        row_colour.reset();
    }
}

std::wstring list_state::accessible_name(row_index row)
{
    if (row >= rows)
        return {};
    fill_plain(row, 0, columns.empty() ? 1 : columns.size());
    std::wstring name;
    std::wstring plain;
    for (std::size_t column = 0; column < scratch.size(); ++column) {
        const cell& c = scratch[column];
        try {
            strip_markup(c.text, plain);
        } catch (const std::out_of_range&) {
            plain = c.text;
        }
        auto first = plain.find_first_not_of(L" \t\r\n");
        if (first == std::wstring::npos && handlers.picture_cell_text) {
            plain = handlers.picture_cell_text(row, column);
            first = plain.find_first_not_of(L" \t\r\n");
        }
        if (first == std::wstring::npos)
            continue;
        const auto last = plain.find_last_not_of(L" \t\r\n");
        if (!name.empty())
            name += L", ";
        name.append(plain, first, last - first + 1);
        if (column == 0 && handlers.row_state_text)
            if (const std::wstring state = handlers.row_state_text(row); !state.empty())
                name += L", " + state;
    }
    return name;
}

std::wstring list_state::accessible_description(row_index row)
{
    if (row >= rows)
        return {};
    fill_plain(row, 0, columns.empty() ? 1 : columns.size());
    std::wstring description;
    markup_result parsed;
    for (const cell& c : scratch) {
        try {
            parse_markup(c.text, parsed);
        } catch (const std::out_of_range&) {
            continue;
        }
        for (const markup_element& e : parsed.elements) {
            if ((e.tag != L'h' && e.tag != L'H') || e.argument.empty())
                continue;
            if (!description.empty())
                description += L'\n';
            description += e.argument;
        }
    }
    return description;
}

void list_state::notify_row(UINT code, row_index row, bool by_keyboard)
{
    if (!window)
        return;
    nm_listview_row info{};
    info.header.hwndFrom = window;
    info.header.idFrom = static_cast<UINT_PTR>(control_id);
    info.header.code = code;
    info.row = row;
    info.item = row != no_row && row < rows && handlers.item_of_row ? handlers.item_of_row(row) : nullptr;
    info.by_keyboard = by_keyboard;
    ::SendMessageW(::GetParent(window), WM_NOTIFY, info.header.idFrom, reinterpret_cast<LPARAM>(&info));
}

void list_state::selection_changed()
{
    if (!window)
        return;
    if (updates > 0) {
        selection_changed_pending = true;
        return;
    }
    selection_changed_pending = false;
    const row_index first = selection->first_selected();
    if (first != no_row)
        ::NotifyWinEvent(selection->count() == 1 ? EVENT_OBJECT_SELECTION : EVENT_OBJECT_SELECTIONWITHIN, window,
                         OBJID_CLIENT, selection->count() == 1 && first < 0x7fffffff ? LONG(first + 1) : CHILDID_SELF);
    else
        ::NotifyWinEvent(EVENT_OBJECT_SELECTIONWITHIN, window, OBJID_CLIENT, CHILDID_SELF);
    notify_row(lvn_selection_changed, first, false);
}

void list_state::set_focus(row_index row, bool by_keyboard)
{
    if (row != no_row && row >= rows)
        row = rows ? rows - 1 : no_row;
    if (row == focus)
        return;
    invalidate_row(focus);
    focus = row;
    invalidate_row(focus);
    if (window && ::GetFocus() == window && focus != no_row && focus < 0x7fffffff)
        ::NotifyWinEvent(EVENT_OBJECT_FOCUS, window, OBJID_CLIENT, LONG(focus + 1));
    notify_row(lvn_focus_changed, focus, by_keyboard);
}

void list_state::activate(row_index row, bool by_keyboard)
{
    if (row != no_row && row < rows)
        notify_row(lvn_row_activated, row, by_keyboard);
}

void list_state::invalidate_row(row_index row) noexcept
{
    if (!window || row == no_row || row < top)
        return;
    if (updates > 0) {
        repaint_pending = true;
        return;
    }
    if (row - top > visible_count())
        return;
    const RECT r = row_rect(row);
    ::InvalidateRect(window, &r, FALSE);
}

void list_state::repaint() noexcept
{
    if (!window)
        return;
    if (updates > 0) {
        repaint_pending = true;
        return;
    }
    ::InvalidateRect(window, nullptr, FALSE);
}

namespace {

// ---------------------------------------------------------------------------------------
// Metrics, fonts, colours

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

IDWriteTextFormat* text_format(list_state& s, const cell_style* style, IDWriteInlineObject** ellipsis = nullptr)
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
    s.dark = s.window && default_theme_settings().dark_mode_allowed(s.window) &&
             default_theme_settings().apps_use_dark_theme();
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
        c.window = colour_of(::GetSysColor(COLOR_WINDOW));
        c.text = colour_of(::GetSysColor(COLOR_WINDOWTEXT));
        c.dimmed_text = colour_of(::GetSysColor(COLOR_GRAYTEXT));
        c.selection = colour_of(::GetSysColor(COLOR_HIGHLIGHT));
        c.selection_text = colour_of(::GetSysColor(COLOR_HIGHLIGHTTEXT));
        c.inactive_selection = colour_of(::GetSysColor(COLOR_BTNFACE));
        c.inactive_selection_text = colour_of(::GetSysColor(COLOR_BTNTEXT));
        c.hot = with_alpha(c.selection, 0.12f);
        c.header = colour_of(::GetSysColor(COLOR_BTNFACE));
        c.header_text = colour_of(::GetSysColor(COLOR_BTNTEXT));
        c.header_line = colour_of(::GetSysColor(COLOR_BTNSHADOW));
        c.link = read_link_colour();
    }
    c.focus = c.selection;
    // Gray text that cannot be told from the window (some high-contrast schemes) would
    // hide dimmed rows: fall back to a mix of text and window.
    const auto distance = [](D2D1_COLOR_F a, D2D1_COLOR_F b) {
        return std::abs(a.r - b.r) + std::abs(a.g - b.g) + std::abs(a.b - b.b);
    };
    if (distance(c.dimmed_text, c.window) < 0.3f)
        c.dimmed_text = {(c.text.r + c.window.r) / 2, (c.text.g + c.window.g) / 2, (c.text.b + c.window.b) / 2, 1};
    if (s.window)
        apply_dark_theme(s.window);
    s.cache.clear();  // link colours live in the layouts
    s.header_layouts.clear();
    ++s.generation;
}

// ---------------------------------------------------------------------------------------
// Cells

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

// ---------------------------------------------------------------------------------------
// Scrolling

row_index max_top(const list_state& s) noexcept
{
    RECT client{};
    ::GetClientRect(s.window, &client);
    const int height = client.bottom - s.header_px;
    const row_index whole = height > 0 ? static_cast<row_index>(height / s.row_px) : 0;
    return s.rows > whole ? s.rows - std::max<row_index>(whole, 1) : 0;
}

row_index scroll_unit(const list_state& s) noexcept
{
    return s.rows > max_scroll_units ? (s.rows + max_scroll_units - 1) / max_scroll_units : 1;
}

void update_scroll_bars(list_state& s)
{
    if (!s.window)
        return;
    if (s.updates > 0) {
        s.layout_pending = true;  // many rows change: the bars are set once at the end
        return;
    }
    RECT client{};
    ::GetClientRect(s.window, &client);
    const row_index unit = scroll_unit(s);
    const int height = client.bottom - s.header_px;
    const row_index page = height > 0 ? static_cast<row_index>(height / s.row_px) : 0;
    SCROLLINFO v{sizeof v, SIF_RANGE | SIF_PAGE | SIF_POS | SIF_DISABLENOSCROLL, 0,
                 s.rows ? int((s.rows - 1) / unit) : 0, UINT(std::max<row_index>(page / unit, 1)), int(s.top / unit), 0};
    if (s.rows <= page)
        v.nMax = 0, v.nPage = 1;
    ::SetScrollInfo(s.window, SB_VERT, &v, TRUE);
    if (s.rows <= page)
        ::ShowScrollBar(s.window, SB_VERT, FALSE);

    const int content = static_cast<int>(std::ceil(total_width(s) * s.sx));
    SCROLLINFO h{sizeof h, SIF_RANGE | SIF_PAGE | SIF_POS, 0, std::max(0, content - 1), UINT(std::max(1L, client.right)),
                 s.h_offset, 0};
    ::SetScrollInfo(s.window, SB_HORZ, &h, TRUE);
}

void scroll_to_top(list_state& s, row_index top)
{
    top = std::min(top, max_top(s));
    if (top == s.top)
        return;
    const row_index old = s.top;
    s.top = top;
    const row_index visible = s.visible_count();
    const row_index distance = top > old ? top - old : old - top;
    if (s.updates == 0 && distance < visible) {
        RECT client{};
        ::GetClientRect(s.window, &client);
        RECT area{0, s.header_px, client.right, client.bottom};
        const int dy = static_cast<int>(distance) * s.row_px * (top > old ? -1 : 1);
        ::ScrollWindowEx(s.window, 0, dy, &area, &area, nullptr, nullptr, SW_INVALIDATE);
    } else {
        s.repaint();
    }
    update_scroll_bars(s);
    if (s.hot != no_row) {
        s.hot = no_row;  // the row under the pointer is found again at its next move
    }
}

void scroll_horizontally(list_state& s, int offset)
{
    RECT client{};
    ::GetClientRect(s.window, &client);
    const int content = static_cast<int>(std::ceil(total_width(s) * s.sx));
    offset = std::clamp(offset, 0, std::max(0, content - static_cast<int>(client.right)));
    if (offset == s.h_offset)
        return;
    const int dx = s.h_offset - offset;
    s.h_offset = offset;
    if (s.updates == 0)
        ::ScrollWindowEx(s.window, dx, 0, nullptr, nullptr, nullptr, nullptr, SW_INVALIDATE);
    update_scroll_bars(s);
}

}  // namespace

void list_state::ensure_visible(row_index row)
{
    if (row == no_row || row >= rows || !window)
        return;
    RECT client{};
    ::GetClientRect(window, &client);
    const int height = client.bottom - header_px;
    const row_index whole = height > 0 ? std::max<row_index>(static_cast<row_index>(height / row_px), 1) : 1;
    if (row < top)
        scroll_to_top(*this, row);
    else if (row >= top + whole)
        scroll_to_top(*this, row - whole + 1);
}

namespace {

// ---------------------------------------------------------------------------------------
// Painting

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
        target->PushAxisAlignedClip({x, 0, x + width - pixel_x, height}, D2D1_ANTIALIAS_MODE_ALIASED);
        const rich_layout& layout = s.header_layouts[c];
        const float text_height = layout.height();
        const float y = std::round((height - text_height) / 2 * s.sy) / s.sy;
        layout.draw(target, {x + cell_padding, y}, b.with(s.colours.header_text), *s.icon_cache);
        target->PopAxisAlignedClip();
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

    if (entry.row_colour)
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
            if (!(selected && has_focus)) {
                if (cell.text_colour)
                    colour = *cell.text_colour;
                else if (cell.flags & cell_dimmed)
                    colour = s.colours.dimmed_text;
            }
            target->PushAxisAlignedClip({x, top, x + width, top + height}, D2D1_ANTIALIAS_MODE_ALIASED);
            const float text_height = cell.layout->height();
            const float y = top + std::round((height - text_height) / 2 * s.sy) / s.sy;
            cell.layout->draw(target, {x + cell_padding, y}, b.with(colour), *s.icon_cache);
            target->PopAxisAlignedClip();
        }
        x += width;
    }
    if (!s.handlers.row_paint.empty()) {
        const float first_width = s.columns.empty() ? 0 : s.columns[0].width;
        const row_paint paint{target, row, rect, {-offset, top, -offset + first_width, top + height}, row_text,
                              selected};
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

std::vector<tip> collect_tips(list_state& s)
{
    std::vector<tip> tips;
    RECT client{};
    ::GetClientRect(s.window, &client);
    const row_index visible = s.visible_count();
    for (row_index row = s.top; row < s.rows && row < s.top + visible; ++row) {
        const auto found = s.cache.find(row);
        if (found == s.cache.end() || !found->second->filled || found->second->generation != s.generation)
            continue;
        const RECT row_box = s.row_rect(row);
        float x = -float(s.h_offset) / s.sx;
        for (std::size_t c = 0; c < s.columns.size() && c < found->second->cells.size(); ++c) {
            const cached_cell& cell = found->second->cells[c];
            const float width = s.columns[c].width;
            RECT box{static_cast<LONG>(std::floor(x * s.sx)), row_box.top, static_cast<LONG>(std::ceil((x + width) * s.sx)),
                     row_box.bottom};
            box.left = std::max(box.left, 0L);
            box.right = std::min(box.right, client.right);
            box.bottom = std::min(box.bottom, client.bottom);
            if (box.left < box.right && box.top < box.bottom && cell.layout) {
                if (cell.cut_off) {
                    const auto first = cell.plain.find_first_not_of(L" \t\r\n");
                    if (first != std::wstring::npos)
                        tips.push_back({box, cell.plain.substr(first)});
                }
                const float text_height = cell.layout->height();
                const float y = float(row_box.top) / s.sy + std::round((float(s.row_px) / s.sy - text_height) / 2 * s.sy) / s.sy;
                for (const link_range& link : cell.layout->links) {
                    if (link.argument.empty())
                        continue;
                    for (const D2D1_RECT_F& r : cell.layout->range_rects(link.range)) {
                        RECT at{static_cast<LONG>(std::floor((r.left + x + cell_padding) * s.sx)),
                                static_cast<LONG>(std::floor((r.top + y) * s.sy)),
                                static_cast<LONG>(std::ceil((r.right + x + cell_padding) * s.sx)),
                                static_cast<LONG>(std::ceil((r.bottom + y) * s.sy))};
                        tips.push_back({at, link.argument});
                    }
                }
            }
            x += width;
        }
    }
    return tips;
}

void update_tips(list_state& s)
{
    std::vector<tip> tips = collect_tips(s);
    if (tips == s.tips)
        return;
    s.tips = std::move(tips);
    if (!s.tooltip) {
        if (s.tips.empty())
            return;
        s.tooltip = ::CreateWindowExW(WS_EX_TOPMOST, TOOLTIPS_CLASSW, nullptr, WS_POPUP | TTS_NOPREFIX | TTS_ALWAYSTIP,
                                      CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, s.window, nullptr,
                                      ::GetModuleHandleW(nullptr), nullptr);
        if (!s.tooltip)
            return;  // the list works without its tips
        ::SetWindowPos(s.tooltip, HWND_TOPMOST, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE);
        if (s.dark)
            apply_dark_theme(s.tooltip);
    }
    TTTOOLINFOW tool{};
    tool.cbSize = sizeof tool;
    tool.hwnd = s.window;
    for (auto count = ::SendMessageW(s.tooltip, TTM_GETTOOLCOUNT, 0, 0); count > 0; --count) {
        tool.uId = static_cast<UINT_PTR>(count);
        ::SendMessageW(s.tooltip, TTM_DELTOOLW, 0, reinterpret_cast<LPARAM>(&tool));
    }
    bool multi_line = false;
    UINT_PTR id = 1;
    for (const tip& t : s.tips) {
        TTTOOLINFOW add{};
        add.cbSize = sizeof add;
        add.uFlags = TTF_SUBCLASS;
        add.hwnd = s.window;
        add.uId = id++;
        add.rect = t.rect;
        add.lpszText = const_cast<wchar_t*>(t.text.c_str());
        ::SendMessageW(s.tooltip, TTM_ADDTOOLW, 0, reinterpret_cast<LPARAM>(&add));
        multi_line = multi_line || t.text.find(L'\n') != std::wstring::npos;
    }
    if (multi_line)
        ::SendMessageW(s.tooltip, TTM_SETMAXTIPWIDTH, 0, static_cast<LPARAM>(300.f * s.sx));
}

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
    bool clipped = false;
    try {
        // Only the update region is drawn and copied: a one-row scroll costs one row. The
        // region's top left corner is the surface's; the clip is pushed before the shift,
        // so that it is not transformed (Wine loses a transformed clip at 144 dpi and more).
        target->SetTransform(D2D1::Matrix3x2F::Identity());
        target->PushAxisAlignedClip({0, 0, float(area_width) / s.sx, float(area_height) / s.sy},
                                    D2D1_ANTIALIAS_MODE_ALIASED);
        clipped = true;
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
    if (clipped)
        target->PopAxisAlignedClip();
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
    PAINTSTRUCT ps;
    ::BeginPaint(s.window, &ps);
    struct end_paint {
        HWND window;
        PAINTSTRUCT* ps;
        ~end_paint() { ::EndPaint(window, ps); }
    } ender{s.window, &ps};
    draw_into(s, ps.hdc, ps.rcPaint);
}

// ---------------------------------------------------------------------------------------
// Selection actions

multiple_selection* as_multiple(list_state& s) noexcept
{
    return s.mode == selection_mode::multiple ? static_cast<multiple_selection*>(s.selection.get()) : nullptr;
}

// A plain click or arrow key: exactly this row.
void select_only(list_state& s, row_index row)
{
    const selection_snapshot before = snapshot(*s.selection);
    if (s.mode == selection_mode::multiple) {
        if (s.selection->count() == 1 && s.selection->is_selected(row)) {
            as_multiple(s)->set_anchor(row);
            return;
        }
        s.selection->clear();
    }
    if (!s.selection->is_selected(row))
        s.selection->click(row);
    if (snapshot(*s.selection) != before) {
        s.repaint();
        s.selection_changed();
    }
}

void extend(list_state& s, row_index row)
{
    s.selection->extend_to(row);
    s.repaint();
    s.selection_changed();
}

void toggle(list_state& s, row_index row)
{
    if (s.mode == selection_mode::single && s.selection->is_selected(row))
        return;
    s.selection->click(row);
    s.invalidate_row(row);
    s.selection_changed();
}

// Moves the focus as a key or click does: plain selects only the row, Shift extends,
// Ctrl moves the focus alone (in a multiple selection).
void move_to(list_state& s, row_index row, bool shift, bool control, bool by_keyboard)
{
    if (row == no_row || row >= s.rows)
        return;
    if (shift)
        extend(s, row);
    else if (!(control && s.mode == selection_mode::multiple))
        select_only(s, row);
    s.set_focus(row, by_keyboard);
    s.ensure_visible(row);
}

// Rows inserted (count > 0) or removed (count < 0) at `at`: moves selected runs.
void shift_selection(list_state& s, row_index at, row_index removed, row_index inserted)
{
    const range_set& rows = s.selection->selected_rows();
    if (rows.empty() || rows.last_end() <= at)
        return;
    std::vector<row_run> runs;
    for (row_run run = rows.run_from(0); run.first != none; run = rows.run_from(run.end)) {
        runs.push_back(run);
        if (run.end == none)
            break;
    }
    row_index anchor = none;
    if (multiple_selection* m = as_multiple(s))
        anchor = m->anchor();
    const auto moved = [&](row_index row) -> row_index {
        if (row == none || row < at)
            return row;
        if (row < at + removed)
            return none;
        return row - removed + inserted;
    };
    s.selection->clear();
    for (const row_run& run : runs) {
        row_index first = run.first, end = run.end;
        if (end <= at) {
        } else if (first >= at + removed) {
            first = first - removed + inserted;
            end = end - removed + inserted;
        } else {
            // The run touches the change: keep its parts outside the removed rows.
            if (first < at) {
                s.selection->set_range(first, at, range_mode::select);
            }
            if (end > at + removed)
                s.selection->set_range(at + inserted, end - removed + inserted, range_mode::select);
            continue;
        }
        s.selection->set_range(first, end, range_mode::select);
    }
    if (multiple_selection* m = as_multiple(s))
        m->set_anchor(moved(anchor));
}

// ---------------------------------------------------------------------------------------
// Type-to-find

// Case folding through the current locale's classification, as the search compares.
const std::ctype<wchar_t>& classification() { return std::use_facet<std::ctype<wchar_t>>(std::locale()); }

// The locale's lower case of the ASCII letters, looked up once per search rather than
// through a virtual call per letter.
struct case_folding {
    const std::ctype<wchar_t>& ctype;
    std::array<wchar_t, 128> ascii{};
    explicit case_folding(const std::ctype<wchar_t>& c) : ctype(c)
    {
        for (wchar_t ch = 0; ch < 128; ++ch)
            ascii[std::size_t(ch)] = ctype.tolower(ch);
    }
    wchar_t operator()(wchar_t ch) const { return ch < 128 ? ascii[std::size_t(ch)] : ctype.tolower(ch); }
};

bool starts_with_folded(std::wstring_view text, std::wstring_view folded_needle, const case_folding& fold)
{
    std::size_t at = 0;
    while (at < text.size() && blank(text[at]))
        ++at;
    if (text.size() - at < folded_needle.size())
        return false;
    for (std::size_t i = 0; i < folded_needle.size(); ++i)
        if (fold(text[at + i]) != folded_needle[i])
            return false;
    return true;
}

// The text of column 0 of a row as the providers give it; null when they give none.
const std::wstring* find_markup(list_state& s, row_index row)
{
    s.scratch.resize(1);
    cell& c = s.scratch[0];
    c.text.clear();
    std::optional<D2D1_COLOR_F> row_colour;
    bool filled = false;
    for (const cell_text_provider& provider : s.handlers.cell_text)
        filled = provider(row, 0, std::span<cell>(&c, 1), row_colour);
    return filled ? &c.text : nullptr;
}

// The plain text of column 0 of a row; false when the row has none.
bool find_text(list_state& s, row_index row, std::wstring_view& plain)
{
    const std::wstring* markup = find_markup(s, row);
    if (!markup)
        return false;
    if (markup->find(L'[') == std::wstring::npos) {
        plain = *markup;
        return true;
    }
    try {
        strip_markup(*markup, s.find_plain);
    } catch (const std::out_of_range&) {
        return false;
    }
    plain = s.find_plain;
    return true;
}

void read_find_prefix(list_state& s, row_index row, list_state::find_prefix& prefix)
{
    prefix.known = true;
    prefix.length = 0;
    prefix.complete = true;
    std::wstring_view plain;
    if (!find_text(s, row, plain))
        return;
    std::size_t at = 0;
    while (at < plain.size() && blank(plain[at]))
        ++at;
    const std::size_t length = std::min(plain.size() - at, prefix.letters.size());
    std::copy_n(plain.data() + at, length, prefix.letters.data());
    prefix.length = static_cast<std::uint8_t>(length);
    prefix.complete = plain.size() - at == length;
}

// Hit testing

struct hit {
    enum kind_t { nothing, header, separator, cell } kind = nothing;
    std::size_t column = 0;
    row_index row = no_row;
    D2D1_POINT_2F in_cell{};  // DIPs from the cell's top left
};

hit hit_test(const list_state& s, POINT p)
{
    hit result;
    const float x = (float(p.x) + float(s.h_offset)) / s.sx;
    const float grip = 4.f;  // DIPs either side of a separator
    if (p.y < s.header_px && p.y >= 0) {
        float right = 0;
        for (std::size_t c = 0; c < s.columns.size(); ++c) {
            right += s.columns[c].width;
            if (std::abs(x - right) <= grip) {
                // Between two separators that close together, the later column wins, so
                // that a column dragged to its minimum can still be widened.
                result = {hit::separator, c};
                if (c + 1 < s.columns.size() && s.columns[c + 1].width < 2 * grip)
                    continue;
                return result;
            }
        }
        if (result.kind == hit::separator)
            return result;
        float left = 0;
        for (std::size_t c = 0; c < s.columns.size(); ++c) {
            if (x >= left && x < left + s.columns[c].width)
                return {hit::header, c};
            left += s.columns[c].width;
        }
        return result;
    }
    if (p.y < s.header_px)
        return result;
    const row_index row = s.top + static_cast<row_index>((p.y - s.header_px) / s.row_px);
    if (row >= s.rows)
        return result;
    float left = 0;
    for (std::size_t c = 0; c < s.columns.size(); ++c) {
        if (x >= left && x < left + s.columns[c].width) {
            const float row_top = (float(s.header_px) + float(row - s.top) * float(s.row_px)) / s.sy;
            return {hit::cell, c, row, {x - left, float(p.y) / s.sy - row_top}};
        }
        left += s.columns[c].width;
    }
    return {hit::cell, s.columns.size(), row, {}};  // right of the last column: still the row
}

// The "h"/"H" range under a point of a cell, if any.
std::optional<std::size_t> link_at(list_state& s, const hit& h)
{
    if (h.kind != hit::cell || h.column >= s.columns.size())
        return std::nullopt;
    const cached_row& entry = cached(s, h.row);
    const cached_cell& cell = entry.cells[h.column];
    if (!cell.layout || cell.layout->links.empty())
        return std::nullopt;
    const float height = float(s.row_px) / s.sy;
    const float y = std::round((height - cell.layout->height()) / 2 * s.sy) / s.sy;
    return cell.layout->link_at({h.in_cell.x - cell_padding, h.in_cell.y - y});
}

void set_hot(list_state& s, row_index row)
{
    if (row == s.hot)
        return;
    s.invalidate_row(s.hot);
    s.hot = row;
    s.invalidate_row(s.hot);
}

void set_hot_tab(list_state& s, std::optional<std::size_t> tab)
{
    if (tab == s.hot_tab)
        return;
    s.hot_tab = tab;
    RECT header{0, 0, client_width(s), s.header_px};
    ::InvalidateRect(s.window, &header, FALSE);
}

void send_column_notification(list_state& s, UINT code, std::size_t column)
{
    nm_listview_column info{};
    info.header.hwndFrom = s.window;
    info.header.idFrom = static_cast<UINT_PTR>(s.control_id);
    info.header.code = code;
    info.column = column;
    ::SendMessageW(::GetParent(s.window), WM_NOTIFY, info.header.idFrom, reinterpret_cast<LPARAM>(&info));
}

void resize_column(list_state& s, std::size_t column, float width)
{
    width = std::max(width, s.columns[column].min_width);
    if (width == s.columns[column].width)
        return;
    s.columns[column].width = width;
    s.owner->create_ui();
    // Cells keep their texts; only the layouts of the column are remade, at the next paint.
    s.header_layouts.clear();
    scroll_horizontally(s, s.h_offset);
    update_scroll_bars(s);
    s.repaint();
}

// The widest visible cell of a column, for a double click on its separator.
void fit_column(list_state& s, std::size_t column)
{
    float widest = s.header_layouts.size() > column ? s.columns[column].min_width : 0;
    const row_index visible = s.visible_count();
    for (row_index row = s.top; row < s.rows && row < s.top + visible; ++row)
        widest = std::max(widest, cached(s, row).cells[column].natural_width);
    resize_column(s, column, std::ceil(widest + 2 * cell_padding + 2));
    send_column_notification(s, lvn_column_resized, column);
}

bool context_menu(list_state& s, LPARAM lparam)
{
    nm_listview_context_menu info{};
    info.header.hwndFrom = s.window;
    info.header.idFrom = static_cast<UINT_PTR>(s.control_id);
    info.header.code = lvn_context_menu;
    POINT screen{GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)};
    if (lparam == -1) {
        // From the keyboard: at the focus row, a little in from its left edge.
        info.by_keyboard = true;
        info.row = s.focus;
        RECT client{};
        ::GetClientRect(s.window, &client);
        POINT at{static_cast<LONG>(8 * s.sx), s.header_px};
        if (s.focus != no_row && s.focus >= s.top && s.focus - s.top < s.visible_count()) {
            const RECT r = s.row_rect(s.focus);
            at.y = std::min<LONG>(r.bottom, client.bottom);
        }
        ::ClientToScreen(s.window, &at);
        screen = at;
    } else {
        POINT client = screen;
        ::ScreenToClient(s.window, &client);
        const hit h = hit_test(s, client);
        info.row = h.kind == hit::cell ? h.row : no_row;
    }
    info.screen = screen;
    info.item = info.row != no_row && s.handlers.item_of_row ? s.handlers.item_of_row(info.row) : nullptr;
    return ::SendMessageW(::GetParent(s.window), WM_NOTIFY, info.header.idFrom, reinterpret_cast<LPARAM>(&info)) != 0;
}

// ---------------------------------------------------------------------------------------
// Input

bool on_key(list_state& s, WPARAM key)
{
    const key_event event{static_cast<UINT>(key), key_down(VK_SHIFT), key_down(VK_CONTROL), key_down(VK_MENU)};
    for (const auto& handler : s.handlers.key_down)
        if (handler(event))
            return true;
    if (s.rows == 0 && key != VK_APPS)
        return false;
    const row_index focus = s.focus == no_row ? 0 : s.focus;
    const row_index visible = std::max<row_index>(s.visible_count(), 2) - 1;
    const row_index last = s.rows - 1;
    row_index target = no_row;
    switch (key) {
    case VK_UP: target = s.focus == no_row ? 0 : (focus ? focus - 1 : 0); break;
    case VK_DOWN: target = s.focus == no_row ? 0 : std::min(focus + 1, last); break;
    case VK_PRIOR: target = focus > visible ? focus - visible : 0; break;
    case VK_NEXT: target = std::min(last, focus + visible); break;
    case VK_HOME: target = 0; break;
    case VK_END: target = last; break;
    case VK_SPACE:
        if (!s.search.empty() && ::GetTickCount() - s.last_char < listview<uniform_height>::type_to_find_reset_ms)
            return false;  // part of the search text: WM_CHAR takes it
        if (s.focus != no_row) {
            if (s.mode == selection_mode::multiple)
                toggle(s, s.focus);
            else
                select_only(s, s.focus);
        }
        s.search.clear();
        return true;
    case VK_RETURN: s.activate(s.focus, true); return true;
    case 'A':
        if (event.control && !event.shift && s.mode == selection_mode::multiple) {
            s.selection->set_range(0, s.rows, range_mode::select);
            s.repaint();
            s.selection_changed();
            return true;
        }
        return false;
    case VK_LEFT:
    case VK_RIGHT: {
        const int step = static_cast<int>(std::lround(16 * s.sx));
        scroll_horizontally(s, s.h_offset + (key == VK_LEFT ? -step : step));
        return true;
    }
    default: return false;
    }
    move_to(s, target, event.shift, event.control, true);
    return true;
}

void on_char(list_state& s, wchar_t c)
{
    const DWORD now = ::GetTickCount();
    const bool continuing = !s.search.empty() && now - s.last_char < listview<uniform_height>::type_to_find_reset_ms;
    if (c == L'\b') {
        if (continuing && !s.search.empty())
            s.search.pop_back();
        s.last_char = now;
        return;
    }
    if (c < 32 || c == 127)
        return;
    if (c == L' ' && !continuing)
        return;  // the space key toggled the selection
    if (!continuing)
        s.search.clear();
    s.search.push_back(c);
    s.last_char = now;
    s.owner->find_and_focus(s.search);
}

void on_button_down(list_state& s, POINT p, bool double_click)
{
    if (::GetFocus() != s.window)
        ::SetFocus(s.window);
    const bool shift = key_down(VK_SHIFT), control = key_down(VK_CONTROL);
    const hit h = hit_test(s, p);
    switch (h.kind) {
    case hit::separator:
        if (double_click) {
            sep_click_info info = s.separators[h.column];
            info.double_click = true;
            for (const auto& handler : s.handlers.sep_click)
                handler(info);
            return;
        }
        s.sizing_column = h.column;
        s.sizing_start_width = s.columns[h.column].width;
        s.sizing_start_x = p.x;
        ::SetCapture(s.window);
        for (const auto& handler : s.handlers.sep_click)
            handler(s.separators[h.column]);
        return;
    case hit::header:
        s.pressed_tab = h.column;
        ::SetCapture(s.window);
        ::InvalidateRect(s.window, nullptr, FALSE);
        return;
    case hit::cell: {
        const row_click click{h.row, h.column, h.in_cell, double_click, shift, control};
        for (const auto& handler : s.handlers.row_click)
            if (handler(click))
                return;
        if (double_click) {
            s.activate(h.row, false);
            return;
        }
        if (const std::optional<std::size_t> link = link_at(s, h)) {
            s.pressed = pressed_button{h.row, h.column, *link};
            ::SetCapture(s.window);
        }
        if (shift && s.mode == selection_mode::multiple)
            extend(s, h.row);
        else if (control && s.mode == selection_mode::multiple)
            toggle(s, h.row);
        else
            select_only(s, h.row);
        s.set_focus(h.row, false);
        s.ensure_visible(h.row);
        return;
    }
    case hit::nothing:
        if (!shift && !control && s.mode == selection_mode::multiple && p.y >= s.header_px && !s.selection->is_empty()) {
            s.selection->clear();
            s.repaint();
            s.selection_changed();
        }
        return;
    }
}

void on_button_up(list_state& s, POINT p)
{
    const std::optional<std::size_t> sizing = std::exchange(s.sizing_column, std::nullopt);
    const std::optional<std::size_t> tab = std::exchange(s.pressed_tab, std::nullopt);
    const std::optional<pressed_button> pressed = std::exchange(s.pressed, std::nullopt);
    if (::GetCapture() == s.window)
        ::ReleaseCapture();
    if (sizing) {
        send_column_notification(s, lvn_column_resized, *sizing);
        return;
    }
    const hit h = hit_test(s, p);
    if (tab) {
        ::InvalidateRect(s.window, nullptr, FALSE);
        if (h.kind == hit::header && h.column == *tab)
            for (const auto& handler : s.handlers.tab_click)
                handler(s.tabs[*tab]);
        return;
    }
    if (pressed && h.kind == hit::cell && h.row == pressed->row && h.column == pressed->column &&
        link_at(s, h) == pressed->link) {
        const cached_cell& cell = cached(s, h.row).cells[h.column];
        const link_range& link = cell.layout->links[pressed->link];
        const std::wstring argument = link.argument;  // the owner may change the row meanwhile
        nm_listview_button info{};
        info.header.hwndFrom = s.window;
        info.header.idFrom = static_cast<UINT_PTR>(s.control_id);
        info.header.code = lvn_button_clicked;
        info.row = h.row;
        info.item = s.handlers.item_of_row ? s.handlers.item_of_row(h.row) : nullptr;
        info.column = h.column;
        info.link_index = pressed->link;
        info.range = link.range;
        info.argument = argument.c_str();
        ::SendMessageW(::GetParent(s.window), WM_NOTIFY, info.header.idFrom, reinterpret_cast<LPARAM>(&info));
    }
}

void on_mouse_move(list_state& s, POINT p)
{
    if (!s.tracking) {
        TRACKMOUSEEVENT track{sizeof track, TME_LEAVE, s.window, 0};
        s.tracking = ::TrackMouseEvent(&track) != FALSE;
    }
    if (s.sizing_column) {
        resize_column(s, *s.sizing_column, s.sizing_start_width + float(p.x - s.sizing_start_x) / s.sx);
        return;
    }
    const hit h = hit_test(s, p);
    set_hot(s, h.kind == hit::cell ? h.row : no_row);
    set_hot_tab(s, h.kind == hit::header ? std::optional<std::size_t>(h.column) : std::nullopt);
}

void on_wheel(list_state& s, int delta, bool horizontal)
{
    int& remainder = horizontal ? s.hwheel_remainder : s.wheel_remainder;
    remainder += delta;
    const int notches = remainder / WHEEL_DELTA;
    if (notches == 0)
        return;
    remainder -= notches * WHEEL_DELTA;
    if (horizontal) {
        scroll_horizontally(s, s.h_offset + notches * static_cast<int>(std::lround(48 * s.sx)));
        return;
    }
    UINT lines = 3;
    ::SystemParametersInfoW(SPI_GETWHEELSCROLLLINES, 0, &lines, 0);
    row_index step = lines == WHEEL_PAGESCROLL ? std::max<row_index>(s.visible_count(), 2) - 1 : lines;
    const row_index amount = step * static_cast<row_index>(std::abs(notches));
    if (notches > 0)
        scroll_to_top(s, s.top > amount ? s.top - amount : 0);
    else
        scroll_to_top(s, s.top + amount);
}

void on_vscroll(list_state& s, int request)
{
    const row_index page = std::max<row_index>(s.visible_count(), 2) - 1;
    switch (request) {
    case SB_LINEUP: scroll_to_top(s, s.top ? s.top - 1 : 0); break;
    case SB_LINEDOWN: scroll_to_top(s, s.top + 1); break;
    case SB_PAGEUP: scroll_to_top(s, s.top > page ? s.top - page : 0); break;
    case SB_PAGEDOWN: scroll_to_top(s, s.top + page); break;
    case SB_TOP: scroll_to_top(s, 0); break;
    case SB_BOTTOM: scroll_to_top(s, s.rows); break;
    case SB_THUMBTRACK:
    case SB_THUMBPOSITION: {
        SCROLLINFO info{};
        info.cbSize = sizeof info;
        info.fMask = SIF_TRACKPOS;
        ::GetScrollInfo(s.window, SB_VERT, &info);
        scroll_to_top(s, static_cast<row_index>(std::max(0, info.nTrackPos)) * scroll_unit(s));
        break;
    }
    default: break;
    }
}

void on_hscroll(list_state& s, int request)
{
    RECT client{};
    ::GetClientRect(s.window, &client);
    const int line = static_cast<int>(std::lround(16 * s.sx));
    switch (request) {
    case SB_LINELEFT: scroll_horizontally(s, s.h_offset - line); break;
    case SB_LINERIGHT: scroll_horizontally(s, s.h_offset + line); break;
    case SB_PAGELEFT: scroll_horizontally(s, s.h_offset - client.right); break;
    case SB_PAGERIGHT: scroll_horizontally(s, s.h_offset + client.right); break;
    case SB_LEFT: scroll_horizontally(s, 0); break;
    case SB_RIGHT: scroll_horizontally(s, 1 << 30); break;
    case SB_THUMBTRACK:
    case SB_THUMBPOSITION: {
        SCROLLINFO info{};
        info.cbSize = sizeof info;
        info.fMask = SIF_TRACKPOS;
        ::GetScrollInfo(s.window, SB_HORZ, &info);
        scroll_horizontally(s, info.nTrackPos);
        break;
    }
    default: break;
    }
}

LRESULT handle(list_state& s, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_CREATE:
        refresh_metrics(s);
        refresh_theme(s);
        return 0;
    case WM_PAINT: paint(s); return 0;
    case WM_PRINTCLIENT: {
        RECT client{};
        ::GetClientRect(s.window, &client);
        draw_into(s, reinterpret_cast<HDC>(wparam), client);
        return 0;
    }
    case WM_ERASEBKGND: return 1;
    case WM_SIZE:
        s.top = std::min(s.top, max_top(s));
        scroll_horizontally(s, s.h_offset);
        update_scroll_bars(s);
        ::InvalidateRect(s.window, nullptr, FALSE);
        return 0;
    case WM_DPICHANGED:
    case WM_DPICHANGED_AFTERPARENT:
        refresh_metrics(s);
        s.owner->create_ui();
        if (message == WM_DPICHANGED) {
            const RECT* suggested = reinterpret_cast<const RECT*>(lparam);
            ::SetWindowPos(s.window, nullptr, suggested->left, suggested->top, suggested->right - suggested->left,
                           suggested->bottom - suggested->top, SWP_NOZORDER | SWP_NOACTIVATE);
        }
        s.h_offset = 0;
        update_scroll_bars(s);
        ::InvalidateRect(s.window, nullptr, FALSE);
        return 0;
    case WM_THEMECHANGED:
    case WM_SYSCOLORCHANGE:
    case WM_SETTINGCHANGE:
        refresh_theme(s);
        if (message == WM_SETTINGCHANGE && wparam == SPI_SETNONCLIENTMETRICS)
            refresh_metrics(s);
        update_scroll_bars(s);
        ::InvalidateRect(s.window, nullptr, FALSE);
        return 0;
    case WM_SETFOCUS:
        ::InvalidateRect(s.window, nullptr, FALSE);
        if (s.focus != no_row && s.focus < 0x7fffffff)
            ::NotifyWinEvent(EVENT_OBJECT_FOCUS, s.window, OBJID_CLIENT, LONG(s.focus + 1));
        return 0;
    case WM_KILLFOCUS: ::InvalidateRect(s.window, nullptr, FALSE); return 0;
    case WM_GETDLGCODE: {
        LRESULT code = DLGC_WANTARROWS | DLGC_WANTCHARS;
        const auto* msg = reinterpret_cast<const MSG*>(lparam);
        if (msg && msg->message == WM_KEYDOWN && msg->wParam == VK_RETURN && s.focus != no_row)
            code |= DLGC_WANTMESSAGE;
        return code;
    }
    case WM_KEYDOWN:
        if (wparam == VK_APPS) {
            ::SendMessageW(s.window, WM_CONTEXTMENU, reinterpret_cast<WPARAM>(s.window), -1);
            return 0;
        }
        if (on_key(s, wparam))
            return 0;
        break;
    case WM_SYSKEYDOWN:
        if (wparam == VK_F10 && key_down(VK_SHIFT)) {
            ::SendMessageW(s.window, WM_CONTEXTMENU, reinterpret_cast<WPARAM>(s.window), -1);
            return 0;
        }
        break;
    case WM_KEYUP:
    case WM_SYSKEYUP:
        // The menu was opened on the key press; the system would open it again on release.
        if (wparam == VK_APPS || (wparam == VK_F10 && key_down(VK_SHIFT)))
            return 0;
        break;
    case WM_CHAR: on_char(s, static_cast<wchar_t>(wparam)); return 0;
    case WM_LBUTTONDOWN:
    case WM_LBUTTONDBLCLK:
        on_button_down(s, {GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)}, message == WM_LBUTTONDBLCLK);
        return 0;
    case WM_LBUTTONUP: on_button_up(s, {GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)}); return 0;
    case WM_RBUTTONDOWN: {
        if (::GetFocus() != s.window)
            ::SetFocus(s.window);
        const hit h = hit_test(s, {GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)});
        if (h.kind == hit::cell) {
            if (!s.selection->is_selected(h.row))
                select_only(s, h.row);
            s.set_focus(h.row, false);
        }
        return 0;
    }
    case WM_RBUTTONUP: {
        // DefWindowProc turns the release into WM_CONTEXTMENU, as for the keyboard.
        POINT at{GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)};
        ::ClientToScreen(s.window, &at);
        ::SendMessageW(s.window, WM_CONTEXTMENU, reinterpret_cast<WPARAM>(s.window), MAKELPARAM(at.x, at.y));
        return 0;
    }
    case WM_CONTEXTMENU:
        if (context_menu(s, lparam))
            return 0;
        break;
    case WM_MOUSEMOVE: on_mouse_move(s, {GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)}); return 0;
    case WM_MOUSELEAVE:
        s.tracking = false;
        set_hot(s, no_row);
        set_hot_tab(s, std::nullopt);
        return 0;
    case WM_SETCURSOR:
        if (LOWORD(lparam) == HTCLIENT) {
            POINT p{};
            ::GetCursorPos(&p);
            ::ScreenToClient(s.window, &p);
            const hit h = hit_test(s, p);
            if (s.sizing_column || h.kind == hit::separator) {
                ::SetCursor(::LoadCursorW(nullptr, IDC_SIZEWE));
                return TRUE;
            }
            if (link_at(s, h)) {
                ::SetCursor(::LoadCursorW(nullptr, IDC_HAND));
                return TRUE;
            }
        }
        break;
    case WM_CAPTURECHANGED:
        s.sizing_column.reset();
        s.pressed.reset();
        if (s.pressed_tab) {
            s.pressed_tab.reset();
            ::InvalidateRect(s.window, nullptr, FALSE);
        }
        return 0;
    case WM_MOUSEWHEEL: on_wheel(s, GET_WHEEL_DELTA_WPARAM(wparam), false); return 0;
    case WM_MOUSEHWHEEL: on_wheel(s, GET_WHEEL_DELTA_WPARAM(wparam), true); return 0;
    case WM_VSCROLL: on_vscroll(s, LOWORD(wparam)); return 0;
    case WM_HSCROLL: on_hscroll(s, LOWORD(wparam)); return 0;
    case WM_GETOBJECT:
        if (static_cast<LONG>(lparam) == static_cast<LONG>(OBJID_CLIENT)) {
            if (!s.accessible)
                s.accessible = make_list_accessible(&s);
            return ::LresultFromObject(__uuidof(IAccessible), wparam, s.accessible.get());
        }
        break;
    default: break;
    }
    return ::DefWindowProcW(s.window, message, wparam, lparam);
}

}  // namespace

// ---------------------------------------------------------------------------------------
// The public face

listview<uniform_height>::listview(HWND parent, int control_id, const RECT& rect, const wchar_t* class_name)
    : state_(std::make_unique<state>())
{
    state& s = *state_;
    s.owner = this;
    s.class_name = class_name;
    s.control_id = control_id;
    s.selection = std::make_unique<single_selection>();
    register_class(s.class_name, &window_procedure::proc);
    // The list's own reactions to header clicks; views add theirs after them.
    s.handlers.tab_click.push_back([&s](const tab_click_info& tab) {
        send_column_notification(s, lvn_header_clicked, tab.column);
    });
    s.handlers.sep_click.push_back([&s](const sep_click_info& sep) {
        if (sep.double_click)
            fit_column(s, sep.column);
    });
    const HWND window = ::CreateWindowExW(0, s.class_name.c_str(), L"",
                                          WS_CHILD | WS_VISIBLE | WS_TABSTOP | WS_VSCROLL | WS_HSCROLL | WS_CLIPSIBLINGS,
                                          rect.left, rect.top, rect.right - rect.left, rect.bottom - rect.top, parent,
                                          reinterpret_cast<HMENU>(static_cast<INT_PTR>(control_id)),
                                          ::GetModuleHandleW(nullptr), &s);
    throw_last_error_if(!window);
    update_scroll_bars(s);
}

listview<uniform_height>::~listview()
{
    if (state_->window)
        ::DestroyWindow(state_->window);
}

HWND listview<uniform_height>::window() const noexcept { return state_->window; }

void listview<uniform_height>::set_row_count(row_index count)
{
    state& s = *state_;
    if (count == no_row)
        count = no_row - 1;
    const row_index old = s.rows;
    s.rows = count;
    s.find_prefixes.clear();
    if (count < old) {
        for (auto i = s.cache.begin(); i != s.cache.end();)
            i = i->first >= count ? s.cache.erase(i) : std::next(i);
        if (s.selection->truncate(count))
            s.selection_changed();
        if (s.focus != no_row && s.focus >= count)
            s.set_focus(count ? count - 1 : no_row, false);
        if (s.hot != no_row && s.hot >= count)
            s.hot = no_row;
    }
    if (s.window) {
        if (s.updates == 0)
            s.top = std::min(s.top, max_top(s));
        update_scroll_bars(s);
        if (s.window && s.updates == 0)
            ::NotifyWinEvent(EVENT_OBJECT_REORDER, s.window, OBJID_CLIENT, CHILDID_SELF);
    }
    s.repaint();
}

row_index listview<uniform_height>::row_count() const noexcept { return state_->rows; }

void listview<uniform_height>::insert_rows(row_index at, row_index count)
{
    state& s = *state_;
    if (count == 0)
        return;
    at = std::min(at, s.rows);
    s.rows += count;
    s.find_prefixes.clear();
    const auto moved = [&](row_index row) { return row != no_row && row >= at ? row + count : row; };
    shift_selection(s, at, 0, count);
    s.focus = moved(s.focus);
    s.hot = no_row;
    // Cached rows after the insertion keep their layouts under their new numbers.
    std::unordered_map<row_index, std::unique_ptr<cached_row>> cache;
    for (auto& [row, entry] : s.cache)
        cache.emplace(moved(row), std::move(entry));
    s.cache.swap(cache);
    if (at < s.top)
        s.top += count;  // what the user looks at stays where it is
    update_scroll_bars(s);
    if (s.window && s.updates == 0)
        ::NotifyWinEvent(EVENT_OBJECT_REORDER, s.window, OBJID_CLIENT, CHILDID_SELF);
    s.repaint();
}

void listview<uniform_height>::remove_rows(row_index at, row_index count)
{
    state& s = *state_;
    if (at >= s.rows || count == 0)
        return;
    count = std::min(count, s.rows - at);
    const selection_snapshot before = snapshot(*s.selection);
    const bool had_selected_inside = [&] {
        const row_run run = s.selection->selected_rows().run_from(at);
        return run.first != none && run.first < at + count;
    }();
    shift_selection(s, at, count, 0);
    s.rows -= count;
    s.find_prefixes.clear();
    std::unordered_map<row_index, std::unique_ptr<cached_row>> cache;
    for (auto& [row, entry] : s.cache)
        if (row < at)
            cache.emplace(row, std::move(entry));
        else if (row >= at + count)
            cache.emplace(row - count, std::move(entry));
    s.cache.swap(cache);
    s.hot = no_row;
    if (s.focus != no_row && s.focus >= at) {
        if (s.focus >= at + count)
            s.focus -= count;
        else {
            // The focus row went: the row that took its place, or the new last row.
            s.focus = no_row;
            s.set_focus(s.rows ? std::min(at, s.rows - 1) : no_row, false);
        }
    }
    if (s.top >= at + count)
        s.top -= count;
    else if (s.top > at)
        s.top = at;
    if (s.window && s.updates == 0)
        s.top = std::min(s.top, max_top(s));
    update_scroll_bars(s);
    if (s.window && s.updates == 0)
        ::NotifyWinEvent(EVENT_OBJECT_REORDER, s.window, OBJID_CLIENT, CHILDID_SELF);
    s.repaint();
    if (had_selected_inside || snapshot(*s.selection) != before)
        s.selection_changed();
}

void listview<uniform_height>::invalidate_rows(row_index first, row_index count)
{
    state& s = *state_;
    s.find_prefixes.clear();
    if (count <= 16) {
        for (row_index row = first; row < first + count && row < s.rows; ++row) {
            if (const auto found = s.cache.find(row); found != s.cache.end())
                found->second->filled = false;
            if (s.updates == 0)
                s.invalidate_row(row);
        }
        if (s.updates > 0)
            s.repaint_pending = true;
        return;
    }
    for (auto& [row, entry] : s.cache)
        if (row >= first && row - first < count)
            entry->filled = false;
    s.repaint();
}

void listview<uniform_height>::invalidate_all()
{
    ++state_->generation;
    state_->header_layouts.clear();
    state_->repaint();
}

void listview<uniform_height>::set_columns(std::vector<column> columns)
{
    state& s = *state_;
    for (column& c : columns)
        c.width = std::max(c.width, c.min_width);
    s.columns = std::move(columns);
    s.cache.clear();
    s.header_layouts.clear();
    ++s.generation;
    create_ui();
    if (s.window) {
        scroll_horizontally(s, s.h_offset);
        update_scroll_bars(s);
    }
    s.repaint();
}

const std::vector<column>& listview<uniform_height>::columns() const noexcept { return state_->columns; }

void listview<uniform_height>::set_column_width(std::size_t column, float width)
{
    resize_column(*state_, column, width);
}

void listview<uniform_height>::set_selection_mode(selection_mode mode)
{
    state& s = *state_;
    const bool had = !s.selection->is_empty();
    s.mode = mode;
    if (mode == selection_mode::multiple)
        s.selection = std::make_unique<multiple_selection>();
    else
        s.selection = std::make_unique<single_selection>();
    s.repaint();
    if (had)
        s.selection_changed();
}

selection_mode listview<uniform_height>::selection_kind() const noexcept { return state_->mode; }
const iselection& listview<uniform_height>::selection() const noexcept { return *state_->selection; }

void listview<uniform_height>::set_vector_icon_names(std::function<std::wstring(std::int64_t)> names)
{
    state_->icon_names = std::move(names);
    state_->cache.clear();
    ++state_->generation;
    state_->repaint();
}

void listview<uniform_height>::begin_update() noexcept { ++state_->updates; }

void listview<uniform_height>::end_update()
{
    state& s = *state_;
    if (s.updates == 0 || --s.updates > 0)
        return;
    if (s.layout_pending) {
        s.layout_pending = false;
        if (s.window) {
            s.top = std::min(s.top, max_top(s));
            update_scroll_bars(s);
            ::NotifyWinEvent(EVENT_OBJECT_REORDER, s.window, OBJID_CLIENT, CHILDID_SELF);
            s.repaint_pending = true;
        }
    }
    if (s.repaint_pending) {
        s.repaint_pending = false;
        if (s.window)
            ::InvalidateRect(s.window, nullptr, FALSE);
    }
    if (s.selection_changed_pending)
        s.selection_changed();
}

row_index listview<uniform_height>::focus_row() const noexcept { return state_->focus; }

void listview<uniform_height>::set_focus_row(row_index row, bool select)
{
    state& s = *state_;
    if (row == no_row || row >= s.rows) {
        s.set_focus(no_row, false);
        return;
    }
    if (select)
        select_only(s, row);
    s.set_focus(row, false);
    s.ensure_visible(row);
}

void listview<uniform_height>::select_row(row_index row)
{
    state& s = *state_;
    if (row == no_row || row >= s.rows) {
        clear_selection();
        return;
    }
    select_only(s, row);
}

void listview<uniform_height>::select_range(row_index first, row_index end, bool selected)
{
    state& s = *state_;
    end = std::min(end, s.rows);
    if (first >= end)
        return;
    const selection_snapshot before = snapshot(*s.selection);
    s.selection->set_range(first, end, selected ? range_mode::select : range_mode::deselect);
    if (snapshot(*s.selection) != before) {
        s.repaint();
        s.selection_changed();
    }
}

void listview<uniform_height>::clear_selection()
{
    state& s = *state_;
    if (s.selection->is_empty())
        return;
    s.selection->clear();
    s.repaint();
    s.selection_changed();
}

bool listview<uniform_height>::is_selected(row_index row) const noexcept { return state_->row_selected(row); }
row_index listview<uniform_height>::first_selected() const noexcept { return state_->selection->first_selected(); }
void listview<uniform_height>::ensure_visible(row_index row) { state_->ensure_visible(row); }
row_index listview<uniform_height>::top_row() const noexcept { return state_->top; }
void listview<uniform_height>::scroll_to(row_index top) { scroll_to_top(*state_, top); }

row_index listview<uniform_height>::row_at(POINT client) const noexcept
{
    const hit h = hit_test(*state_, client);
    return h.kind == hit::cell ? h.row : no_row;
}

float listview<uniform_height>::row_height_dips() const noexcept { return float(state_->row_px) / state_->sy; }
int listview<uniform_height>::row_height_pixels() const noexcept { return state_->row_px; }
int listview<uniform_height>::icon_pixel_size() const noexcept
{
    return std::max(1, static_cast<int>(std::lround(state_->icon_dips * state_->sx)));
}
float listview<uniform_height>::scale_x() const noexcept { return state_->sx; }
IDWriteTextFormat* listview<uniform_height>::default_text_format() { return text_format(*state_, nullptr); }
float listview<uniform_height>::scale_y() const noexcept { return state_->sy; }

std::wstring listview<uniform_height>::cell_plain_text(row_index row, std::size_t column) const
{
    state& s = *state_;
    if (row >= s.rows)
        return {};
    s.fill_plain(row, column, 1);
    return strip_markup(s.scratch[0].text);
}

row_index listview<uniform_height>::find_row(std::wstring_view text) const
{
    state& s = *state_;
    if (text.empty() || s.rows == 0)
        return no_row;
    const case_folding fold(classification());
    std::wstring needle(text);
    for (wchar_t& ch : needle)
        ch = fold(ch);
    const row_index start = s.focus == no_row || s.focus >= s.rows ? 0 : s.focus;
    const row_index end = start + std::min(max_find_rows, s.rows - start);
    if (s.find_generation != s.generation || start < s.find_base || start - s.find_base > max_find_rows) {
        s.find_prefixes.clear();
        s.find_base = start;
        s.find_generation = s.generation;
    }
    if (s.find_prefixes.size() < end - s.find_base)
        s.find_prefixes.resize(std::size_t(end - s.find_base));
    for (row_index row = start; row < end; ++row) {
        list_state::find_prefix& prefix = s.find_prefixes[std::size_t(row - s.find_base)];
        if (!prefix.known)
            read_find_prefix(s, row, prefix);
        if (needle.size() > prefix.length && prefix.complete)
            continue;
        const std::size_t kept = std::min<std::size_t>(needle.size(), prefix.length);
        std::size_t same = 0;
        while (same < kept && fold(prefix.letters[same]) == needle[same])
            ++same;
        if (same < kept)
            continue;
        if (kept == needle.size())
            return row;
        // Longer than the letters kept: the whole text decides.
        std::wstring_view plain;
        if (find_text(s, row, plain) && starts_with_folded(plain, needle, fold))
            return row;
    }
    return no_row;
}

row_index listview<uniform_height>::find_and_focus(std::wstring_view text)
{
    state& s = *state_;
    const row_index row = find_row(text);
    if (row == no_row)
        return no_row;
    const row_index top = s.top;
    move_to(s, row, false, false, true);
    if (s.top == top)
        s.repaint();
    return row;
}

void listview<uniform_height>::create_ui()
{
    state& s = *state_;
    s.tabs.clear();
    s.separators.clear();
    const float height = float(s.header_px) / s.sy;
    float x = 0;
    for (std::size_t c = 0; c < s.columns.size(); ++c) {
        const float width = s.columns[c].width;
        s.tabs.push_back({c, {x, 0, x + width, height}, false});
        s.separators.push_back({c, {x + width - 4, 0, x + width + 4, height}, false});
        x += width;
    }
}

std::span<const tab_click_info> listview<uniform_height>::tabs() const noexcept { return state_->tabs; }
std::span<const sep_click_info> listview<uniform_height>::separators() const noexcept { return state_->separators; }
handler_lists& listview<uniform_height>::handlers() noexcept { return state_->handlers; }
HWND listview<uniform_height>::tooltip_window() const noexcept { return state_->tooltip; }

}  // namespace tessel::windows::new_controls::listview::impl
