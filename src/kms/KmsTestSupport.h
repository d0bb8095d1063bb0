// Helpers of the engine's tests: scratch stores, semaphore keys that are always
// removed again, an engine per scope, a store with texts, child processes.
#ifndef VARDO_KMS_TEST_SUPPORT_H
#define VARDO_KMS_TEST_SUPPORT_H

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "VardoKms/VardoKms.h"

namespace KmsTest {

// Hands out keys no semaphore set uses yet and removes their sets at scope
// end, also after a failed assertion.
class SemaphoreKeys {
public:
    ~SemaphoreKeys()
    {
        for (int32_t key : keys_) {
            semctl(semget(key, 1, 0), 0, IPC_RMID);
        }
    }
    int32_t Take()
    {
        static int32_t next = 0x5E000000 + static_cast<int32_t>((getpid() & 0x3FFF) << 8);
        while (semget(next, 1, 0) >= 0 || errno != ENOENT) {
            ++next;
        }
        keys_.push_back(next);
        return next++;
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
        path_ = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~ScratchDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& Path() const { return path_; }
    std::string Primary() const { return path_ + "/vardo.ks"; }
    std::string Standby() const { return path_ + "/StandbyKsf.ks"; }

private:
    std::string path_;
};

// The record the key tool fills.
inline TagVardoConfig MakeConfig(const std::string& primary, const std::string& standby, int32_t semKey)
{
    TagVardoConfig config;
    std::memset(&config, 0, sizeof(config));
    std::strncpy(config.primaryKsfPath, primary.c_str(), sizeof(config.primaryKsfPath) - 1);
    std::strncpy(config.standbyKsfPath, standby.c_str(), sizeof(config.standbyKsfPath) - 1);
    config.optionWord0 = 3;
    config.optionWord1 = 1;
    config.semPermission = 0660;
    config.paskAlgorithmId = VE_ALG_AES256_GCM;
    config.optionWord2 = 2054;
    config.semKey = semKey;
    return config;
}

inline std::string ReadFile(const std::string& path)
{
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

inline void WriteFile(const std::string& path, const std::string& bytes)
{
    unlink(path.c_str());
    std::ofstream(path, std::ios::binary) << bytes;
    chmod(path.c_str(), 0600);
}

// Type and mode bits of `path` (not followed), or -1.
inline int FileMode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode) : -1;
}

inline bool Exists(const std::string& path) { return FileMode(path) != -1; }

// Temporary files of an unfinished replacement of `path` (".NAME.XXXXXX" beside it).
inline std::vector<std::string> TemporariesOf(const std::string& path)
{
    const std::filesystem::path store(path);
    const std::string prefix = "." + store.filename().string() + ".";
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(store.parent_path())) {
        const std::string name = entry.path().filename().string();
        if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0) {
            found.push_back(entry.path().string());
        }
    }
    return found;
}

// Starts the engine with a fresh semaphore key (the record changed by
// `tweak`); stops it and removes the set at scope end.
class Session {
public:
    Session(const std::string& primary, const std::string& standby,
            const std::function<void(TagVardoConfig&)>& tweak = {})
    {
        TagVardoConfig config = MakeConfig(primary, standby, key_ = keys_.Take());
        if (tweak) {
            tweak(config);
        }
        result_ = VeInitialize(&config);
    }
    explicit Session(const ScratchDir& dir, const std::function<void(TagVardoConfig&)>& tweak = {})
        : Session(dir.Primary(), dir.Standby(), tweak)
    {
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
    std::string cipher(plain.size() + VE_CIPHER_OVERHEAD, '\0');
    uint32_t length = static_cast<uint32_t>(cipher.size());
    const int32_t result = PaskEncryptEx(domain, algorithm, reinterpret_cast<const uint8_t*>(plain.data()),
                                         static_cast<uint32_t>(plain.size()), reinterpret_cast<uint8_t*>(&cipher[0]),
                                         &length);
    if (rc != nullptr) {
        *rc = result;
    }
    return result == VE_OK ? cipher.substr(0, length) : std::string();
}

// Master key id (low byte) a cipher text names, or -1.
inline int KeyIdOf(const std::string& cipher) { return cipher.size() > 11 ? static_cast<uint8_t>(cipher[11]) : -1; }

// Decrypts into `plain`. A failure that touched the caller's buffer or length
// comes back as -1, so every refused text also proves them untouched.
inline int32_t Decrypt(uint32_t domain, const std::string& cipher, std::string& plain)
{
    const std::string untouched(cipher.size() + 1, '#');
    std::string buffer = untouched;
    uint32_t length = static_cast<uint32_t>(buffer.size());
    const int32_t rc = PaskDecryptEx(domain, reinterpret_cast<const uint8_t*>(cipher.data()),
                                     static_cast<uint32_t>(cipher.size()), reinterpret_cast<uint8_t*>(&buffer[0]),
                                     &length);
    if (rc != VE_OK) {
        return buffer == untouched && length == untouched.size() ? rc : -1;
    }
    plain = buffer.substr(0, length);
    return rc;
}

// Texts in a store: domain and cipher text of PlainFor(domain, index).
using Texts = std::vector<std::pair<uint32_t, std::string>>;
inline std::string PlainFor(uint32_t domain, size_t index)
{
    return "text " + std::to_string(index) + " of domain " + std::to_string(domain);
}

// Keys in domains 0, 1, 2 (domain 1 rotated twice), texts under every key.
inline Texts Populate(const ScratchDir& dir)
{
    Texts texts;
    Session session(dir);
    EXPECT_EQ(VE_OK, session.Result());
    for (uint32_t domain : {0u, 1u, 2u, 1u, 1u}) {
        if (texts.size() >= 3) {
            EXPECT_EQ(VE_OK, VeCheckAndUpdateMk(1, VE_MK_LIFETIME_DAYS));
        }
        texts.emplace_back(domain, Encrypt(domain, 8 + texts.size() % 2, PlainFor(domain, texts.size())));
    }
    return texts;
}

// In a running engine: domain 1 has 3 keys and every text decrypts.
inline void ExpectAllReadable(const Texts& texts)
{
    EXPECT_EQ(3, VardoGetMkCountByDomain(1));
    for (size_t i = 0; i < texts.size(); ++i) {
        std::string plain;
        ASSERT_EQ(VE_OK, Decrypt(texts[i].first, texts[i].second, plain)) << "text " << i;
        EXPECT_EQ(PlainFor(texts[i].first, i), plain);
    }
}

// Runs `body` in a child process, as `uid`/`gid` unless `uid` is 0; returns the
// child's exit status, or -1 when it did not exit.
inline int RunInChild(const std::function<int()>& body, uid_t uid = 0, gid_t gid = 0)
{
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(uid == 0 || (setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0) ? body() : 100);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The unprivileged test user (root passes every permission check), made on
// first use; false when there is none.
inline bool UnprivilegedUser(uid_t& uid, gid_t& gid)
{
    if (getpwnam("vardokmstest") == nullptr &&
        std::system("useradd --system --no-create-home --shell /usr/sbin/nologin vardokmstest >/dev/null 2>&1") != 0) {
        return false;
    }
    const passwd* user = getpwnam("vardokmstest");
    uid = user != nullptr ? user->pw_uid : 0;
    gid = user != nullptr ? user->pw_gid : 0;
    return uid != 0;
}

}  // namespace KmsTest

#endif  // VARDO_KMS_TEST_SUPPORT_H
