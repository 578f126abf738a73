// Preview of the foundation: a window that shows texts produced by the format language
// with real system data. It is replaced by the utility's own start-up and main dialog.

#include "base/failure.h"
#include "base/unique_handle.h"
#include "format/ts_printf.h"

#include <windows.h>

#include <chrono>
#include <string>

namespace {

constexpr wchar_t product_title[] = L"QMX Software Ulmora Tools Server";

std::wstring preview_text()
{
    std::wstring text;
    const HRESULT code = E_ACCESSDENIED;
    ts_printf::compiled_format error_message(
        L"Error connecting to Ulmora Tools Server API: {0} ({1ub016x})\n\nTry to reinstall the product.");
    ts_printf::format_to(text, error_message, tessel::system_message(code), static_cast<unsigned long>(code));
    text += L"\n\n";
    text += ts_printf::format(L"Export file name: {0}.{1t(%Y%m%d-%H%M%S)}.xml", L"de",
                              std::chrono::system_clock::now());
    text += L"\n";
    text += ts_printf::format(L"Client column: {0}{2?<}@{1}{2?>}", L"admin", L"10.0.0.7", true);
    text += L"\n";
    text += ts_printf::format(L"Padded: [{0arf0w5}]  grouped: {1l}  cut: [{2w,12e}]", 42, 1234567,
                              L"A very long device name");
    return text;
}

LRESULT CALLBACK window_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept
{
    switch (message) {
    case WM_PAINT: {
        PAINTSTRUCT paint;
        HDC dc = ::BeginPaint(window, &paint);
        RECT area;
        ::GetClientRect(window, &area);
        ::InflateRect(&area, -16, -16);
        ::SelectObject(dc, ::GetStockObject(DEFAULT_GUI_FONT));
        ::SetBkMode(dc, TRANSPARENT);
        try {
            const std::wstring text = preview_text();
            ::DrawTextW(dc, text.c_str(), static_cast<int>(text.size()), &area, DT_LEFT | DT_WORDBREAK);
        } catch (...) {
            tessel::debug_report(L"preview text could not be formatted");
        }
        ::EndPaint(window, &paint);
        return 0;
    }
    case WM_DESTROY:
        ::PostQuitMessage(0);
        return 0;
    default:
        return ::DefWindowProcW(window, message, wparam, lparam);
    }
}

}  // namespace

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE, PWSTR, int show)
{
    WNDCLASSEXW window_class{};
    window_class.cbSize = sizeof window_class;
    window_class.lpfnWndProc = window_proc;
    window_class.hInstance = instance;
    window_class.hCursor = ::LoadCursorW(nullptr, IDC_ARROW);
    window_class.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1);
    window_class.lpszClassName = L"qmx.servercfg.preview";
    if (!::RegisterClassExW(&window_class))
        tessel::fail_fast_last_error(L"RegisterClassEx failed");

    HWND window = ::CreateWindowExW(0, window_class.lpszClassName, product_title, WS_OVERLAPPEDWINDOW, 40, 40, 720,
                                    300, nullptr, nullptr, instance, nullptr);
    if (!window)
        tessel::fail_fast_last_error(L"CreateWindowEx failed");
    ::ShowWindow(window, show);

    MSG message;
    BOOL result;
    while ((result = ::GetMessageW(&message, nullptr, 0, 0)) != 0) {
        if (result == -1)
            tessel::fail_fast_last_error(L"GetMessage failed");
        ::TranslateMessage(&message);
        ::DispatchMessageW(&message);
    }
    return static_cast<int>(message.wParam);
}
