// Placing the inputs into ./keys as an operator meets it: per scenario, one import run on a
// pseudo-terminal by an unprivileged user in a scratch SDK tree, then its records and what ./keys holds.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "OvraBase/ErrorInfo.h"
#include "PtyRunner.h"
#include "Records.h"
#include "TestPki.h"
#include "TestTree.h"

namespace VardoTest {
namespace {

const std::string PASS = "Passw0rd-demo";
const std::string MAIN = "src/module/VardoTools/CertImport/main";
const std::string TOOL = "src/module/VardoTools/CertImport/VardoTools";

std::string R(char severity, const std::string& unit, const std::string& message, int code = 0)
{
    return std::string(1, severity) + " " + unit + "] " + message + (code != 0 ? OvraBase::GetErrorInfo(code, "") : "");
}
const std::string KEYS_MODE_SET = R('I', TOOL, "Set the permission of the directory keys success.");
const std::string COPIED = R('I', MAIN, "Copy files success.");
const std::string IMPORTED = R('I', MAIN, "Import the certs and keys to ./keys directory success.");
const std::string READ_ONLY =
    R('E', MAIN, "Destination file in keys may be read only or invalid, remove it or the directory keys first.", 1004);
const std::string COPY_FAILED = R('E', MAIN, "Copy file failed.", 1004);
std::string Failed(const std::string& file, const std::string& tail = ".")
{
    return R('E', MAIN, "Copy " + file + " file failed, please check the raw file and the destination file" + tail,
             1004);
}

class PlacementE2eTest : public ::testing::Test {
protected:
    // One import by the test user of the inputs in the tree: exit status and records as "<L> <unit>] <message>".
    std::pair<int, std::vector<std::string>> Import(const SdkTree& tree, bool withCrl) const
    {
        const std::string in = tree.InputDir() + "/";
        std::vector<std::string> args = {in + "ca.crt", in + "server.crt", in + "server.key", in + "ca.crl"};
        args.resize(withCrl ? 4 : 3);
        RunOptions options = tree.ImportRun(args, PASS + "\n", {"y\n"});
        options.exchanges.back().action = atQuestion_;
        options.user = &user_;
        std::vector<std::string> records;
        const RunResult run = RunInPty(options);
        for (const Record& record : ParseRecords(run.errors)) {
            records.push_back(R(record.severity, record.unit, record.message));
        }
        return {run.exitStatus, records};
    }
    // A step that leaves ./keys (0700) holding "old <name>" files of the given modes, all the user's.
    std::function<void(const SdkTree&)> Old(const std::map<std::string, mode_t>& files) const
    {
        return [this, files](const SdkTree& tree) {
            mkdir(tree.KeysDir().c_str(), 0700);
            for (const auto& [name, mode] : files) {
                WriteWholeFile(tree.KeysDir() + "/" + name, "old " + name, mode);
            }
            ChownTree(tree.Root(), user_.uid, user_.gid);
        };
    }
    // As Old, with ./keys/<name> then handed to root: a file the user may not replace.
    std::function<void(const SdkTree&)> OldOfRoot(const std::string& name) const
    {
        return [this, name](const SdkTree& tree) {
            Old({{name, 0400}})(tree);
            ASSERT_EQ(lchown((tree.KeysDir() + "/" + name).c_str(), 0, 0), 0);
        };
    }
    const TestUser& user_ = UnprivilegedUser();
    std::function<void(const std::string&)> atQuestion_;  // run when the CA's fingerprint is shown
};

TEST_F(PlacementE2eTest, Scenarios)
{
    // (name, prepare (tree already the user's), list given, a run of the import's records, ./keys/<file> after:
    // "new" a 0400 copy of its input, "" absent, "link" the link as it was, target untouched, else old text at 0400)
    using Scenario = std::tuple<const char*, std::function<void(const SdkTree&)>, bool, std::vector<std::string>,
                                std::map<std::string, std::string>>;
    const std::vector<Scenario> scenarios = {
        {"new keys: four files", [](const SdkTree&) {}, true,
         {R('I', TOOL, "Create directory keys success if it is not exist."), COPIED, IMPORTED},
         {{"ca.crt", "new"}, {"server.crt", "new"}, {"server.key", "new"}, {"ca.crl", "new"}}},
        {"writable old copy replaced, old list kept", Old({{"ca.crt", 0600}, {"ca.crl", 0400}}), false,
         {KEYS_MODE_SET, COPIED, IMPORTED},
         {{"ca.crt", "new"}, {"server.crt", "new"}, {"server.key", "new"}, {"ca.crl", "old ca.crl"}}},
        {"second import replaces the read-only copies",
         [this](const SdkTree& tree) { ASSERT_EQ(Import(tree, false).first, 0); }, false,
         {KEYS_MODE_SET, COPIED, IMPORTED},
         {{"ca.crt", "new"}, {"server.crt", "new"}, {"server.key", "new"}, {"ca.crl", ""}}},
        {"link at the destination never followed",
         [this](const SdkTree& tree) {
             ASSERT_EQ(mkdir(tree.KeysDir().c_str(), 0700), 0);
             ASSERT_EQ(symlink("../outside", (tree.KeysDir() + "/server.crt").c_str()), 0);
             Old({{"../outside", 0600}})(tree);
         },
         false, {KEYS_MODE_SET, READ_ONLY, Failed("server_crt"), COPY_FAILED},
         {{"ca.crt", "new"}, {"server.crt", "link"}, {"server.key", ""}}},
        {"root's server.key stops after the certificates", OldOfRoot("server.key"), false,
         {KEYS_MODE_SET, READ_ONLY, Failed("server_key"), COPY_FAILED},
         {{"ca.crt", "new"}, {"server.crt", "new"}, {"server.key", "old server.key"}}},
        {"a given list that cannot be placed", OldOfRoot("ca.crl"), true,
         {KEYS_MODE_SET, READ_ONLY, Failed("ca_crl", ", it is not required."), COPY_FAILED},
         {{"server.key", "new"}, {"ca.crl", "old ca.crl"}}},
        {"CA certificate gone by the time it is copied",
         [this](const SdkTree& tree) {
             atQuestion_ = [&tree](const std::string&) { unlink((tree.InputDir() + "/ca.crt").c_str()); };
         },
         false,
         {R('I', TOOL, "Create directory keys success if it is not exist."),
          R('E', MAIN, "Invalid raw file path, please check", 1029), Failed("ca_crt"), COPY_FAILED},
         {{"ca.crt", ""}}},
        {"keys of another owner (root)", [](const SdkTree& tree) { mkdir(tree.KeysDir().c_str(), 0700); }, false,
         {R('E', TOOL, "The owner or permission of keys is incorrect.", 1010), COPY_FAILED}, {{"ca.crt", ""}}},
    };
    for (const auto& [name, prepare, withCrl, expected, keys] : scenarios) {
        SCOPED_TRACE(name);
        SdkTree tree;
        MakeValidInputs(tree.InputDir(), PASS);
        ChownTree(tree.Root(), user_.uid, user_.gid);
        atQuestion_ = nullptr;
        prepare(tree);
        const auto [status, records] = Import(tree, withCrl);
        EXPECT_NE(std::search(records.begin(), records.end(), expected.begin(), expected.end()), records.end())
            << ::testing::PrintToString(records);
        EXPECT_EQ(status, expected.back() == COPY_FAILED ? 255 : 0);
        EXPECT_EQ(FileMode(tree.KeysDir()), 0700);
        for (const auto& [file, content] : keys) {
            const std::string path = tree.KeysDir() + "/" + file;
            const std::string text = content == "new" ? ReadWholeFile(tree.InputDir() + "/" + file) : content;
            EXPECT_EQ(FileMode(path), content.empty() ? -1 : content == "link" ? 0777 : 0400) << file;
            EXPECT_EQ(ReadWholeFile(path), content == "link" ? "old ../outside" : text) << file;
        }
    }
}

}  // namespace
}  // namespace VardoTest
