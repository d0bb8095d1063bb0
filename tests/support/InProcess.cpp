#include "InProcess.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

#include "TestTree.h"

namespace VardoTest {

RecordCapture::RecordCapture() { google::AddLogSink(this); }

RecordCapture::~RecordCapture() { google::RemoveLogSink(this); }

void RecordCapture::send(google::LogSeverity severity, const char* fullFilename, const char*, int,
                         const google::LogMessageTime&, const char* message, size_t length)
{
    static const char letters[] = "IWEF";
    records.push_back({letters[severity & 3], fullFilename, std::string(message, length)});
}

std::vector<std::string> RecordCapture::Messages(char severity) const
{
    std::vector<std::string> messages;
    for (const auto& record : records) {
        if (severity == 0 || record.severity == severity) {
            messages.push_back(record.message);
        }
    }
    return messages;
}

std::vector<std::string> RecordCapture::Tagged() const
{
    std::vector<std::string> tagged;
    for (const auto& record : records) {
        tagged.push_back(std::string(1, record.severity) + record.message);
    }
    return tagged;
}

int RunAsUnprivileged(const std::function<int()>& body)
{
    const auto user = UnprivilegedUser();
    if (!user) {
        ADD_FAILURE() << "no unprivileged test user could be made";
        return -1;
    }
    const pid_t child = fork();
    if (child < 0) {
        return -1;
    }
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(user->gid) != 0 || setuid(user->uid) != 0) {
            _exit(254);
        }
        _exit(body() & 0xff);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

ScratchDir::ScratchDir(bool enter)
{
    char pattern[] = "/tmp/vardo-test.XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed";
        return;
    }
    path_ = pattern;
    if (enter) {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof(cwd)) != nullptr && chdir(path_.c_str()) == 0) {
            previous_ = cwd;
        }
    }
}

ScratchDir::~ScratchDir()
{
    if (!previous_.empty() && chdir(previous_.c_str()) != 0) {
        ADD_FAILURE() << "cannot return to " << previous_;
    }
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace VardoTest
