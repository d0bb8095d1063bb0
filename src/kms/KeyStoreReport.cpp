// Read-only inspection of both key store copies for the operator command.
#include "VardoKms/KeyStoreReport.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "KeyStore.h"

namespace VardoKms {
namespace {

struct LockFd {
    int fd;
    ~LockFd()
    {
        if (fd >= 0) {
            close(fd);  // drops the shared lock too
        }
    }
};

void Describe(const std::string& path, const CopyReading& reading, CopyReport& report)
{
    report = CopyReport{};
    report.path = path;
    report.health = HealthText(reading.health);
    report.code = reading.code;
    if (reading.health != CopyHealth::Healthy) {
        return;
    }
    report.generation = reading.content.generation;
    report.rootVersion = reading.content.rootVersion;
    for (const auto& domain : reading.content.domains) {
        for (const MasterKey& key : domain.second.keys) {
            MasterKeyReport entry;
            entry.domainId = domain.first;
            entry.keyId = key.id;
            entry.created = key.created;
            entry.expires = key.expires;
            entry.active = key.state == KeyState::Active;
            report.keys.push_back(entry);
        }
    }
}

}  // namespace

int32_t InspectKeyStores(const std::string& primary, const std::string& standby, CopyReport& primaryReport,
                         CopyReport& standbyReport) noexcept
{
    try {
        // Shared lock when engines have used this store: writers hold it exclusively.
        const std::string lockPath = primary + ".lock";
        const LockFd lock{open(lockPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY)};
        if (lock.fd >= 0) {
            int rc;
            do {
                rc = flock(lock.fd, LOCK_SH);
            } while (rc != 0 && errno == EINTR);
            if (rc != 0) {
                return VE_ERR_LOCK;
            }
        }
        CopyReading reading;
        ReadCopy(primary, reading);
        Describe(primary, reading, primaryReport);
        ReadCopy(standby, reading);
        Describe(standby, reading, standbyReport);
        return VE_OK;
    } catch (const std::bad_alloc&) {
        return VE_ERR_NO_MEMORY;
    } catch (...) {
        return VE_ERR_INTERNAL;
    }
}

}  // namespace VardoKms
