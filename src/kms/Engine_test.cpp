// The engine through its C interface: lifecycle, the start record, data
// protection, rotation, root key update.
#include <gtest/gtest.h>
#include <sys/sem.h>

#include <cstring>
#include <numeric>
#include <string>

#include "KeyStores.h"

namespace {

using namespace VardoTest;

TEST(EngineLifecycle, CodesAndWhatStartsLeave)
{
    StoreDir dir;
    uint8_t buffer[64] = {};
    uint32_t length = sizeof(buffer);
    const auto expectNotRunning = [&] {
        for (int32_t rc : {VeFinalize(), VeCheckAndUpdateMk(0, 30), VeGetCipherDataLen(10, &length), VeUpdateRootKey(),
                           -VardoGetMkCountByDomain(0), PaskGetCipherDataLenEx(10, &length),
                           PaskEncryptEx(0, 9, buffer, 4, buffer + 4, &length),
                           PaskDecryptEx(0, buffer, 48, buffer + 48, &length)}) {
            EXPECT_EQ(VE_ERR_NOT_INITIALIZED, rc);
        }
    };
    expectNotRunning();
    Session session(dir);
    EXPECT_EQ(0600, FileMode(dir.Primary() + ".lock"));
    Session twice(dir);
    EXPECT_EQ(VE_ERR_ALREADY_INITIALIZED, twice.Result());
    EXPECT_EQ(-1, semget(twice.SemKey(), 1, 0)) << "a refused start leaves no semaphore set";
    EXPECT_EQ(VE_OK, VeFinalize());
    expectNotRunning();
    EXPECT_NE(-1, semget(session.SemKey(), 1, 0)) << "the set stays for the caller to remove";
    // No directory for the standby: the primary made a moment ago is taken back.
    Session half(dir.Path() + "/new.ks", dir.Path() + "/none/StandbyKsf.ks");
    EXPECT_EQ(VE_ERR_STORE_IO, half.Result());
    EXPECT_EQ(-1, semget(half.SemKey(), 1, 0));
    EXPECT_EQ(-1, FileMode(dir / "new.ks"));
    EXPECT_TRUE(TemporariesOf(dir / "new.ks").empty());
    // A set that exists already is refused and left to its owner.
    SemaphoreKeys keys;
    const int32_t key = keys.Take();
    const int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0600);
    EXPECT_EQ(VE_ERR_LOCK, Session(dir, [key](TagVardoConfig& c) { c.semKey = key; }).Result());
    EXPECT_EQ(id, semget(key, 1, 0));
}

// A refused record leaves no semaphore set; no start makes a store (the first change does).
TEST(EngineRecord, ValidationTable)
{
    const struct { void (*change)(TagVardoConfig&); int32_t expected; } cases[] = {
        {[](TagVardoConfig&) {}, VE_OK},
        {[](TagVardoConfig& c) { c.paskAlgorithmId = 8; c.optionWord1 = 0; c.semPermission = 0600; }, VE_OK},
        {[](TagVardoConfig& c) { std::memset(c.primaryKsfPath, 'a', 4096); }, VE_ERR_INVALID_CONFIG},
        {[](TagVardoConfig& c) { std::memcpy(c.standbyKsfPath, c.primaryKsfPath, 4096); }, VE_ERR_INVALID_CONFIG},
        {[](TagVardoConfig& c) { c.optionWord2 = 0x802; }, VE_ERR_INVALID_CONFIG},
        {[](TagVardoConfig& c) { c.semPermission = 0440; }, VE_ERR_INVALID_CONFIG},
        {[](TagVardoConfig& c) { c.paskAlgorithmId = 7; }, VE_ERR_INVALID_CONFIG},
        {[](TagVardoConfig& c) { c.semKey = 0; }, VE_ERR_INVALID_CONFIG},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testing::Message() << "row " << &testCase - cases);
        StoreDir dir;
        Session session(dir, testCase.change);
        EXPECT_EQ(testCase.expected, session.Result());
        EXPECT_EQ(testCase.expected == VE_OK, semget(session.SemKey(), 1, 0) != -1);
        EXPECT_FALSE(FileMode(dir.Primary()) != -1 || FileMode(dir.Standby()) != -1);
    }
    EXPECT_EQ(VE_ERR_INVALID_PARAM, VeInitialize(nullptr));
}

// Round trips; a changed byte, a truncation, another domain refused (buffer untouched).
TEST(EngineData, RoundTripsAndRefusals)
{
    StoreDir dir;
    Session session(dir);
    std::string plain;
    for (uint32_t algorithm : {8u, 9u}) {
        for (uint32_t length : {0, 1, 16, 17, 513, 70000}) {
            SCOPED_TRACE(testing::Message() << "algorithm " << algorithm << ", length " << length);
            std::string text(length, '\0');
            std::iota(text.begin(), text.end(), '\x07');
            const std::string cipher = Encrypt(3, algorithm, text);
            ASSERT_EQ(length + VE_CIPHER_OVERHEAD, cipher.size());
            EXPECT_EQ(static_cast<char>(algorithm), cipher[3]);
            ASSERT_EQ(VE_OK, Decrypt(3, cipher, plain));
            EXPECT_EQ(text, plain);
            EXPECT_NE(cipher, Encrypt(3, algorithm, text)) << "every call takes a fresh nonce";
        }
        const std::string cipher = Encrypt(1, algorithm, "the server key's pass phrase");
        for (size_t position = 0; position < cipher.size(); ++position) {
            for (uint8_t flip : {0x01, 0x80, 0xFF}) {
                std::string changed = cipher;
                changed[position] = static_cast<char>(changed[position] ^ flip);
                const int32_t rc = Decrypt(1, changed, plain);
                ASSERT_TRUE(rc == VE_ERR_AUTH || rc == VE_ERR_FORMAT || rc == VE_ERR_UNKNOWN_KEY) << position;
            }
        }
        for (size_t cut = 0; cut < cipher.size(); ++cut) {
            ASSERT_EQ(cut < 40 ? VE_ERR_FORMAT : VE_ERR_AUTH, Decrypt(1, cipher.substr(0, cut), plain)) << cut;
        }
        EXPECT_EQ(VE_ERR_AUTH, Decrypt(2, cipher, plain)) << "another domain";
    }
    // Refused arguments leave the caller's lengths and buffer alone.
    const std::string text = Encrypt(0, 9, "pass phrase");
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    uint8_t out[51] = {};
    uint32_t length = 50;
    uint32_t small = 10;
    EXPECT_EQ(VE_ERR_BUFFER_TOO_SMALL, PaskEncryptEx(0, 9, bytes, 11, out, &length));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskEncryptEx(0, 7, bytes, 11, out, &length));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskEncryptEx(0, 9, nullptr, 11, out, &length));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskEncryptEx(0, 9, bytes, 11, nullptr, &length));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskDecryptEx(0, nullptr, 51, out, &small));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskDecryptEx(0, bytes, 51, out, nullptr));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskDecryptEx(0, bytes, 51, nullptr, &length));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, VeGetCipherDataLen(10, nullptr));
    EXPECT_EQ(VE_ERR_INVALID_PARAM, PaskGetCipherDataLenEx(VE_MAX_PLAIN_LENGTH + 1u, &length));
    EXPECT_EQ(VE_ERR_BUFFER_TOO_SMALL, PaskDecryptEx(0, bytes, 51, out, &small));
    EXPECT_EQ(50u, length);
    EXPECT_EQ(10u, small);
    EXPECT_EQ(std::string(51, '\0'), std::string(out, out + 51));
    // An empty text needs no buffer either way.
    uint8_t emptyCipher[VE_CIPHER_OVERHEAD];
    uint32_t emptyLength = sizeof(emptyCipher);
    uint32_t none = 0;
    EXPECT_EQ(VE_OK, PaskEncryptEx(0, 9, nullptr, 0, emptyCipher, &emptyLength));
    EXPECT_EQ(VE_OK, PaskDecryptEx(0, emptyCipher, emptyLength, nullptr, &none));
    EXPECT_EQ(0u, none);
    EXPECT_EQ(VE_OK, VeGetCipherDataLen(VE_MAX_PLAIN_LENGTH, &length));
    EXPECT_EQ(0x7FFFFFFFu, length) << "the longest text's cipher length fits a signed 32-bit value";
}

// No auto-create, renewal only within `advanceDays`; old texts survive rotation and root update.
TEST(EngineKeys, RotationAndRootKeyUpdateKeepOldTextsReadable)
{
    StoreDir dir;
    Texts texts;
    {
        Session session(dir, [](TagVardoConfig& c) { c.optionWord1 = 0; });
        int32_t rc = VE_OK;
        Encrypt(1, 9, "x", &rc);
        EXPECT_EQ(VE_ERR_UNKNOWN_KEY, rc);
        EXPECT_EQ(0, VardoGetMkCountByDomain(1));
        for (uint32_t advance : {30u, 30u, 180u, 180u}) {
            EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(1, advance));
            texts.emplace_back(1, Encrypt(1, 8 + texts.size() % 2, PlainFor(1, texts.size())));
        }
        EXPECT_EQ(3, KeyIdOf(texts.back().second)) << "new texts use the newest key";
        ExpectAllReadable(texts);
        const std::string root = ReadWholeFile(dir.Primary()).substr(24, 32);
        ASSERT_EQ(VE_OK, VeUpdateRootKey());
        EXPECT_NE(root, ReadWholeFile(dir.Primary()).substr(24, 32)) << "root material replaced";
        ExpectAllReadable(texts);
    }
    Session restarted(dir);
    EXPECT_EQ(ReadWholeFile(dir.Primary()), ReadWholeFile(dir.Standby()));
    ExpectAllReadable(texts);
}

}  // namespace
