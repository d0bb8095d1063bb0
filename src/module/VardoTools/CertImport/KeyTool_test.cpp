// The key tool object on the real engine, in a scratch SDK root: its wipes, the
// configuration file location, the keys directory, key store start-up,
// decryption refusals and write failures, and the configuration rewrite (which
// lines change in which mode, that every other byte survives, the scrub
// passes, refusals that keep the file). Successful imports and decryption are
// proven end to end.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "OvraBase/Log.h"
#include "Records.h"
#include "Scratch.h"
#include "SecurityService.h"
#include "TestUser.h"
#include "VardoTools.h"

namespace {

using namespace VardoTest;
using OvraStream::VardoTools;
using Records = std::vector<std::string>;

const char PASS_PHRASE[] = "Stream#Key2024";
const std::string PERMISSION_SET = "ISet config file permission success.";
const std::string READ_FAILED = Err("Server config file read failed", 1020);

// Lines "k<i>=v" for i in 0..count-1, each ended by a line feed.
std::string NumberedLines(int count)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += "k" + std::to_string(i) + "=v\n";
    }
    return text;
}

const std::string PATHS =
    "server_crt=/in/s.crt\nca_crt=/in/ca.crt # old CA\nserver_key=/in/s.key\nserver_key_mm=OLD\ncrl=/x.crl # old\n";
const std::string NEW_PATHS =
    "server_crt=./keys/server.crt\nca_crt=./keys/ca.crt\nserver_key=./keys/server.key\nserver_key_mm=OLD\n";
const std::string UNMATCHED = " server_crt=/a\n#ca_crt=/a\n\tserver_key=/a\n  server_key_mm=OLD\n#server_key_mm=O\n"
                              "# crl=/x\nserver_crt =/a\n";

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
    return records.Tagged('E', "src/module/VardoTools/CertImport/VardoTools");
}

// A scratch SDK root that OVRA_SDK_HOME names and that is also the working directory, so ./keys is root/keys.
class KeyToolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        OvraBase::Log::logFlowControlFrequency_ = 1;  // every pass of a site writes its record
        ASSERT_EQ(mkdir((root_ / "config").c_str(), 0700), 0);
        ASSERT_EQ(mkdir((root_ / "keys").c_str(), 0700), 0);
        tool_.serverCfgFile = conf_;
    }

    void WriteConfig(const std::string& text, mode_t mode = 0600) { WriteWholeFile(conf_, text, mode); }
    std::string ReadConfig() const { return ReadWholeFile(conf_); }
    // Gives key store `name` the mode `mode`, or (mode 0) makes it a link to the store it was.
    void AlterStore(const std::string& name, mode_t mode) const
    {
        const std::string path = root_ / ("keys/" + name);
        ASSERT_TRUE(mode != 0 ? chmod(path.c_str(), mode) == 0
                              : rename(path.c_str(), (path + ".real").c_str()) == 0 &&
                                    symlink((path + ".real").c_str(), path.c_str()) == 0);
    }
    static int32_t Encrypt(VardoTools& tool) { return tool.EncryptCaPassword(PASS_PHRASE, sizeof(PASS_PHRASE) - 1, 0); }

    ScratchDir root_{true};
    EnvGuard sdkHome_{"OVRA_SDK_HOME", root_.Path().c_str()};
    const std::string conf_ = root_ / "config/streamserver.conf";
    VardoTools tool_;  // with serverCfgFile set, for the rewrite
};

// Wipes stop at the first zero byte and at maxLength; null is ignored; the delete form also releases a buffer
// with nothing to wipe.
TEST(VardoToolsWipes, UpToTheFirstZeroByteOrMaxLength)
{
    const auto wipe = [](std::string bytes, unsigned long maxLength) {
        VardoTools::ResetCharArray(bytes.data(), maxLength);
        return bytes;
    };
    EXPECT_EQ(wipe(std::string("ab\0cd", 5), 5), std::string("\0\0\0cd", 5));
    EXPECT_EQ(wipe("abcdef", 3), std::string("\0\0\0def", 6));
    VardoTools::ResetCharArray(nullptr, 5);
    VardoTools::ResetDeleteCharArray(nullptr, 5);
    VardoTools::ResetDeleteCharArray(new char[4](), 4);
}

// GetConfigFile: result, record, serverCfgFile afterwards; CheckConfigFileAndAssign leaves the mode to the rewrite.
TEST_F(KeyToolTest, ConfigFileLocation)
{
    const std::string canonical = std::filesystem::canonical(root_.Path()).string() + "/config/streamserver.conf";
    const std::string regular = Err("Failed to regular serverCfgFile path.", 1004);
    // (name, mode of the file (0: none, -1: OVRA_SDK_HOME unset), after OVRA_SDK_HOME, result, record, path)
    const std::vector<std::tuple<const char*, int, const char*, int32_t, std::string, std::string>> cases = {
        {"variable not set", -1, "", 1001, Err("Environment variable OVRA_SDK_HOME is not set!", 1001), ""},
        {"tree without the file", 0, "", 1004, regular, conf_},
        {"mode 0644", 0644, "", 1004, regular, conf_},
        {"mode 0400, doubled separator", 0400, "/", 0, "", canonical},
        {"mode 0600", 0600, "", 0, "", canonical},
    };
    for (const auto& [name, mode, suffix, result, record, path] : cases) {
        SCOPED_TRACE(name);
        std::filesystem::remove(conf_);
        if (mode > 0) {
            WriteConfig("crl=\n", static_cast<mode_t>(mode));
        }
        EnvGuard sdkHome("OVRA_SDK_HOME", mode < 0 ? nullptr : (root_.Path() + suffix).c_str());
        VardoTools tools;
        RecordCapture capture;
        EXPECT_EQ(tools.GetConfigFile(), result);
        EXPECT_EQ(capture.Tagged(), record.empty() ? Records{} : Records{record});
        EXPECT_EQ(tools.serverCfgFile, path);
    }

    VardoTools tools;
    ASSERT_EQ(tools.GetConfigFile(), 0);  // the 0600 file of the last case
    ASSERT_EQ(chmod(canonical.c_str(), 0644), 0);
    std::string path;
    EXPECT_EQ(tools.CheckConfigFileAndAssign(path), 0);
    EXPECT_EQ(path, canonical);
    ASSERT_EQ(unlink(canonical.c_str()), 0);
    RecordCapture capture;
    EXPECT_EQ(tools.CheckConfigFileAndAssign(path), 1004);
    EXPECT_EQ(capture.Tagged(), Records{Err("Invalid serverCfgFile path, please check", 1004)});
}

// CheckDirectoryKeys: result, records and the mode of ./keys afterwards (of the link itself for a link).
TEST_F(KeyToolTest, CheckDirectoryKeys)
{
    const auto keys = [](mode_t mode) { return [mode] { ASSERT_EQ(mkdir("keys", mode), 0); }; };  // under umask 0
    const std::string wrong = Err("The owner or permission of keys is incorrect.", 1010);
    const std::string createFailed = Err("Create directory keys failed.", 1001);
    // (name, prepare, result, record, mode)
    const std::vector<std::tuple<const char*, std::function<void()>, int32_t, std::string, int>> cases = {
        {"missing: created owner-only", [] {}, 0, "ICreate directory keys success if it is not exist.", 0700},
        {"0500 set to 0700", keys(0500), 0, "ISet the permission of the directory keys success.", 0700},
        {"0755 refused", keys(0755), 1010, wrong, 0755},
        {"regular file in the way", [] { WriteWholeFile("keys", "x", 0644); }, 1001, createFailed, 0644},
        {"symbolic link never trusted", [] { mkdir("elsewhere", 0755); (void)symlink("elsewhere", "keys"); }, 1001,
         createFailed, 0777},
    };
    const auto run = [] {
        RecordCapture capture;
        const int32_t result = VardoTools().CheckDirectoryKeys();
        return std::make_tuple(result, capture.Tagged(), FileMode("keys"));
    };
    const mode_t previousMask = umask(0);
    for (const auto& [name, prepare, result, record, mode] : cases) {
        SCOPED_TRACE(name);
        std::filesystem::remove_all("keys");
        prepare();
        EXPECT_EQ(run(), std::make_tuple(result, Records{record}, mode));
    }
    umask(previousMask);
    EXPECT_EQ(FileMode("elsewhere"), 0755);
    // Root's 0700 ./keys belongs to another owner for the unprivileged user.
    std::filesystem::remove_all("keys");
    ASSERT_EQ(mkdir("keys", 0700), 0);
    ASSERT_EQ(chmod(root_.Path().c_str(), 0755), 0);
    const auto refused = std::make_tuple(1010, Records{wrong}, 0700);
    EXPECT_EQ(RunAsUnprivileged([&] { return run() == refused ? 0 : 1; }), 0);
}

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
                EXPECT_EQ(FileMode(root_ / store) & 0177, 0) << store;  // there, owner-only
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
    const std::vector<std::pair<std::string, std::string>> cases = {
        {Conf(), "server_key_mm or file path written into the config file failed"},
        {Conf({{"server_key_mm", std::string(44, 'Q')}}), "server_key_mm written into the config file failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        WriteConfig(c.first, 0400);
        ChownTree(root_.Path(), UnprivilegedUser().uid, UnprivilegedUser().gid);
        const std::vector<std::string> errors = {Err("Server config file open failed!", 1019), Err(c.second, 1021)};
        EXPECT_EQ(RunAsUnprivileged([&] {
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

// Line rules per mode (value for mode <= 0, paths for mode >= 1), the mode 0600
// after a write, and content the rewrite cannot hold: refused before the file is
// opened for writing, so it stays byte-identical (`after` nullopt).
TEST_F(KeyToolTest, RewriteRules)
{
    struct Case {
        const char* name;
        std::string before;
        int32_t mode;
        std::string cipher;
        std::optional<std::string> after;
    };
    const std::vector<Case> cases = {
        {"final line feed kept", "a=1\nserver_key_mm=old\n# c\n", 0, "XYZ", "a=1\nserver_key_mm=XYZ\n# c\n"},
        {"no final line feed stays without", "a=1\nserver_key_mm=old\n# c", 0, "XYZ", "a=1\nserver_key_mm=XYZ\n# c"},
        {"every value line whole, paths alone", "server_key_mm=o # n\r\nx=1\r\nserver_key_mm=\ncrl=/x\nserver_key=/k",
         -5, "Q", "server_key_mm=Q\nx=1\r\nserver_key_mm=Q\ncrl=/x\nserver_key=/k"},
        {"mode 1: paths and bare crl", PATHS, 1, "", NEW_PATHS + "crl=\n"},
        {"mode 2: paths and the list's path", PATHS, 2, "", NEW_PATHS + "crl=./keys/ca.crl\n"},
        {"mode above 2 is mode 2", PATHS, 7, "", NEW_PATHS + "crl=./keys/ca.crl\n"},
        {"indented and commented lines kept (value)", UNMATCHED, 0, "XYZ", UNMATCHED},
        {"indented and commented lines kept (paths)", UNMATCHED, 2, "", UNMATCHED},
        {"no value line: unchanged", "a=1\nserver_key=/a\n", 0, "XYZ", "a=1\nserver_key=/a\n"},
        {"empty lines, a one-byte last line", "\n\na=1\n\nserver_key_mm=o\nx", 0, "C", "\n\na=1\n\nserver_key_mm=C\nx"},
        {"empty file", "", 0, "C", ""},
        {"a 999-byte line", "#" + std::string(998, 'x') + "\nserver_key_mm=o\n", 0, "C",
         "#" + std::string(998, 'x') + "\nserver_key_mm=C\n"},
        {"a 1000-byte line", "server_key_mm=o\n#" + std::string(999, 'x') + "\n", 0, "C", std::nullopt},
        {"a 1200-byte line, a zero byte in its first 1000", "server_key_mm=o\n#" + std::string(9, 'x') + '\0' +
         std::string(1190, 'x') + "\nz=1\n", 0, "C", std::nullopt},
        {"a short line with a zero byte", std::string("server_key_mm=o\na\0b=1\nz=1\n", 24), 2, "", std::nullopt},
        {"a last byte of zero", std::string("server_key_mm=o\n\0", 17), 0, "C", std::nullopt},
        {"100 lines, no final line feed", NumberedLines(99) + "server_key_mm=o", 0, "C",
         NumberedLines(99) + "server_key_mm=C"},
        {"100 lines ending in a line feed", NumberedLines(99) + "server_key_mm=o\n", 0, "C", std::nullopt},
        {"101 lines", NumberedLines(100) + "server_key_mm=o", 0, "C", std::nullopt},
        {"a cipher of 987 bytes", "server_key_mm=\n", 0, std::string(987, 'c'),
         "server_key_mm=" + std::string(987, 'c') + "\n"},
        {"a cipher of 988 bytes", "a=1\nserver_key_mm=o\n", 0, std::string(988, 'c'), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WriteConfig(c.before, 0640);
        RecordCapture records;
        const char* cipher = c.mode <= 0 ? c.cipher.data() : nullptr;
        EXPECT_EQ(tool_.ModifyCaKey(cipher, static_cast<int32_t>(c.cipher.size()), c.mode),
                  c.after ? 0 : 1020);
        EXPECT_EQ(ReadConfig(), c.after.value_or(c.before));
        EXPECT_EQ(FileMode(conf_), c.after ? 0600 : 0640);
        EXPECT_EQ(records.Tagged(), std::vector<std::string>{c.after ? PERMISSION_SET : READ_FAILED});
    }
}

// Three passes over an old value: empty, bytes of value 1, random lower-case hex
// of twice its length; a length over 493 does not fit at the third pass.
TEST_F(KeyToolTest, ScrubPasses)
{
    const std::vector<std::string> passes = {
        PERMISSION_SET, "IWrite to the config file, the first time finished.",
        PERMISSION_SET, "IWrite to the config file, the second time finished.",
        PERMISSION_SET, "IWrite to the config file, the third time finished.",
    };
    const std::string head = "a=1\nserver_key_mm=";
    WriteConfig(head + std::string(40, 'Z') + "\n# keep\n", 0600);
    RecordCapture records;
    ASSERT_EQ(tool_.WritePreparation(40, 0), 0);
    EXPECT_EQ(records.Tagged(), passes);
    const std::string text = ReadConfig();
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef", head.size()), head.size() + 80) << text;
    EXPECT_EQ(text.substr(head.size() + 80), "\n# keep\n");
    ASSERT_EQ(tool_.WritePreparation(40, 0), 0);
    EXPECT_NE(ReadConfig(), text);  // the third pass is random

    records.Clear();
    EXPECT_EQ(tool_.WritePreparation(494, 0), 1021);
    EXPECT_EQ(ReadConfig(), head + std::string(494, '\x01') + "\n# keep\n");  // the second pass stays
    std::vector<std::string> failed(passes.begin(), passes.begin() + 4);
    failed.push_back(READ_FAILED);
    EXPECT_EQ(records.Tagged(), failed);
}

}  // namespace
