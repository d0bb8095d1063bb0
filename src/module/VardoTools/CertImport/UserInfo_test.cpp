#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <pwd.h>
#include <unistd.h>
#include <utmp.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "InProcess.h"
#include "TestTree.h"
#include "UserInfo.h"

namespace {

std::string Identity()
{
    const passwd* entry = getpwuid(getuid());
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    return " by user: [" + std::string(entry != nullptr ? entry->pw_name : "") + "] with hostname: [" + host + "]";
}

// Puts `fd` on standard input while it lives.
struct StandardInputAs {
    explicit StandardInputAs(int fd) : saved(dup(STDIN_FILENO)) { dup2(fd, STDIN_FILENO); }
    ~StandardInputAs()
    {
        dup2(saved, STDIN_FILENO);
        close(saved);
    }
    int saved;
};

utmp Session(const std::string& line, const std::string& host)
{
    utmp entry{};
    entry.ut_type = USER_PROCESS;
    std::strncpy(entry.ut_line, line.c_str(), sizeof(entry.ut_line));
    std::strncpy(entry.ut_host, host.c_str(), sizeof(entry.ut_host));
    return entry;
}

// Sessions on `count` other terminals with the hosts "other-1" ... and then, unless `line` is empty, ours.
std::vector<utmp> Sessions(int count, const std::string& line = "", const std::string& host = "")
{
    std::vector<utmp> entries;
    for (int i = 1; i <= count; ++i) {
        entries.push_back(Session("tty-other-" + std::to_string(i), "other-" + std::to_string(i)));
    }
    if (!line.empty()) {
        entries.push_back(Session(line, host));
    }
    return entries;
}

// The identity: user and machine name, then the remote host of the terminal on standard input, none when
// standard input is no terminal. The host comes from scratch login records; the search reads at most 1024
// records and then takes the last one read, matching or not.
TEST(UserInfoTest, IdentityAndRemoteHost)
{
    {
        const int fd = open("/dev/null", O_RDONLY);
        StandardInputAs input(fd);
        close(fd);
        VardoTest::RecordCapture capture;
        EXPECT_EQ(OvraStream::GetUserHostName(), "");
        EXPECT_EQ(OvraStream::GetUserInfo(), Identity());
        EXPECT_TRUE(capture.records.empty());
    }
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    StandardInputAs input(slave);
    const char* tty = ttyname(STDIN_FILENO);
    ASSERT_NE(tty, nullptr);
    const std::string line = tty + 5;  // without "/dev/"
    VardoTest::ScratchDir dir;
    const std::vector<std::tuple<std::vector<utmp>, std::string>> cases = {
        {Sessions(2, line, "192.0.2.7"), "192.0.2.7"},
        {{Session(line, "first"), Session(line, "second")}, "first"},
        {Sessions(0, line, ""), "localhost"},
        {Sessions(3), "localhost"},
        {Sessions(1023, line, "found"), "found"},
        {Sessions(1024, line, "found"), "other-1024"},
    };
    for (const auto& [entries, host] : cases) {
        SCOPED_TRACE(host + " from " + std::to_string(entries.size()) + " records");
        const std::string bytes(reinterpret_cast<const char*>(entries.data()), entries.size() * sizeof(utmp));
        VardoTest::WriteWholeFile(dir / "utmp", bytes);
        ASSERT_EQ(utmpname((dir / "utmp").c_str()), 0);
        VardoTest::RecordCapture capture;
        EXPECT_EQ(OvraStream::GetUserInfo(), Identity() + " at " + host);
        EXPECT_EQ(capture.Tagged(), std::vector<std::string>(host == "localhost" ? 1 : 0,
                                                              "WUnknown hostInfo in GetUserHostName function."));
    }
    utmpname(_PATH_UTMP);
    close(slave);
    close(master);
}

}  // namespace
