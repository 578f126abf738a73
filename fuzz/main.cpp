// servercfg-fuzz: the fuzz campaign over every reader of the program.
//
//   servercfg-fuzz [--reader <name>]... [--inputs <n>] [--first <n>] [--seed <n>] [--out <folder>] [--no-page-heap]
//   servercfg-fuzz --replay <reader> <file>...
//   servercfg-fuzz --list
//   servercfg-fuzz [--out <folder>] --page-heap-probe overflow|use-after-free|double-delete
//
// A campaign first replays the reader's kept reproducers (fuzz/regressions/<reader>),
// then runs <n> mutated inputs (default 1000000) and prints one report line per reader.
// Input number k is the same in every run with the same seed: --first starts a run at
// input <n>, so that slices of one campaign add up to the whole.
// Findings are saved in <folder> (default: the current folder). Every block the process
// allocates comes from the page heap unless --no-page-heap is given. The page heap probe
// makes the named fault on purpose, as a reader would, to show that it is caught. The
// exit code is 0 when nothing was found, 1 when something was, 2 for a usage error, 3
// when a crash or hang ended the run (its reproducer is saved first).

#include "engine.h"
#include "targets.h"

#include "base/utf.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cwchar>
#include <algorithm>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace {

int usage()
{
    std::fputs("usage: servercfg-fuzz [--reader <name>]... [--inputs <n>] [--first <n>] [--seed <n>] [--out <folder>] [--no-page-heap]\n"
               "       servercfg-fuzz --replay <reader> <file>...\n"
               "       servercfg-fuzz --list\n"
               "       servercfg-fuzz [--out <folder>] --page-heap-probe overflow|use-after-free|double-delete\n",
               stderr);
    return 2;
}

// A reader with a memory fault of its own, made the way a reader's bug would make it.
// Every access is volatile, or the compiler drops a store right before the delete.
fuzz::target page_heap_probe(const std::string& fault)
{
    fuzz::target probe;
    probe.name = "page_heap_probe";
    probe.run = [fault](std::span<const std::byte>) -> std::string {
        if (fault == "overflow") {
            const volatile std::size_t size = 13;
            volatile char* block = new char[size];
            block[size] = 1;
            delete[] block;
        } else if (fault == "use-after-free") {
            auto* text = new std::string(40, 'x');
            const volatile char* characters = text->data();
            delete text;
            [[maybe_unused]] const char first = characters[0];
        } else if (fault == "double-delete") {
            char* volatile block = new char[13];
            delete[] block;
            delete[] block;
        }
        return {};
    };
    return probe;
}

std::vector<std::wstring> regression_files(const std::string& reader)
{
    std::vector<std::wstring> files;
    const std::wstring folder = fuzz::seed_data::source_path(L"fuzz/regressions/" + tessel::utf8_to_utf16(reader) + L"/");
    WIN32_FIND_DATAW found{};
    HANDLE search = ::FindFirstFileW((folder + L"*.bin").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return files;
    do
        files.push_back(folder + found.cFileName);
    while (::FindNextFileW(search, &found));
    ::FindClose(search);
    return files;
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    _setmode(_fileno(stdout), _O_BINARY);
    const std::vector<fuzz::target> targets = fuzz::all_targets();
    std::vector<std::string> readers;
    fuzz::campaign_options options;
    options.inputs = 1000000;
    options.output_folder = ".";
    for (int i = 1; i < argc; ++i) {
        const std::wstring arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == L"--no-page-heap") {
            fuzz::memory::use_page_heap(false);
            continue;
        }
        if (arg == L"--page-heap-probe" && has_value) {
            const fuzz::bytes input = fuzz::seed_data::narrow_bytes("probe");
            const std::string fault = tessel::utf16_to_utf8(argv[i + 1]);
            const std::string finding = fuzz::replay(page_heap_probe(fault), input, options);
            std::printf("the page heap missed the %s%s%s\n", fault.c_str(), finding.empty() ? "" : "; ", finding.c_str());
            return 1;
        }
        if (arg == L"--list") {
            for (const auto& t : targets)
                std::printf("%s\n", t.name.c_str());
            return 0;
        }
        if (arg == L"--replay" && has_value) {
            const fuzz::target* t = fuzz::find_target(targets, tessel::utf16_to_utf8(argv[i + 1]));
            if (!t)
                return usage();
            int failed = 0;
            for (int f = i + 2; f < argc; ++f) {
                const fuzz::bytes input = fuzz::seed_data::read_file(argv[f]);
                const std::string finding = fuzz::replay(*t, input, options);
                std::printf("%s: %s\n", tessel::utf16_to_utf8(argv[f]).c_str(), finding.empty() ? "fine" : finding.c_str());
                failed += !finding.empty();
            }
            return failed ? 1 : 0;
        }
        if (!has_value)
            return usage();
        const std::wstring value = argv[++i];
        if (arg == L"--reader")
            readers.push_back(tessel::utf16_to_utf8(value));
        else if (arg == L"--inputs")
            options.inputs = std::wcstoull(value.c_str(), nullptr, 10);
        else if (arg == L"--first")
            options.first = std::wcstoull(value.c_str(), nullptr, 10);
        else if (arg == L"--seed")
            options.seed = std::wcstoull(value.c_str(), nullptr, 10);
        else if (arg == L"--out")
            options.output_folder = tessel::utf16_to_utf8(value);
        else
            return usage();
    }
    for (const std::string& name : readers)
        if (!fuzz::find_target(targets, name))
            return usage();

    std::uint64_t findings = 0;
    std::string summary;
    for (const fuzz::target& t : targets) {
        if (!readers.empty() && std::find(readers.begin(), readers.end(), t.name) == readers.end())
            continue;
        const auto kept = regression_files(t.name);
        for (const std::wstring& file : kept) {
            const std::string finding = fuzz::replay(t, fuzz::seed_data::read_file(file), options);
            if (!finding.empty()) {
                std::printf("%s: regression %s: %s\n", t.name.c_str(), tessel::utf16_to_utf8(file).c_str(), finding.c_str());
                ++findings;
            }
        }
        const ULONGLONG start = ::GetTickCount64();
        const std::uint64_t allocations_before = fuzz::memory::allocations();
        const fuzz::reader_report report = fuzz::run_campaign(t, options);
        const ULONGLONG elapsed_ms = std::max<ULONGLONG>(1, ::GetTickCount64() - start);
        const double per_input = static_cast<double>(fuzz::memory::allocations() - allocations_before) /
                                 static_cast<double>(std::max<std::uint64_t>(1, report.inputs));
        findings += report.findings.size();
        std::string line = fuzz::format_report(report);
        char timing[200];
        std::snprintf(timing, sizeof timing, "%llu s, %.0f inputs per second %s the page heap, %.0f allocations per input\n",
                      elapsed_ms / 1000, static_cast<double>(report.inputs) * 1000.0 / static_cast<double>(elapsed_ms),
                      fuzz::memory::page_heap_in_use() ? "with" : "without", per_input);
        line += "    " + std::to_string(kept.size()) + " findings fixed and kept as regression cases; " + timing;
        // The commonest refusals; the count of distinct ones is in the report line.
        std::vector<std::pair<std::uint64_t, std::string>> texts;
        for (const auto& [text, count] : report.error_texts)
            texts.emplace_back(count, text);
        std::sort(texts.rbegin(), texts.rend());
        for (std::size_t i = 0; i < texts.size() && i < 8; ++i)
            line += "      " + std::to_string(texts[i].first) + " x " + texts[i].second + "\n";
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fflush(stdout);
    }
    return findings ? 1 : 0;
}
