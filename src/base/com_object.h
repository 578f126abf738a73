#pragma once
// Implementing COM objects: reference counting and QueryInterface for a list of
// interfaces, and value_on_stack for objects whose lifetime is not the reference count's.

#include "base/com_ptr.h"

#include <unknwn.h>

#include <atomic>
#include <tuple>
#include <utility>

namespace tessel {

// Answers QueryInterface for IUnknown and every interface in the list (the first one
// also stands for IUnknown). Heap objects start with one reference, which
// make_com_object hands to its caller, and delete themselves with the last one.
template <class... interfaces>
class com_object : public interfaces... {
public:
    com_object(const com_object&) = delete;
    com_object& operator=(const com_object&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) noexcept override
    {
        if (!out)
            return E_POINTER;
        *out = nullptr;
        if (iid == __uuidof(IUnknown))
            *out = static_cast<IUnknown*>(static_cast<first_interface*>(this));
        else
            (void)((iid == __uuidof(interfaces) ? (*out = static_cast<interfaces*>(this), true) : false) || ...);
        if (!*out)
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() noexcept override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() noexcept override
    {
        const ULONG left = --references_;
        if (left == 0)
            destroy();
        return left;
    }

protected:
    com_object() noexcept = default;
    virtual ~com_object() = default;
    // value_on_stack replaces this: its object is not the reference count's to delete.
    virtual void destroy() noexcept { delete this; }

private:
    using first_interface = std::tuple_element_t<0, std::tuple<interfaces...>>;
    std::atomic<ULONG> references_{1};
};

template <class T, class... arguments>
[[nodiscard]] com_ptr<T> make_com_object(arguments&&... args)
{
    return com_ptr<T>::attach(new T(std::forward<arguments>(args)...));
}

// A COM object that lives inside something else (on a stack, as a member): references
// are counted as usual, but the last Release destroys nothing. Its owner must make sure
// nobody calls it after it is gone (unregister it from whoever holds it).
template <class T>
class value_on_stack final : public T {
public:
    using T::T;

private:
    void destroy() noexcept override {}
};

}  // namespace tessel
