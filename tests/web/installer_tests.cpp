// The product's installer (UlmoraToolsSetup.exe, built by makensis) run silently under Wine.

#include "child_process.h"
#include "web_test_support.h"

#include "base/module_path.h"
#include "base/unique_handle.h"
#include "web/installer_trust.h"
#include "web/staging_folder.h"
#include "web/update_service.h"

#include <gtest/gtest.h>
#include <shlobj.h>

#include <filesystem>
#include <string>

namespace {

constexpr wchar_t uninstall_key[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\QMX Ulmora Tools ServerCfg";

bool exists(const std::wstring& path)
{
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring registry_text(const wchar_t* name)
{
    wchar_t value[256] = {};
    DWORD size = sizeof value;
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, uninstall_key, name, RRF_RT_REG_SZ, nullptr, value, &size) != ERROR_SUCCESS)
        return L"<none>";
    return value;
}

TEST(installer, silent_install_waits_for_the_program_being_updated_and_uninstalls_cleanly)
{
    const std::wstring setup = tessel::module_folder() + L"\\UlmoraToolsSetup.exe";
    ASSERT_TRUE(exists(setup));
    const std::wstring folder = L"C:\\tessel-installer-test";
    wchar_t* programs = nullptr;
    ASSERT_EQ(::SHGetKnownFolderPath(FOLDERID_CommonPrograms, 0, nullptr, &programs), S_OK);
    const tessel::unique_cotaskmem programs_owner(programs);
    const std::wstring shortcut = std::wstring(programs) + L"\\QMX Software\\Ulmora Tools Server Configuration.lnk";
    const std::wstring reference_folder = folder + L"-reference";
    std::filesystem::remove_all(folder);
    std::filesystem::remove_all(reference_folder);
    // The installer makes the data folders; the uninstaller takes them and the test value.
    const std::wstring updates = tessel::web::updates_folder_path();
    const std::wstring data = updates.substr(0, updates.rfind(L"\\Ulmora Tools\\Updates"));
    std::filesystem::remove_all(std::filesystem::path(data));
    const std::wstring service = L"https://localhost:1/";
    ASSERT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, std::wstring(tessel::web::update_service_override_key).c_str(),
                                std::wstring(tessel::web::update_service_override_value).c_str(), REG_SZ,
                                service.c_str(), static_cast<DWORD>((service.size() + 1) * sizeof(wchar_t))),
              ERROR_SUCCESS);

    // A program that runs until the test ends it stands for the running configuration
    // utility. An installer that did not wait for it would create its folder first thing,
    // which it would have done by the time a second installer, started after it and
    // waiting for nothing, has installed everything: only then is the absence believed.
    test_support::child_process program(L"\"" + tessel::module_folder() + L"web_fake_installer.exe\" --sleep=120000");
    ASSERT_TRUE(program.started());
    HANDLE inheritable = nullptr;
    ASSERT_TRUE(::DuplicateHandle(::GetCurrentProcess(), program.handle(), ::GetCurrentProcess(), &inheritable,
                                  SYNCHRONIZE, TRUE, 0));
    const tessel::unique_handle inheritable_owner(inheritable);
    test_support::child_process installer(
        L"\"" + setup + L"\" /S /UPDATE=" + std::to_wstring(reinterpret_cast<std::uintptr_t>(inheritable)) + L" /D=" + folder,
        {}, true);
    test_support::child_process reference(L"\"" + setup + L"\" /S /D=" + reference_folder);
    EXPECT_EQ(reference.wait(60000), 0u);
    EXPECT_TRUE(exists(reference_folder + L"\\uninstall.exe")) << "the reference installation did not finish";
    std::filesystem::remove_all(reference_folder);
    EXPECT_EQ(installer.wait(0), STILL_ACTIVE) << "the installer did not wait for the program";
    EXPECT_FALSE(exists(folder)) << "the installer wrote files while the program ran";

    // Once the program has ended, the installer goes on.
    program.kill();
    EXPECT_EQ(installer.wait(60000), 0u);

    EXPECT_TRUE(exists(folder + L"\\ServerCfg.exe"));
    EXPECT_TRUE(exists(folder + L"\\uninstall.exe"));
    EXPECT_FALSE(web_test::files_in(folder + L"\\languages").empty());
    const std::string notices = web_test::read_file(tessel::module_folder() + L"ThirdPartyNotices.txt");
    EXPECT_FALSE(notices.empty());
    EXPECT_TRUE(web_test::read_file(folder + L"\\ThirdPartyNotices.txt") == notices)
        << "the third-party notices are not installed as built";
    EXPECT_TRUE(exists(shortcut)) << shortcut;
    EXPECT_EQ(registry_text(L"DisplayVersion"), L"1.0.0.0");
    EXPECT_EQ(registry_text(L"Publisher"), L"QMX Software");
    EXPECT_EQ(registry_text(L"InstallLocation"), folder);
    // A folder outside Program Files and the data folders are the administrators' alone.
    for (const std::wstring& protected_folder : {folder, data, updates}) {
        std::wstring sddl;
        EXPECT_TRUE(web_test::administrators_alone(protected_folder, sddl)) << protected_folder << ": " << sddl;
    }
    {
        // The uninstaller is signed like the installer.
        const tessel::unique_file uninstall(::CreateFileW((folder + L"\\uninstall.exe").c_str(), GENERIC_READ,
                                                          FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_NO_THROW(tessel::web::check_installer_signature(uninstall.get(), tessel::web::built_in_publisher_pin()));
    }

    // "_?=" keeps the uninstaller from copying itself away and returning at once.
    test_support::child_process uninstaller(L"\"" + folder + L"\\uninstall.exe\" /S _?=" + folder);
    ASSERT_NE(uninstaller.wait(60000), STILL_ACTIVE);
    EXPECT_FALSE(exists(folder + L"\\ServerCfg.exe"));
    EXPECT_FALSE(exists(folder + L"\\ThirdPartyNotices.txt"));
    EXPECT_FALSE(exists(folder + L"\\languages"));
    EXPECT_FALSE(exists(shortcut));
    EXPECT_EQ(registry_text(L"DisplayName"), L"<none>");
    EXPECT_FALSE(exists(data));
    EXPECT_NE(::RegGetValueW(HKEY_LOCAL_MACHINE, std::wstring(tessel::web::update_service_override_key).c_str(),
                             std::wstring(tessel::web::update_service_override_value).c_str(), RRF_RT_REG_SZ, nullptr,
                             nullptr, nullptr),
              ERROR_SUCCESS);
    ::DeleteFileW((folder + L"\\uninstall.exe").c_str());
    ::RemoveDirectoryW(folder.c_str());
}

}  // namespace
