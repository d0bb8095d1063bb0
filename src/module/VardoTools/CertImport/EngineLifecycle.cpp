// Engine lifecycle: start and stop of the key-management engine around its
// System V semaphore, the cap on master keys per domain, and plain forwards.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/SecurityService");

namespace {

// Keys tried for the engine's semaphore set, in increasing order; the end
// mark itself is never tried.
constexpr key_t SEM_KEY_FIRST = 0x20161111;
constexpr key_t SEM_KEY_END = 0x20169999;

// A domain may hold at most this many master keys before rotation is refused.
constexpr int32_t MAX_MASTER_KEYS = 99;

}  // namespace

int32_t SeInitialize(TagVardoConfig* record)
{
    if (record == nullptr) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", OvraBase::APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }
    record->semKey = 0;
    // A look-up only (no IPC_CREAT): a key is free when no set exists for it.
    // A set that exists, readable or not, or any other error moves on. The
    // engine creates the set itself; between this look-up and its creation
    // another process may take the key, which nothing here can prevent.
    for (key_t key = SEM_KEY_FIRST; key != SEM_KEY_END; ++key) {
        if (semget(key, 1, record->semPermission) == -1 && errno == ENOENT) {
            record->semKey = key;
            break;
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
