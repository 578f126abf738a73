#include "base/dpi.h"

namespace tessel::windows {
namespace {

template <class F>
F user32_function(const char* name) noexcept
{
    HMODULE user32 = ::GetModuleHandleW(L"user32");
    return user32 ? reinterpret_cast<F>(reinterpret_cast<void*>(::GetProcAddress(user32, name))) : nullptr;
}

}  // namespace

UINT dpi_for_window(HWND window) noexcept
{
    static const auto get_dpi_for_window = user32_function<UINT(WINAPI*)(HWND)>("GetDpiForWindow");
    if (get_dpi_for_window && window)
        if (const UINT dpi = get_dpi_for_window(window))
            return dpi;
    HDC screen = ::GetDC(nullptr);
    const int dpi = screen ? ::GetDeviceCaps(screen, LOGPIXELSY) : 96;
    if (screen)
        ::ReleaseDC(nullptr, screen);
    return dpi > 0 ? static_cast<UINT>(dpi) : 96;
}

int system_metric_for_dpi(int index, UINT dpi) noexcept
{
    static const auto for_dpi = user32_function<int(WINAPI*)(int, UINT)>("GetSystemMetricsForDpi");
    if (for_dpi)
        return for_dpi(index, dpi);
    return ::GetSystemMetrics(index);
}

bool system_parameters_for_dpi(UINT action, UINT param, void* data, UINT dpi) noexcept
{
    static const auto for_dpi =
        user32_function<BOOL(WINAPI*)(UINT, UINT, void*, UINT, UINT)>("SystemParametersInfoForDpi");
    if (for_dpi)
        return for_dpi(action, param, data, 0, dpi) != FALSE;
    return ::SystemParametersInfoW(action, param, data, 0) != FALSE;
}

}  // namespace tessel::windows
