#pragma once
// Test memory whose usable part ends right before a page that cannot be read, so that
// any read past the end of data placed there crashes the test at once instead of
// passing by luck. Shared by the tests that feed readers damaged or truncated input.

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string_view>

namespace test_support {

class guarded_buffer {
public:
    // At least `capacity` usable bytes, rounded up to whole pages.
    explicit guarded_buffer(std::size_t capacity = 1)
    {
        SYSTEM_INFO info{};
        ::GetSystemInfo(&info);
        const std::size_t page = info.dwPageSize;
        usable_ = (capacity + page - 1) / page * page;
        base_ = static_cast<std::byte*>(::VirtualAlloc(nullptr, usable_ + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        DWORD old = 0;
        if (!base_ || !::VirtualProtect(base_ + usable_, page, PAGE_NOACCESS, &old))
            throw std::runtime_error("cannot set up the guard page");
    }
    ~guarded_buffer() { ::VirtualFree(base_, 0, MEM_RELEASE); }
    guarded_buffer(const guarded_buffer&) = delete;
    guarded_buffer& operator=(const guarded_buffer&) = delete;

    // Whether the page after the data really is out of bounds.
    [[nodiscard]] bool guarded() const
    {
        MEMORY_BASIC_INFORMATION info{};
        return ::VirtualQuery(base_ + usable_, &info, sizeof info) == sizeof info && info.Protect == PAGE_NOACCESS &&
               ::IsBadReadPtr(base_ + usable_, 1);
    }

    // Copies data so that it ends at the guard page; with an alignment, its start is
    // moved down to it (ending that many bytes early at most). Valid until the next call.
    std::span<const std::byte> place(std::span<const std::byte> data, std::size_t alignment = 1)
    {
        if (data.size() > usable_)
            throw std::length_error("data longer than the guarded buffer");
        std::byte* start = base_ + usable_ - data.size();
        start -= reinterpret_cast<std::uintptr_t>(start) % alignment;
        std::memcpy(start, data.data(), data.size());
        return {start, data.size()};
    }

    std::string_view place(std::string_view text)
    {
        const auto placed = place(std::as_bytes(std::span(text)));
        return {reinterpret_cast<const char*>(placed.data()), text.size()};
    }

    std::wstring_view place(std::wstring_view text)
    {
        const auto placed = place(std::as_bytes(std::span(text)), alignof(wchar_t));
        return {reinterpret_cast<const wchar_t*>(placed.data()), text.size()};
    }

private:
    std::byte* base_ = nullptr;
    std::size_t usable_ = 0;
};

}  // namespace test_support
