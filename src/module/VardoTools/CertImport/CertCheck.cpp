// Placeholder until this step is built: it fails with a clear record.
#include "ImportChecks.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");

namespace OvraStream {
int32_t CheckCrtFiles(const std::string&, const std::string&)
{
    OVRA_RETURN_ERROR("The certificate check is not built yet.", OvraBase::APP_ERR_INVALID_PARAM);
}
int32_t CheckCaCrtFingerprint(X509*) { return OvraBase::APP_ERR_INVALID_PARAM; }
bool CheckCertTime(X509*) { return true; }
int32_t CheckServerCrtAlgorithm(X509*) { return OvraBase::APP_ERR_INVALID_PARAM; }

}  // namespace OvraStream
