#include "ui_main/share_dialog.h"

#include "localization/localization.h"
#include "ui_main/dialog_layout.h"

#include <commctrl.h>

namespace servercfg {
namespace {

namespace ids = share_dialog_controls;

// How each control follows the dialog's size: the edits grow to the right, the buttons
// keep to the bottom-right corner.
constexpr anchor anchors[] = {
    {ids::device_label, false, false, false, false}, {ids::device, false, true, false, false},
    {ids::key_label, false, false, false, false},    {ids::key, false, true, false, false},
    {IDOK, true, true, true, true},                  {IDCANCEL, true, true, true, true},
};

}  // namespace

INT_PTR share_dialog::handle(UINT message, WPARAM wparam, LPARAM lparam)
{
    switch (message) {
    case WM_INITDIALOG:
        on_init();
        return FALSE;  // the focus is set
    case WM_SIZE:
        layout_.apply(window_);
        return TRUE;
    case WM_GETMINMAXINFO:
        if (layout_.captured()) {
            const SIZE smallest = layout_.minimum_window_size(window_);
            reinterpret_cast<MINMAXINFO*>(lparam)->ptMinTrackSize = {smallest.cx, smallest.cy};
        }
        return TRUE;
    case WM_COMMAND:
        switch (LOWORD(wparam)) {
        case IDOK: {
            // The key as typed: not trimmed, and an empty one is a valid answer.
            wchar_t buffer[share_key_buffer]{};
            const int length = ::GetDlgItemTextW(window_, ids::key, buffer, share_key_buffer);
            key_.assign(buffer, static_cast<std::size_t>(length > 0 ? length : 0));
            ::EndDialog(window_, IDOK);
            return TRUE;
        }
        case IDCANCEL:
            ::EndDialog(window_, IDCANCEL);
            return TRUE;
        default:
            return FALSE;
        }
    default:
        return FALSE;
    }
}

void share_dialog::on_init()
{
    tessel::translate_dialog(window_);
    fit_dialog_to_texts(window_, {{ids::device_label}, {ids::key_label}}, {IDOK, IDCANCEL});
    ::SetDlgItemTextW(window_, ids::device, device_text_.c_str());
    ::SetDlgItemTextW(window_, ids::key, key_.c_str());
    // Shown also while the edit has the focus, which it gets at once.
    const std::wstring cue = tessel::load_string_or(tessel::string_ids::share_key_cue, {});
    ::SendDlgItemMessageW(window_, ids::key, EM_SETCUEBANNER, TRUE, reinterpret_cast<LPARAM>(cue.c_str()));

    layout_.capture(window_, anchors);
    // The key is what the user came for.
    ::SetFocus(::GetDlgItem(window_, ids::key));
}

}  // namespace servercfg
