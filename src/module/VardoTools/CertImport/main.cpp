// The certificate import command.
//
// Installs a CA certificate, a server certificate, the server's encrypted
// private key and optionally a revocation list for the stream server:
//
//   certImport <ca.crt> <server.crt> <server.key> [<ca.crl>]
//
// run from the SDK directory that holds ./keys (the wrapper certImport.sh maps
// its -c/-s/-k/-r options to these positions). The run asks for the key's pass
// phrase, checks every input, has the operator confirm the CA's fingerprint,
// copies the files into ./keys and hands the pass phrase to the key tool, which
// stores it encrypted in streamserver.conf. Returns 0 on success, -1 on any
// failure; every decision is reported in the SDK log.
#include <safe_mem_lib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>

#include "ImportChecks.h"
#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "UserInfo.h"
#include "VardoTools.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");

namespace {

using namespace OvraStream;

constexpr int IMPORT_SUCCESS = 0;
constexpr int IMPORT_FAILED = -1;
constexpr int ARGC_WITHOUT_CRL = 4;
constexpr int ARGC_WITH_CRL = 5;
constexpr const char* PASS_PHRASE_PROMPT = "please input the plain text: ";
// The installation's own library, relative to the working directory.
constexpr const char* LIB_FILE_PATH = "../../../lib/libvardotools.so";

// The pass phrase as getpass() returned it: a static buffer of the C library,
// never freed and never copied. It is wiped by WipePassPhrase on every way out
// once it has been read, over the length measured once when it was read.
struct PassPhrase {
    char* text;
    int32_t length;
};

void WipePassPhrase(const PassPhrase& passPhrase)
{
    const auto count = static_cast<rsize_t>(passPhrase.length);
    if (memset_s(passPhrase.text, count, 0, count) != 0) {
        OVRA_LOG_ERROR_CODE("Call memset_s failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
}

struct ImportPaths {
    std::string caCrtPath;
    std::string serverCrtPath;
    std::string serverKeyPath;
    std::string crlPath;
    int32_t crlGiven = 0;
};

// Every exit after the log is ready goes through here.
int EndRun(int status)
{
    OvraBase::Log::UpdateFileMode();
    return status;
}

int FailAfterWipe(const PassPhrase& passPhrase)
{
    WipePassPhrase(passPhrase);
    return EndRun(IMPORT_FAILED);
}

// The command runs only from an installation whose library file the running
// user may use.
bool CheckLibFile()
{
    std::string resolvedPath;
    if (!OvraBase::FileUtils::RegularFilePath(LIB_FILE_PATH, resolvedPath, false) ||
        !OvraBase::FileUtils::IsFileValid(resolvedPath, true)) {
        OVRA_LOG_ERROR_CODE("Invalid lib file!", OvraBase::APP_ERR_INVALID_PATH);
        return false;
    }
    OVRA_LOG_INFO("User permission is valid.");
    return true;
}

void PrintUsage()
{
    std::cout << "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path>"
              << std::endl;
    std::cout << "example: bash ./certImport.sh -c ./ca/ca/ca.crt -s ./ca/server/server.crt -k "
                 "./ca/server/server.key"
              << std::endl;
    std::cout << "or load crl list as follows" << std::endl;
    std::cout << "usage: bash ./certImport.sh -c <ca.crt_path> -s <server.crt_path> -k <server.key_path> -r "
                 "<ca.crl_path>"
              << std::endl;
}

ImportPaths TakeArguments(int argc, char* argv[])
{
    ImportPaths paths;
    if (argc == ARGC_WITH_CRL) {
        paths.crlPath = argv[4];
        paths.crlGiven = 1;
    }
    paths.caCrtPath = argv[1];
    paths.serverCrtPath = argv[2];
    paths.serverKeyPath = argv[3];
    return paths;
}

// Revocation list, server key, certificates with the operator's confirmation,
// then the copy into ./keys. Each step logs its own reasons; a refusal adds the
// command's record where there is one.
bool CheckAndPlaceInputs(const ImportPaths& paths, const PassPhrase& passPhrase)
{
    if (!paths.crlPath.empty() && CheckCrlMatchingCrt(paths.caCrtPath, paths.crlPath) != OvraBase::APP_ERR_OK) {
        OVRA_LOG_ERROR_CODE("Read crl file failed, please set or clean the crl in config file manually.",
                            OvraBase::APP_ERR_READ_FAILED);
        return false;
    }
    if (CheckServerKey(passPhrase.text, paths.serverKeyPath) != OvraBase::APP_ERR_OK) {
        return false;
    }
    if (CheckCrtFiles(paths.caCrtPath, paths.serverCrtPath) != OvraBase::APP_ERR_OK) {
        OVRA_LOG_ERROR_CODE("Invalid file of ca crt or server crt", OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    if (CopyFilesToKeys(paths.caCrtPath, paths.serverCrtPath, paths.serverKeyPath, paths.crlPath) !=
        OvraBase::APP_ERR_OK) {
        OVRA_LOG_ERROR_CODE("Copy file failed.", OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    return true;
}

// The key tool encrypts the pass phrase and rewrites the configuration. The
// pass phrase is wiped and the log files fixed up before the tool goes away.
int EncryptPassPhrase(const PassPhrase& passPhrase, int32_t crlGiven)
{
    VardoTools vardoTools;
    const int32_t result = vardoTools.EncryptCaPassword(passPhrase.text, passPhrase.length, crlGiven);
    if (result != OvraBase::APP_ERR_OK) {
        OVRA_LOG_ERROR_CODE("VARDO encrypt failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    WipePassPhrase(passPhrase);
    return EndRun(result == OvraBase::APP_ERR_OK ? IMPORT_SUCCESS : IMPORT_FAILED);
}

}  // namespace

// Exported: the certImport executable has no entry point of its own.
OVRA_EXPORT int main(int argc, char* argv[])
{
    // The command owns the SDK log; the audit record comes next, before the
    // log is set up.
    OvraBase::Log::StartProgram(argv[0]);
    OVRA_LOG_INFO("Start import the certs" << OvraStream::GetUserInfo() << ".");

    if (OvraBase::Log::Init() != OvraBase::APP_ERR_OK) {
        OVRA_LOG_ERROR_CODE("Failed to initialize log.", OvraBase::APP_ERR_GENERAL_FAILED);
        return IMPORT_FAILED;
    }
    if (!CheckLibFile()) {
        return EndRun(IMPORT_FAILED);
    }
    if (argc != ARGC_WITHOUT_CRL && argc != ARGC_WITH_CRL) {
        PrintUsage();
        return EndRun(IMPORT_FAILED);
    }

    char* enteredText = getpass(PASS_PHRASE_PROMPT);
    if (enteredText == nullptr || enteredText[0] == '\0') {
        OVRA_LOG_ERROR_CODE("The length of plain text is zero, please input the correct plain text.",
                            OvraBase::APP_ERR_GENERAL_FAILED);
        return EndRun(IMPORT_FAILED);
    }
    const PassPhrase passPhrase{enteredText, static_cast<int32_t>(std::strlen(enteredText))};

    if (!OvraStream::CheckPasswordRules(passPhrase.text)) {
        OVRA_LOG_ERROR_CODE("Invalid input password.", OvraBase::APP_ERR_INVALID_PARAM);
        return FailAfterWipe(passPhrase);
    }

    const ImportPaths paths = TakeArguments(argc, argv);
    if (!CheckAndPlaceInputs(paths, passPhrase)) {
        return FailAfterWipe(passPhrase);
    }
    OVRA_LOG_INFO("Import the certs and keys to ./keys directory success.");

    return EncryptPassPhrase(passPhrase, paths.crlGiven);
}
