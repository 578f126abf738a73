#pragma once
// The download's progress (dialog resource 150): a text, a progress bar and Cancel. It is
// modeless, so the program's own message loop keeps running it, and it takes progress
// reports from any thread: a report stores the numbers and posts at most one message at a
// time, so a fast download cannot flood the UI thread's queue.

#include "base/async_context.h"
#include "web/http_client.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

namespace tessel::web {

inline constexpr int progress_dialog_id = 150;
inline constexpr int progress_dialog_text_id = 1501;
inline constexpr int progress_dialog_bar_id = 1502;

// The transfer rate over the last seconds, once the transfer has run long enough for it to
// mean something (the first seconds are dominated by the connection's start).
class transfer_rate {
public:
    static constexpr std::uint64_t settle_ms = 3000;
    static constexpr std::uint64_t window_ms = 5000;

    void add(std::uint64_t tick_ms, std::uint64_t received);
    // Bytes per second; nothing while the rate is not steady yet.
    [[nodiscard]] std::optional<double> bytes_per_second() const noexcept;

private:
    struct sample {
        std::uint64_t tick_ms;
        std::uint64_t received;
    };
    std::deque<sample> samples_;
    std::optional<std::uint64_t> first_tick_;
};

// "48.8 MB": mebibytes with one decimal, grouped and separated as the user's locale says.
[[nodiscard]] std::wstring size_text(std::uint64_t bytes);
// What the dialog says: how much of how much and the percentage (total < 0: unknown), and
// on a second line, once the rate is steady, the rate and, with a known total, the time left.
[[nodiscard]] std::wstring progress_text(std::uint64_t received, std::int64_t total,
                                         std::optional<double> bytes_per_second);

class progress_dialog final : public body_sink {
public:
    // Creates and shows the dialog (UI thread), owned by owner so that it always stays above
    // it. A failure to create it is thrown.
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

    // What Cancel does: the transfer ends at its next step.
    void cancel() noexcept;

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
    // UI thread only.
    transfer_rate rate_;
    bool marquee_ = false;
};

}  // namespace tessel::web
