// Key store files: safe reads, atomic durable writes, choice and repair of copies.
#include "KeyStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "OvraBase/Log.h"
#include "basic/AtomicFile.h"
#include "basic/Io.h"
#include "basic/Owner.h"
#include "basic/Path.h"

OVRA_LOG_UNIT("src/kms/KeyStore");

namespace VardoKms {
namespace {

using OvraBase::Basic::DirectoryOf;
using OvraBase::Basic::IsOwnRegularFileWithin;
using OvraBase::Basic::UniqueFd;

constexpr mode_t STORE_MODE = 0600;
constexpr std::size_t COMPARE_BLOCK = 64 * 1024;

// Reads the whole copy behind `fd` (`size` bytes by fstat). One byte more
// is asked for: a copy that grew meanwhile reads as damaged.
int32_t ReadImage(int fd, std::size_t size, SecureBytes& image)
{
    image.resize(size + 1);
    std::size_t filled = 0;
    if (!OvraBase::Basic::ReadFull(fd, image.data(), image.size(), filled)) {
        return VE_ERR_STORE_IO;
    }
    image.resize(filled);
    return VE_OK;
}

// true when `path` is a usable copy holding exactly `image`, compared
// through a small buffer: the cheap way to find the standby healthy when it
// agrees with a primary that was checked.
bool HoldsImage(const std::string& path, const SecureBytes& image)
{
    UniqueFd fd;
    std::size_t size = 0;
    bool exists = false;
    if (OpenCopy(path, fd, size, exists) != VE_OK || !exists || size != image.size()) {
        return false;
    }
    SecureBytes block(COMPARE_BLOCK);
    std::size_t offset = 0;
    for (;;) {
        std::size_t filled = 0;
        if (!OvraBase::Basic::ReadFull(fd.Get(), block.data(), block.size(), filled) ||
            filled > image.size() - offset || std::memcmp(block.data(), image.data() + offset, filled) != 0) {
            return false;
        }
        offset += filled;
        if (filled < block.size()) {
            return offset == image.size();
        }
    }
}

// A temporary file of `path`'s own naming can be made beside it.
int32_t CheckCreatable(const std::string& path)
{
    std::string temporary = DirectoryOf(path) + "/" + OvraBase::Basic::TemporaryPrefixFor(path) + "XXXXXX";
    UniqueFd probe(mkostemp(&temporary[0], O_CLOEXEC));
    if (!probe.Valid()) {
        OVRA_LOG_ERROR("Cannot create the key store " << path << ": " << std::strerror(errno));
        return VE_ERR_STORE_IO;
    }
    (void)unlink(temporary.c_str());
    return VE_OK;
}

// Writes `image` over `path` without syncing its directory (the caller
// does, once for both copies).
int32_t ReplaceCopy(const std::string& path, const SecureBytes& image)
{
    const int error = OvraBase::Basic::ReplaceFileAtomically(path, STORE_MODE, image.data(), image.size(), nullptr,
                                                             OvraBase::Basic::DirectorySync::LATER);
    if (error != 0) {
        OVRA_LOG_ERROR("Writing key store " << path << " failed: " << std::strerror(error));
        return VE_ERR_STORE_IO;
    }
    return VE_OK;
}

// Makes the renames in the directory of `path` durable. The directory is
// synced here rather than by the replacement, so that a failed sync has a
// record of its own.
int32_t SyncStoreDirectory(const std::string& path)
{
    if (!OvraBase::Basic::SyncDirectory(DirectoryOf(path).c_str())) {
        OVRA_LOG_ERROR("Key store " << path << " written, but its directory could not be synced");
        return VE_ERR_STORE_IO;
    }
    return VE_OK;
}

// An unsafe or unreadable copy stops the opening before anything is written.
int32_t RefuseUnusableCopy(const std::string& path, const CopyReading& copy)
{
    if (copy.health == CopyHealth::UNSAFE) {
        OVRA_LOG_ERROR("Key store " << path
                                    << " is refused: a link, not a regular file, of another owner or "
                                       "with a mode wider than 0600");
        return VE_ERR_STORE_UNSAFE;
    }
    if (copy.health == CopyHealth::UNREADABLE) {
        OVRA_LOG_ERROR("Key store " << path << " cannot be read (code " << copy.code << ")");
        return copy.code;
    }
    return VE_OK;
}

// Neither copy is healthy: a new store in memory when both are missing and
// that is allowed; otherwise a refusal that leaves both files as they are.
int32_t WithoutHealthyCopy(const StorePaths& paths, CopyHealth primary, CopyHealth standby, BothMissing bothMissing,
                           StoreContent& content)
{
    if (primary == CopyHealth::MISSING && standby == CopyHealth::MISSING) {
        if (bothMissing == BothMissing::START_EMPTY) {
            return NewStoreContent(content);
        }
        OVRA_LOG_ERROR("Both key stores " << paths.primary << " and " << paths.standby << " are missing");
        return VE_ERR_STORE_IO;
    }
    OVRA_LOG_ERROR("No healthy key store: " << paths.primary << " is " << HealthText(primary) << ", "
                                            << paths.standby << " is " << HealthText(standby)
                                            << "; both left unchanged");
    return VE_ERR_STORE_DAMAGED;
}

// Rewrites the other copy from the source's exact bytes when it is missing,
// damaged or older (logged); nothing when both hold the same image.
int32_t RebuildWhenBehind(const std::string& sourcePath, const CopyReading& source, const std::string& otherPath,
                          const CopyReading& other)
{
    const bool otherHealthy = other.health == CopyHealth::HEALTHY;
    if (otherHealthy && (other.image == source.image || *other.image == *source.image)) {
        return VE_OK;
    }
    if (otherHealthy) {
        OVRA_LOG_WARN("Key store " << otherPath << " is older (generation " << other.content.generation << ") than "
                                   << sourcePath << " (generation " << source.content.generation
                                   << "); rebuilding it");
    } else {
        OVRA_LOG_WARN("Key store " << otherPath << " is " << HealthText(other.health) << "; rebuilding it from "
                                   << sourcePath);
    }
    const int32_t rc = WriteCopyAtomically(otherPath, *source.image);
    if (rc != VE_OK) {
        OVRA_LOG_ERROR("Rebuilding key store " << otherPath << " failed (code " << rc << ")");
        return rc;
    }
    OVRA_LOG_INFO("Key store " << otherPath << " rebuilt from " << sourcePath);
    return VE_OK;
}

}  // namespace

CopyHealth HealthOf(int32_t code, bool exists)
{
    switch (code) {
        case VE_OK:
            return exists ? CopyHealth::HEALTHY : CopyHealth::MISSING;
        case VE_ERR_STORE_UNSAFE:
            return CopyHealth::UNSAFE;
        case VE_ERR_STORE_DAMAGED:
            return CopyHealth::DAMAGED;
        default:
            return CopyHealth::UNREADABLE;
    }
}

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

int32_t OpenCopy(const std::string& path, UniqueFd& fd, std::size_t& size, bool& exists)
{
    size = 0;
    int32_t rc = CheckStorePath(path, exists);
    if (rc != VE_OK || !exists) {
        return rc;
    }
    UniqueFd opened(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
    if (!opened.Valid()) {
        const int error = errno;
        exists = error != ENOENT;
        return error == ELOOP ? VE_ERR_STORE_UNSAFE : error == ENOENT ? VE_OK : VE_ERR_STORE_IO;
    }
    struct stat st {};
    if (fstat(opened.Get(), &st) != 0) {
        return VE_ERR_STORE_IO;
    }
    if (!IsOwnRegularFileWithin(st, STORE_MODE)) {
        return VE_ERR_STORE_UNSAFE;
    }
    if (static_cast<std::size_t>(st.st_size) > MAX_STORE_IMAGE_SIZE) {
        return VE_ERR_STORE_DAMAGED;
    }
    size = static_cast<std::size_t>(st.st_size);
    fd = std::move(opened);
    return VE_OK;
}

void ReadCopy(const std::string& path, CopyReading& reading)
{
    reading = CopyReading{};
    UniqueFd fd;
    std::size_t size = 0;
    bool exists = false;
    int32_t rc = OpenCopy(path, fd, size, exists);
    auto image = std::make_shared<SecureBytes>();
    if (rc == VE_OK && exists) {
        rc = ReadImage(fd.Get(), size, *image);
    }
    if (rc == VE_OK && exists) {
        rc = ParseStore(image, reading.content);
    }
    reading.code = rc;
    reading.health = HealthOf(rc, exists);
    if (reading.health == CopyHealth::HEALTHY) {
        reading.image = std::move(image);
    }
}

void RemoveStaleTemporary(const std::string& path)
{
    for (const std::string& temporary : OvraBase::Basic::RemoveStaleTemporaries(path)) {
        OVRA_LOG_WARN("Removed " << temporary << ", left by an interrupted key store write");
    }
}

int32_t WriteCopyAtomically(const std::string& path, const SecureBytes& image)
{
    const int32_t rc = ReplaceCopy(path, image);
    return rc == VE_OK ? SyncStoreDirectory(path) : rc;
}

int32_t OpenStores(const StorePaths& paths, BothMissing bothMissing, StoreContent& content)
{
    CopyReading primary;
    CopyReading standby;
    ReadCopy(paths.primary, primary);
    if (primary.health == CopyHealth::HEALTHY && HoldsImage(paths.standby, *primary.image)) {
        // The same bytes: the same verdict, without checking them again.
        standby.health = CopyHealth::HEALTHY;
        standby.image = primary.image;
        standby.content.generation = primary.content.generation;
    } else {
        ReadCopy(paths.standby, standby);
    }
    int32_t rc = RefuseUnusableCopy(paths.primary, primary);
    if (rc == VE_OK) {
        rc = RefuseUnusableCopy(paths.standby, standby);
    }
    if (rc != VE_OK) {
        return rc;
    }
    const SourceCopy choice =
        NewestHealthyCopy(primary.health, primary.content.generation, standby.health, standby.content.generation);
    if (choice == SourceCopy::NONE) {
        return WithoutHealthyCopy(paths, primary.health, standby.health, bothMissing, content);
    }
    const bool useStandby = choice == SourceCopy::STANDBY;
    CopyReading& source = useStandby ? standby : primary;
    rc = RebuildWhenBehind(useStandby ? paths.standby : paths.primary, source,
                           useStandby ? paths.primary : paths.standby, useStandby ? primary : standby);
    if (rc != VE_OK) {
        return rc;
    }
    content = std::move(source.content);
    return VE_OK;
}

int32_t CheckStoresCreatable(const StorePaths& paths)
{
    const int32_t rc = CheckCreatable(paths.primary);
    return rc == VE_OK ? CheckCreatable(paths.standby) : rc;
}

int32_t SaveStores(const StorePaths& paths, const StoreContent& content, bool creating)
{
    SecureBytes image;
    int32_t rc = SerializeStore(content, image);
    if (rc == VE_OK) {
        rc = ReplaceCopy(paths.primary, image);
    }
    if (rc != VE_OK) {
        return rc;
    }
    rc = ReplaceCopy(paths.standby, image);
    if (rc != VE_OK && creating) {
        // No store existed and nobody has used this one: take the primary
        // back, so that a failed first write leaves no store.
        (void)unlink(paths.primary.c_str());
        (void)OvraBase::Basic::SyncDirectory(DirectoryOf(paths.primary).c_str());
        OVRA_LOG_ERROR("Cannot create the standby key store " << paths.standby << " (code " << rc << ")");
    }
    if (rc != VE_OK) {
        return rc;
    }
    // Both renames become durable with one sync when the copies share a
    // directory; the change is reported done only after it.
    rc = SyncStoreDirectory(paths.primary);
    if (rc == VE_OK && DirectoryOf(paths.standby) != DirectoryOf(paths.primary)) {
        rc = SyncStoreDirectory(paths.standby);
    }
    if (rc == VE_OK && creating) {
        OVRA_LOG_INFO("Created new key stores " << paths.primary << " and " << paths.standby);
    }
    return rc;
}

const char* HealthText(CopyHealth health) noexcept
{
    switch (health) {
        case CopyHealth::HEALTHY:
            return "healthy";
        case CopyHealth::MISSING:
            return "missing";
        case CopyHealth::DAMAGED:
            return "damaged";
        case CopyHealth::UNSAFE:
            return "unsafe";
        case CopyHealth::UNREADABLE:
            return "unreadable";
    }
    return "unknown";
}

SourceCopy NewestHealthyCopy(CopyHealth primaryHealth, uint64_t primaryGeneration, CopyHealth standbyHealth,
                             uint64_t standbyGeneration) noexcept
{
    const bool primaryOk = primaryHealth == CopyHealth::HEALTHY;
    const bool standbyOk = standbyHealth == CopyHealth::HEALTHY;
    if (primaryOk && (!standbyOk || primaryGeneration >= standbyGeneration)) {
        return SourceCopy::PRIMARY;
    }
    return standbyOk ? SourceCopy::STANDBY : SourceCopy::NONE;
}

}  // namespace VardoKms
