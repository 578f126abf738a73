// What the elevated program trusts before it starts a download: the installer's signature
// and signer, read through the handle the program keeps open.

#include "web_test_support.h"

#include "base/module_path.h"
#include "base/unique_handle.h"
#include "web/installer_trust.h"

#include <gtest/gtest.h>
#include <softpub.h>

#include <string>

namespace {

using tessel::web::check_installer_signature;

HRESULT signature_verdict(const std::wstring& path)
{
    const tessel::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return HRESULT_FROM_WIN32(::GetLastError());
    try {
        check_installer_signature(file.get(), tessel::web::built_in_publisher_pin());
        return S_OK;
    } catch (...) {
        return web_test::code_of(std::current_exception());
    }
}

TEST(installer_signature, only_an_intact_file_signed_with_the_pinned_key_is_accepted)
{
    const std::wstring bin = tessel::module_folder();
    const std::wstring folder = web_test::fresh_folder(L"signature");
    std::string signed_bytes = web_test::read_file(bin + L"web_fake_installer.exe");
    ASSERT_GT(signed_bytes.size(), 4096u);
    // One byte of the code changed after signing.
    std::string tampered = signed_bytes;
    tampered[2048] = static_cast<char>(tampered[2048] ^ 0x01);
    web_test::write_file(folder + L"\\tampered.exe", tampered);

    EXPECT_EQ(signature_verdict(bin + L"web_fake_installer_unsigned.exe"), TRUST_E_NOSIGNATURE);
    EXPECT_EQ(signature_verdict(folder + L"\\tampered.exe"), TRUST_E_BAD_DIGEST);
    EXPECT_EQ(signature_verdict(bin + L"web_fake_installer_foreign.exe"), tessel::web::e_foreign_signer);
    EXPECT_EQ(signature_verdict(bin + L"web_fake_installer.exe"), S_OK);
    // The product's own installer is signed with the key the program pins.
    EXPECT_EQ(signature_verdict(bin + L"UlmoraToolsSetup.exe"), S_OK);
}

}  // namespace
