// Scratch SDK trees under /tmp, whole-file helpers and the unprivileged test
// account.
#include "TestTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

extern char** environ;

namespace VardoTest {

const char* const DEFAULT_STREAM_SERVER_CONF =
    "server_crt=./old/server.crt\n"
    "ca_crt=./old/ca.crt\n"
    "server_key=./old/server.key\n"
    "server_key_mm=\n"
    "crl=\n"
    "pask_algorithm_id=9\n"
    "rtsp_port=8554\n";

namespace {

constexpr const char* WORK_SUBDIR = "/tools/VardoTools/CertImport";
constexpr const char* TEST_USER_NAME = "vardotest";

void MakeDirectory(const std::string& path)
{
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        ADD_FAILURE() << "mkdir " << path << ": " << std::strerror(errno);
    }
}

// Removes `path` and everything below it without following links. Directories
// are opened up first, so a tree whose modes were tightened by the command
// (or that belongs to another user) still goes away.
void RemoveTree(const std::string& path)
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
    if (DIR* dir = opendir(path.c_str())) {
        std::vector<std::string> names;
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        closedir(dir);
        for (const auto& name : names) {
            RemoveTree(path + "/" + name);
        }
    }
    rmdir(path.c_str());
}

void ChownTree(const std::string& path, uid_t uid, gid_t gid)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        return;
    }
    if (lchown(path.c_str(), uid, gid) != 0) {
        ADD_FAILURE() << "lchown " << path << ": " << std::strerror(errno);
    }
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
        for (const auto& name : names) {
            ChownTree(path + "/" + name, uid, gid);
        }
    }
}

// Runs a program with arguments; its exit status, or -1.
int RunProgram(const std::vector<std::string>& command)
{
    std::vector<std::string> strings = command;
    std::vector<char*> argv;
    for (auto& s : strings) {
        argv.push_back(s.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

std::optional<TestUser> LookUpUser(const char* name)
{
    struct passwd record {};
    struct passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (getpwnam_r(name, &record, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
        return std::nullopt;
    }
    return TestUser{found->pw_name, found->pw_uid, found->pw_gid};
}

}  // namespace

SdkTree::SdkTree()
{
    char pattern[] = "/tmp/vardo-sdk-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        return;
    }
    root_ = pattern;
    MakeDirectory(root_ + "/lib");
    MakeDirectory(root_ + "/config");
    MakeDirectory(root_ + "/tools");
    MakeDirectory(root_ + "/tools/VardoTools");
    MakeDirectory(WorkDir());
    MakeDirectory(InputDir());

    const std::string library = ReadWholeFile(VARDO_TOOLS_LIBRARY);
    if (library.empty()) {
        ADD_FAILURE() << "cannot read the built library " << VARDO_TOOLS_LIBRARY;
    }
    WriteWholeFile(root_ + "/lib/libvardotools.so", library, 0700);
    WriteConfig(DEFAULT_STREAM_SERVER_CONF);
}

SdkTree::~SdkTree()
{
    if (!root_.empty()) {
        RemoveTree(root_);
    }
}

std::string SdkTree::WorkDir() const { return root_ + WORK_SUBDIR; }
std::string SdkTree::KeysDir() const { return WorkDir() + "/keys"; }
std::string SdkTree::ConfigPath() const { return root_ + "/config/streamserver.conf"; }
std::string SdkTree::InputDir() const { return root_ + "/inputs"; }

void SdkTree::WriteConfig(const std::string& text, mode_t mode) const { WriteWholeFile(ConfigPath(), text, mode); }

std::string SdkTree::ReadConfig() const { return ReadWholeFile(ConfigPath()); }

void SdkTree::ChownAll(uid_t uid, gid_t gid) const { ChownTree(root_, uid, gid); }

std::string ReadWholeFile(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return "";
    }
    std::string bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            bytes.append(buffer, static_cast<size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break;
        }
    }
    close(fd);
    return bytes;
}

void WriteWholeFile(const std::string& path, const std::string& bytes, mode_t mode)
{
    // Never through a link; the mode is set explicitly so the umask does not matter.
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        ADD_FAILURE() << "open " << path << " for writing: " << std::strerror(errno);
        return;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ADD_FAILURE() << "write " << path << ": " << std::strerror(errno);
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (fchmod(fd, mode) != 0) {
        ADD_FAILURE() << "fchmod " << path << ": " << std::strerror(errno);
    }
    close(fd);
}

int FileMode(const std::string& path)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        return -1;
    }
    return static_cast<int>(st.st_mode & 07777);
}

std::optional<TestUser> UnprivilegedUser()
{
    static std::once_flag once;
    static std::optional<TestUser> user;
    std::call_once(once, [] {
        user = LookUpUser(TEST_USER_NAME);
        if (user.has_value() || geteuid() != 0) {
            return;
        }
        // Several test programs may get here at once; useradd refuses the
        // second creation (or is briefly locked), so look again after each try.
        for (int attempt = 0; attempt < 5 && !user.has_value(); ++attempt) {
            RunProgram({"useradd", "--system", "--no-create-home", "--shell", "/usr/sbin/nologin",
                        TEST_USER_NAME});
            user = LookUpUser(TEST_USER_NAME);
            if (!user.has_value()) {
                usleep(200 * 1000);
            }
        }
    });
    if (user.has_value() && user->uid == 0) {
        return std::nullopt;
    }
    return user;
}

}  // namespace VardoTest
