#pragma once
// DPI queries that work on every Windows version the program supports: the per-monitor
// functions are looked up at run time, with the system-wide answers as the fallback.

#include <windows.h>

namespace tessel::windows {

// The window's DPI (96 on systems without per-monitor awareness).
[[nodiscard]] UINT dpi_for_window(HWND window) noexcept;
[[nodiscard]] int system_metric_for_dpi(int index, UINT dpi) noexcept;
[[nodiscard]] bool system_parameters_for_dpi(UINT action, UINT param, void* data, UINT dpi) noexcept;

// value × dpi / 96, rounded to nearest.
[[nodiscard]] constexpr int scale_for_dpi(int value, UINT dpi) noexcept
{
    return static_cast<int>((static_cast<long long>(value) * dpi + 48) / 96);
}

}  // namespace tessel::windows
