#include "base/registered_messages.h"

namespace tessel::windows {

UINT wm_process_command() noexcept
{
    static const UINT message = ::RegisterWindowMessageW(L"QMX_WM_PROCESSCOMMAND");
    return message;
}

UINT wm_ui_return() noexcept
{
    static const UINT message = ::RegisterWindowMessageW(L"QMXWM_UIRETURN");
    return message;
}

UINT wm_ole_call() noexcept
{
    static const UINT message = ::RegisterWindowMessageW(L"QMXWM_OLE_2");
    return message;
}

namespace {

// Registered before wWinMain runs (the accessors above keep any earlier static
// initialiser safe). The two names whose identifiers are dropped are still registered, so
// that the session's message table matches that of the other programs of the family.
[[maybe_unused]] const bool registered_at_start = [] {
    (void)wm_process_command();
    (void)wm_ui_return();
    ::RegisterWindowMessageW(L"QMXDMSWM_DELAYEDPROCESSING");
    ::RegisterWindowMessageW(L"QMXDMSWM_CORODELAYED");
    return true;
}();

}  // namespace
}  // namespace tessel::windows
