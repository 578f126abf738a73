// The one way the elevated program opens links: what it refuses, and that what it opens
// goes to the signed-in user's shell first.

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
    bool unelevated_available = true;
    std::vector<std::wstring> unelevated, here, asked, told;

    bool start_unelevated(const std::wstring& file, const std::wstring& parameters) override
    {
        unelevated.push_back(file + L"|" + parameters);
        return unelevated_available;
    }
    bool start_here(HWND, const std::wstring& file, const std::wstring& parameters) override
    {
        here.push_back(file + L"|" + parameters);
        return true;
    }
    bool ask(HWND, const std::wstring& text) override
    {
        asked.push_back(text);
        return false;
    }
    void tell(HWND, const std::wstring& text) override { told.push_back(text); }
};

bool under_wine()
{
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

TEST(link_opener, only_https_addresses_open_and_they_go_to_the_signed_in_users_shell)
{
    for (const wchar_t* refused :
         {L"http://www.qmx-software.example/", L"file:///C:/Windows/System32/cmd.exe", L"javascript:alert(1)",
          L"docs/readme.html", L"C:\\Windows\\System32\\cmd.exe", L"https://", L"https:///path", L"https://host\\evil",
          L"https://a b/", L" https://host/", L"https://host/\"quoted", L"https://host:99999999/", L"https://-host/",
          L"HTTPS:x", L"ms-settings:privacy", L"\\\\server\\share\\setup.exe"}) {
        recording_launcher launcher;
        EXPECT_FALSE(tessel::open_link(nullptr, refused, launcher)) << refused;
        EXPECT_TRUE(launcher.unelevated.empty() && launcher.here.empty()) << refused;
        ASSERT_EQ(launcher.told.size(), 1u) << refused;
        EXPECT_EQ(launcher.told[0],
                  std::wstring(L"The program opens only secure web addresses (https). It did not open: ") + refused);
    }

    for (const wchar_t* opened : {L"https://www.qmx-software.example/", L"HTTPS://localhost:8443/a/b?c=1&d=%20#top",
                                  L"https://www.qmx-software.example/online-doc/ulmo/Main%20Window"}) {
        recording_launcher launcher;
        EXPECT_TRUE(tessel::open_link(nullptr, opened, launcher)) << opened;
        EXPECT_EQ(launcher.unelevated, std::vector<std::wstring>{std::wstring(opened) + L"|"});
        EXPECT_TRUE(launcher.here.empty() && launcher.told.empty() && launcher.asked.empty()) << opened;
    }
    recording_launcher help;
    EXPECT_TRUE(tessel::open_help_file(nullptr, L"C:\\Program Files\\x\\ulmo.chm::/redirect.html#Main", help));
    EXPECT_EQ(help.unelevated, std::vector<std::wstring>{L"hh.exe|C:\\Program Files\\x\\ulmo.chm::/redirect.html#Main"});

    // Without a desktop shell: Windows asks before it starts the browser elevated (here the
    // user declines); Wine, which has no elevation, starts it from the program.
    recording_launcher no_shell;
    no_shell.unelevated_available = false;
    EXPECT_EQ(tessel::open_link(nullptr, L"https://www.qmx-software.example/", no_shell), under_wine());
    EXPECT_EQ(no_shell.asked.size(), under_wine() ? 0u : 1u);
    EXPECT_EQ(no_shell.here.size(), under_wine() ? 1u : 0u);
}

// Started through the desktop's shell by the test below: notes who started it.
std::wstring child_report()
{
    wchar_t temp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, temp);
    return std::wstring(temp) + L"tessel-link-opener-child.txt";
}

TEST(link_opener, DISABLED_child_notes_its_parent)
{
    const tessel::unique_file snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    DWORD parent = 0;
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more; more = ::Process32NextW(snapshot.get(), &entry)) {
        if (entry.th32ProcessID == ::GetCurrentProcessId())
            parent = entry.th32ParentProcessID;
    }
    std::wstring parent_name;
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more; more = ::Process32NextW(snapshot.get(), &entry)) {
        if (entry.th32ProcessID == parent)
            parent_name = entry.szExeFile;
    }
    std::wofstream(std::filesystem::path(child_report() + L".tmp")) << parent << L" " << parent_name;
    ::MoveFileExW((child_report() + L".tmp").c_str(), child_report().c_str(), MOVEFILE_REPLACE_EXISTING);
}

TEST(link_opener, the_system_launcher_starts_through_the_desktop_not_as_a_child_of_the_program)
{
    ::DeleteFileW(child_report().c_str());
    ASSERT_TRUE(tessel::system_link_launcher().start_unelevated(
        tessel::module_path(), L"--gtest_also_run_disabled_tests --gtest_filter=link_opener.DISABLED_child_notes_its_parent"));
    std::wstring report;
    for (const ULONGLONG deadline = ::GetTickCount64() + 20000; report.empty() && ::GetTickCount64() < deadline;) {
        ::MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT);
        std::wifstream in{std::filesystem::path(child_report())};
        std::getline(in, report);
    }
    ASSERT_FALSE(report.empty()) << "the child did not start";
    const DWORD parent = std::wcstoul(report.c_str(), nullptr, 10);
    EXPECT_NE(parent, ::GetCurrentProcessId()) << report;
    EXPECT_NE(report.find(L"explorer.exe"), std::wstring::npos) << report;
    ::DeleteFileW(child_report().c_str());
}

}  // namespace
