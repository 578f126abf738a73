#include "localization/localization.h"
#include "localization/system_text.h"

#include "test_support.h"

#include "base/unique_handle.h"

#include <gtest/gtest.h>

using namespace tessel;
using test_support::make_pack;
using test_support::table_builder;
using test_support::temp_folder;

namespace {

constexpr std::wstring_view program_module = L"ServerCfg.exe";

// A pack whose "OK" (common) and "Hide disconnected" (program) carry the given marker.
std::vector<std::byte> marked_pack(std::wstring_view marker, bool with_program_module = true)
{
    std::vector<std::pair<std::wstring, std::vector<std::byte>>> modules;
    modules.emplace_back(L"common", table_builder().text(L"OK", std::wstring(L"OK ") + std::wstring(marker)).image(false));
    if (with_program_module)
        modules.emplace_back(std::wstring(program_module),
                             table_builder().text(L"Hide disconnected", std::wstring(L"Hide ") + std::wstring(marker)).image(false));
    return make_pack(modules);
}

class pack_folder {
public:
    pack_folder() { CreateDirectoryW((folder_ / L"languages").c_str(), nullptr); }
    [[nodiscard]] std::wstring path() const { return folder_.path(); }

    void add(std::wstring_view file_name, std::span<const std::byte> data) const
    {
        test_support::write_file(folder_ / (L"languages\\" + std::wstring(file_name)), data);
    }

    // The name of the first file of languages\ that matches the pattern, in the folder's
    // own listing order.
    [[nodiscard]] std::wstring first_listed(const std::wstring& pattern) const
    {
        WIN32_FIND_DATAW found{};
        const unique_find_handle search(FindFirstFileW((folder_ / (L"languages\\" + pattern)).c_str(), &found));
        return search ? found.cFileName : L"";
    }

    // Runs the selection with the given setting and user locale.
    std::unique_ptr<localization> select(std::wstring_view setting, std::wstring locale = L"en-US") const
    {
        localization_options options;
        options.program_folder = folder_.path();
        options.program_module_name = program_module;
        options.user_locale_name = [locale] { return locale; };
        return std::make_unique<localization>(options, setting);
    }

private:
    temp_folder folder_;
};

std::wstring ok_text(const localization& chosen)
{
    return chosen.program_pack()->text_by_key(L"OK");
}

std::wstring hide_text(const localization& chosen)
{
    return chosen.program_pack()->text_by_key(L"Hide disconnected");
}

}  // namespace

TEST(language_selection, user_locale_picks_full_name_then_language_part)
{
    {
        pack_folder folder;
        folder.add(L"pt.Portugues.100000000.lpack", marked_pack(L"pt"));
        folder.add(L"pt-br.Brasil.100000000.lpack", marked_pack(L"pt-br"));
        const auto chosen = folder.select(L"", L"pt-BR");
        EXPECT_EQ(chosen->language(), L"pt-br");
        ASSERT_NE(chosen->active_pack(), nullptr);
        EXPECT_EQ(chosen->active_pack()->code, L"pt-br");
        EXPECT_EQ(ok_text(*chosen), L"OK pt-br");
        EXPECT_EQ(hide_text(*chosen), L"Hide pt-br");
        EXPECT_EQ(chosen->common_pack()->text_by_key(L"OK"), L"OK pt-br");
        EXPECT_EQ(chosen->packs().size(), 2u);
    }
    {
        pack_folder folder;
        folder.add(L"de.Deutsch.100000000.lpack", marked_pack(L"de"));
        const auto chosen = folder.select(L"", L"pt-BR");
        EXPECT_EQ(chosen->language(), L"");
        EXPECT_EQ(chosen->active_pack(), nullptr);
        EXPECT_EQ(ok_text(*chosen), L"OK");
        // A locale name without "-" matches only a whole code; none at all gives nothing.
        EXPECT_EQ(folder.select(L"", L"DE")->active_pack()->code, L"de");
        const auto unknown = folder.select(L"", L"");
        EXPECT_EQ(unknown->active_pack(), nullptr);
        EXPECT_EQ(unknown->language(), L"");
    }

    const std::vector<pack_record> packs = {{L"pt-br", L"", {}, L""}, {L"pt", L"", {}, L""}};
    EXPECT_EQ(language_from_locale(L"PT-BR", packs), L"pt-br");
    EXPECT_EQ(language_from_locale(L"pt-PT", packs), L"pt");
    EXPECT_EQ(language_from_locale(L"pt", packs), L"pt");
    EXPECT_EQ(language_from_locale(L"es-ES", packs), L"");
    EXPECT_EQ(language_from_locale(L"p", packs), L"");
}

TEST(language_selection, setting_names_a_pack_exactly)
{
    pack_folder folder;
    folder.add(L"de.Deutsch.100000000.lpack", marked_pack(L"de"));
    folder.add(L"en.English.100000000.lpack", marked_pack(L"en"));
    folder.add(L"x1.First.100000000.lpack", marked_pack(L"x1", false));

    // "EN" is not "en": a pack "EN" is looked for and, absent, English it is.
    auto chosen = folder.select(L"EN", L"de-DE");
    EXPECT_EQ(chosen->language(), L"EN");
    EXPECT_EQ(chosen->active_pack(), nullptr);
    EXPECT_EQ(ok_text(*chosen), L"OK");

    // "en" is the built-in language even when a pack claims the code.
    chosen = folder.select(L"en", L"de-DE");
    EXPECT_EQ(chosen->active_pack(), nullptr);
    EXPECT_EQ(ok_text(*chosen), L"OK");

    // A setting wins over the locale and is never changed.
    chosen = folder.select(L"de", L"fr-FR");
    EXPECT_EQ(chosen->language(), L"de");
    EXPECT_EQ(hide_text(*chosen), L"Hide de");

    // A pack without this program's module still translates the common texts.
    chosen = folder.select(L"x1");
    EXPECT_EQ(ok_text(*chosen), L"OK x1");
    EXPECT_EQ(hide_text(*chosen), L"Hide disconnected");
    EXPECT_TRUE(chosen->program_pack()->loaded());

    chosen = folder.select(L"fr", L"de-DE");
    EXPECT_EQ(chosen->language(), L"fr");
    EXPECT_EQ(chosen->active_pack(), nullptr);
}

TEST(language_selection, first_listed_pack_of_a_code_wins_and_damaged_packs_mean_english)
{
    pack_folder folder;
    folder.add(L"dup.Alpha.100000000.lpack", marked_pack(L"alpha"));
    folder.add(L"dup.Beta.100000000.lpack", marked_pack(L"beta"));
    auto bad_signature = marked_pack(L"bad");
    bad_signature[3] = std::byte{0x00};
    folder.add(L"bad.Bad.100000000.lpack", bad_signature);
    auto truncated = marked_pack(L"cut");
    truncated.resize(truncated.size() - 3);
    folder.add(L"cut.Cut.100000000.lpack", truncated);
    folder.add(L"empty.Empty.100000000.lpack", {});
    // A directory out of order: the module with the larger hash first.
    static_assert(module_hash(L"zzz") > module_hash(L"common"));
    auto unsorted = make_pack({{L"zzz", table_builder().image(false)}, {L"common", table_builder().image(false)}}, false);
    folder.add(L"unsorted.Unsorted.100000000.lpack", unsorted);
    folder.add(L"not a pack.lpack", marked_pack(L"name"));

    // Of two packs with one code, the one the folder lists first is used, for every
    // module. No file system promises an order, so the listing is read here as well.
    auto chosen = folder.select(L"dup");
    const std::wstring listed_first = folder.first_listed(L"dup.*");
    ASSERT_TRUE(listed_first == L"dup.Alpha.100000000.lpack" || listed_first == L"dup.Beta.100000000.lpack");
    const bool alpha = listed_first == L"dup.Alpha.100000000.lpack";
    ASSERT_NE(chosen->active_pack(), nullptr);
    EXPECT_EQ(chosen->active_pack()->display_name, alpha ? L"Alpha" : L"Beta");
    EXPECT_EQ(ok_text(*chosen), alpha ? L"OK alpha" : L"OK beta");
    EXPECT_EQ(hide_text(*chosen), alpha ? L"Hide alpha" : L"Hide beta");
    // The file without three name fields is no pack.
    EXPECT_EQ(chosen->packs().size(), 6u);

    for (const wchar_t* code : {L"bad", L"cut", L"empty", L"unsorted"}) {
        chosen = folder.select(code);
        EXPECT_EQ(chosen->active_pack(), nullptr) << code;
        EXPECT_EQ(ok_text(*chosen), L"OK") << code;
        EXPECT_EQ(hide_text(*chosen), L"Hide disconnected") << code;
    }

    // No "languages" folder at all.
    temp_folder bare;
    localization_options options;
    options.program_folder = bare.path();
    options.user_locale_name = [] { return std::wstring(L"de-DE"); };
    localization plain(options, L"");
    EXPECT_TRUE(plain.packs().empty());
    EXPECT_EQ(plain.language(), L"");
    EXPECT_EQ(plain.program_pack()->text_by_key(L"OK"), L"OK");
}

TEST(language_selection, language_list_for_the_settings_dialog)
{
    const std::vector<pack_record> packs = {{L"de", L"Deutsch", {}, L""}, {L"pt-br", L"Portugu\u00EAs", {}, L""},
                                            {L"de", L"Deutsch (alt)", {}, L""}};
    auto list = make_language_list(packs, L"");
    ASSERT_EQ(list.entries.size(), 4u);
    EXPECT_EQ(list.entries[0].display_name, L"English");
    EXPECT_EQ(list.entries[0].code, L"en");
    EXPECT_EQ(list.entries[2].display_name, L"Portugu\u00EAs");
    EXPECT_EQ(list.selected, 0);
    EXPECT_EQ(make_language_list(packs, L"en").selected, 0);
    EXPECT_EQ(make_language_list(packs, L"de").selected, 1);
    EXPECT_EQ(make_language_list(packs, L"pt-br").selected, 2);
    EXPECT_EQ(make_language_list(packs, L"PT-BR").selected, -1);
    EXPECT_EQ(make_language_list(packs, L"fr").selected, -1);
    EXPECT_EQ(make_language_list({}, L"fr").entries.size(), 1u);
}

TEST(german_pack, translates_every_text_and_the_dialogs)
{
    localization_options options;
    options.program_folder = test_support::executable_folder();
    options.program_module_name = L"ServerCfg.exe";
    // An empty setting follows the user's locale, and stays empty so that a later change
    // of the display language is followed too; the list shows the language in use.
    options.user_locale_name = [] { return std::wstring(L"de-AT"); };
    std::wstring setting;
    initialize_localization(options, setting);
    EXPECT_EQ(setting, L"");

    ASSERT_NE(common_strings().head(), nullptr);
    // Every built-in text has a current German translation (none dropped as stale).
    for (const LanguagePack* pack : {&common_strings(), &program_strings()}) {
        const auto& german = pack->head();
        ASSERT_TRUE(german && german->loaded());
        EXPECT_EQ(german->language_code(), "DEU");
        EXPECT_EQ(german->locale_name(), "de-DE");
        const auto& english = german->parent();
        ASSERT_TRUE(english && english->loaded());
        EXPECT_EQ(english->language_code(), "ENU");
        for (const string_entry* entry : english->entries()) {
            if (entry->id == product_title_id)
                continue;  // never translated
            const string_entry* translated = german->find(entry->id);
            ASSERT_NE(translated, nullptr) << std::hex << entry->id;
            EXPECT_EQ(translated->is_list, entry->is_list);
            EXPECT_EQ(translated->items.size(), entry->items.size());
        }
    }

    EXPECT_EQ(load_string_by_key(L"Hide disconnected"), L"Getrennte ausblenden");
    EXPECT_EQ(load_string_by_key(L"Cancel"), L"Abbrechen");
    EXPECT_EQ(load_string_item(string_ids::main_columns, 0), L"Ger\u00E4t");

    const language_list list = ui_language_list(L"");
    ASSERT_GE(list.entries.size(), 2u);
    EXPECT_EQ(list.entries[static_cast<std::size_t>(list.selected)].display_name, L"Deutsch");

    // A dialog's caption and control texts are keys; edits keep what they hold.
    HWND dialog = CreateWindowExW(0, L"STATIC", L"Server Settings", WS_OVERLAPPEDWINDOW, 0, 0, 300, 200, nullptr,
                                  nullptr, nullptr, nullptr);
    ASSERT_NE(dialog, nullptr);
    auto child = [&](const wchar_t* cls, const wchar_t* text) {
        return CreateWindowExW(0, cls, text, WS_CHILD, 0, 0, 50, 20, dialog, nullptr, nullptr, nullptr);
    };
    HWND check = child(L"BUTTON", L"Collect and send anonymous usage statistics");
    HWND cancel = child(L"BUTTON", L"Cancel");
    HWND edit = child(L"EDIT", L"Cancel");
    HWND unknown = child(L"STATIC", L"not a key");
    HWND empty = child(L"STATIC", L"");
    translate_dialog(dialog);
    auto text_of = [](HWND window) {
        wchar_t buffer[256] = {};
        GetWindowTextW(window, buffer, 256);
        return std::wstring(buffer);
    };
    EXPECT_EQ(text_of(dialog), L"Servereinstellungen");
    EXPECT_EQ(text_of(check), L"Anonyme Nutzungsstatistiken sammeln und senden");
    EXPECT_EQ(text_of(cancel), L"Abbrechen");
    EXPECT_EQ(text_of(edit), L"Cancel");
    EXPECT_EQ(text_of(unknown), L"not a key");
    EXPECT_EQ(text_of(empty), L"");
    DestroyWindow(dialog);

    // Back to English for the rest of the process.
    initialize_localization(options, L"en");
    EXPECT_EQ(load_string_by_key(L"Hide disconnected"), L"Hide disconnected");
    EXPECT_EQ(ui_language_list(L"en").selected, 0);
}

TEST(system_text, follows_the_ui_language_and_falls_back_to_the_system_default)
{
    const LANGID german = MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN);
    const std::wstring default_text = message_text(ERROR_INVALID_PARAMETER, 0);
    const std::wstring german_text = message_text(ERROR_INVALID_PARAMETER, german);
    ASSERT_NE(german_text, default_text) << "the system has no German texts to test with";
    // Windows knows Zulu but has no texts in it; it knows no "qq-QQ" at all.
    EXPECT_EQ(message_text(ERROR_INVALID_PARAMETER, MAKELANGID(LANG_ZULU, SUBLANG_ZULU_SOUTH_AFRICA)), default_text);

    pack_folder folder;
    for (const char* locale : {"de-DE", "qq-QQ"}) {
        const auto table = table_builder().language("XXX", locale).text(L"OK", L"OK!").image(false);
        folder.add(std::wstring(locale, locale + 2) + L".Name.1.lpack", make_pack({{L"common", table}}));
    }
    localization_options options;
    options.program_folder = folder.path();
    initialize_localization(options, L"de");
    EXPECT_EQ(ui_language_id(), german);
    EXPECT_EQ(ui_system_message(E_INVALIDARG), german_text);
    initialize_localization(options, L"qq");
    EXPECT_EQ(load_string_by_key(L"OK"), L"OK!");
    EXPECT_EQ(ui_system_message(E_INVALIDARG), default_text);
    initialize_localization(options, L"en");
}
