// The short run of the fuzz campaign: every reader's kept reproducers (each a finding
// that was fixed) must stay fixed, and ten thousand fresh inputs per reader must find
// nothing (two thousand for the registry reader), with every block of this process on
// the page heap. The long run is scripts/fuzz.

#include "engine.h"
#include "page_heap.h"
#include "targets.h"

#include "base/utf.h"
#include "child_process.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdlib>
#include <memory>
#include <new>

namespace {

const std::vector<fuzz::target>& targets()
{
    static const std::vector<fuzz::target> all = fuzz::all_targets();
    return all;
}

std::vector<std::string> reader_names()
{
    std::vector<std::string> names;
    for (const auto& t : targets())
        names.push_back(t.name);
    return names;
}

std::vector<std::wstring> kept_reproducers(const std::string& reader)
{
    std::vector<std::wstring> files;
    const std::wstring folder = fuzz::seed_data::source_path(L"fuzz/regressions/" + tessel::utf8_to_utf16(reader) + L"/");
    WIN32_FIND_DATAW found{};
    HANDLE search = ::FindFirstFileW((folder + L"*.bin").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do
            files.push_back(folder + found.cFileName);
        while (::FindNextFileW(search, &found));
        ::FindClose(search);
    }
    return files;
}

class reader : public testing::TestWithParam<std::string> {};

TEST_P(reader, kept_reproducers_stay_fixed_and_fresh_inputs_find_nothing)
{
    const fuzz::target* t = fuzz::find_target(targets(), GetParam());
    ASSERT_NE(t, nullptr);
    fuzz::campaign_options options;
    // A registry input makes some 300 allocations, each two kernel calls on the page
    // heap: ten thousand of them would take minutes of the test run.
    options.inputs = t->name == "registry" ? 2000 : 10000;
    options.seed = 20261123;
    for (const std::wstring& file : kept_reproducers(t->name))
        EXPECT_EQ(fuzz::replay(*t, fuzz::seed_data::read_file(file), options), "") << tessel::utf16_to_utf8(file);

    const fuzz::reader_report report = fuzz::run_campaign(*t, options);
    EXPECT_EQ(report.inputs, options.inputs);
    EXPECT_TRUE(report.findings.empty()) << fuzz::format_report(report);
    // The mutations must neither all be harmless nor all be fatal, or the run proves little.
    EXPECT_GT(report.accepted, options.inputs / 100) << fuzz::format_report(report);
    if (t->name != "markup") {
        EXPECT_GT(report.inputs - report.accepted, options.inputs / 100) << fuzz::format_report(report);
    }
}

INSTANTIATE_TEST_SUITE_P(every, reader, testing::ValuesIn(reader_names()),
                         [](const testing::TestParamInfo<std::string>& info) { return info.param; });

TEST(fuzz_engine, the_same_seed_gives_the_same_inputs_and_another_seed_others)
{
    const fuzz::target* t = fuzz::find_target(targets(), "json");
    ASSERT_NE(t, nullptr);
    const auto seeds = t->seeds();
    int differing = 0;
    for (std::uint64_t i = 0; i < 50; ++i) {
        EXPECT_EQ(fuzz::make_input(*t, seeds, 7, i), fuzz::make_input(*t, seeds, 7, i));
        differing += fuzz::make_input(*t, seeds, 7, i) != fuzz::make_input(*t, seeds, 8, i);
    }
    EXPECT_GT(differing, 40);
}

// Whether touching the byte would fault: the page holding it is not committed. Not
// inlined, or the compiler warns that freed blocks are looked at, which is the point.
[[gnu::noinline]] bool untouchable(std::uintptr_t address)
{
    MEMORY_BASIC_INFORMATION info{};
    return ::VirtualQuery(reinterpret_cast<const void*>(address), &info, sizeof info) == sizeof info &&
           info.State != MEM_COMMIT;
}

TEST(page_heap, blocks_of_new_and_malloc_end_at_an_untouchable_page_and_freed_ones_become_untouchable)
{
    // Addresses, not pointers: they are looked at after their blocks are freed.
    const auto address = [](const void* p) { return reinterpret_cast<std::uintptr_t>(p); };
    auto* array = new char[13];
    auto* text = new std::string(40, 'x');
    auto* aligned = new (std::align_val_t(64)) char[100];
    auto* raw = static_cast<char*>(std::malloc(13));
    ASSERT_TRUE(raw);
    EXPECT_EQ(address(aligned) % 64, 0u);
    const std::pair<std::uintptr_t, std::size_t> blocks[] = {
        {address(array), 13}, {address(text->data()), 41}, {address(aligned), 100}, {address(raw), 13}};
    for (const auto& [block, size] : blocks) {
        EXPECT_FALSE(untouchable(block + size - 1)) << size;
        // Past the end, rounded up to 64 only where that alignment was asked for.
        EXPECT_TRUE(untouchable(block + (size == 100 ? 128 : size))) << size;
    }
    auto* moved = static_cast<char*>(std::realloc(raw, 20));
    const std::uintptr_t moved_address = reinterpret_cast<std::uintptr_t>(moved);
    EXPECT_TRUE(untouchable(blocks[3].first)) << "realloc leaves the old block behind, untouchable";
    EXPECT_TRUE(untouchable(moved_address + 20));
    delete text;
    delete[] array;
    ::operator delete[](aligned, std::align_val_t(64));
    std::free(moved);
    for (const auto& [block, size] : blocks)
        EXPECT_TRUE(untouchable(block)) << size;
    EXPECT_TRUE(untouchable(moved_address));
}

TEST(page_heap, catches_and_names_an_overflow_a_use_after_free_and_a_double_delete)
{
    wchar_t temp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, temp);
    const std::wstring folder = std::wstring(temp) + L"page-heap-probe-" + std::to_wstring(::GetCurrentProcessId());
    ::CreateDirectoryW(folder.c_str(), nullptr);
    const struct {
        const wchar_t* fault;
        const wchar_t* finding;
    } cases[] = {
        {L"overflow", L"page heap: overflow past the end: write at offset 13 of a 13-byte block at "},
        {L"use-after-free", L"page heap: use after free: read at offset 0 of a 41-byte block at "},
        {L"double-delete", L"page heap: double delete of a 13-byte block at "},
    };
    for (const auto& c : cases) {
        const auto result = test_support::run_tool(L"servercfg-fuzz.exe",
                                                   L"--out \"" + folder + L"\" --page-heap-probe " + c.fault, 60000);
        EXPECT_EQ(result.exit_code, 3u) << tessel::utf16_to_utf8(result.output);
        EXPECT_NE(result.output.find(std::wstring(L"FINDING page_heap_probe: ") + c.finding), std::wstring::npos)
            << tessel::utf16_to_utf8(result.output);
        const std::wstring saved = folder + L"\\page_heap_probe-" + c.fault + L"-0.bin";
        EXPECT_NE(::GetFileAttributesW(saved.c_str()), INVALID_FILE_ATTRIBUTES) << "the input is saved";
        ::DeleteFileW(saved.c_str());
    }
    ::RemoveDirectoryW(folder.c_str());
}

}  // namespace
