#pragma once
// What "list" and "settings" print: an aligned table in the user's language, or a JSON
// document with English keys for scripts.
//
// The JSON of "list" (documented in the README; members are never removed or renamed):
//   {"devices": [{"name": "...", "instance_id": "...", "vid_pid": "0781:5567", "serial": "...",
//     "class": "DiskDrive", "location": "1-1", "connected": true, "shared": true,
//     "has_key": true, "client": "...", "needs_confirmation": false,
//     "children": [{"name": "...", "instance_id": "...", "vid_pid": "...", "serial": "...",
//                   "class": "...", "children": [...]}]}]}
// Facts a device does not have are empty texts; "children" only with --all. The key itself
// is never shown.
// The JSON of "settings": {"endpoints": "...", "port": 32032, "advertisement": true,
// "statistics": false}, null for what the server does not know.

#include "console/configuration.h"
#include "console/server_session.h"

#include <string>
#include <vector>

namespace servercfg::console {

[[nodiscard]] std::wstring device_table(const std::vector<device_entry>& entries, bool with_children);
[[nodiscard]] std::wstring device_list_json(const std::vector<device_entry>& entries, bool with_children);
[[nodiscard]] std::wstring settings_table(const server_settings_values& settings);
[[nodiscard]] std::wstring settings_json(const server_settings_values& settings);

}  // namespace servercfg::console
