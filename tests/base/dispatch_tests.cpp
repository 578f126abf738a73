#include "base/async_context.h"
#include "base/coroutine.h"
#include "base/registered_messages.h"

#include "message_pump.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using fibra::details::cancellation_source_body;
using tessel::windows::impl::async_context;

void drain_queue()
{
    MSG message;
    while (::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
    }
}

fibra::fire_and_forget switch_and_record(async_context context, std::vector<std::wstring>& log, bool& done)
{
    try {
        co_await context;
        log.push_back(::GetCurrentThreadId() == context.thread_id() ? L"resumed on UI thread" : L"wrong thread");
    } catch (const fibra::details::operation_cancelled&) {
        log.push_back(L"cancelled");
    }
    done = true;
}

TEST(ui_dispatch, cancelled_context_throws_even_on_the_ui_thread)
{
    auto hook = tessel::windows::impl::install_ui_return_hook();
    auto cancellation = std::make_shared<cancellation_source_body>();
    async_context context(::GetCurrentThreadId(), cancellation);
    std::vector<std::wstring> log;
    bool done = false;

    switch_and_record(context, log, done);  // on the UI thread and not cancelled: no hop
    EXPECT_TRUE(done);
    cancellation->cancel();
    done = false;
    switch_and_record(context, log, done);
    EXPECT_TRUE(done) << "a cancelled switch must not wait for the queue";

    // A coroutine already waiting in the queue when the window cancels throws on resume.
    async_context posting(::GetCurrentThreadId(), std::make_shared<cancellation_source_body>(), true);
    done = false;
    switch_and_record(posting, log, done);
    EXPECT_FALSE(done);
    posting.cancel_work();
    ASSERT_TRUE(test_support::pump_until([&] { return done; })) << "the cancelled continuation never ran";
    EXPECT_EQ(log, (std::vector<std::wstring>{L"resumed on UI thread", L"cancelled", L"cancelled"}));
}

TEST(ui_dispatch, switch_from_another_thread_resumes_inside_a_message_box_loop)
{
    auto hook = tessel::windows::impl::install_ui_return_hook();
    drain_queue();
    static constexpr wchar_t caption[] = L"dispatch test box";
    static bool box_was_open;
    static bool resumed_on_ui_thread;
    static bool timed_out;
    box_was_open = resumed_on_ui_thread = timed_out = false;

    struct worker {
        static fibra::fire_and_forget run(async_context context)
        {
            co_await context;
            resumed_on_ui_thread = ::GetCurrentThreadId() == context.thread_id();
            // Still inside MessageBoxW: its window must exist now.
            HWND box = ::FindWindowW(L"#32770", caption);
            box_was_open = box != nullptr;
            if (box)
                ::PostMessageW(box, WM_COMMAND, IDOK, 0);
        }
    };

    const async_context context;  // the UI thread: this one
    // Started on another thread, before the box opens; it resumes once the box's loop runs.
    std::thread([context] { worker::run(context); }).join();

    // If the coroutine never resumes, the box must still close so that the test ends.
    const UINT_PTR timer = ::SetTimer(nullptr, 0, 5000, [](HWND, UINT, UINT_PTR, DWORD) {
        timed_out = true;
        if (HWND box = ::FindWindowW(L"#32770", caption))
            ::PostMessageW(box, WM_COMMAND, IDCANCEL, 0);
    });
    const int answer = ::MessageBoxW(nullptr, L"waiting for the coroutine", caption, MB_OKCANCEL);
    ::KillTimer(nullptr, timer);

    EXPECT_FALSE(timed_out);
    EXPECT_TRUE(resumed_on_ui_thread);
    EXPECT_TRUE(box_was_open);
    EXPECT_EQ(answer, IDOK);
}

TEST(ui_dispatch, null_handle_posts_nothing_and_escaped_exceptions_are_reported)
{
    drain_queue();
    tessel::windows::impl::post_ui_return(::GetCurrentThreadId(), nullptr);
    MSG message;
    EXPECT_FALSE(::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));

    static std::vector<std::wstring> reports;
    reports.clear();
    const auto previous = fibra::set_unhandled_exception_reporter([](std::exception_ptr error) noexcept {
        try {
            std::rethrow_exception(error);
        } catch (const fibra::details::hresult_error& e) {
            reports.push_back(std::to_wstring(static_cast<unsigned long>(e.code())));
        } catch (...) {
            reports.push_back(L"other");
        }
    });
    []() -> fibra::fire_and_forget {
        tessel::throw_hresult(E_ACCESSDENIED);
        co_return;
    }();
    []() -> fibra::fire_and_forget {
        throw std::runtime_error("x");
        co_return;
    }();
    fibra::set_unhandled_exception_reporter(previous);
    EXPECT_EQ(reports, (std::vector<std::wstring>{std::to_wstring(0x80070005ul), L"other"}));

}

TEST(ui_dispatch, registered_messages_carry_their_published_names)
{
    EXPECT_EQ(::RegisterWindowMessageW(L"QMX_WM_PROCESSCOMMAND"), tessel::windows::wm_process_command());
    EXPECT_EQ(::RegisterWindowMessageW(L"QMXWM_UIRETURN"), tessel::windows::wm_ui_return());
    EXPECT_EQ(::RegisterWindowMessageW(L"QMXWM_OLE_2"), tessel::windows::wm_ole_call());
    EXPECT_GE(tessel::windows::wm_ole_call(), 0xC000u);  // a registered message, not a fixed one
}

// An always-post continuation waits behind the messages already queued. The hook sees
// peeks that leave a message in the queue as well as its removal: resuming on a peek would
// run the coroutine early, and the removal would then resume a finished frame a second time.
// The messages are taken here one by one, so nothing waits: a continuation that does not
// come shows as a log without it.
TEST(ui_dispatch, always_post_resumes_after_earlier_messages_once_on_removal_never_on_a_peek)
{
    auto hook = tessel::windows::impl::install_ui_return_hook();
    drain_queue();
    std::vector<std::wstring> log;
    bool done = false;
    ASSERT_TRUE(::PostThreadMessageW(::GetCurrentThreadId(), WM_APP + 7, 0, 0));
    switch_and_record(async_context(::GetCurrentThreadId(), nullptr, true), log, done);
    EXPECT_TRUE(log.empty()) << "always-post must not continue inline";

    MSG message;
    const UINT ui_return = tessel::windows::wm_ui_return();
    for (int peek = 0; peek < 3; ++peek)
        ASSERT_TRUE(::PeekMessageW(&message, nullptr, ui_return, ui_return, PM_NOREMOVE));
    EXPECT_TRUE(log.empty()) << "a peek resumed the coroutine";
    ASSERT_TRUE(::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, WM_APP + 7u);
    log.push_back(L"earlier message");
    ASSERT_TRUE(::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, ui_return);
    EXPECT_EQ(log, (std::vector<std::wstring>{L"earlier message", L"resumed on UI thread"}));
    EXPECT_TRUE(done);
    EXPECT_FALSE(::PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE));
}

}  // namespace
