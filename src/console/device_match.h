#pragma once
// Which devices a selector or a rule of the configuration document names, by the facts
// that tell devices apart (server_link/device_identity.h) and the server's name.
//
// Rules of comparison, chosen for what administrators type:
// - Instance IDs, serial numbers and setup classes compare whole and without regard to
//   case: Windows itself keeps instance IDs in upper case and compares them that way.
// - Names are patterns: "*" stands for any text, "?" for any one character; case does
//   not matter either.
// - VID:PID compares the two numbers.
// A match names every fact it gives; the device must have all of them.

#include "server_link/device_identity.h"

#include <optional>
#include <string>
#include <string_view>

namespace servercfg::console {

struct device_facts {
    std::wstring name;  // what the server calls the device
    device_identity identity;
};

struct device_match {
    std::optional<std::wstring> instance_id;
    std::optional<usb_vid_pid> vid_pid;
    std::optional<std::wstring> serial;
    std::optional<std::wstring> name;
    std::optional<std::wstring> setup_class;

    [[nodiscard]] bool empty() const noexcept
    {
        return !instance_id && !vid_pid && !serial && !name && !setup_class;
    }
    bool operator==(const device_match&) const = default;
};

[[nodiscard]] bool matches(const device_match& match, const device_facts& device);

// "*" any text (also none), "?" any one UTF-16 unit; case-insensitive.
[[nodiscard]] bool wildcard_match(std::wstring_view pattern, std::wstring_view text);

// The text in upper case by the invariant locale's rules, for comparisons that ignore case
// beyond ASCII ("Ä" and "ä" compare equal).
[[nodiscard]] std::wstring fold_case(std::wstring_view text);

// How a selector on the command line was written.
enum class selector_kind { instance_id, vid_pid, serial, name, setup_class, bare_word };

struct parsed_selector {
    selector_kind kind = selector_kind::bare_word;
    // For a bare word: the match by instance ID; the match by name is name_match.
    device_match match;
    device_match name_match;
};

// "id:<instance ID>", "vidpid:VVVV:PPPP", "serial:<text>", "name:<pattern>",
// "class:<setup class>", or a bare word (an instance ID, else a name pattern). Nothing when
// a prefix is given with nothing after it or "vidpid:" with something that is not a VID:PID.
[[nodiscard]] std::optional<parsed_selector> parse_selector(std::wstring_view text);

}  // namespace servercfg::console
