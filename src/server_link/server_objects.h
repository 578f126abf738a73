#pragma once
// Taking over what the server hands out: its collections (a CoTaskMemAlloc'ed array with
// one reference per element, both the caller's) and its texts (BSTRs).

#include "base/com_ptr.h"
#include "base/failure.h"
#include "base/unique_handle.h"
#include "server_link/server_api.h"

#include <string>
#include <vector>

namespace servercfg {

// Owns the array and every element from the first line on, so nothing leaks whatever
// happens; null elements are dropped.
template <class T>
[[nodiscard]] std::vector<tessel::com_ptr<T>> adopt_collection(ULONG count, T** items)
{
    const tessel::unique_cotaskmem array(items);
    std::vector<tessel::com_ptr<T>> result;
    try {
        result.reserve(count);
    } catch (...) {
        for (ULONG i = 0; i < count; ++i)
            if (items[i])
                items[i]->Release();
        throw;
    }
    for (ULONG i = 0; i < count; ++i)
        if (items[i])
            result.push_back(tessel::com_ptr<T>::attach(items[i]));
    return result;
}

// GetDevices and GetShares; throw fibra::details::hresult_error with the server's code.
[[nodiscard]] inline std::vector<tessel::com_ptr<IUsbDevice>> server_devices(IUsbServer& server)
{
    ULONG count = 0;
    IUsbDevice** items = nullptr;
    const HRESULT hr = server.GetDevices(&count, &items);
    auto devices = adopt_collection(SUCCEEDED(hr) ? count : 0, items);
    tessel::throw_if_failed(hr);
    return devices;
}

[[nodiscard]] inline std::vector<tessel::com_ptr<IUsbShare>> server_shares(IUsbServer& server)
{
    ULONG count = 0;
    IUsbShare** items = nullptr;
    const HRESULT hr = server.GetShares(&count, &items);
    auto shares = adopt_collection(SUCCEEDED(hr) ? count : 0, items);
    tessel::throw_if_failed(hr);
    return shares;
}

// A BSTR out-value as text; a null BSTR is empty text.
[[nodiscard]] inline std::wstring text_of(const tessel::unique_bstr& text)
{
    return text ? std::wstring(text.get(), ::SysStringLen(text.get())) : std::wstring();
}

}  // namespace servercfg
