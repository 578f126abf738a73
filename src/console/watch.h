#pragma once
// "watch": applies the document, then stays and applies its rules to every device the
// server reports added or changed, one time-stamped line per change.
//
// The server is asked every few seconds whether it still runs; when it has gone (or was
// not there to begin with), everything of it is let go and it is looked for again, at
// growing intervals of at most 30 s, and the document is applied afresh once it is back.
// Ctrl+C, Ctrl+Break, closing the console, log-off and shutdown end the watch after
// everything the server handed out has been released.

#include "console/apply.h"
#include "console/commands.h"
#include "console/configuration.h"

namespace servercfg::console {

// How often a connected watch asks whether the server still runs.
inline constexpr DWORD heartbeat_interval_ms = 2000;
// The waits between attempts to reach the server: from the first, doubling up to the last.
inline constexpr DWORD first_retry_ms = 1000;
inline constexpr DWORD longest_retry_ms = 30000;

// Runs until it is told to end; 0, or 6 when some rules failed on the way.
[[nodiscard]] int run_watch(const program_io& io, const configuration& document, const apply_options& options);

// The name of the hidden window through which the watch hears of log-off and shutdown.
inline constexpr wchar_t session_window_class[] = L"qmx.ulmora.cfg.session";

}  // namespace servercfg::console
