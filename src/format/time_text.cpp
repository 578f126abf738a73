#include "format/detail.h"
#include "format/ts_printf.h"

#include <windows.h>

#include <ctime>

#include <array>
#include <iterator>
#include <locale>

// Date-time text. Patterns are handed conversion by conversion to std::time_put, with two
// exceptions kept in this file:
// - Conversions whose text does not depend on the locale (numbers, ISO weeks, composites
//   such as %F) are printed here. The runtime's wcsftime (msvcrt) rejects the C99 ones
//   by ending the process, and libstdc++ switches the C locale and allocates around every
//   call, which the hot paths (file names of exports) do not need.
// - The runtime likewise ends the process on fields out of range, so those are checked
//   before anything reaches it.

namespace ts_printf::detail {
namespace {

struct scratch_appender {
    using iterator_category = std::output_iterator_tag;
    using value_type = void;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = void;

    scratch_appender& operator*() noexcept { return *this; }
    scratch_appender& operator++() noexcept { return *this; }
    scratch_appender operator++(int) noexcept { return *this; }
    scratch_appender& operator=(wchar_t unit)
    {
        buffer->push_back(unit);
        return *this;
    }

    scratch_buffer* buffer;
};

class appending_time_put final : public std::time_put<wchar_t, scratch_appender> {
public:
    // One reference held by ourselves: no locale ever deletes it.
    appending_time_put() : std::time_put<wchar_t, scratch_appender>(1) {}
    ~appending_time_put() override = default;
};

// time_put reads the locale from an ios_base; nothing else of a stream is needed.
class locale_carrier final : public std::ios_base {
public:
    explicit locale_carrier(const std::locale& locale) { imbue(locale); }
};

long long floor_div(long long a, long long b) noexcept
{
    const long long quotient = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? quotient - 1 : quotient;
}

long long floor_mod(long long a, long long b) noexcept
{
    return a - floor_div(a, b) * b;
}

// Any value: sign, padding to min_digits, digits.
[[gnu::noinline]] void append_number(scratch_buffer& out, long long value, int min_digits, wchar_t pad = L'0')
{
    wchar_t digits[24];
    wchar_t* const end = digits + std::size(digits);
    wchar_t* first = end;
    unsigned long long magnitude = value < 0 ? 0ull - static_cast<unsigned long long>(value) : value;
    do {
        *--first = static_cast<wchar_t>(L'0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude);
    const std::size_t length = static_cast<std::size_t>(end - first);
    const std::size_t pads = length < static_cast<std::size_t>(min_digits) ? min_digits - length : 0;
    wchar_t* p = out.append_uninitialized((value < 0) + pads + length);
    if (value < 0)
        *p++ = L'-';
    for (std::size_t i = 0; i < pads; ++i)
        *p++ = pad;
    while (first != end)
        *p++ = *first++;
}

// The fields of valid times take one table look-up per two digits.
inline void append_2(scratch_buffer& out, long long value)
{
    if (value < 0 || value > 99)
        return append_number(out, value, 2);
    wchar_t* const p = out.append_uninitialized(2);
    p[0] = digit_pairs[2 * value];
    p[1] = digit_pairs[2 * value + 1];
}

inline void append_4(scratch_buffer& out, long long value)
{
    if (value < 1000 || value > 9999)
        return append_number(out, value, 4);
    wchar_t* const p = out.append_uninitialized(4);
    const long long high = value / 100, low = value % 100;
    p[0] = digit_pairs[2 * high];
    p[1] = digit_pairs[2 * high + 1];
    p[2] = digit_pairs[2 * low];
    p[3] = digit_pairs[2 * low + 1];
}

long long full_year(const std::tm& time) noexcept
{
    return 1900LL + time.tm_year;
}

long long twelve_hour(const std::tm& time) noexcept
{
    const long long hour = floor_mod(time.tm_hour, 12);
    return hour == 0 ? 12 : hour;
}

int iso_weekday(const std::tm& time) noexcept  // Monday 0 .. Sunday 6
{
    return static_cast<int>(floor_mod(time.tm_wday + 6LL, 7));
}

int iso_weeks_in(long long year) noexcept
{
    const auto jan1_shift = [](long long y) {
        return floor_mod(y + floor_div(y, 4) - floor_div(y, 100) + floor_div(y, 400), 7);
    };
    return jan1_shift(year) == 4 || jan1_shift(year - 1) == 3 ? 53 : 52;
}

struct iso_week {
    long long year;
    long long week;
};

iso_week iso_week_of(const std::tm& time) noexcept
{
    iso_week result{full_year(time), floor_div(time.tm_yday - iso_weekday(time) + 10LL, 7)};
    if (result.week < 1) {
        --result.year;
        result.week = iso_weeks_in(result.year);
    } else if (result.week > iso_weeks_in(result.year)) {
        ++result.year;
        result.week = 1;
    }
    return result;
}

bool in_range(int value, int low, int high) noexcept
{
    return value >= low && value <= high;
}

bool runtime_accepts(const std::tm& time, char conversion) noexcept
{
    switch (conversion) {
    case 'a':
    case 'A':
        return in_range(time.tm_wday, 0, 6);
    case 'b':
    case 'B':
        return in_range(time.tm_mon, 0, 11);
    case 'p':
        return in_range(time.tm_hour, 0, 23);
    case 'Z':
        return true;
    default:  // c, x, X may use every field
        return in_range(time.tm_sec, 0, 60) && in_range(time.tm_min, 0, 59) && in_range(time.tm_hour, 0, 23) &&
               in_range(time.tm_mday, 1, 31) && in_range(time.tm_mon, 0, 11) && in_range(time.tm_year, -1900, 8099) &&
               in_range(time.tm_wday, 0, 6) && in_range(time.tm_yday, 0, 365);
    }
}

void append_from_locale(scratch_buffer& out, const std::tm& time, char conversion)
{
    if (!runtime_accepts(time, conversion))
        throw generic_exception(std::string("date-time field out of range for %") + conversion);
    static const appending_time_put facet;
    static locale_carrier carrier(user_locale());
    std::tm checked = time;
    if (checked.tm_sec > 59)  // a leap second, which the runtime refuses
        checked.tm_sec = 59;
    facet.put(scratch_appender{&out}, carrier, L' ', &checked, conversion, 0);
}

void append_utc_offset(scratch_buffer& out, const std::tm& time)
{
    // The offset comes from where the clock fields come from: the C runtime's zone, which
    // follows a TZ variable when one is set and the system's zone otherwise. Taking it
    // from GetTimeZoneInformation instead would disagree with those fields under TZ, and
    // a time written and read back would move by the difference every time.
    static const bool zone_read = [] {
        _tzset();
        return true;
    }();
    (void)zone_read;
    const long bias_seconds = _timezone + (time.tm_isdst > 0 ? _dstbias : 0);
    const long offset = -bias_seconds / 60;
    out.push_back(offset < 0 ? L'-' : L'+');
    const long minutes = offset < 0 ? -offset : offset;
    append_number(out, minutes / 60, 2);
    append_number(out, minutes % 60, 2);
}

constexpr auto conversion_letters = [] {
    std::array<bool, 128> table{};
    for (const char letter : std::string_view("aAbBcCdDeFgGhHIjmMnprRStTuUVwWxXyYzZ"))
        table[static_cast<unsigned char>(letter)] = true;
    return table;
}();

bool is_conversion(wchar_t unit) noexcept
{
    return unit < conversion_letters.size() && conversion_letters[unit];
}

// Composites are spelled out rather than recursing, so that the whole of this inlines
// into the pattern loop.
void append_conversion(scratch_buffer& out, const std::tm& time, char conversion)
{
    switch (conversion) {
    case 'Y':
        append_4(out, full_year(time));
        break;
    case 'y':
        append_2(out, floor_mod(full_year(time), 100));
        break;
    case 'C':
        append_2(out, floor_div(full_year(time), 100));
        break;
    case 'G':
        append_4(out, iso_week_of(time).year);
        break;
    case 'g':
        append_2(out, floor_mod(iso_week_of(time).year, 100));
        break;
    case 'V':
        append_2(out, iso_week_of(time).week);
        break;
    case 'm':
        append_2(out, time.tm_mon + 1LL);
        break;
    case 'd':
        append_2(out, time.tm_mday);
        break;
    case 'e':
        append_number(out, time.tm_mday, 2, L' ');
        break;
    case 'j':
        append_number(out, time.tm_yday + 1LL, 3);
        break;
    case 'H':
        append_2(out, time.tm_hour);
        break;
    case 'I':
        append_2(out, twelve_hour(time));
        break;
    case 'M':
        append_2(out, time.tm_min);
        break;
    case 'S':
        append_2(out, time.tm_sec);
        break;
    case 'u':
        append_number(out, iso_weekday(time) + 1, 1);
        break;
    case 'w':
        append_number(out, time.tm_wday, 1);
        break;
    case 'U':
        append_2(out, floor_div(time.tm_yday + 7LL - time.tm_wday, 7));
        break;
    case 'W':
        append_2(out, floor_div(time.tm_yday + 7LL - iso_weekday(time), 7));
        break;
    case 'F':
        append_4(out, full_year(time));
        out.push_back(L'-');
        append_2(out, time.tm_mon + 1LL);
        out.push_back(L'-');
        append_2(out, time.tm_mday);
        break;
    case 'D':
        append_2(out, time.tm_mon + 1LL);
        out.push_back(L'/');
        append_2(out, time.tm_mday);
        out.push_back(L'/');
        append_2(out, floor_mod(full_year(time), 100));
        break;
    case 'T':
    case 'R':
        append_2(out, time.tm_hour);
        out.push_back(L':');
        append_2(out, time.tm_min);
        if (conversion == 'T') {
            out.push_back(L':');
            append_2(out, time.tm_sec);
        }
        break;
    case 'r':
        append_2(out, twelve_hour(time));
        out.push_back(L':');
        append_2(out, time.tm_min);
        out.push_back(L':');
        append_2(out, time.tm_sec);
        out.push_back(L' ');
        append_from_locale(out, time, 'p');
        break;
    case 'n':
        out.push_back(L'\n');
        break;
    case 't':
        out.push_back(L'\t');
        break;
    case 'z':
        append_utc_offset(out, time);
        break;
    case 'h':
        append_from_locale(out, time, 'b');
        break;
    default:  // a A b B c p x X Z: names and orders that belong to the locale
        append_from_locale(out, time, conversion);
        break;
    }
}

}  // namespace

void append_time(scratch_buffer& out, const std::tm& time, std::wstring_view pattern)
{
    const std::size_t size = pattern.size();
    for (std::size_t i = 0; i < size; ++i) {
        if (pattern[i] != L'%') {
            out.push_back(pattern[i]);
            continue;
        }
        std::size_t letter = i + 1;
        if (letter < size && pattern[letter] == L'%') {
            out.push_back(L'%');
            i = letter;
            continue;
        }
        // The E and O modifiers ask for alternative numerals and eras, which this runtime
        // does not have; the plain conversion is the closest.
        if (letter + 1 < size && (pattern[letter] == L'E' || pattern[letter] == L'O') && is_conversion(pattern[letter + 1]))
            ++letter;
        if (letter == size || !is_conversion(pattern[letter])) {
            out.push_back(L'%');  // not a conversion: printed as written
            continue;
        }
        append_conversion(out, time, static_cast<char>(pattern[letter]));
        i = letter;
    }
}

std::tm local_time(std::int64_t seconds_since_epoch)
{
    const __time64_t seconds = seconds_since_epoch;
    std::tm result{};
    if (::_localtime64_s(&result, &seconds) != 0)
        throw generic_exception("time point outside the range of local time");
    return result;
}

}  // namespace ts_printf::detail
