#pragma once
// The OLE thread: a thread of its own with OLE initialised, for clipboard and other OLE
// work that must not run on the UI thread's apartment. Other threads hand it work through
// synchronous call records posted as "QMXWM_OLE_2" to its message-only window.
//
// The main dialog owns it. Destruction posts WM_QUIT to the thread and waits for it to
// end, so that its final OleFlushClipboard has run (data the program put on the clipboard
// stays available after the program exits) before the process goes on to exit.

#include "base/unique_handle.h"

#include <windows.h>

#include <functional>
#include <thread>

namespace tessel::windows {

class ole_thread {
public:
    // Starts the thread and returns once it accepts calls. A failure of its set-up ends
    // the process (fail fast): nothing sensible can run without it.
    ole_thread();
    // The same with the event's creation supplied, so that tests can make it fail.
    using create_event_fn = HANDLE(WINAPI*)(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR);
    explicit ole_thread(create_event_fn create_event);
    ~ole_thread();
    ole_thread(const ole_thread&) = delete;
    ole_thread& operator=(const ole_thread&) = delete;

    // Runs `work` on the OLE thread and returns when it has run; an exception thrown by
    // `work` is rethrown here. Called on the OLE thread itself, it runs at once.
    void call(const std::function<void()>& work) const;

    [[nodiscard]] DWORD thread_id() const noexcept { return thread_id_; }

private:
    void run() noexcept;

    unique_handle ready_;
    HWND window_ = nullptr;
    DWORD thread_id_ = 0;
    std::thread thread_;
};

}  // namespace tessel::windows
