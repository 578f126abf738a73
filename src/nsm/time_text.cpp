#include "nsm/time_text.h"

#include "format/ts_printf.h"

#include <chrono>
#include <cstdint>

namespace tessel::nsm::details {
namespace {

using namespace std::chrono;

// Whole-second UTC text for what local time cannot express (before 1970, far future).
void append_utc_text(std::wstring& out, time_point value)
{
    const auto seconds = floor<std::chrono::seconds>(value);
    const auto day = floor<std::chrono::days>(seconds);
    const year_month_day ymd(day);
    const hh_mm_ss<std::chrono::seconds> time(seconds - day);
    out += ts_printf::format(L"{0arf0w4}-{1arf0w2}-{2arf0w2}T{3arf0w2}:{4arf0w2}:{5arf0w2}+0000",
                             static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                             static_cast<unsigned>(ymd.day()), time.hours().count(), time.minutes().count(),
                             time.seconds().count());
}

template <class Char>
class cursor {
public:
    explicit cursor(std::basic_string_view<Char> text) noexcept : text_(text) {}

    bool digits(std::size_t count, int& value) noexcept
    {
        if (text_.size() - position_ < count)
            return false;
        int result = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const Char c = text_[position_ + i];
            if (c < '0' || c > '9')
                return false;
            result = result * 10 + (c - '0');
        }
        position_ += count;
        value = result;
        return true;
    }
    bool literal(char expected) noexcept
    {
        if (position_ < text_.size() && text_[position_] == static_cast<Char>(expected)) {
            ++position_;
            return true;
        }
        return false;
    }
    [[nodiscard]] bool done() const noexcept { return position_ == text_.size(); }
    [[nodiscard]] Char peek() const noexcept { return done() ? Char{} : text_[position_]; }

private:
    std::basic_string_view<Char> text_;
    std::size_t position_ = 0;
};

template <class Char>
std::optional<time_point> parse(std::basic_string_view<Char> text) noexcept
{
    cursor<Char> in(text);
    int y = 0, mo = 0, d = 0;
    if (!in.digits(4, y) || !in.literal('-') || !in.digits(2, mo) || !in.literal('-') || !in.digits(2, d))
        return std::nullopt;
    const year_month_day ymd{year(y), month(static_cast<unsigned>(mo)), day(static_cast<unsigned>(d))};
    if (!ymd.ok())
        return std::nullopt;
    time_point result = time_point(sys_days(ymd));
    if (in.done())
        return result;

    int h = 0, mi = 0, s = 0;
    if (!(in.literal('T') || in.literal(' ')) || !in.digits(2, h) || !in.literal(':') || !in.digits(2, mi) ||
        !in.literal(':') || !in.digits(2, s))
        return std::nullopt;
    if (h > 23 || mi > 59 || s > 60)
        return std::nullopt;
    result += hours(h) + minutes(mi) + seconds(s);
    if (in.literal('.')) {
        std::int64_t fraction = 0;
        int scale = 10'000'000;
        int digit = 0;
        bool any = false;
        while (in.digits(1, digit)) {
            any = true;
            if (scale > 1) {
                scale /= 10;
                fraction += digit * scale;
            }
        }
        if (!any)
            return std::nullopt;
        result += ticks(fraction);
    }
    if (in.done() || in.literal('Z'))
        return in.done() ? std::optional(result) : std::nullopt;

    const bool negative = in.peek() == static_cast<Char>('-');
    if (!in.literal('+') && !in.literal('-'))
        return std::nullopt;
    int offset_hours = 0, offset_minutes = 0;
    if (!in.digits(2, offset_hours))
        return std::nullopt;
    if (!in.done()) {
        in.literal(':');
        if (!in.digits(2, offset_minutes))
            return std::nullopt;
    }
    if (!in.done() || offset_hours > 23 || offset_minutes > 59)
        return std::nullopt;
    const minutes offset = hours(offset_hours) + minutes(offset_minutes);
    // The text is local time: UTC is local time minus the offset.
    result += negative ? offset : -offset;
    return result;
}

}  // namespace

void append_time_text(std::wstring& out, time_point value)
{
    static const ts_printf::compiled_format format(L"{t(%FT%T%z)}");
    const std::size_t size = out.size();
    try {
        ts_printf::format_to(out, format, time_point_cast<std::chrono::seconds>(floor<std::chrono::seconds>(value)));
    } catch (const ts_printf::generic_exception&) {
        out.resize(size);
        append_utc_text(out, value);
    }
}

std::optional<time_point> parse_time_text(std::string_view text) noexcept
{
    return parse(text);
}

std::optional<time_point> parse_time_text(std::wstring_view text) noexcept
{
    return parse(text);
}

}  // namespace tessel::nsm::details
