#pragma once
// Overlapped pipe I/O with a time limit and a stop event, for both ends of the control
// channel: neither end may hang when the other one stops answering.

#include <windows.h>

namespace sim_server {

// Finishes an overlapped call that `started` says whether it completed at once. Returns
// ERROR_SUCCESS, the call's error (ERROR_MORE_DATA for a longer message), ERROR_TIMEOUT,
// or ERROR_OPERATION_ABORTED when `stop` (may be null) was signalled first. A call that
// is abandoned is cancelled and waited for, so the OVERLAPPED can go away afterwards.
inline DWORD finish_io(HANDLE file, OVERLAPPED& overlapped, BOOL started, HANDLE stop, DWORD timeout_ms,
                       DWORD& bytes) noexcept
{
    bytes = 0;
    if (!started) {
        const DWORD error = ::GetLastError();
        if (error == ERROR_MORE_DATA) {
            ::GetOverlappedResult(file, &overlapped, &bytes, FALSE);
            return error;
        }
        if (error != ERROR_IO_PENDING)
            return error;
    }
    const HANDLE handles[2] = {overlapped.hEvent, stop};
    const DWORD waited = ::WaitForMultipleObjects(stop ? 2 : 1, handles, FALSE, timeout_ms);
    if (waited != WAIT_OBJECT_0) {
        ::CancelIoEx(file, &overlapped);
        ::GetOverlappedResult(file, &overlapped, &bytes, TRUE);
        return waited == WAIT_TIMEOUT ? ERROR_TIMEOUT : ERROR_OPERATION_ABORTED;
    }
    if (!::GetOverlappedResult(file, &overlapped, &bytes, FALSE))
        return ::GetLastError();
    return ERROR_SUCCESS;
}

}  // namespace sim_server
