// Engine behaviour through its C interface: lifecycle, the start record, data
// protection round trips and tampering, master key rotation and root key update.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KmsTestSupport.h"

namespace {

using KmsTest::Decrypt;
using KmsTest::Encrypt;
using KmsTest::ScratchDir;
using KmsTest::Session;

// ---- lifecycle ---------------------------------------------------------------

TEST(EngineLifecycle, EveryCallNeedsARunningEngine)
{
    ScratchDir dir;
    uint8_t buffer[64] = {};
    uint32_t length = sizeof(buffer);
    auto calls = [&]() {
        return std::vector<int32_t>{
            VeFinalize(),
            VeCheckAndUpdateMk(0, 30),
            VeGetCipherDataLen(10, &length),
            VeUpdateRootKey(),
            -VardoGetMkCountByDomain(0),
            PaskGetCipherDataLenEx(10, &length),
            PaskEncryptEx(0, 9, buffer, 4, buffer, &length),
            PaskDecryptEx(0, buffer, 48, buffer, &length),
        };
    };
    for (int32_t rc : calls()) {  // before any start
        EXPECT_EQ(VE_ERR_NOT_INITIALIZED, rc);
    }
    {
        Session session(dir);
        ASSERT_EQ(VE_OK, session.Result());
        EXPECT_EQ(VE_OK, VeFinalize());
        for (int32_t rc : calls()) {  // after the stop
            EXPECT_EQ(VE_ERR_NOT_INITIALIZED, rc);
        }
        Session again(dir);  // a stopped engine starts again on the same stores
        EXPECT_EQ(VE_OK, again.Result());
        Session twice(dir);
        EXPECT_EQ(VE_ERR_ALREADY_INITIALIZED, twice.Result());
        EXPECT_EQ(-1, semget(twice.SemKey(), 1, 0)) << "a refused start must not leave its semaphore set";
        EXPECT_EQ(VE_OK, VeFinalize());
        EXPECT_NE(-1, semget(again.SemKey(), 1, 0)) << "the set stays for the caller to remove";
    }
}

TEST(EngineLifecycle, FirstStartCreatesBothOwnerOnlyStores)
{
    ScratchDir dir;
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    for (const std::string& path : {dir.Primary(), dir.Standby(), dir.Primary() + ".lock"}) {
        struct stat st {};
        ASSERT_EQ(0, lstat(path.c_str(), &st)) << path;
        EXPECT_TRUE(S_ISREG(st.st_mode)) << path;
        EXPECT_EQ(0600u, st.st_mode & 07777) << path;
    }
    EXPECT_EQ(KmsTest::ReadFile(dir.Primary()), KmsTest::ReadFile(dir.Standby()));
    EXPECT_FALSE(KmsTest::Exists(dir.Primary() + ".tmp"));
    EXPECT_EQ(0, VardoGetMkCountByDomain(0));
}

TEST(EngineLifecycle, StartInAMissingDirectoryFailsAndLeavesNothing)
{
    ScratchDir dir;
    Session session(dir.Path() + "/none/vardo.ks", dir.Path() + "/none/StandbyKsf.ks");
    EXPECT_EQ(VE_ERR_STORE_IO, session.Result());
    EXPECT_EQ(-1, semget(session.SemKey(), 1, 0));
    EXPECT_FALSE(KmsTest::Exists(dir.Path() + "/none"));
    // The standby's directory missing: the primary made a moment ago is taken back.
    Session half(dir.Primary(), dir.Path() + "/none/StandbyKsf.ks");
    EXPECT_EQ(VE_ERR_STORE_IO, half.Result());
    EXPECT_EQ(-1, semget(half.SemKey(), 1, 0));
    EXPECT_FALSE(KmsTest::Exists(dir.Primary()));
    EXPECT_FALSE(KmsTest::Exists(dir.Primary() + ".tmp"));
}

// ---- the start record ----------------------------------------------------------

struct RecordCase {
    const char* name;
    void (*spoil)(TagVardoConfig&);
    int32_t expected;
};

const RecordCase kRecordCases[] = {
    {"as the key tool fills it", [](TagVardoConfig&) {}, VE_OK},
    {"AES-128 default", [](TagVardoConfig& c) { c.paskAlgorithmId = 8; }, VE_OK},
    {"no auto-create", [](TagVardoConfig& c) { c.optionWord1 = 0; }, VE_OK},
    {"owner-only semaphore", [](TagVardoConfig& c) { c.semPermission = 0600; }, VE_OK},
    {"empty primary", [](TagVardoConfig& c) { c.primaryKsfPath[0] = '\0'; }, VE_ERR_INVALID_CONFIG},
    {"empty standby", [](TagVardoConfig& c) { c.standbyKsfPath[0] = '\0'; }, VE_ERR_INVALID_CONFIG},
    {"unterminated primary", [](TagVardoConfig& c) { std::memset(c.primaryKsfPath, 'a', 4096); },
     VE_ERR_INVALID_CONFIG},
    {"unterminated standby", [](TagVardoConfig& c) { std::memset(c.standbyKsfPath, 'a', 4096); },
     VE_ERR_INVALID_CONFIG},
    {"same path twice", [](TagVardoConfig& c) { std::memcpy(c.standbyKsfPath, c.primaryKsfPath, 4096); },
     VE_ERR_INVALID_CONFIG},
    {"algorithm 7", [](TagVardoConfig& c) { c.paskAlgorithmId = 7; }, VE_ERR_INVALID_CONFIG},
    {"algorithm 10", [](TagVardoConfig& c) { c.paskAlgorithmId = 10; }, VE_ERR_INVALID_CONFIG},
    {"semKey 0", [](TagVardoConfig& c) { c.semKey = 0; }, VE_ERR_INVALID_CONFIG},
    {"optionWord0 2", [](TagVardoConfig& c) { c.optionWord0 = 2; }, VE_ERR_INVALID_CONFIG},
    {"optionWord1 2", [](TagVardoConfig& c) { c.optionWord1 = 2; }, VE_ERR_INVALID_CONFIG},
    {"optionWord2 without repair", [](TagVardoConfig& c) { c.optionWord2 = 0x802; }, VE_ERR_INVALID_CONFIG},
    {"optionWord2 extra bit", [](TagVardoConfig& c) { c.optionWord2 = 0x807; }, VE_ERR_INVALID_CONFIG},
    {"semaphore not owner-writable", [](TagVardoConfig& c) { c.semPermission = 0440; }, VE_ERR_INVALID_CONFIG},
    {"semaphore mode beyond 0777", [](TagVardoConfig& c) { c.semPermission = 01660; }, VE_ERR_INVALID_CONFIG},
    {"zeroBlock", [](TagVardoConfig& c) { c.zeroBlock[15] = 1; }, VE_ERR_INVALID_CONFIG},
    {"zeroWord0", [](TagVardoConfig& c) { c.zeroWord0 = 1; }, VE_ERR_INVALID_CONFIG},
    {"zeroWord1", [](TagVardoConfig& c) { c.zeroWord1 = -1; }, VE_ERR_INVALID_CONFIG},
    {"zeroHalf", [](TagVardoConfig& c) { c.zeroHalf = 1; }, VE_ERR_INVALID_CONFIG},
};

TEST(EngineRecord, ValidationTable)
{
    for (const RecordCase& testCase : kRecordCases) {
        SCOPED_TRACE(testCase.name);
        ScratchDir dir;
        KmsTest::SemaphoreKeys keys;
        TagVardoConfig config = KmsTest::MakeConfig(dir.Primary(), dir.Standby(), keys.Take());
        testCase.spoil(config);
        const int32_t rc = VeInitialize(&config);
        EXPECT_EQ(testCase.expected, rc);
        if (rc == VE_OK) {
            EXPECT_EQ(VE_OK, VeFinalize());
        } else {
            // A refused record leaves nothing: no set, no store. (Key 0 is
            // IPC_PRIVATE: looking it up would make a set.)
            if (config.semKey != 0) {
                EXPECT_EQ(-1, semget(config.semKey, 1, 0));
            }
            EXPECT_FALSE(KmsTest::Exists(dir.Primary()));
            EXPECT_FALSE(KmsTest::Exists(dir.Standby()));
        }
    }
    EXPECT_EQ(VE_ERR_INVALID_PARAM, VeInitialize(nullptr));
}

TEST(EngineRecord, TakenSemaphoreKeyIsRefusedAndLeftAlone)
{
    ScratchDir dir;
    KmsTest::SemaphoreKeys keys;
    const int32_t key = keys.Take();
    const int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(id, 0);
    TagVardoConfig config = KmsTest::MakeConfig(dir.Primary(), dir.Standby(), key);
    EXPECT_EQ(VE_ERR_LOCK, VeInitialize(&config));
    EXPECT_EQ(id, semget(key, 1, 0)) << "someone else's set must survive";
    EXPECT_FALSE(KmsTest::Exists(dir.Primary()));
}

// ---- data protection -------------------------------------------------------------

TEST(EngineData, RoundTripBothAlgorithmsManyLengths)
{
    ScratchDir dir;
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    for (uint32_t algorithm : {8u, 9u}) {
        for (size_t length : {0, 1, 15, 16, 17, 100, 511, 512, 513, 4096, 70000}) {
            SCOPED_TRACE(testing::Message() << "algorithm " << algorithm << ", length " << length);
            std::string plain(length, '\0');
            for (size_t i = 0; i < length; ++i) {
                plain[i] = static_cast<char>(i * 31 + 7);
            }
            uint32_t expectedLength = 0;
            ASSERT_EQ(VE_OK, VeGetCipherDataLen(static_cast<uint32_t>(length), &expectedLength));
            int32_t rc = -1;
            const std::string cipher = Encrypt(3, algorithm, plain, &rc);
            ASSERT_EQ(VE_OK, rc);
            EXPECT_EQ(expectedLength, cipher.size());
            EXPECT_EQ(length + VE_CIPHER_OVERHEAD, cipher.size());
            EXPECT_EQ(static_cast<char>(algorithm), cipher[3]);
            std::string back;
            ASSERT_EQ(VE_OK, Decrypt(3, cipher, back));
            EXPECT_EQ(plain, back);
            EXPECT_NE(cipher, Encrypt(3, algorithm, plain)) << "every call takes a fresh nonce";
        }
    }
}

TEST(EngineData, LengthsAndCapacities)
{
    ScratchDir dir;
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    uint32_t length = 0;
    EXPECT_EQ(VE_ERR_INVALID_PARAM, VeGetCipherDataLen(10, nullptr));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskGetCipherDataLenEx(0xFFFFFFFFu, &length));
    EXPECT_EQ(VE_OK, PaskGetCipherDataLenEx(VE_MAX_PLAIN_LENGTH, &length));
    EXPECT_EQ(0x7FFFFFFFu, length);

    const std::string plain = "pass phrase";
    std::vector<uint8_t> cipher(plain.size() + VE_CIPHER_OVERHEAD);
    const auto* in = reinterpret_cast<const uint8_t*>(plain.data());
    uint32_t capacity = static_cast<uint32_t>(cipher.size() - 1);
    EXPECT_EQ(VE_ERR_BUFFER_TOO_SMALL, PaskEncryptEx(0, 9, in, 11, cipher.data(), &capacity));
    EXPECT_EQ(cipher.size() - 1, capacity) << "the length is left alone on failure";
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskEncryptEx(0, 7, in, 11, cipher.data(), &capacity));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskEncryptEx(0, 9, nullptr, 11, cipher.data(), &capacity));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskEncryptEx(0, 9, in, 11, nullptr, &capacity));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskEncryptEx(0, 9, in, 11, cipher.data(), nullptr));
    capacity = static_cast<uint32_t>(cipher.size());
    ASSERT_EQ(VE_OK, PaskEncryptEx(0, 9, in, 11, cipher.data(), &capacity));

    std::vector<uint8_t> out(plain.size(), 0xAA);
    uint32_t outLength = static_cast<uint32_t>(out.size() - 1);
    EXPECT_EQ(VE_ERR_BUFFER_TOO_SMALL, PaskDecryptEx(0, cipher.data(), capacity, out.data(), &outLength));
    EXPECT_EQ(std::vector<uint8_t>(plain.size(), 0xAA), out);
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskDecryptEx(0, nullptr, capacity, out.data(), &outLength));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskDecryptEx(0, cipher.data(), capacity, out.data(), nullptr));
    outLength = static_cast<uint32_t>(out.size());
    ASSERT_EQ(VE_OK, PaskDecryptEx(0, cipher.data(), capacity, out.data(), &outLength));
    EXPECT_EQ(plain, std::string(out.begin(), out.end()));
}

// Every single-byte change and every truncation of a cipher text fails with a
// code and leaves the caller's plain buffer untouched.
TEST(EngineData, TamperSweepNeverYieldsPlainBytes)
{
    ScratchDir dir;
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    for (uint32_t algorithm : {8u, 9u}) {
        const std::string cipher = Encrypt(1, algorithm, "the server key's pass phrase");
        ASSERT_FALSE(cipher.empty());
        for (size_t position = 0; position < cipher.size(); ++position) {
            for (uint8_t flip : {0x01, 0x80, 0xFF}) {
                std::string changed = cipher;
                changed[position] = static_cast<char>(changed[position] ^ flip);
                std::string plain(cipher.size(), '#');
                uint32_t length = static_cast<uint32_t>(plain.size());
                const int32_t rc = PaskDecryptEx(1, reinterpret_cast<const uint8_t*>(changed.data()),
                                                 static_cast<uint32_t>(changed.size()),
                                                 reinterpret_cast<uint8_t*>(&plain[0]), &length);
                ASSERT_NE(VE_OK, rc) << "byte " << position << " ^ " << int(flip);
                ASSERT_EQ(std::string(cipher.size(), '#'), plain) << "byte " << position;
            }
        }
        for (size_t cut = 0; cut < cipher.size(); ++cut) {
            std::string plain;
            ASSERT_NE(VE_OK, Decrypt(1, cipher.substr(0, cut), plain)) << "cut at " << cut;
        }
        std::string plain;
        EXPECT_EQ(VE_ERR_AUTH, Decrypt(2, cipher, plain)) << "wrong domain";
        EXPECT_EQ(VE_ERR_FORMAT, Decrypt(1, cipher.substr(0, VE_CIPHER_OVERHEAD - 1), plain));
    }
}

TEST(EngineData, NoAutoCreateMeansNoKeyUntilRotation)
{
    ScratchDir dir;
    KmsTest::SemaphoreKeys keys;
    TagVardoConfig config = KmsTest::MakeConfig(dir.Primary(), dir.Standby(), keys.Take());
    config.optionWord1 = 0;
    ASSERT_EQ(VE_OK, VeInitialize(&config));
    int32_t rc = VE_OK;
    Encrypt(4, 9, "x", &rc);
    EXPECT_EQ(VE_ERR_UNKNOWN_KEY, rc);
    EXPECT_EQ(0, VardoGetMkCountByDomain(4));
    EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(4, 0));
    EXPECT_EQ(1, VardoGetMkCountByDomain(4));
    Encrypt(4, 9, "x", &rc);
    EXPECT_EQ(VE_OK, rc);
    EXPECT_EQ(VE_OK, VeFinalize());
}

// ---- master keys and root key ----------------------------------------------------

TEST(EngineKeys, RotationKeepsOldCipherTextsReadable)
{
    ScratchDir dir;
    std::vector<std::pair<std::string, std::string>> texts;  // plain, cipher
    {
        Session session(dir);
        ASSERT_EQ(VE_OK, session.Result());
        EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(0, 30));
        EXPECT_EQ(1, VardoGetMkCountByDomain(0));
        EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(0, 30)) << "a fresh key is not renewed 30 days ahead";
        EXPECT_EQ(1, VardoGetMkCountByDomain(0));
        for (int round = 0; round < 4; ++round) {
            const std::string plain = "secret " + std::to_string(round);
            texts.emplace_back(plain, Encrypt(0, round % 2 ? 8 : 9, plain));
            EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(0, VE_MK_LIFETIME_DAYS)) << "expires within its lifetime";
        }
        EXPECT_EQ(5, VardoGetMkCountByDomain(0));
        EXPECT_EQ(0, VardoGetMkCountByDomain(77));
        const std::string latest = Encrypt(0, 9, "latest");
        EXPECT_EQ(5u, static_cast<uint8_t>(latest[11])) << "new texts use the newest key";
        for (const auto& text : texts) {
            std::string back;
            ASSERT_EQ(VE_OK, Decrypt(0, text.second, back));
            EXPECT_EQ(text.first, back);
        }
    }
    Session restarted(dir);  // the keys were stored, not just kept in memory
    ASSERT_EQ(VE_OK, restarted.Result());
    EXPECT_EQ(5, VardoGetMkCountByDomain(0));
    for (const auto& text : texts) {
        std::string back;
        ASSERT_EQ(VE_OK, Decrypt(0, text.second, back));
        EXPECT_EQ(text.first, back);
    }
}

TEST(EngineKeys, RootKeyUpdateKeepsEverythingReadable)
{
    ScratchDir dir;
    std::vector<std::pair<uint32_t, std::string>> ciphers;
    std::string imageBefore;
    {
        Session session(dir);
        ASSERT_EQ(VE_OK, session.Result());
        for (uint32_t domain : {0u, 1u, 9u}) {
            ciphers.emplace_back(domain, Encrypt(domain, 8, "text in " + std::to_string(domain)));
            ASSERT_EQ(VE_OK, VeCheckAndUpdateMk(domain, 1000));
            ciphers.emplace_back(domain, Encrypt(domain, 9, "text in " + std::to_string(domain)));
        }
        imageBefore = KmsTest::ReadFile(dir.Primary());
        ASSERT_EQ(VE_OK, VeUpdateRootKey());
        ASSERT_EQ(VE_OK, VeUpdateRootKey());
        EXPECT_NE(imageBefore.substr(24, 32), KmsTest::ReadFile(dir.Primary()).substr(24, 32))
            << "root material replaced";
        for (const auto& entry : ciphers) {
            std::string back;
            ASSERT_EQ(VE_OK, Decrypt(entry.first, entry.second, back));
            EXPECT_EQ("text in " + std::to_string(entry.first), back);
        }
    }
    Session restarted(dir);
    ASSERT_EQ(VE_OK, restarted.Result());
    EXPECT_EQ(KmsTest::ReadFile(dir.Primary()), KmsTest::ReadFile(dir.Standby()));
    for (const auto& entry : ciphers) {
        std::string back;
        ASSERT_EQ(VE_OK, Decrypt(entry.first, entry.second, back));
    }
    EXPECT_EQ(2, VardoGetMkCountByDomain(9));
}

}  // namespace
