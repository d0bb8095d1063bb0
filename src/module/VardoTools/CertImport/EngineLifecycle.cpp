// Engine lifecycle: start and stop of the key-management engine around its
// System V semaphore (with the sets that killed runs left reclaimed), the cap
// on master keys per domain, and plain forwards.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <ios>

#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"
#include "basic/Owner.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/SecurityService");

namespace {

// Keys tried for the engine's semaphore set, in increasing order; the end
// mark itself is never tried.
constexpr key_t SEM_KEY_FIRST = 0x20161111;
constexpr key_t SEM_KEY_END = 0x20169999;

// A domain may hold at most this many master keys before rotation is refused.
constexpr int32_t MAX_MASTER_KEYS = 99;

union SemArgument {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// Removes the set `id` (found at `key`) when a process of the running user
// made it and its engine is gone: the set belongs to this user, and the
// process that last operated on it (the engine that created it, which sets
// its value at once and is the only one to use it) no longer exists. A set of
// another user, or of a process that still runs, is never touched. Neither
// is a set whose last process is unknown (pid 0): it was made and not yet set
// up, which its maker may be about to do, or the process lives in a pid
// namespace this one cannot see; such a set costs one key of the range and
// stays. true when the set was removed here.
bool RemoveIfStale(int id, key_t key)
{
    struct semid_ds status {};
    SemArgument argument{};
    argument.buf = &status;
    const uid_t user = OvraBase::Basic::RunningUser();
    if (semctl(id, 0, IPC_STAT, argument) != 0 || status.sem_nsems != 1 || status.sem_perm.uid != user ||
        status.sem_perm.cuid != user) {
        return false;
    }
    const int pid = semctl(id, 0, GETPID);
    if (pid <= 0 || kill(pid, 0) == 0 || errno != ESRCH) {
        return false;
    }
    if (semctl(id, 0, IPC_RMID) != 0) {
        return false;  // another process removed it first, and takes the key
    }
    OVRA_LOG_INFO("Removed the semaphore set of key 0x" << std::hex << key << std::dec << " left by process " << pid
                                                        << ", which no longer exists.");
    return true;
}

}  // namespace

int32_t SeInitialize(TagVardoConfig* record)
{
    if (record == nullptr) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", OvraBase::APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }
    record->semKey = 0;
    // A look-up only (no IPC_CREAT): a key is free when no set exists for it.
    // A set that exists, readable or not, or any other error moves on, except
    // a set that a dead process of this user left: it is removed, and the
    // first key it frees is taken. The walk goes on to the first key that was
    // free, so every set that killed runs left before it goes at once. The
    // engine creates the set itself; between this look-up and its creation
    // another process may take the key, which nothing here can prevent.
    for (key_t key = SEM_KEY_FIRST; key != SEM_KEY_END; ++key) {
        const int id = semget(key, 1, record->semPermission);
        if (id == -1 && errno == ENOENT) {
            if (record->semKey == 0) {
                record->semKey = key;
            }
            break;
        }
        if (id != -1 && RemoveIfStale(id, key) && record->semKey == 0) {
            record->semKey = key;
        }
    }
    if (record->semKey == 0) {
        OVRA_LOG_ERROR_CODE("No semkey available.", OvraBase::APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_NO_SEMKEY;
    }
    return VeInitialize(record);
}

int32_t SeFinalize(const TagVardoConfig* record)
{
    // Key 0 is IPC_PRIVATE, for which semget would make a new set instead of
    // finding one: a record that never got a key (or no record) has no set to
    // delete.
    // IPC_EXCL without IPC_CREAT changes nothing in the look-up; it is kept
    // so that the call can never be mistaken for a creation.
    const int semId = (record == nullptr || record->semKey == 0)
                          ? -1
                          : semget(record->semKey, 1, record->semPermission | IPC_EXCL);
    if (semId == -1) {
        OVRA_LOG_INFO("No signal to delete");
    } else if (semctl(semId, 0, IPC_RMID) != 0) {
        OVRA_LOG_ERROR_CODE("Delete signal failed", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    // The semaphore's fate never changes the result.
    return VeFinalize();
}

int32_t SeCheckAndUpdateMk(uint32_t domainId, uint32_t value)
{
    if (VardoGetMkCountByDomain(domainId) > MAX_MASTER_KEYS) {
        OVRA_LOG_ERROR_CODE("MkCount exceeds limit.", OvraBase::APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_MK_LIMIT;
    }
    return VeCheckAndUpdateMk(domainId, value);
}

int32_t SeGetCipherDataLen(uint32_t plainLength, uint32_t* cipherLength)
{
    return VeGetCipherDataLen(plainLength, cipherLength);
}

int32_t SeUpdateRootKey(void)
{
    return VeUpdateRootKey();
}
