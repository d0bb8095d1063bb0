// AES-GCM, GMAC, HKDF, HMAC and random bytes through OpenSSL 3 EVP.
#include "Crypto.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <algorithm>
#include <climits>

#include "basic/OpenSslPtr.h"
#include "VardoKms/VardoKms.h"

namespace VardoKms {
namespace {

using OvraBase::Basic::CipherCtxPtr;
using OvraBase::Basic::KdfCtxPtr;
using OvraBase::Basic::MacCtxPtr;

// Algorithms are fetched once per process and kept for its life: the fetch
// is the expensive part of a cipher set-up, and the handles are read-only
// afterwards. They are intentionally never freed (the process's OpenSSL
// clean-up at exit may already have run when static destructors would).
const EVP_CIPHER* FetchGcm(std::size_t keyLength)
{
    static EVP_CIPHER* const aes128 = EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr);
    static EVP_CIPHER* const aes256 = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    if (keyLength == 16) {
        return aes128;
    }
    if (keyLength == 32) {
        return aes256;
    }
    return nullptr;
}

EVP_KDF* FetchHkdf()
{
    static EVP_KDF* const hkdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
    return hkdf;
}

EVP_MAC* FetchHmac()
{
    static EVP_MAC* const hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    return hmac;
}

bool FitsInt(std::size_t n) { return n <= static_cast<std::size_t>(INT_MAX); }

}  // namespace

int32_t RandomBytes(uint8_t* out, std::size_t length)
{
    if (!FitsInt(length)) {
        return VE_ERR_INVALID_PARAM;
    }
    return RAND_bytes(out, static_cast<int>(length)) == 1 ? VE_OK : VE_ERR_CRYPTO;
}

int32_t DeriveKey(const uint8_t* inputKey, std::size_t inputLength, const uint8_t* info, std::size_t infoLength,
                  uint8_t* out, std::size_t outLength)
{
    EVP_KDF* kdf = FetchHkdf();
    if (kdf == nullptr) {
        return VE_ERR_CRYPTO;
    }
    KdfCtxPtr ctx(EVP_KDF_CTX_new(kdf));
    if (!ctx) {
        return VE_ERR_CRYPTO;
    }
    char digest[] = "SHA256";
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<uint8_t*>(inputKey), inputLength),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<uint8_t*>(info), infoLength),
        OSSL_PARAM_construct_end(),
    };
    return EVP_KDF_derive(ctx.get(), out, outLength, params) == 1 ? VE_OK : VE_ERR_CRYPTO;
}

int32_t ComputeHmac(const uint8_t* key, std::size_t keyLength, const uint8_t* data, std::size_t dataLength,
                    uint8_t* mac)
{
    HmacStream stream;
    int32_t rc = stream.Init(key, keyLength);
    if (rc == VE_OK) {
        rc = stream.Update(data, dataLength);
    }
    return rc == VE_OK ? stream.Final(mac) : rc;
}

int32_t HmacStream::Init(const uint8_t* key, std::size_t keyLength)
{
    EVP_MAC* hmac = FetchHmac();
    MacCtxPtr ctx(hmac != nullptr ? EVP_MAC_CTX_new(hmac) : nullptr);
    if (!ctx) {
        return VE_ERR_CRYPTO;
    }
    char digest[] = "SHA256";
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_end(),
    };
    if (EVP_MAC_init(ctx.get(), key, keyLength, params) != 1) {
        return VE_ERR_CRYPTO;
    }
    ctx_ = std::move(ctx);
    return VE_OK;
}

int32_t HmacStream::Update(const uint8_t* data, std::size_t length)
{
    return ctx_ != nullptr && EVP_MAC_update(ctx_.get(), data, length) == 1 ? VE_OK : VE_ERR_CRYPTO;
}

int32_t HmacStream::Final(uint8_t* mac)
{
    std::size_t written = 0;
    const bool done = ctx_ != nullptr && EVP_MAC_final(ctx_.get(), mac, &written, HMAC_SIZE) == 1;
    ctx_.reset();
    return done && written == HMAC_SIZE ? VE_OK : VE_ERR_CRYPTO;
}

int32_t GmacStream::Init(const uint8_t* key, std::size_t keyLength, const uint8_t* nonce)
{
    const EVP_CIPHER* algorithm = FetchGcm(keyLength);
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (algorithm == nullptr || !ctx || EVP_EncryptInit_ex2(ctx.get(), algorithm, key, nonce, nullptr) != 1) {
        return VE_ERR_CRYPTO;
    }
    ctx_ = std::move(ctx);
    return VE_OK;
}

int32_t GmacStream::Update(const uint8_t* data, std::size_t length)
{
    if (ctx_ == nullptr) {
        return VE_ERR_CRYPTO;
    }
    // Associated data may come in any number of pieces before the (empty)
    // plain text; each call takes at most INT_MAX bytes.
    while (length > 0) {
        const int piece = static_cast<int>(std::min<std::size_t>(length, INT_MAX));
        int outLength = 0;
        if (EVP_EncryptUpdate(ctx_.get(), nullptr, &outLength, data, piece) != 1) {
            return VE_ERR_CRYPTO;
        }
        data += piece;
        length -= static_cast<std::size_t>(piece);
    }
    return VE_OK;
}

int32_t GmacStream::Final(uint8_t* tag)
{
    uint8_t none[1];
    int finalLength = 0;
    const bool done = ctx_ != nullptr && EVP_EncryptFinal_ex(ctx_.get(), none, &finalLength) == 1 &&
                      finalLength == 0 &&
                      EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(GCM_TAG_SIZE), tag) == 1;
    ctx_.reset();
    return done ? VE_OK : VE_ERR_CRYPTO;
}

namespace {

// One message through `ctx`: keyed here with `algorithm` and `key`, or (both
// null) keyed before, so that only the nonce is set.
int32_t SealWith(EVP_CIPHER_CTX* ctx, const EVP_CIPHER* algorithm, const uint8_t* key, const uint8_t* nonce,
                 const uint8_t* aad, std::size_t aadLength, const uint8_t* plain, std::size_t length, uint8_t* cipher,
                 uint8_t* tag)
{
    if (ctx == nullptr || !FitsInt(length) || !FitsInt(aadLength)) {
        return ctx == nullptr ? VE_ERR_CRYPTO : VE_ERR_INVALID_PARAM;
    }
    int outLength = 0;
    if (EVP_EncryptInit_ex2(ctx, algorithm, key, nonce, nullptr) != 1) {
        return VE_ERR_CRYPTO;
    }
    if (aadLength > 0 && EVP_EncryptUpdate(ctx, nullptr, &outLength, aad, static_cast<int>(aadLength)) != 1) {
        return VE_ERR_CRYPTO;
    }
    if (length > 0 && EVP_EncryptUpdate(ctx, cipher, &outLength, plain, static_cast<int>(length)) != 1) {
        return VE_ERR_CRYPTO;
    }
    int finalLength = 0;
    if (EVP_EncryptFinal_ex(ctx, cipher + (length > 0 ? outLength : 0), &finalLength) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, static_cast<int>(GCM_TAG_SIZE), tag) != 1) {
        return VE_ERR_CRYPTO;
    }
    return VE_OK;
}

int32_t OpenWith(EVP_CIPHER_CTX* ctx, const EVP_CIPHER* algorithm, const uint8_t* key, const uint8_t* nonce,
                 const uint8_t* aad, std::size_t aadLength, const uint8_t* cipher, std::size_t length,
                 const uint8_t* tag, uint8_t* plain)
{
    if (ctx == nullptr || !FitsInt(length) || !FitsInt(aadLength)) {
        return ctx == nullptr ? VE_ERR_CRYPTO : VE_ERR_INVALID_PARAM;
    }
    int outLength = 0;
    if (EVP_DecryptInit_ex2(ctx, algorithm, key, nonce, nullptr) != 1) {
        return VE_ERR_CRYPTO;
    }
    if (aadLength > 0 && EVP_DecryptUpdate(ctx, nullptr, &outLength, aad, static_cast<int>(aadLength)) != 1) {
        return VE_ERR_CRYPTO;
    }
    if (length > 0 && EVP_DecryptUpdate(ctx, plain, &outLength, cipher, static_cast<int>(length)) != 1) {
        return VE_ERR_CRYPTO;
    }
    if (EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, static_cast<int>(GCM_TAG_SIZE), const_cast<uint8_t*>(tag)) !=
        1) {
        return VE_ERR_CRYPTO;
    }
    int finalLength = 0;
    if (EVP_DecryptFinal_ex(ctx, plain + (length > 0 ? outLength : 0), &finalLength) != 1) {
        return VE_ERR_AUTH;
    }
    return VE_OK;
}

}  // namespace

int32_t GcmSeal(const uint8_t* key, std::size_t keyLength, const uint8_t* nonce, const uint8_t* aad,
                std::size_t aadLength, const uint8_t* plain, std::size_t length, uint8_t* cipher, uint8_t* tag)
{
    const EVP_CIPHER* algorithm = FetchGcm(keyLength);
    if (algorithm == nullptr) {
        return VE_ERR_CRYPTO;
    }
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    return SealWith(ctx.get(), algorithm, key, nonce, aad, aadLength, plain, length, cipher, tag);
}

int32_t GcmOpen(const uint8_t* key, std::size_t keyLength, const uint8_t* nonce, const uint8_t* aad,
                std::size_t aadLength, const uint8_t* cipher, std::size_t length, const uint8_t* tag, uint8_t* plain)
{
    const EVP_CIPHER* algorithm = FetchGcm(keyLength);
    if (algorithm == nullptr) {
        return VE_ERR_CRYPTO;
    }
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    return OpenWith(ctx.get(), algorithm, key, nonce, aad, aadLength, cipher, length, tag, plain);
}

int32_t GcmKey::SetKey(const uint8_t* key, std::size_t keyLength)
{
    const EVP_CIPHER* algorithm = FetchGcm(keyLength);
    CipherCtxPtr sealer(EVP_CIPHER_CTX_new());
    CipherCtxPtr opener(EVP_CIPHER_CTX_new());
    if (algorithm == nullptr || !sealer || !opener ||
        EVP_EncryptInit_ex2(sealer.get(), algorithm, key, nullptr, nullptr) != 1 ||
        EVP_DecryptInit_ex2(opener.get(), algorithm, key, nullptr, nullptr) != 1) {
        return VE_ERR_CRYPTO;
    }
    sealer_ = std::move(sealer);
    opener_ = std::move(opener);
    return VE_OK;
}

int32_t GcmKey::Seal(const uint8_t* nonce, const uint8_t* aad, std::size_t aadLength, const uint8_t* plain,
                     std::size_t length, uint8_t* cipher, uint8_t* tag)
{
    return SealWith(sealer_.get(), nullptr, nullptr, nonce, aad, aadLength, plain, length, cipher, tag);
}

int32_t GcmKey::Open(const uint8_t* nonce, const uint8_t* aad, std::size_t aadLength, const uint8_t* cipher,
                     std::size_t length, const uint8_t* tag, uint8_t* plain)
{
    return OpenWith(opener_.get(), nullptr, nullptr, nonce, aad, aadLength, cipher, length, tag, plain);
}

}  // namespace VardoKms
