#pragma once
// The program's main window (dialog resource 130): a resizable modeless dialog with the
// device tree and the commands Share, Settings, Copy device ID, Help, About and Close.
//
// This is the window's shell: it is created and translated, mirrors the two view options
// of the settings, lays its controls out when resized, owns the OLE thread and the
// cancellation source of its coroutines, listens to the server, and ends the message loop
// when closed. The device tree and the commands are not part of it yet: their buttons
// stay disabled, and server notifications reach the UI thread but change nothing yet.
//
// The object is the server's listener. It lives on wWinMain's stack as
// tessel::value_on_stack<main_dialog>, so references never destroy it; it unregisters from
// the server when its window goes away, and coroutines it started resume only inside its
// own message loop, which has ended by the time the object is destroyed.

#include "app/ole_thread.h"
#include "app/server_api.h"
#include "base/async_context.h"
#include "base/com_object.h"
#include "base/com_ptr.h"
#include "base/coroutine.h"
#include "controls/window_icons.h"

#include <windows.h>

#include <memory>

namespace servercfg {

inline constexpr int main_dialog_id = 130;

namespace main_dialog_controls {
inline constexpr int devices_label = 1002;
inline constexpr int tree_placeholder = 1003;
inline constexpr int about = 1004;
inline constexpr int settings = 1005;
inline constexpr int copy_device_id = 1014;
inline constexpr int hide_disconnected = 1016;
inline constexpr int collapse_all = 1017;
inline constexpr int help = 9;
}  // namespace main_dialog_controls

class main_dialog : public tessel::com_object<IUsbServerListener>, public tessel::windows::impl::async_context {
public:
    explicit main_dialog(tessel::com_ptr<IUsbServer> server);
    ~main_dialog() override;
    main_dialog(const main_dialog&) = delete;
    main_dialog& operator=(const main_dialog&) = delete;

    // Creates the modeless dialog without owner and shows it. A failure is fatal.
    HWND create(int show_command);
    [[nodiscard]] HWND window() const noexcept { return window_; }

    // IUsbServerListener: each starts the work on the UI thread and returns at once.
    HRESULT STDMETHODCALLTYPE OnDeviceAdded(IUsbDevice* device) noexcept override;
    HRESULT STDMETHODCALLTYPE OnDeviceChanged(IUsbDevice* device) noexcept override;
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged(IUsbDevice* device) noexcept override;
    HRESULT STDMETHODCALLTYPE OnClientConnectionChanged2(IUsbDevice* device) noexcept override;

private:
    enum class server_event { device_added, device_changed, client_changed };
    // Parameters by value: the frame outlives the notification call.
    static fibra::fire_and_forget handle_server_event(tessel::com_ptr<IUsbServerListener> keep_alive, main_dialog* self,
                                                      server_event event, tessel::com_ptr<IUsbDevice> device);
    void on_server_event(server_event event, IUsbDevice* device);

    static INT_PTR CALLBACK dialog_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) noexcept;
    INT_PTR handle(UINT message, WPARAM wparam, LPARAM lparam);
    void on_init_dialog();
    void on_command(int id);
    void on_size();
    void on_destroy() noexcept;

    tessel::com_ptr<IUsbServer> server_;
    HWND window_ = nullptr;
    bool listening_ = false;
    std::unique_ptr<tessel::windows::ole_thread> ole_thread_;
    tessel::windows::window_icons icons_;
    // Client size at creation and where each edge-bound control sat, for resizing, in
    // 1/100 dialog units (they follow the window's DPI).
    SIZE initial_client_{};
    RECT initial_rects_[9]{};
};

}  // namespace servercfg
