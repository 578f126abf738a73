#pragma once
// Owning COM interface pointer. Application code never pairs AddRef and Release by hand.

#include "base/failure.h"

#include <unknwn.h>

#include <cstddef>
#include <utility>

namespace tessel {

template <class T>
class com_ptr {
public:
    com_ptr() noexcept = default;
    com_ptr(std::nullptr_t) noexcept {}
    // Shares ownership: adds a reference.
    explicit com_ptr(T* value) noexcept : ptr_(value) { add_ref(); }
    com_ptr(const com_ptr& other) noexcept : ptr_(other.ptr_) { add_ref(); }
    com_ptr(com_ptr&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
    template <class U>
        requires std::is_convertible_v<U*, T*>
    com_ptr(const com_ptr<U>& other) noexcept : ptr_(other.get())
    {
        add_ref();
    }
    ~com_ptr() { release_ref(); }

    com_ptr& operator=(const com_ptr& other) noexcept
    {
        com_ptr(other).swap(*this);
        return *this;
    }
    com_ptr& operator=(com_ptr&& other) noexcept
    {
        com_ptr(std::move(other)).swap(*this);
        return *this;
    }
    com_ptr& operator=(std::nullptr_t) noexcept
    {
        reset();
        return *this;
    }

    // Takes over a reference the caller already owns (a factory's out-parameter).
    [[nodiscard]] static com_ptr attach(T* value) noexcept
    {
        com_ptr result;
        result.ptr_ = value;
        return result;
    }
    [[nodiscard]] T* detach() noexcept { return std::exchange(ptr_, nullptr); }

    [[nodiscard]] T* get() const noexcept { return ptr_; }
    T* operator->() const noexcept { return ptr_; }
    explicit operator bool() const noexcept { return ptr_ != nullptr; }

    void reset() noexcept { com_ptr().swap(*this); }
    // For out-parameters: releases what is held and hands out the slot.
    [[nodiscard]] T** put() noexcept
    {
        reset();
        return &ptr_;
    }
    [[nodiscard]] void** put_void() noexcept { return reinterpret_cast<void**>(put()); }

    // Hands an added reference to a caller's out-parameter (QueryInterface, getters).
    void copy_to(T** target) const noexcept
    {
        add_ref();
        *target = ptr_;
    }

    // QueryInterface that throws fibra::details::hresult_error when the interface is missing.
    template <class U>
    [[nodiscard]] com_ptr<U> query() const
    {
        com_ptr<U> result;
        throw_if_failed(ptr_->QueryInterface(__uuidof(U), result.put_void()));
        return result;
    }
    // QueryInterface that answers an empty pointer when the interface is missing.
    template <class U>
    [[nodiscard]] com_ptr<U> try_query() const noexcept
    {
        com_ptr<U> result;
        if (ptr_ && FAILED(ptr_->QueryInterface(__uuidof(U), result.put_void())))
            result.reset();
        return result;
    }

    void swap(com_ptr& other) noexcept { std::swap(ptr_, other.ptr_); }

    friend bool operator==(const com_ptr& a, const com_ptr& b) noexcept { return a.ptr_ == b.ptr_; }
    friend bool operator==(const com_ptr& a, std::nullptr_t) noexcept { return a.ptr_ == nullptr; }

private:
    void add_ref() const noexcept
    {
        if (ptr_)
            ptr_->AddRef();
    }
    void release_ref() noexcept
    {
        if (T* p = std::exchange(ptr_, nullptr))
            p->Release();
    }

    T* ptr_ = nullptr;
};

// CoCreateInstance into an owning pointer; throws on failure.
template <class T>
[[nodiscard]] com_ptr<T> create_instance(const CLSID& clsid, DWORD context = CLSCTX_INPROC_SERVER)
{
    com_ptr<T> result;
    throw_if_failed(::CoCreateInstance(clsid, nullptr, context, __uuidof(T), result.put_void()));
    return result;
}

}  // namespace tessel
