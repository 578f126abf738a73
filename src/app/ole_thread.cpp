#include "app/ole_thread.h"

#include "base/failure.h"
#include "base/registered_messages.h"

#include <ole2.h>

#include <exception>
#include <system_error>

namespace tessel::windows {
namespace {

constexpr wchar_t window_class_name[] = L"{7d3e9a10-4b2c-4f8e-9a61-2c5d8e0f1a37}";

// Lives on the caller's stack: the caller does not return before `done` is set.
struct call_record {
    const std::function<void()>* work;
    std::exception_ptr error{};
    SRWLOCK lock = SRWLOCK_INIT;
    CONDITION_VARIABLE done_signal = CONDITION_VARIABLE_INIT;
    bool done = false;
};

void name_current_thread() noexcept
{
    // Looked up at run time: older systems do not have it, and the thread then stays unnamed.
    using set_description_fn = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    if (HMODULE kernel = ::GetModuleHandleW(L"kernel32"))
        if (auto set_description =
                reinterpret_cast<set_description_fn>(reinterpret_cast<void*>(::GetProcAddress(kernel, "SetThreadDescription"))))
            set_description(::GetCurrentThread(), L"OLE Thread");
}

}  // namespace

ole_thread::ole_thread() : ole_thread(::CreateEventW) {}

ole_thread::ole_thread(create_event_fn create_event) : ready_(create_event(nullptr, TRUE, FALSE, nullptr))
{
    // Without its thread the window would go on half set up: the process ends instead.
    if (!ready_)
        fail_fast_last_error(L"CreateEvent failed for the OLE thread");
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        fail_fast(L"the OLE thread could not start");
    }
    ::WaitForSingleObject(ready_.get(), INFINITE);
}

ole_thread::~ole_thread()
{
    ::PostThreadMessageW(thread_id_, WM_QUIT, 0, 0);
    thread_.join();
}

void ole_thread::run() noexcept
{
    name_current_thread();
    thread_id_ = ::GetCurrentThreadId();
    const HRESULT ole = ::OleInitialize(nullptr);
    if (FAILED(ole))
        fail_fast_hr(ole, L"OleInitialize failed on the OLE thread");

    WNDCLASSEXW window_class{};
    window_class.cbSize = sizeof window_class;
    window_class.lpfnWndProc = ::DefWindowProcW;
    window_class.hInstance = ::GetModuleHandleW(nullptr);
    window_class.lpszClassName = window_class_name;
    if (!::RegisterClassExW(&window_class) && ::GetLastError() != ERROR_CLASS_ALREADY_EXISTS)
        fail_fast_last_error(L"RegisterClassEx failed for the OLE thread");
    window_ = ::CreateWindowExW(0, window_class_name, L"", WS_OVERLAPPEDWINDOW, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                window_class.hInstance, nullptr);
    if (!window_)
        fail_fast_last_error(L"CreateWindowEx failed for the OLE thread");

    // Makes sure the thread has a message queue before the creator may post WM_QUIT.
    MSG message;
    ::PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
    ::SetEvent(ready_.get());

    const UINT call_message = wm_ole_call();
    BOOL got;
    while ((got = ::GetMessageW(&message, nullptr, 0, 0)) != 0 && got != -1) {
        if (message.message == call_message) {
            auto* record = reinterpret_cast<call_record*>(message.lParam);
            try {
                (*record->work)();
            } catch (...) {
                record->error = std::current_exception();
            }
            // The wake happens under the lock: once the lock is released the caller may
            // see `done`, return and free the record, which lives on its stack.
            ::AcquireSRWLockExclusive(&record->lock);
            record->done = true;
            ::WakeConditionVariable(&record->done_signal);
            ::ReleaseSRWLockExclusive(&record->lock);
            continue;
        }
        ::TranslateMessage(&message);
        ::DispatchMessageW(&message);
    }

    ::OleFlushClipboard();
    ::DestroyWindow(window_);
    ::OleUninitialize();
}

void ole_thread::call(const std::function<void()>& work) const
{
    if (::GetCurrentThreadId() == thread_id_) {
        work();
        return;
    }
    call_record record{&work};
    throw_last_error_if(!::PostMessageW(window_, wm_ole_call(), 0, reinterpret_cast<LPARAM>(&record)));
    ::AcquireSRWLockExclusive(&record.lock);
    while (!record.done)
        ::SleepConditionVariableSRW(&record.done_signal, &record.lock, INFINITE, 0);
    ::ReleaseSRWLockExclusive(&record.lock);
    if (record.error)
        std::rethrow_exception(record.error);
}

}  // namespace tessel::windows
