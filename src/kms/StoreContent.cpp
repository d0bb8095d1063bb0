// Encoding and checking of key store images (layout in StoreContent.h).
#include "StoreContent.h"

#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Crypto.h"
#include "VardoKms/VardoKms.h"
#include "basic/BigEndian.h"
#include "basic/Io.h"

namespace VardoKms {
namespace {

constexpr uint8_t MAGIC[8] = {'V', 'A', 'R', 'D', 'O', 'K', 'S', 0};
constexpr std::size_t VERSION_OFFSET = 8;
constexpr std::size_t ROOT_OFFSET = 24;
constexpr std::size_t MAC_NONCE_OFFSET = ROOT_OFFSET + ROOT_KEY_SIZE;  // format 4 only
constexpr std::size_t DOMAIN_HEADER_SIZE = 4 + 4;
constexpr std::size_t WRAP_AAD_SIZE = 4 + 4 + 4 + 8 + 8;
// The wrap and data key labels say "v3": they are older than format 4 and
// stay, since every wrapped key and cipher text depends on them.
constexpr char WRAP_INFO[] = "vardo-kms v3 master key wrap";
constexpr char DATA_INFO[] = "vardo-kms v3 data key";
constexpr char MAC_INFO[] = "vardo-kms v4 store mac";
constexpr char MAC_INFO_V3[] = "vardo-kms v3 store mac";

// What the image formats this engine reads differ in.
struct ImageFormat {
    uint16_t version;
    std::size_t headerSize;  // magic .. domain count, the count being its last 4 bytes
    std::size_t macSize;     // the trailer
};
constexpr ImageFormat FORMAT_V3 = {3, 8 + 2 + 2 + 8 + 4 + ROOT_KEY_SIZE + 4, HMAC_SIZE};
constexpr ImageFormat FORMAT_V4 = {STORE_FORMAT_VERSION, MAC_NONCE_OFFSET + GCM_NONCE_SIZE + 4, GCM_TAG_SIZE};
static_assert(FORMAT_V3.headerSize == 60 && FORMAT_V4.headerSize == 72, "header layouts");
// A file walk's buffer holds at least a header and a trailer of either format.
constexpr std::size_t WALK_BUFFER_MINIMUM = FORMAT_V3.headerSize + FORMAT_V3.macSize;
static_assert(WALK_BUFFER_MINIMUM >= FORMAT_V4.headerSize + FORMAT_V4.macSize, "walk buffer");

// Fields of a key record.
constexpr std::size_t RECORD_ID = 0;
constexpr std::size_t RECORD_CREATED = 4;
constexpr std::size_t RECORD_EXPIRES = 12;
constexpr std::size_t RECORD_STATE = 20;
constexpr std::size_t RECORD_NONCE = 21;
constexpr std::size_t RECORD_WRAPPED = RECORD_NONCE + GCM_NONCE_SIZE;
constexpr std::size_t RECORD_TAG = RECORD_WRAPPED + MASTER_KEY_SIZE;
static_assert(RECORD_TAG + GCM_TAG_SIZE == KEY_RECORD_SIZE, "key record layout");

using OvraBase::Basic::LoadBigEndian;
using OvraBase::Basic::StoreBigEndian;

}  // namespace

KeyInfo RecordInfo(const uint8_t* record)
{
    KeyInfo info;
    info.id = LoadBigEndian<uint32_t>(record + RECORD_ID);
    info.created = static_cast<int64_t>(LoadBigEndian<uint64_t>(record + RECORD_CREATED));
    info.expires = static_cast<int64_t>(LoadBigEndian<uint64_t>(record + RECORD_EXPIRES));
    info.state = static_cast<KeyState>(record[RECORD_STATE]);
    return info;
}

namespace {

void WrapAad(uint32_t domainId, const KeyInfo& info, uint8_t* aad)
{
    std::memcpy(aad, "VKMK", 4);
    StoreBigEndian<uint32_t>(aad + 4, domainId);
    StoreBigEndian<uint32_t>(aad + 8, info.id);
    StoreBigEndian<uint64_t>(aad + 12, static_cast<uint64_t>(info.created));
    StoreBigEndian<uint64_t>(aad + 20, static_cast<uint64_t>(info.expires));
}

int32_t DeriveFromRoot(const SecretArray<ROOT_KEY_SIZE>& root, const char* label, std::size_t labelLength,
                       SecretArray<32>& out)
{
    return DeriveKey(root.Data(), root.Size(), reinterpret_cast<const uint8_t*>(label), labelLength, out.Data(),
                     out.Size());
}

int32_t DeriveWrapKey(const SecretArray<ROOT_KEY_SIZE>& root, SecretArray<32>& wrapKey)
{
    return DeriveFromRoot(root, WRAP_INFO, sizeof(WRAP_INFO) - 1, wrapKey);
}

// The format of an image of `size` bytes from its first `available` bytes:
// null when it is no store image, of a version this engine does not read, or
// of a size no image of its format has.
const ImageFormat* FormatOf(const uint8_t* start, std::size_t available, std::size_t size)
{
    if (available < VERSION_OFFSET + 2 || std::memcmp(start, MAGIC, sizeof(MAGIC)) != 0) {
        return nullptr;
    }
    const uint16_t version = LoadBigEndian<uint16_t>(start + VERSION_OFFSET);
    const ImageFormat* format = version == FORMAT_V4.version ? &FORMAT_V4
                                : version == FORMAT_V3.version ? &FORMAT_V3
                                                               : nullptr;
    if (format == nullptr || size < format->headerSize + format->macSize || size > MAX_STORE_IMAGE_SIZE) {
        return nullptr;
    }
    return format;
}

// The MAC of an image, fed in pieces: HMAC-SHA256 for format 3, GMAC under
// a fresh nonce from the header for format 4. Both keys come from the root
// material inside the image itself: the MAC catches damage and partial
// writes, not a writer who can read the file (that one is kept out by the
// owner-only mode).
class ImageMac {
public:
    // Keys the MAC from `header` (format.headerSize bytes).
    int32_t Init(const ImageFormat& format, const uint8_t* header)
    {
        const bool v3 = format.version == FORMAT_V3.version;
        SecretArray<ROOT_KEY_SIZE> root;
        std::memcpy(root.Data(), header + ROOT_OFFSET, root.Size());
        SecretArray<32> key;
        const int32_t rc = v3 ? DeriveFromRoot(root, MAC_INFO_V3, sizeof(MAC_INFO_V3) - 1, key)
                              : DeriveFromRoot(root, MAC_INFO, sizeof(MAC_INFO) - 1, key);
        if (rc != VE_OK) {
            return rc;
        }
        format_ = &format;
        return v3 ? hmac_.Init(key.Data(), key.Size()) : gmac_.Init(key.Data(), key.Size(), header + MAC_NONCE_OFFSET);
    }

    bool Ready() const { return hmac_.Ready() || gmac_.Ready(); }

    int32_t Update(const uint8_t* data, std::size_t length)
    {
        return hmac_.Ready() ? hmac_.Update(data, length) : gmac_.Update(data, length);
    }

    // Writes the MAC of what was fed (the format's macSize bytes).
    int32_t Final(uint8_t* mac) { return hmac_.Ready() ? hmac_.Final(mac) : gmac_.Final(mac); }

    // VE_OK when `trailer` is the MAC of what was fed, else VE_ERR_STORE_DAMAGED.
    int32_t Check(const uint8_t* trailer)
    {
        uint8_t mac[HMAC_SIZE];
        static_assert(sizeof(mac) >= GCM_TAG_SIZE, "room for either MAC");
        const int32_t rc = Final(mac);  // fails unless Init succeeded, so format_ is set below
        if (rc != VE_OK) {
            return rc;
        }
        return CRYPTO_memcmp(mac, trailer, format_->macSize) == 0 ? VE_OK : VE_ERR_STORE_DAMAGED;
    }

private:
    const ImageFormat* format_ = nullptr;
    HmacStream hmac_;
    GmacStream gmac_;
};

// Writes the record of `info` with `key` wrapped under `wrapKey` (fresh nonce).
int32_t WriteRecord(const SecretArray<32>& wrapKey, uint32_t domainId, const KeyInfo& info,
                    const SecretArray<MASTER_KEY_SIZE>& key, uint8_t* record)
{
    StoreBigEndian<uint32_t>(record + RECORD_ID, info.id);
    StoreBigEndian<uint64_t>(record + RECORD_CREATED, static_cast<uint64_t>(info.created));
    StoreBigEndian<uint64_t>(record + RECORD_EXPIRES, static_cast<uint64_t>(info.expires));
    record[RECORD_STATE] = static_cast<uint8_t>(info.state);
    uint8_t aad[WRAP_AAD_SIZE];
    WrapAad(domainId, info, aad);
    const int32_t rc = RandomBytes(record + RECORD_NONCE, GCM_NONCE_SIZE);
    if (rc != VE_OK) {
        return rc;
    }
    return GcmSeal(wrapKey.Data(), wrapKey.Size(), record + RECORD_NONCE, aad, sizeof(aad), key.Data(), key.Size(),
                   record + RECORD_WRAPPED, record + RECORD_TAG);
}

int32_t OpenRecord(const SecretArray<32>& wrapKey, uint32_t domainId, const uint8_t* record,
                   SecretArray<MASTER_KEY_SIZE>& key)
{
    uint8_t aad[WRAP_AAD_SIZE];
    WrapAad(domainId, RecordInfo(record), aad);
    const int32_t rc = GcmOpen(wrapKey.Data(), wrapKey.Size(), record + RECORD_NONCE, aad, sizeof(aad),
                               record + RECORD_WRAPPED, MASTER_KEY_SIZE, record + RECORD_TAG, key.Data());
    return rc == VE_ERR_AUTH ? VE_ERR_STORE_DAMAGED : rc;
}

// ---- the walk over an image ------------------------------------------------

// Image bytes held in memory; the body is everything before the MAC.
class MemorySource {
public:
    MemorySource(const uint8_t* body, std::size_t length) : body_(body), length_(length) {}
    const uint8_t* Take(std::size_t n)
    {
        if (n > length_ - offset_) {
            return nullptr;
        }
        const uint8_t* at = body_ + offset_;
        offset_ += n;
        return at;
    }
    bool AtEnd() const { return offset_ == length_; }

private:
    const uint8_t* body_;
    std::size_t length_;
    std::size_t offset_ = 0;
};

// Image bytes read from a descriptor through a buffer, MAC'ed as they
// arrive. Open reads the first block, whose header tells the format and
// keys the MAC; Finish checks the MAC and that the file ends where fstat
// said it would.
class FileSource {
public:
    FileSource(int fd, std::size_t size, SecureBytes& buffer, MirrorFile* mirror)
        : fd_(fd), size_(size), buffer_(buffer), mirror_(mirror)
    {
    }

    int32_t Open()
    {
        int32_t rc = Fill(VERSION_OFFSET + 2);
        if (rc != VE_OK) {
            return rc;
        }
        format_ = FormatOf(buffer_.data(), end_, size_);
        if (format_ == nullptr) {
            return VE_ERR_STORE_DAMAGED;
        }
        bodyLength_ = size_ - format_->macSize;
        rc = Fill(format_->headerSize);
        if (rc == VE_OK) {
            rc = mac_.Init(*format_, buffer_.data());
        }
        // The block read so far starts the file.
        return rc == VE_OK ? mac_.Update(buffer_.data(), std::min(end_, bodyLength_)) : rc;
    }

    // The image's format, once Open succeeded.
    const ImageFormat& Format() const { return *format_; }

    const uint8_t* Take(std::size_t n)
    {
        if (n > bodyLength_ - taken_) {
            return nullptr;
        }
        const int32_t rc = Fill(n);
        if (rc != VE_OK) {
            failure_ = rc;
            return nullptr;
        }
        const uint8_t* at = buffer_.data() + begin_;
        begin_ += n;
        taken_ += n;
        return at;
    }

    bool AtEnd() const { return taken_ == bodyLength_; }

    // Why a Take came back empty when reading failed (the walk sees only
    // that the image ended early).
    int32_t Failure() const { return failure_; }

    int32_t Finish()
    {
        const int32_t rc = Fill(format_->macSize);
        if (rc != VE_OK) {
            return rc;
        }
        uint8_t extra = 0;
        ssize_t n;
        do {
            n = read(fd_, &extra, 1);
        } while (n < 0 && errno == EINTR);
        if (n != 0 || end_ - begin_ != format_->macSize) {
            return n < 0 ? VE_ERR_STORE_IO : VE_ERR_STORE_DAMAGED;  // longer than fstat said
        }
        if (mirror_ != nullptr && mirror_->same) {
            std::size_t more = 0;
            mirror_->same = OvraBase::Basic::ReadFull(mirror_->fd, &extra, 1, more) && more == 0;
        }
        return mac_.Check(buffer_.data() + begin_);
    }

private:
    // At least `n` unread bytes in the buffer: what is left moves to the
    // front and more is read; new bytes of the body go into the MAC once it
    // is keyed (Open MACs the first block itself).
    int32_t Fill(std::size_t n)
    {
        if (end_ - begin_ >= n) {
            return VE_OK;
        }
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        while (end_ < n) {
            const ssize_t got = read(fd_, buffer_.data() + end_, buffer_.size() - end_);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return got == 0 ? VE_ERR_STORE_DAMAGED : VE_ERR_STORE_IO;  // shorter than fstat said
            }
            const std::size_t fresh = static_cast<std::size_t>(got);
            CompareMirror(buffer_.data() + end_, fresh);
            const std::size_t body = read_ < bodyLength_ ? std::min(fresh, bodyLength_ - read_) : 0;
            if (mac_.Ready() && body > 0 && mac_.Update(buffer_.data() + end_, body) != VE_OK) {
                return VE_ERR_CRYPTO;
            }
            read_ += fresh;
            end_ += fresh;
        }
        return VE_OK;
    }

    // The same count of bytes from the mirror, compared; a difference ends
    // the comparison.
    void CompareMirror(const uint8_t* bytes, std::size_t count)
    {
        if (mirror_ == nullptr || !mirror_->same) {
            return;
        }
        std::size_t filled = 0;
        mirror_->same = count <= mirror_->buffer.size() &&
                        OvraBase::Basic::ReadFull(mirror_->fd, mirror_->buffer.data(), count, filled) &&
                        filled == count && std::memcmp(mirror_->buffer.data(), bytes, count) == 0;
    }

    int fd_;
    std::size_t size_;
    std::size_t bodyLength_ = 0;  // known once Open has the format
    const ImageFormat* format_ = nullptr;
    SecureBytes& buffer_;
    MirrorFile* mirror_;
    std::size_t begin_ = 0;  // first unread byte in the buffer
    std::size_t end_ = 0;    // end of the bytes in the buffer
    std::size_t read_ = 0;   // bytes read from the file
    std::size_t taken_ = 0;  // body bytes handed out
    int32_t failure_ = VE_OK;
    ImageMac mac_;
};

// Header, then each domain and its key records, checked for format version,
// counts, strictly increasing domain and key ids, states and one active key
// per domain; then the body must end.
template <typename Source>
int32_t WalkImage(Source& source, const ImageFormat& format, ImageVisitor& visitor)
{
    const uint8_t* header = source.Take(format.headerSize);
    if (header == nullptr || std::memcmp(header, MAGIC, sizeof(MAGIC)) != 0 ||
        LoadBigEndian<uint16_t>(header + VERSION_OFFSET) != format.version ||
        LoadBigEndian<uint16_t>(header + 10) != 0) {
        return VE_ERR_STORE_DAMAGED;
    }
    const uint32_t domainCount = LoadBigEndian<uint32_t>(header + format.headerSize - 4);
    if (domainCount > VE_MAX_DOMAINS) {
        return VE_ERR_STORE_DAMAGED;
    }
    int32_t rc = visitor.Header(LoadBigEndian<uint64_t>(header + 12), LoadBigEndian<uint32_t>(header + 20),
                                header + ROOT_OFFSET);
    uint32_t previousDomain = 0;
    for (uint32_t d = 0; d < domainCount && rc == VE_OK; ++d) {
        const uint8_t* domainHeader = source.Take(DOMAIN_HEADER_SIZE);
        if (domainHeader == nullptr) {
            return VE_ERR_STORE_DAMAGED;
        }
        const uint32_t domainId = LoadBigEndian<uint32_t>(domainHeader);
        const uint32_t keyCount = LoadBigEndian<uint32_t>(domainHeader + 4);
        if (keyCount == 0 || keyCount > VE_MAX_MK_PER_DOMAIN || (d > 0 && domainId <= previousDomain)) {
            return VE_ERR_STORE_DAMAGED;
        }
        previousDomain = domainId;
        rc = visitor.DomainStart(domainId, keyCount);
        uint32_t previousKey = 0;
        uint32_t activeCount = 0;
        for (uint32_t k = 0; k < keyCount && rc == VE_OK; ++k) {
            const uint8_t* record = source.Take(KEY_RECORD_SIZE);
            if (record == nullptr) {
                return VE_ERR_STORE_DAMAGED;
            }
            const uint32_t keyId = LoadBigEndian<uint32_t>(record + RECORD_ID);
            const uint8_t state = record[RECORD_STATE];
            if (keyId <= previousKey ||
                (state != static_cast<uint8_t>(KeyState::ACTIVE) && state != static_cast<uint8_t>(KeyState::RETIRED))) {
                return VE_ERR_STORE_DAMAGED;
            }
            previousKey = keyId;
            activeCount += state == static_cast<uint8_t>(KeyState::ACTIVE) ? 1 : 0;
            rc = visitor.Key(domainId, record);
        }
        if (rc == VE_OK && activeCount != 1) {
            return VE_ERR_STORE_DAMAGED;
        }
    }
    if (rc != VE_OK) {
        return rc;
    }
    return source.AtEnd() ? VE_OK : VE_ERR_STORE_DAMAGED;
}

}  // namespace

// Changes a domain's records: they move into the domain's own block first.
class DomainEditor {
public:
    explicit DomainEditor(Domain& domain) : domain_(domain)
    {
        if (domain_.own_.empty() && domain_.count_ > 0) {
            domain_.own_.assign(domain_.shared_, domain_.shared_ + domain_.count_ * KEY_RECORD_SIZE);
        }
        domain_.shared_ = nullptr;
    }
    uint8_t* Record(std::size_t index) { return domain_.own_.data() + index * KEY_RECORD_SIZE; }
    std::size_t Count() const { return domain_.count_; }

    // Appends `record` as the active key; the previous active key retires.
    void AppendActive(const uint8_t* record)
    {
        if (domain_.count_ > 0) {
            Record(domain_.active_)[RECORD_STATE] = static_cast<uint8_t>(KeyState::RETIRED);
        }
        domain_.own_.insert(domain_.own_.end(), record, record + KEY_RECORD_SIZE);
        domain_.active_ = domain_.count_;
        domain_.count_ += 1;
    }

    // Indexing a domain read from an image: its records start at `first`.
    static void Attach(Domain& domain, const uint8_t* first)
    {
        domain.own_.clear();
        domain.shared_ = first;
        domain.count_ = 0;
        domain.active_ = 0;
    }
    static void Count(Domain& domain, bool active)
    {
        if (active) {
            domain.active_ = domain.count_;
        }
        domain.count_ += 1;
    }

private:
    Domain& domain_;
};

namespace {

// Builds the content's index while ParseStore walks an image in memory.
class IndexBuilder : public ImageVisitor {
public:
    explicit IndexBuilder(StoreContent& content) : content_(content) {}
    int32_t Header(uint64_t generation, uint32_t rootVersion, const uint8_t* root) override
    {
        content_.generation = generation;
        content_.rootVersion = rootVersion;
        std::memcpy(content_.root.Data(), root, content_.root.Size());
        return VE_OK;
    }
    int32_t DomainStart(uint32_t domainId, uint32_t) override
    {
        current_ = &content_.domains.emplace_hint(content_.domains.end(), domainId, Domain())->second;
        first_ = true;
        return VE_OK;
    }
    int32_t Key(uint32_t, const uint8_t* record) override
    {
        if (first_) {
            DomainEditor::Attach(*current_, record);
            first_ = false;
        }
        DomainEditor::Count(*current_, record[RECORD_STATE] == static_cast<uint8_t>(KeyState::ACTIVE));
        return VE_OK;
    }

private:
    StoreContent& content_;
    Domain* current_ = nullptr;
    bool first_ = false;
};

// The MAC of a whole image in memory (`length` bytes of `format`).
int32_t CheckImageMac(const ImageFormat& format, const uint8_t* image, std::size_t length)
{
    const std::size_t bodyLength = length - format.macSize;
    ImageMac mac;
    int32_t rc = mac.Init(format, image);
    if (rc == VE_OK) {
        rc = mac.Update(image, bodyLength);
    }
    return rc == VE_OK ? mac.Check(image + bodyLength) : rc;
}

}  // namespace

KeyInfo Domain::Info(std::size_t index) const { return RecordInfo(Record(index)); }

std::size_t Domain::Find(uint32_t keyId) const
{
    // Ids increase strictly through the records.
    std::size_t low = 0;
    std::size_t high = count_;
    while (low < high) {
        const std::size_t middle = low + (high - low) / 2;
        const uint32_t id = LoadBigEndian<uint32_t>(Record(middle) + RECORD_ID);
        if (id == keyId) {
            return middle;
        }
        if (id < keyId) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return count_;
}

std::size_t StoreContent::KeyCount() const
{
    std::size_t count = 0;
    for (const auto& entry : domains) {
        count += entry.second.Count();
    }
    return count;
}

int32_t NewStoreContent(StoreContent& content)
{
    StoreContent fresh;
    fresh.generation = 0;
    fresh.rootVersion = 1;
    int32_t rc = RandomBytes(fresh.root.Data(), fresh.root.Size());
    if (rc == VE_OK) {
        rc = DeriveWrapKey(fresh.root, fresh.wrapKey);
    }
    if (rc == VE_OK) {
        content = std::move(fresh);
    }
    return rc;
}

int32_t AddKey(StoreContent& content, uint32_t domainId, const KeyInfo& info,
               const SecretArray<MASTER_KEY_SIZE>& key)
{
    uint8_t record[KEY_RECORD_SIZE];
    KeyInfo active = info;
    active.state = KeyState::ACTIVE;
    const int32_t rc = WriteRecord(content.wrapKey, domainId, active, key, record);
    if (rc != VE_OK) {
        return rc;
    }
    DomainEditor(content.domains[domainId]).AppendActive(record);
    return VE_OK;
}

int32_t ReplaceRoot(StoreContent& content)
{
    StoreContent next;
    next.generation = content.generation;
    next.rootVersion = content.rootVersion + 1;
    int32_t rc = RandomBytes(next.root.Data(), next.root.Size());
    if (rc == VE_OK) {
        rc = DeriveWrapKey(next.root, next.wrapKey);
    }
    SecretArray<MASTER_KEY_SIZE> key;
    for (const auto& entry : content.domains) {
        if (rc != VE_OK) {
            break;
        }
        Domain& domain = next.domains.emplace_hint(next.domains.end(), entry.first, entry.second)->second;
        DomainEditor editor(domain);
        for (std::size_t i = 0; i < editor.Count() && rc == VE_OK; ++i) {
            uint8_t* record = editor.Record(i);
            rc = OpenRecord(content.wrapKey, entry.first, record, key);
            if (rc == VE_OK) {
                rc = WriteRecord(next.wrapKey, entry.first, RecordInfo(record), key, record);
            }
        }
    }
    if (rc == VE_OK) {
        content = std::move(next);
    }
    return rc;
}

int32_t UnwrapKey(const StoreContent& content, uint32_t domainId, std::size_t index,
                  SecretArray<MASTER_KEY_SIZE>& key)
{
    const auto found = content.domains.find(domainId);
    if (found == content.domains.end() || index >= found->second.Count()) {
        return VE_ERR_INTERNAL;
    }
    return OpenRecord(content.wrapKey, domainId, found->second.Record(index), key);
}

bool SameWrappedKey(const uint8_t* record, const uint8_t* other)
{
    return std::memcmp(record, other, RECORD_STATE) == 0 &&
           std::memcmp(record + RECORD_NONCE, other + RECORD_NONCE, KEY_RECORD_SIZE - RECORD_NONCE) == 0;
}

int32_t DeriveDataKeys(uint32_t domainId, uint32_t keyId, const SecretArray<MASTER_KEY_SIZE>& key,
                       SecretArray<16>& dataKey128, SecretArray<32>& dataKey256)
{
    // info = label | algorithm id | domain id | key id: each data key belongs
    // to exactly one algorithm, domain and master key.
    uint8_t info[sizeof(DATA_INFO) - 1 + 1 + 4 + 4];
    std::memcpy(info, DATA_INFO, sizeof(DATA_INFO) - 1);
    uint8_t* tail = info + sizeof(DATA_INFO) - 1;
    StoreBigEndian<uint32_t>(tail + 1, domainId);
    StoreBigEndian<uint32_t>(tail + 5, keyId);
    tail[0] = VE_ALG_AES128_GCM;
    int32_t rc = DeriveKey(key.Data(), key.Size(), info, sizeof(info), dataKey128.Data(), dataKey128.Size());
    if (rc != VE_OK) {
        return rc;
    }
    tail[0] = VE_ALG_AES256_GCM;
    return DeriveKey(key.Data(), key.Size(), info, sizeof(info), dataKey256.Data(), dataKey256.Size());
}

int32_t SerializeStore(const StoreContent& content, SecureBytes& image)
{
    const ImageFormat& format = FORMAT_V4;
    std::size_t length = format.headerSize + format.macSize;
    for (const auto& entry : content.domains) {
        length += DOMAIN_HEADER_SIZE + entry.second.Count() * KEY_RECORD_SIZE;
    }
    image.assign(length, 0);
    uint8_t* at = image.data();
    std::memcpy(at, MAGIC, sizeof(MAGIC));
    StoreBigEndian<uint16_t>(at + VERSION_OFFSET, format.version);
    StoreBigEndian<uint16_t>(at + 10, 0);
    StoreBigEndian<uint64_t>(at + 12, content.generation);
    StoreBigEndian<uint32_t>(at + 20, content.rootVersion);
    std::memcpy(at + ROOT_OFFSET, content.root.Data(), content.root.Size());
    // A GMAC nonce must never repeat under one key, and the key lives as long
    // as the root material: every image gets a fresh random one.
    int32_t rc = RandomBytes(at + MAC_NONCE_OFFSET, GCM_NONCE_SIZE);
    if (rc != VE_OK) {
        return rc;
    }
    StoreBigEndian<uint32_t>(at + format.headerSize - 4, static_cast<uint32_t>(content.domains.size()));
    at += format.headerSize;
    for (const auto& entry : content.domains) {
        const Domain& domain = entry.second;
        StoreBigEndian<uint32_t>(at, entry.first);
        StoreBigEndian<uint32_t>(at + 4, static_cast<uint32_t>(domain.Count()));
        at += DOMAIN_HEADER_SIZE;
        if (domain.Count() > 0) {
            std::memcpy(at, domain.Record(0), domain.Count() * KEY_RECORD_SIZE);
            at += domain.Count() * KEY_RECORD_SIZE;
        }
    }
    ImageMac mac;
    rc = mac.Init(format, image.data());
    if (rc == VE_OK) {
        rc = mac.Update(image.data(), length - format.macSize);
    }
    return rc == VE_OK ? mac.Final(at) : rc;
}

int32_t ParseStore(const std::shared_ptr<const SecureBytes>& image, StoreContent& content)
{
    const ImageFormat* format = image != nullptr ? FormatOf(image->data(), image->size(), image->size()) : nullptr;
    if (format == nullptr) {
        return VE_ERR_STORE_DAMAGED;
    }
    int32_t rc = CheckImageMac(*format, image->data(), image->size());
    if (rc != VE_OK) {
        return rc;
    }
    StoreContent parsed;
    IndexBuilder index(parsed);
    MemorySource source(image->data(), image->size() - format->macSize);
    rc = WalkImage(source, *format, index);
    if (rc == VE_OK) {
        rc = DeriveWrapKey(parsed.root, parsed.wrapKey);
    }
    if (rc != VE_OK) {
        return rc;
    }
    parsed.image = image;
    content = std::move(parsed);
    return VE_OK;
}

int32_t CheckWrappedKeys(const StoreContent& content)
{
    SecretArray<MASTER_KEY_SIZE> key;
    for (const auto& entry : content.domains) {
        for (std::size_t i = 0; i < entry.second.Count(); ++i) {
            const int32_t rc = OpenRecord(content.wrapKey, entry.first, entry.second.Record(i), key);
            if (rc != VE_OK) {
                return rc;
            }
        }
    }
    return VE_OK;
}

int32_t WalkImageFile(int fd, std::size_t size, SecureBytes& buffer, ImageVisitor& visitor, MirrorFile* mirror)
{
    if (size > MAX_STORE_IMAGE_SIZE || buffer.size() < WALK_BUFFER_MINIMUM) {
        return VE_ERR_STORE_DAMAGED;
    }
    FileSource source(fd, size, buffer, mirror);
    int32_t rc = source.Open();
    if (rc == VE_OK) {
        rc = WalkImage(source, source.Format(), visitor);
    }
    if (rc != VE_OK) {
        return source.Failure() != VE_OK ? source.Failure() : rc;
    }
    return source.Finish();
}

}  // namespace VardoKms
