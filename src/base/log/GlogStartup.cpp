// glog's start in an SDK program. It happens only when the program asks for
// it (Log::StartProgram at the top of its main), never when a library is
// loaded: a host program that initialises glog itself, before or after
// loading the libraries, must not find it initialised or redirected.
#include "log/GlogStartup.h"

#include <errno.h>
#include <glog/logging.h>

#include "log/RecordSink.h"

namespace OvraBase {
namespace LogSetup {
namespace {

// Set once, from main, before anything else runs: one thread.
bool g_programOwnsLog = false;

}  // namespace

void SilenceGlogOutputs()
{
    FLAGS_logtostderr = false;
    FLAGS_logtostdout = false;
    FLAGS_alsologtostderr = false;
    FLAGS_stderrthreshold = google::NUM_SEVERITIES;  // glog itself never writes to stderr
    FLAGS_minloglevel = google::GLOG_INFO;
    for (int severity = 0; severity < google::NUM_SEVERITIES; ++severity) {
        google::SetLogDestination(severity, "");  // "" means no glog log file
    }
}

void StartProgramLogging(const char* argv0)
{
    if (g_programOwnsLog) {
        return;
    }
    if (!google::IsGoogleLoggingInitialized()) {
        google::InitGoogleLogging(argv0 != nullptr ? argv0 : program_invocation_short_name);
    }
    SilenceGlogOutputs();
    google::AddLogSink(Sink());
    g_programOwnsLog = true;
}

bool ProgramOwnsLog() { return g_programOwnsLog; }

}  // namespace LogSetup
}  // namespace OvraBase
