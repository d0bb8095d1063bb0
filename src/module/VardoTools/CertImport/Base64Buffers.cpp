// Base64 cipher buffers: zero-filled heap blocks for secret material, and the
// one-line base64 encoder and decoder that fill them (OpenSSL's base64 filter
// over a memory BIO).
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <safe_mem_lib.h>

#include <cstdlib>

#include "CipherMemory.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"
#include "basic/OpenSslPtr.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/SecurityService");

using OvraBase::APP_ERR_ALLOC_FAILED;
using OvraBase::APP_ERR_GENERAL_FAILED;
using OvraBase::APP_ERR_INVALID_PARAM;

namespace {

using OvraBase::Basic::BioPtr;
using OvraStream::CipherMemory;

// Largest encoded text whose buffer (text plus terminator) still has a size
// that fits a signed 32-bit allocation request.
constexpr size_t MAX_ENCODED_LENGTH = 2147483646U;

// A block that is not handed out: wiped in full, then freed. A failed wipe
// is logged and the block is freed all the same.
void DiscardBlock(CipherMemory& block, uint32_t size)
{
    if (memset_s(block.Get(), size, 0, size) != EOK) {
        OVRA_LOG_ERROR_CODE("Call memset_s failed.", APP_ERR_ALLOC_FAILED);
    }
    FreeBase64CipherMemory(block.Release());
}

// A base64 filter that writes one line without line breaks into a memory
// sink behind it; the chain owns both. 0, or 6008 (logged) when either BIO
// cannot be had.
int32_t OpenEncoder(BioPtr& chain, BIO*& sink)
{
    chain.reset(BIO_new(BIO_f_base64()));
    if (chain == nullptr) {
        OVRA_LOG_ERROR_CODE("BIO_new failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    BIO_set_flags(chain.get(), BIO_FLAGS_BASE64_NO_NL);
    sink = BIO_new(BIO_s_mem());
    if (sink == nullptr) {
        chain.reset();
        OVRA_LOG_ERROR_CODE("BIO_new failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    BIO_push(chain.get(), sink);  // the chain now owns the sink as well
    return OvraBase::APP_ERR_OK;
}

}  // namespace

char* AllocBase64CipherMemory(int32_t size)
{
    // One unsigned comparison rejects both sizes below 1 and above the maximum.
    if (static_cast<uint32_t>(size) - 1U > BASE64_CIPHER_MEMORY_MAX - 1U) {
        OVRA_LOG_ERROR_CODE("The size of the memory request does not meet the requirements.", APP_ERR_INVALID_PARAM);
        return nullptr;
    }
    char* buffer = static_cast<char*>(std::malloc(static_cast<size_t>(size)));
    if (buffer == nullptr) {
        OVRA_LOG_ERROR_CODE("Memory allocation failed.", APP_ERR_ALLOC_FAILED);
        return nullptr;
    }
    if (memset_s(buffer, static_cast<rsize_t>(size), 0, static_cast<rsize_t>(size)) != EOK) {
        std::free(buffer);
        OVRA_LOG_ERROR_CODE("Call memset_s failed.", APP_ERR_ALLOC_FAILED);
        return nullptr;
    }
    return buffer;
}

void FreeBase64CipherMemory(char* buffer)
{
    if (buffer != nullptr) {
        std::free(buffer);
    }
}

void ResetFreeBase64CipherMemory(char* buffer, uint32_t length)
{
    if (buffer == nullptr) {
        return;
    }
    if (length != 0) {
        // Nothing useful can be done about a failed wipe here; the block is
        // released either way.
        (void)memset_s(buffer, length, 0, length);
    }
    std::free(buffer);
}

int32_t EncodeWithBase64(const char* input, uint32_t inputLength, char** outText, uint32_t* outLength)
{
    if (input == nullptr || inputLength > BASE64_ENCODE_INPUT_MAX || outText == nullptr || outLength == nullptr) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }
    BioPtr chain;
    BIO* sink = nullptr;
    const int32_t opened = OpenEncoder(chain, sink);
    if (opened != OvraBase::APP_ERR_OK) {
        return opened;
    }

    // The write count is not examined: the flush is what tells whether the
    // encoder produced its full output.
    (void)BIO_write(chain.get(), input, static_cast<int>(inputLength));
    if (BIO_flush(chain.get()) != 1) {
        chain.reset();
        OVRA_LOG_ERROR_CODE("BIO_write failed!", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_BASE64_FLUSH;
    }

    BUF_MEM* encoded = nullptr;
    BIO_get_mem_ptr(sink, &encoded);
    const size_t textLength = encoded != nullptr ? encoded->length : 0;
    if (textLength > MAX_ENCODED_LENGTH) {
        chain.reset();
        OVRA_LOG_ERROR_CODE("cipherResultLen does not meet the requirements.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }

    // One byte more than the text: the zero-filled block keeps a terminator.
    const uint32_t bufferSize = static_cast<uint32_t>(textLength) + 1U;
    CipherMemory text(bufferSize);
    if (text.Get() == nullptr) {
        return OvraBase::SE_ERR_RESOURCE;  // the allocator has logged
    }
    // The destination size given is the text length, not the block size, so
    // the copy can never reach the terminator. An empty input yields an empty
    // text: the bounds-checked copy accepts a destination size of 0 with a
    // count of 0, so the encoder succeeds with a text of length 0 in a 1-byte
    // block rather than failing.
    const char* source = encoded != nullptr ? encoded->data : nullptr;
    if (memcpy_s(text.Get(), textLength, source, textLength) != EOK) {
        DiscardBlock(text, bufferSize);
        chain.reset();
        OVRA_LOG_ERROR_CODE("Call memcpy_s failed.", APP_ERR_ALLOC_FAILED);
        return OvraBase::SE_ERR_MEMCPY;
    }
    *outLength = static_cast<uint32_t>(textLength);
    *outText = text.Release();
    return OvraBase::APP_ERR_OK;
}

int32_t DecodeWithBase64(const char* text, uint32_t textLength, char** outBytes, uint32_t* outLength)
{
    if (text == nullptr || textLength <= 2 || outBytes == nullptr || outLength == nullptr) {
        OVRA_LOG_ERROR_CODE("Invalid parameter.", APP_ERR_INVALID_PARAM);
        return OvraBase::SE_ERR_INVALID_PARAM;
    }

    BioPtr chain(BIO_new(BIO_f_base64()));
    if (chain == nullptr) {
        OVRA_LOG_ERROR_CODE("BIO_new failed.", APP_ERR_GENERAL_FAILED);
        return OvraBase::SE_ERR_RESOURCE;
    }
    BIO_set_flags(chain.get(), BIO_FLAGS_BASE64_NO_NL);
    BIO* source = BIO_new_mem_buf(text, static_cast<int>(textLength));
    if (source == nullptr) {
        OVRA_LOG_ERROR_CODE("BIO_new_mem_buf failed.", APP_ERR_GENERAL_FAILED);
        chain.reset();
        return OvraBase::SE_ERR_RESOURCE;
    }
    BIO_push(chain.get(), source);  // the chain now owns the source as well

    uint32_t padding = 0;
    if (text[textLength - 1] == '=') {
        padding = (text[textLength - 2] == '=') ? 2U : 1U;
    }
    // Three bytes per four characters, less the padding, plus one byte that
    // stays zero behind the data. Computed in 32 bits; the allocator's bound
    // turns away every text whose result is too large.
    const uint32_t size = ((textLength * 3U) >> 2) + 1U - padding;
    CipherMemory bytes(size);
    if (bytes.Get() == nullptr) {
        return OvraBase::SE_ERR_RESOURCE;  // the allocator has logged; the chain goes with this scope
    }

    const int count = BIO_read(chain.get(), bytes.Get(), static_cast<int>(size));
    chain.reset();
    // Valid base64 fills all but the last byte. Text that is not (padding
    // after an incomplete group, as in "QDUJDREU=") can fill the whole block;
    // such a block would lack its terminator and is refused like any other
    // malformed text.
    if (count >= 1 && static_cast<uint32_t>(count) < size) {
        *outBytes = bytes.Release();
        *outLength = static_cast<uint32_t>(count);
        return OvraBase::APP_ERR_OK;
    }
    // Nothing decoded (malformed text) or a read error.
    DiscardBlock(bytes, size);
    OVRA_LOG_ERROR_CODE("BIO_read size not meet the requirements.", APP_ERR_INVALID_PARAM);
    return OvraBase::SE_ERR_INVALID_PARAM;
}
