// The readers of text: the format language, the markup, JSON and the command line.

#include "targets.h"
#include "archive_walk.h"

#include "base/cmd_line.h"
#include "base/utf.h"
#include "controls/markup.h"
#include "format/ts_printf.h"
#include "nsm/json_archive.h"
#include "nsm/record.h"
#include "update_document.h"

#include <chrono>
#include <ctime>
#include <stdexcept>

using test_support::walk_value;

namespace fuzz {
namespace {

using seed_data::wide_bytes;

std::wstring_view as_wide(std::span<const std::byte> input)
{
    return {reinterpret_cast<const wchar_t*>(input.data()), input.size() / sizeof(wchar_t)};
}

std::string_view as_narrow(std::span<const std::byte> input)
{
    return {reinterpret_cast<const char*>(input.data()), input.size()};
}

std::vector<bytes> wide_seeds(const std::vector<std::wstring>& texts)
{
    std::vector<bytes> seeds;
    for (const std::wstring& text : texts)
        seeds.push_back(wide_bytes(text));
    return seeds;
}

// ---------------------------------------------------------------------------------------

std::string run_format(std::span<const std::byte> input)
{
    using namespace ts_printf;
    const std::wstring_view text = as_wide(input);
    segment_list segments;
    try {
        segments = compile(text);
    } catch (const bad_extended_format_string& e) {
        if (e.position() > text.size())
            throw std::logic_error("a compile error names a position outside the text");
        return error_kind(e.what());
    }
    for (const segment& s : segments)
        if ((s.flags & (segment_flags::literal | segment_flags::time_pattern)) && (s.start > s.end || s.end > text.size()))
            throw std::logic_error("a segment lies outside the text");

    std::tm calendar{};
    calendar.tm_year = 125;
    calendar.tm_mday = 31;
    calendar.tm_hour = 23;
    std::string refusal;
    const auto attempt = [&](auto&&... args) {
        std::wstring out;
        try {
            format_to(out, text, segments, args...);
        } catch (const bad_extended_format_string&) {
            throw std::logic_error("a string that compiled failed to compile while formatting");
        } catch (const generic_exception& e) {
            refusal = error_kind(e.what());
        }
    };
    attempt();
    attempt(42, L"text", true, -7LL, 3.5, L'x');
    attempt(calendar, std::chrono::system_clock::time_point{}, std::uint8_t{200}, false, L"", -0.0);
    attempt(std::tm{}, 1e300, -1, 0xFFFFFFFFFFFFFFFFull, std::wstring(300, L'w'), 0.1f);
    return refusal;
}

target format_target_tokens()
{
    target t;
    t.unit = t.alignment = 2;
    t.tokens = seed_data::wide_tokens({L"{", L"}", L"{{", L"{0", L"{1", L"{5", L"{}", L"?<", L"?>", L"?|", L"a", L"ac", L"ar",
                                       L"b", L"b0", L"b2", L"b16", L"b016x", L"b36", L"x", L"X", L"p", L"p3", L"c", L"e", L"f",
                                       L"l", L"n", L"s", L"sa", L"t(", L"t(%Y%m%d", L")", L"%", L"%E", L"%O", L"%%", L"%Ez",
                                       L"u", L"w", L"w5", L"w,3", L"w65535", L"w99999", L",", L"+", L"99999999999999999999",
                                       L"\u2026", L"\xD800", L"\xDC00", std::wstring(1, L'\0')});
    return t;
}

target format_target()
{
    target t = format_target_tokens();
    t.name = "format";
    t.seeds = [] {
        std::vector<std::wstring> texts;
        for (std::wstring& text : seed_data::program_texts())
            if (text.find(L'{') != std::wstring::npos)
                texts.push_back(std::move(text));
        for (const wchar_t* extra : {L"{0arf0w5}", L"{1ub016x}", L"{0}.{1t(%Y%m%d-%H%M%S)}.xml", L"{0w,4e}{1l}{2p3sa}{3c}{4b16p}",
                                     L"{0?<}a{0?|}b{0?>}", L"{{0}", L"{5s}{4f}{3n}{2ub2}"})
            texts.emplace_back(extra);
        return wide_seeds(texts);
    };

    // A quarter of the inputs are made from tokens alone, the rest mutate real strings.
    t.mutate = [](const bytes& seed, rng& random, const std::vector<bytes>& corpus) {
        static const target tokens_only = format_target_tokens();
        if (!random.chance(4))
            return mutate_bytes(tokens_only, seed, random, corpus, {});
        bytes generated;
        for (std::uint64_t i = random.below(25); i > 0; --i) {
            const std::string& token = tokens_only.tokens[random.below(tokens_only.tokens.size())];
            const auto* first = reinterpret_cast<const std::byte*>(token.data());
            generated.insert(generated.end(), first, first + token.size());
        }
        return generated;
    };
    t.run = run_format;
    return t;
}

// ---------------------------------------------------------------------------------------

std::string run_markup(std::span<const std::byte> input)
{
    static tessel::windows::new_controls::markup_result result;
    static std::wstring stripped;
    const std::wstring_view text = as_wide(input);
    // An opener with no tag letter after it, at the very end, is the one refusal, and it
    // is the string library's out-of-range error by design.
    const auto refuse = [&](const std::out_of_range&) -> std::string {
        if (!text.ends_with(L"[[["))
            throw std::logic_error("out of range without an opener at the end");
        return "an opener without its tag letter";
    };
    try {
        tessel::windows::new_controls::parse_markup(text, result);
    } catch (const std::out_of_range& e) {
        refuse(e);
    }
    try {
        tessel::windows::new_controls::strip_markup(text, stripped);
    } catch (const std::out_of_range& e) {
        return refuse(e);
    }
    return {};
}

target markup_target()
{
    target t;
    t.name = "markup";
    t.unit = t.alignment = 2;
    t.seeds = [] {
        std::vector<std::wstring> texts;
        for (std::wstring& text : seed_data::program_texts())
            if (text.find(L"[[[") != std::wstring::npos)
                texts.push_back(std::move(text));
        for (const wchar_t* extra :
             {L"[[[v#[usb]# ]]] Flash drive", L"[[[bBold]]] [[[iItalic]]] [[[u[[[c#ff0000red]]]]]]",
              L"[[[a#https://example.test#link]]] [[[r:2:a:b:c ]]]", L"[[[s+2big]]][[[fConsolas#code]]]",
              L"plain ]]] text [[[ with ]]] brackets"})
            texts.emplace_back(extra);
        return wide_seeds(texts);
    };
    t.tokens = seed_data::wide_tokens({L"[[[", L"]]]", L"[", L"]", L"#", L":", L"v", L"b", L"i", L"u", L"a", L"c", L"r",
                                       L"s", L"f", L"+", L"-", L"#ff00ff", L"#12", L"http://", L"\\", L"\xD800", L"\n"});
    t.run = run_markup;
    return t;
}

// ---------------------------------------------------------------------------------------

std::string run_json(std::span<const std::byte> input)
{
    namespace nsm = tessel::nsm;
    const std::string_view text = as_narrow(input);
    std::string refusal;
    try {
        nsm::json archive(text);
        nsm_test::update_response record;
        nsm::load(archive, record);
    } catch (const nsm::load_exception& e) {
        if (e.location().empty())
            throw std::logic_error("a load error without a location");
        refusal = error_kind(tessel::utf16_to_utf8(e.message()));
    }
    // The walk reads values as kinds a record would not (a text as a date): it refuses
    // most documents, so only the record's outcome counts as accepted or refused.
    try {
        nsm::details::json_reader reader(text);
        walk_value(reader, reader.next_entry(), 0);
    } catch (const nsm::load_exception&) {
    }
    return refusal;
}

target json_target()
{
    target t;
    t.name = "json";
    t.seeds = [] {
        namespace nsm = tessel::nsm;
        nsm::json archive;
        nsm::save(archive, nsm_test::sample_update_response());
        const std::string pretty = archive.written();
        std::string compact;
        bool in_string = false;
        for (std::size_t i = 0; i < pretty.size(); ++i) {
            const char c = pretty[i];
            if (c == '"' && (i == 0 || pretty[i - 1] != '\\'))
                in_string = !in_string;
            if (in_string || (c != ' ' && c != '\n'))
                compact.push_back(c);
        }
        std::vector<bytes> seeds{seed_data::narrow_bytes(pretty), seed_data::narrow_bytes(compact)};
        seeds.push_back(seed_data::read_file(seed_data::source_path(L"sim_server/scenarios/example.json")));
        return seeds;
    };
    t.tokens = {"{", "}", "[", "]", "\"", ":", ",", "\\", "\\u", "\\uD800", "null", "nul", "true", "false", "0x", "0X1F",
                "-", ".", "e", "E+", "1e999", "-0", "18446744073709551616", "\"{00000000-0000-0000-0000-000000000001}\"",
                ":2", "@{", "\"2024-05-01\"", "\"2024-05-31T00:00:00+02:00\"", " ", "\t", "\r\n", "\xC3", "\xFF",
                "\xF0\x9F\x98\x80", "/"};
    t.run = run_json;
    return t;
}

// ---------------------------------------------------------------------------------------

std::string run_command_line(std::span<const std::byte> input)
{
    using tessel::cmd_line_option;
    static const tessel::cmd_line_parser program;  // the program declares nothing
    static const tessel::cmd_line_parser declared = [] {
        tessel::cmd_line_parser parser;
        parser.add({.long_name = L"language", .short_name = L"l", .takes_value = true, .value_placeholder = L"code"});
        parser.add({.long_name = L"verbose", .short_name = L"v"});
        parser.add({.long_name = L"file", .short_name = L"f", .takes_value = true, .multi_valued = true});
        parser.add({.long_name = L"mode", .takes_value = true, .required = true, .group = L"Modes"});
        return parser;
    }();
    const std::wstring_view text = as_wide(input);
    // The program's own parser refuses every option; the one with options decides what
    // counts as accepted.
    std::string refusal;
    for (const tessel::cmd_line_parser* parser : {&program, &declared}) {
        try {
            const auto result = parser->parse(text);
            (void)result.is_on(L"verbose");
            (void)result.value(L"language");
            (void)result.values(L"file");
            refusal.clear();
        } catch (const tessel::cmd_line_syntax_error& e) {
            refusal = error_kind(e.what());
        }
    }
    (void)tessel::split_command_line(text);
    return refusal;
}

target command_line_target()
{
    target t;
    t.name = "command_line";
    t.unit = t.alignment = 2;
    t.seeds = [] {
        return wide_seeds({L"\"C:\\Program Files\\Ulmora\\ServerCfg.exe\" --mode x --language de -v+ --file \"a b.txt\" -f c pos",
                           L"ServerCfg.exe", L"\"ServerCfg.exe\" \"\" \\\"quoted\\\" -v- x --mode=y",
                           L"C:\\ServerCfg.exe positional-arguments are-ignored --mode \"\\\\server\\share\\\\\""});
    };
    t.tokens = seed_data::wide_tokens({L"\"", L"\\", L"\\\\\"", L"\\\"", L" ", L"\t", L"--", L"-", L"--language", L"-l",
                                       L"--mode", L"--file", L"-f", L"+", L"-v", L"--verbose-", L"\"\"", L"=", L"\xD800"});
    t.run = run_command_line;
    return t;
}

}  // namespace

std::vector<target> text_targets()
{
    return {format_target(), markup_target(), json_target(), command_line_target()};
}

}  // namespace fuzz
