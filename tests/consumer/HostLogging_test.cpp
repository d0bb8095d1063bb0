// A program that owns glog and links the installed SDK (tests/consumer/host,
// built against a scratch install by BuildConsumers.cmake) decrypts the pass
// phrase. Whatever it did with glog, it neither aborts nor loses its own
// lines, and the SDK's records go through its glog in its format (no SDK log
// file appears).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "PtyRunner.h"
#include "SecurityService.h"
#include "TestTree.h"
#include "VardoTools.h"

namespace {

const std::string PASS_PHRASE = "Host-Pass-2026";

// The stores and the server_key_mm value an import leaves in `tree`.
std::string EncryptInto(const VardoTest::SdkTree& tree)
{
    char previous[PATH_MAX] = {};
    if (getcwd(previous, sizeof(previous)) == nullptr || chdir(tree.WorkDir().c_str()) != 0) {
        return "";
    }
    setenv("OVRA_SDK_HOME", tree.Root().c_str(), 1);
    OvraStream::VardoTools tool;
    const int32_t rc = tool.CheckDirectoryKeys() != 0 ? -1 : tool.EncryptCaPassword(PASS_PHRASE.c_str(), static_cast<int32_t>(PASS_PHRASE.size()), 0);
    unsetenv("OVRA_SDK_HOME");
    const std::string config = tree.ReadConfig();
    const size_t start = config.find("server_key_mm=") + 14;
    return chdir(previous) != 0 || rc != 0 ? "" : config.substr(start, config.find('\n', start) - start);
}

// The host's exit status (-1 when it died of a signal) and what it wrote:
// standard error (glog), then standard output.
std::pair<int, std::string> RunHost(const VardoTest::SdkTree& tree, const std::string& dir,
                                    const std::vector<std::string>& args)
{
    VardoTest::RunOptions run;
    run.program = VARDO_GLOG_HOST_BINARY;
    run.args = args;
    run.workingDirectory = dir;
    run.setEnv = {tree.SdkHomeEnv()};
    run.stdinFromDevNull = true;
    const VardoTest::RunResult result = VardoTest::RunInPty(run);
    return {result.exitStatus, result.errors + result.terminal};
}

TEST(HostLogging, EveryKindOfHostDecryptsOrIsRefusedWithItsOwnLinesKept)
{
    VardoTest::SdkTree tree;
    const std::string cipher = EncryptInto(tree);
    ASSERT_FALSE(cipher.empty());
    std::string tampered = cipher;
    tampered[tampered.size() / 2] = tampered[tampered.size() / 2] == 'A' ? 'B' : 'A';
    const std::string noStores = tree.InputDir();  // an empty keys directory, no stores
    ASSERT_EQ(mkdir((noStores + "/keys").c_str(), 0700), 0);
    struct Row {
        const char* kind;
        std::string text;
        std::string dir;
        int status;
        const char* result;
        const char* record;  // the SDK's own record of the outcome
    };
    const Row rows[] = {
        {"glog-first", cipher, tree.WorkDir(), 0, "decrypt 0 matches", "VARDO decrypt success"},
        {"glog-first", tampered, tree.WorkDir(), 1, "decrypt 1001 differs", "VARDO decrypt failed"},
        {"glog-after-load", cipher, tree.WorkDir(), 0, "decrypt 0 matches", "VARDO decrypt success"},
        {"glog-after-load", tampered, tree.WorkDir(), 1, "decrypt 1001 differs", "VARDO decrypt failed"},
        {"no-glog", cipher, tree.WorkDir(), 0, "decrypt 0 matches", "VARDO decrypt success"},
        {"no-glog", tampered, tree.WorkDir(), 1, "decrypt 1001 differs", "VARDO decrypt failed"},
        {"glog-first", cipher, noStores, 1, "decrypt 1001 differs", "The ks files do not exist"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.kind) + " " + row.result + " in " + row.dir);
        const auto [status, output] = RunHost(tree, row.dir, {row.kind, row.text, "9", PASS_PHRASE});
        EXPECT_EQ(status, row.status) << output;
        const size_t before = output.find("host: before decrypt");
        const size_t result = output.find(std::string("host: ") + row.result, before);
        const size_t after = output.find("host: after decrypt", before);
        EXPECT_TRUE(before < result && result < after && after != std::string::npos) << output;
        // The SDK's record in glog's format (unit base name), none in the SDK's (unit path).
        const size_t at = output.find(row.record);
        const size_t line = output.rfind('\n', at) + 1;  // 0 on the first line
        EXPECT_NE(at, std::string::npos) << output;
        EXPECT_NE(output.substr(line, at - line).find(" VardoTools:"), std::string::npos) << output;
        EXPECT_EQ(output.find("src/module/"), std::string::npos) << output;
        if (row.kind == std::string("glog-first")) {  // Log::Init in a host redirects nothing
            EXPECT_NE(output.find("host: log init 0"), std::string::npos) << output;
        }
        EXPECT_FALSE(std::filesystem::exists(tree.Root() + "/logs")) << "an SDK log file was opened";
    }
    EXPECT_TRUE(std::filesystem::is_empty(noStores + "/keys")) << "no store or lock file may appear";
}

// Through the library's exported interface, in this process: the functions
// called before the engine starts, twice, and after it stopped give codes.
TEST(HostLogging, ExportedFunctionsOutOfOrderGiveCodes)
{
    VardoTest::SdkTree tree;
    ASSERT_FALSE(EncryptInto(tree).empty());
    char previous[PATH_MAX] = {};
    ASSERT_TRUE(getcwd(previous, sizeof(previous)) != nullptr && chdir(tree.WorkDir().c_str()) == 0);
    OvraStream::VardoTools tool;
    TagVardoConfig first{};
    TagVardoConfig second{};
    ASSERT_EQ(tool.VardoInit(first, 9) | tool.VardoInit(second, 9), 0);
    const EncryptParam params{9, 0};
    char text[256] = {0};
    uint32_t textLength = sizeof(text);
    char* plain = nullptr;
    unsigned long plainLength = 0;
    const std::tuple<const char*, std::function<int32_t()>, int32_t> steps[] = {
        {"stop before start", [&] { return SeFinalize(&first); }, 8001},
        {"encrypt before start", [&] { return PaskMemEncryptBase64(&params, "pass", 4, text, &textLength); }, 6009},
        {"root key before start", [] { return SeUpdateRootKey(); }, 8001},
        {"master key before start", [] { return SeCheckAndUpdateMk(0, 0); }, 8001},
        {"start", [&] { return SeInitialize(&first); }, 0},
        {"start twice", [&] { return SeInitialize(&second); }, 8002},
        {"key tool decrypt while running", [&] { return tool.DecryptCaPassword("QUJD", &plain, plainLength, 9); },
         1001},
        {"stop", [&] { return SeFinalize(&first); }, 0},
        {"stop twice", [&] { return SeFinalize(&first); }, 8001},
        {"decrypt after stop", [&] { return PaskMemDecryptBase64(0, "QUJDREVG", 8, text, sizeof(text)); }, 6033},
    };
    for (const auto& [name, call, code] : steps) {
        EXPECT_EQ(call(), code) << name;
    }
    EXPECT_EQ(plain, nullptr);
    EXPECT_EQ(chdir(previous), 0);
}

}  // namespace
