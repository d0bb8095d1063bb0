// SDK log: glog underneath, records formatted and written by our own sink.
//
// The pieces, one concern each, under log/:
//   RecordSink    the sink and the record line format
//   GlogStartup   glog's start in an SDK program, its own outputs switched off
//   LogSettings   the logging.conf parser
//   LogDirectory  the choice of the log directory
//   LogFile       the owner-only log directory and file
// This file puts them together: Init takes a new configuration only when
// every piece of it was read and opened, and in a host program only the
// throttling frequency, since glog and its outputs belong to the host.
#include "OvraBase/Log.h"

#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "ResultCode/ResultCode.h"
#include "log/GlogStartup.h"
#include "log/LogDirectory.h"
#include "log/LogFile.h"
#include "log/LogSettings.h"
#include "log/RecordSink.h"

OVRA_LOG_UNIT("src/base/Log");

namespace OvraBase {

int32_t Log::logFlowControlFrequency_ = 1;

void Log::StartProgram(const char* argv0) { LogSetup::StartProgramLogging(argv0); }

int32_t Log::Init()
{
    const char* sdkHome = std::getenv("OVRA_SDK_HOME");
    LogSetup::Settings settings;
    if (!LogSetup::LoadSettings(sdkHome, settings)) {
        return LogSetup::LOG_CONFIG_FAILED;
    }
    if (!LogSetup::ProgramOwnsLog()) {
        logFlowControlFrequency_ = settings.flowControlFrequency;
        return APP_ERR_OK;
    }
    const std::string directory = LogSetup::LogDirectory(settings, sdkHome);
    Basic::UniqueFd file = LogSetup::OpenLogFile(directory);
    if (!file.Valid()) {
        OVRA_LOG_ERROR("Cannot open the log file in " << directory
                                                      << ", it must be an owner-only directory of the current user."
                                                      << GetErrorInfo(APP_ERR_WRITE_FAILED, ""));
        return APP_ERR_WRITE_FAILED;
    }
    // Everything is checked; only now does the new configuration take effect.
    LogSetup::SilenceGlogOutputs();
    LogSetup::Sink()->SetFile(std::move(file));
    LogSetup::Sink()->SetStderrThreshold(settings.stderrThreshold);
    logFlowControlFrequency_ = settings.flowControlFrequency;
    FLAGS_v = settings.verbosity;
    return APP_ERR_OK;
}

void Log::UpdateFileMode()
{
    const int fd = LogSetup::Sink()->FileFd();
    if (fd >= 0) {
        (void)fchmod(fd, LogSetup::LOG_FILE_MODE);
    }
}

}  // namespace OvraBase
