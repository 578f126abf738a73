#include "base/failure.h"

#include <gtest/gtest.h>

#include <new>

namespace {

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
    tessel::fail_fast_if(false, L"never");
}

}  // namespace
