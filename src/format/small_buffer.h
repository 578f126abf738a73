#pragma once
// A growable array whose first InlineCapacity elements live inside the object, so that a
// formatting run on the stack allocates only for values that do not fit.

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace ts_printf::detail {

template <class T, std::size_t InlineCapacity>
class small_buffer {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    small_buffer() noexcept = default;
    small_buffer(const small_buffer&) = delete;
    small_buffer& operator=(const small_buffer&) = delete;
    ~small_buffer()
    {
        if (data_ != inline_)
            delete[] data_;
    }

    [[nodiscard]] T* data() noexcept { return data_; }
    [[nodiscard]] const T* data() const noexcept { return data_; }
    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    [[nodiscard]] std::size_t capacity() const noexcept { return capacity_; }
    [[nodiscard]] bool is_inline() const noexcept { return data_ == inline_; }

    void clear() noexcept { size_ = 0; }

    void reserve(std::size_t capacity)
    {
        if (capacity > capacity_)
            grow(capacity);
    }

    void push_back(T value)
    {
        if (size_ == capacity_)
            grow(size_ + 1);
        data_[size_++] = value;
    }

    void append(const T* values, std::size_t count)
    {
        reserve(size_ + count);
        std::memcpy(data_ + size_, values, count * sizeof(T));
        size_ += count;
    }

    // Adds count elements for the caller to write.
    [[nodiscard]] T* append_uninitialized(std::size_t count)
    {
        reserve(size_ + count);
        T* const first = data_ + size_;
        size_ += count;
        return first;
    }

    void append(std::size_t count, T value)
    {
        reserve(size_ + count);
        for (std::size_t i = 0; i < count; ++i)
            data_[size_ + i] = value;
        size_ += count;
    }

private:
    void grow(std::size_t minimum)
    {
        std::size_t capacity = capacity_ * 2;
        if (capacity < minimum)
            capacity = minimum;
        T* data = new T[capacity];
        std::memcpy(data, data_, size_ * sizeof(T));
        if (data_ != inline_)
            delete[] data_;
        data_ = data;
        capacity_ = capacity;
    }

    T* data_ = inline_;
    std::size_t size_ = 0;
    std::size_t capacity_ = InlineCapacity;
    T inline_[InlineCapacity];
};

}  // namespace ts_printf::detail
