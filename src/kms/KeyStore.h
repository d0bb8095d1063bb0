// The two key store files on disk: safe reading, atomic durable writing, and
// the choice (and repair) between the primary and the standby copy.
//
// Callers hold the engine's locks (Locks.h) around every function here: only
// the lock holder writes a store, so only it may take a temporary file of a
// store for one that a dead writer left.
#ifndef VARDO_KMS_KEY_STORE_H
#define VARDO_KMS_KEY_STORE_H

#include <cstdint>
#include <memory>
#include <string>

#include "StoreContent.h"
#include "VardoKms/KeyStoreReport.h"
#include "VardoKms/VardoKms.h"
#include "basic/UniqueFd.h"

namespace VardoKms {

// One copy as read: its health (VardoKms/KeyStoreReport.h) and, when healthy,
// its bytes and content.
struct CopyReading {
    CopyHealth health = CopyHealth::MISSING;
    int32_t code = VE_OK;                        // VE_OK when HEALTHY or MISSING, else the reason
    std::shared_ptr<const SecureBytes> image;    // the bytes read (HEALTHY only)
    StoreContent content;                        // indexed (HEALTHY only)
};

// The health of a copy whose reading ended with `code` (`exists` false: it
// was not there).
CopyHealth HealthOf(int32_t code, bool exists);

// Checks that `path` may be used as a key store: not a link, a regular file,
// owned by the effective user, no mode bits beyond 0600. Missing is fine.
// VE_OK, VE_ERR_STORE_UNSAFE, or VE_ERR_STORE_IO (lstat failed otherwise).
int32_t CheckStorePath(const std::string& path, bool& exists);

// Opens a copy for reading under the same rules, checked again on the open
// file (the name may have changed meanwhile): `fd` and its `size`, or
// `exists` false (VE_OK); VE_ERR_STORE_UNSAFE, VE_ERR_STORE_IO, or
// VE_ERR_STORE_DAMAGED for a file larger than any image.
int32_t OpenCopy(const std::string& path, OvraBase::Basic::UniqueFd& fd, std::size_t& size, bool& exists);

// Reads and checks one copy; never changes anything on disk. No key is
// unwrapped.
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

// What OpenStores does when neither copy exists.
enum class BothMissing {
    REFUSE,       // VE_ERR_STORE_IO: the stores an engine ran on are gone
    START_EMPTY,  // a new store in memory (generation 0), written by its first change
};

// Opens the pair: reads both copies (the standby is only compared with the
// primary when that is healthy), picks the newest healthy one
// (NewestHealthyCopy), rebuilds the other from it when it is missing, damaged
// or older (logged), and returns its content. When both are missing, as
// `bothMissing` says. Refuses with VE_ERR_STORE_UNSAFE when a copy is unsafe
// and with VE_ERR_STORE_DAMAGED when no copy is healthy; then nothing is
// written.
int32_t OpenStores(const StorePaths& paths, BothMissing bothMissing, StoreContent& content);

// Checks that both stores can be made where the paths say: a temporary file
// of each store's own naming is created beside it and removed again.
int32_t CheckStoresCreatable(const StorePaths& paths);

// Writes `content` (its generation already advanced) to the primary, then to
// the standby copy, each synced and renamed into place, then syncs their
// directory once. `creating`: neither file existed; if the standby cannot be
// written, the primary just made is removed again.
int32_t SaveStores(const StorePaths& paths, const StoreContent& content, bool creating);

}  // namespace VardoKms

#endif  // VARDO_KMS_KEY_STORE_H
