#include "nsm/registry_ex.h"

#include <cstring>

namespace tessel::registry_ex {
namespace {

using create_key_transacted_fn = LSTATUS(WINAPI*)(HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM,
                                                  const LPSECURITY_ATTRIBUTES, PHKEY, LPDWORD, HANDLE, PVOID);
using open_key_transacted_fn = LSTATUS(WINAPI*)(HKEY, LPCWSTR, DWORD, REGSAM, PHKEY, HANDLE, PVOID);
using delete_key_transacted_fn = LSTATUS(WINAPI*)(HKEY, LPCWSTR, REGSAM, DWORD, HANDLE, PVOID);

struct transacted_entry_points {
    create_key_transacted_fn create = nullptr;
    open_key_transacted_fn open = nullptr;
    delete_key_transacted_fn remove = nullptr;
};

template <class Fn>
Fn resolve(HMODULE module, const char* name) noexcept
{
    return module ? reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(::GetProcAddress(module, name))) : nullptr;
}

// Resolved once: a direct import would keep the program from starting where they are
// missing.
const transacted_entry_points& entry_points() noexcept
{
    static const transacted_entry_points points = [] {
        const HMODULE advapi = ::GetModuleHandleW(L"advapi32.dll");
        transacted_entry_points result;
        result.create = resolve<create_key_transacted_fn>(advapi, "RegCreateKeyTransactedW");
        result.open = resolve<open_key_transacted_fn>(advapi, "RegOpenKeyTransactedW");
        result.remove = resolve<delete_key_transacted_fn>(advapi, "RegDeleteKeyTransactedW");
        return result;
    }();
    return points;
}

}  // namespace

transacted_support transacted_calls_available() noexcept
{
    const auto& points = entry_points();
    return {points.create != nullptr, points.open != nullptr, points.remove != nullptr};
}

LSTATUS create_key(HKEY parent, const wchar_t* subkey, REGSAM access, HANDLE transaction, HKEY* result,
                   DWORD* disposition) noexcept
{
    *result = nullptr;
    if (transaction) {
        if (const auto create = entry_points().create) {
            const LSTATUS status = create(parent, subkey, 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr, result,
                                          disposition, transaction, nullptr);
            if (status != ERROR_CALL_NOT_IMPLEMENTED)
                return status;
        }
    }
    return ::RegCreateKeyExW(parent, subkey, 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr, result,
                             disposition);
}

LSTATUS open_key(HKEY parent, const wchar_t* subkey, REGSAM access, HANDLE transaction, HKEY* result) noexcept
{
    *result = nullptr;
    if (transaction) {
        if (const auto open = entry_points().open) {
            const LSTATUS status = open(parent, subkey, 0, access, result, transaction, nullptr);
            if (status != ERROR_CALL_NOT_IMPLEMENTED)
                return status;
        }
    }
    return ::RegOpenKeyExW(parent, subkey, 0, access, result);
}

LSTATUS delete_key(HKEY parent, const wchar_t* subkey, HANDLE transaction) noexcept
{
    if (transaction) {
        if (const auto remove = entry_points().remove) {
            const LSTATUS status = remove(parent, subkey, 0, 0, transaction, nullptr);
            if (status != ERROR_CALL_NOT_IMPLEMENTED)
                return status;
        }
    }
    return ::RegDeleteKeyW(parent, subkey);
}

lazy_key::lazy_key(HKEY parent, std::wstring subkey, HANDLE transaction, bool open_existing_only)
    : parent_(parent), subkey_(std::move(subkey)), transaction_(transaction), open_existing_only_(open_existing_only)
{
}

HKEY lazy_key::get()
{
    if (!opened_) {
        HKEY key = nullptr;
        const LSTATUS status = open_existing_only_
                                   ? open_key(parent_, subkey_.c_str(), KEY_READ, transaction_, &key)
                                   : create_key(parent_, subkey_.c_str(), KEY_READ, transaction_, &key);
        if (status != ERROR_SUCCESS)
            throw error_creating_key(status);
        key_.reset(key);
        opened_ = true;
    }
    return key_.get();
}

std::optional<std::vector<std::wstring>> read_multi_string(HKEY key, const wchar_t* value_name)
{
    DWORD size = 0;
    LSTATUS status = ::RegGetValueW(key, nullptr, value_name, RRF_RT_REG_MULTI_SZ, nullptr, nullptr, &size);
    if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA)
        return std::nullopt;
    // Spare room: the value may grow between the two calls, and a value stored without its
    // final NULs still ends inside the buffer.
    std::vector<wchar_t> buffer((size + 16 + sizeof(wchar_t) - 1) / sizeof(wchar_t) + 2, L'\0');
    DWORD data_size = static_cast<DWORD>((buffer.size() - 2) * sizeof(wchar_t));
    status = ::RegGetValueW(key, nullptr, value_name, RRF_RT_REG_MULTI_SZ, nullptr, buffer.data(), &data_size);
    if (status != ERROR_SUCCESS)
        return std::nullopt;

    std::vector<std::wstring> result;
    const wchar_t* p = buffer.data();
    const wchar_t* const end = buffer.data() + data_size / sizeof(wchar_t);
    while (p < end && *p != L'\0') {
        const std::size_t length = std::wcslen(p);
        result.emplace_back(p, length);
        p += length + 1;
    }
    return result;
}

}  // namespace tessel::registry_ex
