// Operator identity: standard input that is no terminal, the shape of the
// identity text, and the remote host taken from the login records (a scratch
// login-record file stands in for the system's).
#include <fcntl.h>
#include <glog/logging.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <pwd.h>
#include <unistd.h>
#include <utmp.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "TestTree.h"
#include "UserInfo.h"

namespace {

const std::string KEY_TOOL_UNIT = "src/module/VardoTools/CertImport/VardoTools";
const std::string NO_HOST_WARNING = "Unknown hostInfo in GetUserHostName function.";

struct CapturedRecord {
    google::LogSeverity severity;
    std::string unit;
    std::string message;
};

class UserInfoRecordSink : public google::LogSink {
public:
    UserInfoRecordSink() { google::AddLogSink(this); }
    ~UserInfoRecordSink() override { google::RemoveLogSink(this); }
    using google::LogSink::send;
    void send(google::LogSeverity severity, const char* fullFilename, const char*, int, const struct ::tm*,
              const char* message, size_t messageLength) override
    {
        records.push_back({severity, fullFilename, std::string(message, messageLength)});
    }
    std::vector<CapturedRecord> records;
};

// Puts `fd` on standard input for the life of the object.
class StandardInputAs {
public:
    explicit StandardInputAs(int fd) : saved_(dup(STDIN_FILENO)) { dup2(fd, STDIN_FILENO); }
    ~StandardInputAs()
    {
        dup2(saved_, STDIN_FILENO);
        close(saved_);
    }

private:
    int saved_;
};

std::string ExpectedIdentity()
{
    const passwd* entry = getpwuid(getuid());
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    return " by user: [" + std::string(entry != nullptr ? entry->pw_name : "") + "] with hostname: [" + host + "]";
}

TEST(UserInfoTest, StandardInputNotATerminal)
{
    const std::vector<std::string> sources = {"/dev/null", "/etc/passwd"};
    for (const auto& source : sources) {
        SCOPED_TRACE(source);
        const int fd = open(source.c_str(), O_RDONLY);
        ASSERT_GE(fd, 0);
        StandardInputAs input(fd);
        close(fd);
        UserInfoRecordSink sink;
        EXPECT_EQ(OvraStream::GetUserHostName(), "");
        EXPECT_EQ(OvraStream::GetUserInfo(), ExpectedIdentity());
        EXPECT_TRUE(sink.records.empty());
    }
}

// A terminal of our own on standard input and a login-record file of our own,
// so the search for the terminal's session is fully under the test's control.
class UserHostNameTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(openpty(&master_, &slave_, nullptr, nullptr, nullptr), 0);
        input_ = std::make_unique<StandardInputAs>(slave_);
        const char* name = ttyname(STDIN_FILENO);
        ASSERT_NE(name, nullptr);
        line_ = std::string(name).substr(5);  // "/dev/pts/N" -> "pts/N"
        char pattern[] = "/tmp/vardo-utmp-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        recordFile_ = dir_ + "/utmp";
    }

    void TearDown() override
    {
        utmpname(_PATH_UTMP);
        input_.reset();
        close(slave_);
        close(master_);
        unlink(recordFile_.c_str());
        rmdir(dir_.c_str());
    }

    static utmp Entry(const std::string& line, const std::string& host)
    {
        utmp entry {};
        entry.ut_type = USER_PROCESS;
        std::strncpy(entry.ut_line, line.c_str(), sizeof(entry.ut_line));
        std::strncpy(entry.ut_host, host.c_str(), sizeof(entry.ut_host));
        std::strncpy(entry.ut_user, "ops", sizeof(entry.ut_user));
        return entry;
    }

    void UseRecords(const std::vector<utmp>& entries)
    {
        std::string bytes(reinterpret_cast<const char*>(entries.data()), entries.size() * sizeof(utmp));
        VardoTest::WriteWholeFile(recordFile_, bytes, 0600);
        ASSERT_EQ(utmpname(recordFile_.c_str()), 0);
    }

    // `count` records of other terminals, each with its own host "other-<i>".
    std::vector<utmp> OtherSessions(int count) const
    {
        std::vector<utmp> entries;
        for (int i = 1; i <= count; ++i) {
            entries.push_back(Entry("tty-other-" + std::to_string(i), "other-" + std::to_string(i)));
        }
        return entries;
    }

    int master_ = -1;
    int slave_ = -1;
    std::unique_ptr<StandardInputAs> input_;
    std::string line_;
    std::string dir_;
    std::string recordFile_;
};

TEST_F(UserHostNameTest, RemoteHostOfTheTerminalSession)
{
    struct Case {
        const char* name;
        std::vector<utmp> entries;
        std::string host;
        bool warned;
    };
    auto withMatchAt = [this](int position, const std::string& host) {
        std::vector<utmp> entries = OtherSessions(position - 1);
        entries.push_back(Entry(line_, host));
        return entries;
    };
    const std::vector<Case> cases = {
        {"remote session", {Entry("tty9", "elsewhere"), Entry(line_, "192.0.2.7")}, "192.0.2.7", false},
        {"first matching record wins", {Entry(line_, "first"), Entry(line_, "second")}, "first", false},
        {"local session without host", {Entry(line_, "")}, "localhost", true},
        {"no record of the terminal", OtherSessions(3), "localhost", true},
        {"no records at all", {}, "localhost", true},
        {"match as the 1024th record", withMatchAt(1024, "found"), "found", false},
        // The search stops at 1024 records and takes the last one read.
        {"match only after 1024 records", withMatchAt(1025, "found"), "other-1024", false},
        {"1100 other records", OtherSessions(1100), "other-1024", false},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        UseRecords(testCase.entries);
        UserInfoRecordSink sink;
        EXPECT_EQ(OvraStream::GetUserHostName(), testCase.host);
        if (testCase.warned) {
            ASSERT_EQ(sink.records.size(), 1u);
            EXPECT_EQ(sink.records[0].severity, google::GLOG_WARNING);
            EXPECT_EQ(sink.records[0].unit, KEY_TOOL_UNIT);
            EXPECT_EQ(sink.records[0].message, NO_HOST_WARNING);
        } else {
            EXPECT_TRUE(sink.records.empty());
        }
    }
}

TEST_F(UserHostNameTest, IdentityEndsWithTheRemoteHost)
{
    UseRecords({Entry(line_, "192.0.2.7")});
    EXPECT_EQ(OvraStream::GetUserInfo(), ExpectedIdentity() + " at 192.0.2.7");
    UseRecords({});
    EXPECT_EQ(OvraStream::GetUserInfo(), ExpectedIdentity() + " at localhost");
}

}  // namespace
