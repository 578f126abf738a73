#include "control_pipe.h"

#include "pipe_io.h"

#include "base/failure.h"

namespace sim_server {
namespace {

// A command line is short; the limit only keeps a misbehaving client from growing the
// buffer without end.
constexpr size_t max_command_size = 64 * 1024;
// How long a connected client may take to send its command and to collect its answer.
constexpr DWORD client_timeout_ms = 10000;

}  // namespace

control_pipe::control_pipe(const std::wstring& name, HWND target, UINT message)
    : stop_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      io_event_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      target_(target),
      message_(message)
{
    tessel::throw_last_error_if(!stop_ || !io_event_);
    // One instance, and only if nobody else serves the name: a second server in the same
    // session must not take commands meant for the first.
    pipe_.reset(::CreateNamedPipeW(name.c_str(),
                                   PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                   PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                                   1, 64 * 1024, 64 * 1024, 0, nullptr));
    tessel::throw_last_error_if(!pipe_);
    thread_ = std::thread([this] { serve(); });
}

control_pipe::~control_pipe()
{
    ::SetEvent(stop_.get());
    thread_.join();
}

std::vector<std::shared_ptr<control_pipe::request>> control_pipe::take_requests()
{
    std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<request>> result(waiting_.begin(), waiting_.end());
    waiting_.clear();
    return result;
}

void control_pipe::answer(request& r, std::string text) noexcept
{
    r.answer = std::move(text);
    ::SetEvent(r.done.get());
}

void control_pipe::serve() noexcept
{
    while (::WaitForSingleObject(stop_.get(), 0) == WAIT_TIMEOUT) {
        try {
            serve_one_client();
        } catch (...) {
            // A client that misbehaves or goes away costs only its own connection; the
            // pause keeps a pipe that fails at once from spinning.
            ::WaitForSingleObject(stop_.get(), 20);
        }
        ::DisconnectNamedPipe(pipe_.get());
    }
}

void control_pipe::serve_one_client()
{
    OVERLAPPED overlapped{};
    overlapped.hEvent = io_event_.get();
    DWORD bytes = 0;

    ::ResetEvent(io_event_.get());
    const BOOL connected = ::ConnectNamedPipe(pipe_.get(), &overlapped);
    if (!connected && ::GetLastError() != ERROR_PIPE_CONNECTED) {
        if (const DWORD error = finish_io(pipe_.get(), overlapped, FALSE, stop_.get(), INFINITE, bytes))
            tessel::throw_win32(error);
    }

    std::string command;
    char buffer[4096];
    for (;;) {
        ::ResetEvent(io_event_.get());
        const BOOL read = ::ReadFile(pipe_.get(), buffer, sizeof buffer, nullptr, &overlapped);
        const DWORD error = finish_io(pipe_.get(), overlapped, read, stop_.get(), client_timeout_ms, bytes);
        command.append(buffer, bytes);
        if (command.size() > max_command_size)
            tessel::throw_win32(ERROR_INVALID_DATA);
        if (error == ERROR_SUCCESS)
            break;
        if (error != ERROR_MORE_DATA)
            tessel::throw_win32(error);
    }

    auto r = std::make_shared<request>();
    tessel::throw_last_error_if(!r->done);
    r->command = std::move(command);
    {
        std::lock_guard lock(mutex_);
        waiting_.push_back(r);
    }
    tessel::throw_last_error_if(!::PostMessageW(target_, message_, 0, 0));
    // The server's thread answers from its message loop, which may be busy for a while (a
    // modal dialog still pumps); only the server going away ends the wait.
    const HANDLE handles[2] = {r->done.get(), stop_.get()};
    if (::WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0)
        return;

    ::ResetEvent(io_event_.get());
    const BOOL wrote =
        ::WriteFile(pipe_.get(), r->answer.data(), static_cast<DWORD>(r->answer.size()), nullptr, &overlapped);
    if (const DWORD error = finish_io(pipe_.get(), overlapped, wrote, stop_.get(), client_timeout_ms, bytes))
        tessel::throw_win32(error);

    // Disconnecting at once could throw away the answer before the client has read it;
    // wait until the client closes its end.
    ::ResetEvent(io_event_.get());
    const BOOL drained = ::ReadFile(pipe_.get(), buffer, sizeof buffer, nullptr, &overlapped);
    finish_io(pipe_.get(), overlapped, drained, stop_.get(), client_timeout_ms, bytes);
}

}  // namespace sim_server
