// The recovery copy of streamserver.conf: writing it before an import's
// first truncation, comparing it with the configuration, restoring from it,
// and the record that tells an operator how to restore by hand.
#include "ConfigRecovery.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>
#include <vector>

#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "VardoTools.h"
#include "basic/AtomicFile.h"
#include "basic/Io.h"
#include "basic/Owner.h"
#include "basic/Path.h"
#include "basic/SecretBuffer.h"
#include "basic/UniqueFd.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
namespace {

using OvraBase::Basic::OwnedByRunningUser;
using OvraBase::Basic::SecureBytes;
using OvraBase::Basic::UniqueFd;

const char RECOVERY_SUFFIX[] = ".recovery";
const char CIPHER_KEY[] = "server_key_mm";
const char WHITE_SPACE[] = " \t\n\v\f\r";
constexpr mode_t OWNER_ONLY = 0600;
constexpr mode_t ANY_MODE = 07777;
constexpr uint32_t CONFIG_FILE_MODE = 0600;
// Far above what the reader accepts (100 lines of under 1000 bytes).
constexpr std::size_t MAX_FILE_BYTES = 1024 * 1024;

enum class Reading { READ, MISSING, REFUSED };

// Reads the whole file at `path`, which must be a regular file of the
// running user with no mode bit outside `maxMode`, never through a link.
Reading ReadOwnFile(const std::string& path, mode_t maxMode, SecureBytes& bytes)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.Valid()) {
        return errno == ENOENT ? Reading::MISSING : Reading::REFUSED;
    }
    struct stat st {};
    if (fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode) || !OwnedByRunningUser(st) ||
        (st.st_mode & ANY_MODE & ~maxMode) != 0 || st.st_size > static_cast<off_t>(MAX_FILE_BYTES)) {
        return Reading::REFUSED;
    }
    // One byte more than its size: a file that grows meanwhile is noticed.
    bytes.assign(static_cast<std::size_t>(st.st_size) + 1, 0);
    std::size_t filled = 0;
    if (!OvraBase::Basic::ReadFull(fd.Get(), bytes.data(), bytes.size(), filled) ||
        filled > static_cast<std::size_t>(st.st_size)) {
        return Reading::REFUSED;
    }
    bytes.resize(filled);
    return Reading::READ;
}

// The lines of `bytes` as views: n line feeds give n + 1 lines, the last one
// empty when the text ends with a line feed.
std::vector<std::string_view> SplitLines(const SecureBytes& bytes)
{
    std::vector<std::string_view> lines;
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    std::size_t start = 0;
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n', start)) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    lines.push_back(text.substr(start));
    return lines;
}

// Where the value of `line` starts when the configuration reader takes the
// line as a server_key_mm setting (just past its first "="), else npos.
std::size_t ValueStart(std::string_view line)
{
    const std::size_t separator = line.find('=');
    // The reader stops at a "#" and, reading C strings, at a zero byte.
    if (separator == std::string_view::npos || line.find_first_of(std::string_view("#\0", 2)) < separator) {
        return std::string_view::npos;
    }
    const std::string_view keyPart = line.substr(0, separator);
    const std::size_t begin = keyPart.find_first_not_of(WHITE_SPACE);
    if (begin == std::string_view::npos) {
        return std::string_view::npos;
    }
    const std::size_t end = keyPart.find_first_of(WHITE_SPACE, begin);
    const std::string_view key = keyPart.substr(begin, end == std::string_view::npos ? end : end - begin);
    return key == CIPHER_KEY ? separator + 1 : std::string_view::npos;
}

// How much of `line` the copy keeps: all of it, or a setting of
// server_key_mm without its value.
std::size_t KeptLength(std::string_view line)
{
    const std::size_t start = ValueStart(line);
    return start == std::string_view::npos ? line.size() : start;
}

bool StartsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

// true when `now` is `copied` (a line of the copy) or a form the rewrite
// gives such a line.
bool LineSurvived(std::string_view copied, std::string_view now)
{
    if (now == copied) {
        return true;
    }
    if (ValueStart(copied) == copied.size() && ValueStart(now) == copied.size() && StartsWith(now, copied)) {
        return true;  // a server_key_mm setting with whatever value it has now
    }
    const struct {
        const std::string& prefix;
        const std::string& replacement;
    } paths[] = {{SERVER_CRT_KEY, SERVER_CRT_KV}, {CA_CRT_KEY, CA_CRT_KV}, {SERVER_KEY_KEY, SERVER_KEY_KV},
                 {CA_CRL_KEY, CA_CRL_KEY},         {CA_CRL_KEY, CA_CRL_KV}};
    for (const auto& path : paths) {
        if (StartsWith(copied, path.prefix) && now == path.replacement) {
            return true;
        }
    }
    return false;
}

bool HoldsEveryLine(const SecureBytes& config, const SecureBytes& copy)
{
    const std::vector<std::string_view> copied = SplitLines(copy);
    const std::vector<std::string_view> now = SplitLines(config);
    if (now.size() < copied.size()) {
        return false;
    }
    for (std::size_t i = 0; i < copied.size(); ++i) {
        if (!LineSurvived(copied[i], now[i])) {
            return false;
        }
    }
    return true;
}

// A single-quoted shell word.
std::string Quoted(const std::string& text)
{
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

// The record of a recovery copy that cannot be trusted or compared.
void LogUnusable(const std::string& configPath)
{
    OVRA_LOG_ERROR_CODE("The recovery copy " << configPath << RECOVERY_SUFFIX << " or the config file " << configPath
                                             << " cannot be used: one is not a regular owner-only file of this user "
                                             << "or cannot be read. Check them and remove the recovery copy.",
                        OvraBase::APP_ERR_GENERAL_FAILED);
}

}  // namespace

std::string RecoveryCopyPath(const std::string& configPath)
{
    return configPath + RECOVERY_SUFFIX;
}

std::string RestoreCommand(const std::string& configPath)
{
    return "cp -- " + Quoted(RecoveryCopyPath(configPath)) + " " + Quoted(configPath);
}

RecoveryState InspectRecoveryCopy(const std::string& configPath)
{
    SecureBytes copy;
    const Reading copyRead = ReadOwnFile(RecoveryCopyPath(configPath), OWNER_ONLY, copy);
    if (copyRead != Reading::READ) {
        return copyRead == Reading::MISSING ? RecoveryState::NO_COPY : RecoveryState::UNUSABLE;
    }
    SecureBytes config;
    const Reading configRead = ReadOwnFile(configPath, ANY_MODE, config);
    if (configRead == Reading::REFUSED) {
        return RecoveryState::UNUSABLE;
    }
    return configRead == Reading::READ && HoldsEveryLine(config, copy) ? RecoveryState::COMPLETE
                                                                        : RecoveryState::INCOMPLETE;
}

InPlaceWrite OverwriteInPlace(const std::string& path, const void* data, std::size_t length, RewriteSync sync)
{
    UniqueFd out(open(path.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC));
    if (!out.Valid()) {
        return InPlaceWrite::OPEN_FAILED;
    }
    if (!OvraBase::Basic::WriteFull(out.Get(), data, length) || (sync == RewriteSync::NOW && fsync(out.Get()) != 0) ||
        !out.Close()) {
        return InPlaceWrite::WRITE_FAILED;
    }
    return InPlaceWrite::WRITTEN;
}

int32_t RecoverInterruptedImport(const std::string& configPath)
{
    const std::string copyPath = RecoveryCopyPath(configPath);
    (void)OvraBase::Basic::RemoveStaleTemporaries(copyPath);
    switch (InspectRecoveryCopy(configPath)) {
        case RecoveryState::NO_COPY:
            return OvraBase::APP_ERR_OK;
        case RecoveryState::COMPLETE:
            // The interrupted import got past its last rewrite.
            if (unlink(copyPath.c_str()) == 0) {
                (void)OvraBase::Basic::SyncDirectory(OvraBase::Basic::DirectoryOf(copyPath).c_str());
                OVRA_LOG_INFO("Removed the recovery copy " << copyPath << " of an earlier import: the config file is "
                                                           "complete.");
            }
            return OvraBase::APP_ERR_OK;
        case RecoveryState::UNUSABLE:
            LogUnusable(configPath);
            return OvraBase::APP_ERR_GENERAL_FAILED;
        case RecoveryState::INCOMPLETE:
            break;
    }
    SecureBytes copy;
    if (ReadOwnFile(copyPath, OWNER_ONLY, copy) != Reading::READ ||
        OverwriteInPlace(configPath, copy.data(), copy.size()) != InPlaceWrite::WRITTEN ||
        !OvraBase::FileUtils::ModifyFilePermission(configPath, CONFIG_FILE_MODE)) {
        OVRA_RETURN_ERROR("Restoring the config file " << configPath << " from its recovery copy failed; restore it "
                                                       << "with: " << RestoreCommand(configPath),
                          OvraBase::APP_ERR_WRITE_FAILED);
    }
    OVRA_LOG_WARN("The config file " << configPath << " was incomplete after an interrupted import; it has been "
                                     << "restored from its recovery copy " << copyPath << ".");
    return OvraBase::APP_ERR_OK;
}

int32_t WriteRecoveryCopy(const std::string& configPath)
{
    const std::string copyPath = RecoveryCopyPath(configPath);
    SecureBytes config;
    SecureBytes copy;
    bool read = ReadOwnFile(configPath, ANY_MODE, config) == Reading::READ;
    if (read) {
        copy.reserve(config.size());
        const std::vector<std::string_view> lines = SplitLines(config);
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::string_view kept = lines[i].substr(0, KeptLength(lines[i]));
            copy.insert(copy.end(), kept.begin(), kept.end());
            if (i + 1 != lines.size()) {
                copy.push_back('\n');
            }
        }
    }
    if (!read || OvraBase::Basic::ReplaceFileAtomically(copyPath, OWNER_ONLY, copy.data(), copy.size(),
                                                       OvraBase::Basic::IsMissingOrOwnRegularFile) != 0) {
        OVRA_RETURN_ERROR("Write the recovery copy " << copyPath << " of the config file failed, the config file is "
                                                     << "not changed.",
                          OvraBase::APP_ERR_WRITE_FAILED);
    }
    return OvraBase::APP_ERR_OK;
}

int32_t ReportFailedWrite(const std::string& configPath)
{
    if (OvraBase::FileUtils::CheckFileExists(RecoveryCopyPath(configPath))) {
        OVRA_RETURN_ERROR("Server config file write failed, the file may be incomplete. Its recovery copy is "
                              << RecoveryCopyPath(configPath) << ": the next import restores it, or restore it with: "
                              << RestoreCommand(configPath) << ".",
                          OvraBase::APP_ERR_CONFIG_INVALID);
    }
    OVRA_RETURN_ERROR("Server config file write failed, the file may be incomplete and has no recovery copy.",
                      OvraBase::APP_ERR_CONFIG_INVALID);
}

int32_t FinishRewrites(const std::string& configPath)
{
    // The rewrites under the copy were not synced one by one; the file is
    // synced once here, and only then is the copy given up.
    UniqueFd config(open(configPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!config.Valid() || fsync(config.Get()) != 0 || !config.Close()) {
        return ReportFailedWrite(configPath);
    }
    const std::string copyPath = RecoveryCopyPath(configPath);
    if (unlink(copyPath.c_str()) != 0 ||
        !OvraBase::Basic::SyncDirectory(OvraBase::Basic::DirectoryOf(copyPath).c_str())) {
        OVRA_LOG_WARN("Remove the recovery copy " << copyPath << " failed; the next import removes it.");
    }
    return OvraBase::APP_ERR_OK;
}

bool VardoTools::CheckConfigRecovery(const std::string& configPath)
{
    const RecoveryState state = InspectRecoveryCopy(configPath);
    if (state == RecoveryState::INCOMPLETE) {
        OVRA_LOG_ERROR("The config file " << configPath << " is empty or incomplete after an interrupted import. The "
                                          << "next import restores it from " << RecoveryCopyPath(configPath)
                                          << "; to restore it now run: " << RestoreCommand(configPath)
                                          << " and import the certificates again.");
    } else if (state == RecoveryState::UNUSABLE) {
        LogUnusable(configPath);
    }
    return state == RecoveryState::NO_COPY || state == RecoveryState::COMPLETE;
}

}  // namespace OvraStream
