#include "sim_objects.h"

#include <oleauto.h>

#include <cstdio>

namespace sim_server {

const char* object_kind_name(object_kind kind) noexcept
{
    switch (kind) {
    case object_kind::server: return "server";
    case object_kind::device: return "device";
    case object_kind::share: return "share";
    case object_kind::operation: return "operation";
    case object_kind::class_factory: return "class factory";
    case object_kind::count: break;
    }
    return "?";
}

void write_census_report() noexcept
{
    wchar_t path[MAX_PATH];
    const DWORD length = ::GetEnvironmentVariableW(L"ULMORA_SIM_REFERENCE_REPORT", path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
        return;
    // Plain kernel calls only: this runs while the DLL is being unloaded.
    const HANDLE file = ::CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    char line[128];
    DWORD written = 0;
    for (int kind = 0; kind < static_cast<int>(object_kind::count); ++kind) {
        const long objects = census[kind].objects, references = census[kind].references;
        if (objects == 0 && references == 0)
            continue;
        const int size = std::snprintf(line, sizeof line, "live %s %ld %ld\n",
                                       object_kind_name(static_cast<object_kind>(kind)), objects, references);
        ::WriteFile(file, line, static_cast<DWORD>(size), &written, nullptr);
    }
    const int size = std::snprintf(line, sizeof line, "end %lu\n", ::GetCurrentProcessId());
    ::WriteFile(file, line, static_cast<DWORD>(size), &written, nullptr);
    ::CloseHandle(file);
}

void failure_table::set(const std::wstring& method, const std::wstring& device_id, HRESULT code)
{
    if (SUCCEEDED(code))
        entries_.erase({method, device_id});
    else
        entries_[{method, device_id}] = code;
}

HRESULT failure_table::find(std::wstring_view method, std::wstring_view device_id) const
{
    // Every method asks here first, so this is where calls are counted.
    ++calls_answered;
    if (disconnected_)
        return RPC_E_DISCONNECTED;
    if (!device_id.empty())
        if (const auto it = entries_.find(std::pair{std::wstring(method), std::wstring(device_id)});
            it != entries_.end())
            return it->second;
    if (const auto it = entries_.find(std::pair{std::wstring(method), std::wstring()}); it != entries_.end())
        return it->second;
    return S_OK;
}

std::vector<failure_spec> failure_table::list() const
{
    std::vector<failure_spec> result;
    for (const auto& [key, code] : entries_)
        result.push_back({key.first, key.second, code});
    return result;
}

HRESULT copy_to_bstr(std::wstring_view text, BSTR* out) noexcept
{
    if (!out)
        return E_POINTER;
    *out = nullptr;
    if (text.empty())
        return S_OK;
    *out = ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return *out ? S_OK : E_OUTOFMEMORY;
}

HRESULT device_object::GetName(BSTR* name) noexcept
{
    if (const HRESULT hr = injected_failure(L"GetName"); FAILED(hr))
        return hr;
    return copy_to_bstr(state.spec.name, name);
}

HRESULT device_object::GetLocation(BSTR* location) noexcept
{
    if (const HRESULT hr = injected_failure(L"GetLocation"); FAILED(hr))
        return hr;
    return copy_to_bstr(state.spec.location, location);
}

HRESULT device_object::IsConnected(VARIANT_BOOL* connected) noexcept
{
    if (!connected)
        return E_POINTER;
    if (const HRESULT hr = injected_failure(L"IsConnected"); FAILED(hr))
        return hr;
    *connected = state.spec.connected && !state.removed ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT device_object::GetClientName(BSTR* client) noexcept
{
    if (const HRESULT hr = injected_failure(L"GetClientName"); FAILED(hr))
        return hr;
    return copy_to_bstr(state.removed ? std::wstring_view() : state.spec.client, client);
}

HRESULT device_object::NeedsShareConfirmation(VARIANT_BOOL* confirmation) noexcept
{
    if (!confirmation)
        return E_POINTER;
    if (const HRESULT hr = injected_failure(L"NeedsShareConfirmation"); FAILED(hr))
        return hr;
    *confirmation = state.spec.needs_share_confirmation ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT share_object::GetDevice(IUsbDevice** out) noexcept
{
    if (!out)
        return E_POINTER;
    *out = nullptr;
    if (const HRESULT hr = failures_->find(L"GetDevice", device->state.spec.id); FAILED(hr))
        return hr;
    // The same object GetDevices hands out, so callers can match by pointer.
    tessel::com_ptr<IUsbDevice>(device).copy_to(out);
    return S_OK;
}

HRESULT share_object::GetAuthenticationKey(BSTR* out) noexcept
{
    if (const HRESULT hr = failures_->find(L"GetAuthenticationKey", device->state.spec.id); FAILED(hr)) {
        if (out)
            *out = nullptr;
        return hr;
    }
    return copy_to_bstr(key, out);
}

void operation::complete(HRESULT result, std::optional<server_settings> settings) noexcept
{
    if (completed_)
        return;
    completed_ = true;
    result_ = result;
    settings_ = std::move(settings);
    call_handler();
}

void operation::call_handler() noexcept
{
    if (!completed_ || !handler_ || handler_called_)
        return;
    handler_called_ = true;
    // Dropped before the call returns to us, so a handler that lets go of the operation
    // does not keep a cycle alive.
    const auto handler = std::move(handler_);
    handler->OnCompleted(this);
}

HRESULT operation::SetCompletedHandler(IUsbServerOperationHandler* handler) noexcept
{
    if (!handler)
        return E_POINTER;
    if (handler_ || handler_called_)
        return illegal_method_call;
    handler_ = tessel::com_ptr<IUsbServerOperationHandler>(handler);
    // Already ended: the handler runs at once.
    const tessel::com_ptr<IUsbServerOperation> keep_alive(this);
    call_handler();
    return S_OK;
}

HRESULT operation::GetResult(HRESULT* result) noexcept
{
    if (!result)
        return E_POINTER;
    if (!completed_) {
        *result = E_PENDING;
        return E_PENDING;
    }
    *result = result_;
    return S_OK;
}

HRESULT operation::GetSettings(UsbServerSettings* out) noexcept
{
    if (!out)
        return E_POINTER;
    *out = UsbServerSettings{};
    if (!completed_)
        return E_PENDING;
    if (FAILED(result_))
        return result_;
    if (!settings_)
        return illegal_method_call;  // a write delivers no settings
    if (settings_->endpoints) {
        out->endpoints = ::SysAllocStringLen(settings_->endpoints->data(),
                                             static_cast<UINT>(settings_->endpoints->size()));
        if (!out->endpoints)
            return E_OUTOFMEMORY;
        out->fields |= usb_settings_endpoints;
    }
    if (settings_->port) {
        out->port = *settings_->port;
        out->fields |= usb_settings_port;
    }
    if (settings_->advertisement) {
        out->advertisement = *settings_->advertisement ? VARIANT_TRUE : VARIANT_FALSE;
        out->fields |= usb_settings_advertisement;
    }
    if (settings_->statistics) {
        out->statistics = *settings_->statistics ? VARIANT_TRUE : VARIANT_FALSE;
        out->fields |= usb_settings_statistics;
    }
    return S_OK;
}

}  // namespace sim_server
