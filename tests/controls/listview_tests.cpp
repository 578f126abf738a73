#include "controls/dark_theme.h"
#include "controls/listview.h"
#include "controls/selection.h"
#include "base/unique_handle.h"

#include "message_pump.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <windowsx.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

using namespace tessel::windows::new_controls::listview::impl;

namespace {

struct notification {
    UINT code;
    row_index row;
    std::size_t column;
    bool by_keyboard;
    POINT screen;
    std::wstring argument;
};

std::vector<notification> received;
LRESULT context_menu_answer = 1;

LRESULT CALLBACK owner_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == WM_NOTIFY) {
        const auto* header = reinterpret_cast<const NMHDR*>(lparam);
        notification n{header->code, no_row, 0, false, {}, {}};
        switch (header->code) {
        case lvn_selection_changed:
        case lvn_focus_changed:
        case lvn_row_activated: {
            const auto* info = reinterpret_cast<const nm_listview_row*>(lparam);
            n.row = info->row;
            n.by_keyboard = info->by_keyboard;
            break;
        }
        case lvn_context_menu: {
            const auto* info = reinterpret_cast<const nm_listview_context_menu*>(lparam);
            n.row = info->row;
            n.by_keyboard = info->by_keyboard;
            n.screen = info->screen;
            received.push_back(n);
            return context_menu_answer;
        }
        case lvn_button_clicked: {
            const auto* info = reinterpret_cast<const nm_listview_button*>(lparam);
            n.row = info->row;
            n.column = info->column;
            n.argument = info->argument;
            break;
        }
        case lvn_header_clicked:
        case lvn_column_resized: n.column = reinterpret_cast<const nm_listview_column*>(lparam)->column; break;
        default: return 0;
        }
        received.push_back(n);
        return 0;
    }
    return ::DefWindowProcW(window, message, wparam, lparam);
}

std::size_t count_of(UINT code)
{
    std::size_t n = 0;
    for (const notification& r : received)
        n += r.code == code;
    return n;
}

const notification* last_of(UINT code)
{
    for (auto i = received.rbegin(); i != received.rend(); ++i)
        if (i->code == code)
            return &*i;
    return nullptr;
}

// An owner window with a list filling its client area, rows from a text function.
struct fixture {
    explicit fixture(row_index rows, selection_mode mode = selection_mode::single, int width = 400, int height = 300)
    {
        owner = controls_tests::owner_window(L"controls_tests.list_owner", owner_proc, width + 40, height + 60);
        list = std::make_unique<listview<uniform_height>>(owner.get(), 77, RECT{0, 0, width, height});
        list->set_selection_mode(mode);
        list->set_columns({{L"Name", 150, 30}, {L"Value", 120, 30}});
        list->handlers().cell_text.push_back(
            [this](row_index row, std::size_t first, std::span<cell> cells, std::optional<D2D1_COLOR_F>&) {
                ++asked;
                for (std::size_t i = 0; i < cells.size(); ++i)
                    cells[i].text = text(row, first + i);
                return true;
            });
        list->set_row_count(rows);
        ::UpdateWindow(list->window());
        received.clear();
        context_menu_answer = 1;
    }
    ~fixture() { release_keys(); }

    HWND window() const { return list->window(); }
    int row_y(row_index row) const
    {
        return list->row_height_pixels() * int(row - list->top_row() + 1) + list->row_height_pixels() / 2 + 2;
    }
    void click(row_index row, UINT message = WM_LBUTTONDOWN, int x = 40)
    {
        if (message == WM_LBUTTONDOWN)
            controls_tests::click_at(window(), x, row_y(row));
        else
            ::SendMessageW(window(), message, MK_LBUTTON, MAKELPARAM(x, row_y(row)));
    }
    void key(UINT vk, bool shift = false, bool control = false)
    {
        hold(shift, control);
        controls_tests::press(window(), vk);
        release_keys();
    }
    void type(const wchar_t* text)
    {
        for (; *text; ++text)
            ::SendMessageW(window(), WM_CHAR, *text, 1);
    }
    // GetKeyState reads the thread's key state, which SetKeyboardState sets.
    static void hold(bool shift, bool control)
    {
        BYTE keys[256]{};
        ::GetKeyboardState(keys);
        keys[VK_SHIFT] = shift ? 0x80 : 0;
        keys[VK_CONTROL] = control ? 0x80 : 0;
        ::SetKeyboardState(keys);
    }
    static void release_keys() { hold(false, false); }

    std::function<std::wstring(row_index, std::size_t)> text = [](row_index row, std::size_t column) {
        return (column == 0 ? L"Row " : L"Value ") + std::to_wstring(row);
    };
    tessel::unique_hwnd owner;
    std::unique_ptr<listview<uniform_height>> list;
    std::size_t asked = 0;
};

std::vector<row_index> selected_rows(const listview<uniform_height>& list)
{
    std::vector<row_index> rows;
    for (row_index r = 0; r < list.row_count(); ++r)
        if (list.is_selected(r))
            rows.push_back(r);
    return rows;
}

}  // namespace

TEST(listview, type_to_find_matches_prefixes_from_the_focus_row_without_wrapping)
{
    fixture f(30000);
    f.text = [](row_index row, std::size_t) -> std::wstring {
        switch (row) {
        case 3: return L"a";
        case 5: return L" \t\r\n[[[bAB]]]C[[[v#[x]# ]]]";  // blanks, then "ABC " once markup is stripped
        case 7: return L"abc";
        case 9: return L"Zeta";
        case 20008: return L"zulu";  // 9999 rows after the focus row below: still examined
        case 20010: return L"zebra";  // 10001 rows after it: beyond the limit
        default: return L"row";
        }
    };
    f.list->invalidate_all();

    EXPECT_EQ(f.list->find_row(L"ab"), 5u) << "the blanks and markup before \"AB\" do not count; \"a\" is too short";
    EXPECT_EQ(f.list->find_row(L"ABC"), 5u);
    EXPECT_EQ(f.list->find_row(L"abcd"), no_row);
    EXPECT_EQ(f.list->find_row(L"zET"), 9u);

    // From the focus row on: rows before it are never found (no wrap).
    f.list->set_focus_row(9);
    EXPECT_EQ(f.list->find_row(L"ab"), no_row);
    EXPECT_EQ(f.list->find_row(L"ze"), 9u) << "the focus row itself is examined first";
    f.list->set_focus_row(10009);
    EXPECT_EQ(f.list->find_row(L"zu"), 20008u);
    EXPECT_EQ(f.list->find_row(L"zeb"), no_row) << "at most 10000 rows are examined";

    // Typed characters: the found row takes the focus and the selection, and is scrolled
    // into view; an unmatched text changes nothing.
    f.list->set_focus_row(0);
    received.clear();
    f.type(L"ze");
    EXPECT_EQ(f.list->focus_row(), 9u);
    EXPECT_TRUE(f.list->is_selected(9));
    EXPECT_EQ(count_of(lvn_focus_changed), 1u);
    f.type(L"q");
    EXPECT_EQ(f.list->focus_row(), 9u) << "\"zeq\" matches nothing";
    // After the pause a new search begins at the focus row.
    ::Sleep(listview<uniform_height>::type_to_find_reset_ms + 100);
    f.list->set_focus_row(15000);
    f.type(L"zu");
    EXPECT_EQ(f.list->focus_row(), 20008u);
    EXPECT_LE(f.list->top_row(), 20008u);
    EXPECT_GT(f.list->top_row() + 20, 20008u);
}

// Searches typed letter by letter keep what they read of each row: a row whose text
// changed, rows that moved and texts longer than what is kept must still be found right.
TEST(listview, type_to_find_follows_changed_and_moved_rows_and_long_texts)
{
    fixture f(100);
    std::wstring changing = L"alpha";
    row_index shift = 0;
    f.text = [&](row_index row, std::size_t) -> std::wstring {
        if (row == 40 + shift)
            return changing;
        if (row == 60 + shift)
            return L"  [[[bLonger]]] text here";
        return L"row";
    };
    f.list->invalidate_all();
    EXPECT_EQ(f.list->find_row(L"alp"), 40u);
    const std::size_t asked = f.asked;
    EXPECT_EQ(f.list->find_row(L"alph"), 40u);
    EXPECT_EQ(f.asked, asked) << "the next letter is matched without asking the providers again";

    changing = L"beta";
    f.list->invalidate_rows(40);
    EXPECT_EQ(f.list->find_row(L"alp"), no_row);
    EXPECT_EQ(f.list->find_row(L"BE"), 40u);

    EXPECT_EQ(f.list->find_row(L"longer text h"), 60u);
    EXPECT_EQ(f.list->find_row(L"longer texts"), no_row) << "the letters after the first few decide too";
    EXPECT_EQ(f.list->find_row(L"beta!"), no_row);

    shift = 5;
    f.list->insert_rows(10, 5);
    EXPECT_EQ(f.list->find_row(L"be"), 45u);
    shift = 0;
    f.list->remove_rows(0, 5);
    EXPECT_EQ(f.list->find_row(L"longer"), 60u);
}

TEST(listview, tooltips_show_cut_off_cells_and_link_tips_with_ids_from_one)
{
    fixture f(3);
    f.text = [](row_index row, std::size_t column) -> std::wstring {
        if (column == 1)
            return row == 1 ? L"[[[h#[first line\nsecond line]#link]]]" : L"v";
        return row == 0 ? L"A long name that can never fit into the narrow column" : L"short";
    };
    f.list->invalidate_all();
    ::UpdateWindow(f.window());
    const HWND tips = f.list->tooltip_window();
    ASSERT_NE(tips, nullptr);
    ASSERT_EQ(::SendMessageW(tips, TTM_GETTOOLCOUNT, 0, 0), 2);
    wchar_t text[256]{};
    TTTOOLINFOW tool{};
    tool.cbSize = sizeof tool;
    tool.hwnd = f.window();
    tool.lpszText = text;
    tool.uId = 1;
    ASSERT_TRUE(::SendMessageW(tips, TTM_GETTOOLINFOW, 0, reinterpret_cast<LPARAM>(&tool)));
    EXPECT_STREQ(text, L"A long name that can never fit into the narrow column");
    EXPECT_EQ(tool.rect.left, 0) << "the tip covers the cell";
    EXPECT_EQ(tool.rect.bottom - tool.rect.top, f.list->row_height_pixels());
    EXPECT_EQ(f.list->row_at({5, (tool.rect.top + tool.rect.bottom) / 2}), 0u);
    tool.uId = 2;
    ASSERT_TRUE(::SendMessageW(tips, TTM_GETTOOLINFOW, 0, reinterpret_cast<LPARAM>(&tool)));
    EXPECT_STREQ(text, L"first line\nsecond line");
    EXPECT_EQ(::SendMessageW(tips, TTM_GETMAXTIPWIDTH, 0, 0), LRESULT(300 * f.list->scale_x()))
        << "a tip with a line feed wraps at 300 DIPs";

    // A text that fits: its tip goes, the remaining one is renumbered from 1.
    f.text = [](row_index row, std::size_t column) -> std::wstring {
        return column == 1 && row == 1 ? L"[[[h#[first line\nsecond line]#link]]]" : L"short";
    };
    f.list->invalidate_all();
    ::UpdateWindow(f.window());
    ASSERT_EQ(::SendMessageW(tips, TTM_GETTOOLCOUNT, 0, 0), 1);
    tool.uId = 1;
    ASSERT_TRUE(::SendMessageW(tips, TTM_GETTOOLINFOW, 0, reinterpret_cast<LPARAM>(&tool)));
    EXPECT_STREQ(text, L"first line\nsecond line");
}

TEST(listview, keyboard_moves_focus_and_selection_and_notifies_the_owner)
{
    fixture f(1000, selection_mode::multiple);
    f.key(VK_DOWN);
    EXPECT_EQ(f.list->focus_row(), 0u) << "the first arrow press lands on the first row";
    f.key(VK_DOWN);
    f.key(VK_DOWN);
    EXPECT_EQ(f.list->focus_row(), 2u);
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{2}));
    EXPECT_TRUE(last_of(lvn_focus_changed)->by_keyboard);
    EXPECT_EQ(last_of(lvn_selection_changed)->row, 2u);

    f.key(VK_DOWN, true);
    f.key(VK_DOWN, true);
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{2, 3, 4})) << "Shift extends from the anchor";
    f.key(VK_DOWN, false, true);
    f.key(VK_DOWN, false, true);
    EXPECT_EQ(f.list->focus_row(), 6u);
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{2, 3, 4})) << "Ctrl moves the focus alone";
    f.key(VK_SPACE);
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{2, 3, 4, 6})) << "Space toggles the focus row";
    f.key(VK_SPACE);
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{2, 3, 4}));

    f.key(VK_END);
    EXPECT_EQ(f.list->focus_row(), 999u);
    EXPECT_GT(f.list->top_row(), 900u) << "the focus row is scrolled into view";
    f.key(VK_HOME);
    EXPECT_EQ(f.list->focus_row(), 0u);
    EXPECT_EQ(f.list->top_row(), 0u);
    f.key(VK_NEXT);
    const row_index page = f.list->focus_row();
    EXPECT_GT(page, 5u);
    f.key(VK_NEXT);
    EXPECT_EQ(f.list->focus_row(), 2 * page);
    f.key(VK_PRIOR);
    EXPECT_EQ(f.list->focus_row(), page);

    f.key('A', false, true);
    EXPECT_EQ(f.list->selection().count(), 1000u) << "Ctrl+A selects all";

    received.clear();
    f.key(VK_RETURN);
    ASSERT_NE(last_of(lvn_row_activated), nullptr);
    EXPECT_EQ(last_of(lvn_row_activated)->row, page);
    EXPECT_TRUE(last_of(lvn_row_activated)->by_keyboard);

    // The menu key and Shift+F10 ask the owner for a context menu at the focus row, once.
    received.clear();
    f.key(VK_APPS);
    fixture::hold(true, false);
    ::SendMessageW(f.window(), WM_SYSKEYDOWN, VK_F10, 1);
    ::SendMessageW(f.window(), WM_SYSKEYUP, VK_F10, 0xC0000001);
    fixture::release_keys();
    ASSERT_EQ(count_of(lvn_context_menu), 2u);
    EXPECT_EQ(received[0].row, page);
    EXPECT_TRUE(received[0].by_keyboard);
    RECT r{};
    ::GetWindowRect(f.window(), &r);
    EXPECT_TRUE(::PtInRect(&r, received[0].screen)) << "the menu opens on the list";
}

TEST(listview, mouse_clicks_select_activate_scroll_and_resize)
{
    fixture f(1000, selection_mode::multiple);
    f.click(1);
    fixture::hold(false, true);
    f.click(3);
    fixture::release_keys();
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{1, 3})) << "Ctrl-click toggles";
    fixture::hold(true, false);
    f.click(6);
    fixture::release_keys();
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{1, 3, 4, 5, 6})) << "Shift-click extends from 3";
    f.click(4);
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{4})) << "a plain click selects only the row";
    EXPECT_EQ(f.list->focus_row(), 4u);

    received.clear();
    f.click(5, WM_LBUTTONDBLCLK);
    ASSERT_NE(last_of(lvn_row_activated), nullptr);
    EXPECT_EQ(last_of(lvn_row_activated)->row, 5u);
    EXPECT_FALSE(last_of(lvn_row_activated)->by_keyboard);

    // Right button: the row under the pointer is selected and the owner asked for a menu
    // there; an owner that shows no menu lets the message go on.
    received.clear();
    POINT at{40, f.row_y(8)};
    ::SendMessageW(f.window(), WM_RBUTTONDOWN, MK_RBUTTON, MAKELPARAM(at.x, at.y));
    ::SendMessageW(f.window(), WM_RBUTTONUP, 0, MAKELPARAM(at.x, at.y));
    ASSERT_NE(last_of(lvn_context_menu), nullptr);
    EXPECT_EQ(last_of(lvn_context_menu)->row, 8u);
    EXPECT_FALSE(last_of(lvn_context_menu)->by_keyboard);
    ::ClientToScreen(f.window(), &at);
    EXPECT_EQ(last_of(lvn_context_menu)->screen.x, at.x);
    EXPECT_TRUE(f.list->is_selected(8));

    // The wheel scrolls by the system's lines per notch.
    UINT lines = 3;
    ::SystemParametersInfoW(SPI_GETWHEELSCROLLLINES, 0, &lines, 0);
    ::SendMessageW(f.window(), WM_MOUSEWHEEL, MAKEWPARAM(0, -WHEEL_DELTA), 0);
    EXPECT_EQ(f.list->top_row(), row_index(lines));
    ::SendMessageW(f.window(), WM_VSCROLL, SB_PAGEDOWN, 0);
    EXPECT_GT(f.list->top_row(), row_index(lines) + 5);

    // Header: a click names the column; dragging a separator resizes down to the minimum.
    received.clear();
    const int header_y = f.list->row_height_pixels() / 2;
    const int x = int(f.list->columns()[0].width * f.list->scale_x());
    controls_tests::click_at(f.window(), 40, header_y);
    ASSERT_NE(last_of(lvn_header_clicked), nullptr);
    EXPECT_EQ(last_of(lvn_header_clicked)->column, 0u);
    ::SendMessageW(f.window(), WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(x, header_y));
    ::SendMessageW(f.window(), WM_MOUSEMOVE, MK_LBUTTON, MAKELPARAM(x + 50, header_y));
    EXPECT_FLOAT_EQ(f.list->columns()[0].width, 150.f + 50.f / f.list->scale_x());
    ::SendMessageW(f.window(), WM_MOUSEMOVE, MK_LBUTTON, MAKELPARAM(x - 400, header_y));
    ::SendMessageW(f.window(), WM_LBUTTONUP, 0, MAKELPARAM(x - 400, header_y));
    EXPECT_FLOAT_EQ(f.list->columns()[0].width, 30.f) << "not below the minimum width";
    ASSERT_NE(last_of(lvn_column_resized), nullptr);
    EXPECT_EQ(last_of(lvn_column_resized)->column, 0u);
}

TEST(listview, clickable_ranges_reach_the_owner_with_row_and_column)
{
    fixture f(5);
    f.text = [](row_index row, std::size_t column) -> std::wstring {
        if (column == 1)
            return L"[[[H#[share]#[[[bXXXXXXXX]]]]]] tail";
        return L"Row " + std::to_wstring(row);
    };
    f.list->invalidate_all();
    ::UpdateWindow(f.window());
    received.clear();
    const int x = int((150 + 4 + 10) * f.list->scale_x());
    f.click(2, WM_LBUTTONDOWN, x);
    ASSERT_EQ(count_of(lvn_button_clicked), 1u);
    EXPECT_EQ(last_of(lvn_button_clicked)->row, 2u);
    EXPECT_EQ(last_of(lvn_button_clicked)->column, 1u);
    EXPECT_EQ(last_of(lvn_button_clicked)->argument, L"share");
    EXPECT_TRUE(f.list->is_selected(2)) << "the click selects its row as well";
    // Past the range: no button.
    f.click(3, WM_LBUTTONDOWN, int((150 + 115) * f.list->scale_x()));
    EXPECT_EQ(count_of(lvn_button_clicked), 1u);
}

TEST(listview, rows_change_in_the_middle_and_the_selection_follows)
{
    fixture f(100, selection_mode::multiple);
    f.list->select_range(10, 20, true);
    f.list->set_focus_row(15, false);
    f.list->insert_rows(12, 5);
    EXPECT_EQ(f.list->row_count(), 105u);
    EXPECT_EQ(f.list->focus_row(), 20u);
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{10, 11, 17, 18, 19, 20, 21, 22, 23, 24}))
        << "inserted rows are not selected";

    f.list->remove_rows(15, 5);  // rows 15..19: three selected ones go
    EXPECT_EQ(f.list->selection().count(), 7u);
    EXPECT_EQ(f.list->focus_row(), 15u) << "the focus row went: the row that took its place";
    EXPECT_TRUE(f.list->is_selected(19));
    EXPECT_FALSE(f.list->is_selected(20));

    // Shift extends from an anchor that is there: rows that go take it along, and an
    // extension moves with its rows.
    f.click(8);
    f.list->set_row_count(5);
    fixture::hold(true, false);
    f.click(2);
    EXPECT_EQ(f.list->selection().count(), 1u) << "the anchor went with row 8";
    f.click(3);
    f.list->remove_rows(0, 1);
    f.click(1);
    fixture::release_keys();
    EXPECT_EQ(selected_rows(*f.list), (std::vector<row_index>{1})) << "the extension moved to rows 1 and 2";

    // A single selection whose row goes lands on a row that is there, at the end as in
    // the middle, and the owner hears of it.
    fixture g(10);
    g.list->select_row(7);
    received.clear();
    g.list->set_row_count(5);
    EXPECT_EQ(g.list->first_selected(), 4u);
    g.list->remove_rows(4, 1);
    EXPECT_EQ(g.list->first_selected(), 3u) << "the new last row";
    g.list->select_row(1);
    g.list->remove_rows(1, 1);
    EXPECT_EQ(g.list->first_selected(), 1u) << "the row that took its place";
    EXPECT_EQ(count_of(lvn_selection_changed), 4u);
    g.list->set_row_count(0);
    EXPECT_EQ(g.list->first_selected(), no_row);

    // At most 2^63 - 1 rows; the last of them is a row like any other.
    EXPECT_THROW(g.list->set_row_count(max_row_count + 1), std::length_error);
    g.list->set_row_count(max_row_count);
    g.list->set_focus_row(max_row_count - 1);
    EXPECT_EQ(g.list->row_at({5, g.row_y(max_row_count - 1)}), max_row_count - 1);
}

TEST(listview, only_rows_on_screen_are_asked_for_and_their_layouts_are_kept)
{
    fixture f(1000000);
    const row_index visible = row_index(300 / f.list->row_height_pixels()) + 1;
    f.asked = 0;
    ::InvalidateRect(f.window(), nullptr, FALSE);
    ::UpdateWindow(f.window());
    EXPECT_EQ(f.asked, 0u) << "a repaint of unchanged rows reuses their layouts";
    f.list->scroll_to(500000);
    ::UpdateWindow(f.window());
    EXPECT_LE(f.asked, visible) << "a million rows cost a screenful";
    EXPECT_GE(f.asked, visible - 1);
    f.asked = 0;
    f.list->scroll_to(500001);
    ::UpdateWindow(f.window());
    EXPECT_EQ(f.asked, 1u) << "a one-row scroll asks for the one new row";
    f.asked = 0;
    f.list->invalidate_rows(500003);
    ::UpdateWindow(f.window());
    EXPECT_EQ(f.asked, 1u) << "an invalidated row is asked for again, alone";
}

// A paint that fails halfway leaves no clip behind, and rows of another height after a
// DPI change leave no empty space under the last page.
TEST(listview, a_failed_paint_or_a_dpi_change_leaves_the_picture_whole)
{
    fixture f(100);
    bool fail = true;
    f.list->handlers().row_paint.push_back([&](const row_paint& paint) {
        if (fail && paint.row == 1)
            throw std::runtime_error("a mark that cannot be drawn");
    });
    RECT upper_half{0, 0, 400, 150};
    ::InvalidateRect(f.window(), &upper_half, FALSE);
    ::UpdateWindow(f.window());
    fail = false;
    f.list->select_row(10);  // in the lower half
    int width = 0;
    const std::vector<std::uint32_t> pixels = controls_tests::print_client(f.window(), 0, width);
    EXPECT_NE(pixels.at(std::size_t(f.row_y(10) * width + width - 10)) & 0xFFFFFF, 0xFFFFFFu)
        << "the selected row is drawn, not what the surface held";

    // A smaller system font stands in for a lower DPI: the rows shrink, more of them fit.
    NONCLIENTMETRICSW metrics{};
    metrics.cbSize = sizeof metrics;
    ::SystemParametersInfoW(SPI_GETNONCLIENTMETRICS, sizeof metrics, &metrics, 0);
    const LONG font_height = std::exchange(metrics.lfMessageFont.lfHeight, -6);
    f.list->scroll_to(100);
    ::SystemParametersInfoW(SPI_SETNONCLIENTMETRICS, sizeof metrics, &metrics, 0);
    ::SendMessageW(f.window(), WM_DPICHANGED_AFTERPARENT, 0, 0);
    metrics.lfMessageFont.lfHeight = font_height;
    ::SystemParametersInfoW(SPI_SETNONCLIENTMETRICS, sizeof metrics, &metrics, 0);
    const row_index top = f.list->top_row();
    f.list->scroll_to(100);
    EXPECT_EQ(f.list->top_row(), top) << "the top row is clamped to the new last page";
}

namespace {

// A high-contrast scheme whose window and button face are both black; it keeps which
// windows it was asked to give dark parts.
struct injected_theme final : tessel::windows::new_controls::theme_settings {
    bool contrast = true, dark = false;
    COLORREF highlight = RGB(26, 235, 255);
    mutable std::map<HWND, bool> dark_windows;
    bool dark_mode_allowed(HWND) const override { return !contrast; }
    bool apps_use_dark_theme() const override { return dark; }
    bool high_contrast() const override { return contrast; }
    COLORREF system_colour(int i) const override
    {
        return i == COLOR_HIGHLIGHT ? highlight : i == COLOR_WINDOW || i == COLOR_BTNFACE || i == COLOR_HIGHLIGHTTEXT ? 0 : 0xFFFFFF;
    }
    void theme_window(HWND window, bool d) const override { dark_windows[window] = d; }
};

}  // namespace

TEST(listview, high_contrast_shows_the_scheme_alone_and_light_mode_takes_dark_parts_back)
{
    fixture f(2);
    f.text = [](row_index row, std::size_t column) -> std::wstring {
        return row == 0 && column == 0 ? L"A name far too long for its narrow column" : L"WWWW";
    };
    f.list->handlers().cell_text.push_back(
        [](row_index row, std::size_t, std::span<cell> cells, std::optional<D2D1_COLOR_F>& row_colour) {
            if (row == 1)
                row_colour = D2D1_COLOR_F{1, 0, 0, 1}, cells[0].text_colour = D2D1_COLOR_F{1, 0, 1, 1};
            return true;
        });
    injected_theme theme;
    f.list->set_theme_settings(theme);
    f.list->select_row(0);
    ASSERT_NE(::GetFocus(), f.window());
    const auto colours_of_row = [&](row_index row) {
        int width = 0;
        const std::vector<std::uint32_t> pixels = controls_tests::print_client(f.window(), 0, width);
        std::set<std::uint32_t> colours;
        const int half = f.list->row_height_pixels() / 2;
        for (int y = f.row_y(row) - half + 1; y < f.row_y(row) + half - 1; ++y)
            for (int x = 0; x < width; ++x)
                colours.insert(pixels[std::size_t(y * width + x)] & 0xFFFFFF);
        return colours;
    };
    EXPECT_TRUE(colours_of_row(0).count(0x1AEBFF)) << "the selection shows without the focus";
    const std::set<std::uint32_t> owner_coloured = colours_of_row(1);
    EXPECT_TRUE(std::all_of(owner_coloured.begin(), owner_coloured.end(), [](std::uint32_t c) {
        return c >> 16 == (c & 0xFF) && (c >> 8 & 0xFF) == (c & 0xFF);
    })) << "owner colours give way to the scheme's black and white (and the greys of smoothed text)";
    theme.highlight = RGB(128, 0, 255);
    ::SendMessageW(f.window(), WM_SYSCOLORCHANGE, 0, 0);
    EXPECT_TRUE(colours_of_row(0).count(0x8000FF)) << "a new scheme shows at once";

    ASSERT_NE(f.list->tooltip_window(), nullptr);
    for (const bool dark : {true, false}) {
        theme.contrast = false;
        theme.dark = dark;
        ::SendMessageW(f.window(), WM_SETTINGCHANGE, 0, 0);
        EXPECT_EQ(theme.dark_windows[f.window()], dark);
        EXPECT_EQ(theme.dark_windows[f.list->tooltip_window()], dark) << "the tooltip follows the list";
    }
    EXPECT_TRUE(colours_of_row(0).count(0x8000FF))
        << "a button face that is the window colour hides no selection, high contrast or not";
}
