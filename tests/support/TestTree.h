// Scratch SDK trees for the end-to-end tests.
//
// Layout of a tree (Root() is what OVRA_SDK_HOME names):
//   Root()/lib/libvardotools.so           copy of the built library
//   Root()/config/streamserver.conf       0600
//   Root()/tools/VardoTools/CertImport/   WorkDir(): the command runs here,
//                                          "./keys" is created here
//   Root()/inputs/                        InputDir(): files handed to the command
#ifndef VARDO_TEST_SUPPORT_TEST_TREE_H
#define VARDO_TEST_SUPPORT_TEST_TREE_H

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "PtyRunner.h"
#include "Scratch.h"

namespace VardoTest {

// A streamserver.conf with every key the tool needs and one the tool leaves alone.
extern const char* const DEFAULT_STREAM_SERVER_CONF;

class SdkTree {
public:
    // A new tree under /tmp, removed again with everything in it by the destructor.
    SdkTree();

    const std::string& Root() const { return root_.Path(); }
    std::string WorkDir() const { return Root() + "/tools/VardoTools/CertImport"; }
    std::string KeysDir() const { return WorkDir() + "/keys"; }
    std::string ConfigPath() const { return Root() + "/config/streamserver.conf"; }
    std::string InputDir() const { return Root() + "/inputs"; }

    // Replaces the configuration file's content and sets its mode.
    void WriteConfig(const std::string& text, mode_t mode = 0600) const { WriteWholeFile(ConfigPath(), text, mode); }
    std::string ReadConfig() const { return ReadWholeFile(ConfigPath()); }

    // The environment a run in this tree needs: OVRA_SDK_HOME=Root().
    std::pair<std::string, std::string> SdkHomeEnv() const { return {"OVRA_SDK_HOME", Root()}; }

    // One run of the import command as an operator starts it: from WorkDir() with SdkHomeEnv(), `typed` at the
    // pass phrase prompt, then each of `answers` at a "[y/n]" question, then the end of input.
    RunOptions ImportRun(const std::vector<std::string>& args, const std::string& typed,
                         const std::vector<std::string>& answers = {}) const;

private:
    ScratchDir root_;
};

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_TEST_TREE_H
