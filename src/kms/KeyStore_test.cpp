// Key store files: damage, unsafe files, failed writes, several processes, killed writers.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "KeyStores.h"
#include "TestUser.h"

namespace {

using namespace VardoTest;

// Mode and bytes of both copies, their temporary files and `more`.
std::string Snapshot(const StoreDir& dir, std::vector<std::string> more = {})
{
    more.insert(more.end(), {dir.Primary(), dir.Standby()});
    for (const std::string& path : {dir.Primary(), dir.Standby()}) {
        const std::vector<std::string> temporaries = TemporariesOf(path);
        more.insert(more.end(), temporaries.begin(), temporaries.end());
    }
    std::string state;
    for (const std::string& path : more) {
        state += std::to_string(FileMode(path)) + ": " + ReadWholeFile(path) + "\n";
    }
    return state;
}

// Damages a copy: "flip" a bit, "cut" a byte, "empty", "missing", "older" image or "keep".
void Spoil(const std::string& path, const std::string& how, const std::string& older)
{
    std::string bytes = how == "older" ? older : how == "empty" ? "" : ReadWholeFile(path);
    if (how == "flip") {
        bytes[bytes.size() / 2] ^= 0x10;
    }
    if (how == "missing") {
        unlink(path.c_str());
    } else if (how != "keep") {
        WriteWholeFile(path, how == "cut" ? bytes.substr(0, bytes.size() - 1) : bytes);
    }
}

// One bad copy is rebuilt from the newest healthy one; with none healthy nothing changes.
TEST(KeyStoreRepair, DamagedCopiesTable)
{
    StoreDir origin;
    const Texts texts = Populate(origin);
    const std::string older = ReadWholeFile(origin.Primary());
    {
        Session session(origin);
        ASSERT_EQ(VE_OK, VeUpdateRootKey());
    }
    const struct { const char* primary; const char* standby; int32_t expected; } cases[] = {
        {"flip", "keep", VE_OK},  {"keep", "cut", VE_OK},   {"missing", "keep", VE_OK},
        {"keep", "empty", VE_OK}, {"keep", "older", VE_OK}, {"older", "keep", VE_OK},
        {"flip", "flip", VE_ERR_STORE_DAMAGED},             {"cut", "empty", VE_ERR_STORE_DAMAGED},
        {"flip", "missing", VE_ERR_STORE_DAMAGED},          {"missing", "empty", VE_ERR_STORE_DAMAGED},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testing::Message() << "primary " << testCase.primary << ", standby " << testCase.standby);
        StoreDir dir;
        WriteWholeFile(dir.Primary(), ReadWholeFile(origin.Primary()));
        WriteWholeFile(dir.Standby(), ReadWholeFile(origin.Primary()));
        Spoil(dir.Primary(), testCase.primary, older);
        Spoil(dir.Standby(), testCase.standby, older);
        const std::string before = Snapshot(dir);
        Session session(dir);
        ASSERT_EQ(testCase.expected, session.Result());
        if (testCase.expected == VE_OK) {
            EXPECT_EQ(Snapshot(origin), Snapshot(dir)) << "both copies the newest image, 0600, no temporary file";
            ExpectAllReadable(texts);
        } else {
            EXPECT_EQ(before, Snapshot(dir));
            EXPECT_EQ(-1, semget(session.SemKey(), 1, 0)) << "a failed start leaves no semaphore set";
        }
    }
}

// Run as an unprivileged user; a refused start changes nothing, follows no link.
TEST(KeyStoreSafety, UnsafeStoresTable)
{
    const TestUser& user = UnprivilegedUser();
    StoreDir origin;
    Populate(origin);
    // File replaced by a link (or null), stores owned by the user (else root), their mode, 0 started or 1 refused.
    const struct { const char* link; bool ownStores; mode_t mode; int expected; } cases[] = {
        {nullptr, true, 0600, 0},         {nullptr, true, 0400, 0},         {nullptr, true, 0644, 1},
        {nullptr, true, 0660, 1},         {nullptr, false, 0600, 1},        {"vardo.ks", true, 0600, 1},
        {"StandbyKsf.ks", true, 0600, 1}, {"vardo.ks.lock", true, 0600, 1},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testing::Message() << "row " << &testCase - cases);
        StoreDir dir;
        ASSERT_EQ(0, chown(dir.Path().c_str(), user.uid, user.gid));
        for (const std::string& path : {dir.Primary(), dir.Standby()}) {
            WriteWholeFile(path, ReadWholeFile(origin.Primary()));
            ASSERT_EQ(0, testCase.ownStores ? chown(path.c_str(), user.uid, user.gid) : 0);
            ASSERT_EQ(0, chmod(path.c_str(), testCase.mode));
        }
        const std::string target = dir.Path() + "/elsewhere";
        if (testCase.link != nullptr) {
            const std::string link = dir.Path() + "/" + testCase.link;
            rename(link.c_str(), target.c_str());
            ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
        }
        const std::string before = Snapshot(dir, {target});
        SemaphoreKeys keys;
        TagVardoConfig config = MakeConfig(dir.Primary(), dir.Standby(), keys.Take());
        EXPECT_EQ(testCase.expected, RunInChild([&config] {
            const int32_t rc = VeInitialize(&config);
            return rc == VE_OK ? (VardoGetMkCountByDomain(1) == 3 ? 0 : 101) : (rc == VE_ERR_STORE_UNSAFE ? 1 : 102);
        }, &user));
        EXPECT_EQ(before, Snapshot(dir, {target}));
    }
}

// A write stopped half way (file size limit), then a standby write failing after the
// primary's: the calls fail, their keys unused; the store as it was, or repaired at start.
TEST(KeyStoreFaults, FailedWritesLeaveALoadableStore)
{
    StoreDir dir;
    const Texts texts = Populate(dir);
    const std::string before = Snapshot(dir);
    SemaphoreKeys keys;
    TagVardoConfig config = MakeConfig(dir.Primary(), dir.Standby(), keys.Take());
    const auto fullDisk = [&] {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit {};
        limit.rlim_cur = limit.rlim_max = ReadWholeFile(dir.Primary()).size() + 10;  // a new key needs 81 bytes
        return VeInitialize(&config) == VE_OK && setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
               VeCheckAndUpdateMk(1, VE_MK_LIFETIME_DAYS) == VE_ERR_STORE_IO && KeyIdOf(Encrypt(1, 9, "x")) == 3;
    };
    EXPECT_EQ(1, RunInChild(fullDisk)) << "1: the child saw each step as expected";
    EXPECT_EQ(before, Snapshot(dir));
    {
        Session session(dir);
        // An immutable standby cannot be replaced, even by root.
        ASSERT_EQ(0, std::system(("chattr +i " + dir.Standby()).c_str()));
        EXPECT_EQ(VE_ERR_STORE_IO, VeCheckAndUpdateMk(2, VE_MK_LIFETIME_DAYS));
        EXPECT_EQ(1, KeyIdOf(Encrypt(2, 9, "x")));
        ASSERT_EQ(0, std::system(("chattr -i " + dir.Standby()).c_str()));
    }
    Session session(dir);
    EXPECT_EQ(ReadWholeFile(dir.Primary()), ReadWholeFile(dir.Standby()));
    EXPECT_EQ(2, VardoGetMkCountByDomain(2)) << "the key that reached the primary is kept";
    ExpectAllReadable(texts);
}

constexpr int PROCESSES = 4, ROUNDS = 12;

// Forked beside a running engine, starts its own; keeps a text per round in domain 10 (first key
// asked for by all at once) and rotates it (worker 0 updates the root key instead).
int Worker(const StoreDir& dir, int index, int32_t semKey)
{
    TagVardoConfig config = MakeConfig(dir.Primary(), dir.Standby(), semKey);
    if (VeFinalize() != VE_ERR_NOT_INITIALIZED || VeInitialize(&config) != VE_OK) {
        return 10;
    }
    std::ofstream out(dir.Path() + "/texts-" + std::to_string(index), std::ios::binary);
    std::string plain;
    for (int round = 0; round < ROUNDS; ++round) {
        const std::string cipher = Encrypt(10, 8 + round % 2, PlainFor(10, index));
        out << cipher;
        if (Decrypt(10, cipher, plain) != VE_OK || plain != PlainFor(10, index) ||
            (index == 0 ? VeUpdateRootKey() : VeCheckAndUpdateMk(10, VE_MK_LIFETIME_DAYS)) != VE_OK) {
            return 11;
        }
    }
    out.close();
    return out && VeFinalize() == VE_OK ? 0 : 12;
}

TEST(EngineConcurrency, SeveralProcessesAtOnceLoseNothing)
{
    StoreDir dir;
    Session session(dir);
    SemaphoreKeys keys;
    std::vector<pid_t> children;
    for (int index = 0; index < PROCESSES; ++index) {
        const int32_t key = keys.Take();
        children.push_back(fork());
        ASSERT_GE(children.back(), 0);
        if (children.back() == 0) {
            _exit(Worker(dir, index, key));
        }
    }
    for (pid_t child : children) {
        int status = 0;
        EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    // Every text is under a key made after this engine started: it reads the stores again.
    const size_t size = PlainFor(10, 0).size() + VE_CIPHER_OVERHEAD;
    std::string plain;
    for (int index = 0; index < PROCESSES; ++index) {
        const std::string texts = ReadWholeFile(dir.Path() + "/texts-" + std::to_string(index));
        ASSERT_EQ(ROUNDS * size, texts.size());
        for (size_t at = 0; at < texts.size(); at += size) {
            EXPECT_EQ(VE_OK, Decrypt(10, texts.substr(at, size), plain));
            EXPECT_EQ(PlainFor(10, index), plain);
        }
    }
    EXPECT_EQ(1 + (PROCESSES - 1) * ROUNDS, VardoGetMkCountByDomain(10)) << "one first key, no rotation lost";
    EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(10, VE_MK_LIFETIME_DAYS)) << "this process's lock file still works";
    EXPECT_EQ(ReadWholeFile(dir.Primary()), ReadWholeFile(dir.Standby()));
}

// 25 kills of a rotating writer: semaphore given back, store loads, nothing reported done is lost.
TEST(EngineConcurrency, WriterKilledAtRandomMomentsLosesNothing)
{
    StoreDir dir;
    const Texts texts = Populate(dir);
    std::mt19937 random(20161111);
    void* shared = mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, shared);
    volatile int* reported = static_cast<int*>(shared);  // rotations the writers finished
    for (int round = 0; round < 25; ++round) {
        SemaphoreKeys keys;
        TagVardoConfig config = MakeConfig(dir.Primary(), dir.Standby(), keys.Take());
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            int32_t rc = VeInitialize(&config);
            for (int step = 0; rc == VE_OK; ++step) {
                rc = step % 4 == 3 ? VeUpdateRootKey() : VeCheckAndUpdateMk(10 + step % 3, VE_MK_LIFETIME_DAYS);
                *reported += rc == VE_OK && step % 4 != 3 ? 1 : 0;
            }
            _exit(1);
        }
        usleep(std::uniform_int_distribution<int>(0, 120000)(random));  // some rounds finish several changes
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_TRUE(waitpid(child, &status, 0) == child && WIFSIGNALED(status)) << "the writer stopped by itself";
        const int set = semget(config.semKey, 1, 0);  // none: killed before its engine started
        EXPECT_TRUE(set < 0 || semctl(set, 0, GETVAL) == 1) << "SEM_UNDO gave the semaphore back";
    }
    Session session(dir);
    EXPECT_LE(*reported, VardoGetMkCountByDomain(10) + VardoGetMkCountByDomain(11) + VardoGetMkCountByDomain(12));
    EXPECT_EQ(ReadWholeFile(dir.Primary()), ReadWholeFile(dir.Standby()));
    EXPECT_TRUE(TemporariesOf(dir.Primary()).empty() && TemporariesOf(dir.Standby()).empty());
    ExpectAllReadable(texts);
    EXPECT_GT(*reported, 0) << "no round lived long enough to finish a change (and left a set to check)";
    munmap(shared, sizeof(int));
}

}  // namespace
