#include "base/unique_handle.h"

#include <gtest/gtest.h>


namespace {

bool is_open(HANDLE handle)
{
    DWORD flags = 0;
    return ::GetHandleInformation(handle, &flags) != FALSE;
}

TEST(unique_handle, closes_exactly_once_across_moves_resets_and_put)
{
    HANDLE raw = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(is_open(raw));
    {
        tessel::unique_handle first(raw);
        tessel::unique_handle second(std::move(first));
        EXPECT_FALSE(first);
        EXPECT_EQ(second.get(), raw);
        tessel::unique_handle third;
        third = std::move(second);
        third = std::move(third);  // self-move keeps the handle
        EXPECT_TRUE(is_open(raw));
        EXPECT_EQ(third.get(), raw);
    }
    EXPECT_FALSE(is_open(raw));

    tessel::unique_handle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    HANDLE before = event.get();
    // put() must close what it held before handing out the slot.
    HANDLE* slot = event.put();
    EXPECT_FALSE(is_open(before));
    *slot = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_TRUE(is_open(event.get()));

    HANDLE released = event.release();
    EXPECT_FALSE(event);
    EXPECT_TRUE(is_open(released));
    ::CloseHandle(released);
}

TEST(unique_handle, file_family_treats_invalid_handle_value_as_empty)
{
    tessel::unique_file missing(::CreateFileW(L"Z:\\no\\such\\file.txt", GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                              FILE_ATTRIBUTE_NORMAL, nullptr));
    EXPECT_FALSE(missing);
    EXPECT_EQ(missing.get(), INVALID_HANDLE_VALUE);
}

}  // namespace
