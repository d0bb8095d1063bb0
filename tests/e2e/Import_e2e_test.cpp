// Whole imports as an operator runs them, and what the stream server makes of
// them: on a pseudo-terminal in a scratch SDK tree, the pass phrase typed at the
// prompt and the CA confirmed with "y"; then the TLS stand-in (vardo-tls-server)
// loads what the import left, decrypting the pass phrase through the key tool,
// and `openssl s_client` connects with two client certificates of the CA: the
// first verifies both ways; the second, revoked in the list, is refused when
// the list was imported and accepted when it was not.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "PtyRunner.h"
#include "Records.h"
#include "TestPki.h"
#include "TestTree.h"

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

// One s_client connection, with the certificate and key `client`.crt and .key, to the port the server announced
// in `written`: the exit status, and the output in `client`.out.
int Connect(const std::string& written, const std::string& caCrt, const std::string& client)
{
    const std::string marker = "listening on 127.0.0.1:";
    const std::string port = std::to_string(std::atoi(written.c_str() + written.find(marker) + marker.size()));
    const std::string command = "/usr/bin/openssl s_client -connect 127.0.0.1:" + port + " -CAfile '" + caCrt +
                                "' -cert '" + client + ".crt' -key '" + client + ".key' -verify_return_error " +
                                "-servername stream.test </dev/null >'" + client + ".out' 2>&1";
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A first import over an empty value without a revocation list, then a
// renewal: a second with one over the value the first stored and over its
// read-only copies, nothing removed by hand; that value is scrubbed first.
TEST(ImportTest, ImportsRewriteTheirLinesOnlyAndServeTls)
{
    const SdkTree tree;
    std::string previous;
    for (const bool withCrl : {false, true}) {
        const std::string passPhrase = withCrl ? "second phrase 2" : "Import#Phrase1";
        SCOPED_TRACE(passPhrase);
        tree.WriteConfig(Config(previous, "crl=/old/ca.crl", false));
        const InputSet inputs = MakeValidInputs(tree.InputDir(), passPhrase);
        const std::string good = tree.InputDir() + "/good-client", revoked = tree.InputDir() + "/revoked-client";
        for (const std::string& client : {good, revoked}) {
            CertSpec recipe = ServerSpec(client.substr(client.rfind('/') + 1));
            recipe.serial = client == good ? 100 : 101;
            WriteCertPem(MakeCert(recipe, inputs.ca, inputs.caKey), client + ".crt");
            WriteKeyPem(recipe.key, client + ".key", KeyFormat::Pkcs8Plain);
        }
        CrlSpec list;
        list.revokedSerials = {101};
        WriteCrlPem(MakeCrl(list, inputs.ca, inputs.caKey), inputs.crl);
        std::vector<std::string> args = {inputs.caCrt, inputs.serverCrt, inputs.serverKey, inputs.crl};
        args.resize(withCrl ? 4 : 3);
        RunOptions options = tree.ImportRun(args, passPhrase + "\n", {"y\n"});
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

        int goodStatus = -1;
        // The stand-in as built against an installed SDK: through pkg-config, then the CMake package.
        options.program = withCrl ? VARDO_TLS_SERVER_CMAKE_BINARY : VARDO_TLS_SERVER_PKG_CONFIG_BINARY;
        options.args = {"--connections", "2"};
        options.closeInputAtEnd = false;
        options.exchanges = {
            {"listening on", "", [&](const std::string& written) { goodStatus = Connect(written, inputs.caCrt, good); }},
            {"handshake ", "", [&](const std::string& written) { Connect(written, inputs.caCrt, revoked); }}};
        const RunResult served = RunInPty(options);
        const std::string output = served.terminal + served.errors;
        EXPECT_EQ(served.exitStatus, 0) << output;
        EXPECT_EQ(served.unmetWaitFor, "") << output;
        EXPECT_EQ(goodStatus, 0) << ReadWholeFile(good + ".out");
        EXPECT_NE(ReadWholeFile(good + ".out").find("Verify return code: 0 (ok)"), std::string::npos);
        // The renewal took: the server shows this import's certificate.
        EXPECT_NE(ReadWholeFile(good + ".out").find(ReadWholeFile(inputs.serverCrt)), std::string::npos);
        EXPECT_NE(output.find(withCrl ? ", ./keys/ca.crl" : "(no revocation list)"), std::string::npos) << output;
        EXPECT_NE(output.find("handshake ok: /CN=good-client"), std::string::npos) << output;
        EXPECT_EQ(output.find("/CN=revoked-client") == std::string::npos, withCrl) << output;
        EXPECT_EQ(output.find("certificate revoked") != std::string::npos, withCrl) << output;
        previous = cipher;
    }
}

}  // namespace
}  // namespace VardoTest
