#pragma once
// A scripted sharing server in the test's own process: devices, shares and failures are
// plain members the test sets, and every call is counted, so that the model's rules can be
// checked call by call.

#include "server_link/server_api.h"
#include "base/com_object.h"
#include "base/com_ptr.h"

#include <oleauto.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fake_server {

#define FAKE_RESERVED(slot) \
    HRESULT STDMETHODCALLTYPE Reserved##slot() noexcept override { return E_NOTIMPL; }

inline HRESULT to_bstr(const std::wstring& text, BSTR* out) noexcept
{
    *out = text.empty() ? nullptr : ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return S_OK;
}

class device final : public tessel::com_object<IUsbDevice, IUsbDeviceNode> {
public:
    std::wstring name;
    std::wstring client;
    std::wstring location = L"1-1";
    bool connected = true;
    bool needs_confirmation = false;
    DWORD devinst = 0;
    // Method name -> failure code.
    std::map<std::wstring, HRESULT> failures;
    std::map<std::wstring, int> calls;

    FAKE_RESERVED(3) FAKE_RESERVED(4) FAKE_RESERVED(5) FAKE_RESERVED(6) FAKE_RESERVED(7) FAKE_RESERVED(8)
    FAKE_RESERVED(9) FAKE_RESERVED(10) FAKE_RESERVED(11) FAKE_RESERVED(14)

    // Counts the call; the method's failure, or what answer() gives.
    template <class F>
    HRESULT call(const wchar_t* method, F answer)
    {
        ++calls[method];
        const auto it = failures.find(method);
        return it != failures.end() ? it->second : answer();
    }
    static HRESULT flag(bool value, VARIANT_BOOL* out)
    {
        *out = value ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetName(BSTR* out) noexcept override
    {
        return call(L"GetName", [&] { return to_bstr(name, out); });
    }
    HRESULT STDMETHODCALLTYPE GetLocation(BSTR* out) noexcept override
    {
        return call(L"GetLocation", [&] { return to_bstr(location, out); });
    }
    HRESULT STDMETHODCALLTYPE IsConnected(VARIANT_BOOL* out) noexcept override
    {
        return call(L"IsConnected", [&] { return flag(connected, out); });
    }
    HRESULT STDMETHODCALLTYPE GetClientName(BSTR* out) noexcept override
    {
        return call(L"GetClientName", [&] { return to_bstr(client, out); });
    }
    HRESULT STDMETHODCALLTYPE NeedsShareConfirmation(VARIANT_BOOL* out) noexcept override
    {
        return call(L"NeedsShareConfirmation", [&] { return flag(needs_confirmation, out); });
    }
    DWORD STDMETHODCALLTYPE GetDevInst() noexcept override { return devinst; }
};

class share final : public tessel::com_object<IUsbShare> {
public:
    share(tessel::com_ptr<IUsbDevice> of, std::wstring k) : owner(std::move(of)), key(std::move(k)) {}
    tessel::com_ptr<IUsbDevice> owner;
    std::wstring key;
    int key_reads = 0;

    FAKE_RESERVED(3) FAKE_RESERVED(4) FAKE_RESERVED(5) FAKE_RESERVED(6)
    HRESULT STDMETHODCALLTYPE GetDevice(IUsbDevice** out) noexcept override
    {
        owner.copy_to(out);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetAuthenticationKey(BSTR* out) noexcept override
    {
        ++key_reads;
        return to_bstr(key, out);
    }
};

class server final : public tessel::com_object<IUsbServer> {
public:
    std::vector<tessel::com_ptr<device>> devices;
    std::vector<tessel::com_ptr<share>> shares;
    std::map<std::wstring, HRESULT> failures;
    // What the last ShareDevice received.
    VARTYPE last_key_type = VT_ILLEGAL;
    bool last_key_was_null = false;
    std::wstring last_key;
    int share_calls = 0;
    int unshare_calls = 0;

    FAKE_RESERVED(3) FAKE_RESERVED(4) FAKE_RESERVED(5) FAKE_RESERVED(6) FAKE_RESERVED(8) FAKE_RESERVED(9)
    FAKE_RESERVED(10) FAKE_RESERVED(11) FAKE_RESERVED(12) FAKE_RESERVED(13) FAKE_RESERVED(14) FAKE_RESERVED(15)
    FAKE_RESERVED(16) FAKE_RESERVED(17) FAKE_RESERVED(20) FAKE_RESERVED(21) FAKE_RESERVED(22) FAKE_RESERVED(23)
    FAKE_RESERVED(24) FAKE_RESERVED(25) FAKE_RESERVED(28)

    tessel::com_ptr<device> add(std::wstring name, DWORD devinst = 0)
    {
        auto d = tessel::make_com_object<device>();
        d->name = std::move(name);
        d->devinst = devinst;
        devices.push_back(d);
        return d;
    }
    tessel::com_ptr<share> add_share(const tessel::com_ptr<device>& of, std::wstring key)
    {
        auto s = tessel::make_com_object<share>(tessel::com_ptr<IUsbDevice>(of), std::move(key));
        shares.push_back(s);
        return s;
    }
    HRESULT fails(const wchar_t* method) const
    {
        const auto it = failures.find(method);
        return it == failures.end() ? S_OK : it->second;
    }

    HRESULT STDMETHODCALLTYPE IsRunning(VARIANT_BOOL* out) noexcept override
    {
        *out = VARIANT_TRUE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ShareDevice(IUsbDevice* d, VARIANT key, IUsbShare** out) noexcept override
    {
        ++share_calls;
        last_key_type = key.vt;
        last_key_was_null = key.vt == VT_BSTR && key.bstrVal == nullptr;
        last_key = key.vt == VT_BSTR && key.bstrVal ? std::wstring(key.bstrVal, ::SysStringLen(key.bstrVal)) : L"";
        *out = nullptr;
        if (const HRESULT hr = fails(L"ShareDevice"); FAILED(hr))
            return hr;
        for (const auto& candidate : devices)
            if (static_cast<IUsbDevice*>(candidate.get()) == d) {
                tessel::com_ptr<IUsbShare>(add_share(candidate, last_key)).copy_to(out);
                return S_OK;
            }
        return E_INVALIDARG;
    }
    HRESULT STDMETHODCALLTYPE UnshareDevice(IUsbShare* s) noexcept override
    {
        ++unshare_calls;
        std::erase_if(shares, [s](const auto& candidate) { return static_cast<IUsbShare*>(candidate.get()) == s; });
        return fails(L"UnshareDevice");
    }
    template <class T, class I>
    static HRESULT hand_out(const std::vector<tessel::com_ptr<T>>& items, ULONG* count, I*** out)
    {
        *count = static_cast<ULONG>(items.size());
        *out = static_cast<I**>(::CoTaskMemAlloc(sizeof(I*) * (items.empty() ? 1 : items.size())));
        for (std::size_t i = 0; i < items.size(); ++i)
            tessel::com_ptr<I>(items[i]).copy_to(&(*out)[i]);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetDevices(ULONG* count, IUsbDevice*** out) noexcept override
    {
        *count = 0;
        *out = nullptr;
        if (const HRESULT hr = fails(L"GetDevices"); FAILED(hr))
            return hr;
        return hand_out(devices, count, out);
    }
    HRESULT STDMETHODCALLTYPE GetShares(ULONG* count, IUsbShare*** out) noexcept override
    {
        *count = 0;
        *out = nullptr;
        if (const HRESULT hr = fails(L"GetShares"); FAILED(hr))
            return hr;
        return hand_out(shares, count, out);
    }
    HRESULT STDMETHODCALLTYPE SetSettingsAsync(const UsbServerSettings*, IUsbServerOperation**) noexcept override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetSettingsAsync(IUsbServerOperation**) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE AdviseListener(IUsbServerListener* listener) noexcept override
    {
        listeners.emplace_back(listener);
        return S_OK;
    }
    // A failing call keeps the listener, as a server that does not let go would.
    HRESULT STDMETHODCALLTYPE UnadviseListener(IUsbServerListener* listener) noexcept override
    {
        if (const HRESULT hr = fails(L"UnadviseListener"); FAILED(hr))
            return hr;
        std::erase_if(listeners, [listener](const auto& l) { return l.get() == listener; });
        return S_OK;
    }
    std::vector<tessel::com_ptr<IUsbServerListener>> listeners;
};

#undef FAKE_RESERVED

}  // namespace fake_server
