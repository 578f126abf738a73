#include "app/startup.h"

#include "base/unique_handle.h"

#include <gtest/gtest.h>

namespace {

TEST(startup, title_prefix_matches_case_sensitively_and_never_a_shorter_title)
{
    const auto window_titled = [](const wchar_t* text) {
        return tessel::unique_hwnd(
            ::CreateWindowExW(0, L"STATIC", text, WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr));
    };
    const std::wstring_view prefix = L"Ulmora prefix test window";
    auto shorter = window_titled(L"Ulmora prefix test windo");
    auto other_case = window_titled(L"ULMORA prefix test window");
    EXPECT_EQ(servercfg::find_window_with_title_prefix(prefix), nullptr);

    auto exact = window_titled(L"Ulmora prefix test window");
    EXPECT_EQ(servercfg::find_window_with_title_prefix(prefix), exact.get());
    exact.reset();
    auto longer = window_titled(L"Ulmora prefix test window, and more");
    EXPECT_EQ(servercfg::find_window_with_title_prefix(prefix), longer.get());
}

TEST(startup, error_texts_fall_back_to_the_programs_own_text)
{
    EXPECT_EQ(servercfg::error_text(static_cast<HRESULT>(0xA0DE7777)), L"Unknown error");
    EXPECT_FALSE(servercfg::error_text(E_ACCESSDENIED).empty());
    const std::wstring message =
        servercfg::format_error_message(tessel::string_ids::startup_error_connecting, E_ACCESSDENIED);
    EXPECT_EQ(message.rfind(L"Error connecting to Ulmora Tools Server API: ", 0), 0u);
    EXPECT_NE(message.find(L" (0x80070005)\n\nTry to reinstall the product."), std::wstring::npos) << message;
}

}  // namespace
