// Engine lifecycle and master key management: VeInitialize, VeFinalize,
// VeCheckAndUpdateMk(Ex), VeUpdateRootKey, VardoGetMkCountByDomain.
#include <openssl/crypto.h>
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <ctime>

#include "Crypto.h"
#include "EngineState.h"
#include "OvraBase/Log.h"

OVRA_LOG_UNIT("src/kms/Engine");

namespace VardoKms {
namespace {

constexpr int64_t SECONDS_PER_DAY = 86400;

std::unique_ptr<EngineState>& EngineSlot()
{
    static std::unique_ptr<EngineState> slot;
    return slot;
}

std::atomic<uint64_t> g_forkGeneration{0};

void CountFork() { g_forkGeneration.fetch_add(1, std::memory_order_relaxed); }

// The fork handler is registered at the first start, not at load, so that
// merely loading the library does nothing.
int32_t WatchForks()
{
    static bool registered = false;
    if (!registered) {
        if (pthread_atfork(nullptr, nullptr, CountFork) != 0) {
            OVRA_LOG_ERROR("Cannot register the key engine's fork handler");
            return VE_ERR_INTERNAL;
        }
        registered = true;
    }
    return VE_OK;
}

bool PathFieldValid(const char (&field)[4096])
{
    const void* end = std::memchr(field, '\0', sizeof(field));
    return end != nullptr && field[0] != '\0';
}

bool AllZero(const uint8_t* bytes, std::size_t length)
{
    for (std::size_t i = 0; i < length; ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

// Checks the record; names the first offending field in the log.
int32_t ValidateConfig(const TagVardoConfig& config)
{
    const char* problem = nullptr;
    if (!PathFieldValid(config.primaryKsfPath)) {
        problem = "primaryKsfPath is empty or not terminated";
    } else if (!PathFieldValid(config.standbyKsfPath)) {
        problem = "standbyKsfPath is empty or not terminated";
    } else if (std::strcmp(config.primaryKsfPath, config.standbyKsfPath) == 0) {
        problem = "primary and standby key store are the same path";
    } else if (config.optionWord0 != VE_OPTION0_STORE_FORMAT_V3) {
        problem = "optionWord0 (store format) is not 3";
    } else if (config.optionWord1 != VE_OPTION1_NO_AUTO_CREATE && config.optionWord1 != VE_OPTION1_AUTO_CREATE_MK) {
        problem = "optionWord1 (first master key creation) is not 0 or 1";
    } else if (config.optionWord2 != VE_OPTION2_REQUIRED) {
        problem = "optionWord2 (required guarantees) is not 0x806";
    } else if ((config.semPermission & ~0777) != 0 || (config.semPermission & 0600) != 0600) {
        problem = "semPermission is not a mode within 0777 that includes 0600";
    } else if (config.paskAlgorithmId != VE_ALG_AES128_GCM && config.paskAlgorithmId != VE_ALG_AES256_GCM) {
        problem = "paskAlgorithmId is not 8 or 9";
    } else if (config.semKey == 0) {
        problem = "semKey is 0";
    } else if (!AllZero(config.zeroBlock, sizeof(config.zeroBlock)) || config.zeroWord0 != 0 ||
               config.zeroWord1 != 0 || config.zeroHalf != 0) {
        problem = "a reserved field is not zero";
    }
    if (problem != nullptr) {
        OVRA_LOG_ERROR("Key engine record refused: " << problem);
        return VE_ERR_INVALID_CONFIG;
    }
    return VE_OK;
}

int32_t Initialize(const TagVardoConfig* config)
{
    if (config == nullptr) {
        return VE_ERR_INVALID_PARAM;
    }
    int32_t rc = ValidateConfig(*config);
    if (rc != VE_OK) {
        return rc;
    }
    std::lock_guard<std::mutex> guard(EngineMutex());
    if (RunningEngine() != nullptr) {
        return VE_ERR_ALREADY_INITIALIZED;
    }
    rc = WatchForks();
    if (rc != VE_OK) {
        return rc;
    }
    auto engine = std::make_unique<EngineState>();
    engine->paths.primary = config->primaryKsfPath;
    engine->paths.standby = config->standbyKsfPath;
    engine->autoCreateFirstKey = config->optionWord1 == VE_OPTION1_AUTO_CREATE_MK;
    rc = engine->semaphore.Create(config->semKey, config->semPermission);
    if (rc != VE_OK) {
        return rc;
    }
    rc = engine->lockFile.Open(engine->paths.primary + ".lock");
    if (rc == VE_OK) {
        StoreTransaction transaction(engine->semaphore, engine->lockFile);
        rc = transaction.Result();
        if (rc == VE_OK) {
            // Temporary files of a writer that died: only the lock holder
            // writes them, so any that exist now are stale copies of a store.
            RemoveStaleTemporary(engine->paths.primary);
            RemoveStaleTemporary(engine->paths.standby);
            rc = OpenStores(engine->paths, BothMissing::START_EMPTY, engine->content);
        }
        // No store yet: the first change writes both, its key already in
        // them. That they can be made there is checked now, so that a start
        // where they cannot fails as it always did.
        if (rc == VE_OK && engine->content.generation == 0) {
            engine->storesMayBeCreated = true;
            rc = CheckStoresCreatable(engine->paths);
        }
    }
    if (rc != VE_OK) {
        // A failed start leaves nothing: the lock is dropped with the file
        // descriptor and the semaphore set we created goes away.
        engine->lockFile.Close();
        engine->semaphore.Remove();
        OVRA_LOG_ERROR("Key engine start failed with code " << rc);
        return rc;
    }
    engine->forkGeneration = ForkGeneration();
    OVRA_LOG_INFO("Key engine started on " << engine->paths.primary << " and " << engine->paths.standby << " ("
                                           << engine->content.domains.size() << " domains, "
                                           << engine->content.KeyCount() << " master keys)");
    EngineSlot() = std::move(engine);
    return VE_OK;
}

int32_t Finalize()
{
    std::lock_guard<std::mutex> guard(EngineMutex());
    if (RunningEngine() == nullptr) {
        return VE_ERR_NOT_INITIALIZED;
    }
    // Destroying the state wipes every key (SecretArray) and closes the lock
    // file; the semaphore set is left for the caller to remove.
    EngineSlot().reset();
    return VE_OK;
}

// Renews the domain's active key when it expires within `advanceDays`; the
// active key's id after the call goes to `activeKeyId`.
int32_t CheckAndUpdate(uint32_t domainId, uint32_t advanceDays, uint32_t& activeKeyId)
{
    std::lock_guard<std::mutex> guard(EngineMutex());
    EngineState* engine = RunningEngine();
    if (engine == nullptr) {
        return VE_ERR_NOT_INITIALIZED;
    }
    uint32_t keyId = 0;
    const int32_t rc = ChangeStores(*engine, [domainId, advanceDays, &keyId](StoreContent& content, bool& changed) {
        const auto found = content.domains.find(domainId);
        const int64_t now = static_cast<int64_t>(std::time(nullptr));
        if (found != content.domains.end()) {
            const KeyInfo active = found->second.Info(found->second.ActiveIndex());
            if (active.expires - now > static_cast<int64_t>(advanceDays) * SECONDS_PER_DAY) {
                keyId = active.id;
                return VE_OK;
            }
        }
        changed = true;
        const int32_t added = AddMasterKey(content, domainId);
        if (added == VE_OK) {
            const Domain& domain = content.domains[domainId];
            keyId = domain.Info(domain.ActiveIndex()).id;
        }
        return added;
    });
    if (rc == VE_OK) {
        activeKeyId = keyId;
    }
    return rc;
}

int32_t UpdateRootKey()
{
    std::lock_guard<std::mutex> guard(EngineMutex());
    EngineState* engine = RunningEngine();
    if (engine == nullptr) {
        return VE_ERR_NOT_INITIALIZED;
    }
    const int32_t rc = ChangeStores(*engine, [](StoreContent& content, bool& changed) {
        // The master keys stay, re-wrapped under the new root.
        changed = true;
        return ReplaceRoot(content);
    });
    if (rc == VE_OK) {
        OVRA_LOG_INFO("Key store root key replaced (version " << engine->content.rootVersion << ")");
    }
    return rc;
}

int32_t CountKeys(uint32_t domainId, int32_t& count)
{
    std::lock_guard<std::mutex> guard(EngineMutex());
    EngineState* engine = RunningEngine();
    if (engine == nullptr) {
        return VE_ERR_NOT_INITIALIZED;
    }
    const int32_t rc = ReloadStores(*engine);
    if (rc != VE_OK) {
        return rc;
    }
    auto found = engine->content.domains.find(domainId);
    count = found == engine->content.domains.end() ? 0 : static_cast<int32_t>(found->second.Count());
    return VE_OK;
}

}  // namespace

std::mutex& EngineMutex()
{
    static std::mutex mutex;
    return mutex;
}

EngineState* RunningEngine()
{
    std::unique_ptr<EngineState>& slot = EngineSlot();
    if (slot && slot->forkGeneration != ForkGeneration()) {
        slot->lockFile.Abandon();
        slot->semaphore.Forget();
        slot.reset();
    }
    return slot.get();
}

uint64_t ForkGeneration() { return g_forkGeneration.load(std::memory_order_relaxed); }

int32_t ChangeStores(EngineState& engine, const std::function<int32_t(StoreContent&, bool&)>& change)
{
    StoreTransaction transaction(engine.semaphore, engine.lockFile);
    int32_t rc = transaction.Result();
    if (rc != VE_OK) {
        return rc;
    }
    StoreContent fresh;
    rc = OpenStores(engine.paths, engine.storesMayBeCreated ? BothMissing::START_EMPTY : BothMissing::REFUSE, fresh);
    if (rc != VE_OK) {
        return rc;
    }
    bool changed = false;
    rc = change(fresh, changed);
    if (rc != VE_OK) {
        return rc;
    }
    if (changed) {
        const bool creating = fresh.generation == 0;
        fresh.generation += 1;
        rc = SaveStores(engine.paths, fresh, creating);
        if (rc != VE_OK) {
            return rc;
        }
    }
    if (fresh.generation != 0) {
        engine.storesMayBeCreated = false;  // the stores exist now: never made again from memory
    }
    if (CRYPTO_memcmp(fresh.root.Data(), engine.content.root.Data(), fresh.root.Size()) != 0) {
        engine.dataKeys.clear();  // keys of another root are not trusted to stay the same
    }
    engine.content = std::move(fresh);
    return VE_OK;
}

int32_t ReloadStores(EngineState& engine)
{
    return ChangeStores(engine, [](StoreContent&, bool&) { return VE_OK; });
}

int32_t AddMasterKey(StoreContent& content, uint32_t domainId)
{
    auto found = content.domains.find(domainId);
    if (found == content.domains.end() && content.domains.size() >= VE_MAX_DOMAINS) {
        OVRA_LOG_ERROR("Key store holds " << VE_MAX_DOMAINS << " domains; domain " << domainId << " refused");
        return VE_ERR_MK_LIMIT;
    }
    const Domain* domain = found == content.domains.end() ? nullptr : &found->second;
    if (domain != nullptr &&
        (domain->Count() >= VE_MAX_MK_PER_DOMAIN || domain->Info(domain->Count() - 1).id == UINT32_MAX)) {
        OVRA_LOG_ERROR("Domain " << domainId << " holds its most master keys; no new key");
        return VE_ERR_MK_LIMIT;
    }
    KeyInfo info;
    info.id = domain == nullptr ? 1 : domain->Info(domain->Count() - 1).id + 1;
    info.created = static_cast<int64_t>(std::time(nullptr));
    info.expires = info.created + VE_MK_LIFETIME_DAYS * SECONDS_PER_DAY;
    SecretArray<MASTER_KEY_SIZE> key;
    int32_t rc = RandomBytes(key.Data(), key.Size());
    if (rc == VE_OK) {
        rc = AddKey(content, domainId, info, key);
    }
    if (rc != VE_OK) {
        return rc;
    }
    OVRA_LOG_INFO("New master key " << info.id << " in domain " << domainId);
    return VE_OK;
}

}  // namespace VardoKms

extern "C" {

int32_t VeInitialize(const TagVardoConfig* config)
{
    return VardoKms::AtBoundary([config] { return VardoKms::Initialize(config); });
}

int32_t VeFinalize(void)
{
    return VardoKms::AtBoundary([] { return VardoKms::Finalize(); });
}

int32_t VeCheckAndUpdateMk(uint32_t domainId, uint32_t advanceDays)
{
    uint32_t activeKeyId = 0;
    return VardoKms::AtBoundary(
        [=, &activeKeyId] { return VardoKms::CheckAndUpdate(domainId, advanceDays, activeKeyId); });
}

int32_t VeCheckAndUpdateMkEx(uint32_t domainId, uint32_t advanceDays, uint32_t* activeKeyId)
{
    if (activeKeyId == nullptr) {
        return VE_ERR_INVALID_PARAM;
    }
    return VardoKms::AtBoundary([=] { return VardoKms::CheckAndUpdate(domainId, advanceDays, *activeKeyId); });
}

int32_t VeUpdateRootKey(void)
{
    return VardoKms::AtBoundary([] { return VardoKms::UpdateRootKey(); });
}

int32_t VardoGetMkCountByDomain(uint32_t domainId)
{
    int32_t count = 0;
    const int32_t rc = VardoKms::AtBoundary([domainId, &count] { return VardoKms::CountKeys(domainId, count); });
    return rc == VE_OK ? count : -rc;
}

}  // extern "C"
