// The log file opener.
#include "log/LogFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "OvraBase/FileUtils.h"
#include "basic/Owner.h"

namespace OvraBase {
namespace LogSetup {
namespace {

constexpr mode_t PERMISSION_BITS = 07777;

std::string LogFileName()
{
    const char* program = program_invocation_short_name;
    if (program == nullptr || program[0] == '\0' || std::strchr(program, '/') != nullptr ||
        std::strcmp(program, ".") == 0 || std::strcmp(program, "..") == 0) {
        program = "ovra";
    }
    return std::string(program) + ".log";
}

// true when `fd` is of `type`, owned by the running user and has `mode`
// (set now when it had another).
bool OwnedWithMode(int fd, mode_t type, mode_t mode)
{
    struct stat st {};
    return fstat(fd, &st) == 0 && (st.st_mode & S_IFMT) == type && Basic::OwnedByRunningUser(st) &&
           ((st.st_mode & PERMISSION_BITS) == mode || fchmod(fd, mode) == 0);
}

}  // namespace

Basic::UniqueFd OpenLogFile(const std::string& directory)
{
    if (directory.empty() || !FileUtils::CreateDirectories(directory, LOG_DIR_MODE)) {
        return Basic::UniqueFd();
    }
    const Basic::UniqueFd dirFd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dirFd.Valid() || !OwnedWithMode(dirFd.Get(), S_IFDIR, LOG_DIR_MODE)) {
        return Basic::UniqueFd();
    }
    Basic::UniqueFd fd(openat(dirFd.Get(), LogFileName().c_str(),
                              O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, LOG_FILE_MODE));
    if (fd.Valid() && fd.Get() <= STDERR_FILENO) {
        // Standard streams were closed: keep the log file off their numbers,
        // or records meant for stderr would land in it twice.
        fd = Basic::UniqueFd(fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
    if (!fd.Valid() || !OwnedWithMode(fd.Get(), S_IFREG, LOG_FILE_MODE)) {
        return Basic::UniqueFd();
    }
    return fd;
}

}  // namespace LogSetup
}  // namespace OvraBase
