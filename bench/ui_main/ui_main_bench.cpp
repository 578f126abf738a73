// The main window against the substitute server, in this process: from creating the
// window to its first painted tree, with an empty server (the reference), the built-in
// scenario and 1000 devices; and a full refresh of 1000 devices, in UI-thread CPU time
// and in wall time. Prints a table; not a test.
//
// Each case is run several times, alternating, and the table gives the fastest run and
// the median: the machine is shared, and the fastest run is what the code costs.

#include "server_link/server_api.h"
#include "base/com_object.h"
#include "base/com_ptr.h"
#include "base/module_path.h"
#include "controls/factories.h"
#include "controls/treeview.h"
#include "localization/localization.h"
#include "nsm/app_settings.h"
#include "ui_main/main_dialog.h"

#include <commctrl.h>
#include <gdiplus.h>
#include <objbase.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

double now_ms()
{
    static const double ms_per_tick = [] {
        LARGE_INTEGER f;
        ::QueryPerformanceFrequency(&f);
        return 1e3 / double(f.QuadPart);
    }();
    LARGE_INTEGER t;
    ::QueryPerformanceCounter(&t);
    return double(t.QuadPart) * ms_per_tick;
}

double thread_cpu_ms()
{
    FILETIME created, ended, kernel, user;
    ::GetThreadTimes(::GetCurrentThread(), &created, &ended, &kernel, &user);
    const auto ticks = [](FILETIME t) { return (ULONGLONG(t.dwHighDateTime) << 32) | t.dwLowDateTime; };
    return double(ticks(kernel) + ticks(user)) / 1e4;
}

void pump()
{
    MSG message;
    while (::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        ::TranslateMessage(&message);
        ::DispatchMessageW(&message);
    }
}

// A scenario file with `count` devices, every third shared, every fifth with a client.
std::wstring write_scenario(int count)
{
    wchar_t folder[MAX_PATH];
    ::GetTempPathW(MAX_PATH, folder);
    const std::wstring path = std::wstring(folder) + L"ui_main_bench_" + std::to_wstring(count) + L".json";
    std::ofstream out(path.c_str(), std::ios::binary);
    out << R"({"settings_read_delay_ms": 0, "devices": [)";
    for (int i = 0; i < count; ++i)
        out << (i ? "," : "") << R"({"id": "d)" << i << R"(", "name": "Bench device )" << i
            << R"(", "class": ")" << (i % 2 ? "disk" : "hid") << R"(", "description": "USB Device )" << i << '"'
            << (i % 5 == 0 ? R"(, "client": "CLIENT-)" + std::to_string(i) + '"' : std::string()) << "}";
    out << R"(], "shares": [)";
    for (int i = 0, n = 0; i < count; i += 3, ++n)
        out << (n ? "," : "") << R"({"device": "d)" << i << R"(", "key": "k)" << i << R"("})";
    out << "]}";
    return path;
}

struct timing {
    std::vector<double> wall;
    std::vector<double> cpu;
};

double fastest(std::vector<double> v) { return *std::min_element(v.begin(), v.end()); }
double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

class bench_case {
public:
    // scenario: a file, or empty for the built-in one.
    explicit bench_case(const std::wstring& scenario)
    {
        ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", scenario.empty() ? nullptr : scenario.c_str());
        ::CoCreateInstance(CLSID_UsbServer, nullptr, CLSCTX_ALL, __uuidof(IUsbServer), server_.put_void());
        ::SetEnvironmentVariableW(L"ULMORA_SIM_SCENARIO", nullptr);
    }
    [[nodiscard]] bool ok() const { return static_cast<bool>(server_); }

    // Window creation to the first painted tree.
    void start_up(timing& t)
    {
        const double wall = now_ms(), cpu = thread_cpu_ms();
        tessel::value_on_stack<servercfg::main_dialog> dialog(server_);
        const HWND window = dialog.create(SW_SHOW);
        ::UpdateWindow(window);
        if (dialog.tree())
            ::UpdateWindow(dialog.tree()->window());
        t.wall.push_back(now_ms() - wall);
        t.cpu.push_back(thread_cpu_ms() - cpu);
        rows_ = dialog.model().size();
        ::DestroyWindow(window);
        pump();
    }

    // Full refreshes of an open window.
    void refreshes(timing& t, int runs)
    {
        tessel::value_on_stack<servercfg::main_dialog> dialog(server_);
        const HWND window = dialog.create(SW_SHOW);
        pump();
        for (int i = 0; i < runs; ++i) {
            const double wall = now_ms(), cpu = thread_cpu_ms();
            dialog.refresh();
            ::UpdateWindow(dialog.tree()->window());
            t.wall.push_back(now_ms() - wall);
            t.cpu.push_back(thread_cpu_ms() - cpu);
        }
        ::DestroyWindow(window);
        pump();
    }

    std::size_t rows_ = 0;

private:
    tessel::com_ptr<IUsbServer> server_;
};

}  // namespace

int main()
{
    ::CoInitialize(nullptr);
    current_app_settings() = app_settings{};
    std::wstring language = L"en";
    tessel::initialize_localization(tessel::module_folder(), language);
    (void)tessel::d2d::dwrite_factory();
    Gdiplus::GdiplusStartupInput gdiplus_input;
    ULONG_PTR gdiplus_token = 0;
    Gdiplus::GdiplusStartup(&gdiplus_token, &gdiplus_input, nullptr);
    INITCOMMONCONTROLSEX controls{sizeof controls, ICC_STANDARD_CLASSES | ICC_BAR_CLASSES};
    ::InitCommonControlsEx(&controls);

    HMODULE module = ::LoadLibraryW((tessel::module_folder() + L"UlmoraSimServer.dll").c_str());
    using entry = HRESULT(STDAPICALLTYPE*)();
    const auto register_server =
        module ? reinterpret_cast<entry>(reinterpret_cast<void*>(::GetProcAddress(module, "DllRegisterServer")))
               : nullptr;
    if (!register_server || FAILED(register_server())) {
        std::fputs("the substitute server cannot be registered\n", stderr);
        return 1;
    }

    std::printf("preparing the servers (1000 local device nodes take a while)...\n");
    std::fflush(stdout);
    bench_case empty(write_scenario(0));
    bench_case built_in(L"");
    bench_case thousand(write_scenario(1000));
    if (!empty.ok() || !built_in.ok() || !thousand.ok()) {
        std::fputs("a substitute server could not be created\n", stderr);
        return 1;
    }

    constexpr int runs = 5;
    timing t_empty, t_built_in, t_thousand, t_refresh;
    for (int i = 0; i < runs; ++i) {
        empty.start_up(t_empty);
        built_in.start_up(t_built_in);
        thousand.start_up(t_thousand);
    }
    thousand.refreshes(t_refresh, runs);

    const double reference = fastest(t_empty.wall);
    std::printf("\n%-44s %6s %10s %10s %10s %8s\n", "case (window creation to first painted tree)", "rows",
                "fastest ms", "median ms", "UI cpu ms", "ratio");
    const auto row = [&](const char* name, std::size_t rows, const timing& t) {
        std::printf("%-44s %6zu %10.1f %10.1f %10.1f %8.2f\n", name, rows, fastest(t.wall), median(t.wall),
                    fastest(t.cpu), fastest(t.wall) / reference);
    };
    row("empty tree (reference)", empty.rows_, t_empty);
    row("built-in scenario", built_in.rows_, t_built_in);
    row("1000 devices", thousand.rows_, t_thousand);
    std::printf("\n%-44s %6s %10s %10s %10s\n", "full refresh of an open window", "rows", "fastest ms", "median ms",
                "UI cpu ms");
    std::printf("%-44s %6zu %10.1f %10.1f %10.1f   (limit: 100 ms UI-thread time)\n", "1000 devices",
                thousand.rows_, fastest(t_refresh.wall), median(t_refresh.wall), fastest(t_refresh.cpu));
    ::CoUninitialize();
    return 0;
}
