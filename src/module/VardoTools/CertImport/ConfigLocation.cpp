// Where the stream server's files are: the configuration file under the SDK
// root, and the keys directory below the working directory.
#include <cstdlib>

#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "VardoTools.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
namespace {

using OvraBase::APP_ERR_GENERAL_FAILED;
using OvraBase::APP_ERR_INVALID_PARAM;
using OvraBase::APP_ERR_NO_PERMISSION;
using OvraBase::APP_ERR_OK;
using OvraBase::FileUtils;

const char* const SDK_HOME_VARIABLE = "OVRA_SDK_HOME";
const char* const CONFIG_FILE_UNDER_SDK = "config/streamserver.conf";
constexpr uint32_t CONFIG_FILE_MODE = 0600;
constexpr uint32_t KEYS_DIRECTORY_MODE = 0700;

}  // namespace

int32_t VardoTools::GetConfigFile()
{
    const char* sdkHome = std::getenv(SDK_HOME_VARIABLE);
    if (sdkHome == nullptr) {
        OVRA_RETURN_ERROR("Environment variable OVRA_SDK_HOME is not set!", APP_ERR_GENERAL_FAILED);
    }
    // A trailing "/" in the variable gives a doubled separator here; the
    // canonical form below removes it.
    serverCfgFile = std::string(sdkHome) + "/" + CONFIG_FILE_UNDER_SDK;
    std::string canonical;
    if (!FileUtils::RegularFilePath(serverCfgFile, canonical, false) || !FileUtils::IsFileValid(canonical, true) ||
        !FileUtils::ConstrainPermission(canonical, CONFIG_FILE_MODE, true)) {
        OVRA_RETURN_ERROR("Failed to regular serverCfgFile path.", APP_ERR_INVALID_PARAM);
    }
    serverCfgFile = canonical;
    return APP_ERR_OK;
}

int32_t VardoTools::CheckConfigFileAndAssign(std::string& path)
{
    if (!FileUtils::RegularFilePath(serverCfgFile, path, false)) {
        OVRA_RETURN_ERROR("Invalid serverCfgFile path, please check", APP_ERR_INVALID_PARAM);
    }
    // The mode is not checked again: the rewrite sets it after writing.
    if (!FileUtils::IsFileValid(path, true)) {
        OVRA_RETURN_ERROR("Invalid serverCfgFile path, please check", APP_ERR_INVALID_PARAM);
    }
    return APP_ERR_OK;
}

int32_t VardoTools::CheckDirectoryKeys()
{
    if (!FileUtils::CheckDirectoryExists(KEYS_DIRECTORY)) {
        // A directory made here is trusted as created: owner-only from the start.
        if (!FileUtils::CreateDirectories(KEYS_DIRECTORY, KEYS_DIRECTORY_MODE)) {
            OVRA_RETURN_ERROR("Create directory keys failed.", APP_ERR_GENERAL_FAILED);
        }
        OVRA_LOG_INFO("Create directory keys success if it is not exist.");
        return APP_ERR_OK;
    }
    std::string canonical;
    if (!FileUtils::RegularFilePath(KEYS_DIRECTORY, canonical, false) || !FileUtils::ConstrainOwner(canonical, true) ||
        !FileUtils::ConstrainPermission(canonical, KEYS_DIRECTORY_MODE, true)) {
        OVRA_RETURN_ERROR("The owner or permission of keys is incorrect.", APP_ERR_NO_PERMISSION);
    }
    if (!FileUtils::ModifyDirPermission(canonical, KEYS_DIRECTORY_MODE)) {
        OVRA_RETURN_ERROR("Failed to chmod the directory keys.", APP_ERR_NO_PERMISSION);
    }
    OVRA_LOG_INFO("Set the permission of the directory keys success.");
    return APP_ERR_OK;
}

}  // namespace OvraStream
