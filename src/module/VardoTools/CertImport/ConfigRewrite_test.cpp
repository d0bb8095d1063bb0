// The configuration rewrite: which lines change in which mode, that every
// other byte survives, the scrub passes, and the refusals that must leave the
// file as it was.
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <glog/logging.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "TestTree.h"
#include "VardoTools.h"

namespace {

using OvraStream::VardoTools;

const char* const KEY_TOOL_UNIT = "src/module/VardoTools/CertImport/VardoTools";

// Collects the records written while it lives.
class RecordSink : public google::LogSink {
public:
    struct Entry {
        google::LogSeverity severity;
        std::string unit;
        std::string message;
    };
    RecordSink() { google::AddLogSink(this); }
    ~RecordSink() override { google::RemoveLogSink(this); }
    void send(google::LogSeverity severity, const char* fullFilename, const char*, int, const google::LogMessageTime&,
              const char* message, size_t messageLength) override
    {
        entries.push_back({severity, fullFilename, std::string(message, messageLength)});
    }
    std::vector<std::string> Messages() const
    {
        std::vector<std::string> out;
        for (const auto& entry : entries) {
            out.push_back(entry.message);
        }
        return out;
    }
    bool Has(const std::string& prefix) const
    {
        for (const auto& entry : entries) {
            if (entry.message.rfind(prefix, 0) == 0) {
                return true;
            }
        }
        return false;
    }
    std::vector<Entry> entries;
};

// Runs `body` in a child process as `user` (as the current user when that is
// not root) and returns what it reported through a pipe.
std::string RunAsUser(const std::optional<VardoTest::TestUser>& user, const std::function<std::string()>& body)
{
    int channel[2];
    if (pipe(channel) != 0) {
        return "<no pipe>";
    }
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(user->gid) != 0 || setuid(user->uid) != 0)) {
            _exit(2);
        }
        const std::string report = body();
        const ssize_t written = write(channel[1], report.data(), report.size());
        _exit(written == static_cast<ssize_t>(report.size()) ? 0 : 3);
    }
    close(channel[1]);
    std::string report;
    char chunk[512];
    ssize_t got;
    while (child > 0 && (got = read(channel[0], chunk, sizeof(chunk))) > 0) {
        report.append(chunk, static_cast<size_t>(got));
    }
    close(channel[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return "<child failed>";
    }
    return report;
}

class ConfigRewriteTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        OvraBase::Log::logFlowControlFrequency_ = 1;  // every pass of a site writes its record
        char pattern[] = "/tmp/vardo_rewrite_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        path_ = dir_ + "/streamserver.conf";
        tool_.serverCfgFile = path_;
    }
    void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

    void Write(const std::string& text, mode_t mode = 0600) const { VardoTest::WriteWholeFile(path_, text, mode); }
    std::string Read() const { return VardoTest::ReadWholeFile(path_); }

    std::string dir_;
    std::string path_;
    VardoTools tool_;
};

// Lines 0..count-1 of the form "k<i>=v", each ended by a line feed or not.
std::string NumberedLines(int count, bool finalLineFeed)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += "k" + std::to_string(i) + "=v";
        if (i + 1 < count || finalLineFeed) {
            text += "\n";
        }
    }
    return text;
}

struct RewriteCase {
    const char* name;
    std::string before;
    int32_t mode;
    std::string cipher;
    std::string after;
};

const std::string PATHS_BEFORE =
    "# stream server\n"
    "server_crt=/in/server.crt\n"
    "ca_crt=/in/ca.crt\n"
    "server_key=/in/server.key\n"
    "server_key_mm=OLDCIPHER\n"
    "crl=/tmp/x.crl\n"
    "pask_algorithm_id=9\n";
const std::string PATHS_AFTER_NO_CRL =
    "# stream server\n"
    "server_crt=./keys/server.crt\n"
    "ca_crt=./keys/ca.crt\n"
    "server_key=./keys/server.key\n"
    "server_key_mm=OLDCIPHER\n"
    "crl=\n"
    "pask_algorithm_id=9\n";
const std::string PATHS_AFTER_CRL =
    "# stream server\n"
    "server_crt=./keys/server.crt\n"
    "ca_crt=./keys/ca.crt\n"
    "server_key=./keys/server.key\n"
    "server_key_mm=OLDCIPHER\n"
    "crl=./keys/ca.crl\n"
    "pask_algorithm_id=9\n";
const std::string UNMATCHED_LINES =
    " server_crt=/in/server.crt\n"
    "#ca_crt=/in/ca.crt\n"
    "\tserver_key=/in/server.key\n"
    "  server_key_mm=OLD\n"
    "#server_key_mm=OLD\n"
    "# crl=/x\n"
    "server_crt =/in/server.crt\n";

const std::vector<RewriteCase> REWRITE_CASES = {
    {"final line feed kept", "a=1\nserver_key_mm=old\n# c\n", 0, "XYZ", "a=1\nserver_key_mm=XYZ\n# c\n"},
    {"no final line feed stays without", "a=1\nserver_key_mm=old\n# c", 0, "XYZ", "a=1\nserver_key_mm=XYZ\n# c"},
    {"last line is the value, no line feed", "a=1\nserver_key_mm=old", 0, "XYZ", "a=1\nserver_key_mm=XYZ"},
    {"every value line replaced whole, comment included",
     "server_key_mm=old # note\nx=1\nserver_key_mm=\nserver_key_mm=a=b\n", 0, "XYZ",
     "server_key_mm=XYZ\nx=1\nserver_key_mm=XYZ\nserver_key_mm=XYZ\n"},
    {"negative mode writes the value", "server_key_mm=old\n", -5, "Q", "server_key_mm=Q\n"},
    {"value mode leaves path lines alone", PATHS_BEFORE, 0, "NEW",
     "# stream server\nserver_crt=/in/server.crt\nca_crt=/in/ca.crt\nserver_key=/in/server.key\n"
     "server_key_mm=NEW\ncrl=/tmp/x.crl\npask_algorithm_id=9\n"},
    {"mode 1: paths and bare crl", PATHS_BEFORE, 1, "", PATHS_AFTER_NO_CRL},
    {"mode 2: paths and the list's path", PATHS_BEFORE, 2, "", PATHS_AFTER_CRL},
    {"mode above 2 is mode 2", PATHS_BEFORE, 7, "", PATHS_AFTER_CRL},
    {"empty crl becomes the list's path", "crl=\n", 2, "", "crl=./keys/ca.crl\n"},
    {"crl line with a comment replaced whole", "crl=/a.crl # old\n", 1, "", "crl=\n"},
    {"server_key= does not take the value line", "server_key_mm=abc\nserver_key=/a\n", 1, "",
     "server_key_mm=abc\nserver_key=./keys/server.key\n"},
    {"indented and commented lines kept (value mode)", UNMATCHED_LINES, 0, "XYZ", UNMATCHED_LINES},
    {"indented and commented lines kept (path mode)", UNMATCHED_LINES, 2, "", UNMATCHED_LINES},
    {"no value line: unchanged", "a=1\nserver_key=/a\n# server_key_mm=x\n", 0, "XYZ",
     "a=1\nserver_key=/a\n# server_key_mm=x\n"},
    {"empty lines kept", "\n\na=1\n\n\nserver_key_mm=o\n\n", 0, "XYZ", "\n\na=1\n\n\nserver_key_mm=XYZ\n\n"},
    {"one-byte last line kept", "server_key_mm=o\nx", 0, "XYZ", "server_key_mm=XYZ\nx"},
    {"carriage returns stay on untouched lines", "server_key_mm=old\r\nother=1\r\n", 0, "XYZ",
     "server_key_mm=XYZ\nother=1\r\n"},
    {"empty file stays empty", "", 0, "XYZ", ""},
    {"a single line feed stays", "\n", 2, "", "\n"},
    {"a 999-byte line survives", "#" + std::string(998, 'x') + "\nserver_key_mm=o\n", 0, "C",
     "#" + std::string(998, 'x') + "\nserver_key_mm=C\n"},
    {"100 lines without a final line feed", NumberedLines(99, true) + "server_key_mm=o", 0, "C",
     NumberedLines(99, true) + "server_key_mm=C"},
    {"a cipher of 987 bytes fits", "server_key_mm=\n", 0, std::string(987, 'c'),
     "server_key_mm=" + std::string(987, 'c') + "\n"},
};

TEST_F(ConfigRewriteTest, RewriteRules)
{
    for (const auto& c : REWRITE_CASES) {
        SCOPED_TRACE(c.name);
        Write(c.before, 0600);
        RecordSink sink;
        const char* cipher = c.mode <= 0 ? c.cipher.data() : nullptr;
        EXPECT_EQ(tool_.ModifyCaKey(cipher, static_cast<int32_t>(c.cipher.size()), c.mode), 0);
        EXPECT_EQ(Read(), c.after);
        EXPECT_EQ(VardoTest::FileMode(path_), 0600);
        EXPECT_EQ(sink.Messages(), std::vector<std::string>{"Set config file permission success."});
    }
}

TEST_F(ConfigRewriteTest, ModeIsOwnerOnlyAfterWrite)
{
    Write("server_key_mm=old\n", 0640);
    ASSERT_EQ(tool_.ModifyCaKey("NEW", 3, 0), 0);
    EXPECT_EQ(VardoTest::FileMode(path_), 0600);
    EXPECT_EQ(Read(), "server_key_mm=NEW\n");
}

// Refusals while reading: the file must come out untouched, byte for byte.
TEST_F(ConfigRewriteTest, UnreadableContentLeavesFileUntouched)
{
    struct Case {
        const char* name;
        std::string text;
        int32_t mode;
        std::string cipher;
        int32_t cipherLength;
    };
    const std::vector<Case> cases = {
        {"101 lines", NumberedLines(100, true) + "server_key_mm=o\n", 0, "C", 1},
        {"101 lines, no final line feed", NumberedLines(100, true) + "server_key_mm=o", 2, "", 0},
        {"100 lines ending in a line feed", NumberedLines(99, true) + "server_key_mm=o\n", 0, "C", 1},
        {"a 1000-byte line", "server_key_mm=o\n#" + std::string(999, 'x') + "\n", 0, "C", 1},
        {"a 1000-byte last line without line feed", "a=1\n" + std::string(1000, 'y'), 1, "", 0},
        {"a cipher of 988 bytes", "a=1\nserver_key_mm=o\n", 0, std::string(988, 'c'), 988},
        {"a negative cipher length", "server_key_mm=o\n", 0, "C", -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Write(c.text, 0640);
        RecordSink sink;
        EXPECT_EQ(tool_.ModifyCaKey(c.mode <= 0 ? c.cipher.data() : nullptr, c.cipherLength, c.mode),
                  OvraBase::APP_ERR_READ_FAILED);
        EXPECT_EQ(Read(), c.text);
        EXPECT_EQ(VardoTest::FileMode(path_), 0640);
        ASSERT_EQ(sink.entries.size(), 1u);
        EXPECT_EQ(sink.entries[0].severity, google::GLOG_ERROR);
        EXPECT_EQ(sink.entries[0].unit, KEY_TOOL_UNIT);
        EXPECT_EQ(sink.entries[0].message,
                  "Server config file read failed" + OvraBase::GetErrorInfo(OvraBase::APP_ERR_READ_FAILED, ""));
    }
}

TEST_F(ConfigRewriteTest, ConfigurationThatIsGoneIsRefused)
{
    Write("server_key_mm=o\n");
    ASSERT_EQ(unlink(path_.c_str()), 0);
    EXPECT_EQ(tool_.ModifyCaKey("C", 1, 0), OvraBase::APP_ERR_INVALID_PARAM);
    EXPECT_EQ(access(path_.c_str(), F_OK), -1);  // never created anew
}

TEST_F(ConfigRewriteTest, ScrubPassesLeaveRandomHexOfTwiceTheLength)
{
    const std::string head = "a=1\n# keep\n";
    const std::string tail = "\ncrl=\npask_algorithm_id=9\n";
    Write(head + "server_key_mm=" + std::string(40, 'Z') + tail);
    RecordSink sink;
    ASSERT_EQ(tool_.WritePreparation(40, 0), 0);

    const std::string text = Read();
    ASSERT_EQ(text.rfind(head + "server_key_mm=", 0), 0u) << text;
    const std::string value = text.substr(head.size() + 14, text.size() - head.size() - 14 - tail.size());
    EXPECT_EQ(value.size(), 80u) << value;
    EXPECT_EQ(value.find_first_not_of("0123456789abcdef"), std::string::npos) << value;
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    EXPECT_EQ(VardoTest::FileMode(path_), 0600);

    const std::vector<std::string> expected = {
        "Set config file permission success.", "Write to the config file, the first time finished.",
        "Set config file permission success.", "Write to the config file, the second time finished.",
        "Set config file permission success.", "Write to the config file, the third time finished.",
    };
    EXPECT_EQ(sink.Messages(), expected);
    for (const auto& entry : sink.entries) {
        EXPECT_EQ(entry.severity, google::GLOG_INFO);
        EXPECT_EQ(entry.unit, KEY_TOOL_UNIT);
    }

    // The random pass really is random: a second scrub gives another value.
    ASSERT_EQ(tool_.WritePreparation(40, 0), 0);
    EXPECT_NE(Read(), text);
}

TEST_F(ConfigRewriteTest, ScrubFailsAtThirdPassWhenHexDoesNotFit)
{
    Write("a=1\nserver_key_mm=old\n");
    RecordSink sink;
    EXPECT_EQ(tool_.WritePreparation(494, 0), OvraBase::APP_ERR_WRITE_FAILED);
    // The second pass was the last one written: 494 bytes of value 1.
    EXPECT_EQ(Read(), "a=1\nserver_key_mm=" + std::string(494, '\x01') + "\n");
    const std::vector<std::string> expected = {
        "Set config file permission success.",
        "Write to the config file, the first time finished.",
        "Set config file permission success.",
        "Write to the config file, the second time finished.",
        "Server config file read failed" + OvraBase::GetErrorInfo(OvraBase::APP_ERR_READ_FAILED, ""),
    };
    EXPECT_EQ(sink.Messages(), expected);
}

TEST_F(ConfigRewriteTest, ScrubWithoutValueLineLeavesFileAlone)
{
    const std::string text = "a=1\nserver_key=/a\n";
    Write(text);
    EXPECT_EQ(tool_.WritePreparation(40, 0), 0);
    EXPECT_EQ(Read(), text);
}

// Root ignores permission bits, so the refusal is shown as an ordinary user
// in a child process; the child reports the result and its records through a pipe.
TEST_F(ConfigRewriteTest, ReadOnlyConfigurationIsRefusedAndKept)
{
    const auto user = VardoTest::UnprivilegedUser();
    if (geteuid() == 0 && !user) {
        GTEST_SKIP() << "no unprivileged account available";
    }
    const std::string text = "a=1\nserver_key_mm=old\n";
    Write(text, 0400);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(dir_.c_str(), user->uid, user->gid), 0);
        ASSERT_EQ(chown(path_.c_str(), user->uid, user->gid), 0);
    }

    const std::string report = RunAsUser(user, [&] {
        RecordSink sink;
        VardoTools tool;
        tool.serverCfgFile = path_;
        std::string out = std::to_string(tool.ModifyCaKey("NEW", 3, 0));
        for (const auto& message : sink.Messages()) {
            out += "\n" + message;
        }
        return out;
    });
    EXPECT_EQ(report, std::to_string(OvraBase::APP_ERR_CONFIG_INVALID) + "\nServer config file open failed!" +
                          OvraBase::GetErrorInfo(OvraBase::APP_ERR_CONFIG_INVALID, ""));
    EXPECT_EQ(Read(), text);
    EXPECT_EQ(VardoTest::FileMode(path_), 0400);
}

}  // namespace
