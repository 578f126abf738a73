#pragma once
// The console companion's commands, from the command line to the exit code.
//
// Everything a command can check without the server (its arguments, a selector's form, a
// key file, a whole configuration document) is checked before the server is asked
// anything, so a mistake in a script changes nothing.

#include "console/console_io.h"

#include "base/com_ptr.h"
#include "server_link/server_api.h"

#include <functional>
#include <string>
#include <vector>

namespace servercfg::console {

struct program_io {
    text_sink& out;
    text_sink& err;
    // Creates the server object; create_server() unless a test or benchmark hands one in.
    // Throws fibra::details::hresult_error.
    std::function<tessel::com_ptr<IUsbServer>()> create_server;
};

// The arguments after the program name. COM must be initialised on this thread, a
// single-threaded apartment (the server answers through its messages). Returns the
// process's exit code (exit_codes.h).
[[nodiscard]] int run_program(const std::vector<std::wstring>& arguments, program_io io);

// The server, created and asked whether it runs, as each command needs it; nothing
// after the reason was printed to io.err, with `exit` set to 1 or 2.
[[nodiscard]] tessel::com_ptr<IUsbServer> connect_to_server(const program_io& io, int& exit);

}  // namespace servercfg::console
