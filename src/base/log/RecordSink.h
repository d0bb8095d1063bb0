// The sink that writes every log record of the process, in the SDK's line
// format, to standard error and to the log file.
#ifndef OVRA_BASE_LOG_RECORD_SINK_H
#define OVRA_BASE_LOG_RECORD_SINK_H

#include <glog/logging.h>

#include <cstddef>
#include <string>
#include <utility>

#include "basic/UniqueFd.h"

namespace OvraBase {
namespace LogSetup {

// Writes every record once: to standard error when its severity reaches the
// threshold, and to the log file once one is open.
class RecordSink : public google::LogSink {
public:
    using google::LogSink::send;

    void send(google::LogSeverity severity, const char* fullFilename, const char* baseFilename, int line,
              const google::LogMessageTime& time, const char* message, std::size_t messageLength) override;

    int StderrThreshold() const { return stderrThreshold_; }
    void SetStderrThreshold(int threshold) { stderrThreshold_ = threshold; }
    int FileFd() const { return file_.Get(); }
    // Takes ownership of `file`; the previous log file is closed.
    void SetFile(Basic::UniqueFd file) { file_ = std::move(file); }

private:
    int stderrThreshold_ = google::GLOG_INFO;
    Basic::UniqueFd file_;
};

// One line: "<L><yyyymmdd> <hh:mm:ss.uuuuuu> <thread id> <unit>:<line>] <message>\n".
std::string FormatRecord(google::LogSeverity severity, const char* fullFilename, int line,
                         const google::LogMessageTime& time, const char* message, std::size_t messageLength);

// The process's one sink. Never destroyed: records may still be written by
// other units' destructors at exit.
RecordSink* Sink();

}  // namespace LogSetup
}  // namespace OvraBase

#endif  // OVRA_BASE_LOG_RECORD_SINK_H
