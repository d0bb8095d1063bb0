// Placeholder until this part of the key tool is built: it fails with a clear record.
#include "VardoTools.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
int32_t VardoTools::DecryptCaPassword(const char*, char**, unsigned long&, int32_t)
{
    OVRA_RETURN_ERROR("Pass phrase decryption is not built yet.", OvraBase::APP_ERR_GENERAL_FAILED);
}

}  // namespace OvraStream
