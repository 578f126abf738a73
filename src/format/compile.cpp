#include "format/ts_printf.h"

#include <emmintrin.h>

#include <cstdint>
#include <limits>
#include <string>

namespace ts_printf {

bad_extended_format_string::bad_extended_format_string(std::size_t position, std::string_view reason)
    : generic_exception("malformed format string at position " + std::to_string(position) + ": " +
                        std::string(reason)),
      position_(position)
{
}

namespace {

// The vector loops use unaligned loads and only ever load units that lie inside
// [from, size): format strings are views and may end right before unreadable memory.
inline unsigned brace_mask_8(const wchar_t* units) noexcept
{
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(units));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(block, _mm_set1_epi16(L'{'))));
}

inline unsigned brace_mask_4(const wchar_t* units) noexcept
{
    const __m128i block = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(units));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(block, _mm_set1_epi16(L'{')))) & 0xFFu;
}

// Each matching unit sets two mask bits.
std::size_t find_open_brace(const wchar_t* text, std::size_t from, std::size_t size) noexcept
{
    std::size_t i = from;
    for (; size - i >= 16; i += 16) {
        const unsigned mask = brace_mask_8(text + i) | (brace_mask_8(text + i + 8) << 16);
        if (mask)
            return i + (__builtin_ctz(mask) >> 1);
    }
    if (size - i >= 8) {
        if (const unsigned mask = brace_mask_8(text + i))
            return i + (__builtin_ctz(mask) >> 1);
        i += 8;
    }
    if (size - i >= 4) {
        if (const unsigned mask = brace_mask_4(text + i))
            return i + (__builtin_ctz(mask) >> 1);
        i += 4;
    }
    for (; i < size; ++i)
        if (text[i] == L'{')
            return i;
    return size;
}

std::size_t count_open_braces(const wchar_t* text, std::size_t size) noexcept
{
    std::size_t bits = 0;
    std::size_t i = 0;
    for (; size - i >= 16; i += 16)
        bits += __builtin_popcount(brace_mask_8(text + i) | (brace_mask_8(text + i + 8) << 16));
    if (size - i >= 8) {
        bits += __builtin_popcount(brace_mask_8(text + i));
        i += 8;
    }
    if (size - i >= 4) {
        bits += __builtin_popcount(brace_mask_4(text + i));
        i += 4;
    }
    std::size_t count = bits / 2;
    for (; i < size; ++i)
        count += text[i] == L'{';
    return count;
}

class compiler {
public:
    explicit compiler(std::wstring_view format) noexcept : text_(format.data()), size_(format.size()) {}

    segment_list run()
    {
        segment_list segments;
        segments.reserve(2 * count_open_braces(text_, size_) + 1);

        std::size_t literal_start = 0;
        bool escape_pending = false;
        std::uint32_t next_argument = 0;
        for (;;) {
            const std::size_t brace = find_open_brace(text_, pos_, size_);
            if (brace == size_)
                break;
            pos_ = brace + 1;
            if (pos_ == size_)
                throw bad_extended_format_string(brace, "'{' ends the string");
            if (text_[pos_] == L'{') {
                escape_pending = true;
                ++pos_;
                continue;
            }

            if (literal_start != brace)
                segments.push_back(literal(literal_start, brace, escape_pending));
            escape_pending = false;

            segment& field = segments.emplace_back();
            std::uint32_t index = next_argument;
            if (is_digit())
                index = read_number(std::numeric_limits<std::uint16_t>::max());
            field.argument = static_cast<std::uint16_t>(index);
            next_argument = index + 1;
            if (next_argument > std::numeric_limits<std::uint16_t>::max())
                next_argument = std::numeric_limits<std::uint16_t>::max();

            // A string that ends inside a field keeps the field; translators' strings
            // cut short still show what they can.
            if (!read_letters(field))
                return segments;
            literal_start = pos_;
        }
        if (literal_start != size_)
            segments.push_back(literal(literal_start, size_, escape_pending));
        return segments;
    }

private:
    static segment literal(std::size_t start, std::size_t end, bool escapes)
    {
        segment result;
        result.start = static_cast<std::uint32_t>(start);
        result.end = static_cast<std::uint32_t>(end);
        result.flags = segment_flags::literal | (escapes ? segment_flags::collapse_escapes : 0);
        return result;
    }

    [[nodiscard]] bool at_end() const noexcept { return pos_ == size_; }
    [[nodiscard]] bool is_digit() const noexcept { return pos_ < size_ && text_[pos_] >= L'0' && text_[pos_] <= L'9'; }
    [[nodiscard]] bool next_is(wchar_t unit) const noexcept { return pos_ < size_ && text_[pos_] == unit; }

    // Any number of digits; the value saturates so that it cannot wrap into a small one.
    std::uint32_t read_number(std::uint32_t limit) noexcept
    {
        std::uint32_t value = 0;
        for (; is_digit(); ++pos_) {
            value = value * 10 + static_cast<std::uint32_t>(text_[pos_] - L'0');
            if (value > limit)
                value = limit;
        }
        return value;
    }

    std::uint16_t read_u16() noexcept
    {
        return static_cast<std::uint16_t>(read_number(std::numeric_limits<std::uint16_t>::max()));
    }

    // Returns false when the string ends before the closing "}".
    bool read_letters(segment& field)
    {
        using namespace segment_flags;
        while (!at_end()) {
            const std::size_t letter_pos = pos_++;
            switch (text_[letter_pos]) {
            case L'}':
                return true;
            case L'+':
                field.flags |= plus_sign;
                break;
            case L'?':
                if (at_end())
                    return false;
                switch (text_[pos_]) {
                case L'<':
                    field.flags |= condition_marker | condition_open;
                    break;
                case L'>':
                    field.flags |= condition_marker | condition_close;
                    break;
                case L'|':
                    field.flags |= condition_marker | condition_else;
                    break;
                default:
                    throw bad_extended_format_string(pos_, "'?' must be followed by '<', '>' or '|'");
                }
                ++pos_;
                break;
            case L'a':
                if (at_end())
                    return false;
                // An unknown alignment letter is swallowed without complaint.
                switch (text_[pos_++]) {
                case L'l':
                    field.alignment = segment_alignment::left;
                    break;
                case L'c':
                    field.alignment = segment_alignment::centre;
                    break;
                case L'r':
                    field.alignment = segment_alignment::right;
                    break;
                default:
                    break;
                }
                break;
            case L'b':
                if (next_is(L'0')) {
                    field.flags |= hex_prefix;
                    ++pos_;
                }
                field.base = static_cast<std::uint8_t>(read_number(std::numeric_limits<std::uint8_t>::max()));
                if (field.base == 16) {
                    if (next_is(L'x')) {
                        field.flags |= hex_lower_case;
                        ++pos_;
                    } else if (next_is(L'X')) {
                        ++pos_;
                    } else {
                        field.flags |= hex_default_case;
                    }
                    if (next_is(L'p')) {
                        field.flags |= hex_pad;
                        ++pos_;
                    }
                }
                break;
            case L'c':
                field.flags |= character;
                break;
            case L'e':
                field.flags |= ellipsis;
                break;
            case L'f':
                if (at_end())
                    return false;
                field.fill = static_cast<std::uint16_t>(text_[pos_++]);
                break;
            case L'l':
                field.flags |= group_thousands;
                break;
            case L'n':
                field.flags |= variant_n;
                break;
            case L'p':
                field.precision = read_u16();
                break;
            case L's':
                if (next_is(L'a')) {
                    field.flags |= variant_sa;
                    ++pos_;
                } else {
                    field.flags |= variant_s;
                }
                break;
            case L't':
                if (!read_time_pattern(field))
                    return false;
                break;
            case L'u':
                field.flags |= as_unsigned;
                break;
            case L'w':
                if (next_is(L',')) {
                    ++pos_;
                    field.max_width = read_u16();
                } else {
                    field.width = read_u16();
                    if (next_is(L',')) {
                        ++pos_;
                        field.max_width = read_u16();
                    }
                }
                break;
            default:
                throw bad_extended_format_string(letter_pos, "unknown letter in a field");
            }
        }
        return false;
    }

    bool read_time_pattern(segment& field)
    {
        if (at_end())
            return false;
        if (text_[pos_] != L'(')
            throw bad_extended_format_string(pos_, "'t' must be followed by '('");
        const std::size_t start = ++pos_;
        for (; !at_end() && text_[pos_] != L')'; ++pos_)
            if (text_[pos_] == L'}')
                throw bad_extended_format_string(pos_, "'}' inside a time pattern");
        // Without its ")" the pattern runs to the end of the string.
        field.start = static_cast<std::uint32_t>(start);
        field.end = static_cast<std::uint32_t>(pos_);
        field.flags |= segment_flags::time_pattern;
        if (at_end())
            return false;
        ++pos_;
        return true;
    }

    const wchar_t* text_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

}  // namespace

segment_list compile(std::wstring_view format)
{
    // Segments index the string with 32 bits.
    if (format.size() > std::numeric_limits<std::uint32_t>::max())
        throw generic_exception("format string longer than 2^32 - 1 units");
    return compiler(format).run();
}

}  // namespace ts_printf
