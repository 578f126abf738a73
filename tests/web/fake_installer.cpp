// Stands in for the product's installer in the update tests: it writes beside itself
// ("<own path>.txt") the id of the process that the handle on its command line names,
// then waits for that process to end and notes that it did. With "--sleep=<ms>" it only
// waits that long: a program for the real installer to wait for.

#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>

int wmain(int, wchar_t**)
{
    const std::wstring line = ::GetCommandLineW();
    if (const std::size_t sleep = line.find(L"--sleep="); sleep != std::wstring::npos) {
        ::Sleep(static_cast<DWORD>(std::wcstoul(line.c_str() + sleep + 8, nullptr, 10)));
        return 0;
    }
    const std::size_t at = line.find(L"/UPDATE=");
    HANDLE process = nullptr;
    if (at != std::wstring::npos)
        process = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(std::wcstoull(line.c_str() + at + 8, nullptr, 10)));
    wchar_t self[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    const std::wstring report = std::wstring(self) + L".txt";
    FILE* out = _wfopen(report.c_str(), L"wb");
    if (!out)
        return 1;
    std::fprintf(out, "pid=%lu\n", process ? ::GetProcessId(process) : 0ul);
    std::fflush(out);
    if (process && ::WaitForSingleObject(process, 20000) == WAIT_OBJECT_0)
        std::fprintf(out, "ended\n");
    std::fclose(out);
    return 0;
}
