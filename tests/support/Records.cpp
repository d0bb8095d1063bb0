// Log records for tests: the in-process capture, the parser of written records, the error helper.
#include "Records.h"

#include <cctype>
#include <sstream>

#include "OvraBase/ErrorInfo.h"

namespace VardoTest {

std::string Err(const std::string& message, int32_t code) { return "E" + message + OvraBase::GetErrorInfo(code, ""); }

RecordCapture::RecordCapture() { google::AddLogSink(this); }

RecordCapture::~RecordCapture() { google::RemoveLogSink(this); }

void RecordCapture::send(google::LogSeverity severity, const char* fullFilename, const char*, int line,
                         const google::LogMessageTime&, const char* message, size_t length)
{
    records.push_back({"IWEF"[severity & 3], fullFilename, line, std::string(message, length)});
}

std::vector<std::string> Tagged(const std::vector<Record>& records, char severity, const std::string& unit)
{
    std::vector<std::string> tagged;
    for (const Record& record : records) {
        if ((severity == 0 || record.severity == severity) && (unit.empty() || record.unit == unit)) {
            tagged.push_back(record.Tagged());
        }
    }
    return tagged;
}

std::vector<Record> ParseRecords(const std::string& text)
{
    const std::string shape = "Xdddddddd dd:dd:dd.dddddd ";  // then the thread id and a blank
    std::vector<Record> records;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        bool ok = line.size() > shape.size() && std::string("IWEF").find(line[0]) != std::string::npos;
        for (size_t i = 1; ok && i < shape.size(); ++i) {
            ok = shape[i] == 'd' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == shape[i];
        }
        const size_t unit = line.find_first_not_of("0123456789", shape.size()) + 1;
        const size_t close = line.find("] ", unit);
        const size_t colon = line.rfind(':', close);
        ok = ok && unit > shape.size() + 1 && line[unit - 1] == ' ' && close != std::string::npos &&
             colon != std::string::npos && colon > unit && colon + 1 < close &&
             line.find_first_not_of("0123456789", colon + 1) == close;
        if (ok) {
            records.push_back({line[0], line.substr(unit, colon - unit), std::stoi(line.substr(colon + 1)),
                               line.substr(close + 2)});
        }
    }
    return records;
}

}  // namespace VardoTest
