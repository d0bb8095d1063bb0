// Key store start-up of the key tool: checks the two key store files, reads
// the encryption settings from streamserver.conf and starts the engine.
#include <cstring>

#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"
#include "VardoTools.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
namespace {
// Keys that streamserver.conf must hold, tested in this order. "crl" must be
// there even without a revocation list (its value is then empty).
const char* const REQUIRED_KEYS[] = {"server_crt", "ca_crt", "server_key", "server_key_mm", "crl"};
const std::string CIPHER_KEY = "server_key_mm";
const std::string ALGORITHM_KEY = "pask_algorithm_id";
constexpr uint32_t KEY_STORE_MODE = 0600;
constexpr int32_t DEFAULT_ALGORITHM_ID = 9;
}  // namespace

bool VardoTools::CheckKsValid(const std::string& path)
{
    if (OvraBase::FileUtils::IsSymlink(path)) {
        OVRA_LOG_ERROR_CODE("The ks file is not a regular file", OvraBase::APP_ERR_INVALID_PATH);
        return false;
    }
    // A key store that does not exist yet is created by the engine.
    if (!OvraBase::FileUtils::CheckFileExists(path)) {
        return true;
    }
    if (OvraBase::FileUtils::IsFileValid(path, true) &&
        OvraBase::FileUtils::ConstrainPermission(path, KEY_STORE_MODE, true)) {
        return true;
    }
    OVRA_LOG_ERROR_CODE("Read ks file failed, file is too large or under wrong permission.",
                        OvraBase::APP_ERR_GENERAL_FAILED);
    return false;
}

int32_t VardoTools::CheckPaskId(int32_t id)
{
    if (static_cast<uint32_t>(id) - 8u < 2u) {
        return OvraBase::APP_ERR_OK;
    }
    OVRA_RETURN_ERROR("pask_algorithm_id must in set {8, 9}.", OvraBase::APP_ERR_INVALID_PARAM);
}

int32_t VardoTools::EncryptInit(TagVardoConfig& config)
{
    if (GetConfigFile() != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    OVRA_LOG_INFO("Set keys directory permission success.");

    if (!CheckKsValid(PRIMARY_KSF_PATH)) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    if (!CheckKsValid(STANDBY_KSF_PATH)) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }

    const int32_t settings = ReadSettings();
    if (settings != OvraBase::APP_ERR_OK) {
        return settings;
    }

    OVRA_LOG_INFO("VARDO SeInitialize start");
    if (VardoInit(config, algorithmId) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    if (SeInitialize(&config) != OvraBase::APP_ERR_OK) {
        OVRA_RETURN_ERROR("VARDO SeInitialize failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    OVRA_LOG_INFO("VARDO SeInitialize end");
    return OvraBase::APP_ERR_OK;
}

int32_t VardoTools::ReadSettings()
{
    const int32_t loaded = LoadConfig(serverCfgFile);
    if (loaded != OvraBase::APP_ERR_OK) {
        OVRA_LOG_ERROR_CODE("Failed to load Stream Server config file, the file path is empty or not exist.", loaded);
        return loaded;
    }
    // From here on the loaded values are wiped on every way out.
    for (const char* key : REQUIRED_KEYS) {
        if (!HasKey(key)) {
            ClearConfig();
            return OvraBase::APP_ERR_GENERAL_FAILED;
        }
    }

    const auto cipher = configMap_.find(CIPHER_KEY);
    if (cipher != configMap_.end() && cipher->second != nullptr) {
        const size_t length = strnlen(cipher->second, VALUE_BUFFER_SIZE);
        if (length > MAX_CIPHER_TEXT_LENGTH) {
            ClearConfig();
            OVRA_RETURN_ERROR("server_key_mm in is too long.", OvraBase::APP_ERR_GENERAL_FAILED);
        }
        storedCipherLength = length;
    }

    algorithmId = DEFAULT_ALGORITHM_ID;
    if (GetValue<int32_t>(ALGORITHM_KEY, algorithmId) != OvraBase::APP_ERR_OK ||
        CheckPaskId(algorithmId) != OvraBase::APP_ERR_OK) {
        ClearConfig();
        OVRA_RETURN_ERROR("Read pask_algorithm_id from config file failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    // Nothing of the configuration is kept beyond the two numbers above.
    ClearConfig();
    return OvraBase::APP_ERR_OK;
}

}  // namespace OvraStream
