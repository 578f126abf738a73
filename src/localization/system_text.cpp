#include "localization/system_text.h"

#include "base/unique_handle.h"
#include "localization/localization.h"

#include <vector>

namespace tessel {
namespace {

std::wstring formatted(DWORD id, LANGID language, HMODULE module)
{
    wchar_t* buffer = nullptr;
    const DWORD source = module ? FORMAT_MESSAGE_FROM_HMODULE : FORMAT_MESSAGE_FROM_SYSTEM;
    const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | source,
                                          module, id, language, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    const unique_hlocal owner(buffer);
    std::wstring text = length ? std::wstring(buffer, length) : std::wstring();
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' '))
        text.pop_back();
    return text;
}

}  // namespace

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
    std::wstring text;
    // 0 already is the system's own order of languages.
    if (language != 0)
        text = formatted(id, language, module);
    if (text.empty())
        text = formatted(id, 0, module);
    return text;
}

std::wstring ui_system_message(HRESULT code)
{
    const auto in = [code](LANGID language) {
        std::wstring text = formatted(static_cast<DWORD>(code), language, nullptr);
        // Not every system resolves the HRESULT form of a Win32 error; the plain code always works.
        if (text.empty() && HRESULT_FACILITY(code) == FACILITY_WIN32)
            text = formatted(HRESULT_CODE(code), language, nullptr);
        return text;
    };
    const LANGID language = ui_language_id();
    std::wstring text = language != 0 ? in(language) : std::wstring();
    return text.empty() ? in(0) : text;
}

}  // namespace tessel
