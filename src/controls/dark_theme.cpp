#include "controls/dark_theme.h"

#include <uxtheme.h>

namespace tessel::windows::new_controls {

bool system_theme_settings::dark_mode_allowed(HWND) const { return !high_contrast(); }

bool system_theme_settings::high_contrast() const
{
    HIGHCONTRASTW contrast{};
    contrast.cbSize = sizeof contrast;
    return ::SystemParametersInfoW(SPI_GETHIGHCONTRAST, sizeof contrast, &contrast, 0) &&
           (contrast.dwFlags & HCF_HIGHCONTRASTON);
}

COLORREF system_theme_settings::system_colour(int index) const { return ::GetSysColor(index); }

void system_theme_settings::theme_window(HWND window, bool dark) const
{
    // Null for both names drops the names given before: the window's theme is its own
    // again. (An empty name would switch visual styles off instead.)
    ::SetWindowTheme(window, dark ? L"DarkMode_Explorer" : nullptr, nullptr);
}

bool system_theme_settings::apps_use_dark_theme() const
{
    DWORD light = 1;
    DWORD size = sizeof light;
    if (::RegGetValueW(HKEY_CURRENT_USER, L"Software\\Microsoft\\Windows\\CurrentVersion\\Themes\\Personalize",
                       L"AppsUseLightTheme", RRF_RT_REG_DWORD, nullptr, &light, &size) != ERROR_SUCCESS)
        return false;
    return light == 0;
}

const theme_settings& default_theme_settings()
{
    static const system_theme_settings settings;
    return settings;
}

bool apply_dark_theme(HWND window, const theme_settings& settings)
{
    const bool dark = settings.dark_mode_allowed(window) && settings.apps_use_dark_theme();
    settings.theme_window(window, dark);
    return dark;
}

}  // namespace tessel::windows::new_controls
