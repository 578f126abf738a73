// The list view's tooltips: one common-controls tooltip window, created on first need,
// with one tool per visible cell whose text is cut off and per "h"/"H" range that carries
// a tip. The tools are remade only when the set of tips changes, after a paint has laid
// out the rows on screen.

#include "controls/dark_theme.h"
#include "controls/listview_state.h"

#include <algorithm>
#include <cmath>

namespace tessel::windows::new_controls::listview::impl {
namespace {

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

}  // namespace

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
        if (s.dark_parts)
            s.theme_source().theme_window(s.tooltip, true);
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

HWND listview<uniform_height>::tooltip_window() const noexcept { return state_->tooltip; }

}  // namespace tessel::windows::new_controls::listview::impl
