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
// (HKDF-SHA256 of the master key, derived when the master key is first used).
#include <openssl/crypto.h>

#include <cstring>

#include "Crypto.h"
#include "EngineState.h"
#include "OvraBase/Log.h"
#include "basic/BigEndian.h"

OVRA_LOG_UNIT("src/kms/Engine");

namespace VardoKms {
namespace {

constexpr std::size_t HEADER_SIZE = 24;
constexpr uint8_t FORMAT_VERSION = 1;
static_assert(HEADER_SIZE + GCM_TAG_SIZE == VE_CIPHER_OVERHEAD, "cipher overhead");
static_assert(HEADER_SIZE == 12 + GCM_NONCE_SIZE, "header layout");

using OvraBase::Basic::LoadBigEndian;
using OvraBase::Basic::StoreBigEndian;

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

// The data key of `algorithmId` of key `index` of `domainId` in the engine's
// content. The master key is unwrapped and its data keys derived the first
// time it is used; they stay until the engine stops.
int32_t DataKey(EngineState& engine, uint32_t domainId, std::size_t index, uint32_t algorithmId, GcmKey*& key)
{
    const Domain& domain = engine.content.domains.at(domainId);
    const uint8_t* record = domain.Record(index);
    const uint32_t keyId = domain.Info(index).id;
    auto slot = engine.dataKeys.find({domainId, keyId});
    if (slot == engine.dataKeys.end() || !SameWrappedKey(slot->second.record, record)) {
        DataKeys fresh;
        SecretArray<MASTER_KEY_SIZE> master;
        SecretArray<16> aes128;
        SecretArray<32> aes256;
        int32_t rc = UnwrapKey(engine.content, domainId, index, master);
        if (rc == VE_OK) {
            rc = DeriveDataKeys(domainId, keyId, master, aes128, aes256);
        }
        if (rc == VE_OK) {
            rc = fresh.aes128.SetKey(aes128.Data(), aes128.Size());
        }
        if (rc == VE_OK) {
            rc = fresh.aes256.SetKey(aes256.Data(), aes256.Size());
        }
        if (rc != VE_OK) {
            if (rc == VE_ERR_STORE_DAMAGED) {
                OVRA_LOG_ERROR("Master key " << keyId << " of domain " << domainId
                                             << " does not unwrap: the key store was rewritten by someone who "
                                                "could read it");
            }
            return rc;
        }
        std::memcpy(fresh.record, record, KEY_RECORD_SIZE);
        slot = engine.dataKeys.insert_or_assign({domainId, keyId}, std::move(fresh)).first;
    }
    key = algorithmId == VE_ALG_AES128_GCM ? &slot->second.aes128 : &slot->second.aes256;
    return VE_OK;
}

// The index of the active key of `domainId`, creating the domain's first key
// when the record allows it.
int32_t ActiveKey(EngineState& engine, uint32_t domainId, std::size_t& index)
{
    auto found = engine.content.domains.find(domainId);
    if (found == engine.content.domains.end()) {
        if (!engine.autoCreateFirstKey) {
            return VE_ERR_UNKNOWN_KEY;
        }
        const int32_t rc = ChangeStores(engine, [domainId](StoreContent& content, bool& changed) {
            // Another process may have made it meanwhile: the fresh reading decides.
            if (content.domains.count(domainId) != 0) {
                return VE_OK;
            }
            changed = true;
            return AddMasterKey(content, domainId);
        });
        if (rc != VE_OK) {
            return rc;
        }
        found = engine.content.domains.find(domainId);
        if (found == engine.content.domains.end()) {
            return VE_ERR_UNKNOWN_KEY;
        }
    }
    index = found->second.ActiveIndex();
    return VE_OK;
}

// The index of key `keyId` of `domainId`, or false.
bool FindKey(const EngineState& engine, uint32_t domainId, uint32_t keyId, std::size_t& index)
{
    const auto found = engine.content.domains.find(domainId);
    if (found == engine.content.domains.end()) {
        return false;
    }
    index = found->second.Find(keyId);
    return index < found->second.Count();
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
    std::size_t index = 0;
    int32_t rc = ActiveKey(*engine, domainId, index);
    GcmKey* dataKey = nullptr;
    if (rc == VE_OK) {
        rc = DataKey(*engine, domainId, index, algorithmId, dataKey);
    }
    if (rc != VE_OK) {
        return rc;
    }
    uint8_t header[HEADER_SIZE];
    header[0] = 'V';
    header[1] = 'E';
    header[2] = FORMAT_VERSION;
    header[3] = static_cast<uint8_t>(algorithmId);
    StoreBigEndian<uint32_t>(header + 4, domainId);
    StoreBigEndian<uint32_t>(header + 8, engine->content.domains.at(domainId).Info(index).id);
    rc = RandomBytes(header + 12, GCM_NONCE_SIZE);
    if (rc != VE_OK) {
        return rc;
    }
    rc = dataKey->Seal(header + 12, header, HEADER_SIZE, plain, plainLength, cipher + HEADER_SIZE,
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
    std::size_t index = 0;
    if (!FindKey(*engine, domainId, keyId, index)) {
        // Perhaps made by another process since we last read the store.
        const int32_t rc = ReloadStores(*engine);
        if (rc != VE_OK) {
            return rc;
        }
        if (!FindKey(*engine, domainId, keyId, index)) {
            return VE_ERR_UNKNOWN_KEY;
        }
    }
    GcmKey* dataKey = nullptr;
    int32_t rc = DataKey(*engine, domainId, index, cipher[3], dataKey);
    if (rc != VE_OK) {
        return rc;
    }
    // Decrypt into a buffer of our own: the caller sees plain bytes only once
    // the tag has been checked. Small texts stay on the stack.
    uint8_t small[512];
    SecureBytes large;
    uint8_t* scratch = small;
    if (length > sizeof(small)) {
        large.resize(length);
        scratch = large.data();
    }
    rc = dataKey->Open(cipher + 12, cipher, HEADER_SIZE, cipher + HEADER_SIZE, length, cipher + HEADER_SIZE + length,
                       scratch);
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
