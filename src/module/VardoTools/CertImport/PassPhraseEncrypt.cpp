// Pass phrase encryption: the server key's pass phrase becomes the base64
// cipher text stored under server_key_mm, written into streamserver.conf
// together with the paths of the imported files.
#include <safe_mem_lib.h>

#include <climits>
#include <new>

#include "EngineSession.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"
#include "VardoTools.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
namespace {

// The cipher text buffer: wiped and released exactly once.
class CipherBuffer {
public:
    explicit CipherBuffer(int32_t size) : bytes_(new (std::nothrow) char[size]), size_(size) {}
    ~CipherBuffer() { Release(); }
    CipherBuffer(const CipherBuffer&) = delete;
    CipherBuffer& operator=(const CipherBuffer&) = delete;
    char* Get() const { return bytes_; }
    void Release()
    {
        if (bytes_ != nullptr) {
            VardoTools::ResetDeleteCharArray(bytes_, static_cast<unsigned long>(size_));
            bytes_ = nullptr;
        }
    }

private:
    char* bytes_;
    int32_t size_;
};
}  // namespace

int32_t VardoTools::EncryptCaPassword(const char* passPhrase, int32_t passPhraseLength, int32_t crlFlag)
{
    TagVardoConfig config{};
    if (EncryptInit(config) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    EngineSession engine(config);

    // Twice the engine's cipher size leaves room for the base64 growth.
    uint32_t cipherLength = 0;
    if (SeGetCipherDataLen(static_cast<uint32_t>(passPhraseLength), &cipherLength) != OvraBase::APP_ERR_OK) {
        engine.Finish();
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    const int32_t size = static_cast<int32_t>(cipherLength * 2u);
    if (size <= 0) {
        engine.Finish();
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }

    CipherBuffer cipher(size);
    if (cipher.Get() == nullptr) {
        engine.Finish();
        OVRA_LOG_ERROR_CODE("Create cipherDataPtr failed. Failed to allocate memory.",
                            OvraBase::APP_ERR_ALLOC_FAILED);
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    if (memset_s(cipher.Get(), static_cast<rsize_t>(size), 0, static_cast<rsize_t>(size)) != 0) {
        cipher.Release();
        engine.Finish();
        OVRA_RETURN_ERROR("Call memset_s failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    }

    uint32_t outLength = static_cast<uint32_t>(size);
    const EncryptParam param{static_cast<uint32_t>(config.paskAlgorithmId), 0};
    if (PaskMemEncryptBase64(&param, passPhrase, static_cast<uint32_t>(passPhraseLength), cipher.Get(),
                             &outLength) != OvraBase::APP_ERR_OK) {
        cipher.Release();
        engine.Finish();
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }

    // An old value is scrubbed at its own length before the new one goes in.
    if (storedCipherLength != 0 &&
        WritePreparation(static_cast<int32_t>(storedCipherLength), 0) != OvraBase::APP_ERR_OK) {
        cipher.Release();
        OVRA_LOG_ERROR_CODE("server_key_mm written into the config file failed", OvraBase::APP_ERR_WRITE_FAILED);
        engine.Finish();
        return OvraBase::APP_ERR_WRITE_FAILED;
    }

    // Mode 1 writes "crl=", mode 2 the imported list's path.
    const int32_t pathMode = (crlFlag == INT32_MAX) ? INT32_MAX : crlFlag + 1;
    int32_t written = ModifyCaKey(cipher.Get(), static_cast<int32_t>(outLength), 0);
    if (written == OvraBase::APP_ERR_OK) {
        written = ModifyCaKey(nullptr, 0, pathMode);
    }
    if (written == OvraBase::APP_ERR_OK) {
        OVRA_LOG_INFO("server_key_mm encrypted success, it has been generated and written into the config file");
        cipher.Release();
        engine.Finish();
        return OvraBase::APP_ERR_OK;
    }
    cipher.Release();
    OVRA_LOG_ERROR_CODE("server_key_mm or file path written into the config file failed",
                        OvraBase::APP_ERR_WRITE_FAILED);
    engine.Finish();
    return OvraBase::APP_ERR_WRITE_FAILED;
}

}  // namespace OvraStream
