#pragma once
// Reaching the sharing server: the one place that creates its API object and asks whether
// it runs, for the window program and the console companion alike. Both refuse to go on
// without a running server and end with the same codes, so scripts that start either one
// can tell the two reasons apart.

#include "base/com_ptr.h"
#include "server_link/server_api.h"

#include <windows.h>

namespace servercfg {

// Process exit codes of a start that cannot reach the server.
inline constexpr int exit_code_server_not_created = 1;  // the server's COM class cannot be created
inline constexpr int exit_code_server_not_running = 2;  // created, but the server does not run

// The server's API object, created in the caller's apartment (COM must be initialised).
// Throws fibra::details::hresult_error with CoCreateInstance's code when it cannot be
// created.
[[nodiscard]] tessel::com_ptr<IUsbServer> create_server();

// Initialises the object where it asks for that (IUsbServerInit) and asks whether the
// server runs. A failing question counts as "not running": the program neither starts
// the server nor waits for it.
[[nodiscard]] bool server_is_running(IUsbServer& server) noexcept;

}  // namespace servercfg
