// Type-to-find: typed letters collected into a search text, matched case-insensitively
// against the plain text of column 0 from the focus row on (at most 10000 rows, no wrap).
// A search typed letter by letter reads each row's providers once: the first letters of
// every row read are kept until the rows or their texts change.

#include "controls/listview_state.h"

#include <algorithm>
#include <locale>

namespace tessel::windows::new_controls::listview::impl {
namespace {

constexpr row_index max_find_rows = 10000;

bool blank(wchar_t c) noexcept { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

std::size_t first_non_blank(std::wstring_view text) noexcept
{
    std::size_t at = 0;
    while (at < text.size() && blank(text[at]))
        ++at;
    return at;
}

// Case folding through the current locale's classification, as the search compares.
const std::ctype<wchar_t>& classification() { return std::use_facet<std::ctype<wchar_t>>(std::locale()); }

// The locale's lower case of the ASCII letters, looked up once per search rather than
// through a virtual call per letter.
struct case_folding {
    const std::ctype<wchar_t>& ctype;
    std::array<wchar_t, 128> ascii{};
    explicit case_folding(const std::ctype<wchar_t>& c) : ctype(c)
    {
        for (wchar_t ch = 0; ch < 128; ++ch)
            ascii[std::size_t(ch)] = ctype.tolower(ch);
    }
    wchar_t operator()(wchar_t ch) const { return ch < 128 ? ascii[std::size_t(ch)] : ctype.tolower(ch); }
};

bool starts_with_folded(std::wstring_view text, std::wstring_view folded_needle, const case_folding& fold)
{
    const std::size_t at = first_non_blank(text);
    if (text.size() - at < folded_needle.size())
        return false;
    for (std::size_t i = 0; i < folded_needle.size(); ++i)
        if (fold(text[at + i]) != folded_needle[i])
            return false;
    return true;
}

// The text of column 0 of a row as the providers give it; null when they give none.
const std::wstring* find_markup(list_state& s, row_index row)
{
    s.scratch.resize(1);
    cell& c = s.scratch[0];
    c.text.clear();
    std::optional<D2D1_COLOR_F> row_colour;
    bool filled = false;
    try {
        for (const cell_text_provider& provider : s.handlers.cell_text)
            filled = provider(row, 0, std::span<cell>(&c, 1), row_colour);
    } catch (...) {
        // A row that cannot say what it shows is passed over, as painting leaves it empty;
        // the search goes on to the next row.
        return nullptr;
    }
    return filled ? &c.text : nullptr;
}

// The plain text of a row's markup; false when the markup is broken.
bool plain_text(list_state& s, const std::wstring& markup, std::wstring_view& plain)
{
    if (std::find(markup.begin(), markup.end(), L'[') == markup.end()) {
        plain = markup;
        return true;
    }
    try {
        strip_markup(markup, s.find_plain);
    } catch (const std::out_of_range&) {
        return false;
    }
    plain = s.find_plain;
    return true;
}

// The plain text of column 0 of a row; false when the row has none.
bool find_text(list_state& s, row_index row, std::wstring_view& plain)
{
    const std::wstring* markup = find_markup(s, row);
    return markup && plain_text(s, *markup, plain);
}

void read_find_prefix(list_state& s, row_index row, list_state::find_prefix& prefix)
{
    prefix.known = true;
    prefix.length = 0;
    prefix.complete = true;
    const std::wstring* markup = find_markup(s, row);
    if (!markup)
        return;
    // Up to its first '[' the plain text is the markup itself, so only a row with a tag
    // among its first letters is stripped: every row of a search is read here, and the
    // letters of a longer text are not complete, which leaves the rest to the whole text.
    std::wstring_view plain = *markup;
    std::size_t at = first_non_blank(plain);
    std::size_t length = std::min(plain.size() - at, prefix.letters.size());
    bool tag = false;
    for (std::size_t i = 0; i < length; ++i) {
        prefix.letters[i] = plain[at + i];
        tag = tag || plain[at + i] == L'[';
    }
    if (tag) {
        if (!plain_text(s, *markup, plain))
            return;
        at = first_non_blank(plain);
        length = std::min(plain.size() - at, prefix.letters.size());
        std::copy_n(plain.data() + at, length, prefix.letters.data());
    }
    prefix.length = static_cast<std::uint8_t>(length);
    prefix.complete = plain.size() - at == length;
}

}  // namespace

void on_char(list_state& s, wchar_t c)
{
    const DWORD now = ::GetTickCount();
    const bool continuing = !s.search.empty() && now - s.last_char < listview<uniform_height>::type_to_find_reset_ms;
    if (c == L'\b') {
        if (continuing && !s.search.empty())
            s.search.pop_back();
        s.last_char = now;
        return;
    }
    if (c < 32 || c == 127)
        return;
    if (c == L' ' && !continuing)
        return;  // the space key toggled the selection
    if (!continuing)
        s.search.clear();
    s.search.push_back(c);
    s.last_char = now;
    s.owner->find_and_focus(s.search);
}

row_index listview<uniform_height>::find_row(std::wstring_view text) const
{
    state& s = *state_;
    if (text.empty() || s.rows == 0)
        return no_row;
    const case_folding fold(classification());
    std::wstring needle(text);
    for (wchar_t& ch : needle)
        ch = fold(ch);
    const row_index start = s.focus == no_row || s.focus >= s.rows ? 0 : s.focus;
    const row_index end = start + std::min(max_find_rows, s.rows - start);
    if (s.find_generation != s.generation || start < s.find_base || start - s.find_base > max_find_rows) {
        s.find_prefixes.clear();
        s.find_base = start;
        s.find_generation = s.generation;
    }
    if (s.find_prefixes.size() < end - s.find_base)
        s.find_prefixes.resize(std::size_t(end - s.find_base));
    for (row_index row = start; row < end; ++row) {
        list_state::find_prefix& prefix = s.find_prefixes[std::size_t(row - s.find_base)];
        if (!prefix.known)
            read_find_prefix(s, row, prefix);
        if (needle.size() > prefix.length && prefix.complete)
            continue;
        const std::size_t kept = std::min<std::size_t>(needle.size(), prefix.length);
        std::size_t same = 0;
        while (same < kept && fold(prefix.letters[same]) == needle[same])
            ++same;
        if (same < kept)
            continue;
        if (kept == needle.size())
            return row;
        // Longer than the letters kept: the whole text decides.
        std::wstring_view plain;
        if (find_text(s, row, plain) && starts_with_folded(plain, needle, fold))
            return row;
    }
    return no_row;
}

row_index listview<uniform_height>::find_and_focus(std::wstring_view text)
{
    state& s = *state_;
    const row_index row = find_row(text);
    if (row == no_row)
        return no_row;
    const row_index top = s.top;
    move_to(s, row, false, false, true);
    if (s.top == top)
        s.repaint();
    return row;
}

}  // namespace tessel::windows::new_controls::listview::impl
