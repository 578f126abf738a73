#pragma once
// Trusting the loopback test server's throwaway certificate authority: its certificate
// (DER) goes into the LocalMachine "Root" store of the Wine prefix the tests run in.

#include <windows.h>
#include <wincrypt.h>

#include <string_view>

namespace web_test {

inline bool trust_test_authority(std::string_view certificate_der)
{
    HCERTSTORE store = ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root");
    if (!store)
        return false;
    const BOOL added = ::CertAddEncodedCertificateToStore(
        store, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(certificate_der.data()),
        static_cast<DWORD>(certificate_der.size()), CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
    // The store is written when it is closed.
    ::CertCloseStore(store, 0);
    return added != FALSE;
}

}  // namespace web_test
