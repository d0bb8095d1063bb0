// SDK log: record format, per-site throttling, logging.conf, and the modes and
// link refusals of the log directory and file.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "BaseTestSupport.h"
#include "OvraBase/Log.h"

OVRA_LOG_UNIT("src/base/Log_test");

namespace {

using BaseTest::EnvGuard;
using BaseTest::Mode;
using BaseTest::ReadFile;
using BaseTest::ScratchDir;
using BaseTest::WriteFile;

const char* const CHILD_MARKER = "OVRA_LOG_TEST_BEFORE_INIT";

// A run of this program with the marker set writes one record before anything
// has called Log::Init, and ends there: that is what the command's audit
// record does.
[[maybe_unused]] const bool g_childRun = [] {
    if (std::getenv(CHILD_MARKER) != nullptr) {
        OVRA_LOG_INFO("audit before init " << 42 << ".");
        _exit(0);
    }
    return false;
}();

struct Record {
    char severity;
    std::string unit;
    std::string message;
};

// Reads one record line: <L><yyyymmdd> <hh:mm:ss.uuuuuu> <thread id> <unit>:<line>] <message>
bool ParseRecord(const std::string& line, Record& record)
{
    // Digits and separators of the fixed-width head, position by position.
    const std::string shape = "Xdddddddd dd:dd:dd.dddddd ";
    if (line.size() < shape.size() || std::string("IWE").find(line[0]) == std::string::npos) {
        return false;
    }
    for (size_t i = 1; i < shape.size(); ++i) {
        const bool digit = line[i] >= '0' && line[i] <= '9';
        if (shape[i] == 'd' ? !digit : line[i] != shape[i]) {
            return false;
        }
    }
    size_t position = shape.size();
    const size_t threadEnd = line.find(' ', position);
    if (threadEnd == std::string::npos || threadEnd == position ||
        line.find_first_not_of("0123456789", position) != threadEnd) {
        return false;
    }
    position = threadEnd + 1;
    const size_t close = line.find("] ", position);
    const size_t colon = close == std::string::npos ? close : line.rfind(':', close);
    if (colon == std::string::npos || colon <= position || colon + 1 == close ||
        line.find_first_not_of("0123456789", colon + 1) != close ||
        line.find_first_of(" :", position) != colon) {
        return false;
    }
    record = {line[0], line.substr(position, colon - position), line.substr(close + 2)};
    return true;
}

// Splits captured output into records; a line that is not a record fails the test.
std::vector<Record> Parse(const std::string& output)
{
    std::vector<Record> records;
    size_t start = 0;
    while (start < output.size()) {
        size_t end = output.find('\n', start);
        if (end == std::string::npos) {
            end = output.size();
        }
        const std::string line = output.substr(start, end - start);
        start = end + 1;
        Record record;
        if (!ParseRecord(line, record)) {
            ADD_FAILURE() << "not a record: \"" << line << "\"";
            continue;
        }
        records.push_back(record);
    }
    return records;
}

std::vector<std::string> Messages(const std::string& output)
{
    std::vector<std::string> messages;
    for (const Record& record : Parse(output)) {
        messages.push_back(record.message);
    }
    return messages;
}

std::string LogFileIn(const std::string& directory)
{
    return directory + "/" + program_invocation_short_name + ".log";
}

// Each test starts from a fresh SDK root with no logging.conf and puts the
// default settings back at the end.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, OvraBase::Log::Init()); }
    void TearDown() override
    {
        const int32_t result = OvraBase::Log::Init();
        EXPECT_EQ(0, result);
    }
    void WriteConf(const std::string& text)
    {
        mkdir((root_ / "config").c_str(), 0700);
        WriteFile(root_ / "config/logging.conf", text);
    }

    ScratchDir root_;
    EnvGuard sdkHome_{"OVRA_SDK_HOME", root_.Path().c_str()};
};

TEST_F(LogTest, RecordNamesTheFullUnitAndGoesToStderrAndFile)
{
    ::testing::internal::CaptureStderr();
    const int line = __LINE__ + 1;
    OVRA_LOG_WARN("Something odd" << OvraBase::GetErrorInfo(1010, ""));
    const std::string output = ::testing::internal::GetCapturedStderr();

    const std::string expected = "src/base/Log_test:" + std::to_string(line) +
                                 "] Something odd Error code: 1010, error message: NO Permission \n";
    ASSERT_EQ(1u, Parse(output).size()) << output;
    EXPECT_EQ('W', output[0]);
    EXPECT_NE(std::string::npos, output.find(expected)) << output;
    EXPECT_NE(std::string::npos, output.find(" " + std::to_string(getpid()) + " src/base/Log_test:")) << output;

    const std::string file = ReadFile(LogFileIn(root_ / "logs"));
    EXPECT_NE(std::string::npos, file.find(expected)) << file;
    const std::vector<Record> inFile = Parse(file);
    ASSERT_FALSE(inFile.empty());
    EXPECT_EQ("Something odd Error code: 1010, error message: NO Permission ", inFile.back().message);
}

TEST_F(LogTest, SeveritiesAndCodeMacros)
{
    const auto fail = []() -> int32_t { OVRA_RETURN_ERROR("Call memset_s failed.", 1007); };
    ::testing::internal::CaptureStderr();
    OVRA_LOG_INFO("info");
    OVRA_LOG_ERROR("error");
    OVRA_LOG_WARN_CODE("warn", 1029);
    EXPECT_EQ(1007, fail());
    const std::vector<Record> records = Parse(::testing::internal::GetCapturedStderr());
    ASSERT_EQ(4u, records.size());
    const std::vector<std::pair<char, std::string>> expected = {
        {'I', "info"},
        {'E', "error"},
        {'W', "warn Error code: 1029, error message: Invalid path"},
        {'E', "Call memset_s failed. Error code: 1007, error message: memory allocation error"},
    };
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i].first, records[i].severity) << i;
        EXPECT_EQ(expected[i].second, records[i].message) << i;
        EXPECT_EQ("src/base/Log_test", records[i].unit);
    }
}

// Each expansion is its own log site with its own counters.
#define RUN_INFO_SITE(passes)                                 \
    for (int pass = 0; pass < (passes); ++pass) {             \
        OVRA_LOG_INFO("pass " << google::COUNTER);            \
    }
#define RUN_DEBUG_SITE(passes)                                \
    for (int pass = 0; pass < (passes); ++pass) {             \
        OVRA_LOG_DEBUG("debug pass " << google::COUNTER);     \
    }

TEST_F(LogTest, ThrottlingWritesFirstAndEveryNthPassWithTheTotalCount)
{
    using Messages_ = std::vector<std::string>;
    struct Case {
        int32_t n;
        Messages_ info;
        Messages_ debug;
    };
    const Case cases[] = {
        {1, {"pass 1", "pass 2", "pass 3", "pass 4", "pass 5", "pass 6", "pass 7"},
         {"debug pass 1", "debug pass 2", "debug pass 3", "debug pass 4", "debug pass 5", "debug pass 6",
          "debug pass 7"}},
        {3, {"pass 1", "pass 4", "pass 7"}, {"debug pass 1", "debug pass 4", "debug pass 7"}},
    };
    std::vector<Messages_> info;
    std::vector<Messages_> debug;
    // The sites are written out once per case so that each starts at zero.
    OvraBase::Log::logFlowControlFrequency_ = cases[0].n;
    ::testing::internal::CaptureStderr();
    RUN_INFO_SITE(7);
    info.push_back(Messages(::testing::internal::GetCapturedStderr()));
    ::testing::internal::CaptureStderr();
    RUN_DEBUG_SITE(7);
    debug.push_back(Messages(::testing::internal::GetCapturedStderr()));

    OvraBase::Log::logFlowControlFrequency_ = cases[1].n;
    ::testing::internal::CaptureStderr();
    RUN_INFO_SITE(7);
    info.push_back(Messages(::testing::internal::GetCapturedStderr()));
    ::testing::internal::CaptureStderr();
    RUN_DEBUG_SITE(7);
    debug.push_back(Messages(::testing::internal::GetCapturedStderr()));

    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(cases[i].info, info[i]) << "N = " << cases[i].n;
        EXPECT_EQ(cases[i].debug, debug[i]) << "N = " << cases[i].n;
    }
}

TEST_F(LogTest, DebugRecordsFollowTheVerbosity)
{
    const int32_t saved = FLAGS_v;
    std::vector<std::string> written;
    for (const int32_t verbosity : {0, -1, -2}) {
        FLAGS_v = verbosity;
        ::testing::internal::CaptureStderr();
        OVRA_LOG_DEBUG("verbosity " << verbosity);
        const std::vector<std::string> messages = Messages(::testing::internal::GetCapturedStderr());
        written.insert(written.end(), messages.begin(), messages.end());
    }
    FLAGS_v = saved;
    EXPECT_EQ((std::vector<std::string>{"verbosity 0", "verbosity -1"}), written);
}

TEST_F(LogTest, AbsentConfigurationGivesOwnerOnlyDefaults)
{
    EXPECT_EQ(1, OvraBase::Log::logFlowControlFrequency_);
    EXPECT_EQ(0, FLAGS_v);
    EXPECT_EQ(0700, Mode(root_ / "logs"));
    EXPECT_EQ(0600, Mode(LogFileIn(root_ / "logs")));

    // A second Init changes nothing and does not double the outputs.
    ASSERT_EQ(0, OvraBase::Log::Init());
    ::testing::internal::CaptureStderr();
    OVRA_LOG_INFO("once only");
    const std::string output = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::vector<std::string>{"once only"}, Messages(output));
    const std::string file = ReadFile(LogFileIn(root_ / "logs"));
    EXPECT_EQ(file.find("] once only\n"), file.rfind("] once only\n"));
    EXPECT_NE(std::string::npos, file.find("] once only\n"));
}

TEST_F(LogTest, ValidConfigurationIsApplied)
{
    const std::string elsewhere = root_ / "var/log/ovra";
    WriteConf("# SDK log settings\n"
              "\n"
              "  log_dir = " + elsewhere + "  \n"
              "flow_control_frequency=3\r\n"
              "verbosity=-2\n"
              "stderr_threshold=1\n");
    ASSERT_EQ(0, OvraBase::Log::Init());
    EXPECT_EQ(3, OvraBase::Log::logFlowControlFrequency_);
    EXPECT_EQ(-2, FLAGS_v);
    EXPECT_EQ(0700, Mode(elsewhere));

    ::testing::internal::CaptureStderr();
    OVRA_LOG_INFO("file only");
    OVRA_LOG_WARN("both");
    EXPECT_EQ(std::vector<std::string>{"both"}, Messages(::testing::internal::GetCapturedStderr()));
    EXPECT_EQ((std::vector<std::string>{"file only", "both"}), Messages(ReadFile(LogFileIn(elsewhere))));
    EXPECT_EQ(std::string::npos, ReadFile(LogFileIn(root_ / "logs")).find("both"));
}

TEST_F(LogTest, MalformedConfigurationFailsAndChangesNothing)
{
    const std::vector<std::string> malformed = {
        "flow_control_frequency=7\nbogus=1\n",
        "verbosity\n",
        "verbosity=abc\n",
        "verbosity=1x\n",
        "verbosity=\n",
        "verbosity=101\n",
        "flow_control_frequency=0\n",
        "flow_control_frequency=-3\n",
        "flow_control_frequency=99999999999999\n",
        "stderr_threshold=4\n",
        "stderr_threshold=INFO\n",
        "log_dir=relative/logs\n",
        "log_dir=\n",
        "verbosity=1\nverbosity=2\n",
        "Verbosity=1\n",
    };
    for (const std::string& text : malformed) {
        WriteConf(text);
        EXPECT_NE(0, OvraBase::Log::Init()) << text;
        EXPECT_EQ(1, OvraBase::Log::logFlowControlFrequency_) << text;
        EXPECT_EQ(0, FLAGS_v) << text;
    }
    // A configuration that cannot be read as a file.
    unlink((root_ / "config/logging.conf").c_str());
    ASSERT_EQ(0, mkdir((root_ / "config/logging.conf").c_str(), 0700));
    EXPECT_NE(0, OvraBase::Log::Init());
    rmdir((root_ / "config/logging.conf").c_str());
}

TEST_F(LogTest, WithoutSdkHomeTheLogGoesUnderHome)
{
    // Unset, or naming no directory: the missing SDK root is reported later
    // by the steps that need it, so the log still starts.
    for (const char* sdkHome : {static_cast<const char*>(nullptr), "", "/nonexistent/sdk"}) {
        ScratchDir home;
        EnvGuard sdk("OVRA_SDK_HOME", sdkHome);
        EnvGuard homeEnv("HOME", home.Path().c_str());
        const std::string shown = sdkHome == nullptr ? "unset" : sdkHome;
        ASSERT_EQ(0, OvraBase::Log::Init()) << shown;
        EXPECT_EQ(0700, Mode(home / ".ovra")) << shown;
        EXPECT_EQ(0700, Mode(home / ".ovra/logs")) << shown;
        EXPECT_EQ(0600, Mode(LogFileIn(home / ".ovra/logs"))) << shown;
    }
    EXPECT_EQ(-1, Mode("/nonexistent/sdk"));
}

TEST_F(LogTest, LinksAndForeignOwnersAreRefused)
{
    ScratchDir elsewhere;
    WriteFile(elsewhere / "victim", "untouched");
    ASSERT_EQ(0, mkdir((elsewhere / "dir").c_str(), 0700));

    const std::string logs = root_ / "logs";
    const std::string file = LogFileIn(logs);
    struct Case {
        const char* what;
        std::function<bool()> arrange;  // false: cannot be arranged here
    };
    const auto fresh = [&](bool makeDirectory) {
        BaseTest::RemoveTree(logs);
        return !makeDirectory || mkdir(logs.c_str(), 0700) == 0;
    };
    const std::vector<Case> cases = {
        {"log directory is a link",
         [&] { return fresh(false) && symlink((elsewhere / "dir").c_str(), logs.c_str()) == 0; }},
        {"log file is a link",
         [&] { return fresh(true) && symlink((elsewhere / "victim").c_str(), file.c_str()) == 0; }},
        {"log file is a dangling link",
         [&] { return fresh(true) && symlink((elsewhere / "nothing").c_str(), file.c_str()) == 0; }},
        {"log file is a directory", [&] { return fresh(true) && mkdir(file.c_str(), 0700) == 0; }},
        {"log directory is a file", [&] { return fresh(false) && (WriteFile(logs, ""), true); }},
        {"log directory belongs to someone else",  // only root can give a directory away
         [&] { return fresh(true) && (geteuid() != 0 || chown(logs.c_str(), getuid() + 1, getgid()) == 0); }},
    };
    for (const Case& entry : cases) {
        if (!entry.arrange()) {
            ADD_FAILURE() << "could not arrange: " << entry.what;
            continue;
        }
        if (std::string(entry.what).find("someone else") != std::string::npos && geteuid() != 0) {
            continue;
        }
        EXPECT_NE(0, OvraBase::Log::Init()) << entry.what;
    }
    EXPECT_EQ("untouched", ReadFile(elsewhere / "victim"));
    EXPECT_EQ(0600, Mode(elsewhere / "victim"));
    EXPECT_EQ(-1, Mode(elsewhere / "nothing"));
    EXPECT_EQ(-1, Mode(LogFileIn(elsewhere / "dir")));
    BaseTest::RemoveTree(logs);
}

TEST_F(LogTest, ModesAreTightened)
{
    const std::string logs = root_ / "logs";
    const std::string file = LogFileIn(logs);
    ASSERT_EQ(0, chmod(logs.c_str(), 0755));
    ASSERT_EQ(0, chmod(file.c_str(), 0644));
    ASSERT_EQ(0, OvraBase::Log::Init());
    EXPECT_EQ(0700, Mode(logs));
    EXPECT_EQ(0600, Mode(file));

    ASSERT_EQ(0, chmod(file.c_str(), 0664));
    OvraBase::Log::UpdateFileMode();
    EXPECT_EQ(0600, Mode(file));
}

TEST(LogBeforeInit, FirstRecordReachesStderrInTheSdkFormat)
{
    int channel[2];
    ASSERT_EQ(0, pipe(channel));
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        dup2(channel[1], STDERR_FILENO);
        close(channel[0]);
        setenv(CHILD_MARKER, "1", 1);
        char self[PATH_MAX] = {};
        const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
        if (length > 0) {
            execl(self, self, static_cast<char*>(nullptr));
        }
        _exit(127);
    }
    close(channel[1]);
    std::string output;
    char buffer[1024];
    ssize_t n = 0;
    while ((n = read(channel[0], buffer, sizeof(buffer))) > 0) {
        output.append(buffer, static_cast<size_t>(n));
    }
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
    // Exactly one line, the record itself: no glog notice before it.
    const std::vector<Record> records = Parse(output);
    ASSERT_EQ(1u, records.size()) << output;
    EXPECT_EQ('I', records[0].severity);
    EXPECT_EQ("src/base/Log_test", records[0].unit);
    EXPECT_EQ("audit before init 42.", records[0].message);
    EXPECT_EQ(std::string::npos, output.find("InitGoogleLogging")) << output;
}

}  // namespace
