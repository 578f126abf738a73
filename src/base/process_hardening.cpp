#include "base/process_hardening.h"

#include <string>

namespace tessel {
namespace {

bool safe_search_order = false;

}  // namespace

bool harden_process() noexcept
{
    ::HeapSetInformation(nullptr, HeapEnableTerminationOnCorruption, nullptr, 0);
    // Looked up, not imported: systems without the update that brought it would not even
    // start the program otherwise.
    using set_default_fn = BOOL(WINAPI*)(DWORD);
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    const auto set_default = kernel ? reinterpret_cast<set_default_fn>(reinterpret_cast<void*>(
                                          ::GetProcAddress(kernel, "SetDefaultDllDirectories")))
                                    : nullptr;
    safe_search_order = set_default && set_default(LOAD_LIBRARY_SEARCH_SYSTEM32);
    // Without it, at least the current folder leaves the search order.
    ::SetDllDirectoryW(L"");
    return safe_search_order;
}

HMODULE load_system_library(const wchar_t* name) noexcept
{
    if (safe_search_order)
        return ::LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    try {
        wchar_t folder[MAX_PATH];
        const UINT length = ::GetSystemDirectoryW(folder, MAX_PATH);
        if (length == 0 || length >= MAX_PATH)
            return nullptr;
        return ::LoadLibraryW((std::wstring(folder, length) + L"\\" + name).c_str());
    } catch (...) {
        // No memory for the path: the library counts as missing, which every caller handles.
        return nullptr;
    }
}

}  // namespace tessel
