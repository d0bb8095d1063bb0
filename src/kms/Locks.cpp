// System V semaphore and flock lock file of the engine.
#include "Locks.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "OvraBase/Log.h"
#include "basic/Owner.h"
#include "VardoKms/VardoKms.h"

OVRA_LOG_UNIT("src/kms/Locks");

namespace VardoKms {
namespace {

union SemArgument {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

int SemOp(int id, short delta)
{
    struct sembuf op {};
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    int rc;
    do {
        rc = semop(id, &op, 1);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

}  // namespace

int32_t EngineSemaphore::Create(int32_t key, int32_t permission)
{
    const int id = semget(static_cast<key_t>(key), 1, IPC_CREAT | IPC_EXCL | (permission & 0777));
    if (id < 0) {
        OVRA_LOG_ERROR("Cannot create the engine semaphore set for key 0x" << std::hex << key << std::dec << ": "
                                                                           << std::strerror(errno));
        return VE_ERR_LOCK;
    }
    SemArgument argument{};
    argument.val = 1;
    if (semctl(id, 0, SETVAL, argument) != 0) {
        OVRA_LOG_ERROR("Cannot set up the engine semaphore: " << std::strerror(errno));
        semctl(id, 0, IPC_RMID);
        return VE_ERR_LOCK;
    }
    id_ = id;
    return VE_OK;
}

void EngineSemaphore::Remove()
{
    if (id_ >= 0) {
        semctl(id_, 0, IPC_RMID);
        id_ = -1;
    }
}

int32_t EngineSemaphore::Acquire()
{
    if (id_ < 0 || SemOp(id_, -1) != 0) {
        OVRA_LOG_ERROR("Cannot take the engine semaphore: " << std::strerror(errno));
        return VE_ERR_LOCK;
    }
    return VE_OK;
}

void EngineSemaphore::Release()
{
    if (id_ >= 0) {
        SemOp(id_, 1);
    }
}

int FlockRetried(int fd, int operation)
{
    int rc;
    do {
        rc = flock(fd, operation);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

int32_t StoreLockFile::Open(const std::string& path)
{
    Close();
    OvraBase::Basic::UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600));
    if (!fd.Valid()) {
        const int error = errno;
        OVRA_LOG_ERROR("Cannot open the key store lock file " << path << ": " << std::strerror(error));
        return error == ELOOP ? VE_ERR_STORE_UNSAFE : VE_ERR_STORE_IO;
    }
    struct stat st {};
    if (fstat(fd.Get(), &st) != 0 || !OvraBase::Basic::IsOwnRegularFileWithin(st, 0600)) {
        OVRA_LOG_ERROR("Key store lock file " << path << " is refused: not a regular owner-only file of this user");
        return VE_ERR_STORE_UNSAFE;
    }
    fd_ = std::move(fd);
    return VE_OK;
}

int32_t StoreLockFile::Acquire(bool exclusive)
{
    if (FlockRetried(fd_.Get(), exclusive ? LOCK_EX : LOCK_SH) != 0) {
        OVRA_LOG_ERROR("Cannot lock the key store lock file: " << std::strerror(errno));
        return VE_ERR_LOCK;
    }
    return VE_OK;
}

void StoreLockFile::Release()
{
    if (fd_.Valid()) {
        flock(fd_.Get(), LOCK_UN);
    }
}

StoreTransaction::StoreTransaction(EngineSemaphore& semaphore, StoreLockFile& lockFile, bool exclusive)
    : semaphore_(semaphore), lockFile_(lockFile)
{
    result_ = semaphore_.Acquire();
    if (result_ != VE_OK) {
        return;
    }
    haveSemaphore_ = true;
    result_ = lockFile_.Acquire(exclusive);
    haveFile_ = result_ == VE_OK;
}

StoreTransaction::~StoreTransaction()
{
    if (haveFile_) {
        lockFile_.Release();
    }
    if (haveSemaphore_) {
        semaphore_.Release();
    }
}

}  // namespace VardoKms
