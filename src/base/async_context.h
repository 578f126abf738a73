#pragma once
// Moving coroutines onto the UI thread.
//
// A window that runs coroutines is an async_context: it knows its UI thread and owns a
// cancellation source. `co_await context` continues on that thread: at once when already
// there, otherwise through a "QMXWM_UIRETURN" thread message that the UI thread's
// WH_GETMESSAGE hook picks up. Because the hook sees every message that any loop of the
// thread removes, coroutines resume also while a modal dialog or message box runs its own
// loop. Once the window's work is cancelled, every later switch throws
// fibra::details::operation_cancelled instead of continuing, even on the UI thread.

#include "base/failure.h"
#include "base/unique_handle.h"

#include <windows.h>

#include <coroutine>
#include <memory>

namespace fibra::details {

// Shared between a window and the coroutines working for it; readers take the lock
// shared, the window sets the flag once under the exclusive lock.
class cancellation_source_body {
public:
    [[nodiscard]] bool cancelled() const noexcept
    {
        ::AcquireSRWLockShared(&lock_);
        const bool value = cancelled_;
        ::ReleaseSRWLockShared(&lock_);
        return value;
    }
    void cancel() noexcept
    {
        ::AcquireSRWLockExclusive(&lock_);
        cancelled_ = true;
        ::ReleaseSRWLockExclusive(&lock_);
    }

private:
    mutable SRWLOCK lock_ = SRWLOCK_INIT;
    bool cancelled_ = false;
};

}  // namespace fibra::details

namespace tessel::windows::impl {

// Posts the handle to the thread as "QMXWM_UIRETURN". A null handle posts nothing; a
// failed post is not reported (the coroutine then never resumes).
void post_ui_return(DWORD thread_id, std::coroutine_handle<> handle) noexcept;

// The awaiter copies what it needs, so a window that is destroyed while the coroutine
// waits leaves nothing dangling: the shared cancellation body outlives it.
class ui_thread_awaiter {
public:
    ui_thread_awaiter(DWORD thread_id, std::shared_ptr<fibra::details::cancellation_source_body> cancellation,
                      bool always_post) noexcept
        : thread_id_(thread_id), cancellation_(std::move(cancellation)), always_post_(always_post)
    {
    }

    [[nodiscard]] bool await_ready() const noexcept
    {
        if (is_cancelled())
            return true;  // resume at once, so that await_resume throws
        if (always_post_)
            return false;
        return ::GetCurrentThreadId() == thread_id_;
    }
    void await_suspend(std::coroutine_handle<> handle) const noexcept { post_ui_return(thread_id_, handle); }
    void await_resume() const
    {
        if (is_cancelled())
            throw fibra::details::operation_cancelled();
    }

private:
    [[nodiscard]] bool is_cancelled() const noexcept { return cancellation_ && cancellation_->cancelled(); }

    DWORD thread_id_;
    std::shared_ptr<fibra::details::cancellation_source_body> cancellation_;
    bool always_post_;
};

class async_context_base {
protected:
    async_context_base() = default;
    ~async_context_base() = default;
};

class async_context : public async_context_base {
public:
    // The context of the calling thread, without cancellation.
    async_context() noexcept : thread_id_(::GetCurrentThreadId()) {}
    async_context(DWORD thread_id, std::shared_ptr<fibra::details::cancellation_source_body> cancellation,
                  bool always_post = false) noexcept
        : thread_id_(thread_id), cancellation_(std::move(cancellation)), always_post_(always_post)
    {
    }

    [[nodiscard]] DWORD thread_id() const noexcept { return thread_id_; }
    [[nodiscard]] const std::shared_ptr<fibra::details::cancellation_source_body>& cancellation() const noexcept
    {
        return cancellation_;
    }
    void set_cancellation(std::shared_ptr<fibra::details::cancellation_source_body> cancellation) noexcept
    {
        cancellation_ = std::move(cancellation);
    }
    [[nodiscard]] bool always_post() const noexcept { return always_post_; }
    void set_always_post(bool value) noexcept { always_post_ = value; }

    // Abandons the work of this context: every later switch to the UI thread throws.
    void cancel_work() const noexcept
    {
        if (cancellation_)
            cancellation_->cancel();
    }
    [[nodiscard]] bool work_cancelled() const noexcept { return cancellation_ && cancellation_->cancelled(); }

    [[nodiscard]] ui_thread_awaiter operator co_await() const noexcept
    {
        return ui_thread_awaiter(thread_id_, cancellation_, always_post_);
    }

private:
    DWORD thread_id_;
    std::shared_ptr<fibra::details::cancellation_source_body> cancellation_;
    bool always_post_ = false;
};

// The WH_GETMESSAGE hook procedure that resumes posted coroutines.
LRESULT CALLBACK ui_return_hook(int code, WPARAM wparam, LPARAM lparam) noexcept;

// Installs ui_return_hook for the calling thread; removing it is the owner's destruction.
[[nodiscard]] unique_hhook install_ui_return_hook();

}  // namespace tessel::windows::impl
