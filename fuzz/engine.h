#pragma once
// The fuzzing engine: a deterministic, seedable mutation fuzzer over the program's
// readers. Each reader is a `target`: its seeds (taken from the project's own data), its
// structure (the fields of its binary format, the tokens of its text format) and a run
// function that feeds one input to the reader the way the program does.
//
// Every input is placed so that it ends right before a page that faults when touched,
// timed (slower than the budget is a finding), and its allocations are watched. A crash,
// a hang, an out-of-bounds read, a huge allocation or an exception the reader is not
// allowed to throw is a finding: the input is saved as a reproducer, named by reader,
// kind and input number, so that it can be fixed and kept in fuzz/regressions.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

using bytes = std::vector<std::byte>;

// xoshiro256** seeded through splitmix64: the same seed gives the same inputs everywhere.
class rng {
public:
    explicit rng(std::uint64_t seed) noexcept;
    std::uint64_t next() noexcept;
    // Uniform in [0, bound); 0 when bound is 0.
    std::uint64_t below(std::uint64_t bound) noexcept { return bound ? next() % bound : 0; }
    bool chance(unsigned one_in) noexcept { return below(one_in) == 0; }

private:
    std::uint64_t state_[4];
};

// A field of a binary format: where it is and how wide (1, 2, 4 or 8 bytes).
struct field {
    std::size_t offset;
    std::size_t width;
};

struct target {
    std::string name;
    // Seeds: valid inputs from the project's own data. Mutations start from them.
    std::function<std::vector<bytes>()> seeds;
    // Fields of a seed that matter (header fields, offsets, counts, lengths); empty for
    // text formats. Mutations set them to boundary values far more often than they flip
    // bits elsewhere.
    std::function<std::vector<field>(const bytes& seed)> fields;
    // Tokens of the format (keywords, delimiters, markers) that mutations insert.
    std::vector<std::string> tokens;
    // Text formats mutate in units of this many bytes (2 for UTF-16 text).
    std::size_t unit = 1;
    // Input placement alignment (texts read in place as UTF-16 need 2).
    std::size_t alignment = 1;
    // A mutation of its own, for inputs with a structure of their own (the registry
    // recipes); empty to use the generic byte and field mutations.
    std::function<bytes(const bytes& seed, rng& random, const std::vector<bytes>& corpus)> mutate;
    // Work between inputs that is not the reader's (a fresh server now and then): runs
    // before each input, outside its time budget.
    std::function<void()> before_input;
    // Feeds one input to the reader. Returns the text of an expected refusal ("" when the
    // input was accepted). Anything the reader must not throw escapes and is a finding.
    std::function<std::string(std::span<const std::byte> input)> run;
};

struct reader_report {
    std::string name;
    std::uint64_t inputs = 0;
    std::uint64_t accepted = 0;
    std::map<std::string, std::uint64_t> error_texts;  // distinct texts of refusals
    std::chrono::nanoseconds slowest{0};
    std::uint64_t slowest_input = 0;
    std::size_t largest_allocation = 0;
    std::vector<std::string> findings;  // "kind: path"
};

struct campaign_options {
    std::uint64_t inputs = 10000;
    // The number of the first input: an input depends only on the seed and its number,
    // so a long campaign can run as slices, side by side or one after another.
    std::uint64_t first = 0;
    std::uint64_t seed = 1;
    std::chrono::milliseconds time_budget{100};
    // A single allocation larger than this is a finding.
    std::size_t allocation_limit = std::size_t(64) << 20;
    // Where reproducers go; empty: findings are only counted.
    std::string output_folder;
};

// The generic mutations: bit flips, awkward bytes, the target's tokens, erased, repeated
// and spliced runs, cuts, and boundary values in `fields` (or in any aligned word).
bytes mutate_bytes(const target& t, const bytes& seed, rng& random, const std::vector<bytes>& corpus,
                   const std::vector<field>& fields);

// One input as it would be fed: mutation number `index` of the campaign with this seed.
// Deterministic: the same (seed, index) gives the same bytes.
bytes make_input(const target& t, const std::vector<bytes>& seeds, std::uint64_t seed, std::uint64_t index);

// Runs the campaign over one reader. Crashes and hangs end the process after saving the
// reproducer (exit code 3); everything else is collected in the report.
reader_report run_campaign(const target& t, const campaign_options& options);

// Feeds one saved input; returns the finding it still causes ("" when none). A crash
// ends the process as in a campaign.
std::string replay(const target& t, std::span<const std::byte> input, const campaign_options& options);

std::string format_report(const reader_report& report);

// Process-wide allocation watch (the fuzz executables replace operator new and malloc).
namespace memory {
void reset_peak() noexcept;
[[nodiscard]] std::size_t largest_request() noexcept;
// Blocks asked for since the process started, by new and by malloc alike.
[[nodiscard]] std::uint64_t allocations() noexcept;
// New blocks from the page heap (the default) or from the C runtime's heap.
void use_page_heap(bool on) noexcept;
[[nodiscard]] bool page_heap_in_use() noexcept;
}  // namespace memory

}  // namespace fuzz
