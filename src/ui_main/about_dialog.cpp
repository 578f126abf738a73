#include "ui_main/about_dialog.h"

#include "app/startup.h"
#include "controls/rich_view.h"
#include "format/ts_printf.h"
#include "localization/localization.h"
#include "msgbox/link_opener.h"

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


INT_PTR about_dialog::handle(UINT message, WPARAM wparam, LPARAM lparam)
{
    using tessel::windows::new_controls::rich_view;
    switch (message) {
    case WM_INITDIALOG: {
        tessel::translate_dialog(window_);
        ::SetWindowTextW(window_, std::wstring(tessel::load_string(tessel::string_ids::about_caption)).c_str());
        rich_view* view = rich_view::attach(::GetDlgItem(window_, ids::text));
        view->set_text(about_text(module_version()));
        if (!check_for_updates_)
            ::ShowWindow(::GetDlgItem(window_, ids::check_for_updates), SW_HIDE);
        return TRUE;
    }
    case WM_NOTIFY: {
        const auto* header = reinterpret_cast<const NMHDR*>(lparam);
        if (header->code == tessel::windows::new_controls::rvn_link_activated) {
            const auto* link = reinterpret_cast<const tessel::windows::new_controls::nm_rich_view_link*>(lparam);
            const std::wstring argument = link->argument ? link->argument : L"";
            tessel::open_link(window_, argument.empty() ? std::wstring(vendor_site) : argument);
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
