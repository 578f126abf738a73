// The console companion's "apply" beside its "list", over one substitute server in this
// process: 1000 devices (and 250), half of which the document must share. Prints a
// table; not a test.
//
// Both commands run as the program runs them (run_program, output into a string). Each
// is timed several times, alternating; the table gives the fastest run (what the code
// costs when nothing else gets in the way on a shared machine) and the median. Between
// two applies the shares it made are undone, untimed. The server counts the calls it
// answers, which is what a server in another process would pay a round trip for.

#include "console/commands.h"
#include "console/console_io.h"
#include "console/exit_codes.h"

#include "bench_timing.h"
#include "server.h"

#include "base/module_path.h"
#include "localization/localization.h"
#include "server_link/server_objects.h"

#include <objbase.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

// Half "Lab" devices, not shared, which the document shares; half "Office" devices, every
// other one shared, which no rule matches and which stay as they are.
sim_server::scenario bench_scenario(int count)
{
    sim_server::scenario s;
    s.settings_read_delay_ms = 0;
    for (int i = 0; i < count; ++i) {
        sim_server::device_spec device;
        wchar_t id[64];
        std::swprintf(id, std::size(id), L"USB\\VID_1D6B&PID_%04X\\BENCH%06d", i, i);
        device.id = L"d" + std::to_wstring(i);
        device.name = (i % 2 ? L"Office device " : L"Lab device ") + std::to_wstring(i);
        device.location = L"1-" + std::to_wstring(i);
        device.class_guid = *sim_server::parse_device_class(i % 4 ? L"disk" : L"hid");
        device.description = L"USB Device";
        device.instance_id = id;
        s.devices.push_back(std::move(device));
        if (i % 4 == 1)
            s.shares.push_back({s.devices.back().id, L"office"});
    }
    return s;
}

struct measured {
    bench::samples time;
    std::uint64_t calls = 0;
};

class bench_server {
public:
    explicit bench_server(int count) : count_(count)
    {
        server_ = sim_server::usb_server::create(bench_scenario(count), {});
        document_ = tessel::module_folder() + L"console_bench_" + std::to_wstring(count) + L".json";
        std::ofstream(document_.c_str(), std::ios::binary)
            << R"({"version": 1, "shares": [{"match": {"name": "Lab *", "class": "DiskDrive"}, "key": "lab"},)"
            << R"({"match": {"name": "Lab *", "class": "HIDClass"}}]})";
    }
    ~bench_server() { ::DeleteFileW(document_.c_str()); }

    // One run of the command; its time and the calls the server answered meanwhile.
    void run(const std::vector<std::wstring>& arguments, measured& m)
    {
        servercfg::console::string_sink out, err;
        const tessel::com_ptr<IUsbServer> server(server_.get());
        servercfg::console::program_io io{out, err, [&] { return server; }};
        const std::uint64_t calls = sim_server::calls_answered;
        const double start = bench::now_ns();
        const int exit = servercfg::console::run_program(arguments, io);
        m.time.ns.push_back(bench::now_ns() - start);
        m.calls = sim_server::calls_answered - calls;
        if (exit != servercfg::console::exit_done)
            std::fprintf(stderr, "%ls ended with %d: %ls\n", arguments[0].c_str(), exit, err.text().c_str());
    }

    void list(measured& m) { run({L"list"}, m); }
    void apply(measured& m)
    {
        run({L"apply", document_}, m);
        // Back to where it started, untimed: the Lab devices unshared.
        for (const auto& share : servercfg::server_shares(*server_.get())) {
            tessel::com_ptr<IUsbDevice> device;
            tessel::unique_bstr name;
            if (SUCCEEDED(share->GetDevice(device.put())) && SUCCEEDED(device->GetName(name.put())) &&
                servercfg::text_of(name).starts_with(L"Lab "))
                (void)server_->UnshareDevice(share.get());
        }
    }

    [[nodiscard]] int count() const noexcept { return count_; }

private:
    int count_;
    tessel::com_ptr<sim_server::usb_server> server_;
    std::wstring document_;
};

void report(int devices, const char* command, const measured& m)
{
    std::printf("%7d  %-7s  %9.1f  %9.1f  %8llu  %8.2f\n", devices, command, m.time.best() / 1e6,
                m.time.median() / 1e6, static_cast<unsigned long long>(m.calls),
                static_cast<double>(m.calls) / devices);
}

}  // namespace

int main()
{
    ::CoInitialize(nullptr);
    tessel::initialize_localization(tessel::module_folder(), L"en");
    std::printf("devices  command  best (ms)  median(ms)  calls  calls/device\n");
    for (const int count : {250, 1000}) {
        bench_server server(count);
        measured list, apply;
        for (int run = 0; run < 5; ++run) {
            server.list(list);
            server.apply(apply);
        }
        report(count, "list", list);
        report(count, "apply", apply);
        std::printf("%7d  apply/list: %.2f (best), %.2f (median)\n", count, apply.time.best() / list.time.best(),
                    apply.time.median() / list.time.median());
    }
    ::CoUninitialize();
    return 0;
}
