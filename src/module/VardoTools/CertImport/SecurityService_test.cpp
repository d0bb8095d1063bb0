// Tests of the security service: base64 buffers, memory encryption, engine
// lifecycle. The engine tests drive the real key-management engine in a
// temporary directory that holds ./keys; the key search runs against real
// System V semaphore sets.
//
// The test binary is linked with --wrap=semget and --wrap=VeInitialize: the
// wrappers below forward to the real functions unless a test asks them to
// pretend the whole key range is taken or to stand in for the engine start.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#else
#include <malloc.h>
#endif

#include "OvraBase/ErrorInfo.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"

// ---- seams of the test binary ----------------------------------------------
namespace {
bool g_rangeTaken = false;      // semget: every key of the search range is taken
uint64_t g_rangeLookups = 0;    // semget calls for keys of the range while taken
key_t g_lastLookup = 0;         // the last key looked up while taken
bool g_fakeEngineStart = false; // VeInitialize: record the key, start nothing
int g_engineStarts = 0;         // VeInitialize calls
int32_t g_startedKey = 0;       // semKey of the last VeInitialize call

constexpr key_t FIRST_KEY = 0x20161111;
constexpr key_t LAST_KEY = 0x20169998;
}  // namespace

extern "C" {
int __real_semget(key_t key, int nsems, int flags);
int32_t __real_VeInitialize(const TagVardoConfig* config);

int __wrap_semget(key_t key, int nsems, int flags)
{
    if (g_rangeTaken && key >= FIRST_KEY && key <= 0x2016FFFF) {
        ++g_rangeLookups;
        g_lastLookup = key;
        errno = EEXIST;
        return -1;
    }
    return __real_semget(key, nsems, flags);
}

int32_t __wrap_VeInitialize(const TagVardoConfig* config)
{
    ++g_engineStarts;
    g_startedKey = config->semKey;
    return g_fakeEngineStart ? 0 : __real_VeInitialize(config);
}
}

namespace {

namespace fs = std::filesystem;
using OvraBase::GetErrorInfo;

constexpr char UNIT[] = "src/module/VardoTools/CertImport/SecurityService";

std::string WithInfo(const std::string& message, int32_t code) { return message + GetErrorInfo(code, ""); }

// ---- log records -------------------------------------------------------------
struct LogRecord {
    google::LogSeverity severity;
    std::string file;
    std::string text;
};

class RecordSink : public google::LogSink {
public:
    RecordSink() { google::AddLogSink(this); }
    ~RecordSink() override { google::RemoveLogSink(this); }

    void send(google::LogSeverity severity, const char* fullFilename, const char*, int,
              const google::LogMessageTime&, const char* message, size_t length) override
    {
        records.push_back({severity, fullFilename, std::string(message, length)});
    }

    // Texts of this unit's records of one severity, in order.
    std::vector<std::string> Texts(google::LogSeverity severity) const
    {
        std::vector<std::string> texts;
        for (const LogRecord& record : records) {
            if (record.severity == severity && record.file == UNIT) {
                texts.push_back(record.text);
            }
        }
        return texts;
    }
    std::vector<std::string> Errors() const { return Texts(google::GLOG_ERROR); }

    std::vector<LogRecord> records;
};

// Every pass of every log site writes, so repeated cases see their records.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        savedFrequency_ = OvraBase::Log::logFlowControlFrequency_;
        OvraBase::Log::logFlowControlFrequency_ = 1;
    }
    void TearDown() override { OvraBase::Log::logFlowControlFrequency_ = savedFrequency_; }

    RecordSink sink_;

private:
    int32_t savedFrequency_ = 1;
};

// ---- helpers ---------------------------------------------------------------------
std::string Base64Of(const std::string& bytes)
{
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

std::string Pattern(size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>((i * 37 + 11) & 0xFF);
    }
    return bytes;
}

// The block behind `data` has exactly `size` usable bytes (exact under
// AddressSanitizer, a lower bound otherwise).
void ExpectBlockSize(const char* data, uint32_t size)
{
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_FALSE(__asan_address_is_poisoned(data + size - 1)) << "block shorter than " << size;
    EXPECT_TRUE(__asan_address_is_poisoned(data + size)) << "block longer than " << size;
#else
    EXPECT_GE(malloc_usable_size(const_cast<char*>(data)), size);
#endif
}

bool SemaphoreExists(key_t key) { return semget(key, 1, 0) != -1; }

// A semaphore set made by a test; removed when the guard goes, also when the
// test fails. A key that was already taken by someone else is left alone.
class SemaphoreSet {
public:
    SemaphoreSet(key_t key, int mode) : id_(semget(key, 1, IPC_CREAT | IPC_EXCL | mode)) {}
    ~SemaphoreSet()
    {
        if (id_ != -1) {
            semctl(id_, 0, IPC_RMID);
        }
    }
    SemaphoreSet(const SemaphoreSet&) = delete;
    SemaphoreSet& operator=(const SemaphoreSet&) = delete;
    bool Created() const { return id_ != -1; }

private:
    int id_;
};

// A fresh temporary directory that holds ./keys (0700) and is the working
// directory while the guard lives.
class KeysDirectory {
public:
    KeysDirectory() : previous_(fs::current_path())
    {
        std::string pattern = (fs::temp_directory_path() / "security-service-XXXXXX").string();
        root_ = mkdtemp(pattern.data());
        fs::current_path(root_);
        fs::create_directory("keys");
        fs::permissions("keys", fs::perms::owner_all);
    }
    ~KeysDirectory()
    {
        std::error_code ignored;
        fs::current_path(previous_, ignored);
        fs::remove_all(root_, ignored);
    }
    KeysDirectory(const KeysDirectory&) = delete;
    KeysDirectory& operator=(const KeysDirectory&) = delete;

private:
    fs::path previous_;
    fs::path root_;
};

// The record as the key tool fills it.
TagVardoConfig KeyToolRecord(int32_t algorithmId)
{
    TagVardoConfig record{};
    std::strcpy(record.primaryKsfPath, "./keys/vardo.ks");
    std::strcpy(record.standbyKsfPath, "./keys/StandbyKsf.ks");
    record.optionWord0 = 3;
    record.optionWord1 = 1;
    record.semPermission = 0660;
    record.paskAlgorithmId = algorithmId;
    record.optionWord2 = 2054;
    return record;
}

// Where the process may (root), it moves into an IPC namespace of its own before
// the first test: the semaphore sets of the tests, and any set a faulty key
// search would leave behind, never reach the system's. Elsewhere the tests run
// against the system's sets and assert only relative to the keys that are free.
bool g_privateIpc = false;
class PrivateIpcEnvironment : public ::testing::Environment {
public:
    void SetUp() override { g_privateIpc = unshare(CLONE_NEWIPC) == 0; }
};
const ::testing::Environment* const PRIVATE_IPC =
    ::testing::AddGlobalTestEnvironment(new PrivateIpcEnvironment);

// ===================================================================================
// Base64 buffers: bounds, sizes and records of the allocator, encoder, decoder.
// ===================================================================================
enum class BufferOp { Alloc, Encode, Decode };

struct BufferCase {
    const char* name;
    BufferOp op;
    int32_t allocSize;      // Alloc
    std::string input;      // Encode: bytes, Decode: text
    bool nullInput;
    int32_t code;           // Encode/Decode result; Alloc: 0 = block handed out
    std::string output;     // Encode: text, Decode: bytes
    uint32_t blockSize;     // size of the block handed out
    std::string record;     // the ERROR record expected (message + text of recordCode), "" = none
    int32_t recordCode;
};

std::vector<BufferCase> BufferCases()
{
    using OvraBase::SE_ERR_INVALID_PARAM;
    using OvraBase::SE_ERR_RESOURCE;
    const std::string sizeMessage = "The size of the memory request does not meet the requirements.";
    const std::string full = Pattern(BASE64_ENCODE_INPUT_MAX);
    const std::string fullText = Base64Of(full);
    return {
        {"alloc 0", BufferOp::Alloc, 0, "", false, -1, "", 0, sizeMessage, 1004},
        {"alloc -1", BufferOp::Alloc, -1, "", false, -1, "", 0, sizeMessage, 1004},
        {"alloc INT32_MIN", BufferOp::Alloc, INT32_MIN, "", false, -1, "", 0, sizeMessage, 1004},
        {"alloc 1", BufferOp::Alloc, 1, "", false, 0, "", 1, "", 0},
        {"alloc 10240", BufferOp::Alloc, 10240, "", false, 0, "", 10240, "", 0},
        {"alloc 10241", BufferOp::Alloc, 10241, "", false, -1, "", 0, sizeMessage, 1004},

        {"encode null", BufferOp::Encode, 0, "", true, SE_ERR_INVALID_PARAM, "", 0, "Invalid parameter.", 1004},
        // An empty input gives an empty text in a 1-byte block.
        {"encode 0 bytes", BufferOp::Encode, 0, "", false, 0, "", 1, "", 0},
        {"encode abc", BufferOp::Encode, 0, "abc", false, 0, "YWJj", 5, "", 0},
        {"encode 5120 bytes on one line", BufferOp::Encode, 0, full, false, 0, fullText, 6829, "", 0},
        {"encode 5121 bytes", BufferOp::Encode, 0, Pattern(5121), false, SE_ERR_INVALID_PARAM, "", 0,
         "Invalid parameter.", 1004},

        {"decode null", BufferOp::Decode, 0, "", true, SE_ERR_INVALID_PARAM, "", 0, "Invalid parameter.", 1004},
        {"decode 1 character", BufferOp::Decode, 0, "Y", false, SE_ERR_INVALID_PARAM, "", 0, "Invalid parameter.",
         1004},
        {"decode 2 characters", BufferOp::Decode, 0, "YQ", false, SE_ERR_INVALID_PARAM, "", 0, "Invalid parameter.",
         1004},
        {"decode YQ==", BufferOp::Decode, 0, "YQ==", false, 0, "a", 2, "", 0},
        {"decode YWI=", BufferOp::Decode, 0, "YWI=", false, 0, "ab", 3, "", 0},
        {"decode YWJj", BufferOp::Decode, 0, "YWJj", false, 0, "abc", 4, "", 0},
        {"decode no valid base64", BufferOp::Decode, 0, "%%%%", false, SE_ERR_INVALID_PARAM, "", 0,
         "BIO_read size not meet the requirements.", 1004},
        {"decode 5120 bytes", BufferOp::Decode, 0, fullText, false, 0, full, 5121, "", 0},
        {"decode largest text the allocator takes", BufferOp::Decode, 0, std::string(13652, 'A'), false, 0,
         std::string(10239, '\0'), 10240, "", 0},
        {"decode text too long for the allocator", BufferOp::Decode, 0, std::string(13654, 'A'), false,
         SE_ERR_RESOURCE, "", 0, sizeMessage, 1004},
    };
}

class BufferBounds : public ServiceTest {};

TEST_F(BufferBounds, Table)
{
    for (const BufferCase& c : BufferCases()) {
        SCOPED_TRACE(c.name);
        sink_.records.clear();
        char* const untouched = reinterpret_cast<char*>(&sink_);  // never a block of the service
        char* block = untouched;
        uint32_t length = 0xDEADu;
        int32_t code = 0;
        const char* input = c.nullInput ? nullptr : c.input.data();
        const uint32_t inputLength = static_cast<uint32_t>(c.input.size());

        switch (c.op) {
            case BufferOp::Alloc:
                block = AllocBase64CipherMemory(c.allocSize);
                code = block == nullptr ? -1 : 0;
                length = block == nullptr ? 0xDEADu : static_cast<uint32_t>(c.allocSize);
                break;
            case BufferOp::Encode:
                code = EncodeWithBase64(input, inputLength, &block, &length);
                break;
            case BufferOp::Decode:
                code = DecodeWithBase64(input, inputLength, &block, &length);
                break;
        }

        EXPECT_EQ(code, c.code);
        if (c.record.empty()) {
            EXPECT_TRUE(sink_.Errors().empty());
        } else {
            EXPECT_EQ(sink_.Errors(), std::vector<std::string>{WithInfo(c.record, c.recordCode)});
        }
        if (code != 0) {
            // Out-arguments are written only on success.
            EXPECT_EQ(block, c.op == BufferOp::Alloc ? nullptr : untouched);
            EXPECT_EQ(length, 0xDEADu);
            continue;
        }
        ASSERT_NE(block, nullptr);
        ExpectBlockSize(block, c.blockSize);
        if (c.op == BufferOp::Alloc) {
            EXPECT_TRUE(std::all_of(block, block + c.allocSize, [](char b) { return b == 0; }));
        } else {
            EXPECT_EQ(std::string(block, length), c.output);
            EXPECT_EQ(block[length], '\0') << "no zero byte behind the data";
        }
        ResetFreeBase64CipherMemory(block, c.blockSize);
    }
    // Releasing nothing is harmless.
    FreeBase64CipherMemory(nullptr);
    ResetFreeBase64CipherMemory(nullptr, 10);
}

// ===================================================================================
// Engine lifecycle and the key search.
// ===================================================================================
class KeySearch : public ServiceTest {
protected:
    void TearDown() override
    {
        g_rangeTaken = false;
        g_fakeEngineStart = false;
        ServiceTest::TearDown();
    }
};

// The first key from `from` on that has no set right now.
key_t FirstFreeKey(key_t from)
{
    while (SemaphoreExists(from)) {
        ++from;
    }
    return from;
}

TEST_F(KeySearch, PicksTheFirstKeyWithoutASet)
{
    // In the private namespace the range starts empty; on a shared system
    // other processes may hold keys, so the expectation is the first free key.
    g_fakeEngineStart = true;  // only the key handed to the engine matters here
    TagVardoConfig record{};
    record.semKey = 77;
    record.semPermission = 0660;
    const key_t firstFree = FirstFreeKey(FIRST_KEY);
    if (g_privateIpc) {
        EXPECT_EQ(firstFree, FIRST_KEY);
    }
    EXPECT_EQ(SeInitialize(&record), 0);
    EXPECT_EQ(record.semKey, firstFree);

    // Sets at the first two keys, one of them unreadable for its mode.
    SemaphoreSet first(FIRST_KEY, 0660);
    SemaphoreSet second(FIRST_KEY + 1, 0);
    ASSERT_TRUE(SemaphoreExists(FIRST_KEY) && SemaphoreExists(FIRST_KEY + 1));
    const key_t expected = FirstFreeKey(FIRST_KEY + 2);
    if (g_privateIpc) {
        EXPECT_EQ(expected, FIRST_KEY + 2);
    }
    EXPECT_EQ(SeInitialize(&record), 0);
    EXPECT_EQ(record.semKey, expected);
    EXPECT_EQ(g_startedKey, expected);
    // The service only looks keys up; it never makes a set itself.
    EXPECT_FALSE(SemaphoreExists(expected));
}

TEST_F(KeySearch, ExhaustedRangeNeverStartsTheEngine)
{
    g_rangeTaken = true;
    g_rangeLookups = 0;
    g_engineStarts = 0;
    TagVardoConfig record{};
    record.semKey = 5;
    record.semPermission = 0660;
    EXPECT_EQ(SeInitialize(&record), OvraBase::SE_ERR_NO_SEMKEY);
    EXPECT_EQ(record.semKey, 0);
    EXPECT_EQ(g_engineStarts, 0);
    EXPECT_EQ(g_rangeLookups, static_cast<uint64_t>(LAST_KEY - FIRST_KEY + 1));  // 34952 keys, end mark excluded
    EXPECT_EQ(g_lastLookup, LAST_KEY);
    EXPECT_EQ(sink_.Errors(), std::vector<std::string>{WithInfo("No semkey available.", 1001)});
}

TEST_F(KeySearch, FinalizeWithoutASetDeletesNothing)
{
    // Key 0 (never assigned) must not make and delete a private set, and a key
    // without a set is reported; both still stop the engine.
    for (const key_t key : {key_t{0}, LAST_KEY}) {
        SCOPED_TRACE(key);
        if (key != 0 && SemaphoreExists(key)) {
            continue;  // someone else holds it right now
        }
        sink_.records.clear();
        TagVardoConfig record{};
        record.semKey = key;
        record.semPermission = 0660;
        EXPECT_EQ(SeFinalize(&record), VE_ERR_NOT_INITIALIZED);
        EXPECT_EQ(sink_.Texts(google::GLOG_INFO), std::vector<std::string>{"No signal to delete"});
        EXPECT_TRUE(sink_.Errors().empty());
    }
}

// ===================================================================================
// With a running engine.
// ===================================================================================
class RunningEngine : public ServiceTest, public ::testing::WithParamInterface<int32_t> {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        record_ = KeyToolRecord(GetParam());
        ASSERT_EQ(SeInitialize(&record_), 0);
        started_ = true;
        ASSERT_EQ(SeGetCipherDataLen(static_cast<uint32_t>(secret_.size()), &cipherLength_), 0);
        ASSERT_GT(cipherLength_, secret_.size());
    }
    void TearDown() override
    {
        if (started_) {
            SeFinalize(&record_);
        }
        ServiceTest::TearDown();
    }

    // Encrypts the secret into a text; the capacity defaults to twice the cipher size.
    std::string Encrypt(uint32_t domainId = 0)
    {
        const EncryptParam params{static_cast<uint32_t>(GetParam()), domainId};
        std::vector<char> text(2 * cipherLength_, '\0');
        uint32_t textLength = static_cast<uint32_t>(text.size());
        EXPECT_EQ(PaskMemEncryptBase64(&params, secret_.data(), static_cast<uint32_t>(secret_.size()), text.data(),
                                       &textLength),
                  0);
        return std::string(text.data(), textLength);
    }

    KeysDirectory keys_;
    TagVardoConfig record_{};
    bool started_ = false;
    uint32_t cipherLength_ = 0;
    const std::string secret_ = "Tr0ub4dor&3-correct horse battery staple-" + std::string(59, 'x');  // 100 bytes
};

INSTANTIATE_TEST_SUITE_P(Algorithms, RunningEngine, ::testing::Values(VE_ALG_AES128_GCM, VE_ALG_AES256_GCM));

TEST_P(RunningEngine, RoundTrip)
{
    const EncryptParam params{static_cast<uint32_t>(GetParam()), 0};
    std::vector<char> text(2 * cipherLength_, '#');  // bytes behind the text stay as the caller set them
    uint32_t textLength = static_cast<uint32_t>(text.size());
    ASSERT_EQ(PaskMemEncryptBase64(&params, secret_.data(), static_cast<uint32_t>(secret_.size()), text.data(),
                                   &textLength),
              0);
    EXPECT_EQ(textLength, 4 * ((cipherLength_ + 2) / 3));
    const std::string encoded(text.data(), textLength);
    EXPECT_EQ(encoded.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
              std::string::npos);
    EXPECT_TRUE(std::all_of(text.begin() + textLength, text.end(), [](char b) { return b == '#'; }));
    EXPECT_EQ(encoded.find(secret_.substr(0, 8)), std::string::npos);

    std::vector<char> plain(encoded.size() + 1, '\0');
    ASSERT_EQ(PaskMemDecryptBase64(0, encoded.data(), textLength, plain.data(), static_cast<uint32_t>(plain.size())),
              0);
    EXPECT_EQ(std::string(plain.data()), secret_);
    EXPECT_TRUE(sink_.Errors().empty());
}

TEST_P(RunningEngine, EncryptCapacityIsTwiceTheCipherSize)
{
    const EncryptParam params{static_cast<uint32_t>(GetParam()), 0};
    for (const uint32_t capacity : {2 * cipherLength_, 2 * cipherLength_ - 1}) {
        SCOPED_TRACE(capacity);
        sink_.records.clear();
        std::vector<char> text(capacity, '\0');
        uint32_t textLength = capacity;
        const int32_t code = PaskMemEncryptBase64(&params, secret_.data(), static_cast<uint32_t>(secret_.size()),
                                                  text.data(), &textLength);
        if (capacity == 2 * cipherLength_) {
            EXPECT_EQ(code, 0);
            EXPECT_LT(textLength, capacity);
        } else {
            EXPECT_EQ(code, OvraBase::SE_ERR_INVALID_PARAM);
            EXPECT_EQ(textLength, capacity);
            EXPECT_EQ(sink_.Errors(), std::vector<std::string>{WithInfo("Invalid parameter.", 1004)});
        }
    }
}

TEST_P(RunningEngine, DecryptFailures)
{
    const std::string text = Encrypt();
    std::string tampered = text;
    tampered[tampered.size() / 2] = tampered[tampered.size() / 2] == 'A' ? 'B' : 'A';

    struct Case {
        const char* name;
        uint32_t domainId;
        std::string text;
        bool nullText;
        uint32_t plainCapacity;
        int32_t code;
        std::vector<std::string> records;  // ERROR records, in order
    };
    const std::string decryptFailed = WithInfo("Decrypts the specified ciphertext data failed!", 1001);
    const std::string decodeFailed = WithInfo("Call DecodeWithBase64 failed!", 1001);
    const std::string sizeRecord = WithInfo("The size of the memory request does not meet the requirements.", 1004);
    const std::vector<Case> cases = {
        {"null text", 0, "", true, 256, OvraBase::SE_ERR_INVALID_PARAM, {WithInfo("Invalid parameter.", 1004)}},
        {"text too short", 0, "YQ", false, 256, OvraBase::SE_ERR_BASE64_DECODE,
         {WithInfo("Invalid parameter.", 1004), decodeFailed}},
        {"invalid base64", 0, "****" + text, false, 256, OvraBase::SE_ERR_BASE64_DECODE,
         {WithInfo("BIO_read size not meet the requirements.", 1004), decodeFailed}},
        // Decodes (9001 bytes), but the plain block of the text's length is too large.
        {"text above 10240 characters", 0, std::string(12000, 'A'), false, 256, OvraBase::SE_ERR_RESOURCE,
         {sizeRecord, WithInfo("Call AllocBase64CipherMemory failed!", 1001)}},
        {"text above 13653 characters", 0, std::string(13656, 'A'), false, 256, OvraBase::SE_ERR_BASE64_DECODE,
         {sizeRecord, decodeFailed}},
        {"tampered text", 0, tampered, false, 256, OvraBase::SE_ERR_DECRYPT, {decryptFailed}},
        {"other domain", 3, text, false, 256, OvraBase::SE_ERR_DECRYPT, {decryptFailed}},
        {"plain buffer one byte short", 0, text, false, static_cast<uint32_t>(secret_.size() - 1),
         OvraBase::SE_ERR_RESOURCE, {WithInfo("memcpy_s failed!", 1001)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        sink_.records.clear();
        std::vector<char> plain(c.plainCapacity, '\0');
        EXPECT_EQ(PaskMemDecryptBase64(c.domainId, c.nullText ? nullptr : c.text.data(),
                                       static_cast<uint32_t>(c.text.size()), plain.data(), c.plainCapacity),
                  c.code);
        EXPECT_EQ(sink_.Errors(), c.records);
        // No part of the secret reaches a buffer it did not fit.
        EXPECT_EQ(std::string(plain.data(), plain.size()).find(secret_.substr(0, 8)), std::string::npos);
    }
}

TEST_P(RunningEngine, FinalizeRemovesTheSetOnce)
{
    const key_t key = record_.semKey;
    EXPECT_TRUE(SemaphoreExists(key)) << "the engine runs on the chosen key";
    started_ = false;
    EXPECT_EQ(SeFinalize(&record_), 0);
    EXPECT_FALSE(SemaphoreExists(key));
    EXPECT_TRUE(sink_.Texts(google::GLOG_INFO).empty());

    EXPECT_EQ(SeFinalize(&record_), VE_ERR_NOT_INITIALIZED);
    EXPECT_EQ(sink_.Texts(google::GLOG_INFO), std::vector<std::string>{"No signal to delete"});
    EXPECT_TRUE(sink_.Errors().empty());
}

class MasterKeys : public RunningEngine {};
INSTANTIATE_TEST_SUITE_P(Algorithm9, MasterKeys, ::testing::Values(VE_ALG_AES256_GCM));

TEST_P(MasterKeys, HundredthKeyIsTheLast)
{
    constexpr uint32_t domain = 5;
    constexpr uint32_t alwaysRenew = 36500;  // every active key expires within this many days
    for (int32_t count = VardoGetMkCountByDomain(domain); count < 99; count = VardoGetMkCountByDomain(domain)) {
        ASSERT_GE(count, 0);
        ASSERT_EQ(VeCheckAndUpdateMk(domain, alwaysRenew), 0) << "at " << count << " master keys";
    }
    ASSERT_EQ(VardoGetMkCountByDomain(domain), 99);

    // 99 keys: passed on to the engine, which adds the hundredth.
    EXPECT_EQ(SeCheckAndUpdateMk(domain, alwaysRenew), 0);
    EXPECT_EQ(VardoGetMkCountByDomain(domain), 100);
    EXPECT_TRUE(sink_.Errors().empty());

    // 100 keys: refused before the engine is asked.
    EXPECT_EQ(SeCheckAndUpdateMk(domain, alwaysRenew), OvraBase::SE_ERR_MK_LIMIT);
    EXPECT_EQ(VardoGetMkCountByDomain(domain), 100);
    EXPECT_EQ(sink_.Errors(), std::vector<std::string>{WithInfo("MkCount exceeds limit.", 1004)});

    // Data encrypted under the newest key still comes back.
    const std::string text = Encrypt(domain);
    std::vector<char> plain(text.size() + 1, '\0');
    EXPECT_EQ(PaskMemDecryptBase64(domain, text.data(), static_cast<uint32_t>(text.size()), plain.data(),
                                   static_cast<uint32_t>(plain.size())),
              0);
    EXPECT_EQ(std::string(plain.data()), secret_);
}

}  // namespace
