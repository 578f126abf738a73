#include "web/progress_dialog.h"

#include "base/failure.h"
#include "format/ts_printf.h"
#include "localization/localization.h"

#include <commctrl.h>

namespace tessel::web {
namespace {

constexpr UINT wm_show_progress = WM_APP + 0x150;
constexpr int bar_range = 1000;

}  // namespace

progress_dialog::progress_dialog(HWND owner)
    : cancelled_(std::make_shared<fibra::details::cancellation_source_body>())
{
    window_ = ::CreateDialogParamW(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(progress_dialog_id), owner,
                                   dialog_procedure, reinterpret_cast<LPARAM>(this));
    throw_last_error_if(!window_);
    ::SendDlgItemMessageW(window_, progress_dialog_bar_id, PBM_SETRANGE32, 0, bar_range);
    show_progress();
    ::ShowWindow(window_, SW_SHOW);
}

progress_dialog::~progress_dialog()
{
    if (::IsWindow(window_)) {
        ::SetWindowLongPtrW(window_, DWLP_USER, 0);
        ::DestroyWindow(window_);
    }
}

void progress_dialog::progress(std::uint64_t received, std::int64_t total) noexcept
{
    received_.store(received, std::memory_order_relaxed);
    total_.store(total, std::memory_order_relaxed);
    if (!update_posted_.exchange(true))
        ::PostMessageW(window_, wm_show_progress, 0, 0);
}

void progress_dialog::show_progress() noexcept
{
    try {
        update_posted_.store(false);
        const std::uint64_t received = received_.load(std::memory_order_relaxed);
        const std::int64_t total = total_.load(std::memory_order_relaxed);
        const std::uint64_t known_total = total > 0 ? static_cast<std::uint64_t>(total) : 0;
        ::SendDlgItemMessageW(window_, progress_dialog_bar_id, PBM_SETPOS,
                              known_total ? static_cast<WPARAM>(received * bar_range / known_total) : 0, 0);
        const std::wstring text = ts_printf::format(load_string(string_ids::update_progress), (received + 1023) / 1024,
                                                    (known_total + 1023) / 1024);
        ::SetDlgItemTextW(window_, progress_dialog_text_id, text.c_str());
    } catch (...) {
        debug_report(L"the download progress could not be shown");
    }
}

INT_PTR CALLBACK progress_dialog::dialog_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept
{
    if (message == WM_INITDIALOG) {
        ::SetWindowLongPtrW(window, DWLP_USER, lparam);
        translate_dialog(window);
        return TRUE;
    }
    auto* self = reinterpret_cast<progress_dialog*>(::GetWindowLongPtrW(window, DWLP_USER));
    if (!self)
        return FALSE;
    switch (message) {
    case wm_show_progress:
        self->show_progress();
        return TRUE;
    case WM_COMMAND:
        if (LOWORD(wparam) == IDCANCEL) {
            // The transfer notices at its next step; until then the dialog says it heard.
            self->cancelled_->cancel();
            ::EnableWindow(::GetDlgItem(window, IDCANCEL), FALSE);
            return TRUE;
        }
        return FALSE;
    case WM_CLOSE:
        ::SendMessageW(window, WM_COMMAND, IDCANCEL, 0);
        return TRUE;
    default:
        return FALSE;
    }
}

}  // namespace tessel::web
