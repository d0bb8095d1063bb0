// The engine's cryptographic primitives, all on OpenSSL 3 EVP:
//   AES-GCM (128 or 256-bit key, 96-bit nonce, 128-bit tag) for wrapping
//   master keys and protecting data; HKDF-SHA256 for every derived key;
//   GMAC (AES-256-GCM over associated data only) for the key store image,
//   and HMAC-SHA256 for images of the earlier format; RAND_bytes for keys
//   and nonces.
// Every function returns VE_OK or a VE_ERR_* code and never throws.
#ifndef VARDO_KMS_CRYPTO_H
#define VARDO_KMS_CRYPTO_H

#include <cstddef>
#include <cstdint>

#include "basic/OpenSslPtr.h"

namespace VardoKms {

constexpr std::size_t GCM_NONCE_SIZE = 12;
constexpr std::size_t GCM_TAG_SIZE = 16;
constexpr std::size_t HMAC_SIZE = 32;

// Fills `out` with `length` bytes from the OpenSSL DRBG.
int32_t RandomBytes(uint8_t* out, std::size_t length);

// HKDF-SHA256 (RFC 5869) without salt: the input keys are uniformly random,
// so the extract step needs none; `info` separates the uses of one key.
int32_t DeriveKey(const uint8_t* inputKey, std::size_t inputLength, const uint8_t* info, std::size_t infoLength,
                  uint8_t* out, std::size_t outLength);

// HMAC-SHA256 of `data` under `key` into `mac` (HMAC_SIZE bytes).
int32_t ComputeHmac(const uint8_t* key, std::size_t keyLength, const uint8_t* data, std::size_t dataLength,
                    uint8_t* mac);

// HMAC-SHA256 of data that arrives in pieces: Init, Update..., Final.
class HmacStream {
public:
    int32_t Init(const uint8_t* key, std::size_t keyLength);
    bool Ready() const { return ctx_ != nullptr; }
    int32_t Update(const uint8_t* data, std::size_t length);
    int32_t Final(uint8_t* mac);

private:
    OvraBase::Basic::MacCtxPtr ctx_;
};

// AES-GCM used as a MAC (GMAC) over data that arrives in pieces: Init with a
// 16 or 32-byte key and a GCM_NONCE_SIZE nonce that is never used twice
// under the key, Update..., Final. The data goes in as associated data only
// and there is no plain text, so the GCM tag (GCM_TAG_SIZE bytes) is the MAC.
// The key bytes are not kept: the context holds the expanded key, and
// OpenSSL wipes it when the context is freed (at Final or destruction).
class GmacStream {
public:
    int32_t Init(const uint8_t* key, std::size_t keyLength, const uint8_t* nonce);
    bool Ready() const { return ctx_ != nullptr; }
    int32_t Update(const uint8_t* data, std::size_t length);
    int32_t Final(uint8_t* tag);

private:
    OvraBase::Basic::CipherCtxPtr ctx_;
};

// AES-GCM with a 16 or 32-byte key. Seal writes `length` cipher bytes and the
// tag; Open checks the tag and returns VE_ERR_AUTH when it does not match.
// Open decrypts into `plain` before the tag is known, so callers hand it a
// buffer of their own and release the bytes only after VE_OK.
int32_t GcmSeal(const uint8_t* key, std::size_t keyLength, const uint8_t* nonce, const uint8_t* aad,
                std::size_t aadLength, const uint8_t* plain, std::size_t length, uint8_t* cipher, uint8_t* tag);
int32_t GcmOpen(const uint8_t* key, std::size_t keyLength, const uint8_t* nonce, const uint8_t* aad,
                std::size_t aadLength, const uint8_t* cipher, std::size_t length, const uint8_t* tag,
                uint8_t* plain);

// An AES-GCM key kept ready for many messages: one context per direction,
// set up with the key once, so that each message only sets its nonce. The
// contexts hold the expanded key and OpenSSL wipes them when they are freed;
// the key bytes themselves are not kept.
class GcmKey {
public:
    int32_t SetKey(const uint8_t* key, std::size_t keyLength);
    int32_t Seal(const uint8_t* nonce, const uint8_t* aad, std::size_t aadLength, const uint8_t* plain,
                 std::size_t length, uint8_t* cipher, uint8_t* tag);
    int32_t Open(const uint8_t* nonce, const uint8_t* aad, std::size_t aadLength, const uint8_t* cipher,
                 std::size_t length, const uint8_t* tag, uint8_t* plain);

private:
    OvraBase::Basic::CipherCtxPtr sealer_;
    OvraBase::Basic::CipherCtxPtr opener_;
};

}  // namespace VardoKms

#endif  // VARDO_KMS_CRYPTO_H
