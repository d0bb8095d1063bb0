// Placeholder until this part of the key tool is built: it fails with a clear record.
#include "VardoTools.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
bool VardoTools::CheckKsValid(const std::string&) { return false; }
int32_t VardoTools::CheckPaskId(int32_t) { return OvraBase::APP_ERR_INVALID_PARAM; }
int32_t VardoTools::EncryptInit(TagVardoConfig&)
{
    OVRA_RETURN_ERROR("Key store start-up is not built yet.", OvraBase::APP_ERR_GENERAL_FAILED);
}

}  // namespace OvraStream
