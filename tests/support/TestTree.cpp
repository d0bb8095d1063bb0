// Scratch SDK trees for the end-to-end tests, and how an import is started in one.
#include "TestTree.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

namespace VardoTest {

const char* const DEFAULT_STREAM_SERVER_CONF =
    "server_crt=./old/server.crt\n"
    "ca_crt=./old/ca.crt\n"
    "server_key=./old/server.key\n"
    "server_key_mm=\n"
    "crl=\n"
    "pask_algorithm_id=9\n"
    "rtsp_port=8554\n";

SdkTree::SdkTree()
{
    for (const char* dir : {"/lib", "/config", "/tools", "/tools/VardoTools", "/tools/VardoTools/CertImport",
                            "/inputs"}) {
        EXPECT_EQ(mkdir((Root() + dir).c_str(), 0700), 0) << dir;
    }
    const std::string library = ReadWholeFile(VARDO_TOOLS_LIBRARY);
    EXPECT_FALSE(library.empty()) << "cannot read the built library " << VARDO_TOOLS_LIBRARY;
    WriteWholeFile(Root() + "/lib/libvardotools.so", library, 0700);
    WriteConfig(DEFAULT_STREAM_SERVER_CONF);
}

RunOptions SdkTree::ImportRun(const std::vector<std::string>& args, const std::string& typed,
                              const std::vector<std::string>& answers) const
{
    RunOptions options;
    options.program = VARDO_CERT_IMPORT_BINARY;
    options.args = args;
    options.workingDirectory = WorkDir();
    options.setEnv = {SdkHomeEnv()};
    options.exchanges = {{"please input the plain text: ", typed}};
    for (const std::string& answer : answers) {
        options.exchanges.push_back({"[y/n]", answer});
    }
    options.closeInputAtEnd = true;
    return options;
}

}  // namespace VardoTest
