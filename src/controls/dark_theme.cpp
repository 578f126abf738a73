#include "controls/dark_theme.h"

#include <uxtheme.h>

namespace tessel::windows::new_controls {

bool system_theme_settings::dark_mode_allowed(HWND) const
{
    HIGHCONTRASTW contrast{};
    contrast.cbSize = sizeof contrast;
    if (::SystemParametersInfoW(SPI_GETHIGHCONTRAST, sizeof contrast, &contrast, 0) &&
        (contrast.dwFlags & HCF_HIGHCONTRASTON))
        return false;
    return true;
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
    if (!settings.dark_mode_allowed(window) || !settings.apps_use_dark_theme())
        return false;
    ::SetWindowTheme(window, L"DarkMode_Explorer", nullptr);
    return true;
}

}  // namespace tessel::windows::new_controls
