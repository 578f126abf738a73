// Formats the program's own format strings a million times each with ts_printf (compiled
// once), with fmt (runtime format strings of the same meaning) and with swprintf, and
// prints time per format and heap allocations per format side by side. swprintf is
// measured twice: into its buffer only (the least work any caller can do with it), and with
// the text then copied into the reused string, which is where the other two put theirs.

#include "format/ts_printf.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/xchar.h>

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include "allocation_counter.h"
#include "bench_timing.h"

namespace {

using bench::now_ns;

// Each implementation runs its million formats in batches, interleaved with the others, and
// the fastest batch counts: the machine may be busy with other work, and interleaving
// lets every implementation meet the same disturbances.
constexpr int batches = 20;
constexpr int batch_size = 50'000;
constexpr int iterations = batches * batch_size;
volatile std::size_t sink;

struct measurement {
    double ns_per_format = 1e300;  // fastest batch
    double median_ns = 0;
    long long allocations = 0;  // over all batches
    std::array<double, batches> batch_ns{};
};

template <class Body>
void run_batch(Body& body, measurement& result, int batch_index)
{
    const auto allocations_before = test_support::allocation_count();
    const double start = now_ns();
    for (int i = 0; i < batch_size; ++i)
        body();
    const double elapsed = now_ns() - start;
    result.allocations += static_cast<long long>(test_support::allocation_count() - allocations_before);
    result.batch_ns[static_cast<std::size_t>(batch_index)] = elapsed / batch_size;
    if (elapsed / batch_size < result.ns_per_format)
        result.ns_per_format = elapsed / batch_size;
}

template <class... Bodies>
auto measure(Bodies... bodies)
{
    for (int i = 0; i < 1000; ++i)  // warm-up: caches, and the output grows once
        (bodies(), ...);
    std::array<measurement, sizeof...(Bodies)> results;
    for (int batch = 0; batch < batches; ++batch) {
        std::size_t index = 0;
        (run_batch(bodies, results[index++], batch), ...);
    }
    for (measurement& m : results) {
        std::array<double, batches> sorted = m.batch_ns;
        std::sort(sorted.begin(), sorted.end());
        m.median_ns = (sorted[batches / 2 - 1] + sorted[batches / 2]) / 2;
    }
    return results;
}

struct row {
    const wchar_t* format;
    measurement ts, fmt, crt_buffer, crt_string;
};

void print(const row& r)
{
    std::wstring name = r.format;
    for (auto& c : name)
        if (c == L'\n')
            c = L'|';
    if (name.size() > 40)
        name = name.substr(0, 39) + L"~";
    const auto line = [&](const char* label, double measurement::*value) {
        const double ts = r.ts.*value;
        std::printf("%-41ls %7.1f %7.1f %7.1f %7.1f %7.2f %7.2f %7.2f", label ? L"" : name.c_str(), ts, r.fmt.*value,
                    r.crt_buffer.*value, r.crt_string.*value, ts / (r.fmt.*value), ts / (r.crt_buffer.*value),
                    ts / (r.crt_string.*value));
        if (label)
            std::printf("  %s\n", label);
        else
            std::printf(" %6lld %6lld %6lld %6lld\n", r.ts.allocations, r.fmt.allocations, r.crt_buffer.allocations,
                        r.crt_string.allocations);
    };
    line(nullptr, &measurement::ns_per_format);
    line("(median of the batches)", &measurement::median_ns);
}

}  // namespace

int main()
{
    const std::wstring name = L"ExportedCorrections";
    const std::wstring device = L"USB Mass Storage Device";
    const std::wstring host = L"workstation-17";
    const std::wstring message = L"The remote procedure call failed.";
    const std::int32_t error = static_cast<std::int32_t>(0x80070005);
    std::tm stamp{};
    stamp.tm_year = 125;
    stamp.tm_mon = 0;
    stamp.tm_mday = 2;
    stamp.tm_hour = 3;
    stamp.tm_min = 4;
    stamp.tm_sec = 5;
    stamp.tm_wday = 4;
    stamp.tm_yday = 1;

    std::wstring out;
    out.reserve(256);
    wchar_t buffer[512];
    // swprintf writes into a buffer; measured as it stands, and with its text then copied into
    // the reused string like the others'.
    const auto crt_to_string = [&](int length) {
        out.assign(buffer, static_cast<std::size_t>(length > 0 ? length : 0));
        sink = out.size();
    };
    // fmt 9 has no runtime() wrapper for wide strings; a plain string view is its runtime
    // (parsed at every call) form.
    const auto fmt_to = [&](const wchar_t* format, const auto&... args) {
        fmt::format_to(std::back_inserter(out), fmt::basic_string_view<wchar_t>(format), args...);
    };
    std::vector<row> rows;
    // crt returns swprintf's result.
    const auto add = [&](const wchar_t* format, auto ts, auto fmt, auto crt) {
        const auto results = measure(ts, fmt, [&] { sink = static_cast<std::size_t>(crt()); },
                                     [&] { crt_to_string(crt()); });
        rows.push_back({format, results[0], results[1], results[2], results[3]});
    };

    const ts_printf::compiled_format concatenation(L"{0}{1}");
    add(concatenation.text().data(),
        [&] { out.clear(); ts_printf::format_to(out, concatenation, name, device); sink = out.size(); },
        [&] { out.clear(); fmt_to(L"{0}{1}", name, device); sink = out.size(); },
        [&] { return std::swprintf(buffer, 512, L"%ls%ls", name.c_str(), device.c_str()); });

    const ts_printf::compiled_format padded(L"{0arf0w5}");
    add(padded.text().data(),
        [&] { out.clear(); ts_printf::format_to(out, padded, 42); sink = out.size(); },
        [&] { out.clear(); fmt_to(L"{0:0>5}", 42); sink = out.size(); },
        [&] { return std::swprintf(buffer, 512, L"%05d", 42); });

    const ts_printf::compiled_format error_code(L"{1ub016x}");
    add(error_code.text().data(),
        [&] { out.clear(); ts_printf::format_to(out, error_code, name, error); sink = out.size(); },
        [&] { out.clear(); fmt_to(L"{1:#x}", name, static_cast<std::uint32_t>(error)); sink = out.size(); },
        [&] { return std::swprintf(buffer, 512, L"0x%x", static_cast<unsigned>(error)); });

    // The condition alternates, so every implementation shows both forms.
    const ts_printf::compiled_format conditional(L"{0}{2?<}@{1}{2?>}");
    bool shown = false;
    add(conditional.text().data(),
        [&] { out.clear(); ts_printf::format_to(out, conditional, device, host, shown = !shown); sink = out.size(); },
        [&] { out.clear(); fmt_to((shown = !shown) ? L"{0}@{1}" : L"{0}", device, host); sink = out.size(); },
        [&] {
            return (shown = !shown) ? std::swprintf(buffer, 512, L"%ls@%ls", device.c_str(), host.c_str())
                                    : std::swprintf(buffer, 512, L"%ls", device.c_str());
        });

    const ts_printf::compiled_format markup(L"[[[r:{2}:{0?<}:{1}:{0?>} ]]] {3}");
    add(markup.text().data(),
        [&] { out.clear(); ts_printf::format_to(out, markup, true, host, 3, device); sink = out.size(); },
        [&] { out.clear(); fmt_to(L"[[[r:{2}::{1}: ]]] {3}", true, host, 3, device); sink = out.size(); },
        [&] { return std::swprintf(buffer, 512, L"[[[r:%d::%ls: ]]] %ls", 3, host.c_str(), device.c_str()); });

    const ts_printf::compiled_format failure(
        L"Error connecting to Ulmora Tools Server API: {0} ({1ub016x})\n\nTry to reinstall the product.");
    add(failure.text().data(),
        [&] { out.clear(); ts_printf::format_to(out, failure, message, error); sink = out.size(); },
        [&] {
            out.clear();
            fmt_to(L"Error connecting to Ulmora Tools Server API: {0} ({1:#x})\n\nTry to reinstall the product.", message,
                   static_cast<std::uint32_t>(error));
            sink = out.size();
        },
        [&] {
            return std::swprintf(buffer, 512,
                                 L"Error connecting to Ulmora Tools Server API: %ls (0x%x)\n\nTry to reinstall the product.",
                                 message.c_str(), static_cast<unsigned>(error));
        });

    const ts_printf::compiled_format file_name(L"{0}.{1t(%Y%m%d-%H%M%S)}.xml");
    add(file_name.text().data(),
        [&] { out.clear(); ts_printf::format_to(out, file_name, name, stamp); sink = out.size(); },
        [&] { out.clear(); fmt_to(L"{0}.{1:%Y%m%d-%H%M%S}.xml", name, stamp); sink = out.size(); },
        [&] {
            return std::swprintf(buffer, 512, L"%ls.%04d%02d%02d-%02d%02d%02d.xml", name.c_str(), stamp.tm_year + 1900,
                                 stamp.tm_mon + 1, stamp.tm_mday, stamp.tm_hour, stamp.tm_min, stamp.tm_sec);
        });

    std::printf("%d formats each: ns per format (fastest of %d interleaved batches), ratio of ts_printf's time\n"
                "to the others', heap allocations in all %d formats. swpf: swprintf into its buffer only;\n"
                "swpf+s: and then copied into the reused string, where ts and fmt put their text.\n\n",
                iterations, batches, iterations);
    std::printf("%-41s %7s %7s %7s %7s %7s %7s %7s %6s %6s %6s %6s\n", "format string", "ts", "fmt", "swpf", "swpf+s",
                "/fmt", "/swpf", "/swpf+s", "allocs", "fmt", "swpf", "swpf+s");
    const measurement zero{.ns_per_format = 0};
    row total{L"all", zero, zero, zero, zero};
    for (const row& r : rows) {
        print(r);
        for (auto part : {&row::ts, &row::fmt, &row::crt_buffer, &row::crt_string}) {
            (total.*part).ns_per_format += (r.*part).ns_per_format;
            (total.*part).median_ns += (r.*part).median_ns;
            (total.*part).allocations += (r.*part).allocations;
        }
    }
    print(total);
    return 0;
}
