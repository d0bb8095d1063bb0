// Engine speed: start and the operator's report over the size of the store
// (1 to 100,000 master keys), and encrypt / decrypt of 100 bytes beside raw
// EVP AES-GCM on the same input in the same binary.
//
// Large stores are made through the engine's own image writer (StoreContent,
// compiled into this program), not by rotating keys one write at a time.
// `vardokms_bench --write-store DIR DOMAINS KEYS` writes such a pair
// (DIR/vardo.ks, DIR/StandbyKsf.ks) and exits: scripts/bench.sh times
// vardo-keys on it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "StoreContent.h"
#include "VardoKms/KeyStoreReport.h"
#include "VardoKms/VardoKms.h"
#include "basic/Io.h"
#include "basic/OpenSslPtr.h"

namespace {

constexpr uint32_t PLAIN_SIZE = 100;
constexpr uint32_t KEYS_PER_DOMAIN = 1000;

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

bool WriteImage(const std::string& path, const VardoKms::SecureBytes& image)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool written = fd >= 0 && OvraBase::Basic::WriteFull(fd, image.data(), image.size());
    return fd >= 0 && close(fd) == 0 && written;
}

// Writes DIR/vardo.ks and DIR/StandbyKsf.ks: `domains` domains of `keys`
// keys each (the last key of each active), through the engine's writer.
bool WriteStores(const std::string& dir, uint32_t domains, uint32_t keys)
{
    VardoKms::StoreContent content;
    if (VardoKms::NewStoreContent(content) != VE_OK) {
        return false;
    }
    content.generation = 1;
    VardoKms::SecretArray<VardoKms::MASTER_KEY_SIZE> key;
    VardoKms::KeyInfo info;
    info.created = static_cast<int64_t>(std::time(nullptr));
    info.expires = info.created + VE_MK_LIFETIME_DAYS * 86400;
    for (uint32_t domain = 0; domain < domains; ++domain) {
        for (info.id = 1; info.id <= keys; ++info.id) {
            if (RAND_bytes(key.Data(), key.Size()) != 1 || VardoKms::AddKey(content, domain, info, key) != VE_OK) {
                return false;
            }
        }
    }
    VardoKms::SecureBytes image;
    return VardoKms::SerializeStore(content, image) == VE_OK && WriteImage(dir + "/vardo.ks", image) &&
           WriteImage(dir + "/StandbyKsf.ks", image);
}

TagVardoConfig RecordFor(const std::string& dir)
{
    TagVardoConfig config;
    std::memset(&config, 0, sizeof(config));
    std::strcpy(config.primaryKsfPath, (dir + "/vardo.ks").c_str());
    std::strcpy(config.standbyKsfPath, (dir + "/StandbyKsf.ks").c_str());
    config.optionWord0 = 3;
    config.optionWord1 = 1;
    config.semPermission = 0660;
    config.paskAlgorithmId = 9;
    config.optionWord2 = 2054;
    config.semKey = FreeKey();
    return config;
}

// Key stores in scratch directories, made once per size and removed at exit.
struct Stores {
    std::string dir;
    TagVardoConfig config;
    bool ok = false;

    explicit Stores(uint32_t keyCount)
    {
        char pattern[] = "/tmp/vardokms-bench-XXXXXX";
        dir = mkdtemp(pattern) != nullptr ? pattern : "";
        const uint32_t domains = (keyCount + KEYS_PER_DOMAIN - 1) / KEYS_PER_DOMAIN;
        ok = !dir.empty() && WriteStores(dir, domains, keyCount / domains);
        config = RecordFor(dir);
    }
    ~Stores()
    {
        RemoveSet(config.semKey);
        const std::string command = "rm -rf '" + dir + "'";
        if (std::system(command.c_str()) != 0) {
        }
    }
};

Stores& StoresOf(uint32_t keyCount)
{
    static std::map<uint32_t, std::unique_ptr<Stores>> made;
    std::unique_ptr<Stores>& stores = made[keyCount];
    if (!stores) {
        stores = std::make_unique<Stores>(keyCount);
    }
    return *stores;
}

Stores& SharedStores() { return StoresOf(12); }

// VeInitialize on existing stores of state.range(0) master keys, as the
// security service starts it (the stop and the set's removal not timed).
void BM_EngineStart(benchmark::State& state)
{
    Stores& stores = StoresOf(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        if (!stores.ok || VeInitialize(&stores.config) != VE_OK) {
            state.SkipWithError("VeInitialize failed");
            break;
        }
        state.PauseTiming();
        VeFinalize();
        RemoveSet(stores.config.semKey);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_EngineStart)->ArgName("keys")->Arg(1)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(
    benchmark::kMillisecond);

// The report behind `vardo-keys status`: both copies read and checked, the
// keys of the one that counts listed.
void BM_StatusReport(benchmark::State& state)
{
    Stores& stores = StoresOf(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        VardoKms::CopyReport primary;
        VardoKms::CopyReport standby;
        if (!stores.ok ||
            VardoKms::InspectKeyStores(stores.config.primaryKsfPath, stores.config.standbyKsfPath,
                                       VardoKms::ReportDetail::KEY_LIST, primary, standby) != VE_OK ||
            primary.health != VardoKms::CopyHealth::HEALTHY || primary.keys.size() != primary.keyCount) {
            state.SkipWithError("report failed");
            break;
        }
        benchmark::DoNotOptimize(primary.keys.data());
    }
}
BENCHMARK(BM_StatusReport)->ArgName("keys")->Arg(1)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(
    benchmark::kMillisecond);

class RunningEngine {
public:
    RunningEngine() { ok_ = SharedStores().ok && VeInitialize(&SharedStores().config) == VE_OK; }
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

int main(int argc, char** argv)
{
    if (argc == 5 && std::strcmp(argv[1], "--write-store") == 0) {
        const bool written = WriteStores(argv[2], static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10)),
                                         static_cast<uint32_t>(std::strtoul(argv[4], nullptr, 10)));
        if (!written) {
            std::fprintf(stderr, "vardokms_bench: cannot write the stores in %s\n", argv[2]);
        }
        return written ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
