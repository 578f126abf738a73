// ui_driver: finds and answers the windows of another process, for process tests.
//
//   ui_driver wait <title> <control id> [timeout ms]   prints the window as hex, exit 1 on timeout
//   ui_driver text <window> <control id>               prints the control's text (UTF-8)
//   ui_driver click <window> <control id>              presses the button
//   ui_driver close <window>                           asks the window to close
//   ui_driver record <file> [anything...]              writes its own command line to <file>
//   ui_driver load <library name>                      LoadLibraryW with the plain search order
//
// "wait" looks for a visible top-level window with exactly this title that has a child
// with the given id, which tells a message box (1101) from the main window (1003).

#include "base/utf.h"
#include "base/window_text.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cwchar>
#include <string>

namespace {

HWND parse_window(const wchar_t* text)
{
    return reinterpret_cast<HWND>(static_cast<uintptr_t>(std::wcstoull(text, nullptr, 16)));
}

HWND find(const std::wstring& title, int control_id)
{
    struct search {
        const std::wstring& title;
        int control_id;
        HWND found;
    } state{title, control_id, nullptr};
    ::EnumWindows(
        [](HWND window, LPARAM lparam) -> BOOL {
            auto& state = *reinterpret_cast<search*>(lparam);
            if (::IsWindowVisible(window) && tessel::windows::window_text(window) == state.title &&
                ::GetDlgItem(window, state.control_id)) {
                state.found = window;
                return FALSE;
            }
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&state));
    return state.found;
}

void print_utf8(const std::wstring& text)
{
    const std::string utf8 = tessel::utf16_to_utf8(text);
    std::fwrite(utf8.data(), 1, utf8.size(), stdout);
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    // Texts go out byte for byte: no "\n" to "\r\n" translation.
    _setmode(_fileno(stdout), _O_BINARY);
    const std::wstring command = argc > 1 ? argv[1] : L"";
    if (command == L"wait" && argc >= 4) {
        const DWORD timeout = argc >= 5 ? std::wcstoul(argv[4], nullptr, 10) : 10000;
        const ULONGLONG deadline = ::GetTickCount64() + timeout;
        do {
            if (HWND window = find(argv[2], std::wcstol(argv[3], nullptr, 10))) {
                std::printf("%llx", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(window)));
                return 0;
            }
            ::Sleep(50);
        } while (::GetTickCount64() < deadline);
        return 1;
    }
    if (command == L"text" && argc == 4) {
        HWND control = ::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10));
        if (!control)
            return 1;
        print_utf8(tessel::windows::window_text(control));
        return 0;
    }
    if (command == L"click" && argc == 4) {
        HWND control = ::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10));
        return control && ::PostMessageW(control, BM_CLICK, 0, 0) ? 0 : 1;
    }
    if (command == L"record" && argc >= 3) {
        FILE* file = _wfopen(argv[2], L"wb");
        if (!file)
            return 1;
        const std::string line = tessel::utf16_to_utf8(::GetCommandLineW());
        std::fwrite(line.data(), 1, line.size(), file);
        std::fclose(file);
        return 0;
    }
    if (command == L"load" && argc == 3)
        return ::LoadLibraryW(argv[2]) ? 0 : 1;
    if (command == L"close" && argc == 3)
        return ::PostMessageW(parse_window(argv[2]), WM_CLOSE, 0, 0) ? 0 : 1;
    std::fputs("usage: ui_driver wait <title> <id> [ms] | text <window> <id> | click <window> <id> | close <window> | "
               "record <file> [...] | load <library>\n",
               stderr);
    return 2;
}
