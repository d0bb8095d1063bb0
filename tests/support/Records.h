// Log records as tests see them: captured in the test's own process, or parsed
// from what a program wrote to standard error or to its log file.
#ifndef VARDO_TEST_SUPPORT_RECORDS_H
#define VARDO_TEST_SUPPORT_RECORDS_H

#include <glog/logging.h>

#include <cstdint>
#include <string>
#include <vector>

namespace VardoTest {

struct Record {
    char severity;  // 'I', 'W', 'E', 'F'
    std::string unit;
    int line;
    std::string message;
    // "<severity letter><message>", e.g. "EInvalid parameter. Error code: ...".
    std::string Tagged() const { return severity + message; }
};

// The records in order as Record::Tagged(); with `severity` or `unit` set, only those of that severity and unit.
std::vector<std::string> Tagged(const std::vector<Record>& records, char severity = 0, const std::string& unit = "");

// An error record as the code writes it: "E", the message, then the text of `code`.
std::string Err(const std::string& message, int32_t code);

// Collects every record written in this process while it lives.
class RecordCapture : public google::LogSink {
public:
    RecordCapture();
    ~RecordCapture() override;
    using google::LogSink::send;
    void send(google::LogSeverity severity, const char* fullFilename, const char* baseFilename, int line,
              const google::LogMessageTime& time, const char* message, size_t length) override;

    // VardoTest::Tagged of the records captured so far.
    std::vector<std::string> Tagged(char severity = 0, const std::string& unit = "") const
    {
        return VardoTest::Tagged(records, severity, unit);
    }
    void Clear() { records.clear(); }

    std::vector<Record> records;
};

// The records in `text`, in order: lines of exactly the shape
// "<L><yyyymmdd> <hh:mm:ss.uuuuuu> <thread> <unit>:<line>] <message>";
// other lines and carriage returns are left out.
std::vector<Record> ParseRecords(const std::string& text);

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_RECORDS_H
