#pragma once
// The download's progress (dialog resource 150): a text, a progress bar and Cancel. It is
// modeless, so the program's own message loop keeps running it, and it takes progress
// reports from any thread: a report stores the numbers and posts at most one message at a
// time, so a fast download cannot flood the UI thread's queue.

#include "base/async_context.h"
#include "web/http_client.h"

#include <windows.h>

#include <atomic>
#include <memory>

namespace tessel::web {

inline constexpr int progress_dialog_id = 150;
inline constexpr int progress_dialog_text_id = 1501;
inline constexpr int progress_dialog_bar_id = 1502;

class progress_dialog final : public body_sink {
public:
    // Creates and shows the dialog (UI thread). A failure to create it is thrown.
    explicit progress_dialog(HWND owner);
    ~progress_dialog();
    progress_dialog(const progress_dialog&) = delete;
    progress_dialog& operator=(const progress_dialog&) = delete;

    [[nodiscard]] HWND window() const noexcept { return window_; }
    // Set when the user presses Cancel or closes the dialog.
    [[nodiscard]] const std::shared_ptr<fibra::details::cancellation_source_body>& cancellation() const noexcept
    {
        return cancelled_;
    }

    // Not a destination: the dialog only shows how far the transfer is.
    void write(const void*, DWORD) override {}
    void progress(std::uint64_t received, std::int64_t total) noexcept override;

private:
    static INT_PTR CALLBACK dialog_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept;
    void show_progress() noexcept;

    HWND window_ = nullptr;
    std::shared_ptr<fibra::details::cancellation_source_body> cancelled_;
    std::atomic<std::uint64_t> received_{0};
    std::atomic<std::int64_t> total_{-1};
    std::atomic<bool> update_posted_{false};
};

}  // namespace tessel::web
