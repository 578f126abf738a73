#pragma once
// Text scanning and UTF-8 decoding for the JSON reader: byte classes, digits, and the
// sixteen-bytes-at-a-time loops that find a string's end and widen it to UTF-16. Every
// load stays inside the text it is given. Internal to nsm.

#include <emmintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace tessel::nsm::details::json_text {

// Byte classes, so that the hot loops test one table entry per byte.
enum : std::uint8_t {
    c_whitespace = 1,
    c_string_special = 2,  // '"' or '\\'
    c_number = 4,          // bytes a number token may hold
};

inline constexpr std::array<std::uint8_t, 256> byte_class = [] {
    std::array<std::uint8_t, 256> table{};
    for (const char c : {' ', '\t', '\n', '\r'})
        table[static_cast<unsigned char>(c)] |= c_whitespace;
    table['"'] |= c_string_special;
    table['\\'] |= c_string_special;
    for (const char c : std::string_view("0123456789+-.eE"))
        table[static_cast<unsigned char>(c)] |= c_number;
    return table;
}();

inline bool has_class(char c, std::uint8_t cls) noexcept
{
    return (byte_class[static_cast<unsigned char>(c)] & cls) != 0;
}

inline int hex_digit(char c) noexcept
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

inline int base64_digit(char c) noexcept
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

// ASCII runs, the common case, are widened directly; anything else goes through the
// shared converter so that malformed UTF-8 becomes U+FFFD exactly as everywhere else.
void append_utf8(std::wstring& out, const char* first, const char* last);

// The first '"' or '\\' in [p, end), or end. Sixteen bytes at a time while sixteen remain,
// so no load ever reaches beyond the text. high collects the top bits of the bytes passed,
// which tells whether the run was pure ASCII.
__attribute__((always_inline)) inline const char* find_string_special(const char* p, const char* const end, unsigned& high) noexcept
{
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    while (end - p >= 16) {
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const unsigned special = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(chunk, quote), _mm_cmpeq_epi8(chunk, backslash))));
        const unsigned top = static_cast<unsigned>(_mm_movemask_epi8(chunk));
        if (special != 0) {
            const int index = __builtin_ctz(special);
            high |= top & ((1u << index) - 1);
            return p + index;
        }
        high |= top;
        p += 16;
    }
    while (p != end && !has_class(*p, c_string_special)) {
        high |= static_cast<unsigned char>(*p) & 0x80;
        ++p;
    }
    return p;
}

// Sixteen ASCII bytes to sixteen UTF-16 units.
inline void store_widened(wchar_t* out, __m128i bytes) noexcept
{
    const __m128i zero = _mm_setzero_si128();
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(bytes, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpackhi_epi8(bytes, zero));
}

// ASCII bytes to UTF-16 units. Reads and writes stay inside [p, p + count) and
// [out, out + count): a short tail is done by one more block that overlaps the previous
// one instead of a byte loop.
inline void widen_ascii(wchar_t* out, const char* p, std::size_t count) noexcept
{
    const __m128i zero = _mm_setzero_si128();
    if (count >= 16) {
        for (std::size_t i = 0; i + 16 <= count; i += 16)
            store_widened(out + i, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i)));
        store_widened(out + count - 16, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + count - 16)));
    } else if (count >= 8) {
        const __m128i head = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
        const __m128i tail = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + count - 8));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(head, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + count - 8), _mm_unpacklo_epi8(tail, zero));
    } else if (count >= 4) {
        std::uint32_t head;
        std::uint32_t tail;
        std::memcpy(&head, p, 4);
        std::memcpy(&tail, p + count - 4, 4);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out),
                         _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(head)), zero));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + count - 4),
                         _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(tail)), zero));
    } else {
        for (std::size_t i = 0; i < count; ++i)
            out[i] = static_cast<wchar_t>(static_cast<unsigned char>(p[i]));
    }
}

// Well-formed UTF-8 in [p, last) to UTF-16 at out; nullptr at the first ill-formed
// sequence (the caller then takes the shared converter, which has the repair rules).
inline wchar_t* decode_utf8(wchar_t* out, const char* p, const char* const last) noexcept
{
    while (p != last) {
        if (last - p >= 16) {
            const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            if (_mm_movemask_epi8(chunk) == 0) {  // sixteen ASCII bytes
                const __m128i zero = _mm_setzero_si128();
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(chunk, zero));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpackhi_epi8(chunk, zero));
                p += 16;
                out += 16;
                continue;
            }
        }
        const auto lead = static_cast<unsigned char>(*p);
        if (lead < 0x80) {
            *out++ = static_cast<wchar_t>(lead);
            ++p;
            continue;
        }
        const auto trail = [&](std::ptrdiff_t i, unsigned lo, unsigned hi) {
            if (last - p <= i)
                return false;
            const auto byte = static_cast<unsigned char>(p[i]);
            return byte >= lo && byte <= hi;
        };
        const auto bits = [&](std::ptrdiff_t i) { return static_cast<char32_t>(static_cast<unsigned char>(p[i]) & 0x3F); };
        if (lead >= 0xC2 && lead <= 0xDF) {
            if (!trail(1, 0x80, 0xBF))
                return nullptr;
            *out++ = static_cast<wchar_t>((lead & 0x1F) << 6 | bits(1));
            p += 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            const unsigned lo = lead == 0xE0 ? 0xA0 : 0x80;
            const unsigned hi = lead == 0xED ? 0x9F : 0xBF;
            if (!trail(1, lo, hi) || !trail(2, 0x80, 0xBF))
                return nullptr;
            *out++ = static_cast<wchar_t>((lead & 0x0F) << 12 | bits(1) << 6 | bits(2));
            p += 3;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            const unsigned lo = lead == 0xF0 ? 0x90 : 0x80;
            const unsigned hi = lead == 0xF4 ? 0x8F : 0xBF;
            if (!trail(1, lo, hi) || !trail(2, 0x80, 0xBF) || !trail(3, 0x80, 0xBF))
                return nullptr;
            const char32_t cp = static_cast<char32_t>(lead & 0x07) << 18 | bits(1) << 12 | bits(2) << 6 | bits(3);
            *out++ = static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10));
            *out++ = static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
            p += 4;
        } else {
            return nullptr;
        }
    }
    return out;
}

// Makes out at least count units long; what the new units hold does not matter, the caller
// writes them next and then cuts the string to its real length (which keeps the buffer, so
// a string read into again does not allocate). Growing a string fills the new part: a fill
// of fixed size compiles to a few stores, where one of variable length pays the start-up
// of a string instruction on every string read. A string without the room (a fresh one, a
// long text) grows to exactly the length needed, as an ordinary resize would. Out of line,
// because growing needs many registers and the callers are kept small.
void grow_for_overwrite(std::wstring& out, std::size_t count);

// Cuts out to count units, which it has at least; the buffer stays.
inline void cut_to(std::wstring& out, std::size_t count) noexcept
{
    if (count < out.size())
        out.erase(count);
}

}  // namespace tessel::nsm::details::json_text
