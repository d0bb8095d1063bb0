// The configuration reader against real files in a scratch directory.
#include "Internal/OvraStream/StreamConfig/SecureConfig.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
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

using Entries = std::map<std::string, std::string>;
using Records = std::vector<std::string>;
constexpr int32_t INVALID = OvraBase::APP_ERR_INVALID_PARAM;
constexpr int32_t TOO_LONG = OvraBase::APP_ERR_CONFIG_INVALID;
const char* const UNIT = "src/include/Internal/OvraStream/StreamConfig/SecureConfig";

// Values as whole buffers less trailing zeros (stray bytes show); released at the end as a real owner does.
struct ProbeConfig : OvraStream::SecureConfig {
    ~ProbeConfig() { ClearConfig(); }
    Entries Content() const
    {
        Entries content;
        for (const auto& [key, value] : configMap_) {
            std::string bytes(value, VALUE_BUFFER_SIZE);
            content[key] = bytes.erase(bytes.find_last_not_of('\0') + 1);
        }
        return content;
    }
};

class SecureConfigTest : public testing::Test {
protected:
    void SetUp() override { OvraBase::Log::logFlowControlFrequency_ = 1; }
    int32_t Load(ProbeConfig& config, const std::string& text) const
    {
        WriteWholeFile(path_, text);
        return config.LoadConfig(path_);
    }
    ScratchDir dir_;
    const std::string path_ = dir_ / "streamserver.conf";
};

std::string Repeat(const std::string& line, int count) { return count == 0 ? "" : line + Repeat(line, count - 1); }

// File syntax and limits: what the map holds afterwards (also after a failure) and the records.
TEST_F(SecureConfigTest, FileFormatRules)
{
    const std::string v997(997, 'v');
    const char garbage[] = "\xff\xfe\x01=\x80\0zz=q\n\x7f\x02\n";
    const std::vector<std::tuple<const char*, std::string, int32_t, Entries>> cases = {
        {"key and value are first tokens", "  server_crt = /a/b.crt  # note\nkey=a b\n\tk1 junk = v\n", 0,
         {{"server_crt", "/a/b.crt"}, {"key", "a"}, {"k1", "v"}}},
        {"empty value, blank value, empty key", "key=\nk2=   \n=v\n", 0, {{"key", ""}, {"k2", ""}, {"", "v"}}},
        {"first = splits, comment cuts, no = adds nothing", "a=b=c\nk=v#c=d\n#server_key=x\nserver_key\nm#=v\n", 0,
         {{"a", "b=c"}, {"k", "v"}}},
        {"first occurrence wins, case counts", "k=first\nK=other\nk=second\n", 0, {{"k", "first"}, {"K", "other"}}},
        {"empty lines and carriage returns", "\n\na=1\r\n\nb=2\n", 0, {{"a", "1"}, {"b", "2"}}},
        {"two-byte line read", "a=1\n=\n", 0, {{"a", "1"}, {"", ""}}},
        {"one-byte last line skipped", "a=1\n=", 0, {{"a", "1"}}},
        {"binary garbage", std::string(garbage, sizeof(garbage) - 1), 0, {{"\xff\xfe\x01", "\x80"}}},
        {"999-byte lines, the last without line feed", "k=" + v997 + "\nm=" + v997, 0, {{"k", v997}, {"m", v997}}},
        {"1000-byte line", "a=1\nk=" + v997 + "v\nb=2\n", TOO_LONG, {{"a", "1"}}},
        {"1000-byte last line without line feed", "a=1\nk=v" + v997, TOO_LONG, {{"a", "1"}}},
        {"100 lines without final line feed", Repeat("k=v\n", 99) + "a=1", 0, {{"k", "v"}, {"a", "1"}}},
        {"100 lines with final line feed", Repeat("k=v\n", 99) + "a=1\n", TOO_LONG, {{"k", "v"}, {"a", "1"}}},
        {"101 lines", Repeat("k=v\n", 100) + "a=1", TOO_LONG, {{"k", "v"}}},
        {"empty lines count", Repeat("\n", 99) + "a=1\n", TOO_LONG, {{"a", "1"}}},
    };
    const Records readFailed = {
        "EThe line num has exceeded or the line length has exceeded, or the new value memory failed.",
        Err("Read config file failed!", TOO_LONG)};
    for (const auto& [name, text, result, entries] : cases) {
        SCOPED_TRACE(name);
        ProbeConfig config;
        RecordCapture capture;
        EXPECT_EQ(Load(config, text), result);
        EXPECT_EQ(config.Content(), entries);
        EXPECT_EQ(capture.Tagged(), result == 0 ? Records{} : readFailed);
        for (const auto& record : capture.records) EXPECT_EQ(record.unit, UNIT);
    }
}

// Files the reader must not take: 1004, one record, nothing loaded.
TEST_F(SecureConfigTest, FileRefusals)
{
    const TestUser& user = UnprivilegedUser();
    const std::string invalid = Err("Config file is an invalid file.", INVALID);
    // (name, path loaded, mode of path_, path_ owned by another user, record)
    const std::vector<std::tuple<const char*, std::string, mode_t, bool, std::string>> cases = {
        {"missing", dir_ / "absent", 0600, false, Err("Failed to get canonicalized file path.", INVALID)},
        {"mode 0644", path_, 0644, false, invalid},
        {"mode 0640", path_, 0640, false, invalid},
        {"owned by another user", path_, 0600, true, invalid},
    };
    for (const auto& [name, path, mode, otherOwner, record] : cases) {
        SCOPED_TRACE(name);
        WriteWholeFile(path_, "a=1\n", mode);
        ASSERT_EQ(chown(path_.c_str(), otherOwner ? user.uid : getuid(), otherOwner ? user.gid : getgid()), 0);
        ProbeConfig config;
        RecordCapture capture;
        EXPECT_EQ(config.LoadConfig(path), INVALID);
        EXPECT_EQ(capture.Tagged(), Records{record});
        EXPECT_EQ(config.Content(), Entries{});
    }
}

// GetValue: conversions, the target kept on failure, and the warnings.
TEST_F(SecureConfigTest, GetValue)
{
    ProbeConfig config;
    ASSERT_EQ(Load(config, "eight=8\nleading=08x\nletters=abc\nbig=99999999999\nnegative=-12\nempty=\nupper=TRUE\n"
                           "mixed=fAlSe\none=1\n"), 0);
    const std::string absent = "WCan't find key in config file!";
    const std::string intFailed = "WConvert config value failed!", boolFailed = "WConvert bool config value failed!";
    // (key, read as bool, target before, result, target after, record)
    const std::vector<std::tuple<const char*, bool, int32_t, int32_t, int32_t, std::string>> cases = {
        {"eight", false, -7, 0, 8, ""},
        {"leading", false, -7, 0, 8, ""},
        {"negative", false, -7, 0, -12, ""},
        {"letters", false, -7, INVALID, -7, intFailed},
        {"big", false, -7, INVALID, -7, intFailed},
        {"empty", false, -7, INVALID, -7, intFailed},
        {"absent", false, -7, OvraBase::APP_ERR_NOT_EXIST, -7, absent},
        {"upper", true, false, 0, true, ""},
        {"mixed", true, true, 0, false, ""},
        {"one", true, true, INVALID, true, boolFailed},
        {"absent", true, true, OvraBase::APP_ERR_NOT_EXIST, true, absent},
    };
    for (const auto& [key, asBool, before, result, after, record] : cases) {
        SCOPED_TRACE(key);
        RecordCapture capture;
        int32_t number = before;
        bool flag = before != 0;
        EXPECT_EQ(asBool ? config.GetValue(key, flag) : config.GetValue(key, number), result);
        EXPECT_EQ(asBool ? static_cast<int32_t>(flag) : number, after);
        EXPECT_EQ(capture.Tagged(), record.empty() ? Records{} : Records{record});
    }
}

// A second load merges (old values kept); ClearConfig empties; the object loads again.
TEST_F(SecureConfigTest, MergeClearAndReload)
{
    ProbeConfig config;
    ASSERT_EQ(Load(config, "a=1\nb=2\n"), 0);
    ASSERT_EQ(Load(config, "b=20\nc=30\n"), 0);
    EXPECT_EQ(config.Content(), (Entries{{"a", "1"}, {"b", "2"}, {"c", "30"}}));
    EXPECT_TRUE(config.HasKey("c"));
    config.ClearConfig();
    RecordCapture capture;
    EXPECT_FALSE(config.HasKey("a"));
    EXPECT_EQ(capture.Tagged(),
              Records{Err("Can't find a in config file!", OvraBase::APP_ERR_GENERAL_FAILED)});
    ASSERT_EQ(Load(config, "b=3\n"), 0);
    EXPECT_EQ(config.Content(), (Entries{{"b", "3"}}));
}

}  // namespace
