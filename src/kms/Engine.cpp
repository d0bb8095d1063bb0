// Engine lifecycle and master key management: VeInitialize, VeFinalize,
// VeCheckAndUpdateMk(Ex), VeUpdateRootKey, VardoGetMkCountByDomain.
#include <unistd.h>

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
            rc = OpenStores(engine->paths, true, engine->content);
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
    engine->pid = getpid();
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
        auto found = content.domains.find(domainId);
        const MasterKey* active = found == content.domains.end() ? nullptr : found->second.Active();
        const int64_t now = static_cast<int64_t>(std::time(nullptr));
        if (active != nullptr && active->expires - now > static_cast<int64_t>(advanceDays) * SECONDS_PER_DAY) {
            keyId = active->id;
            return VE_OK;
        }
        changed = true;
        const int32_t added = AddMasterKey(content, domainId);
        if (added == VE_OK) {
            keyId = content.domains[domainId].Active()->id;
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
        // The master keys stay; writing the store wraps them under the new root.
        const int32_t random = RandomBytes(content.root.Data(), content.root.Size());
        if (random != VE_OK) {
            return random;
        }
        content.rootVersion += 1;
        changed = true;
        return VE_OK;
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
    count = found == engine->content.domains.end() ? 0 : static_cast<int32_t>(found->second.keys.size());
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
    if (slot && slot->pid != getpid()) {
        slot->lockFile.Abandon();
        slot->semaphore.Forget();
        slot.reset();
    }
    return slot.get();
}

int32_t ChangeStores(EngineState& engine, const std::function<int32_t(StoreContent&, bool&)>& change)
{
    StoreTransaction transaction(engine.semaphore, engine.lockFile);
    int32_t rc = transaction.Result();
    if (rc != VE_OK) {
        return rc;
    }
    StoreContent fresh;
    rc = OpenStores(engine.paths, false, fresh);
    if (rc != VE_OK) {
        return rc;
    }
    bool changed = false;
    rc = change(fresh, changed);
    if (rc != VE_OK) {
        return rc;
    }
    if (changed) {
        fresh.generation += 1;
        rc = SaveStores(engine.paths, fresh);
        if (rc != VE_OK) {
            return rc;
        }
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
    Domain& domain = content.domains[domainId];
    if (domain.keys.size() >= VE_MAX_MK_PER_DOMAIN || (!domain.keys.empty() && domain.keys.back().id == UINT32_MAX)) {
        OVRA_LOG_ERROR("Domain " << domainId << " holds its most master keys; no new key");
        return VE_ERR_MK_LIMIT;
    }
    MasterKey key;
    key.id = domain.keys.empty() ? 1 : domain.keys.back().id + 1;
    key.created = static_cast<int64_t>(std::time(nullptr));
    key.expires = key.created + VE_MK_LIFETIME_DAYS * SECONDS_PER_DAY;
    key.state = KeyState::ACTIVE;
    int32_t rc = RandomBytes(key.key.Data(), key.key.Size());
    if (rc == VE_OK) {
        rc = DeriveDataKeys(domainId, key);
    }
    if (rc != VE_OK) {
        if (domain.keys.empty()) {
            content.domains.erase(domainId);
        }
        return rc;
    }
    for (MasterKey& old : domain.keys) {
        old.state = KeyState::RETIRED;
    }
    domain.keys.push_back(key);
    OVRA_LOG_INFO("New master key " << key.id << " in domain " << domainId);
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
