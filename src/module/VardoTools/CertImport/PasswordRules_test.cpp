// The pass phrase rules: length bounds, byte classes and strength, with the
// records each refusal writes.
#include <glog/logging.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ImportChecks.h"
#include "OvraBase/ErrorInfo.h"

namespace {

const std::string MAIN_UNIT = "src/module/VardoTools/CertImport/main";

struct CapturedRecord {
    google::LogSeverity severity;
    std::string unit;
    std::string message;
};

// Collects the records written while it exists.
class PasswordRecordSink : public google::LogSink {
public:
    PasswordRecordSink() { google::AddLogSink(this); }
    ~PasswordRecordSink() override { google::RemoveLogSink(this); }
    using google::LogSink::send;
    void send(google::LogSeverity severity, const char* fullFilename, const char*, int, const struct ::tm*,
              const char* message, size_t messageLength) override
    {
        records.push_back({severity, fullFilename, std::string(message, messageLength)});
    }
    std::vector<CapturedRecord> records;
};

std::string Code1004(const std::string& message) { return message + OvraBase::GetErrorInfo(1004, ""); }

const std::string LENGTH = Code1004("Invalid password length.");
const std::string CHARACTER = Code1004("Invalid password character.");
const std::string WEAK = Code1004(
    "Password is too weak, it should contain two of the lower characters, upper characters, digitals and symbols.");

struct RuleCase {
    const char* name;
    std::string passPhrase;
    bool accepted;
    std::vector<std::string> records;  // all ERROR records of the command's unit
};

TEST(PasswordRulesTest, RulesAndTheirRecords)
{
    const std::vector<RuleCase> cases = {
        // length
        {"empty", "", false, {LENGTH}},
        {"7 bytes", "Abcdef1", false, {LENGTH}},
        {"8 bytes", "Abcdefg1", true, {}},
        {"100 bytes", "A" + std::string(98, 'b') + "1", true, {}},
        {"101 bytes", "A" + std::string(99, 'b') + "1", false, {LENGTH}},
        {"long and weak: length is judged first", std::string(120, 'a'), false, {LENGTH}},
        // strength: two classes of four
        {"lower only", "abcdefgh", false, {WEAK}},
        {"upper only", "ABCDEFGH", false, {WEAK}},
        {"digits only", "12345678", false, {WEAK}},
        {"symbols only", "!@#$%^&*", false, {WEAK}},
        {"blanks only", "        ", false, {WEAK}},
        {"lower and upper", "abcdefgH", true, {}},
        {"lower and digit", "abcdefg1", true, {}},
        {"upper and symbol", "ABCDEFG~", true, {}},
        {"seven letters and a blank", "abcdefg ", true, {}},
        // edges of the symbol ranges
        {"slash", "abcdefg/", true, {}},
        {"colon", "abcdefg:", true, {}},
        {"at sign", "abcdefg@", true, {}},
        {"bracket", "abcdefg[", true, {}},
        {"backquote", "abcdefg`", true, {}},
        {"brace", "abcdefg{", true, {}},
        // bytes outside the printable range
        {"tab", "abc\tdefG1", false, {CHARACTER}},
        {"unit separator", "abcdefG1\x1f", false, {CHARACTER}},
        {"delete", "abcd\x7f" "efG1", false, {}},
        {"accented letter", "abcd\xc3\xa9" "fgH1", false, {}},
        {"high byte before a tab: the scan stops first", "abc\x80\tdefG1", false, {}},
        {"tab before a high byte", "abc\t\x80" "defG1", false, {CHARACTER}},
        {"weak letters and a high byte", "abcdefg\xff", false, {}},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        PasswordRecordSink sink;
        EXPECT_EQ(OvraStream::CheckPasswordRules(testCase.passPhrase.c_str()), testCase.accepted);
        std::vector<std::string> messages;
        for (const auto& record : sink.records) {
            EXPECT_EQ(record.severity, google::GLOG_ERROR);
            EXPECT_EQ(record.unit, MAIN_UNIT);
            messages.push_back(record.message);
        }
        EXPECT_EQ(messages, testCase.records);
    }
}

TEST(PasswordRulesTest, ChecksOnlyUpToTheTerminator)
{
    // Bytes after the terminator are not part of the pass phrase.
    const char buffer[] = "Abcdefg1\0\t\x80";
    PasswordRecordSink sink;
    EXPECT_TRUE(OvraStream::CheckPasswordRules(buffer));
    EXPECT_TRUE(sink.records.empty());
    EXPECT_FALSE(OvraStream::CheckPasswordRules(nullptr));
}

}  // namespace
