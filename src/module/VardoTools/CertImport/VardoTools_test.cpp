// The key tool object, its engine record, its wipes, the configuration file
// location and the keys directory.
#include "VardoTools.h"

#include <glog/logging.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "OvraBase/ErrorInfo.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "TestTree.h"

namespace {

namespace fs = std::filesystem;
using OvraStream::VardoTools;

const char* const UNIT = "src/module/VardoTools/CertImport/VardoTools";

std::string WithCode(const std::string& message, int32_t code) { return message + OvraBase::GetErrorInfo(code, ""); }

// Records written while it lives.
class RecordCapture : public google::LogSink {
public:
    struct Record {
        int severity;
        std::string unit;
        int line;
        std::string message;
    };
    RecordCapture() { google::AddLogSink(this); }
    ~RecordCapture() override { google::RemoveLogSink(this); }
    using google::LogSink::send;
    void send(google::LogSeverity severity, const char* fullFilename, const char*, int line,
              const google::LogMessageTime&, const char* message, size_t length) override
    {
        records.push_back({severity, fullFilename, line, std::string(message, length)});
    }
    std::vector<std::string> Messages() const
    {
        std::vector<std::string> messages;
        for (const auto& record : records) {
            messages.push_back(record.message);
        }
        return messages;
    }
    std::vector<Record> records;
};

// Result and records of code run in a child process as another user.
struct ChildRun {
    bool ran = false;
    int32_t result = -1;
    std::vector<std::string> messages;
};

ChildRun RunAsUser(const VardoTest::TestUser& user, const std::function<int32_t()>& body)
{
    ChildRun run;
    int fds[2];
    if (pipe(fds) != 0) {
        return run;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        if (setgroups(0, nullptr) != 0 || setgid(user.gid) != 0 || setuid(user.uid) != 0) {
            _exit(100);
        }
        std::string report;
        {
            RecordCapture capture;
            report = std::to_string(body()) + "\n";
            for (const auto& message : capture.Messages()) {
                report += message + "\n";
            }
        }
        const ssize_t written = write(fds[1], report.data(), report.size());
        _exit(written == static_cast<ssize_t>(report.size()) ? 0 : 101);
    }
    close(fds[1]);
    std::string report;
    char chunk[512];
    ssize_t got = 0;
    while ((got = read(fds[0], chunk, sizeof(chunk))) > 0) {
        report.append(chunk, static_cast<size_t>(got));
    }
    close(fds[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return run;
    }
    size_t start = 0;
    for (size_t end = report.find('\n'); end != std::string::npos; end = report.find('\n', start)) {
        const std::string line = report.substr(start, end - start);
        if (!run.ran) {
            run.result = std::stoi(line);
            run.ran = true;
        } else {
            run.messages.push_back(line);
        }
        start = end + 1;
    }
    return run;
}

int Mode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

class ProbeTools : public VardoTools {
public:
    using VardoTools::configMap_;
};

// Each test runs in a scratch working directory of its own, and with its own
// OVRA_SDK_HOME; both are put back afterwards.
class VardoToolsTest : public testing::Test {
protected:
    void SetUp() override
    {
        OvraBase::Log::logFlowControlFrequency_ = 1;
        char pattern[] = "/tmp/vardo_tools_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        previousDir_ = fs::current_path();
        fs::current_path(dir_);
        if (const char* home = std::getenv("OVRA_SDK_HOME")) {
            previousHome_ = home;
        }
    }
    void TearDown() override
    {
        fs::current_path(previousDir_);
        if (previousHome_.has_value()) {
            setenv("OVRA_SDK_HOME", previousHome_->c_str(), 1);
        } else {
            unsetenv("OVRA_SDK_HOME");
        }
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    // dir_/sdk/config/streamserver.conf with `mode`; returns the SDK root.
    std::string MakeSdk(mode_t mode) const
    {
        const std::string root = dir_ + "/sdk";
        fs::create_directories(root + "/config");
        const std::string config = root + "/config/streamserver.conf";
        std::ofstream(config) << "crl=\n";
        chmod(config.c_str(), mode);
        return root;
    }

    std::string dir_;
    fs::path previousDir_;
    std::optional<std::string> previousHome_;
};

TEST_F(VardoToolsTest, DefaultConstructionIsEmpty)
{
    ProbeTools tools;
    EXPECT_TRUE(tools.configMap_.empty());
    EXPECT_EQ(tools.algorithmId, 0);
    EXPECT_TRUE(tools.serverCfgFile.empty());
    EXPECT_EQ(tools.storedCipherLength, 0u);
}

TEST_F(VardoToolsTest, VardoInitFillsTheEngineRecord)
{
    for (const int32_t id : {8, 9}) {
        SCOPED_TRACE(id);
        TagVardoConfig config;
        std::memset(&config, 0xA5, sizeof(config));
        VardoTools tools;
        ASSERT_EQ(tools.VardoInit(config, id), 0);

        const auto field = [](const char* text) {
            std::vector<char> bytes(4096, 0);
            std::memcpy(bytes.data(), text, std::strlen(text));
            return bytes;
        };
        EXPECT_EQ(std::vector<char>(config.primaryKsfPath, config.primaryKsfPath + 4096), field("./keys/vardo.ks"));
        EXPECT_EQ(std::vector<char>(config.standbyKsfPath, config.standbyKsfPath + 4096),
                  field("./keys/StandbyKsf.ks"));
        EXPECT_EQ(config.optionWord0, 3);
        EXPECT_EQ(config.optionWord1, 1);
        EXPECT_EQ(config.semPermission, 0660);
        EXPECT_EQ(config.paskAlgorithmId, id);
        EXPECT_EQ(config.optionWord2, 2054);
        EXPECT_EQ(config.semKey, 0);
        EXPECT_EQ(std::vector<uint8_t>(config.zeroBlock, config.zeroBlock + 16), std::vector<uint8_t>(16, 0));
        EXPECT_EQ(config.zeroWord0, 0);
        EXPECT_EQ(config.zeroWord1, 0);
        EXPECT_EQ(config.zeroHalf, 0);
    }
}

TEST_F(VardoToolsTest, ResetCharArrayWipesUpToTheFirstZero)
{
    struct Case {
        const char* name;
        std::string bytes;
        unsigned long maxLength;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"stops at an embedded zero", std::string("ab\0cd", 5), 5, std::string("\0\0\0cd", 5)},
        {"bounded by maxLength", "abcdef", 3, std::string("\0\0\0def", 6)},
        {"whole text", "abc", 3, std::string(3, '\0')},
        {"leading zero wipes nothing", std::string("\0bc", 3), 3, std::string("\0bc", 3)},
        {"maxLength 0 wipes nothing", "abc", 0, "abc"},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        std::vector<char> buffer(testCase.bytes.begin(), testCase.bytes.end());
        VardoTools::ResetCharArray(buffer.data(), testCase.maxLength);
        EXPECT_EQ(std::string(buffer.begin(), buffer.end()), testCase.expected);
    }
    VardoTools::ResetCharArray(nullptr, 5);
    VardoTools::ResetDeleteCharArray(nullptr, 5);
    // Released also when there is nothing to wipe (the leak checker watches).
    VardoTools::ResetDeleteCharArray(new char[4](), 4);
    char* text = new char[6];
    std::memcpy(text, "hello", 6);
    VardoTools::ResetDeleteCharArray(text, 6);
}

TEST_F(VardoToolsTest, GetConfigFile)
{
    struct Case {
        const char* name;
        std::function<std::optional<std::string>()> home;  // nullopt: unset
        int32_t result;
        std::vector<std::string> records;
        std::string configPath;  // serverCfgFile afterwards
    };
    const std::string regularFailed = WithCode("Failed to regular serverCfgFile path.", OvraBase::APP_ERR_INVALID_PARAM);
    const std::string canonicalRoot = fs::canonical(dir_).string() + "/sdk";
    const std::vector<Case> cases = {
        {"variable not set", [] { return std::nullopt; }, OvraBase::APP_ERR_GENERAL_FAILED,
         {WithCode("Environment variable OVRA_SDK_HOME is not set!", OvraBase::APP_ERR_GENERAL_FAILED)}, ""},
        {"tree without the file", [this] { return dir_; }, OvraBase::APP_ERR_INVALID_PARAM, {regularFailed},
         dir_ + "/config/streamserver.conf"},
        {"file of mode 0644", [this] { return MakeSdk(0644); }, OvraBase::APP_ERR_INVALID_PARAM, {regularFailed},
         dir_ + "/sdk/config/streamserver.conf"},
        {"file of mode 0600, doubled separator", [this] { return MakeSdk(0600) + "/"; }, 0, {},
         canonicalRoot + "/config/streamserver.conf"},
        {"file of mode 0400", [this] { return MakeSdk(0400); }, 0, {}, canonicalRoot + "/config/streamserver.conf"},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        const auto home = testCase.home();
        if (home.has_value()) {
            setenv("OVRA_SDK_HOME", home->c_str(), 1);
        } else {
            unsetenv("OVRA_SDK_HOME");
        }
        VardoTools tools;
        RecordCapture capture;
        EXPECT_EQ(tools.GetConfigFile(), testCase.result);
        EXPECT_EQ(capture.Messages(), testCase.records);
        EXPECT_EQ(tools.serverCfgFile, testCase.configPath);
        for (const auto& record : capture.records) {
            EXPECT_EQ(record.severity, google::GLOG_ERROR);
            EXPECT_EQ(record.unit, UNIT);
        }
    }
}

TEST_F(VardoToolsTest, CheckConfigFileAndAssign)
{
    const std::string root = MakeSdk(0600);
    setenv("OVRA_SDK_HOME", root.c_str(), 1);
    VardoTools tools;
    ASSERT_EQ(tools.GetConfigFile(), 0);
    const std::string config = tools.serverCfgFile;

    std::string path;
    EXPECT_EQ(tools.CheckConfigFileAndAssign(path), 0);
    EXPECT_EQ(path, config);

    // The mode is left to the rewrite: a widened file still passes here.
    chmod(config.c_str(), 0644);
    EXPECT_EQ(tools.CheckConfigFileAndAssign(path), 0);

    // Gone, then replaced by a directory: the same text from two sites.
    const std::string invalid = WithCode("Invalid serverCfgFile path, please check", OvraBase::APP_ERR_INVALID_PARAM);
    RecordCapture capture;
    fs::remove(config);
    EXPECT_EQ(tools.CheckConfigFileAndAssign(path), OvraBase::APP_ERR_INVALID_PARAM);
    fs::create_directory(config);
    EXPECT_EQ(tools.CheckConfigFileAndAssign(path), OvraBase::APP_ERR_INVALID_PARAM);
    ASSERT_EQ(capture.Messages(), (std::vector<std::string>{invalid, invalid}));
    EXPECT_NE(capture.records[0].line, capture.records[1].line);
}

TEST_F(VardoToolsTest, CheckDirectoryKeys)
{
    const std::string created = "Create directory keys success if it is not exist.";
    const std::string modeSet = "Set the permission of the directory keys success.";
    const std::string wrong = WithCode("The owner or permission of keys is incorrect.", OvraBase::APP_ERR_NO_PERMISSION);
    const std::string createFailed = WithCode("Create directory keys failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    struct Case {
        const char* name;
        std::function<void()> prepare;
        int32_t result;
        std::vector<std::string> records;
        int keysMode;  // mode of ./keys afterwards (of the link itself for a link)
    };
    const auto makeKeys = [](mode_t mode) {
        return [mode] {
            ASSERT_EQ(mkdir("keys", 0700), 0);
            ASSERT_EQ(chmod("keys", mode), 0);
        };
    };
    const std::vector<Case> cases = {
        {"missing: created owner-only", [] {}, 0, {created}, 0700},
        {"0700 kept", makeKeys(0700), 0, {modeSet}, 0700},
        {"0500 set to 0700", makeKeys(0500), 0, {modeSet}, 0700},
        {"0755 refused", makeKeys(0755), OvraBase::APP_ERR_NO_PERMISSION, {wrong}, 0755},
        {"0710 refused", makeKeys(0710), OvraBase::APP_ERR_NO_PERMISSION, {wrong}, 0710},
        {"regular file in the way", [] { std::ofstream("keys") << "x"; }, OvraBase::APP_ERR_GENERAL_FAILED,
         {createFailed}, 0644},
        {"symbolic link to a directory never trusted",
         [] {
             ASSERT_EQ(mkdir("elsewhere", 0755), 0);
             ASSERT_EQ(chmod("elsewhere", 0755), 0);
             ASSERT_EQ(symlink("elsewhere", "keys"), 0);
         },
         OvraBase::APP_ERR_GENERAL_FAILED, {createFailed}, 0777},
    };
    const mode_t previousMask = umask(022);
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        fs::remove_all("keys");
        fs::remove_all("elsewhere");
        testCase.prepare();
        VardoTools tools;
        RecordCapture capture;
        EXPECT_EQ(tools.CheckDirectoryKeys(), testCase.result);
        EXPECT_EQ(capture.Messages(), testCase.records);
        EXPECT_EQ(Mode("keys"), testCase.keysMode);
    }
    umask(previousMask);
    // The link's target was left alone.
    EXPECT_EQ(Mode("elsewhere"), 0755);
}

TEST_F(VardoToolsTest, KeysDirectoryOfAnotherUserIsRefused)
{
    // Ownership only means something when the caller is not root.
    const auto user = VardoTest::UnprivilegedUser();
    if (!user.has_value()) {
        GTEST_SKIP() << "no unprivileged user available";
    }
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir("keys", 0700), 0);
    const ChildRun run = RunAsUser(*user, [] { return VardoTools().CheckDirectoryKeys(); });
    ASSERT_TRUE(run.ran);
    EXPECT_EQ(run.result, OvraBase::APP_ERR_NO_PERMISSION);
    EXPECT_EQ(run.messages,
              std::vector<std::string>{WithCode("The owner or permission of keys is incorrect.",
                                                OvraBase::APP_ERR_NO_PERMISSION)});

    // The same user's own directory passes.
    ASSERT_EQ(chown("keys", user->uid, user->gid), 0);
    const ChildRun own = RunAsUser(*user, [] { return VardoTools().CheckDirectoryKeys(); });
    ASSERT_TRUE(own.ran);
    EXPECT_EQ(own.result, 0);
}

}  // namespace
