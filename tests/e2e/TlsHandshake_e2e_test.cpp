// The operator's real question after an import: will the stream server come
// up with this material? An import runs as the operator runs it, then the TLS
// stand-in (vardo-tls-server) loads what the import left (decrypting the pass
// phrase through the key tool) and `openssl s_client` connects with two client
// certificates of the CA: the first verifies both ways; the second, revoked in
// the list, is refused when the list was imported and accepted when it was not.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "PtyRunner.h"
#include "TestPki.h"
#include "TestTree.h"

namespace VardoTest {
namespace {

const std::string PASS_PHRASE = "Handshake-Pass1";

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

TEST(TlsHandshakeTest, ImportedMaterialServesTlsWithAndWithoutTheList)
{
    for (const bool withCrl : {true, false}) {
        SCOPED_TRACE(withCrl ? "list imported" : "no list");
        SdkTree tree;
        const InputSet inputs = MakeValidInputs(tree.InputDir(), PASS_PHRASE);
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
        RunOptions run = tree.ImportRun(args, PASS_PHRASE + "\n", {"y\n"});
        const RunResult imported = RunInPty(run);
        ASSERT_EQ(imported.exitStatus, 0) << imported.errors;

        int goodStatus = -1;
        run.program = VARDO_TLS_SERVER_BINARY;
        run.args = {"--connections", "2"};
        run.closeInputAtEnd = false;
        run.exchanges = {
            {"listening on", "", [&](const std::string& written) { goodStatus = Connect(written, inputs.caCrt, good); }},
            {"handshake ", "", [&](const std::string& written) { Connect(written, inputs.caCrt, revoked); }}};
        const RunResult served = RunInPty(run);
        const std::string output = served.terminal + served.errors;
        EXPECT_EQ(served.exitStatus, 0) << output;
        EXPECT_EQ(served.unmetWaitFor, "") << output;
        EXPECT_EQ(goodStatus, 0) << ReadWholeFile(good + ".out");
        EXPECT_NE(ReadWholeFile(good + ".out").find("Verify return code: 0 (ok)"), std::string::npos);
        EXPECT_NE(output.find(withCrl ? ", ./keys/ca.crl" : "(no revocation list)"), std::string::npos) << output;
        EXPECT_NE(output.find("handshake ok: /CN=good-client"), std::string::npos) << output;
        EXPECT_EQ(output.find("/CN=revoked-client") == std::string::npos, withCrl) << output;
        EXPECT_EQ(output.find("certificate revoked") != std::string::npos, withCrl) << output;
    }
}

}  // namespace
}  // namespace VardoTest
