// Key store start-up, pass phrase encryption and decryption of the key tool,
// run against the real engine in a scratch SDK root.
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <glog/logging.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"
#include "TestTree.h"
#include "VardoTools.h"

namespace {

using OvraBase::GetErrorInfo;
using OvraStream::VardoTools;

const char* const KEY_TOOL_UNIT = "src/module/VardoTools/CertImport/VardoTools";
const std::string PASS_PHRASE = "Stream#Key2024";

// Collects the records written while it lives.
class RecordSink : public google::LogSink {
public:
    struct Entry {
        google::LogSeverity severity;
        std::string unit;
        std::string message;
    };
    RecordSink() { google::AddLogSink(this); }
    ~RecordSink() override { google::RemoveLogSink(this); }
    void send(google::LogSeverity severity, const char* fullFilename, const char*, int, const google::LogMessageTime&,
              const char* message, size_t messageLength) override
    {
        entries.push_back({severity, fullFilename, std::string(message, messageLength)});
    }
    // Messages of the key tool's own records of one severity (all when -1).
    std::vector<std::string> KeyTool(int severity = -1) const
    {
        std::vector<std::string> out;
        for (const auto& entry : entries) {
            if (entry.unit == KEY_TOOL_UNIT && (severity < 0 || entry.severity == severity)) {
                out.push_back(entry.message);
            }
        }
        return out;
    }
    std::vector<Entry> entries;
};

// A streamserver.conf with the keys the tool needs; `changes` replaces a
// key's value, or drops its line when the value is nullopt.
std::string Conf(const std::map<std::string, std::optional<std::string>>& changes = {})
{
    const std::vector<std::pair<std::string, std::string>> lines = {
        {"server_crt", "/in/server.crt"}, {"ca_crt", "/in/ca.crt"}, {"server_key", "/in/server.key"},
        {"server_key_mm", ""},           {"crl", ""},              {"pask_algorithm_id", "9"},
        {"port", "8443"},
    };
    std::string text = "# stream server settings\n";
    for (const auto& [key, value] : lines) {
        const auto change = changes.find(key);
        if (change == changes.end()) {
            text += key + "=" + value + "\n";
        } else if (change->second) {
            text += key + "=" + *change->second + "\n";
        }
    }
    return text;
}

// The value of the first line of `text` that starts with "server_key_mm=".
std::string StoredCipher(const std::string& text)
{
    const std::string prefix = "server_key_mm=";
    const size_t start = text.rfind(prefix, 0) == 0 ? 0 : text.find("\n" + prefix);
    if (start == std::string::npos) {
        return "<none>";
    }
    const size_t value = start + (start == 0 ? 0 : 1) + prefix.size();
    return text.substr(value, text.find('\n', value) - value);
}

bool IsBase64(const std::string& text)
{
    const size_t body = text.find_last_not_of('=') + 1;  // 0 when empty or all padding
    return body > 0 && text.size() - body <= 2 &&
           text.substr(0, body).find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/") == std::string::npos;
}

// Runs `body` in a child process as `user` (as the current user when that is
// not root) and returns what it reported through a pipe.
std::string RunAsUser(const std::optional<VardoTest::TestUser>& user, const std::function<std::string()>& body)
{
    int channel[2];
    if (pipe(channel) != 0) {
        return "<no pipe>";
    }
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(user->gid) != 0 || setuid(user->uid) != 0)) {
            _exit(2);
        }
        const std::string report = body();
        const ssize_t written = write(channel[1], report.data(), report.size());
        _exit(written == static_cast<ssize_t>(report.size()) ? 0 : 3);
    }
    close(channel[1]);
    std::string report;
    char chunk[512];
    ssize_t got;
    while (child > 0 && (got = read(channel[0], chunk, sizeof(chunk))) > 0) {
        report.append(chunk, static_cast<size_t>(got));
    }
    close(channel[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return "<child failed>";
    }
    return report;
}

class KeyToolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        OvraBase::Log::logFlowControlFrequency_ = 1;  // every pass of a site writes its record
        char pattern[] = "/tmp/vardo_keytool_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
        ASSERT_EQ(mkdir((root_ + "/config").c_str(), 0700), 0);
        ASSERT_EQ(mkdir((root_ + "/work").c_str(), 0700), 0);
        ASSERT_EQ(mkdir((root_ + "/work/keys").c_str(), 0700), 0);
        configPath_ = root_ + "/config/streamserver.conf";
        WriteConfig(Conf());
        char cwd[PATH_MAX];
        ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
        previousDir_ = cwd;
        ASSERT_EQ(chdir((root_ + "/work").c_str()), 0);
        ASSERT_EQ(setenv("OVRA_SDK_HOME", root_.c_str(), 1), 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(chdir(previousDir_.c_str()), 0);
        unsetenv("OVRA_SDK_HOME");
        std::system(("rm -rf '" + root_ + "'").c_str());
    }

    void WriteConfig(const std::string& text, mode_t mode = 0600) const
    {
        VardoTest::WriteWholeFile(configPath_, text, mode);
    }
    std::string ReadConfig() const { return VardoTest::ReadWholeFile(configPath_); }
    std::string KeyStore(const char* name) const { return root_ + "/work/keys/" + name; }

    // Decrypts `cipher`; the plain text, or nullopt with `rc` set.
    std::optional<std::string> Decrypt(const std::string& cipher, int32_t algorithmId, int32_t* rc = nullptr) const
    {
        VardoTools tool;
        char* plain = nullptr;
        unsigned long plainLength = 0;
        const int32_t result = tool.DecryptCaPassword(cipher.c_str(), &plain, plainLength, algorithmId);
        if (rc != nullptr) {
            *rc = result;
        }
        std::optional<std::string> out;
        if (result == 0 && plain != nullptr) {
            EXPECT_EQ(plainLength, cipher.size() + 1);
            out = std::string(plain);
        }
        VardoTools::ResetDeleteCharArray(plain, plainLength);
        return out;
    }

    std::string root_;
    std::string configPath_;
    std::string previousDir_;
};

TEST_F(KeyToolTest, CheckPaskIdAcceptsOnlyEightAndNine)
{
    VardoTools tool;
    for (int32_t id : {8, 9}) {
        EXPECT_EQ(tool.CheckPaskId(id), 0) << id;
    }
    for (int32_t id : {7, 10, 0, -1, INT_MIN, INT_MAX}) {
        RecordSink sink;
        EXPECT_EQ(tool.CheckPaskId(id), OvraBase::APP_ERR_INVALID_PARAM) << id;
        EXPECT_EQ(sink.KeyTool(google::GLOG_ERROR),
                  std::vector<std::string>{"pask_algorithm_id must in set {8, 9}." +
                                           GetErrorInfo(OvraBase::APP_ERR_INVALID_PARAM, "")});
    }
}

TEST_F(KeyToolTest, KeyStoreFileRules)
{
    const std::string other = root_ + "/other.ks";
    VardoTest::WriteWholeFile(other, "store", 0600);
    const std::string notRegular = "The ks file is not a regular file" + GetErrorInfo(OvraBase::APP_ERR_INVALID_PATH, "");
    const std::string badStore = "Read ks file failed, file is too large or under wrong permission." +
                                 GetErrorInfo(OvraBase::APP_ERR_GENERAL_FAILED, "");
    struct Case {
        const char* name;
        int kind;  // 0 missing, 1 file of `mode`, 2 link to a valid file, 3 dangling link, 4 directory
        mode_t mode;
        bool accepted;
        std::vector<std::string> errors;
    };
    const std::vector<Case> cases = {
        {"missing", 0, 0, true, {}},
        {"0600", 1, 0600, true, {}},
        {"0400", 1, 0400, true, {}},
        {"0644", 1, 0644, false, {badStore}},
        {"0660", 1, 0660, false, {badStore}},
        {"link to a valid store", 2, 0, false, {notRegular}},
        {"dangling link", 3, 0, false, {notRegular}},
        {"directory", 4, 0, false, {badStore}},
    };
    const std::string path = KeyStore("vardo.ks");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::system(("rm -rf '" + path + "'").c_str());
        if (c.kind == 1) {
            VardoTest::WriteWholeFile(path, "store", c.mode);
            ASSERT_EQ(chmod(path.c_str(), c.mode), 0);
        } else if (c.kind == 2) {
            ASSERT_EQ(symlink(other.c_str(), path.c_str()), 0);
        } else if (c.kind == 3) {
            ASSERT_EQ(symlink((root_ + "/nowhere").c_str(), path.c_str()), 0);
        } else if (c.kind == 4) {
            ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
        }
        RecordSink sink;
        VardoTools tool;
        EXPECT_EQ(tool.CheckKsValid(OvraStream::PRIMARY_KSF_PATH), c.accepted);
        EXPECT_EQ(sink.KeyTool(google::GLOG_ERROR), c.errors);
    }
}

TEST_F(KeyToolTest, EncryptInitReadsSettings)
{
    const std::string tooLong = "server_key_mm in is too long." + GetErrorInfo(OvraBase::APP_ERR_GENERAL_FAILED, "");
    const std::string badId = "Read pask_algorithm_id from config file failed." +
                              GetErrorInfo(OvraBase::APP_ERR_GENERAL_FAILED, "");
    const std::string notInSet = "pask_algorithm_id must in set {8, 9}." +
                                 GetErrorInfo(OvraBase::APP_ERR_INVALID_PARAM, "");
    struct Case {
        const char* name;
        std::string config;
        int32_t rc;
        std::vector<std::string> errors;  // the key tool's own error records
        uint64_t storedLength;            // checked when rc is 0
        int32_t algorithmId;              // checked when rc is 0
    };
    const std::vector<Case> cases = {
        {"empty crl value", Conf(), 0, {}, 0, 9},
        {"algorithm 8", Conf({{"pask_algorithm_id", "8"}}), 0, {}, 0, 8},
        {"stored value of 400", Conf({{"server_key_mm", std::string(400, 'A')}}), 0, {}, 400, 9},
        {"stored value of 401", Conf({{"server_key_mm", std::string(401, 'A')}}), 1001, {tooLong}, 0, 0},
        {"no crl line", Conf({{"crl", std::nullopt}}), 1001, {}, 0, 0},
        {"no server_crt line", Conf({{"server_crt", std::nullopt}}), 1001, {}, 0, 0},
        {"no ca_crt line", Conf({{"ca_crt", std::nullopt}}), 1001, {}, 0, 0},
        {"no server_key line", Conf({{"server_key", std::nullopt}}), 1001, {}, 0, 0},
        {"no server_key_mm line", Conf({{"server_key_mm", std::nullopt}}), 1001, {}, 0, 0},
        {"no algorithm line: no fallback to 9", Conf({{"pask_algorithm_id", std::nullopt}}), 1001, {badId}, 0, 0},
        {"algorithm 7", Conf({{"pask_algorithm_id", "7"}}), 1001, {notInSet, badId}, 0, 0},
        {"algorithm 10", Conf({{"pask_algorithm_id", "10"}}), 1001, {notInSet, badId}, 0, 0},
        {"algorithm abc", Conf({{"pask_algorithm_id", "abc"}}), 1001, {badId}, 0, 0},
        {"a line too many", std::string(100, '\n') + Conf(), 1019,
         {"Failed to load Stream Server config file, the file path is empty or not exist." +
          GetErrorInfo(OvraBase::APP_ERR_CONFIG_INVALID, "")},
         0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WriteConfig(c.config);
        VardoTools tool;
        TagVardoConfig config{};
        int32_t rc = 0;
        std::vector<std::string> infos;
        {
            RecordSink sink;
            rc = tool.EncryptInit(config);
            EXPECT_EQ(sink.KeyTool(google::GLOG_ERROR), c.errors);
            infos = sink.KeyTool(google::GLOG_INFO);
        }
        EXPECT_EQ(rc, c.rc);
        if (rc == 0) {
            EXPECT_EQ(infos, (std::vector<std::string>{"Set keys directory permission success.",
                                                       "VARDO SeInitialize start", "VARDO SeInitialize end"}));
            EXPECT_EQ(tool.storedCipherLength, c.storedLength);
            EXPECT_EQ(tool.algorithmId, c.algorithmId);
            EXPECT_EQ(config.paskAlgorithmId, c.algorithmId);
            EXPECT_NE(config.semKey, 0);
            SeFinalize(&config);
        } else {
            EXPECT_EQ(infos, std::vector<std::string>{"Set keys directory permission success."});
        }
        // Nothing of the loaded configuration stays in the tool.
        RecordSink quiet;
        for (const char* key : {"server_crt", "ca_crt", "server_key", "server_key_mm", "crl", "port"}) {
            EXPECT_FALSE(tool.HasKey(key)) << key;
        }
        // The file itself is only read.
        EXPECT_EQ(ReadConfig(), c.config);
    }
}

TEST_F(KeyToolTest, EncryptInitRefusesUnsafeKeyStoresAndCreatesMissingOnes)
{
    const std::string elsewhere = root_ + "/elsewhere.ks";
    VardoTest::WriteWholeFile(elsewhere, "store", 0600);
    struct Case {
        const char* name;
        const char* store;
        bool link;  // a link to a valid file, else a file of mode 0644
    };
    const std::vector<Case> cases = {
        {"primary is a link", "vardo.ks", true},
        {"standby of mode 0644", "StandbyKsf.ks", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = KeyStore(c.store);
        if (c.link) {
            ASSERT_EQ(symlink(elsewhere.c_str(), path.c_str()), 0);
        } else {
            VardoTest::WriteWholeFile(path, "store", 0644);
            ASSERT_EQ(chmod(path.c_str(), 0644), 0);
        }
        VardoTools tool;
        TagVardoConfig config{};
        RecordSink sink;
        EXPECT_EQ(tool.EncryptInit(config), OvraBase::APP_ERR_GENERAL_FAILED);
        const std::string expected =
            c.link ? "The ks file is not a regular file" + GetErrorInfo(OvraBase::APP_ERR_INVALID_PATH, "")
                   : "Read ks file failed, file is too large or under wrong permission." +
                         GetErrorInfo(OvraBase::APP_ERR_GENERAL_FAILED, "");
        EXPECT_EQ(sink.KeyTool(google::GLOG_ERROR), std::vector<std::string>{expected});
        ASSERT_EQ(unlink(path.c_str()), 0);
    }

    // Neither store exists: start-up is accepted and the engine creates both.
    VardoTools tool;
    TagVardoConfig config{};
    ASSERT_EQ(tool.EncryptInit(config), 0);
    SeFinalize(&config);
    for (const char* store : {"vardo.ks", "StandbyKsf.ks"}) {
        struct stat info {};
        ASSERT_EQ(lstat(KeyStore(store).c_str(), &info), 0) << store;
        EXPECT_TRUE(S_ISREG(info.st_mode)) << store;
        EXPECT_EQ(info.st_mode & 07077, 0u) << store;
    }
}

TEST_F(KeyToolTest, EncryptThenDecryptGivesBackThePassPhrase)
{
    struct Case {
        int32_t crlFlag;
        const char* crlLine;
        const char* algorithm;
    };
    for (const Case& c : {Case{0, "crl=", "9"}, Case{1, "crl=./keys/ca.crl", "8"}}) {
        SCOPED_TRACE(c.crlLine);
        WriteConfig(Conf({{"pask_algorithm_id", c.algorithm}}));
        RecordSink sink;
        VardoTools tool;
        ASSERT_EQ(tool.EncryptCaPassword(PASS_PHRASE.data(), static_cast<int32_t>(PASS_PHRASE.size()), c.crlFlag), 0);
        const std::string cipher = StoredCipher(ReadConfig());
        EXPECT_TRUE(IsBase64(cipher)) << cipher;
        EXPECT_EQ(ReadConfig(), "# stream server settings\n"
                                "server_crt=./keys/server.crt\n"
                                "ca_crt=./keys/ca.crt\n"
                                "server_key=./keys/server.key\n"
                                "server_key_mm=" + cipher + "\n" +
                                    c.crlLine + "\n"
                                "pask_algorithm_id=" + c.algorithm + "\n"
                                "port=8443\n");
        EXPECT_EQ(VardoTest::FileMode(configPath_), 0600);
        // No old value: no scrub pass ran.
        const auto infos = sink.KeyTool(google::GLOG_INFO);
        EXPECT_EQ(std::count(infos.begin(), infos.end(), "Write to the config file, the first time finished."), 0);
        EXPECT_EQ(infos.back(),
                  "server_key_mm encrypted success, it has been generated and written into the config file");
        EXPECT_TRUE(sink.KeyTool(google::GLOG_ERROR).empty());

        RecordSink decryption;
        EXPECT_EQ(Decrypt(cipher, std::stoi(c.algorithm)), PASS_PHRASE);
        EXPECT_EQ(decryption.KeyTool(),
                  (std::vector<std::string>{"VARDO SeInitialize start", "VARDO SeInitialize end", "Start decrypt ...",
                                            "VARDO decrypt success"}));
        // The cipher text never appears in a record, nor the pass phrase.
        for (const auto& entry : sink.entries) {
            EXPECT_EQ(entry.message.find(cipher), std::string::npos);
            EXPECT_EQ(entry.message.find(PASS_PHRASE), std::string::npos);
        }
    }
}

TEST_F(KeyToolTest, SecondEncryptionScrubsTheOldValue)
{
    VardoTools first;
    ASSERT_EQ(first.EncryptCaPassword(PASS_PHRASE.data(), static_cast<int32_t>(PASS_PHRASE.size()), 1), 0);
    const std::string oldCipher = StoredCipher(ReadConfig());

    const std::string other = "An0ther pass";
    RecordSink sink;
    VardoTools second;
    ASSERT_EQ(second.EncryptCaPassword(other.data(), static_cast<int32_t>(other.size()), 0), 0);
    EXPECT_EQ(second.storedCipherLength, oldCipher.size());
    const std::string newCipher = StoredCipher(ReadConfig());
    EXPECT_NE(newCipher, oldCipher);
    EXPECT_NE(ReadConfig().find("\ncrl=\n"), std::string::npos);

    std::vector<std::string> passes;
    for (const auto& message : sink.KeyTool(google::GLOG_INFO)) {
        if (message.rfind("Write to the config file", 0) == 0 || message.rfind("server_key_mm encrypted", 0) == 0) {
            passes.push_back(message);
        }
    }
    EXPECT_EQ(passes, (std::vector<std::string>{
                          "Write to the config file, the first time finished.",
                          "Write to the config file, the second time finished.",
                          "Write to the config file, the third time finished.",
                          "server_key_mm encrypted success, it has been generated and written into the config file",
                      }));
    EXPECT_EQ(Decrypt(newCipher, 9), other);
}

TEST_F(KeyToolTest, EncryptionFailsWithoutTouchingConfigWhenStartUpFails)
{
    const std::string text = Conf({{"pask_algorithm_id", "7"}});
    WriteConfig(text);
    VardoTools tool;
    EXPECT_EQ(tool.EncryptCaPassword(PASS_PHRASE.data(), static_cast<int32_t>(PASS_PHRASE.size()), 0),
              OvraBase::APP_ERR_GENERAL_FAILED);
    EXPECT_EQ(ReadConfig(), text);
    // The engine was not left running: a new start-up works.
    WriteConfig(Conf());
    EXPECT_EQ(tool.EncryptCaPassword(PASS_PHRASE.data(), static_cast<int32_t>(PASS_PHRASE.size()), 0), 0);
}

TEST_F(KeyToolTest, DecryptionRefusals)
{
    VardoTools encryptor;
    ASSERT_EQ(encryptor.EncryptCaPassword(PASS_PHRASE.data(), static_cast<int32_t>(PASS_PHRASE.size()), 0), 0);
    const std::string cipher = StoredCipher(ReadConfig());
    std::string tampered = cipher;
    tampered[tampered.size() / 2] = tampered[tampered.size() / 2] == 'A' ? 'B' : 'A';

    const std::string decryptFailed = "VARDO decrypt failed " + GetErrorInfo(OvraBase::APP_ERR_GENERAL_FAILED, "");
    struct Case {
        const char* name;
        std::string text;
        int32_t algorithmId;
        bool engineStarted;               // an output array was handed out
        std::vector<std::string> errors;  // the key tool's error records
    };
    const std::vector<Case> cases = {
        {"400 characters pass the length check", std::string(400, 'A'), 9, true, {decryptFailed}},
        {"401 characters", std::string(401, 'A'), 9, false,
         {"server_key_mm is too long" + GetErrorInfo(OvraBase::APP_ERR_GENERAL_FAILED, "")}},
        {"tampered text", tampered, 9, true, {decryptFailed}},
        {"not base64", "%%%%not-base64%%%%", 9, true, {decryptFailed}},
        {"algorithm 7", cipher, 7, false,
         {"pask_algorithm_id must in set {8, 9}." + GetErrorInfo(OvraBase::APP_ERR_INVALID_PARAM, ""),
          "CheckPaskId failed!" + GetErrorInfo(OvraBase::APP_ERR_GENERAL_FAILED, "")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        RecordSink sink;
        VardoTools tool;
        char* plain = nullptr;
        unsigned long plainLength = 0;
        EXPECT_EQ(tool.DecryptCaPassword(c.text.c_str(), &plain, plainLength, c.algorithmId),
                  OvraBase::APP_ERR_GENERAL_FAILED);
        EXPECT_EQ(sink.KeyTool(google::GLOG_ERROR), c.errors);
        if (c.engineStarted) {
            // The caller owns a wiped array of the cipher text's length + 1.
            ASSERT_NE(plain, nullptr);
            ASSERT_EQ(plainLength, c.text.size() + 1);
            EXPECT_EQ(std::string(plain, plainLength), std::string(plainLength, '\0'));
        } else {
            EXPECT_EQ(plain, nullptr);
        }
        VardoTools::ResetDeleteCharArray(plain, plainLength);
    }
    // After all of these the engine is stopped and the good text still opens.
    EXPECT_EQ(Decrypt(cipher, 9), PASS_PHRASE);

    // A key store that became a link is refused before the engine starts.
    const std::string standby = KeyStore("StandbyKsf.ks");
    ASSERT_EQ(rename(standby.c_str(), (root_ + "/moved.ks").c_str()), 0);
    ASSERT_EQ(symlink((root_ + "/moved.ks").c_str(), standby.c_str()), 0);
    RecordSink sink;
    int32_t rc = 0;
    EXPECT_FALSE(Decrypt(cipher, 9, &rc).has_value());
    EXPECT_EQ(rc, OvraBase::APP_ERR_GENERAL_FAILED);
    EXPECT_EQ(sink.KeyTool(), std::vector<std::string>{"The ks file is not a regular file" +
                                                       GetErrorInfo(OvraBase::APP_ERR_INVALID_PATH, "")});
}

// Root ignores permission bits, so a configuration that cannot be written is
// shown as an ordinary user, in a child process that reports back through a pipe.
TEST_F(KeyToolTest, ReadOnlyConfigurationFailsWithWriteError)
{
    const auto user = VardoTest::UnprivilegedUser();
    if (geteuid() == 0 && !user) {
        GTEST_SKIP() << "no unprivileged account available";
    }
    struct Case {
        const char* name;
        std::string config;
        std::string error;
    };
    const std::vector<Case> cases = {
        {"no old value", Conf(),
         "server_key_mm or file path written into the config file failed" +
             GetErrorInfo(OvraBase::APP_ERR_WRITE_FAILED, "")},
        {"old value to scrub", Conf({{"server_key_mm", std::string(44, 'Q')}}),
         "server_key_mm written into the config file failed" + GetErrorInfo(OvraBase::APP_ERR_WRITE_FAILED, "")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::system(("rm -f '" + root_ + "/work/keys/'*").c_str());
        WriteConfig(c.config, 0400);
        if (geteuid() == 0) {
            ASSERT_EQ(std::system(("chown -R " + std::to_string(user->uid) + ":" + std::to_string(user->gid) + " '" +
                                   root_ + "'")
                                      .c_str()),
                      0);
        }
        const std::string report = RunAsUser(user, [&] {
            RecordSink sink;
            VardoTools tool;
            std::string out = std::to_string(
                tool.EncryptCaPassword(PASS_PHRASE.data(), static_cast<int32_t>(PASS_PHRASE.size()), 0));
            for (const auto& message : sink.KeyTool(google::GLOG_ERROR)) {
                out += "\n" + message;
            }
            out += ReadConfig() == c.config ? "\nuntouched" : "\nchanged";
            // The failure stopped the engine: once the file may be written, the same tool succeeds.
            chmod(configPath_.c_str(), 0600);
            return out + "\nagain " + std::to_string(tool.EncryptCaPassword(
                                          PASS_PHRASE.data(), static_cast<int32_t>(PASS_PHRASE.size()), 0));
        });
        EXPECT_EQ(report, "1021\nServer config file open failed!" + GetErrorInfo(OvraBase::APP_ERR_CONFIG_INVALID, "") +
                              "\n" + c.error + "\nuntouched\nagain 0");
    }
}

}  // namespace
