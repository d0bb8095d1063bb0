// Memory encryption in base64: a secret in memory becomes printable cipher
// text (engine encryption, then base64) and back. Every intermediate buffer is
// a cipher buffer that is wiped before it is released, on every path.
#include <safe_mem_lib.h>

#include "CipherMemory.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/SecurityService");

using OvraBase::APP_ERR_GENERAL_FAILED;
using OvraBase::APP_ERR_INVALID_PARAM;

namespace {

using OvraStream::CipherMemory;

// The engine's cipher text of `plain` into `cipher` (a new cipher buffer of
// the cipher size), whose length becomes the cipher text's. 0 or the
// service's code, logged; `cipher` is wiped and freed on failure.
int32_t EncryptInto(CipherMemory& cipher, const EncryptParam& params, const char* plain, uint32_t plainLength)
{
    if (PaskEncryptEx(params.domainId, params.algorithmId, reinterpret_cast<const uint8_t*>(plain), plainLength,
                      cipher.Bytes(), &cipher.Length()) != 0) {
        cipher.Free();
        OVRA_LOG_ERROR_CODE("Call the pask encrypt function to encrypt data failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_ENCRYPT;
    }
    if (static_cast<int32_t>(cipher.Length()) < 0) {
        cipher.Free();
        OVRA_LOG_ERROR_CODE("cipherLen does not meet the requirements.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_CIPHER_LENGTH;
    }
    return OvraBase::APP_ERR_OK;
}

// Base64 of the cipher text into the caller's `cipherText` of `capacity`
// bytes, without a terminator (the caller's buffer was zeroed); the text
// length into *cipherTextLength. 0 or the service's code, logged. Both the
// cipher text and its base64 form are wiped and freed on every path.
int32_t EncodeInto(CipherMemory& cipher, char* cipherText, uint32_t capacity, uint32_t* cipherTextLength)
{
    CipherMemory text;
    char* encoded = nullptr;
    uint32_t encodedLength = 0;
    if (EncodeWithBase64(cipher.Get(), cipher.Length(), &encoded, &encodedLength) != 0) {
        cipher.Free();
        text.Free();  // the encoder hands out nothing on failure
        OVRA_LOG_ERROR_CODE("Base64 to encoding cipher text failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_BASE64_ENCODE;
    }
    text.Adopt(encoded, encodedLength);
    cipher.Free();

    if (memcpy_s(cipherText, capacity, text.Get(), text.Length()) != EOK) {
        text.Free();
        OVRA_LOG_ERROR_CODE("Call memcpy_s failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    *cipherTextLength = text.Length();
    text.Free();
    return OvraBase::APP_ERR_OK;
}

}  // namespace

int32_t PaskMemEncryptBase64(const EncryptParam* params, const char* plain, uint32_t plainLength, char* cipherText,
                             uint32_t* cipherTextLength)
{
    if (params == nullptr || cipherTextLength == nullptr) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }
    const EncryptParam given = *params;
    const uint32_t capacity = *cipherTextLength;

    // The caller's capacity must hold twice the raw cipher size: room for the
    // base64 growth (four characters per three bytes) with some to spare.
    uint32_t cipherLength = 0;
    if (PaskGetCipherDataLenEx(plainLength, &cipherLength) != 0 || cipherLength == 0 ||
        cipherLength > (capacity >> 1)) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }

    CipherMemory cipher(cipherLength);
    if (cipher.Get() == nullptr) {
        OVRA_LOG_ERROR_CODE("Call AllocBase64CipherMemory failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    const int32_t encrypted = EncryptInto(cipher, given, plain, plainLength);
    if (encrypted != OvraBase::APP_ERR_OK) {
        return encrypted;
    }
    return EncodeInto(cipher, cipherText, capacity, cipherTextLength);
}

int32_t PaskMemDecryptBase64(uint32_t domainId, const char* cipherText, uint32_t cipherTextLength, char* plain,
                             uint32_t plainCapacity)
{
    if (cipherText == nullptr) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }

    CipherMemory decoded;
    char* bytes = nullptr;
    uint32_t bytesLength = 0;
    if (DecodeWithBase64(cipherText, cipherTextLength, &bytes, &bytesLength) != 0) {
        decoded.Free();  // the decoder hands out nothing on failure
        OVRA_LOG_ERROR_CODE("Call DecodeWithBase64 failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_BASE64_DECODE;
    }
    decoded.Adopt(bytes, bytesLength);

    // The base64 text is always longer than the plain data it protects, so a
    // block of the text's length is more than enough.
    CipherMemory plainBuffer(cipherTextLength);
    if (plainBuffer.Get() == nullptr) {
        decoded.Free();
        OVRA_LOG_ERROR_CODE("Call AllocBase64CipherMemory failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    if (PaskDecryptEx(domainId, decoded.Bytes(), decoded.Length(), plainBuffer.Bytes(), &plainBuffer.Length()) != 0) {
        decoded.Free();
        plainBuffer.Free();
        OVRA_LOG_ERROR_CODE("Decrypts the specified ciphertext data failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_DECRYPT;
    }
    decoded.Free();
    if (static_cast<int32_t>(plainBuffer.Length()) < 0) {
        plainBuffer.Free();
        OVRA_LOG_ERROR_CODE("plainResultLen does not meet the requirements.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_PLAIN_LENGTH;
    }

    const errno_t copied = memcpy_s(plain, plainCapacity, plainBuffer.Get(), plainBuffer.Length());
    plainBuffer.Free();
    if (copied != EOK) {
        OVRA_LOG_ERROR_CODE("memcpy_s failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    return OvraBase::APP_ERR_OK;
}
