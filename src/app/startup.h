#pragma once
// The pieces of the program's start-up that stand on their own.

#include "localization/localization.h"

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace servercfg {

// "QMX Software Ulmora Tools Server": caption of the main window and of every message
// box, and what a second start looks for.
inline constexpr std::wstring_view product_title = L"QMX Software Ulmora Tools Server";

// Set by the main window after a confirmed language change; wWinMain reads it once, after
// the message loop, and then starts a new copy.
extern bool restart_requested;

// The exit code when the command line cannot be read.
inline constexpr int exit_code_bad_command_line = ERROR_INVALID_PARAMETER;

// Gives the main window's title bar the system's dark or light look (DWM), following the
// user's app theme. Silently does nothing where DWM cannot do it.
void apply_title_bar_theme(HWND window) noexcept;

// The first top-level window whose title starts with `title_prefix`, compared case
// sensitively unit by unit (a shorter title never matches); null when there is none.
[[nodiscard]] HWND find_window_with_title_prefix(std::wstring_view title_prefix) noexcept;

// The user-facing text of a failed call: the system's text of `code`, or the program's
// own "Unknown error" when the system has none.
[[nodiscard]] std::wstring error_text(HRESULT code);

// Formats one of the program's error messages, "{0}" the error text and "{1}" the code.
[[nodiscard]] std::wstring format_error_message(std::uint32_t message_id, HRESULT code);

// Starts a new copy of the program with the very same command line, without waiting.
// The program is named by its own path (application), so that nothing is searched for: an
// unquoted command line with blanks would otherwise be tried piece by piece ("C:\Program"
// first). A failure to start is not reported.
void start_new_copy(const std::wstring& application, std::wstring_view command_line) noexcept;

}  // namespace servercfg
