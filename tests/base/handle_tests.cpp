#include "base/com_object.h"
#include "base/com_ptr.h"
#include "base/unique_handle.h"

#include <gtest/gtest.h>

#include <vector>

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

// A COM object that counts its references and answers one extra interface.
struct ITestExtra : IUnknown {
    virtual int STDMETHODCALLTYPE value() = 0;
};
}  // namespace
__CRT_UUID_DECL(ITestExtra, 0x6b3f54d0, 0x2b8f, 0x4c5e, 0x9a, 0x51, 0x0d, 0x1c, 0x2e, 0x3f, 0x4a, 0x5b)
namespace {

class counted_object final : public tessel::com_object<ITestExtra> {
public:
    explicit counted_object(bool& destroyed) : destroyed_(destroyed) {}
    ~counted_object() override { destroyed_ = true; }
    int STDMETHODCALLTYPE value() noexcept override { return 42; }
    ULONG refs()
    {
        AddRef();
        return Release();
    }

private:
    bool& destroyed_;
};

TEST(com_ptr, reference_counting_follows_copies_moves_and_queries)
{
    bool destroyed = false;
    auto* raw = tessel::make_com_object<counted_object>(destroyed).detach();
    {
        auto owner = tessel::com_ptr<ITestExtra>::attach(raw);
        EXPECT_EQ(raw->refs(), 1u);
        {
            tessel::com_ptr<ITestExtra> copy = owner;
            EXPECT_EQ(raw->refs(), 2u);
            tessel::com_ptr<IUnknown> as_unknown = copy;  // derived-to-base conversion adds one
            EXPECT_EQ(raw->refs(), 3u);
            tessel::com_ptr<ITestExtra> moved = std::move(copy);
            EXPECT_FALSE(copy);
            EXPECT_EQ(raw->refs(), 3u);
            auto queried = as_unknown.query<ITestExtra>();
            EXPECT_EQ(queried->value(), 42);
            EXPECT_EQ(raw->refs(), 4u);
        }
        EXPECT_EQ(raw->refs(), 1u);

        ITestExtra* out = nullptr;
        owner.copy_to(&out);
        EXPECT_EQ(raw->refs(), 2u);
        out->Release();

        owner = owner;  // self-assignment keeps the object alive
        EXPECT_FALSE(destroyed);
    }
    EXPECT_TRUE(destroyed);
}

TEST(com_ptr, missing_interface_throws_or_answers_empty)
{
    bool destroyed = false;
    auto unknown = tessel::com_ptr<IUnknown>::attach(static_cast<ITestExtra*>(tessel::make_com_object<counted_object>(destroyed).detach()));
    EXPECT_FALSE(unknown.try_query<IDispatch>());
    try {
        (void)unknown.query<IDispatch>();
        FAIL() << "query of a missing interface must throw";
    } catch (const fibra::details::hresult_error& e) {
        EXPECT_EQ(e.code(), E_NOINTERFACE);
    }
    EXPECT_FALSE(tessel::com_ptr<IUnknown>().try_query<IDispatch>());
    unknown = nullptr;
    EXPECT_TRUE(destroyed);
}

}  // namespace
