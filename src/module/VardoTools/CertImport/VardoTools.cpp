// The key tool object: construction, the engine's start-up record and the
// buffer wipes shared with the configuration rewrite.
#include "VardoTools.h"

#include <openssl/crypto.h>
#include <safe_mem_lib.h>

#include <cstring>

#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {

using OvraBase::APP_ERR_ALLOC_FAILED;
using OvraBase::APP_ERR_OK;

const std::string PRIMARY_KSF_PATH = "./keys/vardo.ks";
const std::string STANDBY_KSF_PATH = "./keys/StandbyKsf.ks";
const std::string KEYS_DIRECTORY = "./keys";

namespace {

// The engine's semaphore set is shared with the owner's group.
constexpr int32_t SEMAPHORE_PERMISSION = 0660;
constexpr rsize_t KSF_PATH_SIZE = sizeof(TagVardoConfig::primaryKsfPath);
static_assert(KSF_PATH_SIZE == 4096 && sizeof(TagVardoConfig::standbyKsfPath) == 4096,
              "key store path fields are 4096 bytes");

}  // namespace

VardoTools::VardoTools() : algorithmId(0), serverCfgFile(), storedCipherLength(0) {}

// Value buffers are left to ClearConfig: every start-up path that loaded the
// configuration clears it before it returns.
VardoTools::~VardoTools() {}

int32_t VardoTools::VardoInit(TagVardoConfig& config, int32_t algorithmId)
{
    if (memset_s(config.primaryKsfPath, KSF_PATH_SIZE, 0, KSF_PATH_SIZE) != 0) {
        OVRA_RETURN_ERROR("Call memset_s failed.", APP_ERR_ALLOC_FAILED);
    }
    if (memset_s(config.standbyKsfPath, KSF_PATH_SIZE, 0, KSF_PATH_SIZE) != 0) {
        OVRA_RETURN_ERROR("Call memset_s failed.", APP_ERR_ALLOC_FAILED);
    }
    config.optionWord0 = VE_OPTION0_STORE_FORMAT_V3;
    config.optionWord1 = VE_OPTION1_AUTO_CREATE_MK;
    config.semPermission = SEMAPHORE_PERMISSION;
    config.paskAlgorithmId = algorithmId;
    config.optionWord2 = VE_OPTION2_REQUIRED;
    config.semKey = 0;
    // The path text goes in without its terminator: the field is already zero.
    if (memcpy_s(config.primaryKsfPath, KSF_PATH_SIZE, PRIMARY_KSF_PATH.c_str(), PRIMARY_KSF_PATH.size()) != 0) {
        OVRA_RETURN_ERROR("Copy primary key path failed.", APP_ERR_ALLOC_FAILED);
    }
    if (memcpy_s(config.standbyKsfPath, KSF_PATH_SIZE, STANDBY_KSF_PATH.c_str(), STANDBY_KSF_PATH.size()) != 0) {
        OVRA_RETURN_ERROR("Copy standby key path failed.", APP_ERR_ALLOC_FAILED);
    }
    if (memset_s(config.zeroBlock, sizeof(config.zeroBlock), 0, sizeof(config.zeroBlock)) != 0) {
        OVRA_RETURN_ERROR("Call memset_s failed.", APP_ERR_ALLOC_FAILED);
    }
    config.zeroWord0 = 0;
    config.zeroWord1 = 0;
    config.zeroHalf = 0;
    return APP_ERR_OK;
}

void VardoTools::ResetCharArray(char* buffer, unsigned long maxLength)
{
    if (buffer == nullptr) {
        return;
    }
    // Only the text up to the first zero byte is wiped; OPENSSL_cleanse so
    // that a release right after cannot drop the stores.
    OPENSSL_cleanse(buffer, strnlen(buffer, maxLength));
}

void VardoTools::ResetDeleteCharArray(char* buffer, unsigned long maxLength)
{
    if (buffer == nullptr) {
        return;
    }
    ResetCharArray(buffer, maxLength);
    delete[] buffer;
}

}  // namespace OvraStream
