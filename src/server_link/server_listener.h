#pragma once
// A listener for the server's notifications that hands each one to a function, and its
// registration with the server, undone when the registration goes.

#include "base/com_object.h"
#include "base/com_ptr.h"
#include "base/failure.h"
#include "server_link/server_api.h"

#include <functional>
#include <utility>

namespace servercfg {

enum class server_event { device_added, device_changed, client_changed };

class server_listener final : public tessel::com_object<IUsbServerListener> {
public:
    // Called on the thread the notifications arrive on; must return quickly (the server
    // waits for it) and must not throw.
    using handler = std::function<void(server_event, tessel::com_ptr<IUsbDevice>)>;

    explicit server_listener(handler on_event) : on_event_(std::move(on_event)) {}

    // From now on notifications are answered and dropped: for the time between letting go
    // of the server and the server letting go of the listener.
    void stop() noexcept { on_event_ = nullptr; }

    HRESULT STDMETHODCALLTYPE OnDeviceAdded(IUsbDevice* device) noexcept override
    {
        return deliver(server_event::device_added, device);
    }
    HRESULT STDMETHODCALLTYPE OnDeviceChanged(IUsbDevice* device) noexcept override
    {
        return deliver(server_event::device_changed, device);
    }
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged(IUsbDevice* device) noexcept override
    {
        return deliver(server_event::client_changed, device);
    }
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged2(IUsbDevice* device) noexcept override
    {
        return deliver(server_event::client_changed, device);
    }

private:
    HRESULT deliver(server_event event, IUsbDevice* device) noexcept
    try {
        if (device && on_event_)
            on_event_(event, tessel::com_ptr<IUsbDevice>(device));
        return S_OK;
    } catch (...) {
        return tessel::hresult_from_caught_exception();
    }

    handler on_event_;
};

// AdviseListener now, UnadviseListener when it goes (a server that has gone away by then
// is not asked twice: its answer would change nothing).
class listener_registration {
public:
    listener_registration() = default;
    // Throws fibra::details::hresult_error when the server refuses.
    listener_registration(tessel::com_ptr<IUsbServer> server, tessel::com_ptr<IUsbServerListener> listener)
        : server_(std::move(server)), listener_(std::move(listener))
    {
        tessel::throw_if_failed(server_->AdviseListener(listener_.get()));
    }
    listener_registration(listener_registration&&) noexcept = default;
    listener_registration& operator=(listener_registration&& other) noexcept
    {
        if (this != &other) {
            reset();
            server_ = std::move(other.server_);
            listener_ = std::move(other.listener_);
        }
        return *this;
    }
    ~listener_registration() { reset(); }

    void reset() noexcept
    {
        if (server_ && listener_)
            (void)server_->UnadviseListener(listener_.get());  // nothing to do about a refusal
        server_.reset();
        listener_.reset();
    }

private:
    tessel::com_ptr<IUsbServer> server_;
    tessel::com_ptr<IUsbServerListener> listener_;
};

}  // namespace servercfg
