// SDK log: glog underneath, records formatted and written by our own sink.
//
// glog is started from a library constructor, so records written before
// Log::Init (the command's audit record) already reach standard error in the
// SDK format. glog's own outputs (its log files and its stderr writer, which
// would print the base name of the unit and duplicate every record) are
// switched off; the sink below writes each record once to standard error and,
// after Init, once to the log file.
#include "OvraBase/Log.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "OvraBase/FileUtils.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/base/Log");

namespace OvraBase {

int32_t Log::logFlowControlFrequency_ = 1;

namespace {

constexpr const char* LOGGING_CONF = "/config/logging.conf";
constexpr off_t MAX_CONF_SIZE = 64 * 1024;
constexpr int32_t MAX_FLOW_CONTROL_FREQUENCY = 1000000;
constexpr int32_t MIN_VERBOSITY = -100;
constexpr int32_t MAX_VERBOSITY = 100;
constexpr mode_t LOG_DIR_MODE = 0700;
constexpr mode_t LOG_FILE_MODE = 0600;
// "Logging config loading failed" of the common table.
constexpr int32_t LOG_CONFIG_FAILED = 1027;

// Writes every record once: to standard error when its severity reaches the
// threshold, and to the log file once one is open.
class RecordSink : public google::LogSink {
public:
    using google::LogSink::send;

    void send(google::LogSeverity severity, const char* fullFilename, const char* /*baseFilename*/, int line,
              const google::LogMessageTime& time, const char* message, size_t messageLength) override
    {
        const std::string record = Format(severity, fullFilename, line, time, message, messageLength);
        if (severity >= stderrThreshold_) {
            WriteAll(STDERR_FILENO, record);
        }
        if (fileFd_ >= 0) {
            WriteAll(fileFd_, record);
        }
    }

    int StderrThreshold() const { return stderrThreshold_; }
    void SetStderrThreshold(int threshold) { stderrThreshold_ = threshold; }
    int FileFd() const { return fileFd_; }

    // Takes ownership of `fd`; the previous log file is closed.
    void SetFileFd(int fd)
    {
        if (fileFd_ >= 0) {
            close(fileFd_);
        }
        fileFd_ = fd;
    }

private:
    static std::string Format(google::LogSeverity severity, const char* fullFilename, int line,
                              const google::LogMessageTime& time, const char* message, size_t messageLength)
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
        record.reserve(static_cast<size_t>(headLength > 0 ? headLength : 0) + messageLength + 64);
        if (headLength > 0) {
            record.append(head, static_cast<size_t>(headLength));
        }
        record += fullFilename != nullptr ? fullFilename : "";
        record += ':';
        record += std::to_string(line);
        record += "] ";
        record.append(message, messageLength);
        record += '\n';
        return record;
    }

    static void WriteAll(int fd, const std::string& bytes)
    {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return;  // nowhere to report a failing log output
            }
            done += static_cast<size_t>(n);
        }
    }

    int stderrThreshold_ = google::GLOG_INFO;
    int fileFd_ = -1;
};

// Never destroyed: records may still be written by other units' destructors
// at exit.
RecordSink* Sink()
{
    static RecordSink* sink = new RecordSink();
    return sink;
}

// glog settings that keep its own outputs from duplicating the sink's
// records. Applied at start and again by Init, in case GLOG_* variables of the
// environment changed them.
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

__attribute__((constructor)) void StartLogging()
{
    if (!google::IsGoogleLoggingInitialized()) {
        google::InitGoogleLogging(program_invocation_short_name);
    }
    SilenceGlogOutputs();
    google::AddLogSink(Sink());
}

struct Settings {
    std::string logDir;  // empty: the default directory
    int32_t flowControlFrequency = 1;
    int32_t verbosity = 0;
    int32_t stderrThreshold = google::GLOG_INFO;
};

std::string Trim(const std::string& text)
{
    const char* blanks = " \t\r";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return "";
    }
    const size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

bool ParseInt(const std::string& text, int32_t low, int32_t high, int32_t& value)
{
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = static_cast<int32_t>(parsed);
    return true;
}

bool ApplyLine(const std::string& key, const std::string& value, Settings& settings)
{
    if (key == "log_dir") {
        if (value.empty() || value[0] != '/' || value.size() >= PATH_MAX) {
            return false;
        }
        settings.logDir = value;
        return true;
    }
    if (key == "flow_control_frequency") {
        return ParseInt(value, 1, MAX_FLOW_CONTROL_FREQUENCY, settings.flowControlFrequency);
    }
    if (key == "verbosity") {
        return ParseInt(value, MIN_VERBOSITY, MAX_VERBOSITY, settings.verbosity);
    }
    if (key == "stderr_threshold") {
        return ParseInt(value, google::GLOG_INFO, google::GLOG_FATAL, settings.stderrThreshold);
    }
    return false;
}

// Reads the whole of a small regular file; false when it cannot be read.
bool ReadSmallFile(const std::string& path, std::string& content)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    struct stat st {};
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= MAX_CONF_SIZE;
    char buffer[4096];
    while (ok) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            ok = false;
        } else if (n == 0) {
            break;
        } else {
            content.append(buffer, static_cast<size_t>(n));
            ok = content.size() <= static_cast<size_t>(MAX_CONF_SIZE);
        }
    }
    close(fd);
    return ok;
}

// Settings from logging.conf under the SDK root; the embedded defaults when
// there is no such file. false, with a record saying why, when the file is
// there but cannot be read or holds an unknown key or a bad value.
bool LoadSettings(const char* sdkHome, Settings& settings)
{
    settings = Settings();
    if (sdkHome == nullptr || sdkHome[0] == '\0') {
        return true;
    }
    const std::string path = std::string(sdkHome) + LOGGING_CONF;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
        return true;
    }
    std::string content;
    if (!ReadSmallFile(path, content)) {
        OVRA_LOG_ERROR("Cannot read the logging configuration " << path << "."
                                                                 << GetErrorInfo(APP_ERR_READ_FAILED, ""));
        return false;
    }
    std::map<std::string, bool> seen;
    size_t lineNumber = 0;
    size_t start = 0;
    while (start <= content.size()) {
        size_t end = content.find('\n', start);
        if (end == std::string::npos) {
            end = content.size();
        }
        ++lineNumber;
        const std::string line = Trim(content.substr(start, end - start));
        start = end + 1;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const size_t equals = line.find('=');
        const std::string key = equals == std::string::npos ? line : Trim(line.substr(0, equals));
        const std::string value = equals == std::string::npos ? "" : Trim(line.substr(equals + 1));
        if (equals == std::string::npos || seen.count(key) != 0 || !ApplyLine(key, value, settings)) {
            OVRA_LOG_ERROR("Bad line " << lineNumber << " in the logging configuration " << path << " (key \""
                                       << key << "\"): unknown or repeated key, or invalid value."
                                       << GetErrorInfo(LOG_CONFIG_FAILED, ""));
            return false;
        }
        seen[key] = true;
    }
    return true;
}

std::string HomeDirectory()
{
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/') {
        return home;
    }
    struct passwd record {};
    struct passwd* result = nullptr;
    std::vector<char> work(16384);
    if (getpwuid_r(getuid(), &record, work.data(), work.size(), &result) == 0 && result != nullptr &&
        record.pw_dir != nullptr && record.pw_dir[0] == '/') {
        return record.pw_dir;
    }
    return "";
}

// log_dir from the configuration; else <SDK root>/logs when the SDK root is an
// existing directory; else ~/.ovra/logs (a missing SDK root is reported by the
// steps that need it, not by the log).
std::string LogDirectory(const Settings& settings, const char* sdkHome)
{
    if (!settings.logDir.empty()) {
        return settings.logDir;
    }
    if (sdkHome != nullptr && sdkHome[0] != '\0') {
        struct stat st {};
        if (stat(sdkHome, &st) == 0 && S_ISDIR(st.st_mode)) {
            return std::string(sdkHome) + "/logs";
        }
    }
    const std::string home = HomeDirectory();
    return home.empty() ? std::string() : home + "/.ovra/logs";
}

std::string LogFileName()
{
    const char* program = program_invocation_short_name;
    if (program == nullptr || program[0] == '\0' || std::strchr(program, '/') != nullptr ||
        std::strcmp(program, ".") == 0 || std::strcmp(program, "..") == 0) {
        program = "ovra";
    }
    return std::string(program) + ".log";
}

// Opens (creating when needed) the owner-only log directory and the log file
// in it; -1 when either is missing, a link, not ours or cannot be opened.
int OpenLogFile(const std::string& directory)
{
    if (directory.empty() || !FileUtils::CreateDirectories(directory, LOG_DIR_MODE)) {
        return -1;
    }
    const int dirFd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dirFd < 0) {
        return -1;
    }
    struct stat st {};
    if (fstat(dirFd, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid() ||
        ((st.st_mode & 07777) != LOG_DIR_MODE && fchmod(dirFd, LOG_DIR_MODE) != 0)) {
        close(dirFd);
        return -1;
    }
    int fd = openat(dirFd, LogFileName().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                    LOG_FILE_MODE);
    close(dirFd);
    if (fd >= 0 && fd <= STDERR_FILENO) {
        // Standard streams were closed: keep the log file off their numbers,
        // or records meant for stderr would land in it twice.
        const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        close(fd);
        fd = moved;
    }
    if (fd < 0) {
        return -1;
    }
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != getuid() ||
        ((st.st_mode & 07777) != LOG_FILE_MODE && fchmod(fd, LOG_FILE_MODE) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int32_t Log::Init()
{
    const char* sdkHome = std::getenv("OVRA_SDK_HOME");
    Settings settings;
    if (!LoadSettings(sdkHome, settings)) {
        return LOG_CONFIG_FAILED;
    }
    const std::string directory = LogDirectory(settings, sdkHome);
    const int fd = OpenLogFile(directory);
    if (fd < 0) {
        OVRA_LOG_ERROR("Cannot open the log file in " << directory
                                                      << ", it must be an owner-only directory of the current user."
                                                      << GetErrorInfo(APP_ERR_WRITE_FAILED, ""));
        return APP_ERR_WRITE_FAILED;
    }
    // Everything is checked; only now does the new configuration take effect.
    SilenceGlogOutputs();
    Sink()->SetFileFd(fd);
    Sink()->SetStderrThreshold(settings.stderrThreshold);
    logFlowControlFrequency_ = settings.flowControlFrequency;
    FLAGS_v = settings.verbosity;
    return APP_ERR_OK;
}

void Log::UpdateFileMode()
{
    const int fd = Sink()->FileFd();
    if (fd >= 0) {
        (void)fchmod(fd, LOG_FILE_MODE);
    }
}

}  // namespace OvraBase
