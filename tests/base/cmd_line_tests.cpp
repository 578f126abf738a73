#include "base/cmd_line.h"

#include <gtest/gtest.h>

namespace {

using tessel::cmd_line_option;
using tessel::cmd_line_parser;
using tessel::cmd_line_syntax_error;
using tessel::split_command_line;
using strings = std::vector<std::wstring>;

TEST(cmd_line, splitting_follows_the_windows_runtime_rules)
{
    EXPECT_EQ(split_command_line(L"prog.exe"), strings{});
    EXPECT_EQ(split_command_line(L"\"C:\\Program Files\\x\\prog.exe\" a  b"), (strings{L"a", L"b"}));
    // The program name takes no escapes: a backslash before its closing quote is literal.
    EXPECT_EQ(split_command_line(L"\"C:\\dir\\\" next"), (strings{L"next"}));
    EXPECT_EQ(split_command_line(L"p \"two words\" x\"y z\"w"), (strings{L"two words", L"xy zw"}));
    EXPECT_EQ(split_command_line(L"p a\\\\\\\"b c\\\\\"d e\"f"), (strings{L"a\\\"b", L"c\\d ef"}));
    EXPECT_EQ(split_command_line(L"p C:\\path\\ \"q\"\"x\""), (strings{L"C:\\path\\", L"q\"x"}));
    EXPECT_EQ(split_command_line(L"p \"\" \t end"), (strings{L"", L"end"}));
}

cmd_line_parser sample_parser()
{
    cmd_line_parser parser;
    parser.add({.long_name = L"verbose", .short_name = L"v"})
        .add({.long_name = L"config", .short_name = L"c", .takes_value = true, .value_placeholder = L"file"})
        .add({.long_name = L"define", .short_name = L"D", .takes_value = true, .multi_valued = true});
    return parser;
}

TEST(cmd_line, options_values_and_positionals)
{
    const auto result = sample_parser().parse(
        L"prog.exe first --verbose -c a.ini --define x=1 second -D y=2 --config b.ini -v- --define --verbose");
    EXPECT_EQ(result.positional(), (strings{L"first", L"second"}));
    EXPECT_TRUE(result.given(L"verbose"));
    EXPECT_FALSE(result.is_on(L"verbose")) << "the last state wins";
    EXPECT_EQ(result.value(L"config"), L"b.ini") << "a single-valued option keeps the last value";
    // A value is taken whatever it begins with.
    EXPECT_EQ(result.values(L"define"), (strings{L"x=1", L"y=2", L"--verbose"}));
    EXPECT_FALSE(result.given(L"missing"));
    EXPECT_TRUE(result.values(L"missing").empty());

    EXPECT_TRUE(sample_parser().parse(L"p --verbose+").is_on(L"verbose"));
    EXPECT_TRUE(sample_parser().parse(L"p -v").is_on(L"verbose"));
}

TEST(cmd_line, syntax_errors_carry_the_fixed_texts)
{
    const auto error_of = [](const cmd_line_parser& parser, std::wstring_view line) -> std::string {
        try {
            (void)parser.parse(line);
        } catch (const cmd_line_syntax_error& e) {
            return e.what();
        }
        return "no error";
    };
    const auto parser = sample_parser();
    const std::string invalid = "Invalid command line argument specified";
    EXPECT_EQ(error_of(parser, L"p --unknown"), invalid);
    EXPECT_EQ(error_of(parser, L"p -verbose"), invalid) << "a single dash names the short form";
    EXPECT_EQ(error_of(parser, L"p --v"), invalid) << "a double dash names the long form";
    EXPECT_EQ(error_of(parser, L"p --"), invalid);
    EXPECT_EQ(error_of(parser, L"p -"), invalid);
    EXPECT_EQ(error_of(parser, L"p --config"), "Command line argument's value is missing");

    cmd_line_parser with_required = sample_parser();
    with_required.add({.long_name = L"server", .takes_value = true, .required = true});
    EXPECT_EQ(error_of(with_required, L"p --verbose"), "Missing required parameters");
    EXPECT_EQ(with_required.parse(L"p --server s1").value(L"server"), L"s1");

    // The program declares no option: plain words pass, any dash token is refused.
    const cmd_line_parser none;
    EXPECT_EQ(none.parse(L"p a b").positional().size(), 2u);
    EXPECT_EQ(error_of(none, L"p -x"), invalid);
}

TEST(cmd_line, help_lists_options_under_their_groups)
{
    cmd_line_parser parser = sample_parser();
    parser.add({.long_name = L"port", .takes_value = true, .value_placeholder = L"n", .description = L"TCP port",
                .group = L"Network"});
    const std::wstring help = parser.help_text();
    EXPECT_NE(help.find(L"--config, -c <file>"), std::wstring::npos);
    EXPECT_LT(help.find(L"--verbose"), help.find(L"Network:\n"));
    EXPECT_LT(help.find(L"Network:\n"), help.find(L"--port <n>"));
    EXPECT_NE(help.find(L"TCP port"), std::wstring::npos);
}

}  // namespace
