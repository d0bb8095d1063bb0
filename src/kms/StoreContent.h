// What a key store holds, in memory, and its on-disk image.
//
// Image layout (integers big-endian), format version 3:
//
//   offset size  field
//   0      8     magic "VARDOKS\0"
//   8      2     format version (3)
//   10     2     reserved, 0
//   12     8     generation: +1 on every write; the newer healthy copy wins
//   20     4     root key version: +1 on every root key update
//   24     32    root key material (random)
//   56     4     number of domains D (at most VE_MAX_DOMAINS)
//   then D times, domains in increasing id order:
//          4     domain id
//          4     number of master keys K (1 .. VE_MAX_MK_PER_DOMAIN)
//          then K times, keys in increasing id order, 81 bytes each:
//          4     master key id (1, 2, ...)
//          8     creation time, seconds since the epoch
//          8     expiry time, seconds since the epoch
//          1     state: 1 active, 2 retired (exactly one active per domain)
//          12    wrap nonce
//          32    master key, AES-256-GCM encrypted under the wrap key
//          16    wrap tag
//   end-32 32    HMAC-SHA256 over every byte before it, under the MAC key
//
// Wrap key = HKDF-SHA256(root, info "vardo-kms v3 master key wrap"), 32 bytes.
// MAC key  = HKDF-SHA256(root, info "vardo-kms v3 store mac"), 32 bytes.
// The wrap's associated data binds each wrapped key to its place and life:
// "VKMK" | domain id | key id | creation | expiry.
#ifndef VARDO_KMS_STORE_CONTENT_H
#define VARDO_KMS_STORE_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "basic/SecretBuffer.h"

namespace VardoKms {

using OvraBase::Basic::SecretArray;
using OvraBase::Basic::SecureBytes;

constexpr uint16_t STORE_FORMAT_VERSION = 3;
constexpr std::size_t ROOT_KEY_SIZE = 32;
constexpr std::size_t MASTER_KEY_SIZE = 32;
constexpr std::size_t MAX_STORE_IMAGE_SIZE = 8u * 1024u * 1024u;

enum class KeyState : uint8_t { ACTIVE = 1, RETIRED = 2 };

struct MasterKey {
    uint32_t id = 0;
    int64_t created = 0;
    int64_t expires = 0;
    KeyState state = KeyState::ACTIVE;
    SecretArray<MASTER_KEY_SIZE> key;
    // Data keys derived once from `key` (see Engine): AES-128 and AES-256.
    SecretArray<16> dataKey128;
    SecretArray<32> dataKey256;
};

struct Domain {
    std::vector<MasterKey> keys;  // increasing id; exactly one ACTIVE
    const MasterKey* Active() const;
    const MasterKey* Find(uint32_t keyId) const;
};

struct StoreContent {
    uint64_t generation = 0;
    uint32_t rootVersion = 0;
    SecretArray<ROOT_KEY_SIZE> root;
    std::map<uint32_t, Domain> domains;

    std::size_t KeyCount() const;
};

// Derives the two data keys of `key` in `domainId` (see Engine.cpp).
int32_t DeriveDataKeys(uint32_t domainId, MasterKey& key);

// Builds the image of `content` (fresh wrap nonces every time).
int32_t SerializeStore(const StoreContent& content, SecureBytes& image);

// Checks and decodes an image: VE_ERR_STORE_DAMAGED for anything malformed,
// truncated, of another format version, or failing the MAC or a key's wrap
// tag; VE_ERR_CRYPTO or VE_ERR_NO_MEMORY when a primitive fails.
int32_t ParseStore(const uint8_t* image, std::size_t length, StoreContent& content);

}  // namespace VardoKms

#endif  // VARDO_KMS_STORE_CONTENT_H
