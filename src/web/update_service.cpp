#include "web/update_service.h"

#include "base/failure.h"
#include "base/utf.h"
#include "format/ts_printf.h"
#include "localization/localization.h"
#include "localization/system_text.h"
#include "nsm/json_archive.h"
#include "nsm/registry_ex.h"
#include "web/installer_trust.h"
#include "web/staging_folder.h"

namespace tessel::web {

std::wstring update_service_base_address()
{
    wchar_t value[max_address_length + 1];
    DWORD size = sizeof value;
    const std::wstring key(update_service_override_key);
    const std::wstring name(update_service_override_value);
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), RRF_RT_REG_SZ, nullptr, value, &size) ==
        ERROR_SUCCESS) {
        const std::wstring_view address(value);
        if (is_https_address(address) && address.back() == L'/')
            return std::wstring(address);
    }
    return std::wstring(update_service_address);
}

std::wstring update_request_address(std::wstring_view base, std::uint64_t own_version, update_check_mode mode)
{
    return ts_printf::format(L"{}dispatch/ulmo/checkforupdates?ver={}&mode={}", base, own_version,
                             static_cast<std::uint32_t>(mode));
}

update_response parse_update_response(std::string_view text)
{
    update_response response;
    nsm::json archive(text);
    nsm::load(archive, response);
    return response;
}

task<http_request> open_https(const HttpClient& client, std::wstring address, std::wstring headers, stop_token stop)
{
    // WinINet would follow a redirect to plain http and on to https again, and only the last
    // address could be seen afterwards: every hop is taken here instead.
    for (int redirects = 0;; ++redirects) {
        if (!is_https_address(address))
            throw_hresult(e_insecure_address);
        http_request request = co_await client.get(address, headers, HttpClient::redirects::stop);
        stop.throw_if_stopped();
        std::optional<std::wstring> target = redirect_target(request.handle(), address);
        if (!target)
            co_return request;
        // A redirect without a usable target is as broken as one too many.
        if (redirects == max_redirects || target->empty())
            throw_win32(ERROR_HTTP_REDIRECT_FAILED);
        address = std::move(*target);
    }
}

task<update_response> fetch_update_response(const HttpClient& client, std::uint64_t own_version,
                                            update_check_mode mode, stop_token stop)
{
    const std::wstring address =
        HttpClient::canonicalize(update_request_address(client.base_address(), own_version, mode));
    const http_request request = co_await open_https(client, address, L"Accept: application/json", stop);
    throw_if_not_ok(request.handle());
    const std::string text = co_await read_body_text(request, max_response_size, stop);
    co_return parse_update_response(text);
}

namespace {

std::wstring wininet_message(DWORD code)
{
    HMODULE wininet = ::GetModuleHandleW(L"wininet.dll");
    return wininet ? message_text(code, ui_language_id(), wininet) : std::wstring();
}

std::wstring reason_text(folder_refusal reason)
{
    switch (reason) {
    case folder_refusal::not_a_folder:
        return std::wstring(load_string(string_ids::update_folder_not_a_folder));
    case folder_refusal::reparse_point:
        return std::wstring(load_string(string_ids::update_folder_reparse_point));
    case folder_refusal::foreign_owner:
        return std::wstring(load_string(string_ids::update_folder_foreign_owner));
    case folder_refusal::others_may_write:
    case folder_refusal::none:
        break;
    }
    return std::wstring(load_string(string_ids::update_folder_others_may_write));
}

std::wstring text_of(HRESULT code)
{
    switch (code) {
    case e_insecure_address:
        return std::wstring(load_string(string_ids::update_insecure_address));
    case e_bad_language_pack:
        return std::wstring(load_string(string_ids::update_bad_language_pack));
    case e_download_replaced:
        return std::wstring(load_string(string_ids::update_download_replaced));
    case e_foreign_signer:
        return std::wstring(load_string(string_ids::update_foreign_signer));
    default:
        break;
    }
    // WinVerifyTrust's and the crypto API's verdicts (TRUST_E_*, CRYPT_E_*): whatever they
    // found wrong, the installer is not the publisher's.
    if (HRESULT_FACILITY(code) == FACILITY_CERT || HRESULT_FACILITY(code) == FACILITY_SECURITY)
        return std::wstring(load_string(string_ids::update_bad_signature));
    std::wstring text = ui_system_message(code);
    if (text.empty() && HRESULT_FACILITY(code) == FACILITY_WIN32 && HRESULT_CODE(code) >= INTERNET_ERROR_BASE &&
        HRESULT_CODE(code) <= INTERNET_ERROR_LAST)
        text = wininet_message(HRESULT_CODE(code));
    if (text.empty())
        text = load_string(string_ids::error_unknown_system_error);
    return text;
}

}  // namespace

failure_description describe_failure(std::exception_ptr error)
{
    try {
        std::rethrow_exception(error);
    } catch (const unsafe_folder_error& e) {
        return {ts_printf::format(load_string(string_ids::update_unsafe_folder), e.folder(), reason_text(e.reason())),
                e.code()};
    } catch (const http_status_error& e) {
        if (e.reason().empty())
            return {ts_printf::format(load_string(string_ids::update_server_answered_status), e.status()), e.code()};
        return {ts_printf::format(load_string(string_ids::update_server_answered), e.status(), e.reason()), e.code()};
    } catch (const fibra::details::hresult_error& e) {
        return {text_of(e.code()), e.code()};
    } catch (const nsm::load_exception& e) {
        return {e.message(), e_bad_response};
    } catch (const std::bad_alloc&) {
        return {text_of(E_OUTOFMEMORY), E_OUTOFMEMORY};
    } catch (const std::exception& e) {
        return {utf8_to_utf16(e.what()), E_FAIL};
    } catch (...) {
        return {text_of(E_UNEXPECTED), E_UNEXPECTED};
    }
}

}  // namespace tessel::web
