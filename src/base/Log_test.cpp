// SDK log: record format, per-site throttling, and Init over logging.conf and
// the place of the log (owner-only modes, links and other kinds refused). That
// a record written before Init reaches stderr in the same format is shown by
// the import command's audit record, end to end.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "OvraBase/Log.h"
#include "Records.h"
#include "Scratch.h"

OVRA_LOG_UNIT("src/base/Log_test");

namespace {

using namespace VardoTest;
using Lines = std::vector<std::string>;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

// The messages of the records in `output`, in order; any other line shows as "not a record".
Lines Messages(const std::string& output)
{
    Lines messages;
    for (const Record& record : ParseRecords(output)) {
        messages.push_back(record.message);
    }
    const size_t lines = static_cast<size_t>(std::count(output.begin(), output.end(), '\n'));
    return lines == messages.size() ? messages : Lines{"not a record in:\n" + output};
}

std::string LogFileIn(const std::string& directory)
{
    return directory + "/" + program_invocation_short_name + ".log";
}

// Each test runs on a fresh SDK root without logging.conf and restores the defaults.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, OvraBase::Log::Init()); }
    void TearDown() override { EXPECT_EQ(0, OvraBase::Log::Init()); }
    ScratchDir root_;
    EnvGuard sdkHome_{"OVRA_SDK_HOME", root_.Path().c_str()};
};

TEST_F(LogTest, RecordsGoToStderrAndFileWithTheUnitAndSeverity)
{
    const auto fail = []() -> int32_t { OVRA_RETURN_ERROR("Call memset_s failed.", 1007); };
    CaptureStderr();
    const int line = __LINE__ + 1;
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
    const std::vector<Record> records = ParseRecords(output);
    ASSERT_EQ(5u, records.size());
    EXPECT_EQ(line, records[0].line);
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ("WIEWE"[i], records[i].severity);
        EXPECT_EQ("src/base/Log_test", records[i].unit);
    }
    EXPECT_EQ(messages, Messages(ReadWholeFile(LogFileIn(root_ / "logs"))));
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

// Each row starts from the defaults with no log directory yet, prepares the root, and calls Init. A refused
// Init leaves the defaults in force; an accepted one sends an INFO and a WARNING record to the log file (0600,
// in a 0700 directory, each record once) and to stderr (the INFO only below stderr_threshold 1), and
// UpdateFileMode makes the file owner-only again.
// "verbosity=2" and comment lines, `size` bytes in all.
std::string ConfOfSize(std::size_t size)
{
    std::string text = "verbosity=2\n";
    while (text.size() + 64 < size) {
        text += "#" + std::string(62, 'x') + "\n";
    }
    return text + "#" + std::string(size - text.size() - 2, 'y') + "\n";
}

TEST_F(LogTest, InitOverConfigurationsAndLogPlaces)
{
    ScratchDir home, elsewhere;
    EnvGuard homeEnv("HOME", home.Path().c_str());
    WriteWholeFile(elsewhere / "victim", "untouched");
    ASSERT_EQ(0, mkdir((elsewhere / "dir").c_str(), 0700));
    const std::string logs = root_ / "logs", file = LogFileIn(logs), conf = root_ / "config/logging.conf";
    const auto link = [](const std::string& target, const std::string& at) {
        return [=] { ASSERT_EQ(0, symlink(target.c_str(), at.c_str())); };
    };
    const auto logsDir = [&](const std::function<void()>& then) {
        return [=] {
            ASSERT_EQ(0, mkdir(logs.c_str(), 0700));
            then();
        };
    };
    struct Case {
        std::string name;
        std::function<void()> prepare;
        bool accepted = true;
        std::string logDir = "";  // "": root/logs
        int32_t frequency = 1, verbosity = 0;
        bool infoOnStderr = true;
        std::optional<std::string> sdkHome = std::string();  // "": the root; nullopt: not set
    };
    std::vector<Case> cases = {
        {"no logging.conf", [] {}},
        {"settings", [&] { WriteWholeFile(conf, "# settings\n\n  log_dir = " + (root_ / "var/log/ovra") +
                                                "  \nflow_control_frequency=3\r\nverbosity=-2\nstderr_threshold=1\n"); },
         true, root_ / "var/log/ovra", 3, -2, false},
        {"wide modes of an existing log made owner-only",
         logsDir([&] {
             WriteWholeFile(file, "", 0644);
             ASSERT_EQ(0, chmod(logs.c_str(), 0755));
         })},
        {"no usable SDK root: under HOME", [] {}, true, home / ".ovra/logs", 1, 0, true, "/nonexistent/sdk"},
        {"no SDK root: under HOME", [&] { std::filesystem::remove_all(home / ".ovra"); }, true, home / ".ovra/logs", 1, 0, true, std::nullopt},
        {"logging.conf of the largest size", [&] { WriteWholeFile(conf, ConfOfSize(64 * 1024)); }, true, "", 1, 2},
        {"logging.conf one byte larger", [&] { WriteWholeFile(conf, ConfOfSize(64 * 1024 + 1)); }, false},
        {"logging.conf unreadable as a file", [&] { ASSERT_EQ(0, mkdir(conf.c_str(), 0700)); }, false},
        {"log directory is a link", link(elsewhere / "dir", logs), false},
        {"log file is a link", logsDir(link(elsewhere / "victim", file)), false},
        {"log file is a dangling link", logsDir(link(elsewhere / "no", file)), false},
        {"log file is a directory", logsDir([&] { ASSERT_EQ(0, mkdir(file.c_str(), 0700)); }), false},
        {"log directory is a file", [&] { WriteWholeFile(logs, ""); }, false},
        {"log directory is someone else's", logsDir([&] { ASSERT_EQ(0, chown(logs.c_str(), getuid() + 1, 0)); }),
         false},
    };
    for (const char* text : {"flow_control_frequency=7\nbogus=1\n", "verbosity\n", "verbosity=1x\n", "verbosity=\n",
                             "verbosity=101\n", "flow_control_frequency=0\n", "flow_control_frequency=99999999999999\n",
                             "stderr_threshold=4\n", "log_dir=relative/logs\n", "verbosity=1\nverbosity=2\n",
                             "Verbosity=1\n"}) {
        cases.push_back({text, [&conf, text] { WriteWholeFile(conf, text); }, false});
    }
    ASSERT_EQ(0, mkdir((root_ / "config").c_str(), 0700));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(conf);
        std::filesystem::remove_all(logs);
        ASSERT_EQ(0, OvraBase::Log::Init());
        std::filesystem::remove_all(logs);
        c.prepare();
        EnvGuard sdkHome("OVRA_SDK_HOME", !c.sdkHome ? nullptr : c.sdkHome->empty() ? root_.Path().c_str()
                                                                                    : c.sdkHome->c_str());
        EXPECT_EQ(c.accepted, OvraBase::Log::Init() == 0);
        EXPECT_EQ(c.accepted ? c.frequency : 1, OvraBase::Log::logFlowControlFrequency_);
        EXPECT_EQ(c.accepted ? c.verbosity : 0, FLAGS_v);
        if (c.accepted) {
            const std::string dir = c.logDir.empty() ? logs : c.logDir;
            OvraBase::Log::logFlowControlFrequency_ = 1;  // the probe sites write on every pass
            CaptureStderr();
            OVRA_LOG_INFO("info");
            OVRA_LOG_WARN("warn");
            EXPECT_EQ((c.infoOnStderr ? Lines{"info", "warn"} : Lines{"warn"}), Messages(GetCapturedStderr()));
            EXPECT_EQ((Lines{"info", "warn"}), Messages(ReadWholeFile(LogFileIn(dir))));
            EXPECT_EQ(0700, FileMode(dir));
            EXPECT_EQ(0600, FileMode(LogFileIn(dir)));
            ASSERT_EQ(0, chmod(LogFileIn(dir).c_str(), 0664));
            OvraBase::Log::UpdateFileMode();
            EXPECT_EQ(0600, FileMode(LogFileIn(dir)));
        }
    }
    std::filesystem::remove_all(conf);
    std::filesystem::remove_all(logs);
    EXPECT_EQ("untouched", ReadWholeFile(elsewhere / "victim"));
    EXPECT_EQ(0600, FileMode(elsewhere / "victim"));
    EXPECT_EQ(-1, FileMode(elsewhere / "no"));
    EXPECT_EQ(-1, FileMode(LogFileIn(elsewhere / "dir")));
}

}  // namespace
