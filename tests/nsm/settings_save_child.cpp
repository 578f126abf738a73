// settings_save_child <key path> <step>: saves record_being_saved() into HKCU\<key path>
// and stops before its registry change number <step> (counted from 1): it prints
// "paused <step> <function>" and ends there at once with code 9, as a crash would.
// When the save has fewer changes it prints "saved <count>" and ends with 0.
//
// Every registry function the program's code imports that changes a key is redirected
// through this executable's import table, so the save itself runs unmodified.

#include "crash_records.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <span>

namespace {

long pause_at = 0;
long changes = 0;

void step(const char* function)
{
    if (++changes != pause_at)
        return;
    std::printf("paused %ld %s\n", changes, function);
    std::fflush(stdout);
    ::TerminateProcess(::GetCurrentProcess(), 9);
}

#define HOOK(name, ret, params, args)                    \
    using name##_fn = ret(WINAPI*) params;               \
    name##_fn real_##name = nullptr;                     \
    ret WINAPI hooked_##name params                      \
    {                                                    \
        step(#name);                                     \
        return real_##name args;                         \
    }

HOOK(RegCreateKeyExW, LSTATUS,
     (HKEY key, LPCWSTR subkey, DWORD reserved, LPWSTR cls, DWORD options, REGSAM sam,
      const SECURITY_ATTRIBUTES* security, PHKEY result, LPDWORD disposition),
     (key, subkey, reserved, cls, options, sam, security, result, disposition))
HOOK(RegSetValueExW, LSTATUS, (HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size),
     (key, name, reserved, type, data, size))
HOOK(RegDeleteTreeW, LSTATUS, (HKEY key, LPCWSTR subkey), (key, subkey))
HOOK(RegDeleteKeyW, LSTATUS, (HKEY key, LPCWSTR subkey), (key, subkey))
HOOK(RegDeleteKeyValueW, LSTATUS, (HKEY key, LPCWSTR subkey, LPCWSTR name), (key, subkey, name))

struct hook {
    const char* name;
    void** real;
    void* replacement;
};

#define HOOK_ENTRY(name) {#name, reinterpret_cast<void**>(&real_##name), reinterpret_cast<void*>(&hooked_##name)}

void redirect_imports()
{
    const hook hooks[] = {HOOK_ENTRY(RegCreateKeyExW), HOOK_ENTRY(RegSetValueExW), HOOK_ENTRY(RegDeleteTreeW),
                          HOOK_ENTRY(RegDeleteKeyW), HOOK_ENTRY(RegDeleteKeyValueW)};
    auto* base = reinterpret_cast<BYTE*>(::GetModuleHandleW(nullptr));
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const auto& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* library = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress); library->Name;
         ++library) {
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            const auto* by_name = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            for (const hook& h : hooks) {
                if (std::strcmp(reinterpret_cast<const char*>(by_name->Name), h.name) != 0)
                    continue;
                DWORD old = 0;
                ::VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, PAGE_READWRITE, &old);
                *h.real = reinterpret_cast<void*>(slots->u1.Function);
                slots->u1.Function = reinterpret_cast<ULONG_PTR>(h.replacement);
                ::VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, old, &old);
            }
        }
    }
    // A save always opens, clears, deletes and writes; the rest may not be linked in.
    for (const hook& h : std::span(hooks).first(4))
        if (!*h.real) {
            std::printf("not imported: %s\n", h.name);
            std::exit(2);
        }
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    _setmode(_fileno(stdout), _O_BINARY);
    if (argc != 3)
        return 2;
    pause_at = std::wcstol(argv[2], nullptr, 10);
    redirect_imports();
    save_settings(nsm_test::record_being_saved(), HKEY_CURRENT_USER, argv[1]);
    std::printf("saved %ld\n", changes);
    return 0;
}
