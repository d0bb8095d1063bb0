// File checks and owner-only file operations of the SDK.
//
// "Owned" always means owned by the running user, and the running user has
// one definition for the whole system: OvraBase::Basic::RunningUser() in
// basic/Owner.h, the process's effective user id.
// "Within a mode" means no permission bit outside that mode is set.
// Nothing here that writes or changes a mode ever follows a symbolic link
// at the destination.
#ifndef OVRA_BASE_FILE_UTILS_H
#define OVRA_BASE_FILE_UTILS_H

#include <cstdint>
#include <string>

#include "OvraBase/Export.h"

namespace OvraBase {

class OVRA_EXPORT FileUtils {
public:
    // Largest file, in bytes, that IsFileValid accepts.
    static constexpr int64_t MAX_FILE_SIZE = 16 * 1024 * 1024;

    // Canonical absolute form of `path` (links and dot segments resolved) in
    // `resolvedPath`. With `allowMissing` false the whole path must exist; with
    // true only its parent must (the last name is appended as given).
    // false when the path is empty, longer than PATH_MAX, does not resolve, or
    // is itself a symbolic link (links in its directories are resolved).
    static bool RegularFilePath(const std::string& path, std::string& resolvedPath, bool allowMissing);

    // true when `path` names an existing regular file of at most MAX_FILE_SIZE
    // bytes. With `checkPermission` true it must also not be a symbolic link,
    // be owned by the running user and be readable by its owner.
    static bool IsFileValid(const std::string& path, bool checkPermission);

    // true when `path` itself is a symbolic link (not followed).
    static bool IsSymlink(const std::string& path);

    // true when something exists at `path` (a dangling link counts).
    static bool CheckFileExists(const std::string& path);

    // true when `path` is an existing directory (not a link to one).
    static bool CheckDirectoryExists(const std::string& path);

    // Creates `path` and any missing parents, each new directory with `mode`.
    // true on success or when the directory already exists.
    static bool CreateDirectories(const std::string& path, uint32_t mode);

    // true when `path` (not followed if a link) is owned by the running user.
    // With `strict` false, root-owned paths are accepted as well.
    static bool ConstrainOwner(const std::string& path, bool strict);

    // true when the permission bits of `path` (not followed if a link) lie
    // within `mode`. With `strict` true the path must also be owned by the
    // running user.
    static bool ConstrainPermission(const std::string& path, uint32_t mode, bool strict);

    // Set the permission bits of a directory / regular file to `mode`.
    // Refuse symbolic links and other file types.
    static bool ModifyDirPermission(const std::string& path, const uint32_t& mode);
    static bool ModifyFilePermission(const std::string& path, const uint32_t& mode);

    // Copies the bytes of `source` to `destination`. The copy is written to a
    // temporary file ".NAME.XXXXXX" in the destination's directory (0600),
    // synced, then renamed over the destination, so a failure or a kill never
    // leaves a half-written destination. The directory is not synced here: a
    // caller that copies several files into one directory syncs it once after
    // the last (Basic::SyncDirectory) to make the renames durable. An
    // existing destination that is a regular file of the running user is
    // replaced whatever its mode (an earlier read-only copy included). false
    // when the source cannot be read, or the destination exists and is not a
    // regular file (a link is never followed) or not the running user's.
    // The destination gets mode 0600.
    static bool CopyFile(const std::string& source, const std::string& destination);
};

}  // namespace OvraBase

#endif  // OVRA_BASE_FILE_UTILS_H
