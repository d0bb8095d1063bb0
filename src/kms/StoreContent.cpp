// Encoding and checking of key store images (layout in StoreContent.h).
#include "StoreContent.h"

#include <openssl/crypto.h>

#include <cstring>

#include "Crypto.h"
#include "VardoKms/VardoKms.h"
#include "basic/BigEndian.h"

namespace VardoKms {
namespace {

constexpr uint8_t MAGIC[8] = {'V', 'A', 'R', 'D', 'O', 'K', 'S', 0};
constexpr std::size_t HEADER_SIZE = 8 + 2 + 2 + 8 + 4 + ROOT_KEY_SIZE + 4;  // 60
constexpr std::size_t ROOT_OFFSET = 24;
constexpr std::size_t KEY_RECORD_SIZE = 4 + 8 + 8 + 1 + GCM_NONCE_SIZE + MASTER_KEY_SIZE + GCM_TAG_SIZE;  // 81
constexpr std::size_t WRAP_AAD_SIZE = 4 + 4 + 4 + 8 + 8;
constexpr char WRAP_INFO[] = "vardo-kms v3 master key wrap";
constexpr char MAC_INFO[] = "vardo-kms v3 store mac";
constexpr char DATA_INFO[] = "vardo-kms v3 data key";

using OvraBase::Basic::LoadBigEndian;
using OvraBase::Basic::StoreBigEndian;

// Appends `v` big-endian.
template <typename T>
void PutBigEndian(SecureBytes& out, T v)
{
    uint8_t bytes[sizeof(T)];
    StoreBigEndian(bytes, v);
    out.insert(out.end(), bytes, bytes + sizeof(T));
}
void PutBytes(SecureBytes& out, const uint8_t* p, std::size_t n) { out.insert(out.end(), p, p + n); }

// Bounds-checked reader over an image; every Get fails once the end is passed.
class Reader {
public:
    Reader(const uint8_t* data, std::size_t length) : data_(data), length_(length) {}
    bool Get(uint8_t* out, std::size_t n)
    {
        if (n > length_ - offset_) {
            return false;
        }
        std::memcpy(out, data_ + offset_, n);
        offset_ += n;
        return true;
    }
    template <typename T>
    bool GetBigEndian(T& v)
    {
        uint8_t bytes[sizeof(T)];
        if (!Get(bytes, sizeof(bytes))) {
            return false;
        }
        v = LoadBigEndian<T>(bytes);
        return true;
    }
    bool AtEnd() const { return offset_ == length_; }

private:
    const uint8_t* data_;
    std::size_t length_;
    std::size_t offset_ = 0;
};

void WrapAad(uint32_t domainId, const MasterKey& key, uint8_t* aad)
{
    std::memcpy(aad, "VKMK", 4);
    StoreBigEndian<uint32_t>(aad + 4, domainId);
    StoreBigEndian<uint32_t>(aad + 8, key.id);
    StoreBigEndian<uint64_t>(aad + 12, static_cast<uint64_t>(key.created));
    StoreBigEndian<uint64_t>(aad + 20, static_cast<uint64_t>(key.expires));
}

int32_t DeriveStoreKeys(const SecretArray<ROOT_KEY_SIZE>& root, SecretArray<32>& wrapKey, SecretArray<32>& macKey)
{
    int32_t rc = DeriveKey(root.Data(), root.Size(), reinterpret_cast<const uint8_t*>(WRAP_INFO),
                           sizeof(WRAP_INFO) - 1, wrapKey.Data(), wrapKey.Size());
    if (rc != VE_OK) {
        return rc;
    }
    return DeriveKey(root.Data(), root.Size(), reinterpret_cast<const uint8_t*>(MAC_INFO), sizeof(MAC_INFO) - 1,
                     macKey.Data(), macKey.Size());
}


// Appends the record of `key`, wrapped under a fresh nonce.
int32_t PutKeyRecord(SecureBytes& image, const SecretArray<32>& wrapKey, uint32_t domainId, const MasterKey& key)
{
    uint8_t nonce[GCM_NONCE_SIZE];
    uint8_t wrapped[MASTER_KEY_SIZE];
    uint8_t tag[GCM_TAG_SIZE];
    uint8_t aad[WRAP_AAD_SIZE];
    WrapAad(domainId, key, aad);
    int32_t rc = RandomBytes(nonce, sizeof(nonce));
    if (rc == VE_OK) {
        rc = GcmSeal(wrapKey.Data(), wrapKey.Size(), nonce, aad, sizeof(aad), key.key.Data(), key.key.Size(), wrapped,
                     tag);
    }
    if (rc != VE_OK) {
        return rc;
    }
    PutBigEndian<uint32_t>(image, key.id);
    PutBigEndian<uint64_t>(image, static_cast<uint64_t>(key.created));
    PutBigEndian<uint64_t>(image, static_cast<uint64_t>(key.expires));
    image.push_back(static_cast<uint8_t>(key.state));
    PutBytes(image, nonce, sizeof(nonce));
    PutBytes(image, wrapped, sizeof(wrapped));
    PutBytes(image, tag, sizeof(tag));
    return VE_OK;
}

// The MAC check of a whole image; on VE_OK `wrapKey` is the image's key
// wrapping key. Both keys come from the root material inside the image
// itself: the MAC catches damage and partial writes, not a writer who can
// read the file (that one is kept out by the owner-only mode).
int32_t CheckImageMac(const uint8_t* image, std::size_t length, SecretArray<32>& wrapKey)
{
    SecretArray<ROOT_KEY_SIZE> root;
    std::memcpy(root.Data(), image + ROOT_OFFSET, root.Size());
    SecretArray<32> macKey;
    int32_t rc = DeriveStoreKeys(root, wrapKey, macKey);
    if (rc != VE_OK) {
        return rc;
    }
    const std::size_t bodyLength = length - HMAC_SIZE;
    uint8_t mac[HMAC_SIZE];
    rc = ComputeHmac(macKey.Data(), macKey.Size(), image, bodyLength, mac);
    if (rc != VE_OK) {
        return rc;
    }
    return CRYPTO_memcmp(mac, image + bodyLength, HMAC_SIZE) == 0 ? VE_OK : VE_ERR_STORE_DAMAGED;
}

// The fixed header: format version, generation, root key version and
// material, number of domains. false when it is cut short or of another format.
bool ParseHeader(Reader& reader, StoreContent& parsed, uint32_t& domainCount)
{
    uint8_t magic[sizeof(MAGIC)];
    uint16_t version = 0;
    uint16_t reserved = 0;
    if (!reader.Get(magic, sizeof(magic)) || !reader.GetBigEndian(version) || !reader.GetBigEndian(reserved) ||
        !reader.GetBigEndian(parsed.generation) || !reader.GetBigEndian(parsed.rootVersion) ||
        !reader.Get(parsed.root.Data(), parsed.root.Size()) || !reader.GetBigEndian(domainCount)) {
        return false;
    }
    return version == STORE_FORMAT_VERSION && reserved == 0 && domainCount <= VE_MAX_DOMAINS;
}

// Unwraps `key` (its id and lifetime already read) and derives its data keys.
int32_t UnwrapMasterKey(const SecretArray<32>& wrapKey, uint32_t domainId, const uint8_t* nonce,
                        const uint8_t* wrapped, const uint8_t* tag, MasterKey& key)
{
    uint8_t aad[WRAP_AAD_SIZE];
    WrapAad(domainId, key, aad);
    const int32_t rc = GcmOpen(wrapKey.Data(), wrapKey.Size(), nonce, aad, sizeof(aad), wrapped, MASTER_KEY_SIZE, tag,
                               key.key.Data());
    if (rc != VE_OK) {
        return rc == VE_ERR_AUTH ? VE_ERR_STORE_DAMAGED : rc;
    }
    return DeriveDataKeys(domainId, key);
}

// One key record of a domain, keys in increasing id order after `previousKey`.
int32_t ParseKeyRecord(Reader& reader, const SecretArray<32>& wrapKey, uint32_t domainId, uint32_t previousKey,
                       MasterKey& key)
{
    uint64_t created = 0;
    uint64_t expires = 0;
    uint8_t state = 0;
    uint8_t nonce[GCM_NONCE_SIZE];
    uint8_t wrapped[MASTER_KEY_SIZE];
    uint8_t tag[GCM_TAG_SIZE];
    if (!reader.GetBigEndian(key.id) || !reader.GetBigEndian(created) || !reader.GetBigEndian(expires) ||
        !reader.Get(&state, 1) || !reader.Get(nonce, sizeof(nonce)) || !reader.Get(wrapped, sizeof(wrapped)) ||
        !reader.Get(tag, sizeof(tag))) {
        return VE_ERR_STORE_DAMAGED;
    }
    if (key.id <= previousKey ||
        (state != static_cast<uint8_t>(KeyState::ACTIVE) && state != static_cast<uint8_t>(KeyState::RETIRED))) {
        return VE_ERR_STORE_DAMAGED;
    }
    key.created = static_cast<int64_t>(created);
    key.expires = static_cast<int64_t>(expires);
    key.state = static_cast<KeyState>(state);
    return UnwrapMasterKey(wrapKey, domainId, nonce, wrapped, tag, key);
}

// The `keyCount` key records of one domain; exactly one must be active.
int32_t ParseDomainKeys(Reader& reader, const SecretArray<32>& wrapKey, uint32_t domainId, uint32_t keyCount,
                        Domain& domain)
{
    domain.keys.resize(keyCount);
    uint32_t activeCount = 0;
    uint32_t previousKey = 0;
    for (MasterKey& key : domain.keys) {
        const int32_t rc = ParseKeyRecord(reader, wrapKey, domainId, previousKey, key);
        if (rc != VE_OK) {
            return rc;
        }
        previousKey = key.id;
        activeCount += key.state == KeyState::ACTIVE ? 1 : 0;
    }
    return activeCount == 1 ? VE_OK : VE_ERR_STORE_DAMAGED;
}

}  // namespace

const MasterKey* Domain::Active() const
{
    for (const MasterKey& key : keys) {
        if (key.state == KeyState::ACTIVE) {
            return &key;
        }
    }
    return nullptr;
}

const MasterKey* Domain::Find(uint32_t keyId) const
{
    for (const MasterKey& key : keys) {
        if (key.id == keyId) {
            return &key;
        }
    }
    return nullptr;
}

std::size_t StoreContent::KeyCount() const
{
    std::size_t count = 0;
    for (const auto& entry : domains) {
        count += entry.second.keys.size();
    }
    return count;
}

int32_t DeriveDataKeys(uint32_t domainId, MasterKey& key)
{
    // info = label | algorithm id | domain id | key id: each data key belongs
    // to exactly one algorithm, domain and master key.
    uint8_t info[sizeof(DATA_INFO) - 1 + 1 + 4 + 4];
    std::memcpy(info, DATA_INFO, sizeof(DATA_INFO) - 1);
    uint8_t* tail = info + sizeof(DATA_INFO) - 1;
    StoreBigEndian<uint32_t>(tail + 1, domainId);
    StoreBigEndian<uint32_t>(tail + 5, key.id);
    tail[0] = VE_ALG_AES128_GCM;
    int32_t rc = DeriveKey(key.key.Data(), key.key.Size(), info, sizeof(info), key.dataKey128.Data(),
                           key.dataKey128.Size());
    if (rc != VE_OK) {
        return rc;
    }
    tail[0] = VE_ALG_AES256_GCM;
    return DeriveKey(key.key.Data(), key.key.Size(), info, sizeof(info), key.dataKey256.Data(),
                     key.dataKey256.Size());
}

int32_t SerializeStore(const StoreContent& content, SecureBytes& image)
{
    SecretArray<32> wrapKey;
    SecretArray<32> macKey;
    int32_t rc = DeriveStoreKeys(content.root, wrapKey, macKey);
    if (rc != VE_OK) {
        return rc;
    }
    image.clear();
    image.reserve(HEADER_SIZE + content.domains.size() * 8 + content.KeyCount() * KEY_RECORD_SIZE + HMAC_SIZE);
    PutBytes(image, MAGIC, sizeof(MAGIC));
    PutBigEndian<uint16_t>(image, STORE_FORMAT_VERSION);
    PutBigEndian<uint16_t>(image, 0);
    PutBigEndian<uint64_t>(image, content.generation);
    PutBigEndian<uint32_t>(image, content.rootVersion);
    PutBytes(image, content.root.Data(), content.root.Size());
    PutBigEndian<uint32_t>(image, static_cast<uint32_t>(content.domains.size()));
    for (const auto& entry : content.domains) {
        PutBigEndian<uint32_t>(image, entry.first);
        PutBigEndian<uint32_t>(image, static_cast<uint32_t>(entry.second.keys.size()));
        for (const MasterKey& key : entry.second.keys) {
            rc = PutKeyRecord(image, wrapKey, entry.first, key);
            if (rc != VE_OK) {
                return rc;
            }
        }
    }
    uint8_t mac[HMAC_SIZE];
    rc = ComputeHmac(macKey.Data(), macKey.Size(), image.data(), image.size(), mac);
    if (rc != VE_OK) {
        return rc;
    }
    PutBytes(image, mac, sizeof(mac));
    return VE_OK;
}

int32_t ParseStore(const uint8_t* image, std::size_t length, StoreContent& content)
{
    if (image == nullptr || length < HEADER_SIZE + HMAC_SIZE || length > MAX_STORE_IMAGE_SIZE ||
        std::memcmp(image, MAGIC, sizeof(MAGIC)) != 0) {
        return VE_ERR_STORE_DAMAGED;
    }
    SecretArray<32> wrapKey;
    int32_t rc = CheckImageMac(image, length, wrapKey);
    if (rc != VE_OK) {
        return rc;
    }
    Reader reader(image, length - HMAC_SIZE);
    StoreContent parsed;
    uint32_t domainCount = 0;
    if (!ParseHeader(reader, parsed, domainCount)) {
        return VE_ERR_STORE_DAMAGED;
    }
    bool firstDomain = true;
    uint32_t previousDomain = 0;
    for (uint32_t d = 0; d < domainCount; ++d) {
        uint32_t domainId = 0;
        uint32_t keyCount = 0;
        if (!reader.GetBigEndian(domainId) || !reader.GetBigEndian(keyCount) || keyCount == 0 ||
            keyCount > VE_MAX_MK_PER_DOMAIN || (!firstDomain && domainId <= previousDomain)) {
            return VE_ERR_STORE_DAMAGED;
        }
        firstDomain = false;
        previousDomain = domainId;
        rc = ParseDomainKeys(reader, wrapKey, domainId, keyCount, parsed.domains[domainId]);
        if (rc != VE_OK) {
            return rc;
        }
    }
    if (!reader.AtEnd()) {
        return VE_ERR_STORE_DAMAGED;
    }
    content = std::move(parsed);
    return VE_OK;
}

}  // namespace VardoKms
