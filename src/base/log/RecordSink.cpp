// The record sink and the SDK's record line format.
#include "log/RecordSink.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "basic/Io.h"

namespace OvraBase {
namespace LogSetup {

std::string FormatRecord(google::LogSeverity severity, const char* fullFilename, int line,
                         const google::LogMessageTime& time, const char* message, std::size_t messageLength)
{
    static const char letters[] = "IWEF";
    const char letter = (severity >= 0 && severity < 4) ? letters[severity] : 'F';
    const std::tm& tm = time.tm();
    char head[96];
    const int headLength = std::snprintf(head, sizeof(head), "%c%04d%02d%02d %02d:%02d:%02d.%06d %ld ", letter,
                                         tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                                         tm.tm_sec, static_cast<int>(time.usec()),
                                         static_cast<long>(syscall(SYS_gettid)));
    std::string record;
    record.reserve(static_cast<std::size_t>(headLength > 0 ? headLength : 0) + messageLength + 64);
    if (headLength > 0) {
        record.append(head, static_cast<std::size_t>(headLength));
    }
    record += fullFilename != nullptr ? fullFilename : "";
    record += ':';
    record += std::to_string(line);
    record += "] ";
    record.append(message, messageLength);
    record += '\n';
    return record;
}

void RecordSink::send(google::LogSeverity severity, const char* fullFilename, const char* /*baseFilename*/, int line,
                      const google::LogMessageTime& time, const char* message, std::size_t messageLength)
{
    const std::string record = FormatRecord(severity, fullFilename, line, time, message, messageLength);
    // A failing log output has nowhere to be reported; the record is dropped.
    if (severity >= stderrThreshold_) {
        (void)Basic::WriteFull(STDERR_FILENO, record.data(), record.size());
    }
    if (file_.Valid()) {
        (void)Basic::WriteFull(file_.Get(), record.data(), record.size());
    }
}

RecordSink* Sink()
{
    static RecordSink* sink = new RecordSink();
    return sink;
}

}  // namespace LogSetup
}  // namespace OvraBase
