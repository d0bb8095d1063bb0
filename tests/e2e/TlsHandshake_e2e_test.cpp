// The operator's real question after an import: will the stream server come
// up with this material? An import runs as the operator runs it, then the TLS
// stand-in (vardo-tls-server) loads what the import left (decrypting the pass
// phrase through the key tool) and `openssl s_client` connects with client
// certificates: the good one verifies both ways, the revoked one is refused.
// The stand-in is built against an installed SDK (the fixture
// BuildConsumers.cmake): through the CMake package for the first scenario,
// through pkg-config for the second.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "PtyRunner.h"
#include "TestPki.h"
#include "TestTree.h"

namespace VardoTest {
namespace {

const std::string PASS_PHRASE = "Handshake-Pass1";

// A child process with its standard output (and error) on a pipe.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::string& workDir,
          const std::pair<std::string, std::string>& env)
    {
        int fds[2];
        if (pipe(fds) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], STDOUT_FILENO);
            dup2(fds[1], STDERR_FILENO);
            int devNull = open("/dev/null", O_RDONLY);
            dup2(devNull, STDIN_FILENO);
            close(fds[0]);
            close(fds[1]);
            if (chdir(workDir.c_str()) != 0) {
                _exit(126);
            }
            setenv(env.first.c_str(), env.second.c_str(), 1);
            std::vector<char*> args;
            for (const auto& arg : argv) {
                args.push_back(const_cast<char*>(arg.c_str()));
            }
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        close(fds[1]);
        out_ = fds[0];
    }
    ~Child()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) {
            close(out_);
        }
    }

    // Reads until `text` appears in the output or `seconds` pass.
    bool WaitFor(const std::string& text, int seconds)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (output_.find(text) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now()).count();
            if (left <= 0 || !ReadSome(static_cast<int>(left))) {
                return output_.find(text) != std::string::npos;
            }
        }
        return true;
    }

    // Waits for the exit (killing the child after `seconds`); the exit status or -1.
    int Wait(int seconds)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < deadline && ReadSome(100)) {
        }
        int status = 0;
        for (;;) {
            pid_t done = waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                pid_ = -1;
                while (ReadSome(50)) {
                }
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return -1;
            }
            usleep(20000);
        }
    }

    const std::string& Output() const { return output_; }

private:
    bool ReadSome(int timeoutMs)
    {
        pollfd entry{out_, POLLIN, 0};
        if (poll(&entry, 1, timeoutMs) <= 0) {
            return false;
        }
        char buffer[4096];
        ssize_t count = read(out_, buffer, sizeof(buffer));
        if (count <= 0) {
            return false;
        }
        output_.append(buffer, static_cast<size_t>(count));
        return true;
    }

    pid_t pid_ = -1;
    int out_ = -1;
    std::string output_;
};

class TlsHandshakeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        inputs_ = MakeValidInputs(tree_.InputDir(), PASS_PHRASE);
        goodClient_ = WriteClient("good-client", 100);
        revokedClient_ = WriteClient("revoked-client", 101);
        CrlSpec crl;
        crl.revokedSerials = {101};
        WriteCrlPem(MakeCrl(crl, inputs_.ca, inputs_.caKey), inputs_.crl);
    }

    std::string WriteClient(const std::string& name, long serial)
    {
        CertSpec recipe = ServerSpec(name);
        recipe.serial = serial;
        WriteCertPem(MakeCert(recipe, inputs_.ca, inputs_.caKey), tree_.InputDir() + "/" + name + ".crt");
        WriteKeyPem(recipe.key, tree_.InputDir() + "/" + name + ".key", KeyFormat::Pkcs8Plain);
        return tree_.InputDir() + "/" + name;
    }

    void Import(bool withCrl)
    {
        RunOptions run;
        run.program = VARDO_CERT_IMPORT_BINARY;
        run.args = {inputs_.caCrt, inputs_.serverCrt, inputs_.serverKey};
        if (withCrl) {
            run.args.push_back(inputs_.crl);
        }
        run.workingDirectory = tree_.WorkDir();
        run.setEnv = {tree_.SdkHomeEnv()};
        run.exchanges = {{"please input the plain text: ", PASS_PHRASE + "\n"}, {"[y/n]", "y\n"}};
        const RunResult result = RunInPty(run);
        ASSERT_EQ(result.exitStatus, 0) << result.errors;
    }

    // One s_client connection with the client certificate `client` (path
    // without extension); its exit status, output in `output`.
    int Connect(int port, const std::string& client, std::string& output)
    {
        Child sClient({"/usr/bin/openssl", "s_client", "-connect", "127.0.0.1:" + std::to_string(port), "-CAfile",
                       inputs_.caCrt, "-cert", client + ".crt", "-key", client + ".key", "-verify_return_error",
                       "-servername", "stream.test"},
                      tree_.WorkDir(), tree_.SdkHomeEnv());
        const int status = sClient.Wait(30);
        output = sClient.Output();
        return status;
    }

    static int ListeningPort(const std::string& output)
    {
        const std::string marker = "listening on 127.0.0.1:";
        const size_t at = output.find(marker);
        return at == std::string::npos ? -1 : std::stoi(output.substr(at + marker.size()));
    }

    SdkTree tree_;
    InputSet inputs_;
    std::string goodClient_;
    std::string revokedClient_;
};

TEST_F(TlsHandshakeTest, ImportedMaterialServesTlsAndRefusesTheRevokedClient)
{
    Import(true);
    ASSERT_NE(tree_.ReadConfig().find("\ncrl=./keys/ca.crl\n"), std::string::npos);

    Child server({VARDO_TLS_SERVER_CMAKE_BINARY, "--connections", "2"}, tree_.WorkDir(), tree_.SdkHomeEnv());
    ASSERT_TRUE(server.WaitFor("listening on", 30)) << server.Output();
    const int port = ListeningPort(server.Output());
    ASSERT_GT(port, 0);
    EXPECT_NE(server.Output().find(", ./keys/ca.crl"), std::string::npos) << server.Output();

    std::string good;
    EXPECT_EQ(Connect(port, goodClient_, good), 0) << good;
    EXPECT_NE(good.find("Verify return code: 0 (ok)"), std::string::npos) << good;
    ASSERT_TRUE(server.WaitFor("handshake ok: ", 30)) << server.Output();
    EXPECT_NE(server.Output().find("handshake ok: /CN=good-client"), std::string::npos) << server.Output();

    std::string revoked;
    Connect(port, revokedClient_, revoked);
    ASSERT_TRUE(server.WaitFor("handshake failed: ", 30)) << server.Output();
    EXPECT_NE(server.Output().find("certificate revoked"), std::string::npos) << server.Output();
    EXPECT_EQ(server.Output().find("/CN=revoked-client"), std::string::npos) << server.Output();
    EXPECT_EQ(server.Wait(30), 0) << server.Output();
}

TEST_F(TlsHandshakeTest, ImportWithoutRevocationListServesWithoutOne)
{
    Import(false);
    ASSERT_NE(tree_.ReadConfig().find("\ncrl=\n"), std::string::npos);

    Child server({VARDO_TLS_SERVER_PKG_CONFIG_BINARY, "--connections", "1"}, tree_.WorkDir(), tree_.SdkHomeEnv());
    ASSERT_TRUE(server.WaitFor("listening on", 30)) << server.Output();
    EXPECT_NE(server.Output().find("(no revocation list)"), std::string::npos) << server.Output();

    // Without a list the second client is an ordinary client of the CA.
    std::string output;
    EXPECT_EQ(Connect(ListeningPort(server.Output()), revokedClient_, output), 0) << output;
    ASSERT_TRUE(server.WaitFor("handshake ok: ", 30)) << server.Output();
    EXPECT_EQ(server.Wait(30), 0) << server.Output();
}

}  // namespace
}  // namespace VardoTest
