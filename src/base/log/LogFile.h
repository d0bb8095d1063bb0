// Opening the log file: an owner-only directory of the running user (0700)
// holding "<program name>.log" (0600), neither reached through a link.
#ifndef OVRA_BASE_LOG_LOG_FILE_H
#define OVRA_BASE_LOG_LOG_FILE_H

#include <sys/types.h>

#include <string>

#include "basic/UniqueFd.h"

namespace OvraBase {
namespace LogSetup {

constexpr mode_t LOG_DIR_MODE = 0700;
constexpr mode_t LOG_FILE_MODE = 0600;

// Creates the directory when needed and opens the log file in it for
// appending, setting both modes; an invalid descriptor when either is
// missing, a link, not the running user's or cannot be opened.
Basic::UniqueFd OpenLogFile(const std::string& directory);

}  // namespace LogSetup
}  // namespace OvraBase

#endif  // OVRA_BASE_LOG_LOG_FILE_H
