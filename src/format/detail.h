#pragma once
// Pieces shared by the formatter's translation units; not part of the public interface.

#include "format/small_buffer.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <locale>
#include <string_view>

namespace ts_printf::detail {

// Converted floating-point and date-time values; most fit inline.
using scratch_buffer = small_buffer<wchar_t, 128>;

// "00" to "99": two digits per division halves the dependent divisions of a conversion.
inline constexpr auto digit_pairs = [] {
    std::array<wchar_t, 200> pairs{};
    for (int i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<wchar_t>(L'0' + i / 10);
        pairs[2 * i + 1] = static_cast<wchar_t>(L'0' + i % 10);
    }
    return pairs;
}();

// The user's default locale, built once; the classic locale when the runtime cannot build it.
[[nodiscard]] const std::locale& user_locale() noexcept;

// Appends the time formatted by a time_put pattern. Throws generic_exception when a
// conversion needs a field that is out of range.
void append_time(scratch_buffer& out, const std::tm& time, std::wstring_view pattern);

// Throws generic_exception outside the range the runtime can convert (1970 to 3000).
[[nodiscard]] std::tm local_time(std::int64_t seconds_since_epoch);

}  // namespace ts_printf::detail
