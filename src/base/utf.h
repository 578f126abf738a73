#pragma once
// UTF-8 <-> UTF-16 conversion.
//
// Written out rather than delegated to MultiByteToWideChar so that malformed input is
// handled the same way on every system: each ill-formed sequence (bad lead byte,
// truncated or overlong sequence, surrogate code point, value above U+10FFFF, unpaired
// surrogate unit) becomes one U+FFFD and conversion goes on. Nothing throws except
// std::bad_alloc.

#include <string>
#include <string_view>

namespace tessel {

[[nodiscard]] std::wstring utf8_to_utf16(std::string_view text);
[[nodiscard]] std::string utf16_to_utf8(std::wstring_view text);

// Appending forms, for callers that reuse a buffer.
void append_utf8_as_utf16(std::wstring& out, std::string_view text);
void append_utf16_as_utf8(std::string& out, std::wstring_view text);

}  // namespace tessel
