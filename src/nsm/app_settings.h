#pragma once
// The utility's per-user settings: one record for the whole process, loaded once at
// start-up and saved whenever one of its members changes.

#include "nsm/archive.h"
#include "nsm/record.h"

#include <windows.h>

#include <string>
#include <string_view>

// The last promotional notice the update service sent.
struct promo_notice {
    std::wstring title;
    std::wstring url;
    tessel::nsm::date expires_on{};

    bool operator==(const promo_notice&) const = default;

    static constexpr std::uint64_t nsm_member_count_hint = 3;
    static constexpr auto nsm_members()
    {
        namespace nsm = tessel::nsm;
        return nsm::members(nsm::member("Title", &promo_notice::title), nsm::member("Url", &promo_notice::url),
                            nsm::member("ExpiresOn", &promo_notice::expires_on));
    }
};

struct app_settings {
    promo_notice promo;
    // A language pack code; empty until the user picks one, "en" for the built-in English.
    std::wstring language;
    bool hide_disconnected = false;
    bool collapse_all = false;
    bool check_for_updates = true;

    bool operator==(const app_settings&) const = default;

    // A fixed hint, kept as the stored layout has always had it.
    static constexpr std::uint64_t nsm_member_count_hint = 7;
    static constexpr auto nsm_members()
    {
        namespace nsm = tessel::nsm;
        return nsm::members(nsm::member("promo", &app_settings::promo), nsm::member("language", &app_settings::language),
                            nsm::member("hideDisconnected", &app_settings::hide_disconnected),
                            nsm::member("collapseAll", &app_settings::collapse_all),
                            nsm::member("checkForUpdates", &app_settings::check_for_updates));
    }
};

// "Software\QMX Software\Ulmora Tools\ServerCfg" under HKEY_CURRENT_USER.
inline constexpr std::wstring_view app_settings_key = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";

// The process-wide record. Only the UI thread touches it.
[[nodiscard]] app_settings& current_app_settings() noexcept;

// Start-up's load. A stored record that cannot be read is not a reason to stop the
// program or to bother the user: whatever was read before the failure stays, every other
// member keeps its default, the failure goes to the debugger output, and the next save
// replaces the damaged key with a clean one. Returns false when that happened.
bool load_app_settings() noexcept;
// Writes the whole record. Throws tessel::nsm::load_exception ("Error creating key").
void save_app_settings();

// The same on any key; for tests and tools. load_settings throws load_exception.
void load_settings(app_settings& record, HKEY root, std::wstring_view subkey, HANDLE transaction = nullptr);
void save_settings(const app_settings& record, HKEY root, std::wstring_view subkey, HANDLE transaction = nullptr);
