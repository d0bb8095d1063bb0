// Engine speed: start on existing stores, and encrypt / decrypt of 100 bytes
// beside raw EVP AES-GCM on the same input in the same binary.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "VardoKms/VardoKms.h"
#include "basic/OpenSslPtr.h"

namespace {

constexpr uint32_t PLAIN_SIZE = 100;

int32_t FreeKey()
{
    for (int32_t key = 0x5EB00000 + ((getpid() & 0xFFF) << 4);; ++key) {
        if (semget(key, 1, 0) < 0 && errno == ENOENT) {
            return key;
        }
    }
}

void RemoveSet(int32_t key)
{
    const int id = semget(key, 1, 0);
    if (id >= 0) {
        semctl(id, 0, IPC_RMID);
    }
}

// Key stores in a scratch directory with a few domains and keys, made once.
struct Stores {
    std::string dir;
    TagVardoConfig config;
    Stores()
    {
        char pattern[] = "/tmp/vardokms-bench-XXXXXX";
        dir = mkdtemp(pattern);
        std::memset(&config, 0, sizeof(config));
        std::strcpy(config.primaryKsfPath, (dir + "/vardo.ks").c_str());
        std::strcpy(config.standbyKsfPath, (dir + "/StandbyKsf.ks").c_str());
        config.optionWord0 = 3;
        config.optionWord1 = 1;
        config.semPermission = 0660;
        config.paskAlgorithmId = 9;
        config.optionWord2 = 2054;
        config.semKey = FreeKey();
        if (VeInitialize(&config) == VE_OK) {
            for (uint32_t domain = 0; domain < 4; ++domain) {
                for (int key = 0; key < 3; ++key) {
                    VeCheckAndUpdateMk(domain, VE_MK_LIFETIME_DAYS);
                }
            }
            VeFinalize();
        }
        RemoveSet(config.semKey);
    }
    ~Stores()
    {
        RemoveSet(config.semKey);
        const std::string command = "rm -rf '" + dir + "'";
        if (std::system(command.c_str()) != 0) {
        }
    }
};

Stores& SharedStores()
{
    static Stores stores;
    return stores;
}

// Start and stop as the security service does it: VeInitialize on existing
// stores, VeFinalize, removal of the semaphore set.
void BM_EngineStart(benchmark::State& state)
{
    Stores& stores = SharedStores();
    for (auto _ : state) {
        if (VeInitialize(&stores.config) != VE_OK) {
            state.SkipWithError("VeInitialize failed");
            break;
        }
        VeFinalize();
        RemoveSet(stores.config.semKey);
    }
}
BENCHMARK(BM_EngineStart)->Unit(benchmark::kMicrosecond);

class RunningEngine {
public:
    RunningEngine() { ok_ = VeInitialize(&SharedStores().config) == VE_OK; }
    ~RunningEngine()
    {
        VeFinalize();
        RemoveSet(SharedStores().config.semKey);
    }
    bool Ok() const { return ok_; }

private:
    bool ok_;
};

void BM_EngineEncrypt100(benchmark::State& state)
{
    RunningEngine engine;
    const uint32_t algorithm = static_cast<uint32_t>(state.range(0));
    std::vector<uint8_t> plain(PLAIN_SIZE, 0x5A);
    std::vector<uint8_t> cipher(PLAIN_SIZE + VE_CIPHER_OVERHEAD);
    for (auto _ : state) {
        uint32_t length = static_cast<uint32_t>(cipher.size());
        if (!engine.Ok() || PaskEncryptEx(1, algorithm, plain.data(), PLAIN_SIZE, cipher.data(), &length) != VE_OK) {
            state.SkipWithError("PaskEncryptEx failed");
            break;
        }
        benchmark::DoNotOptimize(cipher.data());
    }
}
BENCHMARK(BM_EngineEncrypt100)->Arg(8)->Arg(9);

void BM_EngineDecrypt100(benchmark::State& state)
{
    RunningEngine engine;
    const uint32_t algorithm = static_cast<uint32_t>(state.range(0));
    std::vector<uint8_t> plain(PLAIN_SIZE, 0x5A);
    std::vector<uint8_t> cipher(PLAIN_SIZE + VE_CIPHER_OVERHEAD);
    uint32_t cipherLength = static_cast<uint32_t>(cipher.size());
    if (!engine.Ok() ||
        PaskEncryptEx(1, algorithm, plain.data(), PLAIN_SIZE, cipher.data(), &cipherLength) != VE_OK) {
        state.SkipWithError("setup failed");
        return;
    }
    for (auto _ : state) {
        uint32_t length = PLAIN_SIZE;
        if (PaskDecryptEx(1, cipher.data(), cipherLength, plain.data(), &length) != VE_OK) {
            state.SkipWithError("PaskDecryptEx failed");
            break;
        }
        benchmark::DoNotOptimize(plain.data());
    }
}
BENCHMARK(BM_EngineDecrypt100)->Arg(8)->Arg(9);

// The baseline: what any correct AES-GCM use costs with EVP for the same
// 100 bytes (random nonce, context, key set-up, tag), and nothing else.
using OvraBase::Basic::CipherCtxPtr;
using OvraBase::Basic::CipherPtr;

void BM_RawEvpEncrypt100(benchmark::State& state)
{
    const bool aes128 = state.range(0) == 8;
    CipherPtr algorithm(
        EVP_CIPHER_fetch(nullptr, aes128 ? "AES-128-GCM" : "AES-256-GCM", nullptr));
    uint8_t key[32];
    RAND_bytes(key, sizeof(key));
    std::vector<uint8_t> plain(PLAIN_SIZE, 0x5A);
    std::vector<uint8_t> cipher(PLAIN_SIZE + 16);
    uint8_t nonce[12];
    for (auto _ : state) {
        CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
        int length = 0;
        RAND_bytes(nonce, sizeof(nonce));
        EVP_EncryptInit_ex2(ctx.get(), algorithm.get(), key, nonce, nullptr);
        EVP_EncryptUpdate(ctx.get(), cipher.data(), &length, plain.data(), PLAIN_SIZE);
        EVP_EncryptFinal_ex(ctx.get(), cipher.data() + length, &length);
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, 16, cipher.data() + PLAIN_SIZE);
        benchmark::DoNotOptimize(cipher.data());
    }
    OPENSSL_cleanse(key, sizeof(key));
}
BENCHMARK(BM_RawEvpEncrypt100)->Arg(8)->Arg(9);

void BM_RawEvpDecrypt100(benchmark::State& state)
{
    const bool aes128 = state.range(0) == 8;
    CipherPtr algorithm(
        EVP_CIPHER_fetch(nullptr, aes128 ? "AES-128-GCM" : "AES-256-GCM", nullptr));
    uint8_t key[32];
    uint8_t nonce[12];
    RAND_bytes(key, sizeof(key));
    RAND_bytes(nonce, sizeof(nonce));
    std::vector<uint8_t> plain(PLAIN_SIZE, 0x5A);
    std::vector<uint8_t> cipher(PLAIN_SIZE + 16);
    {
        CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
        int length = 0;
        EVP_EncryptInit_ex2(ctx.get(), algorithm.get(), key, nonce, nullptr);
        EVP_EncryptUpdate(ctx.get(), cipher.data(), &length, plain.data(), PLAIN_SIZE);
        EVP_EncryptFinal_ex(ctx.get(), cipher.data() + length, &length);
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, 16, cipher.data() + PLAIN_SIZE);
    }
    for (auto _ : state) {
        CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
        int length = 0;
        EVP_DecryptInit_ex2(ctx.get(), algorithm.get(), key, nonce, nullptr);
        EVP_DecryptUpdate(ctx.get(), plain.data(), &length, cipher.data(), PLAIN_SIZE);
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, 16, cipher.data() + PLAIN_SIZE);
        if (EVP_DecryptFinal_ex(ctx.get(), plain.data() + length, &length) != 1) {
            state.SkipWithError("tag mismatch");
            break;
        }
        benchmark::DoNotOptimize(plain.data());
    }
    OPENSSL_cleanse(key, sizeof(key));
}
BENCHMARK(BM_RawEvpDecrypt100)->Arg(8)->Arg(9);

}  // namespace
