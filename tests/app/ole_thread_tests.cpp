#include "app/ole_thread.h"

#include "base/failure.h"

#include <gtest/gtest.h>

#include <ole2.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(ole_thread, calls_from_any_thread_run_synchronously_on_the_ole_thread)
{
    tessel::windows::ole_thread ole;
    EXPECT_NE(ole.thread_id(), ::GetCurrentThreadId());

    DWORD ran_on = 0;
    HRESULT ole_state = S_OK;
    ole.call([&] {
        ran_on = ::GetCurrentThreadId();
        // OLE is initialised there: a second OleInitialize answers S_FALSE.
        ole_state = ::OleInitialize(nullptr);
        ::OleUninitialize();
    });
    EXPECT_EQ(ran_on, ole.thread_id());
    EXPECT_EQ(ole_state, S_FALSE);

    // Work that throws reaches the caller; a call from the OLE thread itself does not deadlock.
    EXPECT_THROW(ole.call([] { tessel::throw_hresult(E_ACCESSDENIED); }), fibra::details::hresult_error);
    bool nested = false;
    ole.call([&] { ole.call([&] { nested = true; }); });
    EXPECT_TRUE(nested);
}

// Each call's record lives on the caller's stack and is gone the moment the call returns:
// a worker that touched it after letting the caller go would write into the next call's
// frame. Many short calls from several threads give that window every chance to show.
TEST(ole_thread, hundreds_of_thousands_of_calls_with_records_on_the_callers_stack)
{
    tessel::windows::ole_thread ole;
    constexpr int callers = 4;
    constexpr int calls_each = 50'000;
    std::vector<int> results(callers, 0);
    std::atomic<int> wrong_values{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < callers; ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < calls_each; ++round) {
                // A value on this frame that the work checks: a stale record pointing at
                // a reused frame would see another round's value.
                volatile int expected = round;
                ole.call([&] {
                    if (expected != round)
                        ++wrong_values;
                    ++results[i];
                });
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(results, std::vector<int>(callers, calls_each));
    EXPECT_EQ(wrong_values.load(), 0);
}

HANDLE WINAPI failing_create_event(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR)
{
    ::SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return nullptr;
}

TEST(ole_thread_death, a_failing_set_up_ends_the_process)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH({ tessel::windows::ole_thread ole(failing_create_event); },
                 "FAIL FAST: CreateEvent failed for the OLE thread .* \\(0x800705AA\\)");
}

}  // namespace
