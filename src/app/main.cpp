// The process: wWinMain is the program's whole life. It lets only one copy show itself,
// loads the user's settings, connects to the sharing server, refuses to start when the
// server is not running, runs the main window on this thread (a single-threaded COM
// apartment) until it is closed, saves the settings and, when the main window asked for
// it, starts a fresh copy of itself.

#include "base/cmd_line.h"
#include "app/startup.h"
#include "base/async_context.h"
#include "base/com_object.h"
#include "base/com_ptr.h"
#include "base/coroutine.h"
#include "base/failure.h"
#include "base/gdiplus_startup.h"
#include "base/module_path.h"
#include "base/process_hardening.h"
#include "base/registered_messages.h"
#include "base/scope_exit.h"
#include "base/service_registry.h"
#include "base/utf.h"
#include "controls/factories.h"
#include "format/ts_printf.h"
#include "localization/localization.h"
#include "msgbox/message_box.h"
#include "nsm/app_settings.h"
#include "server_link/server_connection.h"
#include "ui_main/main_dialog.h"
#include "web/update_check.h"

#include <windows.h>
#include <commctrl.h>

#include <exception>
#include <string>

namespace servercfg {
namespace {

constexpr DWORD common_control_classes = ICC_LISTVIEW_CLASSES | ICC_TREEVIEW_CLASSES | ICC_BAR_CLASSES |
                                         ICC_UPDOWN_CLASS | ICC_PROGRESS_CLASS | ICC_USEREX_CLASSES |
                                         ICC_STANDARD_CLASSES;
static_assert(common_control_classes == 0x4237);

int show_error(std::wstring_view text)
{
    return tessel::show_message_box({.text = text, .style = MB_OK | MB_ICONERROR});
}

// Work that ran as a coroutine and failed tells the user what went wrong instead of
// ending the program. Abandoned work (operation_cancelled) is not reported at all.
void report_failed_work(std::exception_ptr error) noexcept
{
    try {
        std::wstring reason;
        try {
            std::rethrow_exception(error);
        } catch (const fibra::details::operation_cancelled&) {
            return;
        } catch (const fibra::details::hresult_error& e) {
            tessel::log_caught_exception(L"background work failed");
            reason = ts_printf::format(tessel::load_string(tessel::string_ids::error_with_code), error_text(e.code()),
                                       static_cast<std::uint32_t>(e.code()));
        } catch (const std::exception& e) {
            tessel::log_caught_exception(L"background work failed");
            reason = tessel::utf8_to_utf16(e.what());
        } catch (...) {
            tessel::log_caught_exception(L"background work failed");
            reason = error_text(E_UNEXPECTED);
        }
        show_error(ts_printf::format(tessel::load_string(tessel::string_ids::error_unexpected), reason));
    } catch (...) {
        tessel::log_caught_exception(L"a failure of background work could not be shown");
    }
}

// The dialog window a message is for, when it is a dialog other than the main window.
HWND modeless_dialog_of(HWND target, HWND main_window) noexcept
{
    constexpr ATOM dialog_class = 32770;  // WC_DIALOG
    const HWND root = target ? ::GetAncestor(target, GA_ROOT) : nullptr;
    if (!root || root == main_window || ::GetClassLongPtrW(root, GCW_ATOM) != dialog_class)
        return nullptr;
    return root;
}

// Step 9's loop: until WM_QUIT, with the hook that resumes coroutines also inside modal loops.
int run_message_loop(main_dialog& dialog, HWND main_window)
{
    tessel::unique_hhook hook = tessel::windows::impl::install_ui_return_hook();
    MSG message;
    for (;;) {
        const BOOL got = ::GetMessageW(&message, nullptr, 0, 0);
        if (got == -1)
            tessel::fail_fast_last_error(L"GetMessage failed");
        if (got == 0)
            break;
        if (::IsWindow(main_window) && (dialog.translate_shortcut(message) || ::IsDialogMessageW(main_window, &message)))
            continue;
        // The modeless dialogs above the main window (the download's progress) take their
        // keys too: Escape cancels, Tab moves. Modal ones run loops of their own.
        if (const HWND root = modeless_dialog_of(message.hwnd, main_window); root && ::IsDialogMessageW(root, &message))
            continue;
        ::TranslateMessage(&message);
        ::DispatchMessageW(&message);
    }
    const int exit_code = static_cast<int>(message.wParam);
    // Coroutines whose way back to the UI thread is still queued go on now, find their
    // window gone and let go of the server's objects they hold.
    MSG queued;
    while (::PeekMessageW(&queued, nullptr, tessel::windows::wm_ui_return(), tessel::windows::wm_ui_return(),
                          PM_REMOVE)) {
    }
    hook.reset();
    return exit_code;
}

// The update check as the main window starts it: automatically once the window is
// filled (when the user has not switched that off), and from the About box on demand;
// and the promotion line that shows what the last check brought.
update_hooks update_hooks_of(main_dialog& dialog)
{
    const auto start = [&dialog](HWND owner, tessel::web::update_check_mode mode) {
        tessel::web::update_check_options check;
        check.main_window = dialog.window();
        check.ui = dialog;
        check.owner = owner;
        check.mode = mode;
        check.promotion_changed = [&dialog] { dialog.show_promotion(); };
        (void)tessel::web::start_update_check(std::move(check));  // false: one is running already
    };
    return {
        .check_for_updates = [start](HWND owner) { start(owner, tessel::web::update_check_mode::on_demand); },
        .main_window_ready =
            [start](HWND main_window) {
                if (current_app_settings().check_for_updates)
                    start(main_window, tessel::web::update_check_mode::automatic);
            },
        // What the last check stored, until it expires.
        .promotion =
            [] {
                const auto promotion = tessel::web::current_promotion();
                return promotion ? tessel::web::promotion_markup(*promotion) : std::wstring();
            },
        .open_promotion = tessel::web::open_promotion_address,
        // A stray click must not throw away a download: ask, and on Yes let the partial file
        // go before the window does.
        .may_close =
            [](HWND main_window) {
                if (!tessel::web::installer_download_running())
                    return true;
                const std::wstring question(tessel::load_string(tessel::string_ids::update_close_while_downloading));
                if (tessel::show_message_box(
                        {.owner = main_window, .text = question, .style = MB_YESNO | MB_ICONQUESTION}) == IDYES)
                    tessel::web::stop_installer_download([main_window] {
                        if (::IsWindow(main_window))
                            ::DestroyWindow(main_window);
                    });
                return false;
            },
    };
}

int run(int show_command)
{
    // Before anything loads a library: no DLL from beside the program or the current folder.
    tessel::harden_process();

    // 1. Only one copy on the screen: bring the other one to the front.
    if (HWND other = find_window_with_title_prefix(product_title)) {
        ::SetForegroundWindow(other);
        return 0;
    }

    // 2. Settings first: they name the language every later message is shown in. A damaged
    // record does not stop the program (load_app_settings keeps what it could read).
    load_app_settings();
    tessel::initialize_localization(tessel::module_folder(), current_app_settings().language);

    fibra::set_unhandled_exception_reporter(report_failed_work);

    // 3. The services other parts ask for, then COM on this thread, a single-threaded
    // apartment.
    tessel::service_registry services;
    tessel::service_registry::install(&services);
    // A failure here shows as the server's COM class that cannot be created, next.
    const tessel::unique_couninitialize com = tessel::co_initialize();

    // 4, 5. The server's API object.
    tessel::com_ptr<IUsbServer> server;
    try {
        server = create_server();
    } catch (const fibra::details::hresult_error& e) {
        show_error(format_error_message(tessel::string_ids::startup_error_connecting, e.code()));
        return exit_code_server_not_created;
    }

    // 6. The program declares no option; the parser still refuses what it cannot read.
    const std::wstring command_line = ::GetCommandLineW();
    try {
        (void)tessel::cmd_line_parser().parse(command_line);
    } catch (const tessel::cmd_line_syntax_error& e) {
        const std::wstring english = tessel::utf8_to_utf16(e.what());
        const std::wstring reason = tessel::load_string_by_key_or(english, english);
        show_error(ts_printf::format(tessel::load_string(tessel::string_ids::command_line_error), reason, command_line));
        return exit_code_bad_command_line;
    }

    // 7. The server must be running; the program neither starts it nor waits for it.
    if (!server_is_running(*server.get())) {
        show_error(tessel::load_string(tessel::string_ids::startup_server_not_running));
        return exit_code_server_not_running;
    }

    // 8. Text and bitmap machinery of the controls, and the main window's object.
    (void)tessel::d2d::dwrite_factory();
    tessel::unique_gdiplus gdiplus = tessel::gdiplus_startup();

    int exit_code = 0;
    {
        tessel::value_on_stack<main_dialog> dialog(server);
        dialog.set_update_hooks(update_hooks_of(dialog));

        // 9. The main window and the message loop.
        INITCOMMONCONTROLSEX controls{sizeof controls, common_control_classes};
        ::InitCommonControlsEx(&controls);
        const HWND window = dialog.create(show_command);
        apply_title_bar_theme(window);
        exit_code = run_message_loop(dialog, window);

        // 10. The settings, as they are now.
        try {
            save_app_settings();
        } catch (...) {
            tessel::log_caught_exception(L"the settings could not be saved at exit");
        }

        // 11. A confirmed language change restarts the program with the same arguments.
        if (restart_requested) {
            try {
                start_new_copy(tessel::module_path(), command_line);
            } catch (...) {
                tessel::log_caught_exception(L"the program's own path is unknown: no restart");
            }
        }
    }  // 12. The window's object goes first, then GDI+, the server and COM.
    gdiplus.reset();
    server.reset();
    services.clear();  // COM objects go before COM does
    return exit_code;
}

}  // namespace
}  // namespace servercfg

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int show_command)
{
    try {
        return servercfg::run(show_command);
    } catch (...) {
        // Anything that escapes start-up is a broken invariant of the program itself.
        tessel::fail_fast_caught_exception(L"start-up failed");
    }
}
