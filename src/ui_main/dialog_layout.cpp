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

void offset_child(HWND dialog, int id, int dx)
{
    const HWND child = ::GetDlgItem(dialog, id);
    const RECT r = child_rect(dialog, child);
    ::SetWindowPos(child, nullptr, r.left + dx, r.top, 0, 0, SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

}  // namespace

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
