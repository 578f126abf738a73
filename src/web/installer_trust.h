#pragma once
// Whether a downloaded installer comes from the publisher, before the elevated program
// starts it.
//
// Two questions, both answered through the one handle the caller keeps open without write
// or delete sharing, so the file that is judged is the file that is started: does the
// Authenticode signature match the file (WinVerifyTrust, no UI, no revocation check), and
// is the signer's key the publisher's (the SHA-256 of its certificate's
// SubjectPublicKeyInfo equals the pin built into the program). The pin is what refuses a
// certificate some authority issued to someone else, and, where WinVerifyTrust checks only
// the digest and not the chain, any self-made certificate.

#include <windows.h>
#include <wincrypt.h>

#include <array>
#include <cstdint>

namespace tessel::web {

// The SHA-256 of the DER SubjectPublicKeyInfo of the only key installers are accepted from.
struct publisher_pin {
    std::array<std::uint8_t, 32> spki_sha256{};
};

// The pin this build was made with (see cmake/code_signing.cmake).
[[nodiscard]] const publisher_pin& built_in_publisher_pin() noexcept;

// A correct signature by a key other than the pinned one.
inline constexpr HRESULT e_foreign_signer = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0204);

// Returns when the file is signed, the signature matches its contents and the signer is
// the pinned publisher. Otherwise throws fibra::details::hresult_error with WinVerifyTrust's
// code (TRUST_E_NOSIGNATURE, TRUST_E_BAD_DIGEST, ...) or e_foreign_signer. file needs read
// access.
void check_installer_signature(HANDLE file, const publisher_pin& pin);

// The SHA-256 of a certificate's DER SubjectPublicKeyInfo.
[[nodiscard]] publisher_pin public_key_pin_of(PCCERT_CONTEXT certificate);

}  // namespace tessel::web
