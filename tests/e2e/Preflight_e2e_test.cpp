// The wrapper script around a real import, as an operator meets it on a pseudo-terminal: the setups it refuses
// before anything is asked, its help, and the check command's report after an import.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "PtyRunner.h"
#include "TestPki.h"
#include "TestTree.h"

namespace VardoTest {
namespace {

const std::string PASS = "Preflight#1";
const std::string PROMPT = "please input the plain text: ";

// A scratch SDK tree with the wrapper in its tools directory, a valid set of inputs, and runs of
// `bash certImport.sh` there that take the built command and a HOME of their own (never created).
struct WrapperTree {
    SdkTree tree;
    InputSet inputs = MakeValidInputs(tree.InputDir(), PASS);
    std::string wrapper = tree.WorkDir() + "/certImport.sh";
    std::string home = tree.Root() + "/home";

    WrapperTree() { WriteWholeFile(wrapper, ReadWholeFile(VARDO_CERT_IMPORT_WRAPPER), 0700); }

    RunOptions Run(const std::vector<std::string>& args) const
    {
        RunOptions options;
        options.program = "/bin/bash";
        options.args = {wrapper};
        options.args.insert(options.args.end(), args.begin(), args.end());
        options.workingDirectory = tree.InputDir();
        options.setEnv = {tree.SdkHomeEnv(), {"HOME", home}, {"CERT_IMPORT_BIN", VARDO_CERT_IMPORT_BINARY}};
        options.closeInputAtEnd = true;
        return options;
    }
    std::vector<std::string> AllInputs() const
    {
        return {"-c", inputs.caCrt, "-s", inputs.serverCrt, "-k", inputs.serverKey, "-r", inputs.crl};
    }
};

// Each broken setup: exit 255 and one line on stderr naming the path, the pass phrase never asked, nothing on the
// terminal, no ./keys, no log written by anyone, the configuration as it was. Rows run as the unprivileged account
// where root would pass the check (the whole tree is then that account's).
TEST(PreflightTest, BrokenSetupsAreRefusedBeforeAnythingIsAsked)
{
    const EnvGuard noSdkHome("OVRA_SDK_HOME", nullptr);
    struct Case {
        const char* name;
        bool asUser;
        // Spoils the tree or the run; returns what the refusal must name (the path).
        std::function<std::string(WrapperTree&, RunOptions&)> spoil;
    };
    const auto moveAside = [](const std::string& path) {
        EXPECT_EQ(rename(path.c_str(), (path + ".real").c_str()), 0);
        EXPECT_EQ(symlink((path + ".real").c_str(), path.c_str()), 0);
    };
    const std::vector<Case> cases = {
        {"OVRA_SDK_HOME not set", false,
         [](WrapperTree&, RunOptions& o) {
             o.setEnv.erase(o.setEnv.begin());
             return std::string("OVRA_SDK_HOME is not");
         }},
        {"OVRA_SDK_HOME a file", false,
         [](WrapperTree& t, RunOptions& o) { return o.setEnv[0].second = t.inputs.caCrt; }},
        {"no streamserver.conf", false,
         [](WrapperTree& t, RunOptions&) { unlink(t.tree.ConfigPath().c_str()); return t.tree.ConfigPath(); }},
        {"streamserver.conf a link", false,
         [&](WrapperTree& t, RunOptions&) { moveAside(t.tree.ConfigPath()); return t.tree.ConfigPath(); }},
        {"streamserver.conf a directory", false,
         [](WrapperTree& t, RunOptions&) {
             unlink(t.tree.ConfigPath().c_str());
             mkdir(t.tree.ConfigPath().c_str(), 0700);
             return t.tree.ConfigPath();
         }},
        {"streamserver.conf of another user", true,
         [](WrapperTree& t, RunOptions&) { lchown(t.tree.ConfigPath().c_str(), 0, 0); return t.tree.ConfigPath(); }},
        {"no library", false,
         [](WrapperTree& t, RunOptions&) {
             const std::string library = t.tree.Root() + "/lib/libvardotools.so";
             unlink(library.c_str());
             return library;
         }},
        {"library a link", false,
         [&](WrapperTree& t, RunOptions&) {
             moveAside(t.tree.Root() + "/lib/libvardotools.so");
             return t.tree.Root() + "/lib/libvardotools.so";
         }},
        {"library of another user", true,
         [](WrapperTree& t, RunOptions&) {
             const std::string library = t.tree.Root() + "/lib/libvardotools.so";
             lchown(library.c_str(), 0, 0);
             return library;
         }},
        {"CA certificate empty", false, [](WrapperTree&, RunOptions& o) { o.args[2].clear(); return std::string("-c is"); }},
        {"CA certificate missing", false,
         [](WrapperTree& t, RunOptions& o) { return o.args[2] = t.tree.InputDir() + "/missing.crt"; }},
        {"server certificate a link", false,
         [&](WrapperTree& t, RunOptions&) { moveAside(t.inputs.serverCrt); return t.inputs.serverCrt; }},
        {"server key unreadable", true,
         [](WrapperTree& t, RunOptions&) { chmod(t.inputs.serverKey.c_str(), 0200); return t.inputs.serverKey; }},
        {"server key of another user", true,
         [](WrapperTree& t, RunOptions&) {
             chmod(t.inputs.serverKey.c_str(), 0644);
             lchown(t.inputs.serverKey.c_str(), 0, 0);
             return t.inputs.serverKey;
         }},
        {"revocation list a directory", false,
         [](WrapperTree& t, RunOptions& o) { return o.args[8] = t.tree.InputDir(); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        WrapperTree t;
        RunOptions options = t.Run(t.AllInputs());
        if (c.asUser) {
            options.user = &UnprivilegedUser();
            ChownTree(t.tree.Root(), options.user->uid, options.user->gid);
        }
        const std::string named = c.spoil(t, options);
        const std::string config = ReadWholeFile(t.tree.ConfigPath());
        const RunResult run = RunInPty(options);
        EXPECT_EQ(run.exitStatus, 255);
        EXPECT_EQ(run.terminal, "");
        EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 1) << run.errors;
        EXPECT_EQ(run.errors.rfind("certImport.sh: ", 0), 0u) << run.errors;
        EXPECT_NE(run.errors.find(named + " "), std::string::npos) << run.errors;
        EXPECT_EQ(FileMode(t.tree.KeysDir()), -1);
        EXPECT_EQ(FileMode(t.tree.Root() + "/logs"), -1);
        EXPECT_EQ(FileMode(t.home), -1);
        EXPECT_EQ(ReadWholeFile(t.tree.ConfigPath()), config);
    }
}

TEST(PreflightTest, HelpNamesEveryOption)
{
    WrapperTree t;
    const RunResult run = RunInPty(t.Run({"-h"}));
    EXPECT_EQ(run.exitStatus, 0);
    for (const char* option : {"-c <ca.crt_path>", "-s <server.crt_path>", "-k <server.key_path>", "-r <ca.crl_path>",
                               "\n  -h ", "OVRA_SDK_HOME", "certImport.log", "vardo-tls-check"}) {
        EXPECT_NE(run.terminal.find(option), std::string::npos) << option;
    }
}

// After an import the check is run from the wrapper's directory in the same SDK, and what it prints is shown; its
// status (2 here) leaves the import's alone. A refused import, or no check beside the command, shows nothing more.
TEST(PreflightTest, CheckReportFollowsASuccessfulImportOnly)
{
    const EnvGuard noCheck("VARDO_TLS_CHECK_BIN", nullptr);
    struct Case {
        const char* name;
        const char* answer;
        bool checkGiven;
        int status;
        bool reported;
    };
    const std::vector<Case> cases = {
        {"imported", "y\n", true, 0, true},
        {"declined at the fingerprint", "n\n", true, 255, false},
        {"no check beside the command", "y\n", false, 0, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        WrapperTree t;
        const std::string check = t.tree.InputDir() + "/check";
        WriteWholeFile(check, "#!/bin/sh\necho \"check report: $PWD $OVRA_SDK_HOME\"\nexit 2\n", 0700);
        RunOptions options = t.Run(t.AllInputs());
        if (c.checkGiven) {
            options.setEnv.emplace_back("VARDO_TLS_CHECK_BIN", check);
        }
        options.exchanges = {{PROMPT, PASS + "\n"}, {"[y/n]", c.answer}};
        options.timeoutSeconds = 120;
        const RunResult run = RunInPty(options);
        EXPECT_EQ(run.exitStatus, c.status) << run.errors;
        const std::string report = "check report: " + t.tree.WorkDir() + " " + t.tree.Root() + "\n";
        EXPECT_EQ(run.terminal.find(report) != std::string::npos, c.reported) << run.terminal;
        EXPECT_EQ(run.terminal.find("certImport.sh:") != std::string::npos, c.reported) << run.terminal;
    }
}

}  // namespace
}  // namespace VardoTest
