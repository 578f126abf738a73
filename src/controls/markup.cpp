#include "controls/markup.h"

#include <algorithm>
#include <cstring>
#include <emmintrin.h>
#include <stdexcept>

namespace tessel::windows::new_controls {
namespace {

// Scanning goes sixteen bytes at a time (SSE2 is part of every x64 processor): plain
// runs, the bulk of every cell text, cost a handful of instructions per eight code units.
inline int bracket_mask(__m128i block) noexcept
{
    const __m128i open = _mm_cmpeq_epi16(block, _mm_set1_epi16(L'['));
    const __m128i close = _mm_cmpeq_epi16(block, _mm_set1_epi16(L']'));
    return _mm_movemask_epi8(_mm_or_si128(open, close));
}

inline std::size_t first_lane(int mask) noexcept
{
    return static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(mask))) / 2;
}

inline bool delimiter_at(const wchar_t* data, std::size_t i, std::size_t n) noexcept
{
    const wchar_t c = data[i];
    return i + 2 < n && (c == L'[' || c == L']') && data[i + 1] == c && data[i + 2] == c;
}

// Index of the next '[' or ']' at or after i; n when there is none.
inline std::size_t next_bracket(const wchar_t* data, std::size_t i, std::size_t n) noexcept
{
    for (; i + 8 <= n; i += 8)
        if (const int mask = bracket_mask(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i))))
            return i + first_lane(mask);
    for (; i < n; ++i)
        if (data[i] == L'[' || data[i] == L']')
            return i;
    return n;
}

// As next_bracket, copying what it passes over to out[length...]. The blocks it stores
// stay inside the output buffer because the output never runs ahead of the input
// (length <= i) and the buffer is as long as the input.
inline std::size_t copy_to_bracket(const wchar_t* in, std::size_t i, std::size_t n, wchar_t* out,
                                   std::size_t& length) noexcept
{
    // Markup puts delimiters close together ("[[[g:0: ]]][[[v:17: ]]]"): look at the
    // first two units one by one before going to blocks.
    for (const std::size_t stop = std::min(i + 2, n); i < stop; ++i) {
        if (in[i] == L'[' || in[i] == L']')
            return i;
        out[length++] = in[i];
    }
    for (; i + 8 <= n; i += 8, length += 8) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + length), block);
        if (const int mask = bracket_mask(block)) {
            length += first_lane(mask);
            return i + first_lane(mask);
        }
    }
    for (; i < n; ++i) {
        if (in[i] == L'[' || in[i] == L']')
            return i;
        out[length++] = in[i];
    }
    return n;
}

// The first "[[[" or "]]]": a text without any is only read, never copied.
std::size_t find_delimiter(std::wstring_view s) noexcept
{
    const wchar_t* const data = s.data();
    const std::size_t n = s.size();
    for (std::size_t i = next_bracket(data, 0, n); i < n; i = next_bracket(data, i + 1, n))
        if (delimiter_at(data, i, n))
            return i;
    return std::wstring_view::npos;
}

bool number_follows(std::wstring_view s, std::size_t pos) noexcept
{
    return pos < s.size() && s[pos] == L':' && (pos + 1 >= s.size() || s[pos + 1] != L':');
}

// At a ':' that starts a number. The sign is consumed but never applied, and exactly one
// unit after the digits is consumed, whatever it is.
std::int64_t read_number(std::wstring_view s, std::size_t& pos) noexcept
{
    ++pos;
    if (pos < s.size() && s[pos] == L'-')
        ++pos;
    std::uint64_t value = 0;  // unsigned: overflow wraps instead of being undefined
    while (pos < s.size() && s[pos] >= L'0' && s[pos] <= L'9') {
        value = value * 10 + static_cast<std::uint64_t>(s[pos] - L'0');
        ++pos;
    }
    if (pos < s.size())
        ++pos;
    return static_cast<std::int64_t>(value);
}

// The "]#" that ends a string argument.
std::size_t find_argument_end(std::wstring_view s, std::size_t from) noexcept
{
    const wchar_t* const data = s.data();
    const std::size_t n = s.size();
    for (std::size_t i = next_bracket(data, from, n); i + 1 < n; i = next_bracket(data, i + 1, n))
        if (data[i] == L']' && data[i + 1] == L'#')
            return i;
    return std::wstring_view::npos;
}

void read_arguments(std::wstring_view s, std::size_t& pos, markup_element& element) noexcept
{
    if (number_follows(s, pos)) {
        element.first_number = read_number(s, pos);
    } else if (pos + 1 < s.size() && s[pos] == L'#' && s[pos + 1] == L'[') {
        const std::size_t end = find_argument_end(s, pos + 2);
        if (end != std::wstring_view::npos) {
            element.argument = s.substr(pos + 2, end - pos - 2);
            pos = end + 2;
        }
    }
    if (number_follows(s, pos))
        element.second_number = read_number(s, pos);
}

// The one loop behind both the parser and the stripper. `sink` receives each element as
// it closes; the stripper passes none and only counts depth. The plain text is never
// longer than the source, so it is written into `buffer`, which is made at least as long
// as the source, without a capacity check per piece; plain runs are copied in the same
// pass that looks for delimiters. Returns the length of the plain text.
template <class open_stack>
std::size_t parse_loop(std::wstring_view s, std::wstring& buffer, open_stack& open,
                       std::vector<markup_element>* sink)
{
    static_assert(sizeof(wchar_t) == 2);
    const std::size_t n = s.size();
    if (buffer.size() < n)
        buffer.resize(n);
    wchar_t* const out = buffer.data();
    const wchar_t* const in = s.data();
    std::size_t length = 0;

    std::size_t i = 0;
    while (i < n) {
        i = copy_to_bracket(in, i, n, out, length);
        if (i == n)
            break;
        if (!delimiter_at(in, i, n)) {
            out[length++] = in[i++];
            continue;
        }
        if (in[i] == L']') {
            i += 3;
            if (open.empty()) {  // a stray closer is plain text
                out[length++] = L']';
                out[length++] = L']';
                out[length++] = L']';
                continue;
            }
            if (sink) {
                sink->push_back(open.back());
                sink->back().range.length = static_cast<UINT32>(length) - sink->back().range.startPosition;
            }
            open.pop_back();
            continue;
        }
        const wchar_t tag = s.at(i + 3);  // an opener without its tag letter throws out_of_range
        markup_element& element = open.emplace_back();
        element.tag = tag;
        element.range.startPosition = static_cast<UINT32>(length);
        i += 4;
        read_arguments(s, i, element);
    }
    return length;
}

// The stripper keeps no records; a counter is all it needs to tell a stray closer.
struct depth_counter {
    std::size_t depth = 0;
    markup_element scratch;
    bool empty() const noexcept { return depth == 0; }
    const markup_element& back() const noexcept { return scratch; }
    void pop_back() noexcept { --depth; }
    markup_element& emplace_back() noexcept
    {
        ++depth;
        return scratch;
    }
};

int hex_digit(wchar_t c) noexcept
{
    if (c >= L'0' && c <= L'9')
        return c - L'0';
    if (c >= L'a' && c <= L'f')
        return c - L'a' + 10;
    if (c >= L'A' && c <= L'F')
        return c - L'A' + 10;
    return 0;
}

}  // namespace

void parse_markup(std::wstring_view source, markup_result& into)
{
    into.elements.clear();
    if (find_delimiter(source) == std::wstring_view::npos) {
        into.source_ = source;
        into.in_buffer_ = false;
        return;
    }
    into.open_.clear();
    into.in_buffer_ = true;
    into.length_ = 0;
    try {
        into.length_ = parse_loop(source, into.buffer_, into.open_, &into.elements);
    } catch (...) {
        into.elements.clear();
        throw;
    }
}

markup_result parse_markup(std::wstring_view source)
{
    markup_result result;
    parse_markup(source, result);
    return result;
}

void strip_markup(std::wstring_view source, std::wstring& into)
{
    if (find_delimiter(source) == std::wstring_view::npos) {
        into.assign(source);
        return;
    }
    depth_counter depth;
    try {
        into.resize(parse_loop(source, into, depth, nullptr));
    } catch (...) {
        into.clear();
        throw;
    }
}

std::wstring strip_markup(std::wstring_view source)
{
    std::wstring text;
    strip_markup(source, text);
    return text;
}

std::optional<D2D1_COLOR_F> parse_markup_colour(std::wstring_view text) noexcept
{
    constexpr float per_unit = 0.003921569f;  // 1 / 255
    int channels[4] = {0, 0, 0, 255};
    switch (text.size()) {
    case 4:
        for (int i = 0; i < 3; ++i)
            channels[i] = hex_digit(text[1 + i]) * 17;
        break;
    case 7:
    case 9:
        for (std::size_t i = 0; i < (text.size() - 1) / 2; ++i)
            channels[i] = hex_digit(text[1 + 2 * i]) * 16 + hex_digit(text[2 + 2 * i]);
        break;
    default:
        return std::nullopt;
    }
    return D2D1_COLOR_F{channels[0] * per_unit, channels[1] * per_unit, channels[2] * per_unit,
                        channels[3] * per_unit};
}

D2D1_COLOR_F unpack_markup_colour(std::int64_t packed) noexcept
{
    const auto value = static_cast<std::uint32_t>(packed);
    std::uint32_t alpha = value >> 24;
    if (alpha == 0)
        alpha = 255;
    constexpr float per_unit = 0.003921569f;
    return D2D1_COLOR_F{((value >> 16) & 0xFF) * per_unit, ((value >> 8) & 0xFF) * per_unit,
                        (value & 0xFF) * per_unit, alpha * per_unit};
}

}  // namespace tessel::windows::new_controls
