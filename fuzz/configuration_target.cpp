// The console companion's configuration documents: every text "apply" and "watch" would
// read. What the reader accepts must also come back unchanged through what "export"
// writes, or a document would mean one thing read and another written.

#include "targets.h"

#include "console/configuration.h"

#include "base/utf.h"

#include <stdexcept>

namespace fuzz {
namespace {

// The kind of refusal: which problem, and for the archive's own refusals its message (the
// place and the names in it vary without end).
std::string refusal(const servercfg::console::document_error& e)
{
    using servercfg::console::document_problem;
    static constexpr const char* names[] = {"archive",          "unknown member", "member given twice",
                                            "missing member",   "wrong version",  "bad VID:PID",
                                            "bad port",         "empty match",    "key and key file",
                                            "too large",        "text after the end"};
    const auto index = static_cast<std::size_t>(e.problem());
    std::string kind = index < std::size(names) ? names[index] : "problem " + std::to_string(index);
    if (e.problem() == document_problem::archive)
        kind += ": " + tessel::utf16_to_utf8(e.detail());
    return kind;
}

std::string run_configuration(std::span<const std::byte> input)
{
    const std::string_view text(reinterpret_cast<const char*>(input.data()), input.size());
    servercfg::console::configuration document;
    try {
        document = servercfg::console::parse_configuration(text);
    } catch (const servercfg::console::document_error& e) {
        return refusal(e);
    }
    if (servercfg::console::parse_configuration(servercfg::console::write_configuration(document)) != document)
        throw std::logic_error("the document written back reads differently");
    return {};
}

}  // namespace

target configuration_target()
{
    target t;
    t.name = "configuration";
    t.seeds = [] {
        std::vector<bytes> seeds;
        for (const char* text :
             {R"({"version": 1,
                  "server": {"endpoints": "0.0.0.0:32032, [::]:32032", "port": 32032, "advertisement": true,
                             "statistics": false},
                  "shares": [
                    {"match": {"vid_pid": "0781:5567", "serial": "4C530001230105109392"}, "key": "s3cret"},
                    {"match": {"name": "Labelwise*", "class": "Printer"}},
                    {"match": {"instance_id": "USB\\VID_1A2B&PID_0001\\5&2C4B1A0&0&3"}, "key_file": "dongle.key"}]})",
              R"({"version": 1, "shares": [{"match": {"vid_pid": "VID_3F41&PID_2A07", "name": "Z\u00fcrich ?*"},
                  "key": "0x1F \"q\""}, {"match": {"serial": ""}, "key": ""}]})",
              R"({"version": 1, "server": {"port": 1}})"})
            seeds.push_back(seed_data::narrow_bytes(text));
        return seeds;
    };
    t.tokens = {"{", "}", "[", "]", "\"", ":", ",", "null", "true", "false", "\"version\"", "\"server\"",
                "\"shares\"", "\"match\"", "\"key\"", "\"key_file\"", "\"instance_id\"", "\"vid_pid\"", "\"serial\"",
                "\"name\"", "\"class\"", "\"endpoints\"", "\"port\"", "\"advertisement\"", "\"statistics\"",
                "\"0x1\"", "\"{0\"", ":2", "@{00000000-0000-0000-0000-000000000001}", "65536", "-1", "1e9", "\\u0000",
                "\\ud800", "\xC3", "\xEF\xBB\xBF"};
    t.run = run_configuration;
    return t;
}

}  // namespace fuzz
