#include "server.h"

#include "base/failure.h"
#include "base/utf.h"

#include <olectl.h>

#include <algorithm>

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace sim_server {
namespace {

constexpr wchar_t window_class[] = L"qmx.ulmora.simserver";
constexpr UINT notify_message = WM_APP + 1;
constexpr UINT control_message = WM_APP + 2;

HINSTANCE this_module() noexcept
{
    return reinterpret_cast<HINSTANCE>(&__ImageBase);
}

std::wstring bstr_text(BSTR text)
{
    return text ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
}

// Copies the objects into a CoTaskMemAlloc'ed array the caller owns, one reference each.
template <class out_interface, class object>
HRESULT hand_out(const std::vector<tessel::com_ptr<object>>& objects, ULONG* count, out_interface*** out) noexcept
{
    if (!count || !out)
        return E_POINTER;
    *count = 0;
    *out = nullptr;
    if (objects.empty())
        return S_OK;
    auto* array = static_cast<out_interface**>(::CoTaskMemAlloc(objects.size() * sizeof(out_interface*)));
    if (!array)
        return E_OUTOFMEMORY;
    for (size_t i = 0; i < objects.size(); ++i)
        tessel::com_ptr<out_interface>(objects[i]).copy_to(&array[i]);
    *count = static_cast<ULONG>(objects.size());
    *out = array;
    return S_OK;
}

}  // namespace

void register_window_class(HINSTANCE module)
{
    WNDCLASSEXW existing{};
    existing.cbSize = sizeof existing;
    if (::GetClassInfoExW(module, window_class, &existing))
        return;
    WNDCLASSEXW wc{};
    wc.cbSize = sizeof wc;
    wc.lpfnWndProc = &usb_server::window_proc_entry;
    wc.hInstance = module;
    wc.lpszClassName = window_class;
    tessel::throw_last_error_if(!::RegisterClassExW(&wc));
}

void unregister_window_class(HINSTANCE module) noexcept
{
    ::UnregisterClassW(window_class, module);
}

tessel::com_ptr<usb_server> usb_server::create(const scenario& s, const std::wstring& pipe_name)
{
    validate(s);
    register_window_class(this_module());
    auto server = tessel::com_ptr<usb_server>::attach(new usb_server());
    server->thread_id_ = ::GetCurrentThreadId();
    server->window_.reset(::CreateWindowExW(0, window_class, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                            this_module(), nullptr));
    tessel::throw_last_error_if(!server->window_);
    ::SetWindowLongPtrW(server->window_.get(), GWLP_USERDATA, reinterpret_cast<LONG_PTR>(server.get()));

    server->running_ = s.running;
    server->settings_ = s.settings;
    server->read_delay_ms_ = s.settings_read_delay_ms;
    server->write_delay_ms_ = s.settings_write_delay_ms;
    server->tree_ = std::make_unique<local_device_tree>();
    for (const device_spec& device : s.devices)
        server->add_device(device);
    for (const share_spec& share : s.shares)
        server->add_share(server->find_device(share.device_id), share.key);
    for (const failure_spec& failure : s.failures)
        server->failures_->set(failure.method, failure.device_id, failure.code);

    if (!pipe_name.empty()) {
        try {
            server->pipe_ = std::make_unique<control_pipe>(pipe_name, server->window_.get(), control_message);
        } catch (const fibra::details::hresult_error& e) {
            // The server is still useful without its control channel (a second server in
            // one session, as tests make them, finds the name taken).
            tessel::debug_report(L"substitute server: no control channel on " + pipe_name + L": " +
                                 tessel::system_message(e.code()));
        }
    }
    return server;
}

usb_server::~usb_server()
{
    // The pipe thread goes first: it must not post to a window that is gone.
    pipe_.reset();
    if (window_) {
        ::SetWindowLongPtrW(window_.get(), GWLP_USERDATA, 0);
        // Only the creating thread can destroy the window; released elsewhere (which the
        // apartment rules forbid anyway) it goes when that thread ends.
        if (::GetCurrentThreadId() != thread_id_)
            (void)window_.release();
    }
    window_.reset();
    for (const auto& device : devices_)
        device->state.removed = true;
    shares_.clear();
    devices_.clear();
    removed_devices_.clear();
    tree_.reset();
}

LRESULT CALLBACK usb_server::window_proc_entry(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept
{
    auto* server = reinterpret_cast<usb_server*>(::GetWindowLongPtrW(window, GWLP_USERDATA));
    if (server && (message == notify_message || message == control_message || message == WM_TIMER)) {
        // Whatever runs now may let go of the server; it ends, if at all, after the call.
        const tessel::com_ptr<IUsbServer> keep_alive(server);
        if (message == notify_message)
            server->run_notifications();
        else if (message == control_message)
            server->run_control_requests();
        else
            server->complete_operation(static_cast<UINT_PTR>(wparam));
        return 0;
    }
    return ::DefWindowProcW(window, message, wparam, lparam);
}

void usb_server::notify(listener_event event, const tessel::com_ptr<device_object>& device)
{
    if (notifications_.empty())
        tessel::throw_last_error_if(!::PostMessageW(window_.get(), notify_message, 0, 0));
    notifications_.push_back({event, tessel::com_ptr<IUsbDevice>(device)});
}

void usb_server::run_notifications() noexcept
{
    const auto batch = std::move(notifications_);
    notifications_.clear();
    for (const pending_notification& n : batch) {
        // A copy: a listener may advise or unadvise from inside its notification.
        const auto listeners = listeners_;
        for (const auto& listener : listeners) {
            switch (n.event) {
            case listener_event::device_added: listener->OnDeviceAdded(n.device.get()); break;
            case listener_event::device_changed: listener->OnDeviceChanged(n.device.get()); break;
            case listener_event::client_changed: listener->OnClientConnectionChanged(n.device.get()); break;
            case listener_event::client_changed_2: listener->OnClientConnectionChanged2(n.device.get()); break;
            }
        }
    }
}

void usb_server::run_control_requests() noexcept
{
    if (!pipe_)
        return;
    for (const auto& request : pipe_->take_requests()) {
        control_answer answer;
        try {
            answer.text = execute_command(decode_command(request->command));
            answer.ok = true;
            save_state();
        } catch (const control_error& e) {
            answer.text = tessel::utf8_to_utf16(e.what());
        } catch (...) {
            answer.text = L"the command failed: " + tessel::system_message(tessel::hresult_from_caught_exception());
        }
        control_pipe::answer(*request, encode_answer(answer));
    }
}

HRESULT usb_server::start_operation(DWORD delay_ms, HRESULT result, bool reads_settings,
                                    std::optional<server_settings> written, IUsbServerOperation** out)
{
    auto op = tessel::make_com_object<operation>();
    const UINT_PTR timer = next_timer_++;
    tessel::throw_last_error_if(
        !::SetTimer(window_.get(), timer, std::max<DWORD>(delay_ms, USER_TIMER_MINIMUM), nullptr));
    operations_[timer] = {op, result, reads_settings, std::move(written)};
    tessel::com_ptr<IUsbServerOperation>(op).copy_to(out);
    return S_OK;
}

void usb_server::complete_operation(UINT_PTR timer) noexcept
{
    ::KillTimer(window_.get(), timer);
    const auto it = operations_.find(timer);
    if (it == operations_.end())
        return;
    // Taken out first: the handler may start the next call.
    const pending_operation pending = std::move(it->second);
    operations_.erase(it);
    if (pending.settings_written && SUCCEEDED(pending.result)) {
        const server_settings& changed = *pending.settings_written;
        if (changed.endpoints)
            settings_.endpoints = changed.endpoints;
        if (changed.port)
            settings_.port = changed.port;
        if (changed.advertisement)
            settings_.advertisement = changed.advertisement;
        if (changed.statistics)
            settings_.statistics = changed.statistics;
    }
    std::optional<server_settings> read;
    if (pending.reads_settings && SUCCEEDED(pending.result))
        read = settings_;
    pending.op->complete(pending.result, std::move(read));
    if (pending.settings_written && SUCCEEDED(pending.result))
        save_state();
}

tessel::com_ptr<device_object> usb_server::add_device(const device_spec& spec)
{
    device_state state;
    state.spec = spec;
    // An unplugged device has no node on this machine, as on Windows.
    state.devinst = spec.connected ? tree_->add(spec) : no_devinst;
    auto device = tessel::make_com_object<device_object>(std::move(state), failures_);
    devices_.push_back(device);
    return device;
}

void usb_server::remove_device(const tessel::com_ptr<device_object>& device)
{
    tree_->remove(device->state.devinst);
    device->state.devinst = no_devinst;
    device->state.removed = true;
    removed_devices_.push_back(device);
    std::erase(devices_, device);
    std::erase_if(shares_, [&](const auto& share) { return share->device == device; });
}

tessel::com_ptr<share_object> usb_server::add_share(const tessel::com_ptr<device_object>& device, std::wstring key)
{
    auto share = tessel::make_com_object<share_object>(device, std::move(key), failures_);
    shares_.push_back(share);
    return share;
}

tessel::com_ptr<device_object> usb_server::find_device(std::wstring_view id) const
{
    for (const auto& device : devices_)
        if (device->state.spec.id == id)
            return device;
    return nullptr;
}

tessel::com_ptr<device_object> usb_server::device_of(IUsbDevice* device) const
{
    for (const auto& candidate : devices_)
        if (static_cast<IUsbDevice*>(candidate.get()) == device)
            return candidate;
    return nullptr;
}

bool usb_server::is_shared(const device_object* device) const
{
    return std::any_of(shares_.begin(), shares_.end(),
                       [device](const auto& share) { return share->device.get() == device; });
}

HRESULT usb_server::Initialize() noexcept
{
    return failures_->find(L"Initialize");
}

HRESULT usb_server::IsRunning(VARIANT_BOOL* running) noexcept
{
    if (!running)
        return E_POINTER;
    if (const HRESULT hr = failures_->find(L"IsRunning"); FAILED(hr))
        return hr;
    *running = running_ ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT usb_server::ShareDevice(IUsbDevice* device, VARIANT key, IUsbShare** share) noexcept
try {
    if (!share)
        return E_POINTER;
    *share = nullptr;
    const auto target = device_of(device);
    if (!target) {
        const bool removed = std::any_of(removed_devices_.begin(), removed_devices_.end(), [device](const auto& d) {
            return static_cast<IUsbDevice*>(d.get()) == device;
        });
        return removed ? HRESULT_FROM_WIN32(ERROR_DEV_NOT_EXIST) : E_INVALIDARG;
    }
    if (const HRESULT hr = failures_->find(L"ShareDevice", target->state.spec.id); FAILED(hr))
        return hr;
    if (key.vt != VT_BSTR && key.vt != VT_EMPTY && key.vt != VT_NULL)
        return DISP_E_TYPEMISMATCH;
    if (is_shared(target.get()))
        return HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS);
    const auto added = add_share(target, key.vt == VT_BSTR ? bstr_text(key.bstrVal) : std::wstring());
    tessel::com_ptr<IUsbShare>(added).copy_to(share);
    save_state();
    return S_OK;
} catch (...) {
    return tessel::hresult_from_caught_exception();
}

HRESULT usb_server::UnshareDevice(IUsbShare* share) noexcept
{
    const auto it = std::find_if(shares_.begin(), shares_.end(),
                                 [share](const auto& s) { return static_cast<IUsbShare*>(s.get()) == share; });
    const std::wstring device_id = it != shares_.end() ? (*it)->device->state.spec.id : std::wstring();
    if (const HRESULT hr = failures_->find(L"UnshareDevice", device_id); FAILED(hr))
        return hr;
    if (it == shares_.end())
        return HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
    shares_.erase(it);
    save_state();
    return S_OK;
}

HRESULT usb_server::GetDevices(ULONG* count, IUsbDevice*** devices) noexcept
{
    if (const HRESULT hr = failures_->find(L"GetDevices"); FAILED(hr)) {
        if (count && devices) {
            *count = 0;
            *devices = nullptr;
        }
        return hr;
    }
    return hand_out<IUsbDevice>(devices_, count, devices);
}

HRESULT usb_server::GetShares(ULONG* count, IUsbShare*** shares) noexcept
{
    if (const HRESULT hr = failures_->find(L"GetShares"); FAILED(hr)) {
        if (count && shares) {
            *count = 0;
            *shares = nullptr;
        }
        return hr;
    }
    return hand_out<IUsbShare>(shares_, count, shares);
}

HRESULT usb_server::SetSettingsAsync(const UsbServerSettings* changed, IUsbServerOperation** operation) noexcept
try {
    if (!changed || !operation)
        return E_POINTER;
    *operation = nullptr;
    if (const HRESULT hr = failures_->find(L"SetSettingsAsync"); FAILED(hr))
        return hr;
    server_settings written;
    if (changed->fields & usb_settings_endpoints)
        written.endpoints = bstr_text(changed->endpoints);
    if (changed->fields & usb_settings_port)
        written.port = changed->port;
    if (changed->fields & usb_settings_advertisement)
        written.advertisement = changed->advertisement != VARIANT_FALSE;
    if (changed->fields & usb_settings_statistics)
        written.statistics = changed->statistics != VARIANT_FALSE;
    ++settings_writes_;
    return start_operation(write_delay_ms_, failures_->find(L"SetSettingsAsync.completion"), false,
                           std::move(written), operation);
} catch (...) {
    return tessel::hresult_from_caught_exception();
}

HRESULT usb_server::GetSettingsAsync(IUsbServerOperation** operation) noexcept
try {
    if (!operation)
        return E_POINTER;
    *operation = nullptr;
    if (const HRESULT hr = failures_->find(L"GetSettingsAsync"); FAILED(hr))
        return hr;
    return start_operation(read_delay_ms_, failures_->find(L"GetSettingsAsync.completion"), true, std::nullopt,
                           operation);
} catch (...) {
    return tessel::hresult_from_caught_exception();
}

HRESULT usb_server::AdviseListener(IUsbServerListener* listener) noexcept
try {
    if (!listener)
        return E_POINTER;
    if (const HRESULT hr = failures_->find(L"AdviseListener"); FAILED(hr))
        return hr;
    listeners_.emplace_back(listener);
    return S_OK;
} catch (...) {
    return tessel::hresult_from_caught_exception();
}

HRESULT usb_server::UnadviseListener(IUsbServerListener* listener) noexcept
{
    if (const HRESULT hr = failures_->find(L"UnadviseListener"); FAILED(hr))
        return hr;
    const auto it = std::find_if(listeners_.begin(), listeners_.end(),
                                 [listener](const auto& l) { return l.get() == listener; });
    if (it == listeners_.end())
        return CONNECT_E_NOCONNECTION;
    listeners_.erase(it);
    return S_OK;
}

}  // namespace sim_server
