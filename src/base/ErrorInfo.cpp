// Placeholder until the base library is built.
#include "OvraBase/ErrorInfo.h"
namespace OvraBase {
std::string GetErrorInfo(int32_t code, const std::string&) { return " Error code: " + std::to_string(code); }
}  // namespace OvraBase
