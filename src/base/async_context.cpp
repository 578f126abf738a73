#include "base/async_context.h"

#include "base/coroutine.h"
#include "base/registered_messages.h"

#include <atomic>

namespace tessel::windows::impl {

void post_ui_return(DWORD thread_id, std::coroutine_handle<> handle) noexcept
{
    if (!handle)
        return;
    ::PostThreadMessageW(thread_id, wm_ui_return(), reinterpret_cast<WPARAM>(handle.address()), 0);
}

LRESULT CALLBACK ui_return_hook(int code, WPARAM wparam, LPARAM lparam) noexcept
{
    if (code == HC_ACTION && wparam == PM_REMOVE) {
        const auto* message = reinterpret_cast<const MSG*>(lparam);
        if (message->message == wm_ui_return() && message->wParam != 0)
            std::coroutine_handle<>::from_address(reinterpret_cast<void*>(message->wParam)).resume();
    }
    return ::CallNextHookEx(nullptr, code, wparam, lparam);
}

unique_hhook install_ui_return_hook()
{
    unique_hhook hook(::SetWindowsHookExW(WH_GETMESSAGE, ui_return_hook, nullptr, ::GetCurrentThreadId()));
    throw_last_error_if(!hook);
    return hook;
}

}  // namespace tessel::windows::impl

namespace fibra {
namespace {

void report_to_debugger(std::exception_ptr error) noexcept
{
    try {
        std::rethrow_exception(error);
    } catch (const details::operation_cancelled&) {
        // The window went away; ending its work is what cancellation is for.
    } catch (...) {
        tessel::log_caught_exception(L"coroutine ended by an exception");
    }
}

std::atomic<unhandled_exception_reporter> current_reporter{report_to_debugger};

}  // namespace

unhandled_exception_reporter set_unhandled_exception_reporter(unhandled_exception_reporter reporter) noexcept
{
    return current_reporter.exchange(reporter ? reporter : report_to_debugger);
}

namespace details {
void report_unhandled_exception(std::exception_ptr error) noexcept
{
    current_reporter.load()(error);
}
}  // namespace details

}  // namespace fibra
