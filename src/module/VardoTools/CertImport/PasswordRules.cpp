// Placeholder until this step is built: it fails with a clear record.
#include "ImportChecks.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");

namespace OvraStream {
const char* const LIB_FILE_PATH = "../../../lib/libvardotools.so";
bool CheckLibFile() { OVRA_LOG_ERROR("The library file check is not built yet."); return false; }
bool CheckPasswordRules(const char*) { OVRA_LOG_ERROR("The pass phrase rules are not built yet."); return false; }

}  // namespace OvraStream
