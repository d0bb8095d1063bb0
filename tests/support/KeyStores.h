// Key engine helpers for tests: scratch key stores, semaphore keys that are
// always removed again, an engine per scope, and stores holding known texts.
#ifndef VARDO_TEST_SUPPORT_KEY_STORES_H
#define VARDO_TEST_SUPPORT_KEY_STORES_H

#include <cstdint>
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
    ~SemaphoreKeys();
    SemaphoreKeys(const SemaphoreKeys&) = delete;
    SemaphoreKeys& operator=(const SemaphoreKeys&) = delete;
    int32_t Take();

private:
    std::vector<int32_t> keys_;
};

// A scratch directory for the two key store copies.
struct StoreDir : ScratchDir {
    std::string Primary() const { return *this / "vardo.ks"; }
    std::string Standby() const { return *this / "StandbyKsf.ks"; }
};

// The record the key tool fills, for these stores and semaphore key.
TagVardoConfig MakeConfig(const std::string& primary, const std::string& standby, int32_t semKey);

// Starts the engine with a fresh semaphore key (the record changed by
// `tweak`); stops it and removes the set at scope end.
class Session {
public:
    using Tweak = std::function<void(TagVardoConfig&)>;
    Session(const std::string& primary, const std::string& standby, const Tweak& tweak = {});
    explicit Session(const StoreDir& dir, const Tweak& tweak = {}) : Session(dir.Primary(), dir.Standby(), tweak) {}
    ~Session();
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
std::string Encrypt(uint32_t domain, uint32_t algorithm, const std::string& plain, int32_t* rc = nullptr);
// Decrypts into `plain`. A failure that touched the caller's buffer or length
// comes back as -1, so every refused text also proves them untouched.
int32_t Decrypt(uint32_t domain, const std::string& cipher, std::string& plain);
// Master key id (low byte) a cipher text names, or -1.
inline int KeyIdOf(const std::string& cipher) { return cipher.size() > 11 ? static_cast<uint8_t>(cipher[11]) : -1; }

// Texts in a store: domain and cipher text of PlainFor(domain, index).
using Texts = std::vector<std::pair<uint32_t, std::string>>;
inline std::string PlainFor(uint32_t domain, size_t index)
{
    return "text " + std::to_string(index) + " of domain " + std::to_string(domain);
}
// Keys in domains 0, 1, 2 (domain 1 rotated twice), texts under every key.
Texts Populate(const StoreDir& dir);
// In a running engine: domain 1 has 3 keys and every text decrypts.
void ExpectAllReadable(const Texts& texts);

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_KEY_STORES_H
