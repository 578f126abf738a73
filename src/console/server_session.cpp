#include "console/server_session.h"

#include "base/com_object.h"
#include "base/failure.h"
#include "base/unique_handle.h"
#include "server_link/server_objects.h"

#include <oleauto.h>

namespace servercfg::console {
namespace {

bool flag(IUsbDevice& device, HRESULT (STDMETHODCALLTYPE IUsbDevice::*method)(VARIANT_BOOL*), bool if_failed)
{
    VARIANT_BOOL value = if_failed ? VARIANT_TRUE : VARIANT_FALSE;
    if (FAILED((device.*method)(&value)))
        return if_failed;
    return value != VARIANT_FALSE;
}

std::wstring text(IUsbDevice& device, HRESULT (STDMETHODCALLTYPE IUsbDevice::*method)(BSTR*))
{
    tessel::unique_bstr value;
    if (FAILED((device.*method)(value.put())))
        return {};
    return text_of(value);
}

class completion final : public tessel::com_object<IUsbServerOperationHandler> {
public:
    bool done = false;
    HRESULT STDMETHODCALLTYPE OnCompleted(IUsbServerOperation*) noexcept override
    {
        done = true;
        return S_OK;
    }
};

// Runs this thread's messages (the server answers through them) until the operation has
// ended; its result, or RPC_E_TIMEOUT.
HRESULT wait_for(IUsbServerOperation& operation)
{
    const auto handler = tessel::make_com_object<completion>();
    tessel::throw_if_failed(operation.SetCompletedHandler(handler.get()));
    const ULONGLONG deadline = ::GetTickCount64() + settings_call_timeout_ms;
    for (;;) {
        MSG message;
        while (!handler->done && ::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            ::TranslateMessage(&message);
            ::DispatchMessageW(&message);
        }
        if (handler->done)
            break;
        const ULONGLONG now = ::GetTickCount64();
        if (now >= deadline)
            return RPC_E_TIMEOUT;
        ::MsgWaitForMultipleObjects(0, nullptr, FALSE, static_cast<DWORD>(deadline - now), QS_ALLINPUT);
    }
    HRESULT result = E_FAIL;
    tessel::throw_if_failed(operation.GetResult(&result));
    return result;
}

}  // namespace

server_session::server_session(tessel::com_ptr<IUsbServer> server) : server_(std::move(server)) {}

std::vector<server_session::share_of_device> server_session::read_shares()
{
    std::vector<share_of_device> result;
    for (auto& share : server_shares(*server_.get())) {
        tessel::com_ptr<IUsbDevice> device;
        // A share that cannot name its device belongs to none of them.
        if (SUCCEEDED(share->GetDevice(device.put())) && device)
            result.push_back({std::move(device), std::move(share)});
    }
    return result;
}

device_entry server_session::read_device(tessel::com_ptr<IUsbDevice> device, const std::vector<share_of_device>& shares,
                                         bool with_children)
{
    device_entry entry;
    IUsbDevice& d = *device.get();
    entry.facts.name = text(d, &IUsbDevice::GetName);
    entry.facts.identity = read_device_identity(d);
    // Safe defaults: a device whose answer is missing is shown, and asks before it is shared.
    entry.connected = flag(d, &IUsbDevice::IsConnected, true);
    entry.needs_confirmation = flag(d, &IUsbDevice::NeedsShareConfirmation, true);
    entry.client = text(d, &IUsbDevice::GetClientName);
    // The first share that names the device is its share, as in the window.
    for (const share_of_device& s : shares) {
        if (s.device.get() != device.get())
            continue;
        entry.share = s.share;
        tessel::unique_bstr key;
        if (SUCCEEDED(s.share->GetAuthenticationKey(key.put())))
            entry.key = text_of(key);
        break;
    }
    if (with_children)
        entry.children = read_local_children(entry.facts.identity.instance_id);
    entry.device = std::move(device);
    return entry;
}

std::vector<device_entry> server_session::read_devices(bool with_children)
{
    const auto shares = read_shares();
    std::vector<device_entry> entries;
    for (auto& device : server_devices(*server_.get()))
        entries.push_back(read_device(std::move(device), shares, with_children));
    return entries;
}

void server_session::share(device_entry& entry, const std::wstring& key)
{
    VARIANT value;
    ::VariantInit(&value);
    value.vt = VT_BSTR;
    // An empty key travels as a null BSTR.
    value.bstrVal = key.empty() ? nullptr : ::SysAllocStringLen(key.data(), static_cast<UINT>(key.size()));
    if (!key.empty() && !value.bstrVal)
        throw std::bad_alloc();
    tessel::com_ptr<IUsbShare> share;
    const HRESULT hr = server_->ShareDevice(entry.device.get(), value, share.put());
    ::VariantClear(&value);
    tessel::throw_if_failed(hr);
    entry.share = std::move(share);
    entry.key = key;
}

void server_session::unshare(device_entry& entry)
{
    const HRESULT hr = server_->UnshareDevice(entry.share.get());
    tessel::throw_if_failed(hr);
    entry.share.reset();
    entry.key.clear();
}

server_settings_values server_session::read_settings()
{
    tessel::com_ptr<IUsbServerOperation> operation;
    tessel::throw_if_failed(server_->GetSettingsAsync(operation.put()));
    tessel::throw_if_failed(wait_for(*operation.get()));
    UsbServerSettings read{};
    tessel::throw_if_failed(operation->GetSettings(&read));
    const tessel::unique_bstr endpoints(read.endpoints);
    return values_of(read);
}

void server_session::write_settings(const server_settings_values& changed)
{
    const settings_record record(changed);
    tessel::com_ptr<IUsbServerOperation> operation;
    tessel::throw_if_failed(server_->SetSettingsAsync(record.get(), operation.put()));
    tessel::throw_if_failed(wait_for(*operation.get()));
}

}  // namespace servercfg::console
