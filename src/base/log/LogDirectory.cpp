// The choice of the log directory.
#include "log/LogDirectory.h"

#include <pwd.h>
#include <sys/stat.h>

#include <cstdlib>
#include <vector>

#include "basic/Owner.h"

namespace OvraBase {
namespace LogSetup {
namespace {

std::string HomeDirectory()
{
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/') {
        return home;
    }
    struct passwd record {};
    struct passwd* result = nullptr;
    std::vector<char> work(16384);
    if (getpwuid_r(Basic::RunningUser(), &record, work.data(), work.size(), &result) == 0 && result != nullptr &&
        record.pw_dir != nullptr && record.pw_dir[0] == '/') {
        return record.pw_dir;
    }
    return "";
}

}  // namespace

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

}  // namespace LogSetup
}  // namespace OvraBase
