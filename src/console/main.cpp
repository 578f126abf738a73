// ulmora-cfg.exe: the console companion. Chooses the language as the window program
// does (its setting, else the user's locale), makes this thread a single-threaded COM
// apartment and runs the command.

#include "console/commands.h"
#include "console/console_io.h"
#include "console/exit_codes.h"
#include "console/texts.h"

#include "base/cmd_line.h"
#include "base/failure.h"
#include "base/module_path.h"
#include "base/process_hardening.h"
#include "base/scope_exit.h"
#include "localization/localization.h"
#include "nsm/app_settings.h"

#include <objbase.h>

namespace {

int run()
{
    // Before anything loads a library: the program runs elevated as often as not.
    tessel::harden_process();

    // The window program's language setting; a record that cannot be read means the
    // user's locale decides, as it does for the window.
    app_settings settings;
    try {
        load_settings(settings, HKEY_CURRENT_USER, app_settings_key);
    } catch (...) {
        settings.language.clear();
    }
    tessel::initialize_localization(tessel::module_folder(), settings.language);

    // A failure here shows as the server's COM class that cannot be created.
    const tessel::unique_couninitialize com = tessel::co_initialize();

    servercfg::console::stream_sink out(STD_OUTPUT_HANDLE);
    servercfg::console::stream_sink err(STD_ERROR_HANDLE);
    try {
        return servercfg::console::run_program(tessel::split_command_line(::GetCommandLineW()), {out, err, {}});
    } catch (const fibra::details::hresult_error& e) {
        // A call no command expected to fail, reported as the program reports failures.
        err.line(ts_printf::format(tessel::load_string(servercfg::console::text_id::error_with_code),
                                   servercfg::console::error_text(e.code()), static_cast<std::uint32_t>(e.code())));
        return servercfg::console::exit_server_call;
    }
}

}  // namespace

int wmain()
{
    try {
        return run();
    } catch (...) {
        // Anything else that escapes is a broken invariant of the program itself.
        tessel::fail_fast_caught_exception(L"ulmora-cfg failed");
    }
}
