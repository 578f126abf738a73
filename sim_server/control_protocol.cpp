#include "control_protocol.h"

#include "base/failure.h"
#include "base/unique_handle.h"
#include "base/utf.h"

#include "pipe_io.h"

#include <windows.h>

namespace sim_server {

std::wstring control_pipe_name()
{
    wchar_t name[256];
    const DWORD length = ::GetEnvironmentVariableW(pipe_variable, name, static_cast<DWORD>(std::size(name)));
    if (length == 0 || length >= std::size(name))
        return default_pipe_name;
    return std::wstring(name, length);
}

std::string encode_command(const std::vector<std::wstring>& words)
{
    std::string message;
    for (size_t i = 0; i < words.size(); ++i) {
        if (i)
            message += '\n';
        tessel::append_utf16_as_utf8(message, words[i]);
    }
    return message;
}

std::vector<std::wstring> decode_command(std::string_view message)
{
    std::vector<std::wstring> words;
    if (message.empty())
        return words;
    for (;;) {
        const size_t end = message.find('\n');
        words.push_back(tessel::utf8_to_utf16(message.substr(0, end)));
        if (end == std::string_view::npos)
            return words;
        message.remove_prefix(end + 1);
    }
}

std::string encode_answer(const control_answer& answer)
{
    std::string message = answer.ok ? "ok\n" : "error\n";
    tessel::append_utf16_as_utf8(message, answer.text);
    return message;
}

control_answer decode_answer(std::string_view message)
{
    control_answer answer;
    const size_t end = message.find('\n');
    const std::string_view status = message.substr(0, end);
    answer.ok = status == "ok";
    if (end != std::string_view::npos)
        answer.text = tessel::utf8_to_utf16(message.substr(end + 1));
    if (!answer.ok && status != "error")
        answer.text = L"the server gave an answer that is not understood";
    return answer;
}

control_answer send_command(const std::wstring& pipe_name, const std::vector<std::wstring>& words,
                            unsigned timeout_ms)
{
    tessel::unique_file pipe;
    const ULONGLONG deadline = ::GetTickCount64() + timeout_ms;
    for (;;) {
        pipe.reset(::CreateFileW(pipe_name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_OVERLAPPED, nullptr));
        if (pipe)
            break;
        const DWORD error = ::GetLastError();
        const ULONGLONG now = ::GetTickCount64();
        // Busy: the server is answering someone else; it takes the next caller shortly.
        if (error != ERROR_PIPE_BUSY || now >= deadline)
            tessel::throw_win32(error);
        ::WaitNamedPipeW(pipe_name.c_str(), static_cast<DWORD>(deadline - now));
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    tessel::throw_last_error_if(!::SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr));

    const tessel::unique_handle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    tessel::throw_last_error_if(!event);
    OVERLAPPED overlapped{};
    overlapped.hEvent = event.get();
    DWORD bytes = 0;

    const std::string request = encode_command(words);
    const BOOL wrote =
        ::WriteFile(pipe.get(), request.data(), static_cast<DWORD>(request.size()), nullptr, &overlapped);
    if (const DWORD error = finish_io(pipe.get(), overlapped, wrote, nullptr, timeout_ms, bytes))
        tessel::throw_win32(error);

    // The server answers once its thread has run the command, which needs that thread's
    // message loop: a server whose thread is busy elsewhere ends in ERROR_TIMEOUT.
    std::string reply;
    char buffer[4096];
    for (;;) {
        ::ResetEvent(event.get());
        const BOOL read = ::ReadFile(pipe.get(), buffer, sizeof buffer, nullptr, &overlapped);
        const DWORD error = finish_io(pipe.get(), overlapped, read, nullptr, timeout_ms, bytes);
        reply.append(buffer, bytes);
        if (error == ERROR_SUCCESS)
            break;
        if (error != ERROR_MORE_DATA)
            tessel::throw_win32(error);
    }
    return decode_answer(reply);
}

}  // namespace sim_server
