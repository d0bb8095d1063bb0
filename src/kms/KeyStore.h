// The two key store files on disk: safe reading, atomic durable writing, and
// the choice (and repair) between the primary and the standby copy.
//
// Callers hold the engine's locks (Locks.h) around every function here: only
// the lock holder writes a store, so only it may take a temporary file of a
// store for one that a dead writer left.
#ifndef VARDO_KMS_KEY_STORE_H
#define VARDO_KMS_KEY_STORE_H

#include <cstdint>
#include <string>

#include "StoreContent.h"
#include "VardoKms/KeyStoreReport.h"
#include "VardoKms/VardoKms.h"

namespace VardoKms {

// One copy as read: its health (VardoKms/KeyStoreReport.h) and, when healthy,
// its bytes and content.
struct CopyReading {
    CopyHealth health = CopyHealth::MISSING;
    int32_t code = VE_OK;   // VE_OK when HEALTHY or MISSING, else the reason
    SecureBytes image;      // the bytes read (HEALTHY only)
    StoreContent content;   // decoded (HEALTHY only)
};

// Checks that `path` may be used as a key store: not a link, a regular file,
// owned by the effective user, no mode bits beyond 0600. Missing is fine.
// VE_OK, VE_ERR_STORE_UNSAFE, or VE_ERR_STORE_IO (lstat failed otherwise).
int32_t CheckStorePath(const std::string& path, bool& exists);

// Reads and decodes one copy; never changes anything on disk.
void ReadCopy(const std::string& path, CopyReading& reading);

// Replaces `path` with `image` atomically and durably (0600): a temporary
// ".NAME.XXXXXX" beside it, created exclusively and never through a link, is
// written, fsync'ed and renamed over `path`, then the directory is fsync'ed.
// On failure the temporary file is removed and `path` is as it was.
int32_t WriteCopyAtomically(const std::string& path, const SecureBytes& image);

// Removes the temporary files ".NAME.XXXXXX" of `path` that a writer left
// when it died (a link is removed, not followed), each with a record.
void RemoveStaleTemporary(const std::string& path);

struct StorePaths {
    std::string primary;
    std::string standby;
};

// Opens the pair: reads both copies, picks the newest healthy one
// (NewestHealthyCopy), rebuilds
// the other from it when it is missing, damaged or older (logged), and
// returns its content. When both are missing and `createWhenMissing`, makes a
// new store (fresh root material, no domains) and writes both copies.
// Refuses with VE_ERR_STORE_UNSAFE when a copy is unsafe and with
// VE_ERR_STORE_DAMAGED when no copy is healthy; then nothing is written.
int32_t OpenStores(const StorePaths& paths, bool createWhenMissing, StoreContent& content);

// Writes `content` (its generation already advanced) to the primary, then
// to the standby copy.
int32_t SaveStores(const StorePaths& paths, const StoreContent& content);

}  // namespace VardoKms

#endif  // VARDO_KMS_KEY_STORE_H
