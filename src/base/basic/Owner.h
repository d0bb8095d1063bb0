// The one definition of "the running user" and of the owner-only rules that
// every file check of the system applies.
#ifndef OVRA_BASE_BASIC_OWNER_H
#define OVRA_BASE_BASIC_OWNER_H

#include <sys/stat.h>
#include <sys/types.h>

namespace OvraBase {
namespace Basic {

// The user whose files the process creates and must own: the effective uid.
uid_t RunningUser() noexcept;

// true when `st` belongs to the running user.
bool OwnedByRunningUser(const struct stat& st) noexcept;

// true when `st` is a regular file of the running user with no permission
// bit outside `mode` (so 0600 refuses group, other and the special bits).
bool IsOwnRegularFileWithin(const struct stat& st, mode_t mode) noexcept;

}  // namespace Basic
}  // namespace OvraBase

#endif  // OVRA_BASE_BASIC_OWNER_H
