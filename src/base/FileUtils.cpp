// File checks and owner-only file operations of the SDK.
//
// Checks look at the path itself with lstat unless they are documented to
// follow it. Everything that writes or changes a mode works on a descriptor
// opened with O_NOFOLLOW (or creates with O_EXCL), so a link planted at the
// destination is refused rather than followed.
#include "OvraBase/FileUtils.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "basic/AtomicFile.h"
#include "basic/Io.h"
#include "basic/Owner.h"
#include "basic/Path.h"
#include "basic/UniqueFd.h"

namespace OvraBase {
namespace {

using Basic::DirectoryOf;
using Basic::LastName;
using Basic::OwnedByRunningUser;
using Basic::UniqueFd;

constexpr mode_t PERMISSION_BITS = 07777;
constexpr mode_t NEW_COPY_MODE = S_IRUSR | S_IWUSR;

bool Lstat(const std::string& path, struct stat& st)
{
    return !path.empty() && lstat(path.c_str(), &st) == 0;
}

// Sets the mode of `path`, which must be of type `type` (S_IFREG or S_IFDIR)
// and not a link. The descriptor is opened with O_NOFOLLOW; a file its owner
// cannot read is reached through an O_PATH descriptor and its /proc alias,
// which names exactly the inode already checked.
bool SetMode(const std::string& path, mode_t type, mode_t mode)
{
    if (path.empty()) {
        return false;
    }
    const int directoryFlag = type == S_IFDIR ? O_DIRECTORY : 0;
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | directoryFlag));
    if (!fd.Valid()) {
        if (errno != EACCES) {
            return false;
        }
        UniqueFd pathFd(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC | directoryFlag));
        struct stat st {};
        if (!pathFd.Valid() || fstat(pathFd.Get(), &st) != 0 || (st.st_mode & S_IFMT) != type) {
            return false;
        }
        const std::string alias = "/proc/self/fd/" + std::to_string(pathFd.Get());
        return chmod(alias.c_str(), mode & PERMISSION_BITS) == 0;
    }
    struct stat st {};
    if (fstat(fd.Get(), &st) != 0 || (st.st_mode & S_IFMT) != type) {
        return false;
    }
    return fchmod(fd.Get(), mode & PERMISSION_BITS) == 0;
}

}  // namespace

bool FileUtils::RegularFilePath(const std::string& path, std::string& resolvedPath, bool allowMissing)
{
    if (path.empty() || path.size() >= PATH_MAX) {
        return false;
    }
    // A path that is itself a link is not taken as a regular file path: the
    // file an operator names is checked as named, never through a link.
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        return false;
    }
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) != nullptr) {
        resolvedPath = resolved;
        return true;
    }
    if (!allowMissing || errno != ENOENT) {
        return false;
    }
    const std::string name = LastName(path);
    if (name.empty() || name == "." || name == "..") {
        return false;
    }
    if (realpath(DirectoryOf(path).c_str(), resolved) == nullptr) {
        return false;
    }
    std::string result = resolved;
    if (result != "/") {
        result += '/';
    }
    result += name;
    if (result.size() >= PATH_MAX) {
        return false;
    }
    resolvedPath = result;
    return true;
}

bool FileUtils::IsFileValid(const std::string& path, bool checkPermission)
{
    struct stat st {};
    if (path.empty()) {
        return false;
    }
    if (checkPermission) {
        if (lstat(path.c_str(), &st) != 0 || !OwnedByRunningUser(st) || (st.st_mode & S_IRUSR) == 0) {
            return false;
        }
    } else if (stat(path.c_str(), &st) != 0) {
        return false;
    }
    return S_ISREG(st.st_mode) && st.st_size <= MAX_FILE_SIZE;
}

bool FileUtils::IsSymlink(const std::string& path)
{
    struct stat st {};
    return Lstat(path, st) && S_ISLNK(st.st_mode);
}

bool FileUtils::CheckFileExists(const std::string& path)
{
    struct stat st {};
    return Lstat(path, st);
}

bool FileUtils::CheckDirectoryExists(const std::string& path)
{
    struct stat st {};
    return Lstat(path, st) && S_ISDIR(st.st_mode);
}

bool FileUtils::CreateDirectories(const std::string& path, uint32_t mode)
{
    if (path.empty() || path.size() >= PATH_MAX) {
        return false;
    }
    // Walk the components from the top. Existing parents may be reached
    // through links (as /var/run is); the last component must be a real
    // directory, and what we create gets exactly `mode`, whatever the umask.
    size_t position = 0;
    while (position != std::string::npos) {
        position = path.find('/', position + 1);
        const std::string prefix = path.substr(0, position);
        if (prefix.empty() || prefix.back() == '/') {
            continue;  // the root, or a doubled slash
        }
        const bool last = position == std::string::npos || path.find_first_not_of('/', position) == std::string::npos;
        struct stat st {};
        if ((last ? lstat(prefix.c_str(), &st) : stat(prefix.c_str(), &st)) == 0) {
            if (!S_ISDIR(st.st_mode)) {
                return false;
            }
            if (last) {
                return true;
            }
            continue;
        }
        if (errno != ENOENT) {
            return false;
        }
        if (mkdir(prefix.c_str(), static_cast<mode_t>(mode) & PERMISSION_BITS) != 0) {
            // Someone else made it meanwhile: accept it only as a real directory.
            if (errno != EEXIST || lstat(prefix.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
                return false;
            }
        } else if (!SetMode(prefix, S_IFDIR, static_cast<mode_t>(mode))) {
            return false;
        }
        if (last) {
            return true;
        }
    }
    return CheckDirectoryExists(path);
}

bool FileUtils::ConstrainOwner(const std::string& path, bool strict)
{
    struct stat st {};
    if (!Lstat(path, st)) {
        return false;
    }
    return OwnedByRunningUser(st) || (!strict && st.st_uid == 0);
}

bool FileUtils::ConstrainPermission(const std::string& path, uint32_t mode, bool strict)
{
    struct stat st {};
    if (!Lstat(path, st)) {
        return false;
    }
    if (strict && !OwnedByRunningUser(st)) {
        return false;
    }
    return (st.st_mode & PERMISSION_BITS & ~static_cast<mode_t>(mode)) == 0;
}

bool FileUtils::ModifyDirPermission(const std::string& path, const uint32_t& mode)
{
    return SetMode(path, S_IFDIR, static_cast<mode_t>(mode));
}

bool FileUtils::ModifyFilePermission(const std::string& path, const uint32_t& mode)
{
    return SetMode(path, S_IFREG, static_cast<mode_t>(mode));
}

bool FileUtils::CopyFile(const std::string& source, const std::string& destination)
{
    if (source.empty() || destination.empty() || destination.size() >= PATH_MAX || LastName(destination).empty()) {
        return false;
    }
    UniqueFd in(open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!in.Valid() || fstat(in.Get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return false;
    }
    // The destination is checked before the temporary file is made and again
    // just before it is replaced: an earlier copy of ours (read-only, too) may
    // go, a link, a directory or another user's file may not.
    const int error = Basic::ReplaceFileAtomically(
        destination, NEW_COPY_MODE, [&in](int out) { return Basic::CopyAll(in.Get(), out); },
        Basic::IsMissingOrOwnRegularFile, Basic::DirectorySync::LATER);
    return error == 0;
}

}  // namespace OvraBase
