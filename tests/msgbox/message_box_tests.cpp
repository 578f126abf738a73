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
              for (int i = 0; i < 100 && ::IsWindow(box); ++i)
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
