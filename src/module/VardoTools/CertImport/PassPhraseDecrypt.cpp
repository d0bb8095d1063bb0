// Pass phrase decryption: turns a stored server_key_mm value back into the
// pass phrase, with the engine started on the same key stores. The import
// command never calls it; it is the key tool's public counterpart of the
// encryption for whoever holds the value and its pask_algorithm_id.
#include <safe_mem_lib.h>

#include <cstring>
#include <new>

#include "EngineSession.h"
#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"
#include "VardoTools.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
namespace {

// What became of the steps that run while the engine is up. A failure's
// record is logged by the caller once the engine has stopped.
enum class Decryption { Done, NoMemory, ZeroFailed, Failed };

// Decrypts `length` characters of `cipherText` into a new zero-filled array
// of length + 1 bytes that the caller owns from here on, also when
// decryption fails (it is then wiped, not released).
Decryption DecryptIntoNewArray(const char* cipherText, size_t length, char** plainText, unsigned long& plainLength)
{
    plainLength = static_cast<unsigned long>(length) + 1;
    *plainText = new (std::nothrow) char[plainLength];
    if (*plainText == nullptr) {
        return Decryption::NoMemory;
    }
    if (memset_s(*plainText, plainLength, 0, plainLength) != 0) {
        VardoTools::ResetCharArray(*plainText, plainLength);
        return Decryption::ZeroFailed;
    }
    OVRA_LOG_DEBUG("Start decrypt ...");
    if (PaskMemDecryptBase64(0, cipherText, static_cast<uint32_t>(length), *plainText,
                             static_cast<uint32_t>(plainLength)) == OvraBase::APP_ERR_OK) {
        OVRA_LOG_DEBUG("VARDO decrypt success");
        return Decryption::Done;
    }
    VardoTools::ResetCharArray(*plainText, plainLength);
    return Decryption::Failed;
}

}  // namespace

int32_t VardoTools::DecryptCaPassword(const char* cipherText, char** plainText, unsigned long& plainLength,
                                      int32_t algorithmId)
{
    if (CheckPaskId(algorithmId) != OvraBase::APP_ERR_OK) {
        OVRA_RETURN_ERROR("CheckPaskId failed!", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    if (!CheckKsValid(PRIMARY_KSF_PATH) || !CheckKsValid(STANDBY_KSF_PATH)) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    if (cipherText == nullptr || plainText == nullptr) {
        OVRA_RETURN_ERROR("The cipher text or the place for the plain text is missing.",
                          OvraBase::APP_ERR_GENERAL_FAILED);
    }
    // Counting stops one past the limit: a longer text is refused either way.
    const size_t length = strnlen(cipherText, MAX_CIPHER_TEXT_LENGTH + 1);
    if (length > MAX_CIPHER_TEXT_LENGTH) {
        OVRA_RETURN_ERROR("server_key_mm is too long", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    // An engine started without stores would create new, empty ones, which
    // decrypt nothing: without the stores of an import nothing is touched.
    if (!OvraBase::FileUtils::CheckFileExists(PRIMARY_KSF_PATH) &&
        !OvraBase::FileUtils::CheckFileExists(STANDBY_KSF_PATH)) {
        OVRA_RETURN_ERROR("The ks files do not exist, nothing to decrypt with.", OvraBase::APP_ERR_GENERAL_FAILED);
    }

    OVRA_LOG_DEBUG("VARDO SeInitialize start");
    TagVardoConfig config;
    if (memset_s(&config, sizeof(config), 0, sizeof(config)) != 0) {
        OVRA_RETURN_ERROR("Call memset_s failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    if (VardoInit(config, algorithmId) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    if (SeInitialize(&config) != OvraBase::APP_ERR_OK) {
        OVRA_RETURN_ERROR("VARDO SeInitialize failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    Decryption decryption = Decryption::Failed;
    {
        EngineSession engine(config);
        OVRA_LOG_DEBUG("VARDO SeInitialize end");
        decryption = DecryptIntoNewArray(cipherText, length, plainText, plainLength);
    }
    switch (decryption) {
        case Decryption::Done:
            return OvraBase::APP_ERR_OK;
        case Decryption::NoMemory:
            OVRA_RETURN_ERROR("Failed to allocate memory.", OvraBase::APP_ERR_ALLOC_FAILED);
        case Decryption::ZeroFailed:
            OVRA_RETURN_ERROR("Call memset_s failed.", OvraBase::APP_ERR_GENERAL_FAILED);
        case Decryption::Failed:
            break;
    }
    OVRA_RETURN_ERROR("VARDO decrypt failed ", OvraBase::APP_ERR_GENERAL_FAILED);
}

}  // namespace OvraStream
