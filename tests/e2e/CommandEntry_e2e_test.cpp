// The import command's entry as an operator meets it: audit record, library
// file check, usage text, pass phrase prompt and rules, the hand-over to the
// input checks, and the wrapper script's option handling. Every run happens on
// a pseudo-terminal inside a scratch SDK tree.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "OvraBase/ErrorInfo.h"
#include "PtyRunner.h"
#include "TestTree.h"

namespace VardoTest {
namespace {

const std::string PROMPT = "please input the plain text: ";
const std::string USAGE_TEXT =
    "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path>\n"
    "example: bash ./certImport.sh -c ./ca/ca/ca.crt -s ./ca/server/server.crt -k ./ca/server/server.key\n"
    "or load crl list as follows\n"
    "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path> -r <ca.crl_path>\n";
const std::string MAIN_UNIT = "src/module/VardoTools/CertImport/main";
const std::string LIB_OK = "User permission is valid.";
const std::string GOOD_PASS_PHRASE = "Stream-Key-42";

std::string WithCode(const std::string& message, int code) { return message + OvraBase::GetErrorInfo(code, ""); }

std::string WithoutCarriageReturns(std::string text)
{
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

std::string CurrentUserName()
{
    const passwd* entry = getpwuid(getuid());
    return entry != nullptr ? entry->pw_name : "";
}

std::string CurrentHostName()
{
    char name[256] = {};
    gethostname(name, sizeof(name) - 1);
    return name;
}

// Messages of the command's own unit, in order.
std::vector<std::string> MainMessages(const std::string& errors)
{
    std::vector<std::string> messages;
    for (const auto& record : ParseRecords(errors)) {
        if (record.unit == MAIN_UNIT) {
            messages.push_back(record.message);
        }
    }
    return messages;
}

bool Contains(const std::vector<std::string>& messages, const std::string& wanted)
{
    return std::find(messages.begin(), messages.end(), wanted) != messages.end();
}

class CommandEntryTest : public ::testing::Test {
protected:
    RunOptions CommandOptions(const std::vector<std::string>& args) const
    {
        RunOptions options;
        options.program = VARDO_CERT_IMPORT_BINARY;
        options.args = args;
        options.workingDirectory = tree_.WorkDir();
        options.setEnv = {tree_.SdkHomeEnv()};
        options.timeoutSeconds = 30;
        return options;
    }

    // Arguments that name files in the input directory that do not exist:
    // every later check refuses them, so a run can never get to a success.
    std::vector<std::string> MissingInputs(bool withCrl) const
    {
        std::vector<std::string> args = {tree_.InputDir() + "/ca.crt", tree_.InputDir() + "/server.crt",
                                         tree_.InputDir() + "/server.key"};
        if (withCrl) {
            args.push_back(tree_.InputDir() + "/ca.crl");
        }
        return args;
    }

    // Nothing an import would change was touched.
    void ExpectTreeUntouched() const
    {
        EXPECT_EQ(FileMode(tree_.KeysDir()), -1) << "keys directory created";
        EXPECT_EQ(tree_.ReadConfig(), DEFAULT_STREAM_SERVER_CONF);
    }

    SdkTree tree_;
};

// ---- audit record and usage path ------------------------------------------------

TEST_F(CommandEntryTest, WrongArgumentCountPrintsUsageAndNeverPrompts)
{
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"a", "b"},
        {"a", "b", "c", "d", "e"},
        {"-c", "ca.crt", "-s", "server.crt", "-k", "server.key"},
    };
    for (const auto& args : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const RunResult result = RunInPty(CommandOptions(args));
        EXPECT_EQ(result.exitStatus, 255);
        EXPECT_EQ(WithoutCarriageReturns(result.terminal), USAGE_TEXT);
        const auto messages = MainMessages(result.errors);
        ASSERT_EQ(messages.size(), 2u) << result.errors;
        EXPECT_EQ(messages[0].rfind("Start import the certs by user: [" + CurrentUserName() + "]", 0), 0u);
        EXPECT_EQ(messages[1], LIB_OK);
        for (const auto& record : ParseRecords(result.errors)) {
            EXPECT_NE(record.severity, 'E') << record.message;
        }
        ExpectTreeUntouched();
    }
}

TEST_F(CommandEntryTest, AuditRecordNamesUserAndHost)
{
    const std::string identity =
        "Start import the certs by user: [" + CurrentUserName() + "] with hostname: [" + CurrentHostName() + "]";

    // Standard input not a terminal: no remote host part at all.
    RunOptions options = CommandOptions({"only-one"});
    options.stdinFromDevNull = true;
    RunResult result = RunInPty(options);
    auto messages = MainMessages(result.errors);
    ASSERT_FALSE(messages.empty()) << result.errors;
    EXPECT_EQ(messages[0], identity + ".");

    // On a terminal the session's remote host follows; "localhost" when the
    // login records do not know the terminal.
    result = RunInPty(CommandOptions({"only-one"}));
    messages = MainMessages(result.errors);
    ASSERT_FALSE(messages.empty()) << result.errors;
    EXPECT_EQ(messages[0].rfind(identity + " at ", 0), 0u) << messages[0];
    EXPECT_GT(messages[0].size(), identity.size() + 5);
    EXPECT_EQ(messages[0].back(), '.');
}

// ---- library file ----------------------------------------------------------------

TEST_F(CommandEntryTest, UnacceptableLibraryFileStopsBeforeUsageAndPrompt)
{
    const std::string library = tree_.Root() + "/lib/libvardotools.so";
    struct Case {
        const char* name;
        void (*spoil)(const SdkTree& tree, const std::string& library);
        std::string workingDirectory;  // "" = the tree's work directory
    };
    const std::vector<Case> cases = {
        {"missing", [](const SdkTree&, const std::string& lib) { unlink(lib.c_str()); }, ""},
        {"a directory",
         [](const SdkTree&, const std::string& lib) {
             unlink(lib.c_str());
             mkdir(lib.c_str(), 0700);
         },
         ""},
        {"run from the SDK root", [](const SdkTree&, const std::string&) {}, tree_.Root()},
    };
    const std::string original = ReadWholeFile(library);
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        testCase.spoil(tree_, library);
        RunOptions options = CommandOptions({"a", "b"});
        if (!testCase.workingDirectory.empty()) {
            options.workingDirectory = testCase.workingDirectory;
        }
        const RunResult result = RunInPty(options);
        EXPECT_EQ(result.exitStatus, 255);
        EXPECT_EQ(result.terminal.find("please input"), std::string::npos);
        EXPECT_EQ(result.terminal.find("usage:"), std::string::npos);
        const auto messages = MainMessages(result.errors);
        ASSERT_EQ(messages.size(), 2u) << result.errors;
        EXPECT_EQ(messages[1], WithCode("Invalid lib file!", 1029));
        ExpectTreeUntouched();
        rmdir(library.c_str());
        unlink(library.c_str());
        WriteWholeFile(library, original, 0700);
    }
}

TEST_F(CommandEntryTest, LibraryFileMustBelongToTheRunningUser)
{
    const auto user = UnprivilegedUser();
    if (!user.has_value()) {
        GTEST_SKIP() << "no unprivileged account available";
    }
    const std::string library = tree_.Root() + "/lib/libvardotools.so";
    tree_.ChownAll(user->uid, user->gid);
    // Directories must let the test user in; the library is the only variable.
    for (const auto& dir : std::vector<std::string>{tree_.Root(), tree_.Root() + "/lib", tree_.Root() + "/tools",
                                  tree_.Root() + "/tools/VardoTools", tree_.WorkDir()}) {
        chmod(dir.c_str(), 0700);
    }

    struct Case {
        const char* name;
        bool ownedByTestUser;
        mode_t mode;
        bool accepted;
    };
    const std::vector<Case> cases = {
        {"own file, owner may read", true, 0500, true},
        {"own file, owner may not read", true, 0200, false},
        {"file of another user", false, 0755, false},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        ASSERT_EQ(lchown(library.c_str(), testCase.ownedByTestUser ? user->uid : 0, 0), 0);
        ASSERT_EQ(chmod(library.c_str(), testCase.mode), 0);
        RunOptions options = CommandOptions({"a", "b"});
        options.runAsUid = user->uid;
        options.runAsGid = user->gid;
        const RunResult result = RunInPty(options);
        EXPECT_EQ(result.exitStatus, 255);
        const auto messages = MainMessages(result.errors);
        ASSERT_EQ(messages.size(), 2u) << result.errors;
        EXPECT_EQ(messages[0].rfind("Start import the certs by user: [" + user->name + "]", 0), 0u);
        EXPECT_EQ(messages[1], testCase.accepted ? LIB_OK : WithCode("Invalid lib file!", 1029));
        EXPECT_EQ(WithoutCarriageReturns(result.terminal), testCase.accepted ? USAGE_TEXT : "");
    }
}

// ---- pass phrase -------------------------------------------------------------------

TEST_F(CommandEntryTest, RefusedPassPhrasesEndTheRunWithTheirRecords)
{
    const std::string invalid = WithCode("Invalid input password.", 1004);
    struct Case {
        const char* name;
        std::string typed;  // after the prompt
        std::vector<std::string> records;
    };
    const std::vector<Case> cases = {
        {"end of input", "\x04",
         {WithCode("The length of plain text is zero, please input the correct plain text.", 1001)}},
        {"empty line", "\n",
         {WithCode("The length of plain text is zero, please input the correct plain text.", 1001)}},
        {"7 bytes", "Abcde1!\n", {WithCode("Invalid password length.", 1004), invalid}},
        {"101 bytes", std::string(100, 'a') + "B\n", {WithCode("Invalid password length.", 1004), invalid}},
        {"one class only", "abcdefgh\n",
         {WithCode("Password is too weak, it should contain two of the lower characters, upper characters, "
                   "digitals and symbols.",
                   1004),
          invalid}},
        {"tab", "abc\tdefG1\n", {WithCode("Invalid password character.", 1004), invalid}},
        {"accented letter", "abcd\xc3\xa9" "fgH1\n", {invalid}},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        RunOptions options = CommandOptions(MissingInputs(false));
        options.exchanges = {{PROMPT, testCase.typed}};
        const RunResult result = RunInPty(options);
        EXPECT_EQ(result.exitStatus, 255);
        EXPECT_EQ(result.unmetWaitFor, "");
        std::vector<std::string> messages = MainMessages(result.errors);
        ASSERT_GE(messages.size(), 2u) << result.errors;
        EXPECT_EQ(messages[1], LIB_OK);
        messages.erase(messages.begin(), messages.begin() + 2);
        EXPECT_EQ(messages, testCase.records) << result.errors;
        // The pass phrase is neither echoed nor logged.
        const std::string secret = testCase.typed.substr(0, testCase.typed.size() - 1);
        if (secret.size() > 1) {
            EXPECT_EQ(result.terminal.find(secret), std::string::npos);
            EXPECT_EQ(result.errors.find(secret), std::string::npos);
        }
        ExpectTreeUntouched();
    }
}

// A pass phrase that passes the rules goes on to the input checks. The inputs
// here do not exist, so the run must fail there whichever check refuses them.
TEST_F(CommandEntryTest, AcceptedPassPhraseGoesOnToTheInputChecks)
{
    const std::string readCrlFailed =
        WithCode("Read crl file failed, please set or clean the crl in config file manually.", 1020);
    struct Case {
        const char* name;
        std::vector<std::string> args;
        bool crlChecked;
    };
    const std::vector<Case> cases = {
        {"three paths", MissingInputs(false), false},
        {"with a revocation list", MissingInputs(true), true},
        {"with an empty revocation list argument", [this] {
             auto args = MissingInputs(false);
             args.push_back("");
             return args;
         }(), false},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        RunOptions options = CommandOptions(testCase.args);
        options.exchanges = {{PROMPT, GOOD_PASS_PHRASE + "\n"}};
        options.closeInputAtEnd = true;  // refuses any question a later step asks
        const RunResult result = RunInPty(options);
        EXPECT_EQ(result.exitStatus, 255);
        const auto messages = MainMessages(result.errors);
        ASSERT_GE(messages.size(), 3u) << result.errors;
        EXPECT_FALSE(Contains(messages, WithCode("Invalid input password.", 1004)));
        EXPECT_FALSE(Contains(messages, "Import the certs and keys to ./keys directory success."));
        EXPECT_EQ(Contains(messages, readCrlFailed), testCase.crlChecked);
        if (testCase.crlChecked) {
            EXPECT_EQ(messages.back(), readCrlFailed);
        }
        EXPECT_EQ(result.errors.find(GOOD_PASS_PHRASE), std::string::npos);
        ExpectTreeUntouched();
    }
}

// ---- wrapper script ------------------------------------------------------------------

class WrapperTest : public CommandEntryTest {
protected:
    void SetUp() override
    {
        wrapper_ = tree_.WorkDir() + "/certImport.sh";
        WriteWholeFile(wrapper_, ReadWholeFile(VARDO_CERT_IMPORT_WRAPPER), 0700);
        // A stand-in for the command that shows what it was given and where.
        stub_ = tree_.InputDir() + "/show-arguments";
        WriteWholeFile(stub_, "#!/bin/sh\nprintf '<%s>\\n' \"$PWD\" \"$#\" \"$@\"\nexit 7\n", 0700);
    }

    RunOptions WrapperOptions(const std::vector<std::string>& args, const std::string& command) const
    {
        RunOptions options;
        options.program = "/bin/bash";
        options.args = {wrapper_};
        options.args.insert(options.args.end(), args.begin(), args.end());
        options.workingDirectory = tree_.InputDir();
        options.setEnv = {tree_.SdkHomeEnv()};
        if (command.empty()) {
            options.unsetEnv = {"CERT_IMPORT_BIN"};
        } else {
            options.setEnv.emplace_back("CERT_IMPORT_BIN", command);
        }
        options.timeoutSeconds = 30;
        return options;
    }

    std::string wrapper_;
    std::string stub_;
};

TEST_F(WrapperTest, HelpAndBadOptionsPrintUsageWithoutRunningTheCommand)
{
    struct Case {
        std::vector<std::string> args;
        int status;
    };
    const std::vector<Case> cases = {
        {{"-h"}, 0},
        {{}, 255},
        {{"-x"}, 255},
        {{"-c", "a", "-s", "b"}, 255},
        {{"-c", "a", "-s", "b", "-k"}, 255},
        {{"-c", "a", "-s", "b", "-k", "c", "extra"}, 255},
        {{"-c", "a", "-c", "a2", "-s", "b", "-k", "c"}, 255},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(::testing::PrintToString(testCase.args));
        const RunResult result = RunInPty(WrapperOptions(testCase.args, stub_));
        EXPECT_EQ(result.exitStatus, testCase.status);
        EXPECT_EQ(WithoutCarriageReturns(result.terminal), USAGE_TEXT);
    }
}

TEST_F(WrapperTest, OptionsBecomeAbsolutePositionsAndTheCommandRunsBesideTheWrapper)
{
    const std::string in = tree_.InputDir();
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> positions;
    };
    const std::vector<Case> cases = {
        {{"-c", "ca.crt", "-s", "sub/server.crt", "-k", "/abs/server.key"},
         {in + "/ca.crt", in + "/sub/server.crt", "/abs/server.key"}},
        {{"-k", "k", "-r", "r", "-s", "s", "-c", "c d"}, {in + "/c d", in + "/s", in + "/k", in + "/r"}},
        {{"-c", "c", "-s", "s", "-k", "k", "-r", ""}, {in + "/c", in + "/s", in + "/k", ""}},
        {{"-c", "$(touch pwned)", "-s", "s", "-k", "k"}, {in + "/$(touch pwned)", in + "/s", in + "/k"}},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(::testing::PrintToString(testCase.args));
        const RunResult result = RunInPty(WrapperOptions(testCase.args, stub_));
        EXPECT_EQ(result.exitStatus, 7);
        std::string expected = "<" + tree_.WorkDir() + ">\n<" + std::to_string(testCase.positions.size()) + ">\n";
        for (const auto& position : testCase.positions) {
            expected += "<" + position + ">\n";
        }
        EXPECT_EQ(WithoutCarriageReturns(result.terminal), expected);
    }
    EXPECT_EQ(FileMode(in + "/pwned"), -1);
    EXPECT_EQ(FileMode(tree_.WorkDir() + "/pwned"), -1);
}

TEST_F(WrapperTest, FindsTheCommandBesideItOrInTheInstalledLayout)
{
    const std::vector<std::string> places = {tree_.WorkDir() + "/certImport", tree_.Root() + "/bin/certImport"};
    mkdir((tree_.Root() + "/bin").c_str(), 0700);
    for (const auto& place : places) {
        SCOPED_TRACE(place);
        WriteWholeFile(place, ReadWholeFile(stub_), 0700);
        const RunResult result = RunInPty(WrapperOptions({"-c", "c", "-s", "s", "-k", "k"}, ""));
        EXPECT_EQ(result.exitStatus, 7);
        EXPECT_EQ(WithoutCarriageReturns(result.terminal).rfind("<" + tree_.WorkDir() + ">\n<3>\n", 0), 0u)
            << result.terminal << result.errors;
        unlink(place.c_str());
    }
}

TEST_F(WrapperTest, RunsTheRealCommandFromItsOwnDirectory)
{
    // Called from the input directory, the command still finds the SDK
    // library three levels up from the wrapper, asks for the pass phrase and
    // hands its failure status back.
    RunOptions options = WrapperOptions({"-c", "ca.crt", "-s", "server.crt", "-k", "server.key"},
                                        VARDO_CERT_IMPORT_BINARY);
    options.exchanges = {{PROMPT, "\x04"}};
    const RunResult result = RunInPty(options);
    EXPECT_EQ(result.exitStatus, 255);
    EXPECT_EQ(result.unmetWaitFor, "");
    const auto messages = MainMessages(result.errors);
    ASSERT_EQ(messages.size(), 3u) << result.errors;
    EXPECT_EQ(messages[1], LIB_OK);
    EXPECT_EQ(messages[2], WithCode("The length of plain text is zero, please input the correct plain text.", 1001));
}

}  // namespace
}  // namespace VardoTest
