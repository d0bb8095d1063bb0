// Scratch SDK trees and an unprivileged user for end-to-end tests.
//
// Layout of a tree (Root() is what OVRA_SDK_HOME names):
//   Root()/lib/libvardotools.so           copy of the built library
//   Root()/config/streamserver.conf       0600
//   Root()/tools/VardoTools/CertImport/   WorkDir(): the command runs here,
//                                          "./keys" is created here
//   Root()/inputs/                        InputDir(): files handed to the command
#ifndef VARDO_TEST_SUPPORT_TEST_TREE_H
#define VARDO_TEST_SUPPORT_TEST_TREE_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace VardoTest {

// A streamserver.conf with every key the tool needs and one the tool leaves alone.
extern const char* const DEFAULT_STREAM_SERVER_CONF;

class SdkTree {
public:
    // Creates a new tree under /tmp (removed again by the destructor).
    SdkTree();
    ~SdkTree();
    SdkTree(const SdkTree&) = delete;
    SdkTree& operator=(const SdkTree&) = delete;

    const std::string& Root() const { return root_; }
    std::string WorkDir() const;
    std::string KeysDir() const;     // WorkDir() + "/keys"
    std::string ConfigPath() const;  // Root() + "/config/streamserver.conf"
    std::string InputDir() const;

    // Replaces the configuration file's content and sets its mode.
    void WriteConfig(const std::string& text, mode_t mode = 0600) const;
    std::string ReadConfig() const;

    // Hands the whole tree to another user (for permission tests).
    void ChownAll(uid_t uid, gid_t gid) const;

    // The environment a run in this tree needs: OVRA_SDK_HOME=Root().
    std::pair<std::string, std::string> SdkHomeEnv() const { return {"OVRA_SDK_HOME", root_}; }

private:
    std::string root_;
};

// Whole file as bytes; "" when it cannot be read.
std::string ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const std::string& bytes, mode_t mode = 0600);
// Permission bits of `path` (not followed), or -1.
int FileMode(const std::string& path);

// An unprivileged account for tests whose point is a permission refusal
// (root ignores permission bits). Created with useradd on first use when
// running as root; nullopt when that is impossible.
struct TestUser {
    std::string name;
    uid_t uid;
    gid_t gid;
};
std::optional<TestUser> UnprivilegedUser();

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_TEST_TREE_H
