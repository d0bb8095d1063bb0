// Key engine helpers for tests: scratch key stores, semaphore keys that are
// always removed again, an engine per scope, and stores holding known texts.
#ifndef VARDO_TEST_SUPPORT_KEY_STORES_H
#define VARDO_TEST_SUPPORT_KEY_STORES_H

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Scratch.h"
#include "VardoKms/VardoKms.h"

namespace VardoTest {

// Hands out keys no semaphore set uses yet and removes their sets at scope
// end, also after a failed assertion.
class SemaphoreKeys {
public:
    SemaphoreKeys() = default;
    ~SemaphoreKeys()
    {
        for (int32_t key : keys_) {
            semctl(semget(key, 1, 0), 0, IPC_RMID);
        }
    }
    SemaphoreKeys(const SemaphoreKeys&) = delete;
    SemaphoreKeys& operator=(const SemaphoreKeys&) = delete;
    int32_t Take()
    {
        static int32_t next = 0x5E000000 + static_cast<int32_t>((getpid() & 0x3FFF) << 8);
        while (semget(next, 1, 0) >= 0 || errno != ENOENT) {
            ++next;
        }
        keys_.push_back(next);
        return next++;
    }

private:
    std::vector<int32_t> keys_;
};

// A scratch directory for the two key store copies.
struct StoreDir : ScratchDir {
    std::string Primary() const { return *this / "vardo.ks"; }
    std::string Standby() const { return *this / "StandbyKsf.ks"; }
};

// The record the key tool fills, for these stores and semaphore key.
inline TagVardoConfig MakeConfig(const std::string& primary, const std::string& standby, int32_t semKey)
{
    TagVardoConfig config;
    std::memset(&config, 0, sizeof(config));
    std::strncpy(config.primaryKsfPath, primary.c_str(), sizeof(config.primaryKsfPath) - 1);
    std::strncpy(config.standbyKsfPath, standby.c_str(), sizeof(config.standbyKsfPath) - 1);
    config.optionWord0 = 3;
    config.optionWord1 = 1;
    config.semPermission = 0660;
    config.paskAlgorithmId = VE_ALG_AES256_GCM;
    config.optionWord2 = 2054;
    config.semKey = semKey;
    return config;
}

// Starts the engine with a fresh semaphore key (the record changed by
// `tweak`); stops it and removes the set at scope end.
class Session {
public:
    using Tweak = std::function<void(TagVardoConfig&)>;
    Session(const std::string& primary, const std::string& standby, const Tweak& tweak = {})
    {
        TagVardoConfig config = MakeConfig(primary, standby, key_ = keys_.Take());
        if (tweak) {
            tweak(config);
        }
        result_ = VeInitialize(&config);
    }
    explicit Session(const StoreDir& dir, const Tweak& tweak = {}) : Session(dir.Primary(), dir.Standby(), tweak) {}
    ~Session() { if (result_ == VE_OK) { VeFinalize(); } }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    int32_t Result() const { return result_; }
    int32_t SemKey() const { return key_; }

private:
    SemaphoreKeys keys_;
    int32_t key_ = 0;
    int32_t result_ = -1;
};

// Encrypts `plain` in `domain`; empty on failure (with `rc` set).
inline std::string Encrypt(uint32_t domain, uint32_t algorithm, const std::string& plain, int32_t* rc = nullptr)
{
    std::string cipher(plain.size() + VE_CIPHER_OVERHEAD, '\0');
    uint32_t length = static_cast<uint32_t>(cipher.size());
    const int32_t result = PaskEncryptEx(domain, algorithm, reinterpret_cast<const uint8_t*>(plain.data()),
                                         static_cast<uint32_t>(plain.size()), reinterpret_cast<uint8_t*>(&cipher[0]),
                                         &length);
    if (rc != nullptr) {
        *rc = result;
    }
    return result == VE_OK ? cipher.substr(0, length) : std::string();
}

// Decrypts into `plain`. A failure that touched the caller's buffer or length
// comes back as -1, so every refused text also proves them untouched.
inline int32_t Decrypt(uint32_t domain, const std::string& cipher, std::string& plain)
{
    const std::string untouched(cipher.size() + 1, '#');
    std::string buffer = untouched;
    uint32_t length = static_cast<uint32_t>(buffer.size());
    const int32_t rc = PaskDecryptEx(domain, reinterpret_cast<const uint8_t*>(cipher.data()),
                                     static_cast<uint32_t>(cipher.size()), reinterpret_cast<uint8_t*>(&buffer[0]),
                                     &length);
    if (rc != VE_OK) {
        return buffer == untouched && length == untouched.size() ? rc : -1;
    }
    plain = buffer.substr(0, length);
    return rc;
}

// Master key id (low byte) a cipher text names, or -1.
inline int KeyIdOf(const std::string& cipher) { return cipher.size() > 11 ? static_cast<uint8_t>(cipher[11]) : -1; }

// Texts in a store: domain and cipher text of PlainFor(domain, index).
using Texts = std::vector<std::pair<uint32_t, std::string>>;
inline std::string PlainFor(uint32_t domain, size_t index)
{
    return "text " + std::to_string(index) + " of domain " + std::to_string(domain);
}

// Keys in domains 0, 1, 2 (domain 1 rotated twice), texts under every key.
inline Texts Populate(const StoreDir& dir)
{
    Texts texts;
    Session session(dir);
    EXPECT_EQ(VE_OK, session.Result());
    for (uint32_t domain : {0u, 1u, 2u, 1u, 1u}) {
        if (texts.size() >= 3) {
            EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(1, VE_MK_LIFETIME_DAYS));
        }
        texts.emplace_back(domain, Encrypt(domain, 8 + texts.size() % 2, PlainFor(domain, texts.size())));
    }
    return texts;
}

// In a running engine: domain 1 has 3 keys and every text decrypts.
inline void ExpectAllReadable(const Texts& texts)
{
    EXPECT_EQ(3, VardoGetMkCountByDomain(1));
    for (size_t i = 0; i < texts.size(); ++i) {
        std::string plain;
        ASSERT_EQ(VE_OK, Decrypt(texts[i].first, texts[i].second, plain)) << "text " << i;
        EXPECT_EQ(PlainFor(texts[i].first, i), plain);
    }
}

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_KEY_STORES_H
