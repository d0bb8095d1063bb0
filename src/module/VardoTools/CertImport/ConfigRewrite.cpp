// Placeholder until this part of the key tool is built: it fails with a clear record.
#include "VardoTools.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
const std::string CA_KEY_KV = "server_key_mm=";
const std::string SERVER_KEY_KEY = "server_key=";
const std::string SERVER_KEY_KV = "server_key=./keys/server.key";
const std::string CA_CRT_KEY = "ca_crt=";
const std::string CA_CRT_KV = "ca_crt=./keys/ca.crt";
const std::string SERVER_CRT_KEY = "server_crt=";
const std::string SERVER_CRT_KV = "server_crt=./keys/server.crt";
const std::string CA_CRL_KEY = "crl=";
const std::string CA_CRL_KV = "crl=./keys/ca.crl";
int32_t VardoTools::ModifyCaKey(const char*, int32_t, int32_t) { return OvraBase::APP_ERR_CONFIG_INVALID; }
int32_t VardoTools::ReadFileToMap(std::ifstream&, LineTable&, const char*, int32_t, int32_t) { return OvraBase::APP_ERR_GENERAL_FAILED; }
int32_t VardoTools::WritePaths(char*, uint32_t, int32_t) { return OvraBase::APP_ERR_GENERAL_FAILED; }
int32_t VardoTools::WritePreparation(int32_t, int32_t) { return OvraBase::APP_ERR_WRITE_FAILED; }
void ClearConfigMap(LineTable& table, uint32_t) { table.clear(); }

}  // namespace OvraStream
