// VeErrorText: the engine's result codes in words, for operators' messages.
#include "VardoKms/VardoKms.h"

const char* VeErrorText(int32_t code)
{
    switch (code) {
        case VE_OK: return "success";
        case VE_ERR_NOT_INITIALIZED: return "the key engine is not running";
        case VE_ERR_ALREADY_INITIALIZED: return "the key engine is running already";
        case VE_ERR_INVALID_CONFIG: return "the engine record is malformed";
        case VE_ERR_INVALID_PARAM: return "an invalid parameter";
        case VE_ERR_STORE_IO: return "a key store could not be read or written";
        case VE_ERR_STORE_DAMAGED: return "both key store copies are damaged";
        case VE_ERR_STORE_UNSAFE: return "a key store is a link, of another owner, or wider than 0600";
        case VE_ERR_LOCK: return "the semaphore set or a store lock could not be taken";
        case VE_ERR_CRYPTO: return "an OpenSSL primitive failed";
        case VE_ERR_AUTH: return "the cipher text failed authentication";
        case VE_ERR_BUFFER_TOO_SMALL: return "the output buffer is too small";
        case VE_ERR_UNKNOWN_KEY: return "no master key with the cipher text's id";
        case VE_ERR_FORMAT: return "the cipher text is truncated or of an unknown format";
        case VE_ERR_NO_MEMORY: return "out of memory";
        case VE_ERR_MK_LIMIT: return "the domain cannot hold more master keys";
        case VE_ERR_INTERNAL: return "an unexpected internal failure";
        default: return "unknown code";
    }
}
