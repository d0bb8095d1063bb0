// glog's start in an SDK program, and the settings that keep glog's own
// outputs from duplicating the records of the SDK's sink. A host program's
// glog is never touched.
#ifndef OVRA_BASE_LOG_GLOG_STARTUP_H
#define OVRA_BASE_LOG_GLOG_STARTUP_H

namespace OvraBase {
namespace LogSetup {

// Log::StartProgram: initialises glog unless it is initialised already,
// silences glog's own outputs and adds the record sink, once per process.
void StartProgramLogging(const char* argv0);

// true once StartProgramLogging has run: this program owns the SDK log.
bool ProgramOwnsLog();

// Switches off glog's own log files and its stderr writer (which would print
// the base name of the unit and duplicate every record). Applied at the
// program's start and again by Log::Init, in case GLOG_* variables of the
// environment changed them. Only for an SDK program.
void SilenceGlogOutputs();

}  // namespace LogSetup
}  // namespace OvraBase

#endif  // OVRA_BASE_LOG_GLOG_STARTUP_H
