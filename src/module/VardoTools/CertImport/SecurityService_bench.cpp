// Benchmarks of the security service:
//   - memory encryption and decryption in base64 of a 100-byte secret, beside
//     the engine's raw PaskEncryptEx / PaskDecryptEx, for algorithms 8 and 9;
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
#include <sched.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
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

const std::string SECRET(100, 's');

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
