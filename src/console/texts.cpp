#include "console/texts.h"

#include "base/failure.h"
#include "localization/system_text.h"

namespace servercfg::console {

std::wstring error_text(HRESULT code)
{
    std::wstring text = tessel::ui_system_message(code);
    if (text.empty())
        text = tessel::load_string(text_id::error_unknown_system_error);
    return text;
}

std::wstring translated(std::wstring_view english)
{
    try {
        return tessel::load_string_by_key(english);
    } catch (const tessel::no_string_exception&) {
        return std::wstring(english);
    }
}

}  // namespace servercfg::console
