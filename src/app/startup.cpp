#include "app/startup.h"

#include "base/failure.h"
#include "base/process_hardening.h"
#include "base/unique_handle.h"
#include "controls/dark_theme.h"
#include "format/ts_printf.h"
#include "localization/localization.h"
#include "localization/system_text.h"

#include <string>
#include <vector>

namespace servercfg {

bool restart_requested = false;

void apply_title_bar_theme(HWND window) noexcept
{
    // DWMWA_USE_IMMERSIVE_DARK_MODE; mingw's headers lack the name.
    constexpr DWORD use_dark_mode = 20;
    using set_attribute_fn = HRESULT(WINAPI*)(HWND, DWORD, const void*, DWORD);
    static const HMODULE dwm = tessel::load_system_library(L"dwmapi.dll");
    const auto set_attribute = dwm ? reinterpret_cast<set_attribute_fn>(reinterpret_cast<void*>(
                                         ::GetProcAddress(dwm, "DwmSetWindowAttribute")))
                                   : nullptr;
    if (!set_attribute)
        return;
    try {
        const auto& theme = tessel::windows::new_controls::default_theme_settings();
        const BOOL dark = theme.dark_mode_allowed(window) && theme.apps_use_dark_theme();
        // Older systems refuse the attribute: the title bar keeps the system's look.
        (void)set_attribute(window, use_dark_mode, &dark, sizeof dark);
    } catch (...) {
        // The title bar keeps the system's look.
    }
}

HWND find_window_with_title_prefix(std::wstring_view title_prefix) noexcept
{
    struct search {
        std::wstring_view prefix;
        HWND found = nullptr;
    } state{title_prefix};
    ::EnumWindows(
        [](HWND window, LPARAM lparam) -> BOOL {
            auto& state = *reinterpret_cast<search*>(lparam);
            // Only the prefix matters, so only that much of the title is read.
            wchar_t title[128];
            const int wanted = static_cast<int>(std::min<size_t>(state.prefix.size() + 1, std::size(title)));
            const int length = ::GetWindowTextW(window, title, wanted);
            if (length >= 0 && static_cast<size_t>(length) >= state.prefix.size() &&
                std::wstring_view(title, state.prefix.size()) == state.prefix) {
                state.found = window;
                return FALSE;
            }
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&state));
    return state.found;
}

std::wstring error_text(HRESULT code)
{
    std::wstring text = tessel::ui_system_message(code);
    if (text.empty())
        text = tessel::load_string(tessel::string_ids::error_unknown_system_error);
    return text;
}

std::wstring format_error_message(std::uint32_t message_id, HRESULT code)
{
    return ts_printf::format(tessel::load_string(message_id), error_text(code), static_cast<std::uint32_t>(code));
}

void start_new_copy(const std::wstring& application, std::wstring_view command_line) noexcept
{
    try {
        // CreateProcessW may write into the command line, so it gets a copy.
        std::vector<wchar_t> line(command_line.begin(), command_line.end());
        line.push_back(L'\0');
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process{};
        if (::CreateProcessW(application.c_str(), line.data(), nullptr, nullptr, FALSE, NORMAL_PRIORITY_CLASS, nullptr,
                             nullptr, &startup, &process)) {
            tessel::unique_handle process_handle(process.hProcess), thread_handle(process.hThread);
        }
    } catch (...) {
        // Not reported: the user can start the program again.
    }
}

}  // namespace servercfg
