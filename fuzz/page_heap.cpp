#include "page_heap.h"

#include <windows.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace fuzz::page_heap {

namespace {

constexpr std::size_t page = 4096;
// Address space only: what is committed at any time is the live blocks' pages.
constexpr std::size_t arena_bytes = std::size_t(256) << 30;
// Freed slots wait this much address space before their pages can hold another block:
// a late use within that distance faults instead of reading someone else's block.
constexpr std::size_t quarantine_limit = std::size_t(256) << 20;
// A block larger than this is refused (the fuzz executables refuse 1 GB well before).
constexpr std::size_t largest_block = std::size_t(4) << 30;
constexpr unsigned size_classes = 64;
constexpr std::uint32_t none = ~std::uint32_t{0};

enum class slot_state : std::uint8_t { live, quarantined, released };

// One slot of `page << size_class` bytes and the guard page after it. The block fields
// describe the block most recently placed there, also after it was freed.
struct slot {
    std::uintptr_t base;
    std::uintptr_t block;
    std::size_t size;
    std::uintptr_t committed;  // first committed page of the block
    std::uint32_t next;        // quarantine or free list
    std::uint8_t size_class;
    slot_state state;

    [[nodiscard]] std::uintptr_t guard() const noexcept { return base + (page << size_class); }
    [[nodiscard]] std::uintptr_t end() const noexcept { return guard() + page; }
    [[nodiscard]] std::size_t span() const noexcept { return (page << size_class) + page; }
};

constexpr std::size_t slot_room = arena_bytes / (2 * page);
constexpr std::size_t slots_per_commit = 65536 / sizeof(slot);

struct heap_state {
    SRWLOCK lock = SRWLOCK_INIT;
    bool failed = false;
    std::uintptr_t arena = 0;
    std::size_t arena_used = 0;
    slot* slots = nullptr;
    std::size_t slot_count = 0;
    std::size_t slots_committed = 0;
    std::uint32_t free_heads[size_classes] = {};
    std::uint32_t quarantine_head = none;
    std::uint32_t quarantine_tail = none;
    std::size_t quarantined_bytes = 0;
    std::uint64_t allocations = 0;
    std::size_t live_blocks = 0;
};

// Constant-initialised: the C runtime allocates before any constructor of ours runs.
constinit heap_state heap;

class exclusive {
public:
    exclusive() noexcept { ::AcquireSRWLockExclusive(&heap.lock); }
    ~exclusive() { ::ReleaseSRWLockExclusive(&heap.lock); }
    exclusive(const exclusive&) = delete;
    exclusive& operator=(const exclusive&) = delete;
};

[[noreturn]] void fail_fast(const char* why) noexcept
{
    ::OutputDebugStringA(why);
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), why, static_cast<DWORD>(std::strlen(why)),
                &written, nullptr);
    ::RaiseFailFastException(nullptr, nullptr, 0);
    ::TerminateProcess(::GetCurrentProcess(), 3);
    for (;;) {
    }
}

// Under the lock.
bool ready() noexcept
{
    if (heap.arena)
        return true;
    if (heap.failed)
        return false;
    SYSTEM_INFO info{};
    ::GetSystemInfo(&info);
    if (info.dwPageSize != page)
        fail_fast("page heap: the system page is not 4 KB\n");
    void* arena = ::VirtualAlloc(nullptr, arena_bytes, MEM_RESERVE, PAGE_NOACCESS);
    void* slots = ::VirtualAlloc(nullptr, slot_room * sizeof(slot), MEM_RESERVE, PAGE_NOACCESS);
    if (!arena || !slots) {
        heap.failed = true;
        fail_fast("page heap: cannot reserve its address space\n");
    }
    std::fill(std::begin(heap.free_heads), std::end(heap.free_heads), none);
    heap.slots = static_cast<slot*>(slots);
    heap.arena = reinterpret_cast<std::uintptr_t>(arena);
    return true;
}

// Under the lock: a slot of the class, decommitted, from the free list or new.
slot* take_slot(unsigned size_class) noexcept
{
    if (const std::uint32_t index = heap.free_heads[size_class]; index != none) {
        heap.free_heads[size_class] = heap.slots[index].next;
        return &heap.slots[index];
    }
    const std::size_t span = (page << size_class) + page;
    if (heap.arena_used + span > arena_bytes || heap.slot_count == slot_room)
        return nullptr;
    if (heap.slot_count == heap.slots_committed) {
        if (!::VirtualAlloc(heap.slots + heap.slots_committed, slots_per_commit * sizeof(slot), MEM_COMMIT,
                            PAGE_READWRITE))
            return nullptr;
        heap.slots_committed += slots_per_commit;
    }
    slot& s = heap.slots[heap.slot_count++];
    s = slot{heap.arena + heap.arena_used, 0, 0, 0, none, static_cast<std::uint8_t>(size_class), slot_state::released};
    heap.arena_used += span;
    return &s;
}

void give_back(slot& s) noexcept
{
    s.next = heap.free_heads[s.size_class];
    heap.free_heads[s.size_class] = static_cast<std::uint32_t>(&s - heap.slots);
}

// The slot whose span (guard page included) holds the address; no lock, no allocation,
// so that an exception filter may call it. Slots are made in address order.
const slot* find(std::uintptr_t address) noexcept
{
    const slot* first = heap.slots;
    const slot* last = heap.slots + heap.slot_count;
    const slot* after = std::upper_bound(first, last, address,
                                         [](std::uintptr_t a, const slot& s) { return a < s.base; });
    if (after == first)
        return nullptr;
    const slot* s = after - 1;
    return address < s->end() ? s : nullptr;
}

[[noreturn]] void raise_misuse(misuse kind, const void* address) noexcept
{
    const ULONG_PTR arguments[2] = {static_cast<ULONG_PTR>(kind), reinterpret_cast<ULONG_PTR>(address)};
    ::RaiseException(misuse_code, EXCEPTION_NONCONTINUABLE, 2, arguments);
    fail_fast("page heap: a misuse went unhandled\n");
}

}  // namespace

void* allocate(std::size_t size, std::size_t alignment) noexcept
{
    if (size > largest_block || alignment == 0 || !std::has_single_bit(alignment))
        return nullptr;
    // Any type that fits in `size` bytes needs at most the largest power of two that
    // divides it, so placing the block at exactly `size` before the guard is aligned.
    const std::size_t natural = size ? std::min<std::size_t>(size & (~size + 1), 16) : 16;
    alignment = std::max(alignment, natural);
    const std::size_t reach = alignment <= page ? (size + alignment - 1) / alignment * alignment : size + alignment;
    const std::size_t pages = std::max<std::size_t>(1, (reach + page - 1) / page);
    const auto size_class = static_cast<unsigned>(std::bit_width(pages - 1));

    exclusive lock;
    if (!ready())
        return nullptr;
    slot* s = take_slot(size_class);
    if (!s)
        return nullptr;
    const std::uintptr_t guard = s->guard();
    const std::uintptr_t block = (guard - size) & ~(alignment - 1);
    // An empty block starts at the guard itself; it still gets a page before it.
    const std::uintptr_t committed = (block == guard ? block - 1 : block) & ~(page - 1);
    if (!::VirtualAlloc(reinterpret_cast<void*>(committed), guard - committed, MEM_COMMIT, PAGE_READWRITE)) {
        give_back(*s);
        return nullptr;
    }
    s->block = block;
    s->size = size;
    s->committed = committed;
    s->state = slot_state::live;
    ++heap.allocations;
    ++heap.live_blocks;
    return reinterpret_cast<void*>(block);
}

void release(void* block) noexcept
{
    if (!block)
        return;
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    bool freed_before = false;
    {
        exclusive lock;
        slot* s = const_cast<slot*>(find(address));
        if (s && s->block == address && s->state == slot_state::live) {
            // Decommitted rather than protected: the kernel then merges the freed pages
            // with the guard pages around them into one map, where protected pages would
            // each keep a map of their own and exhaust the process's maps within seconds.
            if (!::VirtualFree(reinterpret_cast<void*>(s->committed), s->guard() - s->committed, MEM_DECOMMIT))
                fail_fast("page heap: cannot decommit a freed block\n");
            s->state = slot_state::quarantined;
            s->next = none;
            const auto index = static_cast<std::uint32_t>(s - heap.slots);
            if (heap.quarantine_tail != none)
                heap.slots[heap.quarantine_tail].next = index;
            else
                heap.quarantine_head = index;
            heap.quarantine_tail = index;
            heap.quarantined_bytes += s->span();
            --heap.live_blocks;
            while (heap.quarantined_bytes > quarantine_limit) {
                slot& oldest = heap.slots[heap.quarantine_head];
                heap.quarantine_head = oldest.next;
                if (heap.quarantine_head == none)
                    heap.quarantine_tail = none;
                heap.quarantined_bytes -= oldest.span();
                oldest.state = slot_state::released;
                give_back(oldest);
            }
            return;
        }
        freed_before = s && s->block == address;
    }
    raise_misuse(freed_before ? misuse::double_release : misuse::not_a_block, block);
}

std::size_t block_size(const void* block) noexcept
{
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    ::AcquireSRWLockShared(&heap.lock);
    const slot* s = heap.arena ? find(address) : nullptr;
    const std::size_t size = s && s->block == address && s->state == slot_state::live ? s->size : 0;
    ::ReleaseSRWLockShared(&heap.lock);
    return size;
}

bool owns(const void* address) noexcept
{
    const auto a = reinterpret_cast<std::uintptr_t>(address);
    return heap.arena && a >= heap.arena && a - heap.arena < arena_bytes;
}

const char* describe_fault(const void* address, bool write, char* text, std::size_t capacity) noexcept
{
    const auto a = reinterpret_cast<std::uintptr_t>(address);
    const char* access = write ? "write" : "read";
    // The fault belongs to the nearest block among the slot it hit and its neighbours: a
    // guard page ends one slot and, just as well, comes before the next one's block.
    const slot* best = nullptr;
    std::uintptr_t best_distance = ~std::uintptr_t{0};
    if (const slot* hit = find(a)) {
        const std::size_t index = static_cast<std::size_t>(hit - heap.slots);
        for (std::size_t i = index ? index - 1 : 0; i <= index + 1 && i < heap.slot_count; ++i) {
            const slot* s = &heap.slots[i];
            if (s->block == 0)
                continue;
            const std::uintptr_t distance =
                a < s->block ? s->block - a : a >= s->block + s->size ? a - (s->block + s->size) + 1 : 0;
            if (distance < best_distance) {
                best = s;
                best_distance = distance;
            }
        }
    }
    if (!best) {
        std::snprintf(text, capacity, "wild %s at 0x%llx in the page heap's space, where no block ever was", access,
                      static_cast<unsigned long long>(a));
        return "wild";
    }
    const long long offset = static_cast<long long>(a - best->block);
    const auto start = static_cast<unsigned long long>(best->block);
    if (best->state != slot_state::live) {
        std::snprintf(text, capacity, "use after free: %s at offset %lld of a %zu-byte block at 0x%llx, freed", access,
                      offset, best->size, start);
        return "use-after-free";
    }
    if (a >= best->block + best->size) {
        std::snprintf(text, capacity, "overflow past the end: %s at offset %lld of a %zu-byte block at 0x%llx", access,
                      offset, best->size, start);
        return "overflow";
    }
    if (a < best->block) {
        std::snprintf(text, capacity, "underflow before the start: %s at offset %lld of a %zu-byte block at 0x%llx",
                      access, offset, best->size, start);
        return "underflow";
    }
    std::snprintf(text, capacity, "fault inside a live block: %s at offset %lld of a %zu-byte block at 0x%llx",
                  access, offset, best->size, start);
    return "wild";
}

const char* describe_misuse(misuse kind, const void* address, char* text, std::size_t capacity) noexcept
{
    const auto a = reinterpret_cast<std::uintptr_t>(address);
    const slot* s = owns(address) ? find(a) : nullptr;
    if (kind == misuse::double_release && s) {
        std::snprintf(text, capacity, "double delete of a %zu-byte block at 0x%llx", s->size,
                      static_cast<unsigned long long>(a));
        return "double-delete";
    }
    if (s && s->block != 0 && a > s->block && a < s->block + s->size) {
        std::snprintf(text, capacity, "delete of an address inside a block: offset %lld of a %zu-byte block at 0x%llx",
                      static_cast<long long>(a - s->block), s->size, static_cast<unsigned long long>(s->block));
        return "bad-delete";
    }
    std::snprintf(text, capacity, "delete of 0x%llx, which the page heap never gave out",
                  static_cast<unsigned long long>(a));
    return "bad-delete";
}

statistics current_statistics() noexcept
{
    ::AcquireSRWLockShared(&heap.lock);
    const statistics result{heap.allocations, heap.live_blocks, heap.quarantined_bytes, heap.arena_used};
    ::ReleaseSRWLockShared(&heap.lock);
    return result;
}

}  // namespace fuzz::page_heap
