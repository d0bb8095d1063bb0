// A program that owns glog and links the installed SDK (tests/consumer/host,
// built against a scratch install by BuildConsumers.cmake) decrypts the pass
// phrase. Whatever it did with glog, it neither aborts nor loses its own
// lines, the SDK's records go through its glog in its format (no SDK log file
// appears), and the exported functions called out of order give codes.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "PtyRunner.h"
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
        EXPECT_TRUE(std::regex_search(output, std::regex(std::string(" VardoTools:[0-9]+\\] ") + row.record)))
            << output;
        EXPECT_EQ(output.find("src/module/"), std::string::npos) << output;
        if (row.kind == std::string("glog-first")) {  // Log::Init in a host redirects nothing
            EXPECT_NE(output.find("host: log init 0"), std::string::npos) << output;
        }
        EXPECT_FALSE(std::filesystem::exists(tree.Root() + "/logs")) << "an SDK log file was opened";
    }
    EXPECT_TRUE(std::filesystem::is_empty(noStores + "/keys")) << "no store or lock file may appear";
}

TEST(HostLogging, ExportedFunctionsOutOfOrderGiveCodes)
{
    VardoTest::SdkTree tree;
    ASSERT_FALSE(EncryptInto(tree).empty());
    const auto [status, output] = RunHost(tree, tree.WorkDir(), {"lifecycle"});
    ASSERT_EQ(status, 0) << output;
    const std::pair<const char*, int> steps[] = {
        {"stop before start", 8001},    {"encrypt before start", 6009},   {"root key before start", 8001},
        {"master key before start", 8001}, {"start", 0},                  {"start twice", 8002},
        {"key tool decrypt while running", 1001}, {"stop", 0},           {"stop twice", 8001},
        {"decrypt after stop", 6033},
    };
    for (const auto& step : steps) {
        EXPECT_NE(output.find(std::string("step ") + step.first + ": " + std::to_string(step.second)),
                  std::string::npos) << step.first << "\n" << output;
    }
}

}  // namespace
