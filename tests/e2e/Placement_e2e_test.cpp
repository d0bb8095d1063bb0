// Placing the files into ./keys as an operator meets it: a valid import run on
// a pseudo-terminal by an unprivileged user in a scratch SDK tree, then what
// ./keys holds, and what a second import over the read-only copies says.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "OvraBase/ErrorInfo.h"
#include "PtyRunner.h"
#include "TestPki.h"
#include "TestTree.h"

namespace VardoTest {
namespace {

const std::string PASS = "Passw0rd-demo";
const std::string MAIN_UNIT = "src/module/VardoTools/CertImport/main";
const std::string TOOL_UNIT = "src/module/VardoTools/CertImport/VardoTools";

std::string I(const std::string& unit, const std::string& message) { return "I " + unit + "] " + message; }
std::string E(const std::string& unit, const std::string& message, int code)
{
    return "E " + unit + "] " + message + OvraBase::GetErrorInfo(code, "");
}

const std::string KEYS_CREATED = I(TOOL_UNIT, "Create directory keys success if it is not exist.");
const std::string KEYS_MODE_SET = I(TOOL_UNIT, "Set the permission of the directory keys success.");
const std::string COPIED = I(MAIN_UNIT, "Copy files success.");
const std::string IMPORTED = I(MAIN_UNIT, "Import the certs and keys to ./keys directory success.");
const std::string READ_ONLY = E(MAIN_UNIT,
                                "Destination file in keys may be read only or invalid, remove it or the directory "
                                "keys first.",
                                1004);
const std::string CA_COPY_FAILED =
    E(MAIN_UNIT, "Copy ca_crt file failed, please check the raw file and the destination file.", 1004);
const std::string COPY_FAILED = E(MAIN_UNIT, "Copy file failed.", 1004);
const std::string KEYS_REFUSED = E(TOOL_UNIT, "The owner or permission of keys is incorrect.", 1010);

int Mode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

ino_t Inode(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

class PlacementE2eTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        user_ = UnprivilegedUser();
        if (!user_.has_value()) {
            GTEST_SKIP() << "no unprivileged user available";
        }
        inputs_ = MakeValidInputs(tree_.InputDir(), PASS);
        tree_.ChownAll(user_->uid, user_->gid);
    }

    // One import by the test user; the records as "<L> <unit>] <message>".
    std::vector<std::string> Import(bool withCrl, RunResult& run) const
    {
        RunOptions options;
        options.program = VARDO_CERT_IMPORT_BINARY;
        options.args = {inputs_.caCrt, inputs_.serverCrt, inputs_.serverKey};
        if (withCrl) {
            options.args.push_back(inputs_.crl);
        }
        options.workingDirectory = tree_.WorkDir();
        options.setEnv = {tree_.SdkHomeEnv()};
        options.exchanges = {{"please input the plain text: ", PASS + "\n"}, {"[y/n]", "y\n"}};
        options.closeInputAtEnd = true;
        options.runAsUid = user_->uid;
        options.runAsGid = user_->gid;
        run = RunInPty(options);
        std::vector<std::string> records;
        for (const Record& record : ParseRecords(run.errors)) {
            records.push_back(std::string(1, record.severity) + " " + record.unit + "] " + record.message);
        }
        return records;
    }

    // `expected` appears in `records` as one unbroken run.
    static bool ContainsRun(const std::vector<std::string>& records, const std::vector<std::string>& expected)
    {
        return std::search(records.begin(), records.end(), expected.begin(), expected.end()) != records.end();
    }

    // ./keys is 0700 and holds exactly the given inputs as 0400 copies.
    void ExpectPlaced(const std::vector<std::pair<std::string, std::string>>& copies, bool crlPlaced) const
    {
        EXPECT_EQ(Mode(tree_.KeysDir()), 0700);
        for (const auto& [name, source] : copies) {
            SCOPED_TRACE(name);
            const std::string path = tree_.KeysDir() + "/" + name;
            EXPECT_EQ(Mode(path), 0400);
            EXPECT_EQ(ReadWholeFile(path), ReadWholeFile(source));
        }
        EXPECT_EQ(Mode(tree_.KeysDir() + "/ca.crl"), crlPlaced ? 0400 : -1);
    }

    SdkTree tree_;
    std::optional<TestUser> user_;
    InputSet inputs_;
};

TEST_F(PlacementE2eTest, ImportPlacesTheFilesOwnerReadOnly)
{
    struct Case {
        const char* name;
        bool withCrl;
    };
    for (const Case& testCase : {Case{"three files", false}, Case{"with the revocation list", true}}) {
        SCOPED_TRACE(testCase.name);
        // A fresh ./keys for each case.
        if (Mode(tree_.KeysDir()) != -1) {
            ASSERT_EQ(std::system(("rm -rf '" + tree_.KeysDir() + "'").c_str()), 0);
        }
        RunResult run;
        const std::vector<std::string> records = Import(testCase.withCrl, run);
        ASSERT_FALSE(run.timedOut) << run.errors;
        EXPECT_EQ(run.unmetWaitFor, "") << run.errors;
        // The encryption that follows belongs to a later step; only the placement matters here.
        EXPECT_TRUE(ContainsRun(records, {KEYS_CREATED, COPIED, IMPORTED})) << run.errors;
        std::vector<std::pair<std::string, std::string>> copies = {
            {"ca.crt", inputs_.caCrt}, {"server.crt", inputs_.serverCrt}, {"server.key", inputs_.serverKey}};
        if (testCase.withCrl) {
            copies.push_back({"ca.crl", inputs_.crl});
        }
        ExpectPlaced(copies, testCase.withCrl);
    }
}

TEST_F(PlacementE2eTest, SecondImportStopsAtTheReadOnlyCopies)
{
    RunResult first;
    const std::vector<std::string> firstRecords = Import(false, first);
    ASSERT_TRUE(ContainsRun(firstRecords, {KEYS_CREATED, COPIED, IMPORTED})) << first.errors;
    const std::string placedCa = ReadWholeFile(tree_.KeysDir() + "/ca.crt");
    // A replacement would be a new file (copies are renamed into place).
    const ino_t placedInode = Inode(tree_.KeysDir() + "/ca.crt");

    RunResult second;
    const std::vector<std::string> records = Import(false, second);
    ASSERT_FALSE(second.timedOut) << second.errors;
    EXPECT_EQ(second.exitStatus, 255);
    EXPECT_TRUE(ContainsRun(records, {KEYS_MODE_SET, READ_ONLY, CA_COPY_FAILED, COPY_FAILED})) << second.errors;
    EXPECT_EQ(std::count(records.begin(), records.end(), IMPORTED), 0);
    EXPECT_EQ(ReadWholeFile(tree_.KeysDir() + "/ca.crt"), placedCa);
    EXPECT_EQ(Inode(tree_.KeysDir() + "/ca.crt"), placedInode);
    EXPECT_EQ(Mode(tree_.KeysDir() + "/ca.crt"), 0400);
}

TEST_F(PlacementE2eTest, KeysDirectoryOfAnotherUserStopsTheImport)
{
    ASSERT_EQ(mkdir(tree_.KeysDir().c_str(), 0700), 0);  // made by root, so root's
    RunResult run;
    const std::vector<std::string> records = Import(false, run);
    ASSERT_FALSE(run.timedOut) << run.errors;
    EXPECT_EQ(run.exitStatus, 255);
    EXPECT_TRUE(ContainsRun(records, {KEYS_REFUSED, COPY_FAILED})) << run.errors;
    EXPECT_EQ(Mode(tree_.KeysDir() + "/ca.crt"), -1);
}

}  // namespace
}  // namespace VardoTest
