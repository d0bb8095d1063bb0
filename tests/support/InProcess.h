// Helpers for tests that call the code in their own process: capture the log
// records it writes, run a piece of it as the unprivileged test user, and work
// in a scratch directory.
#ifndef VARDO_TEST_SUPPORT_IN_PROCESS_H
#define VARDO_TEST_SUPPORT_IN_PROCESS_H

#include <glog/logging.h>

#include <functional>
#include <string>
#include <vector>

namespace VardoTest {

// Collects every record written while it lives.
class RecordCapture : public google::LogSink {
public:
    struct Record {
        char severity;  // 'I', 'W', 'E'
        std::string unit;
        std::string message;
    };
    RecordCapture();
    ~RecordCapture() override;
    using google::LogSink::send;
    void send(google::LogSeverity severity, const char* fullFilename, const char* baseFilename, int line,
              const google::LogMessageTime& time, const char* message, size_t length) override;

    // Messages in order; with `severity` set, only records of that severity.
    std::vector<std::string> Messages(char severity = 0) const;
    // "<severity letter><message>" in order, e.g. "EInvalid parameter. Error code: ...".
    std::vector<std::string> Tagged() const;
    void Clear() { records.clear(); }

    std::vector<Record> records;
};

// Runs `body` in a forked child that has dropped to the unprivileged test user
// (root ignores permission bits, so refusals must be shown this way). Returns
// the value `body` returned (0..255), or -1 when the child could not run or
// crashed. The test is skipped when no such user can be had.
int RunAsUnprivileged(const std::function<int()>& body);

// A fresh directory under /tmp, removed with everything in it at destruction.
// With `enter` true it is also the working directory while it lives.
class ScratchDir {
public:
    explicit ScratchDir(bool enter = false);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
    std::string previous_;
};

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_IN_PROCESS_H
