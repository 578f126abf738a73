#include "web/installer_trust.h"

#include "base/failure.h"
#include "base/module_path.h"
#include "base/unique_handle.h"

#include <softpub.h>
#include <wintrust.h>

#include <publisher_pin_value.h>

#include <memory>

namespace tessel::web {
namespace {

struct certificate_free {
    void operator()(PCCERT_CONTEXT certificate) const noexcept { ::CertFreeCertificateContext(certificate); }
};
using unique_certificate = std::unique_ptr<const CERT_CONTEXT, certificate_free>;

// Ends a verification that WinVerifyTrust keeps state for.
class trust_state {
public:
    explicit trust_state(WINTRUST_DATA& data) noexcept : data_(data) {}
    trust_state(const trust_state&) = delete;
    ~trust_state()
    {
        GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
        data_.dwStateAction = WTD_STATEACTION_CLOSE;
        ::WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data_);
    }

private:
    WINTRUST_DATA& data_;
};

// The certificate of the first signer of the message WinVerifyTrust has just checked: the
// signature that was verified, not a second reading of the file.
unique_certificate signer_certificate(const CRYPT_PROVIDER_DATA& provider)
{
    if (!provider.hMsg || provider.chStores == 0)
        throw_hresult(TRUST_E_NOSIGNATURE);
    DWORD size = 0;
    throw_last_error_if(!::CryptMsgGetParam(provider.hMsg, CMSG_SIGNER_INFO_PARAM, 0, nullptr, &size));
    const auto buffer = std::make_unique<std::byte[]>(size);
    throw_last_error_if(!::CryptMsgGetParam(provider.hMsg, CMSG_SIGNER_INFO_PARAM, 0, buffer.get(), &size));
    const auto* signer = reinterpret_cast<const CMSG_SIGNER_INFO*>(buffer.get());
    CERT_INFO wanted{};
    wanted.Issuer = signer->Issuer;
    wanted.SerialNumber = signer->SerialNumber;
    for (DWORD i = 0; i < provider.chStores; ++i) {
        if (PCCERT_CONTEXT found = ::CertFindCertificateInStore(provider.pahStores[i],
                                                                X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                                                                CERT_FIND_SUBJECT_CERT, &wanted, nullptr))
            return unique_certificate(found);
    }
    throw_hresult(TRUST_E_NO_SIGNER_CERT);
}

}  // namespace

const publisher_pin& built_in_publisher_pin() noexcept
{
    static constexpr publisher_pin pin{{TESSEL_PUBLISHER_PIN_BYTES}};
    return pin;
}

publisher_pin public_key_pin_of(PCCERT_CONTEXT certificate)
{
    BYTE* encoded = nullptr;
    DWORD encoded_size = 0;
    throw_last_error_if(!::CryptEncodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO,
                                               &certificate->pCertInfo->SubjectPublicKeyInfo, CRYPT_ENCODE_ALLOC_FLAG,
                                               nullptr, &encoded, &encoded_size));
    const unique_hlocal encoded_owner(encoded);
    publisher_pin pin;
    DWORD hash_size = static_cast<DWORD>(pin.spki_sha256.size());
    throw_last_error_if(!::CryptHashCertificate2(BCRYPT_SHA256_ALGORITHM, 0, nullptr, encoded, encoded_size,
                                                 pin.spki_sha256.data(), &hash_size) ||
                        hash_size != pin.spki_sha256.size());
    return pin;
}

void check_installer_signature(HANDLE file, const publisher_pin& pin)
{
    // The path is only a name for the verifier's records: everything is read through the handle.
    const std::wstring path = final_path_of(file);
    WINTRUST_FILE_INFO file_info{};
    file_info.cbStruct = sizeof file_info;
    file_info.pcwszFilePath = path.c_str();
    file_info.hFile = file;
    WINTRUST_DATA data{};
    data.cbStruct = sizeof data;
    data.dwUIChoice = WTD_UI_NONE;
    // An update that cannot reach the revocation servers must still install; the pin, not
    // the revocation list, is what decides whose installer this is.
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file_info;
    data.dwStateAction = WTD_STATEACTION_VERIFY;
    data.dwProvFlags = WTD_REVOCATION_CHECK_NONE;
    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    const LONG verdict = ::WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
    const trust_state state(data);
    if (verdict != ERROR_SUCCESS)
        throw_hresult(static_cast<HRESULT>(verdict));

    const CRYPT_PROVIDER_DATA* provider = ::WTHelperProvDataFromStateData(data.hWVTStateData);
    if (!provider)
        throw_hresult(TRUST_E_NOSIGNATURE);
    const unique_certificate signer = signer_certificate(*provider);
    if (public_key_pin_of(signer.get()).spki_sha256 != pin.spki_sha256)
        throw_hresult(e_foreign_signer);
}

}  // namespace tessel::web
