// Read-only inspection of both key store copies for the operator command.
#include "VardoKms/KeyStoreReport.h"

#include <fcntl.h>
#include <sys/file.h>

#include <new>

#include "KeyStore.h"
#include "Locks.h"
#include "basic/UniqueFd.h"

namespace VardoKms {
namespace {

void Describe(const std::string& path, const CopyReading& reading, CopyReport& report)
{
    report = CopyReport{};
    report.path = path;
    report.health = reading.health;
    report.code = reading.code;
    if (reading.health != CopyHealth::HEALTHY) {
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
            entry.active = key.state == KeyState::ACTIVE;
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
        // Closing the descriptor at the end drops the lock.
        const OvraBase::Basic::UniqueFd lock(open(lockPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
        if (lock.Valid() && FlockRetried(lock.Get(), LOCK_SH) != 0) {
            return VE_ERR_LOCK;
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
