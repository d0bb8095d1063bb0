// Pass phrase encryption: the server key's pass phrase becomes the base64
// cipher text stored under server_key_mm, written into streamserver.conf
// together with the paths of the imported files. A recovery copy of the file
// stands beside it from before the first rewrite until after the last.
#include <safe_mem_lib.h>

#include <climits>

#include "ConfigRecovery.h"
#include "EngineSession.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"
#include "VardoTools.h"
#include "basic/SecretBuffer.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
namespace {

using OvraBase::Basic::SecretBuffer;

// What became of the steps that run while the engine is up. A failure's
// record is logged by the caller, at its place among the releases of the
// cipher buffer and of the engine.
enum class Sealing {
    Written,
    NoCipherLength,
    NoMemory,
    ZeroFailed,
    EncryptFailed,
    CopyFailed,
    ScrubFailed,
    WriteFailed,
};

// Twice the engine's cipher size for `passPhraseLength` bytes: room for the
// base64 growth. 0 when the engine gives no usable size.
int32_t CipherBufferSize(int32_t passPhraseLength)
{
    uint32_t cipherLength = 0;
    if (SeGetCipherDataLen(static_cast<uint32_t>(passPhraseLength), &cipherLength) != OvraBase::APP_ERR_OK) {
        return 0;
    }
    const int32_t size = static_cast<int32_t>(cipherLength * 2u);
    return size > 0 ? size : 0;
}

// Encrypts the pass phrase into a cipher buffer of its own, scrubs an old
// value from the configuration, then writes the new value, the paths and the
// crl line. The buffer is wiped and released when this returns.
Sealing SealAndWrite(VardoTools& tools, const TagVardoConfig& config, const char* passPhrase,
                     int32_t passPhraseLength, int32_t crlFlag)
{
    const int32_t size = CipherBufferSize(passPhraseLength);
    if (size == 0) {
        return Sealing::NoCipherLength;
    }
    SecretBuffer cipher(static_cast<size_t>(size));
    if (cipher.Get() == nullptr) {
        return Sealing::NoMemory;
    }
    if (memset_s(cipher.Get(), static_cast<rsize_t>(size), 0, static_cast<rsize_t>(size)) != 0) {
        return Sealing::ZeroFailed;
    }

    uint32_t outLength = static_cast<uint32_t>(size);
    const EncryptParam param{static_cast<uint32_t>(config.paskAlgorithmId), 0};
    if (PaskMemEncryptBase64(&param, passPhrase, static_cast<uint32_t>(passPhraseLength), cipher.Get(),
                             &outLength) != OvraBase::APP_ERR_OK) {
        return Sealing::EncryptFailed;
    }

    // From the first truncation to the last rewrite the file may be cut
    // short by a kill or a full disk: a recovery copy stands beside it.
    if (WriteRecoveryCopy(tools.serverCfgFile) != OvraBase::APP_ERR_OK) {
        return Sealing::CopyFailed;
    }
    // An old value is scrubbed at its own length before the new one goes in.
    if (tools.storedCipherLength != 0 &&
        tools.WritePreparation(static_cast<int32_t>(tools.storedCipherLength), 0) != OvraBase::APP_ERR_OK) {
        return Sealing::ScrubFailed;
    }
    // Mode 1 writes "crl=", mode 2 the imported list's path.
    const int32_t pathMode = (crlFlag == INT32_MAX) ? INT32_MAX : crlFlag + 1;
    int32_t written = tools.ModifyCaKey(cipher.Get(), static_cast<int32_t>(outLength), 0);
    if (written == OvraBase::APP_ERR_OK) {
        written = tools.ModifyCaKey(nullptr, 0, pathMode);
    }
    if (written != OvraBase::APP_ERR_OK || FinishRewrites(tools.serverCfgFile) != OvraBase::APP_ERR_OK) {
        return Sealing::WriteFailed;
    }
    OVRA_LOG_INFO("server_key_mm encrypted success, it has been generated and written into the config file");
    return Sealing::Written;
}

int32_t ResultOf(Sealing sealing)
{
    switch (sealing) {
        case Sealing::Written:
            return OvraBase::APP_ERR_OK;
        case Sealing::CopyFailed:
        case Sealing::ScrubFailed:
        case Sealing::WriteFailed:
            return OvraBase::APP_ERR_WRITE_FAILED;
        default:
            return OvraBase::APP_ERR_GENERAL_FAILED;
    }
}

}  // namespace

int32_t VardoTools::EncryptCaPassword(const char* passPhrase, int32_t passPhraseLength, int32_t crlFlag)
{
    // The configuration is located first (with the same record as in
    // EncryptInit when it cannot be) so that what an interrupted import left
    // is put right before the configuration is read.
    if (GetConfigFile() != OvraBase::APP_ERR_OK ||
        RecoverInterruptedImport(serverCfgFile) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    TagVardoConfig config{};
    if (EncryptInit(config) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    Sealing sealing = Sealing::NoCipherLength;
    {
        EngineSession engine(config);
        sealing = SealAndWrite(*this, config, passPhrase, passPhraseLength, crlFlag);
        // A failed write is told after the cipher buffer went and before the engine stops.
        if (sealing == Sealing::ScrubFailed) {
            OVRA_LOG_ERROR_CODE("server_key_mm written into the config file failed", OvraBase::APP_ERR_WRITE_FAILED);
        } else if (sealing == Sealing::WriteFailed) {
            OVRA_LOG_ERROR_CODE("server_key_mm or file path written into the config file failed",
                                OvraBase::APP_ERR_WRITE_FAILED);
        }
    }
    // A cipher buffer that could not be had is told once the engine has stopped.
    if (sealing == Sealing::NoMemory) {
        OVRA_LOG_ERROR_CODE("Create cipherDataPtr failed. Failed to allocate memory.", OvraBase::APP_ERR_ALLOC_FAILED);
    } else if (sealing == Sealing::ZeroFailed) {
        OVRA_LOG_ERROR_CODE("Call memset_s failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    return ResultOf(sealing);
}

}  // namespace OvraStream
