// Placeholder until this part of the security service is built.
#include "SecurityService.h"
#include "ResultCode/ResultCode.h"

int32_t SeInitialize(TagVardoConfig*) { return OvraBase::SE_ERR_NO_SEMKEY; }
int32_t SeFinalize(const TagVardoConfig*) { return 0; }
int32_t SeCheckAndUpdateMk(uint32_t, uint32_t) { return OvraBase::SE_ERR_MK_LIMIT; }
int32_t SeGetCipherDataLen(uint32_t, uint32_t*) { return OvraBase::SE_ERR_INVALID_PARAM; }
int32_t SeUpdateRootKey(void) { return OvraBase::SE_ERR_INVALID_PARAM; }
