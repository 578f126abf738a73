// servercfg-fuzz: the fuzz campaign over every reader of the program.
//
//   servercfg-fuzz [--reader <name>]... [--inputs <n>] [--seed <n>] [--out <folder>]
//   servercfg-fuzz --replay <reader> <file>...
//   servercfg-fuzz --list
//
// A campaign first replays the reader's kept reproducers (fuzz/regressions/<reader>),
// then runs <n> mutated inputs (default 1000000) and prints one report line per reader.
// Findings are saved in <folder> (default: the current folder). The exit code is 0 when
// nothing was found, 1 when something was, 2 for a usage error, 3 when a crash or hang
// ended the run (its reproducer is saved first).

#include "engine.h"
#include "targets.h"

#include "base/utf.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cwchar>
#include <algorithm>
#include <utility>
#include <string>
#include <vector>

namespace {

int usage()
{
    std::fputs("usage: servercfg-fuzz [--reader <name>]... [--inputs <n>] [--seed <n>] [--out <folder>]\n"
               "       servercfg-fuzz --replay <reader> <file>...\n"
               "       servercfg-fuzz --list\n",
               stderr);
    return 2;
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
        const fuzz::reader_report report = fuzz::run_campaign(t, options);
        findings += report.findings.size();
        std::string line = fuzz::format_report(report);
        line += "    " + std::to_string(kept.size()) + " findings fixed and kept as regression cases; " +
                std::to_string((::GetTickCount64() - start) / 1000) + " s\n";
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
