// Key store files under damage and faults: repair of one copy, refusal when
// both are damaged, unsafe files, a full disk half way through a write, a
// failure between the two copies, and writers killed with SIGKILL.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <random>
#include <string>
#include <vector>

#include "KmsTestSupport.h"

namespace {

using KmsTest::Decrypt;
using KmsTest::Encrypt;
using KmsTest::ReadFile;
using KmsTest::RunInChild;
using KmsTest::ScratchDir;
using KmsTest::Session;
using KmsTest::WriteFile;

struct Texts {
    std::vector<std::pair<uint32_t, std::string>> entries;  // domain, cipher text
    static std::string PlainFor(uint32_t domain, size_t index)
    {
        return "text " + std::to_string(index) + " of domain " + std::to_string(domain);
    }
};

// A store with keys in three domains (two rotations in domain 1) and texts
// under every key.
Texts Populate(const ScratchDir& dir)
{
    Texts texts;
    Session session(dir);
    EXPECT_EQ(VE_OK, session.Result());
    for (uint32_t domain : {0u, 1u, 2u}) {
        texts.entries.emplace_back(domain, Encrypt(domain, 9, Texts::PlainFor(domain, texts.entries.size())));
    }
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(1, VE_MK_LIFETIME_DAYS));
        texts.entries.emplace_back(1, Encrypt(1, 8, Texts::PlainFor(1, texts.entries.size())));
    }
    return texts;
}

// Everything encrypted before still decrypts, and domain 1 has its 3 keys.
void ExpectAllReadable(const Texts& texts)
{
    EXPECT_EQ(3, VardoGetMkCountByDomain(1));
    for (size_t i = 0; i < texts.entries.size(); ++i) {
        std::string plain;
        ASSERT_EQ(VE_OK, Decrypt(texts.entries[i].first, texts.entries[i].second, plain)) << "text " << i;
        EXPECT_EQ(Texts::PlainFor(texts.entries[i].first, i), plain);
    }
}

std::string Garbage(size_t length)
{
    std::mt19937 random(42);
    std::string bytes(length, '\0');
    for (char& c : bytes) {
        c = static_cast<char>(random());
    }
    return bytes;
}

// ---- one copy bad: rebuilt from the other -------------------------------------------

struct DamageCase {
    const char* name;
    bool primary;  // which copy is damaged
    void (*damage)(const std::string& path, const std::string& olderImage);
};

const DamageCase kRepairCases[] = {
    {"primary bit flip", true,
     [](const std::string& p, const std::string&) {
         std::string b = ReadFile(p);
         b[b.size() / 2] ^= 0x10;
         WriteFile(p, b);
     }},
    {"standby bit flip in the MAC", false,
     [](const std::string& p, const std::string&) {
         std::string b = ReadFile(p);
         b[b.size() - 1] ^= 0x01;
         WriteFile(p, b);
     }},
    {"primary truncated", true, [](const std::string& p, const std::string&) { WriteFile(p, ReadFile(p).substr(0, 100)); }},
    {"standby zero length", false, [](const std::string& p, const std::string&) { WriteFile(p, ""); }},
    {"primary garbage", true, [](const std::string& p, const std::string&) { WriteFile(p, Garbage(400)); }},
    {"primary missing", true, [](const std::string& p, const std::string&) { unlink(p.c_str()); }},
    {"standby missing", false, [](const std::string& p, const std::string&) { unlink(p.c_str()); }},
    {"standby one generation behind", false,
     [](const std::string& p, const std::string& older) { WriteFile(p, older); }},
    {"primary one generation behind", true,
     [](const std::string& p, const std::string& older) { WriteFile(p, older); }},
};

TEST(KeyStoreRepair, OneDamagedCopyIsRebuiltFromTheHealthyOne)
{
    for (const DamageCase& testCase : kRepairCases) {
        SCOPED_TRACE(testCase.name);
        ScratchDir dir;
        const Texts texts = Populate(dir);
        std::string older;
        {
            // One more change, so that an image one generation behind exists.
            older = ReadFile(dir.Primary());
            Session session(dir);
            ASSERT_EQ(VE_OK, session.Result());
            ASSERT_EQ(VE_OK, VeUpdateRootKey());
        }
        const std::string healthy = ReadFile(testCase.primary ? dir.Standby() : dir.Primary());
        testCase.damage(testCase.primary ? dir.Primary() : dir.Standby(), older);

        Session session(dir);
        ASSERT_EQ(VE_OK, session.Result());
        ExpectAllReadable(texts);
        EXPECT_EQ(healthy, ReadFile(dir.Primary()));
        EXPECT_EQ(healthy, ReadFile(dir.Standby()));
        EXPECT_EQ(0600, KmsTest::FileMode(dir.Primary()));
        EXPECT_EQ(0600, KmsTest::FileMode(dir.Standby()));
    }
}

// ---- no healthy copy: refused, nothing touched -----------------------------------------

struct BothCase {
    const char* name;
    const char* primary;  // "keep", "flip", "cut", "empty", "garbage", "missing"
    const char* standby;
};

const BothCase kBothCases[] = {
    {"both bit flips", "flip", "flip"},   {"both truncated", "cut", "cut"},
    {"both zero length", "empty", "empty"}, {"both garbage", "garbage", "garbage"},
    {"damaged and missing", "flip", "missing"}, {"missing and zero length", "missing", "empty"},
};

void Spoil(const std::string& path, const std::string& how)
{
    std::string bytes = ReadFile(path);
    if (how == "flip") {
        bytes[70] ^= 0x04;
        WriteFile(path, bytes);
    } else if (how == "cut") {
        WriteFile(path, bytes.substr(0, bytes.size() - 1));
    } else if (how == "empty") {
        WriteFile(path, "");
    } else if (how == "garbage") {
        WriteFile(path, Garbage(bytes.size()));
    } else if (how == "missing") {
        unlink(path.c_str());
    }
}

TEST(KeyStoreRepair, BothDamagedIsRefusedAndNeitherFileChanges)
{
    for (const BothCase& testCase : kBothCases) {
        SCOPED_TRACE(testCase.name);
        ScratchDir dir;
        Populate(dir);
        Spoil(dir.Primary(), testCase.primary);
        Spoil(dir.Standby(), testCase.standby);
        const std::string primaryBefore = ReadFile(dir.Primary());
        const std::string standbyBefore = ReadFile(dir.Standby());
        const bool primaryExisted = KmsTest::Exists(dir.Primary());
        const bool standbyExisted = KmsTest::Exists(dir.Standby());

        Session session(dir);
        EXPECT_EQ(VE_ERR_STORE_DAMAGED, session.Result());
        EXPECT_EQ(-1, semget(session.SemKey(), 1, 0)) << "a failed start leaves no semaphore set";
        EXPECT_EQ(primaryExisted, KmsTest::Exists(dir.Primary()));
        EXPECT_EQ(standbyExisted, KmsTest::Exists(dir.Standby()));
        EXPECT_EQ(primaryBefore, ReadFile(dir.Primary()));
        EXPECT_EQ(standbyBefore, ReadFile(dir.Standby()));
        EXPECT_FALSE(KmsTest::Exists(dir.Primary() + ".tmp"));
        EXPECT_FALSE(KmsTest::Exists(dir.Standby() + ".tmp"));
    }
}

// ---- unsafe files ------------------------------------------------------------------------

TEST(KeyStoreSafety, LinkInPlaceOfAStoreIsRefused)
{
    for (bool primary : {true, false}) {
        SCOPED_TRACE(primary ? "primary" : "standby");
        ScratchDir dir;
        Populate(dir);
        const std::string path = primary ? dir.Primary() : dir.Standby();
        const std::string target = dir.Path() + "/elsewhere.ks";
        ASSERT_EQ(0, rename(path.c_str(), target.c_str()));
        ASSERT_EQ(0, symlink(target.c_str(), path.c_str()));
        const std::string other = ReadFile(primary ? dir.Standby() : dir.Primary());

        Session session(dir);
        EXPECT_EQ(VE_ERR_STORE_UNSAFE, session.Result());
        struct stat st {};
        ASSERT_EQ(0, lstat(path.c_str(), &st));
        EXPECT_TRUE(S_ISLNK(st.st_mode)) << "the link is neither followed nor replaced";
        EXPECT_EQ(other, ReadFile(primary ? dir.Standby() : dir.Primary()));
    }
    // A link as the lock file is refused as well.
    ScratchDir dir;
    Populate(dir);
    ASSERT_EQ(0, unlink((dir.Primary() + ".lock").c_str()));
    ASSERT_EQ(0, symlink((dir.Path() + "/target").c_str(), (dir.Primary() + ".lock").c_str()));
    Session session(dir);
    EXPECT_EQ(VE_ERR_STORE_UNSAFE, session.Result());
    EXPECT_FALSE(KmsTest::Exists(dir.Path() + "/target"));
}

struct OwnerCase {
    const char* name;
    bool ownedByUser;  // else owned by root
    mode_t mode;
    int32_t expected;
};

const OwnerCase kOwnerCases[] = {
    {"own stores 0600", true, 0600, VE_OK},
    {"own stores 0400", true, 0400, VE_OK},
    {"own stores 0644", true, 0644, VE_ERR_STORE_UNSAFE},
    {"own stores 0660", true, 0660, VE_ERR_STORE_UNSAFE},
    {"root's stores 0600", false, 0600, VE_ERR_STORE_UNSAFE},
    {"root's stores 0644", false, 0644, VE_ERR_STORE_UNSAFE},
};

// Runs as an unprivileged user: root would pass any permission check.
TEST(KeyStoreSafety, OwnerAndModeAreCheckedAsAnUnprivilegedUser)
{
    uid_t uid = 0;
    gid_t gid = 0;
    if (!KmsTest::UnprivilegedUser(uid, gid)) {
        GTEST_SKIP() << "no unprivileged user available";
    }
    for (const OwnerCase& testCase : kOwnerCases) {
        SCOPED_TRACE(testCase.name);
        ScratchDir dir;
        Populate(dir);
        ASSERT_EQ(0, chown(dir.Path().c_str(), uid, gid));
        ASSERT_EQ(0, chown((dir.Primary() + ".lock").c_str(), uid, gid));
        for (const std::string& path : {dir.Primary(), dir.Standby()}) {
            if (testCase.ownedByUser) {
                ASSERT_EQ(0, chown(path.c_str(), uid, gid));
            }
            ASSERT_EQ(0, chmod(path.c_str(), testCase.mode));
        }
        const std::string primaryBefore = ReadFile(dir.Primary());
        KmsTest::SemaphoreKeys keys;
        const int32_t key = keys.Take();
        const std::string primary = dir.Primary();
        const std::string standby = dir.Standby();
        const int status = RunInChild([&] {
            if (!KmsTest::BecomeUser(uid, gid)) {
                return 100;
            }
            TagVardoConfig config = KmsTest::MakeConfig(primary, standby, key);
            const int32_t rc = VeInitialize(&config);
            if (rc == VE_OK && VardoGetMkCountByDomain(1) != 3) {
                return 101;
            }
            return rc == VE_OK ? 0 : rc == VE_ERR_STORE_UNSAFE ? 1 : 102;
        });
        EXPECT_EQ(testCase.expected == VE_OK ? 0 : 1, status);
        EXPECT_EQ(primaryBefore, ReadFile(dir.Primary()));
        EXPECT_EQ(static_cast<int>(testCase.mode), KmsTest::FileMode(dir.Primary()));
    }
}

// ---- faults while writing -----------------------------------------------------------------

// The file size limit makes the write of a grown store stop half way (EFBIG).
TEST(KeyStoreFaults, FullDiskHalfWayLeavesBothCopiesAsTheyWere)
{
    ScratchDir dir;
    const Texts texts = Populate(dir);
    const std::string primaryBefore = ReadFile(dir.Primary());
    const std::string standbyBefore = ReadFile(dir.Standby());
    KmsTest::SemaphoreKeys keys;
    const int32_t key = keys.Take();
    const int status = RunInChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        TagVardoConfig config = KmsTest::MakeConfig(dir.Primary(), dir.Standby(), key);
        if (VeInitialize(&config) != VE_OK) {
            return 100;
        }
        struct rlimit limit {};
        limit.rlim_cur = limit.rlim_max = primaryBefore.size() + 10;  // a new key needs 81 more bytes
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            return 101;
        }
        const int32_t rotate = VeCheckAndUpdateMk(1, VE_MK_LIFETIME_DAYS);
        std::string plain;
        const bool stillWorks = Decrypt(texts.entries[0].first, texts.entries[0].second, plain) == VE_OK &&
                                VardoGetMkCountByDomain(1) == 3;
        return rotate == VE_ERR_STORE_IO && stillWorks ? 0 : 102;
    });
    EXPECT_EQ(0, status);
    EXPECT_EQ(primaryBefore, ReadFile(dir.Primary()));
    EXPECT_EQ(standbyBefore, ReadFile(dir.Standby()));
    EXPECT_FALSE(KmsTest::Exists(dir.Primary() + ".tmp"));
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    ExpectAllReadable(texts);
}

// The primary is written, the standby write fails: the call reports it, and
// the next start rebuilds the standby from the newer primary.
TEST(KeyStoreFaults, FailureBetweenTheCopiesIsRepairedAtNextStart)
{
    ScratchDir dir;
    const Texts texts = Populate(dir);
    {
        Session session(dir);
        ASSERT_EQ(VE_OK, session.Result());
        // A directory where the standby's temporary file must go blocks its write.
        ASSERT_EQ(0, mkdir((dir.Standby() + ".tmp").c_str(), 0700));
        ASSERT_EQ(0, mkdir((dir.Standby() + ".tmp/x").c_str(), 0700));
        EXPECT_EQ(VE_ERR_STORE_IO, VeCheckAndUpdateMk(2, VE_MK_LIFETIME_DAYS));
        EXPECT_NE(ReadFile(dir.Primary()), ReadFile(dir.Standby()));
        ASSERT_EQ(0, rmdir((dir.Standby() + ".tmp/x").c_str()));
        ASSERT_EQ(0, rmdir((dir.Standby() + ".tmp").c_str()));
    }
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    EXPECT_EQ(ReadFile(dir.Primary()), ReadFile(dir.Standby()));
    EXPECT_EQ(2, VardoGetMkCountByDomain(2)) << "the key that reached the primary is kept";
    ExpectAllReadable(texts);
}

// Kills a process that keeps rotating keys and updating the root key at
// random moments, ~50 times; afterwards the store loads, no key that a
// finished call reported is lost, and everything encrypted before decrypts.
TEST(KeyStoreFaults, WriterKilledAtRandomMomentsNeverLosesAKey)
{
    ScratchDir dir;
    const Texts texts = Populate(dir);
    std::mt19937 random(20161111);
    int finishedRotations = 0;
    int semaphoresChecked = 0;
    for (int round = 0; round < 50; ++round) {
        KmsTest::SemaphoreKeys keys;
        const int32_t key = keys.Take();
        int report[2];
        ASSERT_EQ(0, pipe(report));
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(report[0]);
            TagVardoConfig config = KmsTest::MakeConfig(dir.Primary(), dir.Standby(), key);
            if (VeInitialize(&config) != VE_OK) {
                _exit(100);
            }
            for (int step = 0;; ++step) {
                // Rotations spread over domains 10..12 to stay far below the per-domain limit.
                const int32_t rc = step % 4 == 3 ? VeUpdateRootKey()
                                                 : VeCheckAndUpdateMk(10 + step % 3, VE_MK_LIFETIME_DAYS);
                if (rc != VE_OK) {
                    _exit(101);
                }
                const char done = step % 4 == 3 ? 'r' : 'k';
                if (write(report[1], &done, 1) != 1) {
                    _exit(102);
                }
            }
        }
        close(report[1]);
        // Up to 120 ms: a rotation writes two copies with four fsyncs, so
        // some rounds finish several changes and some die inside one.
        usleep(std::uniform_int_distribution<int>(0, 120000)(random));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << WEXITSTATUS(status);
        // SEM_UNDO: the kernel gave back the semaphore the writer may have
        // held (no set: the writer died before its engine started).
        const int set = semget(key, 1, 0);
        if (set >= 0) {
            EXPECT_EQ(1, semctl(set, 0, GETVAL));
            ++semaphoresChecked;
        }
        char done = 0;
        while (read(report[0], &done, 1) == 1) {
            finishedRotations += done == 'k' ? 1 : 0;
        }
        close(report[0]);
    }
    Session session(dir);
    ASSERT_EQ(VE_OK, session.Result());
    const int stored = VardoGetMkCountByDomain(10) + VardoGetMkCountByDomain(11) + VardoGetMkCountByDomain(12);
    EXPECT_LE(finishedRotations, stored);
    EXPECT_EQ(1, VardoGetMkCountByDomain(0));
    EXPECT_EQ(ReadFile(dir.Primary()), ReadFile(dir.Standby()));
    EXPECT_FALSE(KmsTest::Exists(dir.Primary() + ".tmp"));
    EXPECT_FALSE(KmsTest::Exists(dir.Standby() + ".tmp"));
    ExpectAllReadable(texts);
    EXPECT_GT(semaphoresChecked, 0);
    EXPECT_GT(finishedRotations, 0) << "no round lived long enough to finish a change";
    RecordProperty("finishedRotations", finishedRotations);
}

}  // namespace
