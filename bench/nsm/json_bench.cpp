// JSON reader throughput: the nsm reader walking every entry of an update-service document,
// side by side with RapidJSON's SAX reader (in-situ) on the same text, plus heap
// allocations per document. Not a test: prints figures.
//
//   nsm_json_bench.exe [iterations]     (default 100000)

#include "../../tests/nsm/update_document.h"
#include "nsm/json_archive.h"
#include "nsm/record.h"

#include <rapidjson/reader.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "allocation_counter.h"

namespace {

namespace nsm = tessel::nsm;

// ---- the nsm walk -----------------------------------------------------------------

// Reader is reader_base (every call through the virtual interface, as records load) or the
// concrete json_reader (final, so calls bind statically and can be inlined).
template <class Reader>
struct nsm_walker {
    std::wstring text;  // reused: after the first document it never grows
    std::uint64_t checksum = 0;

    // Not inlined into itself, so that both walkers have the same shape whatever the compiler
    // would unroll for one of them.
    [[gnu::noinline]] void value(Reader& reader, const nsm::entry_info& entry)
    {
        checksum += entry.name.size();
        const std::uint32_t flags = entry.flags;
        if (flags & nsm::kind::object) {
            reader.begin_object();
            for (;;) {
                const nsm::entry_info e = reader.next_entry();  // built in place, not assigned
                if (e.at_end())
                    break;
                value(reader, e);
            }
            reader.end_object();
        } else if (flags & nsm::kind::sequence && !(flags & nsm::kind::string)) {
            reader.begin_array();
            for (;;) {
                const nsm::entry_info e = reader.next_entry();  // built in place, not assigned
                if (e.at_end())
                    break;
                value(reader, e);
            }
            reader.end_array();
        } else if (flags & nsm::kind::string) {
            reader.read_wstring(text);
            checksum += text.size() + (text.empty() ? 0 : text[0]);
        } else if (flags & nsm::kind::boolean) {
            checksum += reader.read_bool();
        } else if (flags & nsm::kind::number) {
            checksum += reader.read_uint64();
        }
    }

    std::uint64_t document(std::string_view json)
    {
        checksum = 0;
        nsm::details::json_reader reader(json);
        value(reader, reader.next_entry());
        return checksum;
    }
};

// ---- the RapidJSON walk -----------------------------------------------------------

struct rapidjson_handler : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, rapidjson_handler> {
    std::uint64_t checksum = 0;
    bool Null() { return true; }
    bool Bool(bool b) { return checksum += b, true; }
    bool Int(int i) { return checksum += static_cast<std::uint64_t>(i), true; }
    bool Uint(unsigned u) { return checksum += u, true; }
    bool Int64(std::int64_t i) { return checksum += static_cast<std::uint64_t>(i), true; }
    bool Uint64(std::uint64_t u) { return checksum += u, true; }
    bool Double(double d) { return checksum += static_cast<std::uint64_t>(d), true; }
    bool String(const char* s, rapidjson::SizeType length, bool)
    {
        return checksum += length + (length ? static_cast<unsigned char>(s[0]) : 0), true;
    }
    bool Key(const char*, rapidjson::SizeType length, bool) { return checksum += length, true; }
    bool StartObject() { return true; }
    bool EndObject(rapidjson::SizeType) { return true; }
    bool StartArray() { return true; }
    bool EndArray(rapidjson::SizeType) { return true; }
};

struct figures {
    double best_seconds_per_document;
    double median_seconds_per_document;
    double allocations_per_document;
    std::uint64_t checksum;
};

// The machine may be shared. The candidates run in alternating rounds and report their best
// and their median round, so load from elsewhere slows all of them alike and rarely all
// rounds. The checksums keep every value the walks produce alive.
struct candidate {
    const char* label;
    std::function<std::uint64_t()> one_document;
    int documents_per_round;
    figures result{0, 0, 0, 0};
    std::vector<double> rounds{};
};

void measure(std::vector<candidate>& candidates, int rounds)
{
    for (auto& c : candidates)  // warm caches and grow reused buffers
        for (int i = 0; i < c.documents_per_round / 10 + 1; ++i)
            c.result.checksum += c.one_document();
    std::vector<std::uint64_t> allocations(candidates.size());
    for (int round = 0; round < rounds; ++round) {
        // Each round starts with another candidate, so none always runs in the same slot.
        for (std::size_t slot = 0; slot < candidates.size(); ++slot) {
            const std::size_t k = (slot + static_cast<std::size_t>(round)) % candidates.size();
            candidate& c = candidates[k];
            const std::uint64_t allocations_before = test_support::allocation_count();
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < c.documents_per_round; ++i)
                c.result.checksum += c.one_document();
            const auto stop = std::chrono::steady_clock::now();
            allocations[k] += test_support::allocation_count() - allocations_before;
            c.rounds.push_back(std::chrono::duration<double>(stop - start).count() / c.documents_per_round);
        }
    }
    for (std::size_t k = 0; k < candidates.size(); ++k) {
        candidate& c = candidates[k];
        std::sort(c.rounds.begin(), c.rounds.end());
        c.result.best_seconds_per_document = c.rounds.front();
        c.result.median_seconds_per_document = c.rounds[c.rounds.size() / 2];
        c.result.allocations_per_document =
            static_cast<double>(allocations[k]) / (static_cast<double>(rounds) * c.documents_per_round);
    }
}

void report(const char* label, const figures& f, std::size_t bytes)
{
    std::printf("%-44s %8.1f MB/s %8.1f MB/s %8.2f us/doc %8.2f\n", label,
                static_cast<double>(bytes) / f.best_seconds_per_document / 1e6,
                static_cast<double>(bytes) / f.median_seconds_per_document / 1e6, f.best_seconds_per_document * 1e6,
                f.allocations_per_document);
}

std::string compact_form(const std::string& text)
{
    std::string compact;
    bool in_string = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"' && (i == 0 || text[i - 1] != '\\'))
            in_string = !in_string;
        if (in_string || (c != ' ' && c != '\n'))
            compact.push_back(c);
    }
    return compact;
}

void run(const char* title, const std::string& text, int iterations)
{
    std::printf("\n%s: %zu bytes, %d documents per candidate\n", title, text.size(), iterations);

    // nsm: the reader over the text as it stands; strings decoded to UTF-16 into a reused
    // string, numbers read as unsigned 64-bit.
    nsm_walker<nsm::reader_base> virtual_walker;
    nsm_walker<nsm::details::json_reader> walker;
    // RapidJSON: SAX, in-situ, so the text is copied into a scratch buffer first each time
    // (in-situ parsing writes into it); strings stay UTF-8.
    std::vector<char> scratch(text.size() + 1);
    rapidjson::Reader reader;
    // For comparison: the records themselves, as the update check loads them (fresh each
    // time, so every string that outgrows the small-string buffer allocates).
    const nsm::archive_context context(0x09);

    constexpr int rounds = 500;
    const int per_round = std::max(1, iterations / rounds);
    std::vector<candidate> candidates{
        {"nsm walk through reader_base (virtual calls)", [&] { return virtual_walker.document(text); }, per_round},
        {"RapidJSON Reader (SAX, in-situ)",
         [&] {
             std::memcpy(scratch.data(), text.c_str(), text.size() + 1);
             rapidjson::InsituStringStream stream(scratch.data());
             rapidjson_handler handler;
             if (reader.Parse<rapidjson::kParseInsituFlag>(stream, handler).IsError())
                 std::abort();
             return handler.checksum;
         },
         per_round},
        {"nsm walk through json_reader (bound calls)", [&] { return walker.document(text); }, per_round},
        {"nsm load into update_response records",
         [&] {
             nsm::details::json_reader json(text);
             nsm_test::update_response response;
             nsm::load_record(json, context, response);
             return response.version;
         },
         std::max(1, per_round / 10)},
        // What the copy alone costs, so that the comparison can leave it out.
        {"  of which the copy for in-situ parsing",
         [&] {
             std::memcpy(scratch.data(), text.c_str(), text.size() + 1);
             return static_cast<std::uint64_t>(scratch[text.size() / 2]);
         },
         per_round},
    };
    measure(candidates, rounds);
    std::printf("%-44s %13s %13s %15s %8s\n", "", "best", "median", "best", "allocs/doc");
    for (const candidate& c : candidates)
        report(c.label, c.result, text.size());
    // RapidJSON's parse alone: its time less the copy's, so that the copy favours neither side.
    const figures& copy = candidates[4].result;
    const double theirs_best = candidates[1].result.best_seconds_per_document - copy.best_seconds_per_document;
    const double theirs_median = candidates[1].result.median_seconds_per_document - copy.median_seconds_per_document;
    for (const std::size_t k : {std::size_t{0}, std::size_t{2}}) {
        const figures& ours = candidates[k].result;
        std::printf("ratio nsm / RapidJSON (parse only, copy left out) through %-12s best %.2fx, median %.2fx\n",
                    k == 0 ? "reader_base:" : "json_reader:", theirs_best / ours.best_seconds_per_document,
                    theirs_median / ours.median_seconds_per_document);
    }
    std::printf("(%d alternating rounds of %d documents; MB/s of the text as it stands)\n", rounds, per_round);
}

}  // namespace

int main(int argc, char** argv)
{
    const int iterations = argc > 1 ? std::atoi(argv[1]) : 100000;
    nsm::json writing;
    nsm::save(writing, nsm_test::sample_update_response());
    const std::string text = writing.written();
    std::printf("update-service answer: version, url, promo, 10 language packs with 2-3 credits each\n"
                "Both sides touch every value. nsm delivers what a loading program uses: each string\n"
                "decoded to UTF-16 into a reused std::wstring, each number as an unsigned 64-bit\n"
                "integer, each name as a view. RapidJSON's handler gets strings as UTF-8 views\n"
                "without conversion and numbers already converted; its in-situ parse writes into\n"
                "the text, so every document is first copied into a scratch buffer (counted).\n");
    run("indented (as the JSON writer lays it out)", text, iterations);
    run("compact (no whitespace between tokens)", compact_form(text), iterations);
    return 0;
}
