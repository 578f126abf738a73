#pragma once
// The text form of points in time on both media: ISO 8601 with the local offset.

#include "nsm/archive.h"

#include <optional>
#include <string>
#include <string_view>

namespace tessel::nsm::details {

// "2024-05-01T14:30:00+0200": local time and its offset, whole seconds.
void append_time_text(std::wstring& out, time_point value);

// Accepts "%FT%T%z" (offset as "Z", "+hh", "+hhmm" or "+hh:mm"), "%FT%T" and "%F"; a text
// without an offset is taken as UTC. Fractions of a second are kept. Anything else,
// including out-of-range fields, is nullopt.
[[nodiscard]] std::optional<time_point> parse_time_text(std::string_view text) noexcept;
[[nodiscard]] std::optional<time_point> parse_time_text(std::wstring_view text) noexcept;

}  // namespace tessel::nsm::details
