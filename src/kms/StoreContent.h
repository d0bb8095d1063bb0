// What a key store holds, in memory, and its on-disk image.
//
// Image layout (integers big-endian), format version 4, the one written:
//
//   offset size  field
//   0      8     magic "VARDOKS\0"
//   8      2     format version (4)
//   10     2     reserved, 0
//   12     8     generation: +1 on every write; the newer healthy copy wins
//   20     4     root key version: +1 on every root key update
//   24     32    root key material (random)
//   56     12    MAC nonce, fresh and random for every image written
//   68     4     number of domains D (at most VE_MAX_DOMAINS)
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
//   end-16 16    GMAC tag: AES-256-GCM under the MAC key and the MAC nonce,
//                with every byte before the tag as associated data and no
//                plain text
//
// Format version 3, still read (a store read in it is written in format 4 at
// its next change), differs only in the MAC: no MAC nonce (the number of
// domains is at offset 56) and a 32-byte trailer, the HMAC-SHA256 of every
// byte before it under its own MAC key. Format 4 exists for speed: GMAC runs
// several times faster than SHA-256, and the MAC over the whole image is
// most of what reading a large store costs. Any other version is refused.
//
// Wrap key   = HKDF-SHA256(root, info "vardo-kms v3 master key wrap"), 32 bytes.
// MAC key    = HKDF-SHA256(root, info "vardo-kms v4 store mac"), 32 bytes
//              (format 3: info "vardo-kms v3 store mac").
// The wrap key's label is older than format 4 and stays: every wrapped key
// depends on it. The wrap's associated data binds each wrapped key to its
// place and life: "VKMK" | domain id | key id | creation | expiry.
//
// In memory the key records stay in their image form: a domain's records are
// read where they lie in the image until the domain changes, and a master key
// is unwrapped only when it is used. Reading a store therefore costs one MAC
// over the image and a walk over the records, whatever the number of keys,
// and writing one copies the records of unchanged keys as they are (a key is
// wrapped once when it is made and again at each root key update).
#ifndef VARDO_KMS_STORE_CONTENT_H
#define VARDO_KMS_STORE_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "basic/SecretBuffer.h"

namespace VardoKms {

using OvraBase::Basic::SecretArray;
using OvraBase::Basic::SecureBytes;

constexpr uint16_t STORE_FORMAT_VERSION = 4;  // written; format 3 is read too
constexpr std::size_t ROOT_KEY_SIZE = 32;
constexpr std::size_t MASTER_KEY_SIZE = 32;
constexpr std::size_t KEY_RECORD_SIZE = 81;
constexpr std::size_t MAX_STORE_IMAGE_SIZE = 8u * 1024u * 1024u;

enum class KeyState : uint8_t { ACTIVE = 1, RETIRED = 2 };

// What a key record tells in the clear.
struct KeyInfo {
    uint32_t id = 0;
    int64_t created = 0;
    int64_t expires = 0;
    KeyState state = KeyState::ACTIVE;
};

// What `record` (KEY_RECORD_SIZE bytes of an image) tells in the clear.
KeyInfo RecordInfo(const uint8_t* record);

// The key records of one domain, KEY_RECORD_SIZE bytes each in image form,
// in increasing id order with exactly one active key.
class Domain {
public:
    std::size_t Count() const { return count_; }
    KeyInfo Info(std::size_t index) const;
    // The record's bytes (a wrapped key among them: nothing here is secret).
    const uint8_t* Record(std::size_t index) const { return Records() + index * KEY_RECORD_SIZE; }
    std::size_t ActiveIndex() const { return active_; }
    // Index of the key with `keyId`, or Count() when the domain has none.
    std::size_t Find(uint32_t keyId) const;

private:
    friend class DomainEditor;
    const uint8_t* Records() const { return own_.empty() ? shared_ : own_.data(); }

    const uint8_t* shared_ = nullptr;  // inside StoreContent::image, until the domain changes
    std::vector<uint8_t> own_;         // the records once they changed
    std::size_t count_ = 0;
    std::size_t active_ = 0;
};

struct StoreContent {
    // 0 for a store that exists only in memory (never written); every
    // written image has 1 or more.
    uint64_t generation = 0;
    uint32_t rootVersion = 0;
    SecretArray<ROOT_KEY_SIZE> root;
    SecretArray<32> wrapKey;  // derived from `root`
    std::map<uint32_t, Domain> domains;
    // The image the domains' unchanged records lie in (null for a new store).
    std::shared_ptr<const SecureBytes> image;

    std::size_t KeyCount() const;
};

// A new store in memory: fresh root material, root key version 1, no domains,
// generation 0.
int32_t NewStoreContent(StoreContent& content);

// Appends the new active key `key` (its id above the domain's last, `info`
// its id and lifetime) to `domainId`, wrapped under the content's wrap key;
// the domain's previous active key becomes retired. Limits are the caller's.
int32_t AddKey(StoreContent& content, uint32_t domainId, const KeyInfo& info,
               const SecretArray<MASTER_KEY_SIZE>& key);

// Fresh root material, root key version + 1, and every master key re-wrapped
// under it. VE_ERR_STORE_DAMAGED when a stored key does not unwrap; then the
// content is as it was.
int32_t ReplaceRoot(StoreContent& content);

// Unwraps key `index` of `domainId`. VE_ERR_STORE_DAMAGED when its wrap tag
// does not check out (the MAC held, so someone who can read the store
// rewrote it).
int32_t UnwrapKey(const StoreContent& content, uint32_t domainId, std::size_t index,
                  SecretArray<MASTER_KEY_SIZE>& key);

// true when two key records hold the same wrapped key for the same id and
// lifetime (their states may differ): a key unwrapped from one is the key
// of the other.
bool SameWrappedKey(const uint8_t* record, const uint8_t* other);

// The two data keys of master key `keyId` of `domainId`: AES-128 and AES-256.
int32_t DeriveDataKeys(uint32_t domainId, uint32_t keyId, const SecretArray<MASTER_KEY_SIZE>& key,
                       SecretArray<16>& dataKey128, SecretArray<32>& dataKey256);

// Builds the image of `content` in the current format: its header with a
// fresh MAC nonce, the records as they are, the MAC.
int32_t SerializeStore(const StoreContent& content, SecureBytes& image);

// Checks and indexes an image of format 3 or 4: VE_ERR_STORE_DAMAGED for
// anything malformed, truncated, of another format version or failing the
// MAC; VE_ERR_CRYPTO or VE_ERR_NO_MEMORY when a primitive fails. No key is unwrapped: the content
// keeps `image` and reads its records there.
int32_t ParseStore(const std::shared_ptr<const SecureBytes>& image, StoreContent& content);

// Unwraps every key of `content` (and forgets each at once): the deep check
// of an operator's verify. VE_ERR_STORE_DAMAGED for the first that fails.
int32_t CheckWrappedKeys(const StoreContent& content);

// ---- reading an image piece by piece -------------------------------------
// The same checks as ParseStore over an image that is never held whole: an
// operator's report of a large store reads each copy through a small buffer.

// What a walk over an image meets, in image order: the header, then each
// domain followed by its key records. A result other than VE_OK stops the walk.
class ImageVisitor {
public:
    virtual ~ImageVisitor() = default;
    virtual int32_t Header(uint64_t generation, uint32_t rootVersion, const uint8_t* root) = 0;
    virtual int32_t DomainStart(uint32_t domainId, uint32_t keyCount) = 0;
    virtual int32_t Key(uint32_t domainId, const uint8_t* record) = 0;
};

// A second file read in step with the walked one and compared with it.
struct MirrorFile {
    int fd = -1;
    SecureBytes buffer;  // as large as the walk's buffer
    bool same = true;    // after the walk: byte for byte the walked file
};

// Reads the image of `fd` (`size` bytes, as fstat gave it, format 3 or 4)
// through `buffer`, checking format, order, states, the end of the file and
// the MAC (fed as the bytes arrive, checked at the end), and hands header
// and records to `visitor` on the way. Whatever the visitor gathered counts
// only when the result is VE_OK. VE_ERR_STORE_IO when reading fails.
// With a `mirror` (of the same size), tells whether it holds the same bytes.
int32_t WalkImageFile(int fd, std::size_t size, SecureBytes& buffer, ImageVisitor& visitor,
                      MirrorFile* mirror = nullptr);

}  // namespace VardoKms

#endif  // VARDO_KMS_STORE_CONTENT_H
