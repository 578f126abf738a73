#include "base/unique_handle.h"
#include "base/scope_exit.h"

#include <gtest/gtest.h>

#include <thread>


namespace {

bool is_open(HANDLE handle)
{
    DWORD flags = 0;
    return ::GetHandleInformation(handle, &flags) != FALSE;
}

TEST(unique_handle, closes_exactly_once_across_moves_resets_and_put)
{
    HANDLE raw = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(is_open(raw));
    {
        tessel::unique_handle first(raw);
        tessel::unique_handle second(std::move(first));
        EXPECT_FALSE(first);
        EXPECT_EQ(second.get(), raw);
        tessel::unique_handle third;
        third = std::move(second);
        third = std::move(third);  // self-move keeps the handle
        EXPECT_TRUE(is_open(raw));
        EXPECT_EQ(third.get(), raw);
    }
    EXPECT_FALSE(is_open(raw));

    tessel::unique_handle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    HANDLE before = event.get();
    // put() must close what it held before handing out the slot.
    HANDLE* slot = event.put();
    EXPECT_FALSE(is_open(before));
    *slot = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_TRUE(is_open(event.get()));

    HANDLE released = event.release();
    EXPECT_FALSE(event);
    EXPECT_TRUE(is_open(released));
    ::CloseHandle(released);
}

TEST(unique_handle, file_family_treats_invalid_handle_value_as_empty)
{
    tessel::unique_file missing(::CreateFileW(L"Z:\\no\\such\\file.txt", GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                              FILE_ATTRIBUTE_NORMAL, nullptr));
    EXPECT_FALSE(missing);
    EXPECT_EQ(missing.get(), INVALID_HANDLE_VALUE);
}

// A flag set for the length of a call is reset also when the call throws; a moved-from
// or released guard does nothing.
TEST(scope_exit, runs_once_when_the_scope_is_left_by_a_throw_and_never_after_release)
{
    int runs = 0;
    try {
        tessel::scope_exit outer([&]() noexcept { ++runs; });
        tessel::scope_exit moved(std::move(outer));
        throw 1;
    } catch (int) {
    }
    EXPECT_EQ(runs, 1);
    {
        tessel::scope_exit released([&]() noexcept { ++runs; });
        released.release();
    }
    EXPECT_EQ(runs, 1);
}

// Each owner undoes its own initialisation only: a refused one (the thread is an STA
// already) must not end the apartment that others hold.
TEST(co_initialize, balances_its_own_initialisation_only)
{
    std::thread([] {
        {
            const tessel::unique_couninitialize first = tessel::co_initialize();
            EXPECT_EQ(first.result(), S_OK);
            {
                const tessel::unique_couninitialize nested = tessel::co_initialize();
                EXPECT_EQ(nested.result(), S_FALSE);
                const tessel::unique_couninitialize refused = tessel::co_initialize(COINIT_MULTITHREADED);
                EXPECT_EQ(refused.result(), RPC_E_CHANGED_MODE);
            }
            const tessel::unique_couninitialize probe = tessel::co_initialize();
            EXPECT_EQ(probe.result(), S_FALSE) << "the apartment of the first owner has gone";
        }
        const tessel::unique_couninitialize again = tessel::co_initialize();
        EXPECT_EQ(again.result(), S_OK) << "an initialisation was left behind";
    }).join();
}

}  // namespace
