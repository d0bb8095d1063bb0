// glog is started from a library constructor, so records written before
// Log::Init (the command's audit record) already reach standard error in the
// SDK format through the record sink.
#include "log/GlogStartup.h"

#include <errno.h>
#include <glog/logging.h>

#include "log/RecordSink.h"

namespace OvraBase {
namespace LogSetup {

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

namespace {

__attribute__((constructor)) void StartLogging()
{
    if (!google::IsGoogleLoggingInitialized()) {
        google::InitGoogleLogging(program_invocation_short_name);
    }
    SilenceGlogOutputs();
    google::AddLogSink(Sink());
}

}  // namespace
}  // namespace LogSetup
}  // namespace OvraBase
