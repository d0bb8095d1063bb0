// Placeholder until this part of the key tool is built: it fails with a clear record.
#include "VardoTools.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
const std::string PRIMARY_KSF_PATH = "./keys/vardo.ks";
const std::string STANDBY_KSF_PATH = "./keys/StandbyKsf.ks";
const std::string KEYS_DIRECTORY = "./keys";
VardoTools::VardoTools() : algorithmId(0), serverCfgFile(), storedCipherLength(0) {}
VardoTools::~VardoTools() = default;
int32_t VardoTools::VardoInit(TagVardoConfig&, int32_t) { return OvraBase::APP_ERR_ALLOC_FAILED; }
void VardoTools::ResetCharArray(char*, unsigned long) {}
void VardoTools::ResetDeleteCharArray(char* buffer, unsigned long) { delete[] buffer; }

}  // namespace OvraStream
