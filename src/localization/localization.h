#pragma once
// Language choice at start-up and the two process-wide language packs.
//
// The program decides once which language it shows: the setting "language" names a pack
// code; when it is empty the user's locale picks one ("pt-BR" takes a pack "pt-br", else
// "pt"). English is built in and always complete; the chosen pack stays mapped for the
// program's life and only overrides texts. A missing, unreadable or damaged pack means
// English, silently.

#include "localization/language_pack.h"
#include "localization/pack_file.h"
#include "localization/string_id.h"
#include "localization/string_ids.h"

#include <windows.h>

#include <functional>
#include <memory>
#include <source_location>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tessel {

inline constexpr int common_strings_resource = 139;
inline constexpr int program_strings_resource = 138;
inline constexpr std::wstring_view common_module_name = L"common";

struct localization_options {
    // The folder whose "languages" subfolder holds the packs.
    std::wstring program_folder;
    // The module whose "STRINGS" resources 138 and 139 are the built-in tables; null:
    // the executable.
    HMODULE resource_module = nullptr;
    // The module name of this program's strings in a pack; empty: the executable's file
    // name ("ServerCfg.exe").
    std::wstring program_module_name;
    // The user's locale name ("pt-BR"), empty when unknown; unset:
    // GetUserDefaultLocaleName.
    std::function<std::wstring()> user_locale_name;
};

class localization {
public:
    // Chooses the language and builds the packs. An empty setting means "follow the user's
    // locale": the code derived from it is used but never written back, so that the
    // setting stays empty until the user picks a language and a later change of the
    // Windows display language is followed.
    localization(const localization_options& options, std::wstring_view setting);

    localization(const localization&) = delete;
    localization& operator=(const localization&) = delete;

    [[nodiscard]] const std::vector<pack_record>& packs() const noexcept { return packs_; }
    // The code in use: the setting, or the one derived from the locale; empty for English.
    [[nodiscard]] const std::wstring& language() const noexcept { return language_; }
    // The pack file in use, null for English.
    [[nodiscard]] const pack_record* active_pack() const noexcept { return active_; }
    [[nodiscard]] const std::shared_ptr<LanguagePack>& common_pack() const noexcept { return common_; }
    // Also finds every common text.
    [[nodiscard]] const std::shared_ptr<LanguagePack>& program_pack() const noexcept { return program_; }

private:
    std::vector<pack_record> packs_;
    std::wstring language_;
    const pack_record* active_ = nullptr;
    mapped_file view_;
    std::shared_ptr<LanguagePack> common_;
    std::shared_ptr<LanguagePack> program_;
};

// The setting's value derived from a locale name: the pack code equal to the whole
// lower-cased name, else to the part before its first "-", else empty.
[[nodiscard]] std::wstring language_from_locale(std::wstring_view locale_name, const std::vector<pack_record>& packs);

// ---- Process-wide use -------------------------------------------------------------------

// Once at start-up, after the settings have been loaded.
void initialize_localization(std::wstring_view executable_folder, std::wstring_view setting);
void initialize_localization(const localization_options& options, std::wstring_view setting);

// The process-wide packs. Used before initialize_localization, they are English only.
[[nodiscard]] LanguagePack& program_strings();
[[nodiscard]] LanguagePack& common_strings();

// Look-ups in the program pack (which includes the common texts). Throw
// no_string_exception.
[[nodiscard]] std::wstring_view load_string(std::uint32_t id);
[[nodiscard]] std::wstring_view load_string_item(std::uint32_t id, std::size_t index);
[[nodiscard]] std::wstring load_string_by_key(std::wstring_view key);
// The same, with `fallback` when no table holds the text. A missing id is a fault of the
// tables and goes to the debugger output with the caller's place; a key may have no
// translation by design (texts whose English wording is the key) and goes unreported.
[[nodiscard]] std::wstring load_string_or(std::uint32_t id, std::wstring_view fallback,
                                          std::source_location where = std::source_location::current());
[[nodiscard]] std::wstring load_string_item_or(std::uint32_t id, std::size_t index, std::wstring_view fallback,
                                               std::source_location where = std::source_location::current());
[[nodiscard]] std::wstring load_string_by_key_or(std::wstring_view key, std::wstring_view fallback);

// The UI language list: "English" (code "en") first, then every pack in list order.
// selected is the index of the entry the setting names, or -1. ui_language_list selects,
// for an empty setting, the language the locale chose (English when none).
struct language_choice {
    std::wstring code;
    std::wstring display_name;
};
struct language_list {
    std::vector<language_choice> entries;
    int selected = -1;
};
[[nodiscard]] language_list make_language_list(const std::vector<pack_record>& packs, std::wstring_view setting);
[[nodiscard]] language_list ui_language_list(std::wstring_view setting);

// Translates a dialog when it is created: its caption and each child control's text are
// keys of the string tables (their English text). Edit fields, combo boxes and controls
// without text are left alone; a text that no table holds stays English and is reported
// to the debugger output, since it is a missing string.
void translate_dialog(HWND dialog) noexcept;
void translate_dialog(HWND dialog, const LanguagePack& pack) noexcept;

}  // namespace tessel
