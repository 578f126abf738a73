// Settings that survive a crash: a save deletes the key and writes it again, so a
// process that dies in between leaves a half-written key behind. Whatever step it dies
// at, the next start must load that key without an error, every member either the value
// before the save, the value being saved, or its default, never anything else.

#include "crash_records.h"
#include "test_key.h"

#include "base/module_path.h"
#include "base/unique_handle.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <string>

namespace {

struct child_result {
    std::string output;
    bool paused = false;
    bool timed_out = false;
};

// Runs the save in a child that stops before registry change `step`; a paused child is
// ended there, as a crash would end it.
child_result save_until(const std::wstring& key_path, long step)
{
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE read_end = nullptr, write_end = nullptr;
    if (!::CreatePipe(&read_end, &write_end, &inherit, 0))
        return {};
    tessel::unique_handle reader(read_end), writer(write_end);
    ::SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
    std::wstring line = L"\"" + tessel::module_folder() + L"settings_save_child.exe\" \"" + key_path + L"\" " +
                        std::to_wstring(step);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write_end;
    startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
        return {};
    tessel::unique_handle process(info.hProcess), thread(info.hThread);
    writer.reset();

    // The child prints one line, then waits or ends. Only what the pipe holds is read, so
    // that a child that hangs before its line fails the test instead of blocking it.
    child_result result;
    const ULONGLONG deadline = ::GetTickCount64() + 30000;
    for (bool ended = false; result.output.find('\n') == std::string::npos;) {
        char buffer[256];
        DWORD available = 0, got = 0;
        if (::PeekNamedPipe(read_end, nullptr, 0, nullptr, &available, nullptr) && available &&
            ::ReadFile(read_end, buffer, std::min<DWORD>(available, sizeof buffer), &got, nullptr)) {
            result.output.append(buffer, got);
            continue;
        }
        if (ended)
            break;  // ended without its line, and everything it wrote has been read
        if (::GetTickCount64() > deadline) {
            result.timed_out = true;
            break;
        }
        ended = ::WaitForSingleObject(process.get(), 10) == WAIT_OBJECT_0;
    }
    result.paused = result.output.rfind("paused ", 0) == 0;
    ::TerminateProcess(process.get(), 9);  // a paused child ends here, as a crash would end it
    ::WaitForSingleObject(process.get(), 10000);
    return result;
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
        const child_result run = save_until(key.path(), step);
        ASSERT_FALSE(run.timed_out) << "the save stopping before change " << step << " printed nothing in time: "
                                    << run.output;
        if (!run.paused) {
            ASSERT_EQ(run.output.rfind("saved ", 0), 0u) << run.output;
            break;
        }
        SCOPED_TRACE(run.output);
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
