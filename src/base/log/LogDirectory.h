// Where the log file goes.
#ifndef OVRA_BASE_LOG_LOG_DIRECTORY_H
#define OVRA_BASE_LOG_LOG_DIRECTORY_H

#include <string>

#include "log/LogSettings.h"

namespace OvraBase {
namespace LogSetup {

// log_dir of the settings; else <SDK root>/logs when the SDK root is an
// existing directory; else ~/.ovra/logs of the running user; empty when there
// is no home either. A missing SDK root is reported by the steps that need
// it, not by the log.
std::string LogDirectory(const Settings& settings, const char* sdkHome);

}  // namespace LogSetup
}  // namespace OvraBase

#endif  // OVRA_BASE_LOG_LOG_DIRECTORY_H
