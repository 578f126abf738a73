// What the user does to the list view with keyboard, mouse and scroll bars: hit testing,
// the keys, clicks, drags of column separators, the wheel and the scroll positions. It
// decides what an action means and leaves the selection's bookkeeping to
// listview_selection.cpp and the pixels to listview_paint.cpp.

#include "controls/listview_state.h"

#include <windowsx.h>

#include <algorithm>
#include <cmath>

namespace tessel::windows::new_controls::listview::impl {
namespace {

// Scroll bars take int positions: longer lists scroll in steps of several rows.
constexpr row_index max_scroll_units = row_index{1} << 30;

bool key_down(int key) noexcept { return (::GetKeyState(key) & 0x8000) != 0; }

}  // namespace

row_index max_top(const list_state& s) noexcept
{
    RECT client{};
    ::GetClientRect(s.window, &client);
    const int height = client.bottom - s.header_px;
    const row_index whole = height > 0 ? static_cast<row_index>(height / s.row_px) : 0;
    return s.rows > whole ? s.rows - std::max<row_index>(whole, 1) : 0;
}

namespace {

row_index scroll_unit(const list_state& s) noexcept
{
    return s.rows > max_scroll_units ? (s.rows + max_scroll_units - 1) / max_scroll_units : 1;
}

}  // namespace

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

}  // namespace

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

namespace {

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

// Where the user drags the thumb: the 32-bit track position, not the 16-bit one of the
// message.
int track_position(HWND window, int bar) noexcept
{
    SCROLLINFO info{};
    info.cbSize = sizeof info;
    info.fMask = SIF_TRACKPOS;
    ::GetScrollInfo(window, bar, &info);
    return info.nTrackPos;
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
    case SB_THUMBPOSITION:
        scroll_to_top(s, static_cast<row_index>(std::max(0, track_position(s.window, SB_VERT))) * scroll_unit(s));
        break;
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
    case SB_THUMBPOSITION: scroll_horizontally(s, track_position(s.window, SB_HORZ)); break;
    default: break;
    }
}

}  // namespace

std::optional<LRESULT> handle_input(list_state& s, UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
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
    default: break;
    }
    return std::nullopt;
}

void listview<uniform_height>::ensure_visible(row_index row) { state_->ensure_visible(row); }
row_index listview<uniform_height>::top_row() const noexcept { return state_->top; }
void listview<uniform_height>::scroll_to(row_index top) { scroll_to_top(*state_, top); }

row_index listview<uniform_height>::row_at(POINT client) const noexcept
{
    const hit h = hit_test(*state_, client);
    return h.kind == hit::cell ? h.row : no_row;
}

}  // namespace tessel::windows::new_controls::listview::impl
