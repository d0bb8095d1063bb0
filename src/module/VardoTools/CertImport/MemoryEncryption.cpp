// Placeholder until this part of the security service is built.
#include "SecurityService.h"
#include "ResultCode/ResultCode.h"

int32_t PaskMemEncryptBase64(const EncryptParam*, const char*, uint32_t, char*, uint32_t*) { return OvraBase::SE_ERR_ENCRYPT; }
int32_t PaskMemDecryptBase64(uint32_t, const char*, uint32_t, char*, uint32_t) { return OvraBase::SE_ERR_DECRYPT; }
