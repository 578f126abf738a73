#pragma once
// The console companion as a process under test: ulmora-cfg.exe against the substitute
// server, whose state file carries the shares and settings from one run to the next as a
// real service would. Every test ends with the server's census of every run: whatever a
// run received from the server must have been released when it ended.

#include "scenario.h"

#include "child_process.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace console_test {

struct run_result {
    DWORD exit = ~0u;
    std::string out;  // UTF-8, as the program writes when redirected
    std::string err;
};

// ulmora-cfg.exe with these arguments, `input` on its standard input.
run_result run(const std::wstring& arguments, const std::string& input = {});

// A watch (or any long run) in a console of its own. Redirected: its output is collected
// from a pipe; otherwise it writes to its console, which screen() reads.
class background_run {
public:
    background_run(const std::wstring& arguments, bool redirected);
    ~background_run();
    background_run(const background_run&) = delete;
    background_run& operator=(const background_run&) = delete;

    [[nodiscard]] std::string output();
    // Waits until the output (or the console's screen) holds the text.
    [[nodiscard]] bool shows(const std::string& text, DWORD timeout_ms = 10000);
    // The console's screen as text (UTF-8), line after line.
    [[nodiscard]] std::string screen();
    // Ctrl+C, as typed at its console.
    bool interrupt();
    // Ends it at once, as the system may after a log-off.
    void kill();
    // The exit code, or STILL_ACTIVE when it has not ended in time.
    DWORD wait(DWORD timeout_ms = 15000);
    [[nodiscard]] DWORD process_id() const noexcept { return process_id_; }

private:
    tessel::unique_handle process_handle_;
    DWORD process_id_ = 0;
    tessel::unique_handle reader_;
    std::atomic<bool> stop_{false};
    std::thread pump_;
    std::mutex lock_;
    std::string output_;
};

template <class predicate>
bool eventually(predicate done, DWORD timeout_ms = 10000)
{
    const ULONGLONG deadline = ::GetTickCount64() + timeout_ms;
    for (;;) {
        if (done())
            return true;
        if (::GetTickCount64() > deadline)
            return false;
        ::Sleep(20);
    }
}

std::wstring temp_path(const std::wstring& name);
void write_file(const std::wstring& path, const std::string& bytes);

// Per test: the server registered, a scenario of its own, an empty state, its own
// control pipe and census file.
class console_test : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The server's state now: the state file, or the scenario when nothing changed yet.
    [[nodiscard]] sim_server::scenario state() const;
    // The key a device is shared with; nothing when it is not shared.
    [[nodiscard]] std::optional<std::wstring> share_of(const std::wstring& device_id) const;
    // A command to the server a running watch holds; nothing when none answers.
    std::optional<std::wstring> control(const std::vector<std::wstring>& words);
    // "end" lines in the census: how many runs loaded the server and let go of it.
    [[nodiscard]] int census_ends() const;

    std::wstring scenario_path_;
    std::wstring state_path_;
    std::wstring census_path_;
    std::wstring pipe_name_;
    std::optional<test_support::registered_sim_server> server_;
};

}  // namespace console_test
