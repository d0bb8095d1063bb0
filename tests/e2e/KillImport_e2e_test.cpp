// Kills at random moments: of an import after its CA confirmation, each
// followed by a plain import that must succeed with nothing removed by hand
// and leave every line of the configuration; of vardo-keys, whose semaphore
// sets the next start must reclaim. Slow (tens of seconds): label "kill".
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ImportRuns.h"
#include "Records.h"
#include "Scratch.h"
#include "TestUser.h"

namespace VardoTest {
namespace {

// Microseconds one run of `options` takes.
long TimedRun(const RunOptions& options, RunResult& result)
{
    const auto start = std::chrono::steady_clock::now();
    result = RunInPty(options);
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
}

// Time of day, in microseconds, of the record line of `log` that holds `text`.
long RecordTime(const std::string& log, const std::string& text)
{
    const std::size_t at = log.find(text);
    const std::size_t line = at == std::string::npos ? 0 : log.rfind('\n', at) + 1;
    int hour = 0, minute = 0, second = 0, micros = 0;
    std::sscanf(log.c_str() + line + 10, "%2d:%2d:%2d.%6d", &hour, &minute, &second, &micros);
    return ((hour * 60L + minute) * 60L + second) * 1000000L + micros;
}

TEST(KillImportTest, EveryKillIsFollowedByAWholeImport)
{
    (void)OwnIpcNamespace();
    const SdkTree tree;
    const InputSet inputs = MakeValidInputs(tree.InputDir(), IMPORT_PASS);
    tree.WriteConfig(ConfigText("", false));
    // Kills fall within a plain import once the key stores exist, every other
    // one within its rewrites (from the copies to the end).
    RunResult plain;
    (void)TimedRun(ImportOptions(tree, inputs), plain);
    const long span = TimedRun(ImportOptions(tree, inputs), plain);
    ASSERT_EQ(plain.exitStatus, 0) << plain.errors;
    const long asked = RecordTime(plain.errors, "[y/n]");
    const long rewrites = RecordTime(plain.errors, "Copy files success.") - asked;
    const long rewriteSpan = RecordTime(plain.errors, "server_key_mm encrypted success") - asked - rewrites;
    ASSERT_TRUE(rewrites > 0 && rewriteSpan > 0) << plain.errors;

    std::mt19937 random(20240613);
    for (int i = 0; i < 36; ++i) {
        RunOptions killed = ImportOptions(tree, inputs);
        killed.killAfterMicroseconds = i % 2 == 0 ? random() % span : rewrites + random() % rewriteSpan;
        SCOPED_TRACE("kill " + std::to_string(i) + " after " + std::to_string(*killed.killAfterMicroseconds) + " us");
        const int status = RunInPty(killed).exitStatus;
        EXPECT_TRUE(status == -1 || status == 0);
        plain = RunInPty(ImportOptions(tree, inputs));
        ASSERT_EQ(plain.exitStatus, 0) << plain.errors;
        const std::string config = tree.ReadConfig();
        ASSERT_EQ(config, ConfigText(CipherOf(config), true));
        EXPECT_EQ(Leftovers(tree), std::vector<std::string>{});
    }
    EXPECT_EQ(NamesIn(tree.KeysDir(), ""), (std::vector<std::string>{"StandbyKsf.ks", "ca.crt", "server.crt",
                                                                      "server.key", "vardo.ks", "vardo.ks.lock"}));
    EXPECT_EQ(Decrypt(CipherOf(tree.ReadConfig()), tree.WorkDir()), IMPORT_PASS);
}

RunOptions KeyTool(const std::string& dir, const std::string& command)
{
    RunOptions options;
    options.program = VARDO_KEYS_BINARY;
    options.args = {command, "1"};
    options.args.resize(command == "rotate" ? 2 : 1);
    options.workingDirectory = dir;
    return options;
}

TEST(KillImportTest, KilledKeyToolsLeaveNoSemaphoreSetBehind)
{
    if (!OwnIpcNamespace()) {
        GTEST_SKIP() << "needs an IPC namespace of its own";
    }
    const ScratchDir dir;
    ASSERT_EQ(mkdir((dir / "keys").c_str(), 0700), 0);
    // The kills land within the quickest of a few whole runs, so that a run
    // slowed by other work on the machine does not spread them past the end.
    long span = 0;
    for (int i = 0; i < 3; ++i) {
        RunResult whole;
        const long taken = TimedRun(KeyTool(dir.Path(), "rotate"), whole);
        ASSERT_EQ(whole.exitStatus, 0) << whole.errors;
        span = i == 0 ? taken : std::min(span, taken);
    }
    std::mt19937 random(7);
    int killed = 0;
    for (int i = 0; i < 40; ++i) {
        RunOptions options = KeyTool(dir.Path(), "rotate");
        options.killAfterMicroseconds = random() % span;
        killed += RunInPty(options).exitStatus == -1;
    }
    EXPECT_GT(killed, 10) << "the kills came too late to matter";
    EXPECT_EQ(RunInPty(KeyTool(dir.Path(), "rotate")).exitStatus, 0);
    int sets = 0;
    for (key_t key = 0x20161111; key < 0x20161111 + 1000; ++key) {
        sets += semget(key, 1, 0) != -1;
    }
    EXPECT_EQ(sets, 0) << "a set left by a killed run was not reclaimed";
    EXPECT_EQ(RunInPty(KeyTool(dir.Path(), "verify")).exitStatus, 0);
}

// Rotations at the same time each print the key they made.
TEST(KillImportTest, ConcurrentRotationsPrintTheirOwnKeys)
{
    (void)OwnIpcNamespace();
    const ScratchDir dir;
    ASSERT_EQ(mkdir((dir / "keys").c_str(), 0700), 0);
    FILE* output = popen(("cd '" + dir.Path() + "' && for i in 1 2 3 4 5 6; do '" VARDO_KEYS_BINARY
                          "' rotate 7 2>/dev/null & done; wait").c_str(), "r");
    ASSERT_NE(output, nullptr);
    std::multiset<std::string> printed, expected;
    char line[128];
    while (fgets(line, sizeof(line), output) != nullptr) {
        printed.insert(line);
    }
    EXPECT_EQ(pclose(output), 0);
    for (int id = 1; id <= 6; ++id) {
        expected.insert("domain 7: new active master key " + std::to_string(id) + "\n");
    }
    EXPECT_EQ(printed, expected);
}

}  // namespace
}  // namespace VardoTest
