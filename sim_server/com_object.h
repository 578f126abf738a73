#pragma once
// Reference counting and QueryInterface for the server's COM objects, and the module's
// count of live objects that DllCanUnloadNow answers from.

#include <unknwn.h>

#include <atomic>
#include <new>
#include <tuple>
#include <utility>

namespace sim_server {

// Objects alive plus IClassFactory::LockServer locks.
inline std::atomic<long> module_references{0};

// Implements IUnknown for every interface in the list; the first one also stands for
// IUnknown. Objects start with one reference, which make_object hands to its caller.
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
            *out = static_cast<first_interface*>(this);
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
            delete this;
        return left;
    }

protected:
    com_object() noexcept { ++module_references; }
    virtual ~com_object() { --module_references; }

private:
    using first_interface = std::tuple_element_t<0, std::tuple<interfaces...>>;
    std::atomic<ULONG> references_{1};
};

}  // namespace sim_server
