#include "localization/localization.h"

#include "base/failure.h"
#include "base/module_path.h"

#include <cwctype>
#include <mutex>

namespace tessel {

namespace {

std::wstring system_user_locale_name()
{
    wchar_t name[LOCALE_NAME_MAX_LENGTH] = {};
    if (GetUserDefaultLocaleName(name, LOCALE_NAME_MAX_LENGTH) == 0)
        return {};
    return name;
}

}  // namespace

std::wstring language_from_locale(std::wstring_view locale_name, const std::vector<pack_record>& packs)
{
    std::wstring lowered(locale_name);
    for (wchar_t& unit : lowered)
        unit = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(unit)));
    auto has_pack = [&](std::wstring_view code) {
        for (const pack_record& pack : packs)
            if (pack.code == code)
                return true;
        return false;
    };
    if (lowered.empty())
        return {};
    if (has_pack(lowered))
        return lowered;
    const auto dash = lowered.find(L'-');
    if (dash == std::wstring::npos)
        return {};
    lowered.resize(dash);
    return has_pack(lowered) ? lowered : std::wstring();
}

localization::localization(const localization_options& options, std::wstring_view setting)
    : language_(setting)
{
    // Without a folder there is nothing to enumerate (the English-only packs used before
    // start-up has chosen a language).
    if (!options.program_folder.empty())
        packs_ = enumerate_packs(options.program_folder);

    if (language_.empty()) {
        const std::wstring locale = options.user_locale_name ? options.user_locale_name() : system_user_locale_name();
        language_ = language_from_locale(locale, packs_);
    }
    const std::wstring& language = language_;

    std::optional<std::span<const std::byte>> common_image;
    std::optional<std::span<const std::byte>> program_image;
    if (!language.empty() && language != L"en") {
        for (const pack_record& pack : packs_) {
            if (pack.code != language)
                continue;
            // Only the first pack with the code counts, even when it turns out unusable.
            if (view_.map(pack.path) && is_well_formed_pack(view_.bytes())) {
                active_ = &pack;
                const std::wstring program_module =
                    options.program_module_name.empty() ? module_file_name() : options.program_module_name;
                common_image = find_module(view_.bytes(), common_module_name);
                program_image = find_module(view_.bytes(), program_module);
            } else {
                view_.reset();
            }
            break;
        }
    }

    common_ = std::make_shared<LanguagePack>(options.resource_module, common_strings_resource, nullptr, common_image,
                                             std::wstring(common_module_name));
    program_ = std::make_shared<LanguagePack>(options.resource_module, program_strings_resource, common_,
                                              program_image,
                                              options.program_module_name.empty() ? module_file_name()
                                                                                   : options.program_module_name);
}

// ---- Process-wide use -------------------------------------------------------------------

namespace {

std::mutex global_lock;
std::unique_ptr<localization> global_localization;

localization& global()
{
    std::lock_guard guard(global_lock);
    if (!global_localization) {
        global_localization = std::make_unique<localization>(localization_options{}, L"en");
    }
    return *global_localization;
}

}  // namespace

void initialize_localization(const localization_options& options, std::wstring_view setting)
{
    auto chosen = std::make_unique<localization>(options, setting);
    std::lock_guard guard(global_lock);
    global_localization = std::move(chosen);
}

void initialize_localization(std::wstring_view executable_folder, std::wstring_view setting)
{
    localization_options options;
    options.program_folder = executable_folder;
    initialize_localization(options, setting);
}

LanguagePack& program_strings()
{
    return *global().program_pack();
}

LanguagePack& common_strings()
{
    return *global().common_pack();
}

std::wstring_view load_string(std::uint32_t id)
{
    return program_strings().text(id);
}

std::wstring_view load_string_item(std::uint32_t id, std::size_t index)
{
    return program_strings().item(id, index);
}

std::wstring load_string_by_key(std::wstring_view key)
{
    return program_strings().text_by_key(key);
}

namespace {

std::wstring missing_string(std::uint32_t id, std::wstring_view fallback, const std::source_location& where)
{
    log_caught_exception(L"no string for id " + std::to_wstring(id), where);
    return std::wstring(fallback);
}

}  // namespace

std::wstring load_string_or(std::uint32_t id, std::wstring_view fallback, std::source_location where)
{
    try {
        return std::wstring(load_string(id));
    } catch (const no_string_exception&) {
        return missing_string(id, fallback, where);
    }
}

std::wstring load_string_item_or(std::uint32_t id, std::size_t index, std::wstring_view fallback,
                                 std::source_location where)
{
    try {
        return std::wstring(load_string_item(id, index));
    } catch (const no_string_exception&) {
        return missing_string(id, fallback, where);
    }
}

std::wstring load_string_by_key_or(std::wstring_view key, std::wstring_view fallback)
{
    try {
        return load_string_by_key(key);
    } catch (const no_string_exception&) {
        return std::wstring(fallback);
    }
}

language_list make_language_list(const std::vector<pack_record>& packs, std::wstring_view setting)
{
    language_list list;
    // The one text that is not looked up: it names the built-in language in itself.
    list.entries.push_back({L"en", L"English"});
    if (setting.empty() || setting == L"en")
        list.selected = 0;
    for (const pack_record& pack : packs) {
        if (list.selected < 0 && pack.code == setting)
            list.selected = static_cast<int>(list.entries.size());
        list.entries.push_back({pack.code, pack.display_name});
    }
    return list;
}

language_list ui_language_list(std::wstring_view setting)
{
    const localization& current = global();
    return make_language_list(current.packs(), setting.empty() ? std::wstring_view(current.language()) : setting);
}

void translate_dialog(HWND dialog) noexcept
{
    try {
        translate_dialog(dialog, program_strings());
    } catch (...) {
        log_caught_exception(L"translate_dialog: the language packs are not available");
    }
}

namespace {

std::wstring window_text(HWND window)
{
    std::wstring text(static_cast<std::size_t>(GetWindowTextLengthW(window)) + 1, L'\0');
    text.resize(static_cast<std::size_t>(GetWindowTextW(window, text.data(), static_cast<int>(text.size()))));
    return text;
}

bool holds_user_text(HWND control)
{
    wchar_t class_name[32] = {};
    GetClassNameW(control, class_name, static_cast<int>(std::size(class_name)));
    return CompareStringOrdinal(class_name, -1, L"Edit", -1, TRUE) == CSTR_EQUAL ||
           CompareStringOrdinal(class_name, -1, L"ComboBox", -1, TRUE) == CSTR_EQUAL ||
           CompareStringOrdinal(class_name, -1, L"RichEdit20W", -1, TRUE) == CSTR_EQUAL;
}

void translate_window(HWND window, const LanguagePack& pack)
{
    const std::wstring key = window_text(window);
    if (key.empty())
        return;
    try {
        const std::wstring text = pack.text_by_key(key);
        if (text != key)
            SetWindowTextW(window, text.c_str());
    } catch (const no_string_exception&) {
        debug_report(L"no string for the dialog text \"" + key + L"\"");
    }
}

}  // namespace

void translate_dialog(HWND dialog, const LanguagePack& pack) noexcept
{
    try {
        translate_window(dialog, pack);
        for (HWND child = GetWindow(dialog, GW_CHILD); child; child = GetWindow(child, GW_HWNDNEXT))
            if (!holds_user_text(child))
                translate_window(child, pack);
    } catch (...) {
        log_caught_exception(L"translate_dialog failed");
    }
}

}  // namespace tessel
