#pragma once
// Dark theme of native window parts (scroll bars, headers, tooltips of the custom
// controls): follows the user's app theme choice in the system settings.

#include <windows.h>

namespace tessel::windows::new_controls {

// What the toolkit asks of the system's theme before it colours a window, and the one
// thing it does to it. The program's answers come from the system; tests give their own.
class theme_settings {
public:
    virtual ~theme_settings() = default;
    // Whether dark parts can be used at all: never under a high-contrast scheme, whose
    // colours the user chose on purpose.
    [[nodiscard]] virtual bool dark_mode_allowed(HWND window) const = 0;
    // Whether the user asked for dark apps.
    [[nodiscard]] virtual bool apps_use_dark_theme() const = 0;
    // Whether a high-contrast scheme is on: then only its system colours may be used.
    [[nodiscard]] virtual bool high_contrast() const = 0;
    // A colour of the scheme (COLOR_WINDOW, COLOR_HIGHLIGHT, ...).
    [[nodiscard]] virtual COLORREF system_colour(int index) const = 0;
    // Gives the window's native parts (scroll bars, a tooltip) the "DarkMode_Explorer"
    // theme, or the window's own theme back.
    virtual void theme_window(HWND window, bool dark) const = 0;
};

// Reads HKCU\Software\Microsoft\Windows\CurrentVersion\Themes\Personalize
// "AppsUseLightTheme" (0 means dark; missing means light), the high-contrast flag and the
// system colours, and themes windows with SetWindowTheme.
class system_theme_settings final : public theme_settings {
public:
    [[nodiscard]] bool dark_mode_allowed(HWND window) const override;
    [[nodiscard]] bool apps_use_dark_theme() const override;
    [[nodiscard]] bool high_contrast() const override;
    [[nodiscard]] COLORREF system_colour(int index) const override;
    void theme_window(HWND window, bool dark) const override;
};

[[nodiscard]] const theme_settings& default_theme_settings();

// When both answers are yes, gives the window the "DarkMode_Explorer" theme and returns
// true; otherwise gives it its own theme back (undoing an earlier dark one) and returns
// false.
bool apply_dark_theme(HWND window, const theme_settings& settings = default_theme_settings());

}  // namespace tessel::windows::new_controls
