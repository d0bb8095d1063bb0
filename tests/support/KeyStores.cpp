#include "KeyStores.h"

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace VardoTest {

SemaphoreKeys::~SemaphoreKeys()
{
    for (int32_t key : keys_) {
        semctl(semget(key, 1, 0), 0, IPC_RMID);
    }
}

int32_t SemaphoreKeys::Take()
{
    static int32_t next = 0x5E000000 + static_cast<int32_t>((getpid() & 0x3FFF) << 8);
    while (semget(next, 1, 0) >= 0 || errno != ENOENT) {
        ++next;
    }
    keys_.push_back(next);
    return next++;
}

TagVardoConfig MakeConfig(const std::string& primary, const std::string& standby, int32_t semKey)
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

Session::Session(const std::string& primary, const std::string& standby, const Tweak& tweak)
{
    TagVardoConfig config = MakeConfig(primary, standby, key_ = keys_.Take());
    if (tweak) {
        tweak(config);
    }
    result_ = VeInitialize(&config);
}

Session::~Session()
{
    if (result_ == VE_OK) {
        VeFinalize();
    }
}

std::string Encrypt(uint32_t domain, uint32_t algorithm, const std::string& plain, int32_t* rc)
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

int32_t Decrypt(uint32_t domain, const std::string& cipher, std::string& plain)
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

Texts Populate(const StoreDir& dir)
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

void ExpectAllReadable(const Texts& texts)
{
    EXPECT_EQ(3, VardoGetMkCountByDomain(1));
    for (size_t i = 0; i < texts.size(); ++i) {
        std::string plain;
        ASSERT_EQ(VE_OK, Decrypt(texts[i].first, texts[i].second, plain)) << "text " << i;
        EXPECT_EQ(PlainFor(texts[i].first, i), plain);
    }
}

}  // namespace VardoTest
