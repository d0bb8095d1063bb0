// Placing the inputs into ./keys, run as an unprivileged operator: the copies,
// their modes, and every way a destination can stop the placement.
#include <glog/logging.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ImportChecks.h"
#include "OvraBase/ErrorInfo.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "TestTree.h"

namespace {

namespace fs = std::filesystem;

std::string WithCode(const std::string& message, int32_t code) { return message + OvraBase::GetErrorInfo(code, ""); }

class PlacementRecords : public google::LogSink {
public:
    PlacementRecords() { google::AddLogSink(this); }
    ~PlacementRecords() override { google::RemoveLogSink(this); }
    using google::LogSink::send;
    void send(google::LogSeverity severity, const char* fullFilename, const char*, int,
              const google::LogMessageTime&, const char* message, size_t length) override
    {
        // Severity letter and unit travel with the message so that the parent
        // can check them too.
        lines.push_back(std::string(1, "IWEF"[severity]) + " " + fullFilename + "] " + std::string(message, length));
    }
    std::vector<std::string> lines;
};

// Runs CopyFilesToKeys in a child process as `user`: its result and records.
struct Placement {
    bool ran = false;
    int32_t result = -1;
    std::vector<std::string> records;
};

Placement PlaceAs(const VardoTest::TestUser& user, const std::string& crlPath)
{
    Placement placement;
    int fds[2];
    if (pipe(fds) != 0) {
        return placement;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        if (setgroups(0, nullptr) != 0 || setgid(user.gid) != 0 || setuid(user.uid) != 0) {
            _exit(100);
        }
        std::string report;
        {
            PlacementRecords records;
            report = std::to_string(OvraStream::CopyFilesToKeys("inputs/ca.crt", "inputs/server.crt",
                                                                "inputs/server.key", crlPath)) +
                     "\n";
            for (const auto& line : records.lines) {
                report += line + "\n";
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
        return placement;
    }
    std::istringstream lines(report);
    std::string line;
    if (std::getline(lines, line)) {
        placement.result = std::stoi(line);
        placement.ran = true;
    }
    while (std::getline(lines, line)) {
        placement.records.push_back(line);
    }
    return placement;
}

std::string Read(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void Write(const std::string& path, const std::string& text, mode_t mode)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

int Mode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

// Expected state of one entry of ./keys afterwards.
struct Entry {
    std::string content;  // "" = must not exist
    int mode;
};

struct Scenario {
    const char* name;
    std::function<void()> prepare;  // runs as root in the working directory
    std::string crlPath;
    int32_t result;
    std::vector<std::string> records;
    std::map<std::string, Entry> keys;  // name in ./keys -> expectation
    int keysMode = 0700;                 // of ./keys afterwards
};

const std::string MAIN_UNIT = "src/module/VardoTools/CertImport/main";
const std::string TOOL_UNIT = "src/module/VardoTools/CertImport/VardoTools";

std::string Info(const std::string& unit, const std::string& message) { return "I " + unit + "] " + message; }
std::string Error(const std::string& unit, const std::string& message, int32_t code)
{
    return "E " + unit + "] " + WithCode(message, code);
}

class KeysPlacementTest : public testing::Test {
protected:
    void SetUp() override
    {
        OvraBase::Log::logFlowControlFrequency_ = 1;
        char pattern[] = "/tmp/keys_placement_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        previousDir_ = fs::current_path();
        fs::current_path(dir_);
    }
    void TearDown() override
    {
        fs::current_path(previousDir_);
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    // Hands the working directory and everything below to `user`, links included.
    void GiveTo(const VardoTest::TestUser& user) const
    {
        ASSERT_EQ(lchown(dir_.c_str(), user.uid, user.gid), 0);
        for (const auto& entry : fs::recursive_directory_iterator(dir_)) {
            ASSERT_EQ(lchown(entry.path().c_str(), user.uid, user.gid), 0) << entry.path();
        }
    }

    std::string dir_;
    fs::path previousDir_;
};

TEST_F(KeysPlacementTest, Scenarios)
{
    const auto user = VardoTest::UnprivilegedUser();
    if (!user.has_value()) {
        GTEST_SKIP() << "no unprivileged user available";
    }
    const int32_t invalid = OvraBase::APP_ERR_INVALID_PARAM;
    const std::string readOnly =
        "Destination file in keys may be read only or invalid, remove it or the directory keys first.";
    const std::string created = Info(TOOL_UNIT, "Create directory keys success if it is not exist.");
    const std::string modeSet = Info(TOOL_UNIT, "Set the permission of the directory keys success.");
    const std::string success = Info(MAIN_UNIT, "Copy files success.");
    const std::string caFailed = "Copy ca_crt file failed, please check the raw file and the destination file.";
    const std::string keyFailed = "Copy server_key file failed, please check the raw file and the destination file.";
    const Entry none{"", -1};
    const Entry newCa{"new ca", 0400};
    const Entry newServer{"new server", 0400};
    const Entry newKey{"new key", 0400};
    const Entry newCrl{"new crl", 0400};

    const auto keysDir = [] { ASSERT_EQ(mkdir("keys", 0700), 0); };
    const auto oldFile = [keysDir](const std::string& name, const std::string& text, mode_t mode) {
        return [=] {
            keysDir();
            Write("keys/" + name, text, mode);
        };
    };

    const std::vector<Scenario> scenarios = {
        {"keys created, three files", [] {}, "", 0, {created, success},
         {{"ca.crt", newCa}, {"server.crt", newServer}, {"server.key", newKey}, {"ca.crl", none}}},
        {"revocation list placed too", [] {}, "inputs/ca.crl", 0, {created, success},
         {{"ca.crt", newCa}, {"server.crt", newServer}, {"server.key", newKey}, {"ca.crl", newCrl}}},
        {"writable old files replaced, old list kept",
         [=] {
             oldFile("ca.crt", "old ca", 0600)();
             Write("keys/ca.crl", "old crl", 0400);
         },
         "", 0, {modeSet, success},
         {{"ca.crt", newCa}, {"server.crt", newServer}, {"server.key", newKey}, {"ca.crl", {"old crl", 0400}}}},
        {"read-only destination gets the guidance", oldFile("ca.crt", "old ca", 0400), "", invalid,
         {modeSet, Error(MAIN_UNIT, readOnly, invalid), Error(MAIN_UNIT, caFailed, invalid)},
         {{"ca.crt", {"old ca", 0400}}, {"server.crt", none}, {"server.key", none}}},
        {"unwritable server.key stops after the certificates", oldFile("server.key", "old key", 0400), "",
         invalid, {modeSet, Error(MAIN_UNIT, readOnly, invalid), Error(MAIN_UNIT, keyFailed, invalid)},
         {{"ca.crt", newCa}, {"server.crt", newServer}, {"server.key", {"old key", 0400}}}},
        {"link at the destination never followed",
         [=] {
             keysDir();
             Write("outside", "outside", 0600);
             ASSERT_EQ(symlink("../outside", "keys/server.crt"), 0);
         },
         "", invalid,
         {modeSet, Error(MAIN_UNIT, readOnly, invalid),
          Error(MAIN_UNIT, "Copy server_crt file failed, please check the raw file and the destination file.",
                invalid)},
         {{"ca.crt", newCa}, {"server.crt", {"outside", 0777}}, {"server.key", none}}},
        {"list given but not placeable", oldFile("ca.crl", "old crl", 0400), "inputs/ca.crl", invalid,
         {modeSet, Error(MAIN_UNIT, readOnly, invalid),
          Error(MAIN_UNIT,
                "Copy ca_crl file failed, please check the raw file and the destination file, it is not required.",
                invalid)},
         {{"ca.crt", newCa}, {"server.crt", newServer}, {"server.key", newKey}, {"ca.crl", {"old crl", 0400}}}},
        {"source gone", [] { fs::remove("inputs/ca.crt"); }, "", invalid,
         {created,
          Error(MAIN_UNIT, "Invalid raw file path, please check", OvraBase::APP_ERR_INVALID_PATH),
          Error(MAIN_UNIT, caFailed, invalid)},
         {{"ca.crt", none}, {"server.crt", none}}},
        {"keys directory too open", [] { ASSERT_EQ(mkdir("keys", 0700), 0); ASSERT_EQ(chmod("keys", 0750), 0); },
         "", invalid,
         {Error(TOOL_UNIT, "The owner or permission of keys is incorrect.", OvraBase::APP_ERR_NO_PERMISSION)},
         {{"ca.crt", none}}, 0750},
    };

    for (const auto& scenario : scenarios) {
        SCOPED_TRACE(scenario.name);
        for (const auto& entry : fs::directory_iterator(dir_)) {
            fs::remove_all(entry.path());
        }
        ASSERT_EQ(mkdir("inputs", 0700), 0);
        Write("inputs/ca.crt", "new ca", 0600);
        Write("inputs/server.crt", "new server", 0600);
        Write("inputs/server.key", "new key", 0600);
        Write("inputs/ca.crl", "new crl", 0600);
        scenario.prepare();
        GiveTo(*user);

        const Placement placement = PlaceAs(*user, scenario.crlPath);
        ASSERT_TRUE(placement.ran);
        EXPECT_EQ(placement.result, scenario.result);
        EXPECT_EQ(placement.records, scenario.records);
        EXPECT_EQ(Mode("keys"), scenario.keysMode);
        for (const auto& [name, expected] : scenario.keys) {
            SCOPED_TRACE(name);
            const std::string path = "keys/" + name;
            EXPECT_EQ(Mode(path), expected.mode);
            if (expected.mode == 0777) {
                // The link still points where it did, and its target is untouched.
                EXPECT_EQ(Read("outside"), expected.content);
                EXPECT_EQ(Mode("outside"), 0600);
            } else {
                EXPECT_EQ(Read(path), expected.content);
            }
        }
    }
}

}  // namespace
