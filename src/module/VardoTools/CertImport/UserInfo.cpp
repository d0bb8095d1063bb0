// Who runs the import, for the audit records: the user, the machine and the
// remote host of the terminal session. Problems never fail the caller; they
// are logged as warnings and the part concerned is left out.
#include "UserInfo.h"

#include <pwd.h>
#include <unistd.h>
#include <utmp.h>

#include <safe_mem_lib.h>

#include <cstring>

#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {

namespace {

constexpr size_t HOST_NAME_BUFFER_SIZE = 256;
constexpr size_t PASSWD_BUFFER_SIZE = 1024;
constexpr int MAX_LOGIN_RECORDS = 1024;
// A terminal name is "/dev/" followed by the line that the login records use.
constexpr size_t DEVICE_PREFIX_LENGTH = 5;
constexpr size_t MIN_TTY_NAME_LENGTH = 6;
constexpr size_t MAX_TTY_NAME_LENGTH = 1024;

// Text of a fixed-size field that is not always terminated.
template <size_t N>
std::string FieldText(const char (&field)[N])
{
    return std::string(field, strnlen(field, N));
}

}  // namespace

std::string GetUserInfo()
{
    char hostName[HOST_NAME_BUFFER_SIZE];
    if (memset_s(hostName, sizeof(hostName), 0, sizeof(hostName)) != 0) {
        OVRA_LOG_WARN_CODE("Memset failed for hostname.", OvraBase::APP_ERR_ALLOC_FAILED);
        return "";
    }
    if (gethostname(hostName, sizeof(hostName)) != 0) {
        OVRA_LOG_WARN_CODE("Cannot get the hostname!", OvraBase::APP_ERR_GENERAL_FAILED);
        OvraBase::Log::UpdateFileMode();
        return "";
    }

    struct passwd record {};
    struct passwd* result = nullptr;
    char workBuffer[PASSWD_BUFFER_SIZE];
    if (memset_s(workBuffer, sizeof(workBuffer), 0, sizeof(workBuffer)) != 0) {
        OVRA_LOG_WARN_CODE("Memset failed for buf.", OvraBase::APP_ERR_ALLOC_FAILED);
        return "";
    }
    if (getpwuid_r(getuid(), &record, workBuffer, sizeof(workBuffer), &result) != 0 || result == nullptr ||
        record.pw_name == nullptr) {
        OVRA_LOG_WARN_CODE("Cannot get the username!", OvraBase::APP_ERR_GENERAL_FAILED);
        OvraBase::Log::UpdateFileMode();
        return "";
    }

    std::string info;
    const std::string userName = record.pw_name;
    if (userName.empty()) {
        OVRA_LOG_WARN_CODE("Unknown userName in GetUserInfo function.", OvraBase::APP_ERR_GENERAL_FAILED);
    } else {
        info += " by user: [" + userName + "]";
    }

    const std::string host = FieldText(hostName);
    if (host.empty()) {
        OVRA_LOG_WARN_CODE("Unknown hostName in GetUserInfo function.", OvraBase::APP_ERR_GENERAL_FAILED);
    } else {
        info += " with hostname: [" + host + "]";
    }

    const std::string remoteHost = GetUserHostName();
    if (!remoteHost.empty()) {
        info += " at " + remoteHost;
    }
    return info;
}

std::string GetUserHostName()
{
    if (isatty(STDIN_FILENO) == 0) {
        return "";
    }
    const char* ttyName = ttyname(STDIN_FILENO);
    if (ttyName == nullptr) {
        return "";
    }
    const size_t ttyNameLength = strnlen(ttyName, MAX_TTY_NAME_LENGTH + 1);
    if (ttyNameLength < MIN_TTY_NAME_LENGTH || ttyNameLength > MAX_TTY_NAME_LENGTH) {
        return "";
    }
    const std::string line(ttyName + DEVICE_PREFIX_LENGTH, ttyNameLength - DEVICE_PREFIX_LENGTH);

    // The scan is bounded: when the bound is reached, the last record read is
    // taken as it is, whether it matched or not.
    std::string host;
    setutent();
    for (int recordsRead = 1;; ++recordsRead) {
        const struct utmp* entry = getutent();
        if (entry == nullptr) {
            endutent();
            break;
        }
        if (FieldText(entry->ut_line) == line || recordsRead == MAX_LOGIN_RECORDS) {
            host = FieldText(entry->ut_host);
            endutent();
            break;
        }
    }

    if (host.empty()) {
        OVRA_LOG_WARN("Unknown hostInfo in GetUserHostName function.");
        host = "localhost";
    }
    return host;
}

}  // namespace OvraStream
