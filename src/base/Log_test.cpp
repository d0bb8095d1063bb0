// SDK log: record format, per-site throttling, logging.conf, modes and link refusals.
#include <gtest/gtest.h>

#include <limits.h>
#include <unistd.h>

#include "BaseTestSupport.h"
#include "OvraBase/Log.h"

OVRA_LOG_UNIT("src/base/Log_test");

namespace {

using BaseTest::EnvGuard;
using BaseTest::Mode;
using BaseTest::ReadFile;
using BaseTest::ScratchDir;
using BaseTest::WriteFile;
using Lines = std::vector<std::string>;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

// A run with this variable set starts as the command does, writes one record
// before any Init, then ends.
const char* const BEFORE_INIT = "OVRA_LOG_TEST_BEFORE_INIT";
[[maybe_unused]] const bool g_childRun = [] {
    if (std::getenv(BEFORE_INIT) != nullptr) {
        OvraBase::Log::StartProgram("ovrabase_test");
        OVRA_LOG_INFO("audit before init " << 42 << ".");
        _exit(0);
    }
    return false;
}();

// Each line "<L>yyyymmdd hh:mm:ss.uuuuuu <pid> <unit>:<line>] <message>" as "<L> <unit>:<line>] <message>".
Lines Records(const std::string& output, bool messagesOnly = false)
{
    const std::string shape = "Xdddddddd dd:dd:dd.dddddd ";
    Lines records;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        bool ok = line.size() > shape.size() && std::string("IWE").find(line[0]) != std::string::npos;
        for (size_t i = 1; ok && i < shape.size(); ++i) {
            ok = shape[i] == 'd' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == shape[i];
        }
        const size_t tid = line.find_first_not_of("0123456789", shape.size());  // thread id
        ok = ok && tid != shape.size() && tid < line.size() && line[tid] == ' ' && line.find("] ") != std::string::npos;
        const std::string rest = ok ? line.substr(0, 1) + " " + line.substr(tid + 1) : "";
        records.push_back(!ok ? "not a record: " + line : messagesOnly ? rest.substr(rest.find("] ") + 2) : rest);
    }
    return records;
}

Lines Messages(const std::string& output) { return Records(output, true); }

std::string LogFileIn(const std::string& directory)
{
    return directory + "/" + program_invocation_short_name + ".log";
}

// Each test runs on a fresh SDK root without logging.conf and restores the defaults.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, OvraBase::Log::Init()); }
    void TearDown() override { EXPECT_EQ(0, OvraBase::Log::Init()); }
    void WriteConf(const std::string& text)
    {
        mkdir((root_ / "config").c_str(), 0700);
        WriteFile(root_ / "config/logging.conf", text);
    }
    ScratchDir root_;
    EnvGuard sdkHome_{"OVRA_SDK_HOME", root_.Path().c_str()};
};

TEST_F(LogTest, RecordsGoToStderrAndFileWithTheUnitAndSeverity)
{
    const auto fail = []() -> int32_t { OVRA_RETURN_ERROR("Call memset_s failed.", 1007); };
    CaptureStderr();
    const std::string at = "src/base/Log_test:" + std::to_string(__LINE__ + 1) + "] ";
    OVRA_LOG_WARN("Something odd" << OvraBase::GetErrorInfo(1010, ""));
    OVRA_LOG_INFO("info");
    OVRA_LOG_ERROR("error");
    OVRA_LOG_WARN_CODE("warn", 1029);
    EXPECT_EQ(1007, fail());
    const std::string output = GetCapturedStderr();
    const Lines messages = {"Something odd Error code: 1010, error message: NO Permission ", "info", "error",
                            "warn Error code: 1029, error message: Invalid path",
                            "Call memset_s failed. Error code: 1007, error message: memory allocation error"};
    EXPECT_EQ(messages, Messages(output));
    const Lines records = Records(output);
    ASSERT_EQ(5u, records.size());
    EXPECT_EQ("W " + at + messages[0], records[0]);
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(std::string(1, "WIEWE"[i]) + " src/base/Log_test:", records[i].substr(0, 20));
    }
    EXPECT_EQ(messages, Messages(ReadFile(LogFileIn(root_ / "logs"))));
}

// Each expansion is its own site with its own counters.
#define RUN_SITE(LOG, text, passes, into)                                                        \
    do {                                                                                         \
        CaptureStderr();                                                                         \
        for (int pass = 0; pass < (passes); ++pass) LOG(text << google::COUNTER);                \
        (into).push_back(Messages(GetCapturedStderr()));                                         \
    } while (0)

TEST_F(LogTest, ThrottlingWritesTheFirstAndEveryNthPassWithTheTotalCount)
{
    std::vector<Lines> got;
    OvraBase::Log::logFlowControlFrequency_ = 1;
    RUN_SITE(OVRA_LOG_INFO, "pass ", 3, got);
    RUN_SITE(OVRA_LOG_DEBUG, "debug ", 3, got);
    OvraBase::Log::logFlowControlFrequency_ = 3;
    RUN_SITE(OVRA_LOG_INFO, "pass ", 7, got);
    RUN_SITE(OVRA_LOG_DEBUG, "debug ", 7, got);
    const std::vector<Lines> expected = {{"pass 1", "pass 2", "pass 3"}, {"debug 1", "debug 2", "debug 3"},
                                         {"pass 1", "pass 4", "pass 7"}, {"debug 1", "debug 4", "debug 7"}};
    EXPECT_EQ(expected, got);

    // Debug records follow the verbosity: written at 0 and -1, not at -2.
    const int32_t saved = FLAGS_v;
    OvraBase::Log::logFlowControlFrequency_ = 1;
    Lines written;
    for (const int32_t verbosity : {0, -1, -2}) {
        FLAGS_v = verbosity;
        CaptureStderr();
        OVRA_LOG_DEBUG("verbosity " << verbosity);
        for (const std::string& message : Messages(GetCapturedStderr())) written.push_back(message);
    }
    FLAGS_v = saved;
    EXPECT_EQ((Lines{"verbosity 0", "verbosity -1"}), written);
}

TEST_F(LogTest, ConfigurationAbsentValidOrMalformed)
{
    // Absent: defaults, and a second Init does not double the outputs.
    EXPECT_EQ(1, OvraBase::Log::logFlowControlFrequency_);
    EXPECT_EQ(0, FLAGS_v);
    ASSERT_EQ(0, OvraBase::Log::Init());
    CaptureStderr();
    OVRA_LOG_INFO("once only");
    EXPECT_EQ(Lines{"once only"}, Messages(GetCapturedStderr()));
    EXPECT_EQ(Lines{"once only"}, Messages(ReadFile(LogFileIn(root_ / "logs"))));

    const std::string elsewhere = root_ / "var/log/ovra";
    WriteConf("# settings\n\n  log_dir = " + elsewhere +
              "  \nflow_control_frequency=3\r\nverbosity=-2\nstderr_threshold=1\n");
    ASSERT_EQ(0, OvraBase::Log::Init());
    EXPECT_EQ(3, OvraBase::Log::logFlowControlFrequency_);
    EXPECT_EQ(-2, FLAGS_v);
    EXPECT_EQ(0700, Mode(elsewhere));
    CaptureStderr();
    OVRA_LOG_INFO("file only");
    OVRA_LOG_WARN("both");
    EXPECT_EQ(Lines{"both"}, Messages(GetCapturedStderr()));
    EXPECT_EQ((Lines{"file only", "both"}), Messages(ReadFile(LogFileIn(elsewhere))));

    ASSERT_EQ(0, unlink((root_ / "config/logging.conf").c_str()));
    ASSERT_EQ(0, OvraBase::Log::Init());
    for (const char* text : {"flow_control_frequency=7\nbogus=1\n", "verbosity\n", "verbosity=1x\n", "verbosity=\n",
                             "verbosity=101\n", "flow_control_frequency=0\n", "flow_control_frequency=99999999999999\n",
                             "stderr_threshold=4\n", "log_dir=relative/logs\n", "verbosity=1\nverbosity=2\n",
                             "Verbosity=1\n"}) {
        WriteConf(text);
        EXPECT_NE(0, OvraBase::Log::Init()) << text;
        EXPECT_EQ(1, OvraBase::Log::logFlowControlFrequency_) << text;
        EXPECT_EQ(0, FLAGS_v) << text;
    }
    ASSERT_EQ(0, unlink((root_ / "config/logging.conf").c_str()));
    ASSERT_EQ(0, mkdir((root_ / "config/logging.conf").c_str(), 0700));  // unreadable as a file
    EXPECT_NE(0, OvraBase::Log::Init());
    rmdir((root_ / "config/logging.conf").c_str());
}

TEST_F(LogTest, OwnerOnlyModesUnderTheSdkRootOrHome)
{
    const std::string logs = root_ / "logs";
    ASSERT_EQ(0, chmod(logs.c_str(), 0755));
    ASSERT_EQ(0, chmod(LogFileIn(logs).c_str(), 0644));
    ASSERT_EQ(0, OvraBase::Log::Init());
    EXPECT_EQ(0700, Mode(logs));
    EXPECT_EQ(0600, Mode(LogFileIn(logs)));
    ASSERT_EQ(0, chmod(LogFileIn(logs).c_str(), 0664));
    OvraBase::Log::UpdateFileMode();
    EXPECT_EQ(0600, Mode(LogFileIn(logs)));

    // Without a usable SDK root the log still starts, under $HOME/.ovra.
    ScratchDir home;
    EnvGuard sdk("OVRA_SDK_HOME", "/nonexistent/sdk"), homeEnv("HOME", home.Path().c_str());
    ASSERT_EQ(0, OvraBase::Log::Init());
    EXPECT_EQ(0700, Mode(home / ".ovra/logs"));
    EXPECT_EQ(0600, Mode(LogFileIn(home / ".ovra/logs")));
}

TEST_F(LogTest, LinksOtherKindsAndForeignOwnersAreRefused)
{
    ScratchDir elsewhere;
    WriteFile(elsewhere / "victim", "untouched");
    ASSERT_EQ(0, mkdir((elsewhere / "dir").c_str(), 0700));
    const std::string logs = root_ / "logs";
    const std::string file = LogFileIn(logs);
    const auto fresh = [&](bool withDirectory) {
        std::filesystem::remove_all(logs);
        return !withDirectory || mkdir(logs.c_str(), 0700) == 0;
    };
    const std::pair<const char*, std::function<bool()>> cases[] = {
        {"directory is a link", [&] { return fresh(false) && symlink((elsewhere / "dir").c_str(), logs.c_str()) == 0; }},
        {"file is a link", [&] { return fresh(true) && symlink((elsewhere / "victim").c_str(), file.c_str()) == 0; }},
        {"file is a dangling link", [&] { return fresh(true) && symlink((elsewhere / "no").c_str(), file.c_str()) == 0; }},
        {"file is a directory", [&] { return fresh(true) && mkdir(file.c_str(), 0700) == 0; }},
        {"directory is a file", [&] { return fresh(false) && (WriteFile(logs, ""), true); }},
        {"directory is someone else's",
         [&] { return fresh(true) && geteuid() == 0 && chown(logs.c_str(), getuid() + 1, getgid()) == 0; }},
    };
    for (const auto& entry : cases) {
        ASSERT_TRUE(entry.second()) << entry.first;
        EXPECT_NE(0, OvraBase::Log::Init()) << entry.first;
    }
    EXPECT_EQ("untouched", ReadFile(elsewhere / "victim"));
    EXPECT_EQ(0600, Mode(elsewhere / "victim"));
    EXPECT_EQ(-1, Mode(elsewhere / "no"));
    EXPECT_EQ(-1, Mode(LogFileIn(elsewhere / "dir")));
    std::filesystem::remove_all(logs);
}

TEST(LogBeforeInit, FirstRecordReachesStderrInTheFullFormat)
{
    char self[PATH_MAX] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    const std::string command = std::string(BEFORE_INIT) + "=1 '" + self + "' 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(nullptr, pipe);
    std::string output;
    char buffer[1024];
    for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) output.append(buffer, n);
    ASSERT_EQ(0, pclose(pipe)) << output;
    const Lines records = Records(output);  // exactly the record, no glog notice before it
    ASSERT_EQ(1u, records.size()) << output;
    EXPECT_EQ(0u, records[0].find("I src/base/Log_test:")) << output;
    EXPECT_EQ(Lines{"audit before init 42."}, Messages(output));
}

}  // namespace
