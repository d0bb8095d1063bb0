// The remote host in the operator identity: found in scratch login records for
// the terminal on standard input. (User and machine name are checked in the
// command's audit record, end to end.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>
#include <utmp.h>

#include <cstring>
#include <string>
#include <vector>

#include "Records.h"
#include "Scratch.h"
#include "UserInfo.h"

namespace {

// Login records of `count` sessions on other terminals with the hosts "other-1" ..., then, unless `line` is
// empty, one on `line` from `host`.
std::string LoginRecords(int count, const std::string& line = "", const std::string& host = "")
{
    std::vector<utmp> entries(count + (line.empty() ? 0 : 1));
    for (size_t i = 0; i < entries.size(); ++i) {
        const bool ours = i == static_cast<size_t>(count);
        entries[i].ut_type = USER_PROCESS;
        std::strncpy(entries[i].ut_line, ours ? line.c_str() : ("tty-other-" + std::to_string(i + 1)).c_str(),
                     sizeof(entries[i].ut_line));
        std::strncpy(entries[i].ut_host, ours ? host.c_str() : ("other-" + std::to_string(i + 1)).c_str(),
                     sizeof(entries[i].ut_host));
    }
    return std::string(reinterpret_cast<const char*>(entries.data()), entries.size() * sizeof(utmp));
}

// No terminal on standard input: no host. Else the host of the first record of our terminal; the search reads at
// most 1024 records and then takes the last one read, matching or not; "localhost" (with a warning) when none.
TEST(UserInfoTest, RemoteHost)
{
    const int saved = dup(STDIN_FILENO);
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    const int devNull = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(devNull, STDIN_FILENO), STDIN_FILENO);
    {
        VardoTest::RecordCapture capture;
        EXPECT_EQ(OvraStream::GetUserHostName(), "");
        EXPECT_EQ(OvraStream::GetUserInfo().find(" at "), std::string::npos);
        EXPECT_TRUE(capture.records.empty());
    }
    ASSERT_EQ(dup2(slave, STDIN_FILENO), STDIN_FILENO);
    const std::string line = ptsname(master) + 5;  // without "/dev/"
    VardoTest::ScratchDir dir;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {LoginRecords(2, line, "192.0.2.7"), "192.0.2.7"},
        {LoginRecords(0, line, "first") + LoginRecords(0, line, "second"), "first"},
        {LoginRecords(0, line, ""), "localhost"},
        {LoginRecords(3), "localhost"},
        {LoginRecords(1023, line, "found"), "found"},
        {LoginRecords(1024, line, "found"), "other-1024"},
    };
    for (const auto& [records, host] : cases) {
        SCOPED_TRACE(host + " from " + std::to_string(records.size() / sizeof(utmp)) + " records");
        VardoTest::WriteWholeFile(dir / "utmp", records);
        ASSERT_EQ(utmpname((dir / "utmp").c_str()), 0);
        VardoTest::RecordCapture capture;
        const std::string info = OvraStream::GetUserInfo();
        EXPECT_EQ(info.substr(info.find("] at ") + 1), " at " + host);
        EXPECT_EQ(capture.Tagged(), std::vector<std::string>(host == "localhost" ? 1 : 0,
                                                              "WUnknown hostInfo in GetUserHostName function."));
    }
    utmpname(_PATH_UTMP);
    dup2(saved, STDIN_FILENO);
    for (int fd : {saved, master, slave, devNull}) {
        close(fd);
    }
}

}  // namespace
