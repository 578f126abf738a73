#include "web/staging_folder.h"

#include <aclapi.h>
#include <bcrypt.h>
#include <sddl.h>
#include <shlobj.h>

#include <array>

namespace tessel::web {
namespace {

// Owner Administrators; SYSTEM and Administrators only, nothing inherited from above.
constexpr wchar_t protected_descriptor[] = L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

// Rights that let their holder change a folder, what is in it, or who may.
constexpr ACCESS_MASK changing_rights = FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY | FILE_WRITE_EA | FILE_DELETE_CHILD |
                                        FILE_WRITE_ATTRIBUTES | DELETE | WRITE_DAC | WRITE_OWNER | GENERIC_WRITE |
                                        GENERIC_ALL | MAXIMUM_ALLOWED;

unique_hlocal sid_of(const wchar_t* text)
{
    PSID sid = nullptr;
    throw_last_error_if(!::ConvertStringSidToSidW(text, &sid));
    return unique_hlocal(sid);
}

const std::array<unique_hlocal, 3>& well_known_trusted()
{
    static const std::array<unique_hlocal, 3> sids{
        sid_of(L"S-1-5-32-544"),  // Administrators
        sid_of(L"S-1-5-18"),      // SYSTEM
        sid_of(L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464"),  // TrustedInstaller
    };
    return sids;
}

bool trusted(PSID sid, const std::vector<PSID>& extra)
{
    if (!sid || !::IsValidSid(sid))
        return false;
    for (const unique_hlocal& known : well_known_trusted()) {
        if (::EqualSid(sid, known.get()))
            return true;
    }
    for (PSID other : extra) {
        if (::EqualSid(sid, other))
            return true;
    }
    return false;
}

unique_hlocal descriptor_from(const wchar_t* sddl)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    throw_last_error_if(!::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor,
                                                                                nullptr));
    return unique_hlocal(descriptor);
}

// The folder itself, not what a reparse point names; no delete sharing, so it cannot be
// renamed or removed while it is held.
unique_file open_folder(const std::wstring& path)
{
    return unique_file(::CreateFileW(path.c_str(), READ_CONTROL | FILE_READ_ATTRIBUTES,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                     FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

std::wstring random_name()
{
    std::array<std::uint8_t, 16> bytes{};
    const NTSTATUS status = ::BCryptGenRandom(nullptr, bytes.data(), static_cast<ULONG>(bytes.size()),
                                              BCRYPT_USE_SYSTEM_PREFERRED_RNG);
    if (status < 0)
        throw_hresult(HRESULT_FROM_NT(status));
    constexpr wchar_t digits[] = L"0123456789abcdef";
    std::wstring name;
    for (std::uint8_t byte : bytes) {
        name += digits[byte >> 4];
        name += digits[byte & 15];
    }
    return name;
}

void delete_files_and_folder(const std::wstring& folder) noexcept
{
    WIN32_FIND_DATAW found{};
    const unique_find_handle search(::FindFirstFileW((folder + L"\\*").c_str(), &found));
    if (search) {
        do {
            if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                ::DeleteFileW((folder + L'\\' + found.cFileName).c_str());
        } while (::FindNextFileW(search.get(), &found));
    }
    if (!::RemoveDirectoryW(folder.c_str()))
        debug_report(L"a staging folder could not be removed (an installer may still run from it)");
}

}  // namespace

folder_security read_folder_security(HANDLE folder)
{
    folder_security result;
    FILE_ATTRIBUTE_TAG_INFO tag{};
    throw_last_error_if(!::GetFileInformationByHandleEx(folder, FileAttributeTagInfo, &tag, sizeof tag));
    result.attributes = tag.FileAttributes;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    throw_if_win32_error(static_cast<LSTATUS>(
        ::GetSecurityInfo(folder, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr,
                          nullptr, nullptr, nullptr, &descriptor)));
    result.descriptor.reset(descriptor);
    return result;
}

folder_refusal judge_folder(const folder_security& folder, const std::vector<PSID>& extra_trusted)
{
    if (folder.attributes & FILE_ATTRIBUTE_REPARSE_POINT)
        return folder_refusal::reparse_point;
    if (!(folder.attributes & FILE_ATTRIBUTE_DIRECTORY))
        return folder_refusal::not_a_folder;
    PSID owner = nullptr;
    BOOL defaulted = FALSE, present = FALSE;
    PACL dacl = nullptr;
    if (!folder.descriptor || !::GetSecurityDescriptorOwner(folder.descriptor.get(), &owner, &defaulted) ||
        !trusted(owner, extra_trusted))
        return folder_refusal::foreign_owner;
    if (!::GetSecurityDescriptorDacl(folder.descriptor.get(), &present, &dacl, &defaulted) || !present || !dacl)
        return folder_refusal::others_may_write;  // no DACL: everyone may do everything
    for (DWORD i = 0; i < dacl->AceCount; ++i) {
        ACE_HEADER* header = nullptr;
        if (!::GetAce(dacl, i, reinterpret_cast<void**>(&header)))
            return folder_refusal::others_may_write;
        if (header->AceFlags & INHERIT_ONLY_ACE)
            continue;  // applies to what is created inside, not to this folder
        switch (header->AceType) {
        case ACCESS_DENIED_ACE_TYPE:
        case ACCESS_DENIED_CALLBACK_ACE_TYPE:
        case SYSTEM_AUDIT_ACE_TYPE:
        case SYSTEM_MANDATORY_LABEL_ACE_TYPE:
            continue;  // takes nothing away from the judgement when ignored
        case ACCESS_ALLOWED_ACE_TYPE:
        case ACCESS_ALLOWED_CALLBACK_ACE_TYPE: {
            const auto* ace = reinterpret_cast<const ACCESS_ALLOWED_ACE*>(header);
            if ((ace->Mask & changing_rights) && !trusted(const_cast<DWORD*>(&ace->SidStart), extra_trusted))
                return folder_refusal::others_may_write;
            continue;
        }
        default:
            // An allowing entry of a kind not read here: it might let anyone in.
            return folder_refusal::others_may_write;
        }
    }
    return folder_refusal::none;
}

const std::vector<PSID>& trusted_platform_sids()
{
    static const auto sids = [] {
        struct holder {
            std::vector<PSID> sids;
            std::vector<std::byte> user;
        };
        auto* result = new holder;  // lives for the process
        const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
        if (!ntdll || !::GetProcAddress(ntdll, "wine_get_version"))
            return result;
        HANDLE token = nullptr;
        if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token))
            return result;
        const unique_handle token_owner(token);
        DWORD size = 0;
        ::GetTokenInformation(token, TokenUser, nullptr, 0, &size);
        result->user.resize(size);
        if (size && ::GetTokenInformation(token, TokenUser, result->user.data(), size, &size))
            result->sids.push_back(reinterpret_cast<TOKEN_USER*>(result->user.data())->User.Sid);
        return result;
    }();
    return sids->sids;
}

staging_folder::staging_folder(std::wstring root, std::vector<std::wstring> chain, folder_reader reader)
{
    const unique_hlocal descriptor = descriptor_from(protected_descriptor);
    SECURITY_ATTRIBUTES protect{sizeof protect, descriptor.get(), FALSE};
    const auto judge = [&](HANDLE folder, const std::wstring& path) {
        const folder_security facts = reader ? reader(folder, path) : read_folder_security(folder);
        if (const folder_refusal reason = judge_folder(facts, trusted_platform_sids()); reason != folder_refusal::none)
            throw unsafe_folder_error(path, reason);
    };

    std::wstring path = std::move(root);
    for (const std::wstring& component : chain) {
        path += L'\\';
        path += component;
        unique_file folder = open_folder(path);
        if (!folder && ::GetLastError() == ERROR_FILE_NOT_FOUND) {
            // Created protected in one step; when someone else made it meanwhile, it is
            // judged like any folder that was there before.
            if (!::CreateDirectoryW(path.c_str(), &protect) && ::GetLastError() != ERROR_ALREADY_EXISTS)
                throw_last_error();
            folder = open_folder(path);
        }
        throw_last_error_if(!folder);
        judge(folder.get(), path);
        held_.push_back(std::move(folder));
    }

    path += L'\\';
    path += random_name();
    throw_last_error_if(!::CreateDirectoryW(path.c_str(), &protect));  // fails when the name exists
    unique_file fresh = open_folder(path);
    throw_last_error_if(!fresh);
    judge(fresh.get(), path);
    held_.push_back(std::move(fresh));
    path_ = std::move(path);
}

void staging_folder::discard() noexcept
{
    if (path_.empty() || held_.empty())
        return;
    held_.back().reset();  // a folder held without delete sharing cannot be removed
    held_.pop_back();
    delete_files_and_folder(path_);
    path_.clear();
}

std::wstring updates_folder_path()
{
    wchar_t* program_data = nullptr;
    throw_if_failed(::SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &program_data));
    const unique_cotaskmem owner(program_data);
    return std::wstring(program_data) + L"\\QMX Software\\Ulmora Tools\\Updates";
}

staging_folder stage_update_download()
{
    wchar_t* program_data = nullptr;
    throw_if_failed(::SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &program_data));
    const unique_cotaskmem owner(program_data);
    staging_folder staging(program_data, {L"QMX Software", L"Ulmora Tools", L"Updates"});

    // Earlier downloads: their installers have run (or are running, and then stay). The
    // parent is judged and held, so what is in it was put there by administrators.
    const std::wstring updates = staging.path().substr(0, staging.path().rfind(L'\\'));
    WIN32_FIND_DATAW found{};
    const unique_find_handle search(::FindFirstFileW((updates + L"\\*").c_str(), &found));
    if (search) {
        do {
            const std::wstring name = found.cFileName;
            const std::wstring path = updates + L'\\' + name;
            if (name == L"." || name == L".." || path == staging.path())
                continue;
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) &&
                !(found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
                delete_files_and_folder(path);
        } while (::FindNextFileW(search.get(), &found));
    }
    return staging;
}

}  // namespace tessel::web
