// The logging.conf parser.
#include "log/LogSettings.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>

#include <cstdlib>
#include <set>

#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "basic/Io.h"
#include "basic/UniqueFd.h"

OVRA_LOG_UNIT("src/base/Log");

namespace OvraBase {
namespace LogSetup {
namespace {

constexpr const char* LOGGING_CONF = "/config/logging.conf";
constexpr off_t MAX_CONF_SIZE = 64 * 1024;
constexpr int32_t MAX_FLOW_CONTROL_FREQUENCY = 1000000;
constexpr int32_t MIN_VERBOSITY = -100;
constexpr int32_t MAX_VERBOSITY = 100;

std::string Trim(const std::string& text)
{
    const char* blanks = " \t\r";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return "";
    }
    const std::size_t last = text.find_last_not_of(blanks);
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

// Reads the whole of a small regular file; false when it cannot be read or
// is (or grows) larger than MAX_CONF_SIZE.
bool ReadSmallFile(const std::string& path, std::string& content)
{
    Basic::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat st {};
    if (!fd.Valid() || fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > MAX_CONF_SIZE) {
        return false;
    }
    content.assign(static_cast<std::size_t>(MAX_CONF_SIZE) + 1, '\0');
    std::size_t filled = 0;
    if (!Basic::ReadFull(fd.Get(), &content[0], content.size(), filled) ||
        filled > static_cast<std::size_t>(MAX_CONF_SIZE)) {
        return false;
    }
    content.resize(filled);
    return true;
}

// Applies every line of `content`; false, with a record naming the line,
// at the first bad one.
bool ParseSettings(const std::string& path, const std::string& content, Settings& settings)
{
    std::set<std::string> seen;
    std::size_t lineNumber = 0;
    std::size_t start = 0;
    while (start <= content.size()) {
        std::size_t end = content.find('\n', start);
        if (end == std::string::npos) {
            end = content.size();
        }
        ++lineNumber;
        const std::string line = Trim(content.substr(start, end - start));
        start = end + 1;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t equals = line.find('=');
        const std::string key = equals == std::string::npos ? line : Trim(line.substr(0, equals));
        const std::string value = equals == std::string::npos ? "" : Trim(line.substr(equals + 1));
        if (equals == std::string::npos || seen.count(key) != 0 || !ApplyLine(key, value, settings)) {
            OVRA_LOG_ERROR("Bad line " << lineNumber << " in the logging configuration " << path << " (key \""
                                       << key << "\"): unknown or repeated key, or invalid value."
                                       << GetErrorInfo(LOG_CONFIG_FAILED, ""));
            return false;
        }
        seen.insert(key);
    }
    return true;
}

}  // namespace

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
    return ParseSettings(path, content, settings);
}

}  // namespace LogSetup
}  // namespace OvraBase
