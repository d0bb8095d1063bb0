// Owner of a cipher buffer of the security service: a zero-filled block from
// AllocBase64CipherMemory whose first Length() bytes hold data. Unless it is
// handed out with Release(), the block is wiped over its data length (never
// past the block) and freed by ResetFreeBase64CipherMemory.
#ifndef VARDO_TOOLS_CERT_IMPORT_CIPHER_MEMORY_H
#define VARDO_TOOLS_CERT_IMPORT_CIPHER_MEMORY_H

#include <algorithm>
#include <cstdint>

#include "SecurityService.h"

namespace OvraStream {

class CipherMemory {
public:
    CipherMemory() = default;
    // A new block of `capacity` bytes, all of them data; Get() is null when
    // the allocator refused (it has logged why).
    explicit CipherMemory(uint32_t capacity)
        : data_(AllocBase64CipherMemory(static_cast<int32_t>(capacity))),
          capacity_(data_ != nullptr ? capacity : 0),
          length_(capacity_)
    {
    }
    ~CipherMemory() { Free(); }
    CipherMemory(const CipherMemory&) = delete;
    CipherMemory& operator=(const CipherMemory&) = delete;

    // Takes over a block of `length` bytes of data handed out by the base64
    // functions.
    void Adopt(char* data, uint32_t length)
    {
        Free();
        data_ = data;
        capacity_ = length;
        length_ = length;
    }

    char* Get() const { return data_; }
    uint8_t* Bytes() const { return reinterpret_cast<uint8_t*>(data_); }
    // The engine reads the capacity from here and writes the data length back.
    uint32_t& Length() { return length_; }

    // Hands the block over without wiping it.
    char* Release()
    {
        char* data = data_;
        data_ = nullptr;
        capacity_ = 0;
        length_ = 0;
        return data;
    }

    // Wipes the data and frees the block now.
    void Free()
    {
        const uint32_t wipeLength = std::min(length_, capacity_);
        ResetFreeBase64CipherMemory(Release(), wipeLength);
    }

private:
    char* data_ = nullptr;
    uint32_t capacity_ = 0;
    uint32_t length_ = 0;
};

}  // namespace OvraStream

#endif  // VARDO_TOOLS_CERT_IMPORT_CIPHER_MEMORY_H
