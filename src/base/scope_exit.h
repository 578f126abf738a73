#pragma once
// Owners for cleanup that is not a handle: an action at the end of a scope, COM on this
// thread, a window's paint cycle. Whatever leaves the scope (return or exception) runs
// the cleanup exactly once.

#include <windows.h>
#include <objbase.h>

#include <type_traits>
#include <utility>

namespace tessel {

// Runs `action` when the scope ends, unless release() was called. The action must not throw.
template <class F>
class [[nodiscard]] scope_exit {
public:
    explicit scope_exit(F action) noexcept(std::is_nothrow_move_constructible_v<F>) : action_(std::move(action)) {}
    scope_exit(scope_exit&& other) noexcept(std::is_nothrow_move_constructible_v<F>)
        : action_(std::move(other.action_)), active_(std::exchange(other.active_, false))
    {
    }
    scope_exit(const scope_exit&) = delete;
    scope_exit& operator=(const scope_exit&) = delete;
    scope_exit& operator=(scope_exit&&) = delete;
    ~scope_exit()
    {
        if (active_)
            action_();
    }
    void release() noexcept { active_ = false; }

private:
    F action_;
    bool active_ = true;
};

// COM on this thread until the owner goes. A failed initialisation (the thread already
// chose another apartment model) owns nothing; result() says what happened.
class [[nodiscard]] unique_couninitialize {
public:
    explicit unique_couninitialize(HRESULT result) noexcept : result_(result) {}
    unique_couninitialize(unique_couninitialize&& other) noexcept : result_(std::exchange(other.result_, E_FAIL)) {}
    unique_couninitialize(const unique_couninitialize&) = delete;
    unique_couninitialize& operator=(const unique_couninitialize&) = delete;
    unique_couninitialize& operator=(unique_couninitialize&&) = delete;
    ~unique_couninitialize()
    {
        if (SUCCEEDED(result_))
            ::CoUninitialize();
    }
    [[nodiscard]] HRESULT result() const noexcept { return result_; }

private:
    HRESULT result_;
};

[[nodiscard]] inline unique_couninitialize co_initialize(DWORD model = COINIT_APARTMENTTHREADED) noexcept
{
    return unique_couninitialize(::CoInitializeEx(nullptr, model));
}

// One WM_PAINT: BeginPaint now, EndPaint when the owner goes, also when drawing throws.
class [[nodiscard]] unique_paint {
public:
    explicit unique_paint(HWND window) noexcept : window_(window) { ::BeginPaint(window_, &paint_); }
    unique_paint(const unique_paint&) = delete;
    unique_paint& operator=(const unique_paint&) = delete;
    ~unique_paint() { ::EndPaint(window_, &paint_); }
    [[nodiscard]] const PAINTSTRUCT& get() const noexcept { return paint_; }
    [[nodiscard]] const PAINTSTRUCT* operator->() const noexcept { return &paint_; }

private:
    HWND window_;
    PAINTSTRUCT paint_{};
};

[[nodiscard]] inline unique_paint begin_paint(HWND window) noexcept
{
    return unique_paint(window);
}

}  // namespace tessel
