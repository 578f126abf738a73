#pragma once
// The program's icon on its windows (caption, Alt+Tab, taskbar), at each window's DPI.

#include "base/unique_handle.h"

#include <windows.h>

namespace tessel::windows {

// ICON resource 1 of the executable: the application icon, in every size it is drawn at.
inline constexpr int application_icon_id = 1;

// The big and small icon of one window. A window does not own the icons set on it, so
// this must live as long as the window does; apply again when the window's DPI changes.
class window_icons {
public:
    // Loads the sizes the window's DPI asks for and sets them. Without the resource (an
    // executable that carries no icon) the window keeps what it has.
    void apply(HWND window, int resource_id = application_icon_id) noexcept;

private:
    unique_hicon big_;
    unique_hicon small_;
};

}  // namespace tessel::windows
