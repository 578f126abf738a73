// The short run of the fuzz campaign: every reader's kept reproducers (each a finding
// that was fixed) must stay fixed, and ten thousand fresh inputs per reader must find
// nothing. The long run is scripts/fuzz.

#include "engine.h"
#include "targets.h"

#include "base/utf.h"

#include <gtest/gtest.h>

#include <windows.h>

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

TEST_P(reader, kept_reproducers_stay_fixed_and_ten_thousand_inputs_find_nothing)
{
    const fuzz::target* t = fuzz::find_target(targets(), GetParam());
    ASSERT_NE(t, nullptr);
    fuzz::campaign_options options;
    options.inputs = 10000;
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

}  // namespace
