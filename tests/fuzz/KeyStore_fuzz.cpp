// The key store parser over any image, as read from disk (the MAC stops
// nearly everything) and with the MAC recomputed over the bytes, so that the
// parser behind it meets the fuzzed header, domains and key records. Every
// image is refused or parses into a content that keeps the store's rules and
// survives writing and reading again. First byte: which of the two.
#include <cstring>
#include <memory>

#include "Crypto.h"
#include "FuzzSupport.h"
#include "StoreContent.h"
#include "VardoKms/VardoKms.h"

namespace {

using VardoKms::StoreContent;

constexpr std::size_t ROOT_OFFSET = 24;
constexpr std::size_t BODY_MINIMUM = 60;  // magic .. domain count
const char MAC_INFO[] = "vardo-kms v3 store mac";

// Replaces the image's last 32 bytes by the HMAC of the rest under the key
// that its own root material gives.
void RecomputeMac(VardoKms::SecureBytes& image)
{
    uint8_t macKey[32];
    const std::size_t body = image.size() - VardoKms::HMAC_SIZE;
    FUZZ_CHECK(VardoKms::DeriveKey(image.data() + ROOT_OFFSET, VardoKms::ROOT_KEY_SIZE,
                                   reinterpret_cast<const uint8_t*>(MAC_INFO), sizeof(MAC_INFO) - 1, macKey,
                                   sizeof(macKey)) == VE_OK);
    FUZZ_CHECK(VardoKms::ComputeHmac(macKey, sizeof(macKey), image.data(), body, image.data() + body) == VE_OK);
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
    if (data[0] % 2 == 1 && image->size() >= BODY_MINIMUM + VardoKms::HMAC_SIZE) {
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
    FUZZ_CHECK(VardoKms::SerializeStore(content, *again) == VE_OK && VardoKms::ParseStore(again, reread) == VE_OK);
    FUZZ_CHECK(reread.generation == content.generation && reread.rootVersion == content.rootVersion &&
               reread.KeyCount() == content.KeyCount() && reread.domains.size() == content.domains.size());
    return 0;
}
