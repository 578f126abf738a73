#pragma once
// The console companion's texts: every line it prints comes from its string tables,
// through the format language, in the user's language.

#include "console/console_text_ids.h"

#include "format/ts_printf.h"
#include "localization/localization.h"

#include <windows.h>

#include <cstdint>
#include <string>

namespace servercfg::console {

namespace text_id = servercfg::console::text_ids;

template <class... Args>
[[nodiscard]] std::wstring say(std::uint32_t id, const Args&... args)
{
    return ts_printf::format(tessel::load_string(id), args...);
}

template <class... Args>
[[nodiscard]] std::wstring say_item(std::uint32_t id, std::size_t index, const Args&... args)
{
    return ts_printf::format(tessel::load_string_item(id, index), args...);
}

// The system's text of a code, or the common "unknown error" text when it has none.
[[nodiscard]] std::wstring error_text(HRESULT code);

// A text whose key is its English wording (the archive's own messages): its translation,
// else the text itself.
[[nodiscard]] std::wstring translated(std::wstring_view english);

}  // namespace servercfg::console
