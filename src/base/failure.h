#pragma once
// Failure reporting. Inside a module failures are exceptions that carry an HRESULT;
// window, COM and callback boundaries turn them back into HRESULTs or shown errors; a
// broken invariant ends the process at once with a message to the debugger output.

#include <windows.h>

#include <exception>
#include <source_location>
#include <string>
#include <string_view>

namespace fibra::details {

// A failed HRESULT, thrown by the throw helpers below and by coroutines. It remembers
// where it was thrown, for the debugger output only: users see the system's text and
// the code, never our file names.
class hresult_error : public std::exception {
public:
    explicit hresult_error(HRESULT code, std::source_location where = std::source_location::current()) noexcept;
    [[nodiscard]] HRESULT code() const noexcept { return code_; }
    [[nodiscard]] const std::source_location& where() const noexcept { return where_; }
    // "HRESULT 0x80070005"; the user-facing text comes from system_message().
    [[nodiscard]] const char* what() const noexcept override { return what_; }

private:
    HRESULT code_;
    std::source_location where_;
    char what_[24];
};

// Ends work that belongs to a window that has gone away.
class operation_cancelled : public std::exception {
public:
    [[nodiscard]] const char* what() const noexcept override { return "operation cancelled"; }
};

}  // namespace fibra::details

namespace tessel {

// Writes "<message> [file(line)]" (and the HRESULT when given) to the debugger output and
// to standard error when there is one, then ends the process without running any
// destructor or exit handler.
[[noreturn]] void fail_fast(std::wstring_view message,
                            std::source_location where = std::source_location::current()) noexcept;
[[noreturn]] void fail_fast_hr(HRESULT code, std::wstring_view message,
                               std::source_location where = std::source_location::current()) noexcept;
// Reports GetLastError() as the code.
[[noreturn]] void fail_fast_last_error(std::wstring_view message,
                                       std::source_location where = std::source_location::current()) noexcept;

inline void fail_fast_if(bool condition, std::wstring_view message,
                         std::source_location where = std::source_location::current()) noexcept
{
    if (condition) [[unlikely]]
        fail_fast(message, where);
}

// Writes one line to the debugger output (and standard error when there is one).
void debug_report(std::wstring_view message) noexcept;

// Failures ignored on purpose, still visible: "<message> [file(line)] (0x80070005)" in
// the debugger output. log_if_failed answers the code it was given.
HRESULT log_if_failed(HRESULT code, std::source_location where = std::source_location::current()) noexcept;
// Inside a catch block: the exception being handled, with the place that threw it when it
// is one of ours (else the place of the catch) and its code or text.
void log_caught_exception(std::wstring_view message,
                          std::source_location where = std::source_location::current()) noexcept;
// The same, then fail_fast: for the outermost boundary, where anything caught is a broken
// invariant of the program.
[[noreturn]] void fail_fast_caught_exception(std::wstring_view message,
                                             std::source_location where = std::source_location::current()) noexcept;

[[noreturn]] void throw_hresult(HRESULT code, std::source_location where = std::source_location::current());
// ERROR_SUCCESS becomes E_FAIL: a failure was reported, so something must be thrown.
[[noreturn]] void throw_win32(DWORD error, std::source_location where = std::source_location::current());
[[noreturn]] void throw_last_error(std::source_location where = std::source_location::current());

inline HRESULT throw_if_failed(HRESULT code, std::source_location where = std::source_location::current())
{
    if (FAILED(code)) [[unlikely]]
        throw_hresult(code, where);
    return code;
}

// For the registry family, which returns a Win32 error code instead of setting the last error.
inline void throw_if_win32_error(LSTATUS status, std::source_location where = std::source_location::current())
{
    if (status != ERROR_SUCCESS) [[unlikely]]
        throw_win32(static_cast<DWORD>(status), where);
}

inline void throw_last_error_if(bool condition, std::source_location where = std::source_location::current())
{
    if (condition) [[unlikely]]
        throw_last_error(where);
}

template <class T>
T throw_last_error_if_null(T value, std::source_location where = std::source_location::current())
{
    if (!value) [[unlikely]]
        throw_last_error(where);
    return value;
}

// The HRESULT form of a Win32 error code (ERROR_SUCCESS stays S_OK).
[[nodiscard]] constexpr HRESULT hresult_from_win32(DWORD error) noexcept
{
    return error == ERROR_SUCCESS ? S_OK
                                  : static_cast<HRESULT>((error & 0x0000FFFF) | (FACILITY_WIN32 << 16) | 0x80000000);
}

// The text of a message id from the system's message table (module null) or a module's,
// in the given language (0: the system's own choice of language), without the trailing
// line break; empty when there is none in that language.
[[nodiscard]] std::wstring format_message(DWORD id, LANGID language = 0, HMODULE module = nullptr);

// The system's text for a code (else for its Win32 code) in the given language, without
// the trailing line break; empty when the system has no text for it (callers then show
// their own).
[[nodiscard]] std::wstring system_message(HRESULT code, LANGID language = 0);

// For noexcept boundaries inside a catch block: the HRESULT that stands for the exception
// being handled (E_OUTOFMEMORY for bad_alloc, E_FAIL for anything without a code).
[[nodiscard]] HRESULT hresult_from_caught_exception() noexcept;

}  // namespace tessel
