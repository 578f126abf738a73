#pragma once
// Reference counting and QueryInterface for the toolkit's own small COM objects (font
// loaders, inline objects, text renderers). Objects are created with make_com_object and
// handed out as com_ptr; they delete themselves with their last reference.

#include "base/com_ptr.h"

#include <atomic>
#include <new>
#include <utility>

namespace tessel::controls_details {

template <class... interfaces>
class com_object : public interfaces... {
public:
    com_object() = default;
    com_object(const com_object&) = delete;
    com_object& operator=(const com_object&) = delete;
    virtual ~com_object() = default;

    ULONG STDMETHODCALLTYPE AddRef() noexcept override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() noexcept override
    {
        const ULONG left = --references_;
        if (left == 0)
            delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) noexcept override
    {
        if (!out)
            return E_POINTER;
        *out = nullptr;
        if (iid == __uuidof(IUnknown))
            *out = static_cast<IUnknown*>(static_cast<first_interface*>(this));
        else
            (void)(... || try_interface<interfaces>(iid, out));
        if (!*out)
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }

private:
    template <class first, class...>
    struct first_of {
        using type = first;
    };
    using first_interface = typename first_of<interfaces...>::type;

    template <class candidate>
    bool try_interface(REFIID iid, void** out) noexcept
    {
        if (iid != __uuidof(candidate))
            return false;
        *out = static_cast<candidate*>(this);
        return true;
    }

    std::atomic<ULONG> references_{1};
};

// The new object starts with one reference, which the returned pointer owns.
template <class T, class... args_t>
[[nodiscard]] com_ptr<T> make_com_object(args_t&&... args)
{
    return com_ptr<T>::attach(new T(std::forward<args_t>(args)...));
}

}  // namespace tessel::controls_details
