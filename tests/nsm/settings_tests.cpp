// The application settings record in a throwaway key.

#include "nsm/app_settings.h"
#include "test_key.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <utility>

using nsm_test::test_key;
using ::testing::UnorderedElementsAre;

namespace {

std::wstring load_failure(app_settings& record, const test_key& key)
{
    try {
        load_settings(record, HKEY_CURRENT_USER, key.path());
    } catch (const tessel::nsm::load_exception& e) {
        return e.message();
    }
    return L"loaded";
}

}  // namespace

TEST(app_settings, loading_a_missing_key_creates_it_and_keeps_what_is_not_stored)
{
    test_key key(L"fresh");
    app_settings record;
    record.language = L"stale";  // proves that load does not clear what is not stored
    load_settings(record, HKEY_CURRENT_USER, key.path());
    EXPECT_TRUE(key.exists());  // loading creates the key, empty
    EXPECT_EQ(record.language, L"stale");
}

TEST(app_settings, every_member_round_trips_and_save_rebuilds_the_key)
{
    test_key key(L"round");
    app_settings saved;
    saved.language = L"pt-br";
    saved.hide_disconnected = true;
    saved.collapse_all = true;
    saved.check_for_updates = false;
    saved.promo.title = L"[[[bNew]]] release";
    saved.promo.url = L"https://example.test/p";
    saved.promo.expires_on = tessel::nsm::date(tessel::nsm::days(19874));
    key.set_string(L"obsolete", L"from an older version");
    key.set_dword(L"extra", 5, L"promo");
    save_settings(saved, HKEY_CURRENT_USER, key.path());
    EXPECT_THAT(key.listing(), UnorderedElementsAre(L"language:1", L"hideDisconnected:4", L"collapseAll:4",
                                                    L"checkForUpdates:4", L"promo\\"));
    EXPECT_THAT(key.listing(L"promo"), UnorderedElementsAre(L"Title:1", L"Url:1", L"ExpiresOn:1"));

    app_settings loaded;
    load_settings(loaded, HKEY_CURRENT_USER, key.path());
    EXPECT_EQ(loaded, saved);

    // Turning an option on and off again leaves no value behind.
    loaded.hide_disconnected = false;
    loaded.promo = {};
    save_settings(loaded, HKEY_CURRENT_USER, key.path());
    EXPECT_THAT(key.listing(), UnorderedElementsAre(L"language:1", L"collapseAll:4", L"checkForUpdates:4", L"promo\\"));
    EXPECT_THAT(key.listing(L"promo"), ::testing::IsEmpty());
}

TEST(app_settings, stored_values_of_other_types_and_versions)
{
    test_key key(L"types");
    const std::uint64_t zero = 0;
    key.set(L"checkForUpdates", REG_QWORD, &zero, sizeof zero);
    key.set_dword(L"collapseAll", 7);
    key.set_string(L"unknownName", L"ignored");
    key.set_dword(L"language", 1, L"sub");  // a subkey nobody knows
    app_settings record;
    EXPECT_EQ(load_failure(record, key), L"loaded");
    EXPECT_FALSE(record.check_for_updates);
    EXPECT_TRUE(record.collapse_all);

    // A newer layout is not read at all.
    key.set_dword(L"@version", 1);
    app_settings newer;
    EXPECT_EQ(load_failure(newer, key), L"loaded");
    EXPECT_EQ(newer, app_settings{});
    ::RegDeleteKeyValueW(key.open().get(), nullptr, L"@version");

    // Kind mismatches fail the load, keeping what was read before (entries come in name
    // order: checkForUpdates, collapseAll, hideDisconnected, ...).
    key.set_string(L"hideDisconnected", L"0");
    key.set_string(L"language", L"de");
    app_settings partial;
    EXPECT_EQ(load_failure(partial, key), L"Boolean expected");
    EXPECT_FALSE(partial.check_for_updates);
    EXPECT_TRUE(partial.collapse_all);
    EXPECT_EQ(partial.language, L"");

    ::RegDeleteKeyValueW(key.open().get(), nullptr, L"hideDisconnected");
    key.set_string(L"ExpiresOn", L"tomorrow", L"promo");
    EXPECT_EQ(load_failure(partial, key), L"Bad format");
    key.set_dword(L"ExpiresOn", 1, L"promo");
    EXPECT_EQ(load_failure(partial, key), L"Date expected");
    key.set_string(L"ExpiresOn", L"2024-05-31", L"promo");
    EXPECT_EQ(load_failure(partial, key), L"loaded");
    EXPECT_EQ(partial.promo.expires_on, tessel::nsm::date(tessel::nsm::days(19874)));
    EXPECT_EQ(partial.language, L"de");
}

// The expiry date is stored as local time with its offset. Both must come from one zone:
// under a TZ variable that disagrees with the system's zone the date would otherwise move
// by a day on every save and load west of UTC.
TEST(app_settings, expiry_date_survives_saves_and_loads_west_and_east_of_utc)
{
    test_key key(L"zones");
    const tessel::nsm::date day(tessel::nsm::days(19874));  // 2024-05-31
    const std::pair<const char*, const wchar_t*> zones[] = {{"TZ=EST5", L"2024-05-30T19:00:00-0500"},
                                                            {"TZ=HST10", L"2024-05-30T14:00:00-1000"},
                                                            {"TZ=JST-9", L"2024-05-31T09:00:00+0900"},
                                                            {"TZ=NZT-12", L"2024-05-31T12:00:00+1200"}};
    for (const auto& [zone, stored] : zones) {
        _putenv(zone);
        _tzset();
        app_settings record;
        record.promo.expires_on = day;
        for (int round = 0; round < 3; ++round) {
            save_settings(record, HKEY_CURRENT_USER, key.path());
            record = {};
            load_settings(record, HKEY_CURRENT_USER, key.path());
            EXPECT_EQ(record.promo.expires_on, day) << zone << ", round " << round;
        }
        wchar_t text[64] = {};
        DWORD size = sizeof text;
        ::RegGetValueW(key.open(L"promo").get(), nullptr, L"ExpiresOn", RRF_RT_REG_SZ, nullptr, text, &size);
        EXPECT_STREQ(text, stored) << zone;
    }
    _putenv("TZ=");
    _tzset();
}
