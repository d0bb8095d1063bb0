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

using OvraBase::Basic::UniqueFd;

constexpr std::size_t READ_BLOCK = 64 * 1024;

// The other copy, compared with the one walked.
struct Mirror {
    explicit Mirror(const std::string& otherPath) : path(otherPath) { file.buffer.resize(READ_BLOCK); }
    std::string path;
    MirrorFile file;
    bool same = false;
};

// Takes what a report shows of a copy from its image as it is walked.
class ReportBuilder : public ImageVisitor {
public:
    ReportBuilder(CopyReport& report, bool listKeys) : report_(report), listKeys_(listKeys) {}
    int32_t Header(uint64_t generation, uint32_t rootVersion, const uint8_t*) override
    {
        report_.generation = generation;
        report_.rootVersion = rootVersion;
        return VE_OK;
    }
    int32_t DomainStart(uint32_t, uint32_t) override { return VE_OK; }
    int32_t Key(uint32_t domainId, const uint8_t* record) override
    {
        report_.keyCount += 1;
        if (listKeys_) {
            const KeyInfo info = RecordInfo(record);
            MasterKeyReport entry;
            entry.domainId = domainId;
            entry.keyId = info.id;
            entry.created = info.created;
            entry.expires = info.expires;
            entry.active = info.state == KeyState::ACTIVE;
            report_.keys.push_back(entry);
        }
        return VE_OK;
    }

private:
    CopyReport& report_;
    bool listKeys_;
};

// Walks one copy through `buffer`: its health, header and key count, and
// its keys when `listKeys`. With a `mirror` (the other copy, opened), also
// whether that one holds the same bytes.
void WalkCopy(const std::string& path, bool listKeys, SecureBytes& buffer, CopyReport& report,
              Mirror* mirror = nullptr)
{
    report = CopyReport{};
    report.path = path;
    UniqueFd fd;
    std::size_t size = 0;
    bool exists = false;
    int32_t rc = OpenCopy(path, fd, size, exists);
    if (mirror != nullptr) {
        mirror->same = false;
    }
    if (rc == VE_OK && exists) {
        CopyReport walked = report;
        if (listKeys) {
            walked.keys.reserve(size / KEY_RECORD_SIZE);  // at least one record per key: never grows
        }
        ReportBuilder builder(walked, listKeys);
        UniqueFd other;
        std::size_t otherSize = 0;
        bool otherExists = false;
        if (mirror != nullptr && OpenCopy(mirror->path, other, otherSize, otherExists) == VE_OK && otherExists &&
            otherSize == size) {
            mirror->file.fd = other.Get();
            mirror->file.same = true;
        }
        rc = WalkImageFile(fd.Get(), size, buffer, builder, mirror != nullptr ? &mirror->file : nullptr);
        if (mirror != nullptr) {
            mirror->same = rc == VE_OK && mirror->file.fd >= 0 && mirror->file.same;
            mirror->file.fd = -1;
        }
        if (rc == VE_OK) {
            report = std::move(walked);
        }
    }
    report.code = rc;
    report.health = HealthOf(rc, exists);
}

// Reads one copy whole and unwraps every key in it.
void CheckCopy(const std::string& path, CopyReport& report)
{
    report = CopyReport{};
    report.path = path;
    CopyReading reading;
    ReadCopy(path, reading);
    report.code = reading.code;
    report.health = reading.health;
    if (reading.health != CopyHealth::HEALTHY) {
        return;
    }
    const int32_t rc = CheckWrappedKeys(reading.content);
    if (rc != VE_OK) {
        report.code = rc;
        report.health = HealthOf(rc, true);
        return;
    }
    report.generation = reading.content.generation;
    report.rootVersion = reading.content.rootVersion;
    report.keyCount = reading.content.KeyCount();
}

}  // namespace

int32_t InspectKeyStores(const std::string& primary, const std::string& standby, ReportDetail detail,
                         CopyReport& primaryReport, CopyReport& standbyReport) noexcept
{
    try {
        // Shared lock when engines have used this store: writers hold it exclusively.
        const std::string lockPath = primary + ".lock";
        // Closing the descriptor at the end drops the lock.
        const UniqueFd lock(open(lockPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
        if (lock.Valid() && FlockRetried(lock.Get(), LOCK_SH) != 0) {
            return VE_ERR_LOCK;
        }
        if (detail == ReportDetail::WRAPPED_KEYS) {
            CheckCopy(primary, primaryReport);
            CheckCopy(standby, standbyReport);
            return VE_OK;
        }
        // The primary's keys are listed on the way, as they usually are the
        // ones that count, and the standby is read beside it: when it holds
        // the same bytes it needs no walk of its own. Otherwise it is walked,
        // and walked again to list its keys when they are the ones that count.
        SecureBytes buffer(READ_BLOCK);
        Mirror mirror(standby);
        WalkCopy(primary, true, buffer, primaryReport, &mirror);
        if (mirror.same) {
            standbyReport = CopyReport{};
            standbyReport.path = standby;
            standbyReport.health = primaryReport.health;
            standbyReport.generation = primaryReport.generation;
            standbyReport.rootVersion = primaryReport.rootVersion;
            standbyReport.keyCount = primaryReport.keyCount;
            return VE_OK;
        }
        WalkCopy(standby, false, buffer, standbyReport);
        const SourceCopy source = NewestHealthyCopy(primaryReport.health, primaryReport.generation,
                                                    standbyReport.health, standbyReport.generation);
        if (source != SourceCopy::PRIMARY) {
            std::vector<MasterKeyReport>().swap(primaryReport.keys);
        }
        if (source == SourceCopy::STANDBY) {
            WalkCopy(standby, true, buffer, standbyReport);
        }
        return VE_OK;
    } catch (const std::bad_alloc&) {
        return VE_ERR_NO_MEMORY;
    } catch (...) {
        return VE_ERR_INTERNAL;
    }
}

}  // namespace VardoKms
