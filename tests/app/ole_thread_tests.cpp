#include "app/ole_thread.h"

#include "base/failure.h"

#include <gtest/gtest.h>

#include <ole2.h>

#include <cstring>
#include <stdexcept>
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

    // Several threads at once: each call returns only after its own work ran.
    std::vector<int> results(8, 0);
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i)
        callers.emplace_back([&, i] {
            for (int round = 0; round < 25; ++round)
                ole.call([&] { ++results[i]; });
        });
    for (auto& caller : callers)
        caller.join();
    EXPECT_EQ(results, std::vector<int>(8, 25));

    // Work that throws reaches the caller; a call from the OLE thread itself does not deadlock.
    EXPECT_THROW(ole.call([] { tessel::throw_hresult(E_ACCESSDENIED); }), fibra::details::hresult_error);
    bool nested = false;
    ole.call([&] { ole.call([&] { nested = true; }); });
    EXPECT_TRUE(nested);
}

TEST(ole_thread, clipboard_data_survives_the_thread)
{
    {
        tessel::windows::ole_thread ole;
        ole.call([] {
            ASSERT_TRUE(::OpenClipboard(nullptr));
            ::EmptyClipboard();
            const wchar_t text[] = L"shared device key";
            HGLOBAL memory = ::GlobalAlloc(GMEM_MOVEABLE, sizeof text);
            std::memcpy(::GlobalLock(memory), text, sizeof text);
            ::GlobalUnlock(memory);
            ::SetClipboardData(CF_UNICODETEXT, memory);
            ::CloseClipboard();
        });
    }
    ASSERT_TRUE(::OpenClipboard(nullptr));
    HANDLE data = ::GetClipboardData(CF_UNICODETEXT);
    ASSERT_NE(data, nullptr);
    EXPECT_STREQ(static_cast<const wchar_t*>(::GlobalLock(data)), L"shared device key");
    ::GlobalUnlock(data);
    ::CloseClipboard();
}

}  // namespace
