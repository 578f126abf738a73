#include "ui_main/dialog_layout.h"

#include "base/dpi.h"
#include "base/window_text.h"

#include <algorithm>

namespace servercfg {
namespace {

RECT child_rect(HWND dialog, HWND child)
{
    RECT r{};
    ::GetWindowRect(child, &r);
    ::MapWindowPoints(nullptr, dialog, reinterpret_cast<POINT*>(&r), 2);
    return r;
}

// Pixels in 1/100 dialog units: 400 horizontal units are 100 average characters, 800
// vertical ones 100 lines.
SIZE dialog_base(HWND dialog)
{
    RECT base{0, 0, 400, 800};
    ::MapDialogRect(dialog, &base);
    return {std::max<LONG>(1, base.right), std::max<LONG>(1, base.bottom)};
}

RECT to_layout_units(HWND dialog, const RECT& pixels)
{
    const SIZE base = dialog_base(dialog);
    return {::MulDiv(pixels.left, 40000, base.cx), ::MulDiv(pixels.top, 80000, base.cy),
            ::MulDiv(pixels.right, 40000, base.cx), ::MulDiv(pixels.bottom, 80000, base.cy)};
}

RECT to_pixels(HWND dialog, const RECT& units)
{
    const SIZE base = dialog_base(dialog);
    return {::MulDiv(units.left, base.cx, 40000), ::MulDiv(units.top, base.cy, 80000),
            ::MulDiv(units.right, base.cx, 40000), ::MulDiv(units.bottom, base.cy, 80000)};
}

void offset_child(HWND dialog, int id, int dx)
{
    const HWND child = ::GetDlgItem(dialog, id);
    const RECT r = child_rect(dialog, child);
    ::SetWindowPos(child, nullptr, r.left + dx, r.top, 0, 0, SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

}  // namespace

RECT child_rect(HWND dialog, int id)
{
    return child_rect(dialog, ::GetDlgItem(dialog, id));
}

void anchored_layout::capture(HWND dialog, std::span<const anchor> anchors)
{
    anchors_.assign(anchors.begin(), anchors.end());
    designed_.clear();
    for (const anchor& a : anchors_)
        designed_.push_back(to_layout_units(dialog, child_rect(dialog, a.id)));
    RECT client;
    ::GetClientRect(dialog, &client);
    const RECT units = to_layout_units(dialog, client);
    designed_client_ = {units.right, units.bottom};
}

void anchored_layout::apply(HWND dialog) const
{
    if (!captured() || ::IsIconic(dialog))
        return;
    RECT client;
    ::GetClientRect(dialog, &client);
    const RECT designed = to_pixels(dialog, {0, 0, designed_client_.cx, designed_client_.cy});
    const int dx = client.right - designed.right;
    const int dy = client.bottom - designed.bottom;
    HDWP batch = ::BeginDeferWindowPos(static_cast<int>(anchors_.size()));
    for (std::size_t i = 0; i < anchors_.size() && batch; ++i) {
        const anchor& a = anchors_[i];
        RECT r = to_pixels(dialog, designed_[i]);
        if (a.left_follows)
            r.left += dx;
        if (a.right_follows)
            r.right += dx;
        if (a.top_follows)
            r.top += dy;
        if (a.bottom_follows)
            r.bottom += dy;
        batch = ::DeferWindowPos(batch, ::GetDlgItem(dialog, a.id), nullptr, r.left, r.top, r.right - r.left,
                                 r.bottom - r.top, SWP_NOZORDER | SWP_NOACTIVATE);
    }
    if (batch)
        ::EndDeferWindowPos(batch);
    ::InvalidateRect(dialog, nullptr, TRUE);
}

SIZE anchored_layout::minimum_window_size(HWND dialog) const
{
    RECT frame = to_pixels(dialog, {0, 0, designed_client_.cx, designed_client_.cy});
    ::AdjustWindowRectEx(&frame, static_cast<DWORD>(::GetWindowLongPtrW(dialog, GWL_STYLE)), FALSE,
                         static_cast<DWORD>(::GetWindowLongPtrW(dialog, GWL_EXSTYLE)));
    return {frame.right - frame.left, frame.bottom - frame.top};
}

void fit_dialog_to_texts(HWND dialog, std::initializer_list<text_fit> fits, std::initializer_list<int> right_anchored)
{
    using namespace tessel::windows;
    const int box_width = system_metric_for_dpi(SM_CXMENUCHECK, dpi_for_window(dialog)) + dialog_units_x(dialog, 3);
    for (const text_fit& fit : fits) {
        const HWND control = ::GetDlgItem(dialog, fit.id);
        if (!control)
            continue;
        const RECT r = child_rect(dialog, control);
        const int needed = control_text_extent(control).cx + (fit.check_box ? box_width : 0);
        const int grow = needed - (r.right - r.left);
        if (grow <= 0)
            continue;
        ::SetWindowPos(control, nullptr, 0, 0, needed, r.bottom - r.top, SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
        for (const int id : fit.pushed)
            offset_child(dialog, id, grow);
    }

    // The widest reach of the controls that do not follow the right edge.
    int reach = 0;
    for (HWND child = ::GetWindow(dialog, GW_CHILD); child; child = ::GetWindow(child, GW_HWNDNEXT)) {
        const int id = ::GetDlgCtrlID(child);
        if (std::find(right_anchored.begin(), right_anchored.end(), id) == right_anchored.end())
            reach = std::max<int>(reach, child_rect(dialog, child).right);
    }
    RECT client;
    ::GetClientRect(dialog, &client);
    const int grow = reach + dialog_units_x(dialog, 7) - client.right;
    if (grow <= 0)
        return;
    RECT frame;
    ::GetWindowRect(dialog, &frame);
    // Wider by as much, still centred where it was.
    ::SetWindowPos(dialog, nullptr, frame.left - grow / 2, frame.top, frame.right - frame.left + grow,
                   frame.bottom - frame.top, SWP_NOZORDER | SWP_NOACTIVATE);
    for (const int id : right_anchored)
        offset_child(dialog, id, grow);
}

}  // namespace servercfg
