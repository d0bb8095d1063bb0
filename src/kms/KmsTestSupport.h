// Helpers shared by the engine's test suites: scratch directories, records,
// semaphore keys that are always removed again, and child processes.
#ifndef VARDO_KMS_TEST_SUPPORT_H
#define VARDO_KMS_TEST_SUPPORT_H

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "VardoKms/VardoKms.h"

namespace KmsTest {

// Removes the semaphore set of `key`, if there is one.
inline void RemoveSemaphore(int32_t key)
{
    const int id = semget(static_cast<key_t>(key), 1, 0);
    if (id >= 0) {
        semctl(id, 0, IPC_RMID);
    }
}

// A key no set uses yet, from a range of this process (the security service
// searches its own range, so tests never take its keys).
inline int32_t FreeSemaphoreKey()
{
    static int32_t next = 0x5E000000 + static_cast<int32_t>((getpid() & 0x3FFF) << 8);
    for (int tries = 0; tries < 100000; ++tries) {
        const int32_t key = next++;
        if (semget(static_cast<key_t>(key), 1, 0) < 0 && errno == ENOENT) {
            return key;
        }
    }
    return 0;
}

// Removes every semaphore set it handed out, also when a test fails.
class SemaphoreKeys {
public:
    ~SemaphoreKeys() { RemoveAll(); }
    int32_t Take()
    {
        const int32_t key = FreeSemaphoreKey();
        keys_.push_back(key);
        return key;
    }
    void RemoveAll()
    {
        for (int32_t key : keys_) {
            RemoveSemaphore(key);
        }
        keys_.clear();
    }

private:
    std::vector<int32_t> keys_;
};

// A scratch directory under /tmp, removed with its content.
class ScratchDir {
public:
    ScratchDir()
    {
        char pattern[] = "/tmp/vardokms-test-XXXXXX";
        const char* made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "";
    }
    ~ScratchDir()
    {
        if (!path_.empty()) {
            const std::string command = "rm -rf '" + path_ + "'";
            if (std::system(command.c_str()) != 0) {
                // nothing more to do in a destructor
            }
        }
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& Path() const { return path_; }
    std::string Primary() const { return path_ + "/vardo.ks"; }
    std::string Standby() const { return path_ + "/StandbyKsf.ks"; }

private:
    std::string path_;
};

// The record the key tool fills, with the given paths and semaphore key.
inline TagVardoConfig MakeConfig(const std::string& primary, const std::string& standby, int32_t semKey,
                                 int32_t algorithm = VE_ALG_AES256_GCM)
{
    TagVardoConfig config;
    std::memset(&config, 0, sizeof(config));
    std::strncpy(config.primaryKsfPath, primary.c_str(), sizeof(config.primaryKsfPath) - 1);
    std::strncpy(config.standbyKsfPath, standby.c_str(), sizeof(config.standbyKsfPath) - 1);
    config.optionWord0 = 3;
    config.optionWord1 = 1;
    config.semPermission = 0660;
    config.paskAlgorithmId = algorithm;
    config.optionWord2 = 2054;
    config.semKey = semKey;
    return config;
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

inline void WriteFile(const std::string& path, const std::string& bytes, mode_t mode = 0600)
{
    unlink(path.c_str());
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << bytes;
    }
    chmod(path.c_str(), mode);
}

// Permission bits of `path` (not followed), or -1.
inline int FileMode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

inline bool Exists(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

// Starts the engine on `dir` with a fresh semaphore key; the destructor stops
// it and removes the set.
class Session {
public:
    explicit Session(const ScratchDir& dir, int32_t algorithm = VE_ALG_AES256_GCM)
        : Session(dir.Primary(), dir.Standby(), algorithm)
    {
    }
    Session(const std::string& primary, const std::string& standby, int32_t algorithm = VE_ALG_AES256_GCM)
    {
        key_ = keys_.Take();
        TagVardoConfig config = MakeConfig(primary, standby, key_, algorithm);
        result_ = VeInitialize(&config);
    }
    ~Session()
    {
        if (result_ == VE_OK) {
            VeFinalize();
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    int32_t Result() const { return result_; }
    int32_t SemKey() const { return key_; }

private:
    SemaphoreKeys keys_;
    int32_t key_ = 0;
    int32_t result_ = -1;
};

// Encrypts `plain` in `domain`; empty on failure (with `rc` set).
inline std::string Encrypt(uint32_t domain, uint32_t algorithm, const std::string& plain, int32_t* rc = nullptr)
{
    uint32_t length = 0;
    int32_t result = PaskGetCipherDataLenEx(static_cast<uint32_t>(plain.size()), &length);
    std::string cipher(length, '\0');
    if (result == VE_OK) {
        result = PaskEncryptEx(domain, algorithm, reinterpret_cast<const uint8_t*>(plain.data()),
                               static_cast<uint32_t>(plain.size()), reinterpret_cast<uint8_t*>(&cipher[0]), &length);
    }
    if (rc != nullptr) {
        *rc = result;
    }
    return result == VE_OK ? cipher.substr(0, length) : std::string();
}

// Decrypts; returns the code and fills `plain` only on success.
inline int32_t Decrypt(uint32_t domain, const std::string& cipher, std::string& plain)
{
    std::string buffer(cipher.size() + 1, '\0');
    uint32_t length = static_cast<uint32_t>(buffer.size());
    const int32_t rc = PaskDecryptEx(domain, reinterpret_cast<const uint8_t*>(cipher.data()),
                                     static_cast<uint32_t>(cipher.size()), reinterpret_cast<uint8_t*>(&buffer[0]),
                                     &length);
    if (rc == VE_OK) {
        plain = buffer.substr(0, length);
    }
    return rc;
}

// Runs `body` in a child process and returns its exit status (or 128 + signal).
inline int RunInChild(const std::function<int()>& body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(body());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// An unprivileged account for tests whose point is a permission or owner
// refusal (root passes every permission check). Made with useradd on first
// use; false when there is none and none can be made.
inline bool UnprivilegedUser(uid_t& uid, gid_t& gid)
{
    static const char kName[] = "vardokmstest";
    struct passwd* entry = getpwnam(kName);
    if (entry == nullptr && geteuid() == 0) {
        if (std::system("useradd --system --no-create-home --shell /usr/sbin/nologin vardokmstest "
                        ">/dev/null 2>&1") != 0) {
            return false;
        }
        entry = getpwnam(kName);
    }
    if (entry == nullptr || entry->pw_uid == 0) {
        return false;
    }
    uid = entry->pw_uid;
    gid = entry->pw_gid;
    return true;
}

// In a child process: becomes `uid`/`gid` for good. False when that failed.
inline bool BecomeUser(uid_t uid, gid_t gid)
{
    return setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0 && geteuid() == uid;
}

}  // namespace KmsTest

#endif  // VARDO_KMS_TEST_SUPPORT_H
