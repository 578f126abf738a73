#include "console/device_match.h"

#include <windows.h>

#include <array>

namespace servercfg::console {
namespace {

bool same_text(std::wstring_view a, std::wstring_view b)
{
    return a.size() == b.size() && fold_case(a) == fold_case(b);
}

}  // namespace

std::wstring fold_case(std::wstring_view text)
{
    if (text.empty())
        return {};
    std::wstring folded(text.size(), L'\0');
    // Upper-casing keeps the length in UTF-16 units for every mapping the invariant locale
    // makes; should a system ever differ, the plain text still compares exactly.
    const int length = ::LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_UPPERCASE, text.data(),
                                       static_cast<int>(text.size()), folded.data(), static_cast<int>(folded.size()),
                                       nullptr, nullptr, 0);
    if (length != static_cast<int>(text.size()))
        return std::wstring(text);
    return folded;
}

bool wildcard_match(std::wstring_view pattern_text, std::wstring_view subject_text)
{
    const std::wstring pattern = fold_case(pattern_text);
    const std::wstring text = fold_case(subject_text);
    // Greedy with one backtrack point, the last "*": linear in practice, and never worse
    // than pattern length times text length however many stars there are.
    std::size_t p = 0, t = 0;
    std::size_t star = std::wstring::npos, star_text = 0;
    while (t < text.size()) {
        if (p < pattern.size() && (pattern[p] == L'?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (p < pattern.size() && pattern[p] == L'*') {
            star = p++;
            star_text = t;
        } else if (star != std::wstring::npos) {
            p = star + 1;
            t = ++star_text;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == L'*')
        ++p;
    return p == pattern.size();
}

bool matches(const device_match& match, const device_facts& device)
{
    const device_identity& id = device.identity;
    if (match.instance_id && (id.instance_id.empty() || !same_text(*match.instance_id, id.instance_id)))
        return false;
    if (match.vid_pid && id.vid_pid != match.vid_pid)
        return false;
    if (match.serial && (id.serial.empty() || !same_text(*match.serial, id.serial)))
        return false;
    if (match.setup_class && (id.setup_class.empty() || !same_text(*match.setup_class, id.setup_class)))
        return false;
    if (match.name && !wildcard_match(*match.name, device.name))
        return false;
    return true;
}

std::optional<parsed_selector> parse_selector(std::wstring_view text)
{
    struct prefix {
        std::wstring_view text;
        selector_kind kind;
    };
    static constexpr std::array<prefix, 5> prefixes{{{L"id:", selector_kind::instance_id},
                                                     {L"vidpid:", selector_kind::vid_pid},
                                                     {L"serial:", selector_kind::serial},
                                                     {L"name:", selector_kind::name},
                                                     {L"class:", selector_kind::setup_class}}};
    parsed_selector selector;
    for (const prefix& p : prefixes) {
        if (text.size() < p.text.size() || !same_text(text.substr(0, p.text.size()), p.text))
            continue;
        const std::wstring value(text.substr(p.text.size()));
        if (value.empty())
            return std::nullopt;
        selector.kind = p.kind;
        switch (p.kind) {
        case selector_kind::instance_id: selector.match.instance_id = value; break;
        case selector_kind::vid_pid:
            selector.match.vid_pid = parse_vid_pid(value);
            if (!selector.match.vid_pid)
                return std::nullopt;
            break;
        case selector_kind::serial: selector.match.serial = value; break;
        case selector_kind::name: selector.match.name = value; break;
        case selector_kind::setup_class: selector.match.setup_class = value; break;
        case selector_kind::bare_word: break;
        }
        return selector;
    }
    if (text.empty())
        return std::nullopt;
    selector.match.instance_id = std::wstring(text);
    selector.name_match.name = std::wstring(text);
    return selector;
}

}  // namespace servercfg::console
