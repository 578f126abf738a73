#pragma once
// Window messages registered by name, shared by the dispatch machinery, the controls and
// the OLE thread.

#include <windows.h>

namespace tessel::windows {

// Sent by the custom controls as an alternative to WM_COMMAND.
[[nodiscard]] UINT wm_process_command() noexcept;
// Thread message that carries a coroutine handle (wParam) to resume on the UI thread.
[[nodiscard]] UINT wm_ui_return() noexcept;
// Posted to the OLE thread's message window; lParam points at a call record. Registered
// on first use, which is when the main dialog starts its OLE thread.
[[nodiscard]] UINT wm_ole_call() noexcept;

}  // namespace tessel::windows
