// The log settings and their file, $OVRA_SDK_HOME/config/logging.conf:
// "key=value" lines, "#" starting a comment line, each key at most once.
#ifndef OVRA_BASE_LOG_LOG_SETTINGS_H
#define OVRA_BASE_LOG_LOG_SETTINGS_H

#include <glog/logging.h>

#include <cstdint>
#include <string>

namespace OvraBase {
namespace LogSetup {

// The result of a logging.conf that cannot be used: "Logging config loading
// failed" of the common table.
constexpr int32_t LOG_CONFIG_FAILED = 1027;

struct Settings {
    std::string logDir;  // empty: the default directory
    int32_t flowControlFrequency = 1;
    int32_t verbosity = 0;
    int32_t stderrThreshold = google::GLOG_INFO;
};

// Settings from logging.conf under the SDK root; the embedded defaults when
// there is no SDK root or no such file. false, with a record saying why, when
// the file is there but cannot be read or holds an unknown or repeated key or
// a bad value.
bool LoadSettings(const char* sdkHome, Settings& settings);

}  // namespace LogSetup
}  // namespace OvraBase

#endif  // OVRA_BASE_LOG_LOG_SETTINGS_H
