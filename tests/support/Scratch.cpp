// Scratch directories, whole files, modes and environment guards for tests.
#include "Scratch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace VardoTest {

ScratchDir::ScratchDir(bool enter)
{
    char pattern[] = "/tmp/vardo-test.XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        return;
    }
    path_ = pattern;
    char cwd[PATH_MAX];
    if (enter && getcwd(cwd, sizeof(cwd)) != nullptr && chdir(path_.c_str()) == 0) {
        previous_ = cwd;
    }
}

ScratchDir::~ScratchDir()
{
    if (!previous_.empty() && chdir(previous_.c_str()) != 0) {
        ADD_FAILURE() << "cannot return to " << previous_;
    }
    std::error_code ignored;
    for (fs::recursive_directory_iterator it(path_, ignored), end; it != end; it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        }
    }
    fs::remove_all(path_, ignored);
}

EnvGuard::EnvGuard(const char* name, const char* value) : name_(name)
{
    if (const char* old = std::getenv(name)) {
        old_ = old;
    }
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

EnvGuard::~EnvGuard() { old_ ? setenv(name_.c_str(), old_->c_str(), 1) : unsetenv(name_.c_str()); }

std::string ReadWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return in ? bytes.str() : "";
}

void WriteWholeFile(const std::string& path, const std::string& bytes, mode_t mode)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
    bool ok = fd >= 0;
    for (size_t done = 0; ok && done < bytes.size();) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        ok = n > 0 || (n < 0 && errno == EINTR);
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    EXPECT_TRUE(ok && fchmod(fd, mode) == 0) << "writing " << path << ": " << std::strerror(errno);
    if (fd >= 0) {
        close(fd);
    }
}

int FileMode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

std::vector<std::string> TemporariesOf(const std::string& path)
{
    const fs::path target(path);
    const std::string prefix = "." + target.filename().string() + ".";
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(target.parent_path())) {
        const std::string name = entry.path().filename().string();
        if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0) {
            found.push_back(entry.path().string());
        }
    }
    return found;
}

void ChownTree(const std::string& path, uid_t uid, gid_t gid)
{
    std::error_code ignored;
    bool changed = lchown(path.c_str(), uid, gid) == 0;
    for (fs::recursive_directory_iterator it(path, ignored), end; it != end; it.increment(ignored)) {
        changed = lchown(it->path().c_str(), uid, gid) == 0 && changed;
    }
    EXPECT_TRUE(changed) << "lchown below " << path;
}

}  // namespace VardoTest
