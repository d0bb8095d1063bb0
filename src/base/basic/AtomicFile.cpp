// Atomic, durable replacement of a file through a temporary file and rename.
#include "basic/AtomicFile.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "basic/Io.h"
#include "basic/Owner.h"
#include "basic/Path.h"
#include "basic/UniqueFd.h"

namespace OvraBase {
namespace Basic {
namespace {

// mkostemp replaces these six characters of the template.
constexpr const char UNIQUE_PART[] = "XXXXXX";
constexpr std::size_t UNIQUE_LENGTH = sizeof(UNIQUE_PART) - 1;

struct DirCloser {
    void operator()(DIR* directory) const noexcept { (void)closedir(directory); }
};

}  // namespace

bool IsMissingOrOwnRegularFile(const std::string& destination)
{
    struct stat st {};
    if (lstat(destination.c_str(), &st) != 0) {
        return errno == ENOENT;
    }
    return S_ISREG(st.st_mode) && OwnedByRunningUser(st);
}

std::string TemporaryPrefixFor(const std::string& destination)
{
    return "." + LastName(destination) + ".";
}

int ReplaceFileAtomically(const std::string& destination, mode_t mode, const ContentWriter& writeContent,
                          const ReplaceCheck& mayReplace, DirectorySync sync)
{
    if (destination.empty() || LastName(destination).empty()) {
        return EINVAL;
    }
    if (mayReplace && !mayReplace(destination)) {
        return EPERM;
    }
    const std::string directory = DirectoryOf(destination);
    // mkostemp creates with O_CREAT|O_EXCL and mode 0600: a new file, never a link.
    std::string temporary = directory + "/" + TemporaryPrefixFor(destination) + UNIQUE_PART;
    UniqueFd out(mkostemp(&temporary[0], O_CLOEXEC));
    if (!out.Valid()) {
        return errno;
    }
    int error = 0;
    errno = 0;
    if (fchmod(out.Get(), mode & 07777) != 0 || !writeContent(out.Get()) || fsync(out.Get()) != 0) {
        error = errno != 0 ? errno : EIO;
    }
    if (!out.Close() && error == 0) {
        error = errno;
    }
    // The destination is checked again just before it is replaced.
    if (error == 0 && mayReplace && !mayReplace(destination)) {
        error = EPERM;
    }
    if (error == 0 && rename(temporary.c_str(), destination.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        (void)unlink(temporary.c_str());
        return error;
    }
    if (sync == DirectorySync::NOW && !SyncDirectory(directory.c_str())) {
        return errno != 0 ? errno : EIO;
    }
    return 0;
}

std::vector<std::string> RemoveStaleTemporaries(const std::string& destination)
{
    std::vector<std::string> stale;
    const std::string directory = DirectoryOf(destination);
    const std::string prefix = TemporaryPrefixFor(destination);
    {
        const std::unique_ptr<DIR, DirCloser> listing(opendir(directory.c_str()));
        if (LastName(destination).empty() || !listing) {
            return stale;
        }
        while (const struct dirent* entry = readdir(listing.get())) {
            const std::string name = entry->d_name;
            if (name.size() == prefix.size() + UNIQUE_LENGTH && name.compare(0, prefix.size(), prefix) == 0) {
                stale.push_back(directory + "/" + name);
            }
        }
    }
    // Removed only once the listing is done: a directory changed while it is
    // read may be listed incompletely.
    std::vector<std::string> removed;
    for (const std::string& path : stale) {
        if (unlink(path.c_str()) == 0) {
            removed.push_back(path);
        }
    }
    return removed;
}

int ReplaceFileAtomically(const std::string& destination, mode_t mode, const void* data, std::size_t length,
                          const ReplaceCheck& mayReplace, DirectorySync sync)
{
    return ReplaceFileAtomically(
        destination, mode, [data, length](int fd) { return WriteFull(fd, data, length); }, mayReplace, sync);
}

}  // namespace Basic
}  // namespace OvraBase
