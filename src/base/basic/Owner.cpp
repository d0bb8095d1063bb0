// The running user and the owner-only file rules.
#include "basic/Owner.h"

#include <unistd.h>

namespace OvraBase {
namespace Basic {

uid_t RunningUser() noexcept
{
    return geteuid();
}

bool OwnedByRunningUser(const struct stat& st) noexcept
{
    return st.st_uid == RunningUser();
}

bool IsOwnRegularFileWithin(const struct stat& st, mode_t mode) noexcept
{
    return S_ISREG(st.st_mode) && OwnedByRunningUser(st) && (st.st_mode & 07777 & ~mode) == 0;
}

}  // namespace Basic
}  // namespace OvraBase
