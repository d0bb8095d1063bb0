// The operator command vardo-keys on the key stores of a scratch ./keys:
// usage errors, rotation, status, verify and the root key update.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "Scratch.h"

namespace VardoTest {
namespace {

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
         "update-root-key", 0, "root key replaced"},
        {[&] { EXPECT_NE(root, ReadWholeFile(primary).substr(24, 32)); }, "verify", 0, "verify: OK"},
        {{}, "--primary a.ks --standby b.ks rotate 0", 0, "domain 0: new active master key 1"},
        {{}, "--primary a.ks --standby b.ks verify", 0, "verify: OK"},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.arguments);
        if (step.before) {
            step.before();
        }
        const int status = std::system(
            ("cd '" + dir.Path() + "' && '" VARDO_KEYS_BINARY "' " + step.arguments + " >output 2>&1").c_str());
        const std::string output = ReadWholeFile(dir / "output");
        EXPECT_EQ(step.status, WIFEXITED(status) ? WEXITSTATUS(status) : -1) << output;
        EXPECT_NE(std::string::npos, output.find(step.output)) << output;
    }
}

}  // namespace
}  // namespace VardoTest
