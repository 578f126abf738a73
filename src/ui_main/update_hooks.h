#pragma once
// Where the update check plugs into the main window. The main window knows nothing of
// the web: wWinMain fills these with the update check's functions (or leaves them empty,
// and the window then offers no update command).

#include <windows.h>

#include <functional>
#include <string>
#include <string_view>

namespace servercfg {

struct update_hooks {
    // The About box's "Check for updates" button: a check that the user asked for,
    // owned by the About box. Empty: the button is hidden.
    std::function<void(HWND owner)> check_for_updates;
    // Called once when the main window has been shown and filled: the automatic check
    // and the promotion notice start from here.
    std::function<void(HWND main_window)> main_window_ready;
    // The markup of the main window's promotion line (a link to the promotion's address)
    // as it should read now; empty, or no function: the line is hidden.
    std::function<std::wstring()> promotion;
    // Opens a link of the promotion line the user followed.
    std::function<void(std::wstring_view address)> open_promotion;
    // Asked before the main window closes (close box, Close, Escape, WM_CLOSE): false keeps
    // it open, and the hook may destroy the window itself later, once work that must not be
    // cut off has ended. Empty: the window closes at once.
    std::function<bool(HWND main_window)> may_close;
};

}  // namespace servercfg
