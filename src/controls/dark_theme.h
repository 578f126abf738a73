#pragma once
// Dark theme of native window parts (scroll bars, headers, tooltips of the custom
// controls): follows the user's app theme choice in the system settings.

#include <windows.h>

namespace tessel::windows::new_controls {

// The questions the toolkit asks before darkening a window. The program's answers come
// from the system; tests give their own.
class theme_settings {
public:
    virtual ~theme_settings() = default;
    // Whether dark parts can be used at all: never under a high-contrast scheme, whose
    // colours the user chose on purpose.
    [[nodiscard]] virtual bool dark_mode_allowed(HWND window) const = 0;
    // Whether the user asked for dark apps.
    [[nodiscard]] virtual bool apps_use_dark_theme() const = 0;
};

// Reads HKCU\Software\Microsoft\Windows\CurrentVersion\Themes\Personalize
// "AppsUseLightTheme" (0 means dark; missing means light) and the high-contrast flag.
class system_theme_settings final : public theme_settings {
public:
    [[nodiscard]] bool dark_mode_allowed(HWND window) const override;
    [[nodiscard]] bool apps_use_dark_theme() const override;
};

[[nodiscard]] const theme_settings& default_theme_settings();

// When both answers are yes, gives the window the "DarkMode_Explorer" theme and returns
// true; otherwise leaves it alone and returns false.
bool apply_dark_theme(HWND window, const theme_settings& settings = default_theme_settings());

}  // namespace tessel::windows::new_controls
