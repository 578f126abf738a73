#include "controls/rich_view.h"

#include "test_support.h"

#include <gtest/gtest.h>

using namespace tessel::windows::new_controls;

namespace {

struct notification {
    UINT_PTR id;
    std::size_t link;
    std::wstring argument;
    bool by_keyboard;
};

std::vector<notification> received;

LRESULT CALLBACK owner_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == WM_NOTIFY) {
        const auto* header = reinterpret_cast<const NMHDR*>(lparam);
        if (header->code == rvn_link_activated) {
            const auto* info = reinterpret_cast<const nm_rich_view_link*>(lparam);
            received.push_back({header->idFrom, info->link_index, info->argument, info->by_keyboard});
        }
        return 0;
    }
    return ::DefWindowProcW(window, message, wparam, lparam);
}

// A top-level owner with one STATIC placeholder (id 1001), as a dialog would have.
struct owner_window {
    owner_window()
    {
        window = controls_tests::owner_window(L"controls_tests.owner", owner_proc, 500, 400);
        placeholder = ::CreateWindowExW(0, L"STATIC", L"[[[bHello]]] world", WS_CHILD | WS_VISIBLE, 10, 20, 300, 100,
                                        window.get(), reinterpret_cast<HMENU>(1001), ::GetModuleHandleW(nullptr),
                                        nullptr);
        received.clear();
    }
    tessel::unique_hwnd window;
    HWND placeholder = nullptr;
};

RECT child_rect(HWND child)
{
    RECT r{};
    ::GetWindowRect(child, &r);
    ::MapWindowPoints(nullptr, ::GetParent(child), reinterpret_cast<POINT*>(&r), 2);
    return r;
}

int center_x(const D2D1_RECT_F& r) { return int((r.left + r.right) / 2); }
int center_y(const D2D1_RECT_F& r) { return int((r.top + r.bottom) / 2); }

LPARAM point_of(const D2D1_RECT_F& r) { return MAKELPARAM(center_x(r), center_y(r)); }

}  // namespace

TEST(rich_view, attaches_to_a_placeholder_and_follows_it)
{
    owner_window owner;
    rich_view* view = rich_view::attach(owner.placeholder);
    ASSERT_NE(view, nullptr);
    const HWND window = view->window();
    EXPECT_EQ(::GetPropW(owner.placeholder, rich_view_property), view);
    EXPECT_EQ(rich_view::from_placeholder(owner.placeholder), view);
    EXPECT_EQ(rich_view::attach(owner.placeholder), view);  // once per placeholder
    EXPECT_FALSE(::IsWindowVisible(owner.placeholder));
    EXPECT_TRUE(::IsWindowVisible(window));
    RECT r = child_rect(window);
    EXPECT_EQ(r.left, 10);
    EXPECT_EQ(r.right, 310);

    // It shows the placeholder's text; readers get it without markup.
    EXPECT_EQ(view->text(), L"[[[bHello]]] world");
    wchar_t text[64] = {};
    EXPECT_EQ(::GetWindowTextW(window, text, 64), 11);
    EXPECT_STREQ(text, L"Hello world");
    // Truncated into a small buffer, still terminated.
    EXPECT_EQ(::SendMessageW(window, WM_GETTEXT, 4, reinterpret_cast<LPARAM>(text)), 3);
    EXPECT_STREQ(text, L"Hel");
    // GetDlgItem finds the placeholder first: it too reads without markup.
    EXPECT_EQ(::GetWindowTextW(owner.placeholder, text, 64), 11);
    EXPECT_STREQ(text, L"Hello world");

    // Dialog code talks to the placeholder; the view follows.
    ::SetWindowTextW(owner.placeholder, L"[[[iNew]]] text");
    EXPECT_EQ(view->text(), L"[[[iNew]]] text");
    view->set_text(L"[[[uSet]]] directly");
    ::GetWindowTextW(owner.placeholder, text, 64);
    EXPECT_STREQ(text, L"Set directly");
    ::SetWindowPos(owner.placeholder, nullptr, 30, 40, 200, 60, SWP_NOZORDER | SWP_NOACTIVATE);
    r = child_rect(window);
    EXPECT_EQ(r.top, 40);
    EXPECT_EQ(r.right - r.left, 200);

    // Painting goes through Direct2D on the window; it must simply work.
    ::InvalidateRect(window, nullptr, FALSE);
    EXPECT_TRUE(::UpdateWindow(window));

    view->detach();
    EXPECT_FALSE(::IsWindow(window));
    EXPECT_EQ(::GetPropW(owner.placeholder, rich_view_property), nullptr);
    EXPECT_TRUE(::IsWindowVisible(owner.placeholder));

    // Destroying the dialog takes an attached view with it and removes the record.
    rich_view* again = rich_view::attach(owner.placeholder);
    const HWND again_window = again->window();
    ::DestroyWindow(owner.placeholder);
    EXPECT_FALSE(::IsWindow(again_window));
}

TEST(rich_view, measures_the_height_of_wrapped_text)
{
    owner_window owner;
    rich_view* view = rich_view::attach(owner.placeholder);
    view->set_text(L"");
    EXPECT_GE(view->measure_height(100), 1);
    view->set_text(L"one line");
    const int one = view->measure_height(400);
    EXPECT_GT(one, 5);
    view->set_text(L"[[[b[[[s:120:A title]]]]]]\nSome body text that is long enough to wrap in a narrow view, "
                   L"several times over when it is narrow.");
    const int wide = view->measure_height(1000);
    const int narrow = view->measure_height(120);
    EXPECT_GT(wide, one);       // two lines, one of them larger
    EXPECT_GT(narrow, 2 * wide);
    EXPECT_EQ(view->measure_height(120), narrow);  // measuring changes nothing
    // The widest line fits the limit, and at that width the text needs no more height.
    const SIZE fitted = view->measure(300);
    EXPECT_LE(fitted.cx, 300);
    EXPECT_GT(fitted.cx, 200);
    EXPECT_EQ(view->measure_height(fitted.cx), fitted.cy);
    view->set_text(L"short");
    const SIZE small = view->measure(300);
    EXPECT_LT(small.cx, 100);
    EXPECT_EQ(small.cy, one);
    view->detach();
}

TEST(rich_view, links_are_activated_by_mouse_and_keyboard)
{
    owner_window owner;
    rich_view* view = rich_view::attach(owner.placeholder);
    view->set_text(L"Read [[[h#[Opens the help]#the manual]]] or [[[H[[[bbutton]]]]]] now.");
    const HWND window = view->window();
    const rich_layout& layout = view->layout();
    ASSERT_EQ(layout.links.size(), 2u);
    const D2D1_RECT_F first = layout.range_rects(layout.links[0].range).at(0);
    const D2D1_RECT_F second = layout.range_rects(layout.links[1].range).at(0);

    controls_tests::click_at(window, center_x(first), center_y(first));
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].id, 1001u);
    EXPECT_EQ(received[0].link, 0u);
    EXPECT_EQ(received[0].argument, L"Opens the help");
    EXPECT_FALSE(received[0].by_keyboard);

    // Pressed on one link and released elsewhere: nothing.
    ::SendMessageW(window, WM_LBUTTONDOWN, MK_LBUTTON, point_of(first));
    ::SendMessageW(window, WM_LBUTTONUP, 0, point_of(second));
    controls_tests::click_at(window, 1, 1);
    EXPECT_EQ(received.size(), 1u);

    // The hand over links, the arrow elsewhere.
    ::SendMessageW(window, WM_MOUSEMOVE, 0, point_of(second));
    EXPECT_EQ(::SendMessageW(window, WM_SETCURSOR, WPARAM(window), MAKELPARAM(HTCLIENT, WM_MOUSEMOVE)), TRUE);
    ::SendMessageW(window, WM_MOUSEMOVE, 0, MAKELPARAM(1, 1));
    EXPECT_EQ(::SendMessageW(window, WM_SETCURSOR, WPARAM(window), MAKELPARAM(HTCLIENT, WM_MOUSEMOVE)), FALSE);

    // Keyboard: arrows walk the links in reading order, Enter and Space activate.
    EXPECT_NE(::SendMessageW(window, WM_GETDLGCODE, 0, 0) & DLGC_WANTARROWS, 0);
    EXPECT_EQ(view->focused_link(), std::optional<std::size_t>(0));  // the click focused it
    ::SendMessageW(window, WM_KEYDOWN, VK_RIGHT, 0);
    EXPECT_EQ(view->focused_link(), std::optional<std::size_t>(1));
    ::SendMessageW(window, WM_KEYDOWN, VK_RETURN, 0);
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[1].link, 1u);
    EXPECT_TRUE(received[1].by_keyboard);
    ::SendMessageW(window, WM_KEYDOWN, VK_RIGHT, 0);  // wraps round
    ::SendMessageW(window, WM_KEYDOWN, VK_SPACE, 0);
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[2].link, 0u);
    ::SendMessageW(window, WM_KEYDOWN, VK_LEFT, 0);
    EXPECT_EQ(view->focused_link(), std::optional<std::size_t>(1));

    // A new text drops the link focus and redraws.
    view->set_text(L"no links");
    EXPECT_EQ(view->focused_link(), std::nullopt);
    EXPECT_EQ(::SendMessageW(window, WM_GETDLGCODE, 0, 0), 0);
    RECT dirty{};
    EXPECT_TRUE(::GetUpdateRect(window, &dirty, FALSE));
    view->detach();
}

TEST(rich_view, markup_cut_off_at_the_end_reads_as_it_is_shown)
{
    owner_window owner;
    rich_view* view = rich_view::attach(owner.placeholder);
    view->set_text(L"broken [[[");
    wchar_t text[32] = {};
    ::GetWindowTextW(view->window(), text, 32);
    EXPECT_STREQ(text, L"broken ");
    // What readers get is what the layout shows, unit for unit.
    std::size_t shown = 0;
    for (const cluster_box& cluster : view->layout().clusters())
        shown += cluster.length;
    EXPECT_EQ(static_cast<std::size_t>(::GetWindowTextLengthW(view->window())), shown);
    ::GetWindowTextW(owner.placeholder, text, 32);
    EXPECT_STREQ(text, L"broken ");
    EXPECT_GE(view->measure_height(100), 1);
    view->detach();
}

// A window without a font takes the system's message font, whose pixel height belongs to
// the DPI asked for: in DIPs it is the same size at every DPI.
TEST(rich_view, message_font_fallback_is_sized_in_dips)
{
    const dip_font at_96 = message_font_in_dips(96);
    const dip_font at_144 = message_font_in_dips(144);
    ASSERT_GT(at_96.size_dips, 0.f);
    EXPECT_NEAR(at_144.size_dips, at_96.size_dips, 0.75f);
    EXPECT_GT(std::abs(at_144.font.lfHeight), std::abs(at_96.font.lfHeight));
    EXPECT_STREQ(at_144.font.lfFaceName, at_96.font.lfFaceName);
}

TEST(rich_view, takes_the_tab_stop_only_with_links)
{
    owner_window owner;
    rich_view* view = rich_view::attach(owner.placeholder);
    EXPECT_EQ(::GetWindowLongW(view->window(), GWL_STYLE) & WS_TABSTOP, 0);
    view->set_text(L"see [[[hthis]]]");
    EXPECT_NE(::GetWindowLongW(view->window(), GWL_STYLE) & WS_TABSTOP, 0);
    view->set_text(L"[[[H[[[v#[message.error]# ]]]]]]");
    EXPECT_NE(::GetWindowLongW(view->window(), GWL_STYLE) & WS_TABSTOP, 0);
    view->set_text(L"plain");
    EXPECT_EQ(::GetWindowLongW(view->window(), GWL_STYLE) & WS_TABSTOP, 0);
    view->detach();
}
