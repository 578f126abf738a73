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
    return tessel::load_string_by_key_or(english, english);
}

}  // namespace servercfg::console
