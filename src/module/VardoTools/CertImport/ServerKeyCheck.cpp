// Server key check: the key file must declare itself encrypted and the
// operator's pass phrase must open it.
//
// The whole file is first read into a zero-terminated heap image and searched
// for the "ENCRYPTED" marker that both the PKCS#8 label and the traditional
// PEM encryption header carry. The image is sensitive, so it is wiped before
// it is released whatever the search found. Only then does OpenSSL read the
// key with the pass phrase; the decrypted key is freed at once.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <safe_mem_lib.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "ImportChecks.h"
#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "OvraBase/MemoryHelper.h"
#include "ResultCode/ResultCode.h"
#include "basic/FilePtr.h"
#include "basic/OpenSslPtr.h"
#include "basic/SecretBuffer.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");

namespace OvraStream {
namespace {

using OvraBase::Basic::EvpPkeyPtr;
using OvraBase::Basic::FilePtr;
using OvraBase::Basic::SecretBuffer;

constexpr const char* ENCRYPTED_MARKER = "ENCRYPTED";

// true when the file at `resolvedPath` carries the encryption marker. Logs
// only the records of a failed open and of a refused size; the caller adds
// the common "not encrypted" record for every false.
bool HasEncryptedMarker(const std::string& resolvedPath)
{
    FilePtr file(std::fopen(resolvedPath.c_str(), "rb"));
    if (file == nullptr) {
        OVRA_LOG_ERROR_CODE("Failed to open file.", OvraBase::APP_ERR_READ_FAILED);
        return false;
    }
    const int64_t size = (std::fseek(file.get(), 0, SEEK_END) == 0) ? std::ftell(file.get()) : -1;
    if (OvraBase::MemoryHelper::CheckDataSize(size) != OvraBase::APP_ERR_OK) {
        file.reset();
        OVRA_LOG_ERROR_CODE("Check data size failed.", OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    const size_t imageSize = static_cast<size_t>(size);

    // One byte more than the file, zero-filled, keeps the image terminated for strstr.
    SecretBuffer image(imageSize + 1);
    if (image.Get() == nullptr) {
        return false;
    }
    if (memset_s(image.Get(), image.Size(), 0, image.Size()) != 0) {
        file.reset();
        image.Reset();
        return false;
    }
    size_t readCount = 0;
    if (std::fseek(file.get(), 0, SEEK_SET) == 0) {
        readCount = std::fread(image.Get(), 1, imageSize, file.get());
    }
    file.reset();
    if (static_cast<uint32_t>(readCount) == 0) {
        return false;
    }

    const bool found = std::strstr(image.Get(), ENCRYPTED_MARKER) != nullptr;
    if (memset_s(image.Get(), image.Size(), 0, imageSize) != 0) {
        return false;
    }
    image.Reset();
    return found;
}

}  // namespace

int32_t CheckServerKey(const char* passPhrase, const std::string& serverKeyPath)
{
    std::string resolvedPath;
    if (!OvraBase::FileUtils::RegularFilePath(serverKeyPath, resolvedPath, false) ||
        !OvraBase::FileUtils::IsFileValid(resolvedPath, true)) {
        OVRA_RETURN_ERROR("Invalid server key path, please check!", OvraBase::APP_ERR_INVALID_PARAM);
    }
    if (!HasEncryptedMarker(resolvedPath)) {
        OVRA_RETURN_ERROR("Not a encrypted private key.", OvraBase::APP_ERR_INVALID_PARAM);
    }

    FilePtr file(std::fopen(resolvedPath.c_str(), "r"));
    if (file == nullptr) {
        OVRA_RETURN_ERROR("Incorrect format of server.key.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    // No callback: OpenSSL's default one takes the user data as the
    // zero-terminated pass phrase. The buffer is only read. Without a pass
    // phrase the default callback would prompt on the terminal, so nothing is
    // read at all then.
    EvpPkeyPtr key(passPhrase == nullptr
                       ? nullptr
                       : PEM_read_PrivateKey(file.get(), nullptr, nullptr,
                                             const_cast<void*>(static_cast<const void*>(passPhrase))));
    file.reset();
    if (key == nullptr) {
        ERR_clear_error();
        OVRA_RETURN_ERROR("Wrong PEM password.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    key.reset();
    return OvraBase::APP_ERR_OK;
}

}  // namespace OvraStream
