// Memory encryption in base64: a secret in memory becomes printable cipher
// text (engine encryption, then base64) and back. Every intermediate buffer is
// a cipher buffer that is wiped before it is released, on every path.
#include <safe_mem_lib.h>

#include <algorithm>

#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/SecurityService");

using OvraBase::APP_ERR_GENERAL_FAILED;
using OvraBase::APP_ERR_INVALID_PARAM;

namespace {

// Owns a cipher buffer of `capacity` bytes whose first `length` bytes hold
// data. Release wipes the current length and frees the block. The wipe never
// reaches past the block, whatever length the engine reports back into it.
class SecretBuffer {
public:
    SecretBuffer() = default;
    // A new zero-filled block of `capacity` bytes (null when the allocator refuses).
    explicit SecretBuffer(uint32_t capacity)
        : data_(AllocBase64CipherMemory(static_cast<int32_t>(capacity))), capacity_(capacity), length_(capacity)
    {
    }
    ~SecretBuffer() { WipeAndFree(); }
    SecretBuffer(const SecretBuffer&) = delete;
    SecretBuffer& operator=(const SecretBuffer&) = delete;

    // Takes over a block handed out by the base64 functions: `length` bytes of
    // data in a block at least that large.
    void Adopt(char* data, uint32_t length)
    {
        WipeAndFree();
        data_ = data;
        capacity_ = length;
        length_ = length;
    }

    char* Get() const { return data_; }
    uint8_t* Bytes() const { return reinterpret_cast<uint8_t*>(data_); }
    // The engine reads the capacity from here and writes the data length back.
    uint32_t& Length() { return length_; }

    void WipeAndFree()
    {
        if (data_ != nullptr) {
            ResetFreeBase64CipherMemory(data_, std::min(length_, capacity_));
            data_ = nullptr;
        }
        capacity_ = 0;
        length_ = 0;
    }

private:
    char* data_ = nullptr;
    uint32_t capacity_ = 0;
    uint32_t length_ = 0;
};

}  // namespace

int32_t PaskMemEncryptBase64(const EncryptParam* params, const char* plain, uint32_t plainLength, char* cipherText,
                             uint32_t* cipherTextLength)
{
    if (params == nullptr || cipherTextLength == nullptr) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }
    const uint32_t algorithmId = params->algorithmId;
    const uint32_t domainId = params->domainId;
    const uint32_t capacity = *cipherTextLength;

    // The caller's capacity must hold twice the raw cipher size: room for the
    // base64 growth (four characters per three bytes) with some to spare.
    uint32_t cipherLength = 0;
    if (PaskGetCipherDataLenEx(plainLength, &cipherLength) != 0 || cipherLength == 0 ||
        cipherLength > (capacity >> 1)) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }

    SecretBuffer cipher(cipherLength);
    if (cipher.Get() == nullptr) {
        OVRA_LOG_ERROR_CODE("Call AllocBase64CipherMemory failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    if (PaskEncryptEx(domainId, algorithmId, reinterpret_cast<const uint8_t*>(plain), plainLength, cipher.Bytes(),
                      &cipher.Length()) != 0) {
        cipher.WipeAndFree();
        OVRA_LOG_ERROR_CODE("Call the pask encrypt function to encrypt data failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_ENCRYPT;
    }
    if (static_cast<int32_t>(cipher.Length()) < 0) {
        cipher.WipeAndFree();
        OVRA_LOG_ERROR_CODE("cipherLen does not meet the requirements.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_CIPHER_LENGTH;
    }

    SecretBuffer text;
    char* encoded = nullptr;
    uint32_t encodedLength = 0;
    if (EncodeWithBase64(cipher.Get(), cipher.Length(), &encoded, &encodedLength) != 0) {
        cipher.WipeAndFree();
        text.WipeAndFree();  // the encoder hands out nothing on failure
        OVRA_LOG_ERROR_CODE("Base64 to encoding cipher text failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_BASE64_ENCODE;
    }
    text.Adopt(encoded, encodedLength);
    cipher.WipeAndFree();

    // The text goes out without a terminator; the caller's buffer was zeroed.
    if (memcpy_s(cipherText, capacity, text.Get(), text.Length()) != EOK) {
        text.WipeAndFree();
        OVRA_LOG_ERROR_CODE("Call memcpy_s failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    *cipherTextLength = text.Length();
    text.WipeAndFree();
    return OvraBase::APP_ERR_OK;
}

int32_t PaskMemDecryptBase64(uint32_t domainId, const char* cipherText, uint32_t cipherTextLength, char* plain,
                             uint32_t plainCapacity)
{
    if (cipherText == nullptr) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }

    SecretBuffer decoded;
    char* bytes = nullptr;
    uint32_t bytesLength = 0;
    if (DecodeWithBase64(cipherText, cipherTextLength, &bytes, &bytesLength) != 0) {
        decoded.WipeAndFree();  // the decoder hands out nothing on failure
        OVRA_LOG_ERROR_CODE("Call DecodeWithBase64 failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_BASE64_DECODE;
    }
    decoded.Adopt(bytes, bytesLength);

    // The base64 text is always longer than the plain data it protects, so a
    // block of the text's length is more than enough.
    SecretBuffer plainBuffer(cipherTextLength);
    if (plainBuffer.Get() == nullptr) {
        decoded.WipeAndFree();
        OVRA_LOG_ERROR_CODE("Call AllocBase64CipherMemory failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    if (PaskDecryptEx(domainId, decoded.Bytes(), decoded.Length(), plainBuffer.Bytes(), &plainBuffer.Length()) != 0) {
        decoded.WipeAndFree();
        plainBuffer.WipeAndFree();
        OVRA_LOG_ERROR_CODE("Decrypts the specified ciphertext data failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_DECRYPT;
    }
    decoded.WipeAndFree();
    if (static_cast<int32_t>(plainBuffer.Length()) < 0) {
        plainBuffer.WipeAndFree();
        OVRA_LOG_ERROR_CODE("plainResultLen does not meet the requirements.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_PLAIN_LENGTH;
    }

    const errno_t copied = memcpy_s(plain, plainCapacity, plainBuffer.Get(), plainBuffer.Length());
    plainBuffer.WipeAndFree();
    if (copied != EOK) {
        OVRA_LOG_ERROR_CODE("memcpy_s failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    return OvraBase::APP_ERR_OK;
}
