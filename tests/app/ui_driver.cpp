// ui_driver: finds and answers the windows of another process, for process tests.
//
//   ui_driver wait <title> <control id> [timeout ms]   prints the window as hex, exit 1 on timeout
//   ui_driver text <window> <control id>               prints the control's text (UTF-8)
//   ui_driver click <window> <control id> [wait]       presses the button; with "wait", returns
//                                                      once the program has handled the press
//   ui_driver close <window>                           asks the window to close
//   ui_driver record <file> [anything...]              writes its own command line to <file>
//   ui_driver load <library name>                      LoadLibraryW with the plain search order
//   ui_driver rows <window> <control id>               prints the rows of a list or tree as
//                                                      its screen-reader interface gives them:
//                                                      "<level>\t<name>" per line
//   ui_driver describe <window> <control id> <row>     prints a row's accessible description
//   ui_driver select <window> <control id> <row>       selects and focuses a row (from 0) that way
//   ui_driver key <window> <control id> <key> [shift]  posts a key press (virtual-key code) to it
//   ui_driver char <window> <control id> <code>        posts a typed character (3 is Ctrl+C)
//   ui_driver menu <timeout ms>                        exit 0 once a popup menu is open
//   ui_driver hover <window> <control id> <row>        moves the mouse onto the row's name
//   ui_driver settext <window> <control id> <text>     sets a control's text
//   ui_driver enabled <window> <control id>            prints 1 or 0
//   ui_driver checked <window> <control id>            prints 0, 1 or 2
//   ui_driver clipboard                                prints the clipboard's Unicode text
//
// "wait" looks for a visible top-level window with exactly this title that has a child
// with the given id, which tells a message box (1101) from the main window (1003).

#include "base/utf.h"
#include "base/window_text.h"

#include <windows.h>
#include <oleacc.h>

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

// The accessible object of a control, through WM_GETOBJECT across the process boundary.
IAccessible* accessible_of(HWND control)
{
    IAccessible* accessible = nullptr;
    if (FAILED(::AccessibleObjectFromWindow(control, static_cast<DWORD>(OBJID_CLIENT), __uuidof(IAccessible),
                                            reinterpret_cast<void**>(&accessible))))
        return nullptr;
    return accessible;
}

std::wstring take_bstr(BSTR text)
{
    std::wstring result = text ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
    ::SysFreeString(text);
    return result;
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
        std::wstring text = tessel::windows::window_text(control);
        if (text.empty()) {
            // GetWindowText does not ask an edit control of another process for its text.
            text.assign(static_cast<std::size_t>(::SendMessageW(control, WM_GETTEXTLENGTH, 0, 0)) + 1, L'\0');
            text.resize(static_cast<std::size_t>(
                ::SendMessageW(control, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()))));
        }
        print_utf8(text);
        return 0;
    }
    if (command == L"click" && (argc == 4 || (argc == 5 && std::wstring(argv[4]) == L"wait"))) {
        HWND control = ::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10));
        if (!control)
            return 1;
        if (argc == 5)
            return ::SendMessageW(control, BM_CLICK, 0, 0), 0;
        return ::PostMessageW(control, BM_CLICK, 0, 0) ? 0 : 1;
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
    if (command == L"rows" && argc == 4) {
        ::CoInitialize(nullptr);
        IAccessible* accessible = accessible_of(::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10)));
        if (!accessible)
            return 1;
        long count = 0;
        accessible->get_accChildCount(&count);
        std::wstring text;
        for (long i = 1; i <= count; ++i) {
            VARIANT child;
            child.vt = VT_I4;
            child.lVal = i;
            BSTR name = nullptr, value = nullptr;
            accessible->get_accName(child, &name);
            accessible->get_accValue(child, &value);
            text += take_bstr(value) + L"\t" + take_bstr(name) + L"\n";
        }
        accessible->Release();
        print_utf8(text);
        return 0;
    }
    if (command == L"describe" && argc == 5) {
        ::CoInitialize(nullptr);
        IAccessible* accessible = accessible_of(::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10)));
        if (!accessible)
            return 1;
        VARIANT child;
        child.vt = VT_I4;
        child.lVal = std::wcstol(argv[4], nullptr, 10) + 1;
        BSTR description = nullptr;
        const HRESULT hr = accessible->get_accDescription(child, &description);
        accessible->Release();
        print_utf8(take_bstr(description));
        return SUCCEEDED(hr) ? 0 : 1;
    }
    if (command == L"hover" && argc == 5) {
        // Onto the row's first text (past the indent, the expander and the icon), then a
        // small move there, which is what starts a tooltip's delay.
        ::CoInitialize(nullptr);
        IAccessible* accessible = accessible_of(::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10)));
        if (!accessible)
            return 1;
        VARIANT child;
        child.vt = VT_I4;
        child.lVal = std::wcstol(argv[4], nullptr, 10) + 1;
        long left = 0, top = 0, width = 0, height = 0;
        const HRESULT hr = accessible->accLocation(&left, &top, &width, &height, child);
        accessible->Release();
        if (FAILED(hr) || height <= 0)
            return 1;
        const int x = left + 3 * height, y = top + height / 2;
        ::SetCursorPos(x - 2, y);
        ::Sleep(100);
        ::SetCursorPos(x, y);
        return 0;
    }
    if (command == L"menu" && argc == 3) {
        const ULONGLONG deadline = ::GetTickCount64() + std::wcstoul(argv[2], nullptr, 10);
        do {
            // Popup menus are top-level windows of the system class "#32768".
            const HWND menu = ::FindWindowW(L"#32768", nullptr);
            if (menu && ::IsWindowVisible(menu))
                return 0;
            ::Sleep(50);
        } while (::GetTickCount64() < deadline);
        return 1;
    }
    if (command == L"char" && argc == 5) {
        HWND control = ::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10));
        return control && ::PostMessageW(control, WM_CHAR, std::wcstoul(argv[4], nullptr, 0), 1) ? 0 : 1;
    }
    if (command == L"select" && argc == 5) {
        ::CoInitialize(nullptr);
        IAccessible* accessible = accessible_of(::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10)));
        if (!accessible)
            return 1;
        VARIANT child;
        child.vt = VT_I4;
        child.lVal = std::wcstol(argv[4], nullptr, 10) + 1;
        const HRESULT hr = accessible->accSelect(SELFLAG_TAKEFOCUS | SELFLAG_TAKESELECTION, child);
        accessible->Release();
        return SUCCEEDED(hr) ? 0 : 1;
    }
    if (command == L"key" && (argc == 5 || argc == 6)) {
        HWND control = ::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10));
        const auto key = static_cast<WPARAM>(std::wcstoul(argv[4], nullptr, 0));
        if (!control)
            return 1;
        // A posted key cannot carry the Shift state (the target reads it from its own
        // thread's key state), so Shift+F10 is posted as the WM_CONTEXTMENU it becomes.
        if (argc == 6 && key == VK_F10)
            return ::PostMessageW(control, WM_CONTEXTMENU, reinterpret_cast<WPARAM>(control), -1) ? 0 : 1;
        ::PostMessageW(control, WM_KEYDOWN, key, 1);
        ::PostMessageW(control, WM_KEYUP, key, 0xC0000001);
        return 0;
    }
    if (command == L"settext" && argc == 5) {
        HWND control = ::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10));
        return control && ::SendMessageW(control, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(argv[4])) ? 0 : 1;
    }
    if ((command == L"enabled" || command == L"checked") && argc == 4) {
        HWND control = ::GetDlgItem(parse_window(argv[2]), std::wcstol(argv[3], nullptr, 10));
        if (!control)
            return 1;
        const LRESULT value = command == L"enabled" ? ::IsWindowEnabled(control) != FALSE
                                                    : ::SendMessageW(control, BM_GETCHECK, 0, 0);
        std::printf("%d", static_cast<int>(value));
        return 0;
    }
    if (command == L"clipboard" && argc == 2) {
        if (!::OpenClipboard(nullptr))
            return 1;
        std::wstring text;
        if (HANDLE data = ::GetClipboardData(CF_UNICODETEXT)) {
            if (const auto* chars = static_cast<const wchar_t*>(::GlobalLock(data))) {
                text = chars;
                ::GlobalUnlock(data);
            }
        }
        ::CloseClipboard();
        print_utf8(text);
        return 0;
    }
    if (command == L"close" && argc == 3)
        return ::PostMessageW(parse_window(argv[2]), WM_CLOSE, 0, 0) ? 0 : 1;
    std::fputs("usage: ui_driver wait <title> <id> [ms] | text <window> <id> | click <window> <id> | close <window> | "
               "record <file> [...] | rows <window> <id> | select <window> <id> <row> | key <window> <id> <key> [shift] | "
               "settext <window> <id> <text> | describe <window> <id> <row> | char <window> <id> <code> | menu <ms> | "
               "hover <window> <id> <row> | "
               "enabled <window> <id> | "
               "checked <window> <id> | clipboard | load <library>\n",
               stderr);
    return 2;
}
