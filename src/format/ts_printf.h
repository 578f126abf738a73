#pragma once
// ts_printf: the type-safe formatter behind every user-visible text that carries values.
//
// A format string is compiled once into a list of segments (literal runs and fields); the
// list is then walked against a fixed, typed argument list and appends to a wide string.
// Format strings come from the translators' string tables, so the language is small,
// positional and lenient about fields whose argument is missing.
//
//   field    := "{" index? letter* "}"          "{{" is a literal "{"; "}" alone is literal
//   index    := decimal digits                  absent: previous index + 1 (first: 0)
//   letters  := "+"                             plus sign on non-negative numbers
//               "?<" "?|" "?>"                  conditional open / else / close on the argument
//               "a" ("l"|"c"|"r")               alignment within the width
//               "b" "0"? digits                 integer base 2, 8, 10; any other prints hex
//                                               (upper case unless it is 16); "0" prefixes hex
//                                               with "0x"; after base 16: "x" lower case, "X"
//                                               upper case, neither the program-wide default,
//                                               then "p" zero-pads the digits to 8 (or to 16
//                                               beyond 8 digits)
//               "c"                             integer printed as the character it codes
//               "e"                             truncation to the max width ends with U+2026
//               "f" char                        fill character (default space)
//               "l"                             base 10: group by three with the user's separator
//               "p" digits                      precision of floating-point values
//               "t(" pattern ")"                std::time_put pattern for date-time values
//               "u"                             signed integer printed as its unsigned bit pattern
//               "w" digits? ("," digits)?       minimum width, maximum width
//               "n", "s", "sa"                  variants, see below
//
// Numbers in a field (index, base, width, precision) saturate at the largest value their
// segment member holds, so an absurd index simply names a missing argument. A string that
// ends inside a field keeps the field as far as it got, also right after "?", "a", "f" or
// "t"; only a "{" that ends the string is an error.
//
// Conversions of the argument kinds:
// - Text (std::wstring, std::wstring_view, const wchar_t*, wchar_t arrays up to their first
//   NUL; a null pointer is empty text) is used as it is. wchar_t and char16_t values are
//   one-character text.
// - Integers of every width: see the letters above. A negative value with "c" and no "u",
//   or a value beyond U+10FFFF, gives U+FFFD; values above U+FFFF give a surrogate pair.
// - bool: "true" / "false"; with "n": "1" / "0".
// - float and double, always in decimal (base, "c", "u" and "l" do not apply):
//     default  fixed notation with exactly `precision` digits after the point; precision 0
//              (the default) prints a whole number without a point. Correctly rounded.
//     "s"      scientific notation with `precision` digits after the point ("1.50e+03").
//     "sa"     fixed or scientific, whichever suits the value (C's %g): `precision`
//              significant digits, 0 counting as 1, trailing zeros dropped.
//     "n"      the shortest text that reads back as the same value ("0.1", "1e+20");
//              precision is ignored. "n" wins over "sa", which wins over "s".
//   "+" shows a plus sign on values without the sign bit; NaN and infinity print as
//   "nan" and "inf".
// - std::tm, and std::chrono::system_clock time points (converted to local time first):
//   formatted by their "t(...)" pattern; without one as "%Y-%m-%d %H:%M:%S". Conversions
//   are those of "aAbBcCdDeFgGhHIjmMnprRStTuUVwWxXyYzZ" with optional "E"/"O" modifier
//   (ignored), plus "%%". A "%" that does not start one of them is printed as it stands.
//   A "t(" whose ")" never comes takes the rest of the format string as its pattern.
//   Numeric conversions print whatever the fields hold; those the locale spells (names,
//   %c, %x, %X, %p) throw generic_exception on a field out of range, and so does a time
//   point the runtime cannot convert to local time (before 1970, after 3000).
// - Anything else does not compile.
//
// Conditionals: "?<" pushes the truth of its argument (bool; non-empty text; non-zero
// number or character; a date-time is true), "?|" negates the innermost level, "?>" pops
// it. While any level is false, literals and fields produce nothing, but markers are still
// processed so that nesting stays balanced. At most 8 levels: opening a ninth throws
// generic_exception while formatting. "?|" and "?>" without an open level are ignored, and
// levels still open at the end are dropped. A marker whose argument is missing is skipped
// like any other field.
//
// Width W and max width M apply to the converted text (UTF-16 units): shorter than W is
// padded with the fill according to the alignment (centre puts the odd fill on the right);
// otherwise longer than M is cut (left and centre keep the head, right keeps the tail),
// with "e" the cut is marked with "…" inside the M units.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <exception>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

static_assert(sizeof(wchar_t) == 2, "ts_printf works on UTF-16 text");

namespace ts_printf {

// The library's failure type for everything that is not a malformed format string: a
// segment list used with a string it does not belong to, conditionals nested too deeply,
// a date-time that cannot be printed.
class generic_exception : public std::exception {
public:
    explicit generic_exception(const std::string& message) : message_(message) {}
    [[nodiscard]] const char* what() const noexcept override { return message_.what(); }

private:
    // runtime_error's shared string keeps copying of the exception free of throwing.
    std::runtime_error message_;
};

// A format string that cannot be compiled. position() is the index (in UTF-16 units) of
// the offending character.
class bad_extended_format_string : public generic_exception {
public:
    bad_extended_format_string(std::size_t position, std::string_view reason);
    [[nodiscard]] std::size_t position() const noexcept { return position_; }

private:
    std::size_t position_;
};

namespace segment_flags {
inline constexpr std::uint32_t ellipsis = 0x1;
inline constexpr std::uint32_t plus_sign = 0x2;
inline constexpr std::uint32_t hex_lower_case = 0x4;
inline constexpr std::uint32_t character = 0x8;
inline constexpr std::uint32_t group_thousands = 0x10;
inline constexpr std::uint32_t time_pattern = 0x20;
inline constexpr std::uint32_t hex_prefix = 0x40;
inline constexpr std::uint32_t literal = 0x80;
inline constexpr std::uint32_t condition_open = 0x100;
inline constexpr std::uint32_t condition_close = 0x200;
inline constexpr std::uint32_t condition_else = 0x400;
inline constexpr std::uint32_t condition_marker = 0x800;
inline constexpr std::uint32_t hex_pad = 0x1000;
inline constexpr std::uint32_t variant_n = 0x2000;
inline constexpr std::uint32_t variant_s = 0x4000;
inline constexpr std::uint32_t variant_sa = 0x8000;
inline constexpr std::uint32_t as_unsigned = 0x10000;
inline constexpr std::uint32_t collapse_escapes = 0x20000;
inline constexpr std::uint32_t hex_default_case = 0x40000;
}  // namespace segment_flags

namespace segment_alignment {
inline constexpr std::uint16_t left = 0;
inline constexpr std::uint16_t centre = 1;
inline constexpr std::uint16_t right = 2;
}  // namespace segment_alignment

// One literal run or one field. Literal runs and time patterns are [start, end) indexes
// into the format string, which must therefore outlive every list compiled from it.
struct segment {
    std::uint32_t start = 0;
    std::uint32_t end = 0;
    std::uint32_t flags = 0;
    std::uint16_t argument = 0;
    std::uint16_t alignment = segment_alignment::left;
    std::uint16_t width = 0;
    std::uint16_t max_width = 0;
    std::uint16_t precision = 0;
    std::uint16_t fill = L' ';
    std::uint8_t base = 10;

    friend bool operator==(const segment&, const segment&) = default;
};

using segment_list = std::vector<segment>;

// Throws bad_extended_format_string. Allocates once.
[[nodiscard]] segment_list compile(std::wstring_view format);

// A format string together with its compiled segments. Holds only a view of the string.
class compiled_format {
public:
    explicit compiled_format(std::wstring_view format) : text_(format), segments_(compile(format)) {}
    explicit compiled_format(const wchar_t* format) : compiled_format(std::wstring_view(format)) {}
    explicit compiled_format(const std::wstring& format) : compiled_format(std::wstring_view(format)) {}
    // The view would dangle at once.
    explicit compiled_format(std::wstring&&) = delete;

    [[nodiscard]] std::wstring_view text() const noexcept { return text_; }
    [[nodiscard]] const segment_list& segments() const noexcept { return segments_; }

private:
    std::wstring_view text_;
    segment_list segments_;
};

// Upper case unless switched; fields with "x" or "X" are not affected.
void set_default_hex_lowercase(bool lower_case) noexcept;
[[nodiscard]] bool default_hex_lowercase() noexcept;

// The separator "l" inserts, read once: from std::locale("") when the runtime knows the
// user's locale by name, otherwise (the usual case with this runtime, whose locales are
// only "C") from the user's Windows setting. L'\0' when the user has chosen none (digits
// are then not grouped); ',' when neither answers.
[[nodiscard]] wchar_t thousands_separator() noexcept;
// The user's decimal separator, read the same way; '.' when neither answers or it is empty.
[[nodiscard]] wchar_t decimal_separator() noexcept;

namespace detail {

enum class argument_kind : std::uint8_t {
    text,
    character,
    boolean,
    signed_integer,
    unsigned_integer,
    floating,
    calendar_time,
    clock_time,
};

// A type-erased view of one argument, built on the caller's stack.
struct argument {
    union {
        struct {
            const wchar_t* data;
            std::size_t size;
        } text;
        std::int64_t signed_value;
        std::uint64_t unsigned_value;
        double floating_value;
        const std::tm* calendar;
        std::int64_t seconds_since_epoch;
    };
    argument_kind kind;
    // Integers: the type's size in bytes (what "u" reinterprets). Floating point: 4 or 8.
    std::uint8_t size;
};

template <class>
inline constexpr bool unsupported_argument = false;

template <class T>
struct is_system_time_point : std::false_type {};
template <class Duration>
struct is_system_time_point<std::chrono::time_point<std::chrono::system_clock, Duration>> : std::true_type {};

template <class T>
[[nodiscard]] argument make_argument(const T& value) noexcept
{
    argument result{};
    if constexpr (std::is_same_v<T, bool>) {
        result.kind = argument_kind::boolean;
        result.unsigned_value = value ? 1 : 0;
    } else if constexpr (std::is_same_v<T, wchar_t> || std::is_same_v<T, char16_t>) {
        result.kind = argument_kind::character;
        result.unsigned_value = static_cast<std::uint16_t>(value);
    } else if constexpr (std::is_same_v<T, char> || std::is_same_v<T, char8_t> || std::is_same_v<T, char32_t>) {
        static_assert(unsupported_argument<T>, "narrow and UTF-32 characters are not format arguments");
    } else if constexpr (std::is_integral_v<T>) {
        result.size = sizeof(T);
        if constexpr (std::is_signed_v<T>) {
            result.kind = argument_kind::signed_integer;
            result.signed_value = value;
        } else {
            result.kind = argument_kind::unsigned_integer;
            result.unsigned_value = value;
        }
    } else if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
        result.kind = argument_kind::floating;
        result.floating_value = value;
        result.size = sizeof(T);
    } else if constexpr (std::is_array_v<T>) {
        static_assert(std::is_same_v<std::remove_cv_t<std::remove_extent_t<T>>, wchar_t>,
                      "only wide character arrays are text arguments");
        // A buffer need not be full: the text ends at its first NUL, never beyond the array.
        std::size_t length = 0;
        while (length < std::extent_v<T> && value[length] != L'\0')
            ++length;
        result.kind = argument_kind::text;
        result.text = {value, length};
    } else if constexpr (std::is_same_v<T, const wchar_t*> || std::is_same_v<T, wchar_t*>) {
        result.kind = argument_kind::text;
        result.text = {value, value ? std::char_traits<wchar_t>::length(value) : 0};
    } else if constexpr (std::is_convertible_v<const T&, std::wstring_view>) {
        const std::wstring_view view = value;
        result.kind = argument_kind::text;
        result.text = {view.data(), view.size()};
    } else if constexpr (std::is_same_v<T, std::tm>) {
        result.kind = argument_kind::calendar_time;
        result.calendar = &value;
    } else if constexpr (is_system_time_point<T>::value) {
        result.kind = argument_kind::clock_time;
        result.seconds_since_epoch =
            std::chrono::floor<std::chrono::seconds>(value.time_since_epoch()).count();
    } else {
        static_assert(unsupported_argument<T>, "this type cannot be a format argument");
    }
    return result;
}

// The one routine all argument-list signatures share.
void format_segments(std::wstring& out, std::wstring_view format, std::span<const segment> segments,
                     std::span<const argument> arguments);

}  // namespace detail

// Appends to out, which must not be one of the arguments. Throws generic_exception; out
// may then hold part of the text.
template <class... Args>
void format_to(std::wstring& out, std::wstring_view format, const segment_list& segments, const Args&... args)
{
    if constexpr (sizeof...(Args) == 0) {
        detail::format_segments(out, format, segments, {});
    } else {
        const detail::argument arguments[] = {detail::make_argument(args)...};
        detail::format_segments(out, format, segments, arguments);
    }
}

template <class... Args>
void format_to(std::wstring& out, const compiled_format& format, const Args&... args)
{
    format_to(out, format.text(), format.segments(), args...);
}

// Compiles and formats in one go; for texts formatted once.
template <class... Args>
[[nodiscard]] std::wstring format(std::wstring_view format_string, const Args&... args)
{
    std::wstring out;
    format_to(out, format_string, compile(format_string), args...);
    return out;
}

}  // namespace ts_printf
