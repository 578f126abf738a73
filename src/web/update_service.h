#pragma once
// The update service: where it is, what the program asks it, and the errors of the update
// path that the system has no text for.
//
// The service's base address is the constant update_service_address. Tests point the
// program at their own server with the REG_SZ value "UpdateServiceAddress" under
// HKEY_LOCAL_MACHINE\Software\QMX Software\Ulmora Tools\ServerCfg: only administrators can
// write there, nothing the program receives from the network ever writes there, and the
// value is used only when it is an https address ending in "/".

#include "web/http_client.h"
#include "web/task.h"
#include "web/update_response.h"

#include <windows.h>

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

namespace tessel::web {

inline constexpr std::wstring_view update_service_address = L"https://dispatch.qmx-software.example/";
inline constexpr std::wstring_view update_service_override_key = L"Software\\QMX Software\\Ulmora Tools\\ServerCfg";
inline constexpr std::wstring_view update_service_override_value = L"UpdateServiceAddress";

// The "mode" of a request: which kind of check asks.
enum class update_check_mode : std::uint32_t {
    // Once at start-up, when the setting "checkForUpdates" is on; errors are not shown.
    automatic = 1,
    // The user asked (About box, "Check for updates"); errors are shown.
    on_demand = 2,
};

// Largest answers the program accepts.
inline constexpr std::uint64_t max_response_size = 1 << 20;
inline constexpr std::uint64_t max_installer_size = 512ull << 20;
inline constexpr std::uint64_t max_language_pack_size = 16 << 20;

// Failures of the update path that the system has no code for.
inline constexpr HRESULT e_insecure_address = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0201);
inline constexpr HRESULT e_bad_language_pack = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0202);
inline constexpr HRESULT e_download_replaced = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0203);
// A document that does not match the records (the text is the archive's message).
inline constexpr HRESULT e_bad_response = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);

// Opens an https address and follows its redirects, at most max_redirects of them, each
// checked as it comes: an address or a redirect target that is not https fails with
// e_insecure_address before it is requested, one redirect too many (or one that names no
// address) with HRESULT_FROM_WIN32(ERROR_HTTP_REDIRECT_FAILED). The request that answered otherwise is
// returned, whatever its status.
inline constexpr int max_redirects = 5;
task<http_request> open_https(const HttpClient& client, std::wstring address, std::wstring headers, stop_token stop);

// The constant, or the administrators' override described above.
[[nodiscard]] std::wstring update_service_base_address();

// "{base}dispatch/ulmo/checkforupdates?ver={own}&mode={mode}"
[[nodiscard]] std::wstring update_request_address(std::wstring_view base, std::uint64_t own_version,
                                                  update_check_mode mode);

// Asks the service and reads its answer. Fails with E_INVALIDARG for a status other than
// 200, the Win32 code of a network error, e_insecure_address when the answer came from
// other than https, and the JSON archive's load_exception for a document that does not
// match the records.
task<update_response> fetch_update_response(const HttpClient& client, std::uint64_t own_version,
                                            update_check_mode mode, stop_token stop);
// Parses a document of the service.
[[nodiscard]] update_response parse_update_response(std::string_view text);

// What to tell the user about a failure: its text and its code.
struct failure_description {
    std::wstring text;
    HRESULT code;
};
[[nodiscard]] failure_description describe_failure(std::exception_ptr error);

}  // namespace tessel::web
