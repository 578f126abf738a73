#include "base/failure.h"

#include "base/unique_handle.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <new>

namespace fibra::details {

hresult_error::hresult_error(HRESULT code, std::source_location where) noexcept : code_(code), where_(where)
{
    std::snprintf(what_, sizeof what_, "HRESULT 0x%08lX", static_cast<unsigned long>(code));
}

}  // namespace fibra::details

namespace tessel {
namespace {

// Path tails are enough to find the line and keep the report short.
const char* file_name_of(const char* path) noexcept
{
    const char* name = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/' || *p == '\\')
            name = p + 1;
    return name;
}

// "[prefix]<message>[: detail] [file(line)][ (0x80070005)]" into a buffer of our own: no
// allocation, since the heap may be what is broken.
struct report_line {
    wchar_t text[1024];

    report_line(const char* prefix, std::wstring_view message, const char* detail, const std::source_location& where,
                HRESULT code, bool has_code) noexcept
    {
        int length = std::swprintf(text, std::size(text), L"%hs%.*ls%hs%.300hs [%hs(%u)]", prefix,
                                   static_cast<int>(std::min<size_t>(message.size(), 800)), message.data(),
                                   detail ? ": " : "", detail ? detail : "",
                                   file_name_of(where.file_name()), static_cast<unsigned>(where.line()));
        if (length < 0) {
            // Truncated: what fitted is still worth reporting.
            text[std::size(text) - 1] = L'\0';
            length = static_cast<int>(std::wcslen(text));
        }
        if (has_code && static_cast<size_t>(length) < std::size(text))
            std::swprintf(text + length, std::size(text) - length, L" (0x%08lX)", static_cast<unsigned long>(code));
    }
};

[[noreturn]] void end_process_now() noexcept
{
    // Ends the process at once, bypassing exception handlers and exit-time destructors.
    ::RaiseFailFastException(nullptr, nullptr, 0);
    ::TerminateProcess(::GetCurrentProcess(), 0xC0000602u /* STATUS_FAIL_FAST_EXCEPTION */);
    __builtin_unreachable();
}

[[noreturn]] void fail_fast_impl(HRESULT code, bool has_code, std::wstring_view message,
                                 const std::source_location& where) noexcept
{
    debug_report(report_line("FAIL FAST: ", message, nullptr, where, code, has_code).text);
    end_process_now();
}

// The exception being handled: its code, the place that threw it when it is one of ours
// (else the place that caught it) and, for other exceptions, their text.
struct caught_failure {
    HRESULT code;
    std::source_location where;
    const char* detail;
};

caught_failure inspect_caught_exception(const std::source_location& catch_place) noexcept
{
    try {
        throw;
    } catch (const fibra::details::hresult_error& e) {
        return {e.code(), e.where(), nullptr};
    } catch (const std::exception& e) {
        return {hresult_from_caught_exception(), catch_place, e.what()};
    } catch (...) {
        return {E_FAIL, catch_place, "an exception of an unknown type"};
    }
}

}  // namespace

void debug_report(std::wstring_view message) noexcept
{
    wchar_t line[1100];
    const size_t length = std::min(message.size(), std::size(line) - 2);
    std::wmemcpy(line, message.data(), length);
    line[length] = L'\n';
    line[length + 1] = L'\0';
    ::OutputDebugStringW(line);

    // Tests and console runs see the report too.
    const HANDLE err = ::GetStdHandle(STD_ERROR_HANDLE);
    if (err != nullptr && err != INVALID_HANDLE_VALUE) {
        char utf8[4 * std::size(line)];
        const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, line, static_cast<int>(length + 1), utf8,
                                                sizeof utf8, nullptr, nullptr);
        DWORD written = 0;
        if (bytes > 0)
            ::WriteFile(err, utf8, static_cast<DWORD>(bytes), &written, nullptr);
    }
}

void fail_fast(std::wstring_view message, std::source_location where) noexcept
{
    fail_fast_impl(S_OK, false, message, where);
}

void fail_fast_hr(HRESULT code, std::wstring_view message, std::source_location where) noexcept
{
    fail_fast_impl(code, true, message, where);
}

void fail_fast_last_error(std::wstring_view message, std::source_location where) noexcept
{
    fail_fast_impl(hresult_from_win32(::GetLastError()), true, message, where);
}

HRESULT log_if_failed(HRESULT code, std::source_location where) noexcept
{
    if (FAILED(code)) [[unlikely]]
        debug_report(report_line("", L"failure ignored", nullptr, where, code, true).text);
    return code;
}

void log_caught_exception(std::wstring_view message, std::source_location where) noexcept
{
    const caught_failure caught = inspect_caught_exception(where);
    debug_report(report_line("", message, caught.detail, caught.where, caught.code, true).text);
}

void fail_fast_caught_exception(std::wstring_view message, std::source_location where) noexcept
{
    const caught_failure caught = inspect_caught_exception(where);
    debug_report(report_line("FAIL FAST: ", message, caught.detail, caught.where, caught.code, true).text);
    end_process_now();
}

void throw_hresult(HRESULT code, std::source_location where)
{
    throw fibra::details::hresult_error(code, where);
}

void throw_win32(DWORD error, std::source_location where)
{
    throw_hresult(error == ERROR_SUCCESS ? E_FAIL : hresult_from_win32(error), where);
}

void throw_last_error(std::source_location where)
{
    throw_win32(::GetLastError(), where);
}

std::wstring format_message(DWORD id, LANGID language, HMODULE module)
{
    wchar_t* buffer = nullptr;
    const DWORD source = module ? FORMAT_MESSAGE_FROM_HMODULE : FORMAT_MESSAGE_FROM_SYSTEM;
    const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | source,
                                          module, id, language, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    const unique_hlocal owner(buffer);
    std::wstring text = length ? std::wstring(buffer, length) : std::wstring();
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' '))
        text.pop_back();
    return text;
}

std::wstring system_message(HRESULT code, LANGID language)
{
    std::wstring text = format_message(static_cast<DWORD>(code), language);
    // Not every system resolves the HRESULT form of a Win32 error; the plain code always works.
    if (text.empty() && HRESULT_FACILITY(code) == FACILITY_WIN32)
        text = format_message(HRESULT_CODE(code), language);
    return text;
}

HRESULT hresult_from_caught_exception() noexcept
{
    try {
        throw;
    } catch (const fibra::details::hresult_error& e) {
        return e.code();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (const fibra::details::operation_cancelled&) {
        return HRESULT_FROM_WIN32(ERROR_CANCELLED);
    } catch (...) {
        return E_FAIL;
    }
}

}  // namespace tessel
