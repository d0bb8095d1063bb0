// The configuration reader against real files in a scratch directory.
#include "Internal/OvraStream/StreamConfig/SecureConfig.h"

#include <glog/logging.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "OvraBase/ErrorInfo.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "TestTree.h"

namespace {

using OvraStream::SecureConfig;
using Entries = std::map<std::string, std::string>;

const char* const UNIT = "src/include/Internal/OvraStream/StreamConfig/SecureConfig";

// Records written while it lives: (severity, source unit, message).
class RecordCapture : public google::LogSink {
public:
    struct Record {
        int severity;
        std::string unit;
        std::string message;
    };
    RecordCapture() { google::AddLogSink(this); }
    ~RecordCapture() override { google::RemoveLogSink(this); }
    using google::LogSink::send;
    void send(google::LogSeverity severity, const char* fullFilename, const char*, int,
              const google::LogMessageTime&, const char* message, size_t length) override
    {
        records.push_back({severity, fullFilename, std::string(message, length)});
    }
    std::vector<std::string> Messages() const
    {
        std::vector<std::string> messages;
        for (const auto& record : records) {
            messages.push_back(record.message);
        }
        return messages;
    }
    std::vector<Record> records;
};

// The map's content is reachable for checks; the buffers are released at the
// end of every test as the owner of a real configuration does.
class ProbeConfig : public SecureConfig {
public:
    ~ProbeConfig() { ClearConfig(); }
    Entries Content() const
    {
        Entries content;
        for (const auto& entry : configMap_) {
            content[entry.first] = entry.second == nullptr ? "<null>" : entry.second;
        }
        return content;
    }
    // Every value buffer holds its text and nothing but zero bytes after it.
    bool BuffersZeroPadded() const
    {
        for (const auto& entry : configMap_) {
            const size_t length = std::strlen(entry.second);
            for (size_t i = length; i < VALUE_BUFFER_SIZE; ++i) {
                if (entry.second[i] != 0) {
                    return false;
                }
            }
        }
        return true;
    }
    size_t Size() const { return configMap_.size(); }
};

class SecureConfigTest : public testing::Test {
protected:
    void SetUp() override
    {
        OvraBase::Log::logFlowControlFrequency_ = 1;
        char pattern[] = "/tmp/secure_config_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        path_ = dir_ + "/streamserver.conf";
    }
    void TearDown() override { (void)std::system(("rm -rf '" + dir_ + "'").c_str()); }

    void Write(const std::string& text, mode_t mode = 0600) const
    {
        std::ofstream out(path_, std::ios::binary | std::ios::trunc);
        out << text;
        out.close();
        ASSERT_EQ(chmod(path_.c_str(), mode), 0);
    }

    std::string dir_;
    std::string path_;
};

std::string Lines(int count, bool finalLineFeed)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += "k" + std::to_string(i) + "=v" + std::to_string(i);
        if (i + 1 < count || finalLineFeed) {
            text += "\n";
        }
    }
    return text;
}

Entries LineEntries(int count)
{
    Entries entries;
    for (int i = 0; i < count; ++i) {
        entries["k" + std::to_string(i)] = "v" + std::to_string(i);
    }
    return entries;
}

// "k=" and filler up to `length` bytes of line (line feed not counted).
std::string LongLine(size_t length) { return "k=" + std::string(length - 2, 'v'); }

struct FormatCase {
    const char* name;
    std::string text;
    int32_t result;
    Entries entries;  // what the map holds afterwards, also after a failure
};

TEST_F(SecureConfigTest, FileFormatRules)
{
    const std::vector<FormatCase> cases = {
        {"comment and blanks around", "  server_crt = /a/b.crt  # note\n", 0, {{"server_crt", "/a/b.crt"}}},
        {"value is its first token", "key=a b\n", 0, {{"key", "a"}}},
        {"key is its first token", "\tkey junk = v\n", 0, {{"key", "v"}}},
        {"empty value", "key=\n", 0, {{"key", ""}}},
        {"blank value", "key=   \n", 0, {{"key", ""}}},
        {"empty key", "=v\n", 0, {{"", "v"}}},
        {"blank key", "  \t = v\n", 0, {{"", "v"}}},
        {"further = belong to the value", "a=b=c\n", 0, {{"a", "b=c"}}},
        {"comment cuts the value", "k=v#c=d\n", 0, {{"k", "v"}}},
        {"commented-out and no = add nothing", "#server_key=x\nserver_key\n", 0, {}},
        {"comment before = hides the line", "k#=v\n", 0, {}},
        {"carriage return is white space", "k=v\r\nm=w\r\n", 0, {{"k", "v"}, {"m", "w"}}},
        {"first occurrence wins", "k=first\nk=second\n", 0, {{"k", "first"}}},
        {"keys are case-sensitive", "Key=1\nkey=2\n", 0, {{"Key", "1"}, {"key", "2"}}},
        {"empty lines skipped", "\n\na=1\n\n\nb=2\n", 0, {{"a", "1"}, {"b", "2"}}},
        {"two-byte line read", "a=1\n=\n", 0, {{"a", "1"}, {"", ""}}},
        {"one-byte last line skipped", "a=1\n=", 0, {{"a", "1"}}},
        {"empty file", "", 0, {}},
        {"999-byte line", LongLine(999) + "\n", 0, {{"k", std::string(997, 'v')}}},
        {"999-byte last line without line feed", LongLine(999), 0, {{"k", std::string(997, 'v')}}},
        {"1000-byte line", "a=1\n" + LongLine(1000) + "\nb=2\n", OvraBase::APP_ERR_CONFIG_INVALID, {{"a", "1"}}},
        {"1000-byte last line without line feed", "a=1\n" + LongLine(1000), OvraBase::APP_ERR_CONFIG_INVALID,
         {{"a", "1"}}},
        {"99 lines with final line feed", Lines(99, true), 0, LineEntries(99)},
        {"100 lines without final line feed", Lines(100, false), 0, LineEntries(100)},
        {"100 lines with final line feed", Lines(100, true), OvraBase::APP_ERR_CONFIG_INVALID, LineEntries(100)},
        {"101 lines", Lines(101, false), OvraBase::APP_ERR_CONFIG_INVALID, LineEntries(100)},
        {"100 lines counting empty ones", std::string(99, '\n') + "a=1\n", OvraBase::APP_ERR_CONFIG_INVALID,
         {{"a", "1"}}},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        Write(testCase.text);
        ProbeConfig config;
        EXPECT_EQ(config.LoadConfig(path_), testCase.result);
        EXPECT_EQ(config.Content(), testCase.entries);
        EXPECT_TRUE(config.BuffersZeroPadded());
    }
}

TEST_F(SecureConfigTest, ReadFailureWritesBothRecords)
{
    Write(Lines(101, false));
    ProbeConfig config;
    RecordCapture capture;
    EXPECT_EQ(config.LoadConfig(path_), OvraBase::APP_ERR_CONFIG_INVALID);
    ASSERT_EQ(capture.records.size(), 2u);
    EXPECT_EQ(capture.records[0].severity, google::GLOG_ERROR);
    EXPECT_EQ(capture.records[0].unit, UNIT);
    EXPECT_EQ(capture.records[0].message,
              "The line num has exceeded or the line length has exceeded, or the new value memory failed.");
    EXPECT_EQ(capture.records[1].severity, google::GLOG_ERROR);
    EXPECT_EQ(capture.records[1].message,
              "Read config file failed!" + OvraBase::GetErrorInfo(OvraBase::APP_ERR_CONFIG_INVALID, ""));
}

TEST_F(SecureConfigTest, FileRefusals)
{
    struct Case {
        const char* name;
        std::function<std::string()> setUp;  // returns the path to load
        int32_t result;
        std::string record;
    };
    const std::string invalid =
        "Config file is an invalid file." + OvraBase::GetErrorInfo(OvraBase::APP_ERR_INVALID_PARAM, "");
    const std::vector<Case> cases = {
        {"missing file",
         [this] { return dir_ + "/absent.conf"; }, OvraBase::APP_ERR_INVALID_PARAM,
         "Failed to get canonicalized file path." + OvraBase::GetErrorInfo(OvraBase::APP_ERR_INVALID_PARAM, "")},
        {"mode 0644",
         [this] {
             Write("a=1\n", 0644);
             return path_;
         },
         OvraBase::APP_ERR_INVALID_PARAM, invalid},
        {"mode 0640",
         [this] {
             Write("a=1\n", 0640);
             return path_;
         },
         OvraBase::APP_ERR_INVALID_PARAM, invalid},
        {"a directory",
         [this] { return dir_; }, OvraBase::APP_ERR_INVALID_PARAM, invalid},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        const std::string path = testCase.setUp();
        ProbeConfig config;
        RecordCapture capture;
        EXPECT_EQ(config.LoadConfig(path), testCase.result);
        EXPECT_EQ(capture.Messages(), std::vector<std::string>{testCase.record});
        EXPECT_EQ(config.Size(), 0u);
    }
}

TEST_F(SecureConfigTest, FileOfAnotherUserIsRefused)
{
    // Ownership is the point here, so the reader runs as a user who is not root
    // and does not own the (root-owned, 0600) file.
    const auto user = VardoTest::UnprivilegedUser();
    if (!user.has_value()) {
        GTEST_SKIP() << "no unprivileged user available";
    }
    Write("a=1\n", 0600);
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setgid(user->gid) != 0 || setuid(user->uid) != 0) {
            _exit(100);
        }
        ProbeConfig config;
        RecordCapture capture;
        const int32_t result = config.LoadConfig(path_);
        const bool recorded = capture.Messages() == std::vector<std::string>{
            "Config file is an invalid file." + OvraBase::GetErrorInfo(OvraBase::APP_ERR_INVALID_PARAM, "")};
        _exit(result == OvraBase::APP_ERR_INVALID_PARAM && recorded && config.Size() == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(SecureConfigTest, GetValueConversions)
{
    Write("eight=8\n"
          "leading=08x\n"
          "letters=abc\n"
          "big=99999999999\n"
          "negative=-12\n"
          "upper=TRUE\n"
          "mixed=fAlSe\n"
          "one=1\n"
          "empty=\n");
    ProbeConfig config;
    ASSERT_EQ(config.LoadConfig(path_), 0);

    struct IntCase {
        const char* key;
        int32_t result;
        int32_t value;  // the target starts at -7
    };
    const std::vector<IntCase> intCases = {
        {"eight", 0, 8},
        {"leading", 0, 8},
        {"negative", 0, -12},
        {"letters", OvraBase::APP_ERR_INVALID_PARAM, -7},
        {"big", OvraBase::APP_ERR_INVALID_PARAM, -7},
        {"empty", OvraBase::APP_ERR_INVALID_PARAM, -7},
        {"absent", OvraBase::APP_ERR_NOT_EXIST, -7},
    };
    for (const auto& testCase : intCases) {
        SCOPED_TRACE(testCase.key);
        int32_t value = -7;
        EXPECT_EQ(config.GetValue(testCase.key, value), testCase.result);
        EXPECT_EQ(value, testCase.value);
    }

    int64_t wide = 0;
    EXPECT_EQ(config.GetValue("big", wide), 0);
    EXPECT_EQ(wide, 99999999999LL);

    struct BoolCase {
        const char* key;
        bool start;
        int32_t result;
        bool value;
    };
    const std::vector<BoolCase> boolCases = {
        {"upper", false, 0, true},
        {"mixed", true, 0, false},
        {"one", false, OvraBase::APP_ERR_INVALID_PARAM, false},
        {"one", true, OvraBase::APP_ERR_INVALID_PARAM, true},
        {"absent", true, OvraBase::APP_ERR_NOT_EXIST, true},
    };
    for (const auto& testCase : boolCases) {
        SCOPED_TRACE(testCase.key);
        bool value = testCase.start;
        EXPECT_EQ(config.GetValue(testCase.key, value), testCase.result);
        EXPECT_EQ(value, testCase.value);
    }
}

TEST_F(SecureConfigTest, LookupRecords)
{
    Write("letters=abc\n");
    ProbeConfig config;
    ASSERT_EQ(config.LoadConfig(path_), 0);
    RecordCapture capture;
    int32_t number = 0;
    bool flag = false;
    EXPECT_EQ(config.GetValue("absent", number), OvraBase::APP_ERR_NOT_EXIST);
    EXPECT_EQ(config.GetValue("letters", number), OvraBase::APP_ERR_INVALID_PARAM);
    EXPECT_EQ(config.GetValue("letters", flag), OvraBase::APP_ERR_INVALID_PARAM);
    EXPECT_FALSE(config.HasKey("server_crt"));
    EXPECT_TRUE(config.HasKey("letters"));
    ASSERT_EQ(capture.records.size(), 4u);
    const std::vector<std::pair<int, std::string>> expected = {
        {google::GLOG_WARNING, "Can't find key in config file!"},
        {google::GLOG_WARNING, "Convert config value failed!"},
        {google::GLOG_WARNING, "Convert bool config value failed!"},
        {google::GLOG_ERROR,
         "Can't find server_crt in config file!" + OvraBase::GetErrorInfo(OvraBase::APP_ERR_GENERAL_FAILED, "")},
    };
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(capture.records[i].severity, expected[i].first);
        EXPECT_EQ(capture.records[i].unit, UNIT);
        EXPECT_EQ(capture.records[i].message, expected[i].second);
    }
}

TEST_F(SecureConfigTest, SecondLoadMergesAndKeepsOldValues)
{
    ProbeConfig config;
    Write("a=1\nb=2\n");
    ASSERT_EQ(config.LoadConfig(path_), 0);
    Write("b=20\nc=30\n");
    ASSERT_EQ(config.LoadConfig(path_), 0);
    EXPECT_EQ(config.Content(), (Entries{{"a", "1"}, {"b", "2"}, {"c", "30"}}));
}

TEST_F(SecureConfigTest, ClearThenReload)
{
    ProbeConfig config;
    Write("a=1\nb=2\n");
    ASSERT_EQ(config.LoadConfig(path_), 0);
    config.ClearConfig();
    EXPECT_EQ(config.Size(), 0u);
    EXPECT_FALSE(config.HasKey("a"));
    EXPECT_FALSE(config.HasKey("b"));
    Write("b=3\n");
    ASSERT_EQ(config.LoadConfig(path_), 0);
    EXPECT_EQ(config.Content(), (Entries{{"b", "3"}}));
}

}  // namespace
