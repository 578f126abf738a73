#pragma once
// The console companion's view of the server: its devices with the facts that tell them
// apart and their shares, sharing and unsharing, and the server's settings, read and
// written by waiting for the asynchronous calls on this thread.
//
// Every device costs the same fixed number of server calls whatever else the server
// holds: its own questions, plus one GetDevice and one key read per share, all read once
// per snapshot.

#include "console/configuration.h"
#include "console/device_match.h"

#include "base/com_ptr.h"
#include "server_link/local_nodes.h"
#include "server_link/server_api.h"

#include <string>
#include <vector>

namespace servercfg::console {

struct device_entry {
    tessel::com_ptr<IUsbDevice> device;
    tessel::com_ptr<IUsbShare> share;  // null: not shared
    device_facts facts;
    bool connected = true;
    bool needs_confirmation = false;
    std::wstring client;
    std::wstring key;                  // the share's key; empty when it has none
    std::vector<local_node> children;  // read only when asked for

    [[nodiscard]] bool shared() const noexcept { return static_cast<bool>(share); }
};

// How long a settings call may take before it counts as failed.
inline constexpr DWORD settings_call_timeout_ms = 30000;

class server_session {
public:
    explicit server_session(tessel::com_ptr<IUsbServer> server);

    [[nodiscard]] IUsbServer& server() const noexcept { return *server_.get(); }

    // Every device the server offers, in its order. Throws fibra::details::hresult_error
    // when the devices or shares cannot be read; a failing question about one device
    // leaves that fact at its safe default (connected, asking for confirmation, no client).
    [[nodiscard]] std::vector<device_entry> read_devices(bool with_children = false);
    // One device, as read_devices sees it; `shares` from read_shares.
    struct share_of_device {
        tessel::com_ptr<IUsbDevice> device;
        tessel::com_ptr<IUsbShare> share;
    };
    [[nodiscard]] std::vector<share_of_device> read_shares();
    [[nodiscard]] device_entry read_device(tessel::com_ptr<IUsbDevice> device,
                                           const std::vector<share_of_device>& shares, bool with_children = false);

    // Throw fibra::details::hresult_error with the server's code. An empty key is none.
    void share(device_entry& entry, const std::wstring& key);
    void unshare(device_entry& entry);

    // The settings the server knows; throws hresult_error (RPC_E_TIMEOUT when the server
    // does not answer in time).
    [[nodiscard]] server_settings_values read_settings();
    // Changes the settings that are set, leaves the others.
    void write_settings(const server_settings_values& changed);

private:
    tessel::com_ptr<IUsbServer> server_;
};

}  // namespace servercfg::console
