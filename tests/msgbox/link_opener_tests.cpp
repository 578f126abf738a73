// The one way the elevated program opens links: what it refuses, and that what it opens
// starts through the signed-in user's desktop, not as a child of the program.

#include "msgbox/link_opener.h"

#include "base/module_path.h"
#include "base/unique_handle.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct recording_launcher final : tessel::link_launcher {
    bool desktop = true;
    std::vector<std::wstring> unelevated, here, asked, told;

    bool start_unelevated(const std::wstring& file, const std::wstring& parameters) override
    {
        unelevated.push_back(file + L"|" + parameters);
        return desktop;
    }
    bool start_here(HWND, const std::wstring& file, const std::wstring&) override
    {
        here.push_back(file);
        return true;
    }
    bool ask(HWND, const std::wstring& text) override
    {
        asked.push_back(text);
        return false;
    }
    void tell(HWND, const std::wstring& text) override { told.push_back(text); }
};

TEST(link_opener, only_https_addresses_open_and_they_go_to_the_signed_in_users_shell)
{
    for (const wchar_t* refused : {L"http://www.qmx-software.example/", L"file:///C:/Windows/System32/cmd.exe",
                                   L"javascript:alert(1)", L"docs/readme.html", L"C:\\Windows\\System32\\cmd.exe",
                                   L"https://host\\evil", L"https://a b/", L"https://host/\"quoted", L"https://-host/"}) {
        recording_launcher launcher;
        EXPECT_FALSE(tessel::open_link(nullptr, refused, launcher)) << refused;
        EXPECT_TRUE(launcher.unelevated.empty() && launcher.here.empty()) << refused;
        EXPECT_EQ(launcher.told, std::vector<std::wstring>{
                                     L"The program opens only secure web addresses (https). It did not open: " +
                                     std::wstring(refused)});
    }
    recording_launcher launcher;
    EXPECT_TRUE(tessel::open_link(nullptr, L"HTTPS://localhost:8443/a/b?c=1&d=%20#top", launcher));
    EXPECT_TRUE(tessel::open_help_file(nullptr, L"C:\\x\\ulmo.chm::/redirect.html#Main", launcher));
    EXPECT_EQ(launcher.unelevated, (std::vector<std::wstring>{L"HTTPS://localhost:8443/a/b?c=1&d=%20#top|",
                                                              L"hh.exe|C:\\x\\ulmo.chm::/redirect.html#Main"}));
    EXPECT_TRUE(launcher.here.empty() && launcher.told.empty() && launcher.asked.empty());

    // Without a desktop shell: Windows asks before it starts the browser elevated (here the
    // user declines); Wine, which has no elevation, starts it from the program.
    const bool wine = ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
    recording_launcher no_desktop;
    no_desktop.desktop = false;
    EXPECT_EQ(tessel::open_link(nullptr, L"https://www.qmx-software.example/", no_desktop), wine);
    EXPECT_EQ(no_desktop.asked.size(), wine ? 0u : 1u);
    EXPECT_EQ(no_desktop.here.size(), wine ? 1u : 0u);
}

TEST(link_opener, text_files_open_in_notepad_as_the_signed_in_user_and_never_as_administrator)
{
    const std::filesystem::path folder = std::filesystem::temp_directory_path();
    const std::wstring text = (folder / L"tessel-link-opener.txt").wstring();
    std::wofstream(std::filesystem::path(text)) << L"notices";
    wchar_t system_folder[MAX_PATH]{};
    ASSERT_NE(::GetSystemDirectoryW(system_folder, MAX_PATH), 0u);
    const std::wstring notepad = std::wstring(system_folder) + L"\\notepad.exe";
    for (const std::wstring& refused : {(folder / L"missing.txt").wstring(), std::wstring(L"tessel-link-opener.txt"),
                                        notepad, (folder / L"a\"b.txt").wstring(), folder.wstring()}) {
        recording_launcher launcher;
        EXPECT_FALSE(tessel::open_text_file(nullptr, refused, launcher)) << refused;
        EXPECT_TRUE(launcher.unelevated.empty() && launcher.here.empty()) << refused;
        EXPECT_EQ(launcher.told.size(), 1u) << refused;
    }
    recording_launcher launcher;
    EXPECT_TRUE(tessel::open_text_file(nullptr, text, launcher));
    EXPECT_EQ(launcher.unelevated, std::vector<std::wstring>{notepad + L"|\"" + text + L"\""});

    // Without a desktop shell Windows does not start Notepad as administrator but says so;
    // Wine, which has no elevation, starts it from the program. Nobody is asked.
    const bool wine = ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
    recording_launcher no_desktop;
    no_desktop.desktop = false;
    EXPECT_EQ(tessel::open_text_file(nullptr, text, no_desktop), wine);
    EXPECT_TRUE(no_desktop.asked.empty());
    EXPECT_EQ(no_desktop.here.size(), wine ? 1u : 0u);
    EXPECT_EQ(no_desktop.told.size(), wine ? 0u : 1u);
    ::DeleteFileW(text.c_str());
}

// The test below starts this one through the desktop: it notes its parent's id and name.
const std::wstring child_report = std::filesystem::temp_directory_path().wstring() + L"\\tessel-link-opener-child.txt";

TEST(link_opener, DISABLED_child_notes_its_parent)
{
    const tessel::unique_file snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    DWORD parent = 0;
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more; more = ::Process32NextW(snapshot.get(), &entry))
        parent = entry.th32ProcessID == ::GetCurrentProcessId() ? entry.th32ParentProcessID : parent;
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more; more = ::Process32NextW(snapshot.get(), &entry)) {
        if (entry.th32ProcessID == parent)
            std::wofstream(std::filesystem::path(child_report + L".tmp")) << parent << L" " << entry.szExeFile;
    }
    ::MoveFileExW((child_report + L".tmp").c_str(), child_report.c_str(), MOVEFILE_REPLACE_EXISTING);
}

TEST(link_opener, the_system_launcher_starts_through_the_desktop_not_as_a_child_of_the_program)
{
    ::DeleteFileW(child_report.c_str());
    ASSERT_TRUE(tessel::system_link_launcher().start_unelevated(
        tessel::module_path(), L"--gtest_also_run_disabled_tests --gtest_filter=link_opener.DISABLED_child_notes_its_parent"));
    std::wstring report;
    for (const ULONGLONG deadline = ::GetTickCount64() + 20000; report.empty() && ::GetTickCount64() < deadline;) {
        ::MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT);
        std::wifstream in{std::filesystem::path(child_report)};
        std::getline(in, report);
    }
    ASSERT_FALSE(report.empty()) << "the child did not start";
    EXPECT_NE(std::wcstoul(report.c_str(), nullptr, 10), ::GetCurrentProcessId()) << report;
    EXPECT_NE(report.find(L"explorer.exe"), std::wstring::npos) << report;
    ::DeleteFileW(child_report.c_str());
}

}  // namespace
