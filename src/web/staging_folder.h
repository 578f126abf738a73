#pragma once
// Where the elevated program puts an installer before it starts it: a folder that no
// ordinary user can write to, rename or replace, for as long as the program needs it.
//
// A folder's name proves nothing: anyone may create folders in %ProgramData% (and then owns
// them), or make a component a junction to somewhere else. So the chain below the trusted
// root is opened component by component, each as itself (a reparse point is not followed),
// and each is judged by what its handle says: no reparse point, owned by Administrators,
// SYSTEM or TrustedInstaller, and a DACL that lets nobody else write or delete. A missing
// component is created with the protected descriptor in the same call; a folder that already
// exists is never changed. Each download then gets a fresh subfolder with a random name.
// Every folder stays open without delete sharing until the staging folder is destroyed, so
// none of them can be renamed or replaced in the meantime; since each parent admits only
// administrators, a child opened by name under it is the child that was judged.

#include "base/failure.h"
#include "base/unique_handle.h"

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::web {

// Why a folder may not hold what the elevated program starts.
enum class folder_refusal : std::uint8_t {
    none,
    not_a_folder,
    reparse_point,
    foreign_owner,
    others_may_write,
};

// What is read of a folder through its handle.
struct folder_security {
    DWORD attributes = 0;
    // Owner and DACL, self-relative.
    unique_hlocal descriptor;
};
[[nodiscard]] folder_security read_folder_security(HANDLE folder);

// The judgement over what was read. Besides Administrators, SYSTEM and TrustedInstaller,
// the extra SIDs are trusted as owners and writers (see trusted_platform_sids).
[[nodiscard]] folder_refusal judge_folder(const folder_security& folder, const std::vector<PSID>& extra_trusted = {});

// Under Wine, which keeps no owners or DACLs but makes them up from the Unix owner and
// mode bits, every folder belongs to the user running Wine: that user. Elsewhere nothing.
[[nodiscard]] const std::vector<PSID>& trusted_platform_sids();

// A refused folder: which one, and why. Its code is e_unsafe_folder.
inline constexpr HRESULT e_unsafe_folder = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0205);
class unsafe_folder_error : public fibra::details::hresult_error {
public:
    unsafe_folder_error(std::wstring folder, folder_refusal reason,
                        std::source_location where = std::source_location::current())
        : hresult_error(e_unsafe_folder, where), folder_(std::move(folder)), reason_(reason)
    {
    }
    [[nodiscard]] const std::wstring& folder() const noexcept { return folder_; }
    [[nodiscard]] folder_refusal reason() const noexcept { return reason_; }

private:
    std::wstring folder_;
    folder_refusal reason_;
};

// How the staging reads a folder; tests give their own, since Wine can make neither links
// nor folders owned by someone else.
using folder_reader = std::function<folder_security(HANDLE folder, const std::wstring& path)>;

class staging_folder {
public:
    // Opens root\chain[0]\chain[1]... (root itself is trusted), judging each component and
    // creating missing ones protected, then creates a fresh subfolder below the last one.
    // Throws unsafe_folder_error for a refused component, or the system's error.
    staging_folder(std::wstring root, std::vector<std::wstring> chain, folder_reader reader = {});
    staging_folder(staging_folder&&) noexcept = default;
    staging_folder& operator=(staging_folder&&) noexcept = default;
    ~staging_folder() = default;

    // The fresh subfolder.
    [[nodiscard]] const std::wstring& path() const noexcept { return path_; }
    // Deletes the fresh subfolder with the files in it (nothing below it is a folder).
    void discard() noexcept;

private:
    std::vector<unique_file> held_;
    std::wstring path_;
};

// "%ProgramData%\QMX Software\Ulmora Tools\Updates", which the installer creates protected.
[[nodiscard]] std::wstring updates_folder_path();
// A staging folder below it; earlier downloads' subfolders are removed where they can be.
[[nodiscard]] staging_folder stage_update_download();

}  // namespace tessel::web
