// Whole imports for the fault and kill tests: a configuration whose every line
// can be checked after an import, the run, its records, what an interrupted
// import may leave behind, and decryption as the stream server does it.
#ifndef VARDO_TEST_E2E_IMPORT_RUNS_H
#define VARDO_TEST_E2E_IMPORT_RUNS_H

#include <sched.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "PtyRunner.h"
#include "Records.h"
#include "TestPki.h"
#include "TestTree.h"
#include "VardoTools.h"

namespace VardoTest {

// Moves this test process (and the runs it starts) into an IPC namespace of
// its own when it may: its many engine starts then neither race the other
// tests' for a semaphore key nor leave sets in theirs.
inline bool OwnIpcNamespace() { return unshare(CLONE_NEWIPC) == 0; }

// 14 bytes: the engine's cipher text is 54 bytes, 72 characters of base64.
inline const std::string IMPORT_PASS = "Import#Phrase1";
inline constexpr std::size_t IMPORT_CIPHER_LENGTH = 72;

// streamserver.conf with server_key_mm=`value`, before an import (paths into
// ./old) or after one (./keys). Its 60 long settings make it larger than
// anything else an import writes (copies, key stores, log), so that a file
// size limit around its size hits the rewrite only.
inline std::string ConfigText(const std::string& value, bool imported)
{
    const std::string dir = imported ? "./keys" : "./old";
    std::string text = "# stream server\nserver_crt=" + dir + "/server.crt\nca_crt=" + dir + "/ca.crt\nserver_key=" +
                       dir + "/server.key\nserver_key_mm=" + value + "\ncrl=\npask_algorithm_id=9\n\n";
    for (int i = 0; i < 60; ++i) {
        text += "channel_" + std::to_string(i) + "=rtsp://cam/" + std::string(300, 'a' + i % 26) + "\n";
    }
    return text + "log_level=3";
}

inline std::string CipherOf(const std::string& config)
{
    const std::size_t start = config.find("\nserver_key_mm=") + 15;
    return config.substr(start, config.find('\n', start) - start);
}

// An import of `inputs` without a list: pass phrase typed, CA confirmed.
inline RunOptions ImportOptions(const SdkTree& tree, const InputSet& inputs)
{
    RunOptions options = tree.ImportRun({inputs.caCrt, inputs.serverCrt, inputs.serverKey}, IMPORT_PASS + "\n", {"y\n"});
    options.timeoutSeconds = 120;
    return options;
}

// true when the run wrote every one of `expected` (Record::Tagged form), in this order.
inline bool InOrder(const RunResult& run, const std::vector<std::string>& expected)
{
    const std::vector<std::string> records = Tagged(ParseRecords(run.errors));
    auto at = records.begin();
    for (const std::string& record : expected) {
        at = std::find(at, records.end(), record);
        if (at == records.end()) {
            return false;
        }
        ++at;
    }
    return true;
}

// Names in `dir` starting with `prefix`, sorted.
inline std::vector<std::string> NamesIn(const std::string& dir, const std::string& prefix)
{
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ignored)) {
        const std::string name = entry.path().filename();
        if (name.rfind(prefix, 0) == 0) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// What an interrupted import may leave: in config a recovery copy or its
// temporary files, in ./keys temporary files ".NAME.XXXXXX".
inline std::vector<std::string> Leftovers(const SdkTree& tree)
{
    std::vector<std::string> left = NamesIn(tree.KeysDir(), ".");
    for (const std::string& name : NamesIn(tree.Root() + "/config", "")) {
        if (name != "streamserver.conf") {
            left.push_back(name);
        }
    }
    return left;
}

// Decrypts `cipher` as the stream server would, from the directory that holds ./keys.
inline std::string Decrypt(const std::string& cipher, const std::string& workDir)
{
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(workDir);
    OvraStream::VardoTools tool;
    char* plain = nullptr;
    unsigned long length = 0;
    EXPECT_EQ(tool.DecryptCaPassword(cipher.c_str(), &plain, length, 9), 0);
    const std::string out = plain != nullptr ? plain : "";
    OvraStream::VardoTools::ResetDeleteCharArray(plain, length);
    std::filesystem::current_path(previous);
    return out;
}

}  // namespace VardoTest

#endif  // VARDO_TEST_E2E_IMPORT_RUNS_H
