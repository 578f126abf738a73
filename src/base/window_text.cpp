#include "base/window_text.h"

namespace tessel::windows {

std::wstring window_text(HWND window)
{
    const int length = ::GetWindowTextLengthW(window);
    std::wstring text(static_cast<size_t>(length) + 1, L'\0');
    text.resize(static_cast<size_t>(::GetWindowTextW(window, text.data(), length + 1)));
    return text;
}

SIZE control_text_extent(HWND control, int max_width, bool word_break)
{
    std::wstring text = window_text(control);
    if (text.empty())
        text = L" ";
    HDC dc = ::GetDC(control);
    HGDIOBJ old = ::SelectObject(dc, reinterpret_cast<HFONT>(::SendMessageW(control, WM_GETFONT, 0, 0)));
    RECT r{0, 0, max_width, 0};
    const UINT flags = DT_CALCRECT | DT_NOPREFIX | DT_EXPANDTABS | (word_break ? DT_WORDBREAK : DT_SINGLELINE);
    ::DrawTextW(dc, text.c_str(), static_cast<int>(text.size()), &r, flags);
    ::SelectObject(dc, old);
    ::ReleaseDC(control, dc);
    return {r.right - r.left, r.bottom - r.top};
}

int dialog_units_x(HWND dialog, int units) noexcept
{
    RECT r{0, 0, units, 0};
    ::MapDialogRect(dialog, &r);
    return r.right;
}

int dialog_units_y(HWND dialog, int units) noexcept
{
    RECT r{0, 0, 0, units};
    ::MapDialogRect(dialog, &r);
    return r.bottom;
}

}  // namespace tessel::windows
