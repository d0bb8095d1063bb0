// Placeholder until this step is built: it fails with a clear record.
#include "ImportChecks.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");

namespace OvraStream {
int32_t CheckServerKey(const char*, const std::string&)
{
    OVRA_RETURN_ERROR("The server key check is not built yet.", OvraBase::APP_ERR_INVALID_PARAM);
}

}  // namespace OvraStream
