// Helpers of the base library's own tests: scratch directories, whole files,
// and running checks as an unprivileged user (root ignores permission bits, so
// a permission refusal proven as root proves nothing). The base library sits
// below everything else, so its tests do not use the tool's test support.
#ifndef OVRA_BASE_BASE_TEST_SUPPORT_H
#define OVRA_BASE_BASE_TEST_SUPPORT_H

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace BaseTest {

inline void RemoveTree(const std::string& path)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        return;
    }
    if (!S_ISDIR(st.st_mode)) {
        unlink(path.c_str());
        return;
    }
    chmod(path.c_str(), 0700);
    std::vector<std::string> names;
    if (DIR* dir = opendir(path.c_str())) {
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        closedir(dir);
    }
    for (const std::string& name : names) {
        RemoveTree(path + "/" + name);
    }
    rmdir(path.c_str());
}

// A fresh directory under /tmp, removed with its contents at scope end.
class ScratchDir {
public:
    ScratchDir()
    {
        char pattern[] = "/tmp/ovrabase_test.XXXXXX";
        const char* made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "";
        EXPECT_FALSE(path_.empty()) << "mkdtemp: " << std::strerror(errno);
    }
    ~ScratchDir() { RemoveTree(path_); }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& bytes, mode_t mode = 0600)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path << ": " << std::strerror(errno);
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size())) << path;
    ASSERT_EQ(0, fchmod(fd, mode));
    close(fd);
}

// Whole file as bytes; "" when it cannot be read.
inline std::string ReadFile(const std::string& path)
{
    std::string bytes;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return bytes;
    }
    char buffer[4096];
    ssize_t n = 0;
    while ((n = read(fd, buffer, sizeof(buffer))) > 0) {
        bytes.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return bytes;
}

// Permission bits of `path` (not followed), or -1.
inline int Mode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

// Sets an environment variable for one scope and puts the old value back.
class EnvGuard {
public:
    EnvGuard(const char* name, const char* value) : name_(name)
    {
        const char* old = std::getenv(name);
        if (old != nullptr) {
            old_ = old;
        }
        if (value != nullptr) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    }
    ~EnvGuard()
    {
        if (old_.has_value()) {
            setenv(name_.c_str(), old_->c_str(), 1);
        } else {
            unsetenv(name_.c_str());
        }
    }
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

// The unprivileged test account "vardotest", created with useradd when the
// tests run as root; the current user when they do not run as root.
inline std::optional<User> UnprivilegedUser()
{
    if (geteuid() != 0) {
        return User{getuid(), getgid()};
    }
    // Other test programs may create the account at the same moment; useradd
    // then refuses or is briefly locked, so look again after each try.
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (const passwd* entry = getpwnam("vardotest")) {
            if (entry->pw_uid == 0) {
                return std::nullopt;
            }
            return User{entry->pw_uid, entry->pw_gid};
        }
        const int status = std::system(
            "useradd --system --no-create-home --shell /usr/sbin/nologin vardotest >/dev/null 2>&1");
        (void)status;
        if (getpwnam("vardotest") == nullptr) {
            usleep(200 * 1000);
        }
    }
    return std::nullopt;
}

// A named check that runs in the unprivileged child.
using Check = std::pair<std::string, std::function<bool()>>;

// Runs every check in a child process that has dropped to `user` and returns
// the names of the checks that failed (or why the child could not run them).
inline std::vector<std::string> RunChecksAs(const User& user, const std::vector<Check>& checks)
{
    int channel[2];
    if (pipe(channel) != 0) {
        return {"pipe failed"};
    }
    const pid_t child = fork();
    if (child < 0) {
        close(channel[0]);
        close(channel[1]);
        return {"fork failed"};
    }
    if (child == 0) {
        close(channel[0]);
        std::string report;
        if (geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setgid(user.gid) != 0 || setuid(user.uid) != 0 || getuid() == 0)) {
            report = "could not drop privileges\n";
        } else {
            for (const Check& check : checks) {
                if (!check.second()) {
                    report += check.first + "\n";
                }
            }
        }
        if (!report.empty()) {
            (void)!write(channel[1], report.data(), report.size());
        }
        _exit(0);
    }
    close(channel[1]);
    std::string report;
    char buffer[512];
    ssize_t n = 0;
    while ((n = read(channel[0], buffer, sizeof(buffer))) > 0) {
        report.append(buffer, static_cast<size_t>(n));
    }
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    std::vector<std::string> failed;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        failed.push_back("child did not finish");
    }
    size_t start = 0;
    while (start < report.size()) {
        const size_t end = report.find('\n', start);
        failed.push_back(report.substr(start, end - start));
        start = end == std::string::npos ? report.size() : end + 1;
    }
    return failed;
}

// Hands `path` and everything below it (not following links) to `user`.
inline void ChownTree(const std::string& path, const User& user)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        return;
    }
    (void)lchown(path.c_str(), user.uid, user.gid);
    if (!S_ISDIR(st.st_mode)) {
        return;
    }
    if (DIR* dir = opendir(path.c_str())) {
        std::vector<std::string> names;
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        closedir(dir);
        for (const std::string& name : names) {
            ChownTree(path + "/" + name, user);
        }
    }
}

}  // namespace BaseTest

#endif  // OVRA_BASE_BASE_TEST_SUPPORT_H
