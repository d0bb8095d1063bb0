// Scratch SDK trees under /tmp, whole-file helpers and the unprivileged test account.
#include "TestTree.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace VardoTest {

const char* const DEFAULT_STREAM_SERVER_CONF =
    "server_crt=./old/server.crt\n"
    "ca_crt=./old/ca.crt\n"
    "server_key=./old/server.key\n"
    "server_key_mm=\n"
    "crl=\n"
    "pask_algorithm_id=9\n"
    "rtsp_port=8554\n";

SdkTree::SdkTree()
{
    char pattern[] = "/tmp/vardo-sdk-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        return;
    }
    root_ = pattern;
    for (const char* dir : {"/lib", "/config", "/tools", "/tools/VardoTools", "/tools/VardoTools/CertImport",
                            "/inputs"}) {
        fs::create_directory(root_ + dir);
        fs::permissions(root_ + dir, fs::perms::owner_all);
    }
    const std::string library = ReadWholeFile(VARDO_TOOLS_LIBRARY);
    if (library.empty()) {
        ADD_FAILURE() << "cannot read the built library " << VARDO_TOOLS_LIBRARY;
    }
    WriteWholeFile(root_ + "/lib/libvardotools.so", library, 0700);
    WriteConfig(DEFAULT_STREAM_SERVER_CONF);
}

SdkTree::~SdkTree()
{
    if (root_.empty()) {
        return;
    }
    // Directories whose modes the command tightened are opened up first.
    std::error_code ignored;
    for (fs::recursive_directory_iterator it(root_, ignored), end; it != end; it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        }
    }
    fs::remove_all(root_, ignored);
}

std::string SdkTree::WorkDir() const { return root_ + "/tools/VardoTools/CertImport"; }
std::string SdkTree::KeysDir() const { return WorkDir() + "/keys"; }
std::string SdkTree::ConfigPath() const { return root_ + "/config/streamserver.conf"; }
std::string SdkTree::InputDir() const { return root_ + "/inputs"; }

void SdkTree::WriteConfig(const std::string& text, mode_t mode) const { WriteWholeFile(ConfigPath(), text, mode); }

std::string SdkTree::ReadConfig() const { return ReadWholeFile(ConfigPath()); }

void SdkTree::ChownAll(uid_t uid, gid_t gid) const
{
    std::error_code ignored;
    if (lchown(root_.c_str(), uid, gid) != 0) {
        ADD_FAILURE() << "lchown " << root_ << ": " << std::strerror(errno);
    }
    for (fs::recursive_directory_iterator it(root_, ignored), end; it != end; it.increment(ignored)) {
        if (lchown(it->path().c_str(), uid, gid) != 0) {
            ADD_FAILURE() << "lchown " << it->path() << ": " << std::strerror(errno);
        }
    }
}

std::string ReadWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return in ? bytes.str() : "";
}

void WriteWholeFile(const std::string& path, const std::string& bytes, mode_t mode)
{
    // Never through a link; the mode is set explicitly so the umask does not matter.
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        ADD_FAILURE() << "open " << path << " for writing: " << std::strerror(errno);
        return;
    }
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0 && errno != EINTR) {
            ADD_FAILURE() << "write " << path << ": " << std::strerror(errno);
            break;
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    if (fchmod(fd, mode) != 0) {
        ADD_FAILURE() << "fchmod " << path << ": " << std::strerror(errno);
    }
    close(fd);
}

int FileMode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

std::optional<TestUser> UnprivilegedUser()
{
    static const std::optional<TestUser> user = [] {
        // Several test programs may create the account at once: useradd refuses the second creation or is
        // briefly locked, so look again after each try.
        for (int attempt = 0;; ++attempt) {
            if (const passwd* found = getpwnam("vardotest")) {
                return found->pw_uid == 0 ? std::nullopt
                                          : std::optional<TestUser>({found->pw_name, found->pw_uid, found->pw_gid});
            }
            if (attempt == 5 || geteuid() != 0) {
                return std::optional<TestUser>();
            }
            if (std::system("useradd --system --no-create-home --shell /usr/sbin/nologin vardotest >/dev/null 2>&1")) {
                usleep(200 * 1000);
            }
        }
    }();
    return user;
}

}  // namespace VardoTest
