#include "base/utf.h"

#include <cstdint>

static_assert(sizeof(wchar_t) == 2, "UTF-16 wchar_t expected");

namespace tessel {
namespace {

constexpr char32_t replacement = 0xFFFD;

void append_code_point(std::wstring& out, char32_t cp)
{
    if (cp < 0x10000) {
        out.push_back(static_cast<wchar_t>(cp));
    } else {
        cp -= 0x10000;
        out.push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
        out.push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
    }
}

void append_code_point(std::string& out, char32_t cp)
{
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

void append_utf8_as_utf16(std::wstring& out, std::string_view text)
{
    out.reserve(out.size() + text.size());
    const auto* p = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto* const end = p + text.size();
    while (p < end) {
        const std::uint8_t lead = *p;
        if (lead < 0x80) {
            out.push_back(static_cast<wchar_t>(lead));
            ++p;
            continue;
        }
        int trail_count;
        char32_t cp;
        char32_t minimum;
        if (lead >= 0xC2 && lead <= 0xDF) {
            trail_count = 1, cp = lead & 0x1F, minimum = 0x80;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            trail_count = 2, cp = lead & 0x0F, minimum = 0x800;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            trail_count = 3, cp = lead & 0x07, minimum = 0x10000;
        } else {
            out.push_back(static_cast<wchar_t>(replacement));
            ++p;
            continue;
        }
        const std::uint8_t* q = p + 1;
        int taken = 0;
        while (taken < trail_count && q < end && (*q & 0xC0) == 0x80) {
            cp = (cp << 6) | (*q & 0x3F);
            ++q, ++taken;
        }
        const bool well_formed = taken == trail_count && cp >= minimum && cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF);
        append_code_point(out, well_formed ? cp : replacement);
        p = q;
    }
}

void append_utf16_as_utf8(std::string& out, std::wstring_view text)
{
    out.reserve(out.size() + text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char32_t unit = static_cast<std::uint16_t>(text[i]);
        if (unit < 0xD800 || unit > 0xDFFF) {
            append_code_point(out, unit);
        } else if (unit <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            const char32_t low = static_cast<std::uint16_t>(text[++i]);
            append_code_point(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
        } else {
            append_code_point(out, replacement);
        }
    }
}

std::wstring utf8_to_utf16(std::string_view text)
{
    std::wstring out;
    append_utf8_as_utf16(out, text);
    return out;
}

std::string utf16_to_utf8(std::wstring_view text)
{
    std::string out;
    append_utf16_as_utf8(out, text);
    return out;
}

}  // namespace tessel
