// The operator command vardo-keys on the key stores of a scratch ./keys:
// usage errors, rotation, status, verify, the root key update, renewal and repair.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "Scratch.h"

namespace VardoTest {
namespace {

// Runs `command` in `dir` with its output into dir/output; its exit status.
// faketime starts a program in the past (its library before the sanitizer's).
int RunIn(const ScratchDir& dir, const std::string& command)
{
    const std::string line = "cd '" + dir.Path() + "' && ASAN_OPTIONS=\"$ASAN_OPTIONS:verify_asan_link_order=0\" " +
                             command + " >output 2>&1";
    const int status = std::system(line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Steps in order on one directory; status and verify report a damaged copy but never touch it.
TEST(VardoKeysCommand, UsageAndOperationsTable)
{
    ScratchDir dir;
    ASSERT_EQ(0, mkdir((dir / "keys").c_str(), 0700));
    const std::string primary = dir / "keys/vardo.ks", standby = dir / "keys/StandbyKsf.ks";
    std::string damaged, root;
    // Before the step, vardo-keys arguments, exit status and a part of its output.
    const struct { std::function<void()> before; const char* arguments; int status; const char* output; } steps[] = {
        {{}, "--help", 0, "update-root-key"},
        {{}, "", 2, "no command given"},
        {{}, "frobnicate", 2, "unknown command frobnicate"},
        {{}, "rotate x1", 2, "one key domain number"},
        {{}, "rotate 4294967296", 2, "one key domain number"},
        {{}, "verify extra", 2, "takes no arguments"},
        {{}, "--bogus status", 2, "unknown option --bogus"},
        {{}, "verify", 1, "missing"},
        {{}, "rotate 3", 0, "domain 3: new active master key 1"},
        {{}, "rotate 3", 0, "domain 3: new active master key 2"},
        {{}, "status", 0, "master key 1    retired"},
        {{}, "status", 0, "master key 2    active"},
        {[&] { WriteWholeFile(standby, damaged = ReadWholeFile(standby).replace(9, 1, "?")); }, "verify", 1,
         "damaged"},
        {{}, "status", 1, "damaged"},
        {[&] { EXPECT_EQ(damaged, ReadWholeFile(standby)); root = ReadWholeFile(primary).substr(24, 32); },
         "update-root-key", 0, "root key replaced; every"},
        {[&] { EXPECT_NE(root, ReadWholeFile(primary).substr(24, 32)); }, "verify", 0, "verify: OK"},
        {{}, "renew --within 180", 2, "below the 180-day key lifetime"},
        {{}, "status --within=3", 2, "--within belongs to renew"},
        {{}, "renew", 0, "no active master key expires within 30 days"},
        {[&] { ASSERT_EQ(0, RunIn(dir, std::string("faketime -f -170d '" VARDO_KEYS_BINARY "' rotate 5"))); }, "renew --within=20", 0,
         "domain 5: master key 1 expires"},
        {{}, "renew --within 20", 0, "no active master key expires within 20 days"},
        {[&] { WriteWholeFile(standby, ReadWholeFile(standby).replace(9, 1, "?")); }, "repair", 0,
         "repair: rebuilt ./keys/StandbyKsf.ks (was damaged) from ./keys/vardo.ks"},
        {{}, "repair", 0, "nothing to do"},
        {[&] { ASSERT_EQ(0, chmod(primary.c_str(), 0644)); damaged = ReadWholeFile(standby).replace(9, 1, "?");
               WriteWholeFile(standby, damaged); },
         "renew", 1, "renew refused, ./keys/vardo.ks (code 8007: a key store is a link"},
        {{}, "repair", 1, "repair refused, ./keys/vardo.ks (code 8007"},
        {[&] { ASSERT_EQ(0, chmod(primary.c_str(), 0600)); root = ReadWholeFile(primary).replace(9, 1, "?");
               WriteWholeFile(primary, root); },
         "repair", 1, "no healthy copy to rebuild from"},
        {[&] { EXPECT_EQ(root, ReadWholeFile(primary)); EXPECT_EQ(damaged, ReadWholeFile(standby)); }, "--help", 0,
         "repair"},
        {{}, "--primary a.ks --standby b.ks rotate 0", 0, "domain 0: new active master key 1"},
        {{}, "--primary a.ks --standby b.ks verify", 0, "verify: OK"},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.arguments);
        if (step.before) {
            step.before();
        }
        const int status = RunIn(dir, std::string("'" VARDO_KEYS_BINARY "' ") + step.arguments);
        const std::string output = ReadWholeFile(dir / "output");
        EXPECT_EQ(step.status, status) << output;
        EXPECT_NE(std::string::npos, output.find(step.output)) << output;
    }
}

}  // namespace
}  // namespace VardoTest
