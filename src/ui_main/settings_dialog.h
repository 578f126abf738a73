#pragma once
// The server settings dialog: the sharing server's listening endpoints, default TCP port,
// advertisement and usage statistics, and this program's user-interface language.
//
// The server's values are fetched asynchronously while the dialog is on screen; until
// they arrive the controls that show them and OK stay disabled (and stay so when the
// fetch fails), and a line below the language list says so.
//
// The language question comes once per deliberate choice: when the language list closes
// on another language, or on Enter (and OK) while another one is selected. Looking
// through the closed list with the arrow keys asks nothing; after any answer but Yes the
// list shows the stored language again. Ends with IDOK (the result record holds the edited values), IDCANCEL, or
// language_changed_result after a confirmed change of language, which is then already
// stored in the settings record.

#include "server_link/server_settings.h"
#include "base/async_context.h"
#include "base/com_ptr.h"
#include "base/coroutine.h"
#include "ui_main/dialog_base.h"

#include <windows.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace servercfg {

inline constexpr int settings_dialog_id = 132;
inline constexpr INT_PTR language_changed_result = 1019;

namespace settings_dialog_controls {
inline constexpr int endpoints_label = 1012;
inline constexpr int endpoints = 1009;
inline constexpr int port_label = 1013;
inline constexpr int port = 1010;
inline constexpr int advertisement = 1011;
inline constexpr int statistics = 1014;
inline constexpr int language_label = 1020;
inline constexpr int language = 1019;
// The line that says the server's values are being read, or why they could not be;
// made at run time below the language list.
inline constexpr int status = 1021;
}  // namespace settings_dialog_controls

// The port as the dialog reads it: every character enters as (c - '0'), modulo 65536,
// without any check. "70000" gives 4464, "" gives 0. Deliberately unchecked: the server
// validates what it is sent.
[[nodiscard]] std::uint16_t port_from_text(std::wstring_view text) noexcept;

class settings_dialog : public dialog_base<settings_dialog> {
public:
    // ask_restart shows the language question and answers the button pressed; unset, the
    // program's message box asks it.
    explicit settings_dialog(tessel::com_ptr<IUsbServer> server, std::function<int(HWND)> ask_restart = {});

    // IDOK, IDCANCEL or language_changed_result.
    INT_PTR show(HWND owner) { return run(owner, settings_dialog_id); }
    [[nodiscard]] const server_settings_values& result() const noexcept { return result_; }
    // Whether the server's values have arrived (the server controls are enabled).
    [[nodiscard]] bool ready() const noexcept { return ready_; }

private:
    friend class dialog_base<settings_dialog>;
    INT_PTR handle(UINT message, WPARAM wparam, LPARAM lparam);
    void on_init();
    void create_status_line();
    void show_status(const std::wstring& text);
    // Asks the language question when another language is selected; true when it did.
    bool on_language_chosen();
    // The language list's Enter: the dialog manager sends no IDOK while OK is disabled
    // (the server's values have not arrived), yet the language is the program's own.
    static LRESULT CALLBACK language_list_proc(HWND list, UINT message, WPARAM wparam, LPARAM lparam,
                                               UINT_PTR id, DWORD_PTR self) noexcept;
    void on_ok();
    static fibra::fire_and_forget fetch(settings_dialog* self, tessel::com_ptr<IUsbServer> server,
                                        std::shared_ptr<fibra::details::cancellation_source_body> alive);
    void show_fetch_failure(HRESULT code);
    void show_server_settings(const UsbServerSettings& settings);

    tessel::com_ptr<IUsbServer> server_;
    std::function<int(HWND)> ask_restart_;
    server_settings_values result_;
    int selected_language_ = -1;
    bool ready_ = false;
    // Cancelled when the window goes, so that a late answer of the server touches nothing.
    std::shared_ptr<fibra::details::cancellation_source_body> alive_;
    // The handler the fetch waits on while the server's answer is outstanding.
    tessel::com_ptr<IUsbServerOperationHandler> fetch_wait_;
};

}  // namespace servercfg
