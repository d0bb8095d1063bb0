// Owners for secret bytes and OpenSSL objects inside the engine.
//
// Everything that ever holds key material lives in one of these types, so it
// is wiped with OPENSSL_cleanse before its memory goes back to the allocator,
// on every path, including reallocation of a growing buffer.
#ifndef VARDO_KMS_SECRET_H
#define VARDO_KMS_SECRET_H

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace VardoKms {

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

// Growable byte buffer for store images and other secret-bearing bytes.
using SecureBytes = std::vector<uint8_t, WipingAllocator<uint8_t>>;

// Fixed-size secret (a key), wiped on destruction and on Wipe().
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

struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* p) const noexcept { EVP_CIPHER_CTX_free(p); }
};
struct KdfCtxFree {
    void operator()(EVP_KDF_CTX* p) const noexcept { EVP_KDF_CTX_free(p); }
};
struct MacCtxFree {
    void operator()(EVP_MAC_CTX* p) const noexcept { EVP_MAC_CTX_free(p); }
};
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;
using KdfCtxPtr = std::unique_ptr<EVP_KDF_CTX, KdfCtxFree>;
using MacCtxPtr = std::unique_ptr<EVP_MAC_CTX, MacCtxFree>;

}  // namespace VardoKms

#endif  // VARDO_KMS_SECRET_H
