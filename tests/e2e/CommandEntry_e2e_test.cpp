// The import command's entry as an operator meets it, on a pseudo-terminal in a scratch SDK tree,
// and the wrapper script's option handling.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
    std::vector<std::string> records;
    for (const auto& record : ParseRecords(run.errors)) {
        if (record.unit == "src/module/VardoTools/CertImport/main") {
            records.push_back(record.Tagged());
        }
    }
    return records;
}

// The audit record of a run whose standard input is not a terminal.
std::string Audit(const std::string& user)
{
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    return "IStart import the certs by user: [" + user + "] with hostname: [" + host + "].";
}

std::string CurrentUser() { return getpwuid(getuid())->pw_name; }

class CommandEntryTest : public ::testing::Test {
protected:
    RunResult Run(const std::vector<std::string>& args, const std::string& typed = "",
                  const TestUser* user = nullptr, const std::string& directory = "") const
    {
        RunOptions options = tree_.ImportRun(args, typed);
        options.workingDirectory = directory.empty() ? tree_.WorkDir() : directory;
        options.stdinFromDevNull = true;  // the audit record is then exact; getpass still reads the terminal
        options.user = user;
        return RunInPty(options);
    }

    void ExpectTreeUntouched() const
    {
        EXPECT_EQ(FileMode(tree_.KeysDir()), -1) << "keys directory created";
        EXPECT_EQ(tree_.ReadConfig(), DEFAULT_STREAM_SERVER_CONF);
    }

    SdkTree tree_;
};

// Any count but 3 or 4 values prints the usage text, after the audit record, and asks nothing.
TEST_F(CommandEntryTest, WrongArgumentCountPrintsUsage)
{
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"a", "b"}, {"a", "b", "c", "d", "e"}, {"-c", "ca.crt", "-s", "server.crt", "-k", "server.key"}}) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const RunResult run = Run(args);
        EXPECT_EQ(run.exitStatus, 255);
        EXPECT_EQ(run.terminal, USAGE_TEXT);
        EXPECT_EQ(MainRecords(run), (std::vector<std::string>{Audit(CurrentUser()), LIB_OK})) << run.errors;
        // The audit record comes before the log's Init, yet every line on stderr is a record in the full format.
        const auto lines = static_cast<size_t>(std::count(run.errors.begin(), run.errors.end(), '\n'));
        EXPECT_EQ(ParseRecords(run.errors).size(), lines);
        ExpectTreeUntouched();
    }
}

// "../../../lib/libvardotools.so" must be a regular file of the running user (shown as an unprivileged
// user), or the run stops before the usage text and the prompt.
TEST_F(CommandEntryTest, LibraryFile)
{
    const TestUser& user = UnprivilegedUser();
    const std::string library = tree_.Root() + "/lib/libvardotools.so";
    ChownTree(tree_.Root(), user.uid, user.gid);
    struct Case {
        const char* name;
        void (*spoil)(const std::string& library);
        bool fromRoot;
        bool accepted;
    };
    const std::vector<Case> cases = {
        {"the user's own library", [](const std::string&) {}, false, true},
        {"run from the SDK root", [](const std::string&) {}, true, false},
        {"root's readable library",
         [](const std::string& lib) { ASSERT_TRUE(lchown(lib.c_str(), 0, 0) == 0 && chmod(lib.c_str(), 0755) == 0); },
         false, false},
        {"missing", [](const std::string& lib) { unlink(lib.c_str()); }, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.spoil(library);
        const RunResult run = Run({"a", "b"}, "", &user, c.fromRoot ? tree_.Root() : "");
        EXPECT_EQ(run.exitStatus, 255);
        EXPECT_EQ(run.terminal, c.accepted ? USAGE_TEXT : "");
        EXPECT_EQ(MainRecords(run), (std::vector<std::string>{Audit(user.name), c.accepted ? LIB_OK : LIB_BAD}))
            << run.errors;
    }
}

// The wrapper: -h and refused options print the usage text; options become absolute positions for the
// command, run from the wrapper's directory, without any shell expansion of the paths.
TEST_F(CommandEntryTest, WrapperScript)
{
    const std::string wrapper = tree_.WorkDir() + "/certImport.sh";
    WriteWholeFile(wrapper, ReadWholeFile(VARDO_CERT_IMPORT_WRAPPER), 0700);
    const std::string stub = tree_.InputDir() + "/show-arguments";
    WriteWholeFile(stub, "#!/bin/sh\nprintf '<%s>\\n' \"$PWD\" \"$#\" \"$@\"\nexit 7\n", 0700);
    const std::string in = tree_.InputDir();
    auto shown = [this](const std::vector<std::string>& positions) {
        std::string text = "<" + tree_.WorkDir() + ">\n<" + std::to_string(positions.size()) + ">\n";
        for (const auto& position : positions) {
            text += "<" + position + ">\n";
        }
        return text;
    };
    const std::string meta = "$(touch pwned);`touch pwned` *";
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases = {
        {{"-h"}, 0, USAGE_TEXT},
        {{"-x"}, 255, USAGE_TEXT},
        {{"-c", "a", "-s", "b"}, 255, USAGE_TEXT},
        {{"-c", "ca.crt", "-s", "sub/server.crt", "-k", "/abs/server.key"}, 7,
         shown({in + "/ca.crt", in + "/sub/server.crt", "/abs/server.key"})},
        {{"-k", "k", "-r", "r", "-s", "s", "-c", meta}, 7, shown({in + "/" + meta, in + "/s", in + "/k", in + "/r"})},
        {{"-c", "c", "-s", "s", "-k", "k", "-r", ""}, 7, shown({in + "/c", in + "/s", in + "/k", ""})},
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
