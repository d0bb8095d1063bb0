// Key store start-up, decryption refusals and write failures of the key tool,
// on the real engine; successful imports and decryption are proven end to end.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "InProcess.h"
#include "OvraBase/Log.h"
#include "SecurityService.h"
#include "TestTree.h"
#include "VardoTools.h"

namespace {

using OvraStream::VardoTools;
using VardoTest::RecordCapture;

const char PASS_PHRASE[] = "Stream#Key2024";

// An error record: the message followed by the text of `code`.
std::string Err(const std::string& message, int32_t code) { return message + OvraBase::GetErrorInfo(code, ""); }

// A streamserver.conf with the keys the tool needs; `changes` replaces a
// key's value, or drops its line when the value is nullopt.
std::string Conf(const std::map<std::string, std::optional<std::string>>& changes = {})
{
    const std::vector<std::pair<std::string, std::string>> defaults = {
        {"server_crt", "/in/server.crt"}, {"ca_crt", "/in/ca.crt"}, {"server_key", "/in/server.key"},
        {"server_key_mm", ""}, {"crl", ""}, {"pask_algorithm_id", "9"}};
    std::string text = "# stream server settings\n";
    for (const auto& [key, value] : defaults) {
        const auto change = changes.find(key);
        const std::optional<std::string> line = change == changes.end() ? value : change->second;
        text += line ? key + "=" + *line + "\n" : "";
    }
    return text + "port=8443\n";
}

// Error records of the key tool's unit (the engine's own are not its interface).
std::vector<std::string> KeyToolErrors(const RecordCapture& records)
{
    std::vector<std::string> errors;
    for (const auto& record : records.records) {
        if (record.severity == 'E' && record.unit == "src/module/VardoTools/CertImport/VardoTools") {
            errors.push_back(record.message);
        }
    }
    return errors;
}

// A scratch SDK root that is also the working directory, so ./keys is root/keys.
class KeyToolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        OvraBase::Log::logFlowControlFrequency_ = 1;  // every pass of a site writes its record
        ASSERT_EQ(mkdir((root_ / "config").c_str(), 0700), 0);
        ASSERT_EQ(mkdir((root_ / "keys").c_str(), 0700), 0);
        ASSERT_EQ(setenv("OVRA_SDK_HOME", root_.Path().c_str(), 1), 0);
    }
    void TearDown() override { unsetenv("OVRA_SDK_HOME"); }

    void WriteConfig(const std::string& text, mode_t mode = 0600) { VardoTest::WriteWholeFile(conf_, text, mode); }
    std::string ReadConfig() const { return VardoTest::ReadWholeFile(conf_); }
    // Gives key store `name` the mode `mode`, or (mode 0) makes it a link to the store it was.
    void AlterStore(const std::string& name, mode_t mode) const
    {
        const std::string path = root_ / ("keys/" + name);
        ASSERT_TRUE(mode != 0 ? chmod(path.c_str(), mode) == 0
                              : rename(path.c_str(), (path + ".real").c_str()) == 0 &&
                                    symlink((path + ".real").c_str(), path.c_str()) == 0);
    }
    static int32_t Encrypt(VardoTools& tool) { return tool.EncryptCaPassword(PASS_PHRASE, sizeof(PASS_PHRASE) - 1, 0); }

    VardoTest::ScratchDir root_{true};
    const std::string conf_ = root_ / "config/streamserver.conf";
};

// Start-up: required keys, stored value length, algorithm id, key store rules.
// Rows run in order on one keys directory: the first creates the stores, the last alter them.
TEST_F(KeyToolTest, EncryptInit)
{
    const std::string badId = Err("Read pask_algorithm_id from config file failed.", 1001);
    const std::string notInSet = Err("pask_algorithm_id must in set {8, 9}.", 1004);
    struct Case {
        const char* name;
        std::string config;
        int32_t rc;
        std::vector<std::string> errors;
        uint64_t stored = 0;
        int32_t algorithmId = 9;
        const char* store = nullptr;  // key store altered before the row
        mode_t storeMode = 0;         // its new mode, 0: a link
    };
    std::vector<Case> cases = {
        {"missing stores accepted and created, crl= passes", Conf(), 0, {}},
        {"algorithm 8", Conf({{"pask_algorithm_id", "8"}}), 0, {}, 0, 8},
        {"stored value of 400", Conf({{"server_key_mm", std::string(400, 'A')}}), 0, {}, 400},
        {"stored value of 401", Conf({{"server_key_mm", std::string(401, 'A')}}), 1001,
         {Err("server_key_mm in is too long.", 1001)}},
        {"no algorithm line: no fallback to 9", Conf({{"pask_algorithm_id", std::nullopt}}), 1001, {badId}},
        {"algorithm 7", Conf({{"pask_algorithm_id", "7"}}), 1001, {notInSet, badId}},
        {"algorithm 10", Conf({{"pask_algorithm_id", "10"}}), 1001, {notInSet, badId}},
        {"algorithm -1", Conf({{"pask_algorithm_id", "-1"}}), 1001, {notInSet, badId}},
        {"algorithm abc", Conf({{"pask_algorithm_id", "abc"}}), 1001, {badId}},
        {"a line too many: the reader's code", std::string(100, '\n') + Conf(), 1019,
         {Err("Failed to load Stream Server config file, the file path is empty or not exist.", 1019)}},
        {"primary store of mode 0400", Conf(), 0, {}, 0, 9, "vardo.ks", 0400},
        {"standby store of mode 0644", Conf(), 1001,
         {Err("Read ks file failed, file is too large or under wrong permission.", 1001)}, 0, 9, "StandbyKsf.ks", 0644},
        {"primary store a link", Conf(), 1001, {Err("The ks file is not a regular file", 1029)}, 0, 9, "vardo.ks", 0},
    };
    for (const char* key : {"server_crt", "ca_crt", "server_key", "server_key_mm", "crl"}) {
        cases.insert(cases.begin() + 3, {key, Conf({{key, std::nullopt}}), 1001, {}});  // a missing key: no record
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.store != nullptr) {
            AlterStore(c.store, c.storeMode);
        }
        WriteConfig(c.config);
        VardoTools tool;
        TagVardoConfig config{};
        RecordCapture records;
        const int32_t rc = tool.EncryptInit(config);
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(KeyToolErrors(records), c.errors);
        if (rc == 0) {
            (void)SeCheckAndUpdateMk(0, 0);  // domain 0's first key makes the stores; a start alone writes none
            SeFinalize(&config);  // also after an unexpected start, so that the next row starts clean
            EXPECT_EQ(tool.storedCipherLength, c.stored);
            EXPECT_EQ(tool.algorithmId, c.algorithmId);
            EXPECT_EQ(config.paskAlgorithmId, c.algorithmId);
            for (const char* store : {"keys/vardo.ks", "keys/StandbyKsf.ks"}) {
                EXPECT_EQ(VardoTest::FileMode(root_ / store) & 0177, 0) << store;  // there, owner-only
            }
        }
        for (const char* key : {"server_crt", "server_key_mm", "crl", "port"}) {
            EXPECT_FALSE(tool.HasKey(key)) << key;  // nothing of the file is kept
        }
        EXPECT_EQ(ReadConfig(), c.config);
    }
}

// Refusals; one after the engine started leaves the caller a wiped array of
// the text's length + 1, and the engine stopped (the good text then opens).
TEST_F(KeyToolTest, DecryptCaPassword)
{
    WriteConfig(Conf());
    VardoTools encryptor;
    ASSERT_EQ(Encrypt(encryptor), 0);
    const std::string text = ReadConfig();
    const size_t start = text.find("server_key_mm=") + 14;
    const std::string cipher = text.substr(start, text.find('\n', start) - start);
    std::string tampered = cipher;
    tampered[tampered.size() / 2] = tampered[tampered.size() / 2] == 'A' ? 'B' : 'A';
    const std::string failed = Err("VARDO decrypt failed ", 1001);
    struct Case {
        const char* name;
        std::string text;
        int32_t algorithmId;
        int32_t rc;
        std::vector<std::string> errors;
        const char* plain;            // nullptr: no array handed out
        const char* store = nullptr;  // key store made a link before the row
    };
    const std::vector<Case> cases = {
        {"400 characters pass the length check", std::string(400, 'A'), 9, 1001, {failed}, ""},
        {"401 characters", std::string(401, 'A'), 9, 1001, {Err("server_key_mm is too long", 1001)}, nullptr},
        {"tampered text", tampered, 9, 1001, {failed}, ""},
        {"algorithm 7", cipher, 7, 1001,
         {Err("pask_algorithm_id must in set {8, 9}.", 1004), Err("CheckPaskId failed!", 1001)}, nullptr},
        {"the stored text", cipher, 9, 0, {}, PASS_PHRASE},
        {"standby store a link", cipher, 9, 1001, {Err("The ks file is not a regular file", 1029)}, nullptr,
         "StandbyKsf.ks"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.store != nullptr) {
            AlterStore(c.store, 0);
        }
        RecordCapture records;
        VardoTools tool;
        char* plain = nullptr;
        unsigned long length = 0;
        EXPECT_EQ(tool.DecryptCaPassword(c.text.c_str(), &plain, length, c.algorithmId), c.rc);
        EXPECT_EQ(KeyToolErrors(records), c.errors);
        if (c.plain == nullptr || plain == nullptr) {
            EXPECT_TRUE(c.plain == nullptr && plain == nullptr) << "array handed out: " << (plain != nullptr);
        } else {  // the plain text, then zeros up to the text's length + 1
            EXPECT_EQ(std::string(plain, length), c.plain + std::string(c.text.size() + 1 - strlen(c.plain), '\0'));
        }
        VardoTools::ResetDeleteCharArray(plain, length);
    }
}

// A configuration the user cannot write (shown as an unprivileged user, since
// root ignores modes): 1021 with the failed step's record, the file kept, and
// the engine stopped, so that the same tool succeeds once the file is writable.
TEST_F(KeyToolTest, UnwritableConfiguration)
{
    const auto user = VardoTest::UnprivilegedUser();
    ASSERT_TRUE(user.has_value());
    const std::vector<std::pair<std::string, std::string>> cases = {
        {Conf(), "server_key_mm or file path written into the config file failed"},
        {Conf({{"server_key_mm", std::string(44, 'Q')}}), "server_key_mm written into the config file failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        WriteConfig(c.first, 0400);
        ASSERT_EQ(std::system(("chown -R " + user->name + ": '" + root_.Path() + "'").c_str()), 0);
        const std::vector<std::string> errors = {Err("Server config file open failed!", 1019), Err(c.second, 1021)};
        EXPECT_EQ(VardoTest::RunAsUnprivileged([&] {
                      RecordCapture records;
                      VardoTools tool;
                      if (Encrypt(tool) != 1021 || KeyToolErrors(records) != errors || ReadConfig() != c.first) {
                          return 1;
                      }
                      return chmod(conf_.c_str(), 0600) != 0 || Encrypt(tool) != 0 ? 2 : 0;
                  }),
                  0) << "1: not refused as expected, 2: the tool fails once the file is writable";
    }
}

}  // namespace
