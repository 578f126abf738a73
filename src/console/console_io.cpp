#include "console/console_io.h"

#include "console/configuration.h"

#include "base/failure.h"
#include "base/utf.h"

namespace servercfg::console {

stream_sink::stream_sink(DWORD standard_handle) noexcept : handle_(::GetStdHandle(standard_handle)), console_(false)
{
    DWORD mode = 0;
    console_ = handle_ && handle_ != INVALID_HANDLE_VALUE && ::GetConsoleMode(handle_, &mode);
}

void stream_sink::write(std::wstring_view text)
{
    if (!handle_ || handle_ == INVALID_HANDLE_VALUE || text.empty())
        return;
    DWORD written = 0;
    if (console_) {
        // The console takes at most about 64 KB per call.
        constexpr std::size_t chunk = 8192;
        for (std::size_t at = 0; at < text.size(); at += chunk) {
            const std::wstring_view part = text.substr(at, chunk);
            if (!::WriteConsoleW(handle_, part.data(), static_cast<DWORD>(part.size()), &written, nullptr))
                return;
        }
        return;
    }
    const std::string bytes = tessel::utf16_to_utf8(text);
    for (std::size_t at = 0; at < bytes.size(); at += written)
        if (!::WriteFile(handle_, bytes.data() + at, static_cast<DWORD>(bytes.size() - at), &written, nullptr) ||
            written == 0)
            return;
}

std::wstring read_key_from_standard_input()
{
    const HANDLE input = ::GetStdHandle(STD_INPUT_HANDLE);
    tessel::throw_last_error_if(!input || input == INVALID_HANDLE_VALUE);
    DWORD mode = 0;
    if (::GetConsoleMode(input, &mode)) {
        // Typed at the console: one line, not echoed, so the key does not stay on screen.
        ::SetConsoleMode(input, (mode | ENABLE_LINE_INPUT) & ~ENABLE_ECHO_INPUT);
        std::wstring line(4096, L'\0');
        DWORD read = 0;
        const BOOL ok = ::ReadConsoleW(input, line.data(), static_cast<DWORD>(line.size()), &read, nullptr);
        const DWORD error = ::GetLastError();
        ::SetConsoleMode(input, mode);
        if (!ok)
            tessel::throw_win32(error);
        line.resize(read);
        return key_from_text(tessel::utf16_to_utf8(line));
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        DWORD read = 0;
        if (!::ReadFile(input, buffer, sizeof buffer, &read, nullptr)) {
            const DWORD error = ::GetLastError();
            if (error == ERROR_BROKEN_PIPE)
                break;
            tessel::throw_win32(error);
        }
        if (read == 0)
            break;
        text.append(buffer, read);
        // The key is the first line: nothing after it matters, however much follows.
        if (text.find('\n') != std::string::npos || text.size() >= 64 * 1024)
            break;
    }
    return key_from_text(text);
}

}  // namespace servercfg::console
