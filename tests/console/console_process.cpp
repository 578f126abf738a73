#include "console_process.h"

#include "control_protocol.h"

#include "base/module_path.h"
#include "base/utf.h"

#include <fstream>
#include <sstream>

namespace console_test {
namespace {

// Five devices as the server sees them: two of one make (names alike, serials apart), one
// with a name beyond ASCII, one that asks before it is shared, a hub without a serial and
// with a local node below it. The flash drive is shared with a key.
constexpr char test_scenario[] = R"({
  "settings": {"endpoints": "0.0.0.0:32032", "port": 32032, "advertisement": true, "statistics": false},
  "devices": [
    {"id": "flash", "name": "Arcturus Flash 32GB", "class": "disk", "location": "1-1",
     "instance_id": "USB\\VID_3F41&PID_2A07\\AC3200417F5E0091"},
    {"id": "flash64", "name": "Arcturus Flash 64GB", "class": "disk", "location": "1-2",
     "instance_id": "USB\\VID_3F41&PID_2A08\\AC6400417F5E0092"},
    {"id": "cam", "name": "Z\u00fcrich Kamera", "class": "image", "location": "1-3",
     "instance_id": "USB\\VID_1D6B&PID_0102\\CAM0001"},
    {"id": "keyboard", "name": "Kestrel K120 Keyboard", "class": "keyboard", "needs_share_confirmation": true,
     "instance_id": "USB\\VID_3A72&PID_C120\\KS1200043981"},
    {"id": "hub", "name": "Generic USB Hub", "class": "usb", "location": "1-4",
     "instance_id": "USB\\VID_1A40&PID_0801\\5&2C4B1A0&0&2",
     "children": [{"class": "hid", "description": "USB Input Device",
                   "instance_id": "USB\\VID_3A72&PID_0005\\6&1F2D3C4&0&3"}]}
  ],
  "shares": [{"device": "flash", "key": "old-key"}]
})";

std::wstring program(const std::wstring& arguments)
{
    return L"\"" + tessel::module_folder() + L"ulmora-cfg.exe\" " + arguments;
}

struct pipe_pair {
    tessel::unique_handle read, write;
    explicit pipe_pair(bool child_reads)
    {
        SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
        HANDLE r = nullptr, w = nullptr;
        ::CreatePipe(&r, &w, &inherit, 0);
        read.reset(r);
        write.reset(w);
        ::SetHandleInformation(child_reads ? w : r, HANDLE_FLAG_INHERIT, 0);
    }
};

void drain(HANDLE pipe, std::string& into)
{
    char buffer[4096];
    DWORD available = 0, got = 0;
    while (::PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) && available &&
           ::ReadFile(pipe, buffer, std::min<DWORD>(available, sizeof buffer), &got, nullptr) && got)
        into.append(buffer, got);
}

}  // namespace

std::wstring temp_path(const std::wstring& name)
{
    wchar_t folder[MAX_PATH];
    const DWORD length = ::GetTempPathW(MAX_PATH, folder);
    return std::wstring(folder, length) + name;
}

void write_file(const std::wstring& path, const std::string& bytes)
{
    std::ofstream(path.c_str(), std::ios::binary) << bytes;
}

run_result run(const std::wstring& arguments, const std::string& input)
{
    run_result result;
    pipe_pair in(true), out(false), err(false);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in.read.get();
    startup.hStdOutput = out.write.get();
    startup.hStdError = err.write.get();
    std::wstring line = program(arguments);
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
        return result;
    tessel::unique_handle process(info.hProcess), thread(info.hThread);
    in.read.reset();
    out.write.reset();
    err.write.reset();
    DWORD written = 0;
    ::WriteFile(in.write.get(), input.data(), static_cast<DWORD>(input.size()), &written, nullptr);
    in.write.reset();
    const ULONGLONG deadline = ::GetTickCount64() + 60000;
    while (::WaitForSingleObject(process.get(), 10) == WAIT_TIMEOUT) {
        drain(out.read.get(), result.out);
        drain(err.read.get(), result.err);
        if (::GetTickCount64() > deadline) {
            ::TerminateProcess(process.get(), 99);
            break;
        }
    }
    drain(out.read.get(), result.out);
    drain(err.read.get(), result.err);
    ::GetExitCodeProcess(process.get(), &result.exit);
    return result;
}

background_run::background_run(const std::wstring& arguments, bool redirected)
{
    pipe_pair out(false);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    if (redirected) {
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = out.write.get();
        startup.hStdError = out.write.get();
    }
    std::wstring line = program(arguments);
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, redirected, CREATE_NEW_CONSOLE, nullptr, nullptr,
                          &startup, &info))
        return;
    process_handle_.reset(info.hProcess);
    ::CloseHandle(info.hThread);
    process_id_ = info.dwProcessId;
    if (!redirected)
        return;
    out.write.reset();
    reader_ = std::move(out.read);
    // Polled, not read until the pipe closes: a helper Wine starts for the process (its
    // console) may hold the pipe open after the process has ended.
    pump_ = std::thread([this] {
        while (!stop_) {
            std::string got;
            drain(reader_.get(), got);
            if (!got.empty()) {
                const std::lock_guard guard(lock_);
                output_ += got;
            }
            ::Sleep(10);
        }
    });
}

void background_run::kill()
{
    if (process_handle_ && ::WaitForSingleObject(process_handle_.get(), 0) == WAIT_TIMEOUT) {
        ::TerminateProcess(process_handle_.get(), 99);
        ::WaitForSingleObject(process_handle_.get(), 5000);
    }
}

background_run::~background_run()
{
    kill();
    stop_ = true;
    if (pump_.joinable())
        pump_.join();
}

std::string background_run::output()
{
    const std::lock_guard guard(lock_);
    return output_;
}

std::string background_run::screen()
{
    std::string text;
    ::FreeConsole();
    if (::AttachConsole(process_id_)) {
        const tessel::unique_file console(::CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE,
                                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                                        nullptr));
        CONSOLE_SCREEN_BUFFER_INFO info{};
        if (console && ::GetConsoleScreenBufferInfo(console.get(), &info)) {
            std::wstring row(static_cast<std::size_t>(info.dwSize.X), L' ');
            for (SHORT y = 0; y <= info.dwCursorPosition.Y; ++y) {
                DWORD got = 0;
                ::ReadConsoleOutputCharacterW(console.get(), row.data(), static_cast<DWORD>(row.size()), {0, y}, &got);
                text += tessel::utf16_to_utf8(std::wstring_view(row.data(), got)) + "\n";
            }
        }
        ::FreeConsole();
    }
    return text;
}

bool background_run::shows(const std::string& text, DWORD timeout_ms)
{
    return eventually([&] { return (reader_ ? output() : screen()).find(text) != std::string::npos; }, timeout_ms);
}

bool background_run::interrupt()
{
    ::FreeConsole();
    if (!::AttachConsole(process_id_))
        return false;
    // This process shares the console now and would get the Ctrl+C too.
    ::SetConsoleCtrlHandler(nullptr, TRUE);
    const bool sent = ::GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
    ::FreeConsole();
    return sent;
}

DWORD background_run::wait(DWORD timeout_ms)
{
    if (::WaitForSingleObject(process_handle_.get(), timeout_ms) != WAIT_OBJECT_0)
        return STILL_ACTIVE;
    DWORD code = 0;
    ::GetExitCodeProcess(process_handle_.get(), &code);
    return code;
}

void console_test::SetUp()
{
    const std::wstring name = tessel::utf8_to_utf16(testing::UnitTest::GetInstance()->current_test_info()->name());
    scenario_path_ = temp_path(L"cfg-scenario-" + name + L".json");
    state_path_ = temp_path(L"cfg-state-" + name + L".json");
    census_path_ = temp_path(L"cfg-census-" + name + L".txt");
    pipe_name_ = L"\\\\.\\pipe\\qmx.ulmora.simserver.cfg." + std::to_wstring(::GetCurrentProcessId()) + L"." + name;
    write_file(scenario_path_, test_scenario);
    ::DeleteFileW(state_path_.c_str());
    ::DeleteFileW(census_path_.c_str());
    ::SetEnvironmentVariableW(sim_server::scenario_variable, scenario_path_.c_str());
    ::SetEnvironmentVariableW(sim_server::state_variable, state_path_.c_str());
    ::SetEnvironmentVariableW(L"ULMORA_SIM_PIPE", pipe_name_.c_str());
    ::SetEnvironmentVariableW(L"ULMORA_SIM_REFERENCE_REPORT", census_path_.c_str());
    server_.emplace();
    ASSERT_TRUE(server_->registered());
}

void console_test::TearDown()
{
    // This process's own copy of the DLL reports nothing when it goes.
    ::SetEnvironmentVariableW(L"ULMORA_SIM_REFERENCE_REPORT", nullptr);
    std::ifstream census(census_path_.c_str(), std::ios::binary);
    for (std::string line; std::getline(census, line);)
        if (line.starts_with("live "))
            ADD_FAILURE() << "a run did not release what the server handed out: " << line.substr(5)
                          << " (kind, objects, references)";
    census.close();
    server_.reset();
    for (const auto& variable : {sim_server::scenario_variable, sim_server::state_variable, L"ULMORA_SIM_PIPE"})
        ::SetEnvironmentVariableW(variable, nullptr);
    for (const auto& path : {scenario_path_, state_path_, census_path_})
        ::DeleteFileW(path.c_str());
}

sim_server::scenario console_test::state() const
{
    return sim_server::load_scenario_file(::GetFileAttributesW(state_path_.c_str()) != INVALID_FILE_ATTRIBUTES
                                              ? state_path_
                                              : scenario_path_);
}

std::optional<std::wstring> console_test::share_of(const std::wstring& device_id) const
{
    for (const auto& share : state().shares)
        if (share.device_id == device_id)
            return share.key;
    return std::nullopt;
}

std::optional<std::wstring> console_test::control(const std::vector<std::wstring>& words)
{
    try {
        const auto answer = sim_server::send_command(pipe_name_, words, 2000);
        if (answer.ok)
            return answer.text;
    } catch (...) {
    }
    return std::nullopt;
}

int console_test::census_ends() const
{
    int ends = 0;
    std::ifstream census(census_path_.c_str(), std::ios::binary);
    for (std::string line; std::getline(census, line);)
        ends += line.starts_with("end ");
    return ends;
}

}  // namespace console_test
