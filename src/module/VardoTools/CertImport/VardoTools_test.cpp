// The key tool object's wipes, the configuration file location and the keys directory.
#include "VardoTools.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "OvraBase/Log.h"
#include "Records.h"
#include "ResultCode/ResultCode.h"
#include "Scratch.h"
#include "TestUser.h"

namespace {

using namespace VardoTest;
using OvraStream::VardoTools;
using Records = std::vector<std::string>;
constexpr int32_t INVALID = OvraBase::APP_ERR_INVALID_PARAM;
constexpr int32_t GENERAL = OvraBase::APP_ERR_GENERAL_FAILED;
constexpr int32_t NO_PERMISSION = OvraBase::APP_ERR_NO_PERMISSION;

// Each test works in a scratch directory of its own and leaves OVRA_SDK_HOME unset.
class VardoToolsTest : public testing::Test {
protected:
    void SetUp() override { OvraBase::Log::logFlowControlFrequency_ = 1; }
    void TearDown() override { unsetenv("OVRA_SDK_HOME"); }
    ScratchDir dir_{true};
};

// Wipes stop at the first zero byte and at maxLength; null is ignored; the delete form also releases a buffer
// with nothing to wipe.
TEST(VardoToolsWipes, UpToTheFirstZeroByteOrMaxLength)
{
    const auto wipe = [](std::string bytes, unsigned long maxLength) {
        VardoTools::ResetCharArray(bytes.data(), maxLength);
        return bytes;
    };
    EXPECT_EQ(wipe(std::string("ab\0cd", 5), 5), std::string("\0\0\0cd", 5));
    EXPECT_EQ(wipe("abcdef", 3), std::string("\0\0\0def", 6));
    VardoTools::ResetCharArray(nullptr, 5);
    VardoTools::ResetDeleteCharArray(nullptr, 5);
    VardoTools::ResetDeleteCharArray(new char[4](), 4);
}

// GetConfigFile: result, record, serverCfgFile afterwards; CheckConfigFileAndAssign leaves the mode to the rewrite.
TEST_F(VardoToolsTest, ConfigFileLocation)
{
    const std::string plain = dir_ / "sdk/config/streamserver.conf";
    const std::string canonical = std::filesystem::canonical(dir_.Path()).string() + "/sdk/config/streamserver.conf";
    const std::string regular = Err("Failed to regular serverCfgFile path.", INVALID);
    // (name, mode of the file (0: none, -1: OVRA_SDK_HOME unset), after OVRA_SDK_HOME, result, record, path)
    const std::vector<std::tuple<const char*, int, const char*, int32_t, std::string, std::string>> cases = {
        {"variable not set", -1, "", GENERAL, Err("Environment variable OVRA_SDK_HOME is not set!", GENERAL), ""},
        {"tree without the file", 0, "", INVALID, regular, plain},
        {"mode 0644", 0644, "", INVALID, regular, plain},
        {"mode 0400, doubled separator", 0400, "/", 0, "", canonical},
        {"mode 0600", 0600, "", 0, "", canonical},
    };
    std::filesystem::create_directories(dir_ / "sdk/config");
    for (const auto& [name, mode, suffix, result, record, path] : cases) {
        SCOPED_TRACE(name);
        std::filesystem::remove(plain);
        if (mode > 0) {
            WriteWholeFile(plain, "crl=\n", static_cast<mode_t>(mode));
        }
        mode < 0 ? unsetenv("OVRA_SDK_HOME") : setenv("OVRA_SDK_HOME", (dir_ / "sdk" + suffix).c_str(), 1);
        VardoTools tools;
        RecordCapture capture;
        EXPECT_EQ(tools.GetConfigFile(), result);
        EXPECT_EQ(capture.Tagged(), record.empty() ? Records{} : Records{record});
        EXPECT_EQ(tools.serverCfgFile, path);
    }

    VardoTools tools;
    ASSERT_EQ(tools.GetConfigFile(), 0);  // the 0600 file of the last case
    ASSERT_EQ(chmod(canonical.c_str(), 0644), 0);
    std::string path;
    EXPECT_EQ(tools.CheckConfigFileAndAssign(path), 0);
    EXPECT_EQ(path, canonical);
    ASSERT_EQ(unlink(canonical.c_str()), 0);
    RecordCapture capture;
    EXPECT_EQ(tools.CheckConfigFileAndAssign(path), INVALID);
    EXPECT_EQ(capture.Tagged(), Records{Err("Invalid serverCfgFile path, please check", INVALID)});
}

// CheckDirectoryKeys: result, records and the mode of ./keys afterwards (of the link itself for a link).
TEST_F(VardoToolsTest, CheckDirectoryKeys)
{
    const auto keys = [](mode_t mode) { return [mode] { ASSERT_EQ(mkdir("keys", mode), 0); }; };  // under umask 0
    const std::string wrong = Err("The owner or permission of keys is incorrect.", NO_PERMISSION);
    const std::string createFailed = Err("Create directory keys failed.", GENERAL);
    // (name, prepare, result, record, mode)
    const std::vector<std::tuple<const char*, std::function<void()>, int32_t, std::string, int>> cases = {
        {"missing: created owner-only", [] {}, 0, "ICreate directory keys success if it is not exist.", 0700},
        {"0500 set to 0700", keys(0500), 0, "ISet the permission of the directory keys success.", 0700},
        {"0755 refused", keys(0755), NO_PERMISSION, wrong, 0755},
        {"regular file in the way", [] { WriteWholeFile("keys", "x", 0644); }, GENERAL, createFailed, 0644},
        {"symbolic link never trusted", [] { mkdir("elsewhere", 0755); (void)symlink("elsewhere", "keys"); }, GENERAL,
         createFailed, 0777},
    };
    const auto run = [] {
        RecordCapture capture;
        const int32_t result = VardoTools().CheckDirectoryKeys();
        return std::make_tuple(result, capture.Tagged(), FileMode("keys"));
    };
    const mode_t previousMask = umask(0);
    for (const auto& [name, prepare, result, record, mode] : cases) {
        SCOPED_TRACE(name);
        std::filesystem::remove_all("keys");
        prepare();
        EXPECT_EQ(run(), std::make_tuple(result, Records{record}, mode));
    }
    umask(previousMask);
    EXPECT_EQ(FileMode("elsewhere"), 0755);
    // Root's 0700 ./keys belongs to another owner for the unprivileged user.
    std::filesystem::remove_all("keys");
    ASSERT_EQ(mkdir("keys", 0700), 0);
    ASSERT_EQ(chmod(dir_.Path().c_str(), 0755), 0);
    const auto refused = std::make_tuple(NO_PERMISSION, Records{wrong}, 0700);
    EXPECT_EQ(RunAsUnprivileged([&] { return run() == refused ? 0 : 1; }), 0);
}

}  // namespace
