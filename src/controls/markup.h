#pragma once
// The inline markup of every text the custom controls show. Elements are delimited by
// "[[[" and "]]]": "[[[" is followed by a tag letter, optional arguments and the content;
// "]]]" ends the innermost open element. Arguments, right after the tag letter:
//   ":<number>:"      first number (a leading "-" is read and ignored; one unit ends it)
//   "#[<text>]#"      string argument (when no "]#" follows, "#[" is plain content)
//   ":<number>:"      second number, after either of the above
// "::" right after the tag means no number; the colons stay content.

#include <d2d1.h>
#include <dwrite.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::windows::new_controls {

struct markup_element {
    DWRITE_TEXT_RANGE range{};      // into the plain text, in UTF-16 code units
    std::wstring_view argument;     // into the parsed source; empty when absent
    std::int64_t first_number = 0;
    std::int64_t second_number = 0;
    wchar_t tag = 0;
};

// A parse result can be reused: parsing into it again keeps its buffers, so parsing the
// cells of a list costs no allocation once the buffers have grown. A text without any
// markup is not copied at all: its plain text is the source itself.
class markup_result {
public:
    [[nodiscard]] std::wstring_view text() const noexcept
    {
        return in_buffer_ ? std::wstring_view(buffer_.data(), length_) : source_;
    }
    // In the order the elements were closed: an inner element precedes its enclosing one.
    std::vector<markup_element> elements;

private:
    friend class markup_parser;
    friend void parse_markup(std::wstring_view, markup_result&);
    std::wstring_view source_;
    std::wstring buffer_;  // only grows; the text is its first length_ code units
    std::size_t length_ = 0;
    bool in_buffer_ = false;
    std::vector<markup_element> open_;  // the parser's stack of open elements; only grows
};

// The result's text and element arguments may be views into `source`, which must outlive
// the result (or be parsed again).
// An opener without a tag letter at the very end throws std::out_of_range. A "]]]" with
// no open element is kept as plain text. Numbers wrap silently past 64 bits.
void parse_markup(std::wstring_view source, markup_result& into);
[[nodiscard]] markup_result parse_markup(std::wstring_view source);

// The plain text alone, by the same rules (type-to-find, accessible names).
void strip_markup(std::wstring_view source, std::wstring& into);
[[nodiscard]] std::wstring strip_markup(std::wstring_view source);

// "#RGB", "#RRGGBB" or "#RRGGBBAA"; an invalid hex digit counts as 0. Any other length
// answers nothing, and the caller uses its default colour.
[[nodiscard]] std::optional<D2D1_COLOR_F> parse_markup_colour(std::wstring_view text) noexcept;

// A colour given as the first number of "T" or "B": 0xAARRGGBB, where an alpha byte of 0
// counts as opaque so that 0xRRGGBB reads naturally.
[[nodiscard]] D2D1_COLOR_F unpack_markup_colour(std::int64_t packed) noexcept;

}  // namespace tessel::windows::new_controls
