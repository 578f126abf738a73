#include "controls/markup.h"

#include <emmintrin.h>

#include <cstring>
#include <memory>
#include <stdexcept>

namespace tessel::windows::new_controls {
namespace {

static_assert(sizeof(wchar_t) == 2);

// Scanning goes sixteen bytes at a time (SSE2 is part of every x64 processor): plain
// runs, the bulk of every cell text, cost a handful of instructions per eight code units.
// The mask has two bits per code unit, one per byte.
inline unsigned units_equal(__m128i block, wchar_t c) noexcept
{
    return static_cast<unsigned>(
        _mm_movemask_epi8(_mm_cmpeq_epi16(block, _mm_set1_epi16(static_cast<short>(c)))));
}

// All ones in the lanes that hold '[' or ']'.
// With `reload`, the constants are read from memory at each use: hoisted out of the parse
// loop they would stay live across its calls, in registers that every parse must save and
// restore on entry. The empty asm ties their address to the block, so that it is not
// loop-invariant. The stripper has registers to spare and keeps them hoisted.
alignas(16) constexpr std::int16_t bracket_units[2][8] = {
    {L'[', L'[', L'[', L'[', L'[', L'[', L'[', L'['},
    {L']', L']', L']', L']', L']', L']', L']', L']'},
};

template <bool reload>
inline __m128i bracket_hits(__m128i block) noexcept
{
    if constexpr (!reload)
        return _mm_or_si128(_mm_cmpeq_epi16(block, _mm_set1_epi16(L'[')), _mm_cmpeq_epi16(block, _mm_set1_epi16(L']')));
    const std::int16_t(*units)[8] = bracket_units;
    asm("" : "+r"(units) : "x"(block));
    return _mm_or_si128(_mm_cmpeq_epi16(block, _mm_load_si128(reinterpret_cast<const __m128i*>(units[0]))),
                        _mm_cmpeq_epi16(block, _mm_load_si128(reinterpret_cast<const __m128i*>(units[1]))));
}

inline std::size_t first_lane(unsigned mask) noexcept
{
    return static_cast<std::size_t>(__builtin_ctz(mask)) / 2;
}

// Index of the first `c` at or after `from`; n when there is none.
// It reads whole 16-byte-aligned blocks only. Those reach up to seven units before `from`
// and past the end of the text, but an aligned block never spans two pages, so nothing is
// read that the text's own pages do not hold (the technique of the C library's string
// scans); the lanes outside the text are masked away. Any length is then one loop, with
// no scalar head or tail, which is what makes short cell texts cheap.
template <wchar_t c>
inline std::size_t find_unit(const wchar_t* data, std::size_t from, std::size_t n) noexcept
{
    if (from >= n)
        return n;
    const auto base = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t first = base + from * sizeof(wchar_t);
    const std::uintptr_t end = base + n * sizeof(wchar_t);
    std::uintptr_t block = first & ~std::uintptr_t{15};
    unsigned mask = units_equal(_mm_load_si128(reinterpret_cast<const __m128i*>(block)), c) &
                    (~0u << (first & 15));
    while (end - block > 16) {
        if (mask)
            return (block + __builtin_ctz(mask) - base) / sizeof(wchar_t);
        block += 16;
        mask = units_equal(_mm_load_si128(reinterpret_cast<const __m128i*>(block)), c);
    }
    mask &= (1u << (end - block)) - 1;
    return mask ? (block + __builtin_ctz(mask) - base) / sizeof(wchar_t) : n;
}

// The first "[[[". Before it there is no element to close, so whatever a text holds up to
// there (a "]]]" included) is plain text: a text without an opener is only read, never
// copied, and the scan looks for '[' alone.
inline std::size_t find_opener(const wchar_t* data, std::size_t n) noexcept
{
    // Cells that lead with an icon open an element at once.
    if (n >= 3 && data[0] == L'[' && data[1] == L'[' && data[2] == L'[')
        return 0;
    for (std::size_t i = find_unit<L'['>(data, 0, n); i < n; i = find_unit<L'['>(data, i + 1, n))
        if (i + 2 < n && data[i + 1] == L'[' && data[i + 2] == L'[')
            return i;
    return n;
}

// Whether `bytes` bytes from p lie in one page: then reading them faults no more than
// reading the first does.
inline bool within_one_page(std::uintptr_t p, std::size_t bytes) noexcept
{
    return (p & 4095) <= 4096 - bytes;
}

// Copies in[i, j) to out[length...]. Whole blocks are stored, part of which the next piece
// overwrites: `out` must hold eight units more than the input, and the output never runs
// ahead of the input (length <= i). The last block is read whole when it stays in the page.
inline void copy_run(const wchar_t* in, std::size_t i, std::size_t j, std::size_t n, wchar_t* out,
                     std::size_t& length) noexcept
{
    std::size_t left = j - i;
    const wchar_t* from = in + i;
    wchar_t* to = out + length;
    length += left;
    if (left == 0)
        return;
    for (; left > 8; left -= 8, from += 8, to += 8)
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
    if (from + 8 <= in + n || within_one_page(reinterpret_cast<std::uintptr_t>(from), 16)) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
    } else {
        for (std::size_t k = 0; k < left; ++k)
            to[k] = from[k];
    }
}

// Index of the next '[' or ']' at or after i, n when there is none, copying what it passes
// over to out[length...] in whole blocks, as copy_run does.
template <bool reload>
inline std::size_t copy_to_bracket(const wchar_t* in, std::size_t i, std::size_t n, wchar_t* out,
                                   std::size_t& length) noexcept
{
    // The first two units one by one: between delimiters there is mostly a single unit or
    // none ("[[[g:0: ]]][[[..."). Each step is a predicted branch, and the parse runs on
    // past it at once, where a position taken from a block compare would first wait for
    // the load, the compare and the bit count.
    for (int k = 0; k < 2 && i < n; ++k, ++i) {
        const wchar_t c = in[i];
        if (c == L'[' || c == L']')
            return i;
        out[length++] = c;
    }
    for (; i + 8 <= n; i += 8, length += 8) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + length), block);
        if (const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(bracket_hits<reload>(block)))) {
            length += first_lane(mask);
            return i + first_lane(mask);
        }
    }
    if (i < n && within_one_page(reinterpret_cast<std::uintptr_t>(in + i), 16)) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + length), block);
        const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(bracket_hits<reload>(block))) & ((1u << 2 * (n - i)) - 1);
        const std::size_t run = mask ? first_lane(mask) : n - i;
        length += run;
        return i + run;
    }
    for (; i < n; ++i) {
        if (in[i] == L'[' || in[i] == L']')
            return i;
        out[length++] = in[i];
    }
    return n;
}

// At a ':' that starts a number. The sign is consumed but never applied, and exactly one
// unit after the digits is consumed, whatever it is.
inline std::int64_t read_number(const wchar_t* in, std::size_t& i, std::size_t n) noexcept
{
    ++i;
    if (i < n && in[i] == L'-')
        ++i;
    std::uint64_t value = 0;  // unsigned: overflow wraps instead of being undefined
    // Four units at a time: subtracting '0' from each 16-bit lane leaves a lane above 9
    // for a non-digit. Borrows and carries only run towards later lanes, so the first
    // non-digit is found exactly. A multiply then weighs the digits into the top lane.
    constexpr std::uint64_t zeros = 0x0030'0030'0030'0030;
    constexpr std::uint64_t above_nine = 0x7FF6'7FF6'7FF6'7FF6;
    constexpr std::uint64_t sign_bits = 0x8000'8000'8000'8000;
    constexpr std::uint64_t weights = 0x03E8'0064'000A'0001;  // 1000, 100, 10, 1
    while (i + 4 <= n) {
        std::uint64_t units;
        std::memcpy(&units, in + i, sizeof units);
        const std::uint64_t digits = units - zeros;
        const std::uint64_t not_digit = ((digits + above_nine) | digits) & sign_bits;
        if (not_digit == 0) {
            value = value * 10000 + ((digits * weights) >> 48);
            i += 4;
            continue;
        }
        // The run's length by branches rather than by counting bits: the parse goes on
        // from the unit after it, and a predicted branch lets that proceed at once where a
        // computed position would wait for the load and the arithmetic.
        if (not_digit & 0x8000) {
            i += 1;
        } else if (not_digit & 0x8000'0000) {
            value = value * 10 + ((digits << 48) >> 48);
            i += 2;
        } else if (not_digit & 0x8000'0000'0000) {
            value = value * 100 + (((digits << 32) * weights) >> 48);
            i += 3;
        } else {
            value = value * 1000 + (((digits << 16) * weights) >> 48);
            i += 4;
        }
        return static_cast<std::int64_t>(value);
    }
    for (; i < n; ++i) {
        const unsigned digit = static_cast<unsigned>(in[i]) - L'0';
        if (digit > 9)
            break;
        value = value * 10 + digit;
    }
    if (i < n)
        ++i;
    return static_cast<std::int64_t>(value);
}

inline bool number_follows(const wchar_t* in, std::size_t i, std::size_t n) noexcept
{
    return i < n && in[i] == L':' && (i + 1 >= n || in[i + 1] != L':');
}

// An opener without its tag letter: the error the string library gives for reading past
// the end.
[[noreturn, gnu::cold, gnu::noinline]] void throw_missing_tag(const wchar_t* in, std::size_t n, std::size_t at)
{
    (void)std::wstring_view(in, n).at(at);
    __builtin_unreachable();
}

// The opener at `at`: reads the tag letter and the arguments, tells `records`, and returns
// where the content begins. `argument_end(from)` finds the "]#" that ends a string
// argument (n when there is none).
template <class element_records, class find_argument_end>
inline std::size_t read_opener(const wchar_t* in, std::size_t n, std::size_t at, std::size_t length,
                               element_records& records, find_argument_end&& argument_end)
{
    if (at + 3 >= n)
        throw_missing_tag(in, n, at + 3);
    const wchar_t tag = in[at + 3];
    std::size_t i = at + 4;
    std::int64_t first = 0;
    std::int64_t second = 0;
    std::wstring_view argument;
    if (number_follows(in, i, n)) {
        first = read_number(in, i, n);
    } else if (i + 1 < n && in[i] == L'#' && in[i + 1] == L'[') {
        const std::size_t end = argument_end(i + 2);
        if (end < n) {
            argument = std::wstring_view(in + i + 2, end - i - 2);
            i = end + 2;
        }
    }
    if (number_follows(in, i, n))
        second = read_number(in, i, n);
    records.open(tag, static_cast<UINT32>(length), argument, first, second);
    return i;
}

// The one loop behind both the parser and the stripper. `records` is told of each element
// as it opens and closes; the stripper's records only count depth. The plain text is
// never longer than the source, so it goes into `out`, eight units longer than the source
// (see copy_run), without a capacity check per piece; plain runs are copied in the same
// pass that looks for delimiters. `opener` is the first "[[[". Returns the length of the
// plain text.
template <class element_records>
std::size_t parse_from(const wchar_t* in, std::size_t n, std::size_t opener, wchar_t* out,
                       element_records& records)
{
    std::size_t length = 0;
    copy_run(in, 0, opener, n, out, length);
    std::size_t i = opener;
    do {
        const wchar_t c = in[i];
        if (i + 2 >= n || in[i + 1] != c || in[i + 2] != c) {
            out[length++] = c;  // a lone bracket is content
            ++i;
        } else if (c == L'[') {
            i = read_opener(in, n, i, length, records, [in, n](std::size_t from) {
                for (std::size_t k = find_unit<L']'>(in, from, n); k + 1 < n; k = find_unit<L']'>(in, k + 1, n))
                    if (in[k + 1] == L'#')
                        return k;
                return n;
            });
        } else if (!records.empty()) {
            records.close(static_cast<UINT32>(length));
            i += 3;
        } else {  // a stray closer is plain text
            out[length] = out[length + 1] = out[length + 2] = L']';
            length += 3;
            i += 3;
        }
        i = copy_to_bracket<element_records::reload_constants>(in, i, n, out, length);
    } while (i < n);
    return length;
}

// The stripper keeps no records; a counter is all it needs to tell a stray closer.
struct depth_counter {
    static constexpr bool reload_constants = false;
    std::size_t depth = 0;
    bool empty() const noexcept { return depth == 0; }
    void open(wchar_t, UINT32, std::wstring_view, std::int64_t, std::int64_t) noexcept { ++depth; }
    void close(UINT32) noexcept { --depth; }
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

// The parser's stack of open elements lives in the result's scratch buffer, which keeps
// its size from one parse to the next; the closed elements go straight to the result.
class markup_parser {
public:
    explicit markup_parser(markup_result& into) noexcept
        : into_(into), bottom_(into.open_.data()), top_(bottom_), limit_(std::to_address(into.open_.end()))
    {
    }

    static constexpr bool reload_constants = true;

    bool empty() const noexcept { return top_ == bottom_; }

    void open(wchar_t tag, UINT32 start, std::wstring_view argument, std::int64_t first, std::int64_t second)
    {
        if (top_ == limit_) [[unlikely]] {
            const std::size_t depth = static_cast<std::size_t>(top_ - bottom_);
            bottom_ = grow(into_.open_);
            top_ = bottom_ + depth;
            limit_ = std::to_address(into_.open_.end());
        }
        markup_element& e = *top_++;
        e.range.startPosition = start;  // the length comes with the closer
        e.argument = argument;
        e.first_number = first;
        e.second_number = second;
        e.tag = tag;
    }

    void close(UINT32 end)
    {
        // The vector grows out of line, before anything is read: no field is then held
        // across a call, which would take registers that every parse must save.
        std::vector<markup_element>& elements = into_.elements;
        if (elements.size() == elements.capacity()) [[unlikely]]
            make_room(elements);
        if (elements.size() == elements.capacity())
            __builtin_unreachable();
        // Field by field, each read as wide as open() wrote it: a wider read of several
        // recent narrower writes would stall until they reach the cache.
        const markup_element& o = *--top_;
        elements.push_back(markup_element{{o.range.startPosition, end - o.range.startPosition}, o.argument,
                                          o.first_number, o.second_number, o.tag});
    }

    // Out of line: the text without markup, by far the most common, then costs its caller
    // no more than the scan for an opener.
    // The source as pointer and length: a string view would be passed through memory.
    [[gnu::noinline]] static void parse(const wchar_t* in, std::size_t n, std::size_t opener, markup_result& into)
    {
        into.in_buffer_ = true;
        into.length_ = 0;  // should the parse throw, the text is empty
        if (into.buffer_.size() < n + 8)
            into.buffer_.resize(n + 8);
        markup_parser records(into);
        try {
            into.length_ = parse_from(in, n, opener, into.buffer_.data(), records);
        } catch (...) {
            into.elements.clear();
            throw;
        }
    }

private:
    // Static, so that the parser's own state never has its address taken and stays in
    // registers wherever the register budget allows.
    [[gnu::noinline]] static markup_element* grow(std::vector<markup_element>& open)
    {
        open.resize(open.size() < 8 ? 8 : 2 * open.size());
        return open.data();
    }

    [[gnu::noinline, gnu::cold]] static void make_room(std::vector<markup_element>& elements)
    {
        elements.reserve(elements.size() < 8 ? 8 : 2 * elements.size());
    }

    markup_result& into_;
    markup_element* bottom_;
    markup_element* top_;  // one past the innermost open element
    markup_element* limit_;
};

void parse_markup(std::wstring_view source, markup_result& into)
{
    into.elements.clear();
    const std::size_t opener = find_opener(source.data(), source.size());
    if (opener == source.size()) [[likely]] {
        into.source_ = source;
        into.in_buffer_ = false;
        return;
    }
    markup_parser::parse(source.data(), source.size(), opener, into);
}

markup_result parse_markup(std::wstring_view source)
{
    markup_result result;
    parse_markup(source, result);
    return result;
}

void strip_markup(std::wstring_view source, std::wstring& into)
{
    const std::size_t n = source.size();
    const std::size_t opener = find_opener(source.data(), n);
    if (opener == n) {
        into.assign(source);
        return;
    }
    if (into.size() < n + 8)
        into.resize(n + 8);
    depth_counter depth;
    try {
        into.resize(parse_from(source.data(), n, opener, into.data(), depth));
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
