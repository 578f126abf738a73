// Settings that survive a crash: a save deletes the key and writes it again, so a
// process that dies in between leaves a half-written key behind. Whatever step it dies
// at, the next start must load that key without an error, every member either the value
// before the save, the value being saved, or its default, never anything else.

#include "crash_records.h"
#include "test_key.h"

#include "child_process.h"

#include "base/utf.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <string>

namespace {

// Runs the save in a child that ends abruptly before registry change `step`, as a crash
// there would end it; a child that does not end in time is ended with code 99.
test_support::tool_result save_until(const std::wstring& key_path, long step)
{
    return test_support::run_tool(L"settings_save_child.exe", L"\"" + key_path + L"\" " + std::to_wstring(step));
}

template <class T>
bool is_one_of(const T& value, const T& before, const T& saved, const T& fallback)
{
    return value == before || value == saved || value == fallback;
}

}  // namespace

TEST(settings_crash, a_save_ended_at_any_step_leaves_a_key_that_loads_with_old_new_or_default_values)
{
    nsm_test::test_key key(L"crash");
    const app_settings before = nsm_test::record_before_save();
    const app_settings saved = nsm_test::record_being_saved();
    const app_settings defaults;

    long step = 1;
    for (;; ++step) {
        ASSERT_LT(step, 200) << "the save never finished";
        save_settings(before, HKEY_CURRENT_USER, key.path());
        const auto run = save_until(key.path(), step);
        ASSERT_NE(run.exit_code, 99u) << "the save stopping before change " << step << " did not end in time";
        const std::string output = tessel::utf16_to_utf8(run.output);
        if (output.rfind("paused ", 0) != 0) {
            ASSERT_EQ(output.rfind("saved ", 0), 0u) << output;
            break;
        }
        SCOPED_TRACE(output);
        app_settings loaded;
        try {
            load_settings(loaded, HKEY_CURRENT_USER, key.path());
        } catch (const tessel::nsm::load_exception& e) {
            ADD_FAILURE() << "the key left by a crash does not load: " << std::string(e.what());
            continue;
        }
        EXPECT_TRUE(is_one_of(loaded.language, before.language, saved.language, defaults.language));
        EXPECT_TRUE(is_one_of(loaded.hide_disconnected, before.hide_disconnected, saved.hide_disconnected,
                              defaults.hide_disconnected));
        EXPECT_TRUE(is_one_of(loaded.collapse_all, before.collapse_all, saved.collapse_all, defaults.collapse_all));
        EXPECT_TRUE(is_one_of(loaded.check_for_updates, before.check_for_updates, saved.check_for_updates,
                              defaults.check_for_updates));
        EXPECT_TRUE(is_one_of(loaded.promo.title, before.promo.title, saved.promo.title, defaults.promo.title));
        EXPECT_TRUE(is_one_of(loaded.promo.url, before.promo.url, saved.promo.url, defaults.promo.url));
        EXPECT_TRUE(is_one_of(loaded.promo.expires_on, before.promo.expires_on, saved.promo.expires_on,
                              defaults.promo.expires_on));
    }
    // Clearing, deleting, creating the key and its promo subkey, and writing seven values.
    EXPECT_GE(step, 10);

    // The save that ran to its end wrote exactly the new record.
    app_settings loaded;
    load_settings(loaded, HKEY_CURRENT_USER, key.path());
    EXPECT_EQ(loaded, saved);
}
