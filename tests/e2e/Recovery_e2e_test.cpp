// Faults in the configuration rewrite of an import, as an operator meets them:
// a full disk (a file size limit with SIGXFSZ ignored: writes fail), a kill in
// the middle of a pass (the same limit, SIGXFSZ not ignored: the process dies
// at it). Per row: the faulted import's status and records, the configuration
// and its recovery copy, what vardo-keys says; then, with stale temporary
// files planted as a killed copy leaves them, a plain import that must
// succeed with nothing removed by hand.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ImportRuns.h"

namespace VardoTest {
namespace {

TEST(RecoveryE2eTest, FaultsInTheRewrite)
{
    (void)OwnIpcNamespace();
    const std::string first = ConfigText("", false);  // also the recovery copy of itself
    const std::string second = ConfigText(std::string(IMPORT_CIPHER_LENGTH, 'Q'), true);
    const long half = IMPORT_CIPHER_LENGTH / 2;
    const std::string pass1 = "IWrite to the config file, the first time finished.";
    const std::string pass2 = "IWrite to the config file, the second time finished.";
    const std::string failed = Err("VARDO encrypt failed.", 1001);
    const struct {
        const char* name;
        const std::string& before;
        long limitOverCopy;  // file size limit, in bytes beyond the size of the recovery copy
        bool killed;         // SIGXFSZ kills, or is ignored
        std::vector<std::string> records;  // "COPY" / "WRITE": the failed write of the copy / the file
        bool copyLeft;
    } faults[] = {
        {"disk full before the copy is whole", first, -1, false, {"COPY", failed}, false},
        {"disk full in the value pass", first, half, false,
         {"WRITE", Err("server_key_mm or file path written into the config file failed", 1021), failed}, true},
        {"killed in the path pass", first, half * 2 + 1, true, {"ISet config file permission success."}, true},
        {"killed in scrub pass 2", second, half, true, {pass1}, true},
        {"killed in scrub pass 3", second, half * 3, true, {pass1, pass2}, true},
        {"disk full in scrub pass 3", second, half * 3, false,
         {pass1, pass2, "WRITE", Err("server_key_mm written into the config file failed", 1021), failed}, true},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.name);
        const SdkTree tree;
        const InputSet inputs = MakeValidInputs(tree.InputDir(), IMPORT_PASS);
        tree.WriteConfig(fault.before);
        const std::string config = tree.ConfigPath(), copy = config + ".recovery";
        const std::string copyText = ConfigText("", &fault.before == &second);
        const std::string restore = "cp -- '" + copy + "' '" + config + "'";
        std::vector<std::string> expected;
        for (const std::string& record : fault.records) {
            expected.push_back(
                record == "COPY"  ? Err("Write the recovery copy " + copy + " of the config file failed, the config "
                                      "file is not changed.", 1021)
                : record == "WRITE" ? Err("Server config file write failed, the file may be incomplete. Its recovery "
                                        "copy is " + copy + ": the next import restores it, or restore it with: " +
                                        restore + ".", 1019)
                                    : record);
        }
        RunOptions options = ImportOptions(tree, inputs);
        options.fileSizeLimit = copyText.size() + fault.limitOverCopy;
        options.ignoreFileSizeSignal = !fault.killed;
        const RunResult faulted = RunInPty(options);
        EXPECT_EQ(faulted.exitStatus, fault.killed ? -1 : 255) << faulted.errors;
        EXPECT_TRUE(InOrder(faulted, expected)) << faulted.errors;
        EXPECT_EQ(ReadWholeFile(copy), fault.copyLeft ? copyText : "");
        EXPECT_EQ(FileMode(copy), fault.copyLeft ? 0600 : -1);
        const std::string now = ReadWholeFile(config);
        EXPECT_TRUE(fault.copyLeft ? now.size() == *options.fileSizeLimit : now == fault.before) << "cut, or untouched";

        RunOptions keys;  // vardo-keys names the incomplete configuration and how to restore it
        keys.program = VARDO_KEYS_BINARY;
        keys.args = {"status"};
        keys.workingDirectory = tree.WorkDir();
        keys.setEnv = {tree.SdkHomeEnv()};
        EXPECT_EQ(InOrder(RunInPty(keys), {"EThe config file " + config + " is empty or incomplete after an "
                                           "interrupted import. The next import restores it from " + copy +
                                           "; to restore it now run: " + restore +
                                           " and import the certificates again."}),
                  fault.copyLeft);

        WriteWholeFile(tree.KeysDir() + "/.server.key.x0Y1z2", "stale copy", 0600);
        WriteWholeFile(tree.Root() + "/config/.streamserver.conf.recovery.QwErTy", "stale copy", 0600);
        const RunResult plain = RunInPty(ImportOptions(tree, inputs));
        EXPECT_EQ(plain.exitStatus, 0) << plain.errors;
        EXPECT_EQ(InOrder(plain, {"WThe config file " + config + " was incomplete after an interrupted import; it "
                                  "has been restored from its recovery copy " + copy + "."}),
                  fault.copyLeft);
        const std::string after = tree.ReadConfig();
        EXPECT_EQ(after, ConfigText(CipherOf(after), true));
        EXPECT_EQ(CipherOf(after).size(), IMPORT_CIPHER_LENGTH);
        EXPECT_EQ(Leftovers(tree), std::vector<std::string>{});
    }
}

}  // namespace
}  // namespace VardoTest
