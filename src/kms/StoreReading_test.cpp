// Reading stores without unwrapping their keys: keys of an earlier engine
// in the earlier format, a MAC that fails, a wrap rewritten under a
// recomputed MAC, stores larger than the report's read buffer, and stores
// made by their first change.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include <ctime>
#include <string>
#include <vector>

#include "KeyStores.h"
#include "VardoKms/KeyStoreReport.h"

namespace {

using namespace VardoTest;

// A store written by the engine before keys were unwrapped on first use
// (domain 0: one key; domain 7: three keys, root key updated once), and
// texts made under each of its keys then.
const char GOLDEN_STORE[] =
    "564152444f4b5300000300000000000000000006000000026de84be0dd80aad948a88efa87b52e95f0c76e9f6db06e65550dc800"
    "6475897b00000002000000000000000100000001000000006b02bd43000000006bf00b4301ceedd935798f03fbbec1ab3096c2eb"
    "4bbd21400c5d539608114ef84c465a6f5a1c7bfe9019d6fd4d78f0dac64187cd1aa941884f4c0ea0ed4a79f91500000007000000"
    "0300000001000000006b02bd43000000006bf00b4302143486b66bf61611bc24388f1b53bbe2dfd408bc32d3103d6594eab940e9"
    "4e70034f20319531e3256dc82aefa07749c64aeea86005ee71fce1f0cf4200000002000000006b02bd43000000006bf00b4302b7"
    "870e47782ab8f4c591179e9674797146fa72ff5c5ed854386c7649fcd096479c8afd20e0f7f24703aca2fd0dea08941ed6cfcd35"
    "37b41290ca6be400000003000000006b02bd43000000006bf00b4301b03570fe1e40c3ae305be6b83e19d54bd371e2b2843bcbe7"
    "3754a8490e41a81382d8e5d00c493eeed140592ba249aeb464f0de4b783a3fc70d759da36b3fab9632d9784c5a85976c741bb961"
    "53aea92e20af022a50c743fd2a30caa1";
const struct { uint32_t domain; const char* plain; const char* cipher; } GOLDEN_TEXTS[] = {
    {0, "pass phrase of domain 0",
     "564501090000000000000001f08fb0f140d42cd06383b2fe2897c70e042b97a"
     "d879e1cbe84963db1b90457aa177956eef61984c97fe6e00325e1fbacba05f6"},
    {7, "first key, AES-128",
     "56450108000000070000000101ddbaa7ba7ff08b29751ca9a22dbecbf2"
     "81e7875bdbac524ee6236647d06747d45b669b49e03735ce321b88f60c"},
    {7, "first key, AES-256",
     "5645010900000007000000011ce28ce831cc4fa7b93e56b5bb16811c26"
     "00a4ef33c6e68b84fface53cc4447b208c3897e0b1a50f36874a234720"},
    {7, "second key",
     "564501090000000700000002dc9528aaa97d3d9f43d094c2cf"
     "aed68bbaaefd1f8e8a0cf9c1db2aa6e481676accd3ab945b6d"},
    {7, "third key",
     "564501080000000700000003ac8707545a8f75d47ee78cbfb"
     "7cf0c300d93651c27aa01b5e6a94a3afcdd0018b07c293118"},
};
constexpr size_t KEY_7_2 = 238;  // offset of domain 7's second (retired) key record in GOLDEN_STORE
constexpr size_t NONCE = 56;     // the MAC nonce of a format 4 image (12 bytes)

std::string Unhex(const std::string& hex)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

// HKDF-SHA256 of the image's root material with `label` (the format's own derivation, done here apart).
std::string FromRoot(const std::string& image, const char* label)
{
    EVP_KDF* hkdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
    EVP_KDF_CTX* ctx = EVP_KDF_CTX_new(hkdf);
    std::string root = image.substr(24, 32), info = label, out(32, '\0');
    char digest[] = "SHA256";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
                           OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, &root[0], root.size()),
                           OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, &info[0], info.size()),
                           OSSL_PARAM_construct_end()};
    EXPECT_EQ(1, EVP_KDF_derive(ctx, reinterpret_cast<unsigned char*>(&out[0]), out.size(), params));
    EVP_KDF_CTX_free(ctx);
    EVP_KDF_free(hkdf);
    return out;
}

// The image with its MAC made anew: what someone who can read the store could write.
std::string WithNewMac(std::string image)
{
    const std::string key = FromRoot(image, "vardo-kms v3 store mac");
    unsigned int length = 32;
    HMAC(EVP_sha256(), key.data(), 32, reinterpret_cast<const unsigned char*>(image.data()), image.size() - 32,
         reinterpret_cast<unsigned char*>(&image[image.size() - 32]), &length);
    return image;
}

std::string BigEndian(uint64_t value, int bytes)
{
    std::string out;
    for (int i = bytes - 1; i >= 0; --i) {
        out += static_cast<char>(value >> (8 * i));
    }
    return out;
}

// A store of `domains` domains (ids 1, 2, ...) with `keys` keys each, the last active, written apart from the engine.
std::string MadeStore(uint32_t domains, uint32_t keys)
{
    std::string image = std::string("VARDOKS\0", 8) + BigEndian(3, 2) + BigEndian(0, 2) + BigEndian(1, 8) +
                        BigEndian(1, 4) + std::string(32, '\0') + BigEndian(domains, 4);
    RAND_bytes(reinterpret_cast<unsigned char*>(&image[24]), 32);
    const std::string wrapKey = FromRoot(image, "vardo-kms v3 master key wrap");
    const int64_t now = std::time(nullptr);
    for (uint32_t domain = 1; domain <= domains; ++domain) {
        image += BigEndian(domain, 4) + BigEndian(keys, 4);
        for (uint32_t id = 1; id <= keys; ++id) {
            const std::string life = BigEndian(now, 8) + BigEndian(now + 180 * 86400, 8);
            const std::string aad = "VKMK" + BigEndian(domain, 4) + BigEndian(id, 4) + life;
            unsigned char nonce[12], key[32], wrapped[32], tag[16];
            int length = 0;
            RAND_bytes(nonce, 12);
            RAND_bytes(key, 32);
            EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
            EVP_EncryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr, reinterpret_cast<const unsigned char*>(wrapKey.data()),
                               nonce);
            EVP_EncryptUpdate(ctx, nullptr, &length, reinterpret_cast<const unsigned char*>(aad.data()), aad.size());
            EVP_EncryptUpdate(ctx, wrapped, &length, key, 32);
            EVP_EncryptFinal_ex(ctx, wrapped + length, &length);
            EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, tag);
            EVP_CIPHER_CTX_free(ctx);
            const auto bytes = [](const unsigned char* p, size_t n) { return std::string(p, p + n); };
            image += BigEndian(id, 4) + life + static_cast<char>(id == keys ? 1 : 2) + bytes(nonce, 12) +
                     bytes(wrapped, 32) + bytes(tag, 16);
        }
    }
    return WithNewMac(image + std::string(32, '\0'));
}

void WriteStores(const StoreDir& dir, const std::string& primary, const std::string& standby)
{
    WriteWholeFile(dir.Primary(), primary);
    WriteWholeFile(dir.Standby(), standby);
}

// `image` after one change by the engine (a first key in domain 9): format 4.
std::string ChangedOnce(const std::string& image)
{
    StoreDir dir;
    WriteStores(dir, image, image);
    Session session(dir);
    EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(9, VE_MK_LIFETIME_DAYS));
    return ReadWholeFile(dir.Primary());
}

std::pair<VardoKms::CopyReport, VardoKms::CopyReport> Report(const StoreDir& dir, VardoKms::ReportDetail detail)
{
    std::pair<VardoKms::CopyReport, VardoKms::CopyReport> reports;
    EXPECT_EQ(VE_OK, VardoKms::InspectKeyStores(dir.Primary(), dir.Standby(), detail, reports.first, reports.second));
    return reports;
}

// Keys are unwrapped and their data keys derived when first used: the texts
// made when the engine derived every key at start still open, from the store
// in format 3 as that engine wrote it and after one change wrote format 4.
TEST(StoreReading, TextsOfAnEarlierEngineStillOpen)
{
    StoreDir dir;
    WriteStores(dir, Unhex(GOLDEN_STORE), Unhex(GOLDEN_STORE));
    std::string nonce;
    for (int start = 0; start < 3; ++start) {
        SCOPED_TRACE(start);
        Session session(dir);
        ASSERT_EQ(VE_OK, session.Result());
        std::string plain;
        for (const auto& text : GOLDEN_TEXTS) {
            ASSERT_EQ(VE_OK, Decrypt(text.domain, Unhex(text.cipher), plain)) << text.plain;
            EXPECT_EQ(text.plain, plain);
        }
        EXPECT_EQ(3, KeyIdOf(Encrypt(7, 9, "new"))) << "the active key is the third";
        const std::string primary = ReadWholeFile(dir.Primary());
        EXPECT_EQ(start == 0 ? Unhex(GOLDEN_STORE) : primary, primary) << "reading writes nothing";
        EXPECT_EQ(primary, ReadWholeFile(dir.Standby()));
        EXPECT_EQ(BigEndian(start == 0 ? 3 : 4, 2), primary.substr(8, 2));
        EXPECT_TRUE(start < 2 || nonce != primary.substr(NONCE, 12)) << "a fresh MAC nonce for every image";
        nonce = primary.substr(NONCE, 12);
        ASSERT_EQ(VE_OK, VeCheckAndUpdateMk(9 + start, VE_MK_LIFETIME_DAYS));
    }
}

// Any changed byte fails the MAC, in either format: the start is refused
// before a key is used and both copies stay as they were. A wrapped key
// changed under a recomputed MAC shows only when that key is used, or by verify.
TEST(StoreReading, ChangedBytes)
{
    const std::string golden = Unhex(GOLDEN_STORE), four = ChangedOnce(golden);
    // Format 3, then 4 (its records 12 bytes further): header, root, domain count, records, MAC; nonce and tag.
    const struct { const std::string& image; size_t at; } changes[] = {
        {golden, 12}, {golden, 20}, {golden, 30}, {golden, 60}, {golden, KEY_7_2 + 4}, {golden, KEY_7_2 + 40},
        {golden, golden.size() - 1}, {four, 9}, {four, 30}, {four, NONCE}, {four, NONCE + 11}, {four, 71},
        {four, KEY_7_2 + 12 + 40}, {four, four.size() - 16}, {four, four.size() - 1},
    };
    for (const auto& change : changes) {
        SCOPED_TRACE(testing::Message() << "format " << int(change.image[9]) << ", byte " << change.at);
        StoreDir dir;
        std::string damaged = change.image;
        damaged[change.at] ^= 0x04;
        WriteStores(dir, damaged, damaged);
        EXPECT_EQ(VE_ERR_STORE_DAMAGED, Session(dir).Result());
        EXPECT_EQ(damaged, ReadWholeFile(dir.Primary()));
        EXPECT_EQ(VardoKms::CopyHealth::DAMAGED, Report(dir, VardoKms::ReportDetail::KEY_LIST).second.health);
    }
    StoreDir dir;
    std::string rewrapped = golden;
    rewrapped[KEY_7_2 + 40] ^= 0x04;
    rewrapped = WithNewMac(rewrapped);
    WriteStores(dir, rewrapped, rewrapped);
    EXPECT_EQ(VardoKms::CopyHealth::HEALTHY, Report(dir, VardoKms::ReportDetail::KEY_LIST).first.health);
    EXPECT_EQ(VardoKms::CopyHealth::DAMAGED, Report(dir, VardoKms::ReportDetail::WRAPPED_KEYS).first.health);
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    std::string plain;
    for (const auto& text : GOLDEN_TEXTS) {
        const bool second = std::string(text.plain) == "second key";
        EXPECT_EQ(second ? VE_ERR_STORE_DAMAGED : VE_OK, Decrypt(text.domain, Unhex(text.cipher), plain)) << text.plain;
    }
    EXPECT_EQ(VE_ERR_STORE_DAMAGED, VeUpdateRootKey()) << "no store is re-wrapped around a key that does not unwrap";
    EXPECT_EQ(rewrapped, ReadWholeFile(dir.Primary()));
}

// Stores larger than the report's read buffer: every key counted and listed
// from the copy that counts; a byte changed near the end is found in either copy.
TEST(StoreReading, LargeStores)
{
    StoreDir dir;
    const std::string image = MadeStore(3, 700);
    std::string damaged = image;
    damaged[image.size() - 100] ^= 0x01;
    WriteStores(dir, image, damaged);
    auto reports = Report(dir, VardoKms::ReportDetail::KEY_LIST);
    EXPECT_EQ(VardoKms::CopyHealth::HEALTHY, reports.first.health);
    EXPECT_EQ(VardoKms::CopyHealth::DAMAGED, reports.second.health);
    ASSERT_EQ(2100u, reports.first.keys.size());
    EXPECT_EQ(2100u, reports.first.keyCount);
    EXPECT_TRUE(reports.first.keys.back().active && reports.first.keys.back().domainId == 3 &&
                reports.first.keys.back().keyId == 700);
    WriteStores(dir, damaged, image);
    reports = Report(dir, VardoKms::ReportDetail::KEY_LIST);
    EXPECT_TRUE(reports.first.keys.empty() && reports.second.keys.size() == 2100) << "the standby's keys count";
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    EXPECT_EQ(image, ReadWholeFile(dir.Primary())) << "the primary rebuilt from the standby";
    EXPECT_EQ(700, VardoGetMkCountByDomain(2));
    std::string plain;
    EXPECT_EQ(VE_OK, Decrypt(2, Encrypt(2, 8, "x"), plain));
    ASSERT_EQ(VE_OK, VeCheckAndUpdateMk(4, VE_MK_LIFETIME_DAYS));  // written in format 4
    const std::string four = ReadWholeFile(dir.Primary());
    damaged = four;
    damaged[four.size() - 100] ^= 0x01;
    WriteStores(dir, four, damaged);
    reports = Report(dir, VardoKms::ReportDetail::KEY_LIST);
    EXPECT_TRUE(reports.first.health == VardoKms::CopyHealth::HEALTHY && reports.first.keys.size() == 2101);
    EXPECT_EQ(VardoKms::CopyHealth::DAMAGED, reports.second.health);
}

// Neither store exists: the engine starts without writing; reading finds no
// key and makes no store; the first key writes both copies once (generation 1).
TEST(StoreCreation, FirstChangeWritesBothCopiesOnce)
{
    StoreDir dir;
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    std::string plain;
    EXPECT_EQ(VE_ERR_UNKNOWN_KEY, Decrypt(0, Unhex(GOLDEN_TEXTS[0].cipher), plain));
    EXPECT_EQ(0, VardoGetMkCountByDomain(0));
    EXPECT_FALSE(FileMode(dir.Primary()) != -1 || FileMode(dir.Standby()) != -1);
    const std::string cipher = Encrypt(0, 9, "first");
    EXPECT_EQ(VE_OK, Decrypt(0, cipher, plain));
    const std::string primary = ReadWholeFile(dir.Primary());
    EXPECT_EQ(primary, ReadWholeFile(dir.Standby()));
    EXPECT_EQ(BigEndian(1, 8), primary.substr(12, 8)) << "one write";
    EXPECT_EQ(0600, FileMode(dir.Standby()));
}

}  // namespace
