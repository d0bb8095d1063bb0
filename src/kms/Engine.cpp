// Placeholder until the key-management engine is built: every call fails.
#include "VardoKms/VardoKms.h"

extern "C" {
int32_t VeInitialize(const TagVardoConfig*) { return VE_ERR_NOT_INITIALIZED; }
int32_t VeFinalize(void) { return VE_ERR_NOT_INITIALIZED; }
int32_t VeCheckAndUpdateMk(uint32_t, uint32_t) { return VE_ERR_NOT_INITIALIZED; }
int32_t VeGetCipherDataLen(uint32_t, uint32_t*) { return VE_ERR_NOT_INITIALIZED; }
int32_t VeUpdateRootKey(void) { return VE_ERR_NOT_INITIALIZED; }
int32_t VardoGetMkCountByDomain(uint32_t) { return -VE_ERR_NOT_INITIALIZED; }
int32_t PaskGetCipherDataLenEx(uint32_t, uint32_t*) { return VE_ERR_NOT_INITIALIZED; }
int32_t PaskEncryptEx(uint32_t, uint32_t, const uint8_t*, uint32_t, uint8_t*, uint32_t*) { return VE_ERR_NOT_INITIALIZED; }
int32_t PaskDecryptEx(uint32_t, const uint8_t*, uint32_t, uint8_t*, uint32_t*) { return VE_ERR_NOT_INITIALIZED; }
}
