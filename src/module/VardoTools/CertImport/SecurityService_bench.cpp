// Benchmarks of the security service:
//   - memory encryption and decryption in base64 of a 100-byte secret, beside
//     the engine's raw PaskEncryptEx / PaskDecryptEx and beside OpenSSL alone
//     (EVP AES-GCM and EVP base64 of the same bytes, RawEvp*Base64), for
//     algorithms 8 and 9: PaskMemEncryptBase64 / RawEvpEncryptBase64 of one
//     algorithm is what the service adds to the crypto it cannot avoid
//     (scripts/bench.sh prints that ratio);
//   - the semaphore key search of SeInitialize with every key free and with the
//     first thousand keys taken, and the look-up of the whole key range (what a
//     search costs when it finds nothing).
//
// The process moves into an IPC namespace of its own when it may (root), so
// "every key free" holds exactly and no other process's sets interfere. The
// binary is linked with --wrap=VeInitialize: during the key search the engine
// start is skipped, so the numbers are those of the search alone.
#include <benchmark/benchmark.h>
#include <glog/logging.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <safe_mem_lib.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "SecurityService.h"

namespace {
bool g_skipEngineStart = false;
}  // namespace

extern "C" {
int32_t __real_VeInitialize(const TagVardoConfig* config);
int32_t __wrap_VeInitialize(const TagVardoConfig* config)
{
    return g_skipEngineStart ? VE_ERR_INVALID_CONFIG : __real_VeInitialize(config);
}
}

namespace {

namespace fs = std::filesystem;

constexpr key_t FIRST_KEY = 0x20161111;
constexpr key_t END_KEY = 0x20169999;
constexpr int TAKEN_KEYS = 1000;

constexpr int SECRET_SIZE = 100;
const std::string SECRET(SECRET_SIZE, 's');

// Private IPC namespace for the whole run, once.
bool IsolateIpc()
{
    static const bool isolated = unshare(CLONE_NEWIPC) == 0;
    return isolated;
}

// ---- a running engine in a scratch directory holding ./keys ---------------------
struct Engine {
    fs::path previous;
    fs::path root;
    TagVardoConfig record{};
    bool running = false;
};
Engine g_engine;

void StartEngine(const benchmark::State& state)
{
    IsolateIpc();
    FLAGS_minloglevel = google::GLOG_ERROR;  // keep the engine's progress records out of the numbers
    g_engine.previous = fs::current_path();
    std::string pattern = (fs::temp_directory_path() / "security-service-bench-XXXXXX").string();
    g_engine.root = mkdtemp(pattern.data());
    fs::current_path(g_engine.root);
    fs::create_directory("keys");
    fs::permissions("keys", fs::perms::owner_all);

    TagVardoConfig& record = g_engine.record;
    record = TagVardoConfig{};
    std::strcpy(record.primaryKsfPath, "./keys/vardo.ks");
    std::strcpy(record.standbyKsfPath, "./keys/StandbyKsf.ks");
    record.optionWord0 = 3;
    record.optionWord1 = 1;
    record.semPermission = 0660;
    record.paskAlgorithmId = static_cast<int32_t>(state.range(0));
    record.optionWord2 = 2054;
    g_engine.running = SeInitialize(&record) == 0;
}

void StopEngine(const benchmark::State&)
{
    if (g_engine.running) {
        SeFinalize(&g_engine.record);
        g_engine.running = false;
    }
    std::error_code ignored;
    fs::current_path(g_engine.previous, ignored);
    fs::remove_all(g_engine.root, ignored);
}

uint32_t CipherLength()
{
    uint32_t cipherLength = 0;
    SeGetCipherDataLen(static_cast<uint32_t>(SECRET.size()), &cipherLength);
    return cipherLength;
}

void BM_PaskMemEncryptBase64(benchmark::State& state)
{
    if (!g_engine.running) {
        state.SkipWithError("engine did not start");
        return;
    }
    const EncryptParam params{static_cast<uint32_t>(state.range(0)), 0};
    std::vector<char> text(2 * CipherLength(), '\0');
    for (auto _ : state) {
        uint32_t textLength = static_cast<uint32_t>(text.size());
        if (PaskMemEncryptBase64(&params, SECRET.data(), static_cast<uint32_t>(SECRET.size()), text.data(),
                                 &textLength) != 0) {
            state.SkipWithError("encryption failed");
            break;
        }
        benchmark::DoNotOptimize(text.data());
    }
}

void BM_PaskMemDecryptBase64(benchmark::State& state)
{
    if (!g_engine.running) {
        state.SkipWithError("engine did not start");
        return;
    }
    const EncryptParam params{static_cast<uint32_t>(state.range(0)), 0};
    std::vector<char> text(2 * CipherLength(), '\0');
    uint32_t textLength = static_cast<uint32_t>(text.size());
    if (PaskMemEncryptBase64(&params, SECRET.data(), static_cast<uint32_t>(SECRET.size()), text.data(),
                             &textLength) != 0) {
        state.SkipWithError("encryption failed");
        return;
    }
    std::vector<char> plain(textLength + 1, '\0');
    for (auto _ : state) {
        if (PaskMemDecryptBase64(0, text.data(), textLength, plain.data(), static_cast<uint32_t>(plain.size())) != 0) {
            state.SkipWithError("decryption failed");
            break;
        }
        benchmark::DoNotOptimize(plain.data());
    }
}

void BM_PaskEncryptEx(benchmark::State& state)
{
    if (!g_engine.running) {
        state.SkipWithError("engine did not start");
        return;
    }
    std::vector<uint8_t> cipher(CipherLength());
    for (auto _ : state) {
        uint32_t cipherLength = static_cast<uint32_t>(cipher.size());
        if (PaskEncryptEx(0, static_cast<uint32_t>(state.range(0)), reinterpret_cast<const uint8_t*>(SECRET.data()),
                          static_cast<uint32_t>(SECRET.size()), cipher.data(), &cipherLength) != 0) {
            state.SkipWithError("encryption failed");
            break;
        }
        benchmark::DoNotOptimize(cipher.data());
    }
}

void BM_PaskDecryptEx(benchmark::State& state)
{
    if (!g_engine.running) {
        state.SkipWithError("engine did not start");
        return;
    }
    std::vector<uint8_t> cipher(CipherLength());
    uint32_t cipherLength = static_cast<uint32_t>(cipher.size());
    if (PaskEncryptEx(0, static_cast<uint32_t>(state.range(0)), reinterpret_cast<const uint8_t*>(SECRET.data()),
                      static_cast<uint32_t>(SECRET.size()), cipher.data(), &cipherLength) != 0) {
        state.SkipWithError("encryption failed");
        return;
    }
    std::vector<uint8_t> plain(SECRET.size());
    for (auto _ : state) {
        uint32_t plainLength = static_cast<uint32_t>(plain.size());
        if (PaskDecryptEx(0, cipher.data(), cipherLength, plain.data(), &plainLength) != 0) {
            state.SkipWithError("decryption failed");
            break;
        }
        benchmark::DoNotOptimize(plain.data());
    }
}

BENCHMARK(BM_PaskMemEncryptBase64)->ArgName("algorithm")->Arg(8)->Arg(9)->Setup(StartEngine)->Teardown(StopEngine);
BENCHMARK(BM_PaskMemDecryptBase64)->ArgName("algorithm")->Arg(8)->Arg(9)->Setup(StartEngine)->Teardown(StopEngine);
BENCHMARK(BM_PaskEncryptEx)->ArgName("algorithm")->Arg(8)->Arg(9)->Setup(StartEngine)->Teardown(StopEngine);
BENCHMARK(BM_PaskDecryptEx)->ArgName("algorithm")->Arg(8)->Arg(9)->Setup(StartEngine)->Teardown(StopEngine);

// ---- the floor: OpenSSL alone on the same 100 bytes ------------------------------
// AES-GCM under a key made once (AES-128 for algorithm 8, AES-256 for 9), a
// fresh context and random nonce per call, nonce || cipher text || tag encoded
// with EVP_EncodeBlock; decryption decodes, opens and checks the tag. No key
// store, no record, no wipes: the least any protection of the secret costs.
constexpr int NONCE_SIZE = 12;
constexpr int TAG_SIZE = 16;
constexpr int RAW_SEALED_SIZE = NONCE_SIZE + SECRET_SIZE + TAG_SIZE;
constexpr int RAW_TEXT_SIZE = 4 * ((RAW_SEALED_SIZE + 2) / 3);

template <typename T, void (*Free)(T*)>
struct EvpDeleter {
    void operator()(T* object) const { Free(object); }
};
using CipherPtr = std::unique_ptr<EVP_CIPHER, EvpDeleter<EVP_CIPHER, EVP_CIPHER_free>>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, EvpDeleter<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>>;

class RawKey {
public:
    explicit RawKey(int64_t algorithm)
        : cipher_(EVP_CIPHER_fetch(nullptr, algorithm == 8 ? "AES-128-GCM" : "AES-256-GCM", nullptr))
    {
        ok_ = cipher_ != nullptr && RAND_bytes(key_, sizeof(key_)) == 1;
    }
    ~RawKey() { OPENSSL_cleanse(key_, sizeof(key_)); }
    RawKey(const RawKey&) = delete;
    RawKey& operator=(const RawKey&) = delete;

    bool Ok() const { return ok_; }
    const EVP_CIPHER* Cipher() const { return cipher_.get(); }
    const unsigned char* Key() const { return key_; }

private:
    CipherPtr cipher_;
    unsigned char key_[32] = {};
    bool ok_ = false;
};

// Seals plain into sealed (RAW_SEALED_SIZE bytes) and encodes it into text
// (RAW_TEXT_SIZE + 1 bytes); returns the text length, 0 on failure.
int RawEncryptBase64(const RawKey& key, const std::string& plain, unsigned char* sealed, unsigned char* text)
{
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    int length = 0;
    int finalLength = 0;
    if (ctx == nullptr || RAND_bytes(sealed, NONCE_SIZE) != 1 ||
        EVP_EncryptInit_ex2(ctx.get(), key.Cipher(), key.Key(), sealed, nullptr) != 1 ||
        EVP_EncryptUpdate(ctx.get(), sealed + NONCE_SIZE, &length,
                          reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size())) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), sealed + NONCE_SIZE + length, &finalLength) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, TAG_SIZE, sealed + NONCE_SIZE + length + finalLength) !=
            1) {
        return 0;
    }
    return EVP_EncodeBlock(text, sealed, NONCE_SIZE + length + finalLength + TAG_SIZE);
}

// Decodes text into sealed and opens it into plain; returns the plain
// length, -1 when the text or the tag is wrong.
int RawDecryptBase64(const RawKey& key, const unsigned char* text, int textLength, unsigned char* sealed,
                     unsigned char* plain)
{
    int sealedLength = EVP_DecodeBlock(sealed, text, textLength);
    for (int i = textLength; sealedLength > 0 && i > 0 && text[i - 1] == '='; --i) {
        --sealedLength;  // EVP_DecodeBlock counts the padding as data
    }
    if (sealedLength < NONCE_SIZE + TAG_SIZE) {
        return -1;
    }
    const int cipherLength = sealedLength - NONCE_SIZE - TAG_SIZE;
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    int length = 0;
    int finalLength = 0;
    if (ctx == nullptr || EVP_DecryptInit_ex2(ctx.get(), key.Cipher(), key.Key(), sealed, nullptr) != 1 ||
        EVP_DecryptUpdate(ctx.get(), plain, &length, sealed + NONCE_SIZE, cipherLength) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, TAG_SIZE, sealed + NONCE_SIZE + cipherLength) != 1 ||
        EVP_DecryptFinal_ex(ctx.get(), plain + length, &finalLength) != 1) {
        return -1;
    }
    return length + finalLength;
}

void BM_RawEvpEncryptBase64(benchmark::State& state)
{
    const RawKey key(state.range(0));
    unsigned char sealed[RAW_SEALED_SIZE];
    unsigned char text[RAW_TEXT_SIZE + 1];
    if (!key.Ok()) {
        state.SkipWithError("no AES-GCM key");
        return;
    }
    for (auto _ : state) {
        if (RawEncryptBase64(key, SECRET, sealed, text) != RAW_TEXT_SIZE) {
            state.SkipWithError("encryption failed");
            break;
        }
        benchmark::DoNotOptimize(text);
    }
    state.SetLabel("OpenSSL alone");
}

void BM_RawEvpDecryptBase64(benchmark::State& state)
{
    const RawKey key(state.range(0));
    unsigned char sealed[RAW_SEALED_SIZE + 2];  // room for the decoder's padding bytes
    unsigned char text[RAW_TEXT_SIZE + 1];
    unsigned char plain[RAW_SEALED_SIZE];
    const int textLength = key.Ok() ? RawEncryptBase64(key, SECRET, sealed, text) : 0;
    if (textLength != RAW_TEXT_SIZE) {
        state.SkipWithError("encryption failed");
        return;
    }
    for (auto _ : state) {
        if (RawDecryptBase64(key, text, textLength, sealed, plain) != static_cast<int>(SECRET.size())) {
            state.SkipWithError("decryption failed");
            break;
        }
        benchmark::DoNotOptimize(plain);
    }
    state.SetLabel("OpenSSL alone");
}

BENCHMARK(BM_RawEvpEncryptBase64)->ArgName("algorithm")->Arg(8)->Arg(9);
BENCHMARK(BM_RawEvpDecryptBase64)->ArgName("algorithm")->Arg(8)->Arg(9);

// The service's decoder alone on a text as long as that of a 100-byte secret,
// its bytes wiped and freed after each call: the part of PaskMemDecryptBase64
// that its base64 filter chain, made and released in every call, costs.
void BM_DecodeWithBase64(benchmark::State& state)
{
    unsigned char sealed[SECRET_SIZE + VE_CIPHER_OVERHEAD];  // the engine's cipher text of the secret
    unsigned char text[4 * ((sizeof(sealed) + 2) / 3) + 1];
    if (RAND_bytes(sealed, sizeof(sealed)) != 1) {
        state.SkipWithError("no random bytes");
        return;
    }
    const uint32_t textLength = static_cast<uint32_t>(EVP_EncodeBlock(text, sealed, sizeof(sealed)));
    for (auto _ : state) {
        char* bytes = nullptr;
        uint32_t length = 0;
        if (DecodeWithBase64(reinterpret_cast<const char*>(text), textLength, &bytes, &length) != 0) {
            state.SkipWithError("decoding failed");
            break;
        }
        ResetFreeBase64CipherMemory(bytes, length);
    }
}
BENCHMARK(BM_DecodeWithBase64);

// The plain buffer of PaskMemDecryptBase64 for a 100-byte secret: allocated
// zero-filled at the text's length, the secret copied out of it with
// memcpy_s, wiped and freed.
void BM_PlainBuffer(benchmark::State& state)
{
    const int32_t size = 4 * ((SECRET_SIZE + VE_CIPHER_OVERHEAD + 2) / 3);
    char out[SECRET_SIZE];
    for (auto _ : state) {
        char* buffer = AllocBase64CipherMemory(size);
        if (buffer == nullptr || memcpy_s(out, sizeof(out), buffer, SECRET_SIZE) != EOK) {
            state.SkipWithError("no buffer");
            break;
        }
        ResetFreeBase64CipherMemory(buffer, static_cast<uint32_t>(size));
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_PlainBuffer);

// ---- key search --------------------------------------------------------------
std::vector<int> g_takenSets;

void TakeFirstKeys(const benchmark::State& state)
{
    IsolateIpc();
    g_skipEngineStart = true;
    for (key_t key = FIRST_KEY; key < FIRST_KEY + state.range(0); ++key) {
        const int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0600);
        if (id != -1) {
            g_takenSets.push_back(id);
        }
    }
}

void ReleaseFirstKeys(const benchmark::State&)
{
    for (const int id : g_takenSets) {
        semctl(id, 0, IPC_RMID);
    }
    g_takenSets.clear();
    g_skipEngineStart = false;
}

// SeInitialize with the engine start skipped: the time of the key search.
void BM_SeInitializeKeySearch(benchmark::State& state)
{
    if (static_cast<int64_t>(g_takenSets.size()) != state.range(0)) {
        state.SkipWithError("could not take the first keys");
        return;
    }
    TagVardoConfig record{};
    record.semPermission = 0660;
    for (auto _ : state) {
        benchmark::DoNotOptimize(SeInitialize(&record));
    }
    state.counters["key_offset"] = record.semKey - FIRST_KEY;
    state.SetLabel(IsolateIpc() ? "private IPC namespace" : "shared IPC namespace");
}
BENCHMARK(BM_SeInitializeKeySearch)
    ->ArgName("taken")
    ->Arg(0)
    ->Arg(TAKEN_KEYS)
    ->Setup(TakeFirstKeys)
    ->Teardown(ReleaseFirstKeys)
    ->Unit(benchmark::kMicrosecond);

// The look-ups of the whole range, 34952 keys: what SeInitialize spends when
// every key is taken (which this kernel's limit of sets cannot produce).
void BM_LookUpWholeRange(benchmark::State& state)
{
    IsolateIpc();
    for (auto _ : state) {
        int free = 0;
        for (key_t key = FIRST_KEY; key != END_KEY; ++key) {
            free += semget(key, 1, 0660) == -1 ? 1 : 0;
        }
        benchmark::DoNotOptimize(free);
    }
    state.SetItemsProcessed(state.iterations() * (END_KEY - FIRST_KEY));
}
BENCHMARK(BM_LookUpWholeRange)->Unit(benchmark::kMillisecond);

}  // namespace
