#include "web/progress_dialog.h"

#include "base/failure.h"
#include "format/ts_printf.h"
#include "localization/localization.h"

#include <commctrl.h>

#include <cmath>

namespace tessel::web {
namespace {

constexpr UINT wm_show_progress = WM_APP + 0x150;
constexpr int bar_range = 1000;
constexpr std::uint64_t mebibyte = 1024 * 1024;

std::wstring time_left_text(std::uint64_t seconds)
{
    if (seconds >= 3600)
        return ts_printf::format(load_string(string_ids::update_time_hours), seconds / 3600, seconds / 60 % 60);
    if (seconds >= 60)
        return ts_printf::format(load_string(string_ids::update_time_minutes), seconds / 60, seconds % 60);
    return ts_printf::format(load_string(string_ids::update_time_seconds), seconds);
}

}  // namespace

void transfer_rate::add(std::uint64_t tick_ms, std::uint64_t received)
{
    if (!first_tick_)
        first_tick_ = tick_ms;
    samples_.push_back({tick_ms, received});
    // One sample older than the window stays, so that the window is always spanned.
    while (samples_.size() > 2 && tick_ms - samples_[1].tick_ms >= window_ms)
        samples_.pop_front();
}

std::optional<double> transfer_rate::bytes_per_second() const noexcept
{
    if (samples_.size() < 2 || samples_.back().tick_ms - *first_tick_ < settle_ms)
        return std::nullopt;
    const sample& oldest = samples_.front();
    const sample& newest = samples_.back();
    return static_cast<double>(newest.received - oldest.received) * 1000.0 /
           static_cast<double>(newest.tick_ms - oldest.tick_ms);
}

std::wstring size_text(std::uint64_t bytes)
{
    const std::uint64_t tenths = (bytes * 10 + mebibyte / 2) / mebibyte;
    return ts_printf::format(load_string(string_ids::update_size), tenths / 10, ts_printf::decimal_separator(), tenths % 10);
}

std::wstring progress_text(std::uint64_t received, std::int64_t total, std::optional<double> bytes_per_second)
{
    std::wstring text;
    std::wstring time_left;
    if (total >= 0) {
        const auto known = static_cast<std::uint64_t>(total);
        const std::uint64_t percent = known ? std::min<std::uint64_t>(received * 100 / known, 100) : 100;
        text = ts_printf::format(load_string(string_ids::update_progress), size_text(received), size_text(known),
                                 percent);
        if (bytes_per_second && *bytes_per_second > 0 && known > received)
            time_left = time_left_text(static_cast<std::uint64_t>(
                std::ceil(static_cast<double>(known - received) / *bytes_per_second)));
    } else {
        text = ts_printf::format(load_string(string_ids::update_progress_unsized), size_text(received));
    }
    if (bytes_per_second)
        text += L'\n' + ts_printf::format(load_string(string_ids::update_progress_rate),
                                          size_text(static_cast<std::uint64_t>(*bytes_per_second)), time_left);
    return text;
}

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

void progress_dialog::cancel() noexcept
{
    // The transfer notices at its next step; until then the dialog says it heard.
    cancelled_->cancel();
    ::EnableWindow(::GetDlgItem(window_, IDCANCEL), FALSE);
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
        const HWND bar = ::GetDlgItem(window_, progress_dialog_bar_id);
        if (total < 0 && received > 0 && !marquee_) {
            // No size from the server: the bar says that something moves, not how far.
            marquee_ = true;
            ::SetWindowLongPtrW(bar, GWL_STYLE, ::GetWindowLongPtrW(bar, GWL_STYLE) | PBS_MARQUEE);
            ::SendMessageW(bar, PBM_SETMARQUEE, TRUE, 0);
        } else if (total > 0) {
            ::SendMessageW(bar, PBM_SETPOS,
                           static_cast<WPARAM>(received * bar_range / static_cast<std::uint64_t>(total)), 0);
        }
        if (received > 0)
            rate_.add(::GetTickCount64(), received);
        const std::wstring text = progress_text(received, total, rate_.bytes_per_second());
        ::SetDlgItemTextW(window_, progress_dialog_text_id, text.c_str());
    } catch (...) {
        log_caught_exception(L"the download progress could not be shown");
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
            self->cancel();
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
