// The import command's entry as an operator meets it, on a pseudo-terminal in a scratch SDK tree,
// and the wrapper script's option handling.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "PtyRunner.h"
#include "Records.h"
#include "TestTree.h"

namespace VardoTest {
namespace {

const std::string USAGE_TEXT =
    "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path>\n"
    "example: bash ./certImport.sh -c ./ca/ca/ca.crt -s ./ca/server/server.crt -k ./ca/server/server.key\n"
    "or load crl list as follows\n"
    "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path> -r <ca.crl_path>\n";
const std::string LIB_OK = "IUser permission is valid.";

const std::string LIB_BAD = Err("Invalid lib file!", 1029);

// "<severity letter><message>" of the command's own records, in order.
std::vector<std::string> MainRecords(const RunResult& run)
{
    return Tagged(ParseRecords(run.errors), 0, "src/module/VardoTools/CertImport/main");
}

// The audit record of a run whose standard input is not a terminal.
std::string Audit(const std::string& user)
{
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    return "IStart import the certs by user: [" + user + "] with hostname: [" + host + "].";
}

class CommandEntryTest : public ::testing::Test {
protected:
    SdkTree tree_;
};

// Any count but 3 or 4 values prints the usage text after the audit record and asks nothing, when
// "../../../lib/libvardotools.so" is a regular file of the running user (shown as an unprivileged user too);
// otherwise the run stops before the usage text. ./keys and the configuration are left alone, and every line
// on stderr is a record in the full format, the audit record too although it comes before the log's Init.
TEST_F(CommandEntryTest, UsageAndLibraryFile)
{
    const TestUser& user = UnprivilegedUser();
    const std::string library = tree_.Root() + "/lib/libvardotools.so";
    struct Case {
        const char* name;
        std::vector<std::string> args;
        const TestUser* user;
        std::function<void()> spoil;
        bool fromRoot, accepted;
    };
    const std::vector<Case> cases = {
        {"two values", {"a", "b"}, nullptr, nullptr, false, true},
        {"five values", {"a", "b", "c", "d", "e"}, nullptr, nullptr, false, true},
        {"the wrapper's options", {"-c", "ca.crt", "-s", "server.crt", "-k", "server.key"}, nullptr, nullptr, false,
         true},
        {"the user's own library", {"a", "b"}, &user, [&] { ChownTree(tree_.Root(), user.uid, user.gid); }, false, true},
        {"run from the SDK root", {"a", "b"}, &user, nullptr, true, false},
        {"root's readable library", {"a", "b"}, &user,
         [&] { ASSERT_TRUE(lchown(library.c_str(), 0, 0) == 0 && chmod(library.c_str(), 0755) == 0); }, false, false},
        {"missing", {"a", "b"}, &user, [&] { unlink(library.c_str()); }, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.spoil) {
            c.spoil();
        }
        RunOptions options = tree_.ImportRun(c.args, "");
        options.workingDirectory = c.fromRoot ? tree_.Root() : tree_.WorkDir();
        options.stdinFromDevNull = true;  // the audit record is then exact; getpass still reads the terminal
        options.user = c.user;
        const RunResult run = RunInPty(options);
        EXPECT_EQ(run.exitStatus, 255);
        EXPECT_EQ(run.terminal, c.accepted ? USAGE_TEXT : "");
        const std::string name = c.user != nullptr ? c.user->name : getpwuid(getuid())->pw_name;
        EXPECT_EQ(MainRecords(run), (std::vector<std::string>{Audit(name), c.accepted ? LIB_OK : LIB_BAD}))
            << run.errors;
        const auto lines = static_cast<size_t>(std::count(run.errors.begin(), run.errors.end(), '\n'));
        EXPECT_EQ(ParseRecords(run.errors).size(), lines);
        EXPECT_EQ(FileMode(tree_.KeysDir()), -1);
        EXPECT_EQ(tree_.ReadConfig(), DEFAULT_STREAM_SERVER_CONF);
    }
}

// The wrapper: refused options print the usage text; options become absolute positions for the command, run
// from the wrapper's directory, without any shell expansion of the paths (the files exist: the wrapper checks).
TEST_F(CommandEntryTest, WrapperScript)
{
    const std::string wrapper = tree_.WorkDir() + "/certImport.sh";
    WriteWholeFile(wrapper, ReadWholeFile(VARDO_CERT_IMPORT_WRAPPER), 0700);
    const std::string stub = tree_.InputDir() + "/show-arguments";
    WriteWholeFile(stub, "#!/bin/sh\nprintf '<%s>\\n' \"$PWD\" \"$#\" \"$@\"\nexit 7\n", 0700);
    const std::string in = tree_.InputDir();
    const std::string elsewhere = tree_.Root() + "/server.key";
    const std::string meta = "$(touch pwned);`touch pwned` *";
    ASSERT_EQ(mkdir((in + "/sub").c_str(), 0700), 0);
    for (const char* name : {"ca.crt", "sub/server.crt", "c", "s", "k", "r", meta.c_str()}) {
        WriteWholeFile(in + "/" + name, "");
    }
    WriteWholeFile(elsewhere, "");
    auto shown = [this](const std::vector<std::string>& positions) {
        std::string text = "<" + tree_.WorkDir() + ">\n<" + std::to_string(positions.size()) + ">\n";
        for (const auto& position : positions) {
            text += "<" + position + ">\n";
        }
        return text;
    };
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases = {
        {{"-x"}, 255, USAGE_TEXT},
        {{"-c", "a", "-s", "b"}, 255, USAGE_TEXT},
        {{"-c", "ca.crt", "-s", "sub/server.crt", "-k", elsewhere}, 7,
         shown({in + "/ca.crt", in + "/sub/server.crt", elsewhere})},
        {{"-k", "k", "-r", "r", "-s", "s", "-c", meta}, 7, shown({in + "/" + meta, in + "/s", in + "/k", in + "/r"})},
        {{"-c", "c", "-s", "s", "-k", "k", "-r", ""}, 255, ""},
    };
    for (const auto& [args, status, terminal] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        RunOptions options;
        options.program = "/bin/bash";
        options.args = {wrapper};
        options.args.insert(options.args.end(), args.begin(), args.end());
        options.workingDirectory = in;
        options.setEnv = {tree_.SdkHomeEnv(), {"CERT_IMPORT_BIN", stub}};
        const RunResult run = RunInPty(options);
        EXPECT_EQ(run.exitStatus, status);
        EXPECT_EQ(run.terminal, terminal);
    }
    EXPECT_EQ(FileMode(in + "/pwned"), -1);
    EXPECT_EQ(FileMode(tree_.WorkDir() + "/pwned"), -1);
}

}  // namespace
}  // namespace VardoTest
