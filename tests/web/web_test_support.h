#pragma once
// The loopback HTTPS server of the web tests (started by run_with_server.sh) and a way to
// run a coroutine to its end from a test, as the UI thread would.

#include "base/async_context.h"
#include "base/coroutine.h"
#include "base/failure.h"
#include "web/task.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <exception>
#include <optional>
#include <string>

namespace web_test {

struct server_info {
    // Wine's view of the server's state folder; files\ in it is served under /files/.
    std::wstring state;
    unsigned https_port = 0;
    unsigned refused_port = 0;
    unsigned http_port = 0;

    [[nodiscard]] std::wstring base() const { return L"https://localhost:" + std::to_wstring(https_port) + L"/"; }
    [[nodiscard]] std::wstring files() const { return state + L"\\files"; }
};

// Reads WEB_TEST_STATE and, once per process, trusts the server's test authority (adds it
// to the LocalMachine "Root" store). Fails the test when there is no server.
const server_info& server();

// Lets the server's held response /hold/<name> go on (also one that has not started yet).
// Goes to the plain http port, so that it never waits for a connection the program holds.
bool release_held_response(const std::wstring& name);

// A fresh empty folder under the test's temporary folder.
std::wstring fresh_folder(const std::wstring& name);
// The names of the files in a folder.
std::vector<std::wstring> files_in(const std::wstring& folder);
std::string read_file(const std::wstring& path);
void write_file(const std::wstring& path, std::string_view bytes);

// Whether nobody but Administrators, SYSTEM (and, under Wine, the user running it) has any
// access to a folder; the folder's DACL as SDDL goes to sddl.
bool administrators_alone(const std::wstring& folder, std::wstring& sddl);

// The HRESULT an exception carries; S_OK for none, E_ABORT for a cancellation, E_FAIL else.
HRESULT code_of(const std::exception_ptr& error);

// Runs make() (a task) on this thread with the coroutine hook installed, pumping messages
// until it has ended. A task that does not end in time ends the test process: its frame
// points into this one.
template <class T, class Make>
std::pair<std::optional<T>, std::exception_ptr> run_task(Make make, DWORD timeout_ms = 30000);

void pump_until_or_die(const std::function<bool()>& done, DWORD timeout_ms, const char* what);

template <class T, class Make>
std::pair<std::optional<T>, std::exception_ptr> run_task(Make make, DWORD timeout_ms)
{
    const tessel::unique_hhook hook = tessel::windows::impl::install_ui_return_hook();
    std::pair<std::optional<T>, std::exception_ptr> outcome;
    std::atomic<bool> done{false};
    [](Make make, std::pair<std::optional<T>, std::exception_ptr>& outcome,
       std::atomic<bool>& done) -> fibra::fire_and_forget {
        try {
            outcome.first.emplace(co_await make());
        } catch (...) {
            outcome.second = std::current_exception();
        }
        done.store(true);
    }(std::move(make), outcome, done);
    pump_until_or_die([&] { return done.load(); }, timeout_ms, "a web task");
    return outcome;
}

}  // namespace web_test
