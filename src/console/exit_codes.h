#pragma once
// The console companion's exit codes: what a script that runs it can tell apart.

#include "server_link/server_connection.h"

namespace servercfg::console {

enum exit_code : int {
    exit_done = 0,  // done, or nothing to do
    exit_server_not_created = exit_code_server_not_created,  // 1, as the window program
    exit_server_not_running = exit_code_server_not_running,  // 2, as the window program
    exit_usage = 3,         // the command line or the configuration document is wrong
    exit_selector = 4,      // a selector matched no device or several
    exit_server_call = 5,   // a server call failed
    exit_rules_failed = 6,  // apply or watch ended with some rules failing
    exit_differs = 7,       // apply --check: the server does not match the document
};

}  // namespace servercfg::console
