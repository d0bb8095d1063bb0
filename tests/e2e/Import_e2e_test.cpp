// Whole imports as an operator runs them: on a pseudo-terminal in a scratch SDK
// tree, the pass phrase typed at the prompt and the CA confirmed with "y".
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ImportRuns.h"

namespace VardoTest {
namespace {

const std::string ENCRYPTED = "server_key_mm encrypted success, it has been generated and written into the config file";
const std::vector<std::string> SCRUB_RECORDS = {
    "Write to the config file, the first time finished.",
    "Write to the config file, the second time finished.",
    "Write to the config file, the third time finished.",
};

// The configuration before an import (old paths) or after it (paths into
// ./keys); the other lines must come through byte for byte.
std::string Config(const std::string& cipher, const std::string& crlLine, bool imported)
{
    const std::string dir = imported ? "./keys" : "./old";
    return "# stream server settings\nserver_crt=" + dir + "/server.crt\nca_crt=" + dir + "/ca.crt" +
           (imported ? "" : " # previous CA") + "\n\nserver_key=" + dir + "/server.key\nserver_key_mm=" + cipher +
           "\n  server_key_mm=indented stays\n#crl=./commented/out.crl\n" + crlLine +
           "\npask_algorithm_id=9\nrtsp_port=8554";
}

// The key tool's scrub and success records in `log`, in order.
std::vector<std::string> PassRecords(const std::string& log)
{
    std::vector<std::string> out;
    for (const auto& record : ParseRecords(log)) {
        if (record.unit == "src/module/VardoTools/CertImport/VardoTools" &&
            (record.message == ENCRYPTED || record.message.rfind("Write to the config file", 0) == 0)) {
            out.push_back(record.message);
        }
    }
    return out;
}

// A first import over an empty value without a revocation list, then a second
// with one over the value the first stored (and over its read-only copies):
// that value is scrubbed first.
TEST(ImportTest, ImportsRewriteTheirLinesOnly)
{
    const SdkTree tree;
    std::string previous;
    for (const bool withCrl : {false, true}) {
        const std::string passPhrase = withCrl ? "second phrase 2" : "Import#Phrase1";
        SCOPED_TRACE(passPhrase);
        tree.WriteConfig(Config(previous, "crl=/old/ca.crl", false));
        const InputSet inputs = MakeValidInputs(tree.InputDir(), passPhrase);
        RunOptions options;
        options.program = VARDO_CERT_IMPORT_BINARY;
        options.args = {inputs.caCrt, inputs.serverCrt, inputs.serverKey, inputs.crl};
        options.args.resize(withCrl ? 4 : 3);
        options.workingDirectory = tree.WorkDir();
        options.setEnv = {tree.SdkHomeEnv()};
        options.exchanges = {{"please input the plain text: ", passPhrase + "\n"}, {"[y/n]", "y\n"}};
        options.timeoutSeconds = 120;
        const RunResult result = RunInPty(options);
        ASSERT_EQ(result.unmetWaitFor, "") << result.errors;
        ASSERT_EQ(result.exitStatus, 0) << result.errors;

        const std::string after = tree.ReadConfig();
        const size_t start = after.find("\nserver_key_mm=") + 15;
        const std::string cipher = after.substr(start, after.find('\n', start) - start);
        EXPECT_NE(cipher, previous);
        EXPECT_EQ(after, Config(cipher, withCrl ? "crl=./keys/ca.crl" : "crl=", true));
        EXPECT_EQ(FileMode(tree.ConfigPath()), 0600);
        std::vector<std::string> passes = previous.empty() ? std::vector<std::string>{} : SCRUB_RECORDS;
        passes.push_back(ENCRYPTED);
        EXPECT_EQ(PassRecords(result.errors), passes);
        const std::string log = result.errors + ReadWholeFile(tree.Root() + "/logs/certImport.log");  // both sinks
        EXPECT_EQ(log.find(passPhrase), std::string::npos);
        EXPECT_EQ(log.find(cipher), std::string::npos);
        EXPECT_EQ(Decrypt(cipher, tree.WorkDir()), passPhrase);
        previous = cipher;
    }
}

}  // namespace
}  // namespace VardoTest
