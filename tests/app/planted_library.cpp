// A DLL that someone might drop beside the program or into its current folder, named
// like a system library the program loads on demand. Loaded, it records where from in
// the file named by PLANTED_LIBRARY_MARKER, so a test can tell that it was taken.

#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void*)
{
    if (reason != DLL_PROCESS_ATTACH)
        return TRUE;
    wchar_t marker[MAX_PATH];
    const DWORD length = ::GetEnvironmentVariableW(L"PLANTED_LIBRARY_MARKER", marker, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
        return TRUE;
    const HANDLE file = ::CreateFileW(marker, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
        wchar_t path[MAX_PATH];
        const DWORD size = ::GetModuleFileNameW(module, path, MAX_PATH);
        DWORD written = 0;
        ::WriteFile(file, path, size * sizeof(wchar_t), &written, nullptr);
        ::WriteFile(file, L"\n", sizeof(wchar_t), &written, nullptr);
        ::CloseHandle(file);
    }
    return TRUE;
}
