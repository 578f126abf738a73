#pragma once
// Every link the program shows (About box, message boxes, the promotion line, texts of
// language packs) opens here, and the help file and the third-party notices too.
//
// The program runs elevated and the addresses come from translators and the update
// service, so only an https address with a plain host is opened; anything else (http,
// file:, javascript:, a relative address, a program's path) is refused with a message
// naming it. The browser starts as the signed-in user, not as administrator: through the
// desktop's shell (IShellWindows → the desktop's IShellDispatch2::ShellExecute), which runs
// in Explorer's unelevated process. Where there is no such desktop the program asks before
// it starts the browser elevated; under Wine, which has neither a desktop shell window nor
// elevation, it starts it directly and says so in the debugger output.

#include <windows.h>

#include <string>
#include <string_view>

namespace tessel {

// Whether an address may be opened: "https://" and a host of letters, digits, '.', '-'
// (and an optional port), then nothing that is blank, a control character, a quote or a
// backslash.
[[nodiscard]] bool is_openable_link(std::wstring_view address) noexcept;

// How links are started and refusals told; tests record them.
class link_launcher {
public:
    // Starts file with parameters as the signed-in user; false when that path is missing.
    virtual bool start_unelevated(const std::wstring& file, const std::wstring& parameters) = 0;
    // Starts it from this process after the user agreed, or directly under Wine; false
    // when it could not be started.
    virtual bool start_here(HWND owner, const std::wstring& file, const std::wstring& parameters) = 0;
    // Asks whether to start it from this process; true for yes.
    virtual bool ask(HWND owner, const std::wstring& text) = 0;
    // Tells the user that an address was refused.
    virtual void tell(HWND owner, const std::wstring& text) = 0;

protected:
    ~link_launcher() = default;
};

// The program's own: the desktop's shell, the message box.
[[nodiscard]] link_launcher& system_link_launcher() noexcept;

// Opens an https address in the user's browser, or refuses it (see above). owner may be
// null: the active window then owns any message. False when nothing was started (refused,
// declined, or the start failed; the last error tells why it failed).
bool open_link(HWND owner, std::wstring_view address, link_launcher& launcher = system_link_launcher()) noexcept;
// Opens the compiled help file (hh.exe with "<file>::/<page>") the same way.
bool open_help_file(HWND owner, const std::wstring& help_address,
                    link_launcher& launcher = system_link_launcher()) noexcept;
// Opens a text file in Notepad from the system folder, as the signed-in user and never as
// administrator (an elevated Notepad opens and saves any file through its dialogs). The
// file must be an existing ".txt" file given by its full path; anything else is refused
// with a message naming it, as is a start that only this process could make.
bool open_text_file(HWND owner, const std::wstring& path, link_launcher& launcher = system_link_launcher()) noexcept;

}  // namespace tessel
