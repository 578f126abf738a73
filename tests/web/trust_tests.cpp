// What the elevated program trusts before it starts a download: the installer's signature
// and signer, the folders it stages the download in, and every redirect on the way.

#include "web_test_support.h"

#include "base/module_path.h"
#include "base/unique_handle.h"
#include "web/installer_trust.h"
#include "web/staging_folder.h"
#include "web/update_service.h"

#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <softpub.h>

#include <filesystem>
#include <string>

namespace {

using tessel::web::check_installer_signature;
using tessel::web::folder_refusal;
using tessel::web::folder_security;
using tessel::web::staging_folder;

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
    // The first verification caches the root store in this process: the loopback server's
    // authority must be in it before, or later tests' connections fail with an unknown CA.
    web_test::server();
    const std::wstring bin = tessel::module_folder();
    const std::wstring folder = web_test::fresh_folder(L"signature");
    // One byte of the code changed after signing.
    std::string tampered = web_test::read_file(bin + L"web_fake_installer.exe");
    ASSERT_GT(tampered.size(), 4096u);
    tampered[2048] = static_cast<char>(tampered[2048] ^ 0x01);
    web_test::write_file(folder + L"\\tampered.exe", tampered);

    EXPECT_EQ(signature_verdict(bin + L"web_fake_installer_unsigned.exe"), TRUST_E_NOSIGNATURE);
    EXPECT_EQ(signature_verdict(folder + L"\\tampered.exe"), TRUST_E_BAD_DIGEST);
    EXPECT_EQ(signature_verdict(bin + L"web_fake_installer_foreign.exe"), tessel::web::e_foreign_signer);
    EXPECT_EQ(signature_verdict(bin + L"web_fake_installer.exe"), S_OK);
    // The product's own installer is signed with the key the program pins.
    EXPECT_EQ(signature_verdict(bin + L"UlmoraToolsSetup.exe"), S_OK);
}

// ---- the staging folder -----------------------------------------------------------------

std::wstring empty_root(const wchar_t* name)
{
    const std::wstring root = web_test::fresh_folder(name);
    std::filesystem::remove_all(std::filesystem::path(root));
    ::CreateDirectoryW(root.c_str(), nullptr);
    return root;
}

bool is_empty_folder(const std::wstring& folder)
{
    std::error_code error;
    return std::filesystem::is_empty(std::filesystem::path(folder), error) && !error;
}

tessel::unique_hlocal descriptor(const wchar_t* sddl)
{
    PSECURITY_DESCRIPTOR made = nullptr;
    EXPECT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &made, nullptr)) << sddl;
    return tessel::unique_hlocal(made);
}

// The text the user reads when the staging refuses; empty when it accepts.
std::wstring staging_refusal(const std::wstring& root, tessel::web::folder_reader reader = {})
{
    try {
        staging_folder staging(root, {L"Vendor", L"Updates"}, std::move(reader));
        return {};
    } catch (...) {
        return tessel::web::describe_failure(std::current_exception()).text;
    }
}

TEST(staging_folder, a_fresh_chain_is_created_for_administrators_alone)
{
    const std::wstring root = empty_root(L"staging-fresh");
    staging_folder staging(root, {L"Vendor", L"Updates"});
    const std::wstring fresh = staging.path();
    ASSERT_TRUE(fresh.starts_with(root + L"\\Vendor\\Updates\\")) << fresh;
    EXPECT_EQ(fresh.size() - (root.size() + 16), 32u) << fresh;  // a random name of 128 bits
    EXPECT_TRUE(is_empty_folder(fresh));
    // Read back: nobody but the trusted accounts has any access, which a folder made with
    // the default descriptor would give to everyone.
    for (const std::wstring& folder : {root + L"\\Vendor", root + L"\\Vendor\\Updates", fresh}) {
        std::wstring sddl;
        EXPECT_TRUE(web_test::administrators_alone(folder, sddl)) << folder << ": " << sddl;
    }
}

TEST(staging_folder, a_component_someone_else_could_change_is_refused_and_nothing_is_written_into_it)
{
    // For real: a folder whose DACL lets everyone write, made before the program came.
    const std::wstring root = empty_root(L"staging-refused");
    const std::wstring open_to_all = root + L"\\Vendor";
    ASSERT_TRUE(::CreateDirectoryW(open_to_all.c_str(), nullptr));
    const tessel::unique_hlocal everyone = descriptor(L"D:P(A;OICI;FA;;;WD)");
    BOOL present = FALSE, defaulted = FALSE;
    PACL dacl = nullptr;
    ASSERT_TRUE(::GetSecurityDescriptorDacl(everyone.get(), &present, &dacl, &defaulted));
    ASSERT_EQ(::SetNamedSecurityInfoW(const_cast<wchar_t*>(open_to_all.c_str()), SE_FILE_OBJECT,
                                      DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                      dacl, nullptr),
              static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(staging_refusal(root), L"The folder " + open_to_all +
                                         L" cannot hold the update: users other than administrators may change it. "
                                         L"Nothing was downloaded.");
    EXPECT_TRUE(is_empty_folder(open_to_all));

    // Through the reader: what Wine cannot make (a link, a folder owned by someone else,
    // an access list naming Users) is read as if the folder "Updates" were so.
    const std::wstring chain_root = empty_root(L"staging-read");
    const struct {
        DWORD attributes;
        const wchar_t* sddl;
        const wchar_t* reason;
    } cases[] = {
        {FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT, L"O:BAD:P(A;;FA;;;BA)", L"it is a link to another place"},
        {FILE_ATTRIBUTE_DIRECTORY, L"O:BUD:P(A;;FA;;;BA)", L"it belongs to someone other than the administrators"},
        {FILE_ATTRIBUTE_DIRECTORY, L"O:BAD:P(A;;FA;;;BA)(A;;0x116;;;BU)", L"users other than administrators may change it"},
        {FILE_ATTRIBUTE_DIRECTORY, L"O:BA", L"users other than administrators may change it"},  // no DACL at all
        {FILE_ATTRIBUTE_NORMAL, L"O:BAD:P(A;;FA;;;BA)", L"it is not a folder"},
    };
    for (const auto& refused : cases) {
        const auto reader = [&](HANDLE folder, const std::wstring& path) {
            return path.ends_with(L"\\Updates") ? folder_security{refused.attributes, descriptor(refused.sddl)}
                                                 : tessel::web::read_folder_security(folder);
        };
        const std::wstring updates = chain_root + L"\\Vendor\\Updates";
        EXPECT_EQ(staging_refusal(chain_root, reader),
                  L"The folder " + updates + L" cannot hold the update: " + refused.reason + L". Nothing was downloaded.");
        EXPECT_TRUE(is_empty_folder(updates)) << refused.sddl;
    }
    // What others may only read, or what applies only to what is created inside, is fine.
    for (const wchar_t* accepted : {L"O:SYD:P(A;;FA;;;SY)(A;;FR;;;BU)", L"O:BAD:P(A;;FA;;;BA)(A;OICIIO;FA;;;CO)",
                                    L"O:BAD:P(A;;FA;;;BA)(D;;FA;;;BU)"})
        EXPECT_EQ(tessel::web::judge_folder({FILE_ATTRIBUTE_DIRECTORY, descriptor(accepted)}), folder_refusal::none);
}

// ---- every hop https ------------------------------------------------------------------

TEST(https_hops, every_redirect_is_checked_as_it_comes_and_their_number_is_bounded)
{
    tessel::web::HttpClient client;
    ASSERT_TRUE(client.initialize(web_test::server().base()));
    const auto open = [&](const wchar_t* path) {
        auto [status, error] = web_test::run_task<DWORD>([&client, address = client.resolve(path)]() -> tessel::web::task<DWORD> {
            const tessel::web::http_request request =
                co_await tessel::web::open_https(client, address, L"Accept: */*", tessel::web::stop_token{});
            co_return tessel::web::http_status(request.handle());
        });
        return error ? web_test::code_of(error) : static_cast<HRESULT>(*status);
    };
    EXPECT_EQ(open(L"hops/5/bytes/10"), 200);
    EXPECT_EQ(open(L"hops/6/bytes/10"), HRESULT_FROM_WIN32(ERROR_HTTP_REDIRECT_FAILED));
    // It ends at https, but one hop in between was plain http.
    EXPECT_EQ(open(L"via-http/bytes/10"), tessel::web::e_insecure_address);
    EXPECT_EQ(open(L"redirect-http"), tessel::web::e_insecure_address);
}

}  // namespace
