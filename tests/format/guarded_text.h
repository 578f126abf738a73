#pragma once
// Text whose last unit is the last one before a page that cannot be read, so that any
// read past its end crashes the test at once instead of passing by luck.

#include <windows.h>

#include <cstring>
#include <stdexcept>
#include <string_view>

class guarded_text {
public:
    guarded_text()
    {
        SYSTEM_INFO info;
        ::GetSystemInfo(&info);
        page_ = info.dwPageSize;
        base_ = static_cast<char*>(::VirtualAlloc(nullptr, 2 * page_, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        DWORD previous;
        if (!base_ || !::VirtualProtect(base_ + page_, page_, PAGE_NOACCESS, &previous))
            throw std::runtime_error("cannot set up the guard page");
    }
    guarded_text(const guarded_text&) = delete;
    guarded_text& operator=(const guarded_text&) = delete;
    ~guarded_text() { ::VirtualFree(base_, 0, MEM_RELEASE); }

    // Valid until the next call.
    std::wstring_view place(std::wstring_view text)
    {
        if (text.size() * sizeof(wchar_t) > page_)
            throw std::length_error("text longer than a page");
        wchar_t* const at = reinterpret_cast<wchar_t*>(base_ + page_) - text.size();
        std::memcpy(at, text.data(), text.size() * sizeof(wchar_t));
        return {at, text.size()};
    }

private:
    std::size_t page_ = 0;
    char* base_ = nullptr;
};
