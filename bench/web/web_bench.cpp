// Loopback figures of the web client, side by side with curl in the same run:
//   1. from the start of an update check to the parsed answer (the service's document);
//   2. the download rate of a 50 MB body through read_chunk, and how long the UI thread
//      waits at most for its messages meanwhile; beside it the platform's floor, a bare
//      synchronous WinINet loop of 64 KB InternetReadFile reads of the same address.
// The HTTPS server (Debian's python3) and curl run on the Linux side; Wine starts them.

#include "base/async_context.h"
#include "base/coroutine.h"
#include "base/unique_handle.h"
#include "test_authority.h"
#include "web/http_client.h"
#include "web/update_service.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace tessel::web;

constexpr std::uint64_t download_size = 50ull << 20;
constexpr int check_runs = 30;
constexpr int download_runs = 5;

std::string read_all(const std::wstring& path)
{
    std::ifstream in(std::filesystem::path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

double now_seconds()
{
    static const double frequency = [] {
        LARGE_INTEGER f;
        ::QueryPerformanceFrequency(&f);
        return static_cast<double>(f.QuadPart);
    }();
    LARGE_INTEGER c;
    ::QueryPerformanceCounter(&c);
    return static_cast<double>(c.QuadPart) / frequency;
}

// Runs a Linux command line through Wine (whose handle for it cannot be waited on): the
// command ends by creating `done`, which is polled.
bool run_linux(const std::wstring& command, const std::wstring& done_windows_path, DWORD timeout_ms)
{
    std::wstring line = L"Z:\\bin\\sh -c \"" + command + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return false;
    tessel::unique_handle p(process.hProcess), t(process.hThread);
    for (DWORD waited = 0; waited < timeout_ms; waited += 20) {
        if (::GetFileAttributesW(done_windows_path.c_str()) != INVALID_FILE_ATTRIBUTES)
            return true;
        ::Sleep(20);
    }
    return false;
}

// Pumps this thread's messages until done, and measures the longest time the thread's
// queue waited: a timer message is expected every 10 ms.
double pump_until(const std::atomic<bool>& done)
{
    const UINT_PTR timer = ::SetTimer(nullptr, 0, 10, nullptr);
    double last = now_seconds(), worst = 0;
    while (!done.load()) {
        MSG msg;
        while (::PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
            if (msg.message == WM_TIMER) {
                const double t = now_seconds();
                worst = std::max(worst, t - last);
                last = t;
            }
            ::DispatchMessageW(&msg);
        }
        ::MsgWaitForMultipleObjects(0, nullptr, FALSE, 5, QS_ALLINPUT);
    }
    ::KillTimer(nullptr, timer);
    return worst;
}

struct null_sink final : body_sink {
    void write(const void*, DWORD) override {}
};

// The same address as plainly as WinINet allows: one synchronous session, InternetOpenUrlW
// with the client's flags, 64 KB reads until the end. Bytes received, or 0 on failure.
std::uint64_t bare_wininet_download(const std::wstring& address)
{
    const tessel::unique_hinternet session(
        ::InternetOpenW(std::wstring(http_agent).c_str(), INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
    if (!session)
        return 0;
    const tessel::unique_hinternet request(::InternetOpenUrlW(
        session.get(), address.c_str(), L"Accept: */*", static_cast<DWORD>(-1),
        INTERNET_FLAG_EXISTING_CONNECT | INTERNET_FLAG_KEEP_CONNECTION | INTERNET_FLAG_NO_UI, 0));
    if (!request)
        return 0;
    std::vector<char> buffer(64 * 1024);
    std::uint64_t received = 0;
    for (DWORD read = 0;; received += read) {
        if (!::InternetReadFile(request.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &read))
            return 0;
        if (read == 0)
            return received;
    }
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int wmain()
{
    const tessel::unique_hhook hook = tessel::windows::impl::install_ui_return_hook();

    // The server: the tests' own when they run us, else one started here for 10 minutes.
    const std::wstring unix_state = L"/tmp/tessel-web-bench-" + std::to_wstring(::GetCurrentProcessId());
    std::wstring state = L"Z:" + unix_state;
    std::replace(state.begin(), state.end(), L'/', L'\\');
    ::CreateDirectoryW(state.c_str(), nullptr);
    if (!run_linux(L"mkdir -p " + unix_state + L"/files; (/usr/bin/python3 " + std::wstring(TESSEL_TEST_SERVER_SCRIPT) +
                       L" --state " + unix_state + L" --files " + unix_state + L"/files --exit-after 600 >" +
                       unix_state + L"/server.log 2>&1 &); while [ ! -f " + unix_state +
                       L"/port ]; do sleep 0.05; done",
                   state + L"\\port", 20000)) {
        std::fprintf(stderr, "the loopback server did not start\n");
        return 1;
    }
    unsigned port = 0;
    std::istringstream(read_all(state + L"\\port")) >> port;
    if (!web_test::trust_test_authority(read_all(state + L"\\ca.der"))) {
        std::fprintf(stderr, "the test authority could not be trusted\n");
        return 1;
    }
    const std::wstring base = L"https://localhost:" + std::to_wstring(port) + L"/";

    // 1. The check: request, body, JSON records.
    HttpClient client;
    client.initialize(base + L"packs/");
    std::vector<double> check_times;
    for (int i = 0; i < check_runs; ++i) {
        std::atomic<bool> done{false};
        bool failed = false;
        const double start = now_seconds();
        [](HttpClient& client, std::atomic<bool>& done, bool& failed) -> fibra::fire_and_forget {
            try {
                (void)co_await fetch_update_response(client, 301001234, update_check_mode::automatic, stop_token());
            } catch (...) {
                failed = true;
            }
            done = true;
        }(client, done, failed);
        pump_until(done);
        if (failed) {
            std::fprintf(stderr, "the check failed\n");
            return 1;
        }
        check_times.push_back(now_seconds() - start);
    }
    const std::wstring check_address = update_request_address(base + L"packs/", 301001234, update_check_mode::automatic);
    run_linux(L"for i in $(seq " + std::to_wstring(check_runs) + L"); do curl -s -o /dev/null -w '%{time_total}\\n' --cacert " +
                  unix_state + L"/ca.pem '" + check_address + L"' >> " + unix_state + L"/check.tmp; done; mv " +
                  unix_state + L"/check.tmp " + unix_state + L"/check.txt",
              state + L"\\check.txt", 120000);
    std::vector<double> curl_check_times;
    {
        std::istringstream lines(read_all(state + L"\\check.txt"));
        for (double t; lines >> t;)
            curl_check_times.push_back(t);
    }

    // 2. The download: the client, the bare WinINet loop and curl take turns in every round,
    // so that a change of the machine's load hits all three alike; the ratios are taken per
    // round.
    const std::wstring download_address = base + L"bytes/" + std::to_wstring(download_size);
    std::vector<double> rates, bare_rates, curl_rates, ui_waits, bare_ratios, curl_ratios;
    for (int i = 0; i < download_runs; ++i) {
        std::atomic<bool> done{false};
        std::uint64_t received = 0;
        const double start = now_seconds();
        HRESULT failure = S_OK;
        [](HttpClient& client, std::wstring address, std::atomic<bool>& done, std::uint64_t& received,
           HRESULT& failure) -> fibra::fire_and_forget {
            try {
                const http_request request = co_await client.get(address, L"Accept: */*");
                null_sink sink;
                received = co_await read_body(request, sink, download_size, stop_token(), 256 * 1024);
            } catch (...) {
                failure = tessel::hresult_from_caught_exception();
            }
            done = true;
        }(client, download_address, done, received, failure);
        ui_waits.push_back(pump_until(done));
        const double seconds = now_seconds() - start;
        if (received != download_size) {
            std::fprintf(stderr, "the download failed: 0x%08lX after %llu bytes\n", static_cast<unsigned long>(failure),
                         static_cast<unsigned long long>(received));
            return 1;
        }
        rates.push_back(download_size / seconds / 1e6);

        const double bare_start = now_seconds();
        if (bare_wininet_download(download_address) != download_size) {
            std::fprintf(stderr, "the bare WinINet download failed\n");
            return 1;
        }
        bare_rates.push_back(download_size / (now_seconds() - bare_start) / 1e6);

        const std::wstring figure = L"/download-" + std::to_wstring(i) + L".txt";
        run_linux(L"curl -s -o /dev/null -w '%{speed_download}\\n' --cacert " + unix_state + L"/ca.pem '" +
                      download_address + L"' > " + unix_state + figure + L".tmp; mv " + unix_state + figure + L".tmp " +
                      unix_state + figure,
                  state + figure, 120000);
        double curl_rate = 0;
        std::istringstream(read_all(state + figure)) >> curl_rate;
        if (curl_rate <= 0) {
            std::fprintf(stderr, "curl gave no figure\n");
            return 1;
        }
        curl_rates.push_back(curl_rate / 1e6);
        bare_ratios.push_back(rates.back() / bare_rates.back());
        curl_ratios.push_back(rates.back() / curl_rates.back());
    }
    run_linux(L"curl -s --cacert " + unix_state + L"/ca.pem " + base + L"quit >/dev/null; rm -rf " + unix_state +
                  L"; touch /tmp/tessel-web-bench-done-" + std::to_wstring(::GetCurrentProcessId()),
              L"Z:\\tmp\\tessel-web-bench-done-" + std::to_wstring(::GetCurrentProcessId()), 10000);
    ::DeleteFileW((L"Z:\\tmp\\tessel-web-bench-done-" + std::to_wstring(::GetCurrentProcessId())).c_str());

    if (curl_check_times.empty()) {
        std::fprintf(stderr, "curl gave no figures\n");
        return 1;
    }
    const double check_ms = median(check_times) * 1e3, curl_check_ms = median(curl_check_times) * 1e3;
    std::printf("update check to parsed answer (%d runs, median): HttpClient %.2f ms, curl %.2f ms; "
                "curl/HttpClient time ratio %.2fx\n",
                check_runs, check_ms, curl_check_ms, curl_check_ms / check_ms);
    const double bare_ratio = median(bare_ratios), curl_ratio = median(curl_ratios);
    std::printf("download of %llu MB through read_chunk (%d rounds, medians): HttpClient %.1f MB/s, bare WinINet loop "
                "%.1f MB/s, curl %.1f MB/s; HttpClient/bare WinINet %.2fx, HttpClient/curl %.2fx (must be >= 0.5x)\n",
                static_cast<unsigned long long>(download_size >> 20), download_runs, median(rates), median(bare_rates),
                median(curl_rates), bare_ratio, curl_ratio);
    std::printf("longest wait of the UI thread's 10 ms timer during a download: %.1f ms\n",
                *std::max_element(ui_waits.begin(), ui_waits.end()) * 1e3);
    return curl_ratio >= 0.5 ? 0 : 2;
}
