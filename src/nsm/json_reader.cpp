#include "nsm/json_archive.h"

#include "base/failure.h"
#include "nsm/json_text.h"
#include "nsm/time_text.h"

#include <objbase.h>

#include <emmintrin.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace tessel::nsm::details {
namespace {

using namespace json_text;

constexpr std::uint32_t kind_string = kind::present | kind::date_time | kind::sequence | kind::string;

bool parse_guid(std::string_view text, GUID& id) noexcept
{
    // Braced form only: CLSIDFromString would otherwise look the text up as a class name.
    if (text.size() != 38 || text.front() != '{' || text.back() != '}')
        return false;
    wchar_t wide[39];
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (static_cast<unsigned char>(text[i]) >= 0x80)
            return false;
        wide[i] = static_cast<wchar_t>(text[i]);
    }
    wide[38] = L'\0';
    return SUCCEEDED(::CLSIDFromString(wide, &id));
}

}  // namespace

json_reader::json_reader(std::string_view text) noexcept
    : begin_(text.data()), position_(text.data()), end_(text.data() + text.size())
{
    if (text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF")
        position_ += 3;
    skip_whitespace();
}

void json_reader::fail(const char* at)
{
    if (at >= begin_ && at <= end_)
        position_ = at;
    throw load_exception(L"bad json format", location());
}

__attribute__((always_inline)) inline void json_reader::skip_whitespace() noexcept
{
    const char* p = position_;
    // Every whitespace byte is at most a space: one comparison settles the usual case.
    if (p == end_ || static_cast<unsigned char>(*p) > ' ')
        return;
    // Indented text: a line break, then a run of spaces shorter than a block, then the token.
    if (*p == '\n' && end_ - p > 16) {
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 1));
        const unsigned other =
            ~static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, _mm_set1_epi8(' ')))) & 0xFFFF;
        if (other != 0) [[likely]] {
            const char* const token = p + 1 + __builtin_ctz(other);
            if (static_cast<unsigned char>(*token) > ' ') [[likely]] {
                position_ = token;
                return;
            }
        }
    }
    skip_whitespace_general();
}

__attribute__((noinline)) void json_reader::skip_whitespace_general() noexcept
{
    const char* p = position_;
    if (p == end_ || !has_class(*p, c_whitespace))
        return;
    const __m128i space = _mm_set1_epi8(' ');
    const __m128i line_feed = _mm_set1_epi8('\n');
    const __m128i carriage_return = _mm_set1_epi8('\r');
    const __m128i tab = _mm_set1_epi8('\t');
    while (end_ - p >= 16) {
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i blank = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(chunk, space), _mm_cmpeq_epi8(chunk, line_feed)),
                                           _mm_or_si128(_mm_cmpeq_epi8(chunk, carriage_return), _mm_cmpeq_epi8(chunk, tab)));
        const unsigned other = ~static_cast<unsigned>(_mm_movemask_epi8(blank)) & 0xFFFF;
        if (other != 0) {
            position_ = p + __builtin_ctz(other);
            return;
        }
        p += 16;
    }
    while (p != end_ && has_class(*p, c_whitespace))
        ++p;
    position_ = p;
}

// After a value: its separator is taken at once, so that the next entry starts at a name
// or a value (one dispatch instead of two). A separator where none belongs is still found
// by next_entry, which sees what follows it.
__attribute__((always_inline)) inline void json_reader::after_value() noexcept
{
    // Nearly always the separator follows at once.
    if (position_ == end_ || *position_ != ',') {
        skip_whitespace();
        if (position_ == end_ || *position_ != ',')
            return;
    }
    ++position_;
    skip_whitespace();
}

void json_reader::push(bool is_array)
{
    if (depth_ == max_depth)
        fail(position_);
    is_array_[depth_++] = is_array;
}

std::uint32_t json_reader::find_member(std::string_view)
{
    fail_fast(L"JSON archive: member look-up is not supported");
}

// The usual entries, as this program's writer lays them out and as compact text has them:
// a plain name of at most fifteen bytes, its colon, at most one space and the value; an
// array element; the end of a container. Kept small so that it needs few registers: the
// rest, and the last bytes of the text (the blocks below read ahead), go the general way.
entry_info json_reader::next_entry()
{
    decorated_ = false;
    const char* p = position_;
    if (end_ - p < 32 || depth_ == 0) [[unlikely]]
        return next_entry_general();
    entry_info entry;
    if (!is_array_[depth_ - 1]) {
        if (*p == '}') {
            entry.flags = kind::end;
            return entry;
        }
        if (*p != '"')
            return next_entry_general();
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 1));
        const unsigned quotes = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, _mm_set1_epi8('"'))));
        const unsigned other = static_cast<unsigned>(_mm_movemask_epi8(
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(chunk, _mm_set1_epi8('\\')), _mm_cmpeq_epi8(chunk, _mm_set1_epi8(':'))),
                         _mm_cmpeq_epi8(chunk, _mm_set1_epi8('@')))));
        // Escapes and suffixes before the closing quote: the general path.
        if (quotes == 0 || (other & ((quotes & (0u - quotes)) - 1)) != 0)
            return next_entry_general();
        const char* const last = p + 1 + __builtin_ctz(quotes);
        if (last[1] != ':')
            return next_entry_general();
        p = last + (last[2] == ' ' ? 3 : 2);  // at most p + 19: inside the 32 bytes
        entry.name = std::string_view(position_ + 1, static_cast<std::size_t>(last - position_ - 1));
    } else if (*p == ']') {
        entry.flags = kind::end;
        return entry;
    }
    const char c = *p;
    if (c == '"') {
        if (p[1] == '0' && (p[2] == 'x' || p[2] == 'X'))
            entry.flags = kind::present | kind::number;
        else if (p[1] == '{')
            entry.flags = kind_string | kind::guid;
        else
            entry.flags = kind_string;
    } else if (static_cast<unsigned char>(c - '0') <= 9 || c == '-' || c == '.') {
        entry.flags = kind::present | kind::number;
    } else if (c == '{') {
        entry.flags = kind::present | kind::object;
    } else if (c == '[') {
        entry.flags = kind::present | kind::sequence;
    } else if (c == 't' || c == 'f') {
        entry.flags = kind::present | kind::boolean;
    } else {
        return next_entry_general();  // null, whitespace, separators, errors
    }
    position_ = p;
    return entry;
}

__attribute__((noinline)) entry_info json_reader::next_entry_general()
{
    entry_info entry;
    decorated_ = false;
    // Separators: normally taken right after each value already.
    while (position_ != end_ && *position_ == ',') {
        ++position_;
        skip_whitespace();
    }
    if (position_ == end_) {
        entry.flags = kind::end;
        return entry;
    }
    bool name_read = false;
    if (*position_ == '"' && depth_ > 0 && !in_array()) {
        const char* const quote = position_;
        bool suffixed = false;
        const string_span name = scan_name(suffixed);
        skip_whitespace();
        if (position_ == end_ || *position_ != ':')
            fail(position_ == end_ ? quote : position_);
        ++position_;
        skip_whitespace();
        if (position_ == end_)
            fail(position_);
        entry.name = std::string_view(name.first, static_cast<std::size_t>(name.last - name.first));
        if (suffixed) [[unlikely]]
            split_name(entry.name, entry);
        name_read = true;
    }
    // Tests in order of frequency: a branch that is usually right costs less than a jump
    // table that is often mispredicted.
    const char c = *position_;
    if (c == '"') {
        if (end_ - position_ >= 3 && position_[1] == '0' && (position_[2] == 'x' || position_[2] == 'X'))
            entry.flags |= kind::present | kind::number;
        else if (end_ - position_ >= 2 && position_[1] == '{')
            entry.flags |= kind_string | kind::guid;
        else
            entry.flags |= kind_string;
        return entry;
    }
    if (static_cast<unsigned char>(c - '0') <= 9 || c == '-' || c == '.') {
        entry.flags |= kind::present | kind::number;
        return entry;
    }
    if (c == '}' || c == ']') {
        if (name_read)
            fail(position_);  // a name without a value
        entry.flags = kind::end;
        return entry;
    }
    if (c == '{') {
        entry.flags |= kind::present | kind::object;
        return entry;
    }
    switch (c) {
    case '[':
        entry.flags |= kind::present | kind::sequence;
        return entry;
    case 't':
    case 'f':
        entry.flags |= kind::present | kind::boolean;
        return entry;
    case 'n':
        if (end_ - position_ < 4 || std::memcmp(position_, "null", 4) != 0)
            fail(position_);
        position_ += 4;
        after_value();
        return entry;
    default:
        fail(position_);  // includes a separator right after a name
    }
}

void json_reader::split_name(std::string_view raw, entry_info& entry)
{
    entry.name = raw;
    decorated_ = true;
    entry_version_ = 0;
    entry_id_ = GUID{};
    std::size_t colon = std::string_view::npos;
    std::size_t at = std::string_view::npos;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == ':' && colon == std::string_view::npos && at == std::string_view::npos) {
            colon = i;
        } else if (raw[i] == '@') {
            at = i;
            break;
        }
    }
    if (colon == std::string_view::npos && at == std::string_view::npos)
        return;  // the usual case: a plain name
    if (colon != std::string_view::npos) {
        entry.name = raw.substr(0, colon);
        const std::string_view digits = raw.substr(colon + 1, at == std::string_view::npos ? at : at - colon - 1);
        std::uint32_t version = 0;
        const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), version);
        // Versions have four bits in the flags; a larger one is not one this program wrote.
        if (!digits.empty() && result.ec == std::errc() && result.ptr == digits.data() + digits.size() && version <= 15)
            entry_version_ = version;
    } else {
        entry.name = raw.substr(0, at);
    }
    if (at != std::string_view::npos) {
        GUID id{};
        if (parse_guid(raw.substr(at + 1), id))
            entry_id_ = id;
    }
    entry.flags = with_version(entry.flags, entry_version_);
}

__attribute__((always_inline)) inline json_reader::string_span json_reader::scan_string()
{
    if (position_ == end_ || *position_ != '"')
        fail(position_);
    const char* p = position_ + 1;
    bool escapes = false;
    unsigned high = 0;
    for (;;) {
        p = find_string_special(p, end_, high);
        if (p == end_)
            fail(position_);
        if (*p == '"')
            break;
        // A backslash and the byte after it; what they mean is decided when decoding.
        escapes = true;
        if (end_ - p < 2)
            fail(p);
        high |= static_cast<unsigned char>(p[1]) & 0x80;
        p += 2;
    }
    const string_span span{position_ + 1, p, escapes, high != 0};
    position_ = p + 1;
    return span;
}

// A member name: as scan_string, and tells whether a ':' or '@' suffix may need splitting
// off, so that plain names (nearly all) skip that step.
__attribute__((always_inline)) inline json_reader::string_span json_reader::scan_name(bool& suffixed)
{
    const char* p = position_ + 1;
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const __m128i colon = _mm_set1_epi8(':');
    const __m128i at = _mm_set1_epi8('@');
    if (end_ - p >= 16) {
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const unsigned quotes = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, quote)));
        const unsigned before = (quotes & (0u - quotes)) - 1;  // the bytes before the first quote
        const unsigned backslashes = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, backslash)));
        if (quotes != 0 && (backslashes & before) == 0) {
            const unsigned decoration = static_cast<unsigned>(
                _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(chunk, colon), _mm_cmpeq_epi8(chunk, at))));
            suffixed = (decoration & before) != 0;
            const char* const last = p + __builtin_ctz(quotes);
            position_ = last + 1;
            return {p, last, false, false};
        }
    }
    // Long names, names with escapes, the end of the text: the general scan.
    const string_span span = scan_string();
    suffixed = std::string_view(span.first, static_cast<std::size_t>(span.last - span.first)).find_first_of(":@") !=
               std::string_view::npos;
    return span;
}

__attribute__((always_inline)) inline void json_reader::decode_string(const string_span& span, std::wstring& out)
{
    // The byte count bounds the UTF-16 count (escapes and multi-byte sequences only shrink),
    // so the text is decoded straight into the string and the size trimmed afterwards.
    // Shrinking a string keeps its buffer: a caller reading into the same string again
    // does not allocate.
    const std::size_t bound = static_cast<std::size_t>(span.last - span.first);
    if (out.size() < bound)
        grow_for_overwrite(out, bound);
    if (!span.has_escapes && !span.non_ascii) {
        widen_ascii(out.data(), span.first, bound);
        cut_to(out, bound);
        return;
    }
    if (wchar_t* const last = decode_fast(span, out.data())) {
        cut_to(out, static_cast<std::size_t>(last - out.data()));
        return;
    }
    decode_exact(span, out);
}

wchar_t* json_reader::decode_fast(const string_span& span, wchar_t* out)
{
    const char* p = span.first;
    const char* const last = span.last;
    if (!span.has_escapes)
        return decode_utf8(out, p, last);
    while (p != last) {
        const char* run = p;
        while (p != last && *p != '\\')
            ++p;
        out = decode_utf8(out, run, p);
        if (!out)
            return nullptr;
        if (p == last)
            break;
        const char escape = p[1];
        if (escape == 'u')
            return nullptr;  // rare: the exact path handles surrogates
        p += 2;
        switch (escape) {
        case '"':
            *out++ = L'"';
            break;
        case '\\':
            *out++ = L'\\';
            break;
        case '/':
            *out++ = L'/';
            break;
        case 'b':
            *out++ = L'\b';
            break;
        case 'f':
            *out++ = L'\f';
            break;
        case 'n':
            *out++ = L'\n';
            break;
        case 'r':
            *out++ = L'\r';
            break;
        case 't':
            *out++ = L'\t';
            break;
        default:
            fail(p - 1);
        }
    }
    return out;
}

void json_reader::decode_exact(const string_span& span, std::wstring& out)
{
    out.clear();
    const char* p = span.first;
    const char* const last = span.last;
    while (p != last) {
        const char* run = p;
        while (p != last && *p != '\\')
            ++p;
        append_utf8(out, run, p);
        if (p == last)
            break;
        // scan_string guaranteed a byte after every backslash.
        const char escape = p[1];
        p += 2;
        switch (escape) {
        case '"':
            out.push_back(L'"');
            break;
        case '\\':
            out.push_back(L'\\');
            break;
        case '/':
            out.push_back(L'/');
            break;
        case 'b':
            out.push_back(L'\b');
            break;
        case 'f':
            out.push_back(L'\f');
            break;
        case 'n':
            out.push_back(L'\n');
            break;
        case 'r':
            out.push_back(L'\r');
            break;
        case 't':
            out.push_back(L'\t');
            break;
        case 'u': {
            auto read_unit = [&](const char* at) -> int {
                if (last - at < 4)
                    fail(at);
                int value = 0;
                for (int i = 0; i < 4; ++i) {
                    const int digit = hex_digit(at[i]);
                    if (digit < 0)
                        fail(at + i);
                    value = value * 16 + digit;
                }
                return value;
            };
            const int unit = read_unit(p);
            p += 4;
            if (unit >= 0xD800 && unit <= 0xDBFF) {
                if (last - p >= 6 && p[0] == '\\' && p[1] == 'u') {
                    const int low = read_unit(p + 2);
                    if (low >= 0xDC00 && low <= 0xDFFF) {
                        out.push_back(static_cast<wchar_t>(unit));
                        out.push_back(static_cast<wchar_t>(low));
                        p += 6;
                        break;
                    }
                }
                out.push_back(L'\xFFFD');  // a high surrogate without its partner
            } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
                out.push_back(L'\xFFFD');
            } else {
                out.push_back(static_cast<wchar_t>(unit));
            }
            break;
        }
        default:
            fail(p - 1);
        }
    }
}

// Strings of at most 63 ASCII bytes without escapes (names, addresses, most texts), found
// 32 bytes at a time with blocks that read ahead, so not at the very end of the text; the
// rest go the general way.
void json_reader::read_wstring(std::wstring& out)
{
    const char* const p = position_;
    if (end_ - p > 32 && *p == '"') [[likely]] {
        // Bit i: byte p[1 + offset + i] is a quote (quotes); a quote, a backslash or not
        // ASCII (stops).
        const auto scan = [p](std::size_t offset, unsigned& quotes, unsigned& stops) {
            const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 1 + offset));
            const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 17 + offset));
            const __m128i quote = _mm_set1_epi8('"');
            const __m128i backslash = _mm_set1_epi8('\\');
            quotes = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(low, quote))) |
                     static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(high, quote))) << 16;
            stops = quotes |
                    static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(low, backslash), low))) |
                    static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(high, backslash), high))) << 16;
        };
        unsigned quotes;
        unsigned stops;
        std::size_t offset = 0;
        scan(0, quotes, stops);
        if (stops == 0 && end_ - p > 64) {
            offset = 32;
            scan(32, quotes, stops);
        }
        // The first byte that is a quote, a backslash or not ASCII is the closing quote.
        if (quotes != 0 && (stops & (0u - stops)) == (quotes & (0u - quotes))) {
            const std::size_t count = offset + static_cast<std::size_t>(__builtin_ctz(quotes));
            if (out.size() < count)
                grow_for_overwrite(out, count);
            widen_ascii(out.data(), p + 1, count);
            cut_to(out, count);
            position_ = p + count + 2;
            after_value();
            return;
        }
    }
    read_wstring_general(out);
}

__attribute__((noinline)) void json_reader::read_wstring_general(std::wstring& out)
{
    const string_span span = scan_string();
    decode_string(span, out);
    after_value();
}

time_point json_reader::read_time()
{
    const char* const start = position_;
    const string_span span = scan_string();
    std::optional<time_point> value;
    if (span.has_escapes) {
        std::wstring text;
        decode_string(span, text);
        value = parse_time_text(std::wstring_view(text));
    } else {
        value = parse_time_text(std::string_view(span.first, static_cast<std::size_t>(span.last - span.first)));
    }
    if (!value)
        fail(start);
    after_value();
    return *value;
}

GUID json_reader::read_guid()
{
    const char* const start = position_;
    const string_span span = scan_string();
    GUID id{};
    if (span.has_escapes || !parse_guid(std::string_view(span.first, static_cast<std::size_t>(span.last - span.first)), id))
        fail(start);
    after_value();
    return id;
}

std::string_view json_reader::number_token()
{
    const char* const first = position_;
    while (position_ != end_ && has_class(*position_, c_number))
        ++position_;
    if (position_ == first)
        fail(first);
    return {first, static_cast<std::size_t>(position_ - first)};
}

std::uint64_t json_reader::read_hex_string()
{
    const char* const start = position_;
    const string_span span = scan_string();
    // "0x" then at least one hex digit, up to the closing quote.
    const char* p = span.first + 2;
    if (span.has_escapes || p > span.last || p == span.last)
        fail(start);
    std::uint64_t value = 0;
    for (; p != span.last; ++p) {
        const int digit = hex_digit(*p);
        if (digit < 0 || value > (std::numeric_limits<std::uint64_t>::max() >> 4))
            fail(start);
        value = value << 4 | static_cast<std::uint64_t>(digit);
    }
    after_value();
    return value;
}

template <class T>
T json_reader::read_float_value()
{
    if (position_ != end_ && *position_ == '"')
        return static_cast<T>(read_hex_string());
    const char* const start = position_;
    const std::string_view token = number_token();
    T value{};
    const auto result = std::from_chars(token.data(), token.data() + token.size(), value);
    if (result.ec != std::errc() || result.ptr != token.data() + token.size())
        fail(start);
    after_value();
    return value;
}

// Plain digits that end the token and cannot overflow (at most 19 of them): the usual case,
// read in one pass. Anything else takes the general path.
std::uint64_t json_reader::read_uint64()
{
    const char* const first = position_;
    if (end_ - first > 19) [[likely]] {
        const char* p = first;
        std::uint64_t value = 0;
        while (p != first + 19 && static_cast<unsigned char>(*p - '0') <= 9)
            value = value * 10 + static_cast<unsigned>(*p++ - '0');
        if (p != first && !has_class(*p, c_number)) {
            position_ = p;
            after_value();
            return value;
        }
    }
    return read_uint64_general();
}

__attribute__((noinline)) std::uint64_t json_reader::read_uint64_general()
{
    if (position_ != end_ && *position_ == '"')
        return read_hex_string();
    const char* const start = position_;
    const std::string_view token = number_token();
    const char* const last = token.data() + token.size();
    std::uint64_t value = 0;
    const auto result = std::from_chars(token.data(), last, value);
    if (result.ec == std::errc() && result.ptr == last) {
        after_value();
        return value;
    }
    if (result.ec == std::errc::result_out_of_range)
        fail(start);
    // "1e3", "2.0", "-0": whole numbers in other spellings.
    double floating = 0;
    const auto as_double = std::from_chars(token.data(), last, floating);
    if (as_double.ec != std::errc() || as_double.ptr != last || !(floating >= 0) || floating >= 18446744073709551616.0 ||
        std::trunc(floating) != floating)
        fail(start);
    after_value();
    return static_cast<std::uint64_t>(floating);
}

std::int64_t json_reader::read_int64()
{
    if (position_ != end_ && *position_ == '"') {
        const char* const start = position_;
        const std::uint64_t value = read_hex_string();
        if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            fail(start);
        return static_cast<std::int64_t>(value);
    }
    const char* const start = position_;
    const std::string_view token = number_token();
    const char* const last = token.data() + token.size();
    std::int64_t value = 0;
    const auto result = std::from_chars(token.data(), last, value);
    if (result.ec == std::errc() && result.ptr == last) {
        after_value();
        return value;
    }
    if (result.ec == std::errc::result_out_of_range)
        fail(start);
    double floating = 0;
    const auto as_double = std::from_chars(token.data(), last, floating);
    if (as_double.ec != std::errc() || as_double.ptr != last || !(floating >= -9223372036854775808.0) ||
        floating >= 9223372036854775808.0 || std::trunc(floating) != floating)
        fail(start);
    after_value();
    return static_cast<std::int64_t>(floating);
}

double json_reader::read_double()
{
    return read_float_value<double>();
}

float json_reader::read_float()
{
    return read_float_value<float>();
}

bool json_reader::read_bool()
{
    const std::ptrdiff_t left = end_ - position_;
    bool value;
    if (left >= 4 && std::memcmp(position_, "true", 4) == 0) {
        position_ += 4;
        value = true;
    } else if (left >= 5 && std::memcmp(position_, "false", 5) == 0) {
        position_ += 5;
        value = false;
    } else {
        fail(position_);
    }
    after_value();
    return value;
}

std::uint32_t json_reader::begin_array()
{
    if (position_ == end_ || *position_ != '[')
        fail(position_);
    push(true);
    ++position_;
    skip_whitespace();
    return unknown_count;
}

object_header json_reader::begin_object()
{
    if (position_ == end_ || *position_ != '{')
        fail(position_);
    push(false);
    ++position_;
    skip_whitespace();
    // The object's version and id came with its name.
    if (!decorated_)
        return {unknown_count, 0, GUID{}};
    return {unknown_count, entry_version_, entry_id_};
}

void json_reader::close(char closer)
{
    if (depth_ != 0 && position_ != end_ && *position_ == closer) [[likely]] {  // everything was read
        ++position_;
        --depth_;
        after_value();
        return;
    }
    close_general(closer);
}

__attribute__((noinline)) void json_reader::close_general(char closer)
{
    if (depth_ == 0)
        fail_fast(L"JSON archive: end without begin");
    // Whatever the caller did not read of this container is skipped, so that a record
    // that stops early (a newer version) leaves the reader after its closing bracket.
    for (;;) {
        const entry_info entry = next_entry();
        if (entry.at_end())
            break;
        skip_value(entry);
    }
    if (position_ == end_ || *position_ != closer)
        fail(position_);
    ++position_;
    --depth_;
    after_value();
}

void json_reader::end_array()
{
    close(']');
}

void json_reader::end_object()
{
    close('}');
}

void json_reader::skip_value(const entry_info& entry)
{
    if (entry.flags & kind::object) {
        begin_object();
        end_object();
    } else if (entry.flags & kind::boolean) {
        read_bool();
    } else if (entry.flags & kind::string) {
        scan_string();
        after_value();
    } else if (entry.flags & kind::sequence) {
        begin_array();
        end_array();
    } else if (entry.flags & kind::number) {
        if (*position_ == '"')
            scan_string();
        else
            number_token();
        after_value();
    }
    // null: already consumed by next_entry.
}

std::size_t json_reader::walk_base64(void* out, std::size_t capacity)
{
    const char* const start = position_;
    const string_span span = scan_string();
    auto* target = static_cast<std::uint8_t*>(out);
    std::size_t size = 0;
    std::uint32_t bits = 0;
    int bit_count = 0;
    int padding = 0;
    for (const char* p = span.first; p != span.last; ++p) {
        char c = *p;
        if (c == '\\') {
            // Only "\/" can stand in a base64 text: some writers escape every slash.
            if (p[1] != '/')
                fail(p);
            c = '/';
            ++p;
        }
        if (c == '=') {
            ++padding;
            continue;
        }
        const int digit = base64_digit(c);
        if (digit < 0 || padding > 0)
            fail(p);
        bits = bits << 6 | static_cast<std::uint32_t>(digit);
        bit_count += 6;
        if (bit_count >= 8) {
            bit_count -= 8;
            if (target) {
                if (size == capacity)
                    fail(start);
                target[size] = static_cast<std::uint8_t>(bits >> bit_count);
            }
            ++size;
        }
    }
    if (padding > 2)
        fail(start);
    if (target && size != capacity)
        fail(start);
    after_value();
    return size;
}

std::size_t json_reader::binary_size()
{
    // Measured on a copy of the position: the value is still to be read.
    const char* const start = position_;
    const std::size_t size = walk_base64(nullptr, 0);
    position_ = start;
    return size;
}

void json_reader::read_binary(void* data, std::size_t size)
{
    walk_base64(data, size);
}

void json_reader::read_block(void*, std::size_t)
{
    fail_fast(L"JSON archive: records cannot be read as blocks");
}

void json_reader::unknown_entry(const entry_info&)
{
    fail(position_);
}

std::wstring json_reader::location()
{
    std::size_t line = 1;
    const char* line_start = begin_;
    for (const char* p = begin_; p != position_; ++p) {
        if (*p == '\n') {
            ++line;
            line_start = p + 1;
        }
    }
    const std::size_t column = static_cast<std::size_t>(position_ - line_start) + 1;
    return L"line " + std::to_wstring(line) + L", column " + std::to_wstring(column) + L" (byte " +
           std::to_wstring(offset()) + L")";
}

}  // namespace tessel::nsm::details
