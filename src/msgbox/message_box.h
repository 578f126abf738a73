#pragma once
// The program's message box (dialog resource 140): a caption, a text, an optional icon,
// any standard button combination (OK, Yes, No, Abort, Retry, Cancel, Ignore, Try Again,
// Continue, with the standard command ids) and optionally the check box "Do not display
// this message anymore". It sizes itself to its text at the window's DPI and shows every
// text in the user's language.
//
// The text is markup, shown by the rich view (bold titles, grey text, icons, links);
// reading the text control gives it without markup. An activated link whose text or
// argument is an http(s) address opens in the browser. Message icons are the program's
// own vector icons, and the caption carries the application icon when the executable
// has one.
//
// Remembered answers live under HKCU "Software\QMX Software\Ulmora Tools\Message Boxes",
// one REG_DWORD per suppression name holding the button id to answer with. They are kept
// apart from the settings key on purpose: that key is rebuilt from the settings record
// on every save, and would lose them.

#include <windows.h>

#include <string_view>

namespace tessel {

inline constexpr int message_box_dialog_id = 140;
inline constexpr int message_box_icon_id = 1100;
inline constexpr int message_box_text_id = 1101;
inline constexpr int message_box_do_not_show_again_id = 111;

inline constexpr wchar_t message_box_answers_key[] = L"Software\\QMX Software\\Ulmora Tools\\Message Boxes";

struct message_box_request {
    HWND owner = nullptr;
    // Empty: the product title.
    std::wstring_view caption{};
    std::wstring_view text{};
    // One of MB_OK ... MB_CANCELTRYCONTINUE, optionally with one MB_ICON* and one MB_DEFBUTTON*.
    UINT style = MB_OK;
    // Non-empty: the box offers "Do not display this message anymore". When the user ticks
    // it and answers with anything but Cancel, the answer is remembered under this name,
    // and later requests with the name return it at once without showing anything.
    std::wstring_view suppression_name{};
};

// Shows the box modally and returns the id of the button pressed (IDOK, IDYES, ...).
// Escape and the close box answer Cancel when the box has a Cancel button and OK when OK
// is its only button; otherwise the user must pick a button.
int show_message_box(const message_box_request& request);

// The remembered answer for a suppression name, or 0.
[[nodiscard]] int remembered_answer(std::wstring_view suppression_name);
// Forgets every remembered answer, so that all messages show again.
void forget_remembered_answers();

}  // namespace tessel
