#pragma once
// A throwaway key under HKEY_CURRENT_USER, removed before and after each test.

#include "base/unique_handle.h"

#include <windows.h>

#include <string>
#include <vector>

namespace nsm_test {

class test_key {
public:
    explicit test_key(const wchar_t* leaf)
        : path_(std::wstring(L"Software\\tessel-tests\\nsm-") + std::to_wstring(::GetCurrentProcessId()) + L"\\" + leaf)
    {
        remove();
    }
    ~test_key()
    {
        remove();
        ::RegDeleteKeyW(HKEY_CURRENT_USER, parent().c_str());
        ::RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\tessel-tests");
    }
    test_key(const test_key&) = delete;
    test_key& operator=(const test_key&) = delete;

    [[nodiscard]] const std::wstring& path() const noexcept { return path_; }

    [[nodiscard]] bool exists() const
    {
        HKEY key = nullptr;
        if (::RegOpenKeyExW(HKEY_CURRENT_USER, path_.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
            return false;
        ::RegCloseKey(key);
        return true;
    }

    // Opens (creating) the key or a subkey below it for reading and writing.
    [[nodiscard]] tessel::unique_hkey open(const std::wstring& sub = {}) const
    {
        HKEY key = nullptr;
        const std::wstring full = sub.empty() ? path_ : path_ + L"\\" + sub;
        ::RegCreateKeyExW(HKEY_CURRENT_USER, full.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
        return tessel::unique_hkey(key);
    }

    void set(const wchar_t* name, DWORD type, const void* data, DWORD size, const std::wstring& sub = {}) const
    {
        ::RegSetValueExW(open(sub).get(), name, 0, type, static_cast<const BYTE*>(data), size);
    }
    void set_string(const wchar_t* name, const std::wstring& text, const std::wstring& sub = {}) const
    {
        set(name, REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)), sub);
    }
    void set_dword(const wchar_t* name, DWORD value, const std::wstring& sub = {}) const
    {
        set(name, REG_DWORD, &value, sizeof value, sub);
    }

    // "name:type" for every value, and "name\" for every subkey, in enumeration order.
    [[nodiscard]] std::vector<std::wstring> listing(const std::wstring& sub = {}) const
    {
        std::vector<std::wstring> result;
        const tessel::unique_hkey key = open(sub);
        wchar_t name[512];
        for (DWORD i = 0;; ++i) {
            DWORD length = 512, type = 0;
            if (::RegEnumValueW(key.get(), i, name, &length, nullptr, &type, nullptr, nullptr) != ERROR_SUCCESS)
                break;
            result.push_back(std::wstring(name, length) + L":" + std::to_wstring(type));
        }
        for (DWORD i = 0;; ++i) {
            DWORD length = 512;
            if (::RegEnumKeyExW(key.get(), i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
                break;
            result.push_back(std::wstring(name, length) + L"\\");
        }
        return result;
    }

private:
    [[nodiscard]] std::wstring parent() const { return path_.substr(0, path_.rfind(L'\\')); }
    void remove() const { ::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str()); }

    std::wstring path_;
};

}  // namespace nsm_test
