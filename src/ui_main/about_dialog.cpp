#include "ui_main/about_dialog.h"

#include "app/startup.h"
#include "base/dpi.h"
#include "base/module_path.h"
#include "base/window_text.h"
#include "controls/rich_view.h"
#include "controls/window_icons.h"
#include "format/ts_printf.h"
#include "localization/localization.h"
#include "msgbox/link_opener.h"

#include <algorithm>
#include <vector>

namespace servercfg {

namespace ids = about_dialog_controls;

file_version module_version(HMODULE module)
{
    wchar_t path[MAX_PATH]{};
    if (!::GetModuleFileNameW(module, path, MAX_PATH))
        return {};
    DWORD ignored = 0;
    const DWORD size = ::GetFileVersionInfoSizeW(path, &ignored);
    if (size == 0)
        return {};
    std::vector<BYTE> data(size);
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    if (!::GetFileVersionInfoW(path, 0, size, data.data()) ||
        !::VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&info), &length) || length < sizeof *info)
        return {};
    return {HIWORD(info->dwFileVersionMS), LOWORD(info->dwFileVersionMS), HIWORD(info->dwFileVersionLS),
            LOWORD(info->dwFileVersionLS)};
}

std::wstring about_text(const file_version& version)
{
    return ts_printf::format(tessel::load_string(tessel::string_ids::about_text),
                             tessel::load_string(tessel::string_ids::about_copyright), std::wstring_view(vendor_site),
                             product_title, version.major, version.minor, version.build, version.revision);
}

std::wstring notices_path()
{
    return tessel::module_folder() + notices_file_name;
}

void about_dialog::on_init_dialog()
{
    using tessel::windows::new_controls::rich_view;
    tessel::translate_dialog(window_);
    ::SetWindowTextW(window_, std::wstring(tessel::load_string(tessel::string_ids::about_caption)).c_str());
    rich_view::attach(::GetDlgItem(window_, ids::text))->set_text(about_text(module_version()));
    rich_view::attach(::GetDlgItem(window_, ids::notices))
        ->set_text(std::wstring(tessel::load_string(tessel::string_ids::about_notices)));
    if (!check_for_updates_)
        ::ShowWindow(::GetDlgItem(window_, ids::check_for_updates), SW_HIDE);
    show_icon();
    arrange();
}

void about_dialog::show_icon()
{
    const int size = tessel::windows::system_metric_for_dpi(SM_CXICON, tessel::windows::dpi_for_window(window_));
    // Not shared: a shared icon keeps the first size ever asked for.
    tessel::unique_hicon icon(static_cast<HICON>(::LoadImageW(::GetModuleHandleW(nullptr),
                                                              MAKEINTRESOURCEW(tessel::windows::application_icon_id),
                                                              IMAGE_ICON, size, size, LR_DEFAULTCOLOR)));
    const HWND control = ::GetDlgItem(window_, ids::icon);
    // An executable without the icon (a test) shows none and keeps no room for it.
    ::ShowWindow(control, icon ? SW_SHOWNA : SW_HIDE);
    ::SendMessageW(control, STM_SETICON, reinterpret_cast<WPARAM>(icon.get()), 0);
    icon_ = std::move(icon);  // the one shown before goes only now
}

// The texts beside the icon, as wide as their longest line and never wrapped further than
// a readable width; the buttons below them; the box exactly as large as that, centred on
// its owner. Everything is measured at the box's DPI, so it fills the box at any DPI.
void about_dialog::arrange()
{
    using namespace tessel::windows;
    using new_controls::rich_view;
    const HWND dialog = window_;
    const int margin_x = dialog_units_x(dialog, 7), margin_y = dialog_units_y(dialog, 7);
    const int gap_x = dialog_units_x(dialog, 4), gap_y = dialog_units_y(dialog, 4);
    const int button_height = dialog_units_y(dialog, 14), button_min_width = dialog_units_x(dialog, 50);
    const auto shown = [](HWND control) { return (::GetWindowLongPtrW(control, GWL_STYLE) & WS_VISIBLE) != 0; };

    const HWND icon = ::GetDlgItem(dialog, ids::icon);
    const int icon_size = shown(icon) ? system_metric_for_dpi(SM_CXICON, dpi_for_window(dialog)) : 0;
    const HWND text = ::GetDlgItem(dialog, ids::text);
    const HWND notices = ::GetDlgItem(dialog, ids::notices);
    rich_view* const text_view = rich_view::from_placeholder(text);
    rich_view* const notices_view = rich_view::from_placeholder(notices);
    const int wrap_width = dialog_units_x(dialog, 280);
    const int texts_width = std::max(text_view->measure(wrap_width).cx, notices_view->measure(wrap_width).cx);

    const HWND check = ::GetDlgItem(dialog, ids::check_for_updates);
    const HWND ok = ::GetDlgItem(dialog, IDOK);
    const auto button_width = [&](HWND button) {
        return std::max<int>(button_min_width, control_text_extent(button).cx + 2 * gap_x);
    };
    const int check_width = shown(check) ? button_width(check) + gap_x : 0;
    const int ok_width = button_width(ok);

    const int text_left = margin_x + (icon_size ? icon_size + margin_x : 0);
    const int client_width = std::max(text_left + texts_width + margin_x, 2 * margin_x + check_width + ok_width);
    const int text_width = client_width - text_left - margin_x;
    const int text_height = text_view->measure_height(text_width);
    const int notices_height = notices_view->measure_height(text_width);
    ::MoveWindow(icon, margin_x, margin_y, icon_size, icon_size, FALSE);
    ::MoveWindow(text, text_left, margin_y, text_width, text_height, FALSE);
    // The notices link reads as the line after the web site's.
    ::MoveWindow(notices, text_left, margin_y + text_height, text_width, notices_height, FALSE);

    const int buttons_top = std::max(margin_y + icon_size, margin_y + text_height + notices_height) + 2 * gap_y;
    if (check_width)
        ::MoveWindow(check, margin_x, buttons_top, check_width - gap_x, button_height, FALSE);
    ::MoveWindow(ok, client_width - margin_x - ok_width, buttons_top, ok_width, button_height, FALSE);
    const int client_height = buttons_top + button_height + margin_y;

    RECT window_rect, client_rect;
    ::GetWindowRect(dialog, &window_rect);
    ::GetClientRect(dialog, &client_rect);
    const int width = client_width + (window_rect.right - window_rect.left) - client_rect.right;
    const int height = client_height + (window_rect.bottom - window_rect.top) - client_rect.bottom;
    MONITORINFO monitor{};
    monitor.cbSize = sizeof monitor;
    ::GetMonitorInfoW(::MonitorFromWindow(dialog, MONITOR_DEFAULTTONEAREST), &monitor);
    RECT around = monitor.rcWork;
    const HWND owner = ::GetWindow(dialog, GW_OWNER);
    if (owner && ::IsWindowVisible(owner) && !::IsIconic(owner))
        ::GetWindowRect(owner, &around);
    const int left = std::clamp<int>((around.left + around.right - width) / 2, monitor.rcWork.left,
                                     std::max<int>(monitor.rcWork.left, monitor.rcWork.right - width));
    const int top = std::clamp<int>((around.top + around.bottom - height) / 2, monitor.rcWork.top,
                                    std::max<int>(monitor.rcWork.top, monitor.rcWork.bottom - height));
    ::SetWindowPos(dialog, nullptr, left, top, width, height, SWP_NOZORDER | SWP_NOACTIVATE);
    ::InvalidateRect(dialog, nullptr, TRUE);
}

INT_PTR about_dialog::handle(UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_INITDIALOG:
        on_init_dialog();
        return TRUE;
    case WM_DPICHANGED:
        show_icon();
        arrange();
        return TRUE;
    case WM_NOTIFY: {
        const auto* header = reinterpret_cast<const NMHDR*>(lparam);
        if (header->code == tessel::windows::new_controls::rvn_link_activated && header->idFrom == ids::notices) {
            tessel::open_text_file(window_, notices_path(), launcher_);
            return TRUE;
        }
        if (header->code == tessel::windows::new_controls::rvn_link_activated) {
            const auto* link = reinterpret_cast<const tessel::windows::new_controls::nm_rich_view_link*>(lparam);
            const std::wstring argument = link->argument ? link->argument : L"";
            tessel::open_link(window_, argument.empty() ? std::wstring(vendor_site) : argument, launcher_);
            return TRUE;
        }
        return FALSE;
    }
    case WM_COMMAND:
        switch (LOWORD(wparam)) {
        case IDOK:
        case IDCANCEL:
            ::EndDialog(window_, LOWORD(wparam));
            return TRUE;
        case ids::check_for_updates:
            if (check_for_updates_)
                check_for_updates_(window_);
            return TRUE;
        default:
            return FALSE;
        }
    default:
        return FALSE;
    }
}

}  // namespace servercfg
