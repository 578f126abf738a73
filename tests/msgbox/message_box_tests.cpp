#include "msgbox/message_box.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using tessel::message_box_request;
using tessel::show_message_box;

constexpr wchar_t caption[] = L"message box test";

std::wstring text_of(HWND window)
{
    wchar_t buffer[256] = {};
    ::GetWindowTextW(window, buffer, static_cast<int>(std::size(buffer)));
    return buffer;
}

struct seen_box {
    std::vector<std::wstring> buttons;  // visible buttons, left to right
    bool check_box_visible = false;
    RECT client{};
    RECT text{};
    RECT lowest_button{};
    int default_id = 0;
    std::wstring message;  // what GetDlgItem(1101) reads
    bool rich_view_shown = false;
    RECT rich_view{};
    HICON icon = nullptr;
    int icon_width = 0;
    int icon_height = 0;
};

// Waits on another thread for the box, records what it shows, then lets `act` answer it.
// The box is always closed in the end, so a failing test cannot hang the run.
class box_driver {
public:
    explicit box_driver(std::function<void(HWND)> act)
        : thread_([this, act = std::move(act)] {
              HWND box = nullptr;
              // Found once it is on screen, that is after it has laid itself out.
              for (int i = 0; i < 250 && !box; ++i) {
                  box = ::FindWindowW(L"#32770", caption);
                  if (!box || !::IsWindowVisible(box)) {
                      box = nullptr;
                      ::Sleep(20);
                  }
              }
              if (!box)
                  return;
              found_ = true;
              inspect(box);
              act(box);
              // Generous: on a loaded machine the box may take seconds to act on a click.
              for (int i = 0; i < 500 && ::IsWindow(box); ++i)
                  ::Sleep(20);
              if (::IsWindow(box)) {
                  still_open_ = true;
                  ::EndDialog(box, 0);
                  ::PostMessageW(box, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), 0);
              }
          })
    {
    }
    ~box_driver()
    {
        if (thread_.joinable())
            thread_.join();
    }
    void join() { thread_.join(); }

    bool found_ = false;
    bool still_open_ = false;
    seen_box seen_;

private:
    void inspect(HWND box)
    {
        const int ids[] = {IDOK, IDYES, IDNO, IDABORT, IDRETRY, IDCANCEL, IDIGNORE, IDTRYAGAIN, IDCONTINUE};
        std::vector<std::pair<LONG, std::wstring>> visible;
        for (const int id : ids) {
            HWND button = ::GetDlgItem(box, id);
            if (button && ::IsWindowVisible(button)) {
                RECT r;
                ::GetWindowRect(button, &r);
                ::MapWindowPoints(nullptr, box, reinterpret_cast<POINT*>(&r), 2);
                visible.emplace_back(r.left, text_of(button));
                if (r.bottom > seen_.lowest_button.bottom)
                    seen_.lowest_button = r;
            }
        }
        std::sort(visible.begin(), visible.end());
        for (auto& [x, text] : visible)
            seen_.buttons.push_back(text);
        seen_.check_box_visible = ::IsWindowVisible(::GetDlgItem(box, tessel::message_box_do_not_show_again_id)) != FALSE;
        ::GetClientRect(box, &seen_.client);
        ::GetWindowRect(::GetDlgItem(box, tessel::message_box_text_id), &seen_.text);
        ::MapWindowPoints(nullptr, box, reinterpret_cast<POINT*>(&seen_.text), 2);
        seen_.default_id = LOWORD(::SendMessageW(box, DM_GETDEFID, 0, 0));

        seen_.message = text_of(::GetDlgItem(box, tessel::message_box_text_id));
        if (HWND view = ::FindWindowExW(box, nullptr, L"qmx.tessel.richview", nullptr)) {
            seen_.rich_view_shown = ::IsWindowVisible(view) != FALSE;
            ::GetWindowRect(view, &seen_.rich_view);
            ::MapWindowPoints(nullptr, box, reinterpret_cast<POINT*>(&seen_.rich_view), 2);
        }
        seen_.icon = reinterpret_cast<HICON>(
            ::SendDlgItemMessageW(box, tessel::message_box_icon_id, STM_GETICON, 0, 0));
        ICONINFO info{};
        if (seen_.icon && ::GetIconInfo(seen_.icon, &info)) {
            BITMAP bitmap{};
            ::GetObjectW(info.hbmColor ? info.hbmColor : info.hbmMask, sizeof bitmap, &bitmap);
            seen_.icon_width = bitmap.bmWidth;
            seen_.icon_height = info.hbmColor ? bitmap.bmHeight : bitmap.bmHeight / 2;
            if (info.hbmColor)
                ::DeleteObject(info.hbmColor);
            ::DeleteObject(info.hbmMask);
        }
    }

    std::thread thread_;
};

void click(HWND box, int id)
{
    ::PostMessageW(::GetDlgItem(box, id), BM_CLICK, 0, 0);
}

void press(HWND box, UINT key)
{
    HWND target = ::GetDlgItem(box, IDOK);
    for (const int id : {IDOK, IDYES, IDRETRY, IDCANCEL, IDABORT})
        if (::IsWindowVisible(::GetDlgItem(box, id))) {
            target = ::GetDlgItem(box, id);
            break;
        }
    ::PostMessageW(target, WM_KEYDOWN, key, 0);
}

TEST(message_box, each_standard_combination_shows_its_buttons_and_returns_the_one_pressed)
{
    const struct {
        UINT style;
        std::vector<std::wstring> buttons;
        int press;
    } cases[] = {
        {MB_OK, {L"OK"}, IDOK},
        {MB_OKCANCEL, {L"OK", L"Cancel"}, IDCANCEL},
        {MB_ABORTRETRYIGNORE, {L"Abort", L"Retry", L"Ignore"}, IDIGNORE},
        {MB_YESNOCANCEL, {L"Yes", L"No", L"Cancel"}, IDNO},
        {MB_YESNO, {L"Yes", L"No"}, IDYES},
        {MB_RETRYCANCEL, {L"Retry", L"Cancel"}, IDRETRY},
        {MB_CANCELTRYCONTINUE, {L"Cancel", L"Try Again", L"Continue"}, IDCONTINUE},
    };
    for (const auto& c : cases) {
        box_driver driver([&](HWND box) { click(box, c.press); });
        const int answer = show_message_box({.caption = caption, .text = L"Pick one.", .style = c.style | MB_ICONQUESTION});
        driver.join();
        ASSERT_TRUE(driver.found_);
        EXPECT_EQ(driver.seen_.buttons, c.buttons) << "style " << c.style;
        EXPECT_EQ(answer, c.press) << "style " << c.style;
        EXPECT_FALSE(driver.seen_.check_box_visible);
        EXPECT_FALSE(driver.still_open_);
    }
}

TEST(message_box, enter_takes_the_default_button_and_escape_cancels_only_where_it_may)
{
    {
        box_driver driver([](HWND box) { press(box, VK_RETURN); });
        EXPECT_EQ(show_message_box({.caption = caption, .text = L"x", .style = MB_YESNOCANCEL | MB_DEFBUTTON2}), IDNO);
        driver.join();
        EXPECT_EQ(driver.seen_.default_id, IDNO);
    }
    {
        box_driver driver([](HWND box) { press(box, VK_ESCAPE); });
        EXPECT_EQ(show_message_box({.caption = caption, .text = L"x", .style = MB_OKCANCEL}), IDCANCEL);
    }
    {
        box_driver driver([](HWND box) { press(box, VK_ESCAPE); });
        EXPECT_EQ(show_message_box({.caption = caption, .text = L"x", .style = MB_OK}), IDOK);
    }
    {
        // Yes/No has no Cancel: Escape and the close box do nothing, a button must be chosen.
        box_driver driver([](HWND box) {
            press(box, VK_ESCAPE);
            ::PostMessageW(box, WM_SYSCOMMAND, SC_CLOSE, 0);
            ::Sleep(300);
            click(box, IDNO);
        });
        EXPECT_EQ(show_message_box({.caption = caption, .text = L"x", .style = MB_YESNO}), IDNO);
    }
}

TEST(message_box, grows_to_fit_a_long_text_and_keeps_buttons_inside)
{
    std::wstring long_text;
    for (int i = 0; i < 40; ++i)
        long_text += L"The device is in use on this computer and will stop working here. ";
    long_text += L"\n\nLast line.";
    seen_box small, large;
    {
        box_driver driver([](HWND box) { click(box, IDOK); });
        show_message_box({.caption = caption, .text = L"Short.", .style = MB_OK | MB_ICONINFORMATION});
        driver.join();
        small = driver.seen_;
    }
    {
        box_driver driver([](HWND box) { click(box, IDOK); });
        show_message_box({.caption = caption, .text = long_text, .style = MB_OK | MB_ICONWARNING});
        driver.join();
        large = driver.seen_;
    }
    EXPECT_GT(large.client.bottom, small.client.bottom + 40);
    EXPECT_GT(large.client.right, small.client.right);
    for (const seen_box& box : {small, large}) {
        EXPECT_LE(box.text.bottom, box.lowest_button.top) << "text and buttons must not overlap";
        EXPECT_LE(box.lowest_button.right, box.client.right);
        EXPECT_LE(box.lowest_button.bottom, box.client.bottom);
        EXPECT_GE(box.text.left, 0);
    }
}

TEST(message_box, renders_markup_and_reads_as_plain_text)
{
    int line_height = 0;
    {
        box_driver driver([](HWND box) { click(box, IDOK); });
        show_message_box({.caption = caption, .text = L"One line.", .style = MB_OK});
        driver.join();
        line_height = driver.seen_.text.bottom - driver.seen_.text.top;
        EXPECT_EQ(driver.seen_.message, L"One line.");
        EXPECT_LT(driver.seen_.text.left, 20) << "without an icon style the text takes the icon's place";
    }
    box_driver driver([](HWND box) { click(box, IDOK); });
    show_message_box({.caption = caption,
                      .text = L"[[[b[[[s:120:A title]]]]]]\n\nThe body, with [[[T#[#777]#grey]]] text.",
                      .style = MB_OK | MB_ICONWARNING});
    driver.join();
    ASSERT_TRUE(driver.found_);
    const seen_box& seen = driver.seen_;
    EXPECT_EQ(seen.message, L"A title\n\nThe body, with grey text.");
    EXPECT_TRUE(seen.rich_view_shown);
    // The view sits where the text control was laid out, and is tall enough for three
    // lines, the first of them larger.
    EXPECT_EQ(seen.rich_view.left, seen.text.left);
    EXPECT_EQ(seen.rich_view.top, seen.text.top);
    EXPECT_EQ(seen.rich_view.bottom, seen.text.bottom);
    EXPECT_GT(seen.text.bottom - seen.text.top, 3 * line_height) << "one line: " << line_height;
    EXPECT_LE(seen.text.bottom, seen.lowest_button.top);
}

TEST(message_box, message_icons_come_from_the_program_icons_at_the_box_dpi)
{
    const int expected = ::GetSystemMetrics(SM_CXICON);
    for (const UINT style : {MB_ICONINFORMATION, MB_ICONWARNING, MB_ICONERROR, MB_ICONQUESTION}) {
        box_driver driver([](HWND box) { click(box, IDOK); });
        show_message_box({.caption = caption, .text = L"Icon.", .style = MB_OK | style});
        driver.join();
        ASSERT_TRUE(driver.found_);
        ASSERT_NE(driver.seen_.icon, nullptr) << "style " << style;
        EXPECT_EQ(driver.seen_.icon_width, expected) << "style " << style;
        EXPECT_EQ(driver.seen_.icon_height, expected) << "style " << style;
        // Not the system's shared icon.
        for (const wchar_t* system : {IDI_INFORMATION, IDI_WARNING, IDI_ERROR, IDI_QUESTION})
            EXPECT_NE(driver.seen_.icon, ::LoadIconW(nullptr, system)) << "style " << style;
    }
}

TEST(message_box, a_ticked_do_not_show_again_remembers_the_answer)
{
    tessel::forget_remembered_answers();
    const std::wstring name = L"test.remembered";
    {
        box_driver driver([](HWND box) {
            click(box, tessel::message_box_do_not_show_again_id);
            ::Sleep(100);
            click(box, IDNO);
        });
        EXPECT_EQ(show_message_box({.caption = caption, .text = L"Again?", .style = MB_YESNO, .suppression_name = name}), IDNO);
        driver.join();
        EXPECT_TRUE(driver.seen_.check_box_visible);
    }
    EXPECT_EQ(tessel::remembered_answer(name), IDNO);
    // Answered at once, without a box.
    EXPECT_EQ(show_message_box({.caption = caption, .text = L"Again?", .style = MB_YESNO, .suppression_name = name}), IDNO);
    EXPECT_EQ(::FindWindowW(L"#32770", caption), nullptr);

    // A remembered answer the box cannot give (another button set) shows the box again.
    {
        box_driver driver([](HWND box) { click(box, IDOK); });
        EXPECT_EQ(show_message_box({.caption = caption, .text = L"x", .style = MB_OK, .suppression_name = name}), IDOK);
        driver.join();
        EXPECT_TRUE(driver.found_);
    }
    // Cancel is never remembered.
    {
        box_driver driver([](HWND box) {
            click(box, tessel::message_box_do_not_show_again_id);
            ::Sleep(100);
            click(box, IDCANCEL);
        });
        show_message_box({.caption = caption, .text = L"x", .style = MB_OKCANCEL, .suppression_name = L"test.cancel"});
    }
    EXPECT_EQ(tessel::remembered_answer(L"test.cancel"), 0);

    tessel::forget_remembered_answers();
    EXPECT_EQ(tessel::remembered_answer(name), 0);
}

}  // namespace
