// Key store files: safe reads, atomic durable writes, choice and repair of copies.
#include "KeyStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "Crypto.h"
#include "OvraBase/Log.h"
#include "basic/AtomicFile.h"
#include "basic/Io.h"
#include "basic/Owner.h"
#include "basic/Path.h"
#include "basic/UniqueFd.h"

OVRA_LOG_UNIT("src/kms/KeyStore");

namespace VardoKms {
namespace {

using OvraBase::Basic::DirectoryOf;
using OvraBase::Basic::IsOwnRegularFileWithin;
using OvraBase::Basic::UniqueFd;

constexpr mode_t STORE_MODE = 0600;

int32_t CreateStores(const StorePaths& paths, StoreContent& content)
{
    StoreContent fresh;
    fresh.generation = 1;
    fresh.rootVersion = 1;
    int32_t rc = RandomBytes(fresh.root.Data(), fresh.root.Size());
    SecureBytes image;
    if (rc == VE_OK) {
        rc = SerializeStore(fresh, image);
    }
    if (rc != VE_OK) {
        return rc;
    }
    rc = WriteCopyAtomically(paths.primary, image);
    if (rc != VE_OK) {
        OVRA_LOG_ERROR("Cannot create the primary key store " << paths.primary << " (code " << rc << ")");
        return rc;
    }
    rc = WriteCopyAtomically(paths.standby, image);
    if (rc != VE_OK) {
        // The primary was made a moment ago under the lock and holds no key
        // anyone has used: take it back so that a failed start leaves nothing.
        unlink(paths.primary.c_str());
        (void)OvraBase::Basic::SyncDirectory(DirectoryOf(paths.primary).c_str());
        OVRA_LOG_ERROR("Cannot create the standby key store " << paths.standby << " (code " << rc << ")");
        return rc;
    }
    OVRA_LOG_INFO("Created new key stores " << paths.primary << " and " << paths.standby);
    content = std::move(fresh);
    return VE_OK;
}

}  // namespace

int32_t CheckStorePath(const std::string& path, bool& exists)
{
    exists = false;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        return errno == ENOENT ? VE_OK : VE_ERR_STORE_IO;
    }
    exists = true;
    return IsOwnRegularFileWithin(st, STORE_MODE) ? VE_OK : VE_ERR_STORE_UNSAFE;
}

void ReadCopy(const std::string& path, CopyReading& reading)
{
    reading = CopyReading{};
    bool exists = false;
    int32_t rc = CheckStorePath(path, exists);
    if (rc != VE_OK || !exists) {
        reading.health = rc == VE_ERR_STORE_UNSAFE ? CopyHealth::Unsafe
                         : rc != VE_OK             ? CopyHealth::Unreadable
                                                   : CopyHealth::Missing;
        reading.code = rc;
        return;
    }
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
    if (!fd.Valid()) {
        const int error = errno;
        reading.health = error == ELOOP ? CopyHealth::Unsafe
                         : error == ENOENT ? CopyHealth::Missing
                                           : CopyHealth::Unreadable;
        reading.code = error == ELOOP ? VE_ERR_STORE_UNSAFE : error == ENOENT ? VE_OK : VE_ERR_STORE_IO;
        return;
    }
    // Checked again on the open file: the name may have changed since lstat.
    struct stat st {};
    if (fstat(fd.Get(), &st) != 0) {
        reading.health = CopyHealth::Unreadable;
        reading.code = VE_ERR_STORE_IO;
        return;
    }
    if (!IsOwnRegularFileWithin(st, STORE_MODE)) {
        reading.health = CopyHealth::Unsafe;
        reading.code = VE_ERR_STORE_UNSAFE;
        return;
    }
    if (static_cast<std::size_t>(st.st_size) > kMaxStoreImageSize) {
        reading.health = CopyHealth::Damaged;
        reading.code = VE_ERR_STORE_DAMAGED;
        return;
    }
    SecureBytes image(static_cast<std::size_t>(st.st_size) + 1);
    // One byte more than the size: a copy that grew meanwhile reads as damaged.
    std::size_t filled = 0;
    if (!OvraBase::Basic::ReadFull(fd.Get(), image.data(), image.size(), filled)) {
        reading.health = CopyHealth::Unreadable;
        reading.code = VE_ERR_STORE_IO;
        return;
    }
    image.resize(filled);
    rc = ParseStore(image.data(), image.size(), reading.content);
    if (rc != VE_OK) {
        reading.health = rc == VE_ERR_STORE_DAMAGED ? CopyHealth::Damaged : CopyHealth::Unreadable;
        reading.code = rc;
        return;
    }
    reading.health = CopyHealth::Healthy;
    reading.code = VE_OK;
    reading.image = std::move(image);
}

void RemoveStaleTemporary(const std::string& path)
{
    for (const std::string& temporary : OvraBase::Basic::RemoveStaleTemporaries(path)) {
        OVRA_LOG_WARN("Removed " << temporary << ", left by an interrupted key store write");
    }
}

int32_t WriteCopyAtomically(const std::string& path, const SecureBytes& image)
{
    // The directory is synced here rather than by the replacement, so that a
    // failed sync has a record of its own.
    const int error = OvraBase::Basic::ReplaceFileAtomically(path, STORE_MODE, image.data(), image.size(), nullptr,
                                                             OvraBase::Basic::DirectorySync::LATER);
    if (error != 0) {
        OVRA_LOG_ERROR("Writing key store " << path << " failed: " << std::strerror(error));
        return VE_ERR_STORE_IO;
    }
    if (!OvraBase::Basic::SyncDirectory(DirectoryOf(path).c_str())) {
        OVRA_LOG_ERROR("Key store " << path << " written, but its directory could not be synced");
        return VE_ERR_STORE_IO;
    }
    return VE_OK;
}

int32_t OpenStores(const StorePaths& paths, bool createWhenMissing, StoreContent& content)
{
    CopyReading primary;
    CopyReading standby;
    ReadCopy(paths.primary, primary);
    ReadCopy(paths.standby, standby);

    for (const CopyReading* copy : {&primary, &standby}) {
        const std::string& path = copy == &primary ? paths.primary : paths.standby;
        if (copy->health == CopyHealth::Unsafe) {
            OVRA_LOG_ERROR("Key store " << path
                                        << " is refused: a link, not a regular file, of another owner or "
                                           "with a mode wider than 0600");
            return VE_ERR_STORE_UNSAFE;
        }
        if (copy->health == CopyHealth::Unreadable) {
            OVRA_LOG_ERROR("Key store " << path << " cannot be read (code " << copy->code << ")");
            return copy->code;
        }
    }

    const bool primaryOk = primary.health == CopyHealth::Healthy;
    const bool standbyOk = standby.health == CopyHealth::Healthy;
    if (!primaryOk && !standbyOk) {
        if (primary.health == CopyHealth::Missing && standby.health == CopyHealth::Missing) {
            if (createWhenMissing) {
                return CreateStores(paths, content);
            }
            OVRA_LOG_ERROR("Both key stores " << paths.primary << " and " << paths.standby << " are missing");
            return VE_ERR_STORE_IO;
        }
        OVRA_LOG_ERROR("No healthy key store: " << paths.primary << " is " << HealthText(primary.health) << ", "
                                                << paths.standby << " is " << HealthText(standby.health)
                                                << "; both left unchanged");
        return VE_ERR_STORE_DAMAGED;
    }

    const bool useStandby = !primaryOk || (standbyOk && standby.content.generation > primary.content.generation);
    CopyReading& source = useStandby ? standby : primary;
    CopyReading& other = useStandby ? primary : standby;
    const std::string& sourcePath = useStandby ? paths.standby : paths.primary;
    const std::string& otherPath = useStandby ? paths.primary : paths.standby;
    if (other.health != CopyHealth::Healthy || other.image != source.image) {
        if (other.health == CopyHealth::Healthy) {
            OVRA_LOG_WARN("Key store " << otherPath << " is older (generation " << other.content.generation
                                       << ") than " << sourcePath << " (generation " << source.content.generation
                                       << "); rebuilding it");
        } else {
            OVRA_LOG_WARN("Key store " << otherPath << " is " << HealthText(other.health) << "; rebuilding it from "
                                       << sourcePath);
        }
        const int32_t rc = WriteCopyAtomically(otherPath, source.image);
        if (rc != VE_OK) {
            OVRA_LOG_ERROR("Rebuilding key store " << otherPath << " failed (code " << rc << ")");
            return rc;
        }
        OVRA_LOG_INFO("Key store " << otherPath << " rebuilt from " << sourcePath);
    }
    content = std::move(source.content);
    return VE_OK;
}

int32_t SaveStores(const StorePaths& paths, const StoreContent& content)
{
    SecureBytes image;
    int32_t rc = SerializeStore(content, image);
    if (rc != VE_OK) {
        return rc;
    }
    rc = WriteCopyAtomically(paths.primary, image);
    if (rc != VE_OK) {
        return rc;
    }
    return WriteCopyAtomically(paths.standby, image);
}

const char* HealthText(CopyHealth health)
{
    switch (health) {
        case CopyHealth::Healthy:
            return "healthy";
        case CopyHealth::Missing:
            return "missing";
        case CopyHealth::Damaged:
            return "damaged";
        case CopyHealth::Unsafe:
            return "unsafe";
        case CopyHealth::Unreadable:
            return "unreadable";
    }
    return "unknown";
}

}  // namespace VardoKms
