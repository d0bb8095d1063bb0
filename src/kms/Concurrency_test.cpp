// Several processes on one key store at the same time, each with its own
// semaphore key: encrypting, decrypting, rotating, creating first keys and
// updating the root key must never corrupt the store or lose a master key.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "KmsTestSupport.h"

namespace {

using KmsTest::Decrypt;
using KmsTest::Encrypt;
using KmsTest::ScratchDir;
using KmsTest::Session;

constexpr int kProcesses = 4;
constexpr int kRounds = 12;

std::string Hex(const std::string& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

std::string Unhex(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        out += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    }
    return out;
}

// Work of process `index`: every process encrypts and checks its own texts
// in domains 0 and 1 and asks for the first key of domain 20; process 0
// rotates domain 0 and process 1 domain 1 every round; process 2 updates the
// root key every third round. Texts go to "<dir>/texts-<index>".
int Worker(const ScratchDir& dir, int index, int32_t semKey)
{
    TagVardoConfig config = KmsTest::MakeConfig(dir.Primary(), dir.Standby(), semKey);
    if (VeInitialize(&config) != VE_OK) {
        return 10;
    }
    std::ofstream texts(dir.Path() + "/texts-" + std::to_string(index));
    int32_t rc = VE_OK;
    const std::string first = Encrypt(20, 9, "first key race", &rc);
    if (rc != VE_OK) {
        return 11;
    }
    texts << 20 << ' ' << Hex(first) << '\n';
    for (int round = 0; round < kRounds; ++round) {
        for (uint32_t domain : {0u, 1u}) {
            const std::string plain = "p" + std::to_string(index) + "r" + std::to_string(round);
            const std::string cipher = Encrypt(domain, round % 2 ? 8 : 9, plain, &rc);
            std::string back;
            if (rc != VE_OK || Decrypt(domain, cipher, back) != VE_OK || back != plain) {
                return 12;
            }
            texts << domain << ' ' << Hex(cipher) << '\n';
        }
        if (index < 2 && VeCheckAndUpdateMk(static_cast<uint32_t>(index), VE_MK_LIFETIME_DAYS) != VE_OK) {
            return 13;
        }
        if (index == 2 && round % 3 == 0 && VeUpdateRootKey() != VE_OK) {
            return 14;
        }
    }
    texts.close();
    return VeFinalize() == VE_OK && texts ? 0 : 15;
}

TEST(EngineConcurrency, SeveralProcessesAtOnceLoseNothing)
{
    ScratchDir dir;
    {
        Session session(dir);
        ASSERT_EQ(VE_OK, session.Result());
        ASSERT_EQ(VE_OK, VeCheckAndUpdateMk(0, 0));
        ASSERT_EQ(VE_OK, VeCheckAndUpdateMk(1, 0));
    }
    KmsTest::SemaphoreKeys keys;
    std::vector<pid_t> children;
    for (int index = 0; index < kProcesses; ++index) {
        const int32_t key = keys.Take();
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            _exit(Worker(dir, index, key));
        }
        children.push_back(child);
    }
    for (size_t index = 0; index < children.size(); ++index) {
        int status = 0;
        ASSERT_EQ(children[index], waitpid(children[index], &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "process " << index << " status " << status;
    }
    keys.RemoveAll();

    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    EXPECT_EQ(1 + kRounds, VardoGetMkCountByDomain(0));
    EXPECT_EQ(1 + kRounds, VardoGetMkCountByDomain(1));
    EXPECT_EQ(1, VardoGetMkCountByDomain(20)) << "one first key, however many asked at once";
    EXPECT_EQ(KmsTest::ReadFile(dir.Primary()), KmsTest::ReadFile(dir.Standby()));
    int decrypted = 0;
    for (int index = 0; index < kProcesses; ++index) {
        std::ifstream texts(dir.Path() + "/texts-" + std::to_string(index));
        uint32_t domain = 0;
        std::string hex;
        while (texts >> domain >> hex) {
            std::string plain;
            EXPECT_EQ(VE_OK, Decrypt(domain, Unhex(hex), plain));
            ++decrypted;
        }
    }
    EXPECT_EQ(kProcesses * (1 + 2 * kRounds), decrypted);
}

// A running engine finds a master key that another process made after it
// started. The other process is forked from this one while its engine runs:
// the inherited engine is not the child's, so the child starts its own.
TEST(EngineConcurrency, KeyMadeByAnotherProcessIsFoundAfterStart)
{
    ScratchDir dir;
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    const std::string before = Encrypt(5, 9, "before");
    ASSERT_FALSE(before.empty());
    int channel[2];
    ASSERT_EQ(0, pipe(channel));
    KmsTest::SemaphoreKeys keys;
    const int32_t key = keys.Take();
    const int status = KmsTest::RunInChild([&] {
        close(channel[0]);
        uint32_t length = 0;
        if (VeGetCipherDataLen(1, &length) != VE_ERR_NOT_INITIALIZED) {
            return 20;  // the parent's engine must not serve the child
        }
        TagVardoConfig config = KmsTest::MakeConfig(dir.Primary(), dir.Standby(), key);
        if (VeInitialize(&config) != VE_OK || VeCheckAndUpdateMk(5, VE_MK_LIFETIME_DAYS) != VE_OK) {
            return 21;
        }
        const std::string cipher = Encrypt(5, 8, "made elsewhere");
        const bool sent = write(channel[1], cipher.data(), cipher.size()) == static_cast<ssize_t>(cipher.size());
        return sent && VeFinalize() == VE_OK ? 0 : 22;
    });
    close(channel[1]);
    char buffer[256];
    const ssize_t received = read(channel[0], buffer, sizeof(buffer));
    close(channel[0]);
    ASSERT_EQ(0, status);
    ASSERT_GT(received, 0);
    std::string plain;
    ASSERT_EQ(VE_OK, Decrypt(5, std::string(buffer, static_cast<size_t>(received)), plain));
    EXPECT_EQ("made elsewhere", plain);
    EXPECT_EQ(2, VardoGetMkCountByDomain(5));
    ASSERT_EQ(VE_OK, Decrypt(5, before, plain));
    EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(5, VE_MK_LIFETIME_DAYS)) << "the parent's lock file still works";
    EXPECT_EQ(3, VardoGetMkCountByDomain(5));
}

}  // namespace
