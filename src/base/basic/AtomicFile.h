// Replacing a file atomically and durably: the new bytes go to a temporary
// file of the tool's own naming (".NAME.XXXXXX" beside NAME, created
// exclusively, 0600, never through a link), are synced, and are renamed over
// the destination; then the directory is synced. A failure or a kill leaves
// the old file or the new one under the name, never a mix.
#ifndef OVRA_BASE_BASIC_ATOMIC_FILE_H
#define OVRA_BASE_BASIC_ATOMIC_FILE_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace OvraBase {
namespace Basic {

// Writes the new content into the temporary file's descriptor; false on failure.
using ContentWriter = std::function<bool(int fd)>;
// Asked before the temporary file is made and again just before the rename;
// false refuses the replacement (the destination is left as it is).
using ReplaceCheck = std::function<bool(const std::string& destination)>;

// The usual ReplaceCheck: the destination is missing or a regular file of
// the running user, whatever its mode; never a link, a directory or another
// user's file.
bool IsMissingOrOwnRegularFile(const std::string& destination);

enum class DirectorySync {
    NOW,    // sync the directory after the rename (the change is durable on return)
    LATER,  // the caller syncs the directory once after several renames
};

// Replaces `destination` with what `writeContent` writes, giving it `mode`.
// Returns 0 on success, else an errno value; on failure the temporary file is
// removed and the destination is as it was.
int ReplaceFileAtomically(const std::string& destination, mode_t mode, const ContentWriter& writeContent,
                          const ReplaceCheck& mayReplace = nullptr, DirectorySync sync = DirectorySync::NOW);

// The same with the content given as bytes.
int ReplaceFileAtomically(const std::string& destination, mode_t mode, const void* data, std::size_t length,
                          const ReplaceCheck& mayReplace = nullptr, DirectorySync sync = DirectorySync::NOW);

// Prefix of the temporary files made for `destination` (".NAME."), so that a
// later run can find and remove those left by a killed one.
std::string TemporaryPrefixFor(const std::string& destination);

// Removes the temporary files of `destination` that a writer left when it
// died (".NAME.XXXXXX" beside it); a link among them is removed itself,
// never followed. Returns the paths removed. Only a caller that knows no
// replacement of `destination` is under way (it holds the writers' lock) may
// call it.
std::vector<std::string> RemoveStaleTemporaries(const std::string& destination);

}  // namespace Basic
}  // namespace OvraBase

#endif  // OVRA_BASE_BASIC_ATOMIC_FILE_H
