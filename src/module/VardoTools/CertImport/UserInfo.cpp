// Placeholder until the operator identity is built.
#include "UserInfo.h"

namespace OvraStream {
std::string GetUserInfo() { return ""; }
std::string GetUserHostName() { return ""; }
}  // namespace OvraStream
