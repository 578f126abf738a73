#pragma once
// Bringing the server to a configuration document: what each device needs (the first
// rule that matches it decides), which settings differ, and carrying that out with one
// printed line per change.

#include "console/configuration.h"
#include "console/console_io.h"
#include "console/server_session.h"

#include <cstddef>
#include <optional>
#include <vector>

namespace servercfg::console {

struct apply_options {
    bool prune = false;      // unshare shared devices that no rule matches
    bool confirmed = false;  // --yes: share devices that ask for confirmation
};

enum class change_kind {
    share,        // not shared: share with the rule's key
    share_again,  // shared with another key than the rule's: unshare, share with the rule's
    unshare,      // shared, no rule matches, --prune
    unconfirmed,  // a rule matches, but the device asks for confirmation and --yes is missing
};

struct device_change {
    change_kind kind;
    std::size_t device;  // index into the entries planned over
    std::wstring key;    // share, share_again: the key to share with (empty: none)
};

// What the device needs; nothing when it already is as the document wants it.
[[nodiscard]] std::optional<device_change> plan_device(const configuration& document, const device_entry& entry,
                                                       std::size_t index, const apply_options& options);

struct apply_plan {
    std::vector<device_change> devices;
    // Only the settings whose value must change.
    server_settings_values settings;

    [[nodiscard]] bool empty() const noexcept { return devices.empty() && settings.empty(); }
};

[[nodiscard]] apply_plan plan_apply(const configuration& document, const std::vector<device_entry>& entries,
                                    const server_settings_values& current_settings, const apply_options& options);

struct apply_report {
    std::size_t attempted = 0;
    std::size_t failed = 0;  // unconfirmed devices count as failed rules
};

// Prints one line per change; with carry_out_changes false (--dry-run, --check) that is all.
// Otherwise each change is made as it is printed, and a failed one is followed by its
// error and the rest still tried. `entries` follow the changes made.
apply_report carry_out(server_session& session, std::vector<device_entry>& entries, const apply_plan& plan,
                       text_sink& out, bool carry_out_changes);

// "Name (USB\VID_...\...)", for messages.
[[nodiscard]] std::wstring device_label(const device_entry& entry);

}  // namespace servercfg::console
