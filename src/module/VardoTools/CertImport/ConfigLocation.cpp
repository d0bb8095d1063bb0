// Placeholder until this part of the key tool is built: it fails with a clear record.
#include "VardoTools.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
int32_t VardoTools::GetConfigFile() { return OvraBase::APP_ERR_GENERAL_FAILED; }
int32_t VardoTools::CheckConfigFileAndAssign(std::string&) { return OvraBase::APP_ERR_INVALID_PARAM; }
int32_t VardoTools::CheckDirectoryKeys()
{
    OVRA_RETURN_ERROR("The keys directory check is not built yet.", OvraBase::APP_ERR_GENERAL_FAILED);
}

}  // namespace OvraStream
