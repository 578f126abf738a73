#pragma once
// An awaitable coroutine for steps of asynchronous work that a caller waits for: it starts
// when awaited, and the caller continues on the thread the task finished on, with the
// task's result or its exception.

#include <coroutine>
#include <exception>
#include <optional>
#include <utility>

namespace tessel::web {

template <class T>
class task;

namespace details {

struct task_promise_base {
    std::coroutine_handle<> continuation;
    std::exception_ptr error;

    std::suspend_always initial_suspend() const noexcept { return {}; }
    struct final_awaiter {
        bool await_ready() const noexcept { return false; }
        template <class Promise>
        std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> self) const noexcept
        {
            const std::coroutine_handle<> next = self.promise().continuation;
            return next ? next : std::noop_coroutine();
        }
        void await_resume() const noexcept {}
    };
    final_awaiter final_suspend() const noexcept { return {}; }
    void unhandled_exception() noexcept { error = std::current_exception(); }
};

template <class T>
struct task_promise : task_promise_base {
    std::optional<T> value;
    task<T> get_return_object() noexcept;
    template <class U>
    void return_value(U&& result)
    {
        value.emplace(std::forward<U>(result));
    }
    T take()
    {
        if (error)
            std::rethrow_exception(error);
        return std::move(*value);
    }
};

template <>
struct task_promise<void> : task_promise_base {
    task<void> get_return_object() noexcept;
    void return_void() const noexcept {}
    void take() const
    {
        if (error)
            std::rethrow_exception(error);
    }
};

}  // namespace details

template <class T = void>
class [[nodiscard]] task {
public:
    using promise_type = details::task_promise<T>;

    explicit task(std::coroutine_handle<promise_type> handle) noexcept : handle_(handle) {}
    task(task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
    task& operator=(task&&) = delete;
    task(const task&) = delete;
    ~task()
    {
        if (handle_)
            handle_.destroy();
    }

    bool await_ready() const noexcept { return false; }
    std::coroutine_handle<> await_suspend(std::coroutine_handle<> caller) noexcept
    {
        handle_.promise().continuation = caller;
        return handle_;
    }
    T await_resume() { return handle_.promise().take(); }

private:
    std::coroutine_handle<promise_type> handle_;
};

namespace details {
template <class T>
task<T> task_promise<T>::get_return_object() noexcept
{
    return task<T>(std::coroutine_handle<task_promise<T>>::from_promise(*this));
}
inline task<void> task_promise<void>::get_return_object() noexcept
{
    return task<void>(std::coroutine_handle<task_promise<void>>::from_promise(*this));
}
}  // namespace details

}  // namespace tessel::web
