#include "web_test_support.h"

#include "message_pump.h"
#include "base/unique_handle.h"
#include "web/staging_folder.h"

#include "test_authority.h"

#include <aclapi.h>
#include <sddl.h>
#include <wininet.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace web_test {

namespace {

server_info read_server_info()
{
    server_info info;
    const DWORD length = ::GetEnvironmentVariableW(L"WEB_TEST_STATE", nullptr, 0);
    if (length == 0)
        return info;
    info.state.resize(length);
    info.state.resize(::GetEnvironmentVariableW(L"WEB_TEST_STATE", info.state.data(), length));
    std::istringstream ports(read_file(info.state + L"\\port"));
    ports >> info.https_port >> info.refused_port >> info.http_port;

    return trust_test_authority(read_file(info.state + L"\\ca.der")) ? info : server_info{};
}

}  // namespace

const server_info& server()
{
    static const server_info info = read_server_info();
    if (info.https_port == 0)
        ADD_FAILURE() << "no loopback test server: run this test through tests/web/run_with_server.sh";
    return info;
}

bool release_held_response(const std::wstring& name)
{
    const tessel::unique_hinternet session(::InternetOpenW(L"web tests", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0));
    const std::wstring address = L"http://localhost:" + std::to_wstring(server().http_port) + L"/release/" + name;
    const tessel::unique_hinternet request(
        session ? ::InternetOpenUrlW(session.get(), address.c_str(), nullptr, 0,
                                     INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_NO_UI, 0)
                : nullptr);
    DWORD status = 0, size = sizeof status;
    return request &&
           ::HttpQueryInfoW(request.get(), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size, nullptr) &&
           status == 200;
}

std::wstring fresh_folder(const std::wstring& name)
{
    wchar_t temp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, temp);
    const std::wstring folder = std::wstring(temp) + L"tessel-web-" + name;
    for (const std::wstring& file : files_in(folder))
        ::DeleteFileW((folder + L"\\" + file).c_str());
    ::CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}

std::vector<std::wstring> files_in(const std::wstring& folder)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found;
    tessel::unique_find_handle search(::FindFirstFileW((folder + L"\\*").c_str(), &found));
    if (!search)
        return names;
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            names.emplace_back(found.cFileName);
    } while (::FindNextFileW(search.get(), &found));
    return names;
}

std::string read_file(const std::wstring& path)
{
    std::ifstream in(std::filesystem::path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::wstring& path, std::string_view bytes)
{
    std::ofstream out(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool administrators_alone(const std::wstring& folder, std::wstring& sddl)
{
    PSECURITY_DESCRIPTOR read = nullptr;
    PACL dacl = nullptr;
    sddl = L"<unreadable>";
    if (::GetNamedSecurityInfoW(folder.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl,
                                nullptr, &read) != ERROR_SUCCESS)
        return false;
    const tessel::unique_hlocal read_owner(read);
    wchar_t* text = nullptr;
    ::ConvertSecurityDescriptorToStringSecurityDescriptorW(read, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text,
                                                           nullptr);
    const tessel::unique_hlocal text_owner(text);
    sddl = text ? text : L"";
    const auto& platform = tessel::web::trusted_platform_sids();
    for (DWORD i = 0; dacl && i < dacl->AceCount; ++i) {
        ACCESS_ALLOWED_ACE* ace = nullptr;
        ::GetAce(dacl, i, reinterpret_cast<void**>(&ace));
        PSID sid = &ace->SidStart;
        if (!::IsWellKnownSid(sid, WinBuiltinAdministratorsSid) && !::IsWellKnownSid(sid, WinLocalSystemSid) &&
            std::none_of(platform.begin(), platform.end(), [sid](PSID other) { return ::EqualSid(sid, other); }))
            return false;
    }
    return dacl != nullptr;
}

HRESULT code_of(const std::exception_ptr& error)
{
    if (!error)
        return S_OK;
    try {
        std::rethrow_exception(error);
    } catch (const fibra::details::hresult_error& e) {
        return e.code();
    } catch (const fibra::details::operation_cancelled&) {
        return E_ABORT;
    } catch (...) {
        return E_FAIL;
    }
}

void pump_until_or_die(const std::function<bool()>& done, DWORD timeout_ms, const char* what)
{
    if (!test_support::pump_until(done, timeout_ms)) {
        std::fprintf(stderr, "%s did not end within %lu ms; stopping the test process\n", what,
                     static_cast<unsigned long>(timeout_ms));
        std::fflush(stderr);
        ::TerminateProcess(::GetCurrentProcess(), 3);
    }
}

}  // namespace web_test
