#include "base/failure.h"

#include <gtest/gtest.h>

#include <new>
#include <string>

namespace {

// What the debugger-output reports inside `action` also wrote to standard error.
template <class F>
std::string reported_by(F&& action)
{
    HANDLE read = nullptr, write = nullptr;
    if (!::CreatePipe(&read, &write, nullptr, 1 << 16))
        return "no pipe";
    const HANDLE saved = ::GetStdHandle(STD_ERROR_HANDLE);
    ::SetStdHandle(STD_ERROR_HANDLE, write);
    action();
    ::SetStdHandle(STD_ERROR_HANDLE, saved);
    ::CloseHandle(write);
    std::string text(1 << 16, '\0');
    DWORD got = 0;
    ::ReadFile(read, text.data(), static_cast<DWORD>(text.size()), &got, nullptr);
    ::CloseHandle(read);
    text.resize(got);
    return text;
}

template <class F>
HRESULT thrown_code(F&& action)
{
    try {
        action();
    } catch (const fibra::details::hresult_error& e) {
        return e.code();
    }
    return S_OK;
}

TEST(failure, throw_helpers_carry_the_right_hresult)
{
    EXPECT_EQ(thrown_code([] { tessel::throw_if_failed(E_ACCESSDENIED); }), E_ACCESSDENIED);
    EXPECT_EQ(thrown_code([] { tessel::throw_if_failed(S_FALSE); }), S_OK) << "S_FALSE is success";
    EXPECT_EQ(thrown_code([] { tessel::throw_if_win32_error(ERROR_FILE_NOT_FOUND); }),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));

    EXPECT_EQ(thrown_code([] {
                  ::SetLastError(ERROR_INVALID_HANDLE);
                  tessel::throw_last_error_if(true);
              }),
              HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    // A failure reported with no last error set still throws, as E_FAIL.
    EXPECT_EQ(thrown_code([] {
                  ::SetLastError(ERROR_SUCCESS);
                  tessel::throw_last_error();
              }),
              E_FAIL);
    EXPECT_EQ(thrown_code([] {
                  ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                  (void)tessel::throw_last_error_if_null(static_cast<void*>(nullptr));
              }),
              HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY));

    EXPECT_STREQ(fibra::details::hresult_error(static_cast<HRESULT>(0x80070005)).what(), "HRESULT 0x80070005");
}

TEST(failure, a_failure_says_which_file_and_line_threw_it_and_the_reports_print_it)
{
    unsigned thrown_at = 0;
    std::string logged = reported_by([&] {
        try {
            thrown_at = std::source_location::current().line(), tessel::throw_if_failed(E_ACCESSDENIED);
        } catch (const fibra::details::hresult_error& e) {
            EXPECT_EQ(e.where().line(), thrown_at);
            EXPECT_TRUE(std::string_view(e.where().file_name()).ends_with("failure_tests.cpp")) << e.where().file_name();
            tessel::log_caught_exception(L"work failed");
        }
    });
    EXPECT_EQ(logged, "work failed [failure_tests.cpp(" + std::to_string(thrown_at) + ")] (0x80070005)\n");

    // Other exceptions are placed where they were caught; an ignored HRESULT where it was ignored.
    unsigned caught_at = 0, ignored_at = 0;
    HRESULT answered = S_OK;
    logged = reported_by([&] {
        try {
            throw std::bad_alloc();
        } catch (...) {
            caught_at = std::source_location::current().line(), tessel::log_caught_exception(L"copy failed");
        }
        ignored_at = std::source_location::current().line(), answered = tessel::log_if_failed(E_INVALIDARG);
        tessel::log_if_failed(S_FALSE);
    });
    EXPECT_EQ(logged, "copy failed: std::bad_alloc [failure_tests.cpp(" + std::to_string(caught_at) +
                          ")] (0x8007000E)\nfailure ignored [failure_tests.cpp(" + std::to_string(ignored_at) +
                          ")] (0x80070057)\n");
    EXPECT_EQ(answered, E_INVALIDARG);
}

TEST(failure, caught_exceptions_map_to_hresults_at_boundaries)
{
    const auto boundary = [](auto&& action) noexcept -> HRESULT {
        try {
            action();
            return S_OK;
        } catch (...) {
            return tessel::hresult_from_caught_exception();
        }
    };
    EXPECT_EQ(boundary([] { tessel::throw_hresult(E_INVALIDARG); }), E_INVALIDARG);
    EXPECT_EQ(boundary([] { throw std::bad_alloc(); }), E_OUTOFMEMORY);
    EXPECT_EQ(boundary([] { throw fibra::details::operation_cancelled(); }), HRESULT_FROM_WIN32(ERROR_CANCELLED));
    EXPECT_EQ(boundary([] { throw 7; }), E_FAIL);
    EXPECT_EQ(boundary([] {}), S_OK);
}

TEST(failure, system_message_has_text_without_line_break_or_is_empty)
{
    // Wine has no text for some COM codes (REGDB_E_CLASSNOTREG), so only Win32-backed ones are checked.
    for (HRESULT code : {E_ACCESSDENIED, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), E_OUTOFMEMORY}) {
        const std::wstring text = tessel::system_message(code);
        EXPECT_FALSE(text.empty()) << std::hex << code;
        EXPECT_EQ(text.find_first_of(L"\r\n"), std::wstring::npos) << std::hex << code;
        EXPECT_NE(text.back(), L' ');
    }
    // A code no system knows has no text, so the caller shows its own.
    EXPECT_TRUE(tessel::system_message(static_cast<HRESULT>(0xA0DE7777)).empty());
}

TEST(failure_death, fail_fast_ends_the_process_with_the_message)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(tessel::fail_fast(L"model invariant broken"), "FAIL FAST: model invariant broken \\[failure_tests.cpp");
    EXPECT_DEATH(
        {
            ::SetLastError(ERROR_ACCESS_DENIED);
            tessel::fail_fast_last_error(L"GetMessage failed");
        },
        "GetMessage failed .*0x80070005");
    EXPECT_DEATH(tessel::fail_fast_if(true, L"checked"), "checked");
    // The outermost boundary names the place of the throw, not its own.
    const auto start = [] { tessel::throw_win32(ERROR_ACCESS_DENIED); };
    const unsigned thrown_at = __LINE__ - 1;
    EXPECT_DEATH(
        {
            try {
                start();
            } catch (...) {
                tessel::fail_fast_caught_exception(L"start-up failed");
            }
        },
        "FAIL FAST: start-up failed \\[failure_tests.cpp\\(" + std::to_string(thrown_at) + "\\)\\] \\(0x80070005\\)");
    tessel::fail_fast_if(false, L"never");
}

}  // namespace
