#include "nsm/app_settings.h"

#include "base/failure.h"
#include "base/unique_handle.h"
#include "nsm/registry_archive.h"
#include "nsm/registry_ex.h"

app_settings& current_app_settings() noexcept
{
    static app_settings instance;
    return instance;
}

void load_settings(app_settings& record, HKEY root, std::wstring_view subkey, HANDLE transaction)
{
    tessel::nsm::registry archive(root, std::wstring(subkey), transaction);
    tessel::nsm::load(archive, record);
}

void save_settings(const app_settings& record, HKEY root, std::wstring_view subkey, HANDLE transaction)
{
    const std::wstring path(subkey);
    // The key is rebuilt from nothing on every save, so values that are back at their
    // defaults, or that this version does not know, do not linger.
    {
        HKEY raw = nullptr;
        constexpr REGSAM access = DELETE | KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_ENUMERATE_SUB_KEYS;  // 0x1000B
        if (tessel::registry_ex::open_key(root, path.c_str(), access, transaction, &raw) == ERROR_SUCCESS) {
            tessel::unique_hkey key(raw);
            const LSTATUS cleared = ::RegDeleteTreeW(key.get(), nullptr);
            key.reset();
            if (cleared == ERROR_SUCCESS)
                tessel::registry_ex::delete_key(root, path.c_str(), transaction);
        }
    }
    tessel::nsm::registry archive(root, path, transaction);
    tessel::nsm::save(archive, record);
}

bool load_app_settings() noexcept
{
    try {
        load_settings(current_app_settings(), HKEY_CURRENT_USER, app_settings_key);
        return true;
    } catch (const tessel::nsm::load_exception& failure) {
        tessel::debug_report(L"settings not fully loaded: " + failure.message() + L" at " + failure.location());
    } catch (...) {
        tessel::log_caught_exception(L"settings not loaded");
    }
    return false;
}

void save_app_settings()
{
    save_settings(current_app_settings(), HKEY_CURRENT_USER, app_settings_key);
}
