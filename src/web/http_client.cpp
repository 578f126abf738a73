#include "web/http_client.h"

#include "base/failure.h"
#include "format/ts_printf.h"

#include <algorithm>
#include <map>
#include <vector>

namespace tessel::web {
namespace {

// WinINet calls this on its own threads. Only the completion of an operation matters;
// everything else (resolving, connecting, handle closing...) is progress nobody shows.
// The context value is dereferenced only for a completion: other statuses may arrive
// while a handle is being closed and its context is going away.
void CALLBACK status_callback(HINTERNET, DWORD_PTR context, DWORD status, void* information, DWORD) noexcept
{
    if (status != INTERNET_STATUS_REQUEST_COMPLETE || context == 0 || information == nullptr)
        return;
    auto* request = reinterpret_cast<details::request_context*>(context);
    if (details::completion_target* waiting = request->waiting.exchange(nullptr))
        waiting->complete(*static_cast<const INTERNET_ASYNC_RESULT*>(information));
}

}  // namespace

// ---- get ------------------------------------------------------------------------------

get_operation::get_operation(HINTERNET session, std::wstring address, std::wstring headers, DWORD extra_flags) noexcept
    : session_(session), address_(std::move(address)), headers_(std::move(headers)), extra_flags_(extra_flags)
{
}

bool get_operation::await_suspend(std::coroutine_handle<> continuation) noexcept
{
    try {
        context_ = std::make_unique<details::request_context>();
    } catch (...) {
        error_ = ERROR_NOT_ENOUGH_MEMORY;
        return false;
    }
    // Some WinINet versions never report the completion of an address they cannot parse,
    // so such an address (the empty one of a failed resolve, for one) fails here.
    URL_COMPONENTSW parts{};
    parts.dwStructSize = sizeof parts;
    if (address_.empty() || !::InternetCrackUrlW(address_.c_str(), static_cast<DWORD>(address_.size()), 0, &parts)) {
        error_ = ERROR_INTERNET_INVALID_URL;
        return false;
    }
    continuation_ = continuation;
    thread_ = ::GetCurrentThreadId();
    context_->waiting.store(this);
    const DWORD flags =
        INTERNET_FLAG_EXISTING_CONNECT | INTERNET_FLAG_KEEP_CONNECTION | INTERNET_FLAG_NO_UI | extra_flags_;
    HINTERNET opened = ::InternetOpenUrlW(session_, address_.c_str(), headers_.empty() ? nullptr : headers_.c_str(),
                                          static_cast<DWORD>(headers_.size()), flags,
                                          reinterpret_cast<DWORD_PTR>(context_.get()));
    if (opened) {
        context_->waiting.store(nullptr);
        handle_ = opened;
        return false;
    }
    const DWORD error = ::GetLastError();
    if (error != ERROR_IO_PENDING) {
        context_->waiting.store(nullptr);
        error_ = error == ERROR_SUCCESS ? ERROR_INTERNET_INTERNAL_ERROR : error;
        return false;
    }
    // The completion may already have run on another thread; whichever of the two comes
    // second resumes the coroutine. Nothing of this object is touched after the exchange.
    return !done_.exchange(true);
}

void get_operation::complete(const INTERNET_ASYNC_RESULT& result) noexcept
{
    handle_ = reinterpret_cast<HINTERNET>(result.dwResult);
    error_ = handle_ ? ERROR_SUCCESS : (result.dwError ? result.dwError : ERROR_INTERNET_INTERNAL_ERROR);
    if (done_.exchange(true))
        windows::impl::post_ui_return(thread_, continuation_);
}

http_request get_operation::await_resume()
{
    if (!handle_)
        throw_win32(error_);
    return http_request(std::move(context_), handle_);
}

// ---- calls on a request ---------------------------------------------------------------

namespace details {

void request_call::finish(DWORD error) noexcept
{
    if (error != ERROR_SUCCESS)
        error_ = error;
    if (done_.exchange(true))
        windows::impl::post_ui_return(thread_, continuation_);
}

void request_call::throw_if_failed() const
{
    if (error_ != ERROR_SUCCESS)
        throw_win32(error_);
}

}  // namespace details

bool read_operation::await_suspend(std::coroutine_handle<> continuation) noexcept
{
    return start(continuation, [this] { return ::InternetReadFile(request_, buffer_, size_, &read_) != FALSE; });
}

void read_operation::complete(const INTERNET_ASYNC_RESULT& result) noexcept
{
    finish(result.dwResult ? ERROR_SUCCESS : (result.dwError ? result.dwError : ERROR_INTERNET_INTERNAL_ERROR));
}

DWORD read_operation::await_resume() const
{
    throw_if_failed();
    return read_;
}

bool data_operation::await_suspend(std::coroutine_handle<> continuation) noexcept
{
    return start(continuation,
                 [this] { return ::InternetQueryDataAvailable(request_, &available_, 0, 0) != FALSE; });
}

void data_operation::complete(const INTERNET_ASYNC_RESULT&) noexcept
{
    // What the completion reports differs between WinINet versions (the count in dwResult
    // or in dwError); the caller asks again, which answers at once now, and reliably.
    finish(ERROR_SUCCESS);
}

std::optional<DWORD> data_operation::await_resume() const
{
    throw_if_failed();
    if (waited())
        return std::nullopt;
    return available_;
}

// ---- client ---------------------------------------------------------------------------

bool HttpClient::initialize(std::wstring base_address)
{
    base_address_ = std::move(base_address);
    session_.reset(::InternetOpenW(std::wstring(http_agent).c_str(), INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr,
                                   INTERNET_FLAG_ASYNC));
    if (!session_) {
        log_if_failed(hresult_from_win32(::GetLastError()));
        return false;
    }
    ::InternetSetStatusCallbackW(session_.get(), status_callback);
    return true;
}

std::wstring HttpClient::canonicalize(std::wstring_view address)
{
    const std::wstring source(address);
    std::wstring canonical(max_address_length, L'\0');
    DWORD length = max_address_length;
    if (!::InternetCanonicalizeUrlW(source.c_str(), canonical.data(), &length, ICU_BROWSER_MODE))
        return {};
    canonical.resize(std::min<DWORD>(length, max_address_length));
    return canonical;
}

std::wstring HttpClient::resolve(std::wstring_view relative) const
{
    return canonicalize(ts_printf::format(L"{0}{1}", base_address_, relative));
}

get_operation HttpClient::get(std::wstring address, std::wstring headers, redirects at_redirect) const noexcept
{
    return get_operation(session_.get(), std::move(address), std::move(headers),
                         at_redirect == redirects::stop ? INTERNET_FLAG_NO_AUTO_REDIRECT : 0);
}

// ---- response helpers -----------------------------------------------------------------

DWORD http_status(HINTERNET request) noexcept
{
    DWORD status = 0;
    DWORD size = sizeof status;
    if (!::HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size, nullptr))
        return 0;
    return status;
}

void throw_if_not_ok(HINTERNET request)
{
    const DWORD status = http_status(request);
    if (status == 0 || status == HTTP_STATUS_OK)
        return;
    wchar_t reason[256] = {};
    DWORD size = sizeof reason - sizeof reason[0];
    if (!::HttpQueryInfoW(request, HTTP_QUERY_STATUS_TEXT, reason, &size, nullptr))
        reason[0] = L'\0';
    throw http_status_error(status, reason);
}

std::int64_t announced_length(HINTERNET request) noexcept
{
    wchar_t text[32];
    DWORD size = sizeof text;
    if (!::HttpQueryInfoW(request, HTTP_QUERY_CONTENT_LENGTH, text, &size, nullptr))
        return -1;
    const std::size_t length = size / sizeof(wchar_t);
    if (length == 0 || length > 18)
        return -1;
    std::int64_t value = 0;
    for (std::size_t i = 0; i < length; ++i) {
        if (text[i] < L'0' || text[i] > L'9')
            return -1;
        value = value * 10 + (text[i] - L'0');
    }
    return value;
}

std::wstring final_address(HINTERNET request)
{
    std::wstring address(max_address_length, L'\0');
    DWORD size = max_address_length * sizeof(wchar_t);
    if (!::InternetQueryOptionW(request, INTERNET_OPTION_URL, address.data(), &size))
        return {};
    address.resize(std::min<std::size_t>(size / sizeof(wchar_t), address.size()));
    while (!address.empty() && address.back() == L'\0')
        address.pop_back();
    return address;
}

std::optional<std::wstring> redirect_target(HINTERNET request, std::wstring_view from)
{
    switch (http_status(request)) {
    case HTTP_STATUS_MOVED:
    case HTTP_STATUS_REDIRECT:
    case HTTP_STATUS_REDIRECT_METHOD:
    case HTTP_STATUS_REDIRECT_KEEP_VERB:
    case 308:  // permanent, verb kept
        break;
    default:
        return std::nullopt;
    }
    std::wstring location(max_address_length, L'\0');
    DWORD size = max_address_length * sizeof(wchar_t);
    if (!::HttpQueryInfoW(request, HTTP_QUERY_LOCATION, location.data(), &size, nullptr))
        return std::wstring();
    location.resize(size / sizeof(wchar_t));
    std::wstring combined(max_address_length, L'\0');
    DWORD length = max_address_length;
    if (!::InternetCombineUrlW(std::wstring(from).c_str(), location.c_str(), combined.data(), &length, ICU_NO_ENCODE))
        return std::wstring();
    combined.resize(length);
    return HttpClient::canonicalize(combined);
}

bool is_https_address(std::wstring_view address) noexcept
{
    constexpr std::wstring_view scheme = L"https://";
    if (address.size() <= scheme.size())
        return false;
    for (std::size_t i = 0; i < scheme.size(); ++i) {
        wchar_t c = address[i];
        if (c >= L'A' && c <= L'Z')
            c = static_cast<wchar_t>(c + 32);
        if (c != scheme[i])
            return false;
    }
    return true;
}

namespace {

// How long a transfer may keep the thread from its messages: on a fast connection every
// read completes at once, and the whole body would otherwise arrive in one stretch of the
// UI thread, with no input handled and nothing painted. A yield costs a timer period
// (10 ms at least) in which nothing is read, so it is made only when input, paint or
// timer messages wait, and not more often than this.
constexpr ULONGLONG longest_busy_stretch_ms = 50;

bool messages_wait() noexcept
{
    return HIWORD(::GetQueueStatus(QS_INPUT | QS_PAINT | QS_TIMER | QS_HOTKEY)) != 0;
}

// Continues the coroutine once the thread has handled its waiting input, paint and timer
// messages: a thread timer's WM_TIMER comes after all of those (a posted message would
// come before them). Only for the thread that runs the coroutine.
class yield_to_messages {
public:
    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> continuation) noexcept
    {
        try {
            const UINT_PTR timer = ::SetTimer(nullptr, 0, USER_TIMER_MINIMUM, resume);
            if (timer == 0)
                return false;  // go on at once
            waiting().emplace(timer, continuation);
            return true;
        } catch (...) {
            log_caught_exception(L"a pause could not be waited for");
            return false;  // go on at once
        }
    }
    void await_resume() const noexcept {}

private:
    static std::map<UINT_PTR, std::coroutine_handle<>>& waiting()
    {
        thread_local std::map<UINT_PTR, std::coroutine_handle<>> coroutines;
        return coroutines;
    }
    static void CALLBACK resume(HWND, UINT, UINT_PTR timer, DWORD) noexcept
    {
        ::KillTimer(nullptr, timer);
        auto& coroutines = waiting();
        const auto found = coroutines.find(timer);
        if (found == coroutines.end())
            return;
        const std::coroutine_handle<> continuation = found->second;
        coroutines.erase(found);
        continuation.resume();
    }
};

}  // namespace

void stop_token::throw_if_stopped() const
{
    if (stop_requested())
        throw fibra::details::operation_cancelled();
}

task<std::uint64_t> read_body(const http_request& request, body_sink& sink, std::uint64_t limit, stop_token stop,
                              DWORD chunk_size)
{
    const std::int64_t total = announced_length(request.handle());
    if (total > 0 && static_cast<std::uint64_t>(total) > limit)
        throw_win32(ERROR_FILE_TOO_LARGE);
    std::vector<std::byte> buffer(chunk_size);
    std::uint64_t received = 0;
    ULONGLONG busy_since = ::GetTickCount64();
    for (;;) {
        // Wait until WinINet holds data, then read only what it holds, which completes at
        // once. A read that has to wait can lose its count under Wine: its InternetReadFile
        // zeroes the count after queuing the read, which may be after the read has ended.
        data_operation wait = HttpClient::wait_for_data(request);
        const std::optional<DWORD> available = co_await wait;
        if (wait.waited())
            busy_since = ::GetTickCount64();
        stop.throw_if_stopped();
        if (!available)
            continue;  // data has arrived: ask again how much
        DWORD read = 0;
        if (*available > 0) {
            read_operation chunk = HttpClient::read_chunk(request, buffer.data(), std::min(*available, chunk_size));
            read = co_await chunk;
            if (chunk.waited())
                busy_since = ::GetTickCount64();
            stop.throw_if_stopped();
        }
        if (::GetTickCount64() - busy_since >= longest_busy_stretch_ms) {
            if (messages_wait()) {
                co_await yield_to_messages{};
                stop.throw_if_stopped();
            }
            busy_since = ::GetTickCount64();
        }
        if (read == 0)
            break;
        received += read;
        if (received > limit)
            throw_win32(ERROR_FILE_TOO_LARGE);
        sink.write(buffer.data(), read);
        sink.progress(received, total);
    }
    // WinINet ends a body whose connection broke off like a complete one.
    if (total >= 0 && received != static_cast<std::uint64_t>(total))
        throw_win32(ERROR_INTERNET_CONNECTION_ABORTED);
    co_return received;
}

task<std::string> read_body_text(const http_request& request, std::uint64_t limit, stop_token stop)
{
    struct string_sink final : body_sink {
        std::string text;
        void write(const void* data, DWORD size) override { text.append(static_cast<const char*>(data), size); }
    } sink;
    (void)co_await read_body(request, sink, limit, std::move(stop));
    co_return std::move(sink.text);
}

}  // namespace tessel::web
