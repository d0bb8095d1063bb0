// The one engine of a process: its settings, locks and loaded key store, and
// the helpers that the C functions of Engine.cpp and DataProtection.cpp share.
// Everything here is used with EngineMutex() held.
#ifndef VARDO_KMS_ENGINE_STATE_H
#define VARDO_KMS_ENGINE_STATE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "Crypto.h"
#include "KeyStore.h"
#include "Locks.h"
#include "StoreContent.h"
#include "VardoKms/VardoKms.h"

namespace VardoKms {

// The data keys of one master key, derived when the key is first used and
// kept as AES-GCM contexts ready for use, and the record the master key was
// unwrapped from: should the stores hold another record under the same id,
// the key is unwrapped again.
struct DataKeys {
    uint8_t record[KEY_RECORD_SIZE] = {};
    GcmKey aes128;
    GcmKey aes256;
};

struct EngineState {
    uint64_t forkGeneration = 0;  // ForkGeneration() when the engine started
    StorePaths paths;
    bool autoCreateFirstKey = true;
    // Neither store existed at start and none has been seen since: the first
    // change creates them (both written once, with that change in them).
    bool storesMayBeCreated = false;
    EngineSemaphore semaphore;
    StoreLockFile lockFile;
    StoreContent content;  // as last read or written under the locks
    std::map<std::pair<uint32_t, uint32_t>, DataKeys> dataKeys;  // by domain and key id
};

std::mutex& EngineMutex();

// The running engine of this process, or null. An engine inherited through
// fork is not this process's: its copy of the keys is wiped and dropped.
EngineState* RunningEngine();

// Counts the forks this process descends from since the engine library was
// first started in its line (a child handler of pthread_atfork adds one), so
// that an inherited engine is told apart without a system call per use.
uint64_t ForkGeneration();

// Runs `change` on a fresh reading of the stores, under both locks; when it
// reports a change, advances the generation and writes both copies. The
// engine's content is replaced only when everything succeeded.
int32_t ChangeStores(EngineState& engine, const std::function<int32_t(StoreContent&, bool&)>& change);

// Reads the stores again under the locks (picks up other processes' keys).
int32_t ReloadStores(EngineState& engine);

// Adds a new active master key to `domainId` of `content` (the previous
// active key becomes retired). VE_ERR_MK_LIMIT when the domain or the store is full.
int32_t AddMasterKey(StoreContent& content, uint32_t domainId);

// Runs `body` and turns anything thrown into a code: nothing crosses the C boundary.
template <typename Body>
int32_t AtBoundary(Body&& body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return VE_ERR_NO_MEMORY;
    } catch (...) {
        return VE_ERR_INTERNAL;
    }
}

}  // namespace VardoKms

#endif  // VARDO_KMS_ENGINE_STATE_H
