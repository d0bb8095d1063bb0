// Placeholder until the configuration reader is built.
#include "Internal/OvraStream/StreamConfig/SecureConfig.h"

#include "ResultCode/ResultCode.h"

namespace OvraStream {
int32_t SecureConfig::LoadConfig(std::string) { return OvraBase::APP_ERR_INVALID_PARAM; }
int32_t SecureConfig::ReadConfig(std::ifstream&) { return OvraBase::APP_ERR_CONFIG_INVALID; }
template <typename T>
int32_t SecureConfig::GetValue(const std::string&, T&) const { return OvraBase::APP_ERR_NOT_EXIST; }
bool SecureConfig::HasKey(const std::string&) const { return false; }
void SecureConfig::ClearConfig() { configMap_.clear(); }
template int32_t SecureConfig::GetValue<int32_t>(const std::string&, int32_t&) const;
template int32_t SecureConfig::GetValue<int64_t>(const std::string&, int64_t&) const;
template int32_t SecureConfig::GetValue<uint32_t>(const std::string&, uint32_t&) const;
template int32_t SecureConfig::GetValue<bool>(const std::string&, bool&) const;
}  // namespace OvraStream
