// Placeholder until the base library is built.
#include "OvraBase/Log.h"
namespace OvraBase {
int32_t Log::logFlowControlFrequency_ = 1;
int32_t Log::Init() { return 0; }
void Log::UpdateFileMode() {}
}  // namespace OvraBase
