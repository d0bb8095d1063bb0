// Helpers of the base library's tests: scratch directories, whole files, and
// checks run as an unprivileged user (root ignores permission bits).
#ifndef OVRA_BASE_BASE_TEST_SUPPORT_H
#define OVRA_BASE_BASE_TEST_SUPPORT_H

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace BaseTest {

// A fresh directory under /tmp, removed with its contents at scope end.
class ScratchDir {
public:
    ScratchDir()
    {
        char pattern[] = "/tmp/ovrabase_test.XXXXXX";
        path_ = mkdtemp(pattern) != nullptr ? pattern : "";
        EXPECT_FALSE(path_.empty());
    }
    ~ScratchDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& bytes, mode_t mode = 0600)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    ASSERT_EQ(0, chmod(path.c_str(), mode)) << path;
}

// Whole file as bytes; "" when it cannot be read.
inline std::string ReadFile(const std::string& path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

// Permission bits of `path` (not followed), or -1.
inline int Mode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

// Sets (or, with nullptr, unsets) an environment variable for one scope.
class EnvGuard {
public:
    EnvGuard(const char* name, const char* value) : name_(name)
    {
        if (const char* old = std::getenv(name)) {
            old_ = old;
        }
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    ~EnvGuard() { old_ ? setenv(name_.c_str(), old_->c_str(), 1) : unsetenv(name_.c_str()); }
    EnvGuard(const EnvGuard&) = delete;
    EnvGuard& operator=(const EnvGuard&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

struct User {
    uid_t uid;
    gid_t gid;
};

// The account "vardotest" (created when running as root), else the current user.
inline std::optional<User> UnprivilegedUser()
{
    if (geteuid() != 0) {
        return User{getuid(), getgid()};
    }
    for (int attempt = 0; attempt < 5; ++attempt) {  // other tests may add it concurrently
        if (const passwd* entry = getpwnam("vardotest")) {
            return entry->pw_uid == 0 ? std::nullopt : std::optional<User>(User{entry->pw_uid, entry->pw_gid});
        }
        (void)!std::system("useradd --system --no-create-home --shell /usr/sbin/nologin vardotest >/dev/null 2>&1");
        usleep(200 * 1000);
    }
    return std::nullopt;
}

// Hands `path` and everything below it (links not followed) to `user`.
inline void ChownTree(const std::string& path, const User& user)
{
    (void)lchown(path.c_str(), user.uid, user.gid);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
        (void)lchown(entry.path().c_str(), user.uid, user.gid);
    }
}

using Check = std::pair<std::string, std::function<bool()>>;

// Runs the checks in a child that dropped to `user`; "" when all held, else the first that failed.
inline std::string RunChecksAs(const User& user, const std::vector<Check>& checks)
{
    const pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(user.gid) != 0 || setuid(user.uid) != 0)) {
            _exit(255);
        }
        for (size_t i = 0; i < checks.size(); ++i) {
            if (!checks[i].second()) {
                _exit(static_cast<int>(i) + 1);
            }
        }
        _exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return "child did not finish";
    }
    const size_t code = static_cast<size_t>(WEXITSTATUS(status));
    return code == 0 ? "" : code <= checks.size() ? checks[code - 1].first : "could not drop privileges";
}

}  // namespace BaseTest

#endif  // OVRA_BASE_BASE_TEST_SUPPORT_H
