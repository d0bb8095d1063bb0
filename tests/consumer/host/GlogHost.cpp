// vardo-glog-host: a program that owns glog and uses the installed SDK, as
// the stream server does. It logs its own lines, decrypts a server_key_mm
// value with the key tool, and says what came back:
//
//   vardo-glog-host glog-first|glog-after-load|no-glog CIPHER ALGORITHM EXPECTED
//     glog-first       initialises glog (and calls Log::Init) before using the SDK
//     glog-after-load  uses the SDK first (a refused decryption), then initialises glog
//     no-glog          never initialises glog; its own lines go to standard output
#include <glog/logging.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "OvraBase/Log.h"
#include "VardoTools.h"

namespace {

void Say(bool glog, const std::string& line)
{
    if (glog) {
        LOG(INFO) << "host: " << line;
    } else {
        std::printf("host: %s\n", line.c_str());
    }
}

int32_t Decrypt(const char* cipher, int32_t algorithmId, const char* expected, bool glog)
{
    OvraStream::VardoTools tool;
    char* plain = nullptr;
    unsigned long length = 0;
    const int32_t rc = tool.DecryptCaPassword(cipher, &plain, length, algorithmId);
    const bool matches = plain != nullptr && std::strcmp(plain, expected) == 0;
    OvraStream::VardoTools::ResetDeleteCharArray(plain, length);
    Say(glog, "decrypt " + std::to_string(rc) + (matches ? " matches" : " differs"));
    return rc;
}

}  // namespace

int main(int argc, char** argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc != 5) {
        return 2;
    }
    const std::string kind = argv[1];
    const bool glog = kind != "no-glog";
    if (kind == "glog-after-load") {
        (void)Decrypt(argv[2], 7, argv[4], false);
    }
    if (glog) {
        FLAGS_logtostderr = true;
        google::InitGoogleLogging(argv[0]);
    }
    if (kind == "glog-first") {
        Say(glog, "log init " + std::to_string(OvraBase::Log::Init()));
    }
    Say(glog, "before decrypt");
    const int32_t rc = Decrypt(argv[2], std::atoi(argv[3]), argv[4], glog);
    Say(glog, "after decrypt");
    return rc == 0 ? 0 : 1;
}
