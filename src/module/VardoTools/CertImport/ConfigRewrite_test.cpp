// The configuration rewrite: which lines change in which mode, that every
// other byte survives, the scrub passes, and refusals that keep the file.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "InProcess.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "TestTree.h"
#include "VardoTools.h"

namespace {

using OvraStream::VardoTools;
using VardoTest::RecordCapture;

const std::string PERMISSION_SET = "Set config file permission success.";
std::string ReadFailed() { return "Server config file read failed" + OvraBase::GetErrorInfo(1020, ""); }

// Lines "k<i>=v" for i in 0..count-1, each ended by a line feed.
std::string NumberedLines(int count)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += "k" + std::to_string(i) + "=v\n";
    }
    return text;
}

class ConfigRewriteTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        OvraBase::Log::logFlowControlFrequency_ = 1;  // every pass of a site writes its record
        tool_.serverCfgFile = path_;
    }
    void Write(const std::string& text, mode_t mode) const { VardoTest::WriteWholeFile(path_, text, mode); }
    std::string Read() const { return VardoTest::ReadWholeFile(path_); }

    VardoTest::ScratchDir dir_;
    const std::string path_ = dir_ / "streamserver.conf";
    VardoTools tool_;
};

const std::string PATHS =
    "server_crt=/in/s.crt\nca_crt=/in/ca.crt # old CA\nserver_key=/in/s.key\nserver_key_mm=OLD\ncrl=/x.crl # old\n";
const std::string NEW_PATHS =
    "server_crt=./keys/server.crt\nca_crt=./keys/ca.crt\nserver_key=./keys/server.key\nserver_key_mm=OLD\n";
const std::string UNMATCHED = " server_crt=/a\n#ca_crt=/a\n\tserver_key=/a\n  server_key_mm=OLD\n#server_key_mm=O\n"
                              "# crl=/x\nserver_crt =/a\n";

// Line rules per mode (value for mode <= 0, paths for mode >= 1), the mode 0600
// after a write, and content the rewrite cannot hold: refused before the file is
// opened for writing, so it stays byte-identical (`after` nullopt).
TEST_F(ConfigRewriteTest, RewriteRules)
{
    struct Case {
        const char* name;
        std::string before;
        int32_t mode;
        std::string cipher;
        std::optional<std::string> after;
    };
    const std::vector<Case> cases = {
        {"final line feed kept", "a=1\nserver_key_mm=old\n# c\n", 0, "XYZ", "a=1\nserver_key_mm=XYZ\n# c\n"},
        {"no final line feed stays without", "a=1\nserver_key_mm=old\n# c", 0, "XYZ", "a=1\nserver_key_mm=XYZ\n# c"},
        {"every value line whole, paths alone", "server_key_mm=o # n\r\nx=1\r\nserver_key_mm=\ncrl=/x\nserver_key=/k",
         -5, "Q", "server_key_mm=Q\nx=1\r\nserver_key_mm=Q\ncrl=/x\nserver_key=/k"},
        {"mode 1: paths and bare crl", PATHS, 1, "", NEW_PATHS + "crl=\n"},
        {"mode 2: paths and the list's path", PATHS, 2, "", NEW_PATHS + "crl=./keys/ca.crl\n"},
        {"mode above 2 is mode 2", PATHS, 7, "", NEW_PATHS + "crl=./keys/ca.crl\n"},
        {"indented and commented lines kept (value)", UNMATCHED, 0, "XYZ", UNMATCHED},
        {"indented and commented lines kept (paths)", UNMATCHED, 2, "", UNMATCHED},
        {"no value line: unchanged", "a=1\nserver_key=/a\n", 0, "XYZ", "a=1\nserver_key=/a\n"},
        {"empty lines, a one-byte last line", "\n\na=1\n\nserver_key_mm=o\nx", 0, "C", "\n\na=1\n\nserver_key_mm=C\nx"},
        {"empty file", "", 0, "C", ""},
        {"a 999-byte line", "#" + std::string(998, 'x') + "\nserver_key_mm=o\n", 0, "C",
         "#" + std::string(998, 'x') + "\nserver_key_mm=C\n"},
        {"a 1000-byte line", "server_key_mm=o\n#" + std::string(999, 'x') + "\n", 0, "C", std::nullopt},
        {"a 1200-byte line, a zero byte in its first 1000", "server_key_mm=o\n#" + std::string(9, 'x') + '\0' +
         std::string(1190, 'x') + "\nz=1\n", 0, "C", std::nullopt},
        {"a short line with a zero byte", std::string("server_key_mm=o\na\0b=1\nz=1\n", 24), 2, "", std::nullopt},
        {"a last byte of zero", std::string("server_key_mm=o\n\0", 17), 0, "C", std::nullopt},
        {"100 lines, no final line feed", NumberedLines(99) + "server_key_mm=o", 0, "C",
         NumberedLines(99) + "server_key_mm=C"},
        {"100 lines ending in a line feed", NumberedLines(99) + "server_key_mm=o\n", 0, "C", std::nullopt},
        {"101 lines", NumberedLines(100) + "server_key_mm=o", 0, "C", std::nullopt},
        {"a cipher of 987 bytes", "server_key_mm=\n", 0, std::string(987, 'c'),
         "server_key_mm=" + std::string(987, 'c') + "\n"},
        {"a cipher of 988 bytes", "a=1\nserver_key_mm=o\n", 0, std::string(988, 'c'), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Write(c.before, 0640);
        RecordCapture records;
        const char* cipher = c.mode <= 0 ? c.cipher.data() : nullptr;
        EXPECT_EQ(tool_.ModifyCaKey(cipher, static_cast<int32_t>(c.cipher.size()), c.mode),
                  c.after ? 0 : 1020);
        EXPECT_EQ(Read(), c.after.value_or(c.before));
        EXPECT_EQ(VardoTest::FileMode(path_), c.after ? 0600 : 0640);
        EXPECT_EQ(records.Tagged(), std::vector<std::string>{c.after ? "I" + PERMISSION_SET : "E" + ReadFailed()});
    }
}

// Three passes over an old value: empty, bytes of value 1, random lower-case hex
// of twice its length; a length over 493 does not fit at the third pass.
TEST_F(ConfigRewriteTest, ScrubPasses)
{
    const std::vector<std::string> passes = {
        PERMISSION_SET, "Write to the config file, the first time finished.",
        PERMISSION_SET, "Write to the config file, the second time finished.",
        PERMISSION_SET, "Write to the config file, the third time finished.",
    };
    const std::string head = "a=1\nserver_key_mm=";
    Write(head + std::string(40, 'Z') + "\n# keep\n", 0600);
    RecordCapture records;
    ASSERT_EQ(tool_.WritePreparation(40, 0), 0);
    EXPECT_EQ(records.Messages(), passes);
    const std::string text = Read();
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef", head.size()), head.size() + 80) << text;
    EXPECT_EQ(text.substr(head.size() + 80), "\n# keep\n");
    ASSERT_EQ(tool_.WritePreparation(40, 0), 0);
    EXPECT_NE(Read(), text);  // the third pass is random

    records.Clear();
    EXPECT_EQ(tool_.WritePreparation(494, 0), 1021);
    EXPECT_EQ(Read(), head + std::string(494, '\x01') + "\n# keep\n");  // the second pass stays
    std::vector<std::string> failed(passes.begin(), passes.begin() + 4);
    failed.push_back(ReadFailed());
    EXPECT_EQ(records.Messages(), failed);
}

}  // namespace
