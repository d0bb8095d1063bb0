// The operator command vardo-keys, run as a program: usage, status and verify
// (read-only, non-zero on a damaged copy), rotate and update-root-key.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "KmsTestSupport.h"

namespace {

using KmsTest::ReadFile;
using KmsTest::ScratchDir;

struct CommandRun {
    int status;
    std::string output;  // standard output and error
};

// Runs vardo-keys in `directory` with `arguments`.
CommandRun VardoKeys(const std::string& directory, const std::string& arguments)
{
    const std::string command = "cd '" + directory + "' && '" VARDO_KEYS_BINARY "' " + arguments + " 2>&1";
    CommandRun run{-1, ""};
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    char buffer[512];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        run.output.append(buffer, n);
    }
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

struct UsageCase {
    const char* arguments;
    int status;
    const char* expected;  // part of the output
};

const UsageCase kUsageCases[] = {
    {"--help", 0, "update-root-key"},
    {"status --help", 0, "Never shows key bytes"},
    {"verify --help", 0, "Exit 0 when both are healthy"},
    {"rotate --help", 0, "rotate DOMAIN"},
    {"update-root-key --help", 0, "re-wraps every master key"},
    {"", 2, "no command given"},
    {"frobnicate", 2, "unknown command frobnicate"},
    {"rotate", 2, "one key domain number"},
    {"rotate x1", 2, "one key domain number"},
    {"rotate 4294967296", 2, "one key domain number"},
    {"verify extra", 2, "takes no arguments"},
    {"--primary", 2, "needs a path"},
    {"--bogus status", 2, "unknown option --bogus"},
};

TEST(VardoKeysCommand, UsageTable)
{
    ScratchDir dir;
    for (const UsageCase& testCase : kUsageCases) {
        SCOPED_TRACE(testCase.arguments);
        const CommandRun run = VardoKeys(dir.Path(), testCase.arguments);
        EXPECT_EQ(testCase.status, run.status);
        EXPECT_NE(std::string::npos, run.output.find(testCase.expected)) << run.output;
    }
}

TEST(VardoKeysCommand, OperatesOnTheDefaultStores)
{
    ScratchDir dir;
    ASSERT_EQ(0, mkdir((dir.Path() + "/keys").c_str(), 0700));
    CommandRun run = VardoKeys(dir.Path(), "verify");
    EXPECT_EQ(1, run.status) << "no stores yet";

    run = VardoKeys(dir.Path(), "rotate 3");
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("domain 3: new active master key 1"));
    run = VardoKeys(dir.Path(), "rotate 3");
    EXPECT_NE(std::string::npos, run.output.find("domain 3: new active master key 2"));

    run = VardoKeys(dir.Path(), "status");
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("domain 3\n"));
    EXPECT_NE(std::string::npos, run.output.find("master key 1    retired"));
    EXPECT_NE(std::string::npos, run.output.find("master key 2    active"));

    const std::string primary = dir.Path() + "/keys/vardo.ks";
    const std::string standby = dir.Path() + "/keys/StandbyKsf.ks";
    std::string damaged = ReadFile(standby);
    damaged[40] ^= 0x20;
    KmsTest::WriteFile(standby, damaged);
    run = VardoKeys(dir.Path(), "verify");
    EXPECT_EQ(1, run.status);
    EXPECT_NE(std::string::npos, run.output.find("damaged"));
    EXPECT_EQ(1, VardoKeys(dir.Path(), "status").status);
    EXPECT_EQ(damaged, ReadFile(standby)) << "status and verify change nothing";

    const std::string rootBefore = ReadFile(primary).substr(24, 32);
    run = VardoKeys(dir.Path(), "update-root-key");
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_NE(rootBefore, ReadFile(primary).substr(24, 32));
    run = VardoKeys(dir.Path(), "verify");
    EXPECT_EQ(0, run.status) << "the engine start repaired the standby: " << run.output;
    EXPECT_NE(std::string::npos, run.output.find("verify: OK"));
}

TEST(VardoKeysCommand, OtherPathsByOption)
{
    ScratchDir dir;
    const std::string options = "--primary '" + dir.Primary() + "' --standby '" + dir.Standby() + "' ";
    EXPECT_EQ(0, VardoKeys(dir.Path(), options + "rotate 0").status);
    EXPECT_TRUE(KmsTest::Exists(dir.Primary()));
    EXPECT_TRUE(KmsTest::Exists(dir.Standby()));
    EXPECT_EQ(0, VardoKeys(dir.Path(), options + "verify").status);
}

}  // namespace
