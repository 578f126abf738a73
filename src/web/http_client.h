#pragma once
// HttpClient: a small asynchronous HTTP(S) client over WinINet, for every Windows from 7 on.
//
// The session runs in WinINet's asynchronous mode. `get`, `wait_for_data` and `read_chunk`
// are awaitables:
// they complete at once when WinINet has the answer, and otherwise suspend the coroutine
// until WinINet reports INTERNET_STATUS_REQUEST_COMPLETE to the status callback, which
// only records the result and resumes the coroutine on the thread that awaited, through
// that thread's "QMXWM_UIRETURN" hook (so the awaiting thread must run a message loop with
// the hook, as the UI thread does). Resuming right inside WinINet's callback would let the
// UI thread finish and free coroutine frames while the worker thread was still unwinding
// through them. Callers check their cancellation after every resumption.
//
//   tessel::web::HttpClient client;
//   client.initialize(L"https://host/");
//   http_request request = co_await client.get(client.resolve(L"a/b?c=1"), L"Accept: application/json");
//   throw_if_not_ok(request.handle());                       // anything but 200: E_INVALIDARG
//   std::uint64_t length = co_await read_body(request, sink, limit, stop);
//
// read_body waits for data with wait_for_data and then reads with read_chunk only what
// WinINet holds: a read_chunk that has to wait can lose its count under Wine.

#include "base/async_context.h"
#include "base/failure.h"
#include "base/unique_handle.h"
#include "web/task.h"

#include <windows.h>
#include <wininet.h>

#include <atomic>
#include <coroutine>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace tessel::web {

inline constexpr std::wstring_view http_agent = L"QMX Software tessel Library win7-compatible HTTP client. Version 1.0";
// The canonical form of an address must fit this many UTF-16 units.
inline constexpr DWORD max_address_length = 4096;

namespace details {

// What the status callback resumes: the operation waiting on a request handle now.
class completion_target {
public:
    virtual void complete(const INTERNET_ASYNC_RESULT& result) noexcept = 0;

protected:
    ~completion_target() = default;
};

// WinINet's context value of a request handle points here for the handle's whole life,
// so that completions of reads on the handle find the operation that waits for them.
struct request_context {
    std::atomic<completion_target*> waiting{nullptr};
};

}  // namespace details

// An open request: the handle and the context WinINet reports its completions with. The
// handle is closed before the context goes.
class http_request {
public:
    http_request() = default;
    http_request(std::unique_ptr<details::request_context> context, HINTERNET handle) noexcept
        : context_(std::move(context)), handle_(handle)
    {
    }

    [[nodiscard]] HINTERNET handle() const noexcept { return handle_.get(); }
    [[nodiscard]] details::request_context* context() const noexcept { return context_.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(handle_); }
    void close() noexcept { handle_.reset(); }

private:
    std::unique_ptr<details::request_context> context_;
    unique_hinternet handle_;
};

// co_await client.get(...) → http_request. Lives in the awaiting coroutine's frame, which
// stays suspended until the completion has run.
class get_operation final : private details::completion_target {
public:
    get_operation(HINTERNET session, std::wstring address, std::wstring headers, DWORD extra_flags = 0) noexcept;

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> continuation) noexcept;
    http_request await_resume();

private:
    void complete(const INTERNET_ASYNC_RESULT& result) noexcept override;

    HINTERNET session_;
    std::wstring address_;
    std::wstring headers_;
    DWORD extra_flags_;
    std::unique_ptr<details::request_context> context_;
    HINTERNET handle_ = nullptr;
    DWORD error_ = ERROR_SUCCESS;
    std::atomic<bool> done_{false};
    std::coroutine_handle<> continuation_;
    DWORD thread_ = 0;
};

namespace details {

// A call on an open request that WinINet may finish later: what wait_for_data and
// read_chunk share. The operation is registered on the request for the call's completion.
class request_call : protected completion_target {
public:
    // Whether it waited for WinINet (and the thread went back to its messages).
    [[nodiscard]] bool waited() const noexcept { return waited_; }

protected:
    explicit request_call(const http_request& request) noexcept
        : request_(request.handle()), context_(request.context())
    {
    }
    ~request_call() = default;

    // Makes the call (a WinINet function answering TRUE, or FALSE and a last error);
    // true when the coroutine waits for the completion.
    template <class Call>
    bool start(std::coroutine_handle<> continuation, Call call) noexcept
    {
        continuation_ = continuation;
        thread_ = ::GetCurrentThreadId();
        if (context_)
            context_->waiting.store(this);
        const bool done = call();
        const DWORD error = done ? ERROR_SUCCESS : ::GetLastError();
        if (done || error != ERROR_IO_PENDING || !context_) {
            if (context_)
                context_->waiting.store(nullptr);
            if (!done)
                error_ = error == ERROR_SUCCESS || error == ERROR_IO_PENDING ? ERROR_INTERNET_INTERNAL_ERROR : error;
            return false;
        }
        waited_ = true;
        // The completion may already have run on another thread; whichever of the two
        // comes second resumes the coroutine.
        return !done_.exchange(true);
    }
    // From the completion: records its failure (0: none) and resumes the coroutine.
    void finish(DWORD error) noexcept;
    void throw_if_failed() const;

    HINTERNET request_;

private:
    request_context* context_;
    DWORD error_ = ERROR_SUCCESS;
    bool waited_ = false;
    std::atomic<bool> done_{false};
    std::coroutine_handle<> continuation_;
    DWORD thread_ = 0;
};

}  // namespace details

// co_await HttpClient::wait_for_data(request) → how many bytes of the body WinINet holds
// now (0: the body is complete); nothing when it had to wait for them: data has arrived
// since, and asking again tells how much.
class data_operation final : public details::request_call {
public:
    explicit data_operation(const http_request& request) noexcept : request_call(request) {}

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> continuation) noexcept;
    std::optional<DWORD> await_resume() const;

private:
    void complete(const INTERNET_ASYNC_RESULT& result) noexcept override;

    // WinINet writes the count here before it reports the completion.
    DWORD available_ = 0;
};

// co_await HttpClient::read_chunk(...) → bytes read; 0 when the body is complete.
class read_operation final : public details::request_call {
public:
    read_operation(const http_request& request, void* buffer, DWORD size) noexcept
        : request_call(request), buffer_(buffer), size_(size)
    {
    }

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> continuation) noexcept;
    DWORD await_resume() const;

private:
    void complete(const INTERNET_ASYNC_RESULT& result) noexcept override;

    void* buffer_;
    DWORD size_;
    // WinINet writes the count here before it reports the completion.
    DWORD read_ = 0;
};

class HttpClient {
public:
    HttpClient() = default;
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    // Stores the base address and opens the session; false when WinINet refuses (the
    // session then stays empty and every request fails with WinINet's error).
    bool initialize(std::wstring base_address);

    [[nodiscard]] HINTERNET session() const noexcept { return session_.get(); }
    [[nodiscard]] const std::wstring& base_address() const noexcept { return base_address_; }

    // Base address + relative address, canonicalised; empty when that fails (an address
    // longer than max_address_length, for one).
    [[nodiscard]] std::wstring resolve(std::wstring_view relative) const;
    [[nodiscard]] static std::wstring canonicalize(std::wstring_view address);

    // Opens a canonical address with the extra request headers ("Accept: ..."). WinINet
    // follows redirects unless told to stop at them; then a redirect is the answer.
    enum class redirects : bool { follow, stop };
    [[nodiscard]] get_operation get(std::wstring address, std::wstring headers,
                                    redirects at_redirect = redirects::follow) const noexcept;
    [[nodiscard]] static read_operation read_chunk(const http_request& request, void* buffer, DWORD size) noexcept
    {
        return read_operation(request, buffer, size);
    }
    [[nodiscard]] static data_operation wait_for_data(const http_request& request) noexcept
    {
        return data_operation(request);
    }

private:
    unique_hinternet session_;
    std::wstring base_address_;
};

// The response's status code; 0 when WinINet cannot tell.
[[nodiscard]] DWORD http_status(HINTERNET request) noexcept;
// The server's answer to a request it did not serve: the code stays E_INVALIDARG, what the
// user reads is the status and its reason phrase.
class http_status_error : public fibra::details::hresult_error {
public:
    http_status_error(DWORD status, std::wstring reason, std::source_location where = std::source_location::current())
        : hresult_error(E_INVALIDARG, where), status_(status), reason_(std::move(reason))
    {
    }
    [[nodiscard]] DWORD status() const noexcept { return status_; }
    // Empty when the server sent none.
    [[nodiscard]] const std::wstring& reason() const noexcept { return reason_; }

private:
    DWORD status_;
    std::wstring reason_;
};

// A known status other than 200 fails the request with http_status_error.
void throw_if_not_ok(HINTERNET request);
// The Content-Length the server announced, or -1 when it announced none.
[[nodiscard]] std::int64_t announced_length(HINTERNET request) noexcept;
// The address the request ended at, after any redirects.
[[nodiscard]] std::wstring final_address(HINTERNET request);
// Where a redirect answer (301, 302, 303, 307, 308) points, resolved against the address it
// came from and canonicalised (empty when it names nowhere usable); nothing for any other
// answer.
[[nodiscard]] std::optional<std::wstring> redirect_target(HINTERNET request, std::wstring_view from);
[[nodiscard]] bool is_https_address(std::wstring_view address) noexcept;

// What ends a transfer early: the work of the window being cancelled, or the user's
// Cancel. Either may be absent.
//
// Deliberately not an aggregate: GCC 12 destroys the members of an aggregate temporary
// twice when it is passed by value to a coroutine inside a co_await expression
// (`co_await fetch(..., stop_token{a, b})`), releasing the window's cancellation one time
// too many and freeing it under the window's feet. With a constructor the temporary is
// destroyed once.
class stop_token {
public:
    stop_token() noexcept = default;
    stop_token(std::shared_ptr<fibra::details::cancellation_source_body> window,
               std::shared_ptr<fibra::details::cancellation_source_body> user) noexcept
        : window_(std::move(window)), user_(std::move(user))
    {
    }

    [[nodiscard]] bool stop_requested() const noexcept
    {
        return (window_ && window_->cancelled()) || (user_ && user_->cancelled());
    }
    // Throws fibra::details::operation_cancelled.
    void throw_if_stopped() const;

private:
    std::shared_ptr<fibra::details::cancellation_source_body> window_;
    std::shared_ptr<fibra::details::cancellation_source_body> user_;
};
static_assert(!std::is_aggregate_v<stop_token>);

// Where a body goes, chunk by chunk.
class body_sink {
public:
    virtual void write(const void* data, DWORD size) = 0;
    // After each chunk; total is the announced length or -1.
    virtual void progress(std::uint64_t received, std::int64_t total) noexcept { (void)received, (void)total; }

protected:
    ~body_sink() = default;
};

// Reads the whole body into the sink, checking stop after every resumption. Fails with
// HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE) as soon as the body is, or is announced to be,
// longer than limit, and with HRESULT_FROM_WIN32(ERROR_INTERNET_CONNECTION_ABORTED) when
// it ends before the announced length. Returns the length.
task<std::uint64_t> read_body(const http_request& request, body_sink& sink, std::uint64_t limit, stop_token stop,
                              DWORD chunk_size = 64 * 1024);

// The whole body as bytes, with the same rules.
task<std::string> read_body_text(const http_request& request, std::uint64_t limit, stop_token stop);

}  // namespace tessel::web
