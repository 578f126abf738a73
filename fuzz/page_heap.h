#pragma once
// A full page heap for the fuzz executables: every block ends right before a page that
// cannot be touched, and a freed block becomes untouchable at once and stays so while it
// waits in a quarantine of bounded address space. A one-byte overflow, a read before the
// start of a block or a use after free then faults at the instruction that does it, in
// memory the readers allocate themselves, not only in the input.
//
// The heap keeps its records (where each block starts, how long it is, whether it is
// freed) outside the blocks, so that an exception filter can say which side of which
// block a faulting address hit. It takes no lock while describing and allocates nothing.
//
// Layout of the heap's own address space: slots of a power of two pages, each followed by
// a guard page that is never committed. A block is placed at the end of its slot; only
// the pages it covers are committed. Slots are handed out in address order, so their
// records stay sorted by address and a fault is looked up by binary search.

#include <cstddef>
#include <cstdint>

namespace fuzz::page_heap {

// Blocks from the page heap are aligned only as far as their size allows (a 13-byte
// block starts at any byte, a 24-byte one at a multiple of 8, at most 16), so that their
// end touches the guard page; a larger alignment may be asked for.
[[nodiscard]] void* allocate(std::size_t size, std::size_t alignment = 1) noexcept;
// Frees a block of this heap; a pointer it never gave, or gave and took back already,
// raises `misuse_code` (see `describe_misuse`).
void release(void* block) noexcept;
// The size the block was asked with; 0 for an address that is not a live block's start.
[[nodiscard]] std::size_t block_size(const void* block) noexcept;
// Whether the address lies in the heap's own address space (a block, a freed block, a
// guard page), so that a fault there is the heap's to explain.
[[nodiscard]] bool owns(const void* address) noexcept;

// Raised by `release` with two parameters: the kind (below) and the address given.
constexpr unsigned long misuse_code = 0xE0504801;
enum class misuse : std::uintptr_t { double_release = 1, not_a_block = 2 };

// What a faulting address hit, as a line such as "overflow past the end: write at offset
// 13 of a 13-byte block at 0x..." in `text`, and a short kind for file names
// ("overflow", "underflow", "use-after-free", "wild") as the result.
const char* describe_fault(const void* address, bool write, char* text, std::size_t capacity) noexcept;
const char* describe_misuse(misuse kind, const void* address, char* text, std::size_t capacity) noexcept;

struct statistics {
    std::uint64_t allocations = 0;
    std::size_t live_blocks = 0;
    std::size_t quarantined_bytes = 0;
    std::size_t address_space = 0;  // the part of the arena handed out to slots so far
};
[[nodiscard]] statistics current_statistics() noexcept;

}  // namespace fuzz::page_heap
