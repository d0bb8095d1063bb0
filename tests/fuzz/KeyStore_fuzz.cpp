// The key store parser over any image, as read from disk (the MAC stops
// nearly everything) and with the MAC recomputed over the bytes (the HMAC of
// format 3 or the GMAC of format 4, as the image's version says), so that the
// parser behind it meets the fuzzed header, domains and key records. Every
// image is refused or parses into a content that keeps the store's rules and
// survives writing (in format 4) and reading again. First byte: which of the
// two.
#include <cstring>
#include <memory>

#include "Crypto.h"
#include "FuzzSupport.h"
#include "StoreContent.h"
#include "VardoKms/VardoKms.h"

namespace {

using VardoKms::StoreContent;

constexpr std::size_t VERSION_OFFSET = 8;
constexpr std::size_t ROOT_OFFSET = 24;
constexpr std::size_t NONCE_OFFSET = 56;  // format 4

// Per format: its version, header (magic .. domain count), trailer and MAC key label.
const struct { uint16_t version; std::size_t header, mac; const char* label; } FORMATS[] = {
    {3, 60, VardoKms::HMAC_SIZE, "vardo-kms v3 store mac"},
    {4, 72, VardoKms::GCM_TAG_SIZE, "vardo-kms v4 store mac"},
};

int VersionOf(const VardoKms::SecureBytes& image) { return image[VERSION_OFFSET] << 8 | image[VERSION_OFFSET + 1]; }

// Replaces the image's trailer by the MAC of the rest under the key that its
// own root material gives, in the format its version names (when long enough).
void RecomputeMac(VardoKms::SecureBytes& image)
{
    for (const auto& format : FORMATS) {
        if (image.size() < format.header + format.mac || VersionOf(image) != format.version) {
            continue;
        }
        uint8_t macKey[32];
        const std::size_t body = image.size() - format.mac;
        FUZZ_CHECK(VardoKms::DeriveKey(image.data() + ROOT_OFFSET, VardoKms::ROOT_KEY_SIZE,
                                       reinterpret_cast<const uint8_t*>(format.label), std::strlen(format.label),
                                       macKey, sizeof(macKey)) == VE_OK);
        if (format.version == 3) {
            FUZZ_CHECK(VardoKms::ComputeHmac(macKey, sizeof(macKey), image.data(), body, image.data() + body) == VE_OK);
            continue;
        }
        VardoKms::GmacStream gmac;
        FUZZ_CHECK(gmac.Init(macKey, sizeof(macKey), image.data() + NONCE_OFFSET) == VE_OK &&
                   gmac.Update(image.data(), body) == VE_OK && gmac.Final(image.data() + body) == VE_OK);
    }
}

void CheckRules(const StoreContent& content)
{
    for (const auto& [domainId, domain] : content.domains) {
        FUZZ_CHECK(domain.Count() > 0 && domain.ActiveIndex() < domain.Count());
        uint32_t previous = 0;
        int active = 0;
        for (std::size_t index = 0; index < domain.Count(); ++index) {
            const VardoKms::KeyInfo key = domain.Info(index);
            FUZZ_CHECK(key.id > previous);
            previous = key.id;
            active += key.state == VardoKms::KeyState::ACTIVE;
        }
        FUZZ_CHECK(active == 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    VardoFuzz::QuietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    auto image = std::make_shared<VardoKms::SecureBytes>(data + 1, data + size);
    if (data[0] % 2 == 1) {
        RecomputeMac(*image);
    }
    StoreContent content;
    const int32_t result = VardoKms::ParseStore(image, content);
    FUZZ_CHECK(result == VE_OK || result == VE_ERR_STORE_DAMAGED);
    if (result != VE_OK) {
        return 0;
    }
    CheckRules(content);
    auto again = std::make_shared<VardoKms::SecureBytes>();
    StoreContent reread;
    FUZZ_CHECK(VardoKms::SerializeStore(content, *again) == VE_OK && VersionOf(*again) == 4 &&
               VardoKms::ParseStore(again, reread) == VE_OK);
    FUZZ_CHECK(reread.generation == content.generation && reread.rootVersion == content.rootVersion &&
               reread.KeyCount() == content.KeyCount() && reread.domains.size() == content.domains.size());
    // Written again, the same content differs only in its fresh MAC nonce and so its tag.
    VardoKms::SecureBytes twice;
    const std::size_t afterNonce = NONCE_OFFSET + VardoKms::GCM_NONCE_SIZE;
    FUZZ_CHECK(VardoKms::SerializeStore(content, twice) == VE_OK && twice.size() == again->size());
    FUZZ_CHECK(std::memcmp(twice.data(), again->data(), NONCE_OFFSET) == 0 &&
               std::memcmp(twice.data() + NONCE_OFFSET, again->data() + NONCE_OFFSET, VardoKms::GCM_NONCE_SIZE) != 0 &&
               std::memcmp(twice.data() + afterNonce, again->data() + afterNonce,
                           twice.size() - afterNonce - VardoKms::GCM_TAG_SIZE) == 0);
    return 0;
}
