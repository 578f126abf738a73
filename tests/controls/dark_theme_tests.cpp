#include "controls/dark_theme.h"

#include "base/unique_handle.h"

#include <gtest/gtest.h>

using namespace tessel::windows::new_controls;

namespace {

struct fixed_settings final : theme_settings {
    bool allowed, dark;
    mutable int themed = -1;  // what theme_window was last told
    fixed_settings(bool a, bool d) : allowed(a), dark(d) {}
    bool dark_mode_allowed(HWND) const override { return allowed; }
    bool apps_use_dark_theme() const override { return dark; }
    bool high_contrast() const override { return !allowed; }
    COLORREF system_colour(int index) const override { return ::GetSysColor(index); }
    void theme_window(HWND, bool d) const override { themed = d; }
};

}  // namespace

TEST(dark_theme, applies_only_when_both_answers_are_yes)
{
    const tessel::unique_hwnd window(::CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr,
                                                       ::GetModuleHandleW(nullptr), nullptr));
    ASSERT_TRUE(window);
    for (const bool allowed : {true, false})
        for (const bool dark : {true, false}) {
            const fixed_settings settings(allowed, dark);
            EXPECT_EQ(apply_dark_theme(window.get(), settings), allowed && dark);
            EXPECT_EQ(settings.themed, int(allowed && dark)) << "a light window gets its own theme back";
        }

    // The system's answer follows the user's app theme choice.
    HKEY raw = nullptr;
    ASSERT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\Microsoft\\Windows\\CurrentVersion\\Themes\\Personalize",
                                0, nullptr, 0, KEY_SET_VALUE | KEY_QUERY_VALUE, nullptr, &raw, nullptr),
              ERROR_SUCCESS);
    const tessel::unique_hkey key(raw);
    DWORD previous = 1, size = sizeof previous;
    const bool had_value = ::RegQueryValueExW(key.get(), L"AppsUseLightTheme", nullptr, nullptr,
                                              reinterpret_cast<BYTE*>(&previous), &size) == ERROR_SUCCESS;
    const DWORD dark = 0, light = 1;
    ::RegSetValueExW(key.get(), L"AppsUseLightTheme", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dark), sizeof dark);
    EXPECT_TRUE(system_theme_settings().apps_use_dark_theme());
    ::RegSetValueExW(key.get(), L"AppsUseLightTheme", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&light), sizeof light);
    EXPECT_FALSE(system_theme_settings().apps_use_dark_theme());
    ::RegDeleteValueW(key.get(), L"AppsUseLightTheme");
    EXPECT_FALSE(system_theme_settings().apps_use_dark_theme());  // unset: light
    if (had_value)
        ::RegSetValueExW(key.get(), L"AppsUseLightTheme", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&previous),
                         sizeof previous);
}
