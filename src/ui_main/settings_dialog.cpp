#include "ui_main/settings_dialog.h"

#include "app/startup.h"
#include "base/unique_handle.h"
#include "localization/localization.h"
#include "msgbox/message_box.h"
#include "nsm/app_settings.h"
#include "ui_main/dialog_layout.h"
#include "ui_main/server_operation.h"

#include <commctrl.h>
#include <oleauto.h>

#include <algorithm>
#include <utility>

namespace servercfg {
namespace {

namespace ids = settings_dialog_controls;

constexpr int text_buffer = 260;

// Posted to itself when the language list has closed.
constexpr UINT wm_language_chosen = WM_APP + 1;

std::wstring read_control(HWND dialog, int id)
{
    wchar_t buffer[text_buffer]{};
    const int length = ::GetDlgItemTextW(dialog, id, buffer, text_buffer);
    return std::wstring(buffer, static_cast<std::size_t>(length > 0 ? length : 0));
}

int ask_restart_with_message_box(HWND owner)
{
    return tessel::show_message_box(
        {.owner = owner,
         .caption = tessel::load_string_by_key(L"UI Language Changed"),
         .text = tessel::load_string_by_key(
             L"You need to restart the product to apply language change. Do you want to restart now?"),
         .style = MB_YESNO | MB_ICONQUESTION});
}

}  // namespace

std::uint16_t port_from_text(std::wstring_view text) noexcept
{
    std::uint32_t value = 0;
    for (const wchar_t c : text)
        value = (value * 10 + static_cast<std::uint32_t>(c - L'0')) % 65536;
    return static_cast<std::uint16_t>(value);
}


settings_dialog::settings_dialog(tessel::com_ptr<IUsbServer> server, std::function<int(HWND)> ask_restart)
    : server_(std::move(server)), ask_restart_(std::move(ask_restart))
{
    if (!ask_restart_)
        ask_restart_ = ask_restart_with_message_box;
}

INT_PTR settings_dialog::handle(UINT message, WPARAM wparam, LPARAM)
{
    switch (message) {
    case WM_INITDIALOG:
        on_init();
        return TRUE;
    case WM_COMMAND:
        switch (LOWORD(wparam)) {
        case IDOK:
            // Another language selected: Enter is the choice of it. Otherwise Enter while
            // OK is still disabled does nothing.
            if (!on_language_chosen() && ::IsWindowEnabled(::GetDlgItem(window_, IDOK)))
                on_ok();
            return TRUE;
        case IDCANCEL:
            ::EndDialog(window_, IDCANCEL);
            return TRUE;
        case ids::language:
            // The list sends a selection change for every item the arrow keys pass; only
            // closing the list on an item is a choice. Asked once the list has finished
            // its own work.
            if (HIWORD(wparam) == CBN_CLOSEUP)
                ::PostMessageW(window_, wm_language_chosen, 0, 0);
            return TRUE;
        default:
            return FALSE;
        }
    case wm_language_chosen:
        on_language_chosen();
        return TRUE;
    case WM_DESTROY:
        if (alive_)
            alive_->cancel();
        end_server_wait(fetch_wait_);
        return FALSE;
    default:
        return FALSE;
    }
}

void settings_dialog::on_init()
{
    tessel::translate_dialog(window_);
    fit_dialog_to_texts(window_,
                        {{ids::endpoints_label},
                         {ids::port_label},
                         {ids::advertisement, true},
                         {ids::statistics, true},
                         {ids::language_label, false, {ids::language}}},
                        {IDOK, IDCANCEL});
    const tessel::language_list languages = tessel::ui_language_list(current_app_settings().language);
    const HWND combo = ::GetDlgItem(window_, ids::language);
    for (const auto& entry : languages.entries)
        ::SendMessageW(combo, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(entry.display_name.c_str()));
    selected_language_ = languages.selected;
    ::SendMessageW(combo, CB_SETCURSEL, static_cast<WPARAM>(selected_language_), 0);
    ::SetWindowSubclass(combo, &settings_dialog::language_list_proc, 0, reinterpret_cast<DWORD_PTR>(this));

    create_status_line();
    show_status(tessel::load_string_or(tessel::string_ids::settings_loading, {}));
    alive_ = std::make_shared<fibra::details::cancellation_source_body>();
    fetch(this, server_, alive_);
}

void settings_dialog::create_status_line()
{
    // Below the language list, left of the buttons, as wide as the room there.
    const RECT list = child_rect(window_, ids::language);
    const RECT label = child_rect(window_, ids::language_label);
    const RECT ok = child_rect(window_, IDOK);
    RECT gap{0, 0, 7, 4};
    ::MapDialogRect(window_, &gap);
    const int top = list.bottom + gap.bottom;
    const HWND line = ::CreateWindowExW(
        0, L"STATIC", L"", WS_CHILD | SS_LEFT | SS_NOPREFIX, label.left, top, std::max<int>(1, ok.left - gap.right - label.left),
        std::max<int>(1, ok.bottom - top), window_, reinterpret_cast<HMENU>(static_cast<INT_PTR>(ids::status)),
        ::GetModuleHandleW(nullptr), nullptr);
    if (line)
        ::SendMessageW(line, WM_SETFONT, ::SendMessageW(window_, WM_GETFONT, 0, 0), FALSE);
}

void settings_dialog::show_status(const std::wstring& text)
{
    const HWND line = ::GetDlgItem(window_, ids::status);
    ::SetWindowTextW(line, text.c_str());
    ::ShowWindow(line, text.empty() ? SW_HIDE : SW_SHOWNA);
}

void settings_dialog::show_fetch_failure(HRESULT code)
{
    show_status(format_error_message(tessel::string_ids::settings_load_failed, code));
}

fibra::fire_and_forget settings_dialog::fetch(settings_dialog* self, tessel::com_ptr<IUsbServer> server,
                                              std::shared_ptr<fibra::details::cancellation_source_body> alive)
{
    // On failure the server controls and OK stay disabled, and the status line says why.
    tessel::com_ptr<IUsbServerOperation> operation;
    if (const HRESULT started = server->GetSettingsAsync(operation.put()); FAILED(started) || !operation) {
        self->show_fetch_failure(FAILED(started) ? started : E_POINTER);
        co_return;
    }
    const HRESULT result = co_await server_operation(operation, &self->fetch_wait_);
    if (alive->cancelled())
        co_return;  // self has gone
    self->fetch_wait_.reset();
    UsbServerSettings settings{};
    if (const HRESULT read = FAILED(result) ? result : operation->GetSettings(&settings); FAILED(read)) {
        self->show_fetch_failure(read);
        co_return;
    }
    const tessel::unique_bstr endpoints(settings.endpoints);
    self->show_server_settings(settings);
}

void settings_dialog::show_server_settings(const UsbServerSettings& settings)
{
    const std::wstring server_endpoints =
        settings.endpoints ? std::wstring(settings.endpoints, ::SysStringLen(settings.endpoints)) : std::wstring();
    ::SetDlgItemTextW(window_, ids::endpoints, result_.endpoints ? result_.endpoints->c_str() : server_endpoints.c_str());
    ::SetDlgItemTextW(window_, ids::port, std::to_wstring(settings.port).c_str());
    // An unknown value shows as checked.
    const auto checked = [&](usb_server_settings_field field, VARIANT_BOOL value) {
        return (settings.fields & field) == 0 || value != VARIANT_FALSE ? BST_CHECKED : BST_UNCHECKED;
    };
    ::CheckDlgButton(window_, ids::advertisement, checked(usb_settings_advertisement, settings.advertisement));
    ::CheckDlgButton(window_, ids::statistics, checked(usb_settings_statistics, settings.statistics));
    for (const int id : {ids::endpoints, ids::port, ids::advertisement, IDOK})
        ::EnableWindow(::GetDlgItem(window_, id), TRUE);
    show_status({});
    ready_ = true;
}

LRESULT CALLBACK settings_dialog::language_list_proc(HWND list, UINT message, WPARAM wparam, LPARAM lparam,
                                                    UINT_PTR id, DWORD_PTR self) noexcept
{
    const auto* dialog = reinterpret_cast<const settings_dialog*>(self);
    const auto another_language = [&] {
        const auto item = static_cast<int>(::SendMessageW(list, CB_GETCURSEL, 0, 0));
        return item >= 0 && item != dialog->selected_language_ && !::SendMessageW(list, CB_GETDROPPEDSTATE, 0, 0);
    };
    switch (message) {
    case WM_GETDLGCODE:
        // Enter on another language is ours; on the current one it stays the dialog's OK.
        if (const auto* msg = reinterpret_cast<const MSG*>(lparam);
            msg && msg->message == WM_KEYDOWN && msg->wParam == VK_RETURN && another_language())
            return ::DefSubclassProc(list, message, wparam, lparam) | DLGC_WANTMESSAGE;
        break;
    case WM_KEYDOWN:
        if (wparam == VK_RETURN && another_language()) {
            ::PostMessageW(::GetParent(list), wm_language_chosen, 0, 0);
            return 0;
        }
        break;
    case WM_NCDESTROY:
        ::RemoveWindowSubclass(list, &settings_dialog::language_list_proc, id);
        break;
    default:
        break;
    }
    return ::DefSubclassProc(list, message, wparam, lparam);
}

bool settings_dialog::on_language_chosen()
{
    const HWND combo = ::GetDlgItem(window_, ids::language);
    const auto item = static_cast<int>(::SendMessageW(combo, CB_GETCURSEL, 0, 0));
    if (item < 0 || item == selected_language_)
        return false;
    if (ask_restart_(window_) == IDYES) {
        const tessel::language_list languages = tessel::ui_language_list(current_app_settings().language);
        if (static_cast<std::size_t>(item) < languages.entries.size()) {
            current_app_settings().language = item == 0 ? L"en" : languages.entries[item].code;
            ::EndDialog(window_, language_changed_result);
            return true;
        }
    }
    // Anything but Yes keeps the language: the list shows it again.
    ::SendMessageW(combo, CB_SETCURSEL, static_cast<WPARAM>(selected_language_), 0);
    return true;
}

void settings_dialog::on_ok()
{
    result_.endpoints = read_control(window_, ids::endpoints);
    result_.port = port_from_text(read_control(window_, ids::port));
    // An indeterminate box counts as unchecked.
    result_.advertisement = ::IsDlgButtonChecked(window_, ids::advertisement) == BST_CHECKED;
    result_.statistics = ::IsDlgButtonChecked(window_, ids::statistics) == BST_CHECKED;
    ::EndDialog(window_, IDOK);
}

}  // namespace servercfg
