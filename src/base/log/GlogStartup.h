// glog's start at library load and the settings that keep glog's own outputs
// from duplicating the records of the SDK's sink.
#ifndef OVRA_BASE_LOG_GLOG_STARTUP_H
#define OVRA_BASE_LOG_GLOG_STARTUP_H

namespace OvraBase {
namespace LogSetup {

// Switches off glog's own log files and its stderr writer (which would print
// the base name of the unit and duplicate every record). Applied at start and
// again by Log::Init, in case GLOG_* variables of the environment changed them.
void SilenceGlogOutputs();

}  // namespace LogSetup
}  // namespace OvraBase

#endif  // OVRA_BASE_LOG_GLOG_STARTUP_H
