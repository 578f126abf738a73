#include "format/ts_printf.h"

#include "base/failure.h"
#include "format/detail.h"

#include <emmintrin.h>
#include <windows.h>

#include <array>
#include <atomic>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <exception>
#include <string>

namespace ts_printf {
namespace {

std::atomic<bool> hex_lower_case_by_default{false};

}  // namespace

void set_default_hex_lowercase(bool lower_case) noexcept
{
    hex_lower_case_by_default.store(lower_case, std::memory_order_relaxed);
}

bool default_hex_lowercase() noexcept
{
    return hex_lower_case_by_default.load(std::memory_order_relaxed);
}

namespace detail {

const std::locale& user_locale() noexcept
{
    // libstdc++'s locale model on this platform knows only "C", and the environment may
    // name another locale (Wine passes LANG through), which makes the constructor throw.
    static const std::locale locale = []() noexcept {
        try {
            return std::locale("");
        } catch (...) {
            // Expected here, as said above: not worth a report.
            return std::locale::classic();
        }
    }();
    return locale;
}

}  // namespace detail

namespace {

// A number separator of the user's: from a locale the runtime knows by name, else from the
// user's Windows setting, else the fallback.
template <class From_locale>
wchar_t user_separator(From_locale from_locale, LCTYPE windows_setting, wchar_t fallback) noexcept
{
    try {
        const std::locale& locale = detail::user_locale();
        const std::string name = locale.name();
        if (name != "C" && name != "POSIX")
            return from_locale(std::use_facet<std::numpunct<wchar_t>>(locale));
    } catch (...) {
        // A named locale without the wide facet: Windows answers instead, below.
    }
    wchar_t text[8] = {};
    if (::GetLocaleInfoEx(LOCALE_NAME_USER_DEFAULT, windows_setting, text, static_cast<int>(std::size(text))) > 0)
        return text[0];
    return fallback;
}

}  // namespace

wchar_t thousands_separator() noexcept
{
    // Here std::locale("") is at best "C", which knows nothing of the user's settings.
    static const wchar_t separator =
        user_separator([](const std::numpunct<wchar_t>& n) { return n.thousands_sep(); }, LOCALE_STHOUSAND, L',');
    return separator;
}

wchar_t decimal_separator() noexcept
{
    // Unlike grouping, a number always has a decimal point: an empty setting means the usual one.
    static const wchar_t separator =
        user_separator([](const std::numpunct<wchar_t>& n) { return n.decimal_point(); }, LOCALE_SDECIMAL, L'.');
    return separator ? separator : L'.';
}

namespace detail {
namespace {

constexpr wchar_t replacement_character = 0xFFFD;
constexpr wchar_t ellipsis_character = 0x2026;

[[noreturn, gnu::cold, gnu::noinline]] void fail(const char* message)
{
    throw generic_exception(message);
}

// Room for the longest integer text: 64 binary digits and a sign.
constexpr std::size_t integer_capacity = 72;

template <class Unsigned>
wchar_t* write_decimal(wchar_t* p, Unsigned value) noexcept
{
    while (value >= 100) {
        const auto pair = static_cast<unsigned>(value % 100) * 2;
        value /= 100;
        *--p = digit_pairs[pair + 1];
        *--p = digit_pairs[pair];
    }
    if (value >= 10) {
        const auto pair = static_cast<unsigned>(value) * 2;
        *--p = digit_pairs[pair + 1];
        *--p = digit_pairs[pair];
    } else {
        *--p = static_cast<wchar_t>(L'0' + value);
    }
    return p;
}

wchar_t* write_grouped_decimal(wchar_t* p, std::uint64_t value, wchar_t separator) noexcept
{
    int in_group = 0;
    do {
        if (in_group == 3) {
            *--p = separator;
            in_group = 0;
        }
        *--p = static_cast<wchar_t>(L'0' + value % 10);
        value /= 10;
        ++in_group;
    } while (value);
    return p;
}

wchar_t* write_hexadecimal(wchar_t* p, std::uint64_t value, std::uint32_t flags) noexcept
{
    using namespace segment_flags;
    const bool lower = (flags & hex_lower_case) || ((flags & hex_default_case) && default_hex_lowercase());
    const wchar_t* digits = lower ? L"0123456789abcdef" : L"0123456789ABCDEF";
    wchar_t* const end = p;
    do {
        *--p = digits[value & 0xF];
        value >>= 4;
    } while (value);
    if (flags & hex_pad) {
        const std::size_t target = end - p <= 8 ? 8 : 16;
        while (static_cast<std::size_t>(end - p) < target)
            *--p = L'0';
    }
    if (flags & hex_prefix) {
        *--p = L'x';
        *--p = L'0';
    }
    return p;
}

// The digits of one integer, written backwards from the end; kept on the stack of the run
// so that the common fields need no buffer object at all.
using integer_text = std::array<wchar_t, integer_capacity>;

std::wstring_view convert_character(std::uint64_t code, bool negative, integer_text& text) noexcept
{
    wchar_t* const p = text.data();
    if (negative || code > 0x10FFFF) {
        p[0] = replacement_character;
        return {p, 1};
    }
    if (code > 0xFFFF) {
        code -= 0x10000;
        p[0] = static_cast<wchar_t>(0xD800 + (code >> 10));
        p[1] = static_cast<wchar_t>(0xDC00 + (code & 0x3FF));
        return {p, 2};
    }
    p[0] = static_cast<wchar_t>(code);
    return {p, 1};
}

struct integer_value {
    std::uint64_t magnitude;
    bool negative;
};

[[gnu::always_inline]] inline integer_value value_of(const argument& arg, const segment& seg) noexcept
{
    integer_value value{arg.unsigned_value, false};
    if (arg.kind == argument_kind::signed_integer) {
        if (seg.flags & segment_flags::as_unsigned) {
            if (arg.size < sizeof(std::uint64_t))
                value.magnitude &= (std::uint64_t{1} << (arg.size * 8)) - 1;
        } else if (arg.signed_value < 0) {
            value = {0 - value.magnitude, true};
        }
    }
    return value;
}

// Writes the number (not as a character) backwards so that it ends at end; returns its
// first unit.
[[gnu::always_inline]] inline wchar_t* write_integer(wchar_t* end, integer_value value, const segment& seg) noexcept
{
    using namespace segment_flags;
    std::uint64_t magnitude = value.magnitude;
    wchar_t* p = end;
    switch (seg.base) {
    case 2:
        do {
            *--p = static_cast<wchar_t>(L'0' + (magnitude & 1));
            magnitude >>= 1;
        } while (magnitude);
        break;
    case 8:
        do {
            *--p = static_cast<wchar_t>(L'0' + (magnitude & 7));
            magnitude >>= 3;
        } while (magnitude);
        break;
    case 10:
        if ((seg.flags & group_thousands) && thousands_separator() != L'\0')
            p = write_grouped_decimal(p, magnitude, thousands_separator());
        else if (magnitude <= UINT32_MAX)
            p = write_decimal(p, static_cast<std::uint32_t>(magnitude));
        else
            p = write_decimal(p, magnitude);
        break;
    default:  // every other base, 16 or not, is hexadecimal
        p = write_hexadecimal(p, magnitude, seg.flags);
        break;
    }
    if (value.negative)
        *--p = L'-';
    else if (seg.flags & plus_sign)
        *--p = L'+';
    return p;
}

// The length write_integer gives, or 0 where it is not cheap to tell (grouped digits).
[[gnu::always_inline]] inline std::size_t integer_length(integer_value value, const segment& seg) noexcept
{
    using namespace segment_flags;
    const std::uint64_t magnitude = value.magnitude;
    const std::size_t bits = magnitude == 0 ? 1 : static_cast<std::size_t>(std::bit_width(magnitude));
    std::size_t length;
    switch (seg.base) {
    case 2:
        length = bits;
        break;
    case 8:
        length = (bits + 2) / 3;
        break;
    case 10:
        if (seg.flags & group_thousands)
            return 0;
        length = 1;
        for (std::uint64_t limit = 10; length < 20 && magnitude >= limit; limit *= 10)
            ++length;
        break;
    default:
        length = (bits + 3) / 4;
        if (seg.flags & hex_pad)
            length = length <= 8 ? 8 : 16;
        if (seg.flags & hex_prefix)
            length += 2;
        break;
    }
    return length + ((value.negative || (seg.flags & plus_sign)) ? 1 : 0);
}

std::wstring_view convert_floating(const argument& arg, const segment& seg, scratch_buffer& scratch)
{
    using namespace segment_flags;
    const double value = arg.floating_value;
    // The longest text is fixed notation of a huge value: sign, 309 digits, point, precision.
    small_buffer<char, 512> narrow;
    narrow.reserve(std::size_t{400} + seg.precision);
    char* const first = narrow.data();
    char* const last = first + narrow.capacity();
    std::to_chars_result result;
    if (seg.flags & variant_n) {
        // Shortest for the argument's own type: 0.1f prints "0.1", not its double expansion.
        result = arg.size == sizeof(float) ? std::to_chars(first, last, static_cast<float>(value))
                                           : std::to_chars(first, last, value);
    } else if (seg.flags & variant_sa) {
        result = std::to_chars(first, last, value, std::chars_format::general, seg.precision);
    } else if (seg.flags & variant_s) {
        result = std::to_chars(first, last, value, std::chars_format::scientific, seg.precision);
    } else {
        result = std::to_chars(first, last, value, std::chars_format::fixed, seg.precision);
    }
    if (result.ec != std::errc{})
        tessel::fail_fast(L"floating-point text longer than its buffer");

    const std::size_t length = static_cast<std::size_t>(result.ptr - first);
    scratch.reserve(length + 1);
    wchar_t* p = scratch.data();
    if ((seg.flags & plus_sign) && !std::signbit(value))
        *p++ = L'+';
    for (std::size_t i = 0; i < length; ++i)
        *p++ = static_cast<wchar_t>(first[i]);
    return {scratch.data(), static_cast<std::size_t>(p - scratch.data())};
}

std::wstring_view convert_time(const std::tm& time, std::wstring_view format, const segment& seg,
                               scratch_buffer& scratch)
{
    std::wstring_view pattern = L"%Y-%m-%d %H:%M:%S";
    if (seg.flags & segment_flags::time_pattern) {
        if (seg.start > format.size())
            fail("time pattern starts beyond its format string");
        const std::size_t end = std::min<std::size_t>(seg.end, format.size());
        pattern = format.substr(seg.start, end > seg.start ? end - seg.start : 0);
    }
    scratch.clear();
    append_time(scratch, time, pattern);
    return {scratch.data(), scratch.size()};
}

// Copies count units. Short runs go unit by unit: their source has usually just been
// written unit by unit (digits, fills), and a wider load over several fresh narrow
// stores stalls until they retire. Longer runs take 16-byte blocks, the last one
// overlapping, so that no access leaves either range.
inline void copy_short(wchar_t* to, const wchar_t* from, std::size_t count) noexcept
{
    if (count >= 8) {
        std::size_t i = 0;
        for (; i + 8 <= count; i += 8)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(to + i),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i)));
        if (i != count)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(to + count - 8),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + count - 8)));
        return;
    }
    switch (count) {
    case 7:
        to[6] = from[6];
        [[fallthrough]];
    case 6:
        to[5] = from[5];
        [[fallthrough]];
    case 5:
        to[4] = from[4];
        [[fallthrough]];
    case 4:
        to[3] = from[3];
        [[fallthrough]];
    case 3:
        to[2] = from[2];
        [[fallthrough]];
    case 2:
        to[1] = from[1];
        [[fallthrough]];
    case 1:
        to[0] = from[0];
        break;
    default:
        break;
    }
}

// Writes a run straight into the string's own storage, between its old end and its
// capacity. A copy through a buffer of our own would cost a second pass, and the runtime's
// copy of a short, freshly written buffer reads it in wider units than it was written in,
// which stalls until those stores retire: for a typical short text that stall was the
// largest single cost of a run. Once a piece does not fit, nothing more is written and
// only the missing length is counted, so that the caller can grow the string to the exact
// size and run again.
//
// A plain value: the run keeps it in registers, and the rare paths that are not inlined
// take a copy and hand back the new state rather than a reference, which would force the
// write position into memory for the whole loop.
class run_output {
public:
    run_output(wchar_t* first, wchar_t* limit) noexcept : next_(first), limit_(limit) {}

    void write(std::wstring_view text) noexcept
    {
        const std::size_t count = text.size();
        if (count <= room()) [[likely]] {
            if (count <= short_run) [[likely]]
                copy_short(next_, text.data(), count);
            else
                std::memcpy(next_, text.data(), count * sizeof(wchar_t));
            next_ += count;
        } else {
            overflow(count);
        }
    }

    // For text that has just been written unit by unit (converted integers): copying it in
    // wider units would stall on every load until those stores retire, so it goes one unit
    // at a time whatever its length.
    void write_fresh(std::wstring_view text) noexcept
    {
        const std::size_t count = text.size();
        if (count <= room()) [[likely]] {
            for (std::size_t i = 0; i < count; ++i) {
                wchar_t unit = text[i];
                // Keeps the compiler from turning the loop back into wide copies.
                asm("" : "+r"(unit));
                next_[i] = unit;
            }
            next_ += count;
        } else {
            overflow(count);
        }
    }

    // Room for count units for the caller to write; null when they do not fit (they are
    // then counted as missing).
    [[nodiscard]] wchar_t* claim(std::size_t count) noexcept
    {
        if (count <= room()) [[likely]] {
            wchar_t* const first = next_;
            next_ += count;
            return first;
        }
        overflow(count);
        return nullptr;
    }

    void write(wchar_t unit) noexcept
    {
        if (next_ != limit_) [[likely]]
            *next_++ = unit;
        else
            overflow(1);
    }

    void fill(std::size_t count, wchar_t unit) noexcept
    {
        if (count <= room()) [[likely]] {
            // Fills are a few units: a plain loop beats the vector code the compiler would
            // make of it, with its set-up and tail.
            for (std::size_t i = 0; i < count; ++i) {
                asm("" : "+r"(unit));
                next_[i] = unit;
            }
            next_ += count;
        } else {
            overflow(count);
        }
    }

    // One past the last unit written.
    [[nodiscard]] wchar_t* end() const noexcept { return next_; }
    // Units that did not fit; 0 when the whole run did.
    [[nodiscard]] std::size_t missing() const noexcept { return missing_; }

private:
    static constexpr std::size_t short_run = 64;

    [[nodiscard]] std::size_t room() const noexcept { return static_cast<std::size_t>(limit_ - next_); }

    // A later, shorter piece must not land after the gap this one leaves.
    void overflow(std::size_t count) noexcept
    {
        missing_ += count;
        limit_ = next_;
    }

    wchar_t* next_;
    wchar_t* limit_;
    std::size_t missing_ = 0;
};

bool is_true(const argument& arg) noexcept
{
    switch (arg.kind) {
    case argument_kind::text:
        return arg.text.size != 0;
    case argument_kind::floating:
        return arg.floating_value != 0.0;
    case argument_kind::calendar_time:
    case argument_kind::clock_time:
        return true;
    case argument_kind::character:
    case argument_kind::boolean:
    case argument_kind::signed_integer:
    case argument_kind::unsigned_integer:
        return arg.unsigned_value != 0;
    }
    tessel::fail_fast(L"format argument of unknown kind");
}

class condition_stack {
public:
    [[nodiscard]] bool suppressing() const noexcept { return false_levels_ != 0; }

    void apply(std::uint32_t flags, const argument& arg)
    {
        using namespace segment_flags;
        if (flags & condition_open) {
            if (depth_ == max_depth)
                fail("conditionals nested deeper than 8 levels");
            if (!is_true(arg))
                false_levels_ |= 1u << depth_;
            ++depth_;
        }
        if ((flags & condition_else) && depth_ > 0)
            false_levels_ ^= 1u << (depth_ - 1);
        if ((flags & condition_close) && depth_ > 0) {
            --depth_;
            false_levels_ &= ~(1u << depth_);
        }
    }

private:
    static constexpr unsigned max_depth = 8;
    unsigned depth_ = 0;
    unsigned false_levels_ = 0;  // bit i: level i is false
};

// Every "{" in the run is the first of a "{{" pair.
[[gnu::noinline]] run_output append_collapsed(run_output out, std::wstring_view run) noexcept
{
    std::size_t pos = 0;
    while (pos < run.size()) {
        const std::size_t brace = run.find(L'{', pos);
        if (brace == std::wstring_view::npos) {
            out.write(run.substr(pos));
            break;
        }
        out.write(run.substr(pos, brace + 1 - pos));
        pos = brace + 2;
    }
    return out;
}

[[gnu::always_inline]] inline void append_literal(run_output& out, std::wstring_view format, const segment& seg)
{
    if (seg.start > format.size()) [[unlikely]]
        fail("literal segment starts beyond its format string");
    const std::size_t end = std::min<std::size_t>(seg.end, format.size());
    const std::wstring_view run = format.substr(seg.start, end > seg.start ? end - seg.start : 0);
    if (!(seg.flags & segment_flags::collapse_escapes)) [[likely]]
        out.write(run);
    else
        out = append_collapsed(out, run);
}

// fresh: text has just been written unit by unit (see write_fresh).
template <bool fresh = false>
[[gnu::always_inline]] inline void emit(run_output& out, std::wstring_view text, const segment& seg)
{
    const auto write = [&out](std::wstring_view piece) {
        if constexpr (fresh)
            out.write_fresh(piece);
        else
            out.write(piece);
    };
    const std::size_t length = text.size();
    if (seg.width > length) {
        const std::size_t fills = seg.width - length;
        const std::size_t before = seg.alignment == segment_alignment::right    ? fills
                                   : seg.alignment == segment_alignment::centre ? fills / 2
                                                                                : 0;
        out.fill(before, static_cast<wchar_t>(seg.fill));
        write(text);
        out.fill(fills - before, static_cast<wchar_t>(seg.fill));
    } else if (seg.max_width != 0 && length > seg.max_width) [[unlikely]] {
        const bool mark = seg.flags & segment_flags::ellipsis;
        const std::size_t keep = seg.max_width - (mark ? 1 : 0);
        if (seg.alignment == segment_alignment::right) {
            if (mark)
                out.write(ellipsis_character);
            write(text.substr(length - keep));
        } else {
            write(text.substr(0, keep));
            if (mark)
                out.write(ellipsis_character);
        }
    } else {
        write(text);
    }
}

// Fields of rare kinds go out of line and keep the loop small.
[[gnu::noinline]] run_output emit_rare(run_output out, std::wstring_view text, const segment& seg) noexcept
{
    emit(out, text, seg);
    return out;
}

// Floating-point and date-time values: the only conversions that need a buffer that can
// grow, so the only ones that create one.
[[gnu::noinline]] run_output emit_converted(run_output out, std::wstring_view format, const segment& seg,
                                            const argument& arg)
{
    scratch_buffer scratch;
    switch (arg.kind) {
    case argument_kind::floating:
        emit(out, convert_floating(arg, seg, scratch), seg);
        break;
    case argument_kind::calendar_time:
        emit(out, convert_time(*arg.calendar, format, seg, scratch), seg);
        break;
    case argument_kind::clock_time:
        emit(out, convert_time(local_time(arg.seconds_since_epoch), format, seg, scratch), seg);
        break;
    default:
        tessel::fail_fast(L"format argument of unexpected kind");
    }
    return out;
}

[[gnu::always_inline]] inline void format_field(run_output& out, std::wstring_view format, const segment& seg,
                                                const argument& arg)
{
    using namespace segment_flags;
    switch (arg.kind) {
    case argument_kind::text:
        emit(out, {arg.text.data, arg.text.size}, seg);
        return;
    case argument_kind::character: {
        const auto unit = static_cast<wchar_t>(arg.unsigned_value);
        out = emit_rare(out, {&unit, 1}, seg);
        return;
    }
    case argument_kind::boolean: {
        const bool value = arg.unsigned_value != 0;
        if (seg.flags & variant_n)
            out = emit_rare(out, value ? L"1" : L"0", seg);
        else
            out = emit_rare(out, value ? L"true" : L"false", seg);
        return;
    }
    case argument_kind::signed_integer:
    case argument_kind::unsigned_integer: {
        const integer_value value = value_of(arg, seg);
        integer_text text;
        if (seg.flags & character) {
            emit(out, convert_character(value.magnitude, value.negative, text), seg);
            return;
        }
        // Without a width to apply, the digits go straight to their place.
        if (seg.width == 0 && seg.max_width == 0) {
            if (const std::size_t length = integer_length(value, seg); length != 0) {
                if (wchar_t* const first = out.claim(length)) [[likely]]
                    write_integer(first + length, value, seg);
                return;
            }
        }
        wchar_t* const end = text.data() + text.size();
        emit<true>(out, {write_integer(end, value, seg), end}, seg);
        return;
    }
    case argument_kind::floating:
    case argument_kind::calendar_time:
    case argument_kind::clock_time:
        out = emit_converted(out, format, seg, arg);
        return;
    }
    tessel::fail_fast(L"format argument of unknown kind");
}

// Writes the whole list; on an exception, failure holds it and the result where the text
// that was written ends.
run_output run(run_output output, std::wstring_view format, std::span<const segment> segments,
               std::span<const argument> arguments, std::exception_ptr& failure) noexcept
{
    condition_stack conditions;
    try {
        for (const segment& seg : segments) {
            if (seg.flags & segment_flags::literal) {
                if (!conditions.suppressing())
                    append_literal(output, format, seg);
                continue;
            }
            const bool marker = seg.flags & segment_flags::condition_marker;
            if ((!marker && conditions.suppressing()) || seg.argument >= arguments.size())
                continue;
            if (marker)
                conditions.apply(seg.flags, arguments[seg.argument]);
            else
                format_field(output, format, seg, arguments[seg.argument]);
        }
    } catch (...) {
        failure = std::current_exception();
    }
    return output;
}

// Lets op write into out's units [0, size) and keeps the first op returns; what lies beyond
// the old length need not be initialised first.
template <class Operation>
void overwrite(std::wstring& out, std::size_t size, Operation op)
{
#if defined(__cpp_lib_string_resize_and_overwrite)
    out.resize_and_overwrite(size, op);
#else
    out.resize(size);
    out.resize(op(out.data(), size));
#endif
}

}  // namespace

void format_segments(std::wstring& out, std::wstring_view format, std::span<const segment> segments,
                     std::span<const argument> arguments)
{
    const std::size_t at = out.size();
    // The whole capacity first: once the string has grown, a run needs no allocation.
    std::size_t size = std::max(out.capacity(), at);
    for (;;) {
        std::size_t needed = 0;
        std::exception_ptr failure;
        overwrite(out, size, [&](wchar_t* data, std::size_t) noexcept {
            const run_output output = run({data + at, data + size}, format, segments, arguments, failure);
            // On an exception the string must be left consistent before it goes on; it keeps
            // what was written.
            if (output.missing() == 0 || failure) [[likely]]
                return static_cast<std::size_t>(output.end() - data);
            needed = static_cast<std::size_t>(output.end() - data) + output.missing();
            return at;
        });
        if (failure)
            std::rethrow_exception(failure);
        if (needed == 0)
            return;
        // Growing past the capacity doubles it at least, so a string reused for many runs
        // settles at a size that fits them all.
        size = needed;
    }
}

}  // namespace detail
}  // namespace ts_printf
