// Data protection: PaskGetCipherDataLenEx, VeGetCipherDataLen, PaskEncryptEx,
// PaskDecryptEx.
//
// Cipher text = header (24 bytes) | encrypted bytes (plain length) | GCM tag (16).
//
//   offset size  field
//   0      2     magic "VE"
//   2      1     format version (1)
//   3      1     algorithm id: 8 = AES-128-GCM, 9 = AES-256-GCM
//   4      4     key domain id, big-endian
//   8      4     master key id, big-endian
//   12     12    nonce, random per call
//
// The whole header is the GCM associated data, so changing any of it fails
// authentication. The key is the data key of that master key and algorithm
// (HKDF-SHA256 of the master key, derived when the store is loaded).
#include <openssl/crypto.h>

#include <cstring>

#include "Crypto.h"
#include "EngineState.h"
#include "basic/BigEndian.h"

namespace VardoKms {
namespace {

constexpr std::size_t HEADER_SIZE = 24;
constexpr uint8_t FORMAT_VERSION = 1;
static_assert(HEADER_SIZE + GCM_TAG_SIZE == VE_CIPHER_OVERHEAD, "cipher overhead");
static_assert(HEADER_SIZE == 12 + GCM_NONCE_SIZE, "header layout");

using OvraBase::Basic::LoadBigEndian;
using OvraBase::Basic::StoreBigEndian;

const uint8_t* DataKey(const MasterKey& key, uint32_t algorithmId, std::size_t& length)
{
    if (algorithmId == VE_ALG_AES128_GCM) {
        length = key.dataKey128.Size();
        return key.dataKey128.Data();
    }
    length = key.dataKey256.Size();
    return key.dataKey256.Data();
}

int32_t CipherLength(uint32_t plainLength, uint32_t* cipherLength)
{
    std::lock_guard<std::mutex> guard(EngineMutex());
    if (RunningEngine() == nullptr) {
        return VE_ERR_NOT_INITIALIZED;
    }
    if (cipherLength == nullptr || plainLength > static_cast<uint32_t>(VE_MAX_PLAIN_LENGTH)) {
        return VE_ERR_INVALID_PARAM;
    }
    *cipherLength = plainLength + VE_CIPHER_OVERHEAD;
    return VE_OK;
}

// The active key of `domainId`, creating the domain's first key when the record allows it.
int32_t ActiveKey(EngineState& engine, uint32_t domainId, const MasterKey*& key)
{
    auto found = engine.content.domains.find(domainId);
    key = found == engine.content.domains.end() ? nullptr : found->second.Active();
    if (key != nullptr) {
        return VE_OK;
    }
    if (!engine.autoCreateFirstKey) {
        return VE_ERR_UNKNOWN_KEY;
    }
    const int32_t rc = ChangeStores(engine, [domainId](StoreContent& content, bool& changed) {
        // Another process may have made it meanwhile: the fresh reading decides.
        auto domain = content.domains.find(domainId);
        if (domain != content.domains.end()) {
            return VE_OK;
        }
        changed = true;
        return AddMasterKey(content, domainId);
    });
    if (rc != VE_OK) {
        return rc;
    }
    found = engine.content.domains.find(domainId);
    key = found == engine.content.domains.end() ? nullptr : found->second.Active();
    return key != nullptr ? VE_OK : VE_ERR_UNKNOWN_KEY;
}

const MasterKey* FindKey(const EngineState& engine, uint32_t domainId, uint32_t keyId)
{
    auto found = engine.content.domains.find(domainId);
    return found == engine.content.domains.end() ? nullptr : found->second.Find(keyId);
}

int32_t Encrypt(uint32_t domainId, uint32_t algorithmId, const uint8_t* plain, uint32_t plainLength, uint8_t* cipher,
                uint32_t* cipherLength)
{
    std::lock_guard<std::mutex> guard(EngineMutex());
    EngineState* engine = RunningEngine();
    if (engine == nullptr) {
        return VE_ERR_NOT_INITIALIZED;
    }
    if (cipherLength == nullptr || cipher == nullptr || (plain == nullptr && plainLength > 0) ||
        (algorithmId != VE_ALG_AES128_GCM && algorithmId != VE_ALG_AES256_GCM) ||
        plainLength > static_cast<uint32_t>(VE_MAX_PLAIN_LENGTH)) {
        return VE_ERR_INVALID_PARAM;
    }
    const uint32_t needed = plainLength + VE_CIPHER_OVERHEAD;
    if (*cipherLength < needed) {
        return VE_ERR_BUFFER_TOO_SMALL;
    }
    const MasterKey* key = nullptr;
    int32_t rc = ActiveKey(*engine, domainId, key);
    if (rc != VE_OK) {
        return rc;
    }
    uint8_t header[HEADER_SIZE];
    header[0] = 'V';
    header[1] = 'E';
    header[2] = FORMAT_VERSION;
    header[3] = static_cast<uint8_t>(algorithmId);
    StoreBigEndian<uint32_t>(header + 4, domainId);
    StoreBigEndian<uint32_t>(header + 8, key->id);
    rc = RandomBytes(header + 12, GCM_NONCE_SIZE);
    if (rc != VE_OK) {
        return rc;
    }
    std::size_t keyLength = 0;
    const uint8_t* dataKey = DataKey(*key, algorithmId, keyLength);
    rc = GcmSeal(dataKey, keyLength, header + 12, header, HEADER_SIZE, plain, plainLength, cipher + HEADER_SIZE,
                 cipher + HEADER_SIZE + plainLength);
    if (rc != VE_OK) {
        OPENSSL_cleanse(cipher, needed);
        return rc;
    }
    std::memcpy(cipher, header, HEADER_SIZE);
    *cipherLength = needed;
    return VE_OK;
}

int32_t Decrypt(uint32_t domainId, const uint8_t* cipher, uint32_t cipherLength, uint8_t* plain,
                uint32_t* plainLength)
{
    std::lock_guard<std::mutex> guard(EngineMutex());
    EngineState* engine = RunningEngine();
    if (engine == nullptr) {
        return VE_ERR_NOT_INITIALIZED;
    }
    if (cipher == nullptr || plainLength == nullptr) {
        return VE_ERR_INVALID_PARAM;
    }
    if (cipherLength < VE_CIPHER_OVERHEAD) {
        return VE_ERR_FORMAT;
    }
    if (cipher[0] != 'V' || cipher[1] != 'E' || cipher[2] != FORMAT_VERSION ||
        (cipher[3] != VE_ALG_AES128_GCM && cipher[3] != VE_ALG_AES256_GCM)) {
        return VE_ERR_FORMAT;
    }
    if (LoadBigEndian<uint32_t>(cipher + 4) != domainId) {
        return VE_ERR_AUTH;
    }
    const uint32_t length = cipherLength - VE_CIPHER_OVERHEAD;
    if (*plainLength < length) {
        return VE_ERR_BUFFER_TOO_SMALL;
    }
    if (plain == nullptr && length > 0) {
        return VE_ERR_INVALID_PARAM;
    }
    const uint32_t keyId = LoadBigEndian<uint32_t>(cipher + 8);
    const MasterKey* key = FindKey(*engine, domainId, keyId);
    if (key == nullptr) {
        // Perhaps made by another process since we last read the store.
        const int32_t rc = ReloadStores(*engine);
        if (rc != VE_OK) {
            return rc;
        }
        key = FindKey(*engine, domainId, keyId);
        if (key == nullptr) {
            return VE_ERR_UNKNOWN_KEY;
        }
    }
    std::size_t keyLength = 0;
    const uint8_t* dataKey = DataKey(*key, cipher[3], keyLength);
    // Decrypt into a buffer of our own: the caller sees plain bytes only once
    // the tag has been checked. Small texts stay on the stack.
    uint8_t small[512];
    SecureBytes large;
    uint8_t* scratch = small;
    if (length > sizeof(small)) {
        large.resize(length);
        scratch = large.data();
    }
    int32_t rc = GcmOpen(dataKey, keyLength, cipher + 12, cipher, HEADER_SIZE, cipher + HEADER_SIZE, length,
                         cipher + HEADER_SIZE + length, scratch);
    if (rc == VE_OK && length > 0) {
        std::memcpy(plain, scratch, length);
        *plainLength = length;
    } else if (rc == VE_OK) {
        *plainLength = 0;
    }
    OPENSSL_cleanse(scratch, length);
    return rc;
}

}  // namespace
}  // namespace VardoKms

extern "C" {

int32_t VeGetCipherDataLen(uint32_t plainLength, uint32_t* cipherLength)
{
    return VardoKms::AtBoundary([=] { return VardoKms::CipherLength(plainLength, cipherLength); });
}

int32_t PaskGetCipherDataLenEx(uint32_t plainLength, uint32_t* cipherLength)
{
    return VardoKms::AtBoundary([=] { return VardoKms::CipherLength(plainLength, cipherLength); });
}

int32_t PaskEncryptEx(uint32_t domainId, uint32_t algorithmId, const uint8_t* plain, uint32_t plainLength,
                      uint8_t* cipher, uint32_t* cipherLength)
{
    return VardoKms::AtBoundary(
        [=] { return VardoKms::Encrypt(domainId, algorithmId, plain, plainLength, cipher, cipherLength); });
}

int32_t PaskDecryptEx(uint32_t domainId, const uint8_t* cipher, uint32_t cipherLength, uint8_t* plain,
                      uint32_t* plainLength)
{
    return VardoKms::AtBoundary(
        [=] { return VardoKms::Decrypt(domainId, cipher, cipherLength, plain, plainLength); });
}

}  // extern "C"
