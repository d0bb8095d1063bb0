// Placeholder until this part of the security service is built.
#include "SecurityService.h"
#include "ResultCode/ResultCode.h"

char* AllocBase64CipherMemory(int32_t) { return nullptr; }
void FreeBase64CipherMemory(char*) {}
void ResetFreeBase64CipherMemory(char*, uint32_t) {}
int32_t EncodeWithBase64(const char*, uint32_t, char**, uint32_t*) { return OvraBase::SE_ERR_RESOURCE; }
int32_t DecodeWithBase64(const char*, uint32_t, char**, uint32_t*) { return OvraBase::SE_ERR_RESOURCE; }
