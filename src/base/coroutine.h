#pragma once
// A coroutine type for work that nobody awaits: notification handlers, commands. It starts
// at once and frees itself at the end. An exception that escapes its body is reported
// (the program shows it; by default it goes to the debugger output) instead of ending the
// process; operation_cancelled, the normal end of abandoned work, is not reported.

#include <coroutine>
#include <exception>

namespace fibra {

using unhandled_exception_reporter = void (*)(std::exception_ptr) noexcept;

// Returns the previous reporter; null restores the default.
unhandled_exception_reporter set_unhandled_exception_reporter(unhandled_exception_reporter reporter) noexcept;

namespace details {
void report_unhandled_exception(std::exception_ptr error) noexcept;
}

struct fire_and_forget {
    struct promise_type {
        fire_and_forget get_return_object() const noexcept { return {}; }
        std::suspend_never initial_suspend() const noexcept { return {}; }
        std::suspend_never final_suspend() const noexcept { return {}; }
        void return_void() const noexcept {}
        void unhandled_exception() const noexcept { details::report_unhandled_exception(std::current_exception()); }
    };
};

}  // namespace fibra
