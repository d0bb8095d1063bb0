// The engine's two locks.
//
// EngineSemaphore: the System V semaphore set named by the record's semKey
// (one semaphore, value 1 = free). VeInitialize creates it exclusively; every
// operation that reads or writes the key store files holds it, with SEM_UNDO
// so that the kernel gives it back when the holder dies. The caller (the
// security service) removes the set after VeFinalize.
//
// StoreLockFile: flock on "<primary>.lock" beside the primary store (0600,
// never through a link). Every process picks its own semaphore key, so the
// semaphore alone cannot keep two processes apart; the flock can, because all
// engines on one store open the same lock file. The file stays after use:
// removing a lock file races with the next process that opens it.
//
// Order: in-process mutex, then semaphore, then flock.
#ifndef VARDO_KMS_LOCKS_H
#define VARDO_KMS_LOCKS_H

#include <cstdint>
#include <string>

#include "basic/UniqueFd.h"

namespace VardoKms {

class EngineSemaphore {
public:
    EngineSemaphore() = default;
    ~EngineSemaphore() = default;  // the set outlives the object on purpose
    EngineSemaphore(const EngineSemaphore&) = delete;
    EngineSemaphore& operator=(const EngineSemaphore&) = delete;

    // semget(key, 1, IPC_CREAT | IPC_EXCL | permission), value set to 1.
    int32_t Create(int32_t key, int32_t permission);
    // Removes the set (only used to undo a failed start).
    void Remove();
    int32_t Acquire();
    void Release();
    void Forget() { id_ = -1; }

private:
    int id_ = -1;
};

class StoreLockFile {
public:
    StoreLockFile() = default;
    ~StoreLockFile() = default;
    StoreLockFile(const StoreLockFile&) = delete;
    StoreLockFile& operator=(const StoreLockFile&) = delete;

    // Opens (creating when needed) the lock file; VE_ERR_STORE_UNSAFE when it
    // is a link, not a regular file, of another owner or wider than 0600.
    int32_t Open(const std::string& path);
    int32_t Acquire(bool exclusive = true);
    void Release();
    // Closes the descriptor, which also drops a lock still held.
    void Close() { (void)fd_.Close(); }
    // After fork: drop the inherited descriptor without unlocking, since the
    // open file description (and any lock on it) is shared with the parent.
    void Abandon() { Close(); }

private:
    OvraBase::Basic::UniqueFd fd_;
};

// flock(fd, operation), retried after EINTR; flock's result.
int FlockRetried(int fd, int operation);

// Holds the semaphore and the flock for one scope.
class StoreTransaction {
public:
    StoreTransaction(EngineSemaphore& semaphore, StoreLockFile& lockFile, bool exclusive = true);
    ~StoreTransaction();
    StoreTransaction(const StoreTransaction&) = delete;
    StoreTransaction& operator=(const StoreTransaction&) = delete;
    int32_t Result() const { return result_; }

private:
    EngineSemaphore& semaphore_;
    StoreLockFile& lockFile_;
    bool haveSemaphore_ = false;
    bool haveFile_ = false;
    int32_t result_;
};

}  // namespace VardoKms

#endif  // VARDO_KMS_LOCKS_H
