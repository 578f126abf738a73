#pragma once
// Running the calling thread's message loop in tests, as the program's loop would, until
// something has happened or a time limit has passed.

#include <windows.h>

#include <algorithm>
#include <functional>

namespace test_support {

// Dispatches messages until done() answers true (then true) or timeout_ms have passed
// (then false).
inline bool pump_until(const std::function<bool()>& done, DWORD timeout_ms = 5000)
{
    const ULONGLONG deadline = ::GetTickCount64() + timeout_ms;
    for (;;) {
        MSG msg;
        while (::PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
            ::TranslateMessage(&msg);
            ::DispatchMessageW(&msg);
        }
        if (done())
            return true;
        const ULONGLONG now = ::GetTickCount64();
        if (now >= deadline)
            return false;
        ::MsgWaitForMultipleObjects(0, nullptr, FALSE, static_cast<DWORD>(std::min<ULONGLONG>(deadline - now, 20)),
                                    QS_ALLINPUT);
    }
}

// Dispatches messages for ms milliseconds.
inline void pump_for(DWORD ms)
{
    pump_until([] { return false; }, ms);
}

}  // namespace test_support
