#pragma once
// The substitute server object: IUsbServer and IUsbServerInit over a scenario.
//
// It lives in the apartment of the thread that created it and owns a message-only window
// there. Listener notifications, operation completions and control commands all reach
// the server through that window, so they run on that thread from its message loop, as
// incoming calls of an out-of-process server would.

#include "control_pipe.h"
#include "control_protocol.h"
#include "device_tree.h"
#include "scenario.h"
#include "sim_objects.h"

#include "base/unique_handle.h"

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim_server {

// A control command that cannot be carried out; what() is UTF-8 text for the tool to show.
class control_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

void register_window_class(HINSTANCE module);

class usb_server final : public module_object<IUsbServer, IUsbServerInit> {
public:
    // Call on the thread that will use the server. An empty pipe name: no control channel.
    // Throws fibra::details::hresult_error.
    static tessel::com_ptr<usb_server> create(const scenario& s, const std::wstring& pipe_name);

    SIM_SERVER_RESERVED(3)
    SIM_SERVER_RESERVED(4)
    SIM_SERVER_RESERVED(5)
    SIM_SERVER_RESERVED(6)
    SIM_SERVER_RESERVED(8)
    SIM_SERVER_RESERVED(9)
    SIM_SERVER_RESERVED(10)
    SIM_SERVER_RESERVED(11)
    SIM_SERVER_RESERVED(12)
    SIM_SERVER_RESERVED(13)
    SIM_SERVER_RESERVED(14)
    SIM_SERVER_RESERVED(15)
    SIM_SERVER_RESERVED(16)
    SIM_SERVER_RESERVED(17)
    SIM_SERVER_RESERVED(20)
    SIM_SERVER_RESERVED(21)
    SIM_SERVER_RESERVED(22)
    SIM_SERVER_RESERVED(23)
    SIM_SERVER_RESERVED(24)
    SIM_SERVER_RESERVED(25)
    SIM_SERVER_RESERVED(28)
    HRESULT STDMETHODCALLTYPE IsRunning(VARIANT_BOOL* running) noexcept override;
    HRESULT STDMETHODCALLTYPE ShareDevice(IUsbDevice* device, VARIANT key, IUsbShare** share) noexcept override;
    HRESULT STDMETHODCALLTYPE UnshareDevice(IUsbShare* share) noexcept override;
    HRESULT STDMETHODCALLTYPE GetDevices(ULONG* count, IUsbDevice*** devices) noexcept override;
    HRESULT STDMETHODCALLTYPE GetShares(ULONG* count, IUsbShare*** shares) noexcept override;
    HRESULT STDMETHODCALLTYPE SetSettingsAsync(const UsbServerSettings* changed,
                                               IUsbServerOperation** operation) noexcept override;
    HRESULT STDMETHODCALLTYPE GetSettingsAsync(IUsbServerOperation** operation) noexcept override;
    HRESULT STDMETHODCALLTYPE AdviseListener(IUsbServerListener* listener) noexcept override;
    HRESULT STDMETHODCALLTYPE UnadviseListener(IUsbServerListener* listener) noexcept override;

    HRESULT STDMETHODCALLTYPE Initialize() noexcept override;

    // One control command, its words already split; returns the answer text. Runs on the
    // server's thread. Throws control_error.
    std::wstring execute_command(const std::vector<std::wstring>& words);

    // Writes the server's state to this file after every change from now on
    // (server_state.cpp).
    void keep_state_in(std::wstring path);
    // What the server plays now, as a scenario: its devices, shares, settings and failures.
    [[nodiscard]] scenario current_scenario() const;

private:
    enum class listener_event { device_added, device_changed, client_changed, client_changed_2 };

    struct pending_notification {
        listener_event event;
        tessel::com_ptr<IUsbDevice> device;
    };

    // An asynchronous call waiting for its timer. It does not hold the server: a program
    // that lets go of the server while a call is outstanding (it closed a dialog before the
    // answer came) has released everything of its own, and the census must say so; the
    // call then never ends, as with a connection that went away.
    struct pending_operation {
        tessel::com_ptr<operation> op;
        HRESULT result;
        bool reads_settings;
        std::optional<server_settings> settings_written;
    };

    usb_server() = default;
    ~usb_server() override;

    friend void register_window_class(HINSTANCE module);
    static LRESULT CALLBACK window_proc_entry(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept;
    void run_notifications() noexcept;
    void run_control_requests() noexcept;
    void complete_operation(UINT_PTR timer) noexcept;

    void notify(listener_event event, const tessel::com_ptr<device_object>& device);
    tessel::com_ptr<device_object> add_device(const device_spec& spec);
    void remove_device(const tessel::com_ptr<device_object>& device);
    tessel::com_ptr<share_object> add_share(const tessel::com_ptr<device_object>& device, std::wstring key);
    [[nodiscard]] tessel::com_ptr<device_object> find_device(std::wstring_view id) const;
    [[nodiscard]] tessel::com_ptr<device_object> device_of(IUsbDevice* device) const;
    [[nodiscard]] bool is_shared(const device_object* device) const;
    HRESULT start_operation(DWORD delay_ms, HRESULT result, bool reads_settings,
                            std::optional<server_settings> written, IUsbServerOperation** out);
    [[nodiscard]] std::wstring describe_state() const;
    // The commands of server_state.cpp: what execute_command does not know itself.
    std::wstring execute_state_command(const std::vector<std::wstring>& words);
    void save_state() noexcept;

    std::shared_ptr<failure_table> failures_ = std::make_shared<failure_table>();
    std::unique_ptr<local_device_tree> tree_;
    std::vector<tessel::com_ptr<device_object>> devices_;
    // Removed devices, still recognised when a caller hands one back.
    std::vector<tessel::com_ptr<device_object>> removed_devices_;
    std::vector<tessel::com_ptr<share_object>> shares_;
    bool running_ = true;
    server_settings settings_;
    DWORD read_delay_ms_ = 0;
    DWORD write_delay_ms_ = 0;
    // Settings writes started, for tests that must see that none was sent.
    unsigned settings_writes_ = 0;

    std::vector<tessel::com_ptr<IUsbServerListener>> listeners_;
    std::vector<pending_notification> notifications_;
    std::map<UINT_PTR, pending_operation> operations_;
    UINT_PTR next_timer_ = 1;

    DWORD thread_id_ = 0;
    tessel::unique_hwnd window_;
    std::unique_ptr<control_pipe> pipe_;
    std::wstring state_file_;
    // Stopped by the "stop" command: everything fails, nothing is announced.
    bool stopped_ = false;
};

// The server's window class: registered by the first server, unregistered when the DLL
// is unloaded (a class that outlived the DLL would point into freed code).
void register_window_class(HINSTANCE module);
void unregister_window_class(HINSTANCE module) noexcept;

}  // namespace sim_server
