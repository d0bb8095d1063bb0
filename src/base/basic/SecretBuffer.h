// Buffers for secrets: every byte that ever held a pass phrase, a key, a
// cipher text or a line of the configuration lives in one of these types and
// is wiped with OPENSSL_cleanse before its memory goes back to the allocator,
// on every path, including the reallocation of a growing buffer.
#ifndef OVRA_BASE_BASIC_SECRET_BUFFER_H
#define OVRA_BASE_BASIC_SECRET_BUFFER_H

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

namespace OvraBase {
namespace Basic {

// Allocator that wipes a block before it is released.
template <typename T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() noexcept = default;
    template <typename U>
    WipingAllocator(const WipingAllocator<U>&) noexcept
    {
    }
    T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }
    void deallocate(T* p, std::size_t n) noexcept
    {
        OPENSSL_cleanse(p, n * sizeof(T));
        std::allocator<T>().deallocate(p, n);
    }
    template <typename U>
    bool operator==(const WipingAllocator<U>&) const noexcept
    {
        return true;
    }
    template <typename U>
    bool operator!=(const WipingAllocator<U>&) const noexcept
    {
        return false;
    }
};

// Growable byte buffer for secret-bearing bytes.
using SecureBytes = std::vector<uint8_t, WipingAllocator<uint8_t>>;

// Fixed-size secret held inline (a key), wiped on destruction and on Wipe().
template <std::size_t N>
class SecretArray {
public:
    SecretArray() noexcept { Wipe(); }
    SecretArray(const SecretArray& other) noexcept { *this = other; }
    SecretArray& operator=(const SecretArray& other) noexcept
    {
        if (this != &other) {
            for (std::size_t i = 0; i < N; ++i) {
                bytes_[i] = other.bytes_[i];
            }
        }
        return *this;
    }
    ~SecretArray() { Wipe(); }
    void Wipe() noexcept { OPENSSL_cleanse(bytes_, N); }
    uint8_t* Data() noexcept { return bytes_; }
    const uint8_t* Data() const noexcept { return bytes_; }
    static constexpr std::size_t Size() noexcept { return N; }

private:
    uint8_t bytes_[N];
};

// Fixed-size zero-filled character buffer on the heap, for C interfaces that
// fill a caller's buffer (a configuration line, a cipher text, a plain text).
// Wiped in full before it is released; Get() is null when the allocation
// failed, so callers check it as they would check malloc.
class SecretBuffer {
public:
    explicit SecretBuffer(std::size_t size) noexcept : data_(new (std::nothrow) char[size]()), size_(data_ ? size : 0) {}
    ~SecretBuffer() { Reset(); }
    SecretBuffer(const SecretBuffer&) = delete;
    SecretBuffer& operator=(const SecretBuffer&) = delete;
    SecretBuffer(SecretBuffer&& other) noexcept : data_(other.data_), size_(other.size_)
    {
        other.data_ = nullptr;
        other.size_ = 0;
    }
    SecretBuffer& operator=(SecretBuffer&& other) noexcept
    {
        if (this != &other) {
            Reset();
            data_ = other.data_;
            size_ = other.size_;
            other.data_ = nullptr;
            other.size_ = 0;
        }
        return *this;
    }

    char* Get() noexcept { return data_; }
    const char* Get() const noexcept { return data_; }
    std::size_t Size() const noexcept { return size_; }

    // Wipes every byte and keeps the buffer.
    void Wipe() noexcept
    {
        if (data_ != nullptr) {
            OPENSSL_cleanse(data_, size_);
        }
    }
    // Wipes and releases now.
    void Reset() noexcept
    {
        Wipe();
        delete[] data_;
        data_ = nullptr;
        size_ = 0;
    }

private:
    char* data_;
    std::size_t size_;
};

}  // namespace Basic
}  // namespace OvraBase

#endif  // OVRA_BASE_BASIC_SECRET_BUFFER_H
