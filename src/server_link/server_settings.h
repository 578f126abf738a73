#pragma once
// The server's four settings as values, and the records the server API takes and gives
// for them (UsbServerSettings), for both the settings dialog and the console companion.

#include "base/unique_handle.h"
#include "server_link/server_api.h"

#include <cstdint>
#include <optional>
#include <string>

namespace servercfg {

// Unset members are unknown (read) or left as they are (written).
struct server_settings_values {
    std::optional<std::wstring> endpoints;
    std::optional<std::uint16_t> port;
    std::optional<bool> advertisement;
    std::optional<bool> statistics;

    [[nodiscard]] bool empty() const noexcept { return !endpoints && !port && !advertisement && !statistics; }
    bool operator==(const server_settings_values&) const = default;
};

// The record for SetSettingsAsync: only the set members, with their fields. Owns the
// endpoints string. Throws E_OUTOFMEMORY when the string cannot be made, rather than
// send a record that would clear the server's endpoints.
class settings_record {
public:
    explicit settings_record(const server_settings_values& values);
    [[nodiscard]] const UsbServerSettings* get() const noexcept { return &record_; }

private:
    tessel::unique_bstr endpoints_;
    UsbServerSettings record_{};
};

// The values whose fields the server set in an answer of GetSettings. Leaves the record's
// endpoints string to its owner.
[[nodiscard]] server_settings_values values_of(const UsbServerSettings& record);

}  // namespace servercfg
