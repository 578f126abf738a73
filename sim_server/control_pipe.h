#pragma once
// The server end of the control channel: a background thread that accepts one client at
// a time on a named pipe, hands each command to the server's thread through its window,
// and writes the answer back. The server's state is only ever touched on its own thread.

#include "base/unique_handle.h"

#include <windows.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim_server {

class control_pipe {
public:
    struct request {
        std::string command;  // as received (control_protocol.h)
        std::string answer;   // set by the server's thread before `done` is signalled
        tessel::unique_handle done{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    };

    // Creates the pipe and starts serving it; each command is announced by posting
    // `message` to `target`. Throws fibra::details::hresult_error when the pipe cannot be
    // created, e.g. ERROR_ACCESS_DENIED while another server in this session owns the name.
    control_pipe(const std::wstring& name, HWND target, UINT message);
    // Stops the thread; a command being served gets no answer.
    ~control_pipe();
    control_pipe(const control_pipe&) = delete;
    control_pipe& operator=(const control_pipe&) = delete;

    // On the server's thread, after `message` arrived: the commands waiting for an answer.
    [[nodiscard]] std::vector<std::shared_ptr<request>> take_requests();
    static void answer(request& r, std::string text) noexcept;

private:
    void serve() noexcept;
    void serve_one_client();

    tessel::unique_file pipe_;
    tessel::unique_handle stop_;
    tessel::unique_handle io_event_;
    HWND target_;
    UINT message_;
    std::mutex mutex_;
    std::deque<std::shared_ptr<request>> waiting_;
    std::thread thread_;
};

}  // namespace sim_server
