// What a test makes on disk and in its environment, and takes away again:
// scratch directories under /tmp, whole files, modes, an environment variable
// for one scope.
#ifndef VARDO_TEST_SUPPORT_SCRATCH_H
#define VARDO_TEST_SUPPORT_SCRATCH_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace VardoTest {

// A fresh directory under /tmp, removed with everything in it at destruction
// (directories whose modes the code under test tightened are opened up first).
// With `enter` true it is also the working directory while it lives.
class ScratchDir {
public:
    explicit ScratchDir(bool enter = false);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
    std::string previous_;
};

// Sets (or, with nullptr, unsets) an environment variable for one scope.
class EnvGuard {
public:
    EnvGuard(const char* name, const char* value);
    ~EnvGuard();
    EnvGuard(const EnvGuard&) = delete;
    EnvGuard& operator=(const EnvGuard&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// Whole file as bytes; "" when it cannot be read.
std::string ReadWholeFile(const std::string& path);
// Never through a link; the mode is set whatever the umask.
void WriteWholeFile(const std::string& path, const std::string& bytes, mode_t mode = 0600);
// Permission bits of `path` (a link itself: 0777), or -1 when there is nothing.
int FileMode(const std::string& path);
// Temporary files of an unfinished atomic replacement of `path` (".NAME.XXXXXX" beside it).
std::vector<std::string> TemporariesOf(const std::string& path);
// Hands `path` and everything below it (links themselves, not followed) to uid:gid.
void ChownTree(const std::string& path, uid_t uid, gid_t gid);

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_SCRATCH_H
