// Atomic, durable replacement of a file through a temporary file and rename.
#include "basic/AtomicFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "basic/Io.h"
#include "basic/Path.h"
#include "basic/UniqueFd.h"

namespace OvraBase {
namespace Basic {

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
    std::string temporary = directory + "/" + TemporaryPrefixFor(destination) + "XXXXXX";
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

int ReplaceFileAtomically(const std::string& destination, mode_t mode, const void* data, std::size_t length,
                          const ReplaceCheck& mayReplace, DirectorySync sync)
{
    return ReplaceFileAtomically(
        destination, mode, [data, length](int fd) { return WriteFull(fd, data, length); }, mayReplace, sync);
}

}  // namespace Basic
}  // namespace OvraBase
