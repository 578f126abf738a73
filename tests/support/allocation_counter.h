#pragma once
// Counts heap allocations of the whole process, for tests and benchmarks that prove a
// stretch of code allocates nothing. Linking allocation_counter.cpp replaces the global
// operator new and delete of the executable.

#include <cstdint>

namespace test_support {

// Allocations through operator new (every form) since the process started.
[[nodiscard]] std::uint64_t allocation_count() noexcept;
// Bytes asked for by those allocations (the heap's own overhead not included).
[[nodiscard]] std::uint64_t allocated_bytes() noexcept;

}  // namespace test_support
