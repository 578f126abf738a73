// The program runs elevated: a DLL dropped beside it or into its current folder under the
// name of a system library it loads on demand must never be loaded.

#include "program_process.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

using namespace process_test;

class planted_library : public program_process {
protected:
    void SetUp() override
    {
        program_process::SetUp();
        root_ = temp_folder() + L"servercfg-planted\\";
        remove_all();
        ::CreateDirectoryW(root_.c_str(), nullptr);
        ::CreateDirectoryW(program_folder().c_str(), nullptr);
        ::CreateDirectoryW(current_folder().c_str(), nullptr);
        const std::wstring planted = bin_folder() + L"planted_library.dll";
        for (const std::wstring& folder : {program_folder(), current_folder()})
            ASSERT_TRUE(::CopyFileW(planted.c_str(), (folder + L"dwmapi.dll").c_str(), FALSE));
        ::SetEnvironmentVariableW(L"PLANTED_LIBRARY_MARKER", marker().c_str());
    }
    void TearDown() override
    {
        ::SetEnvironmentVariableW(L"PLANTED_LIBRARY_MARKER", nullptr);
        program_process::TearDown();
        remove_all();
    }

    std::wstring program_folder() const { return root_ + L"program\\"; }
    std::wstring current_folder() const { return root_ + L"current\\"; }
    std::wstring marker() const { return root_ + L"loaded.txt"; }
    std::wstring loaded_from() const
    {
        std::ifstream file(marker().c_str(), std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t));
    }

private:
    void remove_all()
    {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(root_), ignored);
    }

    std::wstring root_;
};

TEST_F(planted_library, a_dwmapi_beside_the_program_or_in_its_current_folder_is_never_loaded)
{
    // The plain search order does take the planted copy: otherwise this test could not fail.
    const std::wstring driver = program_folder() + L"ui_driver.exe";
    ASSERT_TRUE(::CopyFileW((bin_folder() + L"ui_driver.exe").c_str(), driver.c_str(), FALSE));
    {
        process unhardened(L"\"" + driver + L"\" load dwmapi.dll", current_folder());
        EXPECT_EQ(unhardened.wait(), 0u);
    }
    ASSERT_NE(loaded_from().find(L"dwmapi.dll"), std::wstring::npos) << "the planted DLL was not taken at all";
    ::DeleteFileW(marker().c_str());

    const std::wstring copy = program_folder() + L"ServerCfg.exe";
    ASSERT_TRUE(::CopyFileW((bin_folder() + L"ServerCfg.exe").c_str(), copy.c_str(), FALSE));
    process program_run(L"\"" + copy + L"\"", current_folder());
    const std::wstring main_window = wait_for(main_tree_placeholder_id);
    ASSERT_FALSE(main_window.empty()) << "the main window did not appear";
    ui_driver(L"close " + main_window);
    EXPECT_EQ(program_run.wait(), 0u);
    EXPECT_EQ(loaded_from(), L"") << "the program loaded a planted DLL";
}

}  // namespace
