#include "engine.h"

#include "guarded_memory.h"
#include "page_heap.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <exception>
#include <mutex>
#include <thread>
#include <typeinfo>

namespace fuzz {

rng::rng(std::uint64_t seed) noexcept
{
    for (auto& word : state_) {
        seed += 0x9E3779B97F4A7C15ull;
        std::uint64_t z = seed;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        word = z ^ (z >> 31);
    }
}

std::uint64_t rng::next() noexcept
{
    const auto rotl = [](std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); };
    const std::uint64_t result = rotl(state_[1] * 5, 7) * 9;
    const std::uint64_t t = state_[1] << 17;
    state_[2] ^= state_[0];
    state_[3] ^= state_[1];
    state_[1] ^= state_[2];
    state_[0] ^= state_[3];
    state_[2] ^= t;
    state_[3] = rotl(state_[3], 45);
    return result;
}

namespace {

// ---------------------------------------------------------------------------------------
// Mutations

void store(bytes& data, std::size_t offset, std::size_t width, std::uint64_t value)
{
    for (std::size_t i = 0; i < width && offset + i < data.size(); ++i)
        data[offset + i] = std::byte(static_cast<unsigned char>(value >> (8 * i)));
}

std::uint64_t load(const bytes& data, std::size_t offset, std::size_t width)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width && offset + i < data.size(); ++i)
        value |= std::uint64_t(std::to_integer<unsigned char>(data[offset + i])) << (8 * i);
    return value;
}

// A value a reader has to get right at the edges of a field: limits of its width, the
// size of the input around it, the old value nudged, another field's value.
std::uint64_t boundary_value(const bytes& data, const field& f, const std::vector<field>& fields, rng& random)
{
    const std::uint64_t max = f.width >= 8 ? ~0ull : (1ull << (8 * f.width)) - 1;
    const std::uint64_t old = load(data, f.offset, f.width);
    switch (random.below(14)) {
    case 0: return 0;
    case 1: return 1;
    case 2: return max;
    case 3: return max - 1;
    case 4: return max >> 1;
    case 5: return (max >> 1) + 1;
    case 6: return data.size();
    case 7: return data.size() - 1;
    case 8: return data.size() + 1 + random.below(16);
    case 9: return old + 1;
    case 10: return old - 1;
    case 11: return old * 2 + random.below(2);
    case 12: {
        const field& other = fields[random.below(fields.size())];
        return load(data, other.offset, other.width) + random.below(3) - 1;
    }
    default: return random.next();
    }
}

std::size_t aligned_position(std::size_t size, std::size_t unit, rng& random)
{
    return random.below(size / unit + 1) * unit;
}

}  // namespace

bytes mutate_bytes(const target& t, const bytes& seed, rng& random, const std::vector<bytes>& corpus,
                   const std::vector<field>& fields)
{
    bytes data = seed;
    const std::size_t unit = t.unit;
    const int count = 1 + static_cast<int>(random.chance(8) ? random.below(12) : random.below(4));
    for (int m = 0; m < count; ++m) {
        // Binary formats: most mutations go to the fields that steer the reader.
        const unsigned choice = static_cast<unsigned>(random.below(!fields.empty() ? 16 : 11));
        if (choice >= 11) {
            const field& f = fields[random.below(fields.size())];
            if (f.offset + f.width <= data.size())
                store(data, f.offset, f.width, boundary_value(data, f, fields, random));
            continue;
        }
        switch (choice) {
        case 0:  // flip one bit
            if (!data.empty())
                data[random.below(data.size())] ^= std::byte(static_cast<unsigned char>(1u << random.below(8)));
            break;
        case 1: {  // a byte or unit set to an awkward value
            if (data.empty())
                break;
            static constexpr unsigned char awkward[] = {0, 1, 0x7F, 0x80, 0xFF, 0xFE, 0x20, 0x0A, 0xD8, 0xDC};
            data[random.below(data.size())] = std::byte(awkward[random.below(std::size(awkward))]);
            break;
        }
        case 2:
        case 3: {  // a token of the format, inserted or written over what is there
            if (t.tokens.empty())
                break;
            const std::string& token = t.tokens[random.below(t.tokens.size())];
            const auto* first = reinterpret_cast<const std::byte*>(token.data());
            const std::size_t at = aligned_position(data.size(), unit, random);
            if (choice == 2 || at + token.size() > data.size())
                data.insert(data.begin() + static_cast<std::ptrdiff_t>(at), first, first + token.size());
            else
                std::copy(first, first + token.size(), data.begin() + static_cast<std::ptrdiff_t>(at));
            break;
        }
        case 4: {  // erase a run
            if (data.empty())
                break;
            const std::size_t at = aligned_position(data.size() - 1, unit, random);
            const std::size_t length = std::min<std::size_t>((1 + random.below(16)) * unit, data.size() - at);
            data.erase(data.begin() + static_cast<std::ptrdiff_t>(at),
                       data.begin() + static_cast<std::ptrdiff_t>(at + length));
            break;
        }
        case 5: {  // repeat a run somewhere else (nesting, duplicated records)
            if (data.empty())
                break;
            const std::size_t from = aligned_position(data.size() - 1, unit, random);
            const std::size_t length =
                std::min<std::size_t>((1 + random.below(random.chance(4) ? 256 : 16)) * unit, data.size() - from);
            const bytes run(data.begin() + static_cast<std::ptrdiff_t>(from),
                            data.begin() + static_cast<std::ptrdiff_t>(from + length));
            const int copies = random.chance(16) ? 1 + static_cast<int>(random.below(64)) : 1;
            const std::size_t at = aligned_position(data.size(), unit, random);
            for (int c = 0; c < copies; ++c)
                data.insert(data.begin() + static_cast<std::ptrdiff_t>(at), run.begin(), run.end());
            break;
        }
        case 6:  // cut short
            data.resize(aligned_position(data.size(), unit, random));
            break;
        case 7: {  // splice: the start of this input, the end of another
            const bytes& other = corpus[random.below(corpus.size())];
            const std::size_t keep = aligned_position(data.size(), unit, random);
            const std::size_t from = aligned_position(other.size(), unit, random);
            data.resize(keep);
            data.insert(data.end(), other.begin() + static_cast<std::ptrdiff_t>(from), other.end());
            break;
        }
        case 8: {  // random bytes over a short run
            if (data.empty())
                break;
            const std::size_t at = random.below(data.size());
            const std::size_t length = std::min<std::size_t>(1 + random.below(8), data.size() - at);
            for (std::size_t i = 0; i < length; ++i)
                data[at + i] = std::byte(static_cast<unsigned char>(random.next()));
            break;
        }
        default: {  // a word-sized integer anywhere aligned: lengths and counts not declared as fields
            const std::size_t width = std::size_t(1) << (1 + random.below(2));
            if (data.size() < width)
                break;
            const std::size_t at = random.below((data.size() - width) / width + 1) * width;
            const field f{at, width};
            const std::vector<field> self{f};
            store(data, at, width, boundary_value(data, f, fields.empty() ? self : fields, random));
            break;
        }
        }
    }
    return data;
}

namespace {

// ---------------------------------------------------------------------------------------
// What a crash or hang handler needs, set up before each input; no allocation there.

struct current_input {
    std::atomic<const std::byte*> data{nullptr};
    std::atomic<std::size_t> size{0};
    std::atomic<std::uint64_t> index{0};
    std::atomic<ULONGLONG> started{0};  // tick count, 0 while no input runs
    wchar_t prefix[MAX_PATH] = {};      // "<folder>\<reader>-", empty: nothing is saved
    char reader[64] = {};
} current;

void save_reproducer_raw(const wchar_t* kind) noexcept
{
    if (!current.prefix[0])
        return;
    wchar_t path[MAX_PATH + 64];
    std::swprintf(path, std::size(path), L"%ls%ls-%llu.bin", current.prefix, kind,
                  static_cast<unsigned long long>(current.index.load()));
    const HANDLE file = ::CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    DWORD written = 0;
    ::WriteFile(file, current.data.load(), static_cast<DWORD>(current.size.load()), &written, nullptr);
    ::CloseHandle(file);
}

// An address as module + offset, for addr2line (add the module's image base).
int format_code_address(char* text, std::size_t capacity, const void* address) noexcept
{
    HMODULE module = nullptr;
    wchar_t path[MAX_PATH] = L"?";
    if (::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                             static_cast<const wchar_t*>(address), &module))
        ::GetModuleFileNameW(module, path, MAX_PATH);
    const wchar_t* name = std::wcsrchr(path, L'\\') ? std::wcsrchr(path, L'\\') + 1 : path;
    const auto offset = reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(module);
    return std::snprintf(text, capacity, "%ls+0x%llx", name, static_cast<unsigned long long>(offset));
}

// The calling frames of a faulting context, walked with the modules' unwind tables.
void format_stack(char* text, std::size_t capacity, const CONTEXT& faulting) noexcept
{
    CONTEXT context = faulting;
    std::size_t used = 0;
    text[0] = 0;
    for (int frame = 0; frame < 12 && context.Rip && used + 64 < capacity; ++frame) {
        used += std::snprintf(text + used, capacity - used, "%s", frame ? " <- " : "");
        used += format_code_address(text + used, capacity - used, reinterpret_cast<const void*>(context.Rip));
        DWORD64 image_base = 0;
        PRUNTIME_FUNCTION function = ::RtlLookupFunctionEntry(context.Rip, &image_base, nullptr);
        if (!function) {  // a leaf: the return address is on top of the stack
            MEMORY_BASIC_INFORMATION stack{};
            if (::VirtualQuery(reinterpret_cast<const void*>(context.Rsp), &stack, sizeof stack) != sizeof stack ||
                stack.State != MEM_COMMIT || !(stack.Protect & PAGE_READWRITE))
                break;  // a broken stack: faulting here would hide the finding
            context.Rip = *reinterpret_cast<const DWORD64*>(context.Rsp);
            context.Rsp += 8;
            continue;
        }
        void* handler_data = nullptr;
        DWORD64 establisher = 0;
        ::RtlVirtualUnwind(UNW_FLAG_NHANDLER, image_base, context.Rip, function, &context, &handler_data, &establisher,
                           nullptr);
    }
}

// what: a sentence saying what went wrong, when known better than by the code; stack:
// the context to walk for the calling frames.
[[noreturn]] void die_with_finding(const wchar_t* kind, unsigned long code, const void* address = nullptr,
                                   const char* what = nullptr, const CONTEXT* stack = nullptr) noexcept
{
    save_reproducer_raw(kind);
    char where[MAX_PATH + 32];
    format_code_address(where, sizeof where, address);
    char frames[1024] = "";
    if (stack)
        format_stack(frames, sizeof frames, *stack);
    char line[2048];
    const int length = what ? std::snprintf(line, sizeof line, "FINDING %s: %s (0x%08lx at %s) at input %llu; process ends\n"
                                            "    stack: %s\n",
                                            current.reader, what, code, where,
                                            static_cast<unsigned long long>(current.index.load()), frames)
                            : std::snprintf(line, sizeof line, "FINDING %s: %ls (0x%08lx at %s) at input %llu; process ends\n",
                                            current.reader, kind, code, where,
                                            static_cast<unsigned long long>(current.index.load()));
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), line, static_cast<DWORD>(std::min<int>(length, sizeof line - 1)),
                &written, nullptr);
    ::TerminateProcess(::GetCurrentProcess(), 3);
    for (;;) {
    }
}

[[noreturn]] void die_with_page_heap_finding(const char* kind, const char* what, const EXCEPTION_POINTERS& info) noexcept
{
    wchar_t wide_kind[32] = {};
    for (std::size_t i = 0; kind[i] && i + 1 < std::size(wide_kind); ++i)
        wide_kind[i] = static_cast<wchar_t>(kind[i]);
    char sentence[512];
    std::snprintf(sentence, sizeof sentence, "page heap: %s", what);
    die_with_finding(wide_kind, info.ExceptionRecord->ExceptionCode, info.ExceptionRecord->ExceptionAddress, sentence,
                     info.ContextRecord);
}

LONG WINAPI on_unhandled(EXCEPTION_POINTERS* info) noexcept
{
    die_with_finding(L"crash", info->ExceptionRecord->ExceptionCode, info->ExceptionRecord->ExceptionAddress);
}

LONG WINAPI on_fatal(EXCEPTION_POINTERS* info) noexcept
{
    const EXCEPTION_RECORD& record = *info->ExceptionRecord;
    // A fault in the page heap's space is a finding wherever it happens, before any
    // handler of the reader or of the system could swallow it.
    if (record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION && record.NumberParameters >= 2) {
        const auto* address = reinterpret_cast<const void*>(record.ExceptionInformation[1]);
        if (page_heap::owns(address)) {
            char what[256];
            const char* kind = page_heap::describe_fault(address, record.ExceptionInformation[0] == 1, what, sizeof what);
            die_with_page_heap_finding(kind, what, *info);
        }
    }
    if (record.ExceptionCode == page_heap::misuse_code && record.NumberParameters >= 2) {
        char what[256];
        const char* kind = page_heap::describe_misuse(static_cast<page_heap::misuse>(record.ExceptionInformation[0]),
                                                      reinterpret_cast<const void*>(record.ExceptionInformation[1]),
                                                      what, sizeof what);
        die_with_page_heap_finding(kind, what, *info);
    }
    // Otherwise only what nothing may handle: a stack overflow, a fail-fast, a broken instruction.
    const DWORD code = info->ExceptionRecord->ExceptionCode;
    if (code == EXCEPTION_STACK_OVERFLOW || code == 0xC0000409 || code == EXCEPTION_ILLEGAL_INSTRUCTION ||
        code == EXCEPTION_INT_DIVIDE_BY_ZERO)
        die_with_finding(code == EXCEPTION_STACK_OVERFLOW ? L"stack-overflow" : L"crash", code,
                         info->ExceptionRecord->ExceptionAddress);
    return EXCEPTION_CONTINUE_SEARCH;
}

void install_handlers() noexcept
{
    static std::once_flag once;
    std::call_once(once, [] {
        // Left to the system, a crash shows Wine's backtrace instead (for triage).
        if (::GetEnvironmentVariableW(L"FUZZ_SYSTEM_CRASH_HANDLING", nullptr, 0))
            return;
        ULONG reserve = 64 * 1024;
        ::SetThreadStackGuarantee(&reserve);
        ::SetUnhandledExceptionFilter(on_unhandled);
        ::AddVectoredExceptionHandler(1, on_fatal);
        std::signal(SIGABRT, [](int) { die_with_finding(L"abort", 0); });
        std::set_terminate([] {
            // What escaped, and from where: a throw through a noexcept function lands here.
            char what[512] = "terminate";
            try {
                if (const auto escaped = std::current_exception())
                    std::rethrow_exception(escaped);
            } catch (const std::exception& e) {
                std::snprintf(what, sizeof what, "terminate: %s: %s", typeid(e).name(), e.what());
            } catch (...) {
                std::snprintf(what, sizeof what, "terminate: an exception of an unknown type");
            }
            CONTEXT context{};
            ::RtlCaptureContext(&context);
            die_with_finding(L"terminate", 0, nullptr, what, &context);
        });
        // A hang: an input that never returns.
        std::thread([] {
            for (;;) {
                ::Sleep(500);
                const ULONGLONG started = current.started.load();
                if (started && ::GetTickCount64() - started > 20000)
                    die_with_finding(L"hang", 0);
            }
        }).detach();
    });
}

std::wstring widen(std::string_view text)
{
    return std::wstring(text.begin(), text.end());
}

struct outcome {
    bool finding = false;
    std::string kind;
    std::string detail;
    std::string error_text;
    std::chrono::nanoseconds time{0};
    std::chrono::nanoseconds cpu_time{0};
    std::size_t largest_allocation = 0;
};

// Processor time of this thread: a busy machine or a slow wineserver stretches the wall
// time of an input, but only the reader's own work counts against its budget.
std::chrono::nanoseconds thread_cpu_time() noexcept
{
    FILETIME created, ended, kernel, user;
    if (!::GetThreadTimes(::GetCurrentThread(), &created, &ended, &kernel, &user))
        return {};
    const auto ticks = [](const FILETIME& t) { return (std::uint64_t{t.dwHighDateTime} << 32) | t.dwLowDateTime; };
    return std::chrono::nanoseconds((ticks(kernel) + ticks(user)) * 100);
}

outcome feed(const target& t, std::span<const std::byte> placed, const campaign_options& options)
{
    outcome result;
    if (t.before_input)
        t.before_input();
    current.data = placed.data();
    current.size = placed.size();
    memory::reset_peak();
    const auto start = std::chrono::steady_clock::now();
    const auto cpu_start = thread_cpu_time();
    current.started = ::GetTickCount64();
    try {
        result.error_text = t.run(placed);
    } catch (const std::exception& e) {
        result.finding = true;
        result.kind = "exception";
        result.detail = std::string(typeid(e).name()) + ": " + e.what();
    } catch (...) {
        result.finding = true;
        result.kind = "exception";
        result.detail = "of an unknown type";
    }
    current.started = 0;
    result.time = std::chrono::steady_clock::now() - start;
    result.cpu_time = thread_cpu_time() - cpu_start;
    result.largest_allocation = memory::largest_request();
    if (!result.finding && result.largest_allocation > options.allocation_limit) {
        result.finding = true;
        result.kind = "allocation";
        result.detail = "asked for " + std::to_string(result.largest_allocation) + " bytes at once";
    }
    return result;
}

}  // namespace

bytes make_input(const target& t, const std::vector<bytes>& seeds, std::uint64_t seed, std::uint64_t index)
{
    rng random(seed * 0x9E3779B97F4A7C15ull + index);
    const bytes& start = seeds[random.below(seeds.size())];
    if (t.mutate)
        return t.mutate(start, random, seeds);
    const std::vector<field> fields = t.fields ? t.fields(start) : std::vector<field>{};
    return mutate_bytes(t, start, random, seeds, fields);
}

namespace {

// Names the reader and where its reproducers go, for the crash and hang handlers.
void start_reader(const target& t, const campaign_options& options)
{
    install_handlers();
    std::snprintf(current.reader, sizeof current.reader, "%s", t.name.c_str());
    current.prefix[0] = 0;
    current.index = 0;
    if (!options.output_folder.empty()) {
        const std::wstring prefix = widen(options.output_folder) + L"\\" + widen(t.name) + L"-";
        if (prefix.size() < MAX_PATH)
            std::wcscpy(current.prefix, prefix.c_str());
    }
}

}  // namespace

reader_report run_campaign(const target& t, const campaign_options& options)
{
    start_reader(t, options);
    reader_report report;
    report.name = t.name;

    const std::vector<bytes> seeds = t.seeds();
    // Fields are worked out once per seed, not per input.
    std::map<const bytes*, std::vector<field>> fields;
    std::size_t largest = 0;
    for (const bytes& s : seeds) {
        largest = std::max(largest, s.size());
        if (t.fields)
            fields[&s] = t.fields(s);
    }
    // Inputs longer than this are cut: growth beyond it tests nothing new.
    const std::size_t capacity = largest * 4 + 4096;
    test_support::guarded_buffer buffer(capacity);

    for (std::uint64_t i = options.first; i < options.first + options.inputs; ++i) {
        rng random(options.seed * 0x9E3779B97F4A7C15ull + i);
        const bytes& start = seeds[random.below(seeds.size())];
        bytes input = t.mutate ? t.mutate(start, random, seeds) : mutate_bytes(t, start, random, seeds, fields[&start]);
        if (input.size() > capacity)
            input.resize(capacity / t.unit * t.unit);
        current.index = i;
        const auto placed = buffer.place(input, t.alignment);
        outcome result = feed(t, placed, options);
        if (!result.finding && result.time > options.time_budget) {
            // A busy machine can stall any one run: only an input that is slow every time,
            // in wall time and in processor time, counts.
            const auto slow = [&](const outcome& o) {
                return o.time > options.time_budget && o.cpu_time > options.time_budget;
            };
            bool slow_every_time = slow(result);
            for (int again = 0; again < 2 && slow_every_time; ++again) {
                ::Sleep(100);
                const outcome retry = feed(t, buffer.place(input, t.alignment), options);
                result.time = std::min(result.time, retry.time);
                slow_every_time = slow(retry);
            }
            if (slow_every_time) {
                result.finding = true;
                result.kind = "slow";
                result.detail = std::to_string(result.time.count() / 1000000) + " ms";
            }
        }
        ++report.inputs;
        if (report.inputs % 100000 == 0)
            std::fprintf(stderr, "%s: %llu inputs, %llu accepted, %zu distinct error texts, %zu findings so far\n",
                         t.name.c_str(), static_cast<unsigned long long>(report.inputs),
                         static_cast<unsigned long long>(report.accepted), report.error_texts.size(),
                         report.findings.size());
        if (result.time > report.slowest) {
            report.slowest = result.time;
            report.slowest_input = i;
        }
        report.largest_allocation = std::max(report.largest_allocation, result.largest_allocation);
        if (result.finding) {
            current.data = placed.data();
            current.size = placed.size();
            save_reproducer_raw(widen(result.kind).c_str());
            report.findings.push_back(result.kind + " at input " + std::to_string(i) + ": " + result.detail);
            std::fprintf(stderr, "FINDING %s: %s\n", t.name.c_str(), report.findings.back().c_str());
            continue;
        }
        if (result.error_text.empty())
            ++report.accepted;
        else if (report.error_texts.size() < 4096 || report.error_texts.count(result.error_text))
            ++report.error_texts[result.error_text];
    }
    return report;
}

std::string replay(const target& t, std::span<const std::byte> input, const campaign_options& options)
{
    start_reader(t, options);
    test_support::guarded_buffer buffer(input.size() + 1);
    const outcome result = feed(t, buffer.place(input, t.alignment), options);
    if (result.finding)
        return result.kind + ": " + result.detail;
    if (result.time > options.time_budget && result.cpu_time > options.time_budget)
        return "slow: " + std::to_string(result.time.count() / 1000000) + " ms";
    return {};
}

std::string format_report(const reader_report& report)
{
    char line[512];
    std::snprintf(line, sizeof line,
                  "%-16s %10llu inputs, %10llu accepted, %4zu distinct error texts, slowest input #%llu %.2f ms, "
                  "largest allocation %zu bytes, %zu findings\n",
                  report.name.c_str(), static_cast<unsigned long long>(report.inputs),
                  static_cast<unsigned long long>(report.accepted), report.error_texts.size(),
                  static_cast<unsigned long long>(report.slowest_input), report.slowest.count() / 1e6,
                  report.largest_allocation, report.findings.size());
    std::string text = line;
    for (const std::string& finding : report.findings)
        text += "    finding: " + finding + "\n";
    return text;
}

}  // namespace fuzz
