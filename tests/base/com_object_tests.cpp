#include "base/com_object.h"

#include <gtest/gtest.h>

struct ITestFirst : IUnknown {
    virtual int STDMETHODCALLTYPE first() = 0;
};
__CRT_UUID_DECL(ITestFirst, 0x0c1d6e52, 0x71a4, 0x4f0b, 0x9d, 0x33, 0x5e, 0x2a, 0x81, 0x47, 0xc6, 0x10)

struct ITestSecond : IUnknown {
    virtual int STDMETHODCALLTYPE second() = 0;
};
__CRT_UUID_DECL(ITestSecond, 0x0c1d6e52, 0x71a4, 0x4f0b, 0x9d, 0x33, 0x5e, 0x2a, 0x81, 0x47, 0xc6, 0x11)

struct ITestMissing : IUnknown {};
__CRT_UUID_DECL(ITestMissing, 0x0c1d6e52, 0x71a4, 0x4f0b, 0x9d, 0x33, 0x5e, 0x2a, 0x81, 0x47, 0xc6, 0x12)

namespace {

using tessel::com_ptr;

class two_faced : public tessel::com_object<ITestFirst, ITestSecond> {
public:
    explicit two_faced(int* destroyed) noexcept : destroyed_(destroyed) {}
    ~two_faced() override { ++*destroyed_; }
    int STDMETHODCALLTYPE first() noexcept override { return 1; }
    int STDMETHODCALLTYPE second() noexcept override { return 2; }

private:
    int* destroyed_;
};

template <class object_t>
ULONG references_of(object_t* object)
{
    object->AddRef();
    return object->Release();
}

TEST(com_object, answers_query_interface_for_each_interface_with_one_iunknown)
{
    int destroyed = 0;
    {
        com_ptr<two_faced> object = tessel::make_com_object<two_faced>(&destroyed);

        com_ptr<ITestFirst> first;
        ASSERT_EQ(object->QueryInterface(__uuidof(ITestFirst), first.put_void()), S_OK);
        EXPECT_EQ(first.get(), static_cast<ITestFirst*>(object.get()));
        EXPECT_EQ(first->first(), 1);
        com_ptr<ITestSecond> second;
        ASSERT_EQ(first->QueryInterface(__uuidof(ITestSecond), second.put_void()), S_OK);
        EXPECT_EQ(second.get(), static_cast<ITestSecond*>(object.get()));
        EXPECT_EQ(second->second(), 2);
        EXPECT_EQ(references_of(object.get()), 3u) << "each successful query adds a reference";

        // COM identity: IUnknown is the same pointer whichever interface it is asked from.
        com_ptr<IUnknown> from_first, from_second, from_unknown;
        ASSERT_EQ(first->QueryInterface(__uuidof(IUnknown), from_first.put_void()), S_OK);
        ASSERT_EQ(second->QueryInterface(__uuidof(IUnknown), from_second.put_void()), S_OK);
        ASSERT_EQ(from_second->QueryInterface(__uuidof(IUnknown), from_unknown.put_void()), S_OK);
        EXPECT_EQ(from_first.get(), from_second.get());
        EXPECT_EQ(from_first.get(), from_unknown.get());
        EXPECT_NE(static_cast<void*>(first.get()), static_cast<void*>(second.get()))
            << "the two interfaces are distinct sub-objects, so identity is not trivially true";

        // A query that fails clears the out-parameter and adds nothing.
        const ULONG before = references_of(object.get());
        void* missing = reinterpret_cast<void*>(1);
        EXPECT_EQ(object->QueryInterface(__uuidof(ITestMissing), &missing), E_NOINTERFACE);
        EXPECT_EQ(missing, nullptr);
        EXPECT_EQ(object->QueryInterface(__uuidof(ITestFirst), nullptr), E_POINTER);
        EXPECT_EQ(references_of(object.get()), before);
    }
    EXPECT_EQ(destroyed, 1) << "every reference handed out was released";
}

TEST(com_object, value_on_stack_counts_references_but_never_deletes)
{
    int destroyed = 0;
    {
        tessel::value_on_stack<two_faced> object(&destroyed);
        EXPECT_EQ(references_of(&object), 1u);
        {
            com_ptr<ITestSecond> held;
            ASSERT_EQ(object.QueryInterface(__uuidof(ITestSecond), held.put_void()), S_OK);
            EXPECT_EQ(references_of(&object), 2u);
        }
        // Down to zero and below what it started with: still alive, still answering.
        EXPECT_EQ(object.Release(), 0u);
        EXPECT_EQ(destroyed, 0);
        EXPECT_EQ(object.AddRef(), 1u);
        EXPECT_EQ(object.Release(), 0u);
        EXPECT_EQ(destroyed, 0);
        EXPECT_EQ(object.first(), 1);
    }
    EXPECT_EQ(destroyed, 1) << "destroyed once, by its scope";
}

// The smart pointer over the same object: copies, conversions and queries each hold one
// reference, moves and self-assignment none.
TEST(com_ptr, reference_counting_follows_copies_moves_and_queries)
{
    int destroyed = 0;
    {
        com_ptr<ITestFirst> owner = tessel::make_com_object<two_faced>(&destroyed);
        ITestFirst* const raw = owner.get();
        {
            com_ptr<ITestFirst> copy = owner;
            EXPECT_EQ(references_of(raw), 2u);
            com_ptr<IUnknown> as_unknown = copy;  // derived-to-base conversion adds one
            EXPECT_EQ(references_of(raw), 3u);
            com_ptr<ITestFirst> moved = std::move(copy);
            EXPECT_FALSE(copy);
            EXPECT_EQ(references_of(raw), 3u);
            EXPECT_EQ(as_unknown.query<ITestSecond>()->second(), 2);
            EXPECT_EQ(references_of(raw), 3u) << "the queried pointer was a temporary";
        }
        EXPECT_EQ(references_of(raw), 1u);

        ITestFirst* out = nullptr;
        owner.copy_to(&out);
        EXPECT_EQ(references_of(raw), 2u);
        out->Release();

        owner = owner;  // self-assignment keeps the object alive
        EXPECT_EQ(destroyed, 0);

        // A missing interface: query throws, try_query answers empty, also on an empty pointer.
        const com_ptr<IUnknown> unknown = owner;
        EXPECT_FALSE(unknown.try_query<IDispatch>());
        try {
            (void)unknown.query<IDispatch>();
            ADD_FAILURE() << "query of a missing interface must throw";
        } catch (const fibra::details::hresult_error& e) {
            EXPECT_EQ(e.code(), E_NOINTERFACE);
        }
        EXPECT_FALSE(com_ptr<IUnknown>().try_query<IDispatch>());
    }
    EXPECT_EQ(destroyed, 1);
}

}  // namespace
