#pragma once
// Both programs run elevated, so a DLL that someone drops beside them or into the current
// folder must never be taken for a system library.

#include <windows.h>

namespace tessel {

// Done first thing, before anything loads a library: libraries load from the system
// folder (and by full path) only, and a corrupted heap ends the process instead of being
// used on. Returns whether the safe library search order is in force (it is missing only
// on systems that predate it).
bool harden_process() noexcept;

// A system library by name, always from the system folder; null when it cannot be loaded.
[[nodiscard]] HMODULE load_system_library(const wchar_t* name) noexcept;

}  // namespace tessel
