// The list view's window and data: creating the window, its procedure and the messages
// that are neither input nor painting (size, DPI, theme, focus, the screen-reader
// object), the columns, begin/end of updates and the notifications to the owner. The
// other parts of the control are listed in listview_state.h.

#include "controls/listview.h"

#include "base/failure.h"
#include "controls/listview_state.h"

#include <algorithm>
#include <cmath>

namespace tessel::windows::new_controls::listview::impl {
namespace {

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

}  // namespace

class window_procedure {
public:
    static LRESULT CALLBACK proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept;
};

namespace {

LRESULT handle(list_state& s, UINT message, WPARAM wparam, LPARAM lparam);

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
        log_caught_exception(L"list view: a message failed");
        return ::DefWindowProcW(window, message, wparam, lparam);
    }
}

bool list_state::row_selected(row_index row) const noexcept
{
    try {
        return selection->is_selected(row);
    } catch (...) {
        log_caught_exception(L"list view: a row's selection is unknown");
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
        log_caught_exception(L"list view: the cells of row " + std::to_wstring(row) + L" failed");
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
                         OBJID_CLIENT,
                         selection->count() == 1 && first < max_accessible_rows ? LONG(first + 1) : CHILDID_SELF);
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
    focus_event();
    notify_row(lvn_focus_changed, focus, by_keyboard);
}

void list_state::focus_event() const noexcept
{
    if (window && ::GetFocus() == window && focus < max_accessible_rows)
        ::NotifyWinEvent(EVENT_OBJECT_FOCUS, window, OBJID_CLIENT, LONG(focus + 1));
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

LRESULT handle(list_state& s, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (const std::optional<LRESULT> answer = handle_input(s, message, wparam, lparam))
        return *answer;
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
        s.top = std::min(s.top, max_top(s));  // rows of another height: another last page
        update_scroll_bars(s);
        ::InvalidateRect(s.window, nullptr, FALSE);
        return 0;
    case WM_THEMECHANGED:
    case WM_SYSCOLORCHANGE:
    case WM_SETTINGCHANGE:
        refresh_theme(s);
        if (message == WM_SETTINGCHANGE && wparam == SPI_SETNONCLIENTMETRICS) {
            refresh_metrics(s);
            s.top = std::min(s.top, max_top(s));
        }
        update_scroll_bars(s);
        ::InvalidateRect(s.window, nullptr, FALSE);
        return 0;
    case WM_SETFOCUS:
        ::InvalidateRect(s.window, nullptr, FALSE);
        s.focus_event();
        return 0;
    case WM_KILLFOCUS: ::InvalidateRect(s.window, nullptr, FALSE); return 0;
    case WM_GETDLGCODE: {
        LRESULT code = DLGC_WANTARROWS | DLGC_WANTCHARS;
        const auto* msg = reinterpret_cast<const MSG*>(lparam);
        if (msg && msg->message == WM_KEYDOWN && msg->wParam == VK_RETURN && s.focus != no_row)
            code |= DLGC_WANTMESSAGE;
        return code;
    }
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

void listview<uniform_height>::invalidate_rows(row_index first, row_index count)
{
    state& s = *state_;
    s.find_prefixes.clear();
    // Readers hear of new names of the rows, or of the visible ones when many changed.
    if (s.window) {
        const row_index from = count <= 16 ? first : std::max(first, s.top);
        const row_index end = std::min({first + std::min(count, s.rows), s.rows, max_accessible_rows,
                                        count <= 16 ? no_row : s.top + s.visible_count()});
        for (row_index row = from; row < end; ++row)
            ::NotifyWinEvent(EVENT_OBJECT_NAMECHANGE, s.window, OBJID_CLIENT, LONG(row + 1));
    }
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

void listview<uniform_height>::set_theme_settings(const theme_settings& settings)
{
    state_->theme = &settings;
    refresh_theme(*state_);
    state_->repaint();
}

}  // namespace tessel::windows::new_controls::listview::impl
