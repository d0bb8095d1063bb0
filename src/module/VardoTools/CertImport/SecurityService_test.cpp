// Security service: base64 buffers, memory encryption on the real engine, the
// semaphore key search against real System V sets. Linked with --wrap=semget
// (fakes a fully taken key range) and --wrap=VeInitialize (counts starts).
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <malloc.h>

#include <cerrno>
#include <string>
#include <vector>

#include "OvraBase/Log.h"
#include "Records.h"
#include "Scratch.h"
#include "SecurityService.h"
#include "TestUser.h"

namespace {
constexpr key_t FIRST_KEY = 0x20161111;
constexpr key_t LAST_KEY = 0x20169998;
bool g_rangeTaken = false;  // semget: every key of the range exists
uint64_t g_lookups = 0;     // look-ups in the range while it is taken
int g_engineStarts = 0;     // engine starts while it is taken
// Every pass of a log site writes; the tests' sets live in an IPC namespace of their own (root only).
const bool g_privateIpc = (OvraBase::Log::logFlowControlFrequency_ = 1, unshare(CLONE_NEWIPC) == 0);
}  // namespace

extern "C" {
int __real_semget(key_t key, int nsems, int flags);
int32_t __real_VeInitialize(const TagVardoConfig* config);
int __wrap_semget(key_t key, int nsems, int flags)
{
    const bool taken = g_rangeTaken && key >= FIRST_KEY && key <= 0x2016FFFF;
    g_lookups += taken;
    return taken ? (errno = EEXIST, -1) : __real_semget(key, nsems, flags);
}
int32_t __wrap_VeInitialize(const TagVardoConfig* c) { return g_engineStarts += g_rangeTaken, __real_VeInitialize(c); }
}

namespace {
using namespace VardoTest;
using Texts = std::vector<std::string>;

const std::string SIZE_MESSAGE = "The size of the memory request does not meet the requirements.";

// Allocator, encoder and decoder bounds: result, record, a block of exactly the data and a 0 byte.
TEST(BufferBounds, Table)
{
    const std::string invalid = "Invalid parameter.";
    const struct {
        char op;  // 'A'lloc(size), 'E'ncode(in), 'D'ecode(in)
        int32_t size;
        std::string in;
        int32_t code;     // Alloc: 0 = block handed out, -1 = null
        std::string out;  // the block holds out and one 0 byte
        std::string record;
    } cases[] = {
        {'A', 0, "", -1, "", SIZE_MESSAGE},
        {'A', -1, "", -1, "", SIZE_MESSAGE},
        {'A', 1, "", 0, "", ""},
        {'A', 10240, "", 0, std::string(10239, '\0'), ""},
        {'A', 10241, "", -1, "", SIZE_MESSAGE},
        {'E', 0, "", 0, "", ""},
        {'E', 0, "abc", 0, "YWJj", ""},
        {'E', 0, std::string(5120, '\xff'), 0, std::string(6826, '/') + "8=", ""},  // on one line
        {'E', 0, std::string(5121, '\xff'), 6009, "", invalid},
        {'D', 0, "Y", 6009, "", invalid},
        {'D', 0, "YQ", 6009, "", invalid},
        {'D', 0, "YQ==", 0, "a", ""},
        {'D', 0, "YWI=", 0, "ab", ""},
        {'D', 0, "%%%%", 6009, "", "BIO_read size not meet the requirements."},
        {'D', 0, "QDUJDREU=", 6009, "", "BIO_read size not meet the requirements."},  // no room for the 0 byte
        {'D', 0, std::string(13652, 'A'), 0, std::string(10239, '\0'), ""},
        {'D', 0, std::string(13653, 'A'), 0, std::string(10239, '\0'), ""},
        {'D', 0, std::string(13654, 'A'), 6008, "", SIZE_MESSAGE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        RecordCapture log;
        char* block = const_cast<char*>(invalid.data());  // out-arguments are written only on success
        uint32_t length = 0xDEAD;
        int32_t code = -1;
        if (c.op != 'A') {
            code = (c.op == 'E' ? EncodeWithBase64 : DecodeWithBase64)(c.in.data(), c.in.size(), &block, &length);
        } else if ((block = AllocBase64CipherMemory(c.size)) != nullptr) {
            code = 0;
            length = c.out.size();
        }
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(log.Tagged('E'), c.record.empty() ? Texts{} : Texts{Err(c.record, 1004)});
        if (code != 0 || c.code != 0) {
            EXPECT_EQ(block, c.op == 'A' ? nullptr : invalid.data());
            EXPECT_EQ(length, 0xDEADu);
            continue;
        }
        EXPECT_EQ(std::string(block, length + 1), c.out + '\0');
#if defined(__SANITIZE_ADDRESS__)  // exact size there
        EXPECT_EQ(malloc_usable_size(block), length + 1);
#endif
        ResetFreeBase64CipherMemory(block, length + 1);
    }
    // A null input or out-argument is refused as a bad length is; releasing null does nothing.
    char* block = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(EncodeWithBase64(nullptr, 3, &block, &length), 6009);
    EXPECT_EQ(EncodeWithBase64("abc", 3, &block, nullptr), 6009);
    EXPECT_EQ(DecodeWithBase64(nullptr, 4, &block, &length), 6009);
    EXPECT_EQ(block, nullptr);
    ResetFreeBase64CipherMemory(nullptr, 8);
    FreeBase64CipherMemory(nullptr);
}

// A semaphore set of the test, removed also when the test fails.
struct SemaphoreSet {
    const int id;
    SemaphoreSet(key_t key, int mode) : id(semget(key, 1, IPC_CREAT | IPC_EXCL | mode)) {}
    ~SemaphoreSet() { id == -1 || semctl(id, 0, IPC_RMID) == 0; }
};

TEST(KeySearch, Scenarios)
{
    // A fully taken range (faked) is searched up to the end mark and never starts the engine.
    RecordCapture log;
    TagVardoConfig record{};
    record.semKey = 5;
    g_rangeTaken = true;
    EXPECT_EQ(SeInitialize(&record), 6026);
    g_rangeTaken = false;
    EXPECT_EQ(record.semKey, 0);
    EXPECT_EQ(g_engineStarts, 0);
    EXPECT_EQ(g_lookups, static_cast<uint64_t>(LAST_KEY - FIRST_KEY + 1));
    EXPECT_EQ(log.Tagged('E'), Texts{Err("No semkey available.", 1001)});
    // Stopping after the failed start: key 0 has no set (IPC_PRIVATE would make one).
    EXPECT_EQ(SeFinalize(&record), VE_ERR_NOT_INITIALIZED);
    EXPECT_EQ(log.Tagged('I'), Texts{"INo signal to delete"});

    // The first key without a set is chosen; a set that exists, readable or not, is passed over.
    if (!g_privateIpc) GTEST_SKIP() << "needs an IPC namespace of its own";
    const auto search = [] {  // the engine refuses the bare record and leaves no set: only the key remains
        TagVardoConfig record{};
        record.semPermission = 0660;
        SeInitialize(&record);
        return static_cast<int>(record.semKey - FIRST_KEY);
    };
    EXPECT_EQ(search(), 0);
    const SemaphoreSet readable(FIRST_KEY, 0666), unreadable(FIRST_KEY + 1, 0);
    ASSERT_TRUE(readable.id != -1 && unreadable.id != -1);
    EXPECT_EQ(search(), 2);
    EXPECT_EQ(RunAsUnprivileged(search), 2) << "EACCES is not a free key";
    EXPECT_EQ(semget(FIRST_KEY + 2, 1, 0), -1) << "the service only looks keys up";
}

// An engine started as the key tool starts it, in ./keys of a scratch directory.
class RunningEngine : public ::testing::Test {
protected:
    void Start(int32_t algorithm)
    {
        record_ = {"./keys/vardo.ks", "./keys/StandbyKsf.ks", 3, 1, 0660, algorithm, 2054, 0, {}, 0, 0, 0};
        ASSERT_EQ(SeInitialize(&record_), 0);
        ASSERT_EQ(SeGetCipherDataLen(secret_.size(), &cipherLength_), 0);
        log_.Clear();
    }
    void SetUp() override { ASSERT_EQ(mkdir("keys", 0700), 0); }
    void TearDown() override { SeFinalize(&record_); }

    ScratchDir dir_{true};
    RecordCapture log_;
    TagVardoConfig record_{};
    uint32_t cipherLength_ = 0;
    const std::string secret_ = "Tr0ub4dor&3-correct horse battery staple-" + std::string(59, 'x');
};

TEST_F(RunningEngine, EncryptDecryptStop)
{
    for (const int32_t algorithm : {VE_ALG_AES128_GCM, VE_ALG_AES256_GCM}) {
        SCOPED_TRACE(algorithm);
        ASSERT_NO_FATAL_FAILURE(Start(algorithm));
        // A capacity of twice the cipher size is enough, one byte less is not; the bytes behind the text stay.
        const EncryptParam params{static_cast<uint32_t>(algorithm), 3};
        std::string text(2 * cipherLength_, '#');
        uint32_t length = text.size() - 1;
        EXPECT_EQ(PaskMemEncryptBase64(&params, secret_.data(), secret_.size(), text.data(), &length), 6009);
        EXPECT_EQ(length, text.size() - 1);
        EXPECT_EQ(log_.Tagged('E'), Texts{Err("Invalid parameter.", 1004)});
        log_.Clear();
        length = text.size();
        ASSERT_EQ(PaskMemEncryptBase64(&params, secret_.data(), secret_.size(), text.data(), &length), 0);
        EXPECT_EQ(length, 4 * ((cipherLength_ + 2) / 3));
        EXPECT_EQ(text.substr(length), std::string(text.size() - length, '#'));
        text.resize(length);
        std::string plain(secret_.size() + 1, '\0');
        ASSERT_EQ(PaskMemDecryptBase64(3, text.data(), text.size(), plain.data(), secret_.size()), 0);
        EXPECT_EQ(plain, secret_ + '\0');
        EXPECT_TRUE(log_.Tagged('E').empty());

        // Decryption failures: result, records, and nothing of the secret in the caller's buffer.
        std::string tampered = text;
        tampered[length / 2] = tampered[length / 2] == 'A' ? 'B' : 'A';
        const struct {
            uint32_t domain;
            std::string text;  // "" = null
            uint32_t capacity;
            int32_t code;
            Texts records;
        } cases[] = {
            {3, "", 256, 6009, {Err("Invalid parameter.", 1004)}},
            {3, "****" + text, 256, 6035,
             {Err("BIO_read size not meet the requirements.", 1004), Err("Call DecodeWithBase64 failed!", 1001)}},
            {3, std::string(12000, 'A'), 256, 6008,
             {Err(SIZE_MESSAGE, 1004), Err("Call AllocBase64CipherMemory failed!", 1001)}},
            {3, tampered, 256, 6033, {Err("Decrypts the specified ciphertext data failed!", 1001)}},
            {0, text, 256, 6033, {Err("Decrypts the specified ciphertext data failed!", 1001)}},
            {3, text, static_cast<uint32_t>(secret_.size() - 1), 6008, {Err("memcpy_s failed!", 1001)}},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(&c - cases);
            log_.Clear();
            std::string out(256, '\0');
            const char* cipher = c.text.empty() ? nullptr : c.text.data();
            EXPECT_EQ(PaskMemDecryptBase64(c.domain, cipher, c.text.size(), out.data(), c.capacity), c.code);
            EXPECT_EQ(log_.Tagged('E'), c.records);
            EXPECT_EQ(out.find(secret_.substr(0, 8)), std::string::npos);
        }

        // Stopping removes the engine's set; a second stop finds none.
        log_.Clear();
        EXPECT_NE(semget(record_.semKey, 1, 0), -1) << "the engine runs on the chosen key";
        EXPECT_EQ(SeFinalize(&record_), 0);
        EXPECT_EQ(semget(record_.semKey, 1, 0), -1);
        EXPECT_TRUE(log_.Tagged('I').empty());
        EXPECT_EQ(SeFinalize(&record_), VE_ERR_NOT_INITIALIZED);
        EXPECT_EQ(log_.Tagged('I'), Texts{"INo signal to delete"});
        EXPECT_TRUE(log_.Tagged('E').empty());
    }
}

// 99 master keys are passed on to the engine (which adds the 100th); 100 are refused.
TEST_F(RunningEngine, HundredthMasterKeyIsTheLast)
{
    ASSERT_NO_FATAL_FAILURE(Start(VE_ALG_AES256_GCM));
    while (VardoGetMkCountByDomain(5) < 99) {
        ASSERT_EQ(VeCheckAndUpdateMk(5, VE_MK_LIFETIME_DAYS), 0);
    }
    EXPECT_EQ(SeCheckAndUpdateMk(5, VE_MK_LIFETIME_DAYS), 0);
    EXPECT_EQ(VardoGetMkCountByDomain(5), 100);
    EXPECT_EQ(SeCheckAndUpdateMk(5, VE_MK_LIFETIME_DAYS), 6027);
    EXPECT_EQ(VardoGetMkCountByDomain(5), 100);
    EXPECT_EQ(log_.Tagged('E'), Texts{Err("MkCount exceeds limit.", 1004)});
}

}  // namespace
