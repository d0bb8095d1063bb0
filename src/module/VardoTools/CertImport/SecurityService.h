/*
 * Security service: exported plain-name functions of libvardotools.so over the
 * key-management engine.
 *
 *   base64 cipher buffers   AllocBase64CipherMemory .. DecodeWithBase64
 *   memory encryption       PaskMemEncryptBase64, PaskMemDecryptBase64
 *   engine lifecycle        SeInitialize .. SeUpdateRootKey
 *
 * Results are 0 or the service's codes 6004..6036 (ResultCode.h); codes of the
 * engine are passed back unchanged. Usable from C.
 */
#ifndef VARDO_TOOLS_CERT_IMPORT_SECURITY_SERVICE_H
#define VARDO_TOOLS_CERT_IMPORT_SECURITY_SERVICE_H

#include <stdint.h>

#include "OvraBase/Export.h"
#include "VardoKms/VardoKms.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Parameters of PaskMemEncryptBase64. */
typedef struct EncryptParam {
    uint32_t algorithmId; /* 8 or 9 */
    uint32_t domainId;    /* key domain; the key tool uses 0 */
} EncryptParam;

/* Largest block AllocBase64CipherMemory hands out, and largest encoder input. */
#define BASE64_CIPHER_MEMORY_MAX 10240
#define BASE64_ENCODE_INPUT_MAX 5120

/* A zero-filled heap block of 1..10240 bytes, or NULL. */
OVRA_EXPORT char* AllocBase64CipherMemory(int32_t size);
/* Frees without wiping (NULL is ignored). */
OVRA_EXPORT void FreeBase64CipherMemory(char* buffer);
/* Zeroes the first `length` bytes, then frees (NULL is ignored). */
OVRA_EXPORT void ResetFreeBase64CipherMemory(char* buffer, uint32_t length);
/* One-line base64 of `inputLength` (<= 5120) bytes into a new buffer whose
 * byte after the text is 0. */
OVRA_EXPORT int32_t EncodeWithBase64(const char* input, uint32_t inputLength, char** outText, uint32_t* outLength);
/* Bytes of a one-line base64 text (> 2 characters) into a new buffer with a 0
 * byte after the data. */
OVRA_EXPORT int32_t DecodeWithBase64(const char* text, uint32_t textLength, char** outBytes, uint32_t* outLength);

/* Encrypts `plain` with the engine and writes the base64 text (not
 * terminated) into `cipherText`. *cipherTextLength: capacity in (at least
 * twice the engine's cipher size), text length out. */
OVRA_EXPORT int32_t PaskMemEncryptBase64(const EncryptParam* params, const char* plain, uint32_t plainLength, char* cipherText,
                             uint32_t* cipherTextLength);
/* Decodes and decrypts `cipherText` into the caller's zero-filled `plain`. */
OVRA_EXPORT int32_t PaskMemDecryptBase64(uint32_t domainId, const char* cipherText, uint32_t cipherTextLength, char* plain,
                             uint32_t plainCapacity);

/* Picks a free System V semaphore key (0x20161111..0x20169998) into
 * record->semKey, then starts the engine. The one search for the engine's
 * semaphore key: the key tool and vardo-keys both start the engine here. */
OVRA_EXPORT int32_t SeInitialize(TagVardoConfig* record);
/* Removes the record's semaphore set, then stops the engine. */
OVRA_EXPORT int32_t SeFinalize(const TagVardoConfig* record);
/* Refuses a domain with 100 or more master keys, else forwards to the engine. */
OVRA_EXPORT int32_t SeCheckAndUpdateMk(uint32_t domainId, uint32_t value);
OVRA_EXPORT int32_t SeGetCipherDataLen(uint32_t plainLength, uint32_t* cipherLength);
OVRA_EXPORT int32_t SeUpdateRootKey(void);

#ifdef __cplusplus
}
#endif

#endif /* VARDO_TOOLS_CERT_IMPORT_SECURITY_SERVICE_H */
