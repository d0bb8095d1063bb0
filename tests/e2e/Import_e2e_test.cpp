// Whole imports as an operator runs them: the command on a pseudo-terminal in
// a scratch SDK tree, the pass phrase typed at the prompt and the CA confirmed
// with "y". Afterwards the configuration file must differ from before only in
// the lines the import owns, and the stored cipher text must decrypt (through
// libvardotools.so, in this process) to exactly the typed pass phrase.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <optional>
#include <string>
#include <vector>

#include "PtyRunner.h"
#include "TestPki.h"
#include "TestTree.h"
#include "VardoTools.h"

namespace VardoTest {
namespace {

const std::string PROMPT = "please input the plain text: ";
const std::string CONFIRM = "[y/n]";
const std::string KEY_TOOL_UNIT = "src/module/VardoTools/CertImport/VardoTools";
const std::string ENCRYPTED = "server_key_mm encrypted success, it has been generated and written into the config file";
const std::vector<std::string> SCRUB_RECORDS = {
    "Write to the config file, the first time finished.",
    "Write to the config file, the second time finished.",
    "Write to the config file, the third time finished.",
};

// A configuration with lines the import must leave alone around the ones it
// owns; "@MM@" and "@CRL@" stand for the value and crl lines.
const std::string CONFIG_TEMPLATE =
    "# stream server settings\n"
    "server_crt=./old/server.crt\n"
    "ca_crt=./old/ca.crt # previous CA\n"
    "\n"
    "server_key=./old/server.key\n"
    "@MM@\n"
    "  server_key_mm=indented stays\n"
    "#crl=./commented/out.crl\n"
    "@CRL@\n"
    "pask_algorithm_id=9\n"
    "rtsp_port=8554";

std::string Fill(std::string text, const std::string& mmLine, const std::string& crlLine)
{
    text.replace(text.find("@MM@"), 4, mmLine);
    text.replace(text.find("@CRL@"), 5, crlLine);
    return text;
}

// What an import turns CONFIG_TEMPLATE into.
std::string Imported(const std::string& cipher, bool withCrl)
{
    std::string text = Fill(CONFIG_TEMPLATE, "server_key_mm=" + cipher, withCrl ? "crl=./keys/ca.crl" : "crl=");
    text.replace(text.find("server_crt=./old/server.crt"), 27, "server_crt=./keys/server.crt");
    text.replace(text.find("ca_crt=./old/ca.crt # previous CA"), 33, "ca_crt=./keys/ca.crt");
    text.replace(text.find("server_key=./old/server.key"), 27, "server_key=./keys/server.key");
    return text;
}

// The value of the first line that starts with "server_key_mm=".
std::string StoredCipher(const std::string& text)
{
    const std::string prefix = "server_key_mm=";
    const size_t start = text.rfind(prefix, 0) == 0 ? 0 : text.find("\n" + prefix);
    if (start == std::string::npos) {
        return "";
    }
    const size_t value = start + (start == 0 ? 0 : 1) + prefix.size();
    return text.substr(value, text.find('\n', value) - value);
}

bool IsBase64(const std::string& text)
{
    const size_t body = text.find_last_not_of('=') + 1;  // 0 when empty or all padding
    return body > 0 && text.size() - body <= 2 &&
           text.substr(0, body).find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/") == std::string::npos;
}

std::vector<std::string> KeyToolInfos(const std::string& errors)
{
    std::vector<std::string> messages;
    for (const auto& record : ParseRecords(errors)) {
        if (record.unit == KEY_TOOL_UNIT && record.severity == 'I') {
            messages.push_back(record.message);
        }
    }
    return messages;
}

// The records of `wanted` that occur in `messages`, in their order there.
std::vector<std::string> Only(const std::vector<std::string>& messages, const std::vector<std::string>& wanted)
{
    std::vector<std::string> out;
    for (const auto& message : messages) {
        for (const auto& w : wanted) {
            if (message == w) {
                out.push_back(message);
            }
        }
    }
    return out;
}

class ImportTest : public ::testing::Test {
protected:
    RunResult Import(const InputSet& inputs, const std::string& passPhrase, bool withCrl) const
    {
        RunOptions options;
        options.program = VARDO_CERT_IMPORT_BINARY;
        options.args = {inputs.caCrt, inputs.serverCrt, inputs.serverKey};
        if (withCrl) {
            options.args.push_back(inputs.crl);
        }
        options.workingDirectory = tree_.WorkDir();
        options.setEnv = {tree_.SdkHomeEnv()};
        options.exchanges = {{PROMPT, passPhrase + "\n"}, {CONFIRM, "y\n"}};
        options.timeoutSeconds = 120;
        return RunInPty(options);
    }

    // Decrypts `cipher` with the key stores of the tree, as the stream server
    // would: in this process, from the directory that holds ./keys.
    std::optional<std::string> Decrypt(const std::string& cipher) const
    {
        char previous[PATH_MAX];
        if (getcwd(previous, sizeof(previous)) == nullptr || chdir(tree_.WorkDir().c_str()) != 0) {
            ADD_FAILURE() << "cannot enter " << tree_.WorkDir();
            return std::nullopt;
        }
        OvraStream::VardoTools tool;
        char* plain = nullptr;
        unsigned long plainLength = 0;
        const int32_t rc = tool.DecryptCaPassword(cipher.c_str(), &plain, plainLength, 9);
        std::optional<std::string> out;
        if (rc == 0 && plain != nullptr) {
            out = std::string(plain);
        }
        OvraStream::VardoTools::ResetDeleteCharArray(plain, plainLength);
        EXPECT_EQ(chdir(previous), 0);
        EXPECT_EQ(rc, 0);
        return out;
    }

    // What an operator does before importing again: the read-only copies go,
    // the key stores stay.
    void RemoveImportedCopies() const
    {
        for (const char* name : {"ca.crt", "server.crt", "server.key", "ca.crl"}) {
            unlink((tree_.KeysDir() + "/" + name).c_str());
        }
    }

    SdkTree tree_;
};

TEST_F(ImportTest, ImportWritesCipherTextAndPathsAndNothingElse)
{
    const std::string passPhrase = "Import#Phrase1";
    for (bool withCrl : {false, true}) {
        SCOPED_TRACE(withCrl ? "with a revocation list" : "without a revocation list");
        RemoveImportedCopies();
        const InputSet inputs = MakeValidInputs(tree_.InputDir(), passPhrase);
        tree_.WriteConfig(Fill(CONFIG_TEMPLATE, "server_key_mm=", "crl=/old/ca.crl"));

        const RunResult result = Import(inputs, passPhrase, withCrl);
        ASSERT_EQ(result.unmetWaitFor, "") << result.errors;
        ASSERT_EQ(result.exitStatus, 0) << result.errors;

        const std::string after = tree_.ReadConfig();
        const std::string cipher = StoredCipher(after);
        EXPECT_TRUE(IsBase64(cipher)) << after;
        EXPECT_EQ(after, Imported(cipher, withCrl));
        EXPECT_EQ(FileMode(tree_.ConfigPath()), 0600);
        EXPECT_EQ(FileMode(tree_.KeysDir() + "/ca.crl"), withCrl ? 0400 : -1);

        // The value line was empty: no scrub pass, one success record.
        const auto infos = KeyToolInfos(result.errors);
        EXPECT_TRUE(Only(infos, SCRUB_RECORDS).empty());
        EXPECT_EQ(Only(infos, {ENCRYPTED}).size(), 1u);
        // Neither the pass phrase nor the cipher text reaches the log or the terminal.
        EXPECT_EQ(result.errors.find(passPhrase), std::string::npos);
        EXPECT_EQ(result.errors.find(cipher), std::string::npos);

        EXPECT_EQ(Decrypt(cipher), passPhrase);
    }
}

TEST_F(ImportTest, SecondImportScrubsTheOldValueAndStoresANewOne)
{
    tree_.WriteConfig(Fill(CONFIG_TEMPLATE, "server_key_mm=", "crl="));
    const std::string firstPhrase = "First-Phrase-01";
    const InputSet first = MakeValidInputs(tree_.InputDir(), firstPhrase);
    const RunResult firstRun = Import(first, firstPhrase, true);
    ASSERT_EQ(firstRun.exitStatus, 0) << firstRun.errors;
    const std::string firstCipher = StoredCipher(tree_.ReadConfig());
    ASSERT_FALSE(firstCipher.empty());
    EXPECT_EQ(Decrypt(firstCipher), firstPhrase);

    RemoveImportedCopies();
    const std::string secondPhrase = "second phrase 2";
    const InputSet second = MakeValidInputs(tree_.InputDir(), secondPhrase);
    const RunResult secondRun = Import(second, secondPhrase, false);
    ASSERT_EQ(secondRun.unmetWaitFor, "") << secondRun.errors;
    ASSERT_EQ(secondRun.exitStatus, 0) << secondRun.errors;

    const std::string after = tree_.ReadConfig();
    const std::string secondCipher = StoredCipher(after);
    EXPECT_NE(secondCipher, firstCipher);
    EXPECT_EQ(after, Imported(secondCipher, false));

    // The three passes ran, in order, before the new value was written.
    std::vector<std::string> expected = SCRUB_RECORDS;
    expected.push_back(ENCRYPTED);
    EXPECT_EQ(Only(KeyToolInfos(secondRun.errors), expected), expected);

    EXPECT_EQ(Decrypt(secondCipher), secondPhrase);
}

}  // namespace
}  // namespace VardoTest
