#pragma once
// Owned system handles: one small template and one line per handle kind. Copying is
// deleted, moving transfers ownership, destruction closes.

#include <windows.h>
#include <oleauto.h>
#include <wininet.h>

#include <utility>

namespace tessel {

// Handles whose empty value is null (most of them).
template <class T, auto close_fn>
struct null_handle_traits {
    using type = T;
    static constexpr type invalid() noexcept { return nullptr; }
    static void close(type value) noexcept { close_fn(value); }
};

// Kernel handles of the file family, whose empty value is INVALID_HANDLE_VALUE.
template <auto close_fn>
struct invalid_handle_traits {
    using type = HANDLE;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type value) noexcept { close_fn(value); }
};

template <class traits>
class unique_any {
public:
    using pointer = typename traits::type;

    unique_any() noexcept = default;
    explicit unique_any(pointer value) noexcept : value_(value) {}
    unique_any(const unique_any&) = delete;
    unique_any& operator=(const unique_any&) = delete;
    unique_any(unique_any&& other) noexcept : value_(other.release()) {}
    unique_any& operator=(unique_any&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~unique_any() { reset(); }

    [[nodiscard]] pointer get() const noexcept { return value_; }
    [[nodiscard]] bool is_valid() const noexcept { return value_ != traits::invalid(); }
    explicit operator bool() const noexcept { return is_valid(); }

    void reset(pointer value = traits::invalid()) noexcept
    {
        const pointer old = std::exchange(value_, value);
        if (old != traits::invalid())
            traits::close(old);
    }
    [[nodiscard]] pointer release() noexcept { return std::exchange(value_, traits::invalid()); }

    // For out-parameters: closes what is held and hands out the slot.
    [[nodiscard]] pointer* put() noexcept
    {
        reset();
        return &value_;
    }

    void swap(unique_any& other) noexcept { std::swap(value_, other.value_); }

private:
    pointer value_ = traits::invalid();
};

template <class T, auto close_fn>
using unique_handle_of = unique_any<null_handle_traits<T, close_fn>>;

namespace details {
inline void unmap_view(const void* view) noexcept { ::UnmapViewOfFile(view); }
inline void close_internet_handle(HINTERNET handle) noexcept { ::InternetCloseHandle(handle); }
}  // namespace details

// Kernel objects: processes, threads, events, file mappings.
using unique_handle = unique_handle_of<HANDLE, ::CloseHandle>;
// CreateFileW and friends report failure as INVALID_HANDLE_VALUE.
using unique_file = unique_any<invalid_handle_traits<::CloseHandle>>;
using unique_find_handle = unique_any<invalid_handle_traits<::FindClose>>;
// Never put a predefined root (HKEY_CURRENT_USER...) into one.
using unique_hkey = unique_handle_of<HKEY, ::RegCloseKey>;
using unique_hinternet = unique_handle_of<HINTERNET, details::close_internet_handle>;
using unique_mapped_view = unique_handle_of<const void*, details::unmap_view>;
using unique_hmodule = unique_handle_of<HMODULE, ::FreeLibrary>;
using unique_hicon = unique_handle_of<HICON, ::DestroyIcon>;
using unique_hfont = unique_handle_of<HFONT, ::DeleteObject>;
using unique_hbitmap = unique_handle_of<HBITMAP, ::DeleteObject>;
using unique_hbrush = unique_handle_of<HBRUSH, ::DeleteObject>;
using unique_hwnd = unique_handle_of<HWND, ::DestroyWindow>;
using unique_hhook = unique_handle_of<HHOOK, ::UnhookWindowsHookEx>;
using unique_hlocal = unique_handle_of<HLOCAL, ::LocalFree>;
using unique_bstr = unique_handle_of<BSTR, ::SysFreeString>;
using unique_cotaskmem = unique_handle_of<void*, ::CoTaskMemFree>;

}  // namespace tessel
