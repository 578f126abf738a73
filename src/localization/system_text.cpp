#include "localization/system_text.h"

#include "base/failure.h"
#include "localization/localization.h"

#include <vector>

namespace tessel {

LANGID ui_language_id()
{
    // The chain runs pack tables and built-in English tables in turn (a pack may lack the
    // program's module) down to the built-in common table: the pack's locale is the first
    // one that differs from that root's.
    std::vector<const string_table*> chain;
    for (const string_table* table = program_strings().head().get(); table; table = table->parent().get())
        chain.push_back(table);
    if (chain.empty())
        return 0;
    std::string locale = chain.back()->locale_name();
    for (const string_table* table : chain) {
        if (!table->locale_name().empty() && table->locale_name() != locale) {
            locale = table->locale_name();
            break;
        }
    }
    // Locale names are ASCII.
    const std::wstring name(locale.begin(), locale.end());
    return name.empty() ? 0 : LANGIDFROMLCID(::LocaleNameToLCID(name.c_str(), 0));
}

std::wstring message_text(DWORD id, LANGID language, HMODULE module)
{
    // 0 already is the system's own order of languages.
    std::wstring text = language != 0 ? format_message(id, language, module) : std::wstring();
    return text.empty() ? format_message(id, 0, module) : text;
}

std::wstring ui_system_message(HRESULT code)
{
    const LANGID language = ui_language_id();
    std::wstring text = language != 0 ? system_message(code, language) : std::wstring();
    return text.empty() ? system_message(code) : text;
}

}  // namespace tessel
