// Places the accepted inputs into ./keys under fixed names, owner-read-only;
// a later import replaces the earlier copies.
#include <string>

#include "ImportChecks.h"
#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "VardoTools.h"
#include "basic/AtomicFile.h"
#include "basic/Io.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");

namespace OvraStream {
namespace {

using OvraBase::APP_ERR_INVALID_PARAM;
using OvraBase::APP_ERR_INVALID_PATH;
using OvraBase::APP_ERR_OK;
using OvraBase::FileUtils;

// Fixed destinations; the configuration rewrite points the server at them.
const std::string CA_CRT_DESTINATION = "./keys/ca.crt";
const std::string SERVER_CRT_DESTINATION = "./keys/server.crt";
const std::string SERVER_KEY_DESTINATION = "./keys/server.key";
const std::string CA_CRL_DESTINATION = "./keys/ca.crl";

constexpr uint32_t COPIED_FILE_MODE = 0400;

// Removes the temporary files ".NAME.XXXXXX" that a copy killed before its
// rename left beside each destination (owner-only copies of the inputs). Two
// imports in one directory at once are not guarded against; apart from that
// no copy is under way when the placement starts.
void RemoveStaleTemporaries()
{
    for (const std::string* destination :
         {&CA_CRT_DESTINATION, &SERVER_CRT_DESTINATION, &SERVER_KEY_DESTINATION, &CA_CRL_DESTINATION}) {
        for (const std::string& path : OvraBase::Basic::RemoveStaleTemporaries(*destination)) {
            OVRA_LOG_INFO("Removed " << path << ", a temporary file that an interrupted import left.");
        }
    }
}

}  // namespace

int32_t CopyToKeys(const std::string& sourcePath, const std::string& destinationPath)
{
    std::string resolvedSource;
    if (!FileUtils::RegularFilePath(sourcePath, resolvedSource, false)) {
        OVRA_LOG_ERROR_CODE("Invalid raw file path, please check", APP_ERR_INVALID_PATH);
        return APP_ERR_INVALID_PARAM;
    }
    // CopyFile replaces an earlier copy of ours but never a link, a directory
    // or another user's file; the operator is told how to clear the way.
    if (!FileUtils::CopyFile(resolvedSource, destinationPath)) {
        OVRA_RETURN_ERROR("Destination file in keys may be read only or invalid, remove it or the directory keys first.",
                          APP_ERR_INVALID_PARAM);
    }
    const uint32_t mode = COPIED_FILE_MODE;
    if (!FileUtils::ModifyFilePermission(destinationPath, mode)) {
        OVRA_RETURN_ERROR("Destination file in keys may be read only or invalid, remove it or the directory keys first.",
                          APP_ERR_INVALID_PARAM);
    }
    return APP_ERR_OK;
}

int32_t CopyFilesToKeys(const std::string& caCrtPath, const std::string& serverCrtPath,
                        const std::string& serverKeyPath, const std::string& crlPath)
{
    VardoTools tools;
    if (tools.CheckDirectoryKeys() != APP_ERR_OK) {
        return APP_ERR_INVALID_PARAM;
    }
    RemoveStaleTemporaries();
    // In this order; a failure leaves what was already copied in place.
    if (CopyToKeys(caCrtPath, CA_CRT_DESTINATION) != APP_ERR_OK) {
        OVRA_RETURN_ERROR("Copy ca_crt file failed, please check the raw file and the destination file.",
                          APP_ERR_INVALID_PARAM);
    }
    if (CopyToKeys(serverCrtPath, SERVER_CRT_DESTINATION) != APP_ERR_OK) {
        OVRA_RETURN_ERROR("Copy server_crt file failed, please check the raw file and the destination file.",
                          APP_ERR_INVALID_PARAM);
    }
    if (CopyToKeys(serverKeyPath, SERVER_KEY_DESTINATION) != APP_ERR_OK) {
        OVRA_RETURN_ERROR("Copy server_key file failed, please check the raw file and the destination file.",
                          APP_ERR_INVALID_PARAM);
    }
    // A list that was given must be placed, although the record calls it optional.
    if (!crlPath.empty() && CopyToKeys(crlPath, CA_CRL_DESTINATION) != APP_ERR_OK) {
        OVRA_RETURN_ERROR(
            "Copy ca_crl file failed, please check the raw file and the destination file, it is not required.",
            APP_ERR_INVALID_PARAM);
    }
    // One directory sync makes every rename above durable before the
    // placement is reported done; the copies are complete either way.
    (void)OvraBase::Basic::SyncDirectory(KEYS_DIRECTORY.c_str());
    OVRA_LOG_INFO("Copy files success.");
    return APP_ERR_OK;
}

}  // namespace OvraStream
